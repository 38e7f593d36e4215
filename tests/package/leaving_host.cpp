// leaving_host WAY URL PATH: a host that ends while downloads and requests run.  URL sends a part and stalls.
//   download    leaves main with a download of the C interface
//   request     leaves main with a request that nobody has collected
//   everything  both, with a download that is paused and one that waits for its next try
//   thread      exit() from another thread, main waits in a request
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>

#include "support/wait_until.h"
#include "xfer/xfer.h"

namespace {

std::uint64_t startDownload(const std::string& url, const std::string& path) {
  const std::uint64_t id = xfer_downloadFile(url.c_str(), path.c_str(), "", 4, "", 0, 1'000'000, "");
  const bool runs = support::waitUntil([&] {
    std::uint64_t done = 0;
    std::uint32_t error = 0;
    std::uint8_t finished = 0;
    xfer_getProgress(id, &done, &error, &finished);
    return done > 0;
  });
  if (!runs) std::_Exit(4);
  return id;
}

void startRequest(const std::string& url) {
  std::uint64_t id = 0;
  if (xfer_downloadAsync(url.c_str(), &id, "", "", "", "") != 0) std::_Exit(5);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  const std::string way = argv[1];
  const std::string url = argv[2];
  const std::string path = argv[3];
  if (way == "download") {
    startDownload(url, path);
  } else if (way == "request") {
    startRequest(url);
  } else if (way == "everything") {
    startDownload(url, path);
    xfer_downloadPause(startDownload(url, path + ".paused"));
    xfer_downloadFile("http://127.0.0.1:1/refused", (path + ".refused").c_str(), "", 4, "", 0, 1'000'000, "");
    startRequest(url);
    startRequest("http://nonexistent.invalid/");
  } else if (way == "thread") {
    startDownload(url, path);
    startRequest(url);
    std::thread([] { std::exit(0); }).detach();
    std::this_thread::sleep_for(std::chrono::hours(1));
  } else {
    return 2;
  }
  return 0;
}
