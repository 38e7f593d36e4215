// What a job of the adaptive plan does with servers that are busy, short of connections, slow to answer or not there
// for a while: it ends with the right file.  Times are only asserted where load can but lengthen them, or where a wrong
// outcome takes many times as long.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/gate.h"
#include "support/job_run.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "xfer/download_job.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using support::chunksOf;
using support::patternError;
using support::patternFile;
using support::range206;
using support::ReceivedRequest;
using support::Reply;
using support::requestFor;
using support::ScriptedServer;
using support::Tally;
using xfer::DownloadJob;
using xfer::DownloadPolicy;
using xfer::DownloadSnapshot;
using xfer::JobState;

constexpr std::uint64_t kMiB = 1 << 20;
constexpr std::uint64_t kFirst = 256 * 1024;
constexpr std::uint64_t kSize = 4 * kMiB + 11;
constexpr support::Pace kSteady{32 * 1024, milliseconds(5)};  // some 6 MB/s a connection

class BusyServer : public testing::Test {
 protected:
  void TearDown() override {
    if (HasFailure()) support::tell(log);
  }

  std::unique_ptr<DownloadJob> start(const std::string& url, std::uint16_t connections, std::uint64_t knownSize = 0) {
    auto job = std::make_unique<DownloadJob>(requestFor(url, path, knownSize), chunksOf(kFirst, connections),
                                             support::planUnderTest(kFirst));
    job->start();
    return job;
  }

  void expectWhole(const DownloadJob& job, std::uint64_t size = kSize) {
    // A minute is the longest that a random delay can be.
    const bool ended =
        support::waitUntil([&] { return xfer::isFinal(job.snapshot().state); }, 4 * support::testTimeout());
    EXPECT_TRUE(ended);
    EXPECT_EQ(job.snapshot().state, JobState::Completed) << job.snapshot().errorCode;
    EXPECT_EQ(patternError(path, size), "");
  }

  support::RecordingLogger log;
  const support::TempDir folder;
  const std::string path = folder.file("out");
};

// ---- Two connections and no more ----

// Serves two requests at once, and turns all others away.
class TwoAtOnce {
 public:
  Reply answer(const ReceivedRequest& request, const Reply& away) {
    const std::lock_guard lock(mutex_);
    // The ends of served ones are seen when their connection asks again, or their time is over.
    const auto now = steady_clock::now();
    std::erase_if(served_, [&](const Served& one) { return one.connection == request.connection || one.until < now; });
    if (served_.size() >= 2) {
      ++turnedAway_;
      return away;
    }
    const std::uint64_t end = std::min(request.range->last.value_or(kSize - 1) + 1, kSize);
    const auto pieces = static_cast<int>((end - request.range->first) / kSteady.bytesEach + 1);
    served_.push_back({request.connection, now + pieces * kSteady.rest});
    return range206(request, kSize, {.pace = kSteady});
  }

  [[nodiscard]] std::size_t turnedAway() const {
    const std::lock_guard lock(mutex_);
    return turnedAway_;
  }

 private:
  struct Served {
    std::size_t connection;
    steady_clock::time_point until;
  };
  mutable std::mutex mutex_;
  std::vector<Served> served_;
  std::size_t turnedAway_ = 0;
};

class TwoConnections : public BusyServer {
 protected:
  void expectWholeThough(const Reply& away) {
    TwoAtOnce two;
    const ScriptedServer server([&](const ReceivedRequest& request) { return two.answer(request, away); });
    const auto job = start(server.url("/file"), 8);
    expectWhole(*job);
    EXPECT_GE(two.turnedAway(), 1U) << "the server was asked for more than it gives";
    EXPECT_LE(two.turnedAway(), 200U) << "and is not overrun";
  }
};

TEST_F(TwoConnections, othersAreRefusedAndTheFileIsRight) {
  expectWholeThough(support::status(503, "busy"));
}

TEST_F(TwoConnections, othersAreResetAndTheFileIsRight) {
  expectWholeThough(Reply().reset());
}

TEST_F(TwoConnections, othersGetNoAnswerAndTheFileIsRight) {
  expectWholeThough(Reply().stall());
}

// ---- Retry-After ----

class RetryAfter : public BusyServer {
 protected:
  // The server is busy when it is asked for the first time, and once more in the middle.
  void expectLeftAlone(std::function<Reply(seconds)> busy, milliseconds least) {
    std::atomic<int> busyAnswers{0};
    std::atomic<int> early{0};
    std::mutex mutex;
    steady_clock::time_point notBefore;
    const ScriptedServer server([&](const ReceivedRequest& request) {
      const std::lock_guard lock(mutex);
      if (request.time < notBefore) ++early;
      if (request.number == 0 || (busyAnswers == 1 && request.range->first != 0)) {
        ++busyAnswers;
        notBefore = steady_clock::now() + least;
        return busy(seconds(2));
      }
      return range206(request, kSize, {.pace = kSteady});
    });
    const auto begin = steady_clock::now();
    const auto job = start(server.url("/file"), 1);
    expectWhole(*job);
    EXPECT_EQ(busyAnswers, 2);
    EXPECT_EQ(support::bytesAmiss(job->snapshot().bytesDone, kSize), 0U) << "nothing is fetched twice";
    EXPECT_EQ(early, 0) << "requests before the time that the server asked for";
    EXPECT_GE(steady_clock::now() - begin, 2 * least);
  }
};

TEST_F(RetryAfter, inSecondsIsKept) {
  expectLeftAlone(
      [](seconds wait) { return support::status(503, "busy", {"Retry-After: " + std::to_string(wait.count())}); },
      seconds(2));
}

std::string httpDate(std::time_t when) {
  constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                     "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  std::tm parts{};
#ifdef _WIN32
  gmtime_s(&parts, &when);
#else
  gmtime_r(&when, &parts);
#endif
  char text[64];
  std::snprintf(text, sizeof text, "%s, %02d %s %04d %02d:%02d:%02d GMT", kDays[parts.tm_wday], parts.tm_mday,
                kMonths[parts.tm_mon], parts.tm_year + 1900, parts.tm_hour, parts.tm_min, parts.tm_sec);
  return text;
}

// The server's clock is a day behind.
TEST_F(RetryAfter, asADateIsKeptByTheServersOwnClock) {
  expectLeftAlone(
      [](seconds wait) {
        const std::time_t now = std::time(nullptr) - std::time_t{24} * 60 * 60;
        return support::status(429, "busy", {"Date: " + httpDate(now), "Retry-After: " + httpDate(now + wait.count())});
      },
      seconds(2));
}

// ---- Connections that end ----

TEST_F(BusyServer, thatClosesAfterEach64KiBBringsTheRightFile) {
  for (const std::uint16_t connections : {std::uint16_t{1}, std::uint16_t{8}}) {
    const ScriptedServer server([](const ReceivedRequest& request) {
      const std::uint64_t left = kSize - request.range->first;
      const std::uint64_t asked = std::min(request.range->last.value_or(kSize - 1) + 1 - request.range->first, left);
      return range206(request, kSize, {.bodyBytes = std::min<std::uint64_t>(asked, 64 * 1024)}).close();
    });
    const auto job = start(server.url("/file"), connections);
    expectWhole(*job);
    EXPECT_LE(job->snapshot().bytesDone, kSize + kMiB / 4) << "what came before each end is kept";
  }
}

// ---- Servers that are away ----

class Restart : public BusyServer {
 protected:
  // Serves a part, and is replaced by another one on the same port after the time.
  void expectWholeAfter(milliseconds away) {
    const std::uint16_t port = ScriptedServer(patternFile(0)).port();
    auto server = std::make_unique<ScriptedServer>(patternFile(kSize, {.pace = {16 * 1024, milliseconds(10)}}), port);
    const auto job = start(server->url("/file"), 4);
    ASSERT_TRUE(support::waitUntil([&] { return job->snapshot().bytesDone > kSize / 8; }));
    server->stop();
    server.reset();
    std::this_thread::sleep_for(away);
    EXPECT_EQ(job->snapshot().state, JobState::Running) << "it does not give up";
    const ScriptedServer again(patternFile(kSize), port);
    expectWhole(*job);
  }
};

TEST_F(Restart, thatTakesThreeSecondsIsSurvived) {
  expectWholeAfter(seconds(3));
}

TEST_F(Restart, thatTakesTenSecondsIsSurvivedSlowly) {
  expectWholeAfter(seconds(10));
}

TEST_F(BusyServer, whoseFirstAnswerTakesTwelveSecondsBringsTheFileSlowly) {
  const ScriptedServer server([](const ReceivedRequest& request) {
    if (request.number > 0) return range206(request, kSize);
    const std::uint64_t end = *request.range->last + 1;
    return Reply()
        .pause(seconds(12))
        .send("HTTP/1.1 206 Partial Content\r\nContent-Length: " + std::to_string(end) + "\r\nContent-Range: bytes 0-" +
              std::to_string(end - 1) + "/" + std::to_string(kSize) + "\r\n\r\n")
        .sendPattern(0, end);
  });
  const auto job = start(server.url("/file"), 4);
  expectWhole(*job);
  EXPECT_EQ(std::ranges::count_if(server.requests(),
                                  [](const ReceivedRequest& request) { return request.range->first == 0; }),
            1)
      << "it is waited for";
}

// ---- Connections that lag ----

class LaggingConnection : public BusyServer {
 protected:
  // The first request behind the first range is answered so; the others at a steady pace.
  void expectWholeThough(const std::function<Reply(const ReceivedRequest&)>& lag) {
    const Tally asked;
    const ScriptedServer server([&, asked](const ReceivedRequest& request) {
      if (request.range->first != 0 && asked.add(0) == 0) return lag(request);
      return range206(request, size, {.pace = kSteady});
    });
    const auto begin = steady_clock::now();
    const auto job = start(server.url("/file"), 4);
    expectWhole(*job, size);
    EXPECT_LT(steady_clock::now() - begin, support::testTimeout() / 2) << "nobody waits for it";
  }

  const std::uint64_t size = 16 * kMiB;
};

TEST_F(LaggingConnection, thatIsSilentIsReplaced) {
  expectWholeThough(
      [this](const ReceivedRequest& request) { return range206(request, size, {.bodyBytes = 100'000}).stall(); });
  EXPECT_TRUE(log.contains("turn | connection given up | reason=silent"));
}

TEST_F(LaggingConnection, thatNeverAnswersIsReplaced) {
  expectWholeThough([](const ReceivedRequest&) { return Reply().stall(); });
  EXPECT_TRUE(log.contains("turn | connection given up | reason=silent"));
}

TEST_F(LaggingConnection, thatEndsIsReplaced) {
  expectWholeThough(
      [this](const ReceivedRequest& request) { return range206(request, size, {.bodyBytes = 100'000}).reset(); });
}

// At its pace its range, a third of the file or more, takes fourteen seconds.  Others take the rest of it when they
// have nothing left, or, where the machine is busy and they have, it is given up before.
TEST_F(LaggingConnection, thatIsSixteenTimesSlowerLosesItsRangeToOthers) {
  std::atomic<std::uint64_t> lagging{0};
  expectWholeThough([&](const ReceivedRequest& request) {
    lagging = request.range->first;
    return range206(request, size, {.pace = {2 * 1024, kSteady.rest}});
  });
  const std::string range = " | range=" + std::to_string(lagging) + " |";
  EXPECT_TRUE(log.contains("turn | cut" + range) || log.contains("turn | connection given up | reason=slow" + range));
}

}  // namespace
