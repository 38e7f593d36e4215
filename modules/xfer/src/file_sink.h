// The output file of one download: created at its full size, written at any offset, cut to its final size.  Knows
// nothing of ranges, retries or HTTP.
//
//   Closed --open--> Open --finalize or close--> Closed
//
// Threads: writeAt may run on several threads at once for ranges that do not overlap.  open, finalize and close need
//          the sink to themselves: the file must not be closed while a write is in flight.
// Errors:  by result code (see result_codes.h) and a failure record; none throws.
// Units:   offsets, sizes and lengths are bytes; paths are UTF-8.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "sys/disk_file.h"

namespace xfer {

class FileSink {
 public:
  /// Creates path at the given size, or replaces what is there; a file that cannot be replaced is moved to path +
  /// ".bak" first, over an older one, and stays there.  kFileNotCreated or kFileNotReserved leave the sink closed.
  /// Requires: closed.
  std::int32_t open(const std::string& path, std::uint64_t size);

  /// Writes all bytes at offset.  kWriteFailed: some may have reached the file, none is counted.
  std::int32_t writeAt(std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length);

  /// Sets the final size and closes.  A size that cannot be set is logged and not reported.
  std::int32_t finalize(std::uint64_t size);

  /// Does nothing when closed.
  void close() { file_.close(); }

  [[nodiscard]] bool isOpen() const { return file_.isOpen(); }

  /// What writeAt wrote since open.
  [[nodiscard]] std::uint64_t bytesWritten() const { return bytesWritten_.load(std::memory_order_relaxed); }

  /// Whether a writeAt has answered kWriteFailed since open: the file has a hole.
  [[nodiscard]] bool writeFailed() const { return writeFailed_.load(std::memory_order_relaxed); }

 private:
  std::string path_;
  sys::DiskFile file_;
  std::atomic<std::uint64_t> bytesWritten_{0};  // several writers
  std::atomic<bool> writeFailed_{false};        // several writers
};

}  // namespace xfer
