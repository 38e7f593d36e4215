// Digests: of a file while it is written, as far as it is there without a gap, and of bytes that come in order.  Knows
// nothing of what a file's digest is to be.
//
// Threads: one, which may be another one than the writer's.  take and finish block while they read.
// Errors:  std::bad_alloc; std::system_error.  Its text names the path, and its code is the system's when the file
// cannot
//          be read, errc::io_error when it ends before it should, errc::not_supported for a device or a pipe.  What was
//          read before an error stays read: the call may be repeated.  Constructors fail with errc::not_supported and
//          the algorithm's name when the system's cryptography refuses it.
// Units:   bytes.  Paths are UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "checksum.h"

namespace xfer_get {

class FileDigest {
 public:
  /// The file does not have to be there yet; it is opened by the first call that reads.
  FileDigest(ChecksumAlgorithm algorithm, std::string path);
  FileDigest(FileDigest&&) noexcept;
  FileDigest& operator=(FileDigest&&) noexcept;
  ~FileDigest();

  /// Reads on, at most so many bytes, and never past the first there bytes of the file.  Those must have been written,
  /// and change only before a restart.  A smaller there than before reads nothing.
  void take(std::uint64_t there, std::uint64_t most);

  /// What was read may not be what the file has now: starts again from its beginning, and opens it anew.
  void restart();

  /// Bytes read since the beginning.
  [[nodiscard]] std::uint64_t read() const;

  /// Reads the rest, up to the file's end, and returns the digits in lower case.  Called once, as the last one.
  std::string finish();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

/// Of bytes that are not stored.
class StreamDigest {
 public:
  explicit StreamDigest(ChecksumAlgorithm algorithm);
  StreamDigest(StreamDigest&&) noexcept;
  StreamDigest& operator=(StreamDigest&&) noexcept;
  ~StreamDigest();

  void add(const char* bytes, std::size_t count);

  /// The digits in lower case.  Called once, as the last one.
  std::string finish();

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace xfer_get
