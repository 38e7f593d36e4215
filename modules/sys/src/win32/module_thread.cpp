#include "sys/module_thread.h"

#include <windows.h>

#include <utility>

namespace sys {
namespace {

// Of the module that this code is in, with a reference that the caller owns.
HMODULE thisModule() {
  HMODULE module = nullptr;
  ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&ModuleThread::leave),
                       &module);
  return module;
}

}  // namespace

/// Joins one thread that has left, on a thread of the system's pool, which releases the module when it has left its
/// code.
class LeftThreads {
 public:
  static void CALLBACK join(PTP_CALLBACK_INSTANCE instance, void* left) noexcept {
    const HMODULE module = thisModule();
    {
      const std::unique_ptr<ModuleThread> thread(static_cast<ModuleThread*>(left));
      thread->thread_.join();
    }
    if (module != nullptr) ::FreeLibraryWhenCallbackReturns(instance, module);
  }
};

void ModuleThread::leave(std::unique_ptr<ModuleThread> self) noexcept {
  ModuleThread* const left = self.release();
  // Without memory for this the library stays loaded for good, with a thread that has ended.
  ::TrySubmitThreadpoolCallback(&LeftThreads::join, left, nullptr);
}

}  // namespace sys
