#include "range_scheduler.h"

#include <gtest/gtest.h>

#include <limits>
#include <set>
#include <thread>

#include "support/log_line.h"
#include "support/recording_logger.h"

using namespace xfer;
using support::failure;
using support::kRanges;
using support::RecordingLogger;
using support::recovery;
using support::trace;
using support::wholeLogError;

namespace {

constexpr std::uint64_t kMiB = 1048576;
constexpr std::uint64_t kMax64 = std::numeric_limits<std::uint64_t>::max();

DownloadPolicy fixedChunks(std::uint64_t size) {
  DownloadPolicy policy;
  policy.rampChunks = false;
  policy.maxChunkSize = size;
  return policy;
}

std::vector<std::uint64_t> lengths(std::uint64_t total, const DownloadPolicy& policy) {
  RangeScheduler ranges(total, policy);
  std::vector<std::uint64_t> result;
  std::uint64_t offset = 0;
  while (const auto range = ranges.nextPending()) {
    EXPECT_EQ(range->start, offset);
    result.push_back(range->end - range->start);
    offset = range->end;
  }
  EXPECT_EQ(offset, total);
  return result;
}

TEST(RangeScheduler, emptyFileIsOneRangeThatCompletesWithoutARecord) {
  const RecordingLogger log;
  RangeScheduler ranges(0, {});
  EXPECT_EQ(ranges.rangeCount(), 1U);
  EXPECT_FALSE(ranges.allDone());
  EXPECT_EQ(ranges.nextPending(), (ByteRange{0, 0}));
  ranges.complete(0);
  EXPECT_TRUE(ranges.allDone());
  EXPECT_EQ(wholeLogError(log.records(), {}), "");
}

TEST(RangeScheduler, fileSmallerThanTheFirstChunkIsOneRange) {
  EXPECT_EQ(lengths(1000, {}), std::vector<std::uint64_t>{1000});
}

TEST(RangeScheduler, chunksGrowUpToTheMaximum) {
  DownloadPolicy policy;
  policy.numThreads = 4;
  const RecordingLogger log;
  EXPECT_EQ(lengths(100 * kMiB, policy), (std::vector<std::uint64_t>{1 * kMiB, 4 * kMiB, 16 * kMiB, 16 * kMiB,
                                                                     16 * kMiB, 16 * kMiB, 16 * kMiB, 15 * kMiB}));
  const char* const text =
      "buildRanges | total=104857600 | chunks=8 | max_chunk=16777216 | first=1048576 | last=15728640";
  EXPECT_EQ(wholeLogError(log.records(), {trace(kRanges, text)}), "");
}

TEST(RangeScheduler, shareOfAConnectionLowersTheMaximum) {
  DownloadPolicy policy;
  policy.numThreads = 8;
  std::vector<std::uint64_t> expected{1 * kMiB, 4 * kMiB};
  expected.insert(expected.end(), 7, 5 * kMiB);
  const RecordingLogger log;
  EXPECT_EQ(lengths(40 * kMiB, policy), expected);
  const char* const text = "buildRanges | total=41943040 | chunks=9 | max_chunk=5242880 | first=1048576 | last=5242880";
  EXPECT_EQ(wholeLogError(log.records(), {trace(kRanges, text)}), "") << "the lowered maximum";
}

TEST(RangeScheduler, shareEqualToTheFirstChunkLeavesTheMaximum) {
  DownloadPolicy policy;
  policy.numThreads = 8;
  EXPECT_EQ(lengths(8 * kMiB, policy), (std::vector<std::uint64_t>{1 * kMiB, 4 * kMiB, 3 * kMiB}));
}

TEST(RangeScheduler, oneConnectionOrNoneLeavesTheMaximum) {
  for (const std::uint16_t threads : {std::uint16_t{0}, std::uint16_t{1}}) {
    DownloadPolicy policy;
    policy.numThreads = threads;
    EXPECT_EQ(lengths(40 * kMiB, policy),
              (std::vector<std::uint64_t>{1 * kMiB, 4 * kMiB, 16 * kMiB, 16 * kMiB, 3 * kMiB}));
  }
}

TEST(RangeScheduler, withoutRampEveryChunkButTheLastHasTheMaximum) {
  EXPECT_EQ(lengths(25, fixedChunks(10)), (std::vector<std::uint64_t>{10, 10, 5}));
}

TEST(RangeScheduler, firstChunkIsNotCappedByTheMaximum) {
  DownloadPolicy policy;
  policy.initialChunkSize = 50;
  policy.maxChunkSize = 20;
  EXPECT_EQ(lengths(100, policy), (std::vector<std::uint64_t>{50, 20, 20, 10}));
}

TEST(RangeScheduler, secondCompleteIsLoggedAndCountsNothing) {
  const RecordingLogger log(3);
  RangeScheduler ranges(30, fixedChunks(10));
  ranges.nextPending();
  ranges.complete(0);
  EXPECT_EQ(ranges.completedBytes(), 10U);
  ranges.complete(0);
  EXPECT_EQ(ranges.completedBytes(), 10U);
  EXPECT_EQ(wholeLogError(log.records(), {failure(kRanges, "complete | range_start=0 not found as Active")}), "");
}

TEST(RangeScheduler, failOfADoneRangeIsLoggedAndLeavesItDone) {
  RangeScheduler ranges(10, fixedChunks(10));
  const RecordingLogger log;
  ranges.nextPending();
  ranges.complete(0);
  ranges.fail(0);
  ranges.fail(5);
  EXPECT_EQ(wholeLogError(log.records(), {failure(kRanges, "fail | range_start=0 not found as Active"),
                                          failure(kRanges, "fail | range_start=5 not found as Active")}),
            "");
  EXPECT_TRUE(ranges.allDone());
}

TEST(RangeScheduler, completeOfAPendingOrUnknownRangeChangesNothing) {
  const RecordingLogger log(3);
  RangeScheduler ranges(30, fixedChunks(10));
  ranges.complete(10);
  ranges.complete(7);
  EXPECT_EQ(wholeLogError(log.records(), {failure(kRanges, "complete | range_start=10 not found as Active"),
                                          failure(kRanges, "complete | range_start=7 not found as Active")}),
            "");
  EXPECT_EQ(ranges.nextPending(), (ByteRange{0, 10}));
  EXPECT_EQ(ranges.nextPending(), (ByteRange{10, 20}));
}

// A range that comes back after a retry goes out again before any that never ran.
TEST(RangeScheduler, requeuedRangeGoesOutBeforeNeverStartedOnes) {
  const RecordingLogger log(4);
  RangeScheduler ranges(30, fixedChunks(10));
  ASSERT_EQ(ranges.nextPending(), (ByteRange{0, 10}));
  ASSERT_EQ(ranges.nextPending(), (ByteRange{10, 20}));
  ranges.fail(0);
  EXPECT_EQ(wholeLogError(log.records(), {recovery(kRanges, "fail | re-queued range start=0")}), "");
  EXPECT_EQ(ranges.nextPending(), (ByteRange{0, 10}));
  EXPECT_EQ(ranges.nextPending(), (ByteRange{20, 30}));
  EXPECT_EQ(ranges.nextPending(), std::nullopt);
}

TEST(RangeScheduler, completeFromEndsEveryLaterRange) {
  RangeScheduler ranges(40, fixedChunks(10));
  ranges.nextPending();
  ranges.nextPending();
  EXPECT_EQ(ranges.openEnd(), 40U);
  ranges.completeFrom(10);
  EXPECT_EQ(ranges.completedBytes(), 30U);
  EXPECT_EQ(ranges.openEnd(), 10U);
  EXPECT_EQ(ranges.nextPending(), std::nullopt);
  ranges.complete(0);
  EXPECT_TRUE(ranges.allDone());
  EXPECT_EQ(ranges.openEnd(), 0U);
}

TEST(RangeScheduler, releaseSaysNothingAndLeavesADoneRangeAlone) {
  RangeScheduler ranges(20, fixedChunks(10));
  ranges.nextPending();
  ranges.nextPending();
  ranges.complete(0);
  const RecordingLogger log;
  ranges.release(0);
  ranges.release(10);
  EXPECT_TRUE(log.texts().empty());
  EXPECT_EQ(ranges.nextPending(), (ByteRange{10, 20}));
  EXPECT_EQ(ranges.nextPending(), std::nullopt);
}

TEST(RangeScheduler, sizesAtTheEdgeOfTheirTypeDoNotOverflow) {
  DownloadPolicy policy;
  policy.initialChunkSize = kMax64 / 2;
  policy.maxChunkSize = kMax64;
  policy.chunkGrowthFactor = std::numeric_limits<std::uint32_t>::max();
  EXPECT_EQ(lengths(kMax64, policy), (std::vector<std::uint64_t>{kMax64 / 2, kMax64 - kMax64 / 2}));
  EXPECT_EQ(lengths(kMax64, fixedChunks(kMax64)), std::vector<std::uint64_t>{kMax64});
}

// Were the work quadratic, this would run for many minutes and be ended.
TEST(RangeScheduler, twoMillionRangesAreWorkedThrough) {
  constexpr std::uint64_t kRanges = 2'000'000;
  DownloadPolicy constant;
  constant.chunkGrowthFactor = 1;
  RangeScheduler ranges(kRanges * kMiB, constant);
  EXPECT_EQ(ranges.rangeCount(), kRanges);
  while (const auto range = ranges.nextPending()) ranges.complete(range->start);
  EXPECT_TRUE(ranges.allDone());
  EXPECT_EQ(ranges.completedBytes(), kRanges * kMiB);
}

TEST(RangeScheduler, sixteenTebibytesAreCut) {
  RangeScheduler ranges(16 * kMiB * kMiB, {});
  EXPECT_EQ(ranges.rangeCount(), 2U + 1048576U);
}

TEST(RangeScheduler, handsEachRangeToOneThreadOnly) {
  RangeScheduler ranges(4000, fixedChunks(1));
  std::vector<std::set<std::uint64_t>> taken(4);
  std::vector<std::thread> threads;
  for (auto& mine : taken) {
    threads.emplace_back([&ranges, &mine] {
      while (const auto range = ranges.nextPending()) {
        mine.insert(range->start);
        ranges.complete(range->start);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  std::set<std::uint64_t> all;
  std::size_t sum = 0;
  for (const auto& mine : taken) {
    all.insert(mine.begin(), mine.end());
    sum += mine.size();
  }
  EXPECT_EQ(all.size(), 4000U);
  EXPECT_EQ(sum, 4000U);
  EXPECT_TRUE(ranges.allDone());
}

TEST(UnworkableField, namesWhatCannotWork) {
  EXPECT_EQ(unworkableField({}), nullptr);
  DownloadPolicy policy;
  policy.numThreads = 0;
  EXPECT_STREQ(unworkableField(policy), "numThreads");
  policy = {};
  policy.maxChunkSize = 0;
  EXPECT_STREQ(unworkableField(policy), "maxChunkSize");
  policy = {};
  policy.initialChunkSize = 0;
  EXPECT_STREQ(unworkableField(policy), "initialChunkSize");
  policy.rampChunks = false;
  EXPECT_EQ(unworkableField(policy), nullptr);
  policy = {};
  policy.chunkGrowthFactor = 0;
  EXPECT_STREQ(unworkableField(policy), "chunkGrowthFactor");
}

}  // namespace
