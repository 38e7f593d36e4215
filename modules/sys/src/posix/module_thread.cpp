#include "sys/module_thread.h"

#include <utility>

#include "sys/mutex.h"
#include "sys/never_destroyed.h"

namespace sys {

/// The threads that have left and are not joined yet.
class LeftThreads {
 public:
  void add(std::unique_ptr<ModuleThread> left) noexcept {
    std::unique_ptr<ModuleThread> before;
    {
      const MutexLock lock(mutex_);
      before = std::exchange(last_, std::move(left));
    }
    join(std::move(before));  // so that they do not pile up
  }

  void joinAll() noexcept {
    std::unique_ptr<ModuleThread> last;
    {
      const MutexLock lock(mutex_);
      last = std::move(last_);
    }
    join(std::move(last));
  }

 private:
  static void join(std::unique_ptr<ModuleThread> left) noexcept {
    if (left) left->thread_.join();
  }

  Mutex mutex_;
  std::unique_ptr<ModuleThread> last_ SYS_GUARDED_BY(mutex_);
};

namespace {

LeftThreads& leftThreads() {
  static NeverDestroyed<LeftThreads> instance;
  return instance.get();
}

// After all functions of atUnload, which may still make threads leave, and before onModuleUnload.
__attribute__((destructor(102))) void joinLeftThreads() {
  leftThreads().joinAll();
}

}  // namespace

void ModuleThread::leave(std::unique_ptr<ModuleThread> self) noexcept {
  leftThreads().add(std::move(self));
}

}  // namespace sys
