#include "loaded_library.h"

#include <windows.h>

#include <stdexcept>

LoadedLibrary::LoadedLibrary(const std::string& name) : handle_(::LoadLibraryA(name.c_str())) {
  if (handle_ == nullptr) throw std::runtime_error("LoadLibrary: error " + std::to_string(::GetLastError()));
}

void LoadedLibrary::unload() {
  ::FreeLibrary(static_cast<HMODULE>(handle_));
}

bool LoadedLibrary::isLoaded(const std::string& name) {
  return ::GetModuleHandleA(name.c_str()) != nullptr;
}

void* LoadedLibrary::address(const char* name) const {
  const FARPROC found = ::GetProcAddress(static_cast<HMODULE>(handle_), name);
  if (found == nullptr) throw std::runtime_error(name);
  return reinterpret_cast<void*>(found);
}
