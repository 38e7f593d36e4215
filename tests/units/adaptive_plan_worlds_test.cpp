// The adaptive plan in thousands of random worlds; everything that it meets there is in adaptive_plan_world.h.
//
// XFER_WORLDS sets how many, XFER_WORLDS_SEED the first one's seed.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <vector>

#include "adaptive_plan_world.h"
#include "support/test_timeout.h"

using namespace support;

namespace {

constexpr std::uint64_t kWorlds = 10'000;
constexpr std::uint64_t kHostileWorlds = 3'000;
constexpr std::uint64_t kEnoughForPercentiles = 5'000;

std::uint64_t fromEnvironment(const char* name, std::uint64_t otherwise) {
  const char* value = std::getenv(name);
  return value == nullptr ? otherwise : std::strtoull(value, nullptr, 10);
}

std::uint64_t firstSeed() {
  return fromEnvironment("XFER_WORLDS_SEED", 1);
}

// Fewer in slow surroundings: one thread without an input of its own has little to show a sanitizer.
std::uint64_t numberOf(std::uint64_t worlds) {
  const auto slowness = static_cast<std::uint64_t>(support::testTimeout() / std::chrono::seconds(20));
  return fromEnvironment("XFER_WORLDS", std::max<std::uint64_t>(worlds / (slowness * slowness), 1));
}

struct Percentiles {
  double median = 0;
  double p95 = 0;
  double p99 = 0;
};

// Of the times, in multiples of the ideal.
Percentiles percentilesOf(std::vector<double>& ratios) {
  std::sort(ratios.begin(), ratios.end());
  const auto at = [&](std::size_t percent) { return ratios[(ratios.size() - 1) * percent / 100]; };
  return {at(50), at(95), at(99)};
}

std::ostream& operator<<(std::ostream& out, const Percentiles& percentiles) {
  return out << "median " << percentiles.median << ", 95 % " << percentiles.p95 << ", 99 % " << percentiles.p99;
}

TEST(AdaptivePlanWorlds, takeLittleLongerThanTheIdeal) {
  const std::uint64_t worlds = numberOf(kWorlds);
  std::vector<double> ratios;
  ratios.reserve(worlds);
  std::uint64_t requests = 0;
  for (std::uint64_t seed = firstSeed(); seed < firstSeed() + worlds; ++seed) {
    const PlanWorld world = drawWorld(seed);
    const PlanOutcome outcome = live(world);
    ASSERT_EQ(outcome.fault, "");
    ratios.push_back(outcome.seconds / outcome.ideal);
    requests += outcome.requests;
  }
  const Percentiles percentiles = percentilesOf(ratios);
  std::cout << "  " << worlds << " worlds from seed " << firstSeed() << ", time over the ideal: " << percentiles << "; "
            << static_cast<double>(requests) / static_cast<double>(worlds) << " requests each\n";
  EXPECT_LE(percentiles.median, 1.02);
  if (worlds < kEnoughForPercentiles) return;
  EXPECT_LE(percentiles.p95, 1.08);
  EXPECT_LE(percentiles.p99, 1.15);
}

TEST(AdaptivePlanHostileWorlds, keepAllPromises) {
  const std::uint64_t worlds = numberOf(kHostileWorlds);
  std::vector<double> ratios;
  std::uint64_t deserved = 0;
  std::uint64_t gaveUp = 0;
  for (std::uint64_t seed = firstSeed(); seed < firstSeed() + worlds; ++seed) {
    const PlanWorld world = drawHostileWorld(seed);
    const PlanOutcome outcome = live(world);
    ASSERT_EQ(outcome.fault, "");
    if (deservesGivingUp(world)) ++deserved;
    if (outcome.gaveUp) {
      ++gaveUp;
    } else {
      ratios.push_back(outcome.seconds / outcome.ideal);
    }
  }
  std::cout << "  " << worlds << " worlds from seed " << firstSeed() << ", " << gaveUp
            << " given up, time over the ideal of the others: " << percentilesOf(ratios) << '\n';
  EXPECT_EQ(gaveUp, deserved);
}

TEST(AdaptivePlanWorlds, areTheSameForTheSameSeed) {
  for (std::uint64_t seed = 1; seed <= 20; ++seed) {
    const PlanOutcome first = live(drawHostileWorld(seed));
    const PlanOutcome second = live(drawHostileWorld(seed));
    EXPECT_EQ(first.seconds, second.seconds);
    EXPECT_EQ(first.requests, second.requests);
    EXPECT_EQ(first.turns, second.turns);
  }
}

}  // namespace
