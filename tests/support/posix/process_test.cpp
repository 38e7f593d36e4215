#include "support/process.h"

#include <gtest/gtest.h>
#include <signal.h>

#include "support/unused_port.h"

namespace support {
namespace {

const std::vector<std::string> kSleep = {"sleep", "600"};

TEST(Process, signalsShowInTheExitCode) {
  Process interrupted(kSleep);
  interrupted.interrupt();
  EXPECT_EQ(interrupted.wait(), 128 + SIGINT);

  Process terminated(kSleep);
  terminated.terminate();
  EXPECT_EQ(terminated.wait(), 128 + SIGTERM);

  Process killed(kSleep);
  killed.kill();
  EXPECT_EQ(killed.wait(), 128 + SIGKILL);
}

TEST(Process, childInheritsNoDescriptorsAndStartsInItsFolder) {
  const TempDir folder;
  const UnusedPort port;  // holds descriptors that a child would inherit
  const Finished finished = runProcess({"sh", "-c", "pwd; cat; exec ls /proc/self/fd"}, {.folder = folder.path()});
  EXPECT_EQ(finished.out, folder.path() + "\n0\n1\n2\n3\n") << "3 is what ls lists them with";
}

TEST(Process, destructorLeavesNoChildBehind) {
  pid_t pid = 0;
  {
    const Process process(kSleep);
    pid = static_cast<pid_t>(process.id());
  }
  EXPECT_EQ(::kill(pid, 0), -1);
}

}  // namespace
}  // namespace support
