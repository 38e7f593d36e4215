// Hides one text in the log and in the module: a reversible byte transform, and the rewrite of logged URLs.  Pure
// functions.
//
// Threads: any.  Errors: none but std::bad_alloc.
#pragma once

#include <string>

namespace sys {

/// Unscrambles text (decode) or scrambles it.  Each direction undoes the other; texts of less than 4 bytes are returned
/// unchanged.
std::string descrambleString(std::string text, bool decode);

/// Returns url as the host named settingsName logs it: for one brand, "serv" replaces each occurrence of the hidden
/// text; for every other host, url is unchanged.
std::string loggedUrl(const char* settingsName, std::string url);

/// The text that loggedUrl replaces, scrambled.
std::string scrambledSearchText();

}  // namespace sys
