// What goes over the wire about files of more than 4 GiB.  Nobody has their bytes: the server makes up the few that are
// asked for, and the files are sparse.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "curl_multi_backend.h"
#include "remote_file.h"
#include "support/far_file.h"
#include "support/gate.h"
#include "support/job_run.h"
#include "support/pattern.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "xfer/fetch.h"
#include "xfer/xfer.h"

namespace {

using support::full200;
using support::Gate;
using support::patternBytes;
using support::range206;
using support::ReceivedRequest;
using support::Reply;
using support::requestFor;
using support::ScriptedServer;
using support::waitUntil;
using xfer::DownloadPolicy;

constexpr std::uint64_t k32Bits = std::uint64_t{1} << 32;

std::vector<std::string> rangeTexts(const ScriptedServer& server) {
  std::vector<std::string> texts;
  for (const ReceivedRequest& request : server.requests()) texts.push_back(request.header("Range").value_or("none"));
  std::sort(texts.begin(), texts.end());
  return texts;
}

// ---- Ranges ----

TEST(FarRanges, backendAsksForThemAndDeliversAtTheirOffsets) {
  constexpr std::uint64_t kTotal = 3 * k32Bits;
  const ScriptedServer server([](const ReceivedRequest& request) { return range206(request, kTotal); });
  std::mutex mutex;
  std::vector<std::string> delivered;
  Gate first;
  Gate second;
  xfer::CurlMultiBackend backend(DownloadPolicy{});
  const auto fetch = [&](std::uint64_t start, std::uint64_t end, Gate over) {
    xfer::TransferRequest request;
    request.url = server.url("/");
    request.rangeStart = start;
    request.rangeEnd = end;
    backend.submit(
        request,
        [&](std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length) {
          const std::lock_guard lock(mutex);
          delivered.push_back(std::to_string(offset) + "+" + std::to_string(length));
          EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes), length), patternBytes(offset, offset + length));
        },
        [over, start, end](std::uint64_t rangeStart, const xfer::TransferEnd& how) mutable {
          EXPECT_EQ(rangeStart, start);
          EXPECT_EQ(how.code, 0);
          EXPECT_EQ(how.bytes, (end != 0 ? end : kTotal) - start);
          over.open();
        });
    EXPECT_TRUE(over.wait());
  };
  fetch(k32Bits + 5, k32Bits + 12, first);
  fetch(kTotal - 3, 0, second);
  EXPECT_EQ(rangeTexts(server), (std::vector<std::string>{"bytes=12884901885-", "bytes=4294967301-4294967307"}));
  EXPECT_EQ(delivered, (std::vector<std::string>{"4294967301+7", "12884901885+3"}));
}

TEST(FarRanges, jobAsksForThemAndWritesThemAtTheirOffsets) {
  constexpr std::uint64_t kTotal = k32Bits + 2500;
  // The range before them begins and never goes on.
  const ScriptedServer server([](const ReceivedRequest& request) {
    if (request.range->first == 0) return range206(request, kTotal, {.bodyBytes = 10}).stall();
    return range206(request, kTotal);
  });
  const support::TempDir folder;
  const std::string path = folder.file("out");
  DownloadPolicy policy;
  policy.numThreads = 4;
  policy.initialChunkSize = k32Bits - 7;
  policy.maxChunkSize = 1000;
  {
    xfer::DownloadJob job(requestFor(server.url("/f"), path, kTotal), policy,
                          support::planUnderTest(policy.initialChunkSize));
    job.start();
    EXPECT_TRUE(waitUntil([&] { return job.snapshot().bytesDone == 10 + 2507; }));
    EXPECT_EQ(job.snapshot().totalBytes, kTotal);
    EXPECT_EQ(job.snapshot().percent, 2517.0F * 100.0F / static_cast<float>(kTotal));
  }
  EXPECT_EQ(rangeTexts(server),
            (std::vector<std::string>{"bytes=0-4294967288", "bytes=4294967289-4294968288",
                                      "bytes=4294968289-4294969288", "bytes=4294969289-4294969795"}));
  EXPECT_EQ(support::fileSize(path), kTotal);
  EXPECT_EQ(support::readAt(path, 0, 11), patternBytes(0, 10) + '\0');
  EXPECT_EQ(support::readAt(path, k32Bits - 8, 2508), '\0' + patternBytes(k32Bits - 7, kTotal));
}

// As above: the first range begins and never goes on, and what others take of it does so too.
TEST(FarRanges, jobWhoseRangesMoveAsksForThemAndWritesThemAtTheirOffsets) {
  constexpr std::uint64_t kFar = k32Bits - 7;
  constexpr std::uint64_t kTotal = k32Bits + 2500;
  const ScriptedServer server([](const ReceivedRequest& request) {
    if (request.range->first < kFar) return range206(request, kTotal, {.bodyBytes = 10}).stall();
    return range206(request, kTotal);
  });
  const support::TempDir folder;
  const std::string path = folder.file("out");
  DownloadPolicy policy;
  policy.numThreads = 2;
  {
    xfer::DownloadJob job(requestFor(server.url("/f"), path, kTotal), policy,
                          xfer::DownloadOptions().setPlan(xfer::DownloadPlan::Adaptive).setFirstRange(kFar));
    job.start();
    EXPECT_TRUE(waitUntil([&] { return job.snapshot().bytesDone >= 10 + 2507; }));
    EXPECT_EQ(job.snapshot().totalBytes, kTotal);
  }
  const std::vector<std::string> texts = rangeTexts(server);
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "bytes=0-4294967288"), 1);
  EXPECT_EQ(std::count(texts.begin(), texts.end(), "bytes=4294967289-4294969795"), 1);
  EXPECT_EQ(support::fileSize(path), kTotal);
  EXPECT_EQ(support::readAt(path, 0, 10), patternBytes(0, 10));
  EXPECT_EQ(support::readAt(path, kFar, 2507), patternBytes(kFar, kTotal));
}

// ---- Sizes ----

class FarSizes : public testing::TestWithParam<std::uint64_t> {
 protected:
  const std::uint64_t size_ = GetParam();
};

TEST_P(FarSizes, areReadFromTheTotalOfARange) {
  const ScriptedServer server([this](const ReceivedRequest& request) { return range206(request, size_); });
  const std::string url = server.url("/f");
  std::uint64_t size = 0;
  std::uint32_t type = 0;
  EXPECT_EQ(xfer_getRemoteFileSize(url.c_str(), &size, &type, nullptr, nullptr, 1, nullptr), 0);
  EXPECT_EQ(size, size_);
  std::int64_t length = 0;
  EXPECT_TRUE(xfer_getContentLength(url, &length));
  EXPECT_EQ(static_cast<std::uint64_t>(length), size_);
  EXPECT_EQ(static_cast<std::uint64_t>(xfer::getContentLength(url, {}, "")), size_);
  EXPECT_EQ(xfer::probeRemoteFile(url, {}, "", 10).size, size_);
  const xfer::StopSignal never;
  EXPECT_EQ(xfer::probeStoppable(requestFor(url, ""), 10, never).size, size_);
}

// These read the body to its end, so the length comes in a line that libcurl does not take for one of the body.
TEST_P(FarSizes, areReadFromALength) {
  const ScriptedServer server([this](const ReceivedRequest&) {
    return Reply().send("HTTP/1.1 200 OK\r\nX-Content-Length: " + std::to_string(size_) + "\r\n\r\nbody").close();
  });
  const std::string url = server.url("/f");
  std::uint64_t size = 0;
  std::uint32_t type = 0;
  EXPECT_EQ(xfer_getRemoteFileSize(url.c_str(), &size, &type, nullptr, nullptr, 1, nullptr), 0);
  EXPECT_EQ(size, size_);
  EXPECT_EQ(static_cast<std::uint64_t>(xfer::getContentLength(url, {}, "")), size_);
  EXPECT_EQ(xfer::probeRemoteFile(url, {}, "", 10).size, size_);
}

TEST_P(FarSizes, ofABodyThatAJobsProbeDoesNotReadAreKnown) {
  const ScriptedServer server([this](const ReceivedRequest&) { return full200(size_, {.bodyBytes = 10}).stall(); });
  const xfer::StopSignal never;
  const xfer::RemoteFileInfo info = xfer::probeStoppable(requestFor(server.url("/f"), ""), 10, never);
  EXPECT_EQ(info.error, 0);
  EXPECT_EQ(info.size, size_);
}

INSTANTIATE_TEST_SUITE_P(OfXfer, FarSizes, testing::Values(k32Bits - 1, k32Bits, k32Bits + 1, 2048 * k32Bits + 3));

}  // namespace
