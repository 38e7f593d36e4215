#include "file_name.h"

#include <algorithm>
#include <charconv>

namespace xfer_get {
namespace {

std::string decodePercent(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned value = 0;
    if (text[i] == '%' && i + 2 < text.size()) {
      const char* const digits = text.data() + i + 1;
      if (const auto [end, error] = std::from_chars(digits, digits + 2, value, 16);
          error == std::errc() && end == digits + 2) {
        decoded += static_cast<char>(static_cast<unsigned char>(value));
        i += 2;
        continue;
      }
    }
    decoded += text[i];
  }
  return decoded;
}

bool endangersPath(char c) {
  return c == '/' || c == '\\' || c == ':' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

}  // namespace

std::string fileNameFromUrl(std::string_view url) {
  if (const auto scheme = url.find("://"); scheme != std::string_view::npos) url.remove_prefix(scheme + 3);
  url = url.substr(0, url.find_first_of("?#"));
  const auto slash = url.rfind('/');
  const std::string_view segment = slash == std::string_view::npos ? std::string_view() : url.substr(slash + 1);
  if (segment.empty()) return "index.html";
  std::string name = decodePercent(segment);
  if (name == "." || name == ".." || std::any_of(name.begin(), name.end(), endangersPath)) return {};
  return name;
}

}  // namespace xfer_get
