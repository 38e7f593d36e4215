#include "support/census.h"

#include <windows.h>
// after windows.h
#include <tlhelp32.h>
#include <winternl.h>

#include <array>
#include <cstdint>
#include <stdexcept>
#include <string_view>

namespace support {
namespace {

// The name of the type of what the handle stands for; empty when there is nothing.
std::wstring_view typeOf(HANDLE handle) {
  constexpr auto kObjectTypeInformation = static_cast<OBJECT_INFORMATION_CLASS>(2);
  alignas(PUBLIC_OBJECT_TYPE_INFORMATION) static thread_local std::array<unsigned char, 1024> buffer;
  ULONG length = 0;
  if (::NtQueryObject(handle, kObjectTypeInformation, buffer.data(), buffer.size(), &length) != 0) return {};
  const UNICODE_STRING& name = reinterpret_cast<const PUBLIC_OBJECT_TYPE_INFORMATION*>(buffer.data())->TypeName;
  return {name.Buffer, name.Length / sizeof(wchar_t)};
}

}  // namespace

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

std::size_t openFileCount() {
  // Handles are multiples of 4, and the lowest free one is given out first.
  constexpr std::uintptr_t kMostHandles = 16'384;
  std::size_t count = 0;
  for (std::uintptr_t i = 1; i <= kMostHandles; ++i) {
    if (typeOf(reinterpret_cast<HANDLE>(4 * i)) == L"File") ++count;
  }
  return count;
}

}  // namespace support
