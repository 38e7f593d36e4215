// Downloads one remote file into one local file over several parallel HTTP range transfers.
//
// States of a job:
//
//   Idle ──► Probing ──► Running ◄──► Paused
//     └──(size known)──────►│
//                           └──► Completed
//   Idle, Probing, Running, Paused             ──► Cancelling ──► Cancelled
//   Idle, Probing, Running, Paused, Cancelling ──► Failed
//
// Completed, Failed and Cancelled are final.  A job is Completed only from Running: see pause.  With the adaptive plan
// (download_options.h) a job is Probing first whether the size is known or not.  Resume may complete a job with
// options.
//
// When a weak validator (a weak entity tag or Last-Modified) changes, a sample of what was delivered is fetched again
// and compared; equal samples are evidence, not proof, that the file is the same.
//
// Threads: any thread may call a job's operations; destruction and assignment need exclusive access.
// Errors:  the snapshot has the outcome: state, and errorCode and httpStatus of the first failure.
// Units:   offsets and sizes are bytes, speeds bytes per second; times are seconds.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "net/proxy.h"
#include "xfer/download_details.h"
#include "xfer/download_history.h"
#include "xfer/download_options.h"
#include "xfer/download_records.h"
#include "xfer/export.h"
#include "xfer/fetch_options.h"

namespace xfer {

/// A remote file as the server describes it.
struct RemoteFileInfo {
  std::uint64_t size = 0;       ///< 0: unknown
  bool acceptRanges = false;    ///< the server serves byte ranges
  std::string contentType;      ///< media type without parameters; empty: none was sent
  std::int32_t httpStatus = 0;  ///< of the response; 0: the request failed
  std::int32_t error = 0;       ///< 0: usable; else libcurl's code, -1 (no transfer handle) or an HTTP status
};

/// Requests one byte of url and reads the response headers; one request, no retry.  Blocks for at most timeoutSec
/// seconds.  Uses the first match in the headers of all responses, redirects included; reads and discards the body.
XFER_API RemoteFileInfo probeRemoteFile(const std::string& url, const net::Proxy& proxy, const std::string& cookie,
                                        int timeoutSec);

/// With abilities beside these, such as certificate checks.
XFER_API RemoteFileInfo probeRemoteFile(const std::string& url, const net::Proxy& proxy, const std::string& cookie,
                                        int timeoutSec, const FetchOptions& options);

/// One download, from its construction to its end.
class DownloadJob {
 public:
  class Impl;  ///< internal

  /// Does not start the download.
  XFER_API DownloadJob(DownloadRequest request, DownloadPolicy policy);

  /// With abilities beside the policy's.
  XFER_API DownloadJob(DownloadRequest request, DownloadPolicy policy, const DownloadOptions& options);

  explicit DownloadJob(std::unique_ptr<Impl> impl);  ///< internal

  /// A moved-from job may only be destroyed or assigned to.
  XFER_API DownloadJob(DownloadJob&& other) noexcept;

  /// Ends this job's download, if any, as destruction does.
  XFER_API DownloadJob& operator=(DownloadJob&& other) noexcept;

  DownloadJob(const DownloadJob&) = delete;
  DownloadJob& operator=(const DownloadJob&) = delete;

  /// Cancels an unfinished download and waits for its threads, well under a second, and for a callback about it that
  /// runs on another thread.  The partial file stays.
  XFER_API ~DownloadJob();

  /// Does nothing unless the job is Idle.  With a known size it returns after starting the first transfers, or after
  /// the job has failed; otherwise a worker thread probes the server first.  Throws std::system_error
  /// (resource_unavailable_try_again) when that thread cannot be created.  With the adaptive plan it returns at once,
  /// and a thread that cannot be created ends the job with 100000.  When the thread of callbacks cannot be created it
  /// throws so too, and the job stays Idle.
  XFER_API void start();

  /// Holds a Running job; does nothing in any other state.  A job with options remembers a pause while it is Probing,
  /// and is Paused as soon as it would be Running.
  ///
  /// Intended: without options, two things that happen during a pause leave the job at a stand-still, which resume does
  /// not end:
  ///   - a retry falls due: it is dropped, and the job never completes.  Cancel the job and start a new one;
  ///   - the last range ends: the file is whole and closed, but the job does not become Completed.  It stays Paused,
  ///     and Running after resume.
  XFER_API void pause();

  /// Continues a Paused job; does nothing in any other state.  See pause for when it cannot complete any more.
  XFER_API void resume();

  /// Requests cancellation and returns at once.  The state is Cancelled once the last transfer is torn down, or Failed
  /// when a write fails before that.  The partial file stays.  Does nothing in Cancelling and in a final state.
  XFER_API void cancel();

  /// Blocks until the state is final: for ever while the job is not started, Paused or at a stand-still (see pause).
  /// Of a job with a callback (DownloadOptions::setOnUpdate) also until that has been told the end, so that nothing
  /// that it needs may wait for this.  Throws std::system_error (resource_deadlock_would_occur) on the job's own worker
  /// thread (in a logger), and inside of a callback.
  XFER_API void wait();

  /// As wait, for at most this long; returns whether it came to its end.  Inside of a callback it returns at once
  /// whether the state is final.  Throws nothing.
  XFER_API bool waitFor(std::uint64_t milliseconds);

  /// Limits the job's speed (bytes per second, 0: unlimited), over all its connections, whichever of them delivers.
  /// Counts at once and in every state, and replaces the policy's maxDownloadSpeed, of which each connection has a
  /// fixed share.
  XFER_API void setSpeedLimit(std::uint64_t bytesPerSec) noexcept;

  /// Never blocks for long.
  [[nodiscard]] XFER_API DownloadSnapshot snapshot() const;

  /// For onlookers: what each connection does, and what was done about those that held the download up.  Throws
  /// std::bad_alloc.
  [[nodiscard]] XFER_API DownloadDetails details() const;

  /// The events from this number on, as far as they are kept: see DownloadOptions::setHistory.  An onlooker who asks
  /// again and again begins with the number after the last one.  Throws std::bad_alloc.
  [[nodiscard]] XFER_API std::vector<DownloadEvent> history(std::uint64_t fromNumber = 0) const;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace xfer
