// A file that is written at any offset, on the operating system's own calls.  One twin a platform implements it.
//
// An open DiskFile is the only one of its file, in this process and in others; a second create is refused and changes
// nothing.  POSIX: where the file system can lock, and among programs that use this class; a device or a FIFO may have
// several.
//
// Threads: writeAt may run on several threads at once for ranges that do not overlap; everything else needs the file
//          to itself.
// Errors:  0 is success, any other number the operating system's own error code.
// Units:   offsets and sizes are bytes.  Paths are UTF-8.
#pragma once

#include <cstdint>
#include <string>

namespace sys {

class DiskFile {
 public:
  /// Which of the two calls that change a file's size failed, and its error code; error 0: neither.
  struct ResizeResult {
    enum class Call { None, Position, SetEnd } call = Call::None;
    int error = 0;
  };

  DiskFile() = default;
  ~DiskFile() { close(); }
  DiskFile(const DiskFile&) = delete;
  DiskFile& operator=(const DiskFile&) = delete;

  /// Creates path, or empties it when it exists.  Others may read the file while it is open.  See heldByWriter and
  /// blockedByExisting for what may be done about a failure.
  /// Requires: not open.
  int create(const std::string& path);

  /// Sets the size and reserves the room on the disk where the file system can, so that a full disk is met here and
  /// not by a later write.
  ResizeResult reserve(std::uint64_t size);

  /// Sets the size: cuts what lies behind it, or extends with zeros.
  ResizeResult truncate(std::uint64_t size);

  /// Writes at most length bytes at offset; *written tells how many were.  It never moves a shared position, so writes
  /// of several threads need no lock.
  int writeAt(std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length, std::uint64_t* written);

  /// Lets the next writer in.  Does nothing when the file is not open.
  void close();

  [[nodiscard]] bool isOpen() const { return handle_ != kClosed; }

  /// Whether a create failed with error because another DiskFile has the file, or had when it was opened: the same
  /// create may succeed once that is closed, and the file must stay where it is.  Windows does not tell: always false.
  static bool heldByWriter(int error);

  /// Whether a create that failed with error can succeed once the file that is in its way has another name.
  static bool blockedByExisting(int error);

  /// Renames path to sidePath, replacing what is there.  Failure shows in the next create.
  static void moveAside(const std::string& path, const std::string& sidePath);

 private:
  static constexpr std::intptr_t kClosed = -1;
  std::intptr_t handle_ = kClosed;  // the descriptor or HANDLE
};

}  // namespace sys
