// Numbers that later downloads of the C interface start with.
//
// Threads: any.  A start that races with a setter may use the old value.
// Errors:  none.
#pragma once

#include <cstdint>

namespace xfer {

void setModuleConnections(std::uint16_t value) noexcept;

/// At least 1.
std::uint16_t moduleConnections() noexcept;

}  // namespace xfer
