// The transform that hides a text, and the URL that is logged in its place.  The hidden text itself is in no source:
// tests make it at run time.
#include "sys/descrambler.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <string_view>
#include <utility>

namespace {

using namespace std::string_literals;

std::string decode(std::string text) {
  return sys::descrambleString(std::move(text), true);
}
std::string encode(std::string text) {
  return sys::descrambleString(std::move(text), false);
}

std::string hiddenText() {
  return decode(sys::scrambledSearchText());
}

TEST(Descrambler, textsShorterThan4BytesComeBackUnchanged) {
  for (const std::string& text : {""s, "a"s, "ab"s, "abc"s, "\0\xFF\0"s}) {
    EXPECT_EQ(decode(text), text);
    EXPECT_EQ(encode(text), text);
  }
}

// a [0 z] d: the pair becomes z-1 0+1, and the ends change places.
TEST(Descrambler, fourBytesAreOnePairBetweenTheEnds) {
  EXPECT_EQ(decode("a0zd"), "d1ya");
  EXPECT_EQ(encode("d1ya"), "a0zd");
}

TEST(Descrambler, theFourthOfFiveBytesIsInNoPair) {
  EXPECT_EQ(decode("a0zbe"), "eb1ya");
  EXPECT_EQ(encode("eb1ya"), "a0zbe");
}

TEST(Descrambler, sixAndSevenBytesHaveTwoPairs) {
  EXPECT_EQ(decode("a0zbXf"), "fc1Wya");
  EXPECT_EQ(encode("fc1Wya"), "a0zbXf");
  EXPECT_EQ(decode("a0zbXfg"), "gf1Wcya");
  EXPECT_EQ(encode("gf1Wcya"), "a0zbXfg");
}

TEST(Descrambler, bytesWrapAtBothEndsOfTheirRange) {
  EXPECT_EQ(decode("\x01\xFF\x00\x02"s), "\x02\x00\xFF\x01"s);
  EXPECT_EQ(encode("\x02\x00\xFF\x01"s), "\x01\xFF\x00\x02"s);
}

TEST(Descrambler, everyPairOfBytesComesBack) {
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string text{'<', static_cast<char>(first), static_cast<char>(second), '>'};
      ASSERT_EQ(decode(encode(text)), text) << first << ' ' << second;
      ASSERT_EQ(encode(decode(text)), text) << first << ' ' << second;
    }
  }
}

TEST(Descrambler, textsOfEveryLengthComeBack) {
  std::mt19937 random(20);
  for (std::size_t length = 0; length < 600; ++length) {
    std::string text(length, '\0');
    for (char& byte : text) byte = static_cast<char>(random());
    ASSERT_EQ(decode(encode(text)), text) << "length " << length;
    ASSERT_EQ(encode(decode(text)), text) << "length " << length;
  }
}

TEST(Descrambler, theResultIsInTheArgumentsStorage) {
  std::string text(100, 'x');
  const char* const storage = text.data();

  const std::string result = decode(std::move(text));

  EXPECT_EQ(result.data(), storage);
}

TEST(LoggedUrl, hiddenTextHas16BytesThatCanStandInAUrl) {
  const std::string hidden = hiddenText();

  EXPECT_EQ(sys::scrambledSearchText().size(), 16U);
  EXPECT_EQ(hidden.size(), 16U);
  EXPECT_EQ(hidden.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-./_"), std::string::npos);
  EXPECT_NE(hidden, sys::scrambledSearchText());
}

// What is looked at must hold the scrambled text, or the plain one would be missed too.
TEST(LoggedUrl, hiddenTextIsNotReadableInTheCompiledLibrary) {
  std::ifstream file(SYS_LIBRARY, std::ios::binary);
  const std::string library(std::istreambuf_iterator<char>(file), {});

  EXPECT_NE(library.find(sys::scrambledSearchText()), std::string::npos) << SYS_LIBRARY;
  EXPECT_EQ(library.find(hiddenText()), std::string::npos) << SYS_LIBRARY;
}

TEST(LoggedUrl, everyOccurrenceIsReplaced) {
  const std::string hidden = hiddenText();

  EXPECT_EQ(sys::loggedUrl("Quillon", "http://" + hidden + ".example/a?to=" + hidden + "&b"),
            "http://serv.example/a?to=serv&b");
  EXPECT_EQ(sys::loggedUrl("Quillon", hidden + hidden + "/" + hidden), "servserv/serv");
}

TEST(LoggedUrl, partOfTheHiddenTextIsNotReplaced) {
  const std::string hidden = hiddenText();
  const std::string url = "http://" + hidden.substr(0, 15) + "/" + hidden.substr(1) + "/";

  EXPECT_EQ(sys::loggedUrl("Quillon", url), url);
  EXPECT_EQ(sys::loggedUrl("Quillon", hidden.substr(0, 8) + hidden), hidden.substr(0, 8) + "serv");
}

TEST(LoggedUrl, urlWithoutTheHiddenTextIsLoggedUnchanged) {
  EXPECT_EQ(sys::loggedUrl("Quillon", "http://host/path"), "http://host/path");
  EXPECT_EQ(sys::loggedUrl("Quillon", ""), "");
}

TEST(LoggedUrl, everyOtherSettingsNameLeavesTheUrlUnchanged) {
  const std::string url = "http://" + hiddenText() + "/";
  for (const char* name : {"", "quillon", "QUILLON", "Quillo", "Quillon ", " Quillon", "Quillon2"}) {
    EXPECT_EQ(sys::loggedUrl(name, url), url) << name;
  }
}

}  // namespace
