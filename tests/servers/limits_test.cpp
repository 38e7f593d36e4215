// Limits of speed and of transfers at once, as a real server sees them.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "curl_multi_backend.h"
#include "support/brought.h"
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

// Four transfers of 4 MiB each, from one host.
constexpr int kTransfers = 4;

xfer::TransferRequest quarter(int number, const std::string& url) {
  constexpr std::uint64_t kLength = 4 << 20;
  const std::uint64_t start = static_cast<std::uint64_t>(number) * kLength;
  return support::rangeOf(url, start, start + kLength);
}

xfer::DownloadPolicy atOnce(std::uint16_t transfers, RealServer server) {
  xfer::DownloadPolicy policy;
  policy.numThreads = transfers;
  policy.useHttp2 = server == RealServer::NginxH2;
  return policy;
}

TEST_P(Limits, fourTransfersOnALimitOfOneRunOneAfterAnother) {
  std::string order;  // one letter for each run of bytes of the same transfer; loop thread only until all are done
  std::string wrong;
  std::atomic<int> done{0};
  xfer::CurlMultiBackend backend(atOnce(1, GetParam()));
  for (int i = 0; i < kTransfers; ++i) {
    xfer::TransferRequest request = quarter(i, servers_.url(GetParam(), "/16m.bin"));
    request.maxRecvSpeed = 16 << 20;  // slow enough that two at once would mix
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
  EXPECT_EQ(order, "ABCD");
}

TEST_P(Limits, fourTransfersOnALimitOfFourRunTogether) {
  constexpr std::uint64_t kBytesPerSec = 16 << 10;  // minutes for each: none ends before the others have begun
  std::atomic<unsigned> begun{0};                   // a bit for each transfer that has brought bytes
  std::atomic<int> ended{0};
  xfer::CurlMultiBackend backend(atOnce(kTransfers, GetParam()));
  for (int i = 0; i < kTransfers; ++i) {
    xfer::TransferRequest request = quarter(i, servers_.url(GetParam(), "/16m.bin"));
    request.maxRecvSpeed = kBytesPerSec;
    backend.submit(
        request, [&, i](std::uint64_t, const std::uint8_t*, std::uint64_t) { begun |= 1U << i; },
        [&](std::uint64_t, const xfer::TransferEnd&) { ++ended; });
  }
  EXPECT_TRUE(support::waitUntil([&] { return begun == (1U << kTransfers) - 1; })) << "begun: " << begun;
  EXPECT_EQ(ended, 0);
  backend.stop();
}

INSTANTIATE_TEST_SUITE_P(Servers, Limits, testing::Values(RealServer::Nginx, RealServer::NginxTls, RealServer::NginxH2),
                         [](const auto& server) { return support::nameOf(server.param); });

}  // namespace
