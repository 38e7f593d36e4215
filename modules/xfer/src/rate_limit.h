// A speed limit that many transfers keep together, on however many threads.
//
// Tokens are bytes and accrue at the limit's rate.  A piece of a body takes a place in a queue, and passes once it is
// first and there are tokens for all of it: pieces pass in the order in which they came, nobody is passed over, and the
// sum never exceeds the rate.  While nobody waits, tokens for 100 ms are saved at most: this bounds the burst after a
// lull.
//
// Reads no clock: callers pass the time.
//
// Threads: any; a gate, and the limits that it is used with, by one at a time.
// Errors:  none; nothing allocates.
// Units:   rates are bytes per second, times nanoseconds of one monotonic clock for all callers.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "sys/mutex.h"

namespace xfer {

class RateLimit {
 public:
  RateLimit() = default;
  RateLimit(const RateLimit&) = delete;
  RateLimit& operator=(const RateLimit&) = delete;

  /// 0 removes the limit: what waits passes.
  void setRate(std::uint64_t bytesPerSec, std::uint64_t nowNs) noexcept SYS_EXCLUDES(mutex_);

  [[nodiscard]] std::uint64_t rate() const noexcept { return rate_; }

  /// Whether setRate was ever called.
  [[nodiscard]] bool isSet() const noexcept { return isSet_; }

 private:
  friend class PieceGate;

  // One gate's place; it belongs to the gate and is linked while it waits.
  struct Place {
    RateLimit* limit = nullptr;  // that it waits at, or has bytes of
    Place* before = nullptr;
    Place* behind = nullptr;
    std::uint64_t wanted = 0;   // bytes that it waits for; 0: it does not wait
    std::uint64_t granted = 0;  // bytes that may pass
  };

  bool ask(Place& place, std::uint64_t size, std::uint64_t nowNs) noexcept SYS_EXCLUDES(mutex_);
  bool isServed(const Place& place, std::uint64_t nowNs) noexcept SYS_EXCLUDES(mutex_);
  void release(Place& place) noexcept SYS_EXCLUDES(mutex_);

  void advance(std::uint64_t nowNs) noexcept SYS_REQUIRES(mutex_);
  void serve() noexcept SYS_REQUIRES(mutex_);
  void unlink(Place& place) noexcept SYS_REQUIRES(mutex_);

  std::atomic<std::uint64_t> rate_{0};  // written under the mutex
  std::atomic<bool> isSet_{false};

  sys::Mutex mutex_;
  Place* first_ SYS_GUARDED_BY(mutex_) = nullptr;
  Place* last_ SYS_GUARDED_BY(mutex_) = nullptr;
  double tokens_ SYS_GUARDED_BY(mutex_) = 0;
  std::uint64_t atNs_ SYS_GUARDED_BY(mutex_) = 0;
};

/// The limits of one job; they outlive its transfers.
struct SpeedLimits {
  RateLimit* own = nullptr;     ///< of the job alone; until it is set, its connections have fixed shares
  RateLimit* shared = nullptr;  ///< of several jobs

  /// The lower of the two; 0: none.
  [[nodiscard]] std::uint64_t lowest() const noexcept;
};

/// One transfer's places in the queues of its job's limits.
class PieceGate {
 public:
  PieceGate() = default;
  ~PieceGate() { leave(); }
  PieceGate(const PieceGate&) = delete;
  PieceGate& operator=(const PieceGate&) = delete;

  /// Whether a piece of this size may pass; if not, it takes its places.
  [[nodiscard]] bool opensFor(const SpeedLimits& limits, std::uint64_t size, std::uint64_t nowNs) noexcept;

  /// Whether the piece that has places may pass.
  [[nodiscard]] bool isOpen(std::uint64_t nowNs) const noexcept;

  /// A piece of this size, for which it was open, has passed.
  void passed(std::uint64_t size) noexcept;

  /// Gives up the places, and what was granted.
  void leave() noexcept;

 private:
  std::array<RateLimit::Place, 2> places_{};
};

}  // namespace xfer
