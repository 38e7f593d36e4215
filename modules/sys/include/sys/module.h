// Load and unload hooks of the dynamic library that this code is linked into.
//
// On Windows the hooks run under the loader lock, where a started thread cannot begin and no thread can be joined.  So
// each object that owns a thread holds a ModulePin, which keeps the library loaded.
#pragma once

namespace sys {

/// Defined by the library: runs once when it is loaded.
void onModuleLoad() noexcept;

/// Defined by the library: runs once when it is unloaded, after the functions registered with atUnload.  On Windows it
/// does not run at process exit: the other threads are gone by then and may have left locks held.
void onModuleUnload() noexcept;

/// Registers function to run when the library is unloaded, last registered first; on POSIX also at process exit.  In a
/// program that links the code directly it runs at exit on POSIX and never on Windows.
void atUnload(void (*function)());

/// Releases the TLS library's per-thread state; call it at the end of each thread that the library starts.  Does
/// nothing on POSIX, where the TLS library sees the thread's end; on Windows it is linked statically and does not.
void releaseThreadState() noexcept;

/// Keeps the library loaded while it lives.  Does nothing on POSIX, where threads can be joined at unload.
class ModulePin {
 public:
  ModulePin();
  ~ModulePin();  // NOLINT(performance-trivially-destructible): not trivial on Windows
  ModulePin(const ModulePin&) = delete;
  ModulePin& operator=(const ModulePin&) = delete;

 private:
  [[maybe_unused]] void* module_ = nullptr;  // Windows: a reference to the module
};

}  // namespace sys
