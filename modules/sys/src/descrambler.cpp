#include "sys/descrambler.h"

#include <array>
#include <cstring>
#include <string_view>
#include <utility>

namespace sys {
namespace {

constexpr const char* kBrand = "Quillon";
constexpr std::string_view kReplacement = "serv";

// The plain text is stored nowhere.
constexpr std::array<unsigned char, 16> kScrambled{0x65, 0x63, 0x73, 0x60, 0x6a, 0x64, 0x2e, 0x66,
                                                   0x65, 0x2c, 0x66, 0x73, 0x74, 0x64, 0x70, 0x6d};

char plus(char byte, int n) {
  return static_cast<char>(static_cast<unsigned char>(static_cast<unsigned char>(byte) + n));
}

}  // namespace

std::string descrambleString(std::string text, bool decode) {
  const std::size_t n = text.size();
  if (n < 4) return text;
  const auto exchangeEnds = [&] {
    std::swap(text[0], text[n - 2]);
    std::swap(text[1], text[n - 1]);
  };
  const auto exchangeNeighbours = [&] {
    std::swap(text[0], text[1]);
    std::swap(text[n - 2], text[n - 1]);
  };
  if (!decode) {
    exchangeEnds();
    exchangeNeighbours();
  }
  for (std::size_t i = 1; i + 2 < n; i += 2) {
    if (!decode) {
      text[i] = plus(text[i], 1);
      text[i + 1] = plus(text[i + 1], -1);
    }
    std::swap(text[i], text[i + 1]);
    if (decode) {
      text[i] = plus(text[i], -1);
      text[i + 1] = plus(text[i + 1], 1);
    }
  }
  if (decode) {
    exchangeNeighbours();
    exchangeEnds();
  }
  return text;
}

std::string scrambledSearchText() {
  return {kScrambled.begin(), kScrambled.end()};
}

std::string loggedUrl(const char* settingsName, std::string url) {
  if (std::strcmp(settingsName, kBrand) != 0) return url;
  const std::string search = descrambleString(scrambledSearchText(), true);
  for (auto hit = url.find(search); hit != std::string::npos; hit = url.find(search, hit + kReplacement.size())) {
    url.replace(hit, search.size(), kReplacement);
  }
  return url;
}

}  // namespace sys
