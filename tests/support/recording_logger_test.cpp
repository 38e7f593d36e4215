#include "support/recording_logger.h"

#include <gtest/gtest.h>

#include "keel/keel.h"

namespace support {
namespace {

void log(std::uint32_t level, const char* tag, const char* text) {
  Keel::ILogger* logger = nullptr;
  ASSERT_EQ(createLogger(&logger), 0);
  logger->write(level, tag, text, "file.cpp", 42);
  logger->release();
}

TEST(Keel, letsFailuresAloneThroughUntilItIsToldOtherwise) {
  Keel::setRecordSink([](void*, std::uint32_t, const char*, const char*, const char*, std::uint32_t) {}, nullptr);
  Keel::ILogger* logger = nullptr;
  ASSERT_EQ(createLogger(&logger), 0);
  EXPECT_EQ(logger->threshold(), 3U);
  logger->release();
  Keel::setRecordSink(nullptr, nullptr);
}

TEST(Keel, takesANullNameForNone) {
  Keel::setSettingsName("name");
  EXPECT_STREQ(Keel::getSettingsName(), "name");
  Keel::setSettingsName(nullptr);
  EXPECT_STREQ(Keel::getSettingsName(), "");
}

TEST(RecordingLogger, keepsEveryPartOfARecord) {
  const RecordingLogger logger;
  log(3, "tag", "first");
  std::thread([] { log(4, nullptr, "second"); }).join();

  const std::vector<Record> records = logger.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].level, 3u);
  EXPECT_EQ(records[0].tag, "tag");
  EXPECT_EQ(records[0].text, "first");
  EXPECT_EQ(records[0].file, "file.cpp");
  EXPECT_EQ(records[0].line, 42u);
  EXPECT_EQ(records[0].thread, std::this_thread::get_id());
  EXPECT_EQ(records[1].tag, std::nullopt);
  EXPECT_NE(records[1].thread, std::this_thread::get_id());
}

TEST(RecordingLogger, findsRecordsByTheirText) {
  RecordingLogger logger;
  log(3, "t", "alpha one");
  log(6, "t", "alpha two");
  log(6, "t", "beta");
  EXPECT_EQ(logger.texts(), (std::vector<std::string>{"alpha one", "alpha two", "beta"}));
  EXPECT_EQ(logger.texts(6), (std::vector<std::string>{"alpha two", "beta"}));
  EXPECT_TRUE(logger.contains("ta"));
  EXPECT_FALSE(logger.contains("gamma"));
  EXPECT_EQ(logger.count("alpha"), 2u);
  ASSERT_TRUE(logger.findPrefix("alpha").has_value());
  EXPECT_EQ(logger.findPrefix("alpha")->text, "alpha one");
  EXPECT_EQ(logger.findPrefix("lpha"), std::nullopt);
  logger.clear();
  EXPECT_EQ(logger.count(""), 0u);
}

TEST(RecordingLogger, waitsForARecordOfAnotherThread) {
  const RecordingLogger logger;
  std::thread writer([] { log(6, "t", "here it is"); });
  EXPECT_TRUE(logger.waitFor("it is"));
  writer.join();
  EXPECT_FALSE(logger.waitFor("never", std::chrono::milliseconds(20)));
}

TEST(RecordingLogger, setsTheThresholdAndLeavesSilence) {
  Keel::ILogger* logger = nullptr;
  {
    const RecordingLogger recording(4);
    ASSERT_EQ(createLogger(&logger), 0);
    EXPECT_EQ(logger->threshold(), 4u);
  }
  EXPECT_EQ(logger->threshold(), 3u);
  logger->release();
  EXPECT_NE(createLogger(&logger), 0);
}

}  // namespace
}  // namespace support
