#include "input_file.h"

#include <windows.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

namespace xfer_get {
namespace {

constexpr std::size_t kMaxRead = 0x7FFFF000;

HANDLE asHandle(std::intptr_t handle) {
  return reinterpret_cast<HANDLE>(handle);
}

[[noreturn]] void fail(const std::string& path) {
  throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), path);
}

}  // namespace

InputFile::InputFile(std::string path) : path_(std::move(path)) {
  const std::filesystem::path wide(std::u8string(path_.begin(), path_.end()));
  const HANDLE handle =
      ::CreateFileW(wide.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                    OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
  if (handle == INVALID_HANDLE_VALUE) fail(path_);
  if (::GetFileType(handle) != FILE_TYPE_DISK) {
    ::CloseHandle(handle);
    throw std::system_error(std::make_error_code(std::errc::not_supported), path_);
  }
  handle_ = reinterpret_cast<std::intptr_t>(handle);
}

InputFile::~InputFile() {
  ::CloseHandle(asHandle(handle_));
}

std::size_t InputFile::read(char* buffer, std::size_t count) {
  DWORD done = 0;
  if (::ReadFile(asHandle(handle_), buffer, static_cast<DWORD>(std::min(count, kMaxRead)), &done, nullptr) == 0) {
    fail(path_);
  }
  return done;
}

}  // namespace xfer_get
