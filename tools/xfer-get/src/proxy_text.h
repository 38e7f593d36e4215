// Reads a proxy from the command line.  Pure.
#pragma once

#include <optional>
#include <string_view>

#include "net/proxy.h"

namespace xfer_get {

/// The proxy that "[http://][user[:password]@]host[:port][/]" names; nothing when the text is not of that form.  An
/// address of IPv6 stands in brackets.  The password may hold an '@' and a ':'.
std::optional<net::Proxy> proxyFromText(std::string_view text);

}  // namespace xfer_get
