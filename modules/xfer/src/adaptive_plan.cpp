#include "adaptive_plan.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <utility>

namespace xfer {
namespace {

constexpr std::uint64_t kMillisecond = 1'000'000;
constexpr double kNsPerSec = 1e9;

constexpr RangePlan::PieceId kFirstId = 1;
constexpr std::uint64_t kSmallestPiece = std::uint64_t{64} * 1024;
constexpr std::uint64_t kPiecesOfFirst = 16;              // a smaller first piece makes smaller pieces
constexpr std::uint64_t kLookAgainNs = 5 * kMillisecond;  // for something to take, where nothing has changed
constexpr double kSmallestShareOfCost = 0.5;              // a piece takes so much of what it costs to ask for it
constexpr double kSmallestGainSec = 0.005;
constexpr double kSmallestGainOfCost = 0.3;  // so much of what it costs to ask for it
constexpr int kRoundsToEndTogether = 4;

// The window in which the loop is watched: before the other connections are opened, and later.
constexpr std::uint64_t kOpeningWindowNs = 2 * kMillisecond;
constexpr std::uint64_t kBusyWindowNs = 10 * kMillisecond;
constexpr double kBusyBelow = 0.3;  // slept of it

constexpr double kSlowWindowSec = 1;
constexpr double kQuickWindowSec = 0.25;
constexpr std::uint64_t kUnmeasuredNs = 50 * kMillisecond;  // what lay in buffers, and slow starts
constexpr double kMeasuredSec = 0.05;

constexpr double kLeastPatienceSec = 0.3;
constexpr double kBurstSec = 0.05;  // a longer gap counts as one between bursts

constexpr std::uint64_t kLimitedForNs = 1000 * kMillisecond;  // after a speed limit held a piece

constexpr double kSlowShare = 0.25;
constexpr std::uint64_t kSlowForNs = 700 * kMillisecond;
constexpr double kSlowMeasuredSec = 0.4;
constexpr double kSlowWorthwhileSec = 2;
constexpr std::size_t kSlowClosesPerConnection = 2;

constexpr std::uint64_t kDuplicates = std::uint64_t{256} * 1024;
constexpr std::uint64_t kDuplicatesPart = 100;  // of the file

constexpr std::uint64_t kSmallAnswer = 1024;
constexpr std::uint64_t kMostSmallAnswers = 10;

constexpr double kForgetRateSec = 5;
constexpr double kAssumedRate = 1'000'000;
constexpr double kAssumedCosts = 2;  // a share takes so many times what it costs to ask for it
constexpr double kAssumedLatencySec = 0.05;
constexpr double kNewSample = 0.3;

double seconds(std::uint64_t ns) {
  return static_cast<double>(ns) / kNsPerSec;
}

double asDouble(std::uint64_t value) {
  return static_cast<double>(value);
}

void average(double& value, double sample) {
  value = value == 0 ? sample : (1 - kNewSample) * value + kNewSample * sample;
}

}  // namespace

AdaptivePlan::AdaptivePlan(const AdaptiveSettings& settings, std::optional<std::uint64_t> size)
    : settings_(settings),
      pace_({settings.connections, settings.maxTries, settings.longestWaitNs, settings.retryMaxNs, settings.seed}) {
  if (size) setSize(*size);
}

// ---- What the first answer tells ----

void AdaptivePlan::setSize(std::uint64_t size) {
  if (size_ || whole_) return;
  size_ = size;
  whole_ = size == 0;
  std::uint64_t known = 0;
  for (Flight& flight : flights_) {
    flight.range.end = std::min(flight.range.end, size);
    if (!whole_) flight.uncutEnd = flight.range.end;
    known = std::max(known, flight.range.end);
  }
  if (known < size) addMissing({known, size});
}

void AdaptivePlan::setUnsized() {
  whole_ = true;
  size_.reset();
  flights_.clear();
  losers_.clear();
  missing_.clear();
  copyNext_ = 0;
  duplicatesAtRisk_ = 0;
}

// ---- Pieces in flight ----

AdaptivePlan::Index AdaptivePlan::find(PieceId piece) const {
  const auto found = std::lower_bound(flights_.begin(), flights_.end(), piece,
                                      [](const Flight& flight, PieceId id) { return flight.id < id; });
  return found != flights_.end() && found->id == piece ? static_cast<Index>(found - flights_.begin()) : flights_.size();
}

AdaptivePlan::Flight* AdaptivePlan::known(PieceId piece) {
  const Index index = find(piece);
  return index < flights_.size() ? &flights_[index] : nullptr;
}

void AdaptivePlan::answered(PieceId piece, std::uint64_t nowNs) {
  Flight* flight = known(piece);
  if (flight == nullptr || flight->answered) return;
  flight->answered = true;
  changed_ = true;
  flight->quietNs = flight->silentNs = 0;
  const std::uint64_t active = nowNs - std::min(pausedNs_, nowNs);
  const double took = std::max(seconds(active - std::min(flight->begunActiveNs, active)), 1e-6);
  average(flight->fresh ? newConnectionSec_ : keptConnectionSec_, took);
  // A whole file in its place may yet fail, and be asked for again.
  if (!firstAnswered_ && size_) {
    firstAnswered_ = true;
    loopNs_ = sleptNs_ = 0;
  }
  pace_.answered();
}

void AdaptivePlan::report(PieceId piece, std::uint64_t position, bool throttled) {
  for (Loser& loser : losers_) {
    if (loser.id == piece) loser.position = position;
  }
  Flight* flight = known(piece);
  if (flight == nullptr) return;
  flight->position = std::max(flight->position, position);
  flight->throttled = throttled;
}

// Takes a piece out of flight that delivered up to reached; the rest is its twin's, or missing.
void AdaptivePlan::takeOff(Index index, std::uint64_t reached) {
  const Flight ended = flights_[index];
  flights_.erase(flights_.begin() + static_cast<std::ptrdiff_t>(index));
  changed_ = true;
  if (copyNext_ == ended.id) copyNext_ = 0;
  if (ended.twin != 0) {
    separate(ended, reached);
    return;
  }
  addMissing({std::max(reached, ended.have), ended.range.end});
}

// The twin goes on alone.
void AdaptivePlan::separate(const Flight& ended, std::uint64_t reached) {
  Flight& other = *known(ended.twin);
  const std::uint64_t shared = std::max(ended.range.start, other.range.start);
  duplicatesAtRisk_ -= other.range.end - shared;
  // It still fetches what the ended one delivered ahead of it.
  counters_.duplicateBytes += std::max(reached, shared) - shared;
  other.twin = 0;
  other.have = std::max(other.have, reached);
  addMissing({reached, std::min(other.range.start, ended.range.end)});
}

// What it has delivered is known now.
void AdaptivePlan::forgetLoser(PieceId piece) {
  const auto loser = std::find_if(losers_.begin(), losers_.end(), [&](const Loser& one) { return one.id == piece; });
  if (loser == losers_.end()) return;
  settleLoser(*loser);
  losers_.erase(loser);
}

void AdaptivePlan::settleLoser(const Loser& loser) {
  duplicatesAtRisk_ -= loser.shared.length();
  counters_.duplicateBytes += std::max(loser.position, loser.shared.start) - loser.shared.start;
}

void AdaptivePlan::complete(PieceId piece, std::uint64_t nowNs) {
  forgetLoser(piece);
  const Index index = find(piece);
  if (index == flights_.size()) return;
  const Flight ended = flights_[index];
  flights_.erase(flights_.begin() + static_cast<std::ptrdiff_t>(index));
  changed_ = true;
  if (copyNext_ == piece) copyNext_ = 0;
  if (whole_) wholeDone_ = true;
  if (!whole_ && ended.range.end == ended.uncutEnd) keepConnection(ended);
  if (!ended.paidBack) pace_.paidBack();
  delivered(nowNs);
  if (newRate_ == 0 && ended.receivingNs > 0) {
    newRate_ = asDouble(ended.range.length()) / seconds(ended.receivingNs);
  }
  if (ended.twin == 0) return;
  const Index loser = find(ended.twin);
  const Flight& other = flights_[loser];
  const std::uint64_t shared = std::max(ended.range.start, other.range.start);
  losers_.push_back({other.id, {shared, ended.range.end}, other.position});
  flights_.erase(flights_.begin() + static_cast<std::ptrdiff_t>(loser));
}

void AdaptivePlan::delivered(std::uint64_t nowNs) {
  closedInVain_ = 0;
  pace_.delivered(nowNs);
}

void AdaptivePlan::keepConnection(const Flight& ended) {
  const double before = keptRate_ * static_cast<double>(kept_);
  ++kept_;
  keptRate_ = (before + rateOf(ended)) / static_cast<double>(kept_);
}

bool AdaptivePlan::partDone(PieceId piece, std::uint64_t reached, std::uint64_t lastBytes, std::uint64_t nowNs) {
  forgetLoser(piece);
  const Index index = find(piece);
  if (index == flights_.size()) return true;
  smallAnswers_ = lastBytes < kSmallAnswer ? smallAnswers_ + 1 : 0;
  if (whole_ || lastBytes == 0 || smallAnswers_ >= kMostSmallAnswers) {
    smallAnswers_ = 0;
    return false;
  }
  const Flight& flight = flights_[index];
  if (!flight.paidBack && smallAnswers_ == 0) pace_.paidBack();
  delivered(nowNs);
  keepConnection(flight);
  takeOff(index, std::clamp(reached, flight.range.start, flight.range.end));
  return true;
}

void AdaptivePlan::interrupted(PieceId piece, std::uint64_t reached) {
  forgetLoser(piece);
  const Index index = find(piece);
  if (index == flights_.size()) return;
  const ByteRange range = flights_[index].range;
  takeOff(index, std::clamp(reached, range.start, range.end));
}

void AdaptivePlan::release(PieceId piece) {
  forgetLoser(piece);
  const Index index = find(piece);
  if (index == flights_.size()) return;
  const Flight ended = flights_[index];
  takeOff(index, ended.range.start);
  // A copy's bytes up to there are the other piece's.
  if (!ended.copy) addMissing({ended.range.start, std::min(ended.have, ended.range.end)});
}

RangePlan::FollowUp AdaptivePlan::failed(PieceId piece, Verdict verdict, const TransferEnd& end, std::uint64_t reached,
                                         std::uint64_t nowNs) {
  forgetLoser(piece);
  FollowUp followUp;
  followUp.kind = FollowUp::Kind::Planned;
  const Index index = find(piece);
  if (index == flights_.size()) return followUp;
  const Flight ended = flights_[index];
  if (!whole_) reached = std::clamp(reached, ended.range.start, ended.range.end);
  // What a whole file has brought is lost.
  const std::uint64_t brought = countsInParts() ? reached - std::min(reached, ended.range.start) : 0;
  takeOff(index, reached);
  if (brought > 0) delivered(nowNs);
  if (brought >= HostPace::kProgress && !ended.paidBack) pace_.paidBack();
  const auto delivering =
      static_cast<std::size_t>(std::count_if(flights_.begin(), flights_.end(), [&](const Flight& flight) {
        return flight.answered && seconds(flight.silentNs) < patience(flight);
      }));
  const std::optional<std::uint64_t> wait =
      pace_.failed({verdict, end, ended.begunNs, brought, ended.answered, flights_.size(), delivering}, nowNs);
  if (!wait) {
    followUp.kind = FollowUp::Kind::GiveUp;
    return followUp;
  }
  ++counters_.retries;
  followUp.delayMs = (*wait + kMillisecond - 1) / kMillisecond;
  return followUp;
}

void AdaptivePlan::completeFrom(PieceId piece) {
  forgetLoser(piece);
  const Index index = find(piece);
  if (index == flights_.size()) return;
  const std::uint64_t start = flights_[index].range.start;
  if (whole_ || !size_) whole_ = wholeDone_ = true;
  std::erase_if(flights_, [&](const Flight& flight) { return flight.range.start >= start; });
  for (Flight& flight : flights_) {
    flight.range.end = std::min(flight.range.end, start);
    flight.twin = 0;
  }
  duplicatesAtRisk_ = 0;
  copyNext_ = 0;
  dropMissingFrom(start);
}

// ---- What is missing ----

void AdaptivePlan::addMissing(const ByteRange& range) {
  if (range.empty() || whole_ || !size_) return;
  const auto behind = std::lower_bound(missing_.begin(), missing_.end(), range.start,
                                       [](const ByteRange& held, std::uint64_t start) { return held.end < start; });
  auto last = behind;
  ByteRange merged = range;
  for (; last != missing_.end() && last->start <= merged.end; ++last) {
    merged.start = std::min(merged.start, last->start);
    merged.end = std::max(merged.end, last->end);
  }
  if (behind == last) {
    missing_.insert(behind, merged);
  } else {
    *behind = merged;
    missing_.erase(behind + 1, last);
  }
}

void AdaptivePlan::dropMissingFrom(std::uint64_t start) {
  std::erase_if(missing_, [&](const ByteRange& range) { return range.start >= start; });
  if (!missing_.empty()) missing_.back().end = std::min(missing_.back().end, start);
}

// The head of the lowest missing range, so much that as many pieces as there are slots end together.
ByteRange AdaptivePlan::takeShare(std::size_t slots) {
  ByteRange& run = missing_.front();
  std::uint64_t length = run.length();
  if (missing_.size() < slots) {
    std::uint64_t all = 0;
    for (const ByteRange& range : missing_) all += range.length();
    const std::size_t most = slots - (missing_.size() - 1);
    const double smallest = smallestPiece(kept_ == 0);
    const double share = std::min({asDouble(length) / asDouble(all) * static_cast<double>(slots) + 0.5,
                                   static_cast<double>(most), asDouble(length) / smallest});
    const auto parts = std::max<std::uint64_t>(static_cast<std::uint64_t>(share), 1);
    length = (length + parts - 1) / parts;
  }
  const ByteRange taken{run.start, run.start + length};
  run.start = taken.end;
  if (run.empty()) missing_.erase(missing_.begin());
  return taken;
}

// 1 while the first piece is in flight and ends before a share of what is missing would: its connection then takes one.
std::size_t AdaptivePlan::soonFree(std::size_t slots) const {
  if (flights_.empty() || flights_.front().id != kFirstId) return 0;
  std::uint64_t all = 0;
  for (const ByteRange& range : missing_) all += range.length();
  const double rate = expectedRate(true);
  const double share = asDouble(all) / static_cast<double>(slots + 1);
  const double ends = secondsToGo(flights_.front()) + cost(false);
  return ends < cost(true) + share / rate ? 1 : 0;
}

std::uint64_t AdaptivePlan::openEnd() const {
  if (whole_ || !size_) return 0;
  std::uint64_t end = missing_.empty() ? 0 : missing_.back().end;
  for (const Flight& flight : flights_) end = std::max(end, flight.range.end);
  return end;
}

bool AdaptivePlan::allDone() const {
  if (whole_) return wholeDone_;
  return size_ && missing_.empty() && flights_.empty();
}

// ---- What is fetched ----

std::size_t AdaptivePlan::limit() const {
  return isShared() ? pace_.connections() : 1;
}

void AdaptivePlan::oneAtATime() {
  oneAtATime_ = true;
  copyNext_ = 0;
}

std::size_t AdaptivePlan::idle() const {
  const std::size_t most = limit();
  const std::size_t used = flights_.size() + losers_.size();
  return most > used ? most - used : 0;
}

RangePlan::Piece AdaptivePlan::launch(const ByteRange& range, std::uint64_t nowNs) {
  Flight flight;
  flight.id = ++lastId_;
  flight.range = range;
  flight.uncutEnd = range.end;
  flight.position = flight.measuredTo = flight.have = range.start;
  flight.begunNs = nowNs;
  flight.begunActiveNs = nowNs - std::min(pausedNs_, nowNs);
  Piece piece{flight.id, range, range.start, freshOwed_ > 0};
  flight.fresh = piece.freshConnection || kept_ == 0;
  if (freshOwed_ > 0) --freshOwed_;
  if (newRate_ > 0) flight.expectedRate = expectedRate(flight.fresh);
  if (!flight.fresh) --kept_;
  flights_.push_back(flight);
  return piece;
}

std::optional<RangePlan::Piece> AdaptivePlan::next(std::uint64_t nowNs) {
  pace_.begin(nowNs);
  if (nowNs < pace_.notBeforeNs()) return std::nullopt;
  if (whole_) {
    if (wholeDone_ || !flights_.empty()) return std::nullopt;
    return launch({0, 0}, nowNs);
  }
  if (!firstAnswered_) {
    if (!flights_.empty()) return std::nullopt;
    if (!size_) {
      missing_.clear();  // what an earlier try of the first piece lacks
      return launch({0, settings_.firstPiece}, nowNs);
    }
    if (missing_.empty()) return std::nullopt;
    const ByteRange run = missing_.front();
    const ByteRange first{run.start, run.start + std::min(run.length(), settings_.firstPiece)};
    missing_.front().start = first.end;
    if (missing_.front().empty()) missing_.erase(missing_.begin());
    return launch(first, nowNs);
  }
  if (!missing_.empty()) {
    std::size_t slots = isShared() ? std::max<std::size_t>(idle(), 1) : 1;
    if (stolenFor_ > 0) {
      slots = std::min(slots, stolenFor_--);
    } else if (isShared()) {
      slots += soonFree(slots);
    }
    return launch(takeShare(slots), nowNs);
  }
  stolenFor_ = 0;
  Flight* original = copyNext_ != 0 ? known(copyNext_) : nullptr;
  copyNext_ = 0;
  if (original == nullptr || !isShared() || original->left() == 0) return std::nullopt;
  const PieceId originalId = original->id;
  const ByteRange rest{original->position, original->range.end};
  const Piece piece = launch(rest, nowNs);
  original = known(originalId);
  original->twin = piece.id;
  original->copied = true;
  Flight& copy = flights_.back();
  copy.twin = originalId;
  copy.copy = copy.copied = true;
  duplicatesAtRisk_ += rest.length();
  return piece;
}

// ---- Turns ----

AdaptivePlan::Orders AdaptivePlan::turn(const LoopTurn& turn, bool paused) {
  Orders orders;
  const std::uint64_t elapsed = lastTurnNs_ != 0 && turn.nowNs >= lastTurnNs_ ? turn.nowNs - lastTurnNs_ : turn.sinceNs;
  lastTurnNs_ = turn.nowNs;
  measure(elapsed, std::min(turn.sleptNs, elapsed), paused, turn.nowNs);
  for (const Loser& loser : losers_) {
    orders.closes.push_back({loser.id, Orders::Close::Reason::Overtaken});
    settleLoser(loser);
  }
  losers_.clear();
  if (paused) return orders;
  watchLoop(turn);
  if (!isShared()) return orders;
  updateRates(seconds(elapsed));
  judge(orders, elapsed, turn.nowNs);
  double sum = 0;
  for (const Flight& flight : flights_) sum += flight.answered ? rateOf(flight) : 0;
  pace_.turn(flights_.size(), sum, turn.nowNs);
  const bool due = changed_ || turn.nowNs >= lookAgainNs_;
  // Where a speed limit is what holds pieces up, nothing is gained by moving them.
  const bool limited = limitedNs_ != 0 && turn.nowNs < limitedNs_ + kLimitedForNs;
  if (due && !limited && turn.nowNs >= pace_.notBeforeNs() && missing_.empty() && idle() > 0 && !flights_.empty()) {
    changed_ = false;
    lookAgainNs_ = turn.nowNs + kLookAgainNs;
    steal(orders);
    if (missing_.empty()) considerCopy();
  }
  return orders;
}

void AdaptivePlan::measure(std::uint64_t elapsedNs, std::uint64_t sleptNs, bool paused, std::uint64_t nowNs) {
  if (paused) {
    pausedNs_ += elapsedNs;
    pace_.paused(elapsedNs);
  }
  const double elapsed = seconds(elapsedNs);
  const double keepSlow = std::exp(-elapsed / kSlowWindowSec);
  const double keepQuick = std::exp(-elapsed / kQuickWindowSec);
  for (Flight& flight : flights_) {
    if (flight.throttled) limitedNs_ = nowNs;
    const std::uint64_t bytes = flight.position - flight.measuredTo;
    flight.measuredTo = flight.position;
    if (bytes > 0) {
      const double gap = seconds(flight.quietNs);
      if (flight.answered && flight.receivingNs > 0 && gap >= kBurstSec) average(gapSec_, gap);
      flight.quietNs = flight.silentNs = 0;
      delivered(nowNs);
      if (!flight.paidBack && countsInParts() && flight.position - flight.range.start >= HostPace::kProgress) {
        flight.paidBack = true;
        pace_.paidBack();
      }
    }
    if (!std::exchange(flight.clockStarted, true) && bytes == 0) continue;
    if (paused || (flight.throttled && bytes == 0)) continue;
    if (bytes == 0) {
      flight.quietNs += elapsedNs;
      flight.silentNs += sleptNs;
    }
    if (!flight.answered || flight.position == flight.range.start) continue;
    flight.receivingNs += elapsedNs;
    if (flight.receivingNs < kUnmeasuredNs) continue;
    flight.slow.add(asDouble(bytes), elapsed, keepSlow, kSlowWindowSec);
    flight.quick.add(asDouble(bytes), elapsed, keepQuick, kQuickWindowSec);
  }
}

// A loop that hardly sleeps has the processor as its limit, and gains nothing by more connections.
void AdaptivePlan::watchLoop(const LoopTurn& turn) {
  if (!firstAnswered_) return;
  loopNs_ += turn.sinceNs;
  sleptNs_ += turn.sleptNs;
  if (loopNs_ < (opened_ ? kBusyWindowNs : kOpeningWindowNs)) return;
  busy_ = asDouble(sleptNs_) < kBusyBelow * asDouble(loopNs_);
  if (!busy_) opened_ = true;
  loopNs_ = sleptNs_ = 0;
}

// Closes what is silent or far too slow.
void AdaptivePlan::judge(Orders& orders, std::uint64_t elapsedNs, std::uint64_t nowNs) {
  const std::size_t deliver = countReceiving(static_cast<std::uint64_t>(kLeastPatienceSec * kNsPerSec));
  for (Index index = 0; index < flights_.size();) {
    Flight& flight = flights_[index];
    const bool slow = !busy_ && deliver >= 2 && flight.slow.seconds >= kSlowMeasuredSec && !flight.throttled &&
                      rates_.size() > 2 && flight.slow.rate() < kSlowShare * medianRate_ &&
                      flight.quick.rate() < kSlowShare * medianRate_;
    flight.slowNs = slow ? flight.slowNs + elapsedNs : 0;
    // Those that fell silent together with this one do not count: the network may have.
    const bool quiet = seconds(flight.silentNs) >= patience(flight);
    const std::size_t receiving = quiet ? countReceiving(flight.silentNs / 2) : 0;
    const bool silent = quiet && isSuspect(flight, receiving);
    const bool tooSlow = flight.slowNs >= kSlowForNs && secondsToGo(flight) > kSlowWorthwhileSec &&
                         slowClosed_ < kSlowClosesPerConnection * settings_.connections;
    if (!silent && !tooSlow) {
      ++index;
      continue;
    }
    const Flight closed = flight;
    orders.closes.push_back({closed.id, silent ? Orders::Close::Reason::Silent : Orders::Close::Reason::Slow});
    takeOff(index, closed.position);
    ++freshOwed_;
    ++counters_.replaced;
    if (!silent) ++slowClosed_;
    if (silent && receiving == 0) ++closedInVain_;
    if (silent && !closed.answered && receiving > 0) pace_.unanswered(flights_.size(), nowNs);
  }
}

std::size_t AdaptivePlan::countReceiving(std::uint64_t withinNs) const {
  return static_cast<std::size_t>(std::count_if(flights_.begin(), flights_.end(), [&](const Flight& flight) {
    return flight.answered && flight.silentNs < withinNs;
  }));
}

// When all are silent the network is: only others that receive, or have nothing else to do, make silence suspect.  But
// a request that was never answered loses nothing by being asked again, and a host that leaves some without an answer
// would hold all of them up.
bool AdaptivePlan::isSuspect(const Flight& flight, std::size_t receiving) const {
  if (receiving >= 2 || (receiving == 1 && receiving * 2 >= flights_.size() - 1)) return true;
  if (flight.answered && (idle() == 0 || !missing_.empty())) return false;
  return seconds(flight.silentNs) >=
         patience(flight) * std::exp2(static_cast<double>(std::min<std::size_t>(closedInVain_, 10)));
}

// Gives idle connections the tails of the pieces that end last, so much that all end together.
void AdaptivePlan::steal(Orders& orders) {
  if (busy_) return;
  double latest = 0;
  for (const Flight& flight : flights_) {
    if (!flight.copy) latest = std::max(latest, secondsToGo(flight));
  }
  // As many thieves as leave each of them a piece that pays: the more, the smaller.
  std::size_t thieves = 0;
  for (std::size_t most = idle(); thieves < most;) {
    const std::size_t middle = (thieves + most + 1) / 2;
    const bool fresh = middle > kept_;
    const double bytes = expectedRate(fresh) * (endTogether(middle) - cost(fresh));
    if (bytes >= asDouble(fewestBytes())) {
      thieves = middle;
    } else {
      most = middle - 1;
    }
  }
  if (thieves == 0) return;
  const double together = endTogether(thieves);
  if (latest - together < smallestGain(thieves > kept_)) return;
  for (std::size_t thief = 0; thief < thieves; ++thief) {
    Flight* victim = latestFlight();
    if (victim == nullptr) break;
    const bool fresh = thief >= kept_;
    const double latency = cost(fresh);
    const double rate = expectedRate(fresh);
    const double ends = secondsToGo(*victim);
    const double pairwise = (ends - latency) / (1 / rate + 1 / rateOf(*victim));
    const double bytes = std::min(rate * (together - latency), pairwise);
    if (bytes < asDouble(fewestBytes()) || ends - (latency + bytes / rate) < smallestGain(fresh)) break;
    const std::uint64_t from = std::max(victim->position, victim->have) + 1;
    if (victim->range.end < from + static_cast<std::uint64_t>(bytes)) break;
    const std::uint64_t end = victim->range.end - static_cast<std::uint64_t>(bytes);
    counters_.stolenBytes += victim->range.end - end;
    addMissing({end, victim->range.end});
    victim->range.end = end;
    const auto order = std::find_if(orders.cuts.begin(), orders.cuts.end(),
                                    [&](const Orders::Cut& cut) { return cut.piece == victim->id; });
    if (order == orders.cuts.end()) {
      orders.cuts.push_back({victim->id, end});
    } else {
      order->end = end;
    }
    ++stolenFor_;
  }
}

// How soon all end together, with so many thieves: of the pieces in flight those that end later count.
double AdaptivePlan::endTogether(std::size_t thieves) const {
  const std::size_t kept = std::min(thieves, kept_);
  const double keptSum = static_cast<double>(kept) * expectedRate(false);
  const double freshSum = static_cast<double>(thieves - kept) * expectedRate(true);
  const double lost = keptSum * cost(false) + freshSum * cost(true);
  double together = 0;
  for (int round = 0; round < kRoundsToEndTogether; ++round) {
    double work = lost;  // bytes, with those that are lost by waiting
    double sum = keptSum + freshSum;
    for (const Flight& flight : flights_) {
      if (flight.copy || secondsToGo(flight) < together) continue;
      const double own = rateOf(flight);
      work += asDouble(flight.left()) + own * waitOf(flight);
      sum += own;
    }
    const double next = work / sum;
    if (next <= together) break;
    together = next;
  }
  return together;
}

// The last piece a second time, where that ends sooner and nothing is worth taking from it.
void AdaptivePlan::considerCopy() {
  const Flight* victim = latestFlight();
  if (victim == nullptr || victim->copied || victim->throttled) return;
  const std::uint64_t left = victim->left();
  if (left == 0 || counters_.duplicateBytes + duplicatesAtRisk_ + left > mostDuplicates()) return;
  const bool fresh = kept_ == 0;
  if (secondsToGo(*victim) > 2 * cost(fresh) + asDouble(left) / expectedRate(fresh)) copyNext_ = victim->id;
}

// That is predicted to end last, of those that no other piece copies.
AdaptivePlan::Flight* AdaptivePlan::latestFlight() {
  Flight* latest = nullptr;
  double most = 0;
  for (Flight& flight : flights_) {
    if (flight.twin != 0) continue;
    const double ends = secondsToGo(flight);
    if (ends <= most) continue;
    most = ends;
    latest = &flight;
  }
  return latest;
}

// ---- Rates and costs ----

bool AdaptivePlan::isMeasured(const Flight& flight) const {
  return flight.slow.seconds >= kMeasuredSec;
}

void AdaptivePlan::updateRates(double elapsedSec) {
  rates_.clear();
  double sum = 0;
  for (const Flight& flight : flights_) {
    if (!isMeasured(flight)) continue;
    rates_.push_back(flight.slow.rate());
    sum += flight.slow.rate();
  }
  if (rates_.empty()) return;
  const auto middle = rates_.begin() + static_cast<std::ptrdiff_t>(rates_.size() / 2);
  std::nth_element(rates_.begin(), middle, rates_.end());
  medianRate_ = *middle;
  // The last ones in flight tell little of what another connection could do.
  const double before = rates_.size() < 3 ? newRate_ * std::exp(-elapsedSec / kForgetRateSec) : 0;
  newRate_ = std::max(sum / static_cast<double>(rates_.size()), before);
}

// The lower of both meters: what has become slow is seen soon, a burst is not believed.
double AdaptivePlan::rateOf(const Flight& flight) const {
  if (isMeasured(flight)) return std::max(std::min(flight.slow.rate(), flight.quick.rate()), 1.0);
  return flight.expectedRate > 0 ? flight.expectedRate : expectedRate(flight.fresh);
}

// Of a connection that has no work yet.  Where nothing was measured, rather too much: who runs already then keeps more,
// and what it has too much is taken again by connections that are open.
double AdaptivePlan::expectedRate(bool fresh) const {
  if (!fresh && kept_ > 0 && keptRate_ > 0) return keptRate_;
  if (newRate_ > 0) return newRate_;
  const double share = asDouble(size_.value_or(0)) / static_cast<double>(settings_.connections);
  return std::max(kAssumedRate, share / (kAssumedCosts * cost(true)));
}

double AdaptivePlan::waitOf(const Flight& flight) const {
  if (flight.answered) return 0;
  return std::max(0.0, cost(flight.fresh) - seconds(flight.quietNs));
}

double AdaptivePlan::secondsToGo(const Flight& flight) const {
  return waitOf(flight) + asDouble(flight.left()) / rateOf(flight);
}

// Until a piece begins to arrive.
double AdaptivePlan::cost(bool fresh) const {
  if (fresh) return newConnectionSec_ > 0 ? newConnectionSec_ : kAssumedLatencySec;
  return keptConnectionSec_ > 0 ? keptConnectionSec_ : cost(true) / 2;
}

double AdaptivePlan::patience(const Flight& flight) const {
  const double latencies = flight.answered ? 3 * cost(false) : 4 * cost(flight.fresh);
  return std::max({kLeastPatienceSec, latencies, 3 * gapSec_});
}

std::uint64_t AdaptivePlan::fewestBytes() const {
  return std::clamp<std::uint64_t>(settings_.firstPiece / kPiecesOfFirst, 1, kSmallestPiece);
}

double AdaptivePlan::smallestPiece(bool fresh) const {
  return std::max(asDouble(fewestBytes()), kSmallestShareOfCost * expectedRate(fresh) * cost(fresh));
}

// In seconds: by less it is not worth a cut, which closes the victim's connection.
double AdaptivePlan::smallestGain(bool fresh) const {
  return std::max(kSmallestGainSec, kSmallestGainOfCost * cost(fresh));
}

std::uint64_t AdaptivePlan::mostDuplicates() const {
  return std::max(kDuplicates, size_.value_or(0) / kDuplicatesPart);
}

// ---- The host ----

const HostTerms& AdaptivePlan::terms() const {
  return pace_.terms();
}

void AdaptivePlan::adopt(const HostTerms& terms) {
  pace_.adopt(terms);
}

// ---- For onlookers ----

std::vector<AdaptivePlan::Activity> AdaptivePlan::activity() const {
  std::vector<Activity> all;
  all.reserve(flights_.size());
  for (const Flight& flight : flights_) {
    const double rate = isMeasured(flight) ? flight.slow.rate() : 0;
    all.push_back(
        {flight.id, flight.range, flight.position, static_cast<std::uint64_t>(rate), flight.quietNs, flight.copy});
  }
  return all;
}

const AdaptivePlan::Counters& AdaptivePlan::counters() const {
  return counters_;
}

std::vector<ByteRange> AdaptivePlan::missing() const {
  if (!size_ && !wholeDone_ && flights_.empty()) return {{0, std::numeric_limits<std::uint64_t>::max()}};
  return missing_;
}

}  // namespace xfer
