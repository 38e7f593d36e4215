#include "request.h"

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <thread>

#include "common_abilities.h"
#include "digest.h"
#include "xfer/xfer.hpp"

namespace xfer_get {
namespace {

const Outcome kNotWritten = {kFile, "standard output could not be written"};

bool print(std::string_view bytes) {
  return std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size() && std::fflush(stdout) == 0;
}

// Keeps a stream at a speed, by not taking more of it.
class Pace {
 public:
  explicit Pace(std::uint64_t bytesPerSec) : bytesPerSec_(bytesPerSec) {}

  void passed(std::uint64_t bytes) {
    if (bytesPerSec_ == 0) return;
    bytes_ += bytes;
    const double seconds = static_cast<double>(bytes_) / static_cast<double>(bytesPerSec_);
    std::this_thread::sleep_until(begun_ + std::chrono::duration_cast<Clock::duration>(Seconds(seconds)));
  }

 private:
  using Clock = std::chrono::steady_clock;
  using Seconds = std::chrono::duration<double>;

  std::uint64_t bytesPerSec_;
  std::uint64_t bytes_ = 0;
  Clock::time_point begun_ = Clock::now();
};

xfer::Request requestOf(const Options& options, const net::Proxy& proxy) {
  xfer::Request request;
  request.url = options.urls.front();
  request.cookie = options.cookie;
  request.headers = options.headers;
  request.proxy = proxy;
  request.body = options.data;
  request.followRedirects = !options.noRedirect;
  request.timeoutSec = static_cast<std::int32_t>(options.maxTimeSec);
  if (options.connectTimeoutSec) request.connectTimeoutSec = static_cast<std::int32_t>(*options.connectTimeoutSec);
  // A limit can make a transfer slower than what counts as a stall.
  constexpr std::uint32_t kStallTimeoutSec = 30;  // as a download's
  const std::uint32_t stallSec = options.bytesPerSec != 0 ? 0 : options.stallTimeoutSec.value_or(kStallTimeoutSec);
  request.lowSpeedTimeSec = static_cast<std::int32_t>(stallSec);
  return request;
}

// One request, whose last answer's body goes to take(status, bytes), which tells whether standard output is in order.
template <class Take>
Outcome stream(const Options& options, const net::Proxy& proxy, Take take) {
  bool written = true;
  std::string failure;
  xfer::FetchOptions abilities;
  setCommonAbilities(abilities, options);
  abilities.setOnFailure([&failure](const std::string& text) { failure = text; });
  abilities.setOnBody(
      [&written, &take](std::int32_t status, std::string_view bytes) { return written = take(status, bytes); });
  const xfer::Response response = xfer::fetch(requestOf(options, proxy), abilities);
  if (!written) return kNotWritten;
  return responseOutcome({options.urls.front(), "", !proxy.host.empty()}, response, failure);
}

}  // namespace

Outcome printAnswer(const Options& options, const net::Proxy& proxy) {
  if (!options.head && !options.include) {
    return stream(options, proxy, [](std::int32_t /*status*/, std::string_view bytes) { return print(bytes); });
  }
  // The headers are known to be whole when the request has ended.
  xfer::FetchOptions abilities;
  setCommonAbilities(abilities, options);
  if (options.head) abilities.setMethod("HEAD");
  std::string failure;
  abilities.setOnFailure([&failure](const std::string& text) { failure = text; });
  const xfer::Response response = xfer::fetch(requestOf(options, proxy), abilities);
  if (!print(response.headers) || !print(response.body)) return kNotWritten;
  return responseOutcome({options.urls.front(), "", !proxy.host.empty()}, response, failure);
}

Outcome printFile(const Options& options, const net::Proxy& proxy, const std::optional<Checksum>& checksum) {
  constexpr std::int32_t kFirstErrorStatus = 400;
  Pace pace(options.bytesPerSec);
  std::optional<StreamDigest> digest;
  if (checksum) digest.emplace(checksum->algorithm);
  Outcome outcome = stream(options, proxy, [&](std::int32_t status, std::string_view bytes) {
    if (status >= kFirstErrorStatus) return true;
    if (digest) digest->add(bytes.data(), bytes.size());
    pace.passed(bytes.size());
    return print(bytes);
  });
  if (outcome.code != kDone || !digest) return outcome;
  return checksumOutcome({options.urls.front(), "", false}, *checksum, digest->finish());
}

Outcome printInfo(const Options& options, const net::Proxy& proxy) {
  constexpr int kTimeoutSec = 30;
  const std::string& url = options.urls.front();
  std::string failure;
  xfer::FetchOptions abilities;
  setCommonAbilities(abilities, options);
  abilities.setOnFailure([&failure](const std::string& text) { failure = text; });
  const int timeoutSec = options.maxTimeSec != 0 ? static_cast<int>(options.maxTimeSec) : kTimeoutSec;
  const xfer::RemoteFileInfo info = xfer::probeRemoteFile(url, proxy, options.cookie, timeoutSec, abilities);
  Outcome outcome = infoOutcome({url, "", !proxy.host.empty()}, info, failure);
  if (outcome.code != kDone) return outcome;
  const bool written = print("size: " + (info.size != 0 ? std::to_string(info.size) : std::string("unknown")) +
                             "\nranges: " + (info.acceptRanges ? "yes" : "no") + "\ntype: " +
                             (info.contentType.empty() ? std::string("unknown") : info.contentType) + "\n");
  return written ? outcome : kNotWritten;
}

}  // namespace xfer_get
