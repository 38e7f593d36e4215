#include "utf8.h"

#include <cstddef>

namespace xfer_get {
namespace {

// What a first byte says: how many bytes follow, and in which range the second one is (overlong forms, surrogates and
// what is beyond U+10FFFF are outside).
struct Lead {
  std::size_t following;
  std::uint32_t bits;
  unsigned char lowest = 0x80;
  unsigned char highest = 0xBF;
};

bool readLead(unsigned char byte, Lead* lead) {
  if (byte >= 0xC2 && byte <= 0xDF) {
    *lead = {1, byte & 0x1FU};
  } else if (byte >= 0xE0 && byte <= 0xEF) {
    *lead = {2, byte & 0x0FU};
    if (byte == 0xE0) lead->lowest = 0xA0;
    if (byte == 0xED) lead->highest = 0x9F;
  } else if (byte >= 0xF0 && byte <= 0xF4) {
    *lead = {3, byte & 0x07U};
    if (byte == 0xF0) lead->lowest = 0x90;
    if (byte == 0xF4) lead->highest = 0x8F;
  } else {
    return false;
  }
  return true;
}

}  // namespace

CodePoint takeCodePoint(std::string_view* text) {
  constexpr CodePoint kInvalid{0xFFFD, false};
  const auto first = static_cast<unsigned char>(text->front());
  text->remove_prefix(1);
  if (first < 0x80) return {first, true};
  Lead lead{};
  if (!readLead(first, &lead)) return kInvalid;
  std::uint32_t value = lead.bits;
  for (std::size_t i = 0; i < lead.following; ++i) {
    if (text->empty()) return kInvalid;
    const auto next = static_cast<unsigned char>(text->front());
    if (next < lead.lowest || next > lead.highest) return kInvalid;
    text->remove_prefix(1);
    value = value << 6U | (next & 0x3FU);
    lead.lowest = 0x80;
    lead.highest = 0xBF;
  }
  return {value, true};
}

}  // namespace xfer_get
