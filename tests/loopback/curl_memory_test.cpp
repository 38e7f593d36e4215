// libcurl's memory that runs out: each of its allocations fails in turn, while an operation runs.  What is sent is then
// the same as with all memory, or nothing; and what is reported as a success has the right bytes.  C++'s own memory,
// which is not libcurl's, is exhausted_memory_test.cpp's.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "download_job_impl.h"
#include "support/job_run.h"
#include "support/pattern.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "sys/data_buff.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"
#include "xfer/xfer.h"

namespace {

// ---- libcurl's allocator ----

enum class Failing { One, AllLater };
enum class From { TheStart, TheRequest };

std::atomic<bool> g_counting{false};
std::atomic<bool> g_countingFromRequest{false};
std::atomic<Failing> g_failing{Failing::One};
std::atomic<int> g_successesLeft{0};
std::atomic<int> g_refused{0};

bool refuses() {
  if (!g_counting) return false;
  const int left = g_successesLeft--;
  const bool refused = left == 0 || (left < 0 && g_failing == Failing::AllLater);
  if (refused) ++g_refused;
  return refused;
}

void* allocate(std::size_t size) {
  return refuses() ? nullptr : std::malloc(size);
}

void* allocateCleared(std::size_t count, std::size_t size) {
  return refuses() ? nullptr : std::calloc(count, size);
}

void* reallocate(void* block, std::size_t size) {
  return refuses() ? nullptr : std::realloc(block, size);
}

char* duplicate(const char* text) {
  if (refuses()) return nullptr;
  const std::size_t size = std::strlen(text) + 1;
  void* const copy = std::malloc(size);
  return copy != nullptr ? static_cast<char*>(std::memcpy(copy, text, size)) : nullptr;
}

// Only the first initialisation of a process chooses the allocator.
const CURLcode kInitialised =
    curl_global_init_mem(CURL_GLOBAL_ALL, allocate, std::free, reallocate, duplicate, allocateCleared);

// While it lives, libcurl's nth allocation from its construction on fails (1 is the next one), alone or with all later
// ones, on whatever thread; or the nth after the next request for the file.
class FailingAllocation {
 public:
  FailingAllocation(int nth, Failing failing, From from = From::TheStart) {
    g_refused = 0;
    g_successesLeft = nth - 1;
    g_failing = failing;
    (from == From::TheStart ? g_counting : g_countingFromRequest) = true;
  }
  ~FailingAllocation() {
    g_countingFromRequest = false;
    g_counting = false;
  }
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;
};

using support::ReceivedRequest;
using support::Reply;
using support::ScriptedServer;

constexpr std::uint64_t kBytes = 3000;
constexpr std::uint64_t kUntouched = 4242;
constexpr std::int32_t kOutOfMemory = 27;  // libcurl's code

const std::string kCookie = "name=value";
const std::string kLogin = "Authorization: Basic c2VjcmV0";
const std::string kHeaders = "X-Own: 1\n" + kLogin;

// The results by which an operation may fail for lack of memory.
constexpr std::int32_t kNoHandle = -1;
constexpr std::int32_t kThrown = 100000;
constexpr std::int32_t kAborted = 42;  // before a redirect is followed; of a download also without a multi handle
// libcurl's names for what it had no memory for: the URL to redirect to, a proxy's address, a connection.
constexpr std::int32_t kMalformedUrl = 3;
constexpr std::int32_t kNoProxyAddress = 5;
constexpr std::int32_t kNoConnection = 7;

enum class Succeeded { No, Yes };

// What a server got, but for what a connection decides.
std::string essence(const ReceivedRequest& request) {
  std::string text = request.method + " " + request.target + "\n";
  for (const std::string& line : request.headerLines) text += line + "\n";
  return text + request.body;
}

ReceivedRequest withoutRange(ReceivedRequest request) {
  std::erase_if(request.headerLines, [](const std::string& line) { return line.starts_with("Range: "); });
  return request;
}

bool hasHeader(const ReceivedRequest& request, const std::string& name) {
  return request.header(name).has_value();
}

// The first test of the program: the library is initialised once per process.
TEST(CurlMemoryAtFirst, initialisesWithoutAShareWhichLaterRequestsDoWithout) {
  ASSERT_EQ(xfer::shareHandle(), nullptr) << "an earlier test of this process has initialised the library";
  {
    const FailingAllocation failing(1, Failing::AllLater);
    xfer_ensureCurlInit();
    EXPECT_GT(g_refused, 0) << "no allocation was made";
  }
  EXPECT_EQ(xfer::shareHandle(), nullptr);
  const ScriptedServer server(support::patternFile(kBytes));
  xfer::Request request;
  request.url = server.url("/file");
  for (int round = 0; round < 2; ++round) EXPECT_EQ(xfer::fetch(request).body, support::patternBytes(0, kBytes));
}

// Three servers: one has the file, and redirects to it; one is a proxy that answers itself; and one redirects to the
// first, which is another host for it.
class CurlMemory : public testing::TestWithParam<Failing> {
 protected:
  using Operation = std::function<Succeeded()>;

  CurlMemory() {
    EXPECT_EQ(kInitialised, CURLE_OK);
    xfer::init();
  }

  // Runs the operation with all memory, and then with the first, the second, ... allocation of libcurl failing, until
  // it meets no failure.  It has to assert itself that a success is a right one.
  void failEach(const Operation& operation, From from = From::TheStart) {
    ASSERT_EQ(operation(), Succeeded::Yes);
    for (Endpoint* const endpoint : endpoints()) endpoint->learn();
    int nth = 1;
    for (; !HasFailure(); ++nth) {
      ASSERT_LT(nth, kMostAllocations);
      const testing::ScopedTrace trace(__FILE__, __LINE__, "allocation " + std::to_string(nth));
      Succeeded succeeded = Succeeded::No;
      {
        const FailingAllocation failing(nth, GetParam(), from);
        succeeded = operation();
      }
      for (Endpoint* const endpoint : endpoints()) endpoint->expectOnlyKnownRequests();
      if (g_refused == 0) {
        EXPECT_EQ(succeeded, Succeeded::Yes);
        break;
      }
    }
    EXPECT_GT(nth, 1) << "no allocation was made";
    EXPECT_EQ(operation(), Succeeded::Yes) << "later ones have all the memory that they need";
  }

  void failEach(const std::function<std::int32_t(sys::DataBuff& headers, sys::DataBuff& body)>& operation) {
    failEach([&] {
      sys::DataBuff headers;
      sys::DataBuff body;
      return judge(operation(headers, body), body);
    });
  }

  static void expectFailure(std::int32_t code, const std::set<std::int32_t>& also = {}) {
    EXPECT_TRUE(code == kOutOfMemory || code == kNoHandle || code == kThrown || also.contains(code)) << code;
  }

  static Succeeded judge(std::int32_t code, sys::DataBuff& body) {
    if (code != 0) {
      expectFailure(code);
      return Succeeded::No;
    }
    EXPECT_EQ(body.toString(), support::patternBytes(0, kBytes));
    return Succeeded::Yes;
  }

  [[nodiscard]] std::string fileUrl() const { return file_.server.url("/file"); }
  [[nodiscard]] std::string movedUrl() const { return file_.server.url("/moved"); }
  [[nodiscard]] std::string otherHostsUrl() const { return redirect_.server.url("/file"); }

  [[nodiscard]] net::Proxy proxy() const {
    net::Proxy proxy;
    proxy.host = "127.0.0.1";
    proxy.port = proxy_.server.port();
    proxy.username = "user";
    proxy.password = "secret";
    return proxy;
  }

  [[nodiscard]] std::string proxySpec() const {
    return "user:secret@127.0.0.1:" + std::to_string(proxy_.server.port());
  }

  // What is for the first host only does not reach the other one.
  void expectNoSecretsElsewhere() const {
    for (const ReceivedRequest& request : file_.server.requests()) {
      EXPECT_FALSE(hasHeader(request, "Cookie"));
      EXPECT_FALSE(hasHeader(request, "Authorization"));
    }
  }

 private:
  static constexpr int kMostAllocations = 3000;

  // A server and what it gets when there is enough memory.
  struct Endpoint {
    ScriptedServer server;
    std::set<std::string> known{};
    std::size_t seen = 0;

    // libcurl leaves out its own Range line when it has no memory for it, and sends the request without: what comes
    // then is the whole file.
    void learn() {
      for (const ReceivedRequest& request : server.requests()) {
        known.insert(essence(request));
        known.insert(essence(withoutRange(request)));
      }
    }

    void expectOnlyKnownRequests() {
      const std::vector<ReceivedRequest> all = server.requests();
      for (; seen < all.size(); ++seen) EXPECT_TRUE(known.contains(essence(all[seen]))) << all[seen].head;
    }
  };

  std::vector<Endpoint*> endpoints() { return {&file_, &proxy_, &redirect_}; }

  // The file never comes on a connection that has a use later.
  static Reply answer(const ReceivedRequest& request) {
    if (request.target == "/moved") return support::redirect(302, "/file");
    if (g_countingFromRequest) g_counting = true;
    return support::patternFile(kBytes, {.headers = {"Connection: close"}})(request).close();
  }

  Endpoint file_{ScriptedServer(answer)};
  Endpoint proxy_{ScriptedServer(answer)};
  Endpoint redirect_{ScriptedServer([this](const ReceivedRequest& request) {
    return support::redirect(302, "http://localhost:" + std::to_string(file_.server.port()) + request.target);
  })};
};

std::string nameOf(const testing::TestParamInfo<Failing>& parameter) {
  return parameter.param == Failing::One ? "one" : "allLater";
}

// ---- Requests into memory ----

class CurlMemoryOfARequest : public CurlMemory {
 protected:
  static xfer::Request request(const std::string& url) {
    xfer::Request request;
    request.url = url;
    request.cookie = kCookie;
    request.headers = {"X-Own: 1", kLogin};
    return request;
  }

  static Succeeded judge(const xfer::Response& response, const std::set<std::int32_t>& failuresToo = {}) {
    if (response.curlCode != 0) {
      expectFailure(response.curlCode, failuresToo);
      EXPECT_EQ(response.status, 0);
      return Succeeded::No;
    }
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, support::patternBytes(0, kBytes));
    return Succeeded::Yes;
  }

  static Succeeded judgeSize(bool isKnown, std::uint64_t size) {
    if (!isKnown) return Succeeded::No;
    EXPECT_EQ(size, kBytes);
    return Succeeded::Yes;
  }

  // What an operation throws for lack of memory is a failure of it too.
  static Operation orThrown(Operation operation) {
    return [operation = std::move(operation)] {
      try {
        return operation();
      } catch (const std::bad_alloc&) {
        return Succeeded::No;
      }
    };
  }
};

TEST_P(CurlMemoryOfARequest, fetchOfAFile) {
  failEach(orThrown([&] { return judge(xfer::fetch(request(fileUrl()))); }));
}

TEST_P(CurlMemoryOfARequest, fetchWithABody) {
  xfer::Request post = request(fileUrl());
  post.body = "a=1&b=2";
  failEach(orThrown([&] { return judge(xfer::fetch(post)); }));
}

TEST_P(CurlMemoryOfARequest, fetchByAProxy) {
  xfer::Request proxied = request(fileUrl());
  proxied.proxy = proxy();
  failEach(orThrown([&] { return judge(xfer::fetch(proxied), {kNoProxyAddress, kNoConnection}); }));
}

TEST_P(CurlMemoryOfARequest, fetchOfARedirect) {
  failEach(orThrown([&] { return judge(xfer::fetch(request(movedUrl())), {kAborted, kMalformedUrl}); }));
}

TEST_P(CurlMemoryOfARequest, fetchOfARedirectToAnotherHost) {
  failEach(orThrown([&] {
    return judge(xfer::fetch(request(otherHostsUrl())), {kAborted, kMalformedUrl, kNoConnection});
  }));
  expectNoSecretsElsewhere();
}

TEST_P(CurlMemoryOfARequest, fetchInTheBackground) {
  failEach(orThrown([&] { return judge(xfer::fetchAsync(request(fileUrl())).get()); }));
}

TEST_P(CurlMemoryOfARequest, contentLength) {
  failEach(orThrown([&] {
    const std::int64_t length = xfer::getContentLength(fileUrl(), {}, kCookie);
    return judgeSize(length != -1, static_cast<std::uint64_t>(length));
  }));
}

TEST_P(CurlMemoryOfARequest, probe) {
  failEach(orThrown([&] {
    const xfer::RemoteFileInfo info = xfer::probeRemoteFile(fileUrl(), {}, kCookie, 10);
    if (info.error != 0) expectFailure(info.error);
    EXPECT_EQ(info.acceptRanges, info.error == 0);
    return judgeSize(info.error == 0, info.size);
  }));
}

TEST_P(CurlMemoryOfARequest, download) {
  failEach([&](sys::DataBuff& headers, sys::DataBuff& body) {
    return xfer_download(fileUrl().c_str(), kHeaders.c_str(), "", &headers, &body, kCookie.c_str(), nullptr);
  });
}

TEST_P(CurlMemoryOfARequest, downloadOfText) {
  failEach([&](sys::DataBuff& headers, sys::DataBuff& body) {
    return xfer_downloadText(fileUrl().c_str(), kCookie.c_str(), &headers, &body, nullptr);
  });
}

TEST_P(CurlMemoryOfARequest, downloadInTheBackground) {
  failEach([&](sys::DataBuff& headers, sys::DataBuff& body) {
    std::uint64_t id = 0;
    const std::int32_t started =
        xfer_downloadAsync(fileUrl().c_str(), &id, kHeaders.c_str(), "OPT_POSTFIELDS=a=1", kCookie.c_str(), nullptr);
    return started != 0 ? started : xfer_queryAsyncBuffer(id, &headers, &body);
  });
}

TEST_P(CurlMemoryOfARequest, remoteFileSize) {
  constexpr std::int32_t kException = 1;
  failEach([&] {
    std::uint64_t size = kUntouched;
    std::uint32_t type = 0;
    const std::int32_t code =
        xfer_getRemoteFileSize(fileUrl().c_str(), &size, &type, kCookie.c_str(), kHeaders.c_str(), 1, nullptr);
    if (code != 0) {
      expectFailure(code, {kException});
      EXPECT_EQ(size, kUntouched);
    }
    return judgeSize(code == 0, size);
  });
}

TEST_P(CurlMemoryOfARequest, contentLengthForC) {
  failEach([&] {
    std::int64_t length = 0;
    const bool known = xfer_getContentLength(fileUrl(), &length);
    EXPECT_EQ(known, length != -1);
    return judgeSize(known, static_cast<std::uint64_t>(length));
  });
}

INSTANTIATE_TEST_SUITE_P(Failing, CurlMemoryOfARequest, testing::Values(Failing::One, Failing::AllLater), nameOf);

// ---- Downloads into files ----

class CurlMemoryOfADownload : public CurlMemory {
 protected:
  // Retries wait for nothing.
  static Succeeded download(const xfer::DownloadRequest& request, const xfer::DownloadPolicy& policy,
                            std::set<std::int32_t> failuresToo = {}) {
    failuresToo.insert(kAborted);
    xfer::JobEnvironment environment = xfer::realJobEnvironment();
    environment.waitForRetry = [](std::uint64_t /*delayMs*/, xfer::StopSignal& /*stop*/) {};
    xfer::DownloadJob::Impl job(request, policy, environment,
                                support::planOfTries(1, policy.initialChunkSize).values());
    const xfer::DownloadSnapshot end = support::run(job);
    if (end.state != xfer::JobState::Completed) {
      EXPECT_EQ(end.state, xfer::JobState::Failed);
      expectFailure(end.errorCode, failuresToo);
      return Succeeded::No;
    }
    EXPECT_EQ(support::patternError(request.path, kBytes), "");
    return Succeeded::Yes;
  }

  [[nodiscard]] xfer::DownloadRequest requestFor(const std::string& url, std::uint64_t knownSize) const {
    xfer::DownloadRequest request = support::requestFor(url, path(), knownSize);
    request.cookie = kCookie;
    request.headers = {"X-Own: 1", kLogin};
    return request;
  }

  [[nodiscard]] std::string path() const { return folder_.file("out"); }

  // Starts a download over one connection; 0: out of memory.
  [[nodiscard]] std::uint64_t start(const std::string& url) const {
    return xfer_downloadFile(url.c_str(), path().c_str(), kHeaders.c_str(), 1, kCookie.c_str(), 0, kBytes, nullptr);
  }

  // Waits for the end.
  [[nodiscard]] Succeeded judge(std::uint64_t id) const {
    std::uint64_t downloaded = kUntouched;
    std::uint32_t error = kUntouched;
    std::uint8_t finished = 0;
    EXPECT_TRUE(support::waitUntil([&] {
      EXPECT_EQ(xfer_getProgress(id, &downloaded, &error, &finished), 0);
      return finished == 1;
    }));
    if (error != 0) {
      expectFailure(static_cast<std::int32_t>(error), {kAborted});
      return Succeeded::No;
    }
    EXPECT_EQ(downloaded, kBytes);
    EXPECT_EQ(support::patternError(path(), kBytes), "");
    return Succeeded::Yes;
  }

 private:
  support::TempDir folder_;
};

TEST_P(CurlMemoryOfADownload, overOneConnection) {
  failEach([&] { return download(requestFor(fileUrl(), kBytes), support::chunksOf(kBytes / 2, 1)); });
}

TEST_P(CurlMemoryOfADownload, overTwoConnections) {
  failEach([&] { return download(requestFor(fileUrl(), kBytes), support::chunksOf(kBytes / 2, 2)); });
}

TEST_P(CurlMemoryOfADownload, ofUnknownSize) {
  failEach([&] { return download(requestFor(fileUrl(), 0), {}); });
}

TEST_P(CurlMemoryOfADownload, byAProxy) {
  xfer::DownloadRequest proxied = requestFor(fileUrl(), kBytes);
  proxied.proxy = proxy();
  failEach([&] { return download(proxied, {}, {kNoProxyAddress, kNoConnection}); });
}

TEST_P(CurlMemoryOfADownload, ofARedirect) {
  failEach([&] { return download(requestFor(movedUrl(), kBytes), {}, {kMalformedUrl}); });
}

TEST_P(CurlMemoryOfADownload, ofARedirectToAnotherHost) {
  failEach([&] { return download(requestFor(otherHostsUrl(), kBytes), {}, {kMalformedUrl, kNoConnection}); });
  expectNoSecretsElsewhere();
}

TEST_P(CurlMemoryOfADownload, underAnId) {
  failEach([&] {
    const std::uint64_t id = start(fileUrl());
    return judge(id);
  });
}

// Its body waits for the speed limit, inside of libcurl.
TEST_P(CurlMemoryOfADownload, whoseBodyIsHeldBack) {
  xfer::DownloadPolicy slow;
  slow.maxDownloadSpeed = 50'000;
  failEach([&] { return download(requestFor(fileUrl(), kBytes), slow); }, From::TheRequest);
}

TEST_P(CurlMemoryOfADownload, thatIsHeldAndStopped) {
  ASSERT_EQ(judge(start(fileUrl())), Succeeded::Yes);
  failEach([&] {
    const std::uint64_t id = start(fileUrl());
    const bool lives = xfer_downloadPause(id) == 0;
    EXPECT_EQ(xfer_downloadResume(id) == 0, lives);
    EXPECT_EQ(xfer_stopDownloadHandle(id), lives);
    return Succeeded::Yes;
  });
}

INSTANTIATE_TEST_SUITE_P(Failing, CurlMemoryOfADownload, testing::Values(Failing::One, Failing::AllLater), nameOf);

}  // namespace
