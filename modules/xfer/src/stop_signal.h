// A request to stop, made once and seen by whoever waits or polls for it.
//
// Threads: every operation from any thread.
#pragma once

#include <atomic>
#include <chrono>

#include "sys/mutex.h"

namespace xfer {

class StopSignal {
 public:
  /// Ends every waitFor, now and from now on.
  void set() {
    const sys::MutexLock lock(mutex_);
    set_.store(true, std::memory_order_release);
    changed_.notifyAll();
  }

  [[nodiscard]] bool isSet() const { return set_.load(std::memory_order_acquire); }

  /// Returns after time, or at once when the signal is or gets set.
  void waitFor(std::chrono::milliseconds time) {
    const auto until = std::chrono::steady_clock::now() + time;
    sys::MutexLock lock(mutex_);
    while (!isSet() && std::chrono::steady_clock::now() < until) changed_.waitUntil(lock, until);
  }

 private:
  sys::Mutex mutex_;
  sys::Condition changed_;
  std::atomic<bool> set_{false};  // atomic so that polling takes no lock
};

}  // namespace xfer
