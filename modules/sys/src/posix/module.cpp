#include "sys/module.h"

#include <cstdlib>

namespace sys {

void atUnload(void (*function)()) {
  // glibc ties the registration to the library that makes it, so it also runs when that library is closed.
  static_cast<void>(std::atexit(function));
}

void releaseThreadState() noexcept {}

ModulePin::ModulePin() = default;
ModulePin::~ModulePin() = default;

}  // namespace sys
