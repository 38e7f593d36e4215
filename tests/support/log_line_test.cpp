#include "support/log_line.h"

#include <gtest/gtest.h>

#include "keel/keel.h"

namespace support {
namespace {

void write(std::uint32_t level, const char* tag, const char* text, const char* file, std::uint32_t line) {
  Keel::ILogger* logger = nullptr;
  ASSERT_EQ(createLogger(&logger), 0);
  logger->write(level, tag, text, file, line);
  logger->release();
}

constexpr const char* kXferPath = "/build/modules/xfer/src/xfer.cpp";

TEST(LogLine, isFoundByAllItsPartsTogether) {
  const RecordingLogger log;
  write(3, "xfer", "text 5", kXferPath, 42);
  EXPECT_EQ(logError(log, failure(kXfer, 42, "text 5")), "");
  EXPECT_EQ(logError(log, failure(kXfer, "text 5")), "") << "any line";
  EXPECT_EQ(logError(log, failure(kXfer, 42, "text #")), "");
  EXPECT_NE(logError(log, failure(kXfer, 43, "text 5")), "");
  EXPECT_NE(logError(log, trace(kXfer, 42, "text 5")), "");
  EXPECT_NE(logError(log, recovery(kXfer, "text 5")), "");
  EXPECT_NE(logError(log, failure(kFetch, 42, "text 5")), "") << "another file of that tag";
  EXPECT_NE(logError(log, failure({"other", "xfer.cpp"}, 42, "text 5")), "");
  for (const char* other : {"text", "text 5 ", "text 55", "ext 5", "text #5", "text#", "#"}) {
    EXPECT_NE(logError(log, failure(kXfer, 42, other)), "") << other;
  }
}

TEST(LogLine, takesEitherSeparatorInAPath) {
  const RecordingLogger log;
  write(6, "xfer", "text", R"(C:\build\modules\xfer\src\xfer.cpp)", 42);
  EXPECT_EQ(logError(log, trace(kXfer, 42, "text")), "");
}

TEST(LogLine, isCounted) {
  const RecordingLogger log;
  EXPECT_EQ(logError(log, failure(kXfer, 42, "text"), 0), "");
  EXPECT_NE(logError(log, failure(kXfer, 42, "text")), "");
  write(3, "xfer", "text", kXferPath, 42);
  write(3, "xfer", "text", kXferPath, 42);
  EXPECT_NE(logError(log, failure(kXfer, 42, "text")), "");
  EXPECT_EQ(logError(log, failure(kXfer, 42, "text"), 2), "");
}

TEST(LogLine, isWrongWhenItIsWrittenInAnotherWayToo) {
  const RecordingLogger log;
  write(3, "xfer", "text", kXferPath, 42);
  write(6, "xfer", "text", kXferPath, 42);
  const std::string error = logError(log, failure(kXfer, 42, "text"));
  EXPECT_NE(error.find("not as expected: 6 [xfer] " + std::string(kXferPath) + ":42 \"text\""), std::string::npos)
      << error;
}

TEST(LogLine, numbersMayBeNegativeAndHaveAtLeastOneDigit) {
  const RecordingLogger log;
  write(4, "xfer", "err=-18 | got=", kXferPath, 1);
  EXPECT_EQ(logError(log, recovery(kXfer, "err=# | got=")), "");
  EXPECT_NE(logError(log, recovery(kXfer, "err=# | got=#")), "");
}

TEST(WholeLog, isTheseLinesInThisOrder) {
  const RecordingLogger log;
  write(3, "xfer", "one", kXferPath, 1);
  write(4, nullptr, "none", kXferPath, 2);
  write(6, "FileSink", "two", "modules/xfer/src/file_sink.cpp", 3);
  const LogLine one = failure(kXfer, 1, "one");
  const LogLine two = trace(kSink, "two");
  EXPECT_NE(wholeLogError(log.records(), {one, two}), "");
  EXPECT_EQ(wholeLogError(recordsOf(log, kSink), {two}), "");
  EXPECT_NE(wholeLogError(recordsOf(log, kSink), {}), "");
  EXPECT_NE(wholeLogError(recordsOf(log, kSink), {two, two}), "");
  EXPECT_EQ(recordsUpTo(log, 3).size(), 1U);
  EXPECT_EQ(recordsUpTo(log, 4).size(), 2U);
  const std::string error = wholeLogError(log.records(), {one, two, two});
  EXPECT_NE(error.find("as expected: 3 [xfer]"), std::string::npos) << error;
  EXPECT_NE(error.find("EXPECTED:    6 [FileSink] modules/xfer/src/file_sink.cpp:any \"two\""), std::string::npos)
      << error;
  EXPECT_NE(error.find("WRITTEN:     4 [no tag]"), std::string::npos) << error;
}

}  // namespace
}  // namespace support
