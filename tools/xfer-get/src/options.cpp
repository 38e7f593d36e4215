#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string_view>
#include <utility>

#include "command_rules.h"
#include "command_table.h"
#include "help_text.h"
#include "near_name.h"
#include "outcome.h"
#include "url.h"
#include "xfer/version.h"

namespace xfer_get {
namespace {

using Words = std::vector<std::string>;

// What the arguments are, before they mean anything.
struct Sorted {
  std::vector<Words> values;  // of each row of the table: the argument, or an empty text, for each time it is given
  Words unknownOptions;
  Words others;
};

[[noreturn]] void refuse(const std::string& why) {
  throw CLI::ParseError(why, kUsage);
}

std::string namesForParser(const OptionRow& row) {
  std::string names = row.letter != 0 ? std::string("-") + row.letter + "," : std::string();
  names += "--" + std::string(row.name);
  if (!row.alias.empty()) names += ",--" + std::string(row.alias);
  return names;
}

// What the parser leaves over: behind "--" everything is an argument.
void sortOthers(const Words& left, Sorted& sorted) {
  bool options = true;
  for (const std::string& word : left) {
    const bool number = word.size() > 1 && std::isdigit(static_cast<unsigned char>(word[1])) != 0;
    if (options && word == "--") {
      options = false;
    } else if (options && word.size() > 1 && word.front() == '-' && !number) {
      sorted.unknownOptions.push_back(word);
    } else {
      sorted.others.push_back(word);
    }
  }
}

// Of a missing argument, and of one too many, the parser's words name the option and say little.
std::string inOurWords(const std::string& parsers) {
  for (const OptionRow& row : optionRows()) {
    const std::string name(row.name);
    if (!row.argument.empty() && parsers.starts_with("--" + name + ":")) {
      return "--" + name + ": " + std::string(row.argument) + " is missing";
    }
    if (row.argument.empty() && parsers.starts_with(name + " ")) return "--" + name + ": takes no argument";
  }
  return parsers;
}

// The parser takes the next word for the argument of "--name=".  This one stands for an empty text: no argument of a
// program has it.
constexpr char kEmpty = '\0';

void markEmpty(Words& words) {
  for (std::string& word : words) {
    if (word.starts_with("--") && word.ends_with('=')) word += kEmpty;
  }
}

Words unmarked(Words words) {
  for (std::string& word : words) {
    if (word.ends_with(kEmpty)) word.pop_back();
  }
  return words;
}

// Values are taken as they were written: the parser's own conversions see lists in "[a,b]" and "{}".
Sorted sort(Words arguments) {
  CLI::App app;
  app.set_help_flag();
  app.allow_extras();
  app.allow_windows_style_options(false);
  std::vector<CLI::Option*> options;
  for (const OptionRow& row : optionRows()) {
    const bool flag = row.argument.empty();
    CLI::Option* const option = flag ? app.add_flag(namesForParser(row))->disable_flag_override()
                                     : app.add_option(namesForParser(row))->expected(1);
    options.push_back(option->multi_option_policy(CLI::MultiOptionPolicy::TakeAll));
  }
  markEmpty(arguments);
  std::reverse(arguments.begin(), arguments.end());  // the parser expects reverse order
  try {
    app.parse(std::move(arguments));
  } catch (const CLI::ArgumentMismatch& error) {
    refuse(inOurWords(error.what()));
  }
  Sorted sorted;
  for (std::size_t i = 0; i < options.size(); ++i) {
    const bool flag = optionRows()[i].argument.empty();
    sorted.values.push_back(flag ? Words(options[i]->count()) : unmarked(options[i]->results()));
  }
  sortOthers(unmarked(app.remaining()), sorted);
  return sorted;
}

[[noreturn]] void refuseUnknown(const std::string& word) {
  const std::string name = word.substr(0, word.find('='));
  std::vector<std::string_view> known;
  for (const OptionRow& row : optionRows()) {
    known.push_back(row.name);
    if (!row.alias.empty()) known.push_back(row.alias);
  }
  const std::string_view near = name.starts_with("--") ? nearName(name.substr(2), known) : std::string_view();
  refuse(name + ": there is no such option" + (near.empty() ? "" : "; did you mean --" + std::string(near) + "?"));
}

[[noreturn]] void refuseValue(const OptionRow& row, const std::string& why) {
  refuse("--" + std::string(row.name) + ": " + why);
}

void takeValues(const Sorted& sorted, Options& options, CommandLine& line) {
  for (std::size_t i = 0; i < sorted.values.size(); ++i) {
    const OptionRow& row = optionRows()[i];
    const Words& values = sorted.values[i];
    if (values.empty()) continue;
    if (values.size() > 1 && !row.argument.empty() && !row.repeats) refuseValue(row, "given more than once");
    for (const std::string& value : values) {
      if (const std::string wrong = row.take(options, value); !wrong.empty()) refuseValue(row, wrong);
    }
    line.given.insert(row.name);
  }
}

// One argument that is no URL is FILE, unless it looks like a URL of another kind.
void takeOthers(const Sorted& sorted, Options& options, CommandLine& line) {
  Words names;
  for (const std::string& word : sorted.others) (isHttpUrl(word) ? options.urls : names).push_back(word);
  const auto isForeign = [](const std::string& word) { return word.find("://") != std::string::npos; };
  const auto foreign = std::find_if(names.begin(), names.end(), isForeign);
  if (foreign != names.end()) refuse("not an http or https URL: " + *foreign);
  if (names.size() > 1 || (!names.empty() && options.urls.empty())) {
    refuse("not an http or https URL: " + names[options.urls.size() == 1 ? 1 : 0]);
  }
  if (names.empty()) return;
  if (names.front().empty()) refuse("FILE is empty: leave it out to use the URL's name");
  line.given.insert(kFileArgument);
  options.file = names.front();
}

bool asked(const Sorted& sorted, std::string_view name) {
  for (std::size_t i = 0; i < sorted.values.size(); ++i) {
    if (optionRows()[i].name == name) return !sorted.values[i].empty();
  }
  return false;
}

std::optional<Options> understand(const Sorted& sorted) {
  if (asked(sorted, "help")) {
    std::fputs(helpText().c_str(), stdout);
    return std::nullopt;
  }
  if (asked(sorted, "version")) {
    std::fputs("xfer-get " XFER_VERSION_TEXT "\n", stdout);
    return std::nullopt;
  }
  Options options;
  CommandLine line{options, {}};
  if (!sorted.unknownOptions.empty()) refuseUnknown(sorted.unknownOptions.front());
  takeValues(sorted, options, line);
  takeOthers(sorted, options, line);
  if (options.urls.empty() && options.list.empty()) refuse("name a URL");
  if (const std::string broken = brokenRule(line); !broken.empty()) refuse(broken);
  return options;
}

}  // namespace

std::optional<Options> parseOptions(std::vector<std::string> arguments, int* exitCode) {
  *exitCode = kDone;
  try {
    return understand(sort(std::move(arguments)));
  } catch (const CLI::ParseError& error) {
    std::fprintf(stderr, "xfer-get: %s\nRun xfer-get --help for more information.\n", error.what());
    *exitCode = kUsage;
    return std::nullopt;
  }
}

}  // namespace xfer_get
