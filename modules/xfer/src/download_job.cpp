#include "xfer/download_job.h"

#include <algorithm>
#include <chrono>
#include <system_error>
#include <utility>

#include "download_job_impl.h"
#include "log.h"
#include "remote_file.h"
#include "result_codes.h"
#include "retry_policy.h"
#include "share_pool.h"
#include "sys/module.h"

namespace xfer {
namespace {

constexpr const char* kLogTag = "DlJob";
constexpr std::uint64_t kSpeedWindowNs = 500'000'000;
constexpr std::uint32_t kMostSlowTimeouts = 5;

std::uint64_t steadyNs() {
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
          .count());
}

}  // namespace

JobEnvironment realJobEnvironment() {
  JobEnvironment real;
  real.makeBackend = [](const DownloadRequest& request, const DownloadPolicy& policy) {
    return std::make_unique<CurlMultiBackend>(policy, originOf(request.url));
  };
  real.probe = [](const DownloadRequest& request, int timeoutSec, const StopSignal& stop) {
    return probeStoppable(request, timeoutSec, stop);
  };
  real.nowNs = steadyNs;
  real.waitForRetry = [](std::uint64_t delayMs, StopSignal& stop) { stop.waitFor(std::chrono::milliseconds(delayMs)); };
  return real;
}

// ---- The exported class ----

DownloadJob::DownloadJob(DownloadRequest request, DownloadPolicy policy)
    : impl_(std::make_unique<Impl>(std::move(request), policy, realJobEnvironment())) {}

DownloadJob::DownloadJob(DownloadJob&& other) noexcept = default;

DownloadJob& DownloadJob::operator=(DownloadJob&& other) noexcept {
  if (this == &other) return *this;
  // The other job is here before the download that was here is torn down.
  const std::unique_ptr<Impl> before = std::exchange(impl_, std::move(other.impl_));
  return *this;
}

DownloadJob::~DownloadJob() = default;

void DownloadJob::start() {
  impl_->start();
}

void DownloadJob::pause() {
  impl_->pause();
}

void DownloadJob::resume() {
  impl_->resume();
}

void DownloadJob::cancel() {
  impl_->cancel();
}

void DownloadJob::wait() {
  impl_->wait();
}

DownloadSnapshot DownloadJob::snapshot() const {
  return impl_->snapshot();
}

// ---- State ----

JobState DownloadJob::Impl::currentState() const {
  const sys::MutexLock lock(stateMutex_);
  return state_;
}

// The one place where the state changes.
bool DownloadJob::Impl::enter(JobState to) {
  if (!mayFollow(state_, to)) return false;
  state_ = to;
  stateChanged_.notifyAll();
  return true;
}

bool DownloadJob::Impl::tryTransition(JobState from, JobState to) {
  const sys::MutexLock lock(stateMutex_);
  return state_ == from && enter(to);
}

void DownloadJob::Impl::failJob(std::int32_t code, std::int32_t httpStatus) {
  const sys::MutexLock lock(stateMutex_);
  if (!enter(JobState::Failed)) return;  // the first failure is the one that counts
  errorCode_ = code;
  httpStatus_ = httpStatus;
}

void DownloadJob::Impl::markCancelled() {
  const sys::MutexLock lock(stateMutex_);
  enter(JobState::Cancelled);
}

// ---- The caller's side ----

DownloadJob::Impl::Impl(DownloadRequest request, DownloadPolicy policy, JobEnvironment environment)
    : request_(std::move(request)),
      policy_(policy),
      environment_(std::move(environment)),
      retryTimers_([this](std::uint64_t delayMs) { environment_.waitForRetry(delayMs, stopping_); }) {}

DownloadJob::Impl::~Impl() {
  {
    const sys::MutexLock lock(stateMutex_);
    enter(JobState::Cancelling);
  }
  stopping_.set();
  {
    const sys::MutexLock lock(workerMutex_);
    if (worker_.joinable()) worker_.join();
  }
  // The loop thread ends before the timers do: nothing schedules another one then.  The object goes last of all.
  if (backendOwner_) backendOwner_->stop();
  retryTimers_.joinAll();
  backendOwner_.reset();
  sink_.close();
  markCancelled();
}

void DownloadJob::Impl::start() {
  if (currentState() != JobState::Idle || started_.exchange(true)) return;
  if (request_.knownSize != 0) return runDoStart();
  const sys::MutexLock lock(workerMutex_);
  try {
    worker_ = std::thread([this] {
      workerId_ = std::this_thread::get_id();
      runDoStart();
      workerId_ = std::thread::id();  // another thread may get the same one
      sys::releaseThreadState();
    });
  } catch (...) {
    started_ = false;
    throw;
  }
}

void DownloadJob::Impl::pause() {
  if (!tryTransition(JobState::Running, JobState::Paused)) return;
  if (ITransferBackend* const backend = backend_) backend->pause();
}

void DownloadJob::Impl::resume() {
  if (!tryTransition(JobState::Paused, JobState::Running)) return;
  backend_.load()->resume();
  // Slots that came free during the pause are refilled when the next transfer ends.  When every transfer has ended
  // meanwhile there is no next one, and the job would stand still for ever.
  if (activeTransfers_ == 0) runSubmitRanges();
}

void DownloadJob::Impl::cancel() {
  {
    const sys::MutexLock lock(stateMutex_);
    if (!enter(JobState::Cancelling)) return;
  }
  stopping_.set();
  stopTransfers();
  if (activeTransfers_ < 1) markCancelled();
}

void DownloadJob::Impl::wait() {
  if (workerId_ == std::this_thread::get_id()) {
    throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
  }
  {
    const sys::MutexLock lock(workerMutex_);
    if (worker_.joinable()) worker_.join();
  }
  sys::MutexLock lock(stateMutex_);
  while (!isFinal(state_)) stateChanged_.wait(lock);
}

DownloadSnapshot DownloadJob::Impl::snapshot() const {
  DownloadSnapshot snapshot;
  {
    const sys::MutexLock lock(stateMutex_);
    snapshot.state = state_;
    snapshot.errorCode = errorCode_;
    snapshot.httpStatus = httpStatus_;
  }
  snapshot.bytesDone = bytesDone_;
  snapshot.totalBytes = totalBytes_;
  snapshot.bytesPerSec = bytesPerSec_;
  // A file of few ranges cannot collect many slow time-outs, so it is flagged after as many as it has ranges.
  const RangeScheduler* const scheduler = scheduler_;
  const std::uint32_t ranges = scheduler != nullptr ? scheduler->rangeCount() : 0;
  const std::uint32_t threshold = ranges >= 1 && ranges < kMostSlowTimeouts ? ranges : kMostSlowTimeouts;
  snapshot.throttled = slowTimeouts_ >= static_cast<std::int32_t>(threshold);
  if (snapshot.totalBytes != 0) {
    snapshot.percent = static_cast<float>(snapshot.bytesDone) * 100.0F / static_cast<float>(snapshot.totalBytes);
  }
  return snapshot;
}

// ---- The run ----

void DownloadJob::Impl::failOnException() {
  XFER_LOG(log::kFailure, "job exception");
  failJob(result::kException, 0);
  stopTransfers();
  settle();
}

void DownloadJob::Impl::runDoStart() noexcept {
  try {
    doStart();
  } catch (...) {
    failOnException();
  }
}

void DownloadJob::Impl::runSubmitRanges() noexcept {
  try {
    submitRanges();
  } catch (...) {
    failOnException();
  }
}

void DownloadJob::Impl::doStart() {
  if (const char* const field = unworkableField(policy_)) {
    XFER_LOG(log::kFailure, "doStart | policy refused | field=" << field);
    return failJob(CURLE_BAD_FUNCTION_ARGUMENT, 0);
  }
  const auto stopped = [this] {
    const JobState state = currentState();
    return state == JobState::Cancelling || isFinal(state);
  };
  std::uint64_t size = request_.knownSize;
  bool ranges = true;
  if (size == 0) {
    if (!tryTransition(JobState::Idle, JobState::Probing)) return markCancelled();
    const RemoteFileInfo remote = environment_.probe(request_, static_cast<int>(policy_.probeTimeoutSec), stopping_);
    if (stopped()) return markCancelled();
    if (remote.error != 0) {
      XFER_LOG(log::kFailure, "doStart | probe failed | err=" << remote.error);
      // Intended: an HTTP status is the error here, not the status that goes with one.
      return failJob(remote.error, 0);
    }
    size = remote.size;
    ranges = remote.acceptRanges;
    // A size that a range answer gave is what later ones must confirm.
    if (remote.httpStatus == 206 && size != 0) identity_.total = size;
    XFER_LOG(log::kTrace, "doStart | probed | size=" << size << " | ranges=" << (ranges ? 1 : 0)
                                                     << " | type=" << remote.contentType);
  }
  totalBytes_ = size;
  if (const std::int32_t error = sink_.open(request_.path, size); error != 0) {
    XFER_LOG(log::kFailure, "doStart | sink open failed | err=" << error);
    return failJob(error, 0);
  }
  if (stopped()) return markCancelled();
  DownloadPolicy policy = policy_;
  // The job goes on submitting as many as it likes; the backend runs one after the other.
  if (!ranges || size == 0) policy.numThreads = 1;
  schedulerOwner_ = std::make_unique<RangeScheduler>(size, policy);
  scheduler_ = schedulerOwner_.get();
  backendOwner_ = environment_.makeBackend(request_, policy);
  backend_ = backendOwner_.get();
  {
    const sys::MutexLock lock(stateMutex_);
    if (!enter(JobState::Running)) {
      enter(JobState::Cancelled);
      return;
    }
  }
  speedWindowStart_ = environment_.nowNs();
  submitRanges();
}

std::int32_t DownloadJob::Impl::transferLimit() const {
  return oneAtATime_ ? 1 : policy_.numThreads;
}

void DownloadJob::Impl::submitRanges() {
  ITransferBackend& backend = *backend_;
  for (;;) {
    const std::uint32_t requeues = requeues_;
    if (currentState() != JobState::Running || activeTransfers_ >= transferLimit()) return;
    // Counted before the state is looked at again: a cancel that comes now either sees this transfer, or is seen here.
    ++activeTransfers_;
    const auto range = currentState() == JobState::Running ? scheduler_.load()->nextPending() : std::nullopt;
    if (!range) {
      releaseTransfer();
      // Whoever put a range back meanwhile may have found the limit reached by what was counted here for nothing.
      if (requeues == requeues_) return;
      continue;
    }
    try {
      const auto flight = std::make_shared<Flight>();
      flight->start = range->first;
      flight->end = flight->neededEnd = range->second;
      {
        const sys::MutexLock lock(flightsMutex_);
        flights_[flight->start] = flight;
      }
      TransferRequest transfer;
      transfer.url = request_.url;
      transfer.cookie = request_.cookie;
      transfer.headers = request_.headers;
      transfer.proxy = request_.proxy;
      transfer.rangeStart = flight->start;
      transfer.rangeEnd = flight->end;
      transfer.maxRecvSpeed = policy_.maxDownloadSpeed / policy_.numThreads;
      transfer.onHead = [this, flight](const ResponseHead& head) { return onHead(flight, head); };
      backend.submit(
          transfer,
          [this, flight](std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length) {
            onData(*flight, offset, bytes, length);
          },
          [this, flight](std::uint64_t /*rangeStart*/, std::int32_t code, std::int32_t httpStatus, std::uint64_t got) {
            onDone(flight, code, httpStatus, got);
          });
    } catch (...) {
      releaseTransfer();
      throw;
    }
    // A stop that came while the transfer was on its way into the queue may have gone past it.
    if (const JobState state = currentState(); state == JobState::Cancelling || isFinal(state)) stopTransfers();
  }
}

// Gives up a counted transfer.
void DownloadJob::Impl::releaseTransfer() {
  if (activeTransfers_.fetch_sub(1) <= 1) settle();
}

// A job that is to end closes its file once nothing is in flight that may still write to it; that completes a cancel.
void DownloadJob::Impl::settle() {
  const JobState state = currentState();
  if (activeTransfers_ > 0 || (state != JobState::Cancelling && !isFinal(state))) return;
  {
    // A submitter that counted a transfer for nothing may be the last one too.
    const sys::MutexLock lock(closingMutex_);
    sink_.close();
  }
  markCancelled();
}

void DownloadJob::Impl::stopTransfers() {
  if (ITransferBackend* const backend = backend_) backend->cancelAll();
}

// ---- Callbacks, on the loop thread ----

Placement DownloadJob::Impl::onHead(const std::shared_ptr<Flight>& flight, const ResponseHead& head) {
  using Kind = RangeAnswer::Kind;
  using Action = Placement::Action;
  const RangeAnswer answer = judgeAnswer(head, flight->start, flight->end, identity_);
  switch (answer.kind) {
    case Kind::Range:
      return {Action::Deliver, flight->start, flight->end, 0};
    case Kind::NoContent:
      return {Action::Drop, 0, 0, 0};
    case Kind::Misplaced:
    case Kind::FileChanged:
      XFER_LOG(log::kFailure, "onHead | answer refused | range=" << flight->start << " | reason=" << answer.reason);
      flight->refusal = answer.kind;
      return {Action::Stop, 0, 0, CURLE_RANGE_ERROR};
    case Kind::WholeFile:
      break;
  }
  oneAtATime_ = true;
  {
    const sys::MutexLock lock(flightsMutex_);
    if (flights_.begin()->first != flight->start) {
      // A transfer of earlier bytes is under way; should it bring the whole file too, these would come twice.
      flight->unjudged = true;
      return {Action::Stop, 0, 0, CURLE_ABORTED_BY_CALLBACK};
    }
  }
  leadWholeFile(*flight);
  flight->wholeFile = true;
  flight->neededEnd = scheduler_.load()->openEnd();
  return {Action::Deliver, 0, flight->neededEnd, 0};
}

// Ends every other transfer in flight: the leader brings their bytes.
void DownloadJob::Impl::leadWholeFile(const Flight& leader) {
  const sys::MutexLock lock(flightsMutex_);
  for (const auto& [start, flight] : flights_) {
    if (start == leader.start) continue;
    flight->unjudged = true;
    backend_.load()->cancelRange(start);
  }
}

void DownloadJob::Impl::onData(const Flight& flight, std::uint64_t offset, const std::uint8_t* bytes,
                               std::uint64_t length) {
  if (flight.unjudged) return;
  // The result is not looked at: the sink remembers a failed write.
  static_cast<void>(sink_.writeAt(offset, bytes, length));
  bytesDone_ += length;
  const std::uint64_t end = offset + length;
  for (std::uint64_t mark = highWaterMark_; mark < end && !highWaterMark_.compare_exchange_weak(mark, end);) {
  }
  measureSpeed(length);
  if (sink_.writeFailed()) failWriting(result::kWriteFailed);
}

void DownloadJob::Impl::measureSpeed(std::uint64_t length) {
  speedWindowBytes_ += length;
  const std::uint64_t now = environment_.nowNs();
  const std::uint64_t elapsedNs = now - speedWindowStart_;
  if (elapsedNs < kSpeedWindowNs) return;
  bytesPerSec_ = speedWindowBytes_.exchange(0) * 1000 / (elapsedNs / 1'000'000);
  speedWindowStart_ = now;
}

void DownloadJob::Impl::onDone(const std::shared_ptr<Flight>& flight, std::int32_t code, std::int32_t httpStatus,
                               std::uint64_t bytes) noexcept {
  try {
    {
      const sys::MutexLock lock(flightsMutex_);
      flights_.erase(flight->start);
    }
    const std::uint64_t length = flight->end > flight->start ? flight->end - flight->start : 0;
    if (code == CURLE_OPERATION_TIMEDOUT && httpStatus == 206 && length != 0 && bytes < (length + 3) / 4) {
      ++slowTimeouts_;
    }
    onTransferDone(*flight, code, httpStatus, bytes);
  } catch (...) {
    failOnException();
  }
}

void DownloadJob::Impl::onTransferDone(const Flight& flight, std::int32_t code, std::int32_t httpStatus,
                                       std::uint64_t bytes) {
  const JobState state = currentState();
  if (isFinal(state) || state == JobState::Cancelling) return releaseTransfer();
  RangeScheduler& scheduler = *scheduler_;
  const Verdict verdict = classifyTransfer(code, httpStatus);
  if (!flight.unjudged && verdict == Verdict::Success) {
    if (leavesHole(flight, bytes)) {
      releaseTransfer();
      return failFatally(flight.start, CURLE_PARTIAL_FILE, httpStatus);
    }
    if (flight.wholeFile) {
      scheduler.completeFrom(flight.start);
    } else {
      scheduler.complete(flight.start);
    }
    // Still counted as in flight: nobody else may close the file meanwhile.
    const bool whole = scheduler.allDone();
    if (whole) finalizeFile();
    releaseTransfer();
    if (!whole) submitRanges();
    return;
  }
  releaseTransfer();
  if (flight.unjudged) {
    scheduler.release(flight.start);
    ++requeues_;
    return submitRanges();
  }
  if (flight.refusal == RangeAnswer::Kind::Misplaced) return retryOrFail(flight.start, code, httpStatus);
  switch (verdict) {
    case Verdict::Success:
      return;
    case Verdict::Rejected:
      XFER_LOG(log::kFailure, "cdn reject | range=" << flight.start << " | err=" << code << " | http=" << httpStatus);
      return failTransfer(code, httpStatus);
    case Verdict::Retryable:
      return retryOrFail(flight.start, code, httpStatus);
    case Verdict::Fatal:
      return failFatally(flight.start, code, httpStatus);
  }
}

// A range may be accepted although it is shorter than asked: then the file ends there, and is cut there.  It does not
// when there is content behind it: such a file must not pass for whole.
bool DownloadJob::Impl::leavesHole(const Flight& flight, std::uint64_t bytes) {
  const std::uint64_t reached = flight.start + bytes;
  if (reached < flight.neededEnd) contentEnd_ = std::min(contentEnd_, reached);
  if (highWaterMark_ <= contentEnd_) return false;
  XFER_LOG(log::kFailure,
           "onTransferDone | bytes are missing | from=" << contentEnd_ << " | written_up_to=" << highWaterMark_);
  return true;
}

void DownloadJob::Impl::retryOrFail(std::uint64_t rangeStart, std::int32_t code, std::int32_t httpStatus) {
  std::size_t attempt = 0;
  {
    const sys::MutexLock lock(retryMutex_);
    attempt = static_cast<std::size_t>(++retryAttempts_[rangeStart]);
  }
  if (attempt > kRetryDelaysMs.size()) {
    XFER_LOG(log::kFailure, "exhausted retries | range=" << rangeStart);
    return failFatally(rangeStart, code, httpStatus);
  }
  const std::uint64_t delayMs = kRetryDelaysMs[attempt - 1];
  XFER_LOG(log::kRecovery, "retry scheduled | range=" << rangeStart << " | attempt=" << attempt << " | delay_ms="
                                                      << delayMs << " | err=" << code << " | http=" << httpStatus);
  retryTimers_.schedule(delayMs, [this, rangeStart] {
    // Intended: a retry whose delay ends while the job is paused is dropped for good.
    if (currentState() != JobState::Running) return;
    scheduler_.load()->fail(rangeStart);
    ++requeues_;
    runSubmitRanges();
  });
}

void DownloadJob::Impl::failFatally(std::uint64_t rangeStart, std::int32_t code, std::int32_t httpStatus) {
  XFER_LOG(log::kFailure, "fatal | range=" << rangeStart << " | err=" << code << " | http=" << httpStatus);
  failTransfer(code, httpStatus);
}

void DownloadJob::Impl::failTransfer(std::int32_t code, std::int32_t httpStatus) {
  failJob(code != 0 ? code : httpStatus, httpStatus);
  stopTransfers();
  settle();
}

void DownloadJob::Impl::finalizeFile() {
  std::uint64_t size = totalBytes_ != 0 ? totalBytes_.load() : bytesDone_.load();
  const std::uint64_t actual = highWaterMark_;
  if (actual != 0 && actual < size) {
    XFER_LOG(log::kRecovery, "finalize adjusted | metadata=" << size << " | actual=" << actual);
    size = actual;
  }
  if (const std::int32_t error = sink_.finalize(size); error != 0) return failWriting(error);
  // Intended: a job that is paused at this moment keeps its file and stays paused.
  tryTransition(JobState::Running, JobState::Completed);
}

void DownloadJob::Impl::failWriting(std::int32_t error) {
  if (isFinal(currentState())) return;
  XFER_LOG(log::kFailure, "onTransferDone | finalize failed | err=" << error);
  failJob(error, 0);
  stopTransfers();
}

}  // namespace xfer
