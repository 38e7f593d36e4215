// Ctrl-C.  On Windows it goes through a console, and tests have none.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <string>

#include "support/process.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"

namespace {

using support::ReceivedRequest;

constexpr std::uint64_t kSize = 5'000'003;

class Interrupt : public testing::Test {
 protected:
  // Each range stalls when a part of it is out.
  support::ScriptedServer server_{[](const ReceivedRequest& request) {
    if (request.range == support::RequestedRange{0, 0}) return support::range206(request, kSize);
    return support::range206(request, kSize, {.bodyBytes = 1000}).stall();
  }};
  const support::TempDir folder_;
};

TEST_F(Interrupt, cancelsTheDownloadAndLeavesThePartialFile) {
  support::Process get({support::siblingProgram("xfer-get"), server_.url("/file"), "out", "-n", "2"},
                       {.folder = folder_.path()});
  ASSERT_TRUE(server_.waitForRequests(2));
  get.interrupt();
  EXPECT_EQ(get.wait(), 130) << get.err();
  EXPECT_NE(get.err().find("cancelled; the partial file was left in place"), std::string::npos) << get.err();
  EXPECT_EQ(support::fileSize(folder_.file("out")), kSize) << "as it was reserved";
}

TEST_F(Interrupt, whileTheServerIsAskedForTheSizeCancelsToo) {
  server_.setHandler([](const ReceivedRequest&) { return support::Reply().stall(); });
  support::Process get({support::siblingProgram("xfer-get"), server_.url("/file"), "out"}, {.folder = folder_.path()});
  ASSERT_TRUE(server_.waitForRequests(1));
  get.interrupt();
  EXPECT_EQ(get.wait(), 130) << get.err();
  EXPECT_FALSE(support::exists(folder_.file("out")));
}

TEST_F(Interrupt, bySigtermCancelsToo) {
  support::Process get({support::siblingProgram("xfer-get"), server_.url("/file"), "out"}, {.folder = folder_.path()});
  ASSERT_TRUE(server_.waitForRequests(1));
  get.terminate();
  EXPECT_EQ(get.wait(), 130) << get.err();
}

}  // namespace
