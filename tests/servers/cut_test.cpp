// Transfers that are cut while they run, next to others on the same HTTP/2 connection too.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <vector>

#include "curl_multi_backend.h"
#include "rate_limit.h"
#include "steady_time.h"
#include "support/looping_backend.h"
#include "support/real_servers.h"
#include "support/wait_until.h"

namespace {

using support::End;
using support::RealServer;
using support::RealServers;
using xfer::Ticket;
using xfer::TransferRequest;
using Ends = std::vector<End>;

constexpr std::uint64_t kBytesPerSec = 2 << 20;
constexpr std::uint64_t kCut = 1 << 20;

class Cut : public testing::TestWithParam<RealServer> {
 protected:
  Cut() { limit_.setRate(kBytesPerSec, xfer::steadyNs()); }

  [[nodiscard]] TransferRequest slowRange(std::uint64_t start, std::uint64_t end) {
    TransferRequest request = support::rangeOf(servers_.url(GetParam(), "/16m.bin"), start, end);
    request.limits.own = &limit_;
    return request;
  }

  static xfer::DownloadPolicy policy() {
    xfer::DownloadPolicy policy;
    policy.numThreads = 2;
    policy.useHttp2 = GetParam() == RealServer::NginxH2;
    return policy;
  }

  const RealServers servers_;
  xfer::RateLimit limit_;
  support::LoopingBackend backend_{policy()};
};

TEST_P(Cut, endsTheTransferThereAndLeavesTheOthersAlone) {
  limit_.setRate(kBytesPerSec / 64, xfer::steadyNs());  // it is cut long before its new end, however busy the machine
  const Ticket ticket = backend_.submit(slowRange(0, 8 << 20));
  ASSERT_TRUE(backend_.waitForBytes(1));
  backend_.cut(ticket, kCut);
  limit_.setRate(kBytesPerSec, xfer::steadyNs());
  backend_.submit(slowRange(8 << 20, (9 << 20)));
  Ends ends = backend_.ends(2);
  std::sort(ends.begin(), ends.end(), [](const End& a, const End& b) { return a.start < b.start; });
  EXPECT_EQ(ends, (Ends{{0, 0, 206, kCut}, {8 << 20, 0, 206, 1 << 20}}));
  EXPECT_EQ(backend_.received(), kCut + (1 << 20));
}

TEST_P(Cut, endsATransferThatWaitsForALimitAndLeavesTheOthersAlone) {
  TransferRequest request = slowRange(0, 8 << 20);
  std::atomic<bool> held{false};
  request.onThrottled = [&](bool holds) { held = holds; };
  const Ticket ticket = backend_.submit(request);
  ASSERT_TRUE(backend_.waitForBytes(1));
  backend_.submit(slowRange(8 << 20, 9 << 20));
  limit_.setRate(1, xfer::steadyNs());
  ASSERT_TRUE(support::waitUntil([&] { return held.load(); }));
  backend_.cut(ticket, 1);
  const Ends cut = backend_.ends(1);
  ASSERT_EQ(cut.size(), 1U);
  EXPECT_EQ(cut[0].start, 0U);
  EXPECT_EQ(cut[0].code, 0);
  limit_.setRate(0, xfer::steadyNs());
  EXPECT_EQ(backend_.ends(2).at(1), (End{8 << 20, 0, 206, 1 << 20}));
  EXPECT_EQ(backend_.received(), cut[0].bytes + (1 << 20));
}

INSTANTIATE_TEST_SUITE_P(Servers, Cut, testing::Values(RealServer::Nginx, RealServer::NginxTls, RealServer::NginxH2),
                         [](const auto& server) { return support::nameOf(server.param); });

}  // namespace
