// The standard mutex, lock and condition variable with annotations for Clang's thread-safety analysis; other compilers
// ignore the annotations.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define SYS_TSA(x) __attribute__((x))
#else
#define SYS_TSA(x)
#endif

#define SYS_CAPABILITY(name) SYS_TSA(capability(name))
#define SYS_SCOPED_CAPABILITY SYS_TSA(scoped_lockable)
#define SYS_GUARDED_BY(x) SYS_TSA(guarded_by(x))
#define SYS_REQUIRES(...) SYS_TSA(requires_capability(__VA_ARGS__))
#define SYS_EXCLUDES(...) SYS_TSA(locks_excluded(__VA_ARGS__))
#define SYS_ACQUIRE(...) SYS_TSA(acquire_capability(__VA_ARGS__))
#define SYS_RELEASE(...) SYS_TSA(release_capability(__VA_ARGS__))
#define SYS_NO_THREAD_SAFETY_ANALYSIS SYS_TSA(no_thread_safety_analysis)

namespace sys {

class SYS_CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() SYS_ACQUIRE() { mutex_.lock(); }
  void unlock() SYS_RELEASE() { mutex_.unlock(); }

 private:
  friend class MutexLock;
  std::mutex mutex_;
};

/// Holds the mutex from construction to destruction; Condition releases it while it waits.
class SYS_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) SYS_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~MutexLock() SYS_RELEASE() {}

  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  friend class Condition;
  std::unique_lock<std::mutex> lock_;
};

/// A condition variable.  Spurious wake-ups occur; wait in a loop.
class Condition {
 public:
  void notifyAll() { condition_.notify_all(); }
  void wait(MutexLock& lock) { condition_.wait(lock.lock_); }

  /// Returns when notified, at the given time, or spuriously.
  void waitUntil(MutexLock& lock, std::chrono::steady_clock::time_point when) {
    condition_.wait_until(lock.lock_, when);
  }

 private:
  std::condition_variable condition_;
};

}  // namespace sys
