// What stands in a download's way on POSIX: a running program's file, a full disk, a limit on sizes.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <string>

#include "file_sink.h"
#include "support/log_line.h"
#include "support/process.h"
#include "support/recording_logger.h"
#include "support/temp_dir.h"

using support::failure;
using support::kSink;
using support::RecordingLogger;
using support::TempDir;
using support::trace;
using support::wholeLogError;
using xfer::FileSink;

namespace {

// No file may grow past this while it lives: it stands in for a disk without room, where the same calls fail.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(::getrlimit(RLIMIT_FSIZE, &before_), 0);
    rlimit limited = before_;
    limited.rlim_cur = bytes;
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &limited), 0);
  }
  ~FileSizeLimit() {
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &before_), 0);
    std::signal(SIGXFSZ, handler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  void (*handler_)(int);
  rlimit before_{};
};

std::string err(int number) {
  return " | err=" + std::to_string(number);
}

TEST(BlockedFile, ofARunningProgramIsMovedAsideOverAnOlderOne) {
  const TempDir folder;
  const std::string program = folder.file("program");
  std::filesystem::copy_file("/bin/sleep", program);
  const auto size = support::fileSize(program);
  support::writeFile(program + ".bak", "older");
  support::Process running({program, "60"});
  ASSERT_TRUE(running.running());
  const RecordingLogger log;
  FileSink sink;
  ASSERT_EQ(sink.open(program, 5), 0);
  EXPECT_EQ(wholeLogError(log.records(), {trace(kSink, "open | " + program + " | size=5")}), "") << "it is no failure";
  EXPECT_EQ(support::fileSize(program), 5U);
  EXPECT_EQ(support::fileSize(program + ".bak"), size);
  running.kill();
}

TEST(BlockedFile, folderInTheWayIsNotMovedAside) {
  const TempDir folder;
  std::filesystem::create_directory(folder.file("there"));
  const RecordingLogger log;
  FileSink sink;
  EXPECT_EQ(sink.open(folder.file("there"), 5), 100004);
  EXPECT_EQ(sink.failureText().view(), "Is a directory");
  const std::string text = "open | CreateFile failed | path=" + folder.file("there") + err(EISDIR);
  EXPECT_EQ(wholeLogError(log.records(), {failure(kSink, text)}), "");
  EXPECT_EQ(support::listFolder(folder.path()), std::vector<std::string>{"there"});
}

TEST(BlockedFile, lackOfRoomIsMetAtOpen) {
  const TempDir folder;
  const RecordingLogger log;
  const FileSizeLimit limit(65536);
  FileSink sink;
  EXPECT_EQ(sink.open(folder.file("f"), 1 << 20), 100024);
  EXPECT_EQ(sink.failureText().view(), "1048576 bytes: File too large");
  EXPECT_FALSE(sink.isOpen());
  EXPECT_EQ(wholeLogError(log.records(), {failure(kSink, "open | SetEndOfFile failed" + err(EFBIG))}), "");
}

TEST(BlockedFile, writeThatComesToAnEndTellsHowFarItCame) {
  const TempDir folder;
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 10), 0);
  const std::string bytes(8, 'x');
  const RecordingLogger log;
  const FileSizeLimit limit(5);
  EXPECT_EQ(sink.writeAt(2, reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()), -1);
  EXPECT_EQ(sink.failureText().view(), "File too large");
  EXPECT_EQ(wholeLogError(log.records(), {failure(kSink, "writeAt | WriteFile failed | offset=5" + err(EFBIG))}), "");
  EXPECT_EQ(sink.bytesWritten(), 0U) << "not even what reached the file";
  EXPECT_EQ(support::readFile(folder.file("f")), std::string(2, '\0') + "xxx" + std::string(5, '\0'));
}

TEST(BlockedFile, truncationThatFailsTellsTheSystemsErrorAndClosesTheFile) {
  const TempDir folder;
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 5), 0);
  const RecordingLogger log;
  const FileSizeLimit limit(5);
  EXPECT_EQ(sink.finalize(6), 0);
  EXPECT_FALSE(sink.isOpen());
  EXPECT_EQ(wholeLogError(log.records(), {failure(kSink, "finalize | truncate failed" + err(EFBIG)),
                                          trace(kSink, "finalize | " + folder.file("f") + " | size=6")}),
            "");
  EXPECT_EQ(support::fileSize(folder.file("f")), 5U);
}

TEST(BlockedFile, fileInAMissingFolderTellsTheSystemsError) {
  const TempDir folder;
  const RecordingLogger log;
  FileSink sink;
  const std::string path = folder.file("missing") + "/f";
  EXPECT_EQ(sink.open(path, 5), 100004);
  const std::string text = "open | CreateFile failed | path=" + path + err(ENOENT);
  EXPECT_EQ(wholeLogError(log.records(), {failure(kSink, text)}), "");
}

}  // namespace
