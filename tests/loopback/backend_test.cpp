#include "curl_multi_backend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <mutex>
#include <thread>

#include "support/brought.h"
#include "support/gate.h"
#include "support/log_line.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/unused_port.h"
#include "support/wait_until.h"

using namespace support;
using namespace xfer;

namespace {

std::atomic<int> g_wakeups{0};

}  // namespace

// The linker sends the calls that wake a loop up through here: a command is in its queue once its call has been made.
extern "C" {

CURLMcode __real_curl_multi_wakeup(CURLM* multi);

CURLMcode __wrap_curl_multi_wakeup(CURLM* multi) {
  const CURLMcode result = __real_curl_multi_wakeup(multi);
  ++g_wakeups;
  return result;
}
}

namespace {

// A backend and what its transfers brought.
class Transfers {
 public:
  explicit Transfers(const DownloadPolicy& policy = {}) : backend_(std::make_unique<CurlMultiBackend>(policy)) {}

  Ticket submit(const TransferRequest& request) { return brought_.submitTo(*backend_, request); }

  std::vector<End> ends(std::size_t count) { return brought_.ends(count); }
  std::uint64_t received() { return brought_.received(); }

  // Pauses what is active, and returns when that is done.  The loop takes commands before the submissions that came
  // after them, so the end of a later transfer tells.
  void pauseNow() {
    TransferRequest later;
    later.url = "http://127.0.0.1/";
    later.rangeStart = std::numeric_limits<std::uint64_t>::max() - 1;
    Gate over;
    backend_->pause();
    backend_->cancel(backend_->submit(later, {}, [over](auto...) mutable { over.open(); }));
    EXPECT_TRUE(over.wait());
  }

  CurlMultiBackend& backend() { return *backend_; }
  void destroyBackend() { backend_.reset(); }

 private:
  Brought brought_;
  std::unique_ptr<CurlMultiBackend> backend_;
};

DownloadPolicy threads(std::uint16_t count) {
  DownloadPolicy policy;
  policy.numThreads = count;
  return policy;
}

TEST(Backend, asksForTheRangeInHttpsForm) {
  ScriptedServer server(patternFile(1000));
  Transfers transfers;
  transfers.submit(rangeOf(server.url("/"), 0, 0));
  transfers.submit(rangeOf(server.url("/"), 100, 0));
  transfers.submit(rangeOf(server.url("/"), 0, 1));
  EXPECT_EQ(transfers.ends(3), (std::vector<End>{{0, 0, 200, 1000}, {100, 0, 206, 900}, {0, 0, 206, 1}}));
  EXPECT_EQ(server.requests()[0].header("Range"), std::nullopt);
  EXPECT_EQ(server.requests()[1].header("Range"), "bytes=100-");
  EXPECT_EQ(server.requests()[2].header("Range"), "bytes=0-0");
  EXPECT_EQ(transfers.received(), 1901U);
}

TEST(Backend, callersUserAgentSuppressesOnlyTheDefaultOne) {
  ScriptedServer server(patternFile(10));
  Transfers transfers;
  TransferRequest request = rangeOf(server.url("/"), 0, 10);
  request.headers = {"User-Agent: x"};
  request.cookie = "a=b";
  transfers.submit(request);
  transfers.ends(1);
  EXPECT_EQ(server.requests()[0].headerLines,
            (std::vector<std::string>{"Host: 127.0.0.1:" + std::to_string(server.port()), "Range: bytes=0-9",
                                      "Cookie: a=b", "User-Agent: x", "Accept: */*", "Accept-Encoding: identity",
                                      "Accept-Language: en-US"}));
}

TEST(Backend, errorPageNeverReachesTheDataCallback) {
  ScriptedServer server([](const ReceivedRequest&) { return status(404, "gone"); });
  const RecordingLogger log;
  Transfers transfers;
  transfers.submit(rangeOf(server.url("/"), 10, 20));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{10, 18, 404, 0}}));
  EXPECT_EQ(transfers.received(), 0U);
  EXPECT_EQ(logError(log, recovery(kBackend, "short transfer | range=10 | expected=10 | got=0")), "");
  EXPECT_EQ(logError(log, trace(kBackend, "done | range=10 | err=18 | http=404 | bytes=0")), "");
  EXPECT_EQ(logError(log, failure(kBackend, "HTTP 404 response body (4 bytes): gone")), "");
}

TEST(Backend, errorPageOfAnOpenRequestIsNoShortTransfer) {
  ScriptedServer server([](const ReceivedRequest&) { return status(500, std::string(10'000, 'x')); });
  const RecordingLogger log;
  Transfers transfers;
  transfers.submit(rangeOf(server.url("/"), 10, 0));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{10, 0, 500, 0}}));
  EXPECT_EQ(wholeLogError(recordsUpTo(log, 4),
                          {failure(kBackend, "HTTP 500 response body (4096 bytes): " + std::string(4096, 'x'))}),
            "");
}

TEST(Backend, shortBodyThatWasAnnouncedIsAccepted) {
  ScriptedServer server(
      [](const ReceivedRequest& request) { return range206(request, 1000, {.announced = 40, .bodyBytes = 40}); });
  const RecordingLogger log;
  Transfers transfers;
  transfers.submit(rangeOf(server.url("/"), 100, 200));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{100, 0, 206, 40}}));
  const std::string text = "short transfer (metadata mismatch, accepting) | range=100 | metadata=100 | server=40";
  EXPECT_EQ(wholeLogError(recordsUpTo(log, 4), {recovery(kBackend, text)}), "");
  EXPECT_EQ(logError(log, trace(kBackend, "done | range=100 | err=0 | http=206 | bytes=40")), "");
}

TEST(Backend, shortBodyThatWasNotAnnouncedIsPartial) {
  ScriptedServer server([](const ReceivedRequest& request) {
    return range206(request, 1000, {.bodyBytes = 40, .framing = Framing::UntilClose});
  });
  const RecordingLogger log;
  Transfers transfers;
  transfers.submit(rangeOf(server.url("/"), 100, 200));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{100, 18, 206, 40}}));
  EXPECT_EQ(
      wholeLogError(recordsUpTo(log, 4), {recovery(kBackend, "short transfer | range=100 | expected=100 | got=40")}),
      "");
  EXPECT_EQ(logError(log, trace(kBackend, "done | range=100 | err=18 | http=206 | bytes=40")), "");
}

TEST(Backend, callbackThatThrowsIsLoggedAndTheLoopGoesOn) {
  ScriptedServer server(patternFile(10));
  const RecordingLogger log;
  Transfers transfers;
  transfers.backend().submit(rangeOf(server.url("/"), 0, 5), {},
                             [](std::uint64_t, const TransferEnd&) { throw std::runtime_error("x"); });
  EXPECT_TRUE(log.waitFor("finishTransfer | done_cb threw"));
  transfers.submit(rangeOf(server.url("/"), 5, 10));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{5, 0, 206, 5}}));
  EXPECT_EQ(wholeLogError(recordsUpTo(log, 4), {failure(kBackend, "finishTransfer | done_cb threw")}), "");
}

TEST(Backend, dataCallbackThatThrowsEndsItsTransferAtOnceAndNoOther) {
  constexpr std::uint64_t kHalf = 300'000;
  xfer::DownloadPolicy policy;
  policy.lowSpeedTimeSec = 0;  // a silence ends nothing by itself
  // However much comes, and whether more does: in one piece, in many, and before a silence.
  for (const std::uint64_t sent : {std::uint64_t{100}, kHalf, kHalf - 1}) {
    ScriptedServer server([&](const ReceivedRequest& request) {
      if (request.range->first != 0) return range206(request, 2 * kHalf);
      Reply reply = range206(request, 2 * kHalf, {.bodyBytes = sent});
      return sent < request.range->last ? reply.stall() : reply;
    });
    Transfers transfers(policy);
    Gate over;
    std::atomic<int> calls{0};
    std::atomic<std::int32_t> code{0};
    transfers.backend().submit(
        rangeOf(server.url("/"), 0, std::max<std::uint64_t>(sent, 1000)),
        [&calls](std::uint64_t, const std::uint8_t*, std::uint64_t) {
          ++calls;
          throw std::runtime_error("x");
        },
        [&code, over](std::uint64_t, const TransferEnd& end) mutable {
          code = end.code;
          over.open();
        });
    transfers.submit(rangeOf(server.url("/"), kHalf, 2 * kHalf));
    EXPECT_EQ(transfers.ends(1), (std::vector<End>{{kHalf, 0, 206, kHalf}})) << sent;
    EXPECT_TRUE(over.wait()) << sent;
    EXPECT_EQ(code, CURLE_WRITE_ERROR) << sent;
    EXPECT_EQ(calls, 1) << sent;
    EXPECT_EQ(transfers.received(), kHalf) << sent;
  }
}

TEST(Backend, cancelAllEndsActiveWaitingAndQueuedOnesOnceAndLaterOnesRun) {
  ScriptedServer server([](const ReceivedRequest& request) {
    return request.path() == "/stall" ? range206(request, 1000, {.bodyBytes = 0}).stall() : range206(request, 1000);
  });
  const RecordingLogger log;
  Transfers transfers(threads(2));
  for (std::uint64_t i = 0; i < 5; ++i) transfers.submit(rangeOf(server.url("/stall"), i * 10, i * 10 + 10));
  ASSERT_TRUE(server.waitForRequests(2));
  EXPECT_EQ(transfers.backend().activeCount(), 2);
  transfers.submit(rangeOf(server.url("/stall"), 50, 60));
  transfers.backend().cancelAll();
  transfers.submit(rangeOf(server.url("/good"), 60, 70));
  const auto ends = transfers.ends(7);
  ASSERT_EQ(ends.size(), 7U);
  EXPECT_EQ(std::count_if(ends.begin(), ends.end(), [](const End& end) { return end.code == 42 && end.bytes == 0; }),
            6);
  EXPECT_EQ(ends.back(), (End{60, 0, 206, 10}));
  EXPECT_EQ(log.count("done | "), 1U) << "the end of a cancelled transfer is not logged";
  EXPECT_EQ(wholeLogError(recordsUpTo(log, 4), {}), "");
}

TEST(Backend, cancelEndsTheTransferOfThatTicketOnly) {
  ScriptedServer server(
      [](const ReceivedRequest& request) { return range206(request, 1000, {.bodyBytes = 0}).stall(); });
  Transfers transfers(threads(2));
  transfers.submit(rangeOf(server.url("/"), 0, 10));
  const Ticket second = transfers.submit(rangeOf(server.url("/"), 10, 20));
  ASSERT_TRUE(server.waitForRequests(2));
  transfers.backend().cancel(second);
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{10, 42, 0, 0}}));
  EXPECT_TRUE(waitUntil([&] { return transfers.backend().activeCount() == 1; }));
}

TEST(Backend, stopBehindACancelEndsEveryTransferExactlyOnce) {
  ScriptedServer server(
      [](const ReceivedRequest& request) { return range206(request, 1000, {.bodyBytes = 0}).stall(); });
  Transfers transfers(threads(2));
  for (std::uint64_t i = 0; i < 4; ++i) transfers.submit(rangeOf(server.url("/"), i * 10, i * 10 + 10));
  ASSERT_TRUE(server.waitForRequests(2));
  transfers.backend().cancelAll();
  transfers.destroyBackend();
  const auto ends = transfers.ends(4);
  EXPECT_EQ(ends.size(), 4U);
  for (const End& end : ends) EXPECT_EQ(end.code, 42);
}

TEST(Backend, stopEndsActiveAndWaitingTransfers) {
  ScriptedServer server(
      [](const ReceivedRequest& request) { return range206(request, 1000, {.bodyBytes = 0}).stall(); });
  Transfers transfers(threads(2));
  for (std::uint64_t i = 0; i < 3; ++i) transfers.submit(rangeOf(server.url("/"), i * 10, i * 10 + 10));
  ASSERT_TRUE(server.waitForRequests(2));
  transfers.backend().stop();
  const auto ends = transfers.ends(3);
  EXPECT_EQ(ends.size(), 3U);
  for (const End& end : ends) EXPECT_EQ(end.code, 42);
}

TEST(Backend, submissionTakenTogetherWithAStopGetsNoDoneCallback) {
  ScriptedServer server(patternFile(10));
  CurlMultiBackend backend(threads(1));
  Gate first;
  Gate goOn;
  std::atomic<int> others{0};
  backend.submit(rangeOf(server.url("/"), 0, 10), {}, [&](std::uint64_t, const TransferEnd&) {
    first.open();
    EXPECT_TRUE(goOn.wait());  // the loop stands here
  });
  ASSERT_TRUE(first.wait());
  backend.submit(rangeOf(server.url("/"), 3, 10), {}, [&](std::uint64_t, const TransferEnd&) { ++others; });
  const int wakeups = g_wakeups;
  std::thread stopper([&] { backend.stop(); });
  EXPECT_TRUE(waitUntil([&] { return g_wakeups > wakeups; })) << "the stop is queued";
  goOn.open();
  stopper.join();
  EXPECT_EQ(others, 0);
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST(Backend, afterStopSubmissionsEndAtOnceWithoutAWord) {
  Transfers transfers;
  transfers.backend().stop();
  const RecordingLogger log;
  transfers.submit(rangeOf("http://127.0.0.1/", 5, 10));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{5, 42, 0, 0}}));
  EXPECT_EQ(wholeLogError(log.records(), {}), "");
}

TEST(Backend, lifeOfItsLoopAndItsTransfersIsTraced) {
  for (const bool http2 : {false, true}) {
    ScriptedServer server(patternFile(10));
    const RecordingLogger log;
    const std::string url = server.url("/f");
    {
      DownloadPolicy policy = threads(3);
      policy.useHttp2 = http2;
      policy.multiplex = !http2;
      Transfers transfers(policy);
      ASSERT_TRUE(log.waitFor("eventLoop | started"));
      transfers.submit(rangeOf(url, 2, 10));
      transfers.ends(1);
    }
    EXPECT_EQ(
        wholeLogError(
            log.records(),
            {trace(kBackend, std::string("eventLoop | started | http2=") + (http2 ? "yes" : "no") + " | max_conn=3"),
             trace(kBackend, "submit | range=2 | cookie_len=0 | hdr_count=0 | url=" + url),
             trace(kBackend, "done | range=2 | err=0 | http=206 | bytes=8"), trace(kBackend, "eventLoop | stopped")}),
        "");
  }
}

TEST(Backend, errorPageWithoutABodyIsNotLogged) {
  ScriptedServer server([](const ReceivedRequest&) { return status(404); });
  const RecordingLogger log;
  Transfers transfers;
  transfers.submit(rangeOf(server.url("/"), 10, 0));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{10, 0, 404, 0}}));
  EXPECT_EQ(wholeLogError(recordsUpTo(log, 4), {}), "");
}

TEST(Backend, transfersWithoutADoneCallbackEndToo) {
  ScriptedServer server(patternFile(10));
  const RecordingLogger log;
  {
    CurlMultiBackend backend(threads(1));
    backend.submit(rangeOf(server.url("/"), 0, 5), {}, {});
    EXPECT_TRUE(log.waitFor("done | range=0 | err=0 | http=206 | bytes=5"));
    backend.stop();
    backend.submit(rangeOf(server.url("/"), 5, 10), {}, {});
  }
  EXPECT_EQ(wholeLogError(recordsUpTo(log, 4), {}), "");
}

TEST(Backend, pauseWithNothingActiveHasNoEffectOnLaterTransfers) {
  ScriptedServer server(patternFile(10));
  Transfers transfers;
  transfers.backend().pause();
  transfers.submit(rangeOf(server.url("/"), 0, 10));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{0, 0, 206, 10}}));
}

TEST(Backend, heldTransferGoesOnAfterResume) {
  Gate gate;
  ScriptedServer server([&](const ReceivedRequest&) {
    return Reply()
        .send("HTTP/1.1 206 x\r\nContent-Length: 1000\r\n\r\n")
        .sendPattern(0, 500)
        .waitFor(gate)
        .sendPattern(500, 1000);
  });
  Transfers transfers;
  transfers.submit(rangeOf(server.url("/"), 0, 1000));
  ASSERT_TRUE(waitUntil([&] { return transfers.received() == 500; }));
  transfers.pauseNow();
  gate.open();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(transfers.received(), 500U);
  transfers.backend().resume();
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{0, 0, 206, 1000}}));
}

TEST(Backend, throttleDoesNotLiftAPause) {
  ScriptedServer server(patternFile(1'000'000));
  Transfers transfers;
  TransferRequest request = rangeOf(server.url("/"), 0, 200'000);
  request.maxRecvSpeed = 100'000;
  transfers.submit(request);
  ASSERT_TRUE(waitUntil([&] { return transfers.received() > 0; }));
  transfers.pauseNow();
  const std::uint64_t held = transfers.received();
  EXPECT_LT(held, 200'000U);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(transfers.received(), held);
  transfers.backend().resume();
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{0, 0, 206, 200'000}}));
}

TEST(Backend, fourTransfersOnALimitOfOneRunOneAfterAnother) {
  ScriptedServer server([](const ReceivedRequest& request) {
    return range206(request, 1000, {.pace = {.bytesEach = 5, .rest = std::chrono::milliseconds(5)}});
  });
  Transfers transfers(threads(1));
  for (std::uint64_t i = 0; i < 4; ++i) transfers.submit(rangeOf(server.url("/"), i * 10, i * 10 + 10));
  EXPECT_EQ(transfers.ends(4),
            (std::vector<End>{{0, 0, 206, 10}, {10, 0, 206, 10}, {20, 0, 206, 10}, {30, 0, 206, 10}}));
  EXPECT_EQ(server.maxConcurrentRequests(), 1U);
  EXPECT_EQ(server.connectionsAccepted(), 1U);
}

TEST(Backend, headerThatHoldsALineBreakIsRefusedWithoutAConnection) {
  ScriptedServer server(patternFile(10));
  Transfers transfers;
  TransferRequest request = rangeOf(server.url("/"), 3, 10);
  request.headers = {"X: a\nY: b"};
  transfers.submit(request);
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{3, 43, 0, 0}}));
  EXPECT_EQ(server.connectionsAccepted(), 0U);
}

TEST(Backend, unreachableHostEndsWithLibcurlsCode) {
  const RecordingLogger log;
  Transfers transfers;
  const UnusedPort nobody;
  transfers.submit(rangeOf(nobody.url("/"), 0, 10));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{0, 7, 0, 0}}));
  EXPECT_EQ(logError(log, trace(kBackend, "done | range=0 | err=7 | http=0 | bytes=0")), "");
  EXPECT_EQ(wholeLogError(recordsUpTo(log, 4), {}), "") << "a failed transfer is a trace here; the job judges it";
}

TEST(Backend, transferThatBreaksOffReportsItsStatusAndWhatItBrought) {
  ScriptedServer server(
      [](const ReceivedRequest& request) { return range206(request, 1000, {.bodyBytes = 40}).close(); });
  const RecordingLogger log;
  Transfers transfers;
  transfers.submit(rangeOf(server.url("/"), 100, 200));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{100, 18, 206, 40}}));
  EXPECT_EQ(logError(log, trace(kBackend, "done | range=100 | err=18 | http=206 | bytes=40")), "");
  EXPECT_EQ(wholeLogError(recordsUpTo(log, 4), {}), "") << "not short: libcurl says itself why it ended";
}

TEST(Backend, submissionIsLoggedWithItsUrlCutTo120Characters) {
  ScriptedServer server(patternFile(10));
  const RecordingLogger log;
  Transfers transfers;
  const std::string url = server.url("/" + std::string(200, 'u'));
  TransferRequest request = rangeOf(url, 0, 10);
  request.cookie = "abc";
  request.headers = {"A: b"};
  transfers.submit(request);
  transfers.ends(1);
  const std::string text = "submit | range=0 | cookie_len=3 | hdr_count=1 | url=" + url.substr(0, 120);
  EXPECT_EQ(logError(log, trace(kBackend, text)), "");
}

// ---- Placement ----

TransferRequest placed(const std::string& url, Placement placement) {
  TransferRequest request = rangeOf(url, 100, 200);
  request.onHead = [placement](const ResponseHead&) { return placement; };
  return request;
}

TEST(Placement, wholeFileIsDeliveredFromTheRangesStartToTheNeededEnd) {
  ScriptedServer server([](const ReceivedRequest&) { return full200(1000); });
  Transfers transfers;
  transfers.submit(placed(server.url("/"), {Placement::Action::Deliver, 0, 700, {}, 0}));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{100, 0, 200, 600}}));
  EXPECT_EQ(transfers.received(), 600U);
}

TEST(Placement, dataCallbackThatThrowsAtTheLastNeededBytesIsAWriteError) {
  ScriptedServer server([](const ReceivedRequest&) { return full200(1000); });
  Transfers transfers;
  Gate over;
  std::atomic<std::int32_t> code{0};
  transfers.backend().submit(
      placed(server.url("/"), {Placement::Action::Deliver, 0, 700, {}, 0}),
      [](std::uint64_t, const std::uint8_t*, std::uint64_t) { throw std::runtime_error("x"); },
      [&code, over](std::uint64_t, const TransferEnd& end) mutable {
        code = end.code;
        over.open();
      });
  EXPECT_TRUE(over.wait());
  EXPECT_EQ(code, CURLE_WRITE_ERROR);
}

TEST(Placement, bodyThatGoesOnPastTheRangeIsCut) {
  ScriptedServer server([](const ReceivedRequest& request) {
    return range206(request, 1000, {.bodyBytes = 300, .framing = Framing::UntilClose});
  });
  Transfers transfers;
  transfers.submit(placed(server.url("/"), {Placement::Action::Deliver, 100, 200, {}, 0}));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{100, 0, 206, 100}}));
  EXPECT_EQ(transfers.received(), 100U);
}

TEST(Placement, wholeFileThatEndsBeforeTheNeededEndIsShort) {
  ScriptedServer server([](const ReceivedRequest&) { return full200(500, {.framing = Framing::UntilClose}); });
  Transfers transfers;
  transfers.submit(placed(server.url("/"), {Placement::Action::Deliver, 0, 1000, {}, 0}));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{100, 18, 200, 400}}));
}

TEST(Placement, bodyThatIsShortEndsWithTheCodeForThat) {
  ScriptedServer server([](const ReceivedRequest&) { return full200(500, {.framing = Framing::UntilClose}); });
  Transfers transfers;
  transfers.submit(placed(server.url("/"), {Placement::Action::Deliver, 0, 1000, {}, 0, 33}));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{100, 33, 200, 400}}));
}

TEST(Placement, stoppedAnswerDeliversNothingAndEndsWithItsCode) {
  ScriptedServer server(patternFile(1000));
  Transfers transfers;
  transfers.submit(placed(server.url("/"), {Placement::Action::Stop, 0, {}, {}, 33}));
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{100, 33, 206, 0}}));
  EXPECT_EQ(transfers.received(), 0U);
}

// The head of the answer starts the hold, so that libcurl keeps what it has read behind the first piece of the body,
// and brings it while the loop lets go of the transfer.
TEST(Placement, bodyThatIsCutOnResumeIsDeliveredUpToThere) {
  constexpr std::uint64_t kNeeded = 40'000;
  ScriptedServer server([&](const ReceivedRequest&) {
    return Reply().send("HTTP/1.1 206 x\r\nContent-Length: 100000\r\n\r\n").sendPattern(0, 100'000);
  });
  std::atomic<bool> held{false};
  std::atomic<int> looks{0};
  Transfers transfers;
  TransferRequest request = rangeOf(server.url("/"), 0, kNeeded);
  request.onHead = [&](const ResponseHead&) {
    held = true;
    looks = 0;
    return Placement{Placement::Action::Deliver, 0, kNeeded, {}, 0};
  };
  request.isHeld = [&] {
    ++looks;
    return held.load();
  };
  transfers.submit(request);
  ASSERT_TRUE(waitUntil([&] { return held && looks > 3; }));
  held = false;
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{0, 0, 206, kNeeded}}));
  EXPECT_EQ(transfers.received(), kNeeded);
}

// The body is refused while the loop lets go of the transfer, where no message of libcurl's reports it.
TEST(Placement, answerThatIsRefusedOnResumeEndsTheTransfer) {
  Gate gate;
  ScriptedServer server([&](const ReceivedRequest&) {
    return Reply().waitFor(gate).send("HTTP/1.1 206 x\r\nContent-Length: 100\r\n\r\n").sendPattern(100, 200);
  });
  Transfers transfers;
  transfers.submit(placed(server.url("/"), {Placement::Action::Stop, 0, {}, {}, 33}));
  ASSERT_TRUE(server.waitForRequests(1));
  transfers.pauseNow();
  gate.open();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  transfers.backend().resume();
  EXPECT_EQ(transfers.ends(1), (std::vector<End>{{100, 33, 206, 0}}));
}

// ---- Speed ----

TEST(SpeedLimit, holdsOverSixteenSlowTransfers) {
  ScriptedServer server(patternFile(1'000'000));
  Transfers transfers(threads(16));
  for (std::uint64_t i = 0; i < 16; ++i) {
    TransferRequest request = rangeOf(server.url("/"), i * 50'000, (i + 1) * 50'000);
    request.maxRecvSpeed = 200'000 / 16;
    transfers.submit(request);
  }
  const auto begin = std::chrono::steady_clock::now();
  const auto ends = transfers.ends(16);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  for (const End& end : ends) EXPECT_EQ(end.code, 0);
  EXPECT_EQ(transfers.received(), 800'000U);
  EXPECT_GT(seconds, 4.0 / 1.1) << "the limit makes them last 4 seconds";
}

TEST(BackendDeathTest, destructionFromACallbackEndsTheProcess) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        auto* const backend = new CurlMultiBackend(DownloadPolicy{});
        const UnusedPort nobody;
        backend->submit(rangeOf(nobody.url("/"), 0, 10), {},
                        [&](std::uint64_t, const TransferEnd&) { delete backend; });
        std::this_thread::sleep_for(testTimeout());
      },
      "");
}

}  // namespace
