#include "sys/module.h"

namespace {

__attribute__((constructor)) void load() {
  sys::onModuleLoad();
}

__attribute__((destructor)) void unload() {
  sys::onModuleUnload();
}

}  // namespace
