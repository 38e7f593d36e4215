// Signals that end the program.  On Windows Ctrl-C goes through a console, and tests have none.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <optional>
#include <string>

#include "support/gate.h"
#include "support/pattern.h"
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

TEST_F(Interrupt, byAnotherSignalIsAnotherExitCode) {
  for (const int signal : {SIGTERM, SIGHUP}) {
    server_.setHandler([](const ReceivedRequest&) { return support::Reply().stall(); });
    const std::size_t before = server_.requests().size();
    support::Process get({support::siblingProgram("xfer-get"), server_.url("/file"), "out"},
                         {.folder = folder_.path()});
    ASSERT_TRUE(server_.waitForRequests(before + 1));
    ASSERT_EQ(::kill(static_cast<pid_t>(get.id()), signal), 0);
    EXPECT_EQ(get.wait(), 128 + signal) << get.err();
    EXPECT_NE(get.err().find("cancelled"), std::string::npos) << get.err();
    EXPECT_TRUE(support::listFolder(folder_.path()).empty());
  }
}

// Shells end a loop of commands when one of them has died of Ctrl-C, and not when it has just ended with 130.
TEST_F(Interrupt, isSeenByTheParentAsADeathBySignal) {
  const std::string parent =
      "import subprocess, sys\n"
      "child = subprocess.Popen(sys.argv[1:])\n"
      "print(child.pid, flush=True)\n"
      "print('ended with', child.wait())\n";
  support::Process python({"python3", "-c", parent, support::siblingProgram("xfer-get"), server_.url("/file"), "out"},
                          {.folder = folder_.path()});
  ASSERT_TRUE(server_.waitForRequests(2));
  ASSERT_EQ(::kill(std::stoi(python.out()), SIGINT), 0);
  EXPECT_EQ(python.wait(), 0) << python.err();
  EXPECT_NE(python.out().find("ended with -" + std::to_string(SIGINT) + "\n"), std::string::npos) << python.out();
}

TEST_F(Interrupt, thatTheParentIgnoresIsIgnored) {
  support::Gate gate;
  server_.setHandler([gate](const ReceivedRequest& request) {
    if (request.range == support::RequestedRange{0, 0}) return support::range206(request, kSize);
    return support::Reply()
        .send("HTTP/1.1 206 Partial Content\r\nContent-Length: 10\r\nContent-Range: bytes 0-9/10\r\n\r\n")
        .waitFor(gate)
        .sendPattern(0, 10);
  });
  support::Process get({"sh", "-c", "trap '' HUP INT; exec \"$0\" \"$@\"", support::siblingProgram("xfer-get"),
                        server_.url("/file"), "out"},
                       {.folder = folder_.path()});
  ASSERT_TRUE(server_.waitForRequests(1));
  ASSERT_EQ(::kill(static_cast<pid_t>(get.id()), SIGHUP), 0);
  ASSERT_EQ(::kill(static_cast<pid_t>(get.id()), SIGINT), 0);
  EXPECT_EQ(get.wait(std::chrono::milliseconds(300)), std::nullopt) << "it has had the time to see them";
  gate.open();
  EXPECT_EQ(get.wait(), 0) << get.err();
  EXPECT_EQ(support::patternError(folder_.file("out"), 10), "");
}

TEST_F(Interrupt, breaksOffAllDownloadsAndBeginsNoFurtherOnes) {
  server_.setHandler([](const ReceivedRequest&) { return support::Reply().stall(); });
  support::Process get(
      {support::siblingProgram("xfer-get"), server_.url("/a"), server_.url("/b"), server_.url("/c"), "-j", "2"},
      {.folder = folder_.path()});
  ASSERT_TRUE(server_.waitForRequests(2));
  get.interrupt();
  EXPECT_EQ(get.wait(), 130) << get.err();
  EXPECT_NE(get.err().find("xfer-get: 0 of 3 done, 2 failed, 1 not begun"), std::string::npos) << get.err();
  EXPECT_EQ(server_.requests().size(), 2U);
  EXPECT_TRUE(support::listFolder(folder_.path()).empty());
}

TEST_F(Interrupt, countsForMoreThanAFailureBefore) {
  server_.setHandler([](const ReceivedRequest& request) {
    return request.path() == "/missing" ? support::status(404) : support::Reply().stall();
  });
  support::Process get(
      {support::siblingProgram("xfer-get"), server_.url("/missing"), server_.url("/a"), server_.url("/b"), "-j", "1"},
      {.folder = folder_.path()});
  ASSERT_TRUE(server_.waitForRequests(2));
  get.interrupt();
  EXPECT_EQ(get.wait(), 130) << get.err();
}

// Standard output that nobody reads any more.
TEST_F(Interrupt, byAClosedPipeEndsTheDownloadThatTellsItsProgressThere) {
  support::Process shell({"bash", "-c", "\"$0\" \"$1\" out --json | head -n 1 > first; exit ${PIPESTATUS[0]}",
                          support::siblingProgram("xfer-get"), server_.url("/file")},
                         {.folder = folder_.path()});
  EXPECT_EQ(shell.wait(), 3) << shell.err();
  EXPECT_NE(shell.err().find("xfer-get: standard output could not be written"), std::string::npos) << shell.err();
  EXPECT_NE(support::readFile(folder_.file("first")).value_or("").find("\"start\""), std::string::npos);
}

}  // namespace
