// Every field of a snapshot has a value of its own.
#include <gtest/gtest.h>

#include <cstdint>

#include "download_job_impl.h"
#include "support/fake_job_world.h"
#include "support/pattern.h"
#include "support/temp_dir.h"

namespace {

using xfer::DownloadJob;
using xfer::DownloadSnapshot;
using xfer::JobState;

TEST(Snapshot, tellsEachFieldOfAFailedJobInItsOwnPlace) {
  constexpr std::int32_t kTimedOut = 28;
  constexpr std::int32_t kFatal = 77;  // a code that is not tried again
  const support::TempDir folder;
  support::FakeJobWorld world;
  world.endDelaysAtOnce();
  xfer::DownloadRequest request;
  request.path = folder.file("out");
  request.knownSize = 2000;
  xfer::DownloadPolicy policy;
  policy.numThreads = 2;
  policy.rampChunks = false;
  policy.maxChunkSize = 1000;
  DownloadJob::Impl job(request, policy, world.environment());
  job.start();

  world.advanceMs(500);
  world.transfers.deliver(0, 0, support::patternBytes(0, 200));
  const DownloadSnapshot running = job.snapshot();
  EXPECT_EQ(running.state, JobState::Running);
  EXPECT_EQ(running.errorCode, 0);
  EXPECT_EQ(running.httpStatus, 0);
  EXPECT_FALSE(running.throttled);

  world.transfers.finish(0, kTimedOut, 206, 200);
  world.transfers.finish(1000, kTimedOut, 206, 0);
  ASSERT_TRUE(world.transfers.waitForSubmissions(4)) << "both ranges again";
  EXPECT_TRUE(job.snapshot().throttled);
  world.transfers.finish(1000, kFatal, 207, 0);
  world.transfers.finish(0, 42, 0, 0);

  const DownloadSnapshot end = job.snapshot();
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.bytesDone, 200U);
  EXPECT_EQ(end.totalBytes, 2000U);
  EXPECT_EQ(end.bytesPerSec, 400U);
  EXPECT_EQ(end.errorCode, kFatal);
  EXPECT_EQ(end.httpStatus, 207);
  EXPECT_EQ(end.percent, 10.0F);
  EXPECT_TRUE(end.throttled);
}

}  // namespace
