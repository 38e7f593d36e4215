// Cuts a file into pieces by what its connections deliver, and cuts the pieces again while they run, so that no slow,
// silent or dead connection holds the download up.
//
// Threads: one at a time.
// Errors:  std::bad_alloc.
// Units:   as range_plan.h; rates are bytes per second.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "host_terms.h"
#include "range_plan.h"

namespace xfer {

struct AdaptiveSettings {
  std::size_t connections = 1;                    ///< most at once
  std::size_t maxTries = 10;                      ///< tries in a row that bring nothing before the job gives up
  std::uint64_t longestWaitNs = 600'000'000'000;  ///< a host that asks for a longer wait ends the job
  std::uint64_t retryMaxNs = 0;                   ///< gives up after so long a time without progress; 0: never
  std::uint64_t seed = 0;                         ///< of the random part of delays
};

class AdaptivePlan final : public RangePlan {
 public:
  /// What one piece in flight does.
  struct Activity {
    PieceId piece = 0;
    ByteRange range{};
    std::uint64_t position = 0;     ///< exclusive end of what it has delivered
    std::uint64_t bytesPerSec = 0;  ///< 0: nothing was measured yet
    std::uint64_t silentNs = 0;     ///< since the last byte, without the time in which it was held
    bool copy = false;              ///< of a range that another piece fetches too
  };

  struct Counters {
    std::uint64_t stolenBytes = 0;     ///< moved from one piece in flight to another
    std::uint64_t duplicateBytes = 0;  ///< that copies brought a second time
    std::uint64_t retries = 0;         ///< failures that were followed by another try
    std::uint64_t replaced = 0;        ///< connections that were given up for being silent or slow
  };

  /// With a size that the host gave; nothing: the first answer tells.
  AdaptivePlan(const AdaptiveSettings& settings, std::optional<std::uint64_t> size);

  // ---- What the first answer tells ----

  /// The size is known now: of the first answer, when none was known before.
  void setSize(std::uint64_t size);

  /// The size cannot be known before the end: one piece, without a range.  Forgets every piece in flight.
  void setUnsized();

  // ---- Events of pieces in flight ----

  /// The head of its answer has come and was accepted.
  void answered(PieceId piece, std::uint64_t nowNs);

  /// Where it is now, and whether a speed limit holds it.  Before each turn, for every piece in flight.
  void report(PieceId piece, std::uint64_t position, bool throttled);

  /// paused: the job is, so nothing can arrive.
  [[nodiscard]] Orders turn(const LoopTurn& turn, bool paused);

  // ---- The host ----

  /// What the host asked for, or bears, as far as this job knows.
  [[nodiscard]] const HostTerms& terms() const;

  /// What others have learned of the host.
  void adopt(const HostTerms& terms);

  // ---- For onlookers ----

  [[nodiscard]] std::vector<Activity> activity() const;
  [[nodiscard]] const Counters& counters() const;

  // ---- RangePlan ----

  [[nodiscard]] std::size_t limit() const override;
  void oneAtATime() override;
  std::optional<Piece> next(std::uint64_t nowNs) override;
  void complete(PieceId piece, std::uint64_t nowNs) override;
  [[nodiscard]] bool partDone(PieceId piece, std::uint64_t reached, std::uint64_t lastBytes,
                              std::uint64_t nowNs) override;
  void release(PieceId piece) override;
  FollowUp failed(PieceId piece, Verdict verdict, const TransferEnd& end, std::uint64_t reached,
                  std::uint64_t nowNs) override;
  [[nodiscard]] bool awaitsRequeue(PieceId /*piece*/) const override { return false; }
  void requeue(PieceId /*piece*/) override {}
  void completeFrom(PieceId piece) override;
  [[nodiscard]] std::uint64_t openEnd() const override;
  [[nodiscard]] bool allDone() const override;
};

}  // namespace xfer
