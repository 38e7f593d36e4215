// Short-lived threads that each wait for one delay and then act.
//
// Threads: schedule from any thread, a timer's own action included; stop from any thread but a timer's.
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

  /// wait is what a timer does until its delay is over, or it is woken before.
  explicit RetryTimers(Wait wait) : wait_(std::move(wait)) {}
  ~RetryTimers() { joinAll(); }
  RetryTimers(const RetryTimers&) = delete;
  RetryTimers& operator=(const RetryTimers&) = delete;

  /// Also clears away the threads whose action is over.
  void schedule(std::uint64_t delayMs, std::function<void()> action) SYS_EXCLUDES(mutex_);

  /// Waits for every timer to end; waking them is the caller's business.
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
