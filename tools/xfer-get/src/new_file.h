// Makes a file that is not there yet.  Each platform has its own implementation.
#pragma once

#include <string>

namespace xfer_get {

enum class NewFile { Made, Exists, Failed };

/// An empty file; Exists: something of that name is there, which is left as it is.  path: UTF-8.
NewFile makeNewFile(const std::string& path);

}  // namespace xfer_get
