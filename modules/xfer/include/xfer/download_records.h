// The records of a download: what to fetch, how, and how far it is.
//
// Threads: plain values.
// Units:   offsets and sizes are bytes, speeds bytes per second; times are seconds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "net/proxy.h"

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

}  // namespace xfer
