#include "event_dispatcher.h"

#include <algorithm>
#include <utility>

#include "sys/module.h"
#include "sys/never_destroyed.h"

namespace xfer {

EventDispatcher& eventDispatcher() {
  static sys::NeverDestroyed<EventDispatcher> instance;
  return instance.get();
}

void EventDispatcher::add(std::shared_ptr<Source> source) {
  const sys::MutexLock lock(mutex_);
  sources_.push_back(std::move(source));
  changed_.notifyAll();  // it may have been woken already
  if (thread_) return;
  try {
    auto thread = std::make_unique<sys::ModuleThread>();
    thread->start([this, &self = *thread] { run(self); });  // which waits for the lock
    thread_ = std::move(thread);
  } catch (...) {
    sources_.pop_back();
    throw;
  }
}

void EventDispatcher::wake(Source& source) noexcept {
  const sys::MutexLock lock(mutex_);
  if (std::exchange(source.woken_, true)) return;
  changed_.notifyAll();
}

void EventDispatcher::remove(const Source& source) noexcept {
  std::shared_ptr<Source> removed;  // declared before the lock, as the next: destroyed after its release
  std::unique_ptr<sys::ModuleThread> unwanted;
  {
    sys::MutexLock lock(mutex_);
    const auto found =
        std::find_if(sources_.begin(), sources_.end(), [&](const auto& one) { return one.get() == &source; });
    if (found != sources_.end()) {
      removed = std::move(*found);
      sources_.erase(found);
      if (sources_.empty()) sources_.shrink_to_fit();  // nothing is to be left when the library is unloaded
    }
    if (onThread()) return;
    ++waiting_;
    while (telling_ == &source) changed_.wait(lock);
    --waiting_;
    if (!sources_.empty() || telling_ != nullptr || !thread_) return;
    unwanted = std::move(thread_);
    changed_.notifyAll();
  }
  unwanted->join();
}

bool EventDispatcher::isHere() {
  const sys::MutexLock lock(mutex_);
  return onThread();
}

bool EventDispatcher::onThread() const {
  return threadId_ == std::this_thread::get_id();
}

// Who is woken or due, and was asked longest ago; null: nobody.
std::shared_ptr<EventDispatcher::Source> EventDispatcher::next() {
  const Time now = std::chrono::steady_clock::now();
  const auto found = std::find_if(sources_.begin(), sources_.end(), [now](const auto& source) {
    return source->woken_ || (source->due_ && *source->due_ <= now);
  });
  if (found == sources_.end()) return nullptr;
  std::rotate(found, found + 1, sources_.end());
  return sources_.back();
}

std::optional<EventDispatcher::Time> EventDispatcher::earliestDue() const {
  std::optional<Time> earliest;
  for (const auto& source : sources_) {
    if (source->due_ && (!earliest || *source->due_ < *earliest)) earliest = source->due_;
  }
  return earliest;
}

// The next one to ask; null when the thread is no longer wanted.
std::shared_ptr<EventDispatcher::Source> EventDispatcher::await(const sys::ModuleThread& self) {
  sys::MutexLock lock(mutex_);
  while (thread_.get() == &self) {
    threadId_ = std::this_thread::get_id();  // not before: there may be a new thread already
    if (std::shared_ptr<Source> source = next()) {
      source->woken_ = false;
      source->due_.reset();
      telling_ = source.get();
      return source;
    }
    if (const auto due = earliestDue()) {
      changed_.waitUntil(lock, *due);
    } else {
      changed_.wait(lock);
    }
  }
  if (onThread()) threadId_ = {};
  return nullptr;
}

// Returns the thread when nobody is left to join it: the last source was removed by what it told.
std::unique_ptr<sys::ModuleThread> EventDispatcher::settle(const Source* told, std::optional<Time> due) {
  const sys::MutexLock lock(mutex_);
  telling_ = nullptr;
  const auto found = std::find_if(sources_.begin(), sources_.end(), [&](const auto& one) { return one.get() == told; });
  if (found != sources_.end()) (*found)->due_ = due;
  if (waiting_ != 0) {
    changed_.notifyAll();
    return nullptr;
  }
  if (!sources_.empty()) return nullptr;
  threadId_ = {};
  return std::exchange(thread_, nullptr);
}

void EventDispatcher::run(const sys::ModuleThread& self) noexcept {
  std::unique_ptr<sys::ModuleThread> leaving;
  while (!leaving) {
    std::shared_ptr<Source> source = await(self);
    if (!source) break;
    const std::optional<Time> due = source->tell();
    const Source* const told = source.get();
    source.reset();  // before whoever waits goes on: what a host gave away is released then
    leaving = settle(told, due);
  }
  sys::releaseThreadState();
  if (leaving) sys::ModuleThread::leave(std::move(leaving));
}

}  // namespace xfer
