// Parses a proxy from the command line.  Pure.
#pragma once

#include <optional>
#include <string_view>

#include "net/proxy.h"

namespace xfer_get {

/// Parses "[http://][user[:password]@]host[:port][/]"; nothing for any other form.  An IPv6 address is in brackets.
/// The password may contain '@' and ':'.
std::optional<net::Proxy> proxyFromText(std::string_view text);

}  // namespace xfer_get
