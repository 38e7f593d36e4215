// What a download job tells its host while it runs: see DownloadOptions::setOnUpdate.
//
// Threads: a plain value.  Every callback of the module runs on one thread of the library, one after the other; a slow
//          one delays other callbacks and slows no transfer.  The library holds no lock while it calls.
//          From inside a callback every operation of every job may be called, its destruction included, and jobs may
//          be made and started; only waiting is refused (DownloadJob::wait throws, waitFor returns at once).
//          Nothing is told once a job's destructor has returned: it waits for a callback about this job that runs on
//          another thread, so that nothing that the callback needs may wait for the destructor.  A job that is
//          destroyed or assigned to before its end has been told does not tell it any more.
// Errors:  a callback that throws ends its job Failed with 100037, and the log says so.
// Units:   see DownloadSnapshot and DownloadEvent.
#pragma once

#include <cstdint>

#include "xfer/download_history.h"
#include "xfer/download_records.h"

namespace xfer {

/// Does not say which job it is about: each job is given a callback that knows.
struct DownloadUpdate {
  /// What is told.
  enum class Kind : std::uint32_t {
    State,     ///< state is the job's new one, which is not final
    Progress,  ///< more bytes have arrived
    Note,      ///< note is set
    End        ///< the last one of a job; state is final, and snapshot says how it ended
  };

  Kind kind = Kind::State;          ///< says which fields have a meaning
  JobState state = JobState::Idle;  ///< of kind State: the one that is told, later ones may have come; else the job's
  DownloadSnapshot snapshot{};      ///< as the job is now
  std::uint32_t connections = 0;    ///< requests under way
  DownloadEvent note{};             ///< of kind Note
};

}  // namespace xfer
