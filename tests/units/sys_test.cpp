// The byte buffer and the descrambler.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <random>

#include "sys/data_buff.h"
#include "sys/descrambler.h"

using sys::DataBuff;

namespace {

TEST(DataBuff, resizeToTheSameSizeKeepsTheBlock) {
  DataBuff buff;
  ASSERT_TRUE(buff.resize(5));
  const auto* const block = buff.data();
  EXPECT_TRUE(buff.resize(5));
  EXPECT_EQ(buff.data(), block);
}

TEST(DataBuff, resizeTo0FreesTheBlock) {
  DataBuff buff;
  buff.assign("hello");
  EXPECT_TRUE(buff.resize(0));
  EXPECT_EQ(buff.data(), nullptr);
  EXPECT_TRUE(buff.empty());
}

TEST(DataBuff, resizeKeepsWhatFits) {
  DataBuff buff;
  buff.assign("hello");
  ASSERT_TRUE(buff.resize(2));
  EXPECT_EQ(buff.toString(), "he");
  ASSERT_TRUE(buff.resize(4));
  EXPECT_EQ(std::memcmp(buff.data(), "he", 2), 0);
}

TEST(DataBuff, resizeThatMemoryCannotHoldChangesNothing) {
  DataBuff buff;
  buff.assign("hello");
  EXPECT_FALSE(buff.resize(std::numeric_limits<std::uint64_t>::max() / 2));
  EXPECT_EQ(buff.toString(), "hello");
}

TEST(DataBuff, assignOfNullOnlyMakesTheLength) {
  DataBuff buff;
  buff.assign(nullptr, 5);
  EXPECT_EQ(buff.size(), 5U);
  EXPECT_NE(buff.data(), nullptr);
}

TEST(DataBuff, releaseLeavesNothingBehind) {
  DataBuff buff;
  buff.assign("hello");
  std::uint64_t length = 0;
  auto* const block = buff.release(&length);
  EXPECT_EQ(length, 5U);
  EXPECT_EQ(buff.size(), 0U);
  EXPECT_EQ(buff.data(), nullptr);
  std::free(block);
}

TEST(DataBuff, copyToAWideStringTakesWholeUnits) {
  DataBuff buff;
  const std::uint16_t units[] = {0x41, 0x20AC};
  buff.assign(units, sizeof units);
  ASSERT_TRUE(buff.resize(5));
  std::wstring text = L"before";
  buff.copyTo(text);
  EXPECT_EQ(text, (std::wstring{0x41, 0x20AC}));
  ASSERT_TRUE(buff.resize(1));
  text = L"before";
  buff.copyTo(text);
  EXPECT_EQ(text, L"before");
}

TEST(DataBuff, copyOfNothingLeavesTheTarget) {
  DataBuff buff;
  std::string text = "before";
  buff.copyTo(text);
  EXPECT_EQ(text, "before");
  EXPECT_EQ(buff.toString(), "");
}

TEST(DataBuff, takeFromMovesTheBlock) {
  DataBuff from;
  DataBuff to;
  from.assign("hello");
  const auto* const block = from.data();
  to.assign("old");
  to.takeFrom(&from);
  EXPECT_EQ(to.data(), block);
  EXPECT_EQ(to.toString(), "hello");
  EXPECT_EQ(from.size(), 0U);
  to.takeFrom(nullptr);
  EXPECT_EQ(to.toString(), "hello");
}

TEST(DataBuff, moveToGivesTheBlockToTheOther) {
  DataBuff from;
  DataBuff to;
  from.assign("hello");
  EXPECT_EQ(from.moveTo(&to), &to);
  EXPECT_EQ(to.toString(), "hello");
  EXPECT_TRUE(from.empty());
}

TEST(DataBuff, attachTakesOwnership) {
  DataBuff buff;
  auto* const block = static_cast<std::uint8_t*>(std::malloc(3));
  std::memcpy(block, "abc", 3);
  buff.attach(nullptr, 9);
  EXPECT_TRUE(buff.empty());
  buff.attach(block, 3);
  EXPECT_EQ(buff.toString(), "abc");
}

TEST(Descrambler, shortTextsStayAsTheyAre) {
  for (const char* text : {"", "a", "ab", "abc"}) {
    EXPECT_EQ(sys::descrambleString(text, true), text);
    EXPECT_EQ(sys::descrambleString(text, false), text);
  }
}

TEST(Descrambler, fourBytesGoThroughThePairAndTheEnds) {
  // b c become c-1 b+1; then the ends are exchanged: a c-1 b+1 d -> c-1 a d b+1 -> d b+1 c-1 a
  EXPECT_EQ(sys::descrambleString("abcd", true), (std::string{'d', 'c', 'b', 'a'}));
}

TEST(Descrambler, fiveBytesLeaveTheFourthOutOfThePairs) {
  // a [b c] d e -> a b c d e (c-1 = b, b+1 = c) -> b a c e d -> e a c b d -> e d c b a
  EXPECT_EQ(sys::descrambleString("abcde", true), "edcba");
}

TEST(Descrambler, eachDirectionUndoesTheOther) {
  std::mt19937 random(7);
  for (std::size_t length = 0; length < 300; ++length) {
    std::string text(length, '\0');
    for (char& byte : text) byte = static_cast<char>(length % 3 == 0 ? random() : random() % 2 != 0 ? 0xFF : 0);
    EXPECT_EQ(sys::descrambleString(sys::descrambleString(text, false), true), text);
    EXPECT_EQ(sys::descrambleString(sys::descrambleString(text, true), false), text);
  }
}

TEST(LoggedUrl, isRewrittenForTheOneBrandOnly) {
  const std::string hidden = sys::descrambleString(sys::scrambledSearchText(), true);
  ASSERT_EQ(hidden.size(), 16U);
  const std::string url = "http://" + hidden + "/a/" + hidden + "?x";
  EXPECT_EQ(sys::loggedUrl("Quillon", url), "http://serv/a/serv?x");
  EXPECT_EQ(sys::loggedUrl("quillon", url), url);
  EXPECT_EQ(sys::loggedUrl("", url), url);
  EXPECT_EQ(sys::loggedUrl("Quillon", "http://host/"), "http://host/");
  EXPECT_EQ(sys::loggedUrl("Quillon", ""), "");
}

}  // namespace
