// Limits of speed and of transfers at once, as a real server sees them.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "curl_multi_backend.h"
#include "support/pattern.h"
#include "support/plan_under_test.h"
#include "support/real_servers.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "transfer_support.h"
#include "xfer/xfer.hpp"

namespace {

using std::chrono::duration;
using std::chrono::steady_clock;
using support::RealServer;
using support::RealServers;

class Limits : public testing::TestWithParam<RealServer> {
 protected:
  const RealServers servers_;
  const support::TempDir folder_;
};

TEST_P(Limits, speedOverTenSecondsIsWithinATenthOfTheLimit) {
  constexpr std::uint64_t kLimit = 1'300'000;
  constexpr double kSeconds = 10;
  xfer::DownloadPolicy policy = servers_test::manyRanges(GetParam(), 4);
  policy.maxDownloadSpeed = kLimit;
  xfer::DownloadRequest request;
  request.url = servers_.url(GetParam(), "/16m.bin");
  request.path = folder_.file("out");
  xfer::DownloadJob job(request, policy, support::planUnderTest(policy.initialChunkSize));
  job.start();
  ASSERT_TRUE(support::waitUntil([&] { return job.snapshot().bytesDone > 0; }));
  const auto begin = steady_clock::now();
  const std::uint64_t before = job.snapshot().bytesDone;
  const auto seconds = [&] { return duration<double>(steady_clock::now() - begin).count(); };
  while (seconds() < kSeconds && job.snapshot().state == xfer::JobState::Running) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const double elapsed = seconds();
  const auto received = static_cast<double>(job.snapshot().bytesDone - before);
  EXPECT_EQ(job.snapshot().state, xfer::JobState::Running) << "too early an end: error " << job.snapshot().errorCode;
  EXPECT_LT(received / elapsed, 1.1 * kLimit);
  EXPECT_GT(received / elapsed, 0.9 * kLimit);
  job.wait();
  servers_test::expectWhole(job.snapshot(), request.path, RealServers::kBigFileBytes);
}

// Which transfers' bytes came in which order: one letter for each run of bytes of the same transfer.
std::string orderOfArrival(const std::string& url, std::uint16_t limit, bool http2) {
  constexpr std::uint64_t kLength = 4 << 20;
  constexpr int kTransfers = 4;
  std::string order;  // loop thread only until all are done
  std::string wrong;
  std::atomic<int> done{0};
  xfer::DownloadPolicy policy;
  policy.numThreads = limit;
  policy.useHttp2 = http2;
  xfer::CurlMultiBackend backend(policy);
  for (int i = 0; i < kTransfers; ++i) {
    xfer::TransferRequest request;
    request.url = url;
    request.rangeStart = static_cast<std::uint64_t>(i) * kLength;
    request.rangeEnd = request.rangeStart + kLength;
    request.maxRecvSpeed = 4 * kLength;  // or each arrives in one go where the server is quick enough
    const char letter = static_cast<char>('A' + i);
    backend.submit(
        request,
        [&, letter](std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length) {
          if (order.empty() || order.back() != letter) order.push_back(letter);
          const std::string expected = support::patternBytes(offset, offset + length);
          if (!std::equal(expected.begin(), expected.end(), reinterpret_cast<const char*>(bytes)))
            wrong = "wrong bytes";
        },
        [&](std::uint64_t, const xfer::TransferEnd& end) {
          if (end.code != 0 || end.status != 206) {
            wrong = "code " + std::to_string(end.code) + ", status " + std::to_string(end.status);
          }
          ++done;
        });
  }
  EXPECT_TRUE(support::waitUntil([&] { return done == kTransfers; }));
  backend.stop();
  EXPECT_EQ(wrong, "");
  return order;
}

TEST_P(Limits, fourTransfersOnALimitOfOneRunOneAfterAnother) {
  EXPECT_EQ(orderOfArrival(servers_.url(GetParam(), "/16m.bin"), 1, GetParam() == RealServer::NginxH2), "ABCD");
}

TEST_P(Limits, fourTransfersOnALimitOfFourRunTogether) {
  EXPECT_GT(orderOfArrival(servers_.url(GetParam(), "/16m.bin"), 4, GetParam() == RealServer::NginxH2).size(), 4U);
}

INSTANTIATE_TEST_SUITE_P(Servers, Limits, testing::Values(RealServer::Nginx, RealServer::NginxTls, RealServer::NginxH2),
                         [](const auto& server) { return support::nameOf(server.param); });

}  // namespace
