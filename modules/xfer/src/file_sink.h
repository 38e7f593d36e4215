// The output file of one download: created at its full size, written at any offset, cut to its final size.  Knows
// nothing of ranges, retries or HTTP.
//
//   Closed --open--> Open --finalize or close--> Closed
//
// An open sink is the only writer of its file: see sys::DiskFile.
//
// Threads: a job writes on its loop thread and reads the counters on others.  writeAt may run on several threads at
//          once for ranges that do not overlap.  open, finalize and close need exclusive access: the file must not be
//          closed while a write is in flight.
// Errors:  a result code (see result_codes.h), words for it, and a failure record.  Only open may throw:
// std::bad_alloc. Units:   offsets, sizes and lengths are bytes; paths are UTF-8.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "short_text.h"
#include "sys/disk_file.h"

namespace xfer {

class FileSink {
 public:
  /// How long open waits for another writer: a job that was just cancelled holds its file a moment longer.
  static constexpr std::chrono::milliseconds kPatience{1000};

  using Wait = std::function<void(std::chrono::milliseconds)>;

  FileSink();

  /// wait replaces sleeping.
  explicit FileSink(Wait wait) : wait_(std::move(wait)) {}

  /// Creates path at the given size, or replaces the file there.  A file that cannot be replaced is first moved to
  /// path + ".bak", replacing that, and stays there.  A file that another writer still holds after kPatience is refused
  /// with kFileNotCreated and unchanged.  After any error the sink is closed.
  /// Requires: closed.
  std::int32_t open(const std::string& path, std::uint64_t size);

  /// Writes all bytes at offset.  kWriteFailed: some may be in the file, none is counted.
  std::int32_t writeAt(std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length);

  /// Sets the final size and closes.  Failing to set the size is logged, not reported.
  std::int32_t finalize(std::uint64_t size);

  /// Does nothing when closed.
  void close() { file_.close(); }

  [[nodiscard]] bool isOpen() const { return file_.isOpen(); }

  /// Bytes written by writeAt since open.
  [[nodiscard]] std::uint64_t bytesWritten() const { return bytesWritten_.load(std::memory_order_relaxed); }

  /// Whether a writeAt has returned kWriteFailed since open: the file has a hole.
  [[nodiscard]] bool writeFailed() const { return writeError_.load(std::memory_order_relaxed) != 0; }

  /// Why open or a writeAt has failed; empty: neither has.
  [[nodiscard]] ShortText failureText() const noexcept;

 private:
  int createPatiently();
  std::int32_t refuse(std::int32_t code, std::string_view reason);

  const Wait wait_;
  std::string path_;
  sys::DiskFile file_;
  ShortText openFailure_;

  // Atomic: several threads may write, and others read concurrently.
  std::atomic<std::uint64_t> bytesWritten_{0};
  std::atomic<int> writeError_{0};  // the system's, of a writeAt that failed
};

}  // namespace xfer
