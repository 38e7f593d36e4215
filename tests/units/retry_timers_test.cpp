#include "retry_timers.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "support/census.h"
#include "support/gate.h"
#include "support/wait_until.h"

namespace {

using support::Gate;
using support::waitUntil;
using xfer::RetryTimers;

TEST(RetryTimers, actionRunsOnAThreadOfItsOwnAfterTheWaitForItsDelay) {
  std::atomic<std::uint64_t> waited{0};
  std::uint64_t waitedBefore = 0;
  std::thread::id thread;
  Gate acted;
  {
    RetryTimers timers([&](std::uint64_t delayMs) { waited = delayMs; });
    timers.schedule(2000, [&] {
      waitedBefore = waited;
      thread = std::this_thread::get_id();
      acted.open();
    });
    ASSERT_TRUE(acted.wait());
  }
  EXPECT_EQ(waitedBefore, 2000U);
  EXPECT_NE(thread, std::this_thread::get_id());
}

TEST(RetryTimers, aLongDelayHoldsNoOtherBack) {
  Gate longDelay;
  Gate acted;
  RetryTimers timers([&](std::uint64_t delayMs) {
    if (delayMs == 5000) static_cast<void>(longDelay.wait());
  });
  timers.schedule(5000, [] {});
  timers.schedule(500, [&] { acted.open(); });
  EXPECT_TRUE(acted.wait());
  longDelay.open();
}

TEST(RetryTimers, joinAllReturnsWhenEveryActionIsOver) {
  Gate wake;
  std::atomic<int> over{0};
  RetryTimers timers([&](std::uint64_t /*delayMs*/) { static_cast<void>(wake.wait()); });
  for (int timer = 0; timer < 8; ++timer) timers.schedule(500, [&] { ++over; });
  EXPECT_EQ(over, 0);
  wake.open();
  timers.joinAll();
  EXPECT_EQ(over, 8);
}

TEST(RetryTimers, destructionWaitsForEveryAction) {
  std::atomic<int> over{0};
  {
    RetryTimers timers([](std::uint64_t /*delayMs*/) {});
    for (int timer = 0; timer < 8; ++timer) timers.schedule(500, [&] { ++over; });
  }
  EXPECT_EQ(over, 8);
}

TEST(RetryTimers, anActionMayScheduleTheNext) {
  Gate acted;
  RetryTimers timers([](std::uint64_t /*delayMs*/) {});
  timers.schedule(500, [&] { timers.schedule(2000, [&] { timers.schedule(5000, [&] { acted.open(); }); }); });
  EXPECT_TRUE(acted.wait());
}

TEST(RetryTimers, severalThreadsMaySchedule) {
  std::atomic<int> over{0};
  RetryTimers timers([](std::uint64_t /*delayMs*/) {});
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&] {
      for (int timer = 0; timer < 100; ++timer) timers.schedule(500, [&] { ++over; });
    });
  }
  for (std::thread& thread : threads) thread.join();
  timers.joinAll();
  EXPECT_EQ(over, 400);
}

TEST(RetryTimers, whatFinishedTimersHeldIsGivenBackWhenTheNextIsScheduled) {
  RetryTimers timers([](std::uint64_t /*delayMs*/) {});
  const auto runOne = [&] {
    Gate acted;
    timers.schedule(500, [&] { acted.open(); });
    ASSERT_TRUE(acted.wait());
  };
  runOne();
  const std::size_t threads = support::threadCount();
  const std::size_t handles = support::openFileCount();
  for (int timer = 0; timer < 200; ++timer) runOne();
  EXPECT_TRUE(waitUntil([&] { return support::threadCount() <= threads; }));
  EXPECT_LE(support::openFileCount(), handles + 20);
}

}  // namespace
