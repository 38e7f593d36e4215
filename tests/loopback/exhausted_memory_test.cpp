// Memory that runs out while an answer arrives.  This program's operator new refuses what is large while a test says
// so; libcurl's own memory, which is not C++'s, is not touched.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>
#include <string>

#include "support/census.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/wait_until.h"
#include "sys/data_buff.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"
#include "xfer/xfer.h"

namespace {

constexpr std::size_t kUnlimited = std::numeric_limits<std::size_t>::max();

std::atomic<std::size_t> g_largest{kUnlimited};
std::atomic<int> g_refused{0};

// Not inlined: the compiler would take malloc and free here for a mistake of who calls new and delete.
[[gnu::noinline]] void* allocate(std::size_t size) {
  if (size > g_largest) {
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

using support::ReceivedRequest;
using support::Reply;

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
  EXPECT_TRUE(support::waitUntil([&] { return support::openFileCount() < handles + kRounds / 2; }))
      << support::openFileCount() << " descriptors, at first " << handles;
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
  EXPECT_EQ(log.count("fetch | curl error 23"), 1U);
  EXPECT_EQ(log.count("<-- fetch"), 0U);
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
  EXPECT_TRUE(log.contains("xfer_download exception"));
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
  EXPECT_TRUE(log.contains("xfer_queryAsyncBuffer exception"));
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), 100001) << "it is collected once";
}

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
