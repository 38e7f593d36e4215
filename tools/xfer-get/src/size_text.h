// Reads a number of bytes from the command line.  Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace xfer_get {

/// "5000", "20K", "3m", "1G": digits and, if units are allowed, one of K, M, G and T in either case (times 1024 each).
/// Nothing for any other text and for what does not fit.
std::optional<std::uint64_t> sizeFromText(std::string_view text, bool unitsAllowed);

}  // namespace xfer_get
