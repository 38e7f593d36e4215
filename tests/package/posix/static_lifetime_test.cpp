// The static library in a process that ends under it.
#include <gtest/gtest.h>

#include "support/process.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"

namespace {

class LeavingStaticHost : public testing::TestWithParam<const char*> {};

TEST_P(LeavingStaticHost, endsBeforeLibcurlDoes) {
  const support::ScriptedServer server([](const support::ReceivedRequest& request) {
    if (!request.range) return support::full200(1'000'000, {.bodyBytes = 100}).stall();
    return support::range206(request, 1'000'000, {.bodyBytes = 100}).stall();
  });
  const support::TempDir folder;
  const support::Finished host = support::runProcess(
      {support::siblingProgram("leaving_static_host"), GetParam(), server.url("/file"), folder.file("out")});
  EXPECT_EQ(host.exitCode, 0) << host.err;
}

INSTANTIATE_TEST_SUITE_P(Ways, LeavingStaticHost, testing::Values("download", "request"),
                         [](const auto& way) { return way.param; });

}  // namespace
