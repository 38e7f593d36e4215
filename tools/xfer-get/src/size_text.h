// Parses a number of bytes from the command line.  Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace xfer_get {

/// Parses "5000", "20K", "3m", "1G": digits and, if units are allowed, one of K, M, G and T in either case (powers of
/// 1024).  Nothing for any other text and for a number that does not fit.
std::optional<std::uint64_t> sizeFromText(std::string_view text, bool unitsAllowed);

}  // namespace xfer_get
