// The inside of a DownloadJob: one run from the probe to the finished file.
//
// What the world does (libcurl, the clock, waiting) comes in through a JobEnvironment, so that tests put fakes there.
//
// Answers that are not the range asked for: a server may send the whole file instead (200).  Such a body is placed from
// byte 0 and makes every later range superfluous.  From the first one on the job runs one transfer at a time: the one
// with the lowest start leads, the others in flight are ended without being judged and their ranges wait; when the
// leader ends well, all ranges from its start on are complete.  So the file is fetched once, and counted once.
//
// Threads: as DownloadJob.  doStart runs on the worker (size unknown) or on the caller of start; the callbacks run on
// the
//          backend's loop thread; a retry runs on its timer's thread.
// Errors:  none is thrown by what runs on the job's own threads: trouble ends the job Failed.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <thread>
#include <unordered_map>

#include "curl_multi_backend.h"
#include "file_sink.h"
#include "job_state.h"
#include "range_answer.h"
#include "range_scheduler.h"
#include "retry_timers.h"
#include "stop_signal.h"
#include "sys/mutex.h"
#include "xfer/download_job.h"

namespace xfer {

struct JobEnvironment {
  std::function<std::unique_ptr<ITransferBackend>(const DownloadRequest&, const DownloadPolicy&)> makeBackend;
  std::function<RemoteFileInfo(const DownloadRequest&, int timeoutSec, const StopSignal&)> probe;
  std::function<std::uint64_t()> nowNs;  ///< monotonic
  /// Waits for the delay of a retry, but no longer than until the signal is set.
  std::function<void(std::uint64_t delayMs, StopSignal&)> waitForRetry;
};

/// libcurl, the steady clock and real waiting.
JobEnvironment realJobEnvironment();

class DownloadJob::Impl {
 public:
  Impl(DownloadRequest request, DownloadPolicy policy, JobEnvironment environment);

  /// Teardown: cancels, joins every thread of the job, closes the file and leaves it on disk.
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void start();
  void pause();
  void resume();
  void cancel();
  void wait();
  [[nodiscard]] DownloadSnapshot snapshot() const;

 private:
  /// One range transfer between submit and its done callback.
  struct Flight {
    std::uint64_t start = 0;
    std::uint64_t end = 0;
    std::uint64_t neededEnd = 0;                           // loop thread only: where what it is to bring ends; 0: open
    bool wholeFile = false;                                // loop thread only: its answer is the file from byte 0
    RangeAnswer::Kind refusal = RangeAnswer::Kind::Range;  // loop thread only: Misplaced or FileChanged when refused
    std::atomic<bool> unjudged{false};  // another transfer brings its bytes: how it ends says nothing
  };

  // Each of these is one short hold of stateMutex_.
  [[nodiscard]] JobState currentState() const SYS_EXCLUDES(stateMutex_);
  bool tryTransition(JobState from, JobState to) SYS_EXCLUDES(stateMutex_);
  void failJob(std::int32_t code, std::int32_t httpStatus) SYS_EXCLUDES(stateMutex_);
  void markCancelled() SYS_EXCLUDES(stateMutex_);
  bool enter(JobState to) SYS_REQUIRES(stateMutex_);

  void runDoStart() noexcept;
  void doStart();
  void submitRanges();
  void runSubmitRanges() noexcept;
  [[nodiscard]] std::int32_t transferLimit() const;
  void releaseTransfer();
  void settle() SYS_EXCLUDES(closingMutex_);
  void stopTransfers();

  Placement onHead(const std::shared_ptr<Flight>& flight, const ResponseHead& head);
  void onData(const Flight& flight, std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length);
  void onDone(const std::shared_ptr<Flight>& flight, std::int32_t code, std::int32_t httpStatus,
              std::uint64_t bytes) noexcept;
  void onTransferDone(const Flight& flight, std::int32_t code, std::int32_t httpStatus, std::uint64_t bytes);
  [[nodiscard]] bool leavesHole(const Flight& flight, std::uint64_t bytes);
  void retryOrFail(std::uint64_t rangeStart, std::int32_t code, std::int32_t httpStatus);
  void failFatally(std::uint64_t rangeStart, std::int32_t code, std::int32_t httpStatus);
  void failTransfer(std::int32_t code, std::int32_t httpStatus);
  void failWriting(std::int32_t error);
  void failOnException();
  void finalizeFile();
  void measureSpeed(std::uint64_t length);
  void leadWholeFile(const Flight& leader);

  // Constant after construction.
  const DownloadRequest request_;
  const DownloadPolicy policy_;
  const JobEnvironment environment_;

  mutable sys::Mutex stateMutex_;
  sys::Condition stateChanged_;  // notified on every change of state_
  JobState state_ SYS_GUARDED_BY(stateMutex_) = JobState::Idle;
  std::int32_t errorCode_ SYS_GUARDED_BY(stateMutex_) = 0;
  std::int32_t httpStatus_ SYS_GUARDED_BY(stateMutex_) = 0;

  FileSink sink_;            // opened by doStart; written on the loop thread; closed when nothing is in flight
  sys::Mutex closingMutex_;  // held while closing it

  // Built by doStart, which then publishes the pointers: whoever reads one that is not null may use the object until
  // teardown has joined all threads.
  std::unique_ptr<RangeScheduler> schedulerOwner_;
  std::unique_ptr<ITransferBackend> backendOwner_;
  std::atomic<RangeScheduler*> scheduler_{nullptr};
  std::atomic<ITransferBackend*> backend_{nullptr};

  std::atomic<std::int32_t> activeTransfers_{0};  // reserved or submitted, and not yet reported done
  std::atomic<std::uint32_t> requeues_{0};        // how often a range became pending again
  std::atomic<bool> oneAtATime_{false};           // the server sends whole files; set on the loop thread

  sys::Mutex flightsMutex_;
  std::map<std::uint64_t, std::shared_ptr<Flight>> flights_ SYS_GUARDED_BY(flightsMutex_);  // by range start

  sys::Mutex retryMutex_;
  std::unordered_map<std::uint64_t, std::int32_t> retryAttempts_ SYS_GUARDED_BY(retryMutex_);  // by range start

  // Loop thread only: where the file ends, as far as a range that was accepted short tells.
  std::uint64_t contentEnd_ = std::numeric_limits<std::uint64_t>::max();

  RemoteIdentity identity_;  // doStart before the first transfer, then the loop thread

  // Written by the loop thread (totalBytes_ by doStart), read by snapshot.
  std::atomic<std::int32_t> slowTimeouts_{0};
  std::atomic<std::uint64_t> bytesDone_{0};
  std::atomic<std::uint64_t> totalBytes_{0};
  std::atomic<std::uint64_t> bytesPerSec_{0};
  std::atomic<std::uint64_t> highWaterMark_{0};  // largest end offset written so far
  std::atomic<std::uint64_t> speedWindowBytes_{0};
  std::atomic<std::uint64_t> speedWindowStart_{0};

  StopSignal stopping_;  // set by cancel and teardown: ends the probe and the waits of retries
  RetryTimers retryTimers_;

  std::atomic<bool> started_{false};
  sys::Mutex workerMutex_;  // held while joining: several threads may wait
  std::thread worker_ SYS_GUARDED_BY(workerMutex_);
  std::atomic<std::thread::id> workerId_{};  // while it runs: it must not wait for itself, nor for workerMutex_
};

}  // namespace xfer
