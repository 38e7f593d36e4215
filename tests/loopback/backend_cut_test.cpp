// Transfers that have to deliver less than they were submitted for.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "curl_multi_backend.h"
#include "rate_limit.h"
#include "steady_time.h"
#include "support/gate.h"
#include "support/looping_backend.h"
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
using xfer::Placement;
using xfer::ResponseHead;
using xfer::Ticket;
using xfer::TransferRequest;
using Ends = std::vector<End>;

constexpr std::uint64_t kFile = 1000;
constexpr std::int32_t kGoesOn = 33;  // the result of a body that goes on past its placement's end

const std::string kHead = "HTTP/1.1 206 x\r\nContent-Range: bytes 0-999/1000\r\nContent-Length: 1000\r\n\r\n";

xfer::DownloadPolicy oneAtATime() {
  xfer::DownloadPolicy policy;
  policy.numThreads = 1;
  return policy;
}

// Sends the body up to first, waits for the gate, sends it up to second, and falls silent.
support::Handler inTwoPieces(std::uint64_t first, std::uint64_t second, const Gate& gate,
                             const std::string& head = kHead) {
  return [=](const ReceivedRequest&) {
    return Reply().send(head).sendPattern(0, first).waitFor(gate).sendPattern(first, second).stall();
  };
}

TransferRequest placed(const ScriptedServer& server, std::optional<std::uint64_t> end,
                       std::optional<std::uint64_t> namedEnd, std::int32_t codeAtEnd = kGoesOn) {
  TransferRequest request = rangeOf(server.url("/"), 0, kFile);
  request.onHead = [=](const ResponseHead&) {
    return Placement{Placement::Action::Deliver, 0, end, namedEnd, codeAtEnd};
  };
  return request;
}

// ---- In the middle of a body ----

TEST(Cut, bodyThatReachesItEndsAtOnceThoughTheServerIsSilent) {
  Gate gate;
  ScriptedServer server(inTwoPieces(400, 600, gate));
  LoopingBackend backend;
  const Ticket ticket = backend.submit(rangeOf(server.url("/"), 0, kFile));
  ASSERT_TRUE(backend.waitForBytes(400));
  backend.cut(ticket, 600);
  gate.open();
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, 600}}));
  EXPECT_EQ(backend.received(), 600U);
}

TEST(Cut, bodyThatGoesOnPastItIsDeliveredUpToIt) {
  Gate gate;
  ScriptedServer server(inTwoPieces(400, kFile, gate));
  LoopingBackend backend;
  const Ticket ticket = backend.submit(placed(server, kFile, kFile));
  ASSERT_TRUE(backend.waitForBytes(400));
  backend.cut(ticket, 500);
  gate.open();
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, 500}})) << "no result of a body that is too long";
  EXPECT_EQ(backend.received(), 500U);
}

TEST(Cut, ofAnOpenEndedTransferIsItsEnd) {
  Gate gate;
  ScriptedServer server(inTwoPieces(400, 700, gate, "HTTP/1.1 200 OK\r\n\r\n"));
  LoopingBackend backend;
  const Ticket ticket = backend.submit(rangeOf(server.url("/"), 0, 0));
  ASSERT_TRUE(backend.waitForBytes(400));
  backend.cut(ticket, 700);
  gate.open();
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 200, 700}}));
  EXPECT_EQ(backend.received(), 700U);
}

TEST(Cut, whereTheTransferIsAlreadyEndsItAtOnce) {
  ScriptedServer server(inTwoPieces(400, kFile, Gate()));
  LoopingBackend backend;
  const Ticket ticket = backend.submit(rangeOf(server.url("/"), 0, kFile));
  ASSERT_TRUE(backend.waitForBytes(400));
  backend.cut(ticket, 400);
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, 400}}));
  EXPECT_EQ(backend.received(), 400U);
}

TEST(Cut, behindTheTransferEndsItAtOnceAndItTellsAllThatItBrought) {
  ScriptedServer server(inTwoPieces(400, kFile, Gate()));
  LoopingBackend backend;
  const Ticket ticket = backend.submit(rangeOf(server.url("/"), 0, kFile));
  ASSERT_TRUE(backend.waitForBytes(400));
  backend.cut(ticket, 300);
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, 400}}));
}

TEST(Cut, thatIsNotLowerChangesNothing) {
  Gate gate;
  ScriptedServer server([&](const ReceivedRequest&) {
    return Reply().send(kHead).sendPattern(0, 400).waitFor(gate).sendPattern(400, kFile);
  });
  LoopingBackend backend(oneAtATime());
  const Ticket ticket = backend.submit(placed(server, kFile, kFile));
  ASSERT_TRUE(backend.waitForBytes(400));
  backend.cut(ticket, kFile);
  backend.cut(ticket, kFile + 1);
  gate.open();
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, kFile}}));
  backend.submit(rangeOf(server.url("/"), 0, kFile));
  backend.ends(2);
  EXPECT_EQ(server.connectionsAccepted(), 1U);
}

TEST(Cut, isNotTakenBackByAHigherOne) {
  Gate gate;
  ScriptedServer server(inTwoPieces(400, 500, gate));
  LoopingBackend backend;
  const Ticket ticket = backend.submit(rangeOf(server.url("/"), 0, kFile));
  ASSERT_TRUE(backend.waitForBytes(400));
  backend.cut(ticket, 500);
  backend.cut(ticket, 600);
  gate.open();
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, 500}}));
}

TEST(Cut, ofATransferThatHasEndedChangesNothing) {
  ScriptedServer server(patternFile(kFile));
  LoopingBackend backend;
  const Ticket ticket = backend.submit(rangeOf(server.url("/"), 0, kFile));
  backend.ends(1);
  backend.cut(ticket, 100);
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, kFile}}));
}

TEST(Cut, bodyThatEndsBeforeItIsShort) {
  Gate gate;
  ScriptedServer server([&](const ReceivedRequest&) {
    return Reply().send("HTTP/1.1 206 x\r\n\r\n").sendPattern(0, 400).waitFor(gate).sendPattern(400, 450).close();
  });
  LoopingBackend backend;
  const Ticket ticket = backend.submit(rangeOf(server.url("/"), 0, kFile));
  ASSERT_TRUE(backend.waitForBytes(400));
  backend.cut(ticket, 600);
  gate.open();
  EXPECT_EQ(backend.ends(1), (Ends{{0, CURLE_PARTIAL_FILE, 206, 450}}));
}

// ---- Where the body ends by itself ----

TEST(Cut, isNotSeenWhereABodyReachesItsEndUncut) {
  ScriptedServer server(
      [](const ReceivedRequest&) { return Reply().send("HTTP/1.1 206 x\r\n\r\n").sendPattern(0, kFile).close(); });
  LoopingBackend backend;
  backend.submit(placed(server, kFile, std::nullopt));
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, kFile}})) << "it does not go on";
}

// A connection that is cut off cannot be used again.
TEST(Cut, thatCutsABodyOffCostsTheConnection) {
  Gate gate;
  ScriptedServer server([&](const ReceivedRequest&) {
    return Reply().send(kHead).sendPattern(0, 400).waitFor(gate).sendPattern(400, kFile);
  });
  LoopingBackend backend(oneAtATime());
  const Ticket ticket = backend.submit(placed(server, kFile, kFile));
  ASSERT_TRUE(backend.waitForBytes(400));
  backend.cut(ticket, 600);
  gate.open();
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, 600}}));
  backend.submit(rangeOf(server.url("/"), 0, kFile));
  backend.ends(2);
  EXPECT_EQ(server.connectionsAccepted(), 2U);
}

TEST(Cut, atTheBodysOwnEndKeepsTheConnection) {
  const std::string heads[] = {
      "HTTP/1.1 206 x\r\nContent-Range: bytes 0-599/1000\r\nContent-Length: 600\r\n\r\n",
      "HTTP/1.1 200 OK\r\nContent-Length: 600\r\n\r\n",
  };
  for (const std::string& head : heads) {
    Gate gate;
    ScriptedServer server([&](const ReceivedRequest&) {
      return Reply().send(head).sendPattern(0, 400).waitFor(gate).sendPattern(400, 600);
    });
    LoopingBackend backend(oneAtATime());
    const Ticket ticket = backend.submit(placed(server, kFile, std::nullopt));
    ASSERT_TRUE(backend.waitForBytes(400));
    backend.cut(ticket, 600);
    gate.open();
    EXPECT_EQ(backend.ends(1).at(0).code, 0);
    backend.submit(rangeOf(server.url("/"), 0, 600));
    backend.ends(2);
    EXPECT_EQ(server.connectionsAccepted(), 1U) << head;
    EXPECT_EQ(backend.received(), 1200U);
  }
}

TEST(Cut, atTheEndThatAChunkedAnswerNamesKeepsTheConnection) {
  Gate gate;
  ScriptedServer server([&](const ReceivedRequest&) {
    return Reply()
        .send("HTTP/1.1 206 x\r\nContent-Range: bytes 0-599/1000\r\nTransfer-Encoding: chunked\r\n\r\n190\r\n")
        .sendPattern(0, 400)
        .waitFor(gate)
        .send("\r\nC8\r\n")
        .sendPattern(400, 600)
        .send("\r\n0\r\n\r\n");
  });
  LoopingBackend backend(oneAtATime());
  const Ticket ticket = backend.submit(placed(server, kFile, 600));
  ASSERT_TRUE(backend.waitForBytes(400));
  backend.cut(ticket, 600);
  gate.open();
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, 600}}));
  backend.submit(rangeOf(server.url("/"), 0, 600));
  backend.ends(2);
  EXPECT_EQ(server.connectionsAccepted(), 1U);
}

// ---- Before the answer ----

TEST(Cut, beforeTheAnswerHoldsForItsBody) {
  Gate gate;
  ScriptedServer server(
      [&](const ReceivedRequest&) { return Reply().waitFor(gate).send(kHead).sendPattern(0, kFile).stall(); });
  LoopingBackend backend;
  const Ticket plain = backend.submit(rangeOf(server.url("/"), 0, kFile));
  ASSERT_TRUE(server.waitForRequests(1));
  backend.cut(plain, 500);
  gate.open();
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, 500}}));
  EXPECT_EQ(backend.received(), 500U);
}

TEST(Cut, beforeTheAnswerIsNotLiftedByALaterEndOfItsPlacement) {
  for (const std::optional<std::uint64_t> end : {std::optional(kFile), std::optional<std::uint64_t>()}) {
    Gate gate;
    ScriptedServer server(
        [&](const ReceivedRequest&) { return Reply().waitFor(gate).send(kHead).sendPattern(0, 500).stall(); });
    LoopingBackend backend;
    const Ticket ticket = backend.submit(placed(server, end, kFile));
    ASSERT_TRUE(server.waitForRequests(1));
    backend.cut(ticket, 500);
    gate.open();
    EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, 500}}));
  }
}

TEST(Cut, thatItsPlacementKnowsOfEndsTheTransferWell) {
  Gate gate;
  ScriptedServer server(
      [&](const ReceivedRequest&) { return Reply().waitFor(gate).send(kHead).sendPattern(0, 500).stall(); });
  LoopingBackend backend;
  const Ticket ticket = backend.submit(placed(server, 500, kFile));
  ASSERT_TRUE(server.waitForRequests(1));
  backend.cut(ticket, 500);
  gate.open();
  EXPECT_EQ(backend.ends(1), (Ends{{0, 0, 206, 500}}));
}

TEST(Cut, thatIsAboveTheEndOfTheLaterPlacementChangesNothing) {
  Gate gate;
  ScriptedServer server([&](const ReceivedRequest&) {
    return Reply().waitFor(gate).send(kHead).sendPattern(0, 500).sendPattern(500, kFile);
  });
  LoopingBackend backend;
  const Ticket ticket = backend.submit(placed(server, 500, kFile));
  ASSERT_TRUE(server.waitForRequests(1));
  backend.cut(ticket, 600);
  gate.open();
  EXPECT_EQ(backend.ends(1), (Ends{{0, kGoesOn, 206, 500}}));
}

TEST(Cut, toNothingBeforeTheAnswerEndsTheTransferAtOnce) {
  ScriptedServer server([](const ReceivedRequest&) { return Reply().stall(); });
  LoopingBackend backend;
  const Ticket ticket = backend.submit(rangeOf(server.url("/"), 100, kFile));
  ASSERT_TRUE(server.waitForRequests(1));
  backend.cut(ticket, 100);
  EXPECT_EQ(backend.ends(1), (Ends{{100, 0, 0, 0}}));
}

// ---- Before the transfer has begun ----

TEST(Cut, ofATransferThatWaitsItsTurnHoldsWhenItRuns) {
  ScriptedServer server([](const ReceivedRequest& request) {
    return request.path() == "/stall" ? Reply().stall() : range206(request, kFile);
  });
  LoopingBackend backend(oneAtATime());
  const Ticket first = backend.submit(rangeOf(server.url("/stall"), 0, kFile));
  const Ticket second = backend.submit(rangeOf(server.url("/"), 100, kFile));
  ASSERT_TRUE(server.waitForRequests(1));
  backend.cut(second, 300);
  backend.backend().cancel(first);
  EXPECT_EQ(backend.ends(2), (Ends{{0, CURLE_ABORTED_BY_CALLBACK, 0, 0}, {100, 0, 206, 200}}));
  EXPECT_EQ(backend.received(), 200U);
}

TEST(Cut, toNothingOfATransferThatWaitsItsTurnEndsItWithoutARequest) {
  ScriptedServer server([](const ReceivedRequest&) { return Reply().stall(); });
  LoopingBackend backend(oneAtATime());
  backend.submit(rangeOf(server.url("/"), 0, kFile));
  const Ticket second = backend.submit(rangeOf(server.url("/"), 100, kFile));
  ASSERT_TRUE(server.waitForRequests(1));
  backend.cut(second, 100);
  EXPECT_EQ(backend.ends(1), (Ends{{100, 0, 0, 0}}));
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST(Cut, ofATransferThatWasSubmittedInTheSameTurnHoldsWhenItRuns) {
  ScriptedServer server(patternFile(kFile));
  LoopingBackend backend;
  backend.atTurn([&](xfer::CurlMultiBackend& inLoop) {
    inLoop.cut(backend.submit(rangeOf(server.url("/"), 100, kFile)), 300);
    inLoop.cut(backend.submit(rangeOf(server.url("/"), 500, kFile)), 500);
  });
  EXPECT_EQ(backend.ends(2), (Ends{{500, 0, 0, 0}, {100, 0, 206, 200}}));
  EXPECT_EQ(server.requests().size(), 1U);
}

// ---- Held transfers ----

// Paused behind the 400 bytes that it has delivered.
class CutOfAPausedTransfer : public testing::Test {
 protected:
  CutOfAPausedTransfer() {
    TransferRequest request = rangeOf(server_.url("/"), 0, kFile);
    request.isHeld = [this] {
      ++looks_;
      return held_.load();
    };
    ticket_ = backend_.submit(request);
    EXPECT_TRUE(backend_.waitForBytes(400));
    held_ = true;
    looks_ = 0;
    EXPECT_TRUE(waitUntil([this] { return looks_ > 2; })) << "the loop has seen it";
    gate_.open();
  }

  Gate gate_;
  std::atomic<bool> held_{false};
  std::atomic<int> looks_{0};
  ScriptedServer server_{inTwoPieces(400, 600, gate_)};
  LoopingBackend backend_;
  Ticket ticket_ = 0;
};

TEST_F(CutOfAPausedTransfer, holdsWhenItGoesOn) {
  backend_.cut(ticket_, 600);
  EXPECT_EQ(backend_.received(), 400U);
  held_ = false;
  EXPECT_EQ(backend_.ends(1), (Ends{{0, 0, 206, 600}}));
  EXPECT_EQ(backend_.received(), 600U);
}

TEST_F(CutOfAPausedTransfer, endsItDuringThePauseWhenItIsThere) {
  backend_.cut(ticket_, 400);
  EXPECT_EQ(backend_.ends(1), (Ends{{0, 0, 206, 400}}));
  EXPECT_EQ(backend_.received(), 400U);
}

// Waits for a limit that lets nothing pass, before its first byte.
class CutOfAThrottledTransfer : public testing::Test {
 protected:
  CutOfAThrottledTransfer() {
    limit_.setRate(1, xfer::steadyNs());
    TransferRequest request = rangeOf(server_.url("/"), 0, kFile);
    request.limits.own = &limit_;
    request.onThrottled = [this](bool held) { held_ = held; };
    ticket_ = backend_.submit(request);
    EXPECT_TRUE(waitUntil([this] { return held_.load(); }));
  }

  xfer::RateLimit limit_;
  std::atomic<bool> held_{false};
  ScriptedServer server_{[](const ReceivedRequest&) { return Reply().send(kHead).sendPattern(0, kFile).stall(); }};
  LoopingBackend backend_;
  Ticket ticket_ = 0;
};

TEST_F(CutOfAThrottledTransfer, holdsWhenItGoesOn) {
  backend_.cut(ticket_, 600);
  EXPECT_EQ(backend_.received(), 0U);
  limit_.setRate(0, xfer::steadyNs());
  EXPECT_EQ(backend_.ends(1), (Ends{{0, 0, 206, 600}}));
  EXPECT_EQ(backend_.received(), 600U);
}

TEST_F(CutOfAThrottledTransfer, endsItWhileItWaitsWhenItIsThere) {
  backend_.cut(ticket_, 0);
  EXPECT_EQ(backend_.ends(1), (Ends{{0, 0, 206, 0}}));
  EXPECT_EQ(backend_.received(), 0U);
}

}  // namespace
