// What a job does about the end of a range transfer.  Pure.
#pragma once

#include <array>
#include <cstdint>

namespace xfer {

enum class Verdict {
  Success,    ///< the range is complete
  Rejected,   ///< the server does not want to serve it: never tried again
  Retryable,  ///< worth another attempt
  Fatal
};

/// The wait before each further attempt at a range; there are no more attempts than these.
inline constexpr std::array<std::uint64_t, 3> kRetryDelaysMs{500, 2000, 5000};

/// Of a range transfer that ended with libcurl's code (or -1) and HTTP status (0: none was seen).
Verdict classifyTransfer(std::int32_t code, std::int32_t httpStatus);

}  // namespace xfer
