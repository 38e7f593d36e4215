#include "file_name.h"

#include <algorithm>
#include <array>
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

char upper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

}  // namespace

std::string fileNameFromUrl(std::string_view url) {
  url = url.substr(0, url.find_first_of("?#"));
  if (const auto scheme = url.find("://"); scheme != std::string_view::npos) url.remove_prefix(scheme + 3);
  const auto slash = url.rfind('/');
  const std::string_view segment = slash == std::string_view::npos ? std::string_view() : url.substr(slash + 1);
  if (segment.empty()) return "index.html";
  std::string name = decodePercent(segment);
  if (name == "." || name == ".." || std::any_of(name.begin(), name.end(), endangersPath)) return {};
  return name;
}

bool namesDeviceOfWindows(std::string_view name) {
  std::string stem(name.substr(0, name.find('.')));
  stem.erase(stem.find_last_not_of(' ') + 1);
  std::transform(stem.begin(), stem.end(), stem.begin(), upper);
  constexpr std::array<std::string_view, 6> kDevices{"AUX", "CON", "CONIN$", "CONOUT$", "NUL", "PRN"};
  if (std::find(kDevices.begin(), kDevices.end(), stem) != kDevices.end()) return true;
  if (stem.rfind("COM", 0) != 0 && stem.rfind("LPT", 0) != 0) return false;
  return stem.size() == 4 && stem[3] >= '1' && stem[3] <= '9';
}

}  // namespace xfer_get
