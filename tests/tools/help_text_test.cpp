#include "help_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "command_table.h"
#include "options.h"

namespace {

std::vector<std::string> helpLines() {
  std::vector<std::string> lines;
  std::istringstream text(xfer_get::helpText());
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

// The text with single blanks, as it is before it is put into lines.
std::string helpInOneLine() {
  std::istringstream words(xfer_get::helpText());
  std::string text;
  for (std::string word; words >> word;) text += word + " ";
  return text;
}

TEST(HelpText, fitsInto80ColumnsAndUsesThem) {
  std::size_t widest = 0;
  for (const std::string& line : helpLines()) {
    EXPECT_LE(line.size(), 80U) << line;
    EXPECT_TRUE(line.empty() || line.back() != ' ') << line;
    widest = std::max(widest, line.size());
  }
  EXPECT_GT(widest, 75U);
}

TEST(HelpText, hasEveryOptionInItsGroup) {
  const std::vector<std::string> lines = helpLines();
  auto at = lines.begin();
  for (const xfer_get::OptionRow& row : xfer_get::optionRows()) {
    const std::string title = std::string(titleOf(row.group)) + ":";
    const std::string start = (row.letter != 0 ? std::string("  -") + row.letter + ", --" : std::string("      --")) +
                              std::string(row.name) + (row.argument.empty() ? "" : " " + std::string(row.argument)) +
                              " ";
    const auto line = std::find_if(at, lines.end(), [&](const std::string& one) { return one.starts_with(start); });
    ASSERT_NE(line, lines.end()) << start;
    const auto last = std::find_if(std::make_reverse_iterator(line), lines.rend(),
                                   [](const std::string& one) { return !one.starts_with(" "); });
    ASSERT_NE(last, lines.rend());
    EXPECT_EQ(*last, title) << start;
    at = line;
  }
}

TEST(HelpText, tellsTheDefaultsThatCount) {
  const xfer_get::Options options;
  const std::string help = helpInOneLine();
  EXPECT_NE(help.find("downloads at once, 1 to 64 (default: " + std::to_string(options.jobs) + ")"), std::string::npos);
  EXPECT_NE(help.find("connections a download, 1 to 256 (default: " + std::to_string(options.connections) + ")"),
            std::string::npos);
  EXPECT_EQ(options.plan, xfer::DownloadPlan::Adaptive);
  EXPECT_NE(help.find("to fast ones (default); stated"), std::string::npos);
}

TEST(HelpText, namesEveryExitCodeAndVariable) {
  const std::string help = helpInOneLine();
  for (const char* text : {"0 done", "1 internal", "2 usage", "3 file", "4 network", "5 HTTP status", "6 certificate",
                           "7 checksum differs", "129, 130 and 143 ended by a signal", "http_proxy", "NO_COLOR"}) {
    EXPECT_NE(help.find(text), std::string::npos) << text;
  }
}

// Of the words that they say in a few columns, or to a shell in quotes.
TEST(CommandTable, hasWordsThatAllItsReadersCanTake) {
  for (const xfer_get::OptionRow& row : xfer_get::optionRows()) {
    for (const std::string_view text : {row.words, row.more, row.argument, row.choices}) {
      EXPECT_EQ(text.find_first_of("\\\n\t$`"), std::string_view::npos) << row.name;
    }
    EXPECT_FALSE(row.words.empty() || row.words.ends_with(".")) << row.name;
    EXPECT_TRUE(row.more.empty() || row.more.ends_with(".")) << row.name;
    EXPECT_EQ(row.argument.empty(), row.kind == xfer_get::ArgumentKind::Free && row.argument.empty()) << row.name;
  }
}

}  // namespace
