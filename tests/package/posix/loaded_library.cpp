#include "loaded_library.h"

#include <dlfcn.h>

#include <stdexcept>

LoadedLibrary::LoadedLibrary(const std::string& name) : handle_(dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (handle_ == nullptr) throw std::runtime_error(dlerror());
}

void LoadedLibrary::unload() {
  dlclose(handle_);
}

bool LoadedLibrary::isLoaded(const std::string& name) {
  void* const handle = dlopen(name.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle == nullptr) return false;
  dlclose(handle);
  return true;
}

void* LoadedLibrary::address(const char* name) const {
  void* const found = dlsym(handle_, name);
  if (found == nullptr) throw std::runtime_error(name);
  return found;
}
