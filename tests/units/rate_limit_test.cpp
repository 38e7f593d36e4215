// A limit that many transfers share, in virtual time.
#include "rate_limit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

using xfer::PieceGate;
using xfer::RateLimit;
using xfer::SpeedLimits;

namespace {

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kTurn = 10'000'000;  // how often a loop looks

TEST(RateLimit, passesEverythingUntilItIsSet) {
  RateLimit limit;
  PieceGate gate;
  EXPECT_FALSE(limit.isSet());
  EXPECT_EQ(limit.rate(), 0U);
  EXPECT_TRUE(gate.opensFor({&limit, nullptr}, 1'000'000'000, kSecond));
}

TEST(RateLimit, pieceWaitsUntilItIsPaidFor) {
  RateLimit limit;
  limit.setRate(1000, kSecond);
  EXPECT_TRUE(limit.isSet());
  PieceGate gate;
  EXPECT_FALSE(gate.opensFor({&limit, nullptr}, 500, kSecond));
  EXPECT_FALSE(gate.isOpen(kSecond + kSecond / 2 - 1'000'000));
  EXPECT_TRUE(gate.isOpen(kSecond + kSecond / 2 + 1'000'000));
  EXPECT_TRUE(gate.opensFor({&limit, nullptr}, 500, kSecond + kSecond / 2 + 1'000'000));
}

TEST(RateLimit, piecesPassInTheOrderInWhichTheyCame) {
  RateLimit limit;
  limit.setRate(1000, kSecond);
  PieceGate first;
  PieceGate second;
  EXPECT_FALSE(first.opensFor({&limit, nullptr}, 900, kSecond));
  EXPECT_FALSE(second.opensFor({&limit, nullptr}, 1, kSecond));
  EXPECT_FALSE(second.isOpen(kSecond + kSecond / 2)) << "a small piece does not pass a large one that waits";
  EXPECT_FALSE(first.isOpen(kSecond + kSecond / 2));
  EXPECT_TRUE(first.isOpen(kSecond * 2));
  EXPECT_TRUE(second.isOpen(kSecond * 2));
}

TEST(RateLimit, lullEarnsATenthOfASecond) {
  RateLimit limit;
  limit.setRate(1000, kSecond);
  const std::uint64_t later = 100 * kSecond;
  PieceGate gate;
  EXPECT_TRUE(gate.opensFor({&limit, nullptr}, 100, later));
  gate.passed(100);
  EXPECT_FALSE(gate.opensFor({&limit, nullptr}, 1, later));
}

TEST(RateLimit, changedRateCountsForWhatWaitsAlready) {
  RateLimit limit;
  limit.setRate(10, kSecond);
  PieceGate gate;
  EXPECT_FALSE(gate.opensFor({&limit, nullptr}, 1000, kSecond));
  limit.setRate(1000, 2 * kSecond);  // 10 are paid
  EXPECT_FALSE(gate.isOpen(2 * kSecond + kSecond * 98 / 100));
  EXPECT_TRUE(gate.isOpen(3 * kSecond));
}

TEST(RateLimit, removedLimitLetsPassWhatWaitsAndLeavesNoDebt) {
  RateLimit limit;
  limit.setRate(10, kSecond);
  PieceGate gate;
  EXPECT_FALSE(gate.opensFor({&limit, nullptr}, 1'000'000, kSecond));
  limit.setRate(0, kSecond);
  EXPECT_TRUE(gate.isOpen(kSecond));
  EXPECT_TRUE(gate.opensFor({&limit, nullptr}, 1'000'000, kSecond));
  gate.passed(1'000'000);
  limit.setRate(1000, 2 * kSecond);
  EXPECT_FALSE(gate.opensFor({&limit, nullptr}, 1000, 2 * kSecond));
  EXPECT_FALSE(gate.isOpen(2 * kSecond + kSecond / 2));
  EXPECT_TRUE(gate.isOpen(3 * kSecond));
}

TEST(RateLimit, timesOfSeveralThreadsMayComeInAnyOrder) {
  RateLimit limit;
  limit.setRate(1000, kSecond);
  PieceGate gate;
  EXPECT_FALSE(gate.opensFor({&limit, nullptr}, 1500, kSecond));
  for (int turn = 0; turn < 1000; ++turn) {
    EXPECT_FALSE(gate.isOpen(kSecond + kSecond));
    EXPECT_FALSE(gate.isOpen(kSecond));
  }
  EXPECT_TRUE(gate.isOpen(kSecond * 5 / 2));
}

TEST(SpeedLimits, lowestIsTheStricterOfThoseThatLimit) {
  RateLimit own;
  RateLimit shared;
  EXPECT_EQ((SpeedLimits{}.lowest()), 0U);
  EXPECT_EQ((SpeedLimits{&own, &shared}.lowest()), 0U);
  own.setRate(500, 1);
  EXPECT_EQ((SpeedLimits{&own, &shared}.lowest()), 500U);
  shared.setRate(300, 1);
  EXPECT_EQ((SpeedLimits{&own, &shared}.lowest()), 300U);
  own.setRate(200, 1);
  EXPECT_EQ((SpeedLimits{&own, &shared}.lowest()), 200U);
  EXPECT_EQ((SpeedLimits{nullptr, &shared}.lowest()), 300U);
}

TEST(PieceGate, opensWhenBothLimitsDo) {
  RateLimit own;
  RateLimit shared;
  own.setRate(1000, kSecond);
  shared.setRate(500, kSecond);
  PieceGate gate;
  EXPECT_FALSE(gate.opensFor({&own, &shared}, 1000, kSecond));
  EXPECT_FALSE(gate.isOpen(kSecond * 5 / 2)) << "the shared one has not come there";
  EXPECT_TRUE(gate.isOpen(kSecond * 31 / 10));
  own.setRate(1, kSecond * 31 / 10);
  EXPECT_TRUE(gate.opensFor({&own, &shared}, 1000, kSecond * 31 / 10)) << "it is paid for";
}

TEST(PieceGate, keepsItsPlaceWhenThePieceComesInAnotherSize) {
  RateLimit own;
  own.setRate(1000, kSecond);
  const SpeedLimits limits{&own, nullptr};
  PieceGate gate;
  EXPECT_FALSE(gate.opensFor(limits, 1000, kSecond));
  EXPECT_FALSE(gate.opensFor(limits, 400, kSecond + kSecond / 5));
  EXPECT_TRUE(gate.isOpen(kSecond + kSecond / 2)) << "only what comes is waited for";
  EXPECT_TRUE(gate.opensFor(limits, 300, kSecond + kSecond / 2));
  gate.passed(300);
  EXPECT_FALSE(gate.opensFor(limits, 300, kSecond + kSecond / 2)) << "of which 100 are left, and 100 are saved";
  EXPECT_FALSE(gate.opensFor(limits, 50, kSecond + kSecond / 2)) << "while it waits, nothing passes";
  EXPECT_TRUE(gate.isOpen(kSecond + kSecond * 7 / 10));
}

TEST(PieceGate, placeThatIsLeftIsFree) {
  RateLimit own;
  own.setRate(1000, kSecond);
  const SpeedLimits limits{&own, nullptr};
  PieceGate second;
  PieceGate third;
  {
    PieceGate first;
    PieceGate neverAsked;
    EXPECT_FALSE(first.opensFor(limits, 10'000, kSecond));
    EXPECT_FALSE(second.opensFor(limits, 5'000, kSecond));
    EXPECT_FALSE(third.opensFor(limits, 100, kSecond));
    neverAsked.leave();
    second.leave();
    second.leave();
  }
  EXPECT_FALSE(third.isOpen(kSecond + kSecond / 20));
  EXPECT_TRUE(third.isOpen(kSecond + kSecond / 5));
}

TEST(PieceGate, whatWasPaidForAndIsNotUsedGoesToTheNext) {
  RateLimit own;
  own.setRate(1000, kSecond);
  const SpeedLimits limits{&own, nullptr};
  PieceGate first;
  PieceGate second;
  EXPECT_FALSE(first.opensFor(limits, 1000, kSecond));
  EXPECT_FALSE(second.opensFor(limits, 1000, kSecond));
  EXPECT_TRUE(first.isOpen(2 * kSecond));
  EXPECT_FALSE(second.isOpen(2 * kSecond));
  first.leave();
  EXPECT_TRUE(second.isOpen(2 * kSecond));
  second.leave();
  EXPECT_FALSE(first.opensFor(limits, 1100, 2 * kSecond)) << "of which a tenth of a second's worth is saved";
  EXPECT_TRUE(first.isOpen(3 * kSecond + 1'000'000));
}

// ---- Random worlds: jobs with connections of their own, which look at their limits turn by turn ----

struct Connection {
  std::size_t job = 0;
  std::uint64_t largestPiece = 0;
  double busy = 1;  // how often it has data when it may take some
  PieceGate gate{};
  std::uint64_t piece = 0;  // waits
  std::uint64_t waitsSinceNs = 0;
  bool held = false;
};

// As small as the backend makes it.
std::uint64_t largestPiece(std::uint64_t rate) {
  return std::clamp<std::uint64_t>(rate / 8, 1024, 16'384);
}

class World {
 public:
  World(std::uint64_t seed, std::uint64_t sharedRate, std::size_t jobs, std::size_t connections)
      : random_(seed), own_(jobs) {
    shared_.setRate(sharedRate, kSecond);
    for (auto& limit : own_) limit = std::make_unique<RateLimit>();
    for (std::size_t index = 0; index < connections; ++index) {
      auto connection = std::make_unique<Connection>();
      connection->job = index % jobs;
      connection->largestPiece = largestPiece(sharedRate);
      connection->busy = chance() ? 1 : 0.3;
      connections_.push_back(std::move(connection));
    }
  }

  // Lets the time go on; returns the pieces that passed, as time and size.
  std::vector<std::pair<std::uint64_t, std::uint64_t>> run(std::uint64_t seconds, bool disturbed) {
    std::vector<std::pair<std::uint64_t, std::uint64_t>> passed;
    for (const std::uint64_t end = now_ + seconds * kSecond; now_ < end; now_ += kTurn) {
      std::shuffle(connections_.begin(), connections_.end(), random_);
      for (const auto& each : connections_) turn(*each, disturbed, passed);
    }
    return passed;
  }

  [[nodiscard]] std::uint64_t longestWaitNs() const { return longestWaitNs_; }

 private:
  [[nodiscard]] bool chance(double likely = 0.5) { return std::bernoulli_distribution(likely)(random_); }

  void turn(Connection& each, bool disturbed, std::vector<std::pair<std::uint64_t, std::uint64_t>>& passed) {
    const SpeedLimits limits{own_[each.job].get(), &shared_};
    if (disturbed && chance(0.01)) {  // paused, resumed, cancelled and begun anew
      each.held = !each.held;
      each.gate.leave();
      each.piece = 0;
    }
    if (each.held) return;
    for (int pieces = 0; pieces < 1000; ++pieces) {
      if (each.piece == 0) {
        if (!chance(each.busy)) return;
        each.piece = std::uniform_int_distribution<std::uint64_t>(1, each.largestPiece)(random_);
        each.waitsSinceNs = now_;
      }
      if (!each.gate.opensFor(limits, each.piece, now_)) return;
      each.gate.passed(each.piece);
      longestWaitNs_ = std::max(longestWaitNs_, now_ - each.waitsSinceNs);
      passed.emplace_back(now_, each.piece);
      each.piece = 0;
    }
  }

  std::mt19937_64 random_;
  RateLimit shared_;
  std::vector<std::unique_ptr<RateLimit>> own_;
  std::vector<std::unique_ptr<Connection>> connections_;
  std::uint64_t now_ = kSecond;
  std::uint64_t longestWaitNs_ = 0;
};

// The most that passed within any stretch of this length.
std::uint64_t mostWithin(const std::vector<std::pair<std::uint64_t, std::uint64_t>>& passed, std::uint64_t lengthNs) {
  std::uint64_t within = 0;
  std::uint64_t most = 0;
  std::size_t first = 0;
  for (const auto& [time, size] : passed) {
    within += size;
    for (; passed[first].first + lengthNs <= time; ++first) within -= passed[first].second;
    most = std::max(most, within);
  }
  return most;
}

class SharedLimitInRandomWorlds : public testing::TestWithParam<std::uint64_t> {};

TEST_P(SharedLimitInRandomWorlds, sumHoldsOverAnyTenSecondsAndNobodyStarves) {
  const std::uint64_t rate = GetParam();
  for (std::uint64_t seed = 1; seed <= 12; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const std::size_t connections = std::vector<std::size_t>{1, 2, 16, 64}[seed % 4];
    for (const bool disturbed : {false, true}) {
      World world(seed, rate, 1 + seed % 3, connections);
      const auto passed = world.run(30, disturbed);
      EXPECT_LE(mostWithin(passed, 10 * kSecond), 11 * rate);
      // Before it, a piece of every other connection at most, and the turns in which nobody looks.
      const double queueSec = static_cast<double>(connections * largestPiece(rate)) / static_cast<double>(rate);
      EXPECT_LE(static_cast<double>(world.longestWaitNs()) / 1e9, queueSec * 1.05 + 0.05);
    }
  }
}

TEST_P(SharedLimitInRandomWorlds, limitIsUsedUpWhereThereIsDataForIt) {
  const std::uint64_t rate = GetParam();
  for (const std::size_t connections : {std::size_t{1}, std::size_t{16}}) {
    World world(1, rate, 1, connections);
    std::uint64_t sum = 0;
    for (const auto& [time, size] : world.run(60, false)) sum += size;
    EXPECT_GE(sum, 60 * rate * 95 / 100) << connections;
  }
}

INSTANTIATE_TEST_SUITE_P(Rates, SharedLimitInRandomWorlds, testing::Values(20'000U, 1'000'000U, 20'000'000U),
                         [](const auto& rate) { return std::to_string(rate.param); });

}  // namespace
