#include "paint.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using xfer_get::cellsOfPainted;
using xfer_get::Colour;
using xfer_get::cutPainted;
using xfer_get::paint;

const std::string kText = "[" + paint("##", Colour::Green, true) + "..] " + paint("1 failed", Colour::Red, true);

TEST(Paint, isOnlyUsedWhenOn) {
  EXPECT_EQ(paint("ok", Colour::Green, true), "\x1b[32mok\x1b[0m");
  EXPECT_EQ(paint("no", Colour::Red, true), "\x1b[31mno\x1b[0m");
  EXPECT_EQ(paint("ok", Colour::Green, false), "ok");
  EXPECT_EQ(paint("", Colour::Green, true), "");
}

TEST(Paint, takesNoCells) {
  EXPECT_EQ(cellsOfPainted(kText), 15U);
  EXPECT_EQ(cellsOfPainted(paint("資", Colour::Red, true)), 2U);
  EXPECT_EQ(cellsOfPainted("a\x1b[2Kb"), 6U) << "of an escape that is no colour, its mark and its letters";
}

TEST(CutPainted, keepsTheColoursOfWhatItKeeps) {
  EXPECT_EQ(cutPainted(kText, 15), kText);
  EXPECT_EQ(cutPainted(kText, 8), "[\x1b[32m##\x1b[0m..] \x1b[31m1\x1b[0m");
  EXPECT_EQ(cutPainted(kText, 2), "[\x1b[32m#\x1b[0m");
}

TEST(CutPainted, neverLeavesAColourOn) {
  for (std::size_t cells = 0; cells <= 15; ++cells) {
    const std::string cut = cutPainted(kText, cells);
    EXPECT_EQ(cellsOfPainted(cut), cells);
    const std::size_t last = cut.rfind("\x1b[");
    if (last != std::string::npos) {
      EXPECT_EQ(cut.substr(last, 4), "\x1b[0m") << cells;
    }
  }
}

TEST(CutPainted, makesOtherEscapesHarmless) {
  EXPECT_EQ(cutPainted("a\x1b[2J\x1b[31mb\x1b[0m\x1b]0;t\x07", 40), "a?[2J\x1b[31mb\x1b[0m?]0;t?");
}

}  // namespace
