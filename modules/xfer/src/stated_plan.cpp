#include "stated_plan.h"

#include <algorithm>

namespace xfer {
namespace {

constexpr std::uint64_t kSmallAnswer = 1024;
constexpr int kMostSmallAnswers = 10;

}  // namespace

std::optional<RangePlan::Piece> StatedPlan::next(std::uint64_t /*nowNs*/) {
  std::optional<ByteRange> range;
  if (!rests_.empty()) {
    range = rests_.front();
    rests_.pop_front();
  } else {
    range = scheduler_.nextPending();
  }
  if (!range) return std::nullopt;
  Piece piece;
  piece.id = piece.rangeStart = range->start;
  piece.range = *range;
  if (const auto known = progress_.find(piece.id); known != progress_.end()) {
    piece.range.start = std::max(range->start, known->second.reached);
  }
  return piece;
}

void StatedPlan::complete(PieceId piece, std::uint64_t /*nowNs*/) {
  scheduler_.complete(piece);
}

bool StatedPlan::partDone(PieceId piece, std::uint64_t reached, std::uint64_t lastBytes, std::uint64_t /*nowNs*/) {
  Progress& progress = progress_[piece];
  progress.reached = reached;
  progress.smallAnswers = lastBytes < kSmallAnswer ? progress.smallAnswers + 1 : 0;
  if (progress.smallAnswers == kMostSmallAnswers) {
    progress.smallAnswers = 0;
    return false;
  }
  rests_.push_back({piece, scheduler_.endOf(piece)});
  return true;
}

RangePlan::FollowUp StatedPlan::failed(PieceId piece, Verdict verdict, const TransferEnd& /*end*/,
                                       std::uint64_t /*reached*/, std::uint64_t /*nowNs*/) {
  FollowUp followUp;
  if (verdict != Verdict::Retryable) return followUp;
  followUp.attempt = ++progress_[piece].attempts;
  if (followUp.attempt > kRetryDelaysMs.size()) return followUp;
  followUp.kind = FollowUp::Kind::TryLater;
  followUp.delayMs = kRetryDelaysMs[followUp.attempt - 1];
  waiting_.insert(piece);
  return followUp;
}

void StatedPlan::requeue(PieceId piece) {
  if (waiting_.erase(piece) != 0) scheduler_.fail(piece);
}

void StatedPlan::completeFrom(PieceId piece) {
  scheduler_.completeFrom(piece);
  std::erase_if(rests_, [&](const ByteRange& range) { return range.start >= piece; });
  waiting_.erase(waiting_.lower_bound(piece), waiting_.end());
}

}  // namespace xfer
