// An HTTP proxy, as a host describes it.
#pragma once

#include <cstdint>
#include <string>

namespace net {

struct Proxy {
  std::string host;        ///< name or address; empty = no proxy
  std::int32_t port = 80;  ///< becomes part of the proxy address only when > 0
  std::string username;    ///< sent only when not empty
  std::string password;    ///< sent only when not empty, whether or not there is a user name
};

}  // namespace net
