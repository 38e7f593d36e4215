#include "proxy_text.h"

#include <algorithm>
#include <charconv>
#include <cstdint>

namespace xfer_get {
namespace {

std::optional<std::int32_t> portFromText(std::string_view text) {
  std::uint16_t port = 0;
  const char* const last = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), last, port);
  if (error != std::errc() || end != last || port == 0) return std::nullopt;
  return port;
}

bool isHost(std::string_view text) {
  if (text.size() > 2 && text.front() == '[' && text.back() == ']') text = text.substr(1, text.size() - 2);
  constexpr std::string_view kNever = "/\\?#[]";
  return !text.empty() && std::none_of(text.begin(), text.end(), [&](char c) {
    return static_cast<unsigned char>(c) <= ' ' || c == 0x7F || kNever.find(c) != std::string_view::npos;
  });
}

}  // namespace

std::optional<net::Proxy> proxyFromText(std::string_view text) {
  net::Proxy proxy;
  constexpr std::string_view kScheme = "http://";
  if (text.substr(0, kScheme.size()) == kScheme) text.remove_prefix(kScheme.size());
  if (!text.empty() && text.back() == '/') text.remove_suffix(1);
  if (const auto at = text.rfind('@'); at != std::string_view::npos) {
    const std::string_view login = text.substr(0, at);
    const auto colon = login.find(':');
    proxy.username = login.substr(0, colon);
    if (colon != std::string_view::npos) proxy.password = login.substr(colon + 1);
    if (proxy.username.empty()) return std::nullopt;
    text.remove_prefix(at + 1);
  }
  const auto hostEnd = text.find(':', text.substr(0, 1) == "[" ? text.find(']') : 0);
  proxy.host = text.substr(0, hostEnd);
  if (hostEnd != std::string_view::npos) {
    const auto port = portFromText(text.substr(hostEnd + 1));
    if (!port) return std::nullopt;
    proxy.port = *port;
  }
  if (!isHost(proxy.host)) return std::nullopt;
  return proxy;
}

}  // namespace xfer_get
