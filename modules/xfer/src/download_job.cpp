#include "xfer/download_job.h"

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <string_view>
#include <system_error>
#include <utility>

#include "curl_multi_backend.h"
#include "download_job_impl.h"
#include "event_dispatcher.h"
#include "job_state.h"
#include "log.h"
#include "range_scheduler.h"
#include "request_text.h"
#include "result_codes.h"
#include "share_pool.h"
#include "steady_time.h"
#include "sys/module.h"

namespace xfer {
namespace {

constexpr const char* kLogTag = "DlJob";
constexpr std::uint64_t kSpeedWindowNs = 500'000'000;

// Bytes, of an adaptive plan: many connections get by with smaller buffers.
constexpr std::uint64_t kReceiveBuffers = 8388608;  // of all together
constexpr std::uint64_t kSmallestBuffer = 65536;
constexpr std::uint64_t kLargestBuffer = 524288;

DownloadRequest asSaidBy(const std::string& userAgent, DownloadRequest request) {
  addUserAgent(request.headers, userAgent);
  return request;
}

}  // namespace

JobEnvironment realJobEnvironment(const TlsTrust& trust) {
  JobEnvironment real;
  real.makeBackend = [trust](const DownloadRequest& request, const DownloadPolicy& policy) {
    return std::make_unique<CurlMultiBackend>(policy, originOf(request.url), trust);
  };
  real.probe = [trust](const DownloadRequest& request, int timeoutSec, const StopSignal& stop) {
    return probeStoppable(request, timeoutSec, stop, trust);
  };
  real.nowNs = steadyNs;
  real.hosts = &hostBook();
  real.waitForRetry = [](std::uint64_t delayMs, StopSignal& stop) { stop.waitFor(std::chrono::milliseconds(delayMs)); };
  return real;
}

// ---- The exported class ----

DownloadJob::DownloadJob(DownloadRequest request, DownloadPolicy policy)
    : impl_(std::make_unique<Impl>(std::move(request), policy, realJobEnvironment())) {}

DownloadJob::DownloadJob(DownloadRequest request, DownloadPolicy policy, const DownloadOptions& options)
    : impl_(std::make_unique<Impl>(asSaidBy(options.values().userAgent, std::move(request)), policy,
                                   realJobEnvironment(options.values().trust), options.values())) {}

DownloadJob::DownloadJob(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

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
  if (eventDispatcher().isHere()) {
    throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
  }
  impl_->wait();
}

bool DownloadJob::waitFor(std::uint64_t milliseconds) {
  return eventDispatcher().isHere() ? isFinal(impl_->snapshot().state) : impl_->waitFor(milliseconds);
}

void DownloadJob::setSpeedLimit(std::uint64_t bytesPerSec) noexcept {
  impl_->setSpeedLimit(bytesPerSec);
}

DownloadSnapshot DownloadJob::snapshot() const {
  return impl_->snapshot();
}

DownloadDetails DownloadJob::details() const {
  return impl_->details();
}

std::vector<DownloadEvent> DownloadJob::history(std::uint64_t fromNumber) const {
  return impl_->history(fromNumber);
}

// ---- The core and what it wants done ----

// Brings an event to the core, tells waiters when it changed the state, and has the host told what is new.
template <class Event>
decltype(auto) DownloadJob::Impl::withCore(Event&& event) {
  const sys::MutexLock lock(mutex_);
  struct Tell {
    Impl& job;
    const JobState before;
    const std::uint64_t newsBefore;
    ~Tell() SYS_NO_THREAD_SAFETY_ANALYSIS {
      const JobState now = job.core_.state();
      job.paused_ = now == JobState::Paused;
      if (now != before) job.stateChanged_.notifyAll();
      if (job.updates_ && job.core_.news().count() != newsBefore) eventDispatcher().wake(*job.updates_);
    }
  } const tell{*this, core_.state(), core_.news().count()};
  core_.setTime(environment_.nowNs());
  return event(core_);
}

// Brings an event to the core and does what it asks for.
template <class Event>
void DownloadJob::Impl::post(Event&& event) noexcept {
  try {
    carryOut(withCore(event));
  } catch (...) {
    failOnException();
  }
}

void DownloadJob::Impl::carryOut(const JobActions& actions) {
  if (actions.open) openFile(*actions.open);
  if (actions.cancelSuperseded) cancelSuperseded();
  for (const JobActions::Cut& cut : actions.cuts) backend_.load()->cut(cut.ticket, cut.end);
  if (ITransferBackend* const backend = backend_; actions.cancelAll && backend != nullptr) backend->cancelAll();
  if (actions.finalize) finalizeFile(*actions.finalize);
  if (actions.close) closeFile();
  if (actions.retry) {
    retryTimers_.schedule(actions.retry->delayMs,
                          [this, id = actions.retry->id] { post([id](JobCore& core) { return core.retryDue(id); }); });
  }
  if (actions.refill) refill();
}

void DownloadJob::Impl::failOnException() noexcept {
  XFER_LOG(log::kFailure, "job exception");
  failNow(result::kException);
}

// Without what may throw.
void DownloadJob::Impl::failNow(std::int32_t code) noexcept {
  const JobActions actions = withCore([code](JobCore& core) { return core.fail(code, 0); });
  if (ITransferBackend* const backend = backend_; actions.cancelAll && backend != nullptr) backend->cancelAll();
  if (actions.close) closeFile();
}

void DownloadJob::Impl::closeFile() noexcept {
  sink_.close();
  withCore([](JobCore& core) { core.closed(); });
}

void DownloadJob::Impl::cancelSuperseded() noexcept {
  const sys::MutexLock lock(mutex_);
  core_.takeSuperseded([this](Ticket ticket) { backend_.load()->cancel(ticket); });
}

void DownloadJob::Impl::finalizeFile(std::uint64_t size) {
  const std::uint64_t total = withCore([](JobCore& core) { return core.totalBytes(); });
  const std::uint64_t expected = total != 0 ? total : bytesDone_.load();
  if (size < expected) {
    XFER_LOG(log::kRecovery, "finalize adjusted | metadata=" << expected << " | actual=" << size);
  }
  const std::int32_t error = sink_.finalize(size);
  post([error](JobCore& core) { return core.finalized(error); });
}

// ---- The caller's side ----

DownloadJob::Impl::Impl(DownloadRequest request, DownloadPolicy policy, JobEnvironment environment,
                        DownloadOptions::Values options)
    : request_(std::move(request)),
      policy_(policy),
      options_(std::move(options)),
      environment_(std::move(environment)),
      updates_(options_.onUpdate ? std::make_shared<JobUpdates>(*this, options_.onUpdate, options_.progressInterval())
                                 : nullptr),
      core_(policy, options_.forCore(policy, environment_.nowNs() ^ reinterpret_cast<std::uintptr_t>(this))),
      sink_([this](std::chrono::milliseconds time) { stopping_.waitFor(time); }),
      retryTimers_([this](std::uint64_t delayMs) { environment_.waitForRetry(delayMs, stopping_); }) {
  // Shares of fixed connections make no sense when their number changes.
  const bool moves = options_.plan == DownloadPlan::Adaptive;
  if (moves && policy_.maxDownloadSpeed != 0) setSpeedLimit(policy_.maxDownloadSpeed);
}

DownloadJob::Impl::~Impl() {
  silence();
  cancel();
  {
    const sys::MutexLock lock(workerMutex_);
    if (worker_.joinable()) worker_.join();
  }
  // The loop thread ends before the timers do: nothing schedules another one then.  The object goes last of all.
  if (backendOwner_) backendOwner_->stop();
  retryTimers_.joinAll();
  backendOwner_.reset();
  sink_.close();
  withCore([](JobCore& core) { core.markCancelled(); });
}

void DownloadJob::Impl::start() {
  const bool idle = withCore([](JobCore& core) { return core.state() == JobState::Idle; });
  if (!idle || started_.exchange(true)) return;
  const std::shared_ptr<JobUpdates> updates = updates_;
  try {
    if (updates) eventDispatcher().add(updates);
    startRun();
  } catch (...) {
    if (updates) eventDispatcher().remove(*updates);
    started_ = false;
    throw;
  }
  if (updates) updates->open();  // the last thing that is done here: the host may destroy the job now
}

// On this thread, or on a worker when the server is to be asked first.
void DownloadJob::Impl::startRun() {
  if (request_.knownSize != 0 || options_.plan == DownloadPlan::Adaptive) return runDoStart();
  const sys::MutexLock lock(workerMutex_);
  worker_ = std::thread([this] {
    workerId_ = std::this_thread::get_id();
    runDoStart();
    workerId_ = std::thread::id();  // another thread may get the same one
    sys::releaseThreadState();
  });
}

void DownloadJob::Impl::pause() noexcept {
  const bool paused = withCore([](JobCore& core) { return core.pause(); });
  if (ITransferBackend* const backend = backend_; paused && backend != nullptr) backend->pause();
}

void DownloadJob::Impl::resume() noexcept {
  JobActions actions;
  const bool resumed = withCore([&](JobCore& core) { return core.resume(actions); });
  if (!resumed) return;
  backend_.load()->resume();
  post([&](JobCore&) { return actions; });
}

void DownloadJob::Impl::cancel() noexcept {
  post([](JobCore& core) { return core.cancel(); });
  stopping_.set();  // after the state: a probe that ends for it must not pass for one that failed
}

void DownloadJob::Impl::wait() {
  if (workerId_ == std::this_thread::get_id()) {
    throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur));
  }
  {
    const sys::MutexLock lock(workerMutex_);
    if (worker_.joinable()) worker_.join();
  }
  sys::MutexLock lock(mutex_);
  while (!isOver()) stateChanged_.wait(lock);
}

bool DownloadJob::Impl::waitFor(std::uint64_t milliseconds) {
  constexpr std::uint64_t kLongestMs = 1000ULL * 60 * 60 * 24 * 365;  // whatever is longer cannot be added to a time
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::min(milliseconds, kLongestMs));
  sys::MutexLock lock(mutex_);
  while (!isOver() && std::chrono::steady_clock::now() < end) stateChanged_.waitUntil(lock, end);
  return isOver();
}

// The host has been told the end by then, if it is told anything.
bool DownloadJob::Impl::isOver() const {
  return isFinal(core_.state()) && !(updates_ && updates_->isPending());
}

void DownloadJob::Impl::setSpeedLimit(std::uint64_t bytesPerSec) noexcept {
  ownLimit_.setRate(bytesPerSec, environment_.nowNs());
}

DownloadSnapshot DownloadJob::Impl::snapshot() const {
  DownloadSnapshot snapshot;
  {
    const sys::MutexLock lock(mutex_);
    snapshot.state = core_.state();
    snapshot.errorCode = core_.errorCode();
    snapshot.httpStatus = core_.httpStatus();
    snapshot.totalBytes = core_.totalBytes();
    snapshot.throttled = core_.throttled();
  }
  snapshot.bytesDone = bytesDone_;
  // What an adaptive plan fetches twice is no progress.
  const bool moves = options_.plan == DownloadPlan::Adaptive;
  if (moves && snapshot.totalBytes != 0) snapshot.bytesDone = std::min(snapshot.bytesDone, snapshot.totalBytes);
  snapshot.bytesPerSec = bytesPerSec_;
  if (snapshot.totalBytes != 0) {
    snapshot.percent = static_cast<float>(snapshot.bytesDone) * 100.0F / static_cast<float>(snapshot.totalBytes);
  }
  return snapshot;
}

DownloadDetails DownloadJob::Impl::details() {
  return DownloadDetails(
      std::make_unique<DownloadDetails::Values>(withCore([](const JobCore& core) { return core.details(); })));
}

void DownloadJob::Impl::silence() noexcept {
  if (!updates_) return;
  updates_->close();
  endTold();  // or never to be told
}

void DownloadJob::Impl::endTold() noexcept {
  const sys::MutexLock lock(mutex_);
  stateChanged_.notifyAll();
}

std::vector<DownloadEvent> DownloadJob::Impl::news(std::uint64_t fromNumber) {
  const sys::MutexLock lock(mutex_);
  return core_.news().from(fromNumber);
}

void DownloadJob::Impl::callbackThrew() noexcept {
  failNow(result::kCallbackThrew);
  stopping_.set();
}

std::vector<DownloadEvent> DownloadJob::Impl::history(std::uint64_t fromNumber) const {
  const sys::MutexLock lock(mutex_);
  return core_.history().from(fromNumber);
}

std::size_t DownloadJob::Impl::inFlight() const {
  const sys::MutexLock lock(mutex_);
  return core_.inFlight();
}

bool DownloadJob::Impl::standsStill() const {
  const sys::MutexLock lock(mutex_);
  return core_.standsStill();
}

// ---- The run ----

void DownloadJob::Impl::runDoStart() noexcept {
  try {
    doStart();
  } catch (...) {
    failOnException();
  }
}

void DownloadJob::Impl::doStart() {
  using SizeFrom = JobCore::SizeFrom;
  const auto failWith = [this](std::int32_t code, const ShortText& why) {
    post([&](JobCore& core) { return core.fail(code, 0, why); });
  };
  const auto markCancelled = [this] { withCore([](JobCore& core) { core.markCancelled(); }); };
  const auto stopped = [this] { return withCore([](JobCore& core) { return core.ending(); }); };

  if (const char* const field = unworkableField(policy_)) {
    XFER_LOG(log::kFailure, "doStart | policy refused | field=" << field);
    return failWith(CURLE_BAD_FUNCTION_ARGUMENT, ShortText::of("the policy's ", field, " cannot be used"));
  }
  if (const char* const option = options_.unworkable()) {
    XFER_LOG(log::kFailure, "doStart | options refused | field=" << option);
    return failWith(CURLE_BAD_FUNCTION_ARGUMENT, ShortText::of("the option ", option, " cannot be used"));
  }
  if (options_.plan == DownloadPlan::Adaptive) return startMoving();
  std::uint64_t size = request_.knownSize;
  bool ranges = true;
  SizeFrom from = SizeFrom::Host;
  if (size == 0) {
    if (!withCore([](JobCore& core) { return core.beginProbe(); })) return markCancelled();
    const ProbedFile remote = environment_.probe(request_, static_cast<int>(policy_.probeTimeoutSec), stopping_);
    if (stopped()) return markCancelled();
    if (remote.error != 0) {
      XFER_LOG(log::kFailure, "doStart | probe failed | err=" << remote.error);
      // Intended: an HTTP status is the error here, not the status that goes with one.
      return failWith(remote.error, remote.failure);
    }
    size = remote.size;
    ranges = remote.acceptRanges;
    from = remote.httpStatus == 206 ? SizeFrom::ProbedRange : SizeFrom::ProbedFile;
    XFER_LOG(log::kTrace, "doStart | probed | size=" << size << " | ranges=" << (ranges ? 1 : 0)
                                                     << " | type=" << remote.contentType);
  }
  withCore([&](JobCore& core) { core.setSize(size, from); });
  if (const std::int32_t error = sink_.open(request_.path, size); error != 0) {
    XFER_LOG(log::kFailure, "doStart | sink open failed | err=" << error);
    return failWith(error, sink_.failureText());
  }
  post([](JobCore& core) { return core.fileOpened(); });
  if (stopped()) return;
  DownloadPolicy policy = policy_;
  // The job goes on submitting as many as it likes; the backend runs one after the other.
  if (!ranges || size == 0) policy.numThreads = 1;
  withCore([&](JobCore& core) { core.plan(policy); });
  backendOwner_ = environment_.makeBackend(request_, policy);
  backend_ = backendOwner_.get();
  speedWindowStart_ = environment_.nowNs();
  post([](JobCore& core) { return core.run(); });
}

// Begins a download whose ranges move.  All that follows is done on the loop thread, from its first turn on.
void DownloadJob::Impl::startMoving() {
  const bool begun = withCore([this](JobCore& core) {
    if (!core.beginProbe()) return false;
    core.setSize(request_.knownSize, JobCore::SizeFrom::Host);
    core.plan(policy_);
    if (environment_.hosts != nullptr) core.adopt(environment_.hosts->of(originOf(request_.url)));
    return true;
  });
  if (!begun) {
    withCore([](JobCore& core) { core.markCancelled(); });
    return;
  }
  backendOwner_ = environment_.makeBackend(request_, policy_);
  speedWindowStart_ = environment_.nowNs();
  backend_ = backendOwner_.get();
  backendOwner_->onTurn([this](const LoopTurn& turn) { onTurn(turn); });
}

void DownloadJob::Impl::onTurn(LoopTurn turn) {
  // Without turns nothing is submitted that could fail.
  if (turn.last) {
    XFER_LOG(log::kFailure, "fatal | no transfer can run any more | err=" << CURLE_ABORTED_BY_CALLBACK);
    return post([](JobCore& core) { return core.fail(CURLE_ABORTED_BY_CALLBACK, 0); });
  }
  turn.nowNs = environment_.nowNs();
  post([&](JobCore& core) { return core.turned(turn); });
  if (environment_.hosts != nullptr) exchangeTerms();
}

// Jobs of one host go by what it asked any of them for.
void DownloadJob::Impl::exchangeTerms() {
  const std::string_view origin = originOf(request_.url);
  const HostTerms own = *withCore([](JobCore& core) { return core.hostTerms(); });
  if (own != toldTerms_) {
    environment_.hosts->note(origin, own);
    toldTerms_ = own;
  }
  const HostTerms known = environment_.hosts->of(origin);
  if (known.notBeforeNs > own.notBeforeNs) withCore([&](JobCore& core) { core.adopt({known.notBeforeNs, 0}); });
}

void DownloadJob::Impl::openFile(std::uint64_t size) {
  const std::int32_t error = sink_.open(request_.path, size);
  if (error == 0) return post([](JobCore& core) { return core.fileOpened(); });
  XFER_LOG(log::kFailure, "doStart | sink open failed | err=" << error);
  post([&](JobCore& core) { return core.fail(error, 0, sink_.failureText()); });
}

void DownloadJob::Impl::refill() {
  while (const FlightPtr flight = withCore([](JobCore& core) { return core.next(); })) submit(flight);
}

void DownloadJob::Impl::submit(const FlightPtr& flight) {
  ITransferBackend& backend = *backend_;
  try {
    TransferRequest transfer;
    transfer.url = request_.url;
    transfer.cookie = request_.cookie;
    transfer.headers = request_.headers;
    transfer.proxy = request_.proxy;
    transfer.rangeStart = flight->asked.start;
    transfer.rangeEnd = flight->asked.end;
    transfer.maxRecvSpeed = policy_.maxDownloadSpeed / policy_.numThreads;
    transfer.limits = {&ownLimit_, options_.sharedLimit.get()};
    transfer.isHeld = [this] { return paused_.load(); };
    transfer.onHead = [this, flight](const ResponseHead& head) { return onHead(flight, head); };
    if (options_.plan == DownloadPlan::Adaptive) {
      transfer.freshConnection = flight->freshConnection;
      transfer.receiveBuffer = std::clamp(kReceiveBuffers / policy_.numThreads, kSmallestBuffer, kLargestBuffer);
      transfer.onThrottled = [flight](bool held) { flight->throttled = held; };
    }
    const Ticket ticket = backend.submit(
        transfer,
        [this, flight](std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length) {
          onData(*flight, offset, bytes, length);
        },
        [this, flight](std::uint64_t /*rangeStart*/, const TransferEnd& end) {
          post([&](JobCore& core) { return core.ended(flight, end); });
        });
    // A stop that came while the transfer was on its way into the queue has gone past it.
    if (withCore([&](JobCore& core) { return core.submitted(*flight, ticket); })) backend.cancel(ticket);
  } catch (...) {
    XFER_LOG(log::kFailure, "job exception");
    post([&](JobCore& core) { return core.abandoned(flight); });
  }
}

// ---- The data path, on the loop thread ----

Placement DownloadJob::Impl::onHead(const FlightPtr& flight, const ResponseHead& head) {
  JobActions actions;
  Placement placement = withCore([&](JobCore& core) { return core.answered(flight, head, actions); });
  carryOut(actions);
  if (actions.open && !sink_.isOpen()) {
    placement.action = Placement::Action::Stop;
    placement.code = CURLE_ABORTED_BY_CALLBACK;
  }
  return placement;
}

void DownloadJob::Impl::onData(JobCore::Flight& flight, std::uint64_t offset, const std::uint8_t* bytes,
                               std::uint64_t length) {
  if (flight.superseded) return;
  if (flight.sample) {
    flight.sampled.insert(flight.sampled.end(), bytes, bytes + length);
    return;
  }
  // The result is not looked at: the sink remembers a failed write.
  flight.kept.eachMissing({offset, offset + length}, [&](const ByteRange& part) {
    static_cast<void>(sink_.writeAt(part.start, bytes + (part.start - offset), part.length()));
  });
  if (flight.hasher) flight.hasher->add(bytes, length);
  flight.position = offset + length;
  bytesDone_ += length;
  measureSpeed(length);
  if (sink_.writeFailed())
    post([this](JobCore& core) { return core.writeFailed(result::kWriteFailed, sink_.failureText()); });
}

void DownloadJob::Impl::measureSpeed(std::uint64_t length) {
  speedWindowBytes_ += length;
  const std::uint64_t now = environment_.nowNs();
  const std::uint64_t elapsedNs = now - speedWindowStart_;
  if (elapsedNs < kSpeedWindowNs) return;
  bytesPerSec_ = std::exchange(speedWindowBytes_, 0) * 1000 / (elapsedNs / 1'000'000);
  speedWindowStart_ = now;
}

}  // namespace xfer
