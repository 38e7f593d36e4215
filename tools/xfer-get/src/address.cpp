#include "address.h"

#include "inet_pton.h"

namespace xfer_get {

std::vector<std::uint8_t> addressBytes(const std::string& text) {
  std::vector<std::uint8_t> bytes(16);
  if (inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1) return bytes;
  bytes.resize(4);
  if (inet_pton(AF_INET, text.c_str(), bytes.data()) == 1) return bytes;
  return {};
}

}  // namespace xfer_get
