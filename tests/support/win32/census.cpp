#include "support/census.h"

#include <windows.h>
// after windows.h
#include <tlhelp32.h>

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
  DWORD count = 0;
  if (!::GetProcessHandleCount(::GetCurrentProcess(), &count)) {
    throw std::runtime_error("GetProcessHandleCount failed");
  }
  return count;
}

}  // namespace support
