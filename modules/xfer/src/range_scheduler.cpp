#include "range_scheduler.h"

#include <algorithm>

#include "log.h"

namespace xfer {
namespace {

constexpr const char* kLogTag = "RangeSched";

// Generates the sizes of a file's chunks.
class ChunkSizes {
 public:
  ChunkSizes(const DownloadPolicy& policy, std::uint64_t max)
      : ramp_(policy.rampChunks), max_(max), factor_(policy.chunkGrowthFactor), next_(policy.initialChunkSize) {
    if (!ramp_) next_ = max_;
  }

  std::uint64_t next() {
    const std::uint64_t size = next_;  // the first chunk may exceed the maximum
    if (!ramp_) return size;
    next_ = size > max_ / factor_ ? max_ : size * factor_;  // dividing avoids overflow
    return size;
  }

  /// How many chunks cover total bytes.
  [[nodiscard]] std::uint64_t count(std::uint64_t total) const {
    ChunkSizes sizes = *this;
    for (std::uint64_t chunks = 0;; ++chunks) {
      const std::uint64_t size = sizes.next();
      if (size >= total) return chunks + 1;
      if (sizes.next_ == size) return chunks + total / size + (total % size != 0 ? 1 : 0);  // it grows no further
      total -= size;
    }
  }

 private:
  bool ramp_;
  std::uint64_t max_;
  std::uint64_t factor_;
  std::uint64_t next_;
};

// Iterator to the range that starts at start; end() when there is none.
template <class Ranges>
auto findStart(Ranges& ranges, std::uint64_t start) {
  const auto found = std::lower_bound(ranges.begin(), ranges.end(), start,
                                      [](const auto& range, std::uint64_t value) { return range.start < value; });
  return found != ranges.end() && found->start == start ? found : ranges.end();
}

}  // namespace

const char* unworkableField(const DownloadPolicy& policy) {
  if (policy.numThreads == 0) return "numThreads";
  if (policy.maxChunkSize == 0) return "maxChunkSize";
  if (policy.rampChunks && policy.initialChunkSize == 0) return "initialChunkSize";
  if (policy.rampChunks && policy.chunkGrowthFactor == 0) return "chunkGrowthFactor";
  return nullptr;
}

RangeScheduler::RangeScheduler(std::uint64_t totalBytes, const DownloadPolicy& policy)
    : total_(totalBytes), policy_(policy) {
  const sys::MutexLock lock(mutex_);  // never contended; for the thread-safety analysis
  buildRanges();
}

void RangeScheduler::buildRanges() {
  if (total_ == 0) {
    ranges_.push_back({0, 0, RangeState::Pending});
    return;
  }
  std::uint64_t max = policy_.maxChunkSize;
  if (policy_.numThreads > 1) {
    // The initial size is only a condition here, not a lower bound of max.
    const std::uint64_t share = total_ / policy_.numThreads;
    if (share > policy_.initialChunkSize) max = std::min(share, max);
  }
  ChunkSizes sizes(policy_, max);
  ranges_.reserve(sizes.count(total_));  // fails here, and not after filling all memory
  for (std::uint64_t offset = 0; offset < total_;) {
    const std::uint64_t end = offset + std::min(sizes.next(), total_ - offset);
    ranges_.push_back({offset, end, RangeState::Pending});
    offset = end;
  }
  const Range& first = ranges_.front();
  const Range& last = ranges_.back();
  const std::size_t chunks = ranges_.size();
  XFER_LOG(log::kTrace, "buildRanges | total=" << total_ << " | chunks=" << chunks << " | max_chunk=" << max
                                               << " | first=" << first.end - first.start
                                               << " | last=" << last.end - last.start);
}

std::vector<RangeScheduler::Range>::const_iterator RangeScheduler::find(std::uint64_t start) const {
  return findStart(ranges_, start);
}

std::vector<RangeScheduler::Range>::iterator RangeScheduler::find(std::uint64_t start) {
  return findStart(ranges_, start);
}

std::optional<ByteRange> RangeScheduler::nextPending() {
  const sys::MutexLock lock(mutex_);
  while (lowestPending_ < ranges_.size() && ranges_[lowestPending_].state != RangeState::Pending) ++lowestPending_;
  if (lowestPending_ == ranges_.size()) return std::nullopt;
  Range& range = ranges_[lowestPending_];
  range.state = RangeState::Active;
  return ByteRange{range.start, range.end};
}

void RangeScheduler::markDone(Range& range) {
  if (range.state == RangeState::Done) return;
  range.state = RangeState::Done;
  completedBytes_ += range.end - range.start;
  ++doneCount_;
}

bool RangeScheduler::requeue(std::uint64_t start) {
  const auto range = find(start);
  if (range == ranges_.end() || range->state != RangeState::Active) return false;
  range->state = RangeState::Pending;
  lowestPending_ = std::min(lowestPending_, static_cast<std::size_t>(range - ranges_.begin()));
  return true;
}

void RangeScheduler::complete(std::uint64_t start) {
  const sys::MutexLock lock(mutex_);
  const auto range = find(start);
  if (range != ranges_.end() && range->state == RangeState::Active) {
    markDone(*range);
  } else {
    XFER_LOG(log::kFailure, "complete | range_start=" << start << " not found as Active");
  }
}

void RangeScheduler::fail(std::uint64_t start) {
  const sys::MutexLock lock(mutex_);
  if (requeue(start)) {
    XFER_LOG(log::kRecovery, "fail | re-queued range start=" << start);
  } else {
    XFER_LOG(log::kFailure, "fail | range_start=" << start << " not found as Active");
  }
}

void RangeScheduler::release(std::uint64_t start) {
  const sys::MutexLock lock(mutex_);
  static_cast<void>(requeue(start));
}

void RangeScheduler::completeFrom(std::uint64_t start) {
  const sys::MutexLock lock(mutex_);
  for (auto range = find(start); range != ranges_.end(); ++range) markDone(*range);
}

std::uint64_t RangeScheduler::endOf(std::uint64_t start) const {
  const sys::MutexLock lock(mutex_);
  const auto range = find(start);
  return range == ranges_.end() ? start : range->end;
}

std::uint64_t RangeScheduler::openEnd() const {
  const sys::MutexLock lock(mutex_);
  const auto last = std::find_if(ranges_.rbegin(), ranges_.rend(),
                                 [](const Range& range) { return range.state != RangeState::Done; });
  return last == ranges_.rend() ? 0 : last->end;
}

bool RangeScheduler::allDone() const {
  const sys::MutexLock lock(mutex_);
  return doneCount_ == ranges_.size();
}

std::uint32_t RangeScheduler::rangeCount() const {
  const sys::MutexLock lock(mutex_);
  return static_cast<std::uint32_t>(ranges_.size());
}

std::uint64_t RangeScheduler::completedBytes() const {
  const sys::MutexLock lock(mutex_);
  return completedBytes_;
}

}  // namespace xfer
