// Fetches that another thread ends, and how often one that waits wakes up.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "fetch_stoppable.h"
#include "support/scripted_server.h"

namespace {

std::atomic<int> g_waits{0};
std::atomic<int> g_longestWaitMs{0};
std::atomic<bool> g_wakeupsFail{false};
thread_local int t_wakeups = 0;

}  // namespace

extern "C" {
CURLMcode __real_curl_multi_poll(CURLM* multi, curl_waitfd* fds, unsigned int count, int timeoutMs, int* ready);
CURLMcode __wrap_curl_multi_poll(CURLM* multi, curl_waitfd* fds, unsigned int count, int timeoutMs, int* ready) {
  ++g_waits;
  if (timeoutMs > g_longestWaitMs) g_longestWaitMs = timeoutMs;
  return __real_curl_multi_poll(multi, fds, count, timeoutMs, ready);
}

CURLMcode __real_curl_multi_wakeup(CURLM* multi);
CURLMcode __wrap_curl_multi_wakeup(CURLM* multi) {
  ++t_wakeups;
  return g_wakeupsFail ? CURLM_WAKEUP_FAILURE : __real_curl_multi_wakeup(multi);
}
}

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::ReceivedRequest;
using support::Reply;
using support::ScriptedServer;
using xfer::FetchEnd;
using xfer::StopSignal;

constexpr std::int32_t kAborted = 42;
constexpr std::int32_t kTimedOut = 28;
constexpr milliseconds kPrompt{500};  // below the second that a fetch waits at most, enough for a slow machine

class Discard final : public xfer::FetchReceiver {
 public:
  xfer::Next header(std::string_view /*line*/) override { return xfer::Next::More; }
  xfer::Next body(std::int32_t /*status*/, std::string_view /*bytes*/) override { return xfer::Next::More; }
};

class FetchStop : public testing::Test {
 protected:
  FetchStop() {
    request.url = server.url("/");
    request.timeoutSec = 30;
    request.lowSpeedTimeSec = 0;
  }
  ~FetchStop() override { g_wakeupsFail = false; }

  FetchEnd fetch() {
    Discard receiver;
    return xfer::fetchInto(request, receiver, stop);
  }

  // How long a fetch goes on after it was stopped.
  milliseconds timeToEnd() {
    steady_clock::time_point stopped;
    std::thread stopper([&] {
      EXPECT_TRUE(server.waitForRequests(1));
      stopped = steady_clock::now();
      stop.set();
      EXPECT_GE(t_wakeups, 1) << "libcurl's own timers may end a wait too";
    });
    EXPECT_EQ(fetch().curlCode, kAborted);
    const auto ended = steady_clock::now();
    stopper.join();
    return std::chrono::duration_cast<milliseconds>(ended - stopped);
  }

  const ScriptedServer server{[](const ReceivedRequest&) { return Reply().stall(); }};
  xfer::Request request;
  StopSignal stop;
};

TEST_F(FetchStop, fetchThatWaitsDoesNotWakeByItself) {
  request.timeoutSec = 2;
  g_waits = 0;
  EXPECT_EQ(fetch().curlCode, kTimedOut);
  EXPECT_LE(g_waits, 12) << "waits in two seconds";
}

TEST_F(FetchStop, endsAFetchThatWaits) {
  EXPECT_LT(timeToEnd(), kPrompt);
}

TEST_F(FetchStop, endsAFetchThatWaitsWhereLibcurlCannotBeWoken) {
  g_wakeupsFail = true;
  g_longestWaitMs = 0;
  EXPECT_LT(timeToEnd(), kPrompt);
  EXPECT_LE(g_longestWaitMs, 100);
}

TEST_F(FetchStop, setBeforeTheFetchEndsItAtOnce) {
  stop.set();
  const auto begin = steady_clock::now();
  EXPECT_EQ(fetch().curlCode, kAborted);
  EXPECT_LT(steady_clock::now() - begin, kPrompt);
}

// The signal comes at any moment between the start of a fetch and its waits.
TEST_F(FetchStop, noWakeUpIsLost) {
  constexpr int kRounds = 300;
  milliseconds all{0};
  for (int round = 0; round < kRounds; ++round) {
    StopSignal now;
    std::atomic<bool> begun{false};
    std::thread stopper([&] {
      while (!begun) std::this_thread::yield();
      const auto until = steady_clock::now() + std::chrono::microseconds(7 * round);
      while (steady_clock::now() < until) std::this_thread::yield();
      now.set();
    });
    Discard receiver;
    const auto begin = steady_clock::now();
    begun = true;
    EXPECT_EQ(xfer::fetchInto(request, receiver, now).curlCode, kAborted);
    const auto took = steady_clock::now() - begin;
    stopper.join();
    ASSERT_LT(took, kPrompt) << "in round " << round;
    all += std::chrono::duration_cast<milliseconds>(took);
  }
  EXPECT_LT(all, kRounds * milliseconds(50));
}

// Last in its process, which ctest gives each test: no fetch of the process succeeds any more.
TEST_F(FetchStop, unloadingEndsAFetchThatWaitsAndThoseToCome) {
  steady_clock::time_point stopped;
  std::thread unloader([&] {
    EXPECT_TRUE(server.waitForRequests(1));
    stopped = steady_clock::now();
    xfer::stopAllFetches();
    EXPECT_GE(t_wakeups, 1);
  });
  EXPECT_EQ(fetch().curlCode, kAborted);
  const auto ended = steady_clock::now();
  unloader.join();
  EXPECT_LT(ended - stopped, kPrompt);
  EXPECT_EQ(xfer::fetch(request).curlCode, kAborted);
}

}  // namespace
