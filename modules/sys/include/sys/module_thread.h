// A thread that the library can be unloaded after, even when the thread ends itself.
//
// A thread that somebody else ends is joined by the one who does.  One that finds out by itself that it is no longer
// needed cannot join itself, and its code must not be unloaded while its last lines run: it calls leave.
//
// Threads: leave is called on the thread that leaves; everything else by its owner.
#pragma once

#include <functional>
#include <memory>
#include <thread>

#include "sys/module.h"

namespace sys {

class ModuleThread {
 public:
  ModuleThread() = default;
  ~ModuleThread() = default;
  ModuleThread(const ModuleThread&) = delete;
  ModuleThread& operator=(const ModuleThread&) = delete;

  /// Throws std::system_error when the thread cannot be created.
  void start(std::function<void()> body) { thread_ = std::thread(std::move(body)); }

  void join() { thread_.join(); }

  /// The last act of the thread but for returning, and not before start has returned: something else joins it.  Until
  /// then the library stays loaded (Windows), or its unloading waits (POSIX).
  static void leave(std::unique_ptr<ModuleThread> self) noexcept;

 private:
  friend class LeftThreads;

  ModulePin pin_{};  // declared before the thread: released after it
  std::thread thread_{};
};

}  // namespace sys
