#include "adaptive_plan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <new>
#include <string>
#include <vector>

using namespace xfer;

namespace {

std::size_t allocations = 0;

// Neither inlined, or the compiler takes one for not belonging to the other.
[[gnu::noinline]] void* allocate(std::size_t size) {
  ++allocations;
  void* block = std::malloc(size == 0 ? 1 : size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

[[gnu::noinline]] void release(void* block) noexcept {
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}
void operator delete(void* block) noexcept {
  release(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
  release(block);
}

namespace {

using PieceId = AdaptivePlan::PieceId;
using Kind = AdaptivePlan::FollowUp::Kind;
using Reason = AdaptivePlan::Orders::Close::Reason;

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1024 * kKiB;
constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kMillisecond = 1'000'000;
constexpr std::uint64_t kTurnNs = 5 * kMillisecond;

constexpr std::int32_t kNoCode = 0;
constexpr std::int32_t kRefused = 7;
constexpr std::int32_t kReset = 56;
constexpr std::int32_t kWriteError = 23;
constexpr std::int32_t kNoStatus = 0;
constexpr std::int32_t kPartial = 206;
constexpr std::int32_t kForbidden = 403;
constexpr std::int32_t kGone = 410;
constexpr std::int32_t kServerError = 500;
constexpr std::int32_t kBusy = 503;

AdaptiveSettings settingsFor(std::size_t connections, std::size_t maxTries = 10) {
  AdaptiveSettings settings;
  settings.connections = connections;
  settings.maxTries = maxTries;
  settings.seed = 7;
  settings.firstPiece = kMiB;
  return settings;
}

// A caller whose pieces deliver at the rates that a test gives them.
class Caller {
 public:
  struct Flight {
    AdaptivePlan::Piece piece{};
    std::uint64_t end = 0;
    std::uint64_t position = 0;
    double rate = 0;
    bool answered = false;
  };

  Caller(const AdaptiveSettings& settings, std::optional<std::uint64_t> size) : plan(settings, size) {}

  // Submits what the plan hands out.
  std::vector<AdaptivePlan::Piece> refill() {
    std::vector<AdaptivePlan::Piece> pieces;
    while (flights.size() < plan.limit()) {
      const auto piece = plan.next(now);
      if (!piece) break;
      pieces.push_back(*piece);
      flights[piece->id] = {*piece, piece->range.end, piece->range.start, rate, false};
    }
    return pieces;
  }

  void answer(PieceId id) {
    flights.at(id).answered = true;
    plan.answered(id, now);
  }

  void answerAll() {
    for (auto& [id, flight] : flights) {
      if (!flight.answered) answer(id);
    }
  }

  // One turn of the loop.  Does not refill.
  AdaptivePlan::Orders turn(std::uint64_t elapsedNs = kTurnNs) {
    now += elapsedNs;
    std::vector<PieceId> ended;
    for (auto& [id, flight] : flights) {
      if (flight.answered && !paused) {
        const auto bytes = static_cast<std::uint64_t>(flight.rate * static_cast<double>(elapsedNs) / 1e9);
        flight.position = std::min(flight.position + bytes, flight.end);
      }
      if (flight.answered && flight.position == flight.end) ended.push_back(id);
    }
    for (const PieceId id : ended) {
      flights.erase(id);
      plan.complete(id, now);
    }
    for (const auto& [id, flight] : flights) plan.report(id, flight.position, throttled);
    const auto slept = static_cast<std::uint64_t>(static_cast<double>(elapsedNs) * sleeps);
    AdaptivePlan::Orders orders = plan.turn({now, elapsedNs, slept}, paused);
    for (const auto& cut : orders.cuts) {
      EXPECT_GT(cut.end, flights.at(cut.piece).position);
      EXPECT_LT(cut.end, flights.at(cut.piece).end);
      flights.at(cut.piece).end = cut.end;
      cuts.push_back(cut);
    }
    for (const auto& close : orders.closes) {
      EXPECT_EQ(flights.erase(close.piece), 1U);
      closes[close.piece] = close.reason;
    }
    return orders;
  }

  // Turns without refilling, so that nothing new is begun.
  void pass(std::uint64_t ns) {
    for (const std::uint64_t end = now + ns; now < end;) turn();
  }

  // Turns, refills and answers.
  void run(std::uint64_t ns, bool answering = true) {
    for (const std::uint64_t end = now + ns; now < end && !plan.allDone();) {
      turn();
      refill();
      if (answering) answerAll();
    }
  }

  AdaptivePlan::FollowUp fail(PieceId id, std::int32_t code, std::int32_t status, Verdict verdict = Verdict::Retryable,
                              std::optional<std::uint64_t> retryAfterSec = std::nullopt) {
    const Flight flight = flights.at(id);
    flights.erase(id);
    TransferEnd end;
    end.code = code;
    end.status = status;
    end.bytes = flight.position - flight.piece.range.start;
    end.retryAfterSec = retryAfterSec;
    return plan.failed(id, verdict, end, flight.position, now);
  }

  // The first piece is complete, and all connections deliver a piece of their own.
  void open() {
    constexpr PieceId kFirst = 1;
    do {
      refill();
      answerAll();
      turn();
    } while (flights.count(kFirst) != 0);
    refill();
    answerAll();
    pass(200 * kMillisecond);
  }

  [[nodiscard]] PieceId last() const { return flights.rbegin()->first; }
  [[nodiscard]] PieceId first() const { return flights.begin()->first; }

  AdaptivePlan plan;
  std::map<PieceId, Flight> flights;
  std::map<PieceId, Reason> closes;
  std::vector<AdaptivePlan::Orders::Cut> cuts;
  std::uint64_t now = kSecond;
  double rate = 1e6;
  double sleeps = 0.9;
  bool paused = false;
  bool throttled = false;
};

// ---- The first piece ----

TEST(AdaptivePlan, firstPieceIsAloneUntilItIsAnswered) {
  Caller caller(settingsFor(8), 100 * kMiB);
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].range, (ByteRange{0, kMiB}));
  caller.pass(kSecond);
  EXPECT_EQ(caller.plan.limit(), 1U);
  EXPECT_FALSE(caller.plan.next(caller.now));
}

TEST(AdaptivePlan, connectionOfALongFirstPieceDeliversWhileTheOthersTakeFromItsEnd) {
  AdaptiveSettings settings = settingsFor(8);
  settings.firstPiece = AdaptiveSettings().firstPiece;
  Caller caller(settings, std::nullopt);
  EXPECT_EQ(caller.refill().at(0).range, (ByteRange{0, std::uint64_t{1} << 30}));
  caller.pass(100 * kMillisecond);
  caller.plan.setSize(100 * kMiB);
  caller.flights.at(1).end = 100 * kMiB;
  caller.answerAll();
  const auto cuts = caller.turn().cuts;
  ASSERT_EQ(cuts.size(), 1U);
  EXPECT_EQ(cuts[0].piece, 1U);
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 7U);
  std::uint64_t end = cuts[0].end;
  for (const auto& piece : pieces) {
    EXPECT_EQ(piece.range.start, end);
    end = piece.range.end;
    EXPECT_LT(piece.range.length(), cuts[0].end) << "who delivers already keeps more than who has to wait first";
    EXPECT_GT(piece.range.length(), cuts[0].end / 2);
  }
  EXPECT_EQ(end, 100 * kMiB);
}

TEST(AdaptivePlan, fileThatIsShorterThanTheFirstPieceIsOne) {
  Caller caller(settingsFor(8), 1000);
  EXPECT_EQ(caller.refill().at(0).range, (ByteRange{0, 1000}));
  EXPECT_EQ(caller.plan.openEnd(), 1000U);
  caller.answerAll();
  caller.run(kSecond);
  EXPECT_TRUE(caller.plan.allDone());
  EXPECT_EQ(caller.plan.openEnd(), 0U);
}

TEST(AdaptivePlan, emptyFileIsOneRequestWithoutARange) {
  Caller caller(settingsFor(8), 0);
  const auto piece = caller.plan.next(caller.now);
  ASSERT_TRUE(piece);
  EXPECT_EQ(piece->range, (ByteRange{0, 0}));
  EXPECT_FALSE(caller.plan.allDone());
  caller.plan.complete(piece->id, caller.now);
  EXPECT_TRUE(caller.plan.allDone());
  EXPECT_FALSE(caller.plan.next(caller.now));
}

TEST(AdaptivePlan, sizeOfTheFirstAnswerClipsThePieceInFlight) {
  Caller caller(settingsFor(8), std::nullopt);
  const PieceId id = caller.refill().at(0).id;
  caller.plan.setSize(1000);
  caller.plan.answered(id, caller.now);
  EXPECT_EQ(caller.plan.openEnd(), 1000U);
  caller.plan.complete(id, caller.now);
  EXPECT_TRUE(caller.plan.allDone());
}

TEST(AdaptivePlan, firstPieceThatFailsBeforeTheSizeIsKnownIsAskedForOnceMore) {
  Caller caller(settingsFor(8), std::nullopt);
  caller.fail(caller.refill().at(0).id, kRefused, kNoStatus);
  caller.now += 2 * kSecond;
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].range, (ByteRange{0, kMiB}));
  caller.plan.setSize(3 * kMiB);
  caller.answerAll();
  caller.run(10 * kSecond);
  EXPECT_TRUE(caller.plan.allDone());
}

// ---- Opening the others ----

TEST(AdaptivePlan, othersAreOpenedOnceTheLoopSleeps) {
  Caller caller(settingsFor(8), 100 * kMiB);
  caller.refill();
  caller.answerAll();
  caller.sleeps = 0.2;
  caller.pass(100 * kMillisecond);
  EXPECT_EQ(caller.plan.limit(), 1U);
  caller.sleeps = 0.4;
  caller.turn(kMillisecond);
  EXPECT_EQ(caller.plan.limit(), 1U);
  caller.turn(kMillisecond);
  EXPECT_EQ(caller.plan.limit(), 8U);
}

TEST(AdaptivePlan, firstConnectionGetsAllThatIsMissingWhileTheLoopIsBusy) {
  Caller caller(settingsFor(8), 100 * kMiB);
  caller.rate = 1e8;
  caller.refill();
  caller.answerAll();
  caller.sleeps = 0;
  caller.run(50 * kMillisecond, false);
  ASSERT_EQ(caller.flights.size(), 1U);
  EXPECT_EQ(caller.flights.begin()->second.piece.range, (ByteRange{kMiB, 100 * kMiB}));
}

TEST(AdaptivePlan, restIsSharedInContiguousPieces) {
  Caller caller(settingsFor(4), 101 * kMiB);
  caller.refill();
  caller.answerAll();
  caller.turn();
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 3U);
  std::uint64_t start = kMiB;
  for (const auto& piece : pieces) {
    EXPECT_EQ(piece.range.start, start);
    EXPECT_NEAR(static_cast<double>(piece.range.length()), 25.0 * kMiB, 2.0);
    start = piece.range.end;
  }
}

TEST(AdaptivePlan, smallRestIsNotSplitBelowTheSmallestPiece) {
  Caller caller(settingsFor(64), kMiB + 200 * kKiB);
  caller.refill();
  caller.answerAll();
  caller.turn();
  for (const auto& piece : caller.refill()) EXPECT_GE(piece.range.length(), 64 * kKiB);
}

// ---- Taking tails ----

TEST(AdaptivePlan, idleConnectionTakesTheTailOfThePieceThatEndsLast) {
  Caller caller(settingsFor(2), 21 * kMiB);
  caller.open();
  const PieceId slow = caller.last();
  caller.flights.at(slow).rate = 2e5;
  caller.pass(2 * kSecond);
  const Caller::Flight before = caller.flights.at(slow);
  caller.flights.at(caller.first()).rate = 1e9;
  caller.turn();
  caller.turn();
  ASSERT_EQ(caller.cuts.size(), 1U);
  EXPECT_EQ(caller.cuts[0].piece, slow);
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].range, (ByteRange{caller.cuts[0].end, before.end}));
  EXPECT_EQ(caller.plan.counters().stolenBytes, pieces[0].range.length());
  EXPECT_LT(caller.cuts[0].end - before.position, pieces[0].range.length());  // the slow one keeps less
}

TEST(AdaptivePlan, nothingIsTakenFromALivePieceWhileTheLoopIsBusy) {
  Caller caller(settingsFor(2), 21 * kMiB);
  caller.open();
  caller.sleeps = 0.2;
  caller.pass(20 * kMillisecond);
  caller.flights.at(caller.first()).rate = 1e9;
  caller.pass(kSecond);
  EXPECT_EQ(caller.flights.size(), 1U);
  EXPECT_TRUE(caller.cuts.empty());
  caller.sleeps = 0.9;
  caller.pass(20 * kMillisecond);
  EXPECT_FALSE(caller.cuts.empty());
}

// ---- Silence ----

TEST(AdaptivePlan, silentPieceIsClosedWhileOthersReceive) {
  Caller caller(settingsFor(4), 101 * kMiB);
  caller.open();
  const PieceId silent = caller.last();
  Caller::Flight& flight = caller.flights.at(silent);
  flight.rate = 0;
  const std::uint64_t position = flight.position;
  const std::uint64_t end = flight.end;
  caller.pass(250 * kMillisecond);
  EXPECT_TRUE(caller.closes.empty());
  caller.pass(150 * kMillisecond);
  ASSERT_EQ(caller.closes.count(silent), 1U);
  EXPECT_EQ(caller.closes[silent], Reason::Silent);
  EXPECT_EQ(caller.plan.counters().replaced, 1U);
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].range, (ByteRange{position, end}));
  EXPECT_TRUE(pieces[0].freshConnection);
}

TEST(AdaptivePlan, nothingIsClosedWhenAllAreSilent) {
  Caller caller(settingsFor(4), 101 * kMiB);
  caller.open();
  for (auto& [id, flight] : caller.flights) flight.rate = 0;
  caller.pass(60 * kSecond);
  EXPECT_TRUE(caller.closes.empty());
}

TEST(AdaptivePlan, nothingIsClosedWhenAllFallSilentWithinAShortTime) {
  Caller caller(settingsFor(4), 101 * kMiB);
  caller.open();
  for (auto& [id, flight] : caller.flights) {
    flight.rate = 0;
    caller.pass(40 * kMillisecond);
  }
  caller.pass(60 * kSecond);
  EXPECT_TRUE(caller.closes.empty());
}

// One piece has delivered, three were never answered, and nobody delivers any more.
class NobodyAnswers : public testing::Test {
 protected:
  NobodyAnswers() {
    caller.sleeps = 1;
    caller.refill();
    caller.answerAll();
    caller.turn();
    caller.refill();
    delivered = caller.first();
    caller.flights.at(delivered).rate = 0;
  }

  Caller caller{settingsFor(4), 101 * kMiB};
  PieceId delivered = 0;
};

TEST_F(NobodyAnswers, requestsAreAskedAgainEachAfterTwiceTheTime) {
  ASSERT_EQ(caller.flights.size(), 4U);
  caller.pass(290 * kMillisecond);
  EXPECT_EQ(caller.closes.size(), 0U);
  caller.pass(30 * kMillisecond);
  EXPECT_EQ(caller.closes.size(), 1U);
  caller.pass(270 * kMillisecond);
  EXPECT_EQ(caller.closes.size(), 1U);
  caller.pass(30 * kMillisecond);
  EXPECT_EQ(caller.closes.size(), 2U);
  caller.pass(570 * kMillisecond);
  EXPECT_EQ(caller.closes.size(), 2U);
  caller.pass(60 * kSecond);
  EXPECT_EQ(caller.closes.size(), 3U);
  EXPECT_EQ(caller.closes.count(delivered), 0U) << "what it has begun to deliver would be lost";
  EXPECT_EQ(caller.plan.limit(), 4U) << "the network may be what is silent";
}

TEST_F(NobodyAnswers, bytesThatComeWithinOneTurnEndTheDoubt) {
  caller.pass(700 * kMillisecond);
  EXPECT_EQ(caller.closes.size(), 2U);
  const PieceId mute = caller.last();
  caller.refill();
  const PieceId quick = caller.last();
  ASSERT_NE(quick, mute);
  caller.answer(quick);
  caller.flights.at(quick).rate = 1e12;
  caller.turn();
  EXPECT_EQ(caller.flights.count(quick), 0U);
  EXPECT_EQ(caller.closes.count(mute), 1U) << "it was to be waited for during 1.2 s";
}

TEST(AdaptivePlan, lastPieceIsSuspectWhenOthersHaveNothingToDo) {
  Caller caller(settingsFor(4), 101 * kMiB);
  caller.open();
  const PieceId silent = caller.last();
  caller.flights.at(silent).rate = 0;
  caller.rate = 1e9;
  for (auto& [id, flight] : caller.flights) {
    if (id != silent) flight.rate = 1e10;
  }
  caller.run(2 * kSecond);
  EXPECT_TRUE(caller.plan.allDone());
}

TEST(AdaptivePlan, timeInWhichTheLoopIsBusyIsNotSilence) {
  Caller caller(settingsFor(4), 101 * kMiB);
  caller.open();
  caller.flights.at(caller.last()).rate = 0;
  caller.sleeps = 0;
  caller.pass(3 * kSecond);
  EXPECT_TRUE(caller.closes.empty());
}

TEST(AdaptivePlan, pausedOrThrottledTimeIsNeitherSilenceNorALowRate) {
  for (const bool pauses : {false, true}) {
    Caller caller(settingsFor(4), 101 * kMiB);
    caller.open();
    caller.pass(kSecond);
    caller.refill();
    const auto before = caller.plan.activity();
    for (auto& [id, flight] : caller.flights) flight.rate = 0;
    (pauses ? caller.paused : caller.throttled) = true;
    caller.pass(60 * kSecond);
    const auto after = caller.plan.activity();
    ASSERT_EQ(after.size(), before.size());
    for (std::size_t i = 0; i < after.size(); ++i) {
      EXPECT_EQ(after[i].bytesPerSec, before[i].bytesPerSec);
      EXPECT_EQ(after[i].silentNs, 0U);
    }
    caller.flights.begin()->second.rate = 1e6;
    caller.paused = caller.throttled = false;
    caller.pass(200 * kMillisecond);
    EXPECT_TRUE(caller.closes.empty());
  }
}

TEST(AdaptivePlan, unansweredPieceThatIsClosedLowersTheConnections) {
  Caller caller(settingsFor(4), 101 * kMiB);
  caller.refill();
  caller.answerAll();
  caller.turn();
  caller.refill();
  const PieceId mute = caller.last();
  for (auto& [id, flight] : caller.flights) {
    if (id != mute && !flight.answered) caller.answer(id);
  }
  caller.pass(kSecond);
  EXPECT_EQ(caller.closes[mute], Reason::Silent);
  EXPECT_EQ(caller.plan.limit(), 3U);
  EXPECT_EQ(caller.plan.terms().connections, 3U);
}

TEST(AdaptivePlan, patienceGrowsWithTheLatency) {
  Caller caller(settingsFor(4), 101 * kMiB);
  caller.rate = 30'000;
  caller.refill();
  caller.pass(12 * kSecond);
  caller.answerAll();
  caller.turn();
  caller.refill();
  caller.answer(caller.last());
  caller.pass(20 * kSecond);  // two receive, two have no answer yet
  EXPECT_EQ(caller.flights.size(), 4U);
  EXPECT_TRUE(caller.closes.empty());
}

// ---- Slowness ----

TEST(AdaptivePlan, farSlowerConnectionsAreReplacedTwiceEachAtMost) {
  Caller caller(settingsFor(4), 4000 * kMiB);
  caller.open();
  std::size_t slow = 0;
  for (int round = 0; round < 40; ++round) {
    caller.flights.at(caller.last()).rate = 1e5;
    caller.pass(3 * kSecond);
    caller.refill();
    caller.answerAll();
  }
  for (const auto& [id, reason] : caller.closes) slow += reason == Reason::Slow ? 1 : 0;
  EXPECT_EQ(slow, 8U);
}

TEST(AdaptivePlan, moderatelySlowConnectionsStay) {
  Caller caller(settingsFor(4), 400 * kMiB);
  caller.open();
  caller.flights.at(caller.last()).rate = 4e5;
  caller.pass(20 * kSecond);
  EXPECT_TRUE(caller.closes.empty());
}

// ---- Copies ----

// One piece is left, too small to be shared and slow; the other connections have nothing to do.
class LastPiece : public testing::Test {
 protected:
  LastPiece() : caller(settingsFor(3), 31 * kMiB) {
    caller.open();
    original = caller.last();
    Caller::Flight& flight = caller.flights.at(original);
    for (auto& [id, other] : caller.flights) {
      if (id != original) other.rate = 1e10;
    }
    flight.position = flight.end - 60 * kKiB;
    flight.rate = 2e4;
    caller.turn();
    caller.turn();
  }

  std::optional<AdaptivePlan::Piece> awaitCopy() {
    for (int turns = 0; turns < 200; ++turns) {
      const auto pieces = caller.refill();
      if (!pieces.empty()) return pieces[0];
      caller.turn();
    }
    return std::nullopt;
  }

  Caller caller;
  PieceId original = 0;
};

TEST_F(LastPiece, isFetchedASecondTimeAndTheFirstToBeCompleteWins) {
  const auto copy = awaitCopy();
  ASSERT_TRUE(copy);
  EXPECT_EQ(copy->range, (ByteRange{caller.flights.at(original).position, 31 * kMiB}));
  ASSERT_EQ(caller.plan.activity().size(), 2U);
  EXPECT_TRUE(caller.plan.activity()[1].copy);
  caller.pass(50 * kMillisecond);
  EXPECT_TRUE(caller.refill().empty());  // one copy
  caller.flights.at(original).rate = 0;
  const std::uint64_t shared = caller.flights.at(original).position - copy->range.start;
  caller.flights.erase(copy->id);
  caller.plan.complete(copy->id, caller.now);
  EXPECT_TRUE(caller.plan.allDone());
  caller.turn();
  EXPECT_EQ(caller.closes[original], Reason::Overtaken);
  EXPECT_EQ(caller.plan.counters().duplicateBytes, shared);
}

TEST_F(LastPiece, isNeitherCopiedNorCutWhileASpeedLimitHoldsIt) {
  caller.throttled = true;
  for (int turns = 0; turns < 200; ++turns) {
    EXPECT_TRUE(caller.turn().cuts.empty());
    EXPECT_TRUE(caller.refill().empty());
  }
  // A piece that has just passed says nothing.
  caller.throttled = false;
  EXPECT_TRUE(caller.turn().cuts.empty());
  EXPECT_TRUE(caller.refill().empty());
  EXPECT_TRUE(awaitCopy()) << "a second later the limit is not what holds it up";
}

TEST_F(LastPiece, ownsItsBytesWhenTheCopyFails) {
  const auto copy = awaitCopy();
  ASSERT_TRUE(copy);
  caller.flights.at(copy->id).position += 20 * kKiB;
  caller.fail(copy->id, kReset, kPartial);
  EXPECT_FALSE(caller.plan.allDone());
  EXPECT_EQ(caller.plan.openEnd(), 31 * kMiB);
  for (int turns = 0; turns < 200; ++turns) {
    caller.turn();
    EXPECT_TRUE(caller.refill().empty());  // one copy
  }
  caller.flights.at(original).rate = 1e6;
  caller.pass(kSecond);
  EXPECT_TRUE(caller.plan.allDone());
}

TEST_F(LastPiece, isAskedForAgainWhenTheCopyFailsAndItFallsSilent) {
  const auto copy = awaitCopy();
  ASSERT_TRUE(copy);
  caller.fail(copy->id, kReset, kPartial);
  caller.flights.at(original).rate = 0;
  caller.pass(kSecond);
  EXPECT_EQ(caller.closes[original], Reason::Silent);
  EXPECT_EQ(caller.refill().size(), 1U);
}

TEST_F(LastPiece, lacksNothingThatTheCopyBroughtBeforeBothFailed) {
  const auto copy = awaitCopy();
  ASSERT_TRUE(copy);
  constexpr std::uint64_t kBrought = 40 * kKiB;
  caller.flights.at(copy->id).position += kBrought;
  caller.fail(copy->id, kReset, kPartial);
  caller.fail(original, kReset, kPartial);
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].range, (ByteRange{copy->range.start + kBrought, 31 * kMiB}));
}

TEST_F(LastPiece, isLeftToTheCopyWhenItFails) {
  const auto copy = awaitCopy();
  ASSERT_TRUE(copy);
  caller.fail(original, kReset, kPartial);
  EXPECT_FALSE(caller.plan.allDone());
  caller.now += 2 * kSecond;
  EXPECT_TRUE(caller.refill().empty());
  caller.flights.erase(copy->id);
  caller.plan.complete(copy->id, caller.now);
  EXPECT_TRUE(caller.plan.allDone());
}

TEST(AdaptivePlan, copiesStayWithinTheirShare) {
  for (const std::uint64_t left : {150 * kKiB, 400 * kKiB}) {
    Caller caller(settingsFor(3), 16 * kMiB);
    caller.open();
    caller.sleeps = 0.1;  // nothing may be stolen
    caller.pass(20 * kMillisecond);
    const PieceId original = caller.last();
    for (auto& [id, other] : caller.flights) {
      if (id != original) other.rate = 1e10;
    }
    Caller::Flight& flight = caller.flights.at(original);
    flight.position = flight.end - left;
    flight.rate = 2e4;
    caller.pass(kSecond);
    EXPECT_EQ(caller.refill().empty(), left > 256 * kKiB) << left;
  }
}

// ---- Other ends ----

TEST(AdaptivePlan, failedPieceIsMissingFromWhereItWas) {
  Caller caller(settingsFor(2), 21 * kMiB);
  caller.open();
  const PieceId id = caller.last();
  const Caller::Flight flight = caller.flights.at(id);
  const auto followUp = caller.fail(id, kReset, kPartial);
  EXPECT_EQ(followUp.kind, Kind::Planned);
  EXPECT_EQ(followUp.delayMs, 0U);  // it made progress
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].range, (ByteRange{flight.position, flight.end}));
  EXPECT_EQ(caller.plan.counters().retries, 1U);
}

TEST(AdaptivePlan, releasedPieceIsMissingAltogether) {
  Caller caller(settingsFor(2), 21 * kMiB);
  caller.open();
  const PieceId id = caller.last();
  const ByteRange range = caller.flights.at(id).piece.range;
  caller.flights.erase(id);
  caller.plan.release(id);
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].range, range);
}

TEST(AdaptivePlan, shortAnswerLeavesTheRestMissing) {
  Caller caller(settingsFor(2), 21 * kMiB);
  caller.open();
  const PieceId id = caller.last();
  const ByteRange range = caller.flights.at(id).piece.range;
  caller.flights.erase(id);
  EXPECT_TRUE(caller.plan.partDone(id, range.start + kMiB, kMiB, caller.now));
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].range, (ByteRange{range.start + kMiB, range.end}));
}

TEST(AdaptivePlan, tinyAnswersInARowAreAFailure) {
  Caller caller(settingsFor(1), 21 * kMiB);
  caller.open();
  for (int answers = 1; answers <= 10; ++answers) {
    const PieceId id = caller.first();
    const std::uint64_t start = caller.flights.at(id).piece.range.start;
    EXPECT_EQ(caller.plan.partDone(id, start + 1023, 1023, caller.now), answers < 10);
    if (answers == 10) {
      caller.flights.at(id).position = start + 1023;
      EXPECT_EQ(caller.fail(id, kNoCode, kPartial).kind, Kind::Planned);
    } else {
      caller.flights.erase(id);
      ASSERT_EQ(caller.refill().size(), 1U);
    }
  }
}

TEST(AdaptivePlan, allFromAPieceOnCanBeComplete) {
  Caller caller(settingsFor(4), 101 * kMiB);
  caller.open();
  const PieceId second = std::next(caller.flights.begin())->first;
  const ByteRange range = caller.flights.at(second).piece.range;
  caller.plan.completeFrom(second);
  EXPECT_EQ(caller.plan.openEnd(), range.start);
  EXPECT_FALSE(caller.plan.allDone());
  caller.plan.complete(caller.first(), caller.now);
  EXPECT_TRUE(caller.plan.allDone());
}

TEST(AdaptivePlan, oneAtATimeGetsAllThatIsMissing) {
  Caller caller(settingsFor(8), 100 * kMiB);
  const PieceId first = caller.refill().at(0).id;
  caller.plan.oneAtATime();
  caller.plan.answered(first, caller.now);
  caller.flights.clear();
  caller.plan.release(first);
  EXPECT_EQ(caller.plan.limit(), 1U);
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].range, (ByteRange{0, 100 * kMiB}));
  caller.flights.begin()->second.position = 200 * kMiB;  // beyond what was asked for
  caller.pass(2 * kSecond);
  caller.plan.completeFrom(pieces[0].id);
  EXPECT_TRUE(caller.plan.allDone());
}

TEST(AdaptivePlan, fileOfUnknownSizeIsOneRequestWithoutARange) {
  Caller caller(settingsFor(8), std::nullopt);
  caller.refill();
  caller.flights.clear();
  caller.plan.setUnsized();
  EXPECT_EQ(caller.plan.limit(), 1U);
  EXPECT_TRUE(caller.plan.activity().empty());
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].range, (ByteRange{0, 0}));
  EXPECT_EQ(caller.plan.openEnd(), 0U);
  EXPECT_EQ(caller.fail(pieces[0].id, kReset, kNoStatus).kind, Kind::Planned);
  caller.now += 2 * kSecond;
  ASSERT_EQ(caller.refill().size(), 1U);
  EXPECT_FALSE(caller.plan.allDone());
  caller.plan.complete(caller.first(), caller.now);
  EXPECT_TRUE(caller.plan.allDone());
}

TEST(AdaptivePlan, wholeFileThatBreaksAgainAndAgainEndsTheJob) {
  for (const bool unsized : {true, false}) {
    Caller caller(settingsFor(8, 3), std::nullopt);
    caller.rate = 1e7;
    if (unsized) {
      caller.plan.setUnsized();
    } else {
      caller.plan.setSize(100 * kMiB);
      caller.plan.oneAtATime();
    }
    for (int tries = 1; tries <= 3; ++tries) {
      ASSERT_EQ(caller.refill().size(), 1U) << tries;
      caller.flights.begin()->second.end = 100 * kMiB;
      caller.answerAll();
      caller.pass(100 * kMillisecond);
      caller.flights.begin()->second.position = 0;  // nothing of it counts
      const Kind kind = caller.fail(caller.first(), kReset, kPartial).kind;
      EXPECT_EQ(kind, tries < 3 ? Kind::Planned : Kind::GiveUp) << tries;
      caller.now += 5 * kSecond;
    }
  }
}

TEST(AdaptivePlan, interruptedPieceIsMissingFromWhereItWas) {
  Caller caller(settingsFor(2), 21 * kMiB);
  caller.open();
  const PieceId id = caller.last();
  const Caller::Flight flight = caller.flights.at(id);
  caller.flights.erase(id);
  caller.plan.interrupted(id, flight.position);
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 1U);
  EXPECT_EQ(pieces[0].range, (ByteRange{flight.position, flight.end}));
  EXPECT_EQ(caller.plan.counters().retries, 0U);
}

TEST(AdaptivePlan, smallerFirstPieceMakesSmallerPieces) {
  AdaptiveSettings settings = settingsFor(4);
  settings.firstPiece = 1600;
  Caller caller(settings, 1600 + 900);
  caller.rate = 1000;
  EXPECT_EQ(caller.refill().at(0).range, (ByteRange{0, 1600}));
  caller.answerAll();
  caller.turn();
  const auto pieces = caller.refill();
  ASSERT_EQ(pieces.size(), 3U);
  EXPECT_EQ(pieces[0].range, (ByteRange{1600, 1900}));
}

TEST(AdaptivePlan, unknownPiecesAreIgnored) {
  Caller caller(settingsFor(2), 21 * kMiB);
  caller.open();
  const std::uint64_t openEnd = caller.plan.openEnd();
  constexpr PieceId kUnknown = 999;
  caller.plan.answered(kUnknown, caller.now);
  caller.plan.report(kUnknown, 5, false);
  caller.plan.complete(kUnknown, caller.now);
  caller.plan.release(kUnknown);
  caller.plan.completeFrom(kUnknown);
  caller.plan.interrupted(kUnknown, 5);
  EXPECT_TRUE(caller.plan.partDone(kUnknown, 5, 5, caller.now));
  EXPECT_EQ(caller.plan.failed(kUnknown, Verdict::Fatal, {}, 5, caller.now).kind, Kind::Planned);
  EXPECT_EQ(caller.plan.openEnd(), openEnd);
  EXPECT_EQ(caller.plan.activity().size(), caller.flights.size());
}

TEST(AdaptivePlan, activityTellsWhatPiecesDo) {
  Caller caller(settingsFor(2), 41 * kMiB);
  caller.open();
  caller.pass(2 * kSecond);
  caller.flights.at(caller.last()).rate = 0;
  caller.pass(100 * kMillisecond);
  const auto all = caller.plan.activity();
  ASSERT_EQ(all.size(), caller.flights.size());
  const auto& last = all.back();
  EXPECT_EQ(last.piece, caller.last());
  EXPECT_EQ(last.range.end, caller.flights.at(last.piece).end);
  EXPECT_EQ(last.position, caller.flights.at(last.piece).position);
  EXPECT_NEAR(static_cast<double>(last.silentNs), 100.0 * kMillisecond, 6.0 * kMillisecond);
  EXPECT_FALSE(last.copy);
}

TEST(AdaptivePlan, turnInWhichNothingIsToBeDoneAllocatesNothing) {
  Caller caller(settingsFor(8), 801 * kMiB);
  caller.open();
  const std::size_t before = allocations;
  caller.pass(kSecond);
  EXPECT_EQ(allocations, before);
  EXPECT_EQ(caller.flights.size(), 8U);
}

// ---- Hosts ----

TEST(AdaptivePlan, nothingNewGoesToTheHostBeforeTheTimeThatItNames) {
  Caller caller(settingsFor(4), 101 * kMiB);
  caller.open();
  const std::uint64_t failedAt = caller.now;
  caller.flights.at(caller.last()).position = caller.flights.at(caller.last()).piece.range.start;
  const auto followUp = caller.fail(caller.last(), kNoCode, kBusy, Verdict::Retryable, 5);
  EXPECT_EQ(followUp.kind, Kind::Planned);
  EXPECT_GE(followUp.delayMs, 5000U);
  EXPECT_LE(followUp.delayMs, 5501U);
  EXPECT_GE(caller.plan.terms().notBeforeNs, failedAt + 5 * kSecond);
  EXPECT_LE(caller.plan.terms().notBeforeNs, failedAt + 5 * kSecond + kSecond / 2);
  EXPECT_FALSE(caller.plan.next(caller.plan.terms().notBeforeNs - 1));
  EXPECT_TRUE(caller.plan.next(caller.plan.terms().notBeforeNs));
}

TEST(AdaptivePlan, tooLongAWaitEndsTheJob) {
  AdaptiveSettings settings = settingsFor(4);
  settings.longestWaitNs = 10 * kSecond;
  for (const std::uint64_t seconds : {std::uint64_t{10}, std::uint64_t{11}, ~std::uint64_t{0}}) {
    Caller caller(settings, 101 * kMiB);
    const PieceId first = caller.refill().at(0).id;
    const Kind kind = caller.fail(first, kNoCode, kBusy, Verdict::Retryable, seconds).kind;
    EXPECT_EQ(kind, seconds == 10 ? Kind::Planned : Kind::GiveUp) << seconds;
  }
}

TEST(AdaptivePlan, delaysGrowToAMinuteAndTheBucketEnds) {
  Caller caller(settingsFor(4, 10), 101 * kMiB);
  std::uint64_t longest = 0;
  std::uint64_t most = 1000;
  for (int tries = 1; tries <= 10; ++tries) {
    const auto pieces = caller.refill();
    ASSERT_EQ(pieces.size(), 1U) << tries;
    const auto followUp = caller.fail(pieces[0].id, kRefused, kNoStatus);
    EXPECT_EQ(followUp.kind, tries < 10 ? Kind::Planned : Kind::GiveUp) << tries;
    EXPECT_LE(followUp.delayMs, most) << tries;
    longest = std::max(longest, followUp.delayMs);
    most = std::min<std::uint64_t>(most * 2, 60'000);
    EXPECT_TRUE(followUp.delayMs == 0 || !caller.plan.next(caller.now));
    caller.now += followUp.delayMs * kMillisecond + 1;
  }
  EXPECT_GT(longest, 4000U);
}

TEST(AdaptivePlan, connectionsThatFailTogetherCountAsOneTry) {
  Caller caller(settingsFor(8, 2), 101 * kMiB);
  caller.open();
  for (auto& [id, flight] : caller.flights) flight.position = flight.piece.range.start;
  while (!caller.flights.empty()) {
    EXPECT_EQ(caller.fail(caller.first(), kNoCode, kServerError).kind, Kind::Planned);
  }
  caller.now += 2 * kSecond;
  EXPECT_EQ(caller.refill().size(), 1U);  // a scout
  EXPECT_EQ(caller.plan.limit(), 1U);
  EXPECT_EQ(caller.fail(caller.first(), kNoCode, kServerError).kind, Kind::GiveUp);
}

TEST(AdaptivePlan, scoutThatIsAnsweredBringsTheOthersBack) {
  Caller caller(settingsFor(8), 101 * kMiB);
  caller.open();
  for (auto& [id, flight] : caller.flights) flight.position = flight.piece.range.start;
  while (!caller.flights.empty()) caller.fail(caller.first(), kRefused, kNoStatus);
  const std::size_t borne = caller.plan.terms().connections;
  caller.now += 2 * kSecond;
  ASSERT_EQ(caller.refill().size(), 1U);
  caller.answerAll();
  EXPECT_EQ(caller.plan.limit(), borne == 0 ? 8U : borne);
}

TEST(AdaptivePlan, progressPaysTriesBack) {
  Caller caller(settingsFor(1, 2), 101 * kMiB);
  caller.refill();
  for (int tries = 0; tries < 20; ++tries) {
    caller.answerAll();
    caller.flights.at(caller.first()).position += 16 * kKiB;
    const auto followUp = caller.fail(caller.first(), kReset, kPartial);
    ASSERT_EQ(followUp.kind, Kind::Planned);
    EXPECT_EQ(followUp.delayMs, 0U);
    ASSERT_EQ(caller.refill().size(), 1U);
  }
  EXPECT_EQ(caller.fail(caller.first(), kReset, kNoStatus).kind, Kind::Planned);
  caller.now += 2 * kSecond;
  ASSERT_EQ(caller.refill().size(), 1U);
  EXPECT_EQ(caller.fail(caller.first(), kReset, kNoStatus).kind, Kind::GiveUp);
}

TEST(AdaptivePlan, longTimeWithoutProgressEndsTheJob) {
  AdaptiveSettings settings = settingsFor(2, 1000);
  settings.retryMaxNs = 100 * kSecond;
  Caller caller(settings, 101 * kMiB);
  caller.refill();
  caller.now += 99 * kSecond;
  EXPECT_EQ(caller.fail(caller.first(), kRefused, kNoStatus).kind, Kind::Planned);
  caller.now += kSecond;
  caller.refill();
  EXPECT_EQ(caller.fail(caller.first(), kRefused, kNoStatus).kind, Kind::GiveUp);
}

TEST(AdaptivePlan, busyHostKeepsThoseThatItServes) {
  Caller caller(settingsFor(8), 401 * kMiB);
  caller.open();
  for (int i = 0; i < 3; ++i) {
    caller.flights.at(caller.last()).position = caller.flights.at(caller.last()).piece.range.start;
    EXPECT_EQ(caller.fail(caller.last(), kNoCode, kBusy).kind, Kind::Planned);
  }
  EXPECT_EQ(caller.plan.limit(), 5U);
  EXPECT_EQ(caller.plan.terms().connections, 5U);
}

TEST(AdaptivePlan, busyHostThatRefusesAgainKeepsHalf) {
  Caller caller(settingsFor(8), 401 * kMiB);
  caller.open();
  const auto refuse = [&] {
    caller.flights.at(caller.last()).position = caller.flights.at(caller.last()).piece.range.start;
    caller.fail(caller.last(), kNoCode, kBusy);
  };
  refuse();
  EXPECT_EQ(caller.plan.limit(), 7U);
  caller.flights.at(caller.first()).rate = 1e10;  // its connection asks for the next piece
  caller.run(3 * kSecond);
  refuse();
  EXPECT_EQ(caller.plan.limit(), 3U);
}

TEST(AdaptivePlan, oneMoreIsTriedLaterAndKeptWhenTheSumRises) {
  for (const bool rises : {true, false}) {
    Caller caller(settingsFor(8), 4001 * kMiB);
    caller.open();
    for (int i = 0; i < 4; ++i) {
      caller.flights.at(caller.last()).position = caller.flights.at(caller.last()).piece.range.start;
      caller.fail(caller.last(), kNoCode, kBusy);
    }
    ASSERT_EQ(caller.plan.limit(), 4U);
    caller.run(9 * kSecond);
    EXPECT_EQ(caller.plan.limit(), 4U);
    caller.run(2 * kSecond);
    EXPECT_EQ(caller.plan.limit(), 5U);
    EXPECT_EQ(caller.flights.size(), 5U);
    if (!rises) {
      for (auto& [id, flight] : caller.flights) flight.rate = 8e5;
    }
    caller.run(5 * kSecond);
    EXPECT_EQ(caller.plan.limit(), rises ? 5U : 4U);
  }
}

TEST(AdaptivePlan, forbiddenFromTheStartEndsTheJob) {
  Caller caller(settingsFor(8), 101 * kMiB);
  caller.refill();
  EXPECT_EQ(caller.fail(caller.first(), kNoCode, kForbidden, Verdict::Rejected).kind, Kind::GiveUp);
}

TEST(AdaptivePlan, forbiddenBesideOthersMeansFewerConnections) {
  Caller caller(settingsFor(4), 101 * kMiB);
  caller.open();
  caller.flights.at(caller.last()).position = caller.flights.at(caller.last()).piece.range.start;
  EXPECT_EQ(caller.fail(caller.last(), kNoCode, kForbidden, Verdict::Rejected).kind, Kind::Planned);
  EXPECT_EQ(caller.plan.limit(), 3U);
}

TEST(AdaptivePlan, lastingRefusalsEndTheJobOnlyBeforeAnAnswer) {
  Caller fresh(settingsFor(4), 101 * kMiB);
  fresh.refill();
  EXPECT_EQ(fresh.fail(fresh.first(), kNoCode, kGone, Verdict::Fatal).kind, Kind::GiveUp);
  Caller running(settingsFor(4), 101 * kMiB);
  running.open();
  EXPECT_EQ(running.fail(running.last(), kNoCode, kGone, Verdict::Fatal).kind, Kind::Planned);
}

TEST(AdaptivePlan, fatalErrorsEndTheJobButBrokenConnectionsDoNot) {
  constexpr std::int32_t kStreamError = 92;
  Caller caller(settingsFor(4), 101 * kMiB);
  caller.open();
  EXPECT_EQ(caller.fail(caller.last(), kStreamError, kPartial, Verdict::Fatal).kind, Kind::Planned);
  EXPECT_EQ(caller.fail(caller.last(), kWriteError, kPartial, Verdict::Fatal).kind, Kind::GiveUp);
}

TEST(AdaptivePlan, emptyBucketLeavesTheOthersAtWork) {
  Caller caller(settingsFor(2, 1), 101 * kMiB);
  caller.open();
  caller.flights.at(caller.last()).position = caller.flights.at(caller.last()).piece.range.start;
  EXPECT_EQ(caller.fail(caller.last(), kNoCode, kServerError).kind, Kind::Planned);
  EXPECT_EQ(caller.plan.limit(), 1U);
}

TEST(AdaptivePlan, termsOfOthersAreTaken) {
  Caller caller(settingsFor(8), 101 * kMiB);
  caller.open();
  caller.plan.adopt({caller.now + kSecond, 5});
  caller.plan.adopt({caller.now + kSecond / 2, 6});
  caller.plan.adopt({0, 0});
  EXPECT_EQ(caller.plan.terms(), (HostTerms{caller.now + kSecond, 5}));
  EXPECT_EQ(caller.plan.limit(), 5U);
}

}  // namespace
