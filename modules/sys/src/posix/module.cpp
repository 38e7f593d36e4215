#include "sys/module.h"

#include <cxxabi.h>

// This library's own identity, which the compiler's start files define and no header declares.
extern "C" void* __dso_handle;  // NOLINT(bugprone-reserved-identifier)

namespace sys {

void atUnload(void (*function)()) {
  // Tied to this library, it runs when the library is closed, or at exit.  std::atexit does the same, but the thread
  // sanitizer's version of it forgets the library and calls into it when it is gone.
  static_cast<void>(abi::__cxa_atexit([](void* registered) { reinterpret_cast<void (*)()>(registered)(); },
                                      reinterpret_cast<void*>(function), &__dso_handle));
}

void releaseThreadState() noexcept {}

ModulePin::ModulePin() = default;
ModulePin::~ModulePin() = default;

}  // namespace sys
