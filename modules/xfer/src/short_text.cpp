#include "short_text.h"

#include <algorithm>
#include <charconv>

namespace xfer {
namespace {

bool continuesCharacter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

bool isControl(char byte) {
  const auto value = static_cast<unsigned char>(byte);
  return value < 0x20 || value == 0x7F;
}

// Where the user of an address begins, of which text is what stands in front of the "@".  Rather too early than too
// late: a password may hold anything.
std::size_t userBegin(std::string_view text) {
  if (const auto slashes = text.find("//"); slashes != std::string_view::npos) return slashes + 2;
  // Without a scheme; what is quoted may hold blanks.
  const auto quote = text.find_first_of("'\"");
  const auto begin = quote != std::string_view::npos ? quote : text.find_last_of(" \t");
  return begin != std::string_view::npos ? begin + 1 : 0;
}

}  // namespace

void ShortText::add(std::string_view text) noexcept {
  if (full_) return;
  std::size_t length = std::min(text.size(), kMostBytes - size_);
  full_ = length < text.size();
  while (full_ && length > 0 && continuesCharacter(text[length])) --length;
  for (const char byte : text.substr(0, length)) bytes_[size_++] = isControl(byte) ? '?' : byte;
}

void ShortText::addNumber(std::uint64_t number) noexcept {
  std::array<char, 20> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  add(std::string_view(digits.data(), static_cast<std::size_t>(end - digits.data())));
}

void ShortText::addWithoutUserinfo(std::string_view text) noexcept {
  const auto at = text.rfind('@');
  if (at == std::string_view::npos) return add(text);
  // Of several the last one ends the user's part: a password may hold the others.
  const auto first = text.find('@');
  add(text.substr(0, userBegin(text.substr(0, first))));
  add(text.substr(at + 1));
}

void ShortText::addAddress(std::string_view url) noexcept {
  url = url.substr(0, url.find_first_of("?#"));
  const auto slashes = url.find(":/");  // libcurl takes any number of them from one to three
  const auto host =
      slashes != std::string_view::npos ? std::min(url.find_first_not_of('/', slashes + 1), url.size()) : 0;
  const auto hostEnd = std::min(url.find_first_of("/\\", host), url.size());
  const auto at = url.substr(0, hostEnd).rfind('@');
  add(url.substr(0, host));
  add(url.substr(at != std::string_view::npos && at >= host ? at + 1 : host));
}

}  // namespace xfer
