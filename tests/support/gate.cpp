#include "support/gate.h"

#include <condition_variable>
#include <mutex>
#include <utility>
#include <vector>

namespace support {

struct Gate::State {
  std::mutex mutex;
  std::condition_variable opened;
  bool open = false;
  std::vector<std::function<void()>> waiting;
};

Gate::Gate() : state_(std::make_shared<State>()) {}

void Gate::open() {
  std::vector<std::function<void()>> waiting;
  {
    const std::lock_guard lock(state_->mutex);
    state_->open = true;
    waiting.swap(state_->waiting);
    state_->opened.notify_all();
  }
  for (const auto& function : waiting) function();
}

bool Gate::isOpen() const {
  const std::lock_guard lock(state_->mutex);
  return state_->open;
}

bool Gate::wait(std::chrono::milliseconds timeout) const {
  std::unique_lock lock(state_->mutex);
  return state_->opened.wait_for(lock, timeout, [this] { return state_->open; });
}

void Gate::whenOpen(std::function<void()> function) const {
  {
    const std::lock_guard lock(state_->mutex);
    if (!state_->open) {
      state_->waiting.push_back(std::move(function));
      return;
    }
  }
  function();
}

}  // namespace support
