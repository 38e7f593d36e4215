// Fetches that another thread ends, and how often one that waits wakes up.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "fetch_stoppable.h"
#include "support/curl_polls.h"
#include "support/scripted_server.h"

namespace {

std::atomic<bool> g_wakeupsFail{false};
thread_local int t_wakeups = 0;

}  // namespace

extern "C" {
CURLMcode __real_curl_multi_wakeup(CURLM* multi);
CURLMcode __wrap_curl_multi_wakeup(CURLM* multi) {
  ++t_wakeups;
  return g_wakeupsFail ? CURLM_WAKEUP_FAILURE : __real_curl_multi_wakeup(multi);
}
}

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::curlPolls;
using support::PatientPolls;
using support::ReceivedRequest;
using support::Reply;
using support::ScriptedServer;
using xfer::FetchEnd;
using xfer::StopSignal;

constexpr std::int32_t kAborted = 42;
constexpr std::int32_t kTimedOut = 28;
constexpr milliseconds kPrompt{5000};  // enough for a busy machine; polls are patient, the request has 30 s

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
  curlPolls().count = 0;
  EXPECT_EQ(fetch().curlCode, kTimedOut);
  EXPECT_LE(curlPolls().count, 12) << "waits in two seconds";
}

TEST_F(FetchStop, endsAFetchThatWaits) {
  const PatientPolls patient;
  EXPECT_LT(timeToEnd(), kPrompt);
}

TEST_F(FetchStop, endsAFetchThatWaitsWhereLibcurlCannotBeWoken) {
  g_wakeupsFail = true;
  curlPolls().longestMs = 0;
  EXPECT_LT(timeToEnd(), kPrompt);
  EXPECT_LE(curlPolls().longestMs, 100);
}

TEST_F(FetchStop, setBeforeTheFetchEndsItAtOnce) {
  stop.set();
  const auto begin = steady_clock::now();
  EXPECT_EQ(fetch().curlCode, kAborted);
  EXPECT_LT(steady_clock::now() - begin, kPrompt);
}

// The signal comes at any moment between the start of a fetch and its waits.
TEST_F(FetchStop, noWakeUpIsLost) {
  const PatientPolls patient;
  for (int round = 0; round < 300; ++round) {
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
  }
}

// Last in its process, which ctest gives each test: no fetch of the process succeeds any more.
TEST_F(FetchStop, unloadingEndsAFetchThatWaitsAndThoseToCome) {
  const PatientPolls patient;
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
