// Downloads of one remote file into one local file, over several HTTP range transfers in parallel.
//
// States of a job:
//
//   Idle ──► Probing ──► Running ◄──► Paused
//     └────────────────────┘│            │
//   (size known)            ├─► Completed
//                           └─► Failed          from every state that is not final
//   every state that is not final ──► Cancelling ──► Cancelled
//
// Completed, Failed and Cancelled are final.
//
// Threads: the operations of a job may be called from any thread, destruction and assignment excepted: those need the
//          job to themselves.
// Errors:  the outcome is in the snapshot: state, errorCode and httpStatus of the first failure.
// Units:   offsets and sizes are bytes, speeds bytes per second; times are seconds.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "net/proxy.h"
#include "xfer/download_records.h"
#include "xfer/export.h"

namespace xfer {

/// What a server says of a file.
struct RemoteFileInfo {
  std::uint64_t size = 0;       ///< 0: unknown
  bool acceptRanges = false;    ///< the server serves byte ranges
  std::string contentType;      ///< media type without parameters; empty when the answer names none
  std::int32_t httpStatus = 0;  ///< of the answer; 0 when the request failed
  std::int32_t error = 0;       ///< 0: usable.  Else libcurl's code, -1 (no transfer handle) or an HTTP status
};

/// Asks for one byte of url and reads the answer's headers; one request, no retry, at most timeoutSec seconds.  Blocks.
/// The first match in the headers of all responses counts, redirects included; a body is read to its end, not kept.
XFER_API RemoteFileInfo probeRemoteFile(const std::string& url, const net::Proxy& proxy, const std::string& cookie,
                                        int timeoutSec);

class DownloadJob {
 public:
  class Impl;  ///< the library's own

  /// Starts nothing.
  XFER_API DownloadJob(DownloadRequest request, DownloadPolicy policy);

  /// A job that was moved from may only be destroyed or assigned to.
  XFER_API DownloadJob(DownloadJob&& other) noexcept;

  /// Ends the download that this job held, if any, as destruction does.
  XFER_API DownloadJob& operator=(DownloadJob&& other) noexcept;

  DownloadJob(const DownloadJob&) = delete;
  DownloadJob& operator=(const DownloadJob&) = delete;

  /// Cancels a download that is not over and waits for its threads, well under a second.  The partial file stays.
  XFER_API ~DownloadJob();

  /// Does nothing unless the job is Idle.  With a known size the first transfers are under way, or the job has failed,
  /// when it returns; without one a worker thread asks the server first.  Throws std::system_error
  /// (resource_unavailable_try_again) when that thread cannot be created.
  XFER_API void start();

  /// Holds a Running job; does nothing in any other state.  A range that waits for its next try when the pause begins
  /// and is due before it ends is lost, and the job cannot complete any more.
  XFER_API void pause();

  /// Lets a Paused job run on; does nothing in any other state.
  XFER_API void resume();

  /// Asks the job to stop and returns at once; the state is Cancelled when its last transfer has been torn down.  The
  /// partial file stays.  Does nothing when the job is Cancelling or in a final state.
  XFER_API void cancel();

  /// Blocks until the state is final.  A job that stays Paused, or was never started, keeps it waiting.  On the job's
  /// own worker thread (a logger may get there) it throws std::system_error (resource_deadlock_would_occur).
  XFER_API void wait();

  /// Never blocks for long.
  [[nodiscard]] XFER_API DownloadSnapshot snapshot() const;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace xfer
