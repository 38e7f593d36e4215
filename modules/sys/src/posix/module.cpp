#include "sys/module.h"

#include <cxxabi.h>

// Identifies this library; defined by the compiler's start files, declared by no header.
extern "C" void* __dso_handle;  // NOLINT(bugprone-reserved-identifier)

namespace sys {

void atUnload(void (*function)()) {
  // Runs when this library is closed, or at exit.  std::atexit does the same, but the thread sanitizer's version loses
  // the library and calls into it after it is unloaded.
  static_cast<void>(abi::__cxa_atexit([](void* registered) { reinterpret_cast<void (*)()>(registered)(); },
                                      reinterpret_cast<void*>(function), &__dso_handle));
}

void releaseThreadState() noexcept {}

ModulePin::ModulePin() = default;
ModulePin::~ModulePin() = default;

}  // namespace sys
