// Byte ranges of a file and the sets that they add up to.  Pure.
//
// Units: offsets and lengths are bytes; ranges are half-open [start, end).
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace xfer {

struct ByteRange {
  std::uint64_t start = 0;
  std::uint64_t end = 0;

  [[nodiscard]] constexpr std::uint64_t length() const { return end > start ? end - start : 0; }
  [[nodiscard]] constexpr bool empty() const { return end <= start; }
  [[nodiscard]] constexpr bool contains(const ByteRange& other) const {
    return other.empty() || (start <= other.start && other.end <= end);
  }
  constexpr bool operator==(const ByteRange&) const = default;
};

/// A set of bytes, kept as the fewest ranges.
class ByteRanges {
 public:
  /// Strong exception guarantee; throws std::bad_alloc.
  void add(const ByteRange& range) {
    if (range.empty()) return;
    const auto first = std::lower_bound(ranges_.begin(), ranges_.end(), range.start,
                                        [](const ByteRange& held, std::uint64_t start) { return held.end < start; });
    auto last = first;
    ByteRange merged = range;
    for (; last != ranges_.end() && last->start <= range.end; ++last) {
      merged.start = std::min(merged.start, last->start);
      merged.end = std::max(merged.end, last->end);
    }
    if (first == last) {
      ranges_.insert(first, merged);
    } else {
      *first = merged;
      ranges_.erase(first + 1, last);
    }
  }

  void clear() { ranges_.clear(); }

  [[nodiscard]] bool empty() const { return ranges_.empty(); }

  /// Whether every byte of the range is in the set.
  [[nodiscard]] bool covers(const ByteRange& range) const {
    if (range.empty()) return true;
    return std::any_of(ranges_.begin(), ranges_.end(), [&](const ByteRange& held) { return held.contains(range); });
  }

  /// Whether any byte of the range is in the set.
  [[nodiscard]] bool meets(const ByteRange& range) const {
    return std::any_of(ranges_.begin(), ranges_.end(),
                       [&](const ByteRange& held) { return held.start < range.end && range.start < held.end; });
  }

  /// Calls back with each part of the range that is not in the set, in order.
  template <class Callback>
  void eachMissing(ByteRange range, Callback&& callback) const {
    for (const ByteRange& held : ranges_) {
      if (held.end <= range.start) continue;
      if (held.start >= range.end) break;
      if (held.start > range.start) callback(ByteRange{range.start, held.start});
      range.start = held.end;
    }
    if (!range.empty()) callback(range);
  }

  /// The lowest offset from which on a byte is missing: the first byte that is not in the set.
  [[nodiscard]] std::uint64_t firstMissing() const {
    return ranges_.empty() || ranges_.front().start != 0 ? 0 : ranges_.front().end;
  }

  /// The exclusive end of the last byte in the set; 0 when it is empty.
  [[nodiscard]] std::uint64_t furthest() const { return ranges_.empty() ? 0 : ranges_.back().end; }

 private:
  std::vector<ByteRange> ranges_;  // ascending, neither touching nor overlapping
};

}  // namespace xfer
