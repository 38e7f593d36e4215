// Takes UTF-8 apart.  Pure.
#pragma once

#include <cstdint>
#include <string_view>

namespace xfer_get {

struct CodePoint {
  std::uint32_t value = 0;
  bool valid = false;  ///< else value is U+FFFD: what was taken is no UTF-8
};

/// Takes the first code point off *text, which is not empty.  Of invalid text, the bytes up to the first one that
/// cannot belong to it, but at least one.
CodePoint takeCodePoint(std::string_view* text);

}  // namespace xfer_get
