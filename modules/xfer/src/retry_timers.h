// Threads that each wait for one delay and then run one action.
//
// Threads: schedule from any thread, a timer's own action included; joinAll and destruction from any thread but a
//          timer's.
// Errors:  schedule throws std::system_error when no thread can be started, std::bad_alloc without memory; an action
//          must not throw.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <thread>

#include "sys/mutex.h"

namespace xfer {

class RetryTimers {
 public:
  using Wait = std::function<void(std::uint64_t delayMs)>;

  /// wait blocks a timer until its delay is over or the owner wakes it earlier.
  explicit RetryTimers(Wait wait) : wait_(std::move(wait)) {}
  ~RetryTimers() { joinAll(); }
  RetryTimers(const RetryTimers&) = delete;
  RetryTimers& operator=(const RetryTimers&) = delete;

  /// Runs action on a new thread after the delay.  Also joins threads whose action is over.
  void schedule(std::uint64_t delayMs, std::function<void()> action) SYS_EXCLUDES(mutex_);

  /// Joins all timers scheduled so far; the caller wakes them first.
  void joinAll() SYS_EXCLUDES(mutex_);

 private:
  struct Timer {
    std::thread thread;
    std::atomic<bool> over{false};
  };

  const Wait wait_;
  sys::Mutex mutex_;
  std::list<Timer> timers_ SYS_GUARDED_BY(mutex_);
};

}  // namespace xfer
