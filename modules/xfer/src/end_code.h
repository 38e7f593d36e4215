// What the end of a job is reported as through the C interface.  Pure.
#pragma once

#include <cstdint>

#include "result_codes.h"
#include "xfer/download_records.h"

namespace xfer {

/// For a job in a final state.
constexpr std::uint32_t endCode(JobState state, std::int32_t errorCode) {
  switch (state) {
    case JobState::Failed:
      return static_cast<std::uint32_t>(errorCode != 0 ? errorCode : result::kStopped);
    case JobState::Cancelled:
      return static_cast<std::uint32_t>(result::kStopped);
    default:
      return static_cast<std::uint32_t>(result::kSuccess);
  }
}

}  // namespace xfer
