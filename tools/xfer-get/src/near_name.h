// Guesses which name was meant.  Pure.
//
// Errors: std::bad_alloc.
#pragma once

#include <string_view>
#include <vector>

namespace xfer_get {

/// The one known name that text is the beginning of, or else the one that takes the fewest letters to add, drop, change
/// or swap, a third of text's at most.  Empty when there is none, or there are several.
std::string_view nearName(std::string_view text, const std::vector<std::string_view>& known);

}  // namespace xfer_get
