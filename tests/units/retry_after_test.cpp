// How long a server asks to be left alone.
#include "retry_after.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

namespace {

using xfer::kLongestRetryAfterSec;
using xfer::parseHttpDate;
using xfer::retryAfterSec;

constexpr std::int64_t kNow = 784'111'777;  // 1994-11-06 08:49:37
constexpr std::int64_t kYear2026 = 1'780'000'000;
const std::string kNowText = "Sun, 06 Nov 1994 08:49:37 GMT";

// Of an answer with these fields; an empty one is missing.
std::optional<std::uint64_t> secondsOf(const std::string& retryAfter, const std::string& date = "",
                                       std::int64_t localTime = kNow) {
  xfer::ResponseHeadReader reader;
  reader.add("HTTP/1.1 503 x\r\n");
  if (!retryAfter.empty()) reader.add("RETRY-AFTER:  " + retryAfter + " \r\n");
  if (!date.empty()) reader.add("date: " + date + "\r\n");
  return retryAfterSec(reader.head(), localTime);
}

TEST(RetryAfter, isNothingWithoutTheField) {
  EXPECT_EQ(secondsOf(""), std::nullopt);
  EXPECT_EQ(secondsOf("", kNowText), std::nullopt);
}

TEST(RetryAfter, isANumberOfSeconds) {
  EXPECT_EQ(secondsOf("0"), 0U);
  EXPECT_EQ(secondsOf("120"), 120U);
  EXPECT_EQ(secondsOf("0000000000000000000000000120"), 120U);
}

TEST(RetryAfter, isNeverMoreThanTheLongest) {
  EXPECT_EQ(secondsOf("1000000000"), 1'000'000'000U);
  EXPECT_EQ(secondsOf("1000000001"), kLongestRetryAfterSec);
  EXPECT_EQ(secondsOf("18446744073709551615"), kLongestRetryAfterSec);
  EXPECT_EQ(secondsOf("99999999999999999999999999"), kLongestRetryAfterSec);
  EXPECT_EQ(secondsOf("Fri, 31 Dec 9999 23:59:59 GMT", kNowText), kLongestRetryAfterSec);
  EXPECT_EQ(secondsOf("Fri, 31 Dec 9999 23:59:59 GMT", "", std::numeric_limits<std::int64_t>::min()),
            kLongestRetryAfterSec);
}

TEST(RetryAfter, thatIsNoNumberAndNoDateIsNothing) {
  for (const char* text : {"-1", "+1", "1.5", "1 s", "0x10", "1,2", "soon", "1e3", "Sun"}) {
    EXPECT_EQ(secondsOf(text, kNowText), std::nullopt) << text;
  }
}

TEST(RetryAfter, dateIsComparedWithTheAnswersOwn) {
  EXPECT_EQ(secondsOf("Sun, 06 Nov 1994 08:51:37 GMT", kNowText, kYear2026), 120U);
  EXPECT_EQ(secondsOf("Sunday, 06-Nov-94 08:51:37 GMT", "Sun Nov  6 08:49:37 1994", kYear2026), 120U);
}

TEST(RetryAfter, dateIsComparedWithTheLocalTimeWhenTheAnswerHasNone) {
  EXPECT_EQ(secondsOf("Sun, 06 Nov 1994 08:51:37 GMT"), 120U);
  EXPECT_EQ(secondsOf("Sun, 06 Nov 1994 08:51:37 GMT", "today"), 120U);
}

TEST(RetryAfter, dateInThePastIsNoTimeAtAll) {
  EXPECT_EQ(secondsOf("Sun, 06 Nov 1994 08:49:36 GMT", kNowText), 0U);
  EXPECT_EQ(secondsOf(kNowText, kNowText), 0U);
  EXPECT_EQ(secondsOf(kNowText, "", kYear2026), 0U);
  EXPECT_EQ(secondsOf(kNowText, "", std::numeric_limits<std::int64_t>::max()), 0U);
}

TEST(HttpDate, hasThreeForms) {
  EXPECT_EQ(parseHttpDate(kNowText, kNow), kNow);
  EXPECT_EQ(parseHttpDate("Sunday, 06-Nov-94 08:49:37 GMT", kNow), kNow);
  EXPECT_EQ(parseHttpDate("Sun Nov  6 08:49:37 1994", kNow), kNow);
  EXPECT_EQ(parseHttpDate("Wed Nov 16 08:49:37 1994", kNow), kNow + 864'000);
  EXPECT_EQ(parseHttpDate("Thu, 01 Jan 1970 00:00:00 GMT", kNow), 0);
  EXPECT_EQ(parseHttpDate("Wed, 31 Dec 1969 23:59:59 GMT", kNow), -1);
  EXPECT_EQ(parseHttpDate("Thu, 29 Feb 2024 00:00:00 GMT", kNow), 1'709'164'800);
  EXPECT_EQ(parseHttpDate("Sat, 31 Dec 2016 23:59:60 GMT", kNow), 1'483'228'800) << "a leap second";
}

TEST(HttpDate, yearOfTwoDigitsIsTheNearest) {
  constexpr std::int64_t kYear = 31'556'952;
  EXPECT_EQ(parseHttpDate("Sunday, 06-Nov-94 08:49:37 GMT", kYear2026), kNow);
  EXPECT_EQ(parseHttpDate("Tuesday, 01-Jan-30 00:00:00 GMT", kYear2026), 1'893'456'000);
  EXPECT_EQ(parseHttpDate("Wednesday, 01-Jan-76 00:00:00 GMT", kYear2026), 3'345'062'400) << "in 50 years";
  EXPECT_EQ(parseHttpDate("Saturday, 01-Jan-77 00:00:00 GMT", kYear2026), 220'924'800) << "49 years ago";
  EXPECT_EQ(parseHttpDate("Saturday, 01-Jan-00 00:00:00 GMT", kNow + 5 * kYear), 946'684'800) << "next year";
}

TEST(HttpDate, thatIsMalformedIsNothing) {
  for (const char* text : {"",
                           "Sun, 06 Nov 1994 08:49:37",
                           "Sun, 06 Nov 1994 08:49:37 UTC",
                           "Sun, 06 Nov 1994 08:49:37 +0000",
                           "Sun, 06 Nov 1994 08:49:37 GMT.",
                           "Sun, 06 Nov 1994 08:49:37 GMT GMT",
                           "Sun,06 Nov 1994 08:49:37 GMT",
                           "sun, 06 Nov 1994 08:49:37 GMT",
                           "Nov, 06 Nov 1994 08:49:37 GMT",
                           "Sunday, 06 Nov 1994 08:49:37 GMT",
                           "Sun, 6 Nov 1994 08:49:37 GMT",
                           "Sun, 00 Nov 1994 08:49:37 GMT",
                           "Sun, 31 Nov 1994 08:49:37 GMT",
                           "Wed, 29 Feb 2023 00:00:00 GMT",
                           "Sun, 06 Nov 94 08:49:37 GMT",
                           "Sun, 06 Nov -994 08:49:37 GMT",
                           "Sun, 06 Now 1994 08:49:37 GMT",
                           "Sun, 06 Nov 1994 8:49:37 GMT",
                           "Sun, 06 Nov 1994 24:00:00 GMT",
                           "Sun, 06 Nov 1994 08:60:37 GMT",
                           "Sun, 06 Nov 1994 08:49:61 GMT",
                           "Sun, 06 Nov 1994 08.49.37 GMT",
                           "Sun, 06-Nov-94 08:49:37 GMT",
                           "Sunday, 06-Nov-1994 08:49:37 GMT",
                           "Sunday, 06-Nov-94 08:49:37",
                           "Sun Nov 6 08:49:37 1994",
                           "Sun Nov 06 08:49:37 94",
                           "Sun Nov   6 08:49:37 1994",
                           "Sun Nov  6 08:49:37 1994 GMT",
                           "1994-11-06T08:49:37Z",
                           "784111777"}) {
    EXPECT_EQ(parseHttpDate(text, kNow), std::nullopt) << text;
  }
}

}  // namespace
