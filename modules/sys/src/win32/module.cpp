#include "sys/module.h"

#include <openssl/crypto.h>
#include <windows.h>

#include <array>
#include <cstddef>
#include <cstdlib>

#include "sys/mutex.h"
#include "sys/never_destroyed.h"
#include "unload_list.h"

namespace sys {
namespace {

constexpr std::size_t kMostFunctions = 8;

struct UnloadList {
  Mutex mutex;
  std::array<void (*)(), kMostFunctions> functions SYS_GUARDED_BY(mutex){};
  std::size_t count SYS_GUARDED_BY(mutex) = 0;
};

UnloadList& unloadList() {
  static NeverDestroyed<UnloadList> list;
  return list.get();
}

}  // namespace

void atUnload(void (*function)()) {
  UnloadList& list = unloadList();
  const MutexLock lock(list.mutex);
  if (list.count == kMostFunctions) std::abort();  // a defect in the library: it registers a fixed few
  list.functions[list.count++] = function;
}

void runUnloadList() {
  UnloadList& list = unloadList();
  for (;;) {
    void (*function)() = nullptr;
    {
      const MutexLock lock(list.mutex);
      if (list.count == 0) return;
      function = list.functions[--list.count];
    }
    function();
  }
}

void releaseThreadState() noexcept {
  OPENSSL_thread_stop();
}

ModulePin::ModulePin() {
  HMODULE module = nullptr;
  ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&atUnload), &module);
  module_ = module;
}

ModulePin::~ModulePin() {
  // Only a host's thread inside one of our functions destroys a pin, or one that holds a further reference, so this one
  // is never the last.
  if (module_ != nullptr) ::FreeLibrary(static_cast<HMODULE>(module_));
}

}  // namespace sys
