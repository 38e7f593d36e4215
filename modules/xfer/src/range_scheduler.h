// Cuts one remote file into byte ranges and hands them out.  Knows nothing of HTTP, time or attempts.
//
//   Pending --nextPending--> Active --complete--> Done        (Done is final)
//      ^-------fail, release-----'
//
// Threads: every public member may be called from any thread; each holds mutex_ throughout.
//          Leaf lock: only the logger is called under it.
// Errors:  none reported; complete and fail log and ignore a range that is not Active.
// Units:   offsets and lengths are bytes; ranges are half-open [start, end).
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "byte_range.h"
#include "sys/mutex.h"
#include "xfer/download_records.h"

namespace xfer {

enum class RangeState : std::uint32_t { Pending = 0, Active = 1, Done = 2 };

/// The name of a field whose value makes a download impossible; null when the policy can work.
const char* unworkableField(const DownloadPolicy& policy);

class RangeScheduler {
 public:
  /// Requires: unworkableField(policy) is null (not checked; cutting would never end).
  /// A totalBytes of 0 gives one empty range, so that such a file still completes.
  RangeScheduler(std::uint64_t totalBytes, const DownloadPolicy& policy);

  /// Activates and returns the lowest Pending range; nullopt when none is Pending, which does not mean finished: see
  /// allDone.
  std::optional<ByteRange> nextPending() SYS_EXCLUDES(mutex_);

  /// Marks the Active range that starts at start Done.
  void complete(std::uint64_t start) SYS_EXCLUDES(mutex_);

  /// Makes the Active range that starts at start Pending again.
  void fail(std::uint64_t start) SYS_EXCLUDES(mutex_);

  /// As fail, without a log record.
  void release(std::uint64_t start) SYS_EXCLUDES(mutex_);

  /// Marks the range that starts at start and all later ones Done, from any state.
  void completeFrom(std::uint64_t start) SYS_EXCLUDES(mutex_);

  /// The end of the range that starts at start; start when there is none.
  [[nodiscard]] std::uint64_t endOf(std::uint64_t start) const SYS_EXCLUDES(mutex_);

  /// The end of the last range that is not Done; 0 when all are.
  [[nodiscard]] std::uint64_t openEnd() const SYS_EXCLUDES(mutex_);

  [[nodiscard]] bool allDone() const SYS_EXCLUDES(mutex_);

  /// The number of ranges, truncated to 32 bits.
  [[nodiscard]] std::uint32_t rangeCount() const SYS_EXCLUDES(mutex_);

  /// The sum of the lengths of all Done ranges.
  [[nodiscard]] std::uint64_t completedBytes() const SYS_EXCLUDES(mutex_);

 private:
  struct Range {
    std::uint64_t start;
    std::uint64_t end;
    RangeState state;
  };

  void buildRanges() SYS_REQUIRES(mutex_);
  [[nodiscard]] std::vector<Range>::const_iterator find(std::uint64_t start) const SYS_REQUIRES(mutex_);
  std::vector<Range>::iterator find(std::uint64_t start) SYS_REQUIRES(mutex_);
  bool requeue(std::uint64_t start) SYS_REQUIRES(mutex_);
  void markDone(Range& range) SYS_REQUIRES(mutex_);

  const std::uint64_t total_;
  const DownloadPolicy policy_;

  mutable sys::Mutex mutex_;
  std::vector<Range> ranges_ SYS_GUARDED_BY(mutex_);      // ascending and contiguous; never re-cut
  std::size_t lowestPending_ SYS_GUARDED_BY(mutex_) = 0;  // no range before it is Pending; speeds up nextPending
  std::size_t doneCount_ SYS_GUARDED_BY(mutex_) = 0;
  std::uint64_t completedBytes_ SYS_GUARDED_BY(mutex_) = 0;
};

}  // namespace xfer
