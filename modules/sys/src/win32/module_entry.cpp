#include <windows.h>

#include "sys/module.h"
#include "unload_list.h"

// Runs under the loader lock.
extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID processEnds) {
  if (reason == DLL_PROCESS_ATTACH) {
    // Fails in a module with thread-local storage, as this one; the calls that it would save are harmless.
    ::DisableThreadLibraryCalls(instance);
    sys::onModuleLoad();
  } else if (reason == DLL_PROCESS_DETACH && processEnds == nullptr) {
    sys::runUnloadList();
    sys::onModuleUnload();
  }
  // At process exit the other threads are gone and may have left locks held: touch nothing.
  return TRUE;
}
