// A file that is written at any offset with system calls.  Each platform has its own implementation.
//
// An open DiskFile is the only writer of its file, in this process and in others; a second create is refused and
// changes nothing.  On POSIX an advisory lock does this: it needs a file system that can lock, binds only programs that
// use this class, and does not cover devices and FIFOs.
//
// Threads: writeAt may run on several threads at once for ranges that do not overlap; everything else needs exclusive
//          access.
// Errors:  0 is success, any other number is the operating system's error code.
// Units:   offsets and sizes are bytes.  Paths are UTF-8.
#pragma once

#include <cstdint>
#include <string>

namespace sys {

class DiskFile {
 public:
  /// The failed call of the two that resize a file, and its error code; error 0: success.
  struct ResizeResult {
    enum class Call { None, Position, SetEnd } call = Call::None;
    int error = 0;
  };

  static constexpr const char* kNotRegular = "not a regular file";

  DiskFile() = default;
  ~DiskFile() { close(); }
  DiskFile(const DiskFile&) = delete;
  DiskFile& operator=(const DiskFile&) = delete;

  /// Creates path, or empties it when it exists.  Others may read the file while it is open.  heldByWriter and
  /// blockedByExisting tell how to recover from a failure.
  /// Requires: not open.
  int create(const std::string& path);

  /// Sets the size and reserves disk space where the file system can, so that a full disk fails here and not in a later
  /// write.
  ResizeResult reserve(std::uint64_t size);

  /// Sets the size: cuts the tail, or extends with zeros.
  ResizeResult truncate(std::uint64_t size);

  /// Writes at most length bytes at offset and stores the number written in *written.  Uses no shared file position, so
  /// concurrent writes need no lock.
  int writeAt(std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length, std::uint64_t* written);

  /// Closes the file and releases its lock.  Does nothing when the file is not open.
  void close();

  [[nodiscard]] bool isOpen() const { return handle_ != kClosed; }

  /// Whether create failed with error because another DiskFile holds the file, or because the path was replaced during
  /// create: retry later, and do not move the file.  Always false on Windows, where the error does not tell.
  static bool heldByWriter(int error);

  /// Whether create failed with error because of the existing file, so that it may succeed once that is renamed.
  static bool blockedByExisting(int error);

  /// What the operating system says of error, UTF-8; kNotRegular where the error means that.  Throws
  /// std::bad_alloc.
  static std::string reason(int error);

  /// Renames path to sidePath, replacing it.  Failures are not reported: the next create fails again.
  static void moveAside(const std::string& path, const std::string& sidePath);

 private:
  static constexpr std::intptr_t kClosed = -1;
  std::intptr_t handle_ = kClosed;  // the descriptor or HANDLE
};

}  // namespace sys
