#include "sys/module.h"

// The C++ ABI's registration and this library's own identity, which no header declares.
extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* library);
extern "C" void* __dso_handle;

namespace sys {

void atUnload(void (*function)()) {
  // Tied to this library, it runs when the library is closed, or at exit.  std::atexit does the same, but the thread
  // sanitizer's version of it forgets the library and calls into it when it is gone.
  static_cast<void>(__cxa_atexit([](void* registered) { reinterpret_cast<void (*)()>(registered)(); },
                                 reinterpret_cast<void*>(function), &__dso_handle));
}

void releaseThreadState() noexcept {}

ModulePin::ModulePin() = default;
ModulePin::~ModulePin() = default;

}  // namespace sys
