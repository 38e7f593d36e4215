// What a download job can do beside its policy.  A job whose options are not set behaves as one without options.
//
// With options that cannot work, or cannot work together, the job ends Failed with libcurl's bad-function-argument
// code, 43, and the log names the option.
//
// Threads: a plain value.
// Errors:  std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "xfer/download_update.h"
#include "xfer/export.h"
#include "xfer/speed_limiter.h"

namespace xfer {

/// Which bytes each connection fetches.
enum class DownloadPlan : std::uint32_t {
  /// Ranges of the policy's chunk sizes, cut before the download starts.
  Stated = 0,
  /// Ranges that are cut by measured rates, and cut again while they run:
  ///   - a slow, silent or dead connection loses what it has not delivered yet to one that delivers, and near the end
  ///     the last range may be fetched twice (at most 1 % of the file, or 256 KiB);
  ///   - there is no probe: the first request asks for a long range, its answer tells the size, and the other
  ///     connections take from that range's end.  The job is Probing, and its file not touched, until the answer has
  ///     come; the policy's probeTimeoutSec has no meaning;
  ///   - what a failed try delivered is kept, and tries are counted for the job: see setMaxTries;
  ///   - a busy server (429, 503, refused connections) is asked again when it wants to be (Retry-After), or after
  ///     growing random delays, over fewer connections; all jobs of the process go by what it asked for;
  ///   - the snapshot's bytesDone never exceeds the size;
  ///   - policy.maxDownloadSpeed is the job's, however many connections deliver.
  /// The policy's chunk sizes have no meaning, but must be such as the stated plan takes: see setFirstRange.
  Adaptive = 1
};

/// Which notes a job tells its host.
enum class DownloadNotes : std::uint32_t {
  Main = 0,  ///< a connection given up, a try repeated, a host left alone: GivenUp, TriedAgain, HostLeftAlone
  All = 1    ///< every event but State
};

/// Grows without breaking hosts that are built already.  A moved-from object may only be destroyed or assigned to.
class DownloadOptions {
 public:
  struct Values;  ///< internal

  XFER_API DownloadOptions();
  XFER_API DownloadOptions(const DownloadOptions& other);
  XFER_API DownloadOptions(DownloadOptions&& other) noexcept;
  XFER_API DownloadOptions& operator=(const DownloadOptions& other);
  XFER_API DownloadOptions& operator=(DownloadOptions&& other) noexcept;
  XFER_API ~DownloadOptions();

  /// A limit that this job keeps together with every other job that is given the same limiter: the sum of their speeds
  /// does not exceed it, but for 100 ms' worth after a lull, and they pass their pieces in turn.  It counts beside the
  /// job's own limit.
  XFER_API DownloadOptions& setSpeedLimiter(const SpeedLimiter& limiter);

  /// DownloadPlan::Stated when it is not set.
  XFER_API DownloadOptions& setPlan(DownloadPlan plan);

  /// So many tries in a row that bring nothing end the job; tries that go out together count as one.  From 1 on; 10
  /// when it is not set.  Only with the adaptive plan.
  XFER_API DownloadOptions& setMaxTries(std::uint32_t tries);

  /// A failure ends the job when nothing has arrived for so many seconds; 0, or when it is not set: no such limit, and
  /// a server that refuses every connection is asked for about two minutes, until the tries are used up.  Only with the
  /// adaptive plan.
  XFER_API DownloadOptions& setRetryMaxTime(std::uint32_t seconds);

  /// A server that asks to be left alone for longer than so many seconds ends the job; 600 when it is not set.  Only
  /// with the adaptive plan.
  XFER_API DownloadOptions& setLongestWait(std::uint32_t seconds);

  /// The first request asks for so many bytes at most, from 1 on; 1 GiB when it is not set.  A shorter one is for a
  /// server that is slow to begin with a long range; the next range of its connection then has to be asked for while
  /// nothing arrives.  The smallest ranges are a sixteenth of it, and 64 KiB at most.  Only with the adaptive plan.
  XFER_API DownloadOptions& setFirstRange(std::uint64_t bytes);

  /// Whether the server's certificate is checked: see FetchOptions, whose three abilities these are.  A certificate or
  /// a key that is refused ends the job at once.
  XFER_API DownloadOptions& setVerifyPeer(bool verify);

  /// The certificates that are trusted: see FetchOptions::setCaFile.
  XFER_API DownloadOptions& setCaFile(const std::string& path);

  /// The server's keys that are taken: see FetchOptions::setPinnedKey.
  XFER_API DownloadOptions& setPinnedKey(const std::string& pin);

  /// The User-Agent header of every request: see FetchOptions.
  XFER_API DownloadOptions& setUserAgent(const std::string& userAgent);

  /// Keeps the latest so many events for DownloadJob::history, about 100 bytes each, from the job's construction on; at
  /// most 16777216, and none when it is not set.
  XFER_API DownloadOptions& setHistory(std::size_t events);

  /// Called for each change of the job's state, for progress, for notes and for its end, from start on: see
  /// DownloadUpdate.  Of a callback that is slower than what happens, the latest 1024 changes and notes wait; earlier
  /// ones are not told.
  XFER_API DownloadOptions& setOnUpdate(std::function<void(const DownloadUpdate&)> callback);

  /// Progress is told at most once in so many milliseconds, the last bytes with the end; 100 when it is not set, and 0:
  /// never.  Only with setOnUpdate, as the one below.
  XFER_API DownloadOptions& setProgressInterval(std::uint32_t milliseconds);

  /// DownloadNotes::Main when it is not set.
  XFER_API DownloadOptions& setNotes(DownloadNotes notes);

  [[nodiscard]] const Values& values() const;  ///< internal

 private:
  std::unique_ptr<Values> values_;
};

}  // namespace xfer
