// The speed limit in virtual time: what a job's connections get that always have more to take.
#include "token_bucket.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace {

using xfer::TokenBucket;

constexpr std::uint64_t kMs = 1'000'000;
constexpr std::uint64_t kStart = 1000 * kMs;  // any time but 0

struct Limit {
  const char* name;
  std::uint64_t bytesPerSec;  // of all connections
  std::uint64_t connections;
  std::uint64_t piece;  // as large as one comes at this speed
};

std::ostream& operator<<(std::ostream& out, const Limit& limit) {
  return out << limit.name;
}

class SpeedLimit : public testing::TestWithParam<Limit> {
 protected:
  SpeedLimit() : buckets_(GetParam().connections) {
    for (TokenBucket& bucket : buckets_) bucket.setRate(rate(), kStart);
  }

  static std::uint64_t rate() { return GetParam().bytesPerSec / GetParam().connections; }

  // What all connections get in one turn; at most a minute's worth.
  std::uint64_t turn(std::uint64_t nowNs) {
    std::uint64_t bytes = 0;
    for (TokenBucket& bucket : buckets_) {
      while (bytes < 60 * GetParam().bytesPerSec && bucket.take(GetParam().piece, nowNs)) bytes += GetParam().piece;
    }
    return bytes;
  }

  std::vector<TokenBucket> buckets_;
};

TEST_P(SpeedLimit, isHeldAndUsedUpOverTenSeconds) {
  for (const std::uint64_t mostMs : {std::uint64_t{10}, std::uint64_t{40}}) {  // from one turn to the next
    for (TokenBucket& bucket : buckets_) bucket = {};
    for (TokenBucket& bucket : buckets_) bucket.setRate(rate(), kStart);
    std::mt19937 random(7);
    std::uniform_int_distribution<std::uint64_t> next(mostMs / 10, mostMs);
    const auto limit = static_cast<double>(GetParam().bytesPerSec);
    double bytes = 0;
    for (std::uint64_t ms = 0; ms < 10'000; ms += next(random)) {
      bytes += static_cast<double>(turn(kStart + ms * kMs));
      EXPECT_LE(bytes, limit * static_cast<double>(ms) / 1000) << "no burst at the beginning";
    }
    EXPECT_GT(bytes, 0.9 * 10 * limit);
  }
}

TEST_P(SpeedLimit, burstAfterALullIsATenthOfASecondOrOnePiece) {
  turn(kStart + 1000 * kMs);
  const std::uint64_t burst = turn(kStart + 9000 * kMs);
  const std::uint64_t perConnection = std::max(rate() / 10, GetParam().piece + rate() / 50);
  EXPECT_LE(burst, GetParam().connections * perConnection);
  EXPECT_GE(burst, GetParam().connections * GetParam().piece);
}

TEST_P(SpeedLimit, isHeldByOneTransferAfterAnotherInTheSameSlot) {
  double bytes = 0;
  for (std::uint64_t ms = 0; ms < 10'000; ms += 10) {
    for (TokenBucket& bucket : buckets_) bucket.setRate(rate(), kStart + ms * kMs);
    bytes += static_cast<double>(turn(kStart + ms * kMs));
  }
  EXPECT_LE(bytes, 10.0 * static_cast<double>(GetParam().bytesPerSec));
  EXPECT_GT(bytes, 0.9 * 10 * static_cast<double>(GetParam().bytesPerSec));
}

INSTANTIATE_TEST_SUITE_P(OfXfer, SpeedLimit,
                         testing::Values(Limit{"twentyKilobytesOverOne", 20'000, 1, 2500},
                                         Limit{"twentyKilobytesOverSixteen", 20'000, 16, 1024},
                                         Limit{"fiftyMegabytesOverOne", 50'000'000, 1, 16'384},
                                         Limit{"fiftyMegabytesOverSixteen", 50'000'000, 16, 16'384}),
                         [](const testing::TestParamInfo<Limit>& limit) { return std::string(limit.param.name); });

TEST(TokenBucket, limitOf0LetsEverythingPass) {
  TokenBucket bucket;
  EXPECT_TRUE(bucket.take(~std::uint64_t{0}, kStart));
  bucket.setRate(1, kStart);
  EXPECT_FALSE(bucket.take(100, kStart));
  EXPECT_FALSE(bucket.wouldTake(100, kStart));
  bucket.setRate(0, kStart);
  EXPECT_TRUE(bucket.take(100, kStart));
  EXPECT_TRUE(bucket.wouldTake(100, kStart));
}

TEST(TokenBucket, askingSpendsNothing) {
  TokenBucket bucket;
  bucket.setRate(1000, kStart);
  EXPECT_FALSE(bucket.take(100, kStart));
  for (int time = 0; time < 3; ++time) EXPECT_TRUE(bucket.wouldTake(100, kStart + 100 * kMs));
  EXPECT_TRUE(bucket.take(100, kStart + 100 * kMs));
  EXPECT_FALSE(bucket.wouldTake(100, kStart + 100 * kMs));
  EXPECT_FALSE(bucket.take(100, kStart + 199 * kMs));
  EXPECT_TRUE(bucket.take(100, kStart + 200 * kMs));
}

}  // namespace
