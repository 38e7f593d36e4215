// Memory that runs out: this program's operator new refuses what is large, or the nth block, while a test says so.
// libcurl's own memory, which is not C++'s, is not touched.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <thread>

#include "keel/keel.h"
#include "support/census.h"
#include "support/log_line.h"
#include "support/pattern.h"
#include "support/plan_under_test.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/test_timeout.h"
#include "support/wait_until.h"
#include "sys/data_buff.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"
#include "xfer/xfer.h"
#include "xfer/xfer_download.h"
#include "xfer/xfer_request.h"

namespace {

constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();

std::atomic<std::size_t> g_largest{kUnlimited};
std::atomic<int> g_refused{0};

// Which allocations count, and how many of them succeed before the first that fails.
enum class Counted { None, CallersThread, EveryThread };
enum class Failing { One, AllLater };

std::atomic<Counted> g_counted{Counted::None};
std::atomic<Failing> g_failing{Failing::One};
std::atomic<int> g_successesLeft{0};
thread_local bool t_isCaller = false;

bool failsByNumber() {
  const Counted counted = g_counted;
  if (counted == Counted::None || (counted == Counted::CallersThread && !t_isCaller)) return false;
  const int left = g_successesLeft--;
  return left == 0 || (left < 0 && g_failing == Failing::AllLater);
}

// Not inlined: the compiler would take malloc and free here for a mistake of who calls new and delete.
[[gnu::noinline]] void* allocate(std::size_t size) {
  if (size > g_largest || failsByNumber()) {
    ++g_refused;
    throw std::bad_alloc();
  }
  void* const block = std::malloc(size != 0 ? size : 1);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

[[gnu::noinline]] void release(void* block) {
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) {
  return allocate(size);
}
void* operator new[](std::size_t size) {
  return allocate(size);
}
void operator delete(void* block) noexcept {
  release(block);
}
void operator delete[](void* block) noexcept {
  release(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
  release(block);
}
void operator delete[](void* block, std::size_t /*size*/) noexcept {
  release(block);
}

namespace {

using support::failure;
using support::kFetch;
using support::kXfer;
using support::logError;
using support::LogLine;
using support::ReceivedRequest;
using support::Reply;
using support::trace;
using support::wholeLogError;

// Larger than anything but the answers' parts that are to fail; the server's and the logger's blocks stay below it.
constexpr std::size_t kLimit = 256 * 1024;
constexpr std::uint64_t kBodyBytes = 1'000'000;

class AllocationLimit {
 public:
  AllocationLimit() {
    g_refused = 0;
    g_largest = kLimit;
  }
  ~AllocationLimit() { g_largest = kUnlimited; }
  AllocationLimit(const AllocationLimit&) = delete;
  AllocationLimit& operator=(const AllocationLimit&) = delete;
};

// While it lives, the nth allocation from its construction on fails (1 is the next one), alone or with all later ones.
class FailingAllocation {
 public:
  FailingAllocation(int nth, Failing failing, Counted counted = Counted::CallersThread) {
    g_refused = 0;
    g_successesLeft = nth - 1;
    g_failing = failing;
    t_isCaller = true;
    g_counted = counted;
  }
  ~FailingAllocation() {
    g_counted = Counted::None;
    t_isCaller = false;
  }
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;
};

// The body in parts, since the server has to do without large blocks too.
Reply largeAnswer(const ReceivedRequest& /*request*/) {
  return Reply()
      .send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(kBodyBytes) + "\r\n\r\n")
      .sendPattern(0, kBodyBytes);
}

// One header line after the other, until they do not fit any more.
Reply manyHeaders(const ReceivedRequest& /*request*/) {
  Reply reply = Reply().send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n");
  const std::string line = "X-Filler: " + std::string(8000, 'x') + "\r\n";
  for (int i = 0; i < 36; ++i) reply.send(line);
  return reply.send("\r\nhello");
}

// The first test of the program: the library is initialised once per process.
TEST(ExhaustedMemoryAtFirst, anInitialisationThatFailsIsTriedAgain) {
  ASSERT_EQ(xfer::shareHandle(), nullptr) << "an earlier test of this process has initialised the library";
  const support::RecordingLogger log;
  int nth = 1;
  for (;; ++nth) {
    const FailingAllocation failing(nth, Failing::One);
    xfer_ensureCurlInit();
    if (g_refused == 0) break;
  }
  EXPECT_GT(nth, 1);
  EXPECT_EQ(logError(log, failure(kXfer, "xfer_ensureCurlInit exception"), static_cast<std::size_t>(nth - 1)), "");
  EXPECT_NE(xfer::shareHandle(), nullptr);
}

class ExhaustedMemory : public testing::Test {
 protected:
  ExhaustedMemory() { xfer::init(); }

  static xfer::Request requestFor(const std::string& url) {
    xfer::Request request;
    request.url = url;
    return request;
  }
};

TEST_F(ExhaustedMemory, inTheBodyIsThrownByFetchAndLeavesNothingBehind) {
  const support::ScriptedServer server(largeAnswer);
  const xfer::Request request = requestFor(server.url("/large"));
  // What comes with the first request and its failure, and stays.
  {
    const AllocationLimit limit;
    EXPECT_THROW(xfer::fetch(request), std::bad_alloc);
  }
  ASSERT_TRUE(support::waitUntil([&] { return server.concurrentRequests() == 0; }));
  const std::size_t handles = support::openFileCount();
  constexpr int kRounds = 20;
  for (int round = 0; round < kRounds; ++round) {
    const AllocationLimit limit;
    EXPECT_THROW(xfer::fetch(request), std::bad_alloc);
    EXPECT_EQ(g_refused, 1);
  }
  // The server lets go of ended connections when it accepts one, whoever's they are.
  xfer::Request another = request;
  another.headers = {"Connection: close"};
  EXPECT_TRUE(support::waitUntil([&] {
    static_cast<void>(xfer::fetch(another));
    return support::openFileCount() < handles + kRounds / 2;
  })) << support::openFileCount()
      << " descriptors, at first " << handles;
  const xfer::Response whole = xfer::fetch(request);
  EXPECT_EQ(whole.curlCode, 0);
  EXPECT_EQ(whole.body, support::patternBytes(0, kBodyBytes)) << "the next request has all the memory that it needs";
}

TEST_F(ExhaustedMemory, inTheHeadersIsThrownByFetch) {
  const support::ScriptedServer server(manyHeaders);
  const AllocationLimit limit;
  EXPECT_THROW(xfer::fetch(requestFor(server.url("/headers"))), std::bad_alloc);
  EXPECT_GE(g_refused, 1);
}

TEST_F(ExhaustedMemory, fetchLogsTheFailedTransferAndNoEnd) {
  const support::ScriptedServer server(largeAnswer);
  const support::RecordingLogger log;
  {
    const AllocationLimit limit;
    EXPECT_THROW(xfer::fetch(requestFor(server.url("/large"))), std::bad_alloc);
  }
  const std::string text = "fetch | curl error 23 (" + std::string(curl_easy_strerror(CURLE_WRITE_ERROR)) + ")";
  EXPECT_EQ(wholeLogError(log.records(),
                          {trace(kFetch, 224, "--> fetch | " + server.url("/large")), failure(kFetch, 235, text)}),
            "");
}

TEST_F(ExhaustedMemory, failsADownloadWith100000AndItsLogLine) {
  const support::ScriptedServer server(largeAnswer);
  const support::RecordingLogger log;
  sys::DataBuff headers;
  sys::DataBuff body;
  int code = 0;
  {
    const AllocationLimit limit;
    code = xfer_download(server.url("/large").c_str(), nullptr, nullptr, &headers, &body, nullptr, nullptr);
  }
  EXPECT_EQ(code, 100000);
  EXPECT_EQ(headers.size(), 0U);
  EXPECT_EQ(body.size(), 0U) << "nothing of an answer that is not whole";
  EXPECT_EQ(logError(log, failure(kXfer, 336, "xfer_download exception")), "");
  EXPECT_EQ(logError(log, trace(kXfer, 341, "<-- xfer_download")), "");
}

TEST_F(ExhaustedMemory, failsATextDownloadLikeADownload) {
  const support::ScriptedServer server(largeAnswer);
  sys::DataBuff headers;
  sys::DataBuff body;
  const AllocationLimit limit;
  const std::int32_t code = xfer_downloadText(server.url("/large").c_str(), nullptr, &headers, &body, nullptr);
  EXPECT_EQ(code, 100000);
  EXPECT_EQ(body.size(), 0U);
}

TEST_F(ExhaustedMemory, failsARequestWithARecordWhichThenTellsOfNoEarlierAnswer) {
  const support::ScriptedServer server(largeAnswer);
  const std::string url = server.url("/large");
  sys::DataBuff body;
  xfer_request_options options;
  xfer_response response;
  xfer_requestOptionsInit(&options, sizeof options);
  xfer_responseInit(&response, sizeof response);
  options.url = url.c_str();
  response.body = &body;
  response.httpStatus = 404;
  response.reserved = 1;
  response.bodySize = 5;
  {
    const AllocationLimit limit;
    EXPECT_EQ(xfer_request(&options, &response), 100000);
  }
  EXPECT_EQ(response.error, 100000);
  EXPECT_EQ(response.httpStatus, 0);
  EXPECT_EQ(response.reserved, 0U);
  EXPECT_EQ(response.bodySize, 0U);
  EXPECT_EQ(response.body, &body);
  EXPECT_EQ(body.size(), 0U);
}

TEST_F(ExhaustedMemory, inTheBackgroundSurfacesAtCollection) {
  const support::ScriptedServer server(largeAnswer);
  const support::RecordingLogger log;
  const AllocationLimit limit;
  std::uint64_t id = 0;
  ASSERT_EQ(xfer_downloadAsync(server.url("/large").c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  sys::DataBuff headers;
  sys::DataBuff body;
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), 100000);
  EXPECT_EQ(body.size(), 0U);
  EXPECT_EQ(logError(log, failure(kXfer, 501, "xfer_queryAsyncBuffer exception")), "");
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), 100001) << "it is collected once";
}

// ---- The C interface, with each of its allocations failing in turn ----

constexpr std::uint64_t kSmallBody = 1000;
constexpr std::uint64_t kUntouched = 4242;
constexpr std::int32_t kMalformedUrl = 3;  // libcurl's code

// Texts that are too long to be kept without allocating.
const std::string kHeaders = "X-First: " + std::string(60, 'a') + "\nX-Second: " + std::string(60, 'b');
const std::string kCookie = "cookie=" + std::string(60, 'c');
const std::string kOptions = "OPT_POSTFIELDS=" + std::string(60, 'd');

class EachAllocation : public testing::TestWithParam<Failing> {
 protected:
  // Nothing stays behind: the servers of the test are gone by now.
  ~EachAllocation() override {
    EXPECT_TRUE(warm_);
    EXPECT_TRUE(support::waitUntil([this] { return support::threadCount() <= threads_ + kSystemThreads; }))
        << support::threadCount() << " threads, at first " << threads_;
    EXPECT_LE(support::openFileCount(), openFiles_ + kKeptConnections);
  }

  // Calls with the first, the second, ... allocation of the counted ones failing, until a call meets no failure.
  // afterFailure runs after each call that met one.
  template <class Call, class AfterFailure>
  void failEach(Call call, AfterFailure afterFailure, Counted counted = Counted::CallersThread) {
    int nth = 1;
    for (;; ++nth) {
      ASSERT_LT(nth, kMostAllocations);
      log_.clear();
      {
        const FailingAllocation failing(nth, GetParam(), counted);
        call();
      }
      if (g_refused == 0) break;
      const testing::ScopedTrace trace(__FILE__, __LINE__, "allocation " + std::to_string(nth));
      afterFailure();
    }
    EXPECT_GT(nth, 1) << "no allocation was made";
  }

  // When all later allocations fail, its record cannot be built either.
  void expectLoggedOnce(const LogLine& line) const {
    EXPECT_EQ(logError(log_, line, GetParam() == Failing::One ? 1 : 0), "");
  }

  // The latest id that was given out.
  static std::uint64_t latestId() {
    std::uint64_t id = 0;
    sys::DataBuff nothing;
    EXPECT_EQ(xfer_downloadAsync("", &id, nullptr, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(xfer_queryAsyncBuffer(id, &nothing, &nothing), kMalformedUrl);
    return id;
  }

  static int download(const std::string& url, sys::DataBuff& headers, sys::DataBuff& body) {
    return xfer_download(url.c_str(), kHeaders.c_str(), kOptions.c_str(), &headers, &body, kCookie.c_str(), nullptr);
  }

  static void expectOneWorks(const std::string& url) {
    sys::DataBuff headers;
    sys::DataBuff body;
    EXPECT_EQ(download(url, headers, body), 0);
    EXPECT_EQ(body.toString(), support::patternBytes(0, kSmallBody));
  }

  support::RecordingLogger log_{3};

 private:
  static constexpr int kMostAllocations = 1000;
  static constexpr std::size_t kKeptConnections = 8;
#ifdef _WIN32
  static constexpr std::size_t kSystemThreads = 1;  // the system's own may come at any time; each test fails many calls
#else
  static constexpr std::size_t kSystemThreads = 0;
#endif

  // The first request and the first server of a process may leave a thread of the system's behind.
  static bool warmUp() {
    xfer::init();
    const support::ScriptedServer server(support::patternFile(kSmallBody));
    xfer::Request request;
    request.url = server.url("/file");
    return xfer::fetch(request).status == 200;
  }

  const bool warm_ = warmUp();
  const std::size_t threads_ = support::threadCount();
  const std::size_t openFiles_ = support::openFileCount();
};

TEST_P(EachAllocation, ofSettingTheProxyLeavesTheEarlierOne) {
  const support::ScriptedServer server([](const ReceivedRequest&) { return support::status(200, "direct"); });
  const support::ScriptedServer earlier([](const ReceivedRequest&) { return support::status(200, "earlier"); });
  const support::ScriptedServer later([](const ReceivedRequest&) { return support::status(200, "later"); });
  const auto spec = [](const support::ScriptedServer& proxy) {
    return std::string(60, 'u') + ":" + std::string(60, 'p') + "@127.0.0.1:" + std::to_string(proxy.port());
  };
  const auto answer = [&] {
    sys::DataBuff headers;
    sys::DataBuff body;
    EXPECT_EQ(download(server.url("/"), headers, body), 0);
    return body.toString();
  };
  const std::string laterSpec = spec(later);
  xfer_setProxy(spec(earlier).c_str());
  failEach([&] { xfer_setProxy(laterSpec.c_str()); },
           [&] {
             expectLoggedOnce(failure(kXfer, "xfer_setProxy exception"));
             EXPECT_EQ(answer(), "earlier");
           });
  EXPECT_EQ(answer(), "later");
  xfer_setProxy(nullptr);
}

TEST_P(EachAllocation, ofSettingWhoRequestsSayTheyAreLeavesTheEarlierText) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const std::string earlier(60, 'e');
  const std::string later(60, 'l');
  std::int32_t code = 0;
  const auto lastSeen = [&] {
    sys::DataBuff headers;
    sys::DataBuff body;
    EXPECT_EQ(download(server.url("/"), headers, body), 0);
    return server.requests().back().header("User-Agent").value_or("none");
  };
  ASSERT_EQ(xfer_setUserAgent(earlier.c_str()), 0);
  failEach([&] { code = xfer_setUserAgent(later.c_str()); },
           [&] {
             EXPECT_EQ(code, 100000);
             EXPECT_EQ(lastSeen(), earlier);
           });
  EXPECT_EQ(code, 0);
  EXPECT_EQ(lastSeen(), later);
  EXPECT_EQ(xfer_setUserAgent(nullptr), 0);
}

TEST_P(EachAllocation, ofADownloadEndsItWith100000) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const std::string url = server.url("/file");
  expectOneWorks(url);
  sys::DataBuff headers;
  sys::DataBuff body;
  int code = 0;
  failEach([&] { code = download(url, headers, body); },
           [&] {
             EXPECT_EQ(code, 100000);
             expectLoggedOnce(failure(kXfer, 336, "xfer_download exception"));
             expectOneWorks(url);
           });
  EXPECT_EQ(code, 0);
  EXPECT_EQ(body.toString(), support::patternBytes(0, kSmallBody));
}

TEST_P(EachAllocation, ofATextDownloadEndsItAndLeavesTheBuffers) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const std::string url = server.url("/watch?v=abcdefghijk");
  sys::DataBuff headers;
  sys::DataBuff body;
  headers.assign("h");
  body.assign("b");
  int caughtHere = 0;
  int caughtBelow = 0;
  std::int32_t code = 0;
  failEach([&] { code = xfer_downloadText(url.c_str(), kCookie.c_str(), &headers, &body, nullptr); },
           [&] {
             ++(code == -1 ? caughtHere : caughtBelow);
             EXPECT_TRUE(code == -1 || code == 100000) << code;
             EXPECT_FALSE(log_.contains("xfer_downloadText"));
             EXPECT_EQ(headers.toString(), "h");
             EXPECT_EQ(body.toString(), "b");
           });
  EXPECT_GT(caughtHere, 0);
  EXPECT_GT(caughtBelow, 0);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(body.toString(), support::patternBytes(0, kSmallBody));
}

TEST_P(EachAllocation, ofAStartInTheBackgroundMeansThatNothingStarts) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const std::string url = server.url("/file");
  const std::uint64_t earlier = latestId();
  std::uint64_t id = kUntouched;
  std::int32_t code = 0;
  failEach([&] { code = xfer_downloadAsync(url.c_str(), &id, kHeaders.c_str(), "", kCookie.c_str(), nullptr); },
           [&] {
             EXPECT_EQ(code, 100000);
             EXPECT_EQ(id, kUntouched);
             expectLoggedOnce(failure(kXfer, 457, "xfer_downloadAsync exception"));
           });
  ASSERT_EQ(code, 0);
  EXPECT_EQ(id, earlier + 1) << "a failed start takes no id";
  sys::DataBuff headers;
  sys::DataBuff body;
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), 0);
  EXPECT_EQ(body.toString(), support::patternBytes(0, kSmallBody));
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_P(EachAllocation, ofARequestInTheBackgroundIsReportedByItsStartOrItsCollection) {
  std::int32_t started = 0;
  std::int32_t collected = 0;
  std::uint64_t id = 0;
  sys::DataBuff headers;
  sys::DataBuff body;
  Keel::setRecordSink(nullptr, nullptr);  // a record would allocate
  failEach(
      [&] {
        started = xfer_downloadAsync("", &id, kHeaders.c_str(), kOptions.c_str(), kCookie.c_str(), nullptr);
        if (started == 0) collected = xfer_queryAsyncBuffer(id, &headers, &body);
      },
      [&] { EXPECT_TRUE(started == 100000 || (started == 0 && collected == 100000)) << started << ", " << collected; },
      Counted::EveryThread);
  EXPECT_EQ(started, 0);
  EXPECT_EQ(collected, kMalformedUrl);
}

TEST_P(EachAllocation, isNoneWhenARequestIsCollected) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  std::uint64_t id = 0;
  ASSERT_EQ(xfer_downloadAsync(server.url("/file").c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  sys::DataBuff headers;
  sys::DataBuff body;
  const FailingAllocation failing(1, GetParam());
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), 0);
  EXPECT_EQ(g_refused, 0);
}

TEST_P(EachAllocation, ofARemoteSizeEndsItWith1) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const std::string url = server.url("/file");
  std::uint64_t size = kUntouched;
  std::uint32_t type = 0;
  std::int32_t code = 0;
  failEach(
      [&] { code = xfer_getRemoteFileSize(url.c_str(), &size, &type, kCookie.c_str(), kHeaders.c_str(), 1, nullptr); },
      [&] {
        EXPECT_EQ(code, 1);
        EXPECT_EQ(size, kUntouched);
        expectLoggedOnce(failure(kXfer, 264, "xfer_getRemoteFileSize exception"));
      });
  EXPECT_EQ(code, 0);
  EXPECT_EQ(size, kSmallBody);
}

TEST_P(EachAllocation, ofAContentLengthMeansThatItIsUnknown) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const std::string url = server.url("/file");
  bool known = false;
  std::int64_t length = 0;
  failEach([&] { known = xfer_getContentLength(url, &length); },
           [&] {
             EXPECT_FALSE(known);
             EXPECT_EQ(length, -1);
             expectLoggedOnce(failure(kXfer, "xfer_getContentLength exception"));
           });
  EXPECT_TRUE(known);
  EXPECT_EQ(length, static_cast<std::int64_t>(kSmallBody));
}

TEST_P(EachAllocation, ofARequestWithARecordEndsItWith100000) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const std::string url = server.url("/file");
  const std::string userAgent(60, 'u');
  const std::string method(60, 'M');
  const std::string proxy =
      std::string(60, 'u') + ":" + std::string(60, 'p') + "@127.0.0.1:" + std::to_string(server.port());
  xfer_request_options options;
  xfer_response response;
  sys::DataBuff headers;
  sys::DataBuff body;
  xfer_requestOptionsInit(&options, sizeof options);
  xfer_responseInit(&response, sizeof response);
  options.url = url.c_str();
  options.method = method.c_str();
  options.headers = kHeaders.c_str();
  options.cookie = kCookie.c_str();
  options.userAgent = userAgent.c_str();
  options.proxy = proxy.c_str();
  options.cancel = xfer_cancelNew();
  response.headers = &headers;
  response.body = &body;
  std::int32_t code = 0;
  failEach([&] { code = xfer_request(&options, &response); },
           [&] {
             EXPECT_EQ(code, 100000);
             EXPECT_EQ(response.error, 100000);
             EXPECT_EQ(response.headers, &headers);
             EXPECT_EQ(headers.size() + body.size(), 0U);
             EXPECT_EQ(log_.count("xfer_request exception"), GetParam() == Failing::One ? 1U : 0U);
           });
  EXPECT_EQ(code, 0);
  EXPECT_EQ(response.error, 0);
  EXPECT_EQ(response.httpStatus, 200);
  EXPECT_EQ(body.toString(), support::patternBytes(0, kSmallBody));
  xfer_cancelFree(options.cancel);
}

TEST_P(EachAllocation, ofACancelMeansThatThereIsNone) {
  xfer_cancel* cancel = nullptr;
  failEach([&] { cancel = xfer_cancelNew(); }, [&] { EXPECT_EQ(cancel, nullptr); });
  ASSERT_NE(cancel, nullptr);
  const FailingAllocation failing(1, GetParam());
  xfer_cancelSet(cancel);
  xfer_cancelFree(cancel);
  EXPECT_EQ(g_refused, 0);
}

struct Progress {
  std::uint64_t downloaded = kUntouched;
  std::uint32_t error = kUntouched;
  std::uint8_t finished = 99;
};

Progress progressOf(std::uint64_t id) {
  Progress progress;
  EXPECT_EQ(xfer_getProgress(id, &progress.downloaded, &progress.error, &progress.finished), 0);
  return progress;
}

Progress endOf(std::uint64_t id) {
  Progress progress;
  EXPECT_TRUE(support::waitUntil([&] { return (progress = progressOf(id)).finished == 1; }));
  return progress;
}

std::uint64_t start(const std::string& url, const std::string& path, std::uint64_t knownSize) {
  return xfer_downloadFile(url.c_str(), path.c_str(), kHeaders.c_str(), 2, kCookie.c_str(), 0, knownSize, nullptr);
}

TEST_P(EachAllocation, ofAStartedFileDownloadIsReportedUnderItsId) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const support::TempDir folder;
  const std::string url = server.url("/file");
  const std::string path = folder.file("out");
  std::uint64_t id = 0;
  std::uint64_t lastId = latestId();
  int unfiled = 0;
  failEach([&] { id = start(url, path, 0); },
           [&] {
             expectLoggedOnce(failure(kXfer, "xfer_downloadFile exception"));
             if (id == 0) {
               ++unfiled;
               return;
             }
             EXPECT_EQ(id, ++lastId);
             EXPECT_EQ(xfer_downloadPause(id), 100001) << "it does not live";
             EXPECT_FALSE(xfer_stopDownloadHandle(id));
             for (int report = 0; report < 2; ++report) {
               const Progress end = progressOf(id);
               EXPECT_EQ(end.finished, 1);
               EXPECT_EQ(end.error, 100000U);
               EXPECT_EQ(end.downloaded, 0U);
             }
           });
  EXPECT_EQ(unfiled, 1) << "only what filing takes is needed for an id";
  EXPECT_EQ(id, lastId + 1);
  EXPECT_EQ(endOf(id).error, 0U);
  EXPECT_EQ(support::patternError(path, kSmallBody), "");
}

TEST_P(EachAllocation, ofAStartWithARecordMeansThatNothingStartsOrThatItEndsWith100000) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const support::TempDir folder;
  const std::string url = server.url("/file");
  const std::string path = folder.file("out");
  for (const std::uint32_t plan : {XFER_PLAN_STATED, XFER_PLAN_ADAPTIVE}) {
    xfer_download_options options;
    xfer_downloadOptionsInit(&options, sizeof options);
    options.plan = plan;
    options.url = url.c_str();
    options.path = path.c_str();
    options.headers = kHeaders.c_str();
    options.cookie = kCookie.c_str();
    options.knownSize = kSmallBody;
    options.onEvent = [](void* /*user*/, const xfer_event* /*event*/) {};
    std::uint64_t id = 0;
    std::int32_t code = 0;
    const auto errorOf = [&] {
      xfer_status status{};
      status.size = sizeof status;
      EXPECT_EQ(xfer_downloadWait(id, 60'000), 0);
      EXPECT_EQ(xfer_downloadStatus(id, &status), 0);
      EXPECT_EQ(xfer_downloadForget(id), 0);
      return status.error;
    };
    failEach(
        [&] {
          id = kUntouched;
          code = xfer_downloadStart(&options, &id);
        },
        [&] {
          if (code == 0) {
            EXPECT_EQ(errorOf(), 100000);
          } else {
            EXPECT_EQ(code, 100000);
            EXPECT_EQ(id, kUntouched);
          }
        });
    ASSERT_EQ(code, 0);
    EXPECT_EQ(errorOf(), 0);
    EXPECT_EQ(support::patternError(path, kSmallBody), "");
  }
}

TEST_P(EachAllocation, isNoneWhenARunningDownloadIsReported) {
  const support::ScriptedServer server(
      [](const ReceivedRequest& request) { return support::range206(request, kSmallBody, {.bodyBytes = 1}).stall(); });
  const support::TempDir folder;
  const std::uint64_t id = start(server.url("/file"), folder.file("out"), kSmallBody);
  ASSERT_TRUE(server.waitForRequests(1));
  Progress progress;
  {
    const FailingAllocation failing(1, GetParam());
    EXPECT_EQ(xfer_getProgress(id, &progress.downloaded, &progress.error, &progress.finished), 0);
    EXPECT_EQ(g_refused, 0);
  }
  EXPECT_EQ(progress.finished, 0);
  EXPECT_TRUE(xfer_stopDownloadHandle(id));
}

TEST_P(EachAllocation, ofADownloadOfKnownSizeIsReportedUnderItsId) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const support::TempDir folder;
  const std::string url = server.url("/file");
  const std::string path = folder.file("out");
  std::uint64_t id = 0;
  std::uint64_t lastId = latestId();
  int unfiled = 0;
  failEach([&] { id = start(url, path, kSmallBody); },
           [&] {
             if (id == 0) {
               ++unfiled;
               return;
             }
             EXPECT_EQ(id, ++lastId);
             EXPECT_EQ(endOf(id).error, 100000U);
             EXPECT_EQ(progressOf(id).error, 100000U);
           });
  EXPECT_EQ(unfiled, 1) << "only what filing takes is needed for an id";
  EXPECT_EQ(id, lastId + 1);
  EXPECT_EQ(endOf(id).error, 0U);
  EXPECT_EQ(support::patternError(path, kSmallBody), "");
}

TEST_P(EachAllocation, ofAFileDownloadOnAnyThreadIsReportedUnderItsId) {
  const support::TempDir folder;
  const std::string path = folder.file("out");
  std::uint64_t id = 0;
  Progress end;
  Keel::setRecordSink(nullptr, nullptr);  // a record would allocate
  failEach(
      [&] {
        end = Progress();
        id = start("", path, kSmallBody);
        for (end.finished = 0; id != 0 && end.finished == 0;) {
          xfer_getProgress(id, &end.downloaded, &end.error, &end.finished);
          std::this_thread::yield();
        }
      },
      [&] {
        if (id == 0) return;
        EXPECT_NE(end.error, 0U);
        EXPECT_NE(end.error, kUntouched) << "its end was reported";
      },
      Counted::EveryThread);
  EXPECT_EQ(end.error, static_cast<std::uint32_t>(kMalformedUrl));
}

TEST_P(EachAllocation, isNoneWhenADownloadIsHeldAndResumedAndStopped) {
  const support::ScriptedServer server(
      [](const ReceivedRequest& request) { return support::range206(request, kSmallBody, {.bodyBytes = 1}).stall(); });
  const support::TempDir folder;
  const std::uint64_t id = start(server.url("/file"), folder.file("out"), kSmallBody);
  ASSERT_TRUE(server.waitForRequests(1));
  std::int32_t paused = -1;
  std::int32_t resumed = -1;
  bool stopped = false;
  {
    const FailingAllocation failing(1, GetParam());
    paused = xfer_downloadPause(id);
    resumed = xfer_downloadResume(id);
    stopped = xfer_stopDownloadHandle(id);
  }
  EXPECT_EQ(g_refused, 0);
  EXPECT_EQ(paused, 0);
  EXPECT_EQ(resumed, 0);
  EXPECT_TRUE(stopped);
  EXPECT_FALSE(xfer_stopDownloadHandle(id));
}

TEST_P(EachAllocation, isNoneWhenTheEndOfADownloadIsReported) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const support::TempDir folder;
  const std::string path = folder.file("out");
  const std::uint64_t id = start(server.url("/file"), path, kSmallBody);
  Progress end;
  EXPECT_TRUE(support::waitUntil([&] {
    const FailingAllocation failing(1, GetParam());
    xfer_getProgress(id, &end.downloaded, &end.error, &end.finished);
    return end.finished == 1 || g_refused != 0;
  }));
  EXPECT_EQ(g_refused, 0);
  EXPECT_EQ(end.error, 0U);
  EXPECT_EQ(end.downloaded, kSmallBody);
  EXPECT_EQ(support::patternError(path, kSmallBody), "");
}

TEST_P(EachAllocation, isNoneForAnIdThatIsUnknown) {
  sys::DataBuff headers;
  sys::DataBuff body;
  Progress progress;
  Keel::setRecordSink(nullptr, nullptr);  // a record would allocate
  const FailingAllocation failing(1, GetParam());
  EXPECT_EQ(xfer_downloadPause(kUntouched), 100001);
  EXPECT_EQ(xfer_downloadResume(kUntouched), 100001);
  EXPECT_FALSE(xfer_stopDownloadHandle(kUntouched));
  EXPECT_EQ(xfer_queryAsyncBuffer(kUntouched, &headers, &body), 100001);
  EXPECT_EQ(xfer_getProgress(kUntouched, &progress.downloaded, &progress.error, &progress.finished), 0);
  EXPECT_EQ(progress.finished, 1);
  EXPECT_EQ(g_refused, 0);
}

// ---- The C++ functions ----

xfer::Request requestOf(const std::string& url) {
  xfer::Request request;
  request.url = url;
  request.cookie = kCookie;
  request.headers = {"Authorization: " + std::string(60, 'e')};
  return request;
}

// Whether the call ended without an exception; none but that of memory comes out.
template <class Call>
bool succeeds(Call call) {
  try {
    call();
    return true;
  } catch (const std::bad_alloc&) {
    return false;
  }
}

TEST_P(EachAllocation, ofAFetchIsThrown) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const xfer::Request request = requestOf(server.url("/file"));
  xfer::Response response;
  bool succeeded = true;
  failEach([&] { succeeded = succeeds([&] { response = xfer::fetch(request); }); }, [&] { EXPECT_FALSE(succeeded); });
  EXPECT_TRUE(succeeded);
  EXPECT_EQ(response.body, support::patternBytes(0, kSmallBody));
}

TEST_P(EachAllocation, ofAFetchWithEveryOptionIsThrownAndLeavesTheOptionsAsTheyWere) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const xfer::Request request = requestOf(server.url("/file"));
  std::string seen;
  seen.reserve(kSmallBody);
  xfer::Response response;
  bool succeeded = true;
  failEach(
      [&] {
        seen.clear();
        succeeded = succeeds([&] {
          xfer::FetchOptions options;
          options.setMethod(std::string(60, 'M')).setUserAgent(std::string(60, 'u')).setMaxRedirects(3);
          options.setCancelToken(xfer::CancelToken()).setOnBody([&](std::int32_t, std::string_view bytes) {
            seen += bytes;
            return true;
          });
          const xfer::FetchOptions copy = options;
          response = xfer::fetch(request, copy);
        });
      },
      [&] { EXPECT_FALSE(succeeded); });
  EXPECT_TRUE(succeeded);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(seen, support::patternBytes(0, kSmallBody));
}

// Without a server, whose allocations would count too.
TEST_P(EachAllocation, ofAFetchInTheBackgroundIsThrownByItOrByItsFuture) {
  xfer::Request request = requestOf("");
  request.quiet = true;  // a record that finds no memory is lost, which is no failure
  std::int32_t code = 0;
  bool succeeded = true;
  failEach([&] { succeeded = succeeds([&] { code = xfer::fetchAsync(request).get().curlCode; }); },
           [&] { EXPECT_FALSE(succeeded); }, Counted::EveryThread);
  EXPECT_TRUE(succeeded);
  EXPECT_EQ(code, kMalformedUrl);
}

TEST_P(EachAllocation, ofASizeQueryIsThrown) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const std::string url = server.url("/file");
  std::int64_t length = 0;
  xfer::RemoteFileInfo info;
  bool succeeded = true;
  failEach([&] { succeeded = succeeds([&] { length = xfer::getContentLength(url, {}, kCookie); }); },
           [&] { EXPECT_FALSE(succeeded); });
  EXPECT_TRUE(succeeded);
  EXPECT_EQ(length, static_cast<std::int64_t>(kSmallBody));
  failEach([&] { succeeded = succeeds([&] { info = xfer::probeRemoteFile(url, {}, kCookie, 10); }); },
           [&] { EXPECT_FALSE(succeeded); });
  EXPECT_TRUE(succeeded);
  EXPECT_EQ(info.size, kSmallBody);
}

TEST_P(EachAllocation, ofAJobIsThrownByItsConstructionOrFailsIt) {
  const support::ScriptedServer server(support::patternFile(kSmallBody));
  const support::TempDir folder;
  const std::string path = folder.file("out");
  xfer::DownloadRequest request;
  request.url = server.url("/file");
  request.path = path;
  request.cookie = kCookie;
  request.knownSize = kSmallBody;
  xfer::DownloadPolicy policy;
  policy.numThreads = 2;
  policy.rampChunks = false;
  policy.maxChunkSize = kSmallBody / 2;
  const xfer::DownloadOptions options = support::planUnderTest().setSpeedLimiter(xfer::SpeedLimiter());
  std::unique_ptr<xfer::DownloadJob> job;
  failEach(
      [&] {
        job.reset();
        succeeds([&] {
          job = std::make_unique<xfer::DownloadJob>(request, policy, options);
          job->start();
        });
      },
      [&] {
        if (job == nullptr) return;
        EXPECT_TRUE(job->waitFor(static_cast<std::uint64_t>(support::testTimeout().count())));
        EXPECT_EQ(job->snapshot().state, xfer::JobState::Failed);
        EXPECT_EQ(job->snapshot().errorCode, 100000);
      });
  EXPECT_TRUE(job->waitFor(static_cast<std::uint64_t>(support::testTimeout().count())));
  EXPECT_EQ(job->snapshot().state, xfer::JobState::Completed);
  EXPECT_EQ(support::patternError(path, kSmallBody), "");
}

TEST_P(EachAllocation, isNoneOfAJobThatIsAskedOrTold) {
  const support::ScriptedServer server(
      [](const ReceivedRequest& request) { return support::range206(request, kSmallBody, {.bodyBytes = 1}).stall(); });
  const support::TempDir folder;
  xfer::DownloadRequest request;
  request.url = server.url("/file");
  request.path = folder.file("out");
  request.knownSize = kSmallBody;
  xfer::DownloadJob job(request, xfer::DownloadPolicy(), support::planUnderTest());
  xfer::SpeedLimiter limiter(5);
  job.start();
  ASSERT_TRUE(support::waitUntil([&] { return job.snapshot().bytesDone == 1; }));
  {
    const FailingAllocation failing(1, GetParam());
    job.setSpeedLimit(1'000);
    job.pause();
    EXPECT_FALSE(job.waitFor(1));
    EXPECT_EQ(job.snapshot().state, xfer::JobState::Paused);
    job.resume();
    const xfer::SpeedLimiter copy = limiter;
    limiter.setLimit(6);
    EXPECT_EQ(copy.limit(), 6U);
    job.cancel();
    EXPECT_TRUE(job.waitFor(static_cast<std::uint64_t>(support::testTimeout().count())));
  }
  EXPECT_EQ(g_refused, 0);
  EXPECT_EQ(job.snapshot().state, xfer::JobState::Cancelled);
}

TEST_P(EachAllocation, ofOptionsIsThrownAndLeavesThemAsTheyWere) {
  xfer::DownloadOptions options;
  bool succeeded = true;
  failEach(
      [&] {
        succeeded = succeeds([&] {
          const xfer::SpeedLimiter limiter(5);
          xfer::DownloadOptions limited;
          limited.setSpeedLimiter(limiter);
          const xfer::DownloadOptions copy = limited;
          options = copy;
        });
      },
      [&] { EXPECT_FALSE(succeeded); });
  EXPECT_TRUE(succeeded);
}

INSTANTIATE_TEST_SUITE_P(ExhaustedMemory, EachAllocation, testing::Values(Failing::One, Failing::AllLater),
                         [](const auto& parameter) { return parameter.param == Failing::One ? "one" : "allLater"; });

// A body of a million bytes passes by what asks for sizes only.
TEST_F(ExhaustedMemory, isNoneOfASizeQuerysBusinessSinceItKeepsNoBody) {
  const support::ScriptedServer server(largeAnswer);
  const std::string url = server.url("/large");
  const AllocationLimit limit;
  EXPECT_EQ(xfer::probeRemoteFile(url, {}, "", 10).size, kBodyBytes);
  EXPECT_EQ(xfer::getContentLength(url, {}, ""), static_cast<std::int64_t>(kBodyBytes));
  std::uint64_t size = 0;
  std::uint32_t type = 0;
  EXPECT_EQ(xfer_getRemoteFileSize(url.c_str(), &size, &type, nullptr, nullptr, 1, nullptr), 0);
  EXPECT_EQ(size, kBodyBytes);
  EXPECT_EQ(g_refused, 0);
}

}  // namespace
