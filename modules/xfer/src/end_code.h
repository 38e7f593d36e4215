// Maps a job's final state to the code that the C interface reports.  Pure.
#pragma once

#include <cstdint>

#include "result_codes.h"
#include "xfer/download_records.h"

namespace xfer {

/// Requires: state is final.
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
