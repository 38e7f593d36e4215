// A dynamic library that a host loads by itself.  One twin a platform.
//
// Threads: one at a time.
// Errors:  a library or a function that is not there throws std::runtime_error.
#pragma once

#include <string>

class LoadedLibrary {
 public:
  explicit LoadedLibrary(const std::string& name);

  LoadedLibrary(const LoadedLibrary&) = delete;
  LoadedLibrary& operator=(const LoadedLibrary&) = delete;
  ~LoadedLibrary() = default;  // unload is part of what is tested

  template <class Function>
  Function* function(const char* name) const {
    return reinterpret_cast<Function*>(address(name));
  }

  void unload();

  /// Whether this process has it, by whatever load.
  static bool isLoaded(const std::string& name);

 private:
  [[nodiscard]] void* address(const char* name) const;

  void* handle_;
};
