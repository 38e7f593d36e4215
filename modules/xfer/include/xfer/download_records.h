// The records of a download: request, policy, state and snapshot.
//
// The cookie, and header lines Cookie and Authorization, go to the scheme, host and port of the URL only, and from http
// to https of the same host when both ports are the standard ones; a redirect elsewhere is followed without them. Proxy
// variables of the environment are not read.
//
// Threads: plain values.
// Units:   offsets and sizes are bytes, speeds bytes per second; times are seconds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "net/proxy.h"

namespace xfer {

/// What to download, and to which file.
struct DownloadRequest {
  std::string url;                   ///< http or https
  std::string path;                  ///< local file, UTF-8; replaced when it exists
  std::string cookie;                ///< value of the Cookie header of the probe and of every range transfer
  std::vector<std::string> headers;  ///< lines "Name: value" for the probe (except Range) and every range transfer
  net::Proxy proxy;                  ///< for the probe and every range transfer; empty host: none
  std::uint64_t knownSize = 0;       ///< size of the remote file; 0: unknown, the job probes the server
};

/// How to download.  With a policy that cannot work (numThreads, maxChunkSize or, with rampChunks, initialChunkSize or
/// chunkGrowthFactor is 0) the job ends Failed with libcurl's bad-function-argument code, 43.
struct DownloadPolicy {
  std::uint16_t numThreads = 1;              ///< maximum of range transfers in flight
  std::uint64_t maxDownloadSpeed = 0;        ///< of the whole job; 0: unlimited.  Each transfer gets an equal share
  bool rampChunks = true;                    ///< chunks grow from initialChunkSize; else all are maxChunkSize
  std::uint64_t initialChunkSize = 1048576;  ///< size of the first chunk
  std::uint64_t maxChunkSize = 16777216;     ///< maximum of the later chunks
  std::uint32_t chunkGrowthFactor = 4;       ///< ratio of one chunk to the previous one
  std::uint32_t probeTimeoutSec = 10;        ///< for the whole probe
  std::uint32_t connectTimeoutSec = 20;      ///< of a range transfer; 0: libcurl's default
  std::uint32_t transferTimeoutSec = 0;      ///< for a whole range transfer; 0: none
  std::uint32_t lowSpeedLimit = 1024;        ///< bytes per second below which a transfer counts as stalled
  std::uint32_t lowSpeedTimeSec = 30;        ///< a transfer that stalls this long is aborted
  bool useHttp2 = false;                     ///< ask for HTTP/2 over TLS; else HTTP/1.1
  bool tcpKeepAlive = true;                  ///< send TCP keep-alive probes
  bool multiplex = true;                     ///< let several transfers share one HTTP/2 connection
};

/// The values are part of the interface.
enum class JobState : std::uint32_t {
  Idle = 0,        ///< constructed, not started
  Probing = 1,     ///< asking the server for the file's size
  Running = 2,     ///< transferring ranges
  Paused = 3,      ///< transfers are held
  Cancelling = 4,  ///< tearing down transfers
  Completed = 5,   ///< the file is whole
  Failed = 6,      ///< stopped with an error; the file is closed once the last transfer is torn down
  Cancelled = 7,   ///< stopped by cancel or by destruction
};

/// The progress of a job.  The fields may be from slightly different moments.
struct DownloadSnapshot {
  JobState state = JobState::Idle;  ///< final once the job has ended
  std::uint64_t bytesDone = 0;      ///< received so far; bytes fetched again after a failure count again
  std::uint64_t totalBytes = 0;     ///< size of the file; 0: unknown
  std::uint64_t bytesPerSec = 0;    ///< last measured speed; 0 during the first half second
  /// The failure that ended the job: a libcurl code, -1 (a write failed, or there was no transfer handle), a file error
  /// (100004, 100006, 100024), an HTTP status, 100000 for an exception, or 100037 when a callback of the host threw; 0:
  /// none.
  std::int32_t errorCode = 0;
  /// Of the range transfer that failed; 0: none, or another failure.  By the stated plan an error status from 400 on is
  /// here, and errorCode is 18.
  std::int32_t httpStatus = 0;
  float percent = 0;       ///< 100 * bytesDone / totalBytes; may exceed 100; 0 while totalBytes is 0
  bool throttled = false;  ///< several transfers timed out early: the server is likely throttling the client
};

}  // namespace xfer
