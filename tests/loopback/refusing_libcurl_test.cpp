// A libcurl that has no handle to give, refuses one, or brings messages that nobody asked for.  The linker sends its
// functions through this file, which refuses on demand (see CMakeLists.txt).
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "curl_multi_backend.h"
#include "support/brought.h"
#include "support/gate.h"
#include "support/job_run.h"
#include "support/log_line.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "sys/data_buff.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"
#include "xfer/xfer.h"

namespace {

// How many of the next calls fail.
std::atomic<int> g_easyRefusals{0};
std::atomic<int> g_multiRefusals{0};
std::atomic<int> g_addRefusals{0};
std::atomic<int> g_performRefusals{0};
std::atomic<int> g_pollRefusals{0};
std::atomic<int> g_performExceptions{0};

std::mutex g_strayMutex;
std::optional<CURLMsg> g_stray;           // the next message; guarded by g_strayMutex
std::atomic<int> g_nextResult{CURLE_OK};  // of the next transfer that ends, in place of its own

thread_local bool t_inMultiInit = false;  // newer versions of libcurl make an easy handle of their own there

bool refuses(std::atomic<int>& refusals) {
  int left = refusals;
  while (left > 0 && !refusals.compare_exchange_weak(left, left - 1)) {
  }
  return left > 0;
}

}  // namespace

extern "C" {

CURL* __real_curl_easy_init(void);
CURLM* __real_curl_multi_init(void);
CURLMcode __real_curl_multi_add_handle(CURLM* multi, CURL* easy);
CURLMcode __real_curl_multi_perform(CURLM* multi, int* running);
CURLMcode __real_curl_multi_poll(CURLM* multi, curl_waitfd* more, unsigned int moreCount, int timeoutMs, int* ready);
CURLMsg* __real_curl_multi_info_read(CURLM* multi, int* left);

CURL* __wrap_curl_easy_init(void) {
  const bool asked = !t_inMultiInit;
  return asked && refuses(g_easyRefusals) ? nullptr : __real_curl_easy_init();
}

CURLM* __wrap_curl_multi_init(void) {
  if (refuses(g_multiRefusals)) return nullptr;
  t_inMultiInit = true;
  CURLM* const multi = __real_curl_multi_init();
  t_inMultiInit = false;
  return multi;
}

CURLMcode __wrap_curl_multi_add_handle(CURLM* multi, CURL* easy) {
  return refuses(g_addRefusals) ? CURLM_OUT_OF_MEMORY : __real_curl_multi_add_handle(multi, easy);
}

CURLMcode __wrap_curl_multi_perform(CURLM* multi, int* running) {
  if (refuses(g_performExceptions)) throw std::bad_alloc();  // what libcurl calls back may
  return refuses(g_performRefusals) ? CURLM_INTERNAL_ERROR : __real_curl_multi_perform(multi, running);
}

CURLMcode __wrap_curl_multi_poll(CURLM* multi, curl_waitfd* more, unsigned int moreCount, int timeoutMs, int* ready) {
  if (refuses(g_pollRefusals)) return CURLM_INTERNAL_ERROR;
  return __real_curl_multi_poll(multi, more, moreCount, timeoutMs, ready);
}

CURLMsg* __wrap_curl_multi_info_read(CURLM* multi, int* left) {
  static CURLMsg stray;  // of one loop thread at a time
  {
    const std::lock_guard lock(g_strayMutex);
    if (g_stray) {
      stray = *std::exchange(g_stray, std::nullopt);
      *left = 0;
      return &stray;
    }
  }
  CURLMsg* const message = __real_curl_multi_info_read(multi, left);
  if (message != nullptr && g_nextResult != CURLE_OK) {
    message->data.result = static_cast<CURLcode>(g_nextResult.exchange(CURLE_OK));
  }
  return message;
}
}

namespace {

using support::End;
using support::failure;
using support::kBackend;
using support::kFetch;
using support::kJob;
using support::kXfer;
using support::LogLine;
using support::rangeOf;
using support::trace;
using support::waitUntil;
using support::wholeLogError;
using xfer::CurlMultiBackend;
using xfer::DownloadJob;
using xfer::DownloadSnapshot;
using xfer::JobState;
using xfer::TransferEnd;
using xfer::TransferRequest;
using Lines = std::vector<LogLine>;

constexpr std::int32_t kNoHandle = -1;
constexpr std::int32_t kCancelled = CURLE_ABORTED_BY_CALLBACK;
constexpr std::uint64_t kSize = 10;

class RefusingLibcurl : public testing::Test {
 protected:
  RefusingLibcurl() { xfer::init(); }
  ~RefusingLibcurl() override {
    for (std::atomic<int>* refusals : {&g_easyRefusals, &g_multiRefusals, &g_addRefusals, &g_performRefusals,
                                       &g_pollRefusals, &g_performExceptions}) {
      EXPECT_EQ(refusals->exchange(0), 0) << "what the test demanded happened";
    }
    EXPECT_EQ(g_nextResult, CURLE_OK);
    const std::lock_guard lock(g_strayMutex);
    EXPECT_FALSE(g_stray);
  }

  [[nodiscard]] xfer::Request request() const {
    xfer::Request request;
    request.url = url;
    return request;
  }

  void submit(CurlMultiBackend& backend, std::uint64_t start, std::uint64_t end) {
    submit(backend, rangeOf(url, start, end));
  }

  xfer::Ticket submit(CurlMultiBackend& backend, const TransferRequest& request) {
    return backend.submit(request, {}, [this](std::uint64_t rangeStart, const TransferEnd& transferEnd) {
      const std::lock_guard lock(mutex_);
      ends_.push_back({rangeStart, transferEnd.code, transferEnd.status, transferEnd.bytes});
    });
  }

  std::vector<End> ends() {
    const std::lock_guard lock(mutex_);
    return ends_;
  }

  void expectNextOneRuns(CurlMultiBackend& backend) {
    const std::size_t before = ends().size();
    submit(backend, 4, kSize);
    ASSERT_TRUE(waitUntil([&] { return ends().size() > before; }));
    EXPECT_EQ(ends().back(), (End{4, 0, 206, 6}));
    EXPECT_TRUE(waitUntil([&] { return backend.activeCount() == 0; }));
  }

  void expectFailures(const Lines& lines) const { EXPECT_EQ(wholeLogError(support::recordsUpTo(log, 4), lines), ""); }

  const support::TempDir folder;
  const support::ScriptedServer server{support::patternFile(kSize)};
  const std::string url = server.url("/file");
  support::RecordingLogger log;

 private:
  std::mutex mutex_;
  std::vector<End> ends_;  // guarded by mutex_
};

// ---- Requests into memory ----

TEST_F(RefusingLibcurl, withoutAHandleFetchReturnsMinus1AndSaysNothing) {
  g_easyRefusals = 1;
  const xfer::Response response = xfer::fetch(request());
  EXPECT_EQ(response.curlCode, kNoHandle);
  EXPECT_EQ(response.status, 0);
  EXPECT_EQ(response.headers, "");
  EXPECT_EQ(response.body, "");
  EXPECT_EQ(wholeLogError(log.records(), {}), "");
  EXPECT_EQ(xfer::fetch(request()).status, 200);
}

TEST_F(RefusingLibcurl, withoutAHandleADownloadReturnsMinus1AndLogsIt) {
  sys::DataBuff headers;
  sys::DataBuff body;
  g_easyRefusals = 1;
  EXPECT_EQ(xfer_download(url.c_str(), nullptr, nullptr, &headers, &body, nullptr, nullptr), kNoHandle);
  EXPECT_EQ(wholeLogError(log.records(), {trace(kXfer, 291, "--> xfer_download | " + url),
                                          failure(kXfer, 329, "fetch error: curl code -1")}),
            "");
  EXPECT_TRUE(headers.empty());
  EXPECT_TRUE(body.empty());
  g_easyRefusals = 1;
  EXPECT_EQ(xfer_downloadText(url.c_str(), nullptr, &headers, &body, nullptr), kNoHandle);
}

TEST_F(RefusingLibcurl, withoutAHandleABackgroundDownloadReturnsMinus1AtItsCollection) {
  sys::DataBuff headers;
  sys::DataBuff body;
  std::uint64_t id = 0;
  g_easyRefusals = 1;
  EXPECT_EQ(xfer_downloadAsync(url.c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), kNoHandle);
  EXPECT_EQ(wholeLogError(log.records(), {trace(kXfer, 434, "--> xfer_downloadAsync | " + url),
                                          trace(kXfer, 461, "<-- xfer_downloadAsync"),
                                          failure(kXfer, 496, "fetch error: curl code -1")}),
            "");
}

TEST_F(RefusingLibcurl, withoutAHandleSizesAreUnknownAndNothingIsLogged) {
  std::uint64_t size = 99;
  std::uint32_t type = 99;
  g_easyRefusals = 2;
  EXPECT_EQ(xfer_getRemoteFileSize(url.c_str(), &size, &type, nullptr, nullptr, 2, nullptr), kNoHandle);
  EXPECT_EQ(size, 99U);
  EXPECT_EQ(type, 99U);
  g_easyRefusals = 1;
  EXPECT_EQ(xfer::getContentLength(url, {}, {}), -1);
  g_easyRefusals = 1;
  const xfer::RemoteFileInfo info = xfer::probeRemoteFile(url, {}, {}, 5);
  EXPECT_EQ(info.error, kNoHandle);
  EXPECT_EQ(info.httpStatus, 0);
  EXPECT_EQ(info.size, 0U);
  EXPECT_FALSE(info.acceptRanges);
  EXPECT_EQ(info.contentType, "");
  EXPECT_EQ(wholeLogError(log.records(), {}), "");
}

TEST_F(RefusingLibcurl, withoutAMultiHandleFetchFailsAsWithoutMemory) {
  for (std::atomic<int>* refusals : {&g_multiRefusals, &g_addRefusals}) {
    log.clear();
    *refusals = 1;
    EXPECT_EQ(xfer::fetch(request()).curlCode, CURLE_OUT_OF_MEMORY);
    const std::string text = "fetch | curl error 27 (" + std::string(curl_easy_strerror(CURLE_OUT_OF_MEMORY)) + ")";
    EXPECT_EQ(wholeLogError(log.records(), {trace(kFetch, 224, "--> fetch | " + url), failure(kFetch, 235, text),
                                            trace(kFetch, 242, "<-- fetch | status=0 | body_size=0")}),
              "");
  }
}

// ---- Backends ----

TEST_F(RefusingLibcurl, withoutAHandleASubmissionEndsAtOnceWithMinus1) {
  CurlMultiBackend backend({});
  g_easyRefusals = 1;
  submit(backend, 2, 5);
  EXPECT_EQ(ends(), (std::vector<End>{{2, kNoHandle, 0, 0}})) << "before submit returned";
  expectFailures({failure(kBackend, "submit | curl_easy_init failed")});
  g_easyRefusals = 1;
  backend.submit(rangeOf(url, 2, 5), {}, {});
  expectNextOneRuns(backend);
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(RefusingLibcurl, withoutAMultiHandleABackendRefusesAllWorkAndStillEnds) {
  {
    g_multiRefusals = 1;
    CurlMultiBackend backend({});
    EXPECT_EQ(wholeLogError(log.records(), {failure(kBackend, "curl_multi_init failed")}), "") << "no loop runs";
    submit(backend, 2, 5);
    EXPECT_EQ(ends(), (std::vector<End>{{2, kCancelled, 0, 0}}));
    backend.submit(rangeOf(url, 2, 5), {}, {});
    backend.pause();
    backend.resume();
    backend.cancelAll();
    EXPECT_EQ(backend.activeCount(), 0);
  }
  EXPECT_EQ(ends().size(), 1U);
  EXPECT_EQ(log.records().size(), 1U) << "a submission that is refused is not logged";
  EXPECT_EQ(server.connectionsAccepted(), 0U);
}

TEST_F(RefusingLibcurl, aTransferThatCannotBeAddedEndsWithMinus1AndTheLoopGoesOn) {
  CurlMultiBackend backend({});
  g_addRefusals = 2;
  backend.submit(rangeOf(url, 2, 5), {}, {});
  submit(backend, 3, 5);
  ASSERT_TRUE(waitUntil([&] { return ends().size() == 1; }));
  EXPECT_EQ(ends(), (std::vector<End>{{3, kNoHandle, 0, 0}}));
  const std::string text =
      "addTransfer | curl_multi_add_handle: " + std::string(curl_multi_strerror(CURLM_OUT_OF_MEMORY));
  expectFailures({failure(kBackend, text), failure(kBackend, text)});
  EXPECT_EQ(backend.activeCount(), 0);
  expectNextOneRuns(backend);
}

TEST_F(RefusingLibcurl, aTransferThatNobodyKnowsIsLoggedAndFreed) {
  CurlMultiBackend backend({});
  {
    const std::lock_guard lock(g_strayMutex);
    g_stray.emplace();
    g_stray->msg = CURLMSG_DONE;
    g_stray->easy_handle = __real_curl_easy_init();  // the backend frees it
    g_stray->data.result = CURLE_OK;
  }
  EXPECT_TRUE(log.waitFor("processCompleted"));
  expectFailures({failure(kBackend, "processCompleted | Transfer not found in active_")});
  expectNextOneRuns(backend);
}

TEST_F(RefusingLibcurl, messagesOfAnotherKindSayNothing) {
  CurlMultiBackend backend({});
  {
    const std::lock_guard lock(g_strayMutex);
    g_stray.emplace();
    g_stray->msg = CURLMSG_NONE;
    g_stray->easy_handle = nullptr;
  }
  EXPECT_TRUE(waitUntil([] {
    const std::lock_guard lock(g_strayMutex);
    return !g_stray;
  }));
  expectNextOneRuns(backend);
  expectFailures({});
}

TEST_F(RefusingLibcurl, withHttp1ATransferThatWasNotSentIsNotPutBack) {
  const support::ScriptedServer closing([](const support::ReceivedRequest&) { return support::Reply().close(); });
  CurlMultiBackend backend({});
  TransferRequest unanswered = rangeOf(url, 0, 4);
  unanswered.url = closing.url("/");
  g_nextResult = CURLE_FAILED_INIT;
  std::atomic<int> code{0};
  backend.submit(unanswered, {}, [&](std::uint64_t, const TransferEnd& end) { code = end.code; });
  EXPECT_TRUE(waitUntil([&] { return code != 0; }));
  EXPECT_EQ(code, CURLE_FAILED_INIT);
}

// A server may end an HTTP/2 connection at any time.
TEST_F(RefusingLibcurl, aCutHoldsAfterTheTransferHasBeenPutBack) {
  support::Gate gate;
  std::atomic<int> requests{0};
  const support::ScriptedServer twice([&](const support::ReceivedRequest& request) {
    if (++requests == 1) return support::Reply().waitFor(gate).close();
    return support::range206(request, kSize, {.bodyBytes = 6}).stall();
  });
  xfer::DownloadPolicy policy;
  policy.useHttp2 = true;
  CurlMultiBackend backend(policy);
  xfer::Ticket ticket = 0;
  std::atomic<bool> asked{false};
  support::Gate cut;
  backend.onTurn([&](const xfer::LoopTurn&) {
    if (!asked.exchange(false)) return;
    backend.cut(ticket, 6);
    cut.open();
  });
  TransferRequest request = rangeOf(url, 0, kSize);
  request.url = twice.url("/");
  ticket = submit(backend, request);
  ASSERT_TRUE(twice.waitForRequests(1));
  asked = true;
  ASSERT_TRUE(cut.wait());
  g_nextResult = CURLE_HTTP2;
  gate.open();
  ASSERT_TRUE(waitUntil([&] { return !ends().empty(); }));
  EXPECT_EQ(ends(), (std::vector<End>{{0, 0, 206, 6}}));
  EXPECT_EQ(twice.requests().size(), 2U);
}

TEST_F(RefusingLibcurl, turnsThatFailAreFollowedByOthers) {
  CurlMultiBackend backend({});
  g_performRefusals = 3;
  g_pollRefusals = 3;
  expectNextOneRuns(backend);
  EXPECT_TRUE(waitUntil([] { return g_performRefusals == 0 && g_pollRefusals == 0; }));
  expectFailures({});
}

TEST_F(RefusingLibcurl, aLoopThatMeetsAnExceptionEndsItsTransfersAndRefusesLaterOnes) {
  CurlMultiBackend backend({});
  ASSERT_TRUE(log.waitFor("eventLoop | started"));
  log.clear();
  g_performExceptions = 1;
  ASSERT_TRUE(log.waitFor("eventLoop | stopped"));
  EXPECT_EQ(
      wholeLogError(log.records(), {failure(kBackend, "eventLoop exception"), trace(kBackend, "eventLoop | stopped")}),
      "");
  submit(backend, 2, 5);
  EXPECT_EQ(ends(), (std::vector<End>{{2, kCancelled, 0, 0}}));
}

// ---- Jobs ----

TEST_F(RefusingLibcurl, withoutAHandleAJobFailsWithMinus1) {
  g_easyRefusals = 1;
  DownloadJob job(support::requestFor(url, folder.file("out"), kSize), support::chunksOf(kSize, 1),
                  support::planUnderTest(kSize));
  const DownloadSnapshot end = support::run(job);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.errorCode, kNoHandle);
  EXPECT_EQ(end.httpStatus, 0);
  expectFailures(
      {failure(kBackend, "submit | curl_easy_init failed"), failure(kJob, "fatal | range=0 | err=-1 | http=0")});
}

TEST_F(RefusingLibcurl, withoutAHandleForItsProbeAJobFailsWithMinus1) {
  g_easyRefusals = 1;
  DownloadJob job(support::requestFor(url, folder.file("out")), support::chunksOf(kSize, 1),
                  support::planUnderTest(kSize));
  const DownloadSnapshot end = support::run(job);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.errorCode, kNoHandle);
  EXPECT_EQ(end.httpStatus, 0);
  EXPECT_EQ(wholeLogError(log.records(), {failure(kJob, "doStart | probe failed | err=-1")}), "");
}

TEST_F(RefusingLibcurl, withoutAMultiHandleAJobFailsWithTheCodeOfARefusedTransfer) {
  g_multiRefusals = 1;
  DownloadJob job(support::requestFor(url, folder.file("out"), kSize), support::chunksOf(kSize, 1),
                  support::planUnderTest(kSize));
  const DownloadSnapshot end = support::run(job);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.errorCode, kCancelled);
  EXPECT_EQ(end.httpStatus, 0);
  const char* const fatal =
      support::adaptivePlan() ? "fatal | no transfer can run any more | err=42" : "fatal | range=0 | err=42 | http=0";
  expectFailures({failure(kBackend, "curl_multi_init failed"), failure(kJob, fatal)});
}

}  // namespace
