// What a log statement asks of the host's logger: as little as possible, and nothing that it does not give back.  The
// linker sends the library's calls for a logger through this file (see CMakeLists.txt).
#include <gtest/gtest.h>

#include <cstdint>
#include <locale>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "keel/log_record.h"
#include "log.h"
#include "xfer/xfer.h"

namespace {

// Writes down what is asked of it, in order.
class HostLogger final : public Keel::ILogger {
 public:
  explicit HostLogger(std::uint32_t threshold) : threshold_(threshold) {}

  void addRef() override { note("addRef", +1); }
  void release() override { note("release", -1); }
  void write(std::uint32_t level, const char* tag, const char* text, const char* file, std::uint32_t line) override {
    calls_.push_back("write " + std::to_string(level) + " " + (tag != nullptr ? tag : "null") + " " + text + " " +
                     file + ":" + std::to_string(line));
    if (throws_) throw std::runtime_error("thrown by a logger");
  }
  std::uint32_t threshold() override {
    calls_.emplace_back("threshold");
    return threshold_;
  }

  void create() { note("create", +1); }
  void throwOnWrite() { throws_ = true; }

  [[nodiscard]] const std::vector<std::string>& calls() const { return calls_; }
  [[nodiscard]] int references() const { return references_; }

 private:
  void note(const char* call, int references) {
    calls_.emplace_back(call);
    references_ += references;
    EXPECT_GE(references_, 0);
  }

  std::uint32_t threshold_;
  bool throws_ = false;
  int references_ = 0;
  std::vector<std::string> calls_;
};

HostLogger* g_logger = nullptr;  // null: the host has none
int g_asked = 0;

}  // namespace

extern "C" {

int __wrap_createLogger(Keel::ILogger** out) {
  ++g_asked;
  if (g_logger == nullptr) return 1;
  g_logger->create();
  *out = g_logger;
  return 0;
}
}

namespace {

namespace log = xfer::log;
using Calls = std::vector<std::string>;

constexpr const char* kLogTag = "Tag";

class HostsLogger : public testing::Test {
 protected:
  ~HostsLogger() override {
    g_logger = nullptr;
    g_asked = 0;
  }

  HostLogger& host(std::uint32_t threshold) {
    g_logger = &logger_.emplace(threshold);
    return *logger_;
  }

  // A text whose making is noticed.
  std::string text() {
    ++textsMade_;
    return "text";
  }

  int textsMade_ = 0;

 private:
  std::optional<HostLogger> logger_;
};

TEST_F(HostsLogger, isAskedForEveryStatementAndGivenBack) {
  HostLogger& logger = host(3);
  XFER_LOG_LINE(log::kFailure, 42, text() << 7 << " | " << 1000000U);
  EXPECT_EQ(logger.calls(),
            (Calls{"create", "threshold", "addRef", "write 3 Tag text7 | 1000000 " + std::string(__FILE__) + ":42",
                   "release", "release"}));
  EXPECT_EQ(logger.references(), 0);
  XFER_LOG_LINE(log::kFailure, 43, "next");
  EXPECT_EQ(g_asked, 2);
  EXPECT_EQ(logger.references(), 0);
}

TEST_F(HostsLogger, thatWantsLessIsNotWrittenToAndNoTextIsMade) {
  HostLogger& logger = host(3);
  XFER_LOG_LINE(log::kRecovery, 42, text());
  XFER_LOG_LINE(log::kTrace, 42, text());
  EXPECT_EQ(logger.calls(), (Calls{"create", "threshold", "release", "create", "threshold", "release"}));
  EXPECT_EQ(textsMade_, 0);
}

TEST_F(HostsLogger, isWrittenToFromItsThresholdDown) {
  for (const std::uint32_t threshold : {0U, 2U, 3U, 4U, 5U, 6U, 7U}) {
    host(threshold);
    textsMade_ = 0;
    XFER_LOG(log::kFailure, text());
    XFER_LOG(log::kRecovery, text());
    XFER_LOG(log::kTrace, text());
    EXPECT_EQ(textsMade_, (threshold >= 3 ? 1 : 0) + (threshold >= 4 ? 1 : 0) + (threshold >= 6 ? 1 : 0)) << threshold;
  }
}

TEST_F(HostsLogger, thatCannotBeHadMeansThatNoTextIsMade) {
  XFER_LOG(log::kFailure, text());
  EXPECT_EQ(g_asked, 1);
  EXPECT_EQ(textsMade_, 0);
}

TEST_F(HostsLogger, thatThrowsIsGivenBackAndTheCallerGoesOn) {
  HostLogger& logger = host(6);
  logger.throwOnWrite();
  EXPECT_NO_THROW(XFER_LOG(log::kFailure, text()));
  EXPECT_EQ(logger.references(), 0);
  xfer_setNumThreads(1);
  EXPECT_EQ(logger.references(), 0);
}

TEST_F(HostsLogger, isGivenBackWhenATextCannotBeMade) {
  HostLogger& logger = host(6);
  const auto failing = []() -> const char* { throw std::bad_alloc(); };
  EXPECT_NO_THROW(XFER_LOG(log::kFailure, failing()));
  EXPECT_EQ(logger.references(), 0);
}

TEST_F(HostsLogger, isAskedOnceForEachStatementOfTheInterface) {
  HostLogger& logger = host(6);
  xfer_setNumThreads(1);
  std::uint64_t downloaded = 0;
  std::uint32_t error = 0;
  std::uint8_t finished = 0;
  EXPECT_EQ(xfer_getProgress(4242, &downloaded, &error, &finished), 0);
  EXPECT_EQ(xfer_downloadPause(4242), 100001);
  EXPECT_FALSE(xfer_stopDownloadHandle(4242));
  EXPECT_EQ(logger.references(), 0);
  EXPECT_EQ(g_asked, 6);
}

TEST_F(HostsLogger, isToldNoTagAndNoFileWhereThereAreNone) {
  HostLogger& logger = host(6);
  { Keel::CLogMsgMultibyte(&logger, 3, nullptr, nullptr, 5) << "a"; }
  { Keel::CLogMsgMultibyte(&logger, 3, "", "f", 5) << "b"; }
  { Keel::CLogMsgMultibyte(nullptr, 3, "t", "f", 5) << "nowhere"; }
  EXPECT_EQ(logger.calls(),
            (Calls{"addRef", "write 3 null a :5", "release", "addRef", "write 3 null b f:5", "release"}));
}

TEST_F(HostsLogger, getsNumbersWithoutTheSeparatorsOfTheHostsLanguage) {
  struct Grouped : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
  };
  const std::locale before = std::locale::global(std::locale(std::locale(), new Grouped));
  HostLogger& logger = host(6);
  XFER_LOG_LINE(log::kTrace, 42, 1000000);
  std::locale::global(before);
  EXPECT_EQ(logger.calls().at(3), "write 6 Tag 1000000 " + std::string(__FILE__) + ":42");
}

}  // namespace
