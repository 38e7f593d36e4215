#include "retry_timers.h"

#include <utility>

namespace xfer {

void RetryTimers::schedule(std::uint64_t delayMs, std::function<void()> action) {
  const sys::MutexLock lock(mutex_);
  for (auto next = timers_.begin(); next != timers_.end();) {
    const auto timer = next++;
    if (!timer->over) continue;
    timer->thread.join();  // its action is over, so this does not block
    timers_.erase(timer);
  }
  Timer& timer = timers_.emplace_back();
  try {
    timer.thread = std::thread([this, &timer, delayMs, action = std::move(action)] {
      wait_(delayMs);
      action();
      timer.over = true;
    });
  } catch (...) {
    timers_.pop_back();
    throw;
  }
}

void RetryTimers::joinAll() {
  std::list<Timer> ending;
  {
    const sys::MutexLock lock(mutex_);
    ending.swap(timers_);
  }
  for (Timer& timer : ending) timer.thread.join();
}

}  // namespace xfer
