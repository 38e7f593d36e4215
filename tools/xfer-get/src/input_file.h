// A file that is read from its beginning on, and bears that others write, rename and delete it meanwhile.  Each
// platform has its own implementation.
//
// Threads: one.
// Errors:  std::bad_alloc; std::system_error, whose text names the path: with the operating system's code, or
//          errc::not_supported for a device or a pipe.
// Units:   bytes.  Paths are UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace xfer_get {

class InputFile {
 public:
  /// Opens a file on a disk; folders, devices and pipes are refused.
  explicit InputFile(std::string path);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  /// Reads at most count of the next bytes and returns how many; 0 at the end of the file, which may grow afterwards.
  std::size_t read(char* buffer, std::size_t count);

 private:
  std::string path_;
  std::intptr_t handle_;  // the descriptor or HANDLE
};

}  // namespace xfer_get
