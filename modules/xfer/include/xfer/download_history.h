// What a download job did, one event after another: see DownloadOptions::setHistory and DownloadJob::history.
//
// Threads: a plain value.
// Units:   offsets are bytes, half-open [start, end); times nanoseconds since the job's first event.
#pragma once

#include <cstdint>

#include "xfer/download_records.h"

namespace xfer {

/// One thing that a job did.
struct DownloadEvent {
  /// Which fields have a meaning beside number, timeNs and kind stands with each.  "of a request": request, connection,
  /// start, end and position.
  enum class Kind : std::uint32_t {
    State,         ///< state is the job's new one
    Begun,         ///< of a request, which is on its way
    Answered,      ///< of a request: its answer has begun, and its bytes are taken
    Cut,           ///< of a request: its end is lower now, and another one fetches what follows
    GivenUp,       ///< of a request that held the download up and is broken off; reason is "silent" or "slow"
    Overtaken,     ///< of a request whose bytes another one has brought
    Ended,         ///< of a request; code and httpStatus
    TriedAgain,    ///< of a failed request, whose rest is asked for again after waitNs; code and httpStatus
    HostLeftAlone  ///< no request is begun for waitNs, since the host asked for that or failed
  };

  std::uint64_t number = 0;         ///< from 0 on, without gaps
  std::uint64_t timeNs = 0;         ///< never falls
  Kind kind = Kind::State;          ///< what happened
  JobState state = JobState::Idle;  ///< of kind State
  std::uint64_t request = 0;        ///< from 1 on, in the order in which they were begun
  std::uint32_t connection = 0;     ///< from 1 on: the lowest number that no other request in flight had at its begin
  std::uint64_t start = 0;          ///< of the request's range
  std::uint64_t end = 0;            ///< 0: as long as it goes
  std::uint64_t position = 0;       ///< exclusive end of what has arrived
  std::int32_t code = 0;            ///< libcurl's code, 0: well ended; 42: broken off; -1: could not be sent
  std::int32_t httpStatus = 0;      ///< of the request's answer; 0: none came
  std::uint64_t waitNs = 0;         ///< of kinds TriedAgain and HostLeftAlone
  const char* reason = "";          ///< static text
};

}  // namespace xfer
