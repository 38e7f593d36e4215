// Numeric network addresses.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace xfer_get {

/// The 4 or 16 bytes of an IPv4 or IPv6 address in its usual form, without brackets; empty for anything else.
std::vector<std::uint8_t> addressBytes(const std::string& text);

}  // namespace xfer_get
