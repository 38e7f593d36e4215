#include "address.h"

#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <arpa/inet.h>
#endif

namespace xfer_get {

std::vector<std::uint8_t> addressBytes(const std::string& text) {
  std::vector<std::uint8_t> bytes(16);
  if (inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) return bytes;
  bytes.resize(4);
  if (inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) return bytes;
  return {};
}

}  // namespace xfer_get
