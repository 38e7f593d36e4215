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
#include <vector>

#include "net/proxy.h"
#include "xfer/export.h"

namespace xfer {

/// What to download, and where to.
struct DownloadRequest {
  std::string url;                   ///< http or https
  std::string path;                  ///< local file, UTF-8; replaced when it exists
  std::string cookie;                ///< value of the Cookie header of the probe and of every range transfer
  std::vector<std::string> headers;  ///< whole lines "Name: value" for the probe (Range excepted) and every transfer
  net::Proxy proxy;                  ///< for the probe and every range transfer; an empty host is none
  std::uint64_t knownSize = 0;       ///< size of the remote file when the caller knows it; 0: the job asks the server
};

/// How to download.  A policy that cannot work (no connection at all, chunks of size 0 or that never grow past 0) makes
/// the job end Failed with libcurl's bad-function-argument code, 43.
struct DownloadPolicy {
  std::uint16_t numThreads = 1;              ///< most range transfers in flight at once
  std::uint64_t maxDownloadSpeed = 0;        ///< for the whole job; 0: unlimited.  Each transfer gets an equal share
  bool rampChunks = true;                    ///< chunks grow from initialChunkSize; else all have maxChunkSize
  std::uint64_t initialChunkSize = 1048576;  ///< size of the first chunk
  std::uint64_t maxChunkSize = 16777216;     ///< most that a later chunk has
  std::uint32_t chunkGrowthFactor = 4;       ///< from one chunk to the next
  std::uint32_t probeTimeoutSec = 10;        ///< for the whole probe
  std::uint32_t connectTimeoutSec = 20;      ///< of a range transfer; 0: libcurl's default
  std::uint32_t transferTimeoutSec = 0;      ///< for a whole range transfer; 0: none
  std::uint32_t lowSpeedLimit = 1024;        ///< bytes per second below which a transfer counts as stalled
  std::uint32_t lowSpeedTimeSec = 30;        ///< how long a transfer may stall before it is given up
  bool useHttp2 = false;                     ///< ask for HTTP/2 over TLS; else HTTP/1.1
  bool tcpKeepAlive = true;                  ///< let TCP probe idle connections
  bool multiplex = true;                     ///< let several transfers share one HTTP/2 connection
};

/// The numbers are part of the interface.
enum class JobState : std::uint32_t {
  Idle = 0,        ///< constructed, not started
  Probing = 1,     ///< the server is asked for the file's size
  Running = 2,     ///< ranges are being transferred
  Paused = 3,      ///< transfers are held
  Cancelling = 4,  ///< transfers are being torn down
  Completed = 5,   ///< the file is whole
  Failed = 6,      ///< stopped with an error; the file is closed as soon as the last transfer has been torn down
  Cancelled = 7,   ///< stopped by cancel or by destruction
};

/// One look at a job.  The fields need not be of one and the same moment.
struct DownloadSnapshot {
  JobState state = JobState::Idle;
  std::uint64_t bytesDone = 0;    ///< received so far; bytes that are fetched again after a failure count again
  std::uint64_t totalBytes = 0;   ///< size of the file; 0: unknown
  std::uint64_t bytesPerSec = 0;  ///< last measured speed; 0 until the first half second is over
  /// Of the failure that ended the job: a libcurl code, a file error (100004, 100024, -1), an HTTP status, or 100000
  /// for an exception; 0: none.
  std::int32_t errorCode = 0;
  std::int32_t httpStatus = 0;  ///< that went with the failure; 0 when it did not come from a range transfer
  float percent = 0;            ///< bytesDone of totalBytes; may exceed 100, stays 0 when totalBytes is 0
  bool throttled = false;       ///< several transfers timed out early: the server is likely holding the client back
};

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
