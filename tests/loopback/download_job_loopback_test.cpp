#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "curl_multi_backend.h"
#include "download_job_impl.h"
#include "support/census.h"
#include "support/gate.h"
#include "support/job_run.h"
#include "support/log_line.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/unused_port.h"
#include "support/wait_until.h"
#include "xfer/download_job.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::adaptivePlan;
using support::chunksOf;
using support::failure;
using support::Gate;
using support::kJob;
using support::logError;
using support::patternError;
using support::patternFile;
using support::range206;
using support::rangeAfter;
using support::ReceivedRequest;
using support::recovery;
using support::Reply;
using support::requestFor;
using support::run;
using support::ScriptedServer;
using support::Tally;
using support::trace;
using support::waitForEnd;
using support::waitUntil;
using xfer::DownloadJob;
using xfer::DownloadPolicy;
using xfer::DownloadSnapshot;
using xfer::JobState;

constexpr std::uint64_t kChunk = 64 * 1024;
constexpr std::uint64_t kSize = 10 * kChunk + 7;

class DownloadJobLoopback : public testing::Test {
 protected:
  void TearDown() override {
    if (HasFailure()) support::tell(log);
  }

  [[nodiscard]] std::size_t requestsFor(const ScriptedServer& server, std::uint64_t first) const {
    std::size_t count = 0;
    for (const ReceivedRequest& request : server.requests()) {
      if (request.range && request.range->first == first) ++count;
    }
    return count;
  }

  // "Well under a second", on a machine as slow as this one.
  static milliseconds soon() { return support::testTimeout() / 25; }

  // Destroys the job and checks that this took no time and left nothing behind.
  static void expectPromptEnd(std::unique_ptr<DownloadJob> job) {
    const auto before = steady_clock::now();
    job.reset();
    EXPECT_LT(steady_clock::now() - before, soon());
  }

  const support::RecordingLogger log;
  const support::TempDir folder;
  const std::string path = folder.file("out.bin");
};

// ---- Whole downloads ----

TEST_F(DownloadJobLoopback, unknownSizeIsProbedAndTheFileIsRight) {
  ScriptedServer server(patternFile(kSize));
  DownloadJob job(requestFor(server.url("/file"), path), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(end.errorCode, 0);
  EXPECT_EQ(support::bytesAmiss(end.bytesDone, kSize), 0U);
  EXPECT_EQ(end.totalBytes, kSize);
  EXPECT_EQ(end.percent, 100.0F);
  EXPECT_EQ(patternError(path, kSize), "");
  if (adaptivePlan()) {
    EXPECT_EQ(server.requests().at(0).range, (support::RequestedRange{0, kChunk - 1})) << "no question comes first";
    EXPECT_GE(server.requests().size(), 2U);
    return;
  }
  EXPECT_EQ(server.requests().size(), 12U) << "the probe and eleven ranges";
  const std::string text =
      "doStart | probed | size=" + std::to_string(kSize) + " | ranges=1 | type=application/octet-stream";
  EXPECT_EQ(wholeLogError(recordsOf(log, kJob), {trace(kJob, text)}), "");
}

TEST_F(DownloadJobLoopback, knownSizeNeedsNoProbe) {
  ScriptedServer server(patternFile(kSize));
  DownloadJob job(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
  EXPECT_EQ(run(job).state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
  if (adaptivePlan()) {
    EXPECT_EQ(server.requests().at(0).range, (support::RequestedRange{0, kChunk - 1}));
    EXPECT_EQ(support::bytesAmiss(job.snapshot().bytesDone, kSize), 0U) << "nothing is fetched twice";
  } else {
    EXPECT_EQ(server.requests().size(), 11U);
  }
  if (!adaptivePlan()) {
    EXPECT_LE(server.connectionsAccepted(), 4U);
  }
  EXPECT_EQ(requestsFor(server, 0), 1U);
}

TEST_F(DownloadJobLoopback, rampedRangesCoverTheFile) {
  constexpr std::uint64_t size = 24 * 1024 * 1024 + 5;
  ScriptedServer server(patternFile(size));
  DownloadPolicy policy;
  policy.numThreads = 3;
  DownloadJob job(requestFor(server.url("/file"), path), policy, support::planUnderTest(policy.initialChunkSize));
  EXPECT_EQ(run(job).state, JobState::Completed);
  EXPECT_EQ(patternError(path, size), "");
}

TEST_F(DownloadJobLoopback, emptyFileCompletesEmpty) {
  ScriptedServer server(patternFile(0));
  DownloadJob job(requestFor(server.url("/file"), path), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
  EXPECT_EQ(run(job).state, JobState::Completed);
  EXPECT_EQ(support::fileSize(path), 0U);
}

TEST_F(DownloadJobLoopback, unknownLengthIsOneOpenTransfer) {
  ScriptedServer server(
      [](const ReceivedRequest&) { return support::full200(kSize, {.framing = support::Framing::Chunked}); });
  DownloadJob job(requestFor(server.url("/file"), path), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(support::bytesAmiss(end.bytesDone, kSize), 0U);
  EXPECT_EQ(end.totalBytes, 0U);
  EXPECT_EQ(end.percent, 0.0F);
  EXPECT_EQ(patternError(path, kSize), "");
  if (adaptivePlan()) {
    EXPECT_EQ(server.requests().size(), 1U) << "the answer to the first range is the file";
    return;
  }
  EXPECT_EQ(server.requests().size(), 2U);
  EXPECT_FALSE(server.requests().at(1).range) << "no range can be asked for";
}

TEST_F(DownloadJobLoopback, existingFileIsReplacedEvenWhenItWasLonger) {
  support::writeFile(path, std::string(2 * kSize, 'x'));
  ScriptedServer server(patternFile(kSize));
  DownloadJob job(requestFor(server.url("/file"), path), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
  EXPECT_EQ(run(job).state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
}

// ---- Failures ----

TEST_F(DownloadJobLoopback, busyServerIsAskedAgainAfterTheRealDelays) {
  ScriptedServer server([](const ReceivedRequest&) { return support::status(503, "busy"); });
  DownloadJob job(requestFor(server.url("/file"), path, kChunk), chunksOf(kChunk, 1), support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.errorCode, 18) << "an error's body is no part of the range, which so is short";
  EXPECT_EQ(end.httpStatus, 503);
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), 4U);
  EXPECT_GE(requests[1].time - requests[0].time, milliseconds(500));
  EXPECT_GE(requests[2].time - requests[1].time, milliseconds(2000));
  EXPECT_GE(requests[3].time - requests[2].time, milliseconds(5000));
  EXPECT_LT(requests[3].time - requests[0].time, milliseconds(7500) + support::testTimeout() / 10);
  EXPECT_EQ(wholeLogError(
                recordsOf(log, kJob),
                {recovery(kJob, "retry scheduled | range=0 | attempt=1 | delay_ms=500 | err=18 | http=503"),
                 recovery(kJob, "retry scheduled | range=0 | attempt=2 | delay_ms=2000 | err=18 | http=503"),
                 recovery(kJob, "retry scheduled | range=0 | attempt=3 | delay_ms=5000 | err=18 | http=503"),
                 failure(kJob, "exhausted retries | range=0"), failure(kJob, "fatal | range=0 | err=18 | http=503")}),
            "");
}

TEST_F(DownloadJobLoopback, openTransferThatIsForbiddenFailsWithTheStatus) {
  ScriptedServer server([](const ReceivedRequest& request) {
    if (request.range) return support::status(adaptivePlan() ? 416 : 200);
    return support::status(403, "no");
  });
  DownloadJob job(requestFor(server.url("/file"), path), chunksOf(kChunk, 2), support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.errorCode, 403);
  EXPECT_EQ(end.httpStatus, 403);
  EXPECT_EQ(logError(log, failure(kJob, "cdn reject | range=0 | err=0 | http=403")), "");
}

TEST_F(DownloadJobLoopback, serverThatRecoversIsForgiven) {
  const Tally asked;
  ScriptedServer server([asked](const ReceivedRequest& request) {
    // Ranges of an adaptive plan never begin where an earlier one did for long.
    if (asked.add(adaptivePlan() ? 0 : request.range->first) == 0) return support::status(503, "busy");
    return range206(request, kSize);
  });
  DownloadJob job(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(end.errorCode, 0);
  EXPECT_EQ(patternError(path, kSize), "");
  if (adaptivePlan()) {
    EXPECT_EQ(logError(log, recovery(kJob, "try again | range=0 | err=18 | http=503 | delay_ms=#")), "");
    return;
  }
  const char* const text = "retry scheduled | range=# | attempt=1 | delay_ms=500 | err=18 | http=503";
  EXPECT_EQ(logError(log, recovery(kJob, text), 11), "");
}

TEST_F(DownloadJobLoopback, forbiddenRangeEndsTheJobAndItsOtherTransfersWithoutARetry) {
  // An adaptive plan does not fail for one range when others were delivered: it is refused everything.
  Gate begun;
  if (adaptivePlan()) begun.open();
  ScriptedServer server([begun](const ReceivedRequest& request) {
    if (request.range->first == (adaptivePlan() ? 0 : kChunk))
      return Reply().waitFor(begun).send("HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n");
    return range206(request, kSize, {.bodyBytes = 100}).open(begun).stall();
  });
  DownloadJob job(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 2), support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.errorCode, adaptivePlan() ? 403 : 18) << "an error's body is no part of the range, which so is short";
  EXPECT_EQ(end.httpStatus, 403);
  EXPECT_TRUE(waitUntil([&] { return server.concurrentRequests() == 0; })) << "the stalled transfer is aborted";
  EXPECT_EQ(server.requests().size(), adaptivePlan() ? 1U : 2U);
  const std::string text = "cdn reject | range=" + std::to_string(adaptivePlan() ? 0 : kChunk) + " | err=18 | http=403";
  EXPECT_EQ(wholeLogError(recordsOf(log, kJob), {failure(kJob, text)}), "");
}

TEST_F(DownloadJobLoopback, missingFileFailsInTheProbeWithoutAnHttpStatus) {
  ScriptedServer server([](const ReceivedRequest&) { return support::status(404, "no"); });
  DownloadJob job(requestFor(server.url("/file"), path), chunksOf(kChunk, 2), support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Failed);
  if (adaptivePlan()) {
    EXPECT_EQ(end.errorCode, 404);
    EXPECT_EQ(end.httpStatus, 404);
    EXPECT_EQ(server.requests().size(), 1U) << "and it is not asked for again";
    EXPECT_FALSE(support::exists(path));
    return;
  }
  EXPECT_EQ(end.errorCode, 404);
  EXPECT_EQ(end.httpStatus, 0);
  EXPECT_EQ(wholeLogError(log.records(), {failure(kJob, "doStart | probe failed | err=404")}), "");
}

TEST_F(DownloadJobLoopback, serverThatRefusesConnectionsFailsInTheProbe) {
  const support::UnusedPort closed;
  DownloadJob job(requestFor(closed.url("/file"), path), chunksOf(kChunk, 2), support::planOfTries(2, kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.errorCode, 7);
  EXPECT_FALSE(support::exists(path));
}

TEST_F(DownloadJobLoopback, otherProtocolsAndMalformedUrlsFailBeforeAnyRequest) {
  for (const char* const url : {"ftp://127.0.0.1/file", "file:///etc/hostname", "", "http://", "no url at all"}) {
    for (const std::uint64_t knownSize : {std::uint64_t{0}, kChunk}) {
      DownloadJob job(requestFor(url, path, knownSize), chunksOf(kChunk, 2), support::planUnderTest(kChunk));
      const DownloadSnapshot end = run(job);
      EXPECT_EQ(end.state, JobState::Failed) << url;
      EXPECT_NE(end.errorCode, 0) << url;
      EXPECT_EQ(end.bytesDone, 0U) << url;
    }
  }
}

TEST_F(DownloadJobLoopback, bodyThatBreaksOffIsFetchedAgain) {
  const Tally asked;
  ScriptedServer server([asked](const ReceivedRequest& request) {
    // Not more than the last range has: what follows an answer would be taken for the next one.
    const std::uint64_t before = request.range->first == 10 * kChunk ? 5 : 1000;
    if (adaptivePlan()) {
      return asked.add(0) < 2 ? range206(request, kSize, {.bodyBytes = before}).close() : range206(request, kSize);
    }
    if (asked.add(request.range->first) == 0) return range206(request, kSize, {.bodyBytes = before}).close();
    return range206(request, kSize);
  });
  DownloadJob job(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
  if (adaptivePlan()) {
    EXPECT_EQ(support::bytesAmiss(end.bytesDone, kSize), 0U) << "what came before the break is kept";
    EXPECT_EQ(server.requests().at(1).range->first, 1000U) << "and the rest is asked for";
    EXPECT_EQ(logError(log, recovery(kJob, "try again | range=# | err=18 | http=206 | delay_ms=#"), 2), "");
    return;
  }
  EXPECT_EQ(end.bytesDone, kSize + 10 * 1000 + 5) << "what came before the break counts again";
  const char* const text = "retry scheduled | range=# | attempt=1 | delay_ms=500 | err=18 | http=206";
  EXPECT_EQ(logError(log, recovery(kJob, text), 11), "");
}

TEST_F(DownloadJobLoopback, shortBodyWithoutALengthIsFetchedAgain) {
  const Tally asked;
  ScriptedServer server([asked](const ReceivedRequest& request) {
    if (asked.add(adaptivePlan() ? 0 : request.range->first) > 0) return range206(request, kSize);
    return range206(request, kSize, {.bodyBytes = 5, .framing = support::Framing::UntilClose});
  });
  DownloadJob job(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
  EXPECT_EQ(run(job).state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
  if (adaptivePlan()) {
    EXPECT_EQ(support::bytesAmiss(job.snapshot().bytesDone, kSize), 0U);
    EXPECT_EQ(server.requests().at(1).range->first, 5U) << "what came is kept";
    return;
  }
  const char* const text = "retry scheduled | range=# | attempt=1 | delay_ms=500 | err=18 | http=206";
  EXPECT_EQ(logError(log, recovery(kJob, text), 11), "");
}

TEST_F(DownloadJobLoopback, serverThatSendsLessOfEveryRangeThanAskedIsAskedForTheRest) {
  constexpr std::uint64_t size = 3 * kChunk;
  constexpr std::uint64_t most = kChunk / 2;
  ScriptedServer server([](const ReceivedRequest& request) {
    const std::uint64_t from = request.range->first;
    const std::uint64_t to = std::min(from + most, *request.range->last + 1);
    return support::status(
        206, support::patternBytes(from, to),
        {"Content-Range: bytes " + std::to_string(from) + "-" + std::to_string(to - 1) + "/" + std::to_string(size)});
  });
  DownloadJob job(requestFor(server.url("/file"), path, size), chunksOf(kChunk, 2), support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(support::bytesAmiss(end.bytesDone, size), 0U);
  EXPECT_EQ(patternError(path, size), "");
  if (adaptivePlan()) {
    EXPECT_GE(server.requests().size(), 6U);
    EXPECT_FALSE(log.findPrefix("try again")) << "and it costs no attempt";
    return;
  }
  EXPECT_EQ(server.requests().size(), 6U);
  EXPECT_FALSE(log.findPrefix("retry scheduled")) << "and it costs no attempt";
}

TEST_F(DownloadJobLoopback, fileShorterThanAnnouncedIsCutToWhatArrived) {
  constexpr std::uint64_t real = 2 * kChunk + 100;
  ScriptedServer server(patternFile(real));
  DownloadJob job(requestFor(server.url("/file"), path, 3 * kChunk), chunksOf(kChunk, 2),
                  support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(support::bytesAmiss(end.bytesDone, real), 0U);
  EXPECT_EQ(patternError(path, real), "");
  const std::string text =
      "finalize adjusted | metadata=" + std::to_string(3 * kChunk) + " | actual=" + std::to_string(real);
  EXPECT_EQ(logError(log, recovery(kJob, text)), "");
}

// ---- Pause, resume, cancel ----

TEST_F(DownloadJobLoopback, pausedJobTakesNothingAndResumedOneCompletes) {
  constexpr std::uint64_t size = 16 * 1024 * 1024;
  ScriptedServer server(patternFile(size, {.pace = {64 * 1024, milliseconds(5)}}));
  DownloadJob job(requestFor(server.url("/file"), path, size), chunksOf(size / 2, 2), support::planUnderTest(size / 2));
  job.start();
  ASSERT_TRUE(waitUntil([&] { return job.snapshot().bytesDone > 0; }));
  job.pause();
  EXPECT_EQ(job.snapshot().state, JobState::Paused);
  std::uint64_t seen = 0;
  ASSERT_TRUE(waitUntil([&] {  // what was on its way when the pause came
    const std::uint64_t before = std::exchange(seen, job.snapshot().bytesDone);
    std::this_thread::sleep_for(milliseconds(100));
    return before == seen;
  }));
  EXPECT_LT(seen, size);
  EXPECT_FALSE(waitUntil([&] { return job.snapshot().bytesDone != seen; }, milliseconds(300)));
  job.resume();
  const DownloadSnapshot end = waitForEnd(job);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(support::bytesAmiss(end.bytesDone, size), 0U) << "nothing is fetched twice";
  EXPECT_EQ(patternError(path, size), "");
  if (!adaptivePlan()) {
    EXPECT_EQ(server.requests().size(), 2U);
  }
}

TEST_F(DownloadJobLoopback, cancelledJobEndsSoonAndLeavesThePartialFile) {
  Gate half;
  ScriptedServer server([half](const ReceivedRequest& request) {
    return range206(request, kSize, {.bodyBytes = 1000}).open(half).stall();
  });
  DownloadJob job(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 1), support::planUnderTest(kChunk));
  job.start();
  ASSERT_TRUE(waitUntil([&] { return job.snapshot().bytesDone == 1000; }));
  const auto before = steady_clock::now();
  job.cancel();
  job.wait();
  EXPECT_LT(steady_clock::now() - before, soon());
  EXPECT_EQ(job.snapshot().state, JobState::Cancelled);
  EXPECT_EQ(support::fileSize(path), kSize);
  EXPECT_EQ(support::readFile(path)->substr(0, 1000), support::patternBytes(0, 1000));
  EXPECT_TRUE(waitUntil([&] { return server.concurrentRequests() == 0; }));
}

TEST_F(DownloadJobLoopback, cancelAtRandomMomentsAlwaysEndsCancelledWithNoTransferLeft) {
  // One range never ends, so that no job is over before its cancel.
  ScriptedServer server([](const ReceivedRequest& request) {
    const std::uint64_t last = request.range->last.value_or(kSize);
    if (request.range->first <= 3 * kChunk && last >= 3 * kChunk)
      return range206(request, kSize, {.bodyBytes = 10}).stall();
    return range206(request, kSize);
  });
  std::mt19937 random(20240607);
  std::uniform_int_distribution<int> moment(0, 12000);
  for (int round = 0; round < 200; ++round) {
    xfer::CurlMultiBackend* backend = nullptr;
    xfer::JobEnvironment environment = xfer::realJobEnvironment();
    environment.makeBackend = [&](const xfer::DownloadRequest&, const DownloadPolicy& policy) {
      auto made = std::make_unique<xfer::CurlMultiBackend>(policy);
      backend = made.get();
      return made;
    };
    DownloadJob::Impl job(requestFor(server.url("/file"), path, round % 2 == 0 ? kSize : 0), chunksOf(kChunk, 4),
                          environment, support::planUnderTest(kChunk).values());
    job.start();
    std::this_thread::sleep_for(std::chrono::microseconds(moment(random)));
    job.cancel();
    ASSERT_EQ(waitForEnd(job).state, JobState::Cancelled) << "round " << round;
    job.wait();
    if (backend != nullptr) {
      ASSERT_TRUE(waitUntil([&] { return backend->activeCount() == 0; })) << "round " << round;
    }
  }
  EXPECT_TRUE(waitUntil([&] { return server.concurrentRequests() == 0; }));
}

TEST_F(DownloadJobLoopback, twoThreadsMayWait) {
  Gate goOn;
  ScriptedServer server([goOn](const ReceivedRequest& request) { return rangeAfter(goOn, request, 3000); });
  DownloadJob job(requestFor(server.url("/file"), path, 3000), chunksOf(1000, 2), support::planUnderTest(1000));
  job.start();
  std::thread first([&] { job.wait(); });
  std::thread second([&] { job.wait(); });
  goOn.open();
  first.join();
  second.join();
  EXPECT_EQ(job.snapshot().state, JobState::Completed);
}

// ---- Moves ----

TEST_F(DownloadJobLoopback, waitForEndsWithItsTimeOrWithTheJob) {
  Gate goOn;
  const ScriptedServer server([goOn](const ReceivedRequest& request) { return rangeAfter(goOn, request, 1000); });
  DownloadJob job(requestFor(server.url("/file"), path, 1000), chunksOf(1000, 1), support::planUnderTest(1000));
  EXPECT_FALSE(job.waitFor(0)) << "it has not started";
  EXPECT_FALSE(job.waitFor(1));
  job.start();
  const auto begin = steady_clock::now();
  EXPECT_FALSE(job.waitFor(30));
  EXPECT_GE(steady_clock::now() - begin, milliseconds(30));
  std::thread waiter([&] { EXPECT_TRUE(job.waitFor(std::numeric_limits<std::uint64_t>::max())); });
  goOn.open();
  EXPECT_TRUE(job.waitFor(static_cast<std::uint64_t>(support::testTimeout().count())));
  waiter.join();
  EXPECT_EQ(job.snapshot().state, JobState::Completed);
  EXPECT_TRUE(job.waitFor(0));
}

TEST_F(DownloadJobLoopback, waitForSeesACancelledJobEnd) {
  const ScriptedServer server([](const ReceivedRequest&) { return Reply().stall(); });
  DownloadJob job(requestFor(server.url("/file"), path, 1000), chunksOf(1000, 1), support::planUnderTest(1000));
  job.start();
  EXPECT_TRUE(server.waitForRequests(1));
  std::thread canceller([&] { job.cancel(); });
  EXPECT_TRUE(job.waitFor(static_cast<std::uint64_t>(support::testTimeout().count())));
  canceller.join();
  EXPECT_EQ(job.snapshot().state, JobState::Cancelled);
}

TEST_F(DownloadJobLoopback, movedJobRunsOn) {
  Gate goOn;
  ScriptedServer server([goOn](const ReceivedRequest& request) { return rangeAfter(goOn, request, 3000); });
  DownloadJob first(requestFor(server.url("/file"), path, 3000), chunksOf(1000, 3), support::planUnderTest(1000));
  first.start();
  DownloadJob second(std::move(first));
  DownloadJob third = std::move(second);
  goOn.open();
  EXPECT_EQ(waitForEnd(third).state, JobState::Completed);
  EXPECT_EQ(patternError(path, 3000), "");
}

TEST_F(DownloadJobLoopback, moveAssignmentOverARunningJobCancelsItAndKeepsItsPartialFile) {
  ScriptedServer server(
      [](const ReceivedRequest& request) { return range206(request, kSize, {.bodyBytes = 1000}).stall(); });
  DownloadJob running(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 1),
                      support::planUnderTest(kChunk));
  running.start();
  ASSERT_TRUE(waitUntil([&] { return running.snapshot().bytesDone == 1000; }));
  DownloadJob fresh(requestFor(server.url("/other"), folder.file("other.bin"), kSize), chunksOf(kChunk, 1),
                    support::planUnderTest(kChunk));
  const auto before = steady_clock::now();
  running = std::move(fresh);
  EXPECT_LT(steady_clock::now() - before, soon());
  EXPECT_EQ(running.snapshot().state, JobState::Idle);
  EXPECT_TRUE(waitUntil([&] { return server.concurrentRequests() == 0; }));
  EXPECT_EQ(support::fileSize(path), kSize);
  EXPECT_EQ(support::readFile(path)->substr(0, 1000), support::patternBytes(0, 1000));
  server.setHandler(patternFile(kSize));
  EXPECT_EQ(run(running).state, JobState::Completed);
  EXPECT_EQ(patternError(folder.file("other.bin"), kSize), "");
}

// ---- Destruction in every state ----

TEST_F(DownloadJobLoopback, destructionOfAnIdleJobIsPrompt) {
  expectPromptEnd(std::make_unique<DownloadJob>(requestFor("http://127.0.0.1:1/", path), chunksOf(kChunk, 2),
                                                support::planUnderTest(kChunk)));
}

TEST_F(DownloadJobLoopback, destructionWhileAStalledServerIsProbedIsPrompt) {
  ScriptedServer server([](const ReceivedRequest&) { return Reply().stall(); });
  auto job = std::make_unique<DownloadJob>(requestFor(server.url("/file"), path), chunksOf(kChunk, 2),
                                           support::planUnderTest(kChunk));
  job->start();
  ASSERT_TRUE(server.waitForRequests(1));
  EXPECT_EQ(job->snapshot().state, JobState::Probing);
  expectPromptEnd(std::move(job));
}

TEST_F(DownloadJobLoopback, destructionWhileAnUnresolvableNameIsLookedUpIsPrompt) {
  for (const std::uint64_t knownSize : {std::uint64_t{0}, kSize}) {
    auto job = std::make_unique<DownloadJob>(requestFor("http://nowhere.invalid/file", path, knownSize),
                                             chunksOf(kChunk, 2), support::planUnderTest(kChunk));
    job->start();
    expectPromptEnd(std::move(job));
  }
}

TEST_F(DownloadJobLoopback, destructionOfARunningJobWhoseServerStallsIsPrompt) {
  const std::size_t threads = support::threadCount();
  const std::size_t handles = support::openFileCount();
  {
    ScriptedServer server(
        [](const ReceivedRequest& request) { return range206(request, kSize, {.bodyBytes = 10}).stall(); });
    auto job = std::make_unique<DownloadJob>(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 4),
                                             support::planUnderTest(kChunk));
    job->start();
    ASSERT_TRUE(server.waitForRequests(4));
    EXPECT_EQ(job->snapshot().state, JobState::Running);
    expectPromptEnd(std::move(job));
    EXPECT_TRUE(waitUntil([&] { return server.concurrentRequests() == 0; }));
  }
  EXPECT_TRUE(waitUntil([&] { return support::threadCount() <= threads; }));
  EXPECT_TRUE(waitUntil([&] { return support::openFileCount() <= handles + 8; })) << "but for idle connections";
}

TEST_F(DownloadJobLoopback, destructionOfAPausedJobIsPrompt) {
  ScriptedServer server(patternFile(kSize, {.pace = {1024, milliseconds(5)}}));
  auto job = std::make_unique<DownloadJob>(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 2),
                                           support::planUnderTest(kChunk));
  job->start();
  ASSERT_TRUE(waitUntil([&] { return job->snapshot().bytesDone > 0; }));
  job->pause();
  EXPECT_EQ(job->snapshot().state, JobState::Paused);
  expectPromptEnd(std::move(job));
}

TEST_F(DownloadJobLoopback, destructionDuringARetryDelayIsPrompt) {
  const Tally asked;
  ScriptedServer server([asked](const ReceivedRequest&) {
    asked.add(0);
    return support::status(503, "busy", {"Retry-After: 60"});
  });
  auto job = std::make_unique<DownloadJob>(requestFor(server.url("/file"), path, kChunk), chunksOf(kChunk, 1),
                                           support::planUnderTest(kChunk));
  job->start();
  ASSERT_TRUE(log.waitFor(adaptivePlan() ? "try again" : "attempt=2 | delay_ms=2000"));
  expectPromptEnd(std::move(job));
  EXPECT_EQ(asked.of(0), adaptivePlan() ? 1U : 2U) << "and the retry does not run";
}

TEST_F(DownloadJobLoopback, destructionOfACancellingJobIsPrompt) {
  ScriptedServer server([](const ReceivedRequest&) { return Reply().stall(); });
  for (int round = 0; round < 20; ++round) {
    auto job = std::make_unique<DownloadJob>(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 4),
                                             support::planUnderTest(kChunk));
    job->start();
    job->cancel();
    expectPromptEnd(std::move(job));
  }
}

TEST_F(DownloadJobLoopback, destructionOfAFinishedJobIsPrompt) {
  ScriptedServer server(patternFile(kSize));
  auto completed = std::make_unique<DownloadJob>(requestFor(server.url("/file"), path), chunksOf(kChunk, 2),
                                                 support::planUnderTest(kChunk));
  EXPECT_EQ(run(*completed).state, JobState::Completed);
  expectPromptEnd(std::move(completed));
  EXPECT_EQ(patternError(path, kSize), "") << "and the file stays";

  server.setHandler([](const ReceivedRequest& request) {
    if (request.range->first == 0) return support::status(403, "no");
    return Reply().stall();
  });
  auto failed = std::make_unique<DownloadJob>(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 4),
                                              support::planUnderTest(kChunk));
  EXPECT_EQ(run(*failed).state, JobState::Failed);
  expectPromptEnd(std::move(failed));
}

TEST_F(DownloadJobLoopback, hundredJobsLeaveNoThreadAndNoHandleBehind) {
  const auto runJobs = [&](int count) {
    ScriptedServer server(patternFile(kSize));  // its own handles for each connection go with it
    for (int round = 0; round < count; ++round) {
      DownloadJob job(requestFor(server.url("/file"), path), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
      ASSERT_EQ(run(job).state, JobState::Completed);
    }
  };
  const std::size_t threads = support::threadCount();
  runJobs(1);
  const std::size_t handles = support::openFileCount();
  runJobs(100);
  EXPECT_TRUE(waitUntil([&] { return support::threadCount() <= threads; }));
  EXPECT_TRUE(waitUntil([&] { return support::openFileCount() <= handles + 8; }))
      << support::openFileCount() << ", at first " << handles << "; four idle connections to each server may be kept";
}

}  // namespace
