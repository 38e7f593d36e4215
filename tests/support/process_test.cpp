#include "support/process.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <system_error>

#include "support/wait_until.h"

namespace support {
namespace {

using namespace std::chrono_literals;

std::vector<std::string> child(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), siblingProgram("test_child"));
  return arguments;
}

std::string withoutCarriageReturns(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
  return text;
}

TEST(Process, bringsBackExitCodeAndBothStreams) {
  const Finished finished = runProcess(child({"out=to out", "err=to err", "exit=7"}));
  EXPECT_EQ(finished.exitCode, 7);
  EXPECT_EQ(withoutCarriageReturns(finished.out), "to out\n");
  EXPECT_EQ(withoutCarriageReturns(finished.err), "to err\n");
}

TEST(Process, handsOverEveryArgumentAsItIs) {
  const std::vector<std::string> arguments = {
      "plain",        "two words", "",         "a\"b", "back\\slash", "end\\",
      "two ends\\\\", "\\\"",      "tab\tbed", "*",    "%PATH%",      "$HOME",
  };
  std::vector<std::string> command = child({"lines"});
  command.insert(command.end(), arguments.begin(), arguments.end());
  std::string expected;
  for (const std::string& argument : arguments) expected += argument + "\n";
  EXPECT_EQ(withoutCarriageReturns(runProcess(command).out), expected);
}

TEST(Process, outputCanBeReadWhileTheChildRuns) {
  Process process(child({"out=ready", "sleep=600000"}));
  EXPECT_TRUE(waitUntil([&] { return withoutCarriageReturns(process.out()) == "ready\n"; }));
  EXPECT_TRUE(process.running());
  EXPECT_EQ(process.wait(10ms), std::nullopt);
  process.kill();
  EXPECT_TRUE(process.wait().has_value());
  EXPECT_FALSE(process.running());
}

TEST(Process, writesToTheFilesItIsGiven) {
  const TempDir folder;
  runProcess(child({"out=1", "err=2"}), {.outFile = folder.file("o"), .errFile = folder.file("e")});
  EXPECT_EQ(withoutCarriageReturns(readFile(folder.file("o")).value()), "1\n");
  EXPECT_EQ(withoutCarriageReturns(readFile(folder.file("e")).value()), "2\n");
}

TEST(Process, addsToTheEnvironmentAndReplacesInIt) {
  const std::vector<std::string> command = child({"env=XFER_TEST_ADDED", "env=PATH", "env=XFER_TEST_TIMEOUT_FACTOR"});
  const Finished finished = runProcess(command, {.environment = {"XFER_TEST_ADDED=a=b", "PATH=only this"}});
  const char* kept = std::getenv("XFER_TEST_TIMEOUT_FACTOR");
  EXPECT_EQ(withoutCarriageReturns(finished.out),
            "a=b\nonly this\n" + std::string(kept != nullptr ? kept : "(not set)") + "\n");
}

TEST(Process, programThatDoesNotExistThrows) {
  EXPECT_THROW(Process({siblingProgram("no such program")}), std::system_error);
}

TEST(Process, childThatDoesNotEndInTimeIsKilled) {
  EXPECT_THROW(runProcess(child({"sleep=600000"}), {}, 100ms), std::runtime_error);
}

}  // namespace
}  // namespace support
