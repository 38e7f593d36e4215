#include "xfer/download_job.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "download_job_impl.h"
#include "support/census.h"
#include "support/fake_job_world.h"
#include "support/gate.h"
#include "support/log_line.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace {

using support::BackendCall;
using support::BackendCommand;
using support::FakeJobWorld;
using support::Gate;
using support::waitUntil;
using xfer::DownloadJob;
using xfer::DownloadPolicy;
using xfer::DownloadRequest;
using xfer::DownloadSnapshot;
using xfer::JobState;
using xfer::RemoteFileInfo;
using xfer::ResponseHead;
using Starts = std::vector<std::uint64_t>;

constexpr std::uint64_t kChunk = 10;

RemoteFileInfo probed(std::uint64_t size, bool ranges, std::int32_t status) {
  RemoteFileInfo info;
  info.size = size;
  info.acceptRanges = ranges;
  info.contentType = "text/plain";
  info.httpStatus = status;
  return info;
}

ResponseHead head206(std::uint64_t first) {
  ResponseHead head;
  head.status = 206;
  head.contentRange = xfer::ContentRange{first, first + 9, std::nullopt};
  return head;
}

ResponseHead head200() {
  ResponseHead head;
  head.status = 200;
  return head;
}

// A job of ranges of ten bytes each.
class DownloadJobTest : public testing::Test {
 protected:
  static DownloadPolicy policy(std::uint16_t numThreads) {
    DownloadPolicy policy;
    policy.numThreads = numThreads;
    policy.rampChunks = false;
    policy.maxChunkSize = kChunk;
    return policy;
  }

  DownloadRequest request(std::uint64_t knownSize) const {
    DownloadRequest request;
    request.url = "http://host.test/file";
    request.path = path;
    request.knownSize = knownSize;
    return request;
  }

  DownloadJob::Impl& make(const DownloadRequest& request, const DownloadPolicy& policy) {
    job = std::make_unique<DownloadJob::Impl>(request, policy, world.environment());
    return *job;
  }
  DownloadJob::Impl& make(std::uint64_t knownSize, std::uint16_t numThreads) {
    return make(request(knownSize), policy(numThreads));
  }
  DownloadJob::Impl& started(std::uint64_t knownSize, std::uint16_t numThreads) {
    make(knownSize, numThreads).start();
    return *job;
  }
  void startedWithOptions(std::uint64_t knownSize, std::uint16_t numThreads) {
    job = std::make_unique<DownloadJob::Impl>(request(knownSize), policy(numThreads), world.environment(),
                                              xfer::DownloadOptions().values());
    job->start();
  }
  void startProbed(const RemoteFileInfo& info, std::uint16_t numThreads) {
    world.probe = [info](const DownloadRequest&, int, const xfer::StopSignal&) { return info; };
    started(0, numThreads);
  }

  [[nodiscard]] JobState state() const { return job->snapshot().state; }
  [[nodiscard]] std::string content() const { return support::readFile(path).value_or("no file"); }

  // The records of the job itself, as "level text".
  [[nodiscard]] std::vector<std::string> jobLog(std::uint32_t mostLevel = 4) const {
    std::vector<std::string> lines;
    for (const support::Record& record : recordsOf(log, support::kJob)) {
      EXPECT_TRUE(record.file.ends_with("modules/xfer/src/download_job.cpp")) << record.text << " of " << record.file;
      if (record.level <= mostLevel) {
        lines.push_back(std::to_string(record.level) + " " + record.text);
      }
    }
    return lines;
  }
  using Lines = std::vector<std::string>;

  // Ends the delays and waits until their threads are gone.
  void endDelaysAndTimers(std::size_t threadsBefore) {
    world.endDelays();
    ASSERT_TRUE(waitUntil([&] { return support::threadCount() <= threadsBefore; }));
  }

  void expectFailed(std::int32_t code, std::int32_t httpStatus) const {
    const DownloadSnapshot snapshot = job->snapshot();
    EXPECT_EQ(snapshot.state, JobState::Failed);
    EXPECT_EQ(snapshot.errorCode, code);
    EXPECT_EQ(snapshot.httpStatus, httpStatus);
  }

  const support::RecordingLogger log;
  const support::TempDir folder;
  const std::string path = folder.file("out.bin");
  FakeJobWorld world;
  std::unique_ptr<DownloadJob::Impl> job;
};

// ---- Interface and states ----

TEST_F(DownloadJobTest, snapshotOfAnIdleJobIsAllZero) {
  const DownloadSnapshot snapshot = make(30, 2).snapshot();
  EXPECT_EQ(snapshot.state, JobState::Idle);
  EXPECT_EQ(snapshot.bytesDone, 0U);
  EXPECT_EQ(snapshot.totalBytes, 0U);
  EXPECT_EQ(snapshot.bytesPerSec, 0U);
  EXPECT_EQ(snapshot.errorCode, 0);
  EXPECT_EQ(snapshot.httpStatus, 0);
  EXPECT_EQ(snapshot.percent, 0.0F);
  EXPECT_FALSE(snapshot.throttled);
  EXPECT_FALSE(support::exists(path)) << "construction touches nothing";
}

TEST_F(DownloadJobTest, pauseAndResumeOfAnIdleJobDoNothing) {
  make(30, 2);
  job->pause();
  EXPECT_EQ(state(), JobState::Idle);
  job->resume();
  EXPECT_EQ(state(), JobState::Idle);
  job->start();
  EXPECT_EQ(state(), JobState::Running) << "and do not spoil the start";
  EXPECT_EQ(world.transfers.calls(), std::vector<BackendCall>{});
}

TEST_F(DownloadJobTest, startOfAJobThatIsStartingDoesNothing) {
  world.beforeBackend = [&] { job->start(); };
  started(30, 2);
  EXPECT_EQ(state(), JobState::Running);
  EXPECT_EQ(world.backendPolicies().size(), 1U);
}

TEST_F(DownloadJobTest, pauseAndResumeOfAProbingJobDoNothing) {
  Gate probing;
  Gate goOn;
  world.probe = [&](const DownloadRequest&, int, const xfer::StopSignal&) {
    probing.open();
    static_cast<void>(goOn.wait());
    return probed(30, true, 206);
  };
  started(0, 2);
  ASSERT_TRUE(probing.wait());
  EXPECT_EQ(state(), JobState::Probing) << "start returned at once";
  job->pause();
  EXPECT_EQ(state(), JobState::Probing);
  job->resume();
  EXPECT_EQ(state(), JobState::Probing);
  goOn.open();
  ASSERT_TRUE(world.transfers.waitForSubmissions(2));
  EXPECT_EQ(state(), JobState::Running);
  EXPECT_EQ(world.transfers.calls(), std::vector<BackendCall>{});
}

TEST_F(DownloadJobTest, pauseResumeAndCancelOfAFinalJobDoNothing) {
  started(kChunk, 1);
  world.transfers.serve(0);
  ASSERT_EQ(state(), JobState::Completed);
  job->pause();
  job->resume();
  job->cancel();
  job->start();
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(world.transfers.calls(), std::vector<BackendCall>{});
  EXPECT_EQ(world.transfers.submittedStarts(), Starts{0});
}

TEST_F(DownloadJobTest, resumeOfARunningJobAndPauseOfAPausedOneDoNothing) {
  started(30, 2);
  job->resume();
  EXPECT_EQ(world.transfers.calls(), std::vector<BackendCall>{});
  job->pause();
  EXPECT_EQ(state(), JobState::Paused);
  job->pause();
  EXPECT_EQ(world.transfers.calls(), (std::vector<BackendCall>{{BackendCommand::Pause, 0}}));
  job->resume();
  EXPECT_EQ(state(), JobState::Running);
  EXPECT_EQ(world.transfers.calls(),
            (std::vector<BackendCall>{{BackendCommand::Pause, 0}, {BackendCommand::Resume, 0}}));
}

TEST_F(DownloadJobTest, resumeLeavesFreeSlotsToTheNextTransferThatFinishes) {
  started(40, 2);
  job->pause();
  world.transfers.serve(0);
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10})) << "nothing is submitted while paused";
  job->resume();
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10})) << "nor by resume";
  world.transfers.serve(10);
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10, 20, 30}));
}

TEST_F(DownloadJobTest, resumeSubmitsWhenEveryTransferEndedDuringThePause) {
  started(40, 2);
  job->pause();
  world.transfers.serve(0);
  world.transfers.serve(10);
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10}));
  job->resume();
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10, 20, 30})) << "nobody else would";
  world.transfers.serve(20);
  world.transfers.serve(30);
  EXPECT_EQ(state(), JobState::Completed);
}

TEST_F(DownloadJobTest, cancelOfAnIdleJobIsFinalAtOnceAndLeavesNothingToStart) {
  make(30, 2);
  job->cancel();
  EXPECT_EQ(state(), JobState::Cancelled);
  job->start();
  job->wait();
  EXPECT_EQ(state(), JobState::Cancelled);
  EXPECT_EQ(world.transfers.submittedStarts(), Starts{});
  EXPECT_FALSE(support::exists(path));
}

TEST_F(DownloadJobTest, secondCancelDoesNothing) {
  started(30, 2);
  job->cancel();
  job->cancel();
  EXPECT_EQ(state(), JobState::Cancelling);
  EXPECT_EQ(world.transfers.count(BackendCommand::CancelAll), 1U);
}

TEST_F(DownloadJobTest, secondStartIsIgnored) {
  started(40, 2);
  job->start();
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10}));
  EXPECT_EQ(world.backendPolicies().size(), 1U);
}

TEST_F(DownloadJobTest, knownSizeStartsOnTheCallersThreadWithoutAProbe) {
  const std::size_t threads = support::threadCount();
  started(30, 2);
  EXPECT_EQ(state(), JobState::Running);
  EXPECT_EQ(world.probes(), 0U);
  EXPECT_EQ(support::threadCount(), threads);
  EXPECT_EQ(job->snapshot().totalBytes, 30U);
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10}));
  EXPECT_EQ(jobLog(6), Lines{}) << "and without a word";
}

TEST_F(DownloadJobTest, unknownSizeIsProbedWithThePolicysTimeOut) {
  std::string url;
  int timeoutSec = 0;
  world.probe = [&](const DownloadRequest& asked, int seconds, const xfer::StopSignal&) {
    url = asked.url;
    timeoutSec = seconds;
    return probed(30, true, 206);
  };
  DownloadPolicy seven = policy(2);
  seven.probeTimeoutSec = 7;
  make(request(0), seven).start();
  ASSERT_TRUE(world.transfers.waitForSubmissions(2));
  EXPECT_EQ(world.probes(), 1U);
  EXPECT_EQ(url, "http://host.test/file");
  EXPECT_EQ(timeoutSec, 7);
  EXPECT_EQ(job->snapshot().totalBytes, 30U);
  EXPECT_EQ(jobLog(6), Lines{"6 doStart | probed | size=30 | ranges=1 | type=text/plain"});
  EXPECT_EQ(world.backendPolicies().at(0).numThreads, 2U);
}

TEST_F(DownloadJobTest, waitReturnsOnlyAtTheEndForEveryThreadInIt) {
  startProbed(probed(10, true, 206), 1);
  std::atomic<int> returned{0};
  std::vector<std::thread> waiters;
  for (int waiter = 0; waiter < 3; ++waiter) {
    waiters.emplace_back([&] {
      job->wait();
      ++returned;
    });
  }
  EXPECT_TRUE(world.transfers.waitForSubmissions(1));
  EXPECT_FALSE(waitUntil([&] { return returned > 0; }, std::chrono::milliseconds(50)));
  world.transfers.serve(0);
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(state(), JobState::Completed);
}

TEST_F(DownloadJobTest, waitOnTheWorkerThreadThrowsEvenWhileAnotherThreadWaits) {
  std::error_code error;
  Gate asked;
  Gate goOn;
  world.probe = [&](const DownloadRequest&, int, const xfer::StopSignal&) {
    static_cast<void>(goOn.wait());
    try {
      job->wait();
    } catch (const std::system_error& thrown) {
      error = thrown.code();
    }
    asked.open();
    return probed(10, true, 206);
  };
  started(0, 1);
  std::thread waiter([&] {
    goOn.open();
    job->wait();
  });
  EXPECT_TRUE(asked.wait());
  EXPECT_EQ(error, std::errc::resource_deadlock_would_occur);
  EXPECT_TRUE(world.transfers.waitForInFlight(0));
  world.transfers.serve(0);
  waiter.join();
}

TEST_F(DownloadJobTest, exportedJobsMoveBetweenHandles) {
  DownloadJob first(request(30), policy(1));
  DownloadJob second(std::move(first));
  EXPECT_EQ(second.snapshot().state, JobState::Idle);
  DownloadJob third(request(20), policy(1));
  third.cancel();
  third = std::move(second);
  EXPECT_EQ(third.snapshot().state, JobState::Idle) << "the one that came in";
  DownloadJob& itself = third;
  third = std::move(itself);
  EXPECT_EQ(third.snapshot().state, JobState::Idle) << "and self-assignment keeps it";
  first = std::move(third);
  first.cancel();
  EXPECT_EQ(first.snapshot().state, JobState::Cancelled) << "an empty handle takes a job again";
}

// ---- Start ----

TEST_F(DownloadJobTest, policiesThatCannotWorkFailWithANamedField) {
  const auto refused = [&](const DownloadPolicy& broken, const std::string& field) {
    make(request(30), broken).start();
    expectFailed(43, 0);
    EXPECT_EQ(jobLog(6).back(), "3 doStart | policy refused | field=" + field);
    EXPECT_FALSE(support::exists(path));
  };
  refused(policy(0), "numThreads");
  DownloadPolicy broken = policy(2);
  broken.maxChunkSize = 0;
  refused(broken, "maxChunkSize");
  broken = policy(2);
  broken.rampChunks = true;
  broken.initialChunkSize = 0;
  refused(broken, "initialChunkSize");
  broken = policy(2);
  broken.rampChunks = true;
  broken.chunkGrowthFactor = 0;
  refused(broken, "chunkGrowthFactor");
  EXPECT_EQ(world.backendPolicies().size(), 0U);
}

TEST_F(DownloadJobTest, policyThatCannotWorkFailsAJobOfUnknownSizeBeforeTheProbe) {
  make(request(0), policy(0)).start();
  job->wait();
  expectFailed(43, 0);
  EXPECT_EQ(world.probes(), 0U);
  EXPECT_EQ(jobLog(6), Lines{"3 doStart | policy refused | field=numThreads"});
}

TEST_F(DownloadJobTest, failedProbeGivesItsErrorAndNoHttpStatus) {
  RemoteFileInfo missing;
  missing.httpStatus = missing.error = 404;
  startProbed(missing, 2);
  job->wait();
  expectFailed(404, 0);
  EXPECT_EQ(jobLog(6), Lines{"3 doStart | probe failed | err=404"});
  EXPECT_FALSE(support::exists(path));
}

TEST_F(DownloadJobTest, fileThatCannotBeCreatedFailsTheJob) {
  DownloadRequest nowhere = request(30);
  nowhere.path = folder.file("missing") + "/out.bin";
  make(nowhere, policy(2)).start();
  expectFailed(100004, 0);
  EXPECT_EQ(jobLog(6), Lines{"3 doStart | sink open failed | err=100004"});
  EXPECT_EQ(world.backendPolicies().size(), 0U);
}

TEST_F(DownloadJobTest, serverWithoutRangesGetsABackendForOneTransferButTheFileIsStillCut) {
  startProbed(probed(40, false, 200), 3);
  ASSERT_TRUE(world.transfers.waitForSubmissions(3));
  EXPECT_EQ(world.backendPolicies().at(0).numThreads, 1U);
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10, 20})) << "by the job's own limit";
  EXPECT_EQ(jobLog(6), Lines{"6 doStart | probed | size=40 | ranges=0 | type=text/plain"});
}

TEST_F(DownloadJobTest, unknownLengthIsOneOpenTransferAndTheFileHasWhatArrived) {
  startProbed(probed(0, true, 206), 4);
  ASSERT_TRUE(world.transfers.waitForSubmissions(1));
  EXPECT_EQ(world.backendPolicies().at(0).numThreads, 1U);
  EXPECT_EQ(world.transfers.submissions().at(0).rangeEnd, 0U);
  world.transfers.deliver(0, 0, support::patternBytes(0, 27));
  EXPECT_EQ(job->snapshot().bytesDone, 27U);
  EXPECT_EQ(job->snapshot().percent, 0.0F) << "however many bytes arrived";
  world.transfers.finish(0, 0, 200, 27);
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(content(), support::patternBytes(0, 27));
  EXPECT_EQ(jobLog(), Lines{});
}

TEST_F(DownloadJobTest, unknownLengthFetchedTwiceIsCutToWhatWasWritten) {
  startProbed(probed(0, true, 206), 1);
  ASSERT_TRUE(world.transfers.waitForSubmissions(1));
  world.transfers.deliver(0, 0, support::patternBytes(0, 20));
  world.transfers.finish(0, 56, 200, 20);
  ASSERT_TRUE(world.waitForDelays(1));
  world.endDelays();
  ASSERT_TRUE(world.transfers.waitForInFlight(0));
  world.transfers.deliver(0, 0, support::patternBytes(0, 27));
  world.transfers.finish(0, 0, 200, 27);
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(content(), support::patternBytes(0, 27));
  EXPECT_EQ(jobLog().back(), "4 finalize adjusted | metadata=47 | actual=27");
}

TEST_F(DownloadJobTest, transfersCarryTheRequestAndAnEqualShareOfTheSpeed) {
  DownloadRequest full = request(40);
  full.cookie = "a=b";
  full.headers = {"X-One: 1", "X-Two: 2"};
  full.proxy.host = "proxy.test";
  DownloadPolicy limited = policy(3);
  limited.maxDownloadSpeed = 1000;
  make(full, limited).start();
  const auto transfers = world.transfers.submissions();
  ASSERT_EQ(transfers.size(), 3U);
  for (std::size_t index = 0; index < transfers.size(); ++index) {
    EXPECT_EQ(transfers[index].url, full.url);
    EXPECT_EQ(transfers[index].cookie, "a=b");
    EXPECT_EQ(transfers[index].headers, full.headers);
    EXPECT_EQ(transfers[index].proxy.host, "proxy.test");
    EXPECT_EQ(transfers[index].rangeStart, index * kChunk);
    EXPECT_EQ(transfers[index].rangeEnd, index * kChunk + kChunk);
    EXPECT_EQ(transfers[index].maxRecvSpeed, 333U);
  }
}

TEST_F(DownloadJobTest, cancelDuringTheProbeIsFinalAtOnceAndNothingIsOpened) {
  Gate probing;
  bool stopSeen = false;
  world.probe = [&](const DownloadRequest&, int, const xfer::StopSignal& stop) {
    probing.open();
    stopSeen = waitUntil([&] { return stop.isSet(); });
    return probed(30, true, 206);
  };
  started(0, 2);
  ASSERT_TRUE(probing.wait());
  job->cancel();
  EXPECT_EQ(state(), JobState::Cancelled);
  job->wait();
  EXPECT_TRUE(stopSeen) << "the probe is asked to stop";
  EXPECT_EQ(state(), JobState::Cancelled);
  EXPECT_EQ(world.backendPolicies().size(), 0U);
  EXPECT_FALSE(support::exists(path));
}

TEST_F(DownloadJobTest, cancelWhileTheBackendIsMadeSubmitsNothing) {
  world.beforeBackend = [&] { job->cancel(); };
  started(30, 2);
  EXPECT_EQ(state(), JobState::Cancelled);
  EXPECT_EQ(world.transfers.submittedStarts(), Starts{});
}

// ---- Data ----

TEST_F(DownloadJobTest, bytesGoToTheirOffsetsAndAreCounted) {
  started(40, 2);
  world.transfers.deliver(10, 10, support::patternBytes(10, 15));
  world.transfers.deliver(0, 0, support::patternBytes(0, 10));
  world.transfers.deliver(10, 15, support::patternBytes(15, 20));
  EXPECT_EQ(content().substr(0, 20), support::patternBytes(0, 20));
  EXPECT_EQ(job->snapshot().bytesDone, 20U);
  EXPECT_EQ(job->snapshot().percent, 50.0F);
}

TEST_F(DownloadJobTest, percentCountsBytesFetchedAgainAndIsNotClamped) {
  started(10, 1);
  world.transfers.deliver(0, 0, support::patternBytes(0, 8));
  world.transfers.finish(0, 18, 206, 8);
  ASSERT_TRUE(world.waitForDelays(1));
  world.endDelays();
  ASSERT_TRUE(world.transfers.waitForInFlight(0));
  world.transfers.serve(0);
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(job->snapshot().bytesDone, 18U);
  EXPECT_EQ(job->snapshot().percent, 180.0F);
}

TEST_F(DownloadJobTest, speedIsMeasuredOverAtLeastHalfASecond) {
  started(10000, 1);
  world.advanceMs(499);
  world.transfers.deliver(0, 0, std::string(600, 'a'));
  EXPECT_EQ(job->snapshot().bytesPerSec, 0U);
  world.advanceMs(1);
  world.transfers.deliver(0, 600, std::string(401, 'a'));
  EXPECT_EQ(job->snapshot().bytesPerSec, 2002U);
  world.transfers.deliver(0, 1001, std::string(100, 'a'));
  EXPECT_EQ(job->snapshot().bytesPerSec, 2002U) << "a new window has begun";
  world.advanceMs(1500);
  world.transfers.deliver(0, 1101, std::string(50, 'a'));
  EXPECT_EQ(job->snapshot().bytesPerSec, 100U);
}

// ---- The end of a transfer ----

TEST_F(DownloadJobTest, keepsAsManyRangesInFlightAsThePolicySaysAndCompletes) {
  started(45, 2);
  world.transfers.serve(10);
  EXPECT_EQ(world.transfers.inFlight(), (Starts{0, 20}));
  world.transfers.serve(0);
  EXPECT_EQ(world.transfers.inFlight(), (Starts{20, 30}));
  world.transfers.serve(30);
  world.transfers.serve(40);
  EXPECT_EQ(state(), JobState::Running);
  world.transfers.serve(20);
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(support::patternError(path, 45), "");
  EXPECT_EQ(job->snapshot().bytesDone, 45U);
  EXPECT_EQ(jobLog(6), Lines{});
}

TEST_F(DownloadJobTest, forbiddenRangeIsNotRetriedAndEndsTheOthers) {
  started(40, 2);
  world.transfers.finish(10, 0, 403);
  expectFailed(403, 403);
  EXPECT_EQ(jobLog(6), Lines{"3 cdn reject | range=10 | err=0 | http=403"});
  EXPECT_EQ(world.transfers.calls(), (std::vector<BackendCall>{{BackendCommand::CancelAll, 0}}));
  world.transfers.finish(0, 42, 0);
  expectFailed(403, 403);
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10}));
  EXPECT_EQ(world.delaysMs().size(), 0U);
}

TEST_F(DownloadJobTest, failedJobClosesItsFileWithTheLastTransfer) {
  const std::size_t handles = support::openFileCount();
  started(40, 2);
  world.transfers.finish(10, 0, 404);
  EXPECT_EQ(state(), JobState::Failed);
  EXPECT_EQ(support::openFileCount(), handles + 1) << "the file, which the other transfer may still write";
  world.transfers.finish(0, 42, 0);
  EXPECT_EQ(support::openFileCount(), handles) << "is closed";
}

TEST_F(DownloadJobTest, failedJobWithNothingInFlightClosesItsFileAtOnce) {
  const std::size_t handles = support::openFileCount();
  started(10, 1);
  world.transfers.finish(0, 0, 403);
  EXPECT_EQ(state(), JobState::Failed);
  EXPECT_EQ(support::openFileCount(), handles);
}

TEST_F(DownloadJobTest, emptyAnswerIsARejectionToo) {
  started(40, 2);
  world.transfers.finish(0, 0, 204);
  expectFailed(204, 204);
  EXPECT_EQ(jobLog(6), Lines{"3 cdn reject | range=0 | err=0 | http=204"});
}

TEST_F(DownloadJobTest, rejectionWithALibcurlCodeFailsWithThatCode) {
  started(40, 2);
  world.transfers.finish(0, 56, 403);
  expectFailed(56, 403);
  EXPECT_EQ(jobLog(6), Lines{"3 cdn reject | range=0 | err=56 | http=403"});
}

TEST_F(DownloadJobTest, busyServerIsAskedFourTimesWithGrowingDelays) {
  started(20, 1);
  for (std::size_t attempt = 1; attempt <= 3; ++attempt) {
    world.transfers.finish(0, 0, 503);
    ASSERT_TRUE(world.waitForDelays(attempt));
    EXPECT_EQ(state(), JobState::Running);
    EXPECT_EQ(world.transfers.inFlight(), Starts{}) << "nothing takes the slot meanwhile";
    world.endDelays();
    ASSERT_TRUE(world.transfers.waitForInFlight(0));
  }
  world.transfers.finish(0, 0, 503);
  expectFailed(503, 503);
  EXPECT_EQ(world.delaysMs(), (std::vector<std::uint64_t>{500, 2000, 5000}));
  EXPECT_EQ(jobLog(6), (Lines{"4 retry scheduled | range=0 | attempt=1 | delay_ms=500 | err=0 | http=503",
                              "4 retry scheduled | range=0 | attempt=2 | delay_ms=2000 | err=0 | http=503",
                              "4 retry scheduled | range=0 | attempt=3 | delay_ms=5000 | err=0 | http=503",
                              "3 exhausted retries | range=0", "3 fatal | range=0 | err=0 | http=503"}));
  EXPECT_EQ(world.transfers.count(BackendCommand::CancelAll), 1U);
}

TEST_F(DownloadJobTest, exhaustedRetriesWithALibcurlCodeFailWithThatCode) {
  world.endDelaysAtOnce();
  started(10, 1);
  for (int attempt = 1; attempt <= 4; ++attempt) {
    ASSERT_TRUE(world.transfers.waitForInFlight(0));
    world.transfers.finish(0, 7, 0);
  }
  expectFailed(7, 0);
  EXPECT_EQ(jobLog().back(), "3 fatal | range=0 | err=7 | http=0");
}

TEST_F(DownloadJobTest, attemptsAreCountedForEachRangeAcrossCauses) {
  world.endDelaysAtOnce();
  started(20, 2);
  for (const int code : {7, 28, 56}) {
    for (const std::uint64_t range : std::vector<std::uint64_t>{0, 10}) {
      ASSERT_TRUE(world.transfers.waitForInFlight(range));
      world.transfers.finish(range, code, 0);
    }
  }
  ASSERT_TRUE(world.transfers.waitForInFlight(0));
  ASSERT_TRUE(world.transfers.waitForInFlight(10));
  EXPECT_EQ(state(), JobState::Running) << "six failures, three of each";
  world.transfers.serve(0);
  world.transfers.serve(10);
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(support::patternError(path, 20), "");
}

TEST_F(DownloadJobTest, otherStatusesAreFatalAtOnce) {
  for (const std::int32_t status : {404, 416, 302}) {
    FakeJobWorld another;
    DownloadJob::Impl one(request(40), policy(2), another.environment());
    one.start();
    another.transfers.finish(0, 0, status);
    EXPECT_EQ(one.snapshot().state, JobState::Failed);
    EXPECT_EQ(one.snapshot().errorCode, status);
    EXPECT_EQ(one.snapshot().httpStatus, status);
    EXPECT_EQ(jobLog().back(), "3 fatal | range=0 | err=0 | http=" + std::to_string(status));
    EXPECT_EQ(another.transfers.count(BackendCommand::CancelAll), 1U);
  }
}

TEST_F(DownloadJobTest, otherLibcurlCodesAreFatalAtOnce) {
  started(40, 2);
  world.transfers.finish(0, 47, 302);
  expectFailed(47, 302);
  EXPECT_EQ(jobLog(6), Lines{"3 fatal | range=0 | err=47 | http=302"});
  EXPECT_EQ(world.transfers.count(BackendCommand::CancelAll), 1U);
}

TEST_F(DownloadJobTest, transferThatCannotBeSetUpIsFatal) {
  world.transfers.refuseSubmissions(-1);
  started(40, 2);
  expectFailed(-1, 0);
  EXPECT_EQ(jobLog(6), Lines{"3 fatal | range=0 | err=-1 | http=0"});
  EXPECT_EQ(world.transfers.submittedStarts(), Starts{0}) << "and none follows it";
}

TEST_F(DownloadJobTest, firstFailureIsTheOneThatCounts) {
  started(40, 2);
  world.transfers.finish(0, 0, 404);
  world.transfers.finish(10, 0, 403);
  expectFailed(404, 404);
  EXPECT_EQ(jobLog(6), Lines{"3 fatal | range=0 | err=0 | http=404"});
}

TEST_F(DownloadJobTest, slowTimeOutsOfAFileOfTwoRangesMarkItThrottledAfterTwo) {
  started(20, 2);
  world.transfers.finish(0, 28, 206, 2);
  EXPECT_FALSE(job->snapshot().throttled);
  EXPECT_EQ(jobLog(6), Lines{"4 retry scheduled | range=0 | attempt=1 | delay_ms=500 | err=28 | http=206"});
  world.transfers.finish(10, 28, 206, 2);
  EXPECT_TRUE(job->snapshot().throttled);
  EXPECT_EQ(state(), JobState::Running) << "it is a hint and decides nothing";
}

TEST_F(DownloadJobTest, onlyTimeOutsBeforeAQuarterOfARangeAreSlow) {
  world.endDelaysAtOnce();
  started(8, 1);
  const std::array<std::pair<std::int32_t, std::int32_t>, 2> notSlow{{{28, 200}, {56, 206}}};
  for (const auto& [code, status] : notSlow) {
    ASSERT_TRUE(world.transfers.waitForInFlight(0));
    world.transfers.finish(0, code, status, 0);
  }
  ASSERT_TRUE(world.transfers.waitForInFlight(0));
  world.transfers.finish(0, 28, 206, 2);
  EXPECT_FALSE(job->snapshot().throttled) << "two of eight bytes are a quarter";
  ASSERT_TRUE(world.transfers.waitForInFlight(0));
  world.transfers.finish(0, 28, 206, 1);
  EXPECT_TRUE(job->snapshot().throttled) << "one is less";
}

TEST_F(DownloadJobTest, filesOfManyRangesAreThrottledAfterFive) {
  started(70, 7);
  for (std::uint64_t range = 0; range < 50; range += 10) {
    EXPECT_FALSE(job->snapshot().throttled) << range;
    world.transfers.finish(range, 28, 206, 0);
  }
  EXPECT_TRUE(job->snapshot().throttled);
}

TEST_F(DownloadJobTest, fewerBytesThanAnnouncedAreAcceptedAndTheFileCut) {
  started(30, 3);
  world.transfers.serve(0);
  world.transfers.serve(10);
  world.transfers.deliver(20, 20, support::patternBytes(20, 25));
  world.transfers.finish(20, 0, 206, 5);
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(support::patternError(path, 25), "");
  EXPECT_EQ(jobLog(6), Lines{"4 finalize adjusted | metadata=30 | actual=25"});
}

TEST_F(DownloadJobTest, shortRangeBehindWhichThereIsMoreFailsTheJobInsteadOfLeavingAHole) {
  started(30, 3);
  world.transfers.serve(20);
  world.transfers.deliver(0, 0, support::patternBytes(0, 5));
  world.transfers.finish(0, 0, 206, 5);
  expectFailed(18, 206);
  EXPECT_EQ(job->details().failureText(), "bytes from 5 on are missing");
  EXPECT_EQ(jobLog(6), (Lines{"3 onTransferDone | bytes are missing | from=5 | written_up_to=30",
                              "3 fatal | range=0 | err=18 | http=206"}));
  EXPECT_EQ(world.transfers.count(BackendCommand::CancelAll), 1U);
}

TEST_F(DownloadJobTest, contentThatArrivesBehindAShortRangeFailsTheJob) {
  started(30, 1);
  world.transfers.deliver(0, 0, support::patternBytes(0, 5));
  world.transfers.finish(0, 0, 206, 5);
  EXPECT_EQ(state(), JobState::Running) << "the file may end there";
  world.transfers.serve(10);
  expectFailed(18, 206);
}

// ---- Pause and retry ----

TEST_F(DownloadJobTest, retryWhoseDelayEndsWhilePausedIsDroppedForGood) {
  started(20, 2);
  const std::size_t threads = support::threadCount();
  world.transfers.finish(0, 0, 503);
  ASSERT_TRUE(world.waitForDelays(1));
  job->pause();
  endDelaysAndTimers(threads);
  job->resume();
  world.transfers.serve(10);
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10})) << "the range never goes out again";
  EXPECT_EQ(world.transfers.inFlight(), Starts{});
  EXPECT_EQ(state(), JobState::Running) << "and the job cannot complete";
}

TEST_F(DownloadJobTest, everyRangeCompletingWhilePausedFinalisesTheFileButNotTheState) {
  started(20, 2);
  job->pause();
  world.transfers.serve(0);
  world.transfers.serve(10);
  EXPECT_EQ(state(), JobState::Paused);
  EXPECT_EQ(support::patternError(path, 20), "");
  EXPECT_EQ(log.count("finalize | " + path + " | size=20"), 1U);
  job->resume();
  EXPECT_EQ(state(), JobState::Running) << "with nothing left to do";
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10}));
}

// ---- Pauses of a job with options ----

TEST_F(DownloadJobTest, withOptionsAPauseDuringTheProbeCountsAsSoonAsTheJobWouldRun) {
  Gate probing;
  Gate goOn;
  world.probe = [&](const DownloadRequest&, int, const xfer::StopSignal&) {
    probing.open();
    static_cast<void>(goOn.wait());
    return probed(30, true, 206);
  };
  startedWithOptions(0, 2);
  ASSERT_TRUE(probing.wait());
  job->pause();
  EXPECT_EQ(state(), JobState::Probing);
  goOn.open();
  ASSERT_TRUE(waitUntil([&] { return state() == JobState::Paused; }));
  EXPECT_EQ(world.transfers.submittedStarts(), Starts{});
  job->resume();
  EXPECT_EQ(state(), JobState::Running);
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10}));
}

TEST_F(DownloadJobTest, withOptionsAPauseThatWasTakenBackDuringTheProbeIsNone) {
  world.probe = [&](const DownloadRequest&, int, const xfer::StopSignal&) {
    job->pause();
    job->resume();
    return probed(30, true, 206);
  };
  startedWithOptions(0, 2);
  ASSERT_TRUE(world.transfers.waitForSubmissions(2));
  EXPECT_EQ(state(), JobState::Running);
}

TEST_F(DownloadJobTest, withOptionsARetryThatFallsDueWhilePausedIsMadeByResume) {
  startedWithOptions(20, 2);
  const std::size_t threads = support::threadCount();
  world.transfers.finish(0, 0, 503);
  ASSERT_TRUE(world.waitForDelays(1));
  job->pause();
  endDelaysAndTimers(threads);
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10})) << "nothing is submitted while paused";
  EXPECT_FALSE(job->standsStill());
  job->resume();
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10, 0}));
  world.transfers.serve(10);
  world.transfers.serve(0);
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(support::patternError(path, 20), "");
}

TEST_F(DownloadJobTest, withOptionsAJobWhoseLastByteArrivesWhilePausedIsCompletedByResume) {
  startedWithOptions(20, 2);
  job->pause();
  world.transfers.serve(0);
  world.transfers.serve(10);
  EXPECT_EQ(state(), JobState::Paused);
  EXPECT_FALSE(job->standsStill());
  EXPECT_EQ(support::patternError(path, 20), "");
  job->resume();
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10}));
}

TEST_F(DownloadJobTest, withOptionsResumeFillsTheSlotsThatCameFree) {
  startedWithOptions(40, 2);
  job->pause();
  world.transfers.serve(0);
  job->resume();
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10, 20}));
}

TEST_F(DownloadJobTest, retryAfterAFailureElsewhereDoesNothing) {
  started(20, 2);
  const std::size_t threads = support::threadCount();
  world.transfers.finish(0, 0, 503);
  ASSERT_TRUE(world.waitForDelays(1));
  world.transfers.finish(10, 0, 404);
  endDelaysAndTimers(threads);
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10}));
  expectFailed(404, 404);
}

TEST_F(DownloadJobTest, noRangeIsLostBetweenThreadsThatSubmitAtOnce) {
  // Retries come back on threads of their own while this one ends transfers.
  for (int round = 0; round < 200; ++round) {
    FakeJobWorld another;
    another.endDelaysAtOnce();
    DownloadJob::Impl one(request(40), policy(static_cast<std::uint16_t>(1 + round % 2)), another.environment());
    one.start();
    std::set<std::uint64_t> failed;
    while (one.snapshot().state == JobState::Running) {
      ASSERT_TRUE(waitUntil([&] { return !another.transfers.inFlight().empty(); })) << "round " << round;
      const std::uint64_t range = another.transfers.inFlight().front();
      if (failed.insert(range).second) {
        another.transfers.finish(range, 0, 503);
      } else {
        another.transfers.serve(range);
      }
    }
    ASSERT_EQ(one.snapshot().state, JobState::Completed) << "round " << round;
    ASSERT_EQ(support::patternError(path, 40), "") << "round " << round;
  }
}

// ---- Cancel and destruction ----

TEST_F(DownloadJobTest, cancelWithTransfersInFlightEndsWithTheLastOfThem) {
  const std::size_t handles = support::openFileCount();
  started(40, 3);
  world.transfers.deliver(0, 0, support::patternBytes(0, 5));
  job->cancel();
  EXPECT_EQ(world.transfers.calls(), (std::vector<BackendCall>{{BackendCommand::CancelAll, 0}}));
  world.transfers.finish(10, 42, 0);
  EXPECT_EQ(state(), JobState::Cancelling);
  world.transfers.finish(20, 42, 0);
  EXPECT_EQ(state(), JobState::Cancelling);
  EXPECT_EQ(support::openFileCount(), handles + 1) << "the file";
  world.transfers.finish(0, 42, 0);
  EXPECT_EQ(state(), JobState::Cancelled);
  EXPECT_EQ(support::openFileCount(), handles) << "is closed";
  EXPECT_EQ(content().substr(0, 5), support::patternBytes(0, 5)) << "and left as it was";
  EXPECT_EQ(support::fileSize(path), 40U);
  EXPECT_EQ(world.transfers.submittedStarts(), (Starts{0, 10, 20}));
  EXPECT_EQ(job->snapshot().errorCode, 0);
  EXPECT_EQ(jobLog(6), Lines{});
}

TEST_F(DownloadJobTest, transferThatEndsWellDuringACancelDoesNotSaveTheJob) {
  started(10, 1);
  world.transfers.deliver(0, 0, support::patternBytes(0, 10));
  job->cancel();
  world.transfers.finish(0, 0, 206, 10);
  EXPECT_EQ(state(), JobState::Cancelled);
}

TEST_F(DownloadJobTest, cancelOfAPausedJobEndsCancelled) {
  started(20, 1);
  job->pause();
  job->cancel();
  EXPECT_EQ(state(), JobState::Cancelling);
  job->resume();
  EXPECT_EQ(state(), JobState::Cancelling) << "there is no way back";
  world.transfers.finish(0, 42, 0);
  EXPECT_EQ(state(), JobState::Cancelled);
}

TEST_F(DownloadJobTest, cancelDuringARetryDelayIsFinalAtOnceAndEndsTheDelay) {
  started(20, 1);
  const std::size_t threads = support::threadCount();
  world.transfers.finish(0, 0, 503);
  ASSERT_TRUE(world.waitForDelays(1));
  job->cancel();
  EXPECT_EQ(state(), JobState::Cancelled);
  EXPECT_TRUE(waitUntil([&] { return support::threadCount() <= threads; })) << "the timer does not sleep on";
  EXPECT_EQ(world.transfers.submittedStarts(), Starts{0});
}

TEST_F(DownloadJobTest, destructionEndsTransfersRetriesAndTheFileAndLeavesThePartialFile) {
  const std::size_t handles = support::openFileCount();
  const std::size_t threads = support::threadCount();
  started(40, 2);
  world.transfers.deliver(10, 10, support::patternBytes(10, 20));
  world.transfers.finish(0, 0, 503);
  ASSERT_TRUE(world.waitForDelays(1));
  job.reset();
  EXPECT_EQ(world.transfers.inFlight(), Starts{});
  EXPECT_EQ(world.transfers.count(BackendCommand::Stop), 1U);
  EXPECT_EQ(support::openFileCount(), handles);
  EXPECT_TRUE(waitUntil([&] { return support::threadCount() <= threads; }));
  EXPECT_EQ(support::fileSize(path), 40U);
  EXPECT_EQ(content().substr(10, 10), support::patternBytes(10, 20));
}

TEST_F(DownloadJobTest, destructionDuringTheProbeStopsIt) {
  Gate probing;
  std::atomic<bool> stopped{false};
  world.probe = [&](const DownloadRequest&, int, const xfer::StopSignal& stop) {
    probing.open();
    stopped = waitUntil([&] { return stop.isSet(); });
    return probed(30, true, 206);
  };
  started(0, 2);
  ASSERT_TRUE(probing.wait());
  job.reset();
  EXPECT_TRUE(stopped);
  EXPECT_FALSE(support::exists(path));
}

// ---- Exceptions ----

TEST_F(DownloadJobTest, exceptionFromTheProbeFailsTheJobAndNotTheProcess) {
  world.probe = [](const DownloadRequest&, int, const xfer::StopSignal&) -> RemoteFileInfo {
    throw std::runtime_error("probe");
  };
  started(0, 2);
  job->wait();
  expectFailed(100000, 0);
  EXPECT_EQ(jobLog(6), Lines{"3 job exception"});
}

TEST_F(DownloadJobTest, exceptionFromMakingTheBackendFailsTheJobAndNotTheProcess) {
  world.beforeBackend = [] { throw std::runtime_error("backend"); };
  started(0, 2);
  job->wait();
  expectFailed(100000, 0);
  started(30, 2);
  expectFailed(100000, 0);
  EXPECT_EQ(jobLog(3), (Lines{"3 job exception", "3 job exception"}));
}

TEST_F(DownloadJobTest, exceptionFromASubmitAfterATransferFailsTheJob) {
  started(30, 2);
  world.transfers.throwOnSubmit();
  world.transfers.serve(0);
  expectFailed(100000, 0);
  EXPECT_EQ(jobLog(6), Lines{"3 job exception"});
  EXPECT_EQ(world.transfers.count(BackendCommand::CancelAll), 1U);
  world.transfers.finish(10, 42, 0);
  expectFailed(100000, 0);
}

TEST_F(DownloadJobTest, exceptionFromASubmitOfARetryFailsTheJob) {
  started(10, 1);
  world.transfers.finish(0, 0, 503);
  ASSERT_TRUE(world.waitForDelays(1));
  world.transfers.throwOnSubmit();
  world.endDelays();
  job->wait();
  expectFailed(100000, 0);
}

// ---- Answers that are not the range asked for ----

TEST_F(DownloadJobTest, answerThatStartsElsewhereIsRefusedAndRetried) {
  started(30, 2);
  const xfer::Placement placement = world.transfers.answer(10, head206(0));
  EXPECT_EQ(placement.action, xfer::Placement::Action::Stop);
  EXPECT_EQ(placement.code, 33);
  EXPECT_EQ(jobLog(6), (Lines{"3 onHead | answer refused | range=10 | reason=Content-Range starts elsewhere",
                              "4 retry scheduled | range=10 | attempt=1 | delay_ms=500 | err=33 | http=206"}));
  ASSERT_TRUE(world.waitForDelays(1));
  world.endDelays();
  ASSERT_TRUE(world.transfers.waitForInFlight(10));
  world.transfers.serve(10);
  world.transfers.serve(0);
  ASSERT_TRUE(world.transfers.waitForInFlight(20));
  world.transfers.serve(20);
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(support::patternError(path, 30), "");
}

TEST_F(DownloadJobTest, answersThatAlwaysStartElsewhereExhaustTheRetries) {
  world.endDelaysAtOnce();
  started(10, 1);
  for (int attempt = 1; attempt <= 4; ++attempt) {
    ASSERT_TRUE(world.transfers.waitForInFlight(0));
    world.transfers.answer(0, head206(5));
  }
  expectFailed(33, 206);
  EXPECT_EQ(jobLog().back(), "3 fatal | range=0 | err=33 | http=206");
  EXPECT_EQ(content(), std::string(10, '\0'));
}

TEST_F(DownloadJobTest, answerOfAnotherFileIsFatal) {
  started(30, 2);
  ResponseHead first = head206(0);
  first.strongEtag = "\"one\"";
  world.transfers.answer(0, first);
  ResponseHead second = head206(10);
  second.strongEtag = "\"two\"";
  EXPECT_EQ(world.transfers.answer(10, second).action, xfer::Placement::Action::Stop);
  expectFailed(33, 206);
  EXPECT_EQ(jobLog(6), (Lines{"3 onHead | answer refused | range=10 | reason=entity tag of the remote file changed",
                              "3 fatal | range=10 | err=33 | http=206"}));
  EXPECT_EQ(world.transfers.count(BackendCommand::CancelAll), 1U);
}

TEST_F(DownloadJobTest, totalThatDiffersFromTheProbesTakesItsPlaceWhileNothingIsWritten) {
  startProbed(probed(30, true, 206), 2);
  ASSERT_TRUE(world.transfers.waitForSubmissions(2));
  ResponseHead head = head206(0);
  head.contentRange->total = 25;
  world.transfers.answer(0, head);
  EXPECT_EQ(jobLog(), Lines{"4 onHead | size gives way | announced=30 | actual=25"});
  EXPECT_EQ(job->snapshot().totalBytes, 25U);
  EXPECT_EQ(world.transfers.calls(), (std::vector<BackendCall>{{BackendCommand::Cancel, 10}}));
  world.transfers.finish(10, 42, 0);
  ASSERT_EQ(world.transfers.inFlight(), (Starts{0, 10})) << "cut anew";
  EXPECT_EQ(world.transfers.submissions().size(), 4U);
  world.transfers.serve(0);
  world.transfers.serve(10);
  EXPECT_EQ(world.transfers.submissions().back().rangeEnd, 25U);
  world.transfers.serve(20);
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(support::patternError(path, 25), "");
}

TEST_F(DownloadJobTest, totalThatDiffersFromTheProbesIsFatalOnceSomethingIsWritten) {
  startProbed(probed(30, true, 206), 1);
  ASSERT_TRUE(world.transfers.waitForInFlight(0));
  world.transfers.serve(0);
  ResponseHead head = head206(10);
  head.contentRange->total = 31;
  world.transfers.answer(10, head);
  expectFailed(33, 206);
  EXPECT_EQ(jobLog().front(), "3 onHead | answer refused | range=10 | reason=size of the remote file changed");
}

TEST_F(DownloadJobTest, totalThatDiffersFromAKnownSizeIsNotJudged) {
  started(30, 1);
  ResponseHead head = head206(0);
  head.contentRange->total = 25;
  EXPECT_EQ(world.transfers.answer(0, head).action, xfer::Placement::Action::Deliver);
  EXPECT_EQ(state(), JobState::Running);
}

TEST_F(DownloadJobTest, answerWithoutAContentRangeIsTakenAsAsked) {
  started(30, 1);
  ResponseHead head;
  head.status = 206;
  const xfer::Placement placement = world.transfers.answer(0, head);
  EXPECT_EQ(placement.action, xfer::Placement::Action::Deliver);
  EXPECT_EQ(placement.bodyOffset, 0U);
  EXPECT_EQ(placement.end, 10U) << "and what goes past the range is cut";
}

TEST_F(DownloadJobTest, wholeFileInPlaceOfTheFirstRangeCompletesTheJob) {
  started(40, 3);
  const xfer::Placement placement = world.transfers.answer(0, head200());
  EXPECT_EQ(placement.action, xfer::Placement::Action::Deliver);
  EXPECT_EQ(placement.bodyOffset, 0U);
  EXPECT_EQ(placement.end, 40U);
  EXPECT_EQ(world.transfers.calls(),
            (std::vector<BackendCall>{{BackendCommand::Cancel, 10}, {BackendCommand::Cancel, 20}}));
  world.transfers.deliver(10, 10, "not the file's");
  world.transfers.finish(10, 42, 0);
  world.transfers.finish(20, 42, 0);
  EXPECT_EQ(world.transfers.inFlight(), Starts{0}) << "nothing goes out beside it";
  world.transfers.deliver(0, 0, support::patternBytes(0, 40));
  world.transfers.finish(0, 0, 200, 40);
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(support::patternError(path, 40), "");
  EXPECT_EQ(job->snapshot().bytesDone, 40U);
  EXPECT_EQ(jobLog(6), Lines{}) << "what was ended for it is not judged";
}

TEST_F(DownloadJobTest, wholeFileMayHaveAnotherLengthThanTheWholeOneThatTheProbeMet) {
  startProbed(probed(20, true, 200), 1);
  ASSERT_TRUE(world.transfers.waitForInFlight(0));
  ResponseHead head = head200();
  head.contentLength = 25;
  EXPECT_EQ(world.transfers.answer(0, head).action, xfer::Placement::Action::Deliver);
}

TEST_F(DownloadJobTest, wholeFileInPlaceOfALaterRangeYieldsToTheTransferOfEarlierBytes) {
  started(40, 2);
  EXPECT_EQ(world.transfers.answer(10, head200()).action, xfer::Placement::Action::Stop);
  EXPECT_EQ(world.transfers.inFlight(), Starts{0});
  EXPECT_EQ(jobLog(6), Lines{});
  world.transfers.serve(0);
  EXPECT_EQ(world.transfers.inFlight(), Starts{10}) << "from now on one at a time";
  const xfer::Placement placement = world.transfers.answer(10, head200());
  EXPECT_EQ(placement.action, xfer::Placement::Action::Deliver);
  EXPECT_EQ(placement.bodyOffset, 0U);
  world.transfers.deliver(10, 10, support::patternBytes(10, 40));
  world.transfers.finish(10, 0, 200, 30);
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(support::patternError(path, 40), "");
  EXPECT_EQ(job->snapshot().bytesDone, 40U);
}

TEST_F(DownloadJobTest, wholeFileThatBreaksOffIsRetriedAndStillCompletesTheJob) {
  world.endDelaysAtOnce();
  started(40, 2);
  world.transfers.answer(0, head200());
  world.transfers.finish(10, 42, 0);
  world.transfers.deliver(0, 0, support::patternBytes(0, 15));
  world.transfers.finish(0, 18, 200, 15);
  EXPECT_EQ(jobLog().back(), "4 retry scheduled | range=0 | attempt=1 | delay_ms=500 | err=18 | http=200");
  ASSERT_TRUE(world.transfers.waitForInFlight(0));
  world.transfers.answer(0, head200());
  world.transfers.deliver(0, 0, support::patternBytes(0, 40));
  world.transfers.finish(0, 0, 200, 40);
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(support::patternError(path, 40), "");
}

TEST_F(DownloadJobTest, wholeFileShorterThanKnownIsAcceptedAndTheFileCut) {
  started(40, 2);
  world.transfers.answer(0, head200());
  world.transfers.finish(10, 42, 0);
  world.transfers.deliver(0, 0, support::patternBytes(0, 23));
  world.transfers.finish(0, 0, 200, 23);
  EXPECT_EQ(state(), JobState::Completed);
  EXPECT_EQ(support::patternError(path, 23), "");
  EXPECT_EQ(jobLog(6), Lines{"4 finalize adjusted | metadata=40 | actual=23"});
}

}  // namespace
