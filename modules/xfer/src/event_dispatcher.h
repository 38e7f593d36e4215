// The one thread on which hosts are told what happens.  It lives as long as there is somebody who may have something to
// tell.
//
// Threads: any.  A source is asked on the dispatcher's thread, one source at a time, without a lock.
// Errors:  add throws std::bad_alloc, and std::system_error when the thread cannot be created; nothing is added then.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "sys/module_thread.h"
#include "sys/mutex.h"

namespace xfer {

class EventDispatcher {
 public:
  using Time = std::chrono::steady_clock::time_point;

  /// Somebody who has something to tell.
  class Source {
   public:
    virtual ~Source() = default;
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    /// Tells what there is to tell, and returns when it wants to be asked again; nothing: when it is woken.
    virtual std::optional<Time> tell() noexcept = 0;

   protected:
    Source() = default;

   private:
    friend class EventDispatcher;
    bool woken_ = false;  // guarded by the dispatcher's mutex, as is the other
    std::optional<Time> due_{};
  };

  /// From now on the source is asked when it is woken or due.
  void add(std::shared_ptr<Source> source) SYS_EXCLUDES(mutex_);

  void wake(Source& source) noexcept SYS_EXCLUDES(mutex_);

  /// The source is asked no more.  Waits until it has told what it is telling, unless it is telling this thread.  Does
  /// nothing for one that was not added.
  void remove(const Source& source) noexcept SYS_EXCLUDES(mutex_);

  /// Whether this is the dispatcher's thread, that is, inside of a callback.
  [[nodiscard]] bool isHere() SYS_EXCLUDES(mutex_);

 private:
  void run(const sys::ModuleThread& self) noexcept SYS_EXCLUDES(mutex_);
  std::shared_ptr<Source> await(const sys::ModuleThread& self) SYS_EXCLUDES(mutex_);
  std::unique_ptr<sys::ModuleThread> settle(const Source* told, std::optional<Time> due) SYS_EXCLUDES(mutex_);
  std::shared_ptr<Source> next() SYS_REQUIRES(mutex_);
  [[nodiscard]] std::optional<Time> earliestDue() const SYS_REQUIRES(mutex_);
  [[nodiscard]] bool onThread() const SYS_REQUIRES(mutex_);

  sys::Mutex mutex_;  // the innermost lock
  sys::Condition changed_;
  std::vector<std::shared_ptr<Source>> sources_ SYS_GUARDED_BY(mutex_);  // who was asked last is last
  const Source* telling_ SYS_GUARDED_BY(mutex_) = nullptr;
  int waiting_ SYS_GUARDED_BY(mutex_) = 0;  // for what is told: one of them joins a thread that is no longer wanted

  // Null: there is none, or whoever took it joins it.
  std::unique_ptr<sys::ModuleThread> thread_ SYS_GUARDED_BY(mutex_);
  std::thread::id threadId_ SYS_GUARDED_BY(mutex_){};
};

/// The module's.
EventDispatcher& eventDispatcher();

}  // namespace xfer
