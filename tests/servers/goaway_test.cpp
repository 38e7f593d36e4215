// Pauses while an HTTP/2 server ends its connections (GOAWAY after 20 requests): transfers that are put back for it
// must not stay held.
#include <gtest/gtest.h>

#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include "download_job_impl.h"
#include "support/job_run.h"
#include "support/pattern.h"
#include "support/real_servers.h"
#include "support/temp_dir.h"
#include "support/test_timeout.h"
#include "support/wait_until.h"

namespace {

using support::RealServer;
using support::RealServers;
using xfer::DownloadJob;
using xfer::DownloadSnapshot;
using xfer::JobState;

// Slow surroundings get fewer.
const int kRounds = static_cast<int>(200 / (support::testTimeout() / std::chrono::seconds(20)));
constexpr std::uint64_t kRange = 16384;

TEST(Goaway, jobThatIsPausedWhileConnectionsEndIsNeverLeftHeld) {
  const RealServers servers;
  const support::TempDir folder;
  const std::string path = folder.file("out.bin");
  int endedDuringAPause = 0;
  for (int round = 0; round < kRounds; ++round) {
    xfer::DownloadPolicy policy = support::chunksOf(kRange, 16);
    policy.useHttp2 = true;
    auto request =
        support::requestFor(servers.url(RealServer::NginxShortH2, "/1m.bin"), path, RealServers::kSmallFileBytes);
    // Behind a proxy connections take longer to make, and libcurl puts more transfers on those that end meanwhile.
    request.proxy.host = "127.0.0.1";
    request.proxy.port = servers.proxyPort();
    DownloadJob::Impl job(request, policy, xfer::realJobEnvironment(),
                          support::planUnderTest(policy.initialChunkSize).values());
    job.start();
    while (!xfer::isFinal(job.snapshot().state) && !job.standsStill()) {
      job.pause();
      std::this_thread::sleep_for(std::chrono::milliseconds(round % 12));
      job.resume();
      // Resumed jobs move: each look at this one finds more bytes, or its end.
      const std::uint64_t before = job.snapshot().bytesDone;
      ASSERT_TRUE(support::waitUntil([&] {
        return job.snapshot().bytesDone != before || xfer::isFinal(job.snapshot().state) || job.standsStill();
      })) << "round "
          << round << ": held at " << before << " bytes";
    }
    // A retry that falls due, or a last range that ends, during a pause is not what this is about.
    if (job.standsStill()) {
      ++endedDuringAPause;
      continue;
    }
    const DownloadSnapshot end = job.snapshot();
    ASSERT_EQ(end.state, JobState::Completed) << "round " << round << ", error " << end.errorCode;
    ASSERT_EQ(support::patternError(path, RealServers::kSmallFileBytes), "") << "round " << round;
  }
  EXPECT_LT(endedDuringAPause, kRounds);
  std::cout << endedDuringAPause << " of " << kRounds << " ended during a pause\n";
}

}  // namespace
