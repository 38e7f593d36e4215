// An HTTP proxy.
#pragma once

#include <cstdint>
#include <string>

namespace net {

/// A transfer with a proxy uses it for every host.
struct Proxy {
  std::string host;        ///< name or address; empty: no proxy
  std::int32_t port = 80;  ///< 0 or less: left out of the proxy address
  std::string username;    ///< empty: not sent
  std::string password;    ///< empty: not sent; may be sent without a user name
};

}  // namespace net
