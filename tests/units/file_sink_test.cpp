#include "file_sink.h"

#include <gtest/gtest.h>

#include <chrono>
#include <limits>

#include "result_codes.h"
#include "support/log_line.h"
#include "support/recording_logger.h"
#include "support/temp_dir.h"

using namespace xfer;
using support::failure;
using support::kSink;
using support::RecordingLogger;
using support::TempDir;
using support::trace;
using support::wholeLogError;

namespace {

std::int32_t write(FileSink& sink, std::uint64_t offset, const std::string& text) {
  return sink.writeAt(offset, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

void doNotWait(std::chrono::milliseconds /*time*/) {}

TEST(FileSink, writesAtOffsetsIntoAFileOfFullSize) {
  const TempDir folder;
  const std::string path = folder.file("out.bin");
  const RecordingLogger log;
  FileSink sink;
  ASSERT_EQ(sink.open(path, 10), 0);
  EXPECT_EQ(support::fileSize(path), 10U);
  EXPECT_EQ(write(sink, 5, "world"), 0);
  EXPECT_EQ(write(sink, 0, "hello"), 0);
  EXPECT_EQ(sink.bytesWritten(), 10U);
  EXPECT_EQ(sink.finalize(10), 0);
  EXPECT_FALSE(sink.isOpen());
  EXPECT_EQ(support::readFile(path), "helloworld");
  EXPECT_EQ(wholeLogError(log.records(), {trace(kSink, "open | " + path + " | size=10"),
                                          trace(kSink, "finalize | " + path + " | size=10")}),
            "");
}

TEST(FileSink, oneByteIsReservedToo) {
  const TempDir folder;
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 1), 0);
  EXPECT_EQ(support::fileSize(folder.file("f")), 1U);
}

TEST(FileSink, sizeOf0ReservesNothing) {
  const TempDir folder;
  const RecordingLogger log;
  FileSink sink;
  EXPECT_EQ(sink.open(folder.file("empty"), 0), 0);
  EXPECT_EQ(support::fileSize(folder.file("empty")), 0U);
  EXPECT_EQ(wholeLogError(log.records(), {trace(kSink, "open | " + folder.file("empty") + " | size=0")}), "");
}

TEST(FileSink, closedSinkRefusesWritesAndFinalizeWithoutAWord) {
  const TempDir folder;
  FileSink sink;
  const auto expectRefusals = [&sink] {
    const RecordingLogger log;
    EXPECT_EQ(write(sink, 0, "x"), 100006);
    EXPECT_EQ(sink.writeAt(0, nullptr, 0), 100006);
    EXPECT_EQ(sink.finalize(1), 100006);
    sink.close();
    EXPECT_EQ(wholeLogError(log.records(), {}), "");
  };
  expectRefusals();
  ASSERT_EQ(sink.open(folder.file("f"), 4), 0);
  ASSERT_EQ(sink.finalize(4), 0);
  expectRefusals();
  EXPECT_EQ(support::fileSize(folder.file("f")), 4U);
}

TEST(FileSink, closeSaysNothingAndLeavesTheFileAsItIs) {
  const TempDir folder;
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 4), 0);
  ASSERT_EQ(write(sink, 0, "ab"), 0);
  const RecordingLogger log;
  sink.close();
  EXPECT_FALSE(sink.isOpen());
  EXPECT_EQ(support::readFile(folder.file("f")), std::string("ab\0\0", 4));
  EXPECT_EQ(wholeLogError(log.records(), {}), "");
}

TEST(FileSink, writeOfNothingIsASuccessThatTouchesNothing) {
  const TempDir folder;
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 0), 0);
  EXPECT_EQ(sink.writeAt(100, nullptr, 0), 0);
  EXPECT_EQ(sink.bytesWritten(), 0U);
  EXPECT_EQ(support::fileSize(folder.file("f")), 0U);
}

TEST(FileSink, finalizeCutsAndExtends) {
  const TempDir folder;
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 10), 0);
  ASSERT_EQ(sink.finalize(3), 0);
  EXPECT_EQ(support::fileSize(folder.file("f")), 3U);
  ASSERT_EQ(sink.open(folder.file("f"), 10), 0);
  ASSERT_EQ(sink.finalize(20), 0);
  EXPECT_EQ(support::fileSize(folder.file("f")), 20U);
}

TEST(FileSink, failedTruncationIsLoggedAndStillASuccess) {
  const TempDir folder;
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 10), 0);
  const RecordingLogger log;
  EXPECT_EQ(sink.finalize(std::numeric_limits<std::uint64_t>::max()), 0);
  EXPECT_FALSE(sink.isOpen());
  EXPECT_EQ(
      wholeLogError(log.records(), {failure(kSink, "finalize | truncate failed | err=#"),
                                    trace(kSink, "finalize | " + folder.file("f") + " | size=18446744073709551615")}),
      "");
}

TEST(FileSink, failedWriteIsRememberedAndNotCounted) {
  const TempDir folder;
  const RecordingLogger log(3);
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 10), 0);
  EXPECT_FALSE(sink.writeFailed());
  const std::uint64_t beyond = std::numeric_limits<std::uint64_t>::max() - 100;
  EXPECT_EQ(write(sink, beyond, "abc"), -1);
  EXPECT_TRUE(sink.writeFailed());
  EXPECT_EQ(sink.bytesWritten(), 0U);
  const std::string text = "writeAt | WriteFile failed | offset=" + std::to_string(beyond) + " | err=#";
  EXPECT_EQ(wholeLogError(log.records(), {failure(kSink, text)}), "");
  EXPECT_EQ(sink.finalize(10), 0);
  ASSERT_EQ(sink.open(folder.file("f"), 10), 0);
  EXPECT_FALSE(sink.writeFailed());
}

TEST(FileSink, writeAtAnOffsetThatNoFileHasFailsAndAppendsNothing) {
  const TempDir folder;
  const std::string path = folder.file("f");
  FileSink sink;
  ASSERT_EQ(sink.open(path, 3), 0);
  for (const std::uint64_t below : {1U, 2U}) {
    EXPECT_EQ(write(sink, std::numeric_limits<std::uint64_t>::max() - below + 1, "x"), result::kWriteFailed) << below;
  }
  sink.close();
  EXPECT_EQ(support::readFile(path), std::string(3, '\0'));
}

TEST(FileSink, fileThatCannotBeCreatedGives100004) {
  const TempDir folder;
  const RecordingLogger log;
  FileSink sink;
  const std::string path = folder.file("missing") + "/f";
  EXPECT_EQ(sink.open(path, 10), 100004);
  EXPECT_FALSE(sink.isOpen());
  EXPECT_EQ(sink.open("", 10), 100004);
  EXPECT_EQ(wholeLogError(log.records(), {failure(kSink, "open | CreateFile failed | path=" + path + " | err=#"),
                                          failure(kSink, "open | CreateFile failed | path= | err=#")}),
            "");
}

TEST(FileSink, sizeThatNoDiskHasGives100024AndAClosedSink) {
  const TempDir folder;
  const RecordingLogger log;
  FileSink sink;
  EXPECT_EQ(sink.open(folder.file("huge"), std::numeric_limits<std::uint64_t>::max()), 100024);
  EXPECT_FALSE(sink.isOpen());
  EXPECT_EQ(wholeLogError(log.records(), {failure(kSink, "open | SetFilePointerEx failed | err=#")}), "");
}

TEST(FileSink, pathsAreUtf8) {
  const TempDir folder;
  FileSink sink;
  const std::string path = folder.file("\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80.bin");
  ASSERT_EQ(sink.open(path, 3), 0);
  ASSERT_EQ(write(sink, 0, "abc"), 0);
  ASSERT_EQ(sink.finalize(3), 0);
  EXPECT_EQ(support::readFile(path), "abc");
}

TEST(FileSink, secondSinkOnOnePathIsRefusedAndChangesNothing) {
  const TempDir folder;
  FileSink first;
  ASSERT_EQ(first.open(folder.file("f"), 5), 0);
  ASSERT_EQ(write(first, 0, "first"), 0);
  FileSink second(doNotWait);
  EXPECT_EQ(second.open(folder.file("f"), 20), 100004);
  EXPECT_FALSE(second.isOpen());
  EXPECT_EQ(support::readFile(folder.file("f")), "first") << "others may read meanwhile";
  EXPECT_EQ(support::listFolder(folder.path()), std::vector<std::string>{"f"});
  EXPECT_EQ(write(first, 0, "whole"), 0);
  EXPECT_EQ(first.finalize(5), 0);
  EXPECT_EQ(support::readFile(folder.file("f")), "whole");
}

TEST(FileSink, fileIsFreeAgainOnceItsSinkIsClosed) {
  const TempDir folder;
  const auto expectFree = [&](const char* after) {
    FileSink next(doNotWait);
    EXPECT_EQ(next.open(folder.file("f"), 5), 0) << after;
  };
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 5), 0);
  sink.close();
  expectFree("close");
  ASSERT_EQ(sink.open(folder.file("f"), 5), 0);
  ASSERT_EQ(sink.finalize(5), 0);
  expectFree("finalize");
  ASSERT_EQ(sink.open(folder.file("f"), std::numeric_limits<std::uint64_t>::max()), 100024);
  expectFree("a size that cannot be reserved");
}

TEST(FileSink, countsTheBytesOfItsLatestFileAlone) {
  const TempDir folder;
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 4), 0);
  ASSERT_EQ(write(sink, 0, "abcd"), 0);
  ASSERT_EQ(write(sink, 2, "cd"), 0);
  EXPECT_EQ(sink.bytesWritten(), 6U) << "what is written again counts again";
  ASSERT_EQ(sink.finalize(4), 0);
  EXPECT_EQ(sink.bytesWritten(), 6U);
  ASSERT_EQ(sink.open(folder.file("f"), 4), 0);
  EXPECT_EQ(sink.bytesWritten(), 0U);
  ASSERT_EQ(write(sink, 0, "a"), 0);
  sink.close();
  EXPECT_EQ(sink.open(folder.file("missing") + "/f", 4), 100004);
  EXPECT_EQ(sink.bytesWritten(), 0U) << "also when it cannot be opened";
}

TEST(FileSink, openReplacesTheOldContent) {
  const TempDir folder;
  support::writeFile(folder.file("f"), "a much longer content than before");
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 4), 0);
  ASSERT_EQ(sink.finalize(4), 0);
  EXPECT_EQ(support::readFile(folder.file("f")), std::string(4, '\0'));
}

}  // namespace
