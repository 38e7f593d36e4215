#include <windows.h>

#include <algorithm>
#include <array>
#include <limits>
#include <string>

#include "sys/disk_file.h"

namespace sys {
namespace {

constexpr std::uint64_t kMaxWrite = 0x7FFFFFFF;
constexpr std::uint64_t kMaxOffset = static_cast<std::uint64_t>(std::numeric_limits<LONGLONG>::max());

HANDLE asHandle(std::intptr_t handle) {
  return reinterpret_cast<HANDLE>(handle);
}

int lastError() {
  return static_cast<int>(::GetLastError());
}

// A path that is not valid UTF-8 becomes empty, and create then fails.
std::wstring widePath(const std::string& path) {
  const auto length = static_cast<int>(std::min<std::size_t>(path.size(), std::numeric_limits<int>::max()));
  const int needed = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path.data(), length, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(std::max(needed, 0)), L'\0');
  if (needed > 0) ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path.data(), length, wide.data(), needed);
  return wide;
}

}  // namespace

int DiskFile::create(const std::string& path) {
  const HANDLE handle = ::CreateFileW(widePath(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return lastError();
  handle_ = reinterpret_cast<std::intptr_t>(handle);
  return 0;
}

DiskFile::ResizeResult DiskFile::truncate(std::uint64_t size) {
  LARGE_INTEGER position{};
  position.QuadPart = static_cast<LONGLONG>(size);
  if (!::SetFilePointerEx(asHandle(handle_), position, nullptr, FILE_BEGIN)) {
    return {ResizeResult::Call::Position, lastError()};
  }
  if (!::SetEndOfFile(asHandle(handle_))) return {ResizeResult::Call::SetEnd, lastError()};
  return {};
}

// Setting the end of file reserves the space on Windows.
DiskFile::ResizeResult DiskFile::reserve(std::uint64_t size) {
  return truncate(size);
}

int DiskFile::writeAt(std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length, std::uint64_t* written) {
  *written = 0;
  // Offsets above the limit are invalid, and the two highest ones mean "append".
  if (offset > kMaxOffset) return ERROR_INVALID_PARAMETER;
  OVERLAPPED at{};  // carries the position only; the handle is synchronous
  at.Offset = static_cast<DWORD>(offset);
  at.OffsetHigh = static_cast<DWORD>(offset >> 32);
  DWORD done = 0;
  if (!::WriteFile(asHandle(handle_), bytes, static_cast<DWORD>(std::min(length, kMaxWrite)), &done, &at)) {
    return lastError();
  }
  if (done == 0) return ERROR_WRITE_FAULT;  // no progress and no error: do not loop for ever
  *written = done;
  return 0;
}

void DiskFile::close() {
  if (!isOpen()) return;
  ::CloseHandle(asHandle(handle_));
  handle_ = kClosed;
}

bool DiskFile::blockedByExisting(int error) {
  return error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED;
}

// A sharing violation may come from a reader as well, so it counts as blocked.  A file that another writer holds cannot
// be renamed, so the second create fails like the first.
bool DiskFile::heldByWriter(int /*error*/) {
  return false;
}

std::string DiskFile::reason(int error) {
  std::array<wchar_t, 512> wide{};
  DWORD length = ::FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                  static_cast<DWORD>(error), 0, wide.data(), static_cast<DWORD>(wide.size()), nullptr);
  while (length > 0 && (wide[length - 1] <= L' ' || wide[length - 1] == L'.')) --length;
  if (length == 0) return "error " + std::to_string(error) + " of the system";
  const auto units = static_cast<int>(length);
  const int needed = ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), units, nullptr, 0, nullptr, nullptr);
  std::string text(static_cast<std::size_t>(std::max(needed, 0)), '\0');
  ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), units, text.data(), needed, nullptr, nullptr);
  return text;
}

void DiskFile::moveAside(const std::string& path, const std::string& sidePath) {
  const std::wstring side = widePath(sidePath);
  ::DeleteFileW(side.c_str());
  ::MoveFileW(widePath(path).c_str(), side.c_str());
}

}  // namespace sys
