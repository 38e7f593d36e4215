// Keeps one text out of the log, and out of sight in the module: a reversible byte transform, and the rewrite of logged
// URLs that uses it.  Pure functions.
//
// Threads: any.  Errors: none but std::bad_alloc.
#pragma once

#include <string>

namespace sys {

/// Turns a scrambled text back into a plain one (decode), or a plain one into a scrambled one.  Each direction undoes
/// the other for every text; texts of less than 4 bytes stay as they are.
std::string descrambleString(std::string text, bool decode);

/// The form in which url is logged for a host of that name: one brand's builds do not show a certain text, which
/// becomes "serv" wherever it occurs.  Every other host's URLs are logged as they are.
std::string loggedUrl(const char* settingsName, std::string url);

/// What loggedUrl replaces, scrambled.
std::string scrambledSearchText();

}  // namespace sys
