// The plan of a download whose ranges are cut once, before it starts: each range is fetched by one transfer after the
// other until it is there, and has a fixed number of retries with fixed delays.
//
// A piece is identified by the start of its range.
//
// Threads: one at a time.
// Errors:  std::bad_alloc.
// Units:   as range_plan.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>

#include "range_plan.h"
#include "range_scheduler.h"
#include "xfer/download_records.h"

namespace xfer {

class StatedPlan final : public RangePlan {
 public:
  /// Requires: unworkableField(policy) is null.
  StatedPlan(std::uint64_t totalBytes, const DownloadPolicy& policy, std::size_t mostInFlight)
      : scheduler_(totalBytes, policy), limit_(mostInFlight) {}

  [[nodiscard]] std::size_t limit() const override { return limit_; }
  void oneAtATime() override { limit_ = 1; }
  std::optional<Piece> next(std::uint64_t nowNs) override;
  void complete(PieceId piece, std::uint64_t nowNs) override;
  [[nodiscard]] bool partDone(PieceId piece, std::uint64_t reached, std::uint64_t lastBytes,
                              std::uint64_t nowNs) override;
  void release(PieceId piece) override { scheduler_.release(piece); }
  FollowUp failed(PieceId piece, Verdict verdict, const TransferEnd& end, std::uint64_t reached,
                  std::uint64_t nowNs) override;
  [[nodiscard]] bool awaitsRequeue(PieceId piece) const override { return waiting_.contains(piece); }
  void requeue(PieceId piece) override;
  void completeFrom(PieceId piece) override;
  [[nodiscard]] std::uint64_t openEnd() const override { return scheduler_.openEnd(); }
  [[nodiscard]] bool allDone() const override { return scheduler_.allDone(); }
  [[nodiscard]] std::size_t rangeCount() const override { return scheduler_.rangeCount(); }

 private:
  /// What is known of one range beside its state in the scheduler.
  struct Progress {
    std::size_t attempts = 0;   // failed ones, over the job's life
    std::uint64_t reached = 0;  // exclusive end of what its well-ended transfers brought; 0: nothing yet
    int smallAnswers = 0;       // in a row
  };

  RangeScheduler scheduler_;
  std::size_t limit_;
  std::map<PieceId, Progress> progress_;
  std::deque<ByteRange> rests_;  // ranges whose next part is to be asked for at once
  std::set<PieceId> waiting_;    // for requeue
};

}  // namespace xfer
