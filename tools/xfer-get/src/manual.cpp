#include "manual.h"

#include <optional>
#include <string_view>

#include "command_table.h"
#include "xfer/version.h"

namespace xfer_get {
namespace {

// When the manual's own words last changed: the page must not depend on the day on which it is made.
constexpr std::string_view kDate = "2026-11-22";

constexpr std::string_view kOnPartialFiles =
    "A download that fails or is cancelled may leave a partial file, which has the size of the whole one.";

// Text that roff shows as it is, with hyphens that can be copied; lines begin with no letter that roff obeys.
std::string plain(std::string_view text) {
  std::string roff;
  for (const char letter : text) {
    if (letter == '\\') {
      roff += "\\e";
    } else if (letter == '-') {
      roff += "\\-";
    } else {
      if (roff.empty() && (letter == '.' || letter == '\'')) roff += "\\&";
      roff += letter;
    }
  }
  return roff;
}

std::string bold(std::string_view text) {
  return "\\fB" + plain(text) + "\\fR";
}

std::string italic(std::string_view text) {
  return "\\fI" + plain(text) + "\\fR";
}

// Sentences end at the ends of lines, where roff looks for them.
std::string sentences(std::string_view text) {
  std::string roff;
  while (!text.empty()) {
    const std::size_t end = text.find(".  ");
    roff += plain(text.substr(0, end == std::string_view::npos ? end : end + 1)) + '\n';
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 3);
  }
  return roff;
}

std::string headOf(const OptionRow& row) {
  std::string head;
  const auto add = [&](const std::string& name) {
    if (!head.empty()) head += ", ";
    head += bold(name);
    if (!row.argument.empty()) head += " " + italic(row.argument);
  };
  if (row.letter != 0) add(std::string("-") + row.letter);
  add("--" + std::string(row.name));
  if (!row.alias.empty()) add("--" + std::string(row.alias));
  return head;
}

std::string asSentence(std::string_view words) {
  std::string text(words);
  if (text.front() >= 'a' && text.front() <= 'z') text.front() = static_cast<char>(text.front() - 'a' + 'A');
  return text + ".";
}

std::string entry(const std::string& head, const std::string& body) {
  return ".TP\n" + head + "\n" + body;
}

std::string options() {
  std::string roff;
  std::optional<OptionGroup> group;
  for (const OptionRow& row : optionRows()) {
    if (group != row.group) roff += ".SS " + plain(titleOf(row.group)) + "\n";
    group = row.group;
    roff += entry(headOf(row), sentences(asSentence(row.words)) + sentences(row.more));
  }
  return roff;
}

std::string list(std::span<const Explained> all) {
  std::string roff;
  for (const Explained& one : all) {
    roff += entry(bold(one.what), sentences(one.more.empty() ? asSentence(one.words) : std::string(one.more)));
  }
  return roff;
}

std::string examples() {
  std::string roff;
  for (const Explained& one : commandExamples()) {
    if (!roff.empty()) roff += ".PP\n";
    roff += sentences(one.words) + ".PP\n.RS 4\n.nf\n" + plain(one.what) + "\n.fi\n.RE\n";
  }
  return roff;
}

}  // namespace

std::string manualPage() {
  return ".TH XFER\\-GET 1 " + std::string(kDate) + " \"xfer " XFER_VERSION_TEXT "\" \"User Commands\"\n" +
         ".SH NAME\nxfer\\-get \\- " + plain(kSummary) + "\n" + ".SH SYNOPSIS\n" + bold("xfer-get") + " [" +
         italic("OPTION") + "...] " + italic("URL") + "... [" + italic("FILE") + "]\n" + ".SH DESCRIPTION\n" +
         sentences(kDescription) + ".PP\n" + sentences(kOnPartialFiles) + ".SH OPTIONS\n" + options() +
         ".SH \"EXIT STATUS\"\n" + list(exitCodes()) + ".SH ENVIRONMENT\n" + list(environmentVariables()) +
         ".SH EXAMPLES\n" + examples();
}

}  // namespace xfer_get
