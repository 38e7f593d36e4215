#include "adaptive_plan_world.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <sstream>
#include <utility>
#include <vector>

#include "adaptive_plan.h"

namespace support {
namespace {

using xfer::AdaptivePlan;
using xfer::ByteRange;
using PieceId = AdaptivePlan::PieceId;

constexpr std::uint64_t kShortFirst = 1 << 20;
constexpr double kNever = std::numeric_limits<double>::infinity();
constexpr double kShortestTurn = 0.004;
constexpr double kLongestTurn = 0.02;
constexpr double kTurns = 200;  // of a download that nothing hinders
constexpr double kInitialWindow = 14600;
constexpr double kLowSpeedTime = 30;
constexpr std::int32_t kRefused = 7;
constexpr std::int32_t kTimedOut = 28;
constexpr std::int32_t kReset = 56;
constexpr std::int32_t kPartial = 206;
constexpr std::int32_t kWholeFile = 200;
constexpr std::int32_t kForbidden = 403;
constexpr std::int32_t kServerError = 500;
constexpr std::int32_t kBusy = 503;

class Random {
 public:
  explicit Random(std::uint64_t seed) : state_(seed) {}

  std::uint64_t bits() {
    std::uint64_t value = state_ += 0x9e3779b97f4a7c15;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9;
    value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
    return value ^ (value >> 31);
  }
  double share() { return static_cast<double>(bits() >> 11) * 0x1p-53; }
  double between(double from, double to) { return from + (to - from) * share(); }
  double logBetween(double from, double to) { return std::exp(between(std::log(from), std::log(to))); }
  std::size_t below(std::size_t end) { return static_cast<std::size_t>(bits() % end); }
  bool chance(double p) { return share() < p; }

 private:
  std::uint64_t state_;
};

// The connection that is opened as the so manieth of a world.
struct Connection {
  Connection() = default;
  Connection(const PlanWorld& world, std::size_t index) : seed(world.seed * 1'000'003 + index * 7919 + 1) {
    Random random(seed);
    latency = world.latency * random.between(0.9, 1.1);
    rate = world.rate * random.between(1 - world.spread, 1 + world.spread);
    if (random.chance(world.slowShare)) rate /= world.slowBy;
    const double fate = random.share();
    const double after = world.endAfter * random.between(0.02, 1);
    if (fate < world.deathShare) {
      diesAfter = after;
    } else if (fate < world.deathShare + world.silenceShare) {
      silentAfter = after;
    }
  }

  // At this time, without the cap of the sum.
  double rateAt(const PlanWorld& world, double now) {
    double own = rate;
    if (world.changeEvery > 0) {
      const auto stretch = static_cast<std::uint64_t>(now / world.changeEvery);
      if (stretch != factorOf) {
        factorOf = stretch;
        factor = Random(seed ^ (stretch * 0x51ed2701)).between(1 - world.changeBy, 1 + world.changeBy);
      }
      own *= factor;
    }
    return world.slowStarts ? std::min(own, (kInitialWindow + delivered * 0.7) / latency) : own;
  }

  [[nodiscard]] double untilItEnds() const { return std::min(diesAfter, silentAfter) - delivered; }

  std::uint64_t seed = 0;
  double latency = 0;
  double rate = 0;
  double diesAfter = kNever;
  double silentAfter = kNever;
  double delivered = 0;
  std::uint64_t factorOf = std::numeric_limits<std::uint64_t>::max();
  double factor = 1;
};

bool holds(const PlanWorld& world, double now, PlanWorld::Hold hold) {
  return world.hold == hold && now >= world.holdFrom && now < world.holdTo;
}

// What the sum of the rates is reduced to.
double capAt(const PlanWorld& world, double now) {
  if (holds(world, now, PlanWorld::Hold::Paused) || holds(world, now, PlanWorld::Hold::Outage)) return 0;
  double cap = kNever;
  if (world.sumCap > 0) cap = world.sumCap;
  return holds(world, now, PlanWorld::Hold::Throttled) ? std::min(cap, world.rate / 4) : cap;
}

// How often the loop turns while nothing happens: real ones do all the time, and so does this one in short downloads.
double turnOf(const PlanWorld& world) {
  const double rate = world.rate * static_cast<double>(world.connections);
  return std::clamp(static_cast<double>(world.size) / rate / kTurns, kShortestTurn, kLongestTurn);
}

double idealOf(const PlanWorld& world) {
  struct Slot {
    Connection connection;
    double deliversFrom;
  };
  std::size_t opened = 0;
  const auto open = [&](double now) {
    const Connection connection(world, opened++);
    return Slot{connection, now + connection.latency * (1 + world.setup)};
  };
  std::vector<Slot> slots{open(0)};
  const double firstAnswer = slots[0].deliversFrom;
  const bool alone = !world.ranges || world.unsized || world.refusesAll != 0;
  std::size_t most = world.served == 0 ? world.connections : std::min(world.served, world.connections);
  if (alone) most = 1;
  double left = static_cast<double>(world.size);
  double now = firstAnswer;
  const double longestStep = turnOf(world);
  std::vector<double> rates;
  while (left > 0 && now < 1e5) {
    while (slots.size() < most) slots.push_back(open(now));
    double sum = 0;
    double step = longestStep;
    rates.clear();
    for (Slot& slot : slots) {
      if (slot.connection.untilItEnds() <= 0.5) slot = open(now);
      const double rate = now >= slot.deliversFrom ? slot.connection.rateAt(world, now) : 0;
      if (now < slot.deliversFrom) step = std::min(step, slot.deliversFrom - now);
      rates.push_back(rate);
      sum += rate;
    }
    const double cap = capAt(world, now);
    const double scale = sum > cap ? cap / sum : 1;
    step = std::max(step, 1e-6);
    if (sum * scale * step > left) step = left / (sum * scale);
    for (std::size_t i = 0; i < slots.size(); ++i) {
      const double bytes = std::min(rates[i] * scale * step, slots[i].connection.untilItEnds());
      slots[i].connection.delivered += bytes;
      left -= bytes;
    }
    if (left < 1) break;
    now += step;
  }
  return now;
}

class Life {
 public:
  explicit Life(const PlanWorld& world)
      : world_(world),
        turn_(turnOf(world)),
        random_(world.seed ^ 0x5bd1e995),
        plan_(settings(world), world.sizeGiven ? std::optional<std::uint64_t>(world.size) : std::nullopt) {}

  PlanOutcome run() {
    outcome_.ideal = idealOf(world_);
    const double bound = 60 * outcome_.ideal + 1200;
    refill();
    while (!plan_.allDone() && outcome_.fault.empty() && !outcome_.gaveUp) {
      advance();
      turn();
      if (now_ > bound) breaks("it never ends");
    }
    outcome_.seconds = now_;
    if (outcome_.fault.empty() && !outcome_.gaveUp) watchEnd();
    if (outcome_.gaveUp && !deservesGivingUp(world_)) breaks("it gives up");
    return outcome_;
  }

 private:
  struct Transfer {
    PieceId id = 0;
    ByteRange range{};  // as cut
    std::uint64_t uncutEnd = 0;
    std::uint64_t position = 0;
    double fraction = 0;
    Connection connection{};
    double answersAt = 0;
    double lastByte = 0;
    bool answered = false;
    bool whole = false;  // a body without a range
    std::uint64_t bodyEnd = 0;
    std::int32_t code = 0;  // with which it fails instead of being answered
    std::int32_t status = 0;
    double rate = 0;
  };

  static xfer::AdaptiveSettings settings(const PlanWorld& world) {
    xfer::AdaptiveSettings settings;
    settings.connections = world.connections;
    settings.maxTries = 10;
    settings.seed = world.seed;
    if (world.shortFirst) settings.firstPiece = kShortFirst;
    return settings;
  }

  [[nodiscard]] std::uint64_t nowNs() const { return static_cast<std::uint64_t>((now_ + 1) * 1e9); }

  void breaks(const std::string& promise) {
    if (outcome_.fault.empty()) outcome_.fault = promise + " at " + std::to_string(now_) + " s: " + describe(world_);
  }

  // ---- Requests ----

  void refill() {
    while (outcome_.fault.empty() && transfers_.size() < plan_.limit()) {
      const std::optional<AdaptivePlan::Piece> piece = plan_.next(nowNs());
      if (!piece) return;
      submit(*piece);
    }
  }

  void submit(const AdaptivePlan::Piece& piece) {
    watchPiece(piece);
    ++outcome_.requests;
    Transfer transfer;
    transfer.id = piece.id;
    transfer.range = piece.range;
    transfer.whole = piece.range.end == 0;
    if (transfer.whole) transfer.range.end = world_.size;
    transfer.uncutEnd = piece.range.end;
    transfer.position = transfer.range.start;
    transfer.lastByte = now_;
    double latencies = 1;
    if (piece.freshConnection || kept_.empty()) {
      transfer.connection = Connection(world_, opened_++);
      latencies += world_.setup;
    } else {
      transfer.connection = kept_.back();
      kept_.pop_back();
    }
    transfer.answersAt = now_ + transfer.connection.latency * latencies;
    const bool tooMany = world_.served != 0 && servedNow() >= world_.served;
    const bool busy = now_ >= world_.busyFrom && now_ < world_.busyTo;
    if (world_.refusesAll != 0) {
      transfer.status = world_.refusesAll;
    } else if (busy || (tooMany && world_.refusal == Refusal::Busy)) {
      transfer.status = kBusy;
    } else if (tooMany && world_.refusal == Refusal::Connection) {
      transfer.code = kRefused;
    } else if (tooMany && world_.refusal == Refusal::Forbidden) {
      transfer.status = kForbidden;
    } else if (tooMany) {
      transfer.answersAt = kNever;
    } else if (random_.chance(world_.flaky)) {
      random_.chance(0.5) ? transfer.code = kReset : transfer.status = kServerError;
    }
    transfers_.push_back(transfer);
  }

  [[nodiscard]] std::size_t servedNow() const {
    return static_cast<std::size_t>(std::count_if(transfers_.begin(), transfers_.end(), [](const Transfer& transfer) {
      return transfer.code == 0 && transfer.status == 0 && transfer.answersAt < kNever;
    }));
  }

  // What a new piece may be.
  void watchPiece(const AdaptivePlan::Piece& piece) {
    if (transfers_.size() >= world_.connections) return breaks("more connections than allowed");
    if (now_ < notBefore_) return breaks("a request before the time that the host named");
    if (piece.range.end == 0) {
      if (!transfers_.empty()) breaks("a whole file beside others");
      return;
    }
    if (piece.range.empty() || (world_.sizeGiven && piece.range.end > world_.size))
      return breaks("an impossible range");
    if (delivered_.meets(piece.range)) return breaks("bytes that were delivered are asked for again");
    std::size_t met = 0;
    for (const Transfer& other : transfers_) {
      if (other.range.start >= piece.range.end || piece.range.start >= other.range.end) continue;
      ++met;
      if (piece.range.end != other.range.end || piece.range.start < other.range.start) {
        breaks("pieces in flight overlap");
      }
    }
    if (met > 1) breaks("a range has two copies");
  }

  // ---- Time ----

  // Up to the next turn of the loop: when something happens, or at its tick.
  void advance() {
    double step = transfers_.empty() ? kLongestTurn : turn_;
    double sum = 0;
    for (Transfer& transfer : transfers_) {
      transfer.rate = 0;
      if (!transfer.answered) {
        step = std::min(step, std::max(transfer.answersAt - now_, 0.0));
        continue;
      }
      if (transfer.connection.untilItEnds() >= 0.5) transfer.rate = transfer.connection.rateAt(world_, now_);
      sum += transfer.rate;
    }
    const double cap = capAt(world_, now_);
    const double scale = sum > cap ? cap / sum : 1;
    for (Transfer& transfer : transfers_) {
      transfer.rate *= scale;
      if (transfer.rate <= 0) continue;
      const double left = static_cast<double>(endOf(transfer) - transfer.position) - transfer.fraction;
      step = std::min(step, std::min(left, transfer.connection.untilItEnds()) / transfer.rate);
    }
    step = std::max(step, 1e-6);
    now_ += step;
    for (Transfer& transfer : transfers_) {
      if (transfer.rate <= 0) continue;
      const double bytes = transfer.rate * step;
      transfer.connection.delivered += bytes;
      const double exact = transfer.fraction + bytes + 1e-3;
      const auto integral = static_cast<std::uint64_t>(exact);
      transfer.fraction = std::max(exact - 1e-3 - static_cast<double>(integral), 0.0);
      const std::uint64_t before = transfer.position;
      transfer.position = std::min(transfer.position + integral, endOf(transfer));
      total_ += transfer.position - before;
      if (transfer.position > before) transfer.lastByte = now_;
    }
    step_ = step;
  }

  // Where its body ends.
  [[nodiscard]] std::uint64_t endOf(const Transfer& transfer) const {
    return std::min(transfer.range.end, transfer.bodyEnd);
  }

  void turn() {
    endSome();
    if (outcome_.gaveUp || plan_.allDone()) return;
    const bool paused = holds(world_, now_, PlanWorld::Hold::Paused);
    const bool throttled = holds(world_, now_, PlanWorld::Hold::Throttled);
    const bool bound = holds(world_, now_, PlanWorld::Hold::ProcessorBound);
    for (const Transfer& transfer : transfers_) plan_.report(transfer.id, transfer.position, throttled);
    sinceTurn_ += step_;
    const auto since = static_cast<std::uint64_t>(std::exchange(sinceTurn_, 0) * 1e9);
    ++outcome_.turns;
    follow(plan_.turn({nowNs(), since, bound ? 0 : since * 9 / 10}, paused));
    if (!paused) refill();
  }

  void follow(const AdaptivePlan::Orders& orders) {
    for (const auto& cut : orders.cuts) {
      const auto transfer = find(cut.piece);
      if (transfer == transfers_.end()) {
        breaks("an unknown piece is cut");
        continue;
      }
      if (cut.end <= transfer->position || cut.end >= transfer->range.end) {
        breaks("a cut at " + std::to_string(cut.end) + " of a piece at " + std::to_string(transfer->position));
        continue;
      }
      transfer->range.end = cut.end;
    }
    for (const auto& close : orders.closes) {
      const auto transfer = find(close.piece);
      if (transfer == transfers_.end()) {
        breaks("an unknown piece is closed");
        continue;
      }
      delivered_.add({transfer->range.start, transfer->position});
      transfers_.erase(transfer);
    }
  }

  std::vector<Transfer>::iterator find(PieceId id) {
    return std::find_if(transfers_.begin(), transfers_.end(),
                        [&](const Transfer& transfer) { return transfer.id == id; });
  }

  // ---- How transfers end ----

  void endSome() {
    const bool held = holds(world_, now_, PlanWorld::Hold::Paused);
    for (std::size_t i = 0; i < transfers_.size();) {
      Transfer& transfer = transfers_[i];
      if (held) transfer.lastByte = now_;
      if (!transfer.answered && now_ + 1e-9 >= transfer.answersAt && !answer(transfer)) {
        remove(i);
      } else if (transfer.answered && transfer.position >= endOf(transfer)) {
        finish(i);
      } else if (transfer.answered && transfer.connection.untilItEnds() < 0.5 &&
                 transfer.connection.diesAfter < kNever) {
        fail(i, kReset, kPartial);
      } else if (now_ - transfer.lastByte > kLowSpeedTime) {
        fail(i, kTimedOut, transfer.answered ? kPartial : 0);
      } else {
        ++i;
        continue;
      }
      if (outcome_.gaveUp) return;
    }
  }

  void remove(std::size_t index) { transfers_.erase(transfers_.begin() + static_cast<std::ptrdiff_t>(index)); }

  // False: it has failed.
  bool answer(Transfer& transfer) {
    if (transfer.code != 0 || transfer.status != 0) {
      tellFailure(transfer, transfer.code, transfer.status, transfer.range.start);
      return false;
    }
    transfer.answered = true;
    transfer.lastByte = now_;
    transfer.bodyEnd = world_.size;
    if (world_.rangeCap > 0) transfer.bodyEnd = std::min(world_.size, transfer.range.start + world_.rangeCap);
    if (world_.unsized && !transfer.whole) {
      plan_.setUnsized();
      return false;
    }
    if (!world_.sizeGiven && !world_.unsized) {
      plan_.setSize(world_.size);
      if (!transfer.whole) transfer.range.end = transfer.uncutEnd = std::min(transfer.range.end, world_.size);
    }
    if (!world_.ranges && !world_.unsized) {
      plan_.oneAtATime();
      transfer.whole = true;
      transfer.range.end = world_.size;
    }
    plan_.answered(transfer.id, nowNs());
    return true;
  }

  void finish(std::size_t index) {
    const Transfer ended = transfers_[index];
    remove(index);
    if (ended.whole) {
      delivered_.add({0, world_.size});
      total_ = world_.size;
      return world_.unsized ? plan_.complete(ended.id, nowNs()) : plan_.completeFrom(ended.id);
    }
    delivered_.add({ended.range.start, ended.position});
    const std::uint64_t wanted = std::min(ended.range.end, world_.size);
    if (ended.position >= wanted) {
      plan_.complete(ended.id, nowNs());
      if (ended.range.end == ended.uncutEnd) keep(ended);
      return;
    }
    if (plan_.partDone(ended.id, ended.position, ended.position - ended.range.start, nowNs())) {
      keep(ended);
    } else {
      breaks("large answers are found too small");
    }
  }

  void keep(const Transfer& ended) {
    if (ended.connection.untilItEnds() >= 0.5) kept_.push_back(ended.connection);
  }

  void fail(std::size_t index, std::int32_t code, std::int32_t status) {
    const Transfer ended = transfers_[index];
    remove(index);
    if (!ended.whole && random_.chance(world_.voided)) {
      total_ -= ended.position - ended.range.start;
      return plan_.release(ended.id);
    }
    if (ended.whole) total_ = 0;
    if (!ended.whole) delivered_.add({ended.range.start, ended.position});
    tellFailure(ended, code, ended.whole ? kWholeFile : status, ended.whole ? ended.range.start : ended.position);
  }

  void tellFailure(const Transfer& ended, std::int32_t code, std::int32_t status, std::uint64_t reached) {
    xfer::TransferEnd end;
    end.code = code;
    end.status = status;
    end.bytes = ended.position - ended.range.start;
    xfer::Verdict verdict = xfer::Verdict::Retryable;
    if (status == kForbidden) verdict = xfer::Verdict::Rejected;
    if (status == kBusy && world_.tellsWhen) {
      end.retryAfterSec = static_cast<std::uint64_t>(std::ceil(std::max(world_.busyTo - now_, 1.0)));
      notBefore_ = std::max(notBefore_, now_ + static_cast<double>(*end.retryAfterSec) - 1e-6);
    }
    const auto followUp = plan_.failed(ended.id, verdict, end, reached, nowNs());
    if (followUp.kind == AdaptivePlan::FollowUp::Kind::GiveUp) outcome_.gaveUp = true;
    if (followUp.kind == AdaptivePlan::FollowUp::Kind::TryLater) breaks("it wants requeue to be called");
  }

  // ---- The end ----

  void watchEnd() {
    for (const Transfer& transfer : transfers_) delivered_.add({transfer.range.start, transfer.position});
    if (!delivered_.covers({0, world_.size})) breaks("it ends, and not all was delivered");
    if (plan_.openEnd() != 0) breaks("it ends with something open");
    if (total_ < world_.size) breaks("it ends with too few bytes");
    outcome_.duplicates = total_ - std::min(total_, world_.size);
    if (outcome_.duplicates > std::max<std::uint64_t>(262'144, world_.size / 100)) {
      breaks(std::to_string(outcome_.duplicates) + " bytes are fetched twice");
    }
  }

  const PlanWorld& world_;
  const double turn_;
  Random random_;
  AdaptivePlan plan_;
  std::vector<Transfer> transfers_;
  std::vector<Connection> kept_;
  std::size_t opened_ = 0;
  xfer::ByteRanges delivered_;  // by transfers that have ended
  std::uint64_t total_ = 0;     // bytes that came, twice where they came twice
  double now_ = 0;
  double step_ = 0;
  double sinceTurn_ = 0;
  double notBefore_ = 0;
  PlanOutcome outcome_;
};

}  // namespace

PlanWorld drawWorld(std::uint64_t seed) {
  Random random(seed);
  PlanWorld world;
  world.seed = seed;
  world.size = (std::uint64_t{64} << 20) + random.bits() % (std::uint64_t{128} << 20);
  world.sizeGiven = random.chance(0.2);
  world.latency = random.logBetween(0.001, 0.3);
  world.setup = random.between(1, 2);
  world.slowStarts = random.chance(0.3);
  world.rate = random.logBetween(3e5, 1e7);
  world.spread = random.chance(0.5) ? random.between(0, 0.5) : 0;
  if (random.chance(0.2)) world.sumCap = world.rate * random.between(1, 7);
  if (random.chance(0.3)) {
    world.slowShare = random.between(0, 0.4);
    world.slowBy = random.logBetween(1.5, 30);
  }
  if (random.chance(0.3)) {
    world.changeEvery = random.logBetween(0.3, 5);
    world.changeBy = random.between(0, 0.9);
  }
  if (random.chance(0.3)) {
    world.endAfter = static_cast<double>(world.size) / 8 * random.logBetween(0.1, 2);
    world.deathShare = random.between(0, 0.3);
  }
  if (random.chance(0.3)) {
    world.endAfter = static_cast<double>(world.size) / 8 * random.logBetween(0.1, 2);
    world.silenceShare = random.between(0, 0.3);
  }
  return world;
}

namespace {

void hinder(PlanWorld& world, Random& random) {
  switch (random.below(9)) {
    case 0:
    case 1:
    case 2: {
      static constexpr std::array<Refusal, 4> kRefusals{Refusal::Connection, Refusal::Busy, Refusal::Mute,
                                                        Refusal::Forbidden};
      world.served = 1 + random.below(6);
      world.refusal = kRefusals[random.below(kRefusals.size())];
      world.tellsWhen = random.chance(0.2);
      break;
    }
    case 3:
      world.busyFrom = random.chance(0.5) ? 0 : random.between(0, 3);
      world.busyTo = world.busyFrom + random.logBetween(0.1, 20);
      world.tellsWhen = random.chance(0.5);
      break;
    case 4:
      world.flaky = random.between(0, 0.25);
      break;
    case 5:
      world.rangeCap = std::uint64_t{64} * 1024 + random.bits() % (world.size / 8 + 1);
      break;
    case 6:
      world.unsized = random.chance(0.5);
      world.ranges = world.unsized;
      world.sizeGiven = world.sizeGiven && !world.unsized;
      world.deathShare = world.silenceShare = 0;
      break;
    case 7:
      world.voided = 0.5;
      if (random.chance(0.2)) world.refusesAll = random.chance(0.5) ? kForbidden : kBusy;
      break;
    default: {
      static constexpr std::array<PlanWorld::Hold, 4> kHolds{PlanWorld::Hold::Outage, PlanWorld::Hold::Paused,
                                                             PlanWorld::Hold::Throttled,
                                                             PlanWorld::Hold::ProcessorBound};
      world.hold = kHolds[random.below(kHolds.size())];
      world.holdFrom = random.between(0, 2);
      world.holdTo = world.holdFrom + random.logBetween(0.1, 10);
    }
  }
}

}  // namespace

PlanWorld drawHostileWorld(std::uint64_t seed) {
  PlanWorld world = drawWorld(seed);
  Random random(seed ^ 0xc0ffee);
  static constexpr std::array<std::size_t, 6> kConnections{1, 2, 3, 8, 16, 64};
  world.connections = kConnections[random.below(kConnections.size())];
  if (random.chance(0.5)) world.size = 1 + random.bits() % (std::uint64_t{1} << (10 + random.below(17)));
  const std::size_t hindrances = random.chance(0.3) ? 2 : 1;
  for (std::size_t i = 0; i < hindrances; ++i) hinder(world, random);
  world.shortFirst = random.chance(0.5);
  return world;
}

bool deservesGivingUp(const PlanWorld& world) {
  return world.refusesAll != 0;
}

PlanOutcome live(const PlanWorld& world) {
  return Life(world).run();
}

std::string describe(const PlanWorld& world) {
  std::ostringstream text;
  text << "seed " << world.seed << " size " << world.size << " connections " << world.connections
       << (world.sizeGiven ? " sizeGiven" : "") << (world.shortFirst ? " shortFirst" : "") << " latency "
       << world.latency << " setup " << world.setup << (world.slowStarts ? " slowStarts" : "") << " rate " << world.rate
       << " spread " << world.spread << " cap " << world.sumCap << " slow " << world.slowShare << " by " << world.slowBy
       << " change " << world.changeEvery << " s by " << world.changeBy << " death " << world.deathShare << " silence "
       << world.silenceShare << " after " << world.endAfter << " served " << world.served << " refusal "
       << static_cast<int>(world.refusal) << " busy " << world.busyFrom << " to " << world.busyTo
       << (world.tellsWhen ? " tellsWhen" : "") << " flaky " << world.flaky << " rangeCap " << world.rangeCap
       << (world.ranges ? "" : " noRanges") << (world.unsized ? " unsized" : "") << " voided " << world.voided
       << " refusesAll " << world.refusesAll << " hold " << static_cast<int>(world.hold) << ' ' << world.holdFrom
       << " to " << world.holdTo;
  return text.str();
}

}  // namespace support
