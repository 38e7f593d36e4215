#include "support/census.h"

#include <windows.h>
// after windows.h
#include <tlhelp32.h>

#include <cstdint>
#include <stdexcept>

namespace support {

std::size_t threadCount() {
  const HANDLE snapshot = ::CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  if (snapshot == INVALID_HANDLE_VALUE) throw std::runtime_error("CreateToolhelp32Snapshot failed");
  std::size_t count = 0;
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = ::Thread32First(snapshot, &entry); more; more = ::Thread32Next(snapshot, &entry)) {
    if (entry.th32OwnerProcessID == ::GetCurrentProcessId()) ++count;
  }
  ::CloseHandle(snapshot);
  return count;
}

std::size_t openHandleCount() {
  // GetProcessHandleCount says 0 under Wine.  Handles are multiples of 4, the lowest free one is given out first.
  constexpr std::uintptr_t kMostHandles = 16'384;
  std::size_t count = 0;
  for (std::uintptr_t i = 1; i <= kMostHandles; ++i) {
    DWORD flags = 0;
    if (::GetHandleInformation(reinterpret_cast<HANDLE>(4 * i), &flags)) ++count;
  }
  return count;
}

}  // namespace support
