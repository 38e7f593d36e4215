// The library's own life: loaded and unloaded by a host, and in a process that ends under it.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "support/process.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"

namespace {

using support::ReceivedRequest;

// Each answer stalls when a part of it is out.
support::Reply stalling(const ReceivedRequest& request) {
  if (!request.range) return support::full200(1'000'000, {.bodyBytes = 100}).stall();
  return support::range206(request, 1'000'000, {.bodyBytes = 100}).stall();
}

TEST(LibraryLifetime, libraryThatIsUnloadedLeavesNothingBehind) {
  const support::ScriptedServer server(support::patternFile(300'000));
  const support::TempDir folder;
  const support::Finished host =
      support::runProcess({support::siblingProgram("load_host"), "idle", server.url("/file"), folder.file("out")});
  EXPECT_EQ(host.exitCode, 0) << host.err;
}

TEST(LibraryLifetime, libraryThatToldItsLastHostOfTheEndIsUnloadedAtOnce) {
  const support::ScriptedServer server(support::patternFile(300'000));
  const support::TempDir folder;
  const support::Finished host =
      support::runProcess({support::siblingProgram("load_host"), "told", server.url("/file"), folder.file("out")});
  EXPECT_EQ(host.exitCode, 0) << host.err;
}

TEST(LibraryLifetime, libraryThatToldACrowdIsUnloadedAtOnce) {
  const support::ScriptedServer server([](const ReceivedRequest& request) {
    return support::range206(request, 100'000, {.pace = {.bytesEach = 20'000, .rest = std::chrono::milliseconds(1)}});
  });
  const support::TempDir folder;
  const support::Finished host =
      support::runProcess({support::siblingProgram("load_host"), "crowd", server.url("/file"), folder.file("out")});
  EXPECT_EQ(host.exitCode, 0) << host.err;
}

TEST(LibraryLifetime, unloadWithADownloadAndARequestInFlightNeitherHangsNorCrashes) {
  const support::ScriptedServer server(stalling);
  for (int round = 0; round < 10; ++round) {
    SCOPED_TRACE(round);
    const support::TempDir folder;
    const support::Finished host =
        support::runProcess({support::siblingProgram("load_host"), "busy", server.url("/file"), folder.file("out")});
    ASSERT_EQ(host.exitCode, 0) << host.err;
  }
}

class LeavingHost : public testing::TestWithParam<const char*> {};

TEST_P(LeavingHost, endsAtOnceAndWithItsOwnExitCode) {
  const support::ScriptedServer server(stalling);
  for (int round = 0; round < 10; ++round) {
    SCOPED_TRACE(round);
    const support::TempDir folder;
    const support::Finished host = support::runProcess(
        {support::siblingProgram("leaving_host"), GetParam(), server.url("/file"), folder.file("out")});
    ASSERT_EQ(host.exitCode, 0) << host.err;
  }
}

INSTANTIATE_TEST_SUITE_P(Ways, LeavingHost, testing::Values("download", "request", "everything", "thread"),
                         [](const auto& way) { return way.param; });

}  // namespace
