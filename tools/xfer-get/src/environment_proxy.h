// Chooses the proxy for a URL from the variables that download tools read: http_proxy (in small letters only, since a
// web server hands its scripts the Proxy line of a request as HTTP_PROXY), https_proxy, all_proxy and no_proxy.  The
// library itself reads no environment.  Pure.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "net/proxy.h"

namespace xfer_get {

/// The value of a variable; nothing, or an empty text, when it is not set.
using Environment = std::function<std::optional<std::string>(const std::string& name)>;

struct ProxyChoice {
  net::Proxy proxy;   ///< empty host: none
  std::string error;  ///< not empty: why the variable that applies cannot be used; never holds its value
};

/// A URL without a scheme counts as http.  no_proxy is "*" (no proxy for any host) or a list, separated by commas or
/// blanks, of host names (with or without a dot in front, they stand for their subdomains too), addresses and networks
/// ("10.0.0.0/8").  A login in a variable is percent-decoded.
ProxyChoice proxyFromEnvironment(const std::string& url, const Environment& environment);

}  // namespace xfer_get
