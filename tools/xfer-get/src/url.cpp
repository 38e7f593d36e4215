#include "url.h"

#include <algorithm>

namespace xfer_get {
namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool beginsWith(std::string_view text, std::string_view small) {
  return text.size() >= small.size() &&
         std::equal(small.begin(), small.end(), text.begin(), [](char a, char b) { return a == lower(b); });
}

}  // namespace

bool isHttpUrl(std::string_view text) {
  return beginsWith(text, "http://") || beginsWith(text, "https://");
}

std::string urlWithoutLogin(std::string_view url) {
  // libcurl takes any number of slashes behind the scheme, and a URL without a scheme.
  std::size_t host = 0;
  if (const std::size_t colon = url.find_first_of(":/?#@"); colon < url.size() && url[colon] == ':') {
    const std::size_t behind = std::min(url.find_first_not_of('/', colon + 1), url.size());
    if (behind > colon + 1) host = behind;
  }
  const std::size_t end = std::min(url.find_first_of("/?#", host), url.size());
  const std::size_t at = url.substr(host, end - host).rfind('@');
  if (at == std::string_view::npos) return std::string(url);
  return std::string(url.substr(0, host)).append(url.substr(host + at + 1));
}

}  // namespace xfer_get
