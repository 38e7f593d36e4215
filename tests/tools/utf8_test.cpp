#include "utf8.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace {

using xfer_get::takeCodePoint;

constexpr std::uint32_t kInvalid = 0xFFFD;

std::vector<std::uint32_t> codePoints(std::string_view text) {
  std::vector<std::uint32_t> values;
  while (!text.empty()) {
    const xfer_get::CodePoint taken = takeCodePoint(&text);
    EXPECT_TRUE(taken.valid || taken.value == kInvalid);
    values.push_back(taken.value);
  }
  return values;
}

using Values = std::vector<std::uint32_t>;

TEST(Utf8, firstAndLastCodePointsOfEachLengthAreTaken) {
  EXPECT_EQ(codePoints(std::string_view("\0\x7F", 2)), (Values{0, 0x7F}));
  EXPECT_EQ(codePoints("\xC2\x80\xDF\xBF"), (Values{0x80, 0x7FF}));
  EXPECT_EQ(codePoints("\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF"), (Values{0x800, 0xD7FF, 0xE000, 0xFFFF}));
  EXPECT_EQ(codePoints("\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"), (Values{0x10000, 0x10FFFF}));
}

TEST(Utf8, replacementCharacterThatIsWrittenOutIsValid) {
  std::string_view text = "\xEF\xBF\xBD";
  EXPECT_TRUE(takeCodePoint(&text).valid);
}

TEST(Utf8, overlongFormsSurrogatesAndWhatIsTooHighAreInvalid) {
  for (const char* const text : {"\xC0\x80", "\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80",
                                 "\xED\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "\x80", "\xBF"}) {
    for (const std::uint32_t value : codePoints(text)) EXPECT_EQ(value, kInvalid);
  }
}

TEST(Utf8, textThatIsCutShortIsOneInvalidPiece) {
  EXPECT_EQ(codePoints("\xC3"), (Values{kInvalid}));
  EXPECT_EQ(codePoints("\xE2\x82"), (Values{kInvalid}));
  EXPECT_EQ(codePoints("\xF0\x9F\x98"), (Values{kInvalid}));
}

TEST(Utf8, whatFollowsAnInvalidPieceIsKept) {
  EXPECT_EQ(codePoints("\xE2\x82x"), (Values{kInvalid, 'x'}));
  EXPECT_EQ(codePoints("\xC3\xC3\xA9"), (Values{kInvalid, 0xE9}));
  EXPECT_EQ(codePoints("\xF4\x90x"), (Values{kInvalid, kInvalid, 'x'}));
}

}  // namespace
