// Decides when the next piece of a rate-limited stream may pass.  Clock-free: callers give the time.
//
// Tokens are bytes.  They come in at the rate and are spent by pieces.  What is not spent is kept up to a tenth of a
// second's worth, or one piece and what comes in until somebody looks again, if that is more; this bounds the burst
// after a lull.
//
// Threads: one at a time.
// Units:   bytes per second; times are nanoseconds of one monotonic clock.
#pragma once

#include <algorithm>
#include <cstdint>

namespace xfer {

class TokenBucket {
 public:
  /// 0 lifts the limit.  Tokens in hand are kept, so that a transfer that follows another one on the same share of the
  /// limit neither gains nor loses by the change.
  void setRate(std::uint64_t bytesPerSec, std::uint64_t nowNs) {
    fill(nowNs);
    rate_ = static_cast<double>(bytesPerSec);
  }

  /// Whether size bytes may pass now; if so, they are paid for.
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
  static constexpr double kLookSec = 0.02;  // two turns of the loop that asks

  void fill(std::uint64_t nowNs) {
    const double elapsedSec = static_cast<double>(nowNs - filledNs_) / 1e9;
    // The first fill only starts the clock.
    if (filledNs_ != 0)
      tokens_ = std::min(tokens_ + elapsedSec * rate_, std::max(rate_ * kKeptSec, largest_ + rate_ * kLookSec));
    filledNs_ = nowNs;
  }

  double rate_ = 0;
  double tokens_ = 0;
  double largest_ = 0;  // piece asked for so far: it must fit, however low the rate
  std::uint64_t filledNs_ = 0;
};

}  // namespace xfer
