// Names the file of a download whose user named none.  Pure.
#pragma once

#include <string>
#include <string_view>

namespace xfer_get {

/// The last segment of url's path with its percent escapes decoded; "index.html" when the path ends in a slash or there
/// is none.  Never a path: empty when the decoded name holds a slash, a backslash, a colon or a control character, or
/// is "." or "..".
std::string fileNameFromUrl(std::string_view url);

/// Whether Windows takes name for a device and not for a file, whatever folder it is in: "nul", "com1.txt".
bool namesDeviceOfWindows(std::string_view name);

}  // namespace xfer_get
