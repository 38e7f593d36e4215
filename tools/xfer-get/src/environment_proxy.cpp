#include "environment_proxy.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string_view>
#include <vector>

#include "address.h"
#include "proxy_text.h"

namespace xfer_get {
namespace {

struct Target {
  std::string scheme;
  std::string host;  // without brackets
};

std::string lowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return lower;
}

std::string_view withoutEndingDot(std::string_view host) {
  if (host.ends_with('.')) host.remove_suffix(1);
  return host;
}

std::string_view withoutBrackets(std::string_view host) {
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  return host;
}

Target targetOf(const std::string& url) {
  Target target{"http", ""};
  std::string_view rest = url;
  if (const auto end = rest.find("://"); end != std::string_view::npos) {
    target.scheme = lowerCase(rest.substr(0, end));
    rest.remove_prefix(end + 3);
  }
  rest = rest.substr(0, rest.find_first_of("/?#"));
  if (const auto at = rest.rfind('@'); at != std::string_view::npos) rest.remove_prefix(at + 1);
  const auto port = rest.find(':', rest.starts_with('[') ? rest.find(']') : 0);
  target.host = lowerCase(withoutEndingDot(withoutBrackets(rest.substr(0, port))));
  return target;
}

bool sharesPrefix(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b, std::size_t bits) {
  const auto whole = static_cast<std::ptrdiff_t>(bits / 8);
  if (!std::equal(a.begin(), a.begin() + whole, b.begin())) return false;
  const unsigned rest = bits % 8;
  return rest == 0 || (a[bits / 8] ^ b[bits / 8]) >> (8 - rest) == 0;
}

// entry: an address, or a network in the form address/bits.
bool isInNetwork(const std::vector<std::uint8_t>& address, std::string_view entry) {
  const auto slash = entry.find('/');
  const std::vector<std::uint8_t> network = addressBytes(std::string(withoutBrackets(entry.substr(0, slash))));
  if (network.empty() || network.size() != address.size()) return false;
  std::size_t bits = network.size() * 8;
  if (slash != std::string_view::npos) {
    const char* const last = entry.data() + entry.size();
    const auto [end, error] = std::from_chars(entry.data() + slash + 1, last, bits);
    if (error != std::errc() || end != last || bits > network.size() * 8) return false;
  }
  return sharesPrefix(address, network, bits);
}

bool isExcepted(const std::string& host, const std::string& exceptions) {
  if (exceptions == "*") return true;
  const std::vector<std::uint8_t> address = addressBytes(host);
  std::string_view rest = exceptions;
  while (!rest.empty()) {
    const auto end = std::min(rest.find_first_of(", \t"), rest.size());
    std::string entry = lowerCase(withoutEndingDot(rest.substr(0, end)));
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (entry.starts_with('.')) entry.erase(0, 1);
    if (entry.empty()) continue;
    if (!address.empty()) {
      if (isInNetwork(address, entry)) return true;
    } else if (host == entry || host.ends_with("." + entry)) {
      return true;
    }
  }
  return false;
}

std::optional<std::string> percentDecoded(std::string_view text) {
  std::string decoded;
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      decoded += text[at];
      continue;
    }
    std::uint8_t byte = 0;
    const std::string_view digits = text.substr(at + 1, 2);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    if (error != std::errc() || digits.size() != 2 || end != digits.data() + 2 || byte == 0) return std::nullopt;
    decoded += static_cast<char>(byte);
    at += 2;
  }
  return decoded;
}

ProxyChoice refused(const std::string& variable, const std::string& why) {
  return {{}, variable + ": " + why + "; name another proxy with -x, or none with -x \"\""};
}

ProxyChoice choiceFrom(const std::string& variable, const std::string& value) {
  const auto schemeEnd = value.find("://");
  if (schemeEnd != std::string::npos) {
    const std::string scheme = lowerCase(std::string_view(value).substr(0, schemeEnd));
    if (scheme.starts_with("socks")) return refused(variable, "SOCKS proxies are not supported");
    if (scheme != "http") return refused(variable, "only http proxies are supported");
  }
  const std::string text = schemeEnd == std::string::npos ? value : value.substr(schemeEnd + 3);
  auto proxy = proxyFromText(text);
  const auto username = proxy ? percentDecoded(proxy->username) : std::nullopt;
  const auto password = proxy ? percentDecoded(proxy->password) : std::nullopt;
  if (!username || !password) return refused(variable, "not of the form [http://][user[:password]@]host[:port]");
  proxy->username = *username;
  proxy->password = *password;
  return {*proxy, ""};
}

}  // namespace

ProxyChoice proxyFromEnvironment(const std::string& url, const Environment& environment) {
  const auto valueOf = [&](const std::string& name) { return environment(name).value_or(""); };
  const Target target = targetOf(url);
  std::string exceptions = valueOf("no_proxy");
  if (exceptions.empty()) exceptions = valueOf("NO_PROXY");
  if (isExcepted(target.host, exceptions)) return {};

  std::vector<std::string> variables;
  if (target.scheme == "http") variables = {"http_proxy"};
  if (target.scheme == "https") variables = {"https_proxy", "HTTPS_PROXY"};
  variables.insert(variables.end(), {"all_proxy", "ALL_PROXY"});
  for (const std::string& variable : variables) {
    if (const std::string value = valueOf(variable); !value.empty()) return choiceFrom(variable, value);
  }
  return {};
}

}  // namespace xfer_get
