#include "text_width.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

namespace {

using xfer_get::cellsOf;
using xfer_get::cutMiddle;
using xfer_get::cutTo;
using xfer_get::plainText;

TEST(PlainText, keepsTextOfAllScripts) {
  for (const char* const text :
       {"", "file.iso", "Müller & Söhne.txt", "資料 2024.pdf", "e\u0301", "файл", "👍🏽", "مل\u200Cف"}) {
    EXPECT_EQ(plainText(text), text);
  }
}

TEST(PlainText, controlCharactersCannotReachATerminal) {
  EXPECT_EQ(plainText("a\x1b[2Jb"), "a?[2Jb");
  for (unsigned c = 0; c < 0x20; ++c) EXPECT_EQ(plainText(std::string(1, static_cast<char>(c))), "?") << c;
  EXPECT_EQ(plainText("\x7F"), "?");
  for (unsigned c = 0x80; c < 0xA0; ++c) {
    EXPECT_EQ(plainText(std::string("\xC2") + static_cast<char>(c)), "?") << "as UTF-8: " << c;
    EXPECT_EQ(plainText(std::string(1, static_cast<char>(c))), "?") << "as a byte: " << c;
  }
  EXPECT_EQ(plainText("\u00A0"), "\u00A0") << "the first one behind them";
}

TEST(PlainText, directionOfWritingCannotBeOverridden) {
  for (const char* const text :
       {"\u202A", "\u202B", "\u202C", "\u202D", "\u202E", "\u2066", "\u2067", "\u2068", "\u2069", "\u2028", "\u2029"}) {
    EXPECT_EQ(plainText("a" + std::string(text) + "b"), "a?b");
  }
  EXPECT_EQ(plainText("\u2027\u202F\u206A"), "\u2027\u202F\u206A") << "their neighbours";
}

TEST(PlainText, hasAMarkForEachInvalidPiece) {
  EXPECT_EQ(plainText("a\xFFz"), "a?z");
  EXPECT_EQ(plainText("a\xE2\x82z"), "a?z");
  EXPECT_EQ(plainText("\xC0\x9B[2J"), "??[2J") << "no overlong escape";
}

TEST(CellsOf, countsWideCharactersTwiceAndMarksNot) {
  EXPECT_EQ(cellsOf(""), 0U);
  EXPECT_EQ(cellsOf("file.iso"), 8U);
  EXPECT_EQ(cellsOf("Müller"), 6U);
  EXPECT_EQ(cellsOf("Mu\u0308ller"), 6U);
  EXPECT_EQ(cellsOf("資料"), 4U);
  EXPECT_EQ(cellsOf("ｆｕｌｌ"), 8U);
  EXPECT_EQ(cellsOf("ｶﾞ"), 2U) << "half-width";
  EXPECT_EQ(cellsOf("\u1112\u1161\u11AB"), 2U) << "Hangul in its parts";
  EXPECT_EQ(cellsOf("か\u3099"), 2U);
  EXPECT_EQ(cellsOf("👍"), 2U);
  EXPECT_EQ(cellsOf("𠀀"), 2U);
  EXPECT_EQ(cellsOf("\xFF\x1b"), 2U) << "a mark for each";
}

TEST(CellsOf, characterThatIsAskedForAsAnEmojiMayBeWide) {
  EXPECT_EQ(cellsOf("☁"), 1U);
  EXPECT_EQ(cellsOf("☁\uFE0F"), 2U);
  EXPECT_EQ(cellsOf("👍\uFE0F"), 2U);
}

TEST(CellsOf, countsMarksThatFollowNothing) {
  EXPECT_EQ(cellsOf("\u0301"), 0U);
  EXPECT_EQ(cellsOf("\u0301a"), 1U);
}

TEST(CutTo, keepsTheBeginning) {
  EXPECT_EQ(cutTo("abcdef", 6), "abcdef");
  EXPECT_EQ(cutTo("abcdef", 5), "abcde");
  EXPECT_EQ(cutTo("abcdef", 0), "");
  EXPECT_EQ(cutTo("a\x1b"
                  "c",
                  2),
            "a?");
}

TEST(CutTo, cutsNoCharacterApart) {
  EXPECT_EQ(cutTo("資料", 3), "資");
  EXPECT_EQ(cutTo("資a", 1), "") << "what follows is not pulled up";
  EXPECT_EQ(cutTo("e\u0301e\u0301", 1), "e\u0301");
  EXPECT_EQ(cutTo("☁\uFE0F", 1), "");
}

TEST(CutMiddle, keepsBothEnds) {
  EXPECT_EQ(cutMiddle("abcdefghij", 10), "abcdefghij");
  EXPECT_EQ(cutMiddle("abcdefghij", 9), "abc...hij");
  EXPECT_EQ(cutMiddle("abcdefghij", 8), "abc...ij");
  EXPECT_EQ(cutMiddle("abcdefghij", 5), "a...j");
  EXPECT_EQ(cutMiddle("abcdefghij", 4), "abcd") << "no room for both";
  EXPECT_EQ(cutMiddle("abcdefghij", 0), "");
  EXPECT_EQ(cutMiddle("資料資料資料", 9), "資...料");
  EXPECT_EQ(cutMiddle("abcdefghe\u0301", 5), "a...e\u0301");
  EXPECT_EQ(cutMiddle("\x1b"
                      "bcdefghi\x07",
                      5),
            "?...?");
}

TEST(CutTexts, areNeverWiderThanAsked) {
  constexpr std::string_view kText = "資a料\u0301b\x1b👍c\xFF☁\uFE0Fd\u202E…";
  for (std::size_t cells = 0; cells <= cellsOf(kText); ++cells) {
    EXPECT_LE(cellsOf(cutTo(kText, cells)), cells);
    EXPECT_LE(cellsOf(cutMiddle(kText, cells)), cells);
    EXPECT_GE(cellsOf(cutTo(kText, cells)) + 1, cells) << "but for half of a wide character";
    EXPECT_GE(cellsOf(cutMiddle(kText, cells)) + 2, cells);
  }
}

}  // namespace
