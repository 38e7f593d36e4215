// A thread that has ended but was not joined is no thread any more for the system, but keeps its stack mapped.
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <set>
#include <string>

#include "retry_timers.h"
#include "support/fake_job_world.h"
#include "support/gate.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace {

constexpr std::size_t kRetries = 300;
constexpr std::size_t kTolerated = 300;  // mappings, some are a sanitizer's; kept stacks would be two a retry

std::size_t mappings() {
  std::ifstream maps("/proc/self/maps");
  std::size_t count = 0;
  for (std::string line; std::getline(maps, line);) ++count;
  return count;
}

TEST(RetryThreads, theirStacksAreGivenBackWhileTheTimersLive) {
  xfer::RetryTimers timers([](std::uint64_t /*delayMs*/) {});
  const std::size_t before = mappings();
  ASSERT_GT(before, 0U);
  for (std::size_t retry = 0; retry < kRetries; ++retry) {
    support::Gate acted;
    timers.schedule(500, [&] { acted.open(); });
    ASSERT_TRUE(acted.wait());
  }
  EXPECT_LT(mappings(), before + kTolerated);
}

TEST(RetryThreads, doNotAccumulateOverALongJob) {
  const support::TempDir folder;
  support::FakeJobWorld world;
  world.endDelaysAtOnce();
  xfer::DownloadRequest request;
  request.path = folder.file("out.bin");
  request.knownSize = kRetries * 10;
  xfer::DownloadPolicy policy;
  policy.rampChunks = false;
  policy.maxChunkSize = 10;
  xfer::DownloadJob::Impl job(request, policy, world.environment());
  job.start();
  const std::size_t before = mappings();
  std::set<std::uint64_t> failed;
  while (job.snapshot().state == xfer::JobState::Running) {
    ASSERT_TRUE(support::waitUntil([&] { return !world.transfers.inFlight().empty(); }));
    const std::uint64_t range = world.transfers.inFlight().front();
    if (failed.insert(range).second) {
      world.transfers.finish(range, 0, 503);
    } else {
      world.transfers.serve(range);
    }
  }
  EXPECT_EQ(job.snapshot().state, xfer::JobState::Completed);
  EXPECT_EQ(world.delaysMs().size(), kRetries);
  EXPECT_LT(mappings(), before + kTolerated);
}

}  // namespace
