// from_cxx PORT: a host in C++.  PORT refuses connections.
#include <xfer/xfer.h>

#include <string>
#include <xfer/xfer.hpp>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  constexpr int kRefused = 7;  // libcurl's code
  const std::string url = std::string("http://127.0.0.1:") + argv[1] + "/file";

  xfer::DownloadRequest what;
  what.url = url;
  what.path = "from_cxx.out";
  xfer::DownloadJob job(what, {});
  job.start();
  job.wait();
  if (job.snapshot().state != xfer::JobState::Failed || job.snapshot().errorCode != kRefused) return 3;

  xfer::Request request;
  request.url = url;
  if (xfer::fetch(request).curlCode != kRefused) return 4;
  if (xfer::fetchAsync(request).get().curlCode != kRefused) return 5;
  std::int64_t length = 0;
  if (xfer_getContentLength(url, &length) || length != -1) return 6;
  return 0;
}
