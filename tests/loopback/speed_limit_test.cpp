// What a job gets over the wire under a speed limit, with one connection and with sixteen.  A machine that is busy may
// make it less, never more; how exactly the limit is used up is seen in virtual time (see token_bucket_test.cpp).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>

#include "support/job_run.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "xfer/download_job.h"

namespace {

using std::chrono::steady_clock;

struct Limit {
  const char* name;
  std::uint64_t bytesPerSec;
  std::uint16_t connections;
  std::uint64_t enough;  // bytes: some two seconds of it
};

std::ostream& operator<<(std::ostream& out, const Limit& limit) {
  return out << limit.name;
}

class JobSpeedLimit : public testing::TestWithParam<Limit> {};

TEST_P(JobSpeedLimit, isHeldFromTheStartOn) {
  const Limit& limit = GetParam();
  const std::uint64_t size = 2 * limit.enough * limit.connections;  // every connection has enough to do
  const support::ScriptedServer server(support::patternFile(size));
  const support::TempDir folder;
  xfer::DownloadPolicy policy = support::chunksOf(2 * limit.enough, limit.connections);
  policy.maxDownloadSpeed = limit.bytesPerSec;
  xfer::DownloadJob job(support::requestFor(server.url("/f"), folder.file("out"), size), policy,
                        support::planUnderTest(policy.initialChunkSize));
  const auto begin = steady_clock::now();
  job.start();
  EXPECT_TRUE(support::waitUntil([&] { return job.snapshot().bytesDone >= limit.enough; }));
  const auto bytes = static_cast<double>(job.snapshot().bytesDone);
  const double seconds = std::chrono::duration<double>(steady_clock::now() - begin).count();
  EXPECT_LE(bytes, 1.1 * static_cast<double>(limit.bytesPerSec) * seconds) << bytes << " bytes in " << seconds << " s";
  EXPECT_EQ(server.connectionsAccepted(), limit.connections);
  EXPECT_EQ(job.snapshot().state, xfer::JobState::Running);
}

INSTANTIATE_TEST_SUITE_P(OfXfer, JobSpeedLimit,
                         testing::Values(Limit{"twentyKilobytesOverOne", 20'000, 1, 40'000},
                                         Limit{"twentyKilobytesOverSixteen", 20'000, 16, 40'000},
                                         Limit{"fiftyMegabytesOverOne", 50'000'000, 1, 75'000'000},
                                         Limit{"fiftyMegabytesOverSixteen", 50'000'000, 16, 75'000'000}),
                         [](const testing::TestParamInfo<Limit>& limit) { return std::string(limit.param.name); });

}  // namespace
