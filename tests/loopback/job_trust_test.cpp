// What a job makes of servers that do not do what they should, and of jobs that share a machine.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "download_job_impl.h"
#include "support/gate.h"
#include "support/job_run.h"
#include "support/log_line.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"

namespace {

using std::chrono::milliseconds;
using support::adaptivePlan;
using support::chunksOf;
using support::full200;
using support::Gate;
using support::patternError;
using support::patternFile;
using support::range206;
using support::rangeAfter;
using support::ReceivedRequest;
using support::Reply;
using support::ReplyOptions;
using support::requestFor;
using support::run;
using support::ScriptedServer;
using support::Tally;
using support::waitForEnd;
using support::waitUntil;
using xfer::DownloadJob;
using xfer::DownloadPolicy;
using xfer::DownloadSnapshot;
using xfer::JobState;

constexpr std::uint64_t kChunk = 64 * 1024;
constexpr std::uint64_t kSize = 8 * kChunk + 9;
constexpr std::uint64_t kSmallestPiece = kChunk / 16;  // of an adaptive plan
constexpr std::uint64_t kOtherSeed = 7;

// What a server sends in place of the right reply.
using Instead = std::function<Reply(const ReceivedRequest&)>;

class JobTrust : public testing::Test {
 protected:
  void TearDown() override {
    if (HasFailure()) support::tell(log);
  }

  // The real engine, but what happens during a retry's delay is the test's.
  std::unique_ptr<DownloadJob::Impl> jobWithDelay(const xfer::DownloadRequest& request, const DownloadPolicy& policy,
                                                  std::function<void()> delay) {
    xfer::JobEnvironment environment = xfer::realJobEnvironment();
    environment.waitForRetry = [delay = std::move(delay)](std::uint64_t /*delayMs*/, xfer::StopSignal&) { delay(); };
    return std::make_unique<DownloadJob::Impl>(request, policy, environment,
                                               support::planOfTries(3, policy.initialChunkSize).values());
  }
  std::unique_ptr<DownloadJob::Impl> jobWithoutDelay(const xfer::DownloadRequest& request,
                                                     const DownloadPolicy& policy) {
    return jobWithDelay(request, policy, [] {});
  }

  // The range at kChunk is answered badly the first time; nothing of that answer may be in the file, ever, and the
  // second answer makes it right.
  void expectRefusedAndRetried(const Instead& instead, const std::string& reason) {
    const Tally asked;
    Gate goOn;
    // An adaptive plan's next try does not wait for the delay of this test: its answer does.
    ScriptedServer server([asked, instead, goOn](const ReceivedRequest& request) {
      if (request.range->first != kChunk) return range206(request, kSize);
      if (asked.add(kChunk) == 0) return instead(request);
      return adaptivePlan() ? rangeAfter(goOn, request, kSize) : range206(request, kSize);
    });
    const auto job = jobWithDelay(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 3),
                                  [goOn] { static_cast<void>(goOn.wait()); });
    job->start();
    const std::string range = std::to_string(kChunk);
    ASSERT_TRUE(log.waitFor(adaptivePlan() ? "try again | range=" + range + " | err=33 | http=206"
                                           : "retry scheduled | range=" + range +
                                                 " | attempt=1 | delay_ms=500 | err=33 | http=206"));
    const std::string refused = "onHead | answer refused | range=" + range + " | reason=" + reason;
    EXPECT_EQ(logError(log, support::failure(support::kJob, refused)), "");
    if (adaptivePlan()) {
      ASSERT_TRUE(waitUntil([&] { return asked.of(kChunk) >= 2; }));
      EXPECT_EQ(support::readFile(path)->substr(kChunk, kSmallestPiece), std::string(kSmallestPiece, '\0'));
    } else {
      // All but the refused range.
      ASSERT_TRUE(waitUntil([&] { return job->snapshot().bytesDone == kSize - kChunk; }));
      EXPECT_EQ(support::readFile(path)->substr(kChunk, kChunk), std::string(kChunk, '\0'));
    }
    goOn.open();
    const DownloadSnapshot end = waitForEnd(*job);
    EXPECT_EQ(end.state, JobState::Completed);
    EXPECT_EQ(support::bytesAmiss(end.bytesDone, kSize), 0U);
    EXPECT_EQ(patternError(path, kSize), "");
    if (!adaptivePlan()) {
      EXPECT_EQ(asked.of(kChunk), 2U);
    }
  }

  // The range at kChunk comes from another file.
  void expectFatalAndUnmixed(std::uint64_t knownSize, const Instead& right, const Instead& instead,
                             const std::string& reason) {
    ScriptedServer server([right, instead](const ReceivedRequest& request) {
      return request.range->first == kChunk ? instead(request) : right(request);
    });
    DownloadJob job(requestFor(server.url("/file"), path, knownSize), chunksOf(kChunk, 1),
                    support::planUnderTest(kChunk));
    const DownloadSnapshot end = run(job);
    EXPECT_EQ(end.state, JobState::Failed);
    EXPECT_EQ(end.errorCode, 33);
    EXPECT_EQ(end.httpStatus, 206);
    const std::string refused = "onHead | answer refused | range=" + std::to_string(kChunk) + " | reason=" + reason;
    EXPECT_EQ(logError(log, support::failure(support::kJob, refused)), "");
    EXPECT_FALSE(log.contains("retry scheduled"));
    EXPECT_EQ(support::readFile(path), support::patternBytes(0, kChunk) + std::string(kSize - kChunk, '\0'));
  }

  // Each range is answered badly the first time; of an adaptive plan, whose ranges begin anywhere, the first two are.
  DownloadSnapshot expectRecovery(const Instead& instead, DownloadPolicy policy = chunksOf(kChunk, 4)) {
    const Tally asked;
    ScriptedServer server([asked, instead](const ReceivedRequest& request) {
      if (adaptivePlan()) return asked.add(0) < 2 ? instead(request) : range206(request, kSize);
      return asked.add(request.range->first) == 0 ? instead(request) : range206(request, kSize);
    });
    const auto job = jobWithoutDelay(requestFor(server.url("/file"), path, kSize), policy);
    const DownloadSnapshot end = run(*job);
    EXPECT_EQ(end.state, JobState::Completed);
    EXPECT_EQ(patternError(path, kSize), "");
    if (adaptivePlan()) {
      EXPECT_EQ(log.count("try again"), 2U);
      return end;
    }
    for (std::uint64_t range = 0; range < kSize; range += kChunk) EXPECT_EQ(asked.of(range), 2U) << range;
    return end;
  }

  const support::RecordingLogger log;
  const support::TempDir folder;
  const std::string path = folder.file("out.bin");
};

// ---- Jobs and fetches side by side ----

TEST_F(JobTrust, twoJobsOfOneConnectionToOneHostBothComplete) {
  Gate both;
  const Tally begun;
  ScriptedServer server([&](const ReceivedRequest& request) {
    if (begun.add(0) == 1) both.open();  // neither goes on before both have begun
    return rangeAfter(both, request, 4000);
  });
  DownloadJob first(requestFor(server.url("/one"), path, 4000), chunksOf(1000, 1), support::planUnderTest(1000));
  DownloadJob second(requestFor(server.url("/two"), folder.file("two.bin"), 4000), chunksOf(1000, 1),
                     support::planUnderTest(1000));
  first.start();
  second.start();
  EXPECT_EQ(waitForEnd(first).state, JobState::Completed);
  EXPECT_EQ(waitForEnd(second).state, JobState::Completed);
  EXPECT_EQ(patternError(path, 4000), "");
  EXPECT_EQ(patternError(folder.file("two.bin"), 4000), "");
}

TEST_F(JobTrust, secondJobOnOneFileFailsAndTheFirstCompletes) {
  Gate secondEnded;
  ScriptedServer server([secondEnded](const ReceivedRequest& request) {
    // An adaptive plan opens its file when the first answer comes.
    if (adaptivePlan() && request.range->first == 0) return range206(request, 4 * kChunk);
    return rangeAfter(secondEnded, request, 4 * kChunk);
  });
  DownloadJob first(requestFor(server.url("/file"), path, 4 * kChunk), chunksOf(kChunk, 2),
                    support::planUnderTest(kChunk));
  first.start();
  ASSERT_TRUE(server.waitForRequests(2));
  DownloadJob second(requestFor(server.url("/file"), path, kChunk), chunksOf(kChunk, 2),
                     support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(second);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.errorCode, 100004);
  if (!adaptivePlan()) {
    EXPECT_EQ(server.requests().size(), 2U) << "the second asks for nothing";
  }
  EXPECT_EQ(second.snapshot().bytesDone, 0U);
  secondEnded.open();
  EXPECT_EQ(waitForEnd(first).state, JobState::Completed);
  EXPECT_EQ(patternError(path, 4 * kChunk), "");
  EXPECT_EQ(support::listFolder(folder.path()), std::vector<std::string>{"out.bin"});
}

TEST_F(JobTrust, jobBesideALongFetchCompletesBeforeTheFetchDoes) {
  Gate jobDone;
  ScriptedServer server([jobDone](const ReceivedRequest& request) {
    if (request.path() == "/long") return Reply().waitFor(jobDone).send("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    return range206(request, kSize);
  });
  xfer::Request request;
  request.url = server.url("/long");
  request.timeoutSec = 0;
  request.lowSpeedTimeSec = 0;
  auto fetched = xfer::fetchAsync(request);
  ASSERT_TRUE(server.waitForRequests(1));
  DownloadJob job(requestFor(server.url("/file"), path), chunksOf(kChunk, 1), support::planUnderTest(kChunk));
  EXPECT_EQ(run(job).state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
  jobDone.open();
  EXPECT_EQ(fetched.get().status, 200);
}

TEST_F(JobTrust, thirtyTwoJobsToFourHostsAtOnceAllComplete) {
  std::vector<std::unique_ptr<ScriptedServer>> servers;
  for (int host = 0; host < 4; ++host) servers.push_back(std::make_unique<ScriptedServer>(patternFile(kSize)));
  std::vector<std::unique_ptr<DownloadJob>> jobs;
  const auto fileOf = [&](std::size_t job) { return folder.file(std::to_string(job) + ".bin"); };
  for (std::size_t job = 0; job < 32; ++job) {
    jobs.push_back(std::make_unique<DownloadJob>(requestFor(servers[job % 4]->url("/file"), fileOf(job)),
                                                 chunksOf(kChunk, static_cast<std::uint16_t>(1 + job % 4)),
                                                 support::planUnderTest(kChunk)));
    jobs.back()->start();
  }
  for (std::size_t job = 0; job < 32; ++job) {
    EXPECT_EQ(waitForEnd(*jobs[job]).state, JobState::Completed) << job;
    EXPECT_EQ(patternError(fileOf(job), kSize), "") << job;
  }
}

TEST_F(JobTrust, connectionsAreReusedFromFetchesToAJobAndBack) {
  ScriptedServer server(patternFile(16 * kChunk));
  const auto fetchFifty = [&] {
    for (int fetch = 0; fetch < 50; ++fetch) {
      xfer::Request request;
      request.url = server.url("/file");
      request.headers = {"Range: bytes=0-99"};
      ASSERT_EQ(xfer::fetch(request).status, 206);
    }
  };
  fetchFifty();
  EXPECT_EQ(server.connectionsAccepted(), 1U);
  {
    // Ranges that are cut while they run cost their connections; one connection is alone with its file.
    const std::uint16_t most = adaptivePlan() ? 1 : 4;
    DownloadJob job(requestFor(server.url("/file"), path, 16 * kChunk), chunksOf(kChunk, most),
                    support::planUnderTest(kChunk));
    EXPECT_EQ(run(job).state, JobState::Completed);
    EXPECT_LE(server.connectionsAccepted(), 1U + most);
    EXPECT_EQ(support::bytesAmiss(job.snapshot().bytesDone, 16 * kChunk), 0U);
    if (!adaptivePlan()) {
      EXPECT_EQ(server.requests().size(), 66U);
    }
  }
  const std::size_t before = server.connectionsAccepted();
  fetchFifty();
  EXPECT_LE(server.connectionsAccepted(), before + 1);
}

TEST_F(JobTrust, connectionsAreReusedFromJobToJob) {
  ScriptedServer server(patternFile(16 * kChunk));
  // Ranges that are cut while they run cost their connections; one connection is alone with its file.
  const std::uint16_t most = adaptivePlan() ? 1 : 4;
  for (int round = 0; round < 10; ++round) {
    DownloadJob job(requestFor(server.url("/file"), path, 16 * kChunk), chunksOf(kChunk, most),
                    support::planUnderTest(kChunk));
    EXPECT_EQ(run(job).state, JobState::Completed);
  }
  if (!adaptivePlan()) {
    EXPECT_EQ(server.requests().size(), 160U);
  }
  EXPECT_LE(server.connectionsAccepted(), most);
}

// ---- Servers without ranges ----

TEST_F(JobTrust, fileFromAServerWithoutRangesIsRightAndFetchedOnce) {
  ScriptedServer server([](const ReceivedRequest& request) {
    // Without its body, which the probe does not wait for: its request must be over when the next one comes.
    if (!adaptivePlan() && request.number == 0) return full200(kSize, {.bodyBytes = 0, .acceptRanges = false});
    return full200(kSize, {.acceptRanges = false});
  });
  DownloadJob job(requestFor(server.url("/file"), path), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(support::bytesAmiss(end.bytesDone, kSize), 0U);
  EXPECT_EQ(end.percent, 100.0F);
  EXPECT_EQ(patternError(path, kSize), "");
  EXPECT_EQ(server.requests().size(), adaptivePlan() ? 1U : 2U) << "the probe and one transfer";
  EXPECT_EQ(server.maxConcurrentRequests(), 1U);
  if (adaptivePlan()) return;
  EXPECT_TRUE(log.contains("doStart | probed | size=" + std::to_string(kSize) + " | ranges=0"));
}

TEST_F(JobTrust, knownSizeWithFourConnectionsToAServerWithoutRangesGivesTheRightFile) {
  ScriptedServer server([](const ReceivedRequest&) { return full200(kSize, {.acceptRanges = false}); });
  for (int round = 0; round < 20; ++round) {
    DownloadJob job(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
    const DownloadSnapshot end = run(job);
    ASSERT_EQ(end.state, JobState::Completed) << round;
    ASSERT_EQ(end.bytesDone, kSize) << round;
    ASSERT_EQ(patternError(path, kSize), "") << round;
  }
  EXPECT_LE(server.requests().size(), 80U) << "at most the four that were on their way";
}

TEST_F(JobTrust, wholeFileInTheMiddleOfRangesGivesTheRightFile) {
  for (std::uint64_t odd = 0; odd < kSize; odd += kChunk) {
    ScriptedServer server([odd](const ReceivedRequest& request) {
      return request.range->first == odd ? full200(kSize) : range206(request, kSize);
    });
    DownloadJob job(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
    ASSERT_EQ(run(job).state, JobState::Completed) << odd;
    ASSERT_EQ(patternError(path, kSize), "") << odd;
  }
}

TEST_F(JobTrust, wholeFileThatBreaksOffIsFetchedAgain) {
  const Tally asked;
  Gate started;  // a first answer before start is over would let it submit another range
  ScriptedServer server([asked, started](const ReceivedRequest&) {
    if (asked.add(0) == 0) return full200(kSize, {.bodyBytes = 3 * kChunk}).waitFor(started).close();
    return full200(kSize);
  });
  const auto job = jobWithoutDelay(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 1));
  job->start();
  started.open();
  EXPECT_EQ(support::waitForEnd(*job).state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
  EXPECT_EQ(asked.of(0), 2U);
}

// ---- Answers of other bytes ----

TEST_F(JobTrust, answerThatStartsElsewhereNeverReachesTheFile) {
  expectRefusedAndRetried(
      [](const ReceivedRequest& request) {
        return range206(request, kSize,
                        {.contentRange = "bytes 0-" + std::to_string(kChunk - 1) + "/" + std::to_string(kSize),
                         .seed = kOtherSeed});
      },
      "Content-Range starts elsewhere");
}

TEST_F(JobTrust, multipartAnswerNeverReachesTheFile) {
  expectRefusedAndRetried(
      [](const ReceivedRequest& request) {
        return range206(request, kSize,
                        {.contentType = "multipart/byteranges; boundary=xyz", .contentRange = "", .seed = kOtherSeed});
      },
      "multipart answer");
}

TEST_F(JobTrust, answerThatAlwaysStartsElsewhereFailsTheJob) {
  ScriptedServer server(
      [](const ReceivedRequest& request) { return range206(request, kSize, {.contentRange = "bytes 1-9/99"}); });
  const auto job = jobWithoutDelay(requestFor(server.url("/file"), path, kChunk), chunksOf(kChunk, 1));
  const DownloadSnapshot end = run(*job);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.errorCode, 33);
  EXPECT_EQ(end.httpStatus, 206);
  EXPECT_EQ(end.bytesDone, 0U);
  EXPECT_EQ(server.requests().size(), adaptivePlan() ? 3U : 4U);
}

TEST_F(JobTrust, totalThatChangesIsFatalAndTheFilesAreNotMixed) {
  const Instead right = [](const ReceivedRequest& request) { return range206(request, kSize); };
  const Instead grown = [](const ReceivedRequest& request) {
    return range206(request, kSize + 1, {.seed = kOtherSeed});
  };
  expectFatalAndUnmixed(0, right, grown, "size of the remote file changed");
}

TEST_F(JobTrust, totalThatChangesIsFatalForAKnownSizeToo) {
  const Instead right = [](const ReceivedRequest& request) { return range206(request, kSize); };
  const Instead grown = [](const ReceivedRequest& request) {
    return range206(request, kSize + 1, {.seed = kOtherSeed});
  };
  expectFatalAndUnmixed(kSize, right, grown, "size of the remote file changed");
}

TEST_F(JobTrust, strongEntityTagThatChangesIsFatalAndTheFilesAreNotMixed) {
  const Instead right = [](const ReceivedRequest& request) { return range206(request, kSize, {.etag = "\"one\""}); };
  const Instead other = [](const ReceivedRequest& request) {
    return range206(request, kSize, {.etag = "\"two\"", .seed = kOtherSeed});
  };
  expectFatalAndUnmixed(kSize, right, other, "entity tag of the remote file changed");
}

TEST_F(JobTrust, weakEntityTagThatIsAnotherInEveryAnswerIsFatal) {
  // No answer to a sample ever carries the tag that is in doubt.
  ScriptedServer server([](const ReceivedRequest& request) {
    return range206(request, kSize, {.etag = "W/\"" + std::to_string(request.range->first) + "\""});
  });
  DownloadJob job(requestFor(server.url("/file"), path), chunksOf(kChunk, 1), support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.errorCode, 33);
  EXPECT_EQ(end.httpStatus, 206);
}

TEST_F(JobTrust, answersWithoutAReadableContentRangeAreTakenAsAsked) {
  for (const char* const value : {"", "garbage", "bytes", "bytes */5", "lines 3-4/5"}) {
    ScriptedServer server(
        [value](const ReceivedRequest& request) { return range206(request, kSize, {.contentRange = value}); });
    DownloadJob job(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
    EXPECT_EQ(run(job).state, JobState::Completed) << value;
    EXPECT_EQ(patternError(path, kSize), "") << value;
  }
}

TEST_F(JobTrust, bytesPastTheRangesEndAreNotWritten) {
  // The first range's answer goes on over the second, which is in the file by then.
  Gate secondIsWritten;
  const std::string excess(5000, 'X');
  ScriptedServer server([&](const ReceivedRequest& request) {
    const auto range = *request.range;
    const std::string head = "HTTP/1.1 206 Partial Content\r\nContent-Length: " + std::to_string(6000) + "\r\n\r\n";
    Reply reply;
    // An adaptive plan asks for the second one when the first is answered, which is refused what goes on over it.
    if (range.first == 0 && !adaptivePlan()) reply.waitFor(secondIsWritten);
    return reply.send(head).sendPattern(range.first, range.first + 1000).send(excess);
  });
  DownloadJob job(requestFor(server.url("/file"), path, 2000), chunksOf(1000, 2), support::planUnderTest(1000));
  job.start();
  ASSERT_TRUE(waitUntil([&] { return job.snapshot().bytesDone >= 1000; }));
  secondIsWritten.open();
  const DownloadSnapshot end = waitForEnd(job);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(support::bytesAmiss(end.bytesDone, 2000U), 0U);
  EXPECT_EQ(patternError(path, 2000), "") << "not over the second range, and not past the end of the file";
}

// ---- Hostile servers ----

TEST_F(JobTrust, wholeFileThatNeverEndsIsCutAtTheKnownSize) {
  ScriptedServer server([](const ReceivedRequest&) {
    return full200(1ULL << 40, {.acceptRanges = false, .framing = support::Framing::UntilClose});
  });
  for (const std::uint16_t connections : std::initializer_list<std::uint16_t>{1, 4}) {
    DownloadJob job(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, connections),
                    support::planUnderTest(kChunk));
    const DownloadSnapshot end = run(job);
    EXPECT_EQ(end.state, JobState::Completed);
    EXPECT_EQ(support::bytesAmiss(end.bytesDone, kSize), 0U);
    EXPECT_EQ(patternError(path, kSize), "");
    EXPECT_TRUE(waitUntil([&] { return server.concurrentRequests() == 0; })) << "nobody goes on listening";
  }
}

TEST_F(JobTrust, rangesThatNeverEndAreCutAtTheirEnds) {
  ScriptedServer server([](const ReceivedRequest& request) {
    return range206(request, kSize, {.bodyBytes = 1ULL << 40, .framing = support::Framing::UntilClose});
  });
  DownloadJob job(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 4), support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(job);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(support::bytesAmiss(end.bytesDone, kSize), 0U);
  EXPECT_EQ(patternError(path, kSize), "");
}

TEST_F(JobTrust, dripBelowTheLowSpeedLimitIsGivenUpAndRetried) {
  DownloadPolicy policy = chunksOf(kSize, 1);
  policy.lowSpeedTimeSec = 1;
  const Tally asked;
  ScriptedServer server([asked](const ReceivedRequest& request) {
    if (asked.add(0) > 0) return range206(request, kSize);
    return range206(request, kSize, {.pace = {10, milliseconds(50)}});
  });
  const auto job = jobWithoutDelay(requestFor(server.url("/file"), path, kSize), policy);
  const DownloadSnapshot end = run(*job);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
  if (adaptivePlan()) {
    EXPECT_EQ(log.count("try again | range=0 | err=28 | http=206"), 1U);
    EXPECT_EQ(support::bytesAmiss(end.bytesDone, kSize), 0U) << "what dripped is kept";
    return;
  }
  EXPECT_TRUE(end.throttled) << "one range, one slow time-out";
  EXPECT_EQ(log.count("retry scheduled | range=0 | attempt=1 | delay_ms=500 | err=28 | http=206"), 1U);
}

TEST_F(JobTrust, headersThatDripForEverAreGivenUpAndRetried) {
  DownloadPolicy policy = chunksOf(kSize, 1);
  policy.lowSpeedTimeSec = 1;
  const Tally asked;
  ScriptedServer server([asked](const ReceivedRequest& request) {
    if (asked.add(0) > 0) return range206(request, kSize);
    std::string lines;
    for (int line = 0; line < 10000; ++line) lines += "X-Filler: 1\r\n";
    return Reply().send("HTTP/1.1 206 Partial Content\r\n").send(lines, {13, milliseconds(50)}).stall();
  });
  const auto job = jobWithoutDelay(requestFor(server.url("/file"), path, kSize), policy);
  EXPECT_EQ(run(*job).state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
  EXPECT_TRUE(log.contains(adaptivePlan() ? "try again | range=0 | err=28"
                                          : "retry scheduled | range=0 | attempt=1 | delay_ms=500 | err=28"));
}

TEST_F(JobTrust, floodOfHeadersFailsTheJob) {
  std::string lines;
  for (int line = 0; line < 20000; ++line) lines += "X-Filler: " + std::string(990, 'x') + "\r\n";
  ScriptedServer server(
      [lines](const ReceivedRequest&) { return Reply().send("HTTP/1.1 206 Partial Content\r\n").send(lines).close(); });
  const auto job = jobWithoutDelay(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 1));
  const DownloadSnapshot end = run(*job);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_NE(end.errorCode, 0);
  EXPECT_EQ(end.bytesDone, 0U);
}

TEST_F(JobTrust, resetAnywhereInAnAnswerIsRecoveredFrom) {
  expectRecovery([](const ReceivedRequest& request) {
    const std::uint64_t after = request.range->first / kChunk * 997 % (*request.range->last - request.range->first + 1);
    return range206(request, kSize, {.bodyBytes = after}).reset();
  });
}

TEST_F(JobTrust, resetBeforeAnyAnswerIsRecoveredFrom) {
  expectRecovery([](const ReceivedRequest&) { return Reply().reset(); });
}

TEST_F(JobTrust, endBeforeAnyAnswerIsRecoveredFrom) {
  // libcurl itself asks once more when a used connection ends so; a connection of its own each makes it tell.
  const Tally asked;
  ScriptedServer server([asked](const ReceivedRequest& request) {
    if (asked.add(request.range->first) == 0) return Reply().close();
    return range206(request, kSize);
  });
  const auto job = jobWithoutDelay(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 4));
  EXPECT_EQ(run(*job).state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
}

TEST_F(JobTrust, redirectLoopFailsTheJob) {
  ScriptedServer server([](const ReceivedRequest& request) { return support::redirect(302, request.path()); });
  DownloadJob known(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 1), support::planUnderTest(kChunk));
  const DownloadSnapshot end = run(known);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.errorCode, 47);
  EXPECT_EQ(end.httpStatus, 302);
  EXPECT_EQ(server.requests().size(), 11U) << "ten redirects";
  EXPECT_TRUE(log.contains("fatal | range=0 | err=47 | http=302"));
  DownloadJob unknown(requestFor(server.url("/file"), path), chunksOf(kChunk, 1), support::planUnderTest(kChunk));
  EXPECT_EQ(run(unknown).errorCode, 47);
  if (adaptivePlan()) {
    EXPECT_EQ(log.count("fatal | range=0 | err=47 | http=302"), 2U);
    return;
  }
  EXPECT_TRUE(log.contains("doStart | probe failed | err=47"));
}

TEST_F(JobTrust, redirectToAnotherPortIsFollowedForTheProbeAndEachRange) {
  ScriptedServer target(patternFile(kSize));
  const std::string url = target.url("/file");
  ScriptedServer server([url](const ReceivedRequest&) {
    // Without a length of its own: the probe takes the first one it finds for the file's.
    return Reply().send("HTTP/1.1 302 Found\r\nLocation: " + url + "\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n");
  });
  DownloadJob job(requestFor(server.url("/here"), path), chunksOf(kChunk, 3), support::planUnderTest(kChunk));
  EXPECT_EQ(run(job).state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
  if (adaptivePlan()) {
    EXPECT_LE(target.requests().size(), server.requests().size()) << "some may be given up on the way";
    EXPECT_GE(target.requests().size(), 2U);
    return;
  }
  EXPECT_EQ(target.requests().size(), 10U) << "the probe and nine ranges";
}

TEST_F(JobTrust, redirectToAnotherProtocolFailsTheJob) {
  for (const char* const location : {"ftp://127.0.0.1/file", "file:///etc/hostname"}) {
    ScriptedServer server([location](const ReceivedRequest&) { return support::redirect(302, location); });
    DownloadJob job(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 1), support::planUnderTest(kChunk));
    const DownloadSnapshot end = run(job);
    EXPECT_EQ(end.state, JobState::Failed) << location;
    EXPECT_EQ(end.errorCode, 1) << location;
    EXPECT_EQ(end.bytesDone, 0U) << location;
  }
}

TEST_F(JobTrust, nonsenseInPlaceOfAnAnswerFailsTheJob) {
  for (const char* const nonsense : {"hello\r\n\r\n", "HTTP/1.1 abc\r\n\r\n", "\r\n\r\n", "HTTP/9.9 206 ?\r\n\r\n"}) {
    ScriptedServer server([nonsense](const ReceivedRequest&) { return Reply().send(nonsense).close(); });
    const auto job = jobWithoutDelay(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 2));
    const DownloadSnapshot end = run(*job);
    EXPECT_EQ(end.state, JobState::Failed) << nonsense;
    EXPECT_NE(end.errorCode, 0) << nonsense;
    EXPECT_EQ(end.bytesDone, 0U) << nonsense;
  }
}

}  // namespace
