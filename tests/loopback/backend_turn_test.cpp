// What a backend tells of its loop and of its transfers while they run, and of what a server asks for; and connections
// that were not used before.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <numeric>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "curl_multi_backend.h"
#include "rate_limit.h"
#include "steady_time.h"
#include "support/gate.h"
#include "support/log_line.h"
#include "support/looping_backend.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/wait_until.h"

namespace {

using support::End;
using support::Gate;
using support::LoopingBackend;
using support::patternFile;
using support::range206;
using support::rangeOf;
using support::ReceivedRequest;
using support::Reply;
using support::ScriptedServer;
using support::waitUntil;
using xfer::CurlMultiBackend;
using xfer::LoopTurn;
using xfer::TransferEnd;
using xfer::TransferRequest;
using Ends = std::vector<End>;

constexpr std::uint64_t kFile = 1000;
constexpr std::uint64_t kMs = 1'000'000;

// ---- Turns ----

// The first turns of a loop whose turn callback also does something else; the loop is busy with that.
std::vector<LoopTurn> turnsOf(std::size_t count, const std::function<void()>& work = {}) {
  std::vector<LoopTurn> turns;  // loop thread only until the gate is open
  Gate over;
  {
    CurlMultiBackend backend({});
    backend.onTurn([&](const LoopTurn& turn) {
      if (turns.size() == count) return over.open();
      turns.push_back(turn);
      if (work) work();
    });
    EXPECT_TRUE(over.wait());
  }
  return turns;
}

std::uint64_t sumOf(const std::vector<LoopTurn>& turns, std::uint64_t LoopTurn::*part) {
  return std::accumulate(turns.begin(), turns.end(), std::uint64_t{0},
                         [&](std::uint64_t sum, const LoopTurn& turn) { return sum + turn.*part; });
}

TEST(Turn, tellsTheTimeSinceTheOneBefore) {
  const std::uint64_t begin = xfer::steadyNs();
  const std::vector<LoopTurn> turns = turnsOf(20);
  EXPECT_GE(turns.front().nowNs, begin);
  EXPECT_EQ(turns.front().sinceNs, 0U);
  EXPECT_EQ(turns.front().sleptNs, 0U);
  for (std::size_t i = 1; i < turns.size(); ++i) {
    EXPECT_EQ(turns[i].nowNs - turns[i - 1].nowNs, turns[i].sinceNs);
    EXPECT_LE(turns[i].sleptNs, turns[i].sinceNs);
  }
  EXPECT_LE(turns.back().nowNs, xfer::steadyNs());
}

TEST(Turn, ofAnIdleLoopIsSlept) {
  const std::vector<LoopTurn> turns = turnsOf(20);
  EXPECT_GT(sumOf(turns, &LoopTurn::sleptNs), 50 * kMs) << "nearly 10 ms each";
}

TEST(Turn, thatTheCallbackKeepsBusyIsNotSlept) {
  constexpr std::uint64_t kWork = 20 * kMs;
  const std::vector<LoopTurn> turns = turnsOf(10, [] {
    const std::uint64_t begin = xfer::steadyNs();
    while (xfer::steadyNs() - begin < kWork) {
    }
  });
  for (std::size_t i = 1; i < turns.size(); ++i) EXPECT_GE(turns[i].sinceNs - turns[i].sleptNs, kWork);
}

TEST(Turn, thatFindsMoreBytesThanItHandsOverAtOnceDoesNotCallADataCallbackThatHasThrownAgain) {
  constexpr std::uint64_t kSize = 160'000;  // fits the socket's buffers too
  const Gate held;
  const Gate sent;
  ScriptedServer server([&](const ReceivedRequest&) {
    return Reply()
        .waitFor(held)
        .send("HTTP/1.1 206 Partial Content\r\nContent-Length: " + std::to_string(kSize) +
              "\r\nContent-Range: bytes 0-" + std::to_string(kSize - 1) + "/" + std::to_string(kSize) + "\r\n\r\n")
        .sendPattern(0, kSize)
        .open(sent);
  });
  Gate over;
  std::atomic<int> calls{0};
  LoopingBackend looping;
  looping.backend().submit(
      rangeOf(server.url("/"), 0, kSize),
      [&calls](std::uint64_t, const std::uint8_t*, std::uint64_t) {
        ++calls;
        throw std::runtime_error("x");
      },
      [over](std::uint64_t, const TransferEnd&) mutable { over.open(); });
  ASSERT_TRUE(server.waitForRequests(1));
  looping.atTurn([&](xfer::CurlMultiBackend&) {
    Gate(held).open();
    EXPECT_TRUE(sent.wait());
  });
  EXPECT_TRUE(over.wait());
  EXPECT_EQ(calls, 1);
}

TEST(Turn, callbackThatThrowsIsLoggedAndTheLoopGoesOn) {
  ScriptedServer server(patternFile(kFile));
  const support::RecordingLogger log;
  std::atomic<bool> thrown{false};
  CurlMultiBackend backend({});
  backend.onTurn([&](const LoopTurn&) {
    if (!thrown.exchange(true)) throw std::runtime_error("x");
  });
  EXPECT_TRUE(log.waitFor("reportTurn | turn_cb threw"));
  Gate over;
  backend.submit(rangeOf(server.url("/"), 0, 10), {}, [over](auto...) mutable { over.open(); });
  EXPECT_TRUE(over.wait());
  EXPECT_EQ(wholeLogError(recordsUpTo(log, 4), {support::failure(support::kBackend, "reportTurn | turn_cb threw")}),
            "");
}

TEST(Turn, callbackSubmitsAndCancels) {
  ScriptedServer server([](const ReceivedRequest& request) {
    return request.path() == "/stall" ? Reply().stall() : range206(request, kFile);
  });
  LoopingBackend backend;
  const xfer::Ticket stalling = backend.submit(rangeOf(server.url("/stall"), 0, 10));
  ASSERT_TRUE(server.waitForRequests(1));
  backend.atTurn([&](CurlMultiBackend& inLoop) { inLoop.cancel(stalling); });
  EXPECT_EQ(backend.ends(1), (Ends{{0, CURLE_ABORTED_BY_CALLBACK, 0, 0}}));
  backend.atTurn([&](CurlMultiBackend&) { backend.submit(rangeOf(server.url("/"), 20, 30)); });
  EXPECT_EQ(backend.ends(2).at(1), (End{20, 0, 206, 10}));
}

// libcurl brings what it has kept of a transfer while the loop lets go of it.
TEST(Turn, comesAfterAllThatHasArrived) {
  constexpr std::uint64_t kBody = 40'000;
  ScriptedServer server([](const ReceivedRequest&) {
    return Reply().send("HTTP/1.1 206 x\r\nContent-Length: 40000\r\n\r\n").sendPattern(0, kBody).stall();
  });
  std::atomic<bool> held{false};
  std::atomic<int> looks{0};
  std::atomic<bool> letGo{false};
  std::uint64_t received = 0;  // loop thread only until the gate is open
  std::uint64_t receivedAtTurn = 0;
  Gate over;
  CurlMultiBackend backend({});
  backend.onTurn([&](const LoopTurn&) {
    if (!letGo || over.isOpen()) return;
    receivedAtTurn = received;
    over.open();
  });
  TransferRequest request = rangeOf(server.url("/"), 0, kBody);
  request.onHead = [&](const xfer::ResponseHead&) {
    held = true;
    looks = 0;
    return xfer::Placement{xfer::Placement::Action::Deliver, 0, kBody, {}, 0};
  };
  request.isHeld = [&] {
    ++looks;
    letGo = letGo || (received > 0 && !held);
    return held.load();
  };
  backend.submit(request, [&](auto, auto, std::uint64_t length) { received += length; }, {});
  ASSERT_TRUE(waitUntil([&] { return held && looks > 3; }));
  const std::uint64_t before = received;
  held = false;
  ASSERT_TRUE(over.wait());
  EXPECT_GT(receivedAtTurn, before);
}

// ---- Notices of speed limits ----

class Throttled : public testing::Test {
 protected:
  TransferRequest limitedRange(std::uint64_t bytesPerSec) {
    limit_.setRate(bytesPerSec, xfer::steadyNs());
    TransferRequest request = rangeOf(server_.url("/"), 0, kFile);
    request.limits.own = &limit_;
    request.onThrottled = [this](bool held) {
      const std::lock_guard lock(mutex_);
      notices_.push_back(held);
    };
    return request;
  }

  std::vector<bool> notices() {
    const std::lock_guard lock(mutex_);
    return notices_;
  }

  [[nodiscard]] bool waitForNotices(std::size_t count) {
    return waitUntil([=, this] { return notices().size() >= count; });
  }

  xfer::RateLimit limit_;
  ScriptedServer server_{patternFile(kFile)};

 private:
  std::mutex mutex_;
  std::vector<bool> notices_;
};

TEST_F(Throttled, transferIsToldWhenALimitHoldsItAndWhenItLetsGo) {
  LoopingBackend backend;
  backend.submit(limitedRange(1));
  ASSERT_TRUE(waitForNotices(1));
  EXPECT_EQ(notices(), (std::vector<bool>{true}));
  limit_.setRate(0, xfer::steadyNs());
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, kFile}}));
  EXPECT_EQ(notices(), (std::vector<bool>{true, false}));
}

TEST_F(Throttled, transferOfALimitedConnectionIsToldToo) {
  LoopingBackend backend;
  TransferRequest request = limitedRange(0);
  request.limits = {};
  request.maxRecvSpeed = 10'000;
  backend.submit(request);
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, kFile}}));
  EXPECT_GE(notices().size(), 2U);
  EXPECT_TRUE(notices().front());
  EXPECT_FALSE(notices().back());
}

TEST_F(Throttled, transferIsToldNothingAtItsEnd) {
  LoopingBackend backend;
  const xfer::Ticket ticket = backend.submit(limitedRange(1));
  ASSERT_TRUE(waitForNotices(1));
  backend.backend().cancel(ticket);
  EXPECT_EQ(backend.ends(1), (Ends{{0, CURLE_ABORTED_BY_CALLBACK, 0, 0}}));
  EXPECT_EQ(notices(), (std::vector<bool>{true}));
}

TEST_F(Throttled, transferThatIsPausedMeanwhileIsToldWhenItGoesOn) {
  LoopingBackend backend;
  TransferRequest request = limitedRange(1);
  std::atomic<bool> held{false};
  std::atomic<int> looks{0};
  request.isHeld = [&] {
    ++looks;
    return held.load();
  };
  backend.submit(request);
  ASSERT_TRUE(waitForNotices(1));
  held = true;
  limit_.setRate(0, xfer::steadyNs());
  looks = 0;
  ASSERT_TRUE(waitUntil([&] { return looks > 3; }));
  EXPECT_EQ(notices(), (std::vector<bool>{true})) << "the pause is another reason";
  held = false;
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, kFile}}));
  EXPECT_EQ(notices(), (std::vector<bool>{true, false}));
}

TEST_F(Throttled, noticeThatThrowsEndsTheTransfer) {
  for (const bool thrownAt : {true, false}) {
    LoopingBackend backend;
    TransferRequest request = limitedRange(1);
    std::atomic<bool> held{false};
    request.onThrottled = [&](bool holds) {
      held = true;
      if (holds == thrownAt) throw std::runtime_error("x");
    };
    backend.submit(request);
    ASSERT_TRUE(waitUntil([&] { return held.load(); }));
    limit_.setRate(0, xfer::steadyNs());
    EXPECT_EQ(backend.ends(1), (Ends{{0, CURLE_WRITE_ERROR, 206, 0}})) << thrownAt;
  }
}

// ---- Connections ----

TEST(FreshConnection, isANewOneThoughAnIdleOneIsThere) {
  ScriptedServer server(patternFile(kFile));
  xfer::DownloadPolicy policy;
  policy.numThreads = 2;
  LoopingBackend backend(policy);
  TransferRequest request = rangeOf(server.url("/"), 0, 10);
  backend.submit(request);
  backend.ends(1);
  backend.submit(request);
  backend.ends(2);
  EXPECT_EQ(server.connectionsAccepted(), 1U);
  request.freshConnection = true;
  backend.submit(request);
  EXPECT_EQ(backend.ends(3).at(2), (End{0, 0, 206, 10}));
  EXPECT_EQ(server.connectionsAccepted(), 2U);
}

TEST(FreshConnection, takesThePlaceOfAnIdleOneWhereThereMayBeOnlyOne) {
  ScriptedServer server(patternFile(kFile));
  xfer::DownloadPolicy policy;
  policy.numThreads = 1;
  LoopingBackend backend(policy);
  TransferRequest request = rangeOf(server.url("/"), 0, 10);
  backend.submit(request);
  backend.ends(1);
  request.freshConnection = true;
  backend.submit(request);
  EXPECT_EQ(backend.ends(2).at(1), (End{0, 0, 206, 10}));
  EXPECT_EQ(server.connectionsAccepted(), 2U);
}

// ---- What a server asks for ----

// What the end of a transfer tells that gets this answer.
std::optional<std::uint64_t> retryAfterOf(const Reply& reply) {
  ScriptedServer server([=](const ReceivedRequest&) { return reply; });
  CurlMultiBackend backend({});
  Gate over;
  TransferEnd end;
  backend.submit(rangeOf(server.url("/"), 0, 10), {}, [&, over](std::uint64_t, const TransferEnd& how) mutable {
    end = how;
    over.open();
  });
  EXPECT_TRUE(over.wait());
  return end.retryAfterSec;
}

TEST(RetryAfter, isToldWhateverTheStatus) {
  for (const int code : {200, 206, 403, 429, 503}) {
    EXPECT_EQ(retryAfterOf(support::status(code, "0123456789", {"Retry-After: 7"})), 7U) << code;
  }
}

TEST(RetryAfter, isNotToldWhereTheAnswerHasNone) {
  EXPECT_EQ(retryAfterOf(support::status(503)), std::nullopt);
  EXPECT_EQ(retryAfterOf(support::status(503, "", {"Retry-After: soon"})), std::nullopt);
  EXPECT_EQ(retryAfterOf(Reply().close()), std::nullopt);
}

TEST(RetryAfter, thatIsADateIsComparedWithTheServersClock) {
  EXPECT_EQ(retryAfterOf(support::status(
                503, "", {"Retry-After: Sun, 06 Nov 1994 08:49:37 GMT", "Date: Sun, 06 Nov 1994 08:48:37 GMT"})),
            60U);
}

TEST(RetryAfter, thatIsADateIsComparedWithTheLocalClockWhenTheServerTellsNone) {
  const std::time_t until = std::time(nullptr) + 10'000;
  char text[40] = "";
  ASSERT_NE(std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", std::gmtime(&until)), 0U);
  const auto seconds = retryAfterOf(support::status(503, "", {"Retry-After: " + std::string(text)}));
  ASSERT_TRUE(seconds);
  EXPECT_LE(*seconds, 10'000U);
  EXPECT_GT(*seconds, 9'000U);
}

}  // namespace
