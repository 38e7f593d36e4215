// The output file of one download: created at its full size, written at any offset, cut to its final size.  Knows
// nothing of ranges, retries or HTTP.
//
//   Closed --open--> Open --finalize or close--> Closed
//
// An open sink is the only writer of its file: see sys::DiskFile.
//
// Threads: a job writes on one thread, its loop thread, and reads the counters on others.  writeAt allows more: several
//          threads at once for ranges that do not overlap.  open, finalize and close need the sink to themselves: the
//          file must not be closed while a write is in flight.
// Errors:  by result code (see result_codes.h) and a failure record; none throws.
// Units:   offsets, sizes and lengths are bytes; paths are UTF-8.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include "sys/disk_file.h"

namespace xfer {

class FileSink {
 public:
  /// How long open waits for another writer to let go: a job that was just cancelled has the file a moment longer.
  static constexpr std::chrono::milliseconds kPatience{1000};

  using Wait = std::function<void(std::chrono::milliseconds)>;

  FileSink();

  /// wait takes the place of sleeping.
  explicit FileSink(Wait wait) : wait_(std::move(wait)) {}

  /// Creates path at the given size, or replaces what is there; a file that cannot be replaced is moved to path +
  /// ".bak" first, over an older one, and stays there.  A file that another writer still has after kPatience is refused
  /// with kFileNotCreated and stays as it is.  kFileNotCreated or kFileNotReserved leave the sink closed.
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
  int createPatiently();

  const Wait wait_;
  std::string path_;
  sys::DiskFile file_;

  // Atomic: writeAt may run on several threads, and others read them meanwhile.
  std::atomic<std::uint64_t> bytesWritten_{0};
  std::atomic<bool> writeFailed_{false};
};

}  // namespace xfer
