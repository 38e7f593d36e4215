// What the command line offers: one table, from which the parser, --help, the manual and the shells' completions are
// made.  What cannot go together is command_rules.h's.
//
// Threads: any; nothing here changes.
// Errors:  std::bad_alloc.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "options.h"

namespace xfer_get {

/// In the order in which they are shown.
enum class OptionGroup : std::uint8_t { Output, SeveralFiles, Speed, GivingUp, Trust, Request, Instead, Display };

/// What shells offer for an option's argument.
enum class ArgumentKind : std::uint8_t {
  Free,      ///< nothing
  File,      ///< names of files
  Folder,    ///< names of folders
  Choice,    ///< the row's choices
  Beginning  ///< the row's choices, which the user goes on from
};

/// Where an option has a meaning.
struct OptionScope {
  bool downloads = false;  ///< not with what --print and its kin do instead
  bool oneUrl = false;     ///< not with several URLs, or a list of them
  bool files = false;      ///< not with -o -
};

struct OptionRow {
  OptionGroup group = OptionGroup::Display;
  char letter = 0;              ///< 0: none
  std::string_view name{};      ///< without the dashes
  std::string_view alias{};     ///< a second name; empty: none
  std::string_view argument{};  ///< its name; empty: the option is a flag
  std::string_view words{};     ///< what it does, for --help and shells; has no full stop
  std::string_view more{};      ///< whole sentences that only the manual has
  ArgumentKind kind = ArgumentKind::Free;
  std::string_view choices{};  ///< separated by blanks
  bool repeats = false;        ///< may be given several times
  OptionScope scope{};

  /// Sets what the option means, from its argument (a flag's is empty), once for each time it is given.  Returns what
  /// is wrong with the argument; empty: nothing.  Null: the parser answers by itself.
  std::string (*take)(Options& options, const std::string& argument) = nullptr;
};

/// Groups are together, in their order.
std::span<const OptionRow> optionRows();

/// "Output", ...
std::string_view titleOf(OptionGroup group);

struct Explained {
  std::string_view what;
  std::string_view words;   ///< no full stop
  std::string_view more{};  ///< whole sentences that the manual has instead; empty: it has the words
};

/// Exit codes.
std::span<const Explained> exitCodes();

/// Variables of the environment.
std::span<const Explained> environmentVariables();

/// Command lines and what they do.
std::span<const Explained> commandExamples();

constexpr std::string_view kSynopsis = "[OPTION...] URL... [FILE]";
constexpr std::string_view kSummary = "download files over several connections each";
constexpr std::string_view kDescription =
    "Downloads files over several connections each, or prints what a server answers.  A URL begins with http:// or "
    "https://.  FILE names the file of a single URL; without it, files are named after their URLs.  Progress, messages "
    "and the log go to standard error.";

}  // namespace xfer_get
