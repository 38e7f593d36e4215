// Decides which bytes of a file are fetched next, over how many transfers, and what follows when one of them fails.
//
//   next ──► a piece in flight ──┬─ complete ──► done
//     ▲                          ├─ partDone ──► what is left is missing again
//     │                          ├─ failed ────► likewise, at once or later, or the job gives up
//     └──────────────────────────┴─ release ───► all of it is missing again
//
// Each piece is identified by a ticket of the plan.  A piece that the plan does not know, or knows no more, is ignored.
//
// Knows nothing of transfers, answers, threads and clocks: it is told the time.
//
// Threads: one at a time.
// Errors:  std::bad_alloc.
// Units:   offsets and lengths are bytes, half-open [start, end); times nanoseconds of one monotonic clock; delays
//          milliseconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "byte_range.h"
#include "retry_policy.h"
#include "transfer_backend.h"

namespace xfer {

class RangePlan {
 public:
  using PieceId = std::uint64_t;

  struct Piece {
    PieceId id = 0;
    ByteRange range{};             ///< an end of 0: as long as it goes
    std::uint64_t rangeStart = 0;  ///< names it in the log
    bool freshConnection = false;  ///< not over a connection that was used before
  };

  /// What follows a failure.
  struct FollowUp {
    enum class Kind {
      GiveUp,    ///< the job fails
      TryLater,  ///< call requeue after delayMs
      Planned    ///< next hands it out when its time has come, after delayMs at the earliest
    } kind = Kind::GiveUp;
    std::uint64_t delayMs = 0;
    std::size_t attempt = 0;  ///< TryLater: of how many; for the log
  };

  RangePlan() = default;
  virtual ~RangePlan() = default;
  RangePlan(const RangePlan&) = delete;
  RangePlan& operator=(const RangePlan&) = delete;

  // ---- What is fetched ----

  /// Most transfers at once.
  [[nodiscard]] virtual std::size_t limit() const = 0;

  /// From now on one transfer at a time: the server sends whole files.
  virtual void oneAtATime() = 0;

  /// Puts a piece in flight; nothing when there is none to fetch now.  The caller watches over limit().
  virtual std::optional<Piece> next(std::uint64_t nowNs) = 0;

  // ---- How a piece ends ----

  /// All of it has arrived, or the file ends inside of it.
  virtual void complete(PieceId piece, std::uint64_t nowNs) = 0;

  /// It has arrived up to reached, and the server has more but did not send it.  lastBytes: what this answer brought.
  /// False: the answers are too small to go on like this; the caller reports a failure instead.
  [[nodiscard]] virtual bool partDone(PieceId piece, std::uint64_t reached, std::uint64_t lastBytes,
                                      std::uint64_t nowNs) = 0;

  /// Nothing of it counts, through nobody's fault.
  virtual void release(PieceId piece) = 0;

  /// Its transfer failed after it had arrived up to reached.
  virtual FollowUp failed(PieceId piece, Verdict verdict, const TransferEnd& end, std::uint64_t reached,
                          std::uint64_t nowNs) = 0;

  /// Whether the piece waits for requeue.
  [[nodiscard]] virtual bool awaitsRequeue(PieceId piece) const = 0;
  virtual void requeue(PieceId piece) = 0;

  /// All bytes from this piece's start on have arrived.
  virtual void completeFrom(PieceId piece) = 0;

  // ---- What is missing ----

  /// Exclusive end of the last byte that is missing; 0 when none is, or the size is unknown.
  [[nodiscard]] virtual std::uint64_t openEnd() const = 0;
  [[nodiscard]] virtual bool allDone() const = 0;

  /// Of a plan whose ranges are fixed; else 0.
  [[nodiscard]] virtual std::size_t rangeCount() const { return 0; }
};

}  // namespace xfer
