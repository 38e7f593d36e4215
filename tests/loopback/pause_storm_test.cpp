// Pauses and resumes from two threads at once, without end: a job that is left running moves.
//
// Two stand-stills are the stated behaviour and are counted apart: a retry that falls due during a pause is lost, and a
// job whose last range ends during a pause does not say so.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <thread>

#include "download_job_impl.h"
#include "support/job_run.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/test_timeout.h"
#include "support/wait_until.h"

namespace {

using support::ScriptedServer;
using xfer::DownloadJob;
using xfer::DownloadSnapshot;
using xfer::JobState;

// Slow surroundings get fewer, and busy ones those that they have time for.
const std::uint64_t kPairs = 100'000 / static_cast<std::uint64_t>(support::testTimeout() / std::chrono::seconds(20));
const auto kLongest = 2 * support::testTimeout();
constexpr int kLooks = 50;
constexpr std::uint64_t kRange = 16;
constexpr std::uint64_t kSize = 300 * kRange;

class PauseStorm : public testing::TestWithParam<std::uint16_t> {};

TEST_P(PauseStorm, jobThatIsLeftRunningMoves) {
  const support::RecordingLogger log(3);
  const support::TempDir folder;
  const std::string path = folder.file("out.bin");
  const ScriptedServer server(support::patternFile(kSize));
  std::atomic<std::uint64_t> pairs{0};
  std::uint64_t completed = 0;
  std::uint64_t endedDuringAPause = 0;
  const auto end = std::chrono::steady_clock::now() + kLongest;
  const auto goesOn = [&] { return pairs < kPairs && std::chrono::steady_clock::now() < end; };
  while (goesOn()) {
    DownloadJob::Impl job(support::requestFor(server.url("/file"), path, kSize), support::chunksOf(kRange, GetParam()),
                          xfer::realJobEnvironment(), support::planUnderTest(kRange).values());
    job.start();
    const auto storm = [&] {
      while (goesOn() && !xfer::isFinal(job.snapshot().state) && !job.standsStill()) {
        // Close to the ends of ranges, where a job that stands still would be left alone by everybody.
        const std::uint64_t before = job.snapshot().bytesDone;
        for (int look = 0; look < kLooks && job.snapshot().bytesDone == before; ++look) std::this_thread::yield();
        job.pause();
        job.resume();
        ++pairs;
      }
    };
    std::thread one(storm);
    std::thread two(storm);
    one.join();
    two.join();
    job.resume();
    ASSERT_TRUE(support::waitUntil([&] { return xfer::isFinal(job.snapshot().state) || job.standsStill(); }))
        << "after " << pairs << " pairs, in state " << static_cast<int>(job.snapshot().state) << " with "
        << job.snapshot().bytesDone << " bytes";
    if (job.standsStill()) {
      ++endedDuringAPause;
      EXPECT_EQ(job.snapshot().bytesDone, kSize) << "no retry was under way that a pause could have cost";
    } else {
      ++completed;
      EXPECT_EQ(job.snapshot().state, JobState::Completed);
    }
    ASSERT_EQ(support::patternError(path, kSize), "");
  }
  RecordProperty("completed", static_cast<int>(completed));
  RecordProperty("endedDuringAPause", static_cast<int>(endedDuringAPause));
  std::cout << pairs << " pairs: " << completed << " jobs completed, " << endedDuringAPause
            << " ended during a pause\n";
  EXPECT_GT(completed + endedDuringAPause, 0U);
}

INSTANTIATE_TEST_SUITE_P(Connections, PauseStorm, testing::Values(1, 3));

}  // namespace
