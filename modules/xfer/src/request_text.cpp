#include "request_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <stdexcept>

namespace xfer {
namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

struct MediaType {
  std::string_view text;
  std::int32_t code;
};

// The codes are part of the C interface.  "video/3gpp" never matches first, since it contains "video/3gp".
constexpr std::array<MediaType, 10> kMediaTypes{{
    {"video/mpeg", 5},
    {"video/mp4", 1},
    {"video/x-flv", 2},
    {"video/webm", 4},
    {"video/ogg", 6},
    {"video/3gp", 3},
    {"video/3gpp", 3},
    {"image/jpeg", 12},
    {"application/octet-stream", 7},
    {"audio/mpeg", 11},
}};

}  // namespace

void splitLines(const char* text, std::vector<std::string>& out) {
  if (text == nullptr) return;
  std::string_view rest(text);
  while (!rest.empty()) {
    const auto end = std::min(rest.find('\n'), rest.size());
    if (end > 0) out.emplace_back(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
}

RequestOptions parseRequestOptions(const char* options) {
  constexpr std::string_view kPostFields = "OPT_POSTFIELDS=";
  std::vector<std::string> lines;
  splitLines(options, lines);
  RequestOptions parsed;
  for (const std::string& line : lines) {
    if (line.starts_with(kPostFields)) {
      parsed.postFields = line.substr(kPostFields.size());
      parsed.post = true;
    } else if (line.starts_with("REDIRECT_POLICY_NEVER")) {
      parsed.followRedirects = false;
    } else if (line.starts_with("OPT_POST")) {
      parsed.post = true;
    }
  }
  return parsed;
}

net::Proxy parseProxyAddress(const std::string& address) {
  net::Proxy proxy;
  const auto colon = address.find(':');
  proxy.host = address.substr(0, colon);
  if (colon != std::string::npos) proxy.port = std::atoi(address.c_str() + colon + 1);
  return proxy;
}

net::Proxy parseProxySpec(const std::string& spec) {
  if (spec.empty()) return {};
  const auto at = spec.find('@');
  if (at == std::string::npos) return parseProxyAddress(spec);
  net::Proxy proxy = parseProxyAddress(spec.substr(at + 1));
  const std::string credentials = spec.substr(0, at);
  const auto colon = credentials.find(':');
  proxy.username = credentials.substr(0, colon);
  if (colon != std::string::npos) proxy.password = credentials.substr(colon + 1);
  return proxy;
}

std::string proxyAddress(const net::Proxy& proxy) {
  if (proxy.host.empty() || proxy.port <= 0) return proxy.host;
  return proxy.host + ":" + std::to_string(proxy.port);
}

const char* unworkableMethod(std::string_view method, std::uint64_t bodySize) {
  constexpr std::string_view kToken = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz!#$%&'*+-.^_`|~";
  if (method.find_first_not_of(kToken) != std::string_view::npos) return "method";
  // libcurl awaits a body that HEAD does not bring when the request has one.
  return method == "HEAD" && bodySize != 0 ? "body" : nullptr;
}

bool setsField(std::string_view line, std::string_view name) {
  std::string_view own = line.substr(0, line.find_first_of(":;"));
  own = own.substr(0, own.find_last_not_of(" \t") + 1);
  return own.size() == name.size() && findHeader(own, name) == 0;
}

void addUserAgent(std::vector<std::string>& lines, const std::string& userAgent) {
  const bool given =
      std::any_of(lines.begin(), lines.end(), [](const std::string& line) { return setsField(line, "user-agent"); });
  if (!given && !userAgent.empty()) lines.push_back("User-Agent: " + userAgent);
}

std::size_t findHeader(std::string_view rawHeaders, std::string_view name) {
  const auto found = std::search(rawHeaders.begin(), rawHeaders.end(), name.begin(), name.end(),
                                 [](char a, char b) { return lower(a) == lower(b); });
  return found == rawHeaders.end() ? std::string_view::npos : static_cast<std::size_t>(found - rawHeaders.begin());
}

std::optional<std::string> contentRangeTotal(const std::string& rawHeaders) {
  const auto name = findHeader(rawHeaders, "content-range:");
  if (name == std::string::npos) return std::nullopt;
  const auto slash = rawHeaders.find('/', name);
  if (slash == std::string::npos) return std::nullopt;
  const auto end = rawHeaders.find("\r\n", slash);
  return rawHeaders.substr(slash + 1, end == std::string::npos ? end : end - slash - 1);
}

std::optional<std::string> contentLengthText(const std::string& rawHeaders) {
  constexpr std::string_view kName = "content-length:";
  const auto name = findHeader(rawHeaders, kName);
  if (name == std::string::npos) return std::nullopt;
  const auto value = std::min(rawHeaders.find_first_not_of(' ', name + kName.size()), rawHeaders.size());
  return rawHeaders.substr(value);
}

std::optional<std::uint64_t> leadingNumber(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  std::uint64_t number = 0;
  const auto error = std::from_chars(text.data(), text.data() + text.size(), number).ec;
  if (error == std::errc::result_out_of_range) return std::nullopt;
  return number;
}

std::optional<std::uint64_t> remoteSize(std::int32_t status, const std::string& rawHeaders) {
  if (status == 206) {
    const auto total = contentRangeTotal(rawHeaders);
    if (total && *total != "*") return leadingNumber(*total);
  }
  if (status == 200 || status == 206) {
    // Intended: when the total is unknown, this is the length of the one-byte part.
    if (const auto length = contentLengthText(rawHeaders)) return leadingNumber(*length);
  }
  return std::nullopt;
}

std::string watchPagePath(std::string_view url) {
  constexpr std::string_view kQuery = "watch?v=";
  constexpr std::size_t kIdLength = 11;
  const auto found = url.find(kQuery);
  if (found == std::string_view::npos || url.size() - found < kQuery.size() + kIdLength) return "/";
  return "/" + std::string(url.substr(found, kQuery.size() + kIdLength));
}

int parseStatus(const std::string& word) {
  try {
    return std::stoi(word);
  } catch (const std::logic_error&) {
    return -1;  // not a number, or out of range
  }
}

std::int32_t mediaTypeFromHeaders(const std::string& rawHeaders) {
  constexpr std::string_view kName = "content-type:";
  const auto name = findHeader(rawHeaders, kName);
  if (name == std::string::npos) return 0;
  const auto begin = std::min(rawHeaders.find_first_not_of(' ', name + kName.size()), rawHeaders.size());
  const auto end = rawHeaders.find_first_of("\r\n;", begin);
  const std::string_view value =
      std::string_view(rawHeaders).substr(begin, end == std::string::npos ? end : end - begin);
  const auto hit = std::find_if(kMediaTypes.begin(), kMediaTypes.end(),
                                [&](const MediaType& type) { return value.find(type.text) != std::string_view::npos; });
  return hit == kMediaTypes.end() ? 0 : hit->code;
}

}  // namespace xfer
