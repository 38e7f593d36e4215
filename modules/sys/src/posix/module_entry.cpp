#include "sys/module.h"

namespace {

__attribute__((constructor)) void load() {
  sys::onModuleLoad();
}

// With this priority it is the last of all: without one, closing the library runs it before what atUnload registered.
__attribute__((destructor(101))) void unload() {
  sys::onModuleUnload();
}

}  // namespace
