// A stop request: set once, seen by every thread that waits or polls for it.
//
// Threads: any.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <utility>

#include "sys/mutex.h"

namespace xfer {

class StopSignal {
 public:
  /// Makes set call wake, for a thread that waits for something else.  Does not call wake when the signal is already
  /// set: check isSet after construction and before every wait.
  class Listener {
   public:
    /// wake runs on the thread that calls set, under the signal's lock: it must not block or use the signal.
    Listener(const StopSignal& signal, std::function<void()> wake) : signal_(signal), wake_(std::move(wake)) {
      const sys::MutexLock lock(signal_.mutex_);
      next_ = std::exchange(signal_.listeners_, this);
      if (next_ != nullptr) next_->previous_ = this;
    }

    /// wake is not running, and is not called any more, when this returns.
    ~Listener() {
      const sys::MutexLock lock(signal_.mutex_);
      (previous_ != nullptr ? previous_->next_ : signal_.listeners_) = next_;
      if (next_ != nullptr) next_->previous_ = previous_;
    }

    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

   private:
    friend class StopSignal;
    const StopSignal& signal_;
    const std::function<void()> wake_;
    // Guarded by the signal's mutex.
    Listener* next_ = nullptr;
    Listener* previous_ = nullptr;
  };

  /// Ends every current and later waitFor, and wakes the listeners.
  void set() {
    const sys::MutexLock lock(mutex_);
    set_.store(true, std::memory_order_release);
    changed_.notifyAll();
    for (const Listener* listener = listeners_; listener != nullptr; listener = listener->next_) listener->wake_();
  }

  [[nodiscard]] bool isSet() const { return set_.load(std::memory_order_acquire); }

  /// Blocks for time, or until the signal is set.
  void waitFor(std::chrono::milliseconds time) {
    const auto until = std::chrono::steady_clock::now() + time;
    sys::MutexLock lock(mutex_);
    while (!isSet() && std::chrono::steady_clock::now() < until) changed_.waitUntil(lock, until);
  }

 private:
  mutable sys::Mutex mutex_;
  mutable Listener* listeners_ SYS_GUARDED_BY(mutex_) = nullptr;  // intrusive list: adding never fails
  sys::Condition changed_;
  std::atomic<bool> set_{false};  // atomic: polling takes no lock
};

}  // namespace xfer
