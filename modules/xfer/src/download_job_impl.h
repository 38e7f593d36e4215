// The implementation of DownloadJob: turns calls and callbacks into the core's events, and carries out the actions that
// the core returns, on the thread that brought the event.
//
// libcurl, the clock and waiting come in through a JobEnvironment, so that tests can replace them.
//
// Threads: as DownloadJob.  doStart runs on the worker (size unknown) or on the caller of start; the callbacks run on
//          the backend's loop thread; a retry runs on its timer's thread.
//          With an adaptive plan doStart runs on the caller of start and submits nothing: the loop thread opens the
//          file and submits, and only it; the timers are for samples.
//          One short lock, mutex_, guards the core.  Actions are carried out after it is released.
// Errors:  nothing that runs on the job's own threads throws: trouble ends the job Failed.  pause, cancel and
//          destruction neither allocate nor throw; resume allocates only when it has to submit, and never throws.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "file_sink.h"
#include "host_terms.h"
#include "job_core.h"
#include "job_updates.h"
#include "option_values.h"
#include "rate_limit.h"
#include "remote_file.h"
#include "retry_timers.h"
#include "stop_signal.h"
#include "sys/mutex.h"
#include "tls_trust.h"
#include "transfer_backend.h"
#include "xfer/download_job.h"

namespace xfer {

struct JobEnvironment {
  std::function<std::unique_ptr<ITransferBackend>(const DownloadRequest&, const DownloadPolicy&)> makeBackend;
  std::function<ProbedFile(const DownloadRequest&, int timeoutSec, const StopSignal&)> probe;
  std::function<std::uint64_t()> nowNs;  ///< monotonic
  /// Waits for the delay of a retry, but no longer than until the signal is set.
  std::function<void(std::uint64_t delayMs, StopSignal&)> waitForRetry;
  HostBook* hosts = nullptr;  ///< where an adaptive plan reads and writes what hosts ask for
};

/// libcurl, the steady clock, real waiting and the process's book.
JobEnvironment realJobEnvironment(const TlsTrust& trust = {});

class DownloadJob::Impl final : public JobUpdates::Job {
 public:
  Impl(DownloadRequest request, DownloadPolicy policy, JobEnvironment environment,
       DownloadOptions::Values options = {});

  /// Teardown: cancels, joins every thread of the job, closes the file and leaves it on disk.
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void start();
  void pause() noexcept;
  void resume() noexcept;
  void cancel() noexcept;
  void wait();  // until the end has been told, too, as the next
  [[nodiscard]] bool waitFor(std::uint64_t milliseconds);
  void setSpeedLimit(std::uint64_t bytesPerSec) noexcept;
  [[nodiscard]] DownloadSnapshot snapshot() const override;
  [[nodiscard]] DownloadDetails details();
  [[nodiscard]] std::vector<DownloadEvent> history(std::uint64_t fromNumber) const;

  /// Requests under way.
  [[nodiscard]] std::size_t inFlight() const override;

  /// What the host is told.
  [[nodiscard]] std::vector<DownloadEvent> news(std::uint64_t fromNumber) override;
  void callbackThrew() noexcept override;
  void endTold() noexcept override;

  /// The host is told nothing more: see JobUpdates::close.
  void silence() noexcept;

  /// See JobCore::standsStill.
  [[nodiscard]] bool standsStill() const;

 private:
  using FlightPtr = JobCore::FlightPtr;

  template <class Event>
  decltype(auto) withCore(Event&& event) SYS_EXCLUDES(mutex_);
  template <class Event>
  void post(Event&& event) noexcept SYS_EXCLUDES(mutex_);
  void carryOut(const JobActions& actions);
  void failOnException() noexcept;
  void failNow(std::int32_t code) noexcept;

  [[nodiscard]] bool isOver() const SYS_REQUIRES(mutex_);
  void startRun();
  void runDoStart() noexcept;
  void doStart();
  void startMoving();
  void openFile(std::uint64_t size);
  void onTurn(LoopTurn turn);
  void exchangeTerms();
  void refill();
  void submit(const FlightPtr& flight);
  Placement onHead(const FlightPtr& flight, const ResponseHead& head);
  void cancelSuperseded() noexcept SYS_EXCLUDES(mutex_);
  void finalizeFile(std::uint64_t size);
  void closeFile() noexcept;

  void onData(JobCore::Flight& flight, std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length);
  void measureSpeed(std::uint64_t length);

  // Constant after construction.
  const DownloadRequest request_;
  const DownloadPolicy policy_;
  const DownloadOptions::Values options_;
  const JobEnvironment environment_;

  RateLimit ownLimit_;  // before the backend, whose transfers use it

  const std::shared_ptr<JobUpdates> updates_;  // null: nothing is told

  mutable sys::Mutex mutex_;
  sys::Condition stateChanged_;  // notified on every change of the core's state
  JobCore core_ SYS_GUARDED_BY(mutex_);
  std::atomic<bool> paused_{false};  // what the core's state is; for the loop thread, which asks it at every turn

  // Opened by doStart before the first transfer, or by the loop thread before its first byte, written on the loop
  // thread, cut and closed by whoever the core told to: it tells one thread, and only when nothing is in flight.
  FileSink sink_;

  // Made by doStart, which then publishes the pointer: a thread that reads one that is not null may use the object
  // until teardown has joined all threads.
  std::unique_ptr<ITransferBackend> backendOwner_;
  std::atomic<ITransferBackend*> backend_{nullptr};

  // Written by the loop thread, read by snapshot.
  std::atomic<std::uint64_t> bytesDone_{0};
  std::atomic<std::uint64_t> bytesPerSec_{0};

  // The loop thread's.
  HostTerms toldTerms_;  // what the book was told last

  // The loop thread's; doStart sets the start before the first transfer.
  std::uint64_t speedWindowBytes_ = 0;
  std::uint64_t speedWindowStart_ = 0;

  StopSignal stopping_;  // set by cancel and teardown: ends the probe and the waits of retries
  RetryTimers retryTimers_;

  std::atomic<bool> started_{false};
  sys::Mutex workerMutex_;  // held while joining: several threads may wait
  std::thread worker_ SYS_GUARDED_BY(workerMutex_);
  std::atomic<std::thread::id> workerId_{};  // while it runs: it must not wait for itself, nor for workerMutex_
};

}  // namespace xfer
