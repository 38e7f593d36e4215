// Where a remote file ends: the one place that knows, and that learns better.
//
// Evidence comes from three kinds of source, and a stronger one beats a weaker one:
//   announced   by the host (whose word stays, and cuts), or by the probe (which gives way)
//   confirmed   by the answers that bring the bytes: the total of a 206, the length of a 200, the proper end of a body
//   delivered   by transfers that ended well; what a failed attempt wrote is not part of the file
//
// Knows nothing of transfers, of the order in which ranges are fetched, or of validators.
//
// Threads: one at a time.
// Errors:  delivered throws std::bad_alloc.
// Units:   offsets and sizes are bytes; ranges are half-open [start, end).
#pragma once

#include <cstdint>
#include <optional>

#include "byte_range.h"

namespace xfer {

class FileExtent {
 public:
  /// How new evidence goes with what is known.
  enum class Fit {
    Fits,
    Replaces,    ///< it is of another file; that is no harm as long as nothing of the one known so far counts
    Contradicts  ///< it cannot be of the file that ranges came from
  };

  void announceByHost(std::uint64_t size) { host_ = size; }

  /// A size that the probe read from a 206 (ofRange) is the size of a file that is served in ranges: a whole file of
  /// another length cannot be the same one.
  void announceByProbe(std::uint64_t size, bool ofRange) { probe_ = Probe{size, ofRange}; }

  /// The total that a 206 names.
  [[nodiscard]] Fit judgeTotal(std::uint64_t total) const;
  void confirmTotal(std::uint64_t total);

  /// The length that a 200 gives for its body; nothing when it gives none.
  [[nodiscard]] Fit judgeLength(std::optional<std::uint64_t> length) const;
  void confirmLength(std::optional<std::uint64_t> length);

  /// Forgets all but the host's word: another file has taken the place of the one known so far.
  void forget();

  /// These bytes came from a transfer that ended well.
  void deliver(const ByteRange& range) { delivered_.add(range); }

  /// A transfer that ended well met the end of the file here, though more may have been asked for.
  void endAt(std::uint64_t offset) { metEnd_ = metEnd_ ? std::min(*metEnd_, offset) : offset; }

  /// What came from well-ended transfers.
  [[nodiscard]] const ByteRanges& delivered() const { return delivered_; }

  /// Whether bytes that came from well-ended transfers are kept.
  [[nodiscard]] bool holdsBytes() const { return !delivered_.empty(); }

  /// The size to work with; nothing while it is unknown.
  [[nodiscard]] std::optional<std::uint64_t> size() const;

  /// The size that the answers agree on.
  [[nodiscard]] std::optional<std::uint64_t> confirmed() const { return total_ ? total_ : length_; }

  /// Whether the host's size and what the answers confirm differ.
  [[nodiscard]] bool hostIsContradicted() const;

  /// The total that a 206 named, the probe's included.
  [[nodiscard]] std::optional<std::uint64_t> rangedTotal() const {
    return !total_ && probe_ && probe_->ofRange ? std::optional(probe_->size) : total_;
  }

  /// Whether an answer says that the file goes on at offset, as far as the host wants it.
  [[nodiscard]] bool goesOnAt(std::uint64_t offset) const;

  /// Where the file ends, by all that is known; nothing while nothing tells.
  [[nodiscard]] std::optional<std::uint64_t> end() const;

  /// Exclusive end of the last byte that was delivered.
  [[nodiscard]] std::uint64_t deliveredUpTo() const { return delivered_.furthest(); }

  /// The lowest byte that was not delivered.
  [[nodiscard]] std::uint64_t firstMissing() const { return delivered_.firstMissing(); }

  /// Whether bytes were delivered from behind a place where the file was met to end.
  [[nodiscard]] bool hasHole() const { return metEnd_ && delivered_.furthest() > *metEnd_; }

  /// Whether every byte up to end() was delivered and no answer says that there is more.
  [[nodiscard]] bool complete() const;

 private:
  struct Probe {
    std::uint64_t size;
    bool ofRange;
  };

  std::optional<std::uint64_t> host_;
  std::optional<Probe> probe_;
  std::optional<std::uint64_t> total_;   // of a 206
  std::optional<std::uint64_t> length_;  // of a 200
  std::optional<std::uint64_t> metEnd_;  // lowest end met
  ByteRanges delivered_;
};

}  // namespace xfer
