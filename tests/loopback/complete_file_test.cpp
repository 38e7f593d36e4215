// What a job makes of servers that disagree with themselves about a file: Completed means exactly the bytes of one
// version of it, and everything else is a failure that says why.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "download_job_impl.h"
#include "steady_time.h"
#include "support/gate.h"
#include "support/job_run.h"
#include "support/log_line.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace {

using support::adaptivePlan;
using support::chunksOf;
using support::Framing;
using support::full200;
using support::Gate;
using support::Handler;
using support::patternBytes;
using support::patternError;
using support::patternFile;
using support::range206;
using support::ReceivedRequest;
using support::Reply;
using support::ReplyOptions;
using support::requestFor;
using support::ScriptedServer;
using support::Tally;
using support::waitForEnd;
using support::waitUntil;
using xfer::DownloadPolicy;
using xfer::DownloadSnapshot;
using xfer::JobState;
using Job = xfer::DownloadJob::Impl;

constexpr std::uint64_t kChunk = 64 * 1024;
constexpr std::uint64_t kSize = 8 * kChunk + 9;
constexpr std::uint64_t kMiB = 1 << 20;
constexpr std::uint64_t kOtherSeed = 7;

// Asked for once an earlier range has been delivered.  Of an adaptive plan only the first range is where it is said to
// be: what is odd there is everything behind it.
const std::uint64_t kOddRange = adaptivePlan() ? kChunk : 5 * kChunk;

constexpr int kWeirdReply = 8;
constexpr int kPartial = 18;
constexpr int kOtherFile = 33;

// Of an adaptive plan: the first range, whose answer tells the size.
bool isProbe(const ReceivedRequest& request) {
  return request.range && request.range->first == 0 && request.range->last == (adaptivePlan() ? kChunk - 1 : 0);
}

std::uint64_t startOf(const ReceivedRequest& request) {
  return request.range ? request.range->first : 0;
}

// A 206 with at most cap bytes of what is asked for, and a Content-Range that says so.
Reply capped206(const ReceivedRequest& request, std::uint64_t total, std::uint64_t cap, ReplyOptions options = {},
                const std::string& namedTotal = "") {
  const std::uint64_t from = startOf(request);
  const std::uint64_t last =
      request.range && request.range->last ? std::min(*request.range->last, total - 1) : total - 1;
  const std::uint64_t bytes = std::min(cap, last + 1 - from);
  options.bodyBytes = bytes;
  options.announced = bytes;
  options.contentRange = "bytes " + std::to_string(from) + "-" +
                         std::to_string(from + std::max<std::uint64_t>(bytes, 1) - 1) + "/" +
                         (namedTotal.empty() ? std::to_string(total) : namedTotal);
  return range206(request, total, options);
}

bool isOdd(const ReceivedRequest& request) {
  return adaptivePlan() ? startOf(request) != 0 : startOf(request) == kOddRange;
}

std::string inChunks(const std::string& bytes, const std::string& trailers = "") {
  std::string coded;
  constexpr std::size_t kEach = 10'000;
  for (std::size_t from = 0; from < bytes.size(); from += kEach) {
    const std::string piece = bytes.substr(from, kEach);
    char size[24];
    std::snprintf(size, sizeof size, "%zx\r\n", piece.size());
    coded += size + piece + "\r\n";
  }
  return coded + "0\r\n" + trailers + "\r\n";
}

// What the log says of a failure that another try follows.
const char* const kAnotherTry = adaptivePlan() ? "try again" : "retry scheduled";

struct Setup {
  std::uint16_t connections;
  bool knownSize;
};

class CompleteFile : public testing::TestWithParam<Setup> {
 protected:
  void TearDown() override {
    if (HasFailure()) support::tell(log);
  }

  // The real engine; only the delays before further attempts are left out.
  std::unique_ptr<Job> jobOf(const ScriptedServer& server, std::uint64_t knownSize, const DownloadPolicy& policy) {
    xfer::JobEnvironment environment = xfer::realJobEnvironment();
    environment.waitForRetry = [](std::uint64_t, xfer::StopSignal&) {};
    environment.nowNs = [haste = haste] { return haste * xfer::steadyNs(); };
    return std::make_unique<Job>(requestFor(server.url("/file"), path, knownSize), policy, environment,
                                 support::planOfTries(tries, policy.initialChunkSize).values());
  }

  std::unique_ptr<Job> jobOf(const ScriptedServer& server, std::uint64_t size = kSize) {
    return jobOf(server, GetParam().knownSize ? size : 0, ranges());
  }

  static DownloadPolicy ranges() { return chunksOf(kChunk, GetParam().connections); }

  void expectWhole(Job& job, std::uint64_t size = kSize, std::uint64_t seed = 0) {
    expectWhole(support::run(job), size, seed);
  }
  void expectWhole(const DownloadSnapshot& end, std::uint64_t size, std::uint64_t seed) {
    EXPECT_EQ(end.state, JobState::Completed);
    EXPECT_EQ(end.errorCode, 0);
    EXPECT_EQ(patternError(path, size, seed), "");
  }

  void expectFailed(Job& job, int code, int status) {
    const DownloadSnapshot end = support::run(job);
    EXPECT_EQ(end.state, JobState::Failed);
    EXPECT_EQ(end.errorCode, code);
    EXPECT_EQ(end.httpStatus, status);
  }

  // A good range server, but for what it answers to one range that is asked for after others were delivered.
  Handler oddAnswer(std::function<Reply(const ReceivedRequest&)> odd) {
    return [odd = std::move(odd)](const ReceivedRequest& request) {
      return isOdd(request) || request.path() != "/file" ? odd(request) : range206(request, kSize);
    };
  }

  void expectOtherFile(const Handler& handler, int status = 200) {
    const ScriptedServer server(handler);
    const auto job = jobOf(server);
    expectFailed(*job, kOtherFile, status);
    EXPECT_FALSE(log.contains(kAnotherTry));
  }

  // One recovery of this text since the last look.
  void expectRecovery(const std::string& text) {
    EXPECT_EQ(logError(log, support::recovery(support::kJob, text)), "");
    log.clear();
  }

  std::uint32_t tries = 3;  // of an adaptive plan, that bring nothing
  std::uint64_t haste = 1;  // so many times as fast the delays of an adaptive plan pass
  support::RecordingLogger log;
  const support::TempDir folder;
  const std::string path = folder.file("out.bin");
};

std::string nameOf(const testing::TestParamInfo<Setup>& info) {
  return std::to_string(info.param.connections) + (info.param.knownSize ? "Known" : "Unknown");
}

INSTANTIATE_TEST_SUITE_P(Jobs, CompleteFile,
                         testing::Values(Setup{1, false}, Setup{4, false}, Setup{1, true}, Setup{4, true}), nameOf);

class CompleteFileOfUnknownSize : public CompleteFile {};
INSTANTIATE_TEST_SUITE_P(Jobs, CompleteFileOfUnknownSize, testing::Values(Setup{1, false}, Setup{4, false}), nameOf);

class CompleteFileOfKnownSize : public CompleteFile {};
INSTANTIATE_TEST_SUITE_P(Jobs, CompleteFileOfKnownSize, testing::Values(Setup{1, true}, Setup{4, true}), nameOf);

// ---- The final answer counts ----

TEST_P(CompleteFile, redirectWithABodyToAServerWithoutRangesBringsTheWholeFile) {
  constexpr std::uint64_t size = 5 * kMiB;
  for (const Framing framing : {Framing::ContentLength, Framing::Chunked, Framing::UntilClose}) {
    if (framing == Framing::UntilClose && GetParam().knownSize) continue;  // cut where it is known to end
    const ScriptedServer server([framing](const ReceivedRequest& request) {
      if (request.path() == "/file") return support::status(302, std::string(145, 'r'), {"Location: /there"});
      return full200(size, {.acceptRanges = false, .framing = framing});
    });
    const auto job = jobOf(server, size);
    expectWhole(*job, size);
  }
}

TEST_P(CompleteFile, redirectWithABodyToARangeServerBringsTheWholeFile) {
  const ScriptedServer server([](const ReceivedRequest& request) {
    if (request.path() == "/file") return support::status(302, std::string(145, 'r'), {"Location: /there"});
    return range206(request, kSize);
  });
  const auto job = jobOf(server);
  expectWhole(*job);
}

TEST_P(CompleteFile, fieldWhoseNameEndsLikeAnotherSaysNothing) {
  for (const Framing framing : {Framing::ContentLength, Framing::Chunked}) {
    const ScriptedServer server([framing](const ReceivedRequest&) {
      return full200(kSize, {.headers = {"X-Stored-Content-Length: 100", "X-Content-Range: bytes 0-9/10"},
                             .acceptRanges = false,
                             .framing = framing});
    });
    const auto job = jobOf(server);
    expectWhole(*job);
  }
}

TEST_P(CompleteFile, trailersOfAChunkedBodySayNothing) {
  const std::string trailers =
      "Content-Range: bytes 5-6/7\r\nETag: \"two\"\r\nContent-Length: 3\r\nLast-Modified: never\r\nHTTP/1.1 404: "
      "Gone\r\n";
  const ScriptedServer server([trailers](const ReceivedRequest& request) {
    const std::uint64_t from = startOf(request);
    const std::uint64_t to = std::min(request.range->last.value_or(kSize - 1), kSize - 1) + 1;
    return Reply()
        .send("HTTP/1.1 206 Partial Content\r\nTransfer-Encoding: chunked\r\nETag: \"one\"\r\nContent-Range: bytes " +
              std::to_string(from) + "-" + std::to_string(to - 1) + "/" + std::to_string(kSize) + "\r\n\r\n")
        .send(inChunks(patternBytes(from, to), trailers));
  });
  const auto job = jobOf(server);
  expectWhole(*job);
}

TEST_P(CompleteFile, trailersOfAWholeFileSayNothing) {
  const std::string trailers = "Content-Range: bytes 5-6/7\r\nContent-Length: 3\r\nHTTP/1.1 404: Gone\r\n";
  const ScriptedServer server([trailers](const ReceivedRequest&) {
    return Reply()
        .send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
        .send(inChunks(patternBytes(0, kSize), trailers));
  });
  const auto job = jobOf(server);
  expectWhole(*job);
}

// ---- Lengths that say nothing ----

TEST_P(CompleteFile, lengthBesideAChunkedWholeFileSaysNothing) {
  for (const char* const length : {"123456", "3", "99999999999999999999999"}) {
    for (const bool lengthFirst : {true, false}) {
      const std::string field = std::string("Content-Length: ") + length + "\r\n";
      const std::string coding = "Transfer-Encoding: chunked\r\n";
      const ScriptedServer server([head = lengthFirst ? field + coding : coding + field](const ReceivedRequest&) {
        return Reply().send("HTTP/1.1 200 OK\r\n" + head + "\r\n").send(inChunks(patternBytes(0, kSize)));
      });
      const auto job = jobOf(server);
      expectWhole(*job);
    }
  }
}

// Not every libcurl reads such a body to its end; what is left on the connection then spoils the next answer there (8).
TEST_P(CompleteFile, lengthOfZeroBesideAChunkedBodyIsRefused) {
  tries = 1;
  for (const bool whole : {true, false}) {
    const ScriptedServer server([whole](const ReceivedRequest& request) {
      const std::string head = "Content-Length: 0\r\nTransfer-Encoding: chunked\r\n\r\n";
      if (isProbe(request)) return range206(request, kSize);
      if (whole) return Reply().send("HTTP/1.1 200 OK\r\n" + head).send(inChunks(patternBytes(0, kSize)));
      const std::uint64_t from = request.range->first;
      return Reply().send("HTTP/1.1 206 Partial Content\r\n" + head).send(inChunks(patternBytes(from, from + 10)));
    });
    const auto job = jobOf(server);
    const DownloadSnapshot end = support::run(*job);
    EXPECT_EQ(end.state, JobState::Failed) << whole;
    EXPECT_TRUE(end.errorCode == kOtherFile || end.errorCode == kWeirdReply) << end.errorCode;
  }
}

TEST_P(CompleteFile, lengthBesideAChunkedRangeSaysNothing) {
  for (const char* const length : {"123456", "3"}) {
    const ScriptedServer server([length](const ReceivedRequest& request) {
      return range206(request, kSize,
                      {.headers = {std::string("Content-Length: ") + length}, .framing = Framing::Chunked});
    });
    const auto job = jobOf(server);
    expectWhole(*job);
  }
}

TEST_P(CompleteFile, lengthsThatDifferAreRefused) {
  tries = 1;
  for (const char* const other : {"3", "123456", "524299"}) {
    const std::string field = std::string("Content-Length: ") + other;
    for (const bool whole : {true, false}) {
      const ScriptedServer server([field, whole](const ReceivedRequest& request) {
        if (isProbe(request)) return range206(request, kSize);
        const ReplyOptions options{.headers = {field}};
        return (whole ? full200(kSize, options) : range206(request, kSize, options)).close();
      });
      const auto job = jobOf(server);
      const DownloadSnapshot end = support::run(*job);
      EXPECT_EQ(end.state, JobState::Failed) << field;
      // Some versions of libcurl refuse such an answer themselves.
      EXPECT_TRUE(end.errorCode == kOtherFile || end.errorCode == kWeirdReply) << end.errorCode << field;
    }
  }
}

// ---- Another file in between ----

TEST_P(CompleteFile, loginPageInPlaceOfARangeIsFatal) {
  expectOtherFile(oddAnswer([](const ReceivedRequest&) { return support::status(200, std::string(520, 'l')); }));
}

TEST_P(CompleteFile, loginPageBehindARedirectIsFatal) {
  expectOtherFile(oddAnswer([](const ReceivedRequest& request) {
    if (request.path() == "/file") return support::status(302, std::string(145, 'r'), {"Location: /login"});
    return support::status(200, std::string(520, 'l'));
  }));
}

TEST_P(CompleteFile, emptyAnswerInPlaceOfARangeIsFatal) {
  expectOtherFile(oddAnswer([](const ReceivedRequest&) { return support::status(200); }));
}

TEST_P(CompleteFile, longerFileInPlaceOfARangeIsFatal) {
  expectOtherFile(oddAnswer([](const ReceivedRequest&) { return full200(kSize + 1, {.seed = kOtherSeed}); }));
}

TEST_P(CompleteFile, longerFileWithoutALengthInPlaceOfARangeIsFatal) {
  for (const Framing framing : {Framing::Chunked, Framing::UntilClose}) {
    expectOtherFile(oddAnswer(
        [framing](const ReceivedRequest&) { return full200(kSize + 1, {.framing = framing, .seed = kOtherSeed}); }));
  }
}

TEST_P(CompleteFile, shorterFileWhoseCodingMarksItsEndInPlaceOfARangeIsFatal) {
  for (const std::uint64_t size : {std::uint64_t{520}, kOddRange + 10, kSize - 1}) {
    expectOtherFile(oddAnswer(
        [=](const ReceivedRequest&) { return full200(size, {.framing = Framing::Chunked, .seed = kOtherSeed}); }));
  }
}

// The connection may have broken.
TEST_P(CompleteFile, shorterFileThatEndsWithItsConnectionInPlaceOfARangeIsAFailedTry) {
  tries = 2;
  for (const std::uint64_t size : {std::uint64_t{520}, kOddRange + 10, kSize - 1}) {
    log.clear();
    const ScriptedServer server(oddAnswer(
        [=](const ReceivedRequest&) { return full200(size, {.framing = Framing::UntilClose, .seed = kOtherSeed}); }));
    const auto job = jobOf(server);
    expectFailed(*job, kPartial, 200);
    EXPECT_EQ(log.count(kAnotherTry), adaptivePlan() ? tries - 1 : 3U);
  }
}

// One range is answered late, and with something else: when the others are in the file, but for those in alsoLate.
class LateAnswer : public CompleteFile {
 protected:
  static constexpr std::uint64_t kLate = kChunk;

  template <class Outcome>
  void run(const std::function<Reply(Reply)>& late, std::optional<std::uint64_t> alsoLate, Outcome outcome) {
    Gate othersAreDone;
    const Tally asked;
    const ScriptedServer server([=](const ReceivedRequest& request) {
      if (isProbe(request)) return range206(request, kSize);
      const std::uint64_t start = startOf(request);
      const bool first = asked.add(start) == 0;
      if (first && start == kLate) return late(Reply().waitFor(othersAreDone));
      if (first && start == alsoLate) return Reply().stall();
      return range206(request, kSize);
    });
    const auto job = jobOf(server);
    job->start();
    // An adaptive plan would move the rest of a range that is answered so late to others.
    const std::uint64_t others = adaptivePlan() ? kChunk : kSize - kChunk - (alsoLate ? kChunk : 0);
    ASSERT_TRUE(waitUntil([&] { return job->snapshot().bytesDone >= others; }));
    othersAreDone.open();
    outcome(waitForEnd(*job));
  }
};

INSTANTIATE_TEST_SUITE_P(Jobs, LateAnswer, testing::Values(Setup{4, false}, Setup{4, true}), nameOf);

TEST_P(LateAnswer, longerFileWithoutALengthIsFatalThoughTheLastRangeIsDelivered) {
  run(
      [](Reply reply) {
        return reply.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
            .send(inChunks(patternBytes(0, kSize + 1, kOtherSeed)));
      },
      std::nullopt,
      [this](const DownloadSnapshot& end) {
        // A transfer that was cut meanwhile is not asked what the file is: its range is fetched again.
        if (adaptivePlan() && end.state == JobState::Completed) return expectWhole(end, kSize, 0);
        EXPECT_EQ(end.state, JobState::Failed);
        EXPECT_EQ(end.errorCode, kOtherFile);
        EXPECT_EQ(end.httpStatus, 200);
      });
}

TEST_P(LateAnswer, shorterFileWithoutALengthIsFatalThoughTheLastRangeIsDelivered) {
  run(
      [](Reply reply) {
        return reply.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
            .send(inChunks(patternBytes(0, 3 * kChunk, kOtherSeed)));
      },
      std::nullopt,
      [this](const DownloadSnapshot& end) {
        // A transfer that was cut meanwhile is not asked what the file is: its range is fetched again.
        if (adaptivePlan() && end.state == JobState::Completed) return expectWhole(end, kSize, 0);
        EXPECT_EQ(end.state, JobState::Failed);
        EXPECT_EQ(end.errorCode, kOtherFile);
        EXPECT_EQ(end.httpStatus, 200);
      });
}

TEST_P(LateAnswer, wholeFileThatBreaksOffLeavesWhatWasDeliveredAsItWas) {
  run(
      [](Reply reply) {
        return reply.send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n100000\r\n")
            .sendPattern(0, 4 * kChunk, {}, kOtherSeed)
            .close();
      },
      7 * kChunk, [this](const DownloadSnapshot& end) { expectWhole(end, kSize, 0); });
}

TEST_P(LateAnswer, wholeFilesOfTwoLengthsAreNotMixed) {
  const Tally asked;
  Gate firstHasFailed;
  const ScriptedServer server([asked, firstHasFailed](const ReceivedRequest& request) {
    if (isProbe(request)) return full200(kSize);
    if (startOf(request) != 0) {
      return Reply()
          .waitFor(firstHasFailed)
          .send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kSize) + "\r\n\r\n")
          .sendPattern(0, kSize);
    }
    if (asked.add(0) == 0) return support::status(503);
    return full200(kSize + 1, {.framing = Framing::Chunked, .seed = kOtherSeed});
  });
  Gate restIsDone;
  xfer::JobEnvironment environment = xfer::realJobEnvironment();
  environment.waitForRetry = [restIsDone](std::uint64_t, xfer::StopSignal&) { static_cast<void>(restIsDone.wait()); };
  Job job(requestFor(server.url("/file"), path, GetParam().knownSize ? kSize : 0), ranges(), environment,
          support::planUnderTest(ranges().initialChunkSize).values());
  job.start();
  EXPECT_TRUE(log.waitFor("retry scheduled | range=0"));
  firstHasFailed.open();
  EXPECT_TRUE(waitUntil([&] { return job.snapshot().bytesDone == kSize - kChunk; }));
  restIsDone.open();
  const DownloadSnapshot end = waitForEnd(job);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.errorCode, kOtherFile);
}

// ---- Unknown size: the end of the last try counts ----

TEST_P(CompleteFileOfUnknownSize, secondTryThatIsShorterThanTheBrokenFirstIsTheFile) {
  constexpr std::uint64_t broken = 800'000;
  constexpr std::uint64_t whole = 500'000;
  for (const Framing framing : {Framing::Chunked, Framing::ContentLength, Framing::UntilClose}) {
    const Tally asked;
    const ScriptedServer server([=](const ReceivedRequest& request) {
      const bool probe = isProbe(request) && !adaptivePlan();
      const std::size_t before = asked.add(probe ? 1 : 0);
      if (probe || before == 0) {
        // A body that is closed in an orderly way has ended, unless its length or its coding says otherwise.
        const ReplyOptions options{.bodyBytes = broken, .acceptRanges = false, .seed = kOtherSeed};
        if (framing != Framing::Chunked) return full200(kMiB, options).close();
        return Reply()
            .send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n100000\r\n")
            .sendPattern(0, broken, {}, kOtherSeed)
            .close();
      }
      return full200(whole, {.acceptRanges = false, .framing = framing});
    });
    const auto job = jobOf(server);
    if (framing == Framing::UntilClose) {
      expectFailed(*job, kPartial, 200);  // nothing shows that this body was not cut: a longer one was announced
    } else {
      expectWhole(*job, whole);
    }
  }
}

#ifndef _WIN32  // a reset looks like an orderly end there
TEST_P(CompleteFileOfUnknownSize, closeThatEndsAWholeFileAfterABrokenTryIsItsEnd) {
  const Tally asked;
  const ScriptedServer server([asked](const ReceivedRequest& request) {
    const bool first = (adaptivePlan() || !isProbe(request)) && asked.add(0) == 0;
    if (!first) return full200(500'000, {.acceptRanges = false, .framing = Framing::UntilClose});
    return Reply().send("HTTP/1.1 200 OK\r\n\r\n").sendPattern(0, 800'000, {}, kOtherSeed).reset();
  });
  const auto job = jobOf(server);
  expectWhole(*job, 500'000);
}
#endif

// ---- Servers that send less of a range than asked ----

TEST_P(CompleteFile, serverThatCapsItsRangesIsServedRightWithoutARetry) {
  constexpr std::uint64_t size = 9 * kMiB + 5;
  DownloadPolicy ramp;
  ramp.numThreads = GetParam().connections;
  for (const DownloadPolicy& policy : {ramp, chunksOf(4 * kMiB, GetParam().connections)}) {
    for (const std::uint64_t cap : {kChunk, kMiB, 3 * kMiB}) {
      const ScriptedServer server([cap](const ReceivedRequest& request) { return capped206(request, size, cap); });
      const auto job = jobOf(server, GetParam().knownSize ? size : 0, policy);
      expectWhole(*job, size);
      EXPECT_FALSE(log.contains(kAnotherTry));
      log.clear();
    }
  }
}

TEST_P(CompleteFile, serverThatNamesMoreOfARangeThanItSendsIsAskedForTheRest) {
  const ScriptedServer server([](const ReceivedRequest& request) {
    const std::uint64_t asked = std::min(request.range->last.value_or(kSize - 1), kSize - 1) + 1 - startOf(request);
    const std::uint64_t bytes = std::min<std::uint64_t>(asked, 20'000);
    return range206(request, kSize, {.announced = bytes, .bodyBytes = bytes});
  });
  const auto job = jobOf(server);
  expectWhole(*job);
  EXPECT_FALSE(log.contains(kAnotherTry));
  expectRecovery("onTransferDone | server sends less of a range than asked | range=# | asked=# | got=20000");
}

TEST_P(CompleteFileOfKnownSize, capWhereNothingSaysThatTheFileGoesOnCutsTheFile) {
  constexpr std::uint64_t cap = 20'000;
  const ScriptedServer server([](const ReceivedRequest& request) {
    // A range of an adaptive plan goes as far as the file is known to.
    const std::uint64_t left = 7 * kChunk + cap - std::min(startOf(request), 7 * kChunk + cap - 1);
    const bool last = startOf(request) == 7 * kChunk;
    return capped206(request, 8 * kChunk, adaptivePlan() ? left : last ? cap : kChunk, {}, "*");
  });
  // Where an adaptive plan begins another range is a matter of time, and one behind the file's end fails the job.
  DownloadPolicy policy = ranges();
  if (adaptivePlan()) policy.numThreads = 1;
  const auto job = jobOf(server, 8 * kChunk, policy);
  expectWhole(*job, 7 * kChunk + cap);
}

TEST_P(CompleteFileOfKnownSize, capsWhereNothingSaysThatTheFileGoesOnNeverLeaveAHole) {
  const ScriptedServer server(
      [](const ReceivedRequest& request) { return capped206(request, kSize, kChunk - 1, {}, "*"); });
  const auto job = jobOf(server);
  expectFailed(*job, kPartial, 206);
}

TEST_P(CompleteFileOfUnknownSize, capWhereNothingSaysThatTheFileGoesOnCutsTheFile) {
  const ScriptedServer server(
      [](const ReceivedRequest& request) { return capped206(request, kSize, 20'000, {}, "*"); });
  const auto job = jobOf(server);
  expectWhole(*job, 20'000);
}

TEST_P(CompleteFileOfUnknownSize, capOfAnAnswerThatFirstNamesTheSizeIsFollowedByTheRest) {
  const ScriptedServer server([](const ReceivedRequest& request) {
    return capped206(request, kSize, kChunk, {}, isProbe(request) ? "*" : "");
  });
  const auto job = jobOf(server);
  expectWhole(*job);
  EXPECT_FALSE(log.contains(kAnotherTry));
}

TEST_P(CompleteFile, tenSmallAnswersInARowCountAsAFailedTry) {
  constexpr std::uint64_t kSmall = 1023;
  const Tally asked;
  const ScriptedServer server([asked](const ReceivedRequest& request) {
    if (isProbe(request)) return range206(request, kSize);
    const std::uint64_t start = startOf(request);
    const bool small = start >= kOddRange && start < kOddRange + 10 * kSmall;
    if (small) asked.add(0);
    return capped206(request, kSize, small ? kSmall : kChunk);
  });
  const auto job = jobOf(server);
  expectWhole(*job);
  if (adaptivePlan()) {
    // Small answers to some connections are not in a row when others get more.
    if (GetParam().connections > 1) return;
    EXPECT_EQ(asked.of(0), 10U);
    const std::string range = std::to_string(kOddRange + 9 * kSmall);
    EXPECT_EQ(log.count("try again"), 1U);
    EXPECT_EQ(log.count("try again | range=" + range + " | err=18 | http=206"), 1U);
    return;
  }
  EXPECT_EQ(asked.of(0), 10U);
  EXPECT_EQ(log.count("retry scheduled"), 1U);
  EXPECT_EQ(log.count("retry scheduled | range=" + std::to_string(kOddRange) +
                      " | attempt=1 | delay_ms=500 | err=18 | http=206"),
            1U);
}

TEST_P(CompleteFile, nineSmallAnswersInARowCostNoTry) {
  const ScriptedServer server([](const ReceivedRequest& request) {
    if (isProbe(request)) return range206(request, kSize);
    const std::uint64_t step = (adaptivePlan() ? startOf(request) - kChunk : startOf(request) % kChunk) % 10'024;
    return capped206(request, kSize, step < 9 * 1000 ? 1000 : 1024);
  });
  const auto job = jobOf(server);
  expectWhole(*job);
  EXPECT_FALSE(log.contains(kAnotherTry));
}

TEST_P(CompleteFile, smallAnswersForEverFailTheJobAfterFourTries) {
  const Tally asked;
  const ScriptedServer server([asked](const ReceivedRequest& request) {
    if (isProbe(request)) return range206(request, kSize);
    const bool small = adaptivePlan() || startOf(request) / kChunk == 5;
    if (small) asked.add(0);
    return capped206(request, kSize, small ? 1 : kChunk);
  });
  haste = 20;
  const auto job = jobOf(server);
  expectFailed(*job, kPartial, 206);
  if (adaptivePlan()) {
    EXPECT_GE(asked.of(0), 40U) << "a byte is a 16384th of what makes up for a try, and nothing of the last one's";
    EXPECT_GE(log.count("try again"), 3U) << "those that go out together count as one";
    return;
  }
  EXPECT_EQ(asked.of(0), 40U);
  EXPECT_EQ(log.count("retry scheduled"), 3U);
}

TEST_P(CompleteFile, answerOfNoBytesIsAFailedTry) {
  const Tally asked;
  const ScriptedServer server([asked](const ReceivedRequest& request) {
    const bool empty = isOdd(request) && asked.add(0) < (adaptivePlan() ? 2 : 3);
    return capped206(request, kSize, empty ? 0 : kChunk);
  });
  const auto job = jobOf(server);
  expectWhole(*job);
  if (adaptivePlan()) {
    EXPECT_EQ(log.count("try again"), 2U);
    return;
  }
  EXPECT_EQ(asked.of(0), 4U);
  EXPECT_EQ(log.count("retry scheduled"), 3U);
}

TEST_P(CompleteFile, answersOfNoBytesForEverFailTheJob) {
  const Tally asked;
  const ScriptedServer server([asked](const ReceivedRequest& request) {
    const bool empty = isOdd(request);
    if (empty) asked.add(0);
    return capped206(request, kSize, empty ? 0 : kChunk);
  });
  const auto job = jobOf(server);
  expectFailed(*job, kPartial, 206);
  if (adaptivePlan()) {
    EXPECT_GE(asked.of(0), tries);
    EXPECT_LE(asked.of(0), tries * GetParam().connections) << "tries that go out together count as one";
    return;
  }
  EXPECT_EQ(asked.of(0), 4U);
}

TEST_P(CompleteFileOfUnknownSize, answersOfNoBytesToARequestForTheWholeFileFailTheJob) {
  const Tally asked;
  const ScriptedServer server([asked](const ReceivedRequest& request) {
    if (isProbe(request)) return range206(request, kSize, {.contentRange = ""});
    asked.add(0);
    return range206(request, kSize, {.contentRange = "", .announced = 0, .bodyBytes = 0});
  });
  const auto job = jobOf(server);
  expectFailed(*job, kPartial, 206);
  EXPECT_EQ(asked.of(0), adaptivePlan() ? tries : 4U);
}

// ---- The remote file is replaced by one of the same size ----

// Which field tells the version, and its two values.
struct Telling {
  const char* name;
  const char* one;
  const char* other;
  const char* third;
};
constexpr Telling kTelling[] = {{"Last-Modified", "Mon, 02 Nov 2026 10:00:00 GMT", "Mon, 02 Nov 2026 11:00:00 GMT",
                                 "Mon, 02 Nov 2026 12:00:00 GMT"},
                                {"ETag", "W/\"one\"", "W/\"other\"", "W/\"third\""}};

class ReplacedFile : public CompleteFile {
 protected:
  // Answers with the version that is there; another one takes its place when a later range is asked for.
  static Handler replacedWith(const Telling& telling, std::uint64_t seed) {
    const auto replaced = std::make_shared<std::atomic<bool>>(false);
    return [=](const ReceivedRequest& request) {
      if (isOdd(request)) *replaced = true;
      return *replaced ? ofVersion(request, telling.name, telling.other, seed)
                       : ofVersion(request, telling.name, telling.one, 0);
    };
  }

  static Reply ofVersion(const ReceivedRequest& request, const std::string& name, const std::string& value,
                         std::uint64_t seed, std::uint64_t cap = kSize) {
    return capped206(request, kSize, cap, {.headers = {name + ": " + value}, .seed = seed});
  }

  // A request for a part of what was delivered.
  static bool isSample(const ReceivedRequest& request) {
    if (adaptivePlan()) return !isProbe(request) && startOf(request) < kChunk;
    return !isProbe(request) && startOf(request) < 8 * kChunk &&
           *request.range->last + 1 - startOf(request) <= kChunk / 4;
  }

  // As replacedWith, but the sample's requests are answered by the test.
  static Handler sampledBy(const Telling& telling, std::function<Reply(const ReceivedRequest&)> sample) {
    return [ranges = replacedWith(telling, 0), sample = std::move(sample)](const ReceivedRequest& request) {
      return isSample(request) ? sample(request) : ranges(request);
    };
  }
};

INSTANTIATE_TEST_SUITE_P(Jobs, ReplacedFile,
                         testing::Values(Setup{1, false}, Setup{4, false}, Setup{1, true}, Setup{4, true}), nameOf);

TEST_P(ReplacedFile, isFatalWhenASampleDiffers) {
  for (const Telling& telling : kTelling) {
    expectOtherFile(replacedWith(telling, kOtherSeed), 206);
    const char* const text = "onTransferDone | remote file changed: a sample differs | start=# | end=#";
    EXPECT_EQ(logError(log, support::failure(support::kJob, text)), "");
    log.clear();
  }
}

TEST_P(ReplacedFile, completesWhenOnlyItsValidatorChanged) {
  for (const Telling& telling : kTelling) {
    const ScriptedServer server(replacedWith(telling, 0));
    const auto job = jobOf(server);
    expectWhole(*job);
    if (adaptivePlan()) {
      // Ranges may move meanwhile, which is said too.
      EXPECT_EQ(log.count("onHead | validator changed, a sample will tell"), 1U);
      EXPECT_EQ(log.count("onTransferDone | samples are equal, going on"), 1U);
      log.clear();
      continue;
    }
    EXPECT_EQ(
        wholeLogError(recordsUpTo(log, 4),
                      {support::recovery(support::kJob, "onHead | validator changed, a sample will tell | range=#"),
                       support::recovery(support::kJob, "onTransferDone | samples are equal, going on | samples=#")}),
        "");
    log.clear();
  }
}

TEST_P(ReplacedFile, completesFromTwoMirrorsThatDisagreeOnTheValidator) {
  for (const Telling& telling : kTelling) {
    const ScriptedServer server([&telling](const ReceivedRequest& request) {
      return ofVersion(request, telling.name, request.number % 2 == 0 ? telling.one : telling.other, 0);
    });
    const auto job = jobOf(server);
    expectWhole(*job);
    EXPECT_EQ(log.count("samples are equal"), 1U) << "both validators are known from then on";
    log.clear();
  }
}

TEST_P(ReplacedFile, isFatalWhenTheSampleIsOfYetAnotherVersion) {
  for (const Telling& telling : kTelling) {
    expectOtherFile(sampledBy(telling,
                              [&telling](const ReceivedRequest& request) {
                                return ofVersion(request, telling.name, telling.third, 0);
                              }),
                    206);
    EXPECT_TRUE(log.contains("reason=sample is not of the version in doubt"));
  }
}

TEST_P(ReplacedFile, isFatalWhenTheSampleNamesAnotherSize) {
  const Telling& telling = kTelling[0];
  expectOtherFile(sampledBy(telling,
                            [&telling](const ReceivedRequest& request) {
                              return range206(request, kSize + 1,
                                              {.headers = {std::string(telling.name) + ": " + telling.other}});
                            }),
                  206);
}

TEST_P(ReplacedFile, sampleThatMeetsABusyServerIsAskedForAgain) {
  const Telling& telling = kTelling[0];
  const Tally asked;
  const ScriptedServer server(sampledBy(telling, [&telling, asked](const ReceivedRequest& request) {
    if (asked.add(0) < 3) return support::status(503, "busy");
    return ofVersion(request, telling.name, telling.other, 0);
  }));
  const auto job = jobOf(server);
  expectWhole(*job);
  EXPECT_EQ(log.count("retry scheduled"), 3U);
  EXPECT_FALSE(log.contains("not found as Active")) << "a sample is no range";
}

TEST_P(ReplacedFile, sampleThatIsNeverAnsweredWellFailsTheJob) {
  const ScriptedServer server(
      sampledBy(kTelling[0], [](const ReceivedRequest&) { return support::status(503, "busy"); }));
  const auto job = jobOf(server);
  expectFailed(*job, adaptivePlan() ? 503 : kPartial, 503);
  EXPECT_EQ(log.count("retry scheduled"), 3U);
}

TEST_P(ReplacedFile, sampleOfAServerThatCapsItsRangesComesInParts) {
  const Telling& telling = kTelling[0];
  const Tally asked;
  const ScriptedServer server(sampledBy(telling, [&telling, asked](const ReceivedRequest& request) {
    asked.add(0);
    return ofVersion(request, telling.name, telling.other, 0, 5000);
  }));
  const auto job = jobOf(server);
  expectWhole(*job);
  EXPECT_GE(asked.of(0), adaptivePlan() ? 4U : 16U) << "four blocks of 16 KiB; of the first range there is but one";
}

TEST_P(ReplacedFile, sampleIsComparedThoughTheJobWasPausedMeanwhile) {
  const Telling& telling = kTelling[0];
  for (const std::uint64_t seed : {std::uint64_t{0}, kOtherSeed}) {
    Gate sampleIsAsked;
    Gate isPaused;
    const ScriptedServer server(sampledBy(telling, [=, &telling](const ReceivedRequest& request) mutable {
      sampleIsAsked.open();
      const std::uint64_t to = *request.range->last + 1;
      return Reply()
          .waitFor(isPaused)
          .send("HTTP/1.1 206 Partial Content\r\nContent-Length: " + std::to_string(to - startOf(request)) + "\r\n" +
                telling.name + ": " + telling.other + "\r\n\r\n")
          .sendPattern(startOf(request), to, {}, seed);
    }));
    const auto job = jobOf(server);
    job->start();
    ASSERT_TRUE(sampleIsAsked.wait());
    job->pause();
    isPaused.open();
    EXPECT_EQ(job->snapshot().state, JobState::Paused);
    job->resume();
    const DownloadSnapshot end = waitForEnd(*job);
    if (seed == 0) {
      expectWhole(end, kSize, 0);
    } else {
      EXPECT_EQ(end.errorCode, kOtherFile);
    }
  }
}

TEST_P(ReplacedFile, secondTryOfAWholeFileIsOfItsOwnVersion) {
  for (const Telling& telling : kTelling) {
    const Tally asked;
    Gate started;  // an answer before start is over would let it submit another range
    const ScriptedServer server([&telling, asked, started](const ReceivedRequest& request) {
      const bool first = (!adaptivePlan() && isProbe(request)) || asked.add(0) == 0;
      const std::string field = std::string(telling.name) + ": " + (first ? telling.one : telling.other);
      if (!first) return full200(kSize, {.headers = {field}, .acceptRanges = false, .seed = kOtherSeed});
      return full200(kSize, {.headers = {field}, .bodyBytes = 3 * kChunk, .acceptRanges = false}).close();
    });
    const auto job = jobOf(server);
    expectWhole(*job, kSize, kOtherSeed);
  }
}

// ---- Other statuses ----

TEST_P(CompleteFile, statusThatIsNeitherSuccessNorErrorEndsTheJobAsItself) {
  for (const int code : {203, 300}) {
    const ScriptedServer server(
        oddAnswer([code](const ReceivedRequest&) { return support::status(code, std::string(kChunk, 'x')); }));
    const auto job = jobOf(server);
    expectFailed(*job, code, code);
    EXPECT_FALSE(log.contains(kAnotherTry));
  }
}

TEST_P(CompleteFile, errorInPlaceOfARangeEndsTheJobAsAShortRange) {
  tries = 2;
  for (const int code : {403, 404, 416, 500}) {
    log.clear();
    const ScriptedServer server(oddAnswer([code](const ReceivedRequest&) { return support::status(code, "error"); }));
    const auto job = jobOf(server);
    expectFailed(*job, adaptivePlan() ? code : kPartial, code);
    if (adaptivePlan()) {
      // What others were given may be refused only for now.
      EXPECT_GE(log.count("try again"), 1U) << code;
      continue;
    }
    EXPECT_EQ(log.count("retry scheduled"), code == 403 ? 0U : 3U) << code;
  }
}

// ---- Sizes that are only said ----

TEST_P(CompleteFileOfUnknownSize, sizeThatOnlyTheProbeSaidGivesWayToTheTotalOfARange) {
  for (const std::uint64_t said : {kSize - kChunk, kSize + 1, 3 * kSize}) {
    const ScriptedServer server(
        [said](const ReceivedRequest& request) { return range206(request, isProbe(request) ? said : kSize); });
    const auto job = jobOf(server);
    expectWhole(*job);
    expectRecovery("onHead | size gives way | announced=" + std::to_string(said) +
                   " | actual=" + std::to_string(kSize));
  }
}

TEST_P(CompleteFileOfUnknownSize, sizeThatOnlyTheProbeSaidGivesWayToTheLengthOfAWholeFile) {
  for (const bool acceptRanges : {false, true}) {
    for (const std::uint64_t said : {kSize - kChunk, kSize + 1, 3 * kSize}) {
      const ScriptedServer server([=](const ReceivedRequest& request) {
        return full200(isProbe(request) ? said : kSize, {.acceptRanges = acceptRanges});
      });
      const auto job = jobOf(server);
      expectWhole(*job);
      expectRecovery("onHead | size gives way | announced=" + std::to_string(said) +
                     " | actual=" + std::to_string(kSize));
    }
  }
}

TEST_P(CompleteFileOfUnknownSize, laterRangeThanTheFileHasIsNoHarmWhenItIsAnsweredFirst) {
  const Gate start;
  const ScriptedServer server([start](const ReceivedRequest& request) {
    if (isProbe(request)) return full200(4 * kSize);
    Reply reply;
    if (startOf(request) == 0) reply.waitFor(start);
    return reply.send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kSize) + "\r\n\r\n").sendPattern(0, kSize);
  });
  const auto job = jobOf(server, 0, chunksOf(kSize, GetParam().connections));
  job->start();
  if (GetParam().connections > 1) {
    for (int range = 1; range < 4; ++range) {
      EXPECT_TRUE(log.waitFor("done | range=" + std::to_string(range * kSize) + " | err=42 | http=200"));
    }
  }
  Gate(start).open();
  expectWhole(waitForEnd(*job), kSize, 0);
}

TEST_P(CompleteFileOfUnknownSize, sizeThatOnlyTheProbeSaidGivesWayToTheEndOfAChunkedFile) {
  for (const std::uint64_t said : {kSize - kChunk, kSize + 1, 3 * kSize}) {
    const ScriptedServer server([=](const ReceivedRequest& request) {
      if (isProbe(request)) return full200(said, {.acceptRanges = false});
      return full200(kSize, {.acceptRanges = false, .framing = Framing::Chunked});
    });
    const auto job = jobOf(server);
    expectWhole(*job);
    EXPECT_EQ(job->snapshot().totalBytes, kSize);
    expectRecovery("onHead | size gives way | announced=" + std::to_string(said) +
                   " | actual=" + std::to_string(kSize));
  }
}

TEST_P(CompleteFileOfUnknownSize, wholeFileOfAnotherLengthThanTheRangeThatWasProbedIsFatal) {
  for (const std::uint64_t length : {std::uint64_t{0}, std::uint64_t{520}, kSize - 1, kSize + 1}) {
    expectOtherFile([length](const ReceivedRequest& request) {
      return isProbe(request) ? range206(request, kSize) : full200(length);
    });
  }
}

TEST_P(CompleteFileOfKnownSize, sizeThatIsKnownTooSmallCutsTheFile) {
  const ScriptedServer server(patternFile(kSize + 1000));
  const auto job = jobOf(server);
  expectWhole(*job);
  expectRecovery("onHead | known size is contradicted | known=" + std::to_string(kSize) +
                 " | server=" + std::to_string(kSize + 1000));
}

TEST_P(CompleteFileOfKnownSize, sizeThatIsKnownTooLargeIsCutToWhatThereIs) {
  for (const bool ranges : {true, false}) {
    log.clear();
    const ScriptedServer server(
        [ranges](const ReceivedRequest& request) { return ranges ? range206(request, kSize) : full200(kSize); });
    const auto job = jobOf(server, kSize + 1000);
    expectWhole(*job);
    expectRecovery("onHead | known size is contradicted | known=" + std::to_string(kSize + 1000) +
                   " | server=" + std::to_string(kSize));
  }
}

TEST_P(CompleteFileOfKnownSize, wholeFileThatEndsBeforeTheRangeIsFatal) {
  for (const std::uint64_t length : {std::uint64_t{0}, std::uint64_t{520}, kOddRange}) {
    expectOtherFile([length](const ReceivedRequest& request) {
      return isOdd(request) ? full200(length) : range206(request, kSize, {.contentRange = ""});
    });
    EXPECT_TRUE(log.contains("reason=whole file ends before the range"));
  }
}

TEST_P(CompleteFileOfKnownSize, shorterFileThanKnownIsTheFileWhileNothingElseIsDelivered) {
  const ScriptedServer server([](const ReceivedRequest&) { return full200(kChunk + 10); });
  const auto job = jobOf(server);
  expectWhole(*job, kChunk + 10);
}

}  // namespace
