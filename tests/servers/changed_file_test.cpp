// A file that is replaced on the server while it is downloaded.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "support/pattern.h"
#include "support/plan_under_test.h"
#include "support/real_servers.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "transfer_support.h"
#include "xfer/xfer.hpp"

namespace {

using support::RealServer;
using support::RealServers;

constexpr std::uint64_t kSize = 8 << 20;
constexpr int kRangeError = 33;

class ChangedFile : public testing::TestWithParam<RealServer> {
 protected:
  ChangedFile() {
    support::writePatternFile(served_, kSize);
    // The server tells its files apart by size and time of change, in seconds.
    std::filesystem::last_write_time(support::toPath(served_),
                                     std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  }

  ~ChangedFile() override {
    std::filesystem::remove(support::toPath(served_));
    std::filesystem::remove(support::toPath(served_ + ".new"));
  }

  static void waitForAPart(const xfer::DownloadJob& job) {
    EXPECT_TRUE(support::waitUntil(
        [&] { return job.snapshot().bytesDone > kSize / 8 || job.snapshot().state > xfer::JobState::Paused; }));
  }

  // Downloads slowly, and puts another file in the place of the served one when a part of it has arrived.
  xfer::DownloadSnapshot downloadWhileReplacedBy(std::uint64_t size, std::uint64_t seed) {
    xfer::DownloadPolicy policy = servers_test::manyRanges(GetParam(), 4);
    policy.maxDownloadSpeed = 4'000'000;
    xfer::DownloadRequest request;
    request.url = servers_.url(GetParam(), "/" + name_);
    request.path = out_;
    xfer::DownloadJob job(request, policy, support::planUnderTest(policy.initialChunkSize));
    support::writePatternFile(served_ + ".new", size, seed);
    job.start();
    waitForAPart(job);
    std::filesystem::rename(support::toPath(served_ + ".new"), support::toPath(served_));
    EXPECT_LT(job.snapshot().bytesDone, kSize / 2) << "too late";
    job.wait();
    return job.snapshot();
  }

  void expectNoMixture(const xfer::DownloadSnapshot& snapshot) const {
    // All ranges of an adaptive plan may be on their way by then, from the file as it was.
    const bool asItWas = support::adaptivePlan() && snapshot.state == xfer::JobState::Completed;
    if (asItWas) return servers_test::expectWhole(snapshot, out_, kSize);
    EXPECT_EQ(snapshot.state, xfer::JobState::Failed);
    EXPECT_EQ(snapshot.errorCode, kRangeError);
  }

  const RealServers servers_;
  const support::TempDir folder_;
  const std::string name_ = std::filesystem::path(folder_.path()).filename().string() + ".bin";
  const std::string served_ = servers_.documentRoot() + "/" + name_;
  const std::string out_ = folder_.file("out");
};

TEST_P(ChangedFile, failsTheJobWhenItsSizeStaysTheSame) {
  const xfer::DownloadSnapshot snapshot = downloadWhileReplacedBy(kSize, 7);
  expectNoMixture(snapshot);
}

TEST_P(ChangedFile, failsTheJobWhenItGrows) {
  const xfer::DownloadSnapshot snapshot = downloadWhileReplacedBy(kSize + 4096, 7);
  expectNoMixture(snapshot);
}

TEST_P(ChangedFile, failsTheJobWhenItShrinks) {
  const xfer::DownloadSnapshot snapshot = downloadWhileReplacedBy(kSize - 4096, 7);
  expectNoMixture(snapshot);
}

// Only with servers whose tag of a file does not depend on where it lies on the disk.
class SameFile : public ChangedFile {};

TEST_P(SameFile, inItsPlaceWithTheSameTimeChangesNothing) {
  const auto time = std::filesystem::last_write_time(support::toPath(served_));
  support::writePatternFile(served_ + ".new", kSize);
  std::filesystem::last_write_time(support::toPath(served_ + ".new"), time);
  xfer::DownloadPolicy policy = servers_test::manyRanges(GetParam(), 4);
  policy.maxDownloadSpeed = 8'000'000;
  xfer::DownloadRequest request;
  request.url = servers_.url(GetParam(), "/" + name_);
  request.path = out_;
  xfer::DownloadJob job(request, policy, support::planUnderTest(policy.initialChunkSize));
  job.start();
  waitForAPart(job);
  std::filesystem::rename(support::toPath(served_ + ".new"), support::toPath(served_));
  job.wait();
  servers_test::expectWhole(job.snapshot(), out_, kSize);
}

INSTANTIATE_TEST_SUITE_P(Servers, ChangedFile,
                         testing::Values(RealServer::Nginx, RealServer::NginxTls, RealServer::NginxH2,
                                         RealServer::Apache, RealServer::Lighttpd),
                         [](const auto& server) { return support::nameOf(server.param); });
INSTANTIATE_TEST_SUITE_P(Servers, SameFile,
                         testing::Values(RealServer::Nginx, RealServer::NginxTls, RealServer::NginxH2,
                                         RealServer::Apache),
                         [](const auto& server) { return support::nameOf(server.param); });

}  // namespace
