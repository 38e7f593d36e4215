// Limits of a job's speed that can be changed and shared.  Times are only asserted where load can but lengthen them, or
// where a wrong outcome takes many times as long.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "support/gate.h"
#include "support/job_run.h"
#include "support/pattern.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace {

using Clock = std::chrono::steady_clock;
using support::chunksOf;
using support::patternFile;
using support::requestFor;
using support::ScriptedServer;
using xfer::DownloadJob;
using xfer::DownloadOptions;
using xfer::JobState;
using xfer::SpeedLimiter;

double secondsSince(Clock::time_point begin) {
  return std::chrono::duration<double>(Clock::now() - begin).count();
}

class JobSpeed : public testing::Test {
 protected:
  [[nodiscard]] xfer::DownloadRequest request(const std::string& name, std::uint64_t size) const {
    return requestFor(server_.url("/file"), folder_.file(name), size);
  }

  void expectWhole(const DownloadJob& job, const std::string& name, std::uint64_t size) const {
    EXPECT_EQ(support::waitForEnd(job).state, JobState::Completed);
    EXPECT_EQ(support::bytesAmiss(job.snapshot().bytesDone, size), 0U);
    EXPECT_EQ(support::patternError(folder_.file(name), size), "");
  }

  const support::TempDir folder_;
  const ScriptedServer server_{patternFile(300'000)};
};

TEST_F(JobSpeed, limitIsTheJobsHoweverManyConnectionsItHas) {
  DownloadJob job(request("out", 300'000), chunksOf(300'000, 64), support::planUnderTest(300'000));
  job.setSpeedLimit(300'000);
  const auto begin = Clock::now();
  job.start();
  expectWhole(job, "out", 300'000);
  EXPECT_GE(secondsSince(begin), 0.85);
  EXPECT_LE(secondsSince(begin), 32) << "the only connection got a 64th of it";
}

TEST_F(JobSpeed, limitReplacesThatOfThePolicy) {
  xfer::DownloadPolicy policy = chunksOf(300'000, 4);
  policy.maxDownloadSpeed = 4'000;
  DownloadJob job(request("out", 300'000), policy, support::planUnderTest(policy.initialChunkSize));
  job.start();
  job.setSpeedLimit(0);
  expectWhole(job, "out", 300'000);  // in five minutes otherwise
}

TEST_F(JobSpeed, limitMayBeLiftedWhileTheJobRuns) {
  DownloadJob job(request("out", 300'000), chunksOf(50'000, 4), support::planUnderTest(50'000));
  job.setSpeedLimit(1'000);
  job.start();
  EXPECT_TRUE(support::waitUntil([&] { return job.snapshot().bytesDone > 0; }));
  EXPECT_LT(job.snapshot().bytesDone, 300'000U);
  job.setSpeedLimit(0);
  expectWhole(job, "out", 300'000);
}

TEST_F(JobSpeed, limitMayBeSetWhileTheJobRuns) {
  support::Gate goOn;
  const ScriptedServer server([goOn](const support::ReceivedRequest&) {
    return support::Reply()
        .send("HTTP/1.1 200 OK\r\nContent-Length: 300000\r\n\r\n")
        .sendPattern(0, 100'000)
        .waitFor(goOn)
        .sendPattern(100'000, 300'000);
  });
  DownloadJob job(requestFor(server.url("/file"), folder_.file("out"), 300'000), xfer::DownloadPolicy(),
                  support::planUnderTest());
  job.start();
  EXPECT_TRUE(support::waitUntil([&] { return job.snapshot().bytesDone == 100'000; }));
  job.setSpeedLimit(200'000);
  const auto begin = Clock::now();
  goOn.open();
  expectWhole(job, "out", 300'000);
  EXPECT_GE(secondsSince(begin), 0.8);
}

TEST_F(JobSpeed, sharedLimitHoldsForTheSumOfTheJobs) {
  const SpeedLimiter limiter(600'000);
  std::vector<std::unique_ptr<DownloadJob>> jobs;
  for (const char* name : {"a", "b", "c"}) {
    jobs.push_back(std::make_unique<DownloadJob>(request(name, 300'000), chunksOf(50'000, 2),
                                                 support::planUnderTest(50'000).setSpeedLimiter(limiter)));
  }
  const auto begin = Clock::now();
  for (const auto& job : jobs) job->start();
  expectWhole(*jobs[0], "a", 300'000);
  expectWhole(*jobs[1], "b", 300'000);
  expectWhole(*jobs[2], "c", 300'000);
  EXPECT_GE(secondsSince(begin), 1.35);
}

TEST_F(JobSpeed, sharedLimitAndTheJobsOwnBothHold) {
  SpeedLimiter limiter(1'000);
  DownloadOptions options = support::planUnderTest(50'000);
  options.setSpeedLimiter(limiter);
  DownloadJob job(request("out", 300'000), chunksOf(50'000, 4), options);
  job.setSpeedLimit(300'000);
  const auto begin = Clock::now();
  job.start();
  EXPECT_TRUE(support::waitUntil([&] { return job.snapshot().bytesDone > 0; }));
  EXPECT_LT(job.snapshot().bytesDone, 100'000U);
  limiter.setLimit(0);
  EXPECT_EQ(limiter.limit(), 0U);
  expectWhole(job, "out", 300'000);
  EXPECT_GE(secondsSince(begin), 0.8);
}

TEST_F(JobSpeed, copiesOfALimiterAreOneAndOutliveIt) {
  auto first = std::make_unique<SpeedLimiter>(7);
  SpeedLimiter second(8);
  second = *first;
  DownloadOptions options = support::planUnderTest(50'000);
  options.setSpeedLimiter(*first);
  const DownloadOptions copy = options;
  first->setLimit(1'000);
  first.reset();
  EXPECT_EQ(second.limit(), 1'000U);
  DownloadJob job(request("out", 300'000), chunksOf(50'000, 4), copy);
  options = DownloadOptions();
  job.start();
  EXPECT_TRUE(support::waitUntil([&] { return job.snapshot().bytesDone > 0; }));
  EXPECT_LT(job.snapshot().bytesDone, 300'000U);
  second.setLimit(0);
  expectWhole(job, "out", 300'000);
}

TEST_F(JobSpeed, pausedAndCancelledJobsLeaveTheirPlacesToOthers) {
  const SpeedLimiter limiter(400'000);
  const DownloadOptions options = support::planUnderTest(50'000).setSpeedLimiter(limiter);
  DownloadJob paused(request("paused", 300'000), chunksOf(50'000, 4), options);
  DownloadJob other(request("other", 300'000), chunksOf(50'000, 4), options);
  {
    DownloadJob cancelled(request("cancelled", 300'000), chunksOf(50'000, 4), options);
    paused.start();
    cancelled.start();
    EXPECT_TRUE(
        support::waitUntil([&] { return paused.snapshot().bytesDone > 0 && cancelled.snapshot().bytesDone > 0; }));
    paused.pause();
  }
  other.start();
  expectWhole(other, "other", 300'000);
  paused.resume();
  expectWhole(paused, "paused", 300'000);
}

TEST_F(JobSpeed, transfersThatAreHeldAreNotTakenForSlow) {
  xfer::DownloadPolicy policy = chunksOf(2'000, 8);
  policy.lowSpeedTimeSec = 3;  // a machine may stand still for a second
  policy.lowSpeedLimit = 100'000;
  const ScriptedServer server(patternFile(16'000));
  DownloadJob job(requestFor(server.url("/file"), folder_.file("out"), 16'000), policy,
                  support::planUnderTest(policy.initialChunkSize));
  job.setSpeedLimit(2'500);
  job.start();
  expectWhole(job, "out", 16'000);
  if (support::adaptivePlan()) {
    EXPECT_EQ(job.details().givenUpCount(), 0U);
    EXPECT_EQ(job.details().retries(), 0U);
  } else {
    EXPECT_EQ(server.requests().size(), 8U) << "none was given up";
  }
}

}  // namespace
