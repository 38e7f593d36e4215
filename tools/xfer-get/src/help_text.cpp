#include "help_text.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include "command_table.h"

namespace xfer_get {
namespace {

constexpr std::size_t kWidth = 80;
constexpr std::size_t kWordsColumn = 33;

// Text in lines that begin at a column, behind what is in the first line already.
std::string wrapped(std::string_view text, std::size_t column, std::string_view before) {
  std::string lines;
  std::string line(before);
  bool first = true;
  while (!text.empty()) {
    const std::string_view word = text.substr(0, text.find(' '));
    text.remove_prefix(std::min(text.size(), word.size() + 1));
    if (word.empty()) continue;  // sentences are separated by two blanks
    if (!first && line.size() + 1 + word.size() > kWidth) {
      lines += line + '\n';
      line.clear();
      first = true;
    }
    line.resize(std::max(line.size() + (first ? 0 : 1), column), ' ');
    line += word;
    first = false;
  }
  return lines + line + '\n';
}

std::string lineOf(const OptionRow& row) {
  std::string line = row.letter != 0 ? std::string("  -") + row.letter + ", " : std::string("      ");
  line += "--" + std::string(row.name);
  if (!row.argument.empty()) line += ' ' + std::string(row.argument);
  std::string words(row.words);
  if (!row.alias.empty()) words += "; also --" + std::string(row.alias);
  return wrapped(words, kWordsColumn, line);
}

std::string codesInOneLine() {
  std::string text;
  for (const Explained& code : exitCodes()) {
    text += (text.empty() ? "" : ", ") + std::string(code.what) + " " + std::string(code.words);
  }
  return text;
}

}  // namespace

std::string helpText() {
  std::string text = "Usage: xfer-get " + std::string(kSynopsis) + "\n\n";
  text += wrapped(kDescription, 0, "");
  std::optional<OptionGroup> group;
  for (const OptionRow& row : optionRows()) {
    if (group != row.group) text += "\n" + std::string(titleOf(row.group)) + ":\n";
    group = row.group;
    text += lineOf(row);
  }
  text += "\nEnvironment:\n";
  for (const Explained& variable : environmentVariables()) {
    text += wrapped(variable.words, kWordsColumn, "  " + std::string(variable.what));
  }
  text += "\nExit status:\n" + wrapped(codesInOneLine(), 2, "");
  return text;
}

}  // namespace xfer_get
