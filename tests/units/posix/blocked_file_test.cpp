// What stands in a download's way on POSIX: a running program's file, a full disk, a limit on sizes.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <filesystem>

#include "file_sink.h"
#include "support/process.h"
#include "support/recording_logger.h"
#include "support/temp_dir.h"

using support::TempDir;
using xfer::FileSink;

namespace {

TEST(BlockedFile, ofARunningProgramIsMovedAsideOverAnOlderOne) {
  const TempDir folder;
  const std::string program = folder.file("program");
  std::filesystem::copy_file("/bin/sleep", program);
  const auto size = support::fileSize(program);
  support::writeFile(program + ".bak", "older");
  support::Process running({program, "60"});
  ASSERT_TRUE(running.running());
  FileSink sink;
  ASSERT_EQ(sink.open(program, 5), 0);
  EXPECT_EQ(support::fileSize(program), 5U);
  EXPECT_EQ(support::fileSize(program + ".bak"), size);
  running.kill();
}

TEST(BlockedFile, folderInTheWayIsNotMovedAside) {
  const TempDir folder;
  std::filesystem::create_directory(folder.file("there"));
  FileSink sink;
  EXPECT_EQ(sink.open(folder.file("there"), 5), 100004);
  EXPECT_EQ(support::listFolder(folder.path()), std::vector<std::string>{"there"});
}

// The limit stands in for a disk without room: the same call fails.
TEST(BlockedFile, lackOfRoomIsMetAtOpen) {
  const TempDir folder;
  const support::RecordingLogger log(3);
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  rlimit small = before;
  small.rlim_cur = 65536;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
  FileSink sink;
  const std::int32_t result = sink.open(folder.file("f"), 1 << 20);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_EQ(result, 100024);
  EXPECT_FALSE(sink.isOpen());
  EXPECT_TRUE(log.contains("open | SetEndOfFile failed | err="));
}

}  // namespace
