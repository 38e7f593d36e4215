// The allowed transitions of a job's state.  Pure.
#pragma once

#include "xfer/download_records.h"

namespace xfer {

constexpr bool isFinal(JobState state) {
  return state == JobState::Completed || state == JobState::Failed || state == JobState::Cancelled;
}

constexpr bool mayFollow(JobState from, JobState to) {
  if (isFinal(from)) return false;
  switch (to) {
    case JobState::Idle:
      return false;
    case JobState::Probing:
      return from == JobState::Idle;
    case JobState::Running:
      return from == JobState::Idle || from == JobState::Probing || from == JobState::Paused;
    case JobState::Paused:
    case JobState::Completed:
      return from == JobState::Running;
    case JobState::Cancelling:
      return from != JobState::Cancelling;
    case JobState::Failed:
    case JobState::Cancelled:
      return true;
  }
  return false;
}

}  // namespace xfer
