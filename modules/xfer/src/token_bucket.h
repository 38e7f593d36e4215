// Decides when the next piece of a rate-limited stream may pass.  Clock-free: callers pass the time.
//
// Tokens are bytes.  They accrue at the rate, and each piece spends its size.  Unspent tokens are capped at 100 ms of
// the rate, or at the largest piece plus 20 ms of the rate when that is more; the cap bounds the burst after a lull.
//
// Threads: one at a time.
// Units:   rates are bytes per second, times nanoseconds of one monotonic clock.
#pragma once

#include <algorithm>
#include <cstdint>

namespace xfer {

class TokenBucket {
 public:
  /// 0 removes the limit.  Keeps the tokens, so that the next transfer in the same slot continues at the limit.
  void setRate(std::uint64_t bytesPerSec, std::uint64_t nowNs) {
    fill(nowNs);
    rate_ = static_cast<double>(bytesPerSec);
  }

  /// Spends size tokens if there are enough, or if there is no limit; else false.
  bool take(std::uint64_t size, std::uint64_t nowNs) {
    if (rate_ <= 0) return true;
    const auto wanted = static_cast<double>(size);
    largest_ = std::max(largest_, wanted);
    fill(nowNs);
    if (tokens_ < wanted) return false;
    tokens_ -= wanted;
    return true;
  }

  /// Whether take(size) would succeed.
  [[nodiscard]] bool wouldTake(std::uint64_t size, std::uint64_t nowNs) {
    fill(nowNs);
    return rate_ <= 0 || tokens_ >= static_cast<double>(size);
  }

 private:
  static constexpr double kKeptSec = 0.1;
  static constexpr double kLookSec = 0.02;  // two turns of the calling loop

  void fill(std::uint64_t nowNs) {
    const double elapsedSec = static_cast<double>(nowNs - filledNs_) / 1e9;
    // The first call only starts the clock.
    if (filledNs_ != 0)
      tokens_ = std::min(tokens_ + elapsedSec * rate_, std::max(rate_ * kKeptSec, largest_ + rate_ * kLookSec));
    filledNs_ = nowNs;
  }

  double rate_ = 0;
  double tokens_ = 0;
  double largest_ = 0;  // largest piece so far: it must fit at any rate
  std::uint64_t filledNs_ = 0;
};

}  // namespace xfer
