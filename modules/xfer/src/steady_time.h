// The one monotonic clock, in nanoseconds.
#pragma once

#include <chrono>
#include <cstdint>

namespace xfer {

inline std::uint64_t steadyNs() {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

}  // namespace xfer
