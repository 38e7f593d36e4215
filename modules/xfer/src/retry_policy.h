// Classifies the end of a range transfer and sets the retry delays.  Pure.
#pragma once

#include <array>
#include <cstdint>

namespace xfer {

enum class Verdict {
  Success,    ///< the transfer succeeded
  Rejected,   ///< the server refuses: never retried
  Retryable,  ///< may succeed when retried
  Fatal
};

/// Delay before each retry of a range; there are no further retries.
inline constexpr std::array<std::uint64_t, 3> kRetryDelaysMs{500, 2000, 5000};

/// Classifies a range transfer by libcurl's code (or -1) and HTTP status (0: none).
Verdict classifyTransfer(std::int32_t code, std::int32_t httpStatus);

}  // namespace xfer
