#include "remote_file.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "fetch_stoppable.h"
#include "log.h"
#include "request_text.h"

namespace xfer {
namespace {

constexpr const char* kLogTag = "DlJob";
constexpr std::uint64_t kMostDrained = 65536;

// Whether to read the rest of a body so that its connection can be reused.
bool worthReading(const ResponseHead& head, std::uint64_t received) {
  if (head.contentLengthsDiffer || received > kMostDrained) return false;
  if (const auto length = head.bodyLength()) return *length <= kMostDrained;
  // Unknown length: a one-byte range ends soon, a whole file may not.
  return head.status == 206;
}

class ProbeReceiver final : public FetchReceiver {
 public:
  Next header(std::string_view line) override {
    if (received_ != 0) return Next::More;  // trailers
    reader_.add(line);
    // Only a 200 is certainly the last response.
    const bool large = reader_.headIsWhole() && head().status == 200 && !worthReading(head(), received_);
    return large ? Next::Enough : Next::More;
  }

  Next body(std::int32_t /*status*/, std::string_view bytes) override {
    received_ += bytes.size();
    return worthReading(reader_.head(), received_) ? Next::More : Next::Enough;
  }

  [[nodiscard]] const ResponseHead& head() const { return reader_.head(); }

  /// Whether the head has arrived and answers the probe; a failure in the body does not matter then.
  [[nodiscard]] bool knows() const { return reader_.headIsWhole() && (head().status == 200 || head().status == 206); }

 private:
  ResponseHeadReader reader_;
  std::uint64_t received_ = 0;
};

}  // namespace

RemoteFileInfo remoteFileInfo(const ResponseHead& head) {
  RemoteFileInfo info;
  info.httpStatus = head.status;
  info.contentType = head.contentType;
  if (head.status == 416 && head.unsatisfiedTotal == 0U) return info;  // an empty file has no first byte
  if (head.status != 200 && head.status != 206) {
    info.error = head.status;
  } else if (head.contentLengthsDiffer) {
    info.error = CURLE_RANGE_ERROR;
  } else if (head.status == 206) {
    info.acceptRanges = true;
    if (head.contentRange) info.size = head.contentRange->total.value_or(0);
  } else {
    info.acceptRanges = head.acceptRangesBytes;
    info.size = head.bodyLength().value_or(0);
  }
  return info;
}

ProbedFile probeStoppable(const DownloadRequest& download, int timeoutSec, const StopSignal& stop,
                          const TlsTrust& trust) {
  Request request;
  request.url = download.url;
  request.cookie = download.cookie;
  request.headers = download.headers;
  std::erase_if(request.headers, [](const std::string& line) { return setsField(line, "range"); });
  request.headers.emplace_back("Range: bytes=0-0");
  request.proxy = download.proxy;
  request.timeoutSec = timeoutSec;
  request.quiet = true;
  ProbeReceiver receiver;
  const FetchEnd end = fetchInto(request, receiver, stop, ConnectHeads::Hidden, trust);
  if (end.curlCode != 0 && !receiver.knows()) {
    RemoteFileInfo failed;
    failed.error = end.curlCode;
    return {failed, end.failure};
  }
  const RemoteFileInfo info = remoteFileInfo(receiver.head());
  if (info.error == CURLE_RANGE_ERROR) {
    XFER_LOG(log::kFailure, "probe | answer refused | reason=Content-Length values differ");
    return {info, ShortText::of("Content-Length values differ")};
  }
  if (info.error == 0) return info;
  return {info, ShortText::of("HTTP status ", static_cast<std::uint64_t>(std::max(info.error, 0)))};
}

}  // namespace xfer
