// The manual page, for man(1): the options, what the program returns and reads, examples.
//
// Errors: std::bad_alloc.
#pragma once

#include <string>

namespace xfer_get {

/// In roff with the macros of man(7); the same bytes at any time.
std::string manualPage();

}  // namespace xfer_get
