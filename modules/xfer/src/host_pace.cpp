#include "host_pace.h"

#include <algorithm>
#include <array>
#include <cmath>

namespace xfer {
namespace {

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kLongestDelay = 60 * kSecond;
constexpr std::uint64_t kGrowAfter = 10 * kSecond;
constexpr std::uint64_t kGrowAtLatest = 320 * kSecond;
constexpr std::uint64_t kProbeTime = 3 * kSecond;  // the meters of rates need 1 s
constexpr double kWorthwhile = 1.05;
constexpr double kNoToken = 1e-6;

constexpr std::int32_t kForbidden = 403;
constexpr std::int32_t kRequestTimeout = 408;
constexpr std::int32_t kTooEarly = 425;
constexpr std::int32_t kTooMany = 429;
constexpr std::int32_t kUnavailable = 503;

// libcurl's: no connection, no TLS, no answer, not sent, not received, timed out.
constexpr std::array<std::int32_t, 6> kUnservedCodes{7, 35, 52, 55, 56, 28};
// libcurl's: broken connections of HTTP/2 and HTTP/3.
constexpr std::array<std::int32_t, 4> kBrokenCodes{16, 92, 95, 96};

template <std::size_t size>
bool isOneOf(const std::array<std::int32_t, size>& codes, std::int32_t code) {
  return std::find(codes.begin(), codes.end(), code) != codes.end();
}

bool isLasting(std::int32_t status) {
  return status >= 400 && status <= 499 && status != kRequestTimeout && status != kTooEarly && status != kTooMany;
}

// Whether the host is known to refuse, and not to be busy or out of reach.
bool endsTheJob(const HostPace::Failure& failure, bool everServed) {
  const std::int32_t status = failure.end.status;
  if (isLasting(status)) return !everServed;
  if (status == kRequestTimeout || status == kTooEarly || status == kTooMany) return false;
  if (failure.verdict == Verdict::Rejected) return true;
  return failure.verdict == Verdict::Fatal && !isOneOf(kBrokenCodes, failure.end.code);
}

}  // namespace

HostPace::HostPace(const Settings& settings)
    : settings_(settings),
      randomState_(settings.seed),
      tokens_(static_cast<double>(std::max<std::size_t>(settings.maxTries, 1))),
      growAfterNs_(kGrowAfter) {}

std::size_t HostPace::connections() const {
  if (scouting_) return 1;
  const std::size_t wanted = std::max<std::size_t>(settings_.connections, 1);
  return terms_.connections == 0 ? wanted : std::min(wanted, terms_.connections);
}

std::uint64_t HostPace::notBeforeNs() const {
  return std::max(terms_.notBeforeNs, waitNs_);
}

void HostPace::adopt(const HostTerms& terms) {
  terms_.notBeforeNs = std::max(terms_.notBeforeNs, terms.notBeforeNs);
  if (terms.connections == 0) return;
  terms_.connections = terms_.connections == 0 ? terms.connections : std::min(terms_.connections, terms.connections);
}

void HostPace::begin(std::uint64_t nowNs) {
  if (progressNs_ == 0) progressNs_ = nowNs;
  if (troubleNs_ == 0) troubleNs_ = nowNs;
}

void HostPace::answered() {
  scouting_ = false;
  everServed_ = true;
}

void HostPace::delivered(std::uint64_t nowNs) {
  progressNs_ = nowNs;
}

void HostPace::paidBack() {
  tokens_ = std::min(tokens_ + 1, static_cast<double>(std::max<std::size_t>(settings_.maxTries, 1)));
  round_ = 0;
}

std::optional<std::uint64_t> HostPace::failed(const Failure& failure, std::uint64_t nowNs) {
  const TransferEnd& end = failure.end;
  const bool others = failure.delivering > 0;
  if (endsTheJob(failure, everServed_)) return std::nullopt;
  if (settings_.retryMaxNs > 0 && nowNs - std::min(progressNs_, nowNs) >= settings_.retryMaxNs) return std::nullopt;
  if (end.retryAfterSec) {
    if (*end.retryAfterSec > settings_.longestWaitNs / kSecond) return std::nullopt;
    const auto wait = static_cast<double>(*end.retryAfterSec * kSecond);
    const auto later = static_cast<std::uint64_t>(wait * 0.1 * random());
    terms_.notBeforeNs = std::max(terms_.notBeforeNs, nowNs + *end.retryAfterSec * kSecond + later);
  }
  if (failure.brought < kProgress) {
    const bool unserved = end.status == 0 && !failure.answered && isOneOf(kUnservedCodes, end.code);
    const bool refused = end.status == kForbidden || end.status == kTooMany || end.status == kUnavailable;
    const bool newRound = failure.begunNs > countedNs_;
    if (others && (unserved || refused)) {
      fewer(failure.inFlight, failure.begunNs, nowNs);
      if (refused && newRound && !end.retryAfterSec) holdBack(nowNs);
    } else if (newRound) {
      tokens_ -= 1 - static_cast<double>(failure.brought) / static_cast<double>(kProgress);
      if (tokens_ < kNoToken && !others) return std::nullopt;
      if (tokens_ < kNoToken) {
        // The others go on; what is missing is tried again by one of them.
        tokens_ = 0;
        allow(std::min(connections(), failure.inFlight));
        troubleNs_ = nowNs;
      }
      if (!end.retryAfterSec) holdBack(nowNs);
    }
    if (!others) scouting_ = true;
    if (newRound) countedNs_ = nowNs;
  }
  const std::uint64_t wait = notBeforeNs();
  return wait > nowNs ? wait - nowNs : 0;
}

void HostPace::unanswered(std::size_t inFlight, std::uint64_t nowNs) {
  if (probing_) {
    growAfterNs_ = std::min(growAfterNs_ * 2, kGrowAtLatest);
    probing_ = false;
  }
  allow(std::max<std::size_t>(inFlight, connections() - 1));
  troubleNs_ = nowNs;
}

void HostPace::turn(std::size_t inFlight, double sumRate, std::uint64_t nowNs) {
  if (!probing_) {
    const bool limited = terms_.connections != 0 && terms_.connections < settings_.connections;
    if (!limited || scouting_) return;
    if (nowNs < troubleNs_ + growAfterNs_ || inFlight < terms_.connections) return;
    probing_ = true;
    probeNs_ = 0;
    rateBefore_ = sumRate;
    allow(terms_.connections + 1);
    return;
  }
  if (inFlight < terms_.connections) {
    probeNs_ = 0;  // there was no work for it, or it has ended
    return;
  }
  if (probeNs_ == 0) probeNs_ = nowNs;
  if (nowNs < probeNs_ + kProbeTime) return;
  probing_ = false;
  troubleNs_ = nowNs;
  if (sumRate >= kWorthwhile * rateBefore_) {
    growAfterNs_ = kGrowAfter;
    if (terms_.connections >= settings_.connections) terms_.connections = 0;
  } else {
    allow(terms_.connections - 1);
    growAfterNs_ = std::min(growAfterNs_ * 2, kGrowAtLatest);
  }
}

// Those that are served stay; when that was too many as well, half of them.
void HostPace::fewer(std::size_t inFlight, std::uint64_t begunNs, std::uint64_t nowNs) {
  const bool again = loweredNs_ != 0 && begunNs > loweredNs_;
  if (probing_) {
    probing_ = false;
    growAfterNs_ = std::min(growAfterNs_ * 2, kGrowAtLatest);
    allow(std::min(connections() - 1, inFlight));
  } else {
    allow(std::min(again ? connections() / 2 : connections(), inFlight));
  }
  loweredNs_ = troubleNs_ = nowNs;
}

void HostPace::allow(std::size_t connections) {
  terms_.connections = std::max<std::size_t>(connections, 1);
}

void HostPace::holdBack(std::uint64_t nowNs) {
  const std::uint64_t most = std::min(kSecond << std::min(round_, 6U), kLongestDelay);
  ++round_;
  waitNs_ = std::max(waitNs_, nowNs + static_cast<std::uint64_t>(static_cast<double>(most) * random()));
}

// In [0, 1).
double HostPace::random() {
  std::uint64_t bits = randomState_ += 0x9e3779b97f4a7c15;
  bits = (bits ^ (bits >> 30)) * 0xbf58476d1ce4e5b9;
  bits = (bits ^ (bits >> 27)) * 0x94d049bb133111eb;
  bits ^= bits >> 31;
  return static_cast<double>(bits >> 11) * 0x1p-53;
}

}  // namespace xfer
