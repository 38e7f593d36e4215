#include "job_core.h"

#include <curl/curl.h>

#include <algorithm>
#include <utility>

#include "job_state.h"
#include "log.h"
#include "result_codes.h"
#include "retry_policy.h"

namespace xfer {
namespace {

constexpr const char* kLogTag = "DlJob";
constexpr std::int32_t kMostSlowTimeouts = 5;
constexpr std::uint64_t kSmallAnswer = 1024;
constexpr int kMostSmallAnswers = 10;
constexpr int kMostAnswersOfOldVersion = 16;
constexpr int kMostDoubtsInARow = 8;

Placement stopWith(std::int32_t code) {
  Placement placement;
  placement.action = Placement::Action::Stop;
  placement.code = code;
  return placement;
}

}  // namespace

// ---- State ----

// The one place where the state changes.
bool JobCore::enter(JobState to) noexcept {
  if (!mayFollow(state_, to)) return false;
  state_ = to;
  return true;
}

bool JobCore::ending() const {
  return state_ == JobState::Cancelling || isFinal(state_);
}

bool JobCore::throttled() const {
  // A file of few ranges cannot collect many slow time-outs, so it is flagged after as many as it has ranges.
  const std::uint32_t ranges = scheduler_ ? scheduler_->rangeCount() : 0;
  const bool few = ranges >= 1 && ranges < static_cast<std::uint32_t>(kMostSlowTimeouts);
  return slowTimeouts_ >= (few ? static_cast<std::int32_t>(ranges) : kMostSlowTimeouts);
}

bool JobCore::standsStill() const {
  return !ending() && (retryDropped_ || finalized_);
}

// A job that is to end closes its file once nothing is in flight that may still write to it; that completes a cancel.
void JobCore::settle(JobActions& actions) noexcept {
  if (!ending() || !flights_.empty() || finalizing_) return;
  if (!fileOpen_) {
    enter(JobState::Cancelled);
  } else if (!closing_) {
    closing_ = true;
    actions.close = true;
  }
}

void JobCore::closed() noexcept {
  enter(JobState::Cancelled);
}

void JobCore::failFrom(std::int32_t code, std::int32_t httpStatus, JobActions& actions) noexcept {
  if (!enter(JobState::Failed)) return;
  errorCode_ = code;
  httpStatus_ = httpStatus;
  actions.cancelAll = true;
  settle(actions);
}

JobActions JobCore::fail(std::int32_t code, std::int32_t httpStatus) noexcept {
  JobActions actions;
  failFrom(code, httpStatus, actions);
  return actions;
}

JobActions JobCore::cancel() noexcept {
  JobActions actions;
  if (!enter(JobState::Cancelling)) return actions;
  actions.cancelAll = true;
  settle(actions);
  return actions;
}

bool JobCore::resume(JobActions& actions) noexcept {
  if (state_ != JobState::Paused || !enter(JobState::Running)) return false;
  // Intended: slots that came free during the pause are refilled when the next transfer ends.  When every transfer has
  // ended meanwhile there is no next one.
  actions.refill = flights_.empty();
  return true;
}

// ---- Start ----

void JobCore::setSize(std::uint64_t size, SizeFrom from) {
  totalBytes_ = size;
  if (size == 0) return;
  hostGaveSize_ = from == SizeFrom::Host;
  if (hostGaveSize_) {
    extent_.announceByHost(size);
  } else {
    extent_.announceByProbe(size, from == SizeFrom::ProbedRange);
  }
}

JobActions JobCore::fileOpened() noexcept {
  JobActions actions;
  fileOpen_ = true;
  settle(actions);
  return actions;
}

void JobCore::plan(const DownloadPolicy& policy) {
  planPolicy_ = policy;
  planSize_ = totalBytes_;
  scheduler_ = std::make_unique<RangeScheduler>(planSize_, planPolicy_);
}

JobActions JobCore::run() {
  JobActions actions;
  if (enter(JobState::Running)) {
    actions.refill = true;
  } else {
    enter(JobState::Cancelled);
  }
  return actions;
}

// ---- What is fetched next ----

JobCore::FlightPtr JobCore::addFlight() {
  auto flight = std::make_shared<Flight>();
  flight->id = ++lastFlight_;
  flight->generation = generation_;
  flights_.emplace(flight->id, flight);
  return flight;
}

JobCore::FlightPtr JobCore::next() {
  if (state_ != JobState::Running) return nullptr;
  return doubt_ ? nextSample() : nextRange();
}

JobCore::FlightPtr JobCore::nextRange() {
  if (flights_.size() >= limit()) return nullptr;
  auto flight = addFlight();  // first: it may throw, and a range that was handed out must not be lost
  std::optional<ByteRange> range;
  if (!rests_.empty()) {
    range = rests_.front();
    rests_.pop_front();
  } else {
    range = scheduler_->nextPending();
  }
  if (!range) {
    flights_.erase(flight->id);
    return nullptr;
  }
  flight->rangeStart = range->start;
  flight->asked = *range;
  if (const auto known = progress_.find(range->start); known != progress_.end()) {
    flight->asked.start = std::max(range->start, known->second.reached);
  }
  // The rest of a file whose size was unknown when it was planned.
  if (range->empty() && flight->asked.start != 0) flight->asked.end = extent_.size().value_or(0);
  return flight;
}

bool JobCore::submitted(Flight& flight, Ticket ticket) {
  flight.ticket = ticket;
  return flight.superseded || ending();
}

JobActions JobCore::abandoned(const FlightPtr& flight) noexcept {
  JobActions actions;
  flights_.erase(flight->id);
  failFrom(result::kException, 0, actions);
  settle(actions);
  return actions;
}

// ---- Answers ----

bool JobCore::isLowest(const Flight& flight) const {
  return std::none_of(flights_.begin(), flights_.end(), [&](const auto& other) {
    return !other.second->superseded && other.second->asked.start < flight.asked.start;
  });
}

bool JobCore::othersAreAnswered(const Flight& flight) const {
  return std::any_of(flights_.begin(), flights_.end(), [&](const auto& other) {
    return other.second.get() != &flight && !other.second->superseded && other.second->answer;
  });
}

Placement JobCore::refuse(Flight& flight, Flight::Refusal refusal, const char* reason) {
  XFER_LOG(log::kFailure, "onHead | answer refused | range=" << flight.asked.start << " | reason=" << reason);
  flight.refusal = refusal;
  return stopWith(CURLE_RANGE_ERROR);
}

// The range is asked for again later.
Placement JobCore::putBack(Flight& flight) {
  flight.superseded = true;
  return stopWith(CURLE_ABORTED_BY_CALLBACK);
}

Placement JobCore::answered(const FlightPtr& flight, const ResponseHead& head, JobActions& actions) {
  using Kind = AnswerClaim::Kind;
  using Fit = FileExtent::Fit;
  using Refusal = Flight::Refusal;
  if (flight->superseded || ending()) return stopWith(CURLE_ABORTED_BY_CALLBACK);
  const AnswerClaim claim = readClaim(head, flight->asked.start);
  if (claim.kind == Kind::NoContent) {
    Placement drop;
    drop.action = Placement::Action::Drop;
    return drop;
  }
  if (claim.kind == Kind::Unusable) return refuse(*flight, Refusal::Unusable, claim.reason);
  const Validator validator = validatorOf(head);
  if (flight->sample) return answeredSample(*flight, claim, validator);

  const bool whole = claim.kind == Kind::WholeFile;
  if (whole) oneAtATime_ = true;
  const bool leads = whole && isLowest(*flight);
  // Whether anything would be mixed with this answer's bytes.
  const bool mixes = extent_.holdsBytes() || (!leads && othersAreAnswered(*flight));
  Fit fit = Fit::Fits;
  if (whole) {
    fit = extent_.judgeLength(claim.length);
  } else if (claim.total) {
    fit = extent_.judgeTotal(*claim.total);
  }
  if (fit == Fit::Contradicts || (fit == Fit::Replaces && mixes)) {
    return refuse(*flight, Refusal::Changed, "size of the remote file changed");
  }
  const Likeness likeness = version_.judge(validator);
  if (likeness == Likeness::Other && mixes) {
    return refuse(*flight, Refusal::Changed, "entity tag of the remote file changed");
  }
  if (likeness == Likeness::Doubt && mixes) return raiseDoubt(*flight, validator);
  // A transfer of earlier bytes is under way; should it bring the whole file too, these would come twice.
  if (whole && !leads) return putBack(*flight);
  if (whole && claim.length && flight->asked.start != 0 && *claim.length <= flight->asked.start) {
    return refuse(*flight, Refusal::Changed, "whole file ends before the range");
  }

  if (likeness != Likeness::Same) {
    version_.forget();
    sample_.clear();
  }
  if (fit == Fit::Replaces) giveWay(whole ? claim.length : claim.total);
  if (whole) {
    extent_.confirmLength(claim.length);
  } else if (claim.total) {
    extent_.confirmTotal(*claim.total);
  }
  version_.accept(validator);
  noteHostsSize();
  if (!whole && planSize_ != 0 && !extent_.holdsBytes() && extent_.size() != planSize_) {
    replan(*flight, actions);
    return putBack(*flight);
  }
  return place(*flight, claim, validator, actions);
}

Placement JobCore::place(Flight& flight, const AnswerClaim& claim, const Validator& validator, JobActions& actions) {
  const bool whole = claim.kind == AnswerClaim::Kind::WholeFile;
  Placement placement;
  if (whole) {
    supersedeOthers(flight, actions);
    flight.kept = extent_.delivered();
    const auto size = extent_.holdsBytes() && extent_.confirmed() ? extent_.confirmed() : extent_.rangedTotal();
    const bool hostCuts = hostGaveSize_ && extent_.size() < size;
    if (!claim.length && size && !hostCuts) {
      // What was delivered, or a range, says where the file ends: a body that ends elsewhere is of another one.  Only
      // its end can tell, so it is read up to there, whatever is needed of it.
      placement.end = size;
      placement.code = CURLE_RANGE_ERROR;
      if (claim.endIsSeen) placement.codeIfShort = CURLE_RANGE_ERROR;
    } else if (claim.length || hostGaveSize_) {
      // What only the probe said does not bind a body without a length.
      placement.end = extent_.size() == planSize_ ? scheduler_->openEnd() : extent_.size();
    }
  } else {
    placement.bodyOffset = flight.asked.start;
    if (flight.asked.end != 0) placement.end = flight.asked.end;
    // Of a file that goes on, a body that is shorter than asked but as long as named is whole.
    if (claim.namedEnd && extent_.goesOnAt(*claim.namedEnd)) placement.namedEnd = claim.namedEnd;
  }
  flight.answer = Flight::Answer{claim, placement.end, validator};
  const bool decides = !validator.strongEtag.empty();
  if (!decides && validator.says()) flight.hasher.emplace(flight.asked.start, sample_.stride());
  return placement;
}

// No other transfer in flight is of any use.
void JobCore::supersedeOthers(const Flight& flightThatCounts, JobActions& actions) {
  for (const auto& [id, flight] : flights_) {
    if (id == flightThatCounts.id || flight->superseded) continue;
    flight->superseded = flight->toCancel = true;
    actions.cancelSuperseded = true;
  }
}

// The file has another size than the one it was cut by, and nothing of it was fetched yet.
void JobCore::replan(const Flight& flight, JobActions& actions) {
  supersedeOthers(flight, actions);
  ++generation_;
  progress_.clear();
  rests_.clear();
  retries_.clear();
  planSize_ = totalBytes_ = *extent_.size();
  scheduler_ = std::make_unique<RangeScheduler>(planSize_, planPolicy_);
}

// What was said of the size so far is of no use, and nothing was fetched by it that counts.
void JobCore::giveWay(std::optional<std::uint64_t> size) {
  XFER_LOG(log::kRecovery,
           "onHead | size gives way | announced=" << extent_.size().value_or(0) << " | actual=" << size.value_or(0));
  extent_.forget();
  if (!hostGaveSize_ && totalBytes_ != 0) totalBytes_ = size.value_or(0);
}

void JobCore::noteHostsSize() {
  if (hostsSizeNoted_ || !extent_.hostIsContradicted()) return;
  hostsSizeNoted_ = true;
  XFER_LOG(log::kRecovery,
           "onHead | known size is contradicted | known=" << totalBytes_ << " | server=" << *extent_.confirmed());
}

// ---- Ends ----

JobActions JobCore::ended(const FlightPtr& flight, const TransferEnd& end) {
  JobActions actions;
  flights_.erase(flight->id);
  const std::uint64_t length = flight->asked.length();
  if (end.code == CURLE_OPERATION_TIMEDOUT && end.status == 206 && length != 0 && end.bytes < (length + 3) / 4) {
    ++slowTimeouts_;
  }
  if (ending()) {
    settle(actions);
  } else if (flight->superseded) {
    if (!flight->sample && flight->generation == generation_) scheduler_->release(flight->rangeStart);
    proceed(actions);
  } else if (flight->sample) {
    sampleEnded(*flight, end, actions);
  } else if (flight->refusal == Flight::Refusal::Unusable) {
    retryOrFail(flight->rangeStart, end, actions);
  } else if (classifyTransfer(end.code, end.status) == Verdict::Success) {
    succeeded(*flight, end, actions);
  } else {
    failed(*flight, end, actions);
  }
  return actions;
}

// What follows when the job goes on.
void JobCore::proceed(JobActions& actions) {
  settleDoubt(actions);
  actions.refill = !ending();
}

// A doubt waits for what is in flight.
void JobCore::settleDoubt(JobActions& actions) {
  if (!doubt_ || doubt_->prepared || !flights_.empty()) return;
  prepareSample(actions);
  actions.refill = !ending();
}

void JobCore::succeeded(Flight& flight, const TransferEnd& end, JobActions& actions) {
  const std::uint64_t reached = flight.asked.start + end.bytes;
  const bool whole = flight.answer && flight.answer->claim.kind == AnswerClaim::Kind::WholeFile;
  if (whole && !endWholeFile(flight, reached, end, actions)) return;
  if (flight.answer && !whole && end.bytes == 0) {
    // No range is empty.
    return retryOrFail(flight.rangeStart, {CURLE_PARTIAL_FILE, end.status, end.bytes}, actions);
  }
  extent_.deliver({flight.asked.start, reached});
  doubtsInARow_ = 0;
  if (flight.hasher) {
    std::vector<HashedBlock> blocks = flight.hasher->finish();
    std::erase_if(blocks, [&](const HashedBlock& block) { return flight.kept.meets(block.range); });
    sample_.add(blocks);
  }
  if (whole) {
    completeFrom(flight.rangeStart);
    return finishIfWhole(flight, end, actions);
  }
  if (flight.asked.end == 0 || reached < flight.asked.end) {
    const std::uint64_t named = flight.answer ? flight.answer->claim.namedEnd.value_or(0) : 0;
    if (extent_.goesOnAt(reached) || named > reached) {
      return continueRange(flight, reached, end, actions);
    }
    extent_.endAt(reached);
  }
  scheduler_->complete(flight.rangeStart);
  finishIfWhole(flight, end, actions);
}

// Judges the end of a whole file's body; false when it is not the file's.
bool JobCore::endWholeFile(Flight& flight, std::uint64_t reached, const TransferEnd& end, JobActions& actions) {
  using Fit = FileExtent::Fit;
  const auto& answer = *flight.answer;
  if (answer.neededEnd) {
    if (reached < *answer.neededEnd || reached == extent_.confirmed()) extent_.endAt(reached);
    return true;
  }
  const auto size = extent_.size();
  if (!answer.claim.endIsSeen && size && reached < *size) {
    // The end of the connection is all that ended this body.
    retryOrFail(flight.rangeStart, {CURLE_PARTIAL_FILE, end.status, end.bytes}, actions);
    return false;
  }
  const Fit fit = extent_.judgeLength(reached);
  const bool mixes = extent_.holdsBytes();
  if (fit == Fit::Contradicts || (fit == Fit::Replaces && mixes) || (end.bytes == 0 && flight.asked.start != 0)) {
    XFER_LOG(log::kFailure, "onTransferDone | size of the remote file changed | end=" << reached);
    failFatally(flight.rangeStart, {CURLE_RANGE_ERROR, end.status, end.bytes}, actions);
    return false;
  }
  if (fit == Fit::Replaces) giveWay(reached);
  extent_.confirmLength(reached);
  return true;
}

// The server sent less of the range than asked, and the file goes on.
void JobCore::continueRange(const Flight& flight, std::uint64_t reached, const TransferEnd& end, JobActions& actions) {
  if (!partsNoted_) {
    partsNoted_ = true;
    XFER_LOG(log::kRecovery, "onTransferDone | server sends less of a range than asked | range="
                                 << flight.asked.start << " | asked=" << flight.asked.length()
                                 << " | got=" << end.bytes);
  }
  Progress& progress = progress_[flight.rangeStart];
  progress.reached = reached;
  progress.smallAnswers = end.bytes < kSmallAnswer ? progress.smallAnswers + 1 : 0;
  if (progress.smallAnswers == kMostSmallAnswers) {
    progress.smallAnswers = 0;
    return retryOrFail(flight.rangeStart, {CURLE_PARTIAL_FILE, end.status, end.bytes}, actions);
  }
  rests_.push_back({flight.rangeStart, scheduler_->endOf(flight.rangeStart)});
  proceed(actions);
}

// Every range from this one on is complete, and what was planned for one is not needed any more.
void JobCore::completeFrom(std::uint64_t rangeStart) {
  scheduler_->completeFrom(rangeStart);
  std::erase_if(rests_, [&](const ByteRange& range) { return range.start >= rangeStart; });
  std::erase_if(retries_, [&](const auto& retry) { return retry.second && *retry.second >= rangeStart; });
}

void JobCore::finishIfWhole(const Flight& flight, const TransferEnd& end, JobActions& actions) {
  const bool allDone = scheduler_->allDone();
  if (extent_.hasHole() || (allDone && !extent_.complete())) {
    XFER_LOG(log::kFailure,
             "onTransferDone | bytes are missing | from=" << std::min(extent_.firstMissing(), extent_.end().value_or(0))
                                                          << " | written_up_to=" << extent_.deliveredUpTo());
    return failFatally(flight.asked.start, {CURLE_PARTIAL_FILE, end.status, end.bytes}, actions);
  }
  if (!allDone) return proceed(actions);
  doubt_.reset();  // the answer that raised it was put back, and is not needed any more
  finalizing_ = true;
  actions.finalize = extent_.end();
}

JobActions JobCore::finalized(std::int32_t error) {
  finalizing_ = false;
  JobActions actions;
  if (error != 0) {
    actions = writeFailed(error);
    settle(actions);
    return actions;
  }
  finalized_ = true;
  // Intended: a job that is paused at this moment keeps its file and stays paused.
  if (state_ == JobState::Running) enter(JobState::Completed);
  settle(actions);
  return actions;
}

JobActions JobCore::writeFailed(std::int32_t error) {
  JobActions actions;
  if (isFinal(state_)) return actions;
  XFER_LOG(log::kFailure, "onTransferDone | finalize failed | err=" << error);
  failFrom(error, 0, actions);
  return actions;
}

// ---- Failures ----

void JobCore::failed(const Flight& flight, const TransferEnd& end, JobActions& actions) {
  switch (classifyTransfer(end.code, end.status)) {
    case Verdict::Success:
      return;
    case Verdict::Rejected:
      XFER_LOG(log::kFailure,
               "cdn reject | range=" << flight.asked.start << " | err=" << end.code << " | http=" << end.status);
      return failFrom(end.code != 0 ? end.code : end.status, end.status, actions);
    case Verdict::Retryable:
      return retryOrFail(flight.rangeStart, end, actions);
    case Verdict::Fatal:
      return failFatally(flight.asked.start, end, actions);
  }
}

void JobCore::retryOrFail(std::uint64_t rangeStart, const TransferEnd& end, JobActions& actions) {
  const std::size_t attempt = ++(doubt_ && doubt_->prepared ? doubt_->attempts : progress_[rangeStart].attempts);
  if (attempt > kRetryDelaysMs.size()) {
    XFER_LOG(log::kFailure, "exhausted retries | range=" << rangeStart);
    return failFatally(rangeStart, end, actions);
  }
  Retry retry;
  retry.id = ++lastRetry_;
  retry.delayMs = kRetryDelaysMs[attempt - 1];
  XFER_LOG(log::kRecovery, "retry scheduled | range=" << rangeStart << " | attempt=" << attempt
                                                      << " | delay_ms=" << retry.delayMs << " | err=" << end.code
                                                      << " | http=" << end.status);
  retries_.emplace(retry.id, rangeStart);
  actions.retry = retry;
  // Intended: nothing takes the range's slot meanwhile.
  settleDoubt(actions);
}

JobActions JobCore::retryDue(std::uint64_t id) {
  JobActions actions;
  const auto retry = retries_.find(id);
  if (retry == retries_.end()) return actions;
  const std::optional<std::uint64_t> rangeStart = retry->second;
  retries_.erase(retry);
  if (!rangeStart) {
    if (doubt_) doubt_->waiting = false;
    proceed(actions);
    return actions;
  }
  if (state_ != JobState::Running) {
    // Intended: a retry whose delay ends while the job is paused is dropped for good.
    retryDropped_ = retryDropped_ || state_ == JobState::Paused;
    return actions;
  }
  scheduler_->fail(*rangeStart);
  proceed(actions);
  return actions;
}

void JobCore::failFatally(std::uint64_t rangeStart, const TransferEnd& end, JobActions& actions) {
  XFER_LOG(log::kFailure, "fatal | range=" << rangeStart << " | err=" << end.code << " | http=" << end.status);
  failFrom(end.code != 0 ? end.code : end.status, end.status, actions);
}

// ---- Doubts ----

Placement JobCore::raiseDoubt(Flight& flight, const Validator& validator) {
  if (!doubt_) {
    if (++doubtsInARow_ > kMostDoubtsInARow) {
      return refuse(flight, Flight::Refusal::Changed, "validator of the remote file changes all the time");
    }
    XFER_LOG(log::kRecovery, "onHead | validator changed, a sample will tell | range=" << flight.asked.start);
    Doubt doubt;
    doubt.candidate = validator;
    doubt_ = std::move(doubt);
  }
  return putBack(flight);
}

// What was delivered under the validators known so far is complete now: nothing is in flight.
void JobCore::prepareSample(JobActions& actions) {
  // The transfers that the answer in doubt was compared with have failed, and a later one brought its version.
  if (version_.judge(doubt_->candidate) == Likeness::Same) return doubt_.reset();
  doubt_->blocks = sample_.pick();
  doubt_->prepared = true;
  if (!doubt_->blocks.empty()) return;
  if (extent_.holdsBytes()) {
    XFER_LOG(log::kFailure, "onHead | remote file changed, and nothing is known to compare it with");
    return failFrom(CURLE_RANGE_ERROR, 0, actions);
  }
  // What was under way has failed: nothing is kept that another version could be mixed with.
  version_.forget();
  doubt_.reset();
}

JobCore::FlightPtr JobCore::nextSample() {
  if (!doubt_->prepared || doubt_->waiting || !flights_.empty()) return nullptr;
  auto flight = addFlight();
  const ByteRange& block = doubt_->blocks[doubt_->index].range;
  flight->sample = true;
  flight->rangeStart = block.start;
  flight->asked = {block.start + doubt_->bytes.size(), block.end};
  return flight;
}

Placement JobCore::answeredSample(Flight& flight, const AnswerClaim& claim, const Validator& validator) {
  using Fit = FileExtent::Fit;
  const bool whole = claim.kind == AnswerClaim::Kind::WholeFile;
  Fit fit = Fit::Fits;
  if (whole) {
    fit = extent_.judgeLength(claim.length);
  } else if (claim.total) {
    fit = extent_.judgeTotal(*claim.total);
  }
  if (fit != Fit::Fits) return refuse(flight, Flight::Refusal::Changed, "size of the remote file changed");
  if (validator != doubt_->candidate) {
    if (version_.judge(validator) != Likeness::Same) {
      return refuse(flight, Flight::Refusal::Changed, "sample is not of the version in doubt");
    }
    // Of several servers that disagree, one that has the old validator says nothing about the new one.  When none has
    // the new one any more there is nothing to compare: what raised the doubt was put back, and the old one is served.
    if (++doubt_->answersOfOldVersion == kMostAnswersOfOldVersion) {
      XFER_LOG(log::kRecovery,
               "onHead | changed validator was not seen again, going on | range=" << flight.asked.start);
      doubt_.reset();
    }
    return putBack(flight);
  }
  Placement placement;
  placement.bodyOffset = whole ? 0 : flight.asked.start;
  placement.end = flight.asked.end;
  placement.namedEnd = claim.namedEnd;
  flight.answer = Flight::Answer{claim, placement.end, validator};
  return placement;
}

void JobCore::sampleEnded(Flight& flight, const TransferEnd& end, JobActions& actions) {
  const bool unusable = flight.refusal == Flight::Refusal::Unusable;
  const Verdict verdict = classifyTransfer(end.code, end.status);
  if (unusable || verdict == Verdict::Retryable) {
    retryOrFail(flight.rangeStart, end, actions);
    if (!actions.retry) return;
    retries_[actions.retry->id].reset();
    doubt_->waiting = true;
  } else if (verdict == Verdict::Success) {
    sampleSucceeded(flight, end, actions);
  } else {
    failed(flight, end, actions);
  }
}

void JobCore::sampleSucceeded(Flight& flight, const TransferEnd& end, JobActions& actions) {
  Doubt& doubt = *doubt_;
  const HashedBlock& block = doubt.blocks[doubt.index];
  doubt.bytes.insert(doubt.bytes.end(), flight.sampled.begin(), flight.sampled.end());
  if (doubt.bytes.size() < block.range.length() && end.bytes != 0) return proceed(actions);
  BlockHash hash;
  hash.add(doubt.bytes.data(), doubt.bytes.size());
  if (doubt.bytes.size() != block.range.length() || hash.value() != block.hash) {
    XFER_LOG(log::kFailure, "onTransferDone | remote file changed: a sample differs | start="
                                << block.range.start << " | end=" << block.range.end);
    return failFatally(flight.rangeStart, {CURLE_RANGE_ERROR, end.status, end.bytes}, actions);
  }
  doubt.bytes.clear();
  if (++doubt.index == doubt.blocks.size()) {
    XFER_LOG(log::kRecovery, "onTransferDone | samples are equal, going on | samples=" << doubt.blocks.size());
    version_.accept(doubt.candidate);
    doubt_.reset();
  }
  proceed(actions);
}

}  // namespace xfer
