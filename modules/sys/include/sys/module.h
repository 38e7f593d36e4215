// The life of the dynamic library that this code is linked into: what runs when it is loaded and unloaded.
//
// On Windows the loader calls in with its lock held, and a thread can then neither be started to completion nor joined.
// So nothing that owns a thread may be left to the unload: it holds a ModulePin, and the library stays loaded.
#pragma once

namespace sys {

/// Defined by the library: runs once when it is loaded.
void onModuleLoad() noexcept;

/// Defined by the library: runs once when it is unloaded, after what was registered with atUnload.  On Windows it does
/// not run when the process ends: the other threads are gone by then and may have left anything locked.
void onModuleUnload() noexcept;

/// Has function run when the library is unloaded, latest registration first; on POSIX when the process exits too.
/// In a program that links the code directly it runs at exit on POSIX and never on Windows.
void atUnload(void (*function)());

/// To be called at the end of each thread that the library starts: gives back what the TLS library keeps for the
/// thread. On POSIX that library sees the thread's end by itself; on Windows it is linked into this one, which does
/// not.
void releaseThreadState() noexcept;

/// While one of these lives, the library cannot be unloaded.  On POSIX threads can be joined at unload, so it does
/// nothing there.
class ModulePin {
 public:
  ModulePin();
  ~ModulePin();  // NOLINT(performance-trivially-destructible): it is not, on Windows
  ModulePin(const ModulePin&) = delete;
  ModulePin& operator=(const ModulePin&) = delete;

 private:
  [[maybe_unused]] void* module_ = nullptr;  // on Windows, the counted handle of the module
};

}  // namespace sys
