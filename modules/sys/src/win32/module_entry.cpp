#include <windows.h>

#include "sys/module.h"
#include "unload_list.h"

// Runs under the loader lock.
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID processEnds) {
  if (reason == DLL_PROCESS_ATTACH) {
    // Fails for a module with a thread-local directory, as this one is; the calls it would save are harmless.
    ::DisableThreadLibraryCalls(instance);
    sys::onModuleLoad();
  } else if (reason == DLL_PROCESS_DETACH && processEnds == nullptr) {
    sys::runUnloadList();
    sys::onModuleUnload();
  }
  // At the end of the process the other threads are gone already and may have left anything locked: touch nothing.
  return TRUE;
}
