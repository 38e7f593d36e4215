// What cannot go together on a command line.
//
// Threads: any; nothing here changes.
// Errors:  std::bad_alloc.
#pragma once

#include <set>
#include <string>
#include <string_view>

#include "options.h"

namespace xfer_get {

/// What was given, and what it came to.
struct CommandLine {
  const Options& options;
  std::set<std::string_view> given;  ///< names of options, and kFileArgument
};

/// FILE behind the URL.
constexpr std::string_view kFileArgument = "FILE";

/// What is wrong, as a sentence that begins with the name of an option or of FILE: the first rule that is broken, or
/// else the first option of the table that is given outside of its scope.  Empty: nothing.
std::string brokenRule(const CommandLine& line);

}  // namespace xfer_get
