#include "error_text.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <set>
#include <string>

#include "result_codes.h"
#include "xfer/xfer.h"

namespace {

using xfer::errorText;
namespace result = xfer::result;

std::string text(std::int32_t code) {
  return errorText(code);
}

TEST(ErrorText, hasWordsOfItsOwnForEachOfTheLibrarysNumbers) {
  const std::int32_t codes[] = {result::kSuccess,       result::kNoHandle,          result::kSizeException,
                                result::kNoSize,        result::kStopped,           result::kException,
                                result::kUnknownId,     result::kFileNotCreated,    result::kFileNotOpen,
                                result::kEmptyBody,     result::kFileNotReserved,   result::kCaFileUnreadable,
                                result::kCaFileEmpty,   result::kBadRecord,         result::kNullArgument,
                                result::kOtherKind,     result::kUnknownEnumerator, result::kInsideCallback,
                                result::kCallbackThrew, result::kNotEnded,          result::unexpectedStatus(-1)};
  std::set<std::string> texts;
  for (const std::int32_t code : codes) {
    EXPECT_NE(text(code), "unknown code") << code;
    EXPECT_TRUE(texts.insert(text(code)).second) << text(code);
  }
}

TEST(ErrorText, isLibcurlsForItsNumbersAndMorePreciseWhereTheLibraryMeansMore) {
  for (const CURLcode code : {CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_CONNECT, CURLE_OPERATION_TIMEDOUT}) {
    EXPECT_EQ(text(code), curl_easy_strerror(code));
  }
  EXPECT_EQ(text(33), "the server sent other bytes than asked for, or the remote file changed");
  EXPECT_EQ(text(42), "cancelled");
  EXPECT_EQ(text(60), "the server's certificate is refused");
}

TEST(ErrorText, namesHttpStatuses) {
  EXPECT_EQ(text(404), "HTTP 404: not found");
  EXPECT_EQ(text(503), "HTTP 503: service unavailable");
  EXPECT_EQ(text(418), "HTTP 4xx: the server refuses the request");
  EXPECT_EQ(text(599), "HTTP 5xx: the server failed");
  EXPECT_EQ(text(304), "HTTP 3xx: a redirect that was not followed");
  for (std::int32_t status = 103; status < 600; ++status) {
    EXPECT_EQ(text(status).rfind("HTTP " + std::to_string(status / 100), 0), 0U) << status;
    EXPECT_EQ(text(result::unexpectedStatus(status)), text(status)) << status;
  }
}

TEST(ErrorText, ofAStatusThatIsNoneSaysSo) {
  EXPECT_EQ(text(-999), "the answer has no readable HTTP status");
  EXPECT_EQ(text(result::unexpectedStatus(0)), "the answer has an unusual HTTP status");
  EXPECT_EQ(text(result::unexpectedStatus(777)), "the answer has an unusual HTTP status");
}

TEST(ErrorText, ofAnyNumberIsThere) {
  for (std::int32_t code = -3000; code < 3000; ++code) EXPECT_FALSE(text(code).empty()) << code;
  for (const std::int32_t code :
       {std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::max(), 600, 99'999, 100'002}) {
    EXPECT_FALSE(text(code).empty()) << code;
  }
  EXPECT_EQ(text(600), "unknown code");
  EXPECT_EQ(text(100'002), "unknown code");
  EXPECT_EQ(xfer_errorText(404), text(404));
}

TEST(Version, ofTheLibraryIsThatOfItsHeaders) {
  const std::string numbers = std::to_string(XFER_VERSION_MAJOR) + "." + std::to_string(XFER_VERSION_MINOR) + "." +
                              std::to_string(XFER_VERSION_PATCH);
  EXPECT_EQ(xfer_version(), numbers);
  EXPECT_STREQ(XFER_VERSION_TEXT, numbers.c_str());
}

}  // namespace
