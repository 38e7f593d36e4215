#include "job_core.h"

#include <curl/curl.h>

#include <algorithm>
#include <cassert>
#include <string_view>
#include <utility>

#include "job_state.h"
#include "log.h"
#include "result_codes.h"
#include "retry_policy.h"
#include "stated_plan.h"

namespace xfer {
namespace {

constexpr const char* kLogTag = "DlJob";
constexpr std::int32_t kMostSlowTimeouts = 5;
constexpr int kMostAnswersOfOldVersion = 16;
constexpr int kMostDoubtsInARow = 8;
constexpr std::size_t kMostGivenUp = 16;  // that are remembered
constexpr std::uint64_t kNsPerMs = 1'000'000;
constexpr std::int32_t kFirstError = 400;  // of HTTP statuses
constexpr std::size_t kLongestEncoding = 100;

using EventKind = DownloadEvent::Kind;

Placement stopWith(std::int32_t code) {
  Placement placement;
  placement.action = Placement::Action::Stop;
  placement.code = code;
  return placement;
}

bool bringsAFile(std::int32_t status) {
  return status == 200 || status == 206;
}

ShortText statusText(const JobCore::Flight& flight, const TransferEnd& end) {
  ShortText text = ShortText::of("HTTP status ", static_cast<std::uint64_t>(std::max(end.status, 0)));
  const bool askedForRange = flight.asked.start != 0 || flight.asked.end != 0;
  if (end.status < kFirstError && askedForRange) text.add(" to a request for a range");
  if (end.retryAfterSec) {
    text.add("; the server asks to be left alone for ");
    text.add(*end.retryAfterSec);
    text.add(" s");
  }
  return text;
}

// Why a transfer that failed did so, as far as that is known.
ShortText whyEnded(const JobCore::Flight& flight, const TransferEnd& end) {
  constexpr std::string_view kStatus = "HTTP status ";
  if (flight.refusal != JobCore::Flight::Refusal::None) return flight.whyRefused;
  const bool statusTells = end.status != 0 && !bringsAFile(end.status);
  // Of an error page only its status counts, however it ends.
  const bool codeTells = end.code != CURLE_OK && end.code != CURLE_PARTIAL_FILE && !end.text.empty();
  if (statusTells && !codeTells) return statusText(flight, end);
  if (statusTells && end.status >= kFirstError && !end.text.view().starts_with(kStatus)) {
    ShortText text = statusText(flight, end);
    text.add(": ");
    text.add(end.text.view());
    return text;
  }
  if (end.code == CURLE_RANGE_ERROR && end.text.empty() && flight.answer && flight.answer->neededEnd) {
    const std::uint64_t size = *flight.answer->neededEnd;
    const std::uint64_t reached = flight.asked.start + end.bytes;
    return reached < size ? ShortText::of("the size was ", size, ", now it is ", reached)
                          : ShortText::of("the size was ", size, ", now the file goes on behind that");
  }
  return end.text;
}

}  // namespace

// ---- State ----

// The one place where the state changes.
bool JobCore::enter(JobState to) noexcept {
  if (!mayFollow(state_, to)) return false;
  state_ = to;
  record({.kind = EventKind::State, .state = to});
  return true;
}

bool JobCore::ending() const {
  return state_ == JobState::Cancelling || isFinal(state_);
}

bool JobCore::throttled() const {
  // A file of few ranges cannot collect many slow time-outs, so it is flagged after as many as it has ranges.
  const std::size_t ranges = plan_ ? plan_->rangeCount() : 0;
  const bool few = ranges >= 1 && ranges < static_cast<std::size_t>(kMostSlowTimeouts);
  return slowTimeouts_ >= (few ? static_cast<std::int32_t>(ranges) : kMostSlowTimeouts);
}

bool JobCore::standsStill() const {
  return !ending() && (retryDropped_ || (finalized_ && !resumeCompletes()));
}

DownloadDetails::Values JobCore::details() const {
  DownloadDetails::Values details;
  details.failureText = failureText_.view();
  details.contentEncoding = contentEncoding_.view();
  if (moving_ == nullptr) return details;
  for (const AdaptivePlan::Activity& one : moving_->activity()) {
    const std::uint64_t end = totalBytes_ != 0 ? std::min(one.range.end, totalBytes_) : one.range.end;
    details.ranges.push_back({one.range.start, end, one.position, one.bytesPerSec, one.silentNs / kNsPerMs, one.copy});
  }
  std::sort(details.ranges.begin(), details.ranges.end(),
            [](const RangeDetails& one, const RangeDetails& other) { return one.start < other.start; });
  for (const ByteRange& range : moving_->missing()) {
    if (range.start < totalBytes_) details.missing.push_back({range.start, std::min(range.end, totalBytes_)});
  }
  details.givenUp = givenUp_;
  details.counters = moving_->counters();
  details.hostConnections = moving_->terms().connections;
  const std::uint64_t notBefore = moving_->notBeforeNs();
  details.hostLeftAloneMs = notBefore > nowNs_ ? (notBefore - nowNs_ + kNsPerMs - 1) / kNsPerMs : 0;
  return details;
}

void JobCore::record(const DownloadEvent& event) noexcept {
  history_.add(event, nowNs_);
  const bool news = options_.everyNote || event.kind == EventKind::State || event.kind == EventKind::GivenUp ||
                    event.kind == EventKind::TriedAgain || event.kind == EventKind::HostLeftAlone;
  if (news) news_.add(event, nowNs_);
}

// On the thread that delivers, or while nothing can deliver for the flight.
void JobCore::note(EventKind kind, const Flight& flight, DownloadEvent more) noexcept {
  if (!keepsEvents()) return;
  more.kind = kind;
  more.request = flight.id;
  more.connection = flight.connection;
  more.start = flight.asked.start;
  more.end = flight.asked.end;
  more.position = std::max(flight.asked.start, flight.position);
  record(more);
}

void JobCore::noteHostsWait() noexcept {
  const std::uint64_t until = moving_->notBeforeNs();
  if (until <= std::max(notedWaitNs_, nowNs_)) return;
  notedWaitNs_ = until;
  record({.kind = EventKind::HostLeftAlone, .waitNs = until - nowNs_});
}

std::uint32_t JobCore::freeConnection() const {
  std::vector<bool> taken(flights_.size() + 1);
  for (const auto& [id, flight] : flights_) {
    if (flight->connection > 0 && flight->connection <= taken.size()) taken[flight->connection - 1] = true;
  }
  return static_cast<std::uint32_t>(std::find(taken.begin(), taken.end(), false) - taken.begin()) + 1;
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

// An error page that is broken off ends with libcurl's code for a partial file, which says nothing.
//
// Intended: a stated plan reports that code, and the status beside it.
std::int32_t JobCore::reasonOf(const TransferEnd& end) const noexcept {
  if (end.code == 0 || (moving_ != nullptr && end.status >= kFirstError)) return end.status;
  return end.code;
}

void JobCore::failFrom(std::int32_t code, std::int32_t httpStatus, const ShortText& why, JobActions& actions) noexcept {
  if (!enter(JobState::Failed)) return;
  failureText_ = why;
  errorCode_ = code;
  httpStatus_ = httpStatus;
  actions.cancelAll = true;
  settle(actions);
}

JobActions JobCore::fail(std::int32_t code, std::int32_t httpStatus, const ShortText& why) noexcept {
  JobActions actions;
  failFrom(code, httpStatus, why, actions);
  return actions;
}

JobActions JobCore::cancel() noexcept {
  JobActions actions;
  if (!enter(JobState::Cancelling)) return actions;
  actions.cancelAll = true;
  settle(actions);
  return actions;
}

bool JobCore::pause() noexcept {
  pauseWanted_ = pauseWanted_ || (options_.keepsPauses && state_ == JobState::Probing);
  return state_ == JobState::Running && enter(JobState::Paused);
}

bool JobCore::resume(JobActions& actions) noexcept {
  pauseWanted_ = false;
  if (state_ != JobState::Paused || !enter(JobState::Running)) return false;
  // The last byte arrived during the pause.
  if (resumeCompletes() && finalized_) {
    enter(JobState::Completed);
    settle(actions);
    return true;
  }
  // Intended: slots that came free during the pause are refilled when the next transfer ends.  When every transfer has
  // ended meanwhile there is no next one.
  actions.refill = (flights_.empty() || options_.keepsPauses) && moving_ == nullptr;
  return true;
}

// A pause that came during Probing counts from here on.
bool JobCore::enterRunning() noexcept {
  if (!enter(JobState::Running)) return false;
  if (std::exchange(pauseWanted_, false)) enter(JobState::Paused);
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
  if (moving_ != nullptr) enterRunning();
  settle(actions);
  return actions;
}

void JobCore::plan(const DownloadPolicy& policy) {
  planPolicy_ = policy;
  // An adaptive plan learns it from the first answer, which may say that there is less.
  planSize_ = options_.adaptive ? 0 : totalBytes_;
  plan_ = makePlan();
}

std::unique_ptr<RangePlan> JobCore::makePlan() {
  std::unique_ptr<RangePlan> plan;
  if (options_.adaptive) {
    const auto size = planSize_ != 0 ? std::optional(planSize_) : std::nullopt;
    auto moving = std::make_unique<AdaptivePlan>(*options_.adaptive, size);
    if (moving_ != nullptr) moving->adopt(moving_->terms());  // the host is the same
    moving_ = moving.get();
    plan = std::move(moving);
  } else {
    plan = std::make_unique<StatedPlan>(planSize_, planPolicy_, policy_.numThreads);
  }
  if (oneAtATime_) plan->oneAtATime();
  return plan;
}

JobActions JobCore::run() {
  JobActions actions;
  if (enterRunning()) {
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
  if (keepsEvents()) flight->connection = freeConnection();
  flights_.emplace(flight->id, flight);
  return flight;
}

JobCore::FlightPtr JobCore::flightOf(RangePlan::PieceId piece) const {
  const auto found = std::find_if(flights_.begin(), flights_.end(), [&](const auto& flight) {
    return flight.second->piece == piece && flight.second->generation == generation_;
  });
  assert(found != flights_.end());
  return found->second;
}

JobCore::FlightPtr JobCore::next() {
  const bool begins = moving_ != nullptr && state_ == JobState::Probing;
  if (state_ != JobState::Running && !begins) return nullptr;
  return doubt_ ? nextSample() : nextRange();
}

JobCore::FlightPtr JobCore::nextRange() {
  if (flights_.size() >= plan_->limit()) return nullptr;
  auto flight = addFlight();  // first: it may throw, and a piece that was handed out must not be lost
  if (moving_ != nullptr) reportPositions();
  const auto piece = plan_->next(nowNs_);
  if (!piece) {
    flights_.erase(flight->id);
    return nullptr;
  }
  flight->piece = piece->id;
  flight->asked = piece->range;
  flight->rangeStart = piece->rangeStart;
  flight->freshConnection = piece->freshConnection;
  // The rest of a file whose size was unknown when it was planned.
  if (flight->asked.end == 0 && flight->asked.start != 0) flight->asked.end = extent_.size().value_or(0);
  // The first one of an adaptive plan.
  if (hostGaveSize_) flight->asked.end = std::min(flight->asked.end, totalBytes_);
  note(EventKind::Begun, *flight);
  return flight;
}

bool JobCore::submitted(Flight& flight, Ticket ticket) {
  flight.ticket = ticket;
  return flight.superseded || ending();
}

JobActions JobCore::abandoned(const FlightPtr& flight) noexcept {
  JobActions actions;
  note(EventKind::Ended, *flight, {.code = result::kNoHandle});
  flights_.erase(flight->id);
  failFrom(result::kException, 0, {}, actions);
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

// What differs where the size of the file is another one.
ShortText JobCore::sizeChange(std::optional<std::uint64_t> now) const noexcept {
  const auto was = extent_.confirmed() ? extent_.confirmed() : extent_.size();
  return was && now ? ShortText::of("the size was ", *was, ", now it is ", *now) : ShortText();
}

Placement JobCore::refuse(Flight& flight, Flight::Refusal refusal, const char* reason, const ShortText& why) {
  XFER_LOG(log::kFailure, "onHead | answer refused | range=" << flight.asked.start << " | reason=" << reason);
  flight.refusal = refusal;
  flight.whyRefused = why.empty() ? ShortText::of(reason) : why;
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
  if (whole) {
    oneAtATime_ = true;
    plan_->oneAtATime();
  }
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
    const ShortText why = sizeChange(whole ? claim.length : claim.total);
    return refuse(*flight, Refusal::Changed, "size of the remote file changed", why);
  }
  const Likeness likeness = version_.judge(validator);
  if (likeness == Likeness::Other && mixes) {
    return refuse(*flight, Refusal::Changed, "entity tag of the remote file changed");
  }
  if (likeness == Likeness::Doubt && mixes) return raiseDoubt(*flight, validator, actions);
  // A transfer of earlier bytes is under way; should it bring the whole file too, these would come twice.
  if (whole && !leads) return putBack(*flight);
  // Its transfer would end where it was cut.
  if (whole && flight->cut) return putBack(*flight);
  if (whole && claim.length && flight->asked.start != 0 && *claim.length <= flight->asked.start) {
    const ShortText why =
        ShortText::of("byte ", flight->asked.start, " was asked for, now the size is ", *claim.length);
    return refuse(*flight, Refusal::Changed, "whole file ends before the range", why);
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
  if (!whole && planSize_ != 0 && !extent_.holdsBytes() && sizeToPlan() != planSize_) {
    replan(*flight, actions);
    return putBack(*flight);
  }
  if (moving_ != nullptr) {
    if (!whole && !extent_.size() && !unsized_) {
      planWithoutSize();
      return putBack(*flight);
    }
    if (!whole && extent_.size() && unsized_) {
      // Ranges can be asked for after all.
      unsized_ = false;
      replan(*flight, actions);
      return putBack(*flight);
    }
    learnSize(*flight, whole, actions);
  }
  noteEncoding(head);
  return place(*flight, claim, validator, actions);
}

// Identity was asked for; a body that is encoded all the same is stored as it comes.
void JobCore::noteEncoding(const ResponseHead& head) noexcept {
  if (head.contentEncoding.empty() || !contentEncoding_.empty()) return;
  contentEncoding_.add(std::string_view(head.contentEncoding).substr(0, kLongestEncoding));
  XFER_LOG(log::kRecovery, "onHead | body is stored as it is encoded | encoding=" << contentEncoding_.view());
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
      placement.end = extent_.size() == planSize_ ? plan_->openEnd() : extent_.size();
    }
  } else {
    placement.bodyOffset = flight.asked.start;
    if (flight.asked.end != 0) placement.end = flight.asked.end;
    // Of a file that goes on, a body that is shorter than asked but as long as named is whole.
    if (claim.namedEnd && extent_.goesOnAt(*claim.namedEnd)) placement.namedEnd = claim.namedEnd;
  }
  flight.answer = Flight::Answer{claim, placement.end, validator};
  note(EventKind::Answered, flight);
  const bool decides = !validator.strongEtag.empty();
  if (!decides && validator.says()) flight.hasher.emplace(flight.asked.start, sample_.stride());
  return placement;
}

// An answer of an adaptive plan's piece is accepted; the first one tells what the file is.
void JobCore::learnSize(Flight& flight, bool whole, JobActions& actions) {
  if (!fileOpen_) {
    if (!hostGaveSize_) totalBytes_ = extent_.size().value_or(0);
    actions.open = totalBytes_;
  }
  if (!whole && !unsized_) {
    if (planSize_ == 0) {
      planSize_ = sizeToPlan();
      moving_->setSize(planSize_);
    }
    flight.asked.end = std::min(flight.asked.end, planSize_);
  }
  moving_->answered(*flight.piece, nowNs_);
}

// Neither the first answer nor a later one tells the size: the file is fetched as a whole.
void JobCore::planWithoutSize() {
  unsized_ = true;
  ++generation_;
  moving_->setUnsized();
}

// What the answer of a piece has brought of its range so far is part of the file, however its transfer ends.  Returns
// the exclusive end of it.
std::uint64_t JobCore::keep(Flight& flight) {
  const std::uint64_t start = flight.asked.start;
  if (moving_ == nullptr || !flight.answer || flight.answer->claim.kind != AnswerClaim::Kind::Range) return start;
  std::uint64_t reached = std::max(start, flight.position);
  if (flight.asked.end != 0) reached = std::min(reached, flight.asked.end);
  extent_.deliver({start, reached});
  addSample(flight);
  return reached;
}

void JobCore::addSample(Flight& flight) {
  if (!flight.hasher) return;
  std::vector<HashedBlock> blocks = flight.hasher->finish();
  std::erase_if(blocks, [&](const HashedBlock& block) { return flight.kept.meets(block.range); });
  sample_.add(blocks);
}

// Ends a flight, keeping what it has brought; the rest of its piece is fetched by another one.
void JobCore::interrupt(Flight& flight, JobActions& actions) {
  const std::uint64_t reached = keep(flight);
  if (flight.piece) moving_->interrupted(*flight.piece, reached);
  flight.piece.reset();
  flight.superseded = flight.toCancel = true;
  actions.cancelSuperseded = true;
}

// What is still in flight when all has arrived fetches the rest of a range a second time, or was overtaken by that.
void JobCore::endCopies(const Flight& lastOne, JobActions& actions) {
  for (const auto& [id, flight] : flights_) {
    if (id != lastOne.id && !flight->superseded) static_cast<void>(keep(*flight));
  }
  supersedeOthers(lastOne, actions);
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
  retries_.clear();
  planSize_ = sizeToPlan();
  totalBytes_ = *extent_.size();
  plan_ = makePlan();
}

// The stated plan's ranges behind the file's end are answered with their absence; those of an adaptive plan would go
// there again and again.
std::uint64_t JobCore::sizeToPlan() const {
  const std::uint64_t size = extent_.size().value_or(0);
  return moving_ != nullptr ? std::min(size, extent_.confirmed().value_or(size)) : size;
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
  note(EventKind::Ended, *flight, {.code = end.code, .httpStatus = end.status});
  const std::uint64_t length = flight->asked.length();
  if (end.code == CURLE_OPERATION_TIMEDOUT && end.status == 206 && length != 0 && end.bytes < (length + 3) / 4) {
    ++slowTimeouts_;
  }
  if (ending()) {
    settle(actions);
  } else if (flight->superseded) {
    if (flight->piece && flight->generation == generation_) plan_->release(*flight->piece);
    proceed(actions);
  } else if (flight->sample) {
    sampleEnded(*flight, end, actions);
  } else if (flight->refusal == Flight::Refusal::Unusable) {
    retryOrFail(*flight, Verdict::Retryable, end, actions);
  } else if (classifyTransfer(end.code, end.status) == Verdict::Success) {
    succeeded(*flight, end, actions);
  } else {
    failed(*flight, end, actions);
  }
  return actions;
}

// On the thread that delivers.
void JobCore::reportPositions() {
  for (const auto& [id, flight] : flights_) {
    if (!flight->piece || flight->superseded || flight->generation != generation_) continue;
    moving_->report(*flight->piece, std::max(flight->asked.start, flight->position), flight->throttled);
  }
}

void JobCore::noteGivenUp(const Flight& flight, const AdaptivePlan::Orders::Close& close, std::uint64_t reached) {
  const char* const reason = close.reason == AdaptivePlan::Orders::Close::Reason::Silent ? "silent" : "slow";
  XFER_LOG(log::kRecovery, "turn | connection given up | reason=" << reason << " | range=" << flight.asked.start
                                                                  << " | at=" << reached
                                                                  << " | end=" << flight.asked.end);
  if (givenUp_.size() == kMostGivenUp) givenUp_.erase(givenUp_.begin());
  givenUp_.push_back({reason, flight.asked.start, reached, flight.asked.end});
  note(EventKind::GivenUp, flight, {.reason = reason});
}

JobActions JobCore::turned(const LoopTurn& turn) {
  JobActions actions;
  if (moving_ == nullptr || ending() || finalizing_ || finalized_) return actions;
  reportPositions();
  AdaptivePlan::Orders orders = moving_->turn(turn, state_ == JobState::Paused);
  noteHostsWait();
  for (const auto& cut : orders.cuts) {
    Flight& flight = *flightOf(cut.piece);
    XFER_LOG(log::kTrace,
             "turn | cut | range=" << flight.asked.start << " | end=" << flight.asked.end << " | to=" << cut.end);
    flight.asked.end = cut.end;
    flight.cut = true;
    note(EventKind::Cut, flight);
    actions.cuts.push_back({*flight.ticket, cut.end});
  }
  for (const auto& close : orders.closes) {
    Flight& flight = *flightOf(close.piece);
    const std::uint64_t reached = keep(flight);
    if (close.reason == AdaptivePlan::Orders::Close::Reason::Overtaken) {
      XFER_LOG(log::kTrace, "turn | overtaken | range=" << flight.asked.start << " | at=" << reached);
      note(EventKind::Overtaken, flight);
    } else {
      noteGivenUp(flight, close, reached);
    }
    flight.piece.reset();
    flight.superseded = flight.toCancel = true;
    actions.cancelSuperseded = true;
    // It had delivered all, and its end did not come.
    if (plan_->allDone()) {
      finishIfWhole(flight, {CURLE_PARTIAL_FILE, 0, 0}, actions);
      return actions;
    }
  }
  actions.refill = true;
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
  // An end without an answer that was accepted says nothing of the file, though libcurl is content.
  if (moving_ != nullptr && !flight.answer) {
    const ShortText why = ShortText::of("the answer ended before its body");
    return retryOrFail(flight, Verdict::Retryable, {CURLE_PARTIAL_FILE, end.status, end.bytes, {}, why}, actions);
  }
  const bool whole = flight.answer && flight.answer->claim.kind == AnswerClaim::Kind::WholeFile;
  if (whole && !endWholeFile(flight, reached, end, actions)) return;
  if (flight.answer && !whole && end.bytes == 0) {
    // No range is empty.
    const ShortText why = ShortText::of("the answer has no byte of the range");
    return retryOrFail(flight, Verdict::Retryable, {CURLE_PARTIAL_FILE, end.status, end.bytes, {}, why}, actions);
  }
  extent_.deliver({flight.asked.start, reached});
  doubtsInARow_ = 0;
  addSample(flight);
  if (whole) {
    plan_->completeFrom(*flight.piece);
    return finishIfWhole(flight, end, actions);
  }
  if (flight.asked.end == 0 || reached < flight.asked.end) {
    const std::uint64_t named = flight.answer ? flight.answer->claim.namedEnd.value_or(0) : 0;
    if (extent_.goesOnAt(reached) || named > reached) {
      return continueRange(flight, reached, end, actions);
    }
    extent_.endAt(reached);
  }
  plan_->complete(*flight.piece, nowNs_);
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
    const ShortText why = ShortText::of("the size is ", *size, ", the answer ended at ", reached);
    retryOrFail(flight, Verdict::Retryable, {CURLE_PARTIAL_FILE, end.status, end.bytes, {}, why}, actions);
    return false;
  }
  const Fit fit = extent_.judgeLength(reached);
  const bool mixes = extent_.holdsBytes();
  if (fit == Fit::Contradicts || (fit == Fit::Replaces && mixes) || (end.bytes == 0 && flight.asked.start != 0)) {
    XFER_LOG(log::kFailure, "onTransferDone | size of the remote file changed | end=" << reached);
    failFatally(flight.rangeStart, {CURLE_RANGE_ERROR, end.status, end.bytes}, sizeChange(reached), actions);
    return false;
  }
  if (fit == Fit::Replaces) giveWay(reached);
  extent_.confirmLength(reached);
  return true;
}

// The server sent less of the range than asked, and the file goes on.
void JobCore::continueRange(Flight& flight, std::uint64_t reached, const TransferEnd& end, JobActions& actions) {
  if (!partsNoted_) {
    partsNoted_ = true;
    XFER_LOG(log::kRecovery, "onTransferDone | server sends less of a range than asked | range="
                                 << flight.asked.start << " | asked=" << flight.asked.length()
                                 << " | got=" << end.bytes);
  }
  if (!plan_->partDone(*flight.piece, reached, end.bytes, nowNs_)) {
    const ShortText why = ShortText::of("the server sends less of a range than asked: ", end.bytes, " of ",
                                        flight.asked.length(), " bytes");
    return retryOrFail(flight, Verdict::Retryable, {CURLE_PARTIAL_FILE, end.status, end.bytes, {}, why}, actions);
  }
  proceed(actions);
}

void JobCore::finishIfWhole(const Flight& flight, const TransferEnd& end, JobActions& actions) {
  const bool allDone = plan_->allDone();
  if (allDone) endCopies(flight, actions);
  // An adaptive plan did not ask beyond.
  if (allDone && moving_ != nullptr && extent_.confirmed()) extent_.endAt(*extent_.confirmed());
  if (extent_.hasHole() || (allDone && !extent_.complete())) {
    const std::uint64_t from = std::min(extent_.firstMissing(), extent_.end().value_or(0));
    XFER_LOG(log::kFailure,
             "onTransferDone | bytes are missing | from=" << from << " | written_up_to=" << extent_.deliveredUpTo());
    const ShortText why = ShortText::of("bytes from ", from, " on are missing");
    return failFatally(flight.asked.start, {CURLE_PARTIAL_FILE, end.status, end.bytes}, why, actions);
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

JobActions JobCore::writeFailed(std::int32_t error, const ShortText& why) {
  JobActions actions;
  if (isFinal(state_)) return actions;
  XFER_LOG(log::kFailure, "onTransferDone | finalize failed | err=" << error);
  failFrom(error, 0, why, actions);
  return actions;
}

// ---- Failures ----

void JobCore::failed(Flight& flight, const TransferEnd& end, JobActions& actions) {
  const Verdict verdict = classifyTransfer(end.code, end.status);
  if (moving_ != nullptr || verdict == Verdict::Retryable) return retryOrFail(flight, verdict, end, actions);
  giveUp(flight, verdict, end, actions);
}

void JobCore::giveUp(const Flight& flight, Verdict verdict, const TransferEnd& end, JobActions& actions) {
  const ShortText why = whyEnded(flight, end);
  if (verdict != Verdict::Rejected) return failFatally(flight.asked.start, end, why, actions);
  XFER_LOG(log::kFailure,
           "cdn reject | range=" << flight.asked.start << " | err=" << end.code << " | http=" << end.status);
  failFrom(reasonOf(end), end.status, why, actions);
}

void JobCore::retryOrFail(Flight& flight, Verdict verdict, const TransferEnd& end, JobActions& actions) {
  using Kind = RangePlan::FollowUp::Kind;
  // A server may have no range to give of a file that is empty, or whose size it does not know.
  if (moving_ != nullptr && end.status == 416 && !fileOpen_ && !unsized_) {
    planWithoutSize();
    return proceed(actions);
  }
  const std::uint64_t reached = keep(flight);
  if (reached > flight.asked.start && reached == flight.asked.end) {
    // Nothing but its end was lost.
    plan_->complete(*flight.piece, nowNs_);
    return finishIfWhole(flight, end, actions);
  }
  const auto followUp = flight.sample ? retrySample() : plan_->failed(*flight.piece, verdict, end, reached, nowNs_);
  if (followUp.kind != Kind::GiveUp) {
    note(EventKind::TriedAgain, flight,
         {.code = end.code, .httpStatus = end.status, .waitNs = followUp.delayMs * kNsPerMs});
  }
  switch (followUp.kind) {
    case Kind::TryLater:
      scheduleRetry(flight, followUp, end, actions);
      break;
    case Kind::Planned:
      XFER_LOG(log::kRecovery, "try again | range=" << flight.rangeStart << " | err=" << end.code
                                                    << " | http=" << end.status << " | delay_ms=" << followUp.delayMs);
      break;
    case Kind::GiveUp:
      if (verdict != Verdict::Retryable) return giveUp(flight, verdict, end, actions);
      if (moving_ != nullptr && end.retryAfterSec) {
        XFER_LOG(log::kFailure,
                 "host asks to be left alone | range=" << flight.rangeStart << " | seconds=" << *end.retryAfterSec);
      }
      if (moving_ == nullptr) XFER_LOG(log::kFailure, "exhausted retries | range=" << flight.rangeStart);
      return failFatally(flight.rangeStart, end, whyEnded(flight, end), actions);
  }
  // Intended: nothing takes the range's slot meanwhile.
  settleDoubt(actions);
}

void JobCore::scheduleRetry(const Flight& flight, const RangePlan::FollowUp& followUp, const TransferEnd& end,
                            JobActions& actions) {
  Retry retry;
  retry.id = ++lastRetry_;
  retry.delayMs = followUp.delayMs;
  XFER_LOG(log::kRecovery, "retry scheduled | range=" << flight.rangeStart << " | attempt=" << followUp.attempt
                                                      << " | delay_ms=" << retry.delayMs << " | err=" << end.code
                                                      << " | http=" << end.status);
  retries_.emplace(retry.id, flight.piece);
  actions.retry = retry;
}

RangePlan::FollowUp JobCore::retrySample() {
  RangePlan::FollowUp followUp;
  followUp.attempt = ++doubt_->attempts;
  if (followUp.attempt > kRetryDelaysMs.size()) return followUp;
  followUp.kind = RangePlan::FollowUp::Kind::TryLater;
  followUp.delayMs = kRetryDelaysMs[followUp.attempt - 1];
  doubt_->waiting = true;
  return followUp;
}

JobActions JobCore::retryDue(std::uint64_t id) {
  JobActions actions;
  const auto retry = retries_.find(id);
  if (retry == retries_.end()) return actions;
  const std::optional<RangePlan::PieceId> piece = retry->second;
  retries_.erase(retry);
  if (!piece) {
    if (doubt_) doubt_->waiting = false;
    proceed(actions);
    if (moving_ != nullptr) actions.refill = false;  // only the thread that delivers submits: its next turn will
    return actions;
  }
  if (!plan_->awaitsRequeue(*piece)) return actions;
  if (state_ == JobState::Paused && options_.keepsPauses) {
    plan_->requeue(*piece);  // resume fetches it
    return actions;
  }
  if (state_ != JobState::Running) {
    // Intended: a retry whose delay ends while the job is paused is dropped for good.
    retryDropped_ = retryDropped_ || state_ == JobState::Paused;
    return actions;
  }
  plan_->requeue(*piece);
  proceed(actions);
  return actions;
}

void JobCore::failFatally(std::uint64_t rangeStart, const TransferEnd& end, const ShortText& why, JobActions& actions) {
  XFER_LOG(log::kFailure, "fatal | range=" << rangeStart << " | err=" << end.code << " | http=" << end.status);
  failFrom(reasonOf(end), end.status, why, actions);
}

// ---- Doubts ----

Placement JobCore::raiseDoubt(Flight& flight, const Validator& validator, JobActions& actions) {
  if (!doubt_) {
    if (++doubtsInARow_ > kMostDoubtsInARow) {
      return refuse(flight, Flight::Refusal::Changed, "validator of the remote file changes all the time");
    }
    XFER_LOG(log::kRecovery, "onHead | validator changed, a sample will tell | range=" << flight.asked.start);
    Doubt doubt;
    doubt.candidate = validator;
    doubt_ = std::move(doubt);
  }
  if (moving_ != nullptr) {
    // Its pieces are long.
    for (const auto& [id, other] : flights_) {
      if (id != flight.id && !other->superseded) interrupt(*other, actions);
    }
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
    const ShortText why = ShortText::of("the remote file changed, and nothing is known to compare it with");
    return failFrom(CURLE_RANGE_ERROR, 0, why, actions);
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
  note(EventKind::Begun, *flight);
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
  if (fit != Fit::Fits) {
    const ShortText why = sizeChange(whole ? claim.length : claim.total);
    return refuse(flight, Flight::Refusal::Changed, "size of the remote file changed", why);
  }
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
  note(EventKind::Answered, flight);
  return placement;
}

void JobCore::sampleEnded(Flight& flight, const TransferEnd& end, JobActions& actions) {
  const bool unusable = flight.refusal == Flight::Refusal::Unusable;
  const Verdict verdict = classifyTransfer(end.code, end.status);
  if (unusable || verdict == Verdict::Retryable) {
    retryOrFail(flight, Verdict::Retryable, end, actions);
  } else if (verdict == Verdict::Success) {
    sampleSucceeded(flight, end, actions);
  } else {
    giveUp(flight, verdict, end, actions);
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
    const ShortText why =
        ShortText::of("the remote file changed: bytes from ", block.range.start, " to ", block.range.end, " differ");
    return failFatally(flight.rangeStart, {CURLE_RANGE_ERROR, end.status, end.bytes}, why, actions);
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
