// Words for every number that the library returns.  Pure.
#pragma once

#include <cstdint>

namespace xfer {

/// Static text, never null.  Numbers that mean different things in different places have words for all of them.
const char* errorText(std::int32_t code) noexcept;

}  // namespace xfer
