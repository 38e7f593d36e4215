// What --help prints.
//
// Errors: std::bad_alloc.
// Units:  columns.
#pragma once

#include <string>

namespace xfer_get {

/// Of at most 80 columns, however wide the terminal is.
std::string helpText();

}  // namespace xfer_get
