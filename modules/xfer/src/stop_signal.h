// A request to stop, made once and seen by every thread that waits or polls for it.
//
// Threads: every operation from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <utility>

#include "sys/mutex.h"

namespace xfer {

class StopSignal {
 public:
  /// While it lives, set calls a function that wakes a thread which waits for something else.  A signal that is already
  /// set calls nothing: check isSet after construction and before every wait.
  class Listener {
   public:
    /// wake runs on the thread that calls set and under the signal's lock: it must neither block nor use the signal.
    Listener(const StopSignal& signal, std::function<void()> wake) : signal_(signal), wake_(std::move(wake)) {
      const sys::MutexLock lock(signal_.mutex_);
      next_ = std::exchange(signal_.listeners_, this);
      if (next_ != nullptr) next_->previous_ = this;
    }

    /// A call of wake that has begun has ended when it returns.
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

  /// Ends every waitFor, now and from now on, and wakes the listeners.
  void set() {
    const sys::MutexLock lock(mutex_);
    set_.store(true, std::memory_order_release);
    changed_.notifyAll();
    for (const Listener* listener = listeners_; listener != nullptr; listener = listener->next_) listener->wake_();
  }

  [[nodiscard]] bool isSet() const { return set_.load(std::memory_order_acquire); }

  /// Returns after time, or at once when the signal is or gets set.
  void waitFor(std::chrono::milliseconds time) {
    const auto until = std::chrono::steady_clock::now() + time;
    sys::MutexLock lock(mutex_);
    while (!isSet() && std::chrono::steady_clock::now() < until) changed_.waitUntil(lock, until);
  }

 private:
  mutable sys::Mutex mutex_;
  mutable Listener* listeners_ SYS_GUARDED_BY(mutex_) = nullptr;  // a list through their links: joining never fails
  sys::Condition changed_;
  std::atomic<bool> set_{false};  // atomic so that polling takes no lock
};

}  // namespace xfer
