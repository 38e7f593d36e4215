#include "live_lines.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "paint.h"

namespace {

using xfer_get::Colour;
using xfer_get::LiveLines;
using xfer_get::paint;

using Lines = std::vector<std::string>;

// What a terminal of so many rows and columns shows.  Knows what LiveLines may write and nothing else; a line feed only
// goes down.  One kind wraps its lines anew when its size changes, the other one cuts them off.
class Screen {
 public:
  Screen(std::size_t columns, std::size_t rows, bool wrapsAnew = true)
      : columns_(columns), height_(rows), wrapsAnew_(wrapsAnew), rows_(1) {}

  void write(std::string_view text) {
    while (!text.empty()) {
      if (text[0] == '\x1b') {
        escape(&text);
      } else if (text[0] == '\r') {
        column_ = 0;
        text.remove_prefix(1);
      } else if (text[0] == '\n') {
        down(/*wrapped=*/false);
        text.remove_prefix(1);
      } else {
        put(&text);
      }
    }
  }

  void resize(std::size_t columns, std::size_t rows) {
    if (wrapsAnew_) {
      wrapAnew(columns);
    } else {
      for (Row& row : rows_) row.cells.resize(std::min(row.cells.size(), columns));
    }
    columns_ = columns;
    height_ = rows;
    column_ = std::min(column_, columns_ - 1);
    while (rows_.size() > row_ + 1 && isBlank(rows_.back())) rows_.pop_back();
    scroll();
    rows_.resize(std::min(rows_.size(), top_ + height_));  // rows below the screen are lost
  }

  // All lines above the cursor's, those that were scrolled away included; a line that was wrapped is one.
  [[nodiscard]] Lines above() const { return linesIn(0, row_); }
  // Those from the cursor's on, without empty ones at the end.
  [[nodiscard]] Lines below() const {
    Lines lines = linesIn(row_, rows_.size());
    while (!lines.empty() && lines.back().empty()) lines.pop_back();
    return lines;
  }
  [[nodiscard]] bool atBeginOfLine() const { return column_ == 0 && (row_ == 0 || !rows_[row_ - 1].wrapped); }
  [[nodiscard]] bool isAsBefore() const { return wraps_ && !coloured_; }

 private:
  struct Row {
    Lines cells;           // the second one of a wide character is empty
    bool wrapped = false;  // the line goes on in the next row
  };

  static bool isBlank(const Row& row) { return textOf(row).empty(); }

  static std::string textOf(const Row& row) {
    std::string text;
    for (const std::string& cell : row.cells) text += cell;
    if (!row.wrapped) text.erase(text.find_last_not_of(' ') + 1);
    return text;
  }

  [[nodiscard]] Lines linesIn(std::size_t from, std::size_t to) const {
    Lines lines;
    bool goesOn = false;
    for (std::size_t i = from; i < to; ++i) {
      if (!goesOn) lines.emplace_back();
      lines.back() += textOf(rows_[i]);
      goesOn = rows_[i].wrapped;
    }
    return lines;
  }

  void scroll() {
    const std::size_t end = std::max(rows_.size(), row_ + 1);
    top_ = std::min(row_, end - std::min(end, height_));
  }

  void down(bool wrapped) {
    rows_[row_].wrapped = wrapped;
    if (++row_ == rows_.size()) rows_.emplace_back();
    top_ = std::max(top_, row_ + 1 - std::min(row_ + 1, height_));
  }

  void put(std::string_view* text) {
    const auto lead = static_cast<unsigned char>(text->front());
    const std::size_t bytes = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    const std::string character(text->substr(0, bytes));
    text->remove_prefix(bytes);
    if (character == "\u0301") {
      ASSERT_GT(column_, 0U);
      rows_[row_].cells[column_ - 1] += character;
      return;
    }
    ASSERT_GE(lead, 0x20) << "a control character";
    const std::size_t cells = bytes > 2 ? 2 : 1;
    if (column_ + cells > columns_ && !wraps_) {
      column_ = columns_ - cells;
    } else if (column_ + cells > columns_) {
      down(/*wrapped=*/true);
      column_ = 0;
    }
    Lines& row = rows_[row_].cells;
    row.resize(std::max(row.size(), column_ + cells), " ");
    row[column_] = character;
    if (cells == 2) row[column_ + 1].clear();
    column_ += cells;
  }

  void escape(std::string_view* text) {
    for (const bool on : {false, true}) {
      const std::string_view wrap = on ? "\x1b[?7h" : "\x1b[?7l";
      if (text->substr(0, wrap.size()) != wrap) continue;
      wraps_ = on;
      text->remove_prefix(wrap.size());
      return;
    }
    ASSERT_EQ(text->substr(0, 2), "\x1b[");
    const std::size_t end = text->find_first_not_of("0123456789", 2);
    ASSERT_LT(end, text->size());
    const std::size_t number = std::strtoul(std::string(text->substr(2, end - 2)).c_str(), nullptr, 10);
    const char order = (*text)[end];
    text->remove_prefix(end + 1);
    if (order == 'A') {
      ASSERT_GT(number, 0U);
      row_ -= std::min(number, row_ - top_);
    } else if (order == 'K' || order == 'J') {
      rows_[row_].cells.resize(std::min(rows_[row_].cells.size(), column_));
      rows_[row_].wrapped = false;
      if (order == 'J') rows_.resize(row_ + 1);
    } else {
      ASSERT_EQ(order, 'm') << "not an order of this screen";
      coloured_ = number != 0;
    }
  }

  void wrapAnew(std::size_t columns) {
    std::vector<Row> rows;
    std::size_t row = 0;
    std::size_t column = 0;
    bool goesOn = false;
    for (std::size_t i = 0; i < rows_.size(); ++i) {
      if (!goesOn) rows.emplace_back();
      Lines cells = rows_[i].cells;
      while (!rows_[i].wrapped && !cells.empty() && cells.back() == " ") cells.pop_back();
      for (std::size_t cell = 0; cell <= cells.size(); ++cell) {
        if (i == row_ && cell == column_) {
          row = rows.size() - 1;
          column = rows.back().cells.size();
        }
        if (cell == cells.size()) break;
        const bool wide = cell + 1 < cells.size() && cells[cell + 1].empty();
        if (rows.back().cells.size() + (wide ? 2 : 1) > columns && !cells[cell].empty()) {
          rows.back().wrapped = true;
          rows.emplace_back();
          if (i == row_ && cell == column_) {
            ++row;
            column = 0;
          }
        }
        rows.back().cells.push_back(cells[cell]);
      }
      goesOn = rows_[i].wrapped;
    }
    rows_ = rows;
    row_ = row;
    column_ = column;
  }

  std::size_t columns_;
  std::size_t height_;
  bool wrapsAnew_;
  std::vector<Row> rows_;  // from the first one that was ever written on
  std::size_t top_ = 0;    // the screen's first one
  std::size_t row_ = 0;
  std::size_t column_ = 0;
  bool coloured_ = false;
  bool wraps_ = true;
};

TEST(LiveLines, areShownFromTheCursorOn) {
  Screen screen(20, 10);
  LiveLines live;
  screen.write(live.draw({"one", "two", "three"}, 19, 10));
  EXPECT_EQ(screen.below(), (Lines{"one", "two", "three"}));
  EXPECT_EQ(screen.above(), Lines());
  EXPECT_TRUE(screen.atBeginOfLine());
}

TEST(LiveLines, replaceThoseBefore) {
  Screen screen(20, 10);
  LiveLines live;
  screen.write(live.draw({"a longer line", "two", "three"}, 19, 10));
  screen.write(live.draw({"one", "a longer line"}, 19, 10));
  EXPECT_EQ(screen.below(), (Lines{"one", "a longer line"}));
  screen.write(live.draw({"1"}, 19, 10));
  EXPECT_EQ(screen.below(), (Lines{"1"}));
  screen.write(live.draw({}, 19, 10));
  EXPECT_EQ(screen.below(), Lines());
}

TEST(LiveLines, staySoWhereTheScreenScrolls) {
  Screen screen(20, 3);
  LiveLines live;
  screen.write("first\r\nsecond\r\n");
  for (int i = 0; i < 3; ++i) screen.write(live.draw({"one", "two", "three"}, 19, 3));
  EXPECT_EQ(screen.below(), (Lines{"one", "two", "three"}));
  EXPECT_EQ(screen.above(), (Lines{"first", "second"}));
}

TEST(LiveLines, thatHaveNoRoomAreLeftOutOrCut) {
  Screen screen(10, 2);
  LiveLines live;
  for (int i = 0; i < 3; ++i) screen.write(live.draw({"one and more", "two", "three"}, 9, 2));
  EXPECT_EQ(screen.below(), (Lines{"one and m", "two"}));
  EXPECT_EQ(screen.above(), Lines());
}

TEST(LiveLines, lastingTextStandsAboveThem) {
  Screen screen(10, 4);
  LiveLines live;
  screen.write(live.above("before any"));
  screen.write(live.draw({"one", "two"}, 9, 4));
  screen.write(live.above("a text that wraps around"));
  screen.write(live.above("two\nlines\n"));
  screen.write(live.above(""));
  EXPECT_EQ(screen.below(), (Lines{"one", "two"}));
  EXPECT_EQ(screen.above(), (Lines{"before any", "a text that wraps around", "two", "lines", ""}));
  screen.write(live.clear());
  EXPECT_EQ(screen.below(), Lines());
  EXPECT_TRUE(screen.atBeginOfLine());
}

TEST(LiveLines, whatOthersWriteReplacesTheFirstOne) {
  Screen screen(20, 10);
  LiveLines live;
  screen.write(live.draw({"one", "two"}, 19, 10));
  screen.write("oops\r\n");
  screen.write(live.draw({"one", "two"}, 19, 10));
  EXPECT_EQ(screen.above(), (Lines{"oops"}));
  EXPECT_EQ(screen.below(), (Lines{"one", "two"}));
}

TEST(LiveLines, keepTheirColoursAndNoOtherEscape) {
  Screen screen(20, 10);
  LiveLines live;
  const std::string painted = "[" + paint("####", Colour::Green, true) + "..]";
  EXPECT_NE(live.draw({painted}, 19, 10).find(painted), std::string::npos);
  screen.write(live.draw({painted, "\x1b[2J\n\r\x1b[9A"}, 19, 10));
  EXPECT_EQ(screen.below(), (Lines{"[####..]", "?[2J???[9A"}));
  screen.write(live.above("\x1b[2J\r" + paint("failed", Colour::Red, true)));
  EXPECT_EQ(screen.above(), (Lines{"?[2J?failed"}));
  screen.write(live.draw({painted}, 3, 10));
  EXPECT_EQ(screen.below(), (Lines{"[##"}));
  EXPECT_TRUE(screen.isAsBefore());
}

TEST(LiveLines, nothingIsWrittenWhenThereIsNothingToClear) {
  LiveLines live;
  EXPECT_EQ(live.clear(), "");
  EXPECT_NE(live.draw({"one"}, 19, 10), "");
  EXPECT_NE(live.clear(), "");
  EXPECT_EQ(live.clear(), "");
}

TEST(LiveLines, areOneThatIsDrawnOverWhereTheCursorCannotMoveUp) {
  Screen screen(20, 10);
  LiveLines live;
  std::string written;
  const auto write = [&](const std::string& text) {
    written += text;
    screen.write(text);
  };
  write(live.draw({"a longer line", "not shown"}, 19, 0));
  EXPECT_EQ(screen.below(), (Lines{"a longer line"}));
  write(live.draw({"短い"}, 19, 0));
  EXPECT_EQ(screen.below(), (Lines{"短い"}));
  write(live.draw({"a longer line"}, 19, 0));
  const std::string lasting = live.above("lasts\nso");
  EXPECT_EQ(lasting.substr(0, lasting.find('a', 9)), "\rlasts        \n\rso\n\r\r") << "only one line is in the way";
  write(lasting);
  EXPECT_EQ(screen.above(), (Lines{"lasts", "so"}));
  EXPECT_EQ(screen.below(), (Lines{"a longer line"}));
  EXPECT_TRUE(screen.atBeginOfLine());
  write(live.draw({"a longer line"}, 5, 0));
  write(live.draw({}, 19, 0));
  write(live.draw({"one"}, 19, 0));
  write(live.clear());
  EXPECT_EQ(written.find('\x1b'), std::string::npos) << written;
  EXPECT_EQ(screen.above(), (Lines{"lasts", "so"}));
}

// Programs learn of a new size late when another one, or a network, is between them and the terminal.
TEST(LiveLines, areAllThatIsShownOnceTheProgramKnowsThatTheTerminalIsNarrower) {
  for (const bool wrapsAnew : {false, true}) {
    LiveLines live;
    Screen screen(20, 10, wrapsAnew);
    const Lines lines = {"a longer line", "one that is longer", "two"};
    screen.write(live.draw(lines, 19, 10));
    screen.resize(8, 10);
    screen.write(live.draw(lines, 19, 10));
    screen.write(live.above("lasts"));
    screen.write(live.draw(lines, 19, 10));
    screen.write(live.draw({"a line", "one", "two"}, 7, 10));
    EXPECT_EQ(screen.above(), (Lines{"lasts"}));
    EXPECT_EQ(screen.below(), (Lines{"a line", "one", "two"}));
  }
}

// What a wider line has left in the last column stays.
TEST(LiveLines, doNotWrapWhereTheCursorCannotMoveUpAndTheTerminalIsNarrowerNow) {
  LiveLines live;
  Screen screen(20, 10, /*wrapsAnew=*/false);
  screen.write(live.draw({"a longer line"}, 19, 0));
  screen.resize(8, 10);
  screen.write(live.draw({"one"}, 7, 0));
  EXPECT_EQ(screen.above(), Lines());
  EXPECT_EQ(screen.below(), (Lines{"one    r"}));
  screen.write(live.draw({"another"}, 7, 0));
  EXPECT_EQ(screen.below(), (Lines{"anotherr"}));
}

// Any number of lines of any width, after another, on terminals of any size.
class LiveLinesDrawnAtRandom : public testing::Test {
 protected:
  [[nodiscard]] std::size_t upTo(std::size_t most) {
    return std::uniform_int_distribution<std::size_t>(0, most)(random_);
  }

  std::string line(std::size_t cells) {
    std::string text;
    while (cells > 0) {
      const std::size_t kind = upTo(9);
      if (kind == 0 && cells >= 2) {
        text += "資";
        cells -= 2;
        continue;
      }
      text += kind == 1 ? "e\u0301" : std::string(1, static_cast<char>('a' + upTo(25)));
      --cells;
    }
    return text;
  }

  void drawOnTerminals(bool resizes) {
    for (int terminal = 0; terminal < 100; ++terminal) {
      const bool wrapsAnew = upTo(1) == 0;
      std::size_t columns = 3 + upTo(30);
      std::size_t rows = 1 + upTo(8);
      Screen screen(columns, rows, wrapsAnew);
      LiveLines live;
      Lines lasting;
      for (int drawing = 0; drawing < 30; ++drawing) {
        const std::string where = "seed " + std::to_string(seed_) + ", terminal " + std::to_string(terminal) +
                                  (wrapsAnew ? " (wraps anew)" : "") + ", drawing " + std::to_string(drawing);
        if (resizes && upTo(3) == 0) {
          columns = 3 + upTo(30);
          rows = 1 + upTo(8);
          screen.resize(columns, rows);
        }
        Lines lines;
        for (std::size_t i = upTo(rows); i > 0; --i) lines.push_back("=" + line(upTo(columns - 2)));
        Lines painted = lines;
        if (!painted.empty()) painted[0] = paint(painted[0], Colour::Green, upTo(1) == 0);
        screen.write(live.draw(painted, static_cast<unsigned>(columns - 1), static_cast<unsigned>(rows)));
        if (upTo(3) == 0) {
          // A terminal that cuts lines off may cut off what lasts.
          lasting.push_back(line(upTo(wrapsAnew || !resizes ? 80 : 2)));
          screen.write(live.above(lasting.back()));
        }
        ASSERT_EQ(screen.below(), lines) << where;
        ASSERT_EQ(screen.above(), lasting) << where;
        ASSERT_TRUE(screen.atBeginOfLine()) << where;
        ASSERT_TRUE(screen.isAsBefore()) << where;
      }
    }
  }

  const unsigned seed_ = std::random_device()();
  std::mt19937 random_{seed_};
};

TEST_F(LiveLinesDrawnAtRandom, areAllThatIsShown) {
  drawOnTerminals(/*resizes=*/false);
}

TEST_F(LiveLinesDrawnAtRandom, areAllThatIsShownOnATerminalWhoseSizeChanges) {
  drawOnTerminals(/*resizes=*/true);
}

}  // namespace
