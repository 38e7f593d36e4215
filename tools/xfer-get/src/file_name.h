// Derives a file name from a URL.  Pure.
#pragma once

#include <string>
#include <string_view>

namespace xfer_get {

/// The last segment of url's path, percent-decoded; "index.html" when the path ends in a slash or is missing.  Empty
/// when the decoded name contains a slash, a backslash, a colon or a control character, or is "." or "..": never a
/// path.
std::string fileNameFromUrl(std::string_view url);

/// Whether name is a Windows device name, in any folder: "nul", "com1.txt".
bool namesDeviceOfWindows(std::string_view name);

}  // namespace xfer_get
