#include "job_core_world.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <map>
#include <utility>

#include "job_state.h"
#include "result_codes.h"
#include "transfer_end.h"

namespace support {

using namespace xfer;
using Kind = Step::Kind;

namespace {

constexpr std::int32_t kForbidden = 403;
constexpr std::int32_t kUnsatisfiable = 416;
constexpr std::int32_t kBusy = 503;
constexpr int kRetries = 3;  // as many tries has an adaptive plan here
constexpr std::uint64_t kMs = 1'000'000;
constexpr int kMostDoubts = 8;
constexpr std::uint64_t kPiece = 16384;

std::uint8_t byteOf(int content, std::uint64_t offset) {
  return static_cast<std::uint8_t>(offset * 31 + static_cast<std::uint64_t>(content) * 101 + offset / 251);
}

bool isWhole(Head head) {
  return head >= Head::Whole && head <= Head::WholeToTheEnd;
}

const char* nameOf(Head head) {
  constexpr std::array kNames{"right",     "capped",      "no total", "whole", "whole, unsized", "whole, to the end",
                              "other tag", "old version", "unusable"};
  return kNames.at(static_cast<std::size_t>(head));
}

const char* nameOf(Kind kind) {
  constexpr std::array kNames{"refill",   "submit",        "submitted", "abandon",  "cancelSuperseded", "cancelAll",
                              "finalize", "finalizeFails", "close",     "retryDue", "answer",           "piece",
                              "end",      "pause",         "resume",    "cancel",   "writeFails",       "newVersion",
                              "newSize",  "openFails",     "shortTurn", "turn",     "longTurn"};
  return kNames.at(static_cast<std::size_t>(kind));
}

}  // namespace

std::string nameOf(const Step& step) {
  std::string text = nameOf(step.kind);
  const bool indexed = step.kind <= Kind::End;
  if (indexed) text += " #" + std::to_string(step.index);
  if (step.kind == Kind::Answer) text += std::string(" (") + nameOf(step.head) + ")";
  if (step.kind == Kind::End) text += " (" + std::to_string(step.code) + ", " + std::to_string(step.status) + ")";
  return text;
}

// ---- The start ----

JobCoreWorld::JobCoreWorld(const WorldSetup& setup)
    : setup_(setup), core_([&] {
        DownloadPolicy policy;
        policy.numThreads = setup.connections;
        CoreOptions options;
        options.history = options.news = setup.history;
        options.keepsPauses = setup.keepsPauses;
        if (setup.adaptive) {
          AdaptiveSettings& adaptive = options.adaptive.emplace();
          adaptive.connections = setup.connections;
          adaptive.firstPiece = setup.chunk * (setup.longFirst ? setup.ranges : 1);
          adaptive.maxTries = kRetries;
        }
        return JobCore(policy, options);
      }()) {
  const std::uint64_t planned = setup_.chunk * setup_.ranges;
  versions_.push_back({planned - std::min(planned, setup_.lastRangeCut), 0, "v0", "v0b"});
  DownloadPolicy policy;
  policy.numThreads = 1;  // chunks of one size
  policy.rampChunks = false;
  policy.maxChunkSize = setup_.chunk;
  std::uint64_t size = 0;
  auto from = JobCore::SizeFrom::ProbedFile;
  if (setup_.sizeFrom) {
    from = *setup_.sizeFrom;
    size = static_cast<std::uint64_t>(static_cast<std::int64_t>(versions_.front().size) + setup_.sizeError);
  }
  lied_ = setup_.sizeError != 0;
  sizesDiffer_ = lied_ || setup_.newSizes != 0;
  if (from == JobCore::SizeFrom::Host) hostSize_ = size;
  core_.setTime(nowNs_);
  if (from != JobCore::SizeFrom::Host || setup_.adaptive) core_.beginProbe();
  if (setup_.adaptive) {
    core_.setSize(size, JobCore::SizeFrom::Host);
    core_.plan(policy);
    turn(1);
    return;
  }
  fileOpen_ = true;
  core_.setSize(size, from);
  want(core_.fileOpened());
  core_.plan(policy);
  want(core_.run());
}

// ---- What may happen ----

bool JobCoreWorld::pending(Kind kind) const {
  return std::any_of(actions_.begin(), actions_.end(), [&](const Action& action) { return action.kind == kind; });
}

std::vector<Step> JobCoreWorld::choices() const {
  std::vector<Step> steps;
  const bool ending = core_.ending();
  const bool mayHinder = setup_.deviations > 0;
  for (std::size_t index = 0; index < actions_.size(); ++index) {
    const Kind kind = actions_[index].kind;
    const bool again = std::any_of(steps.begin(), steps.end(), [&](const Step& step) { return step.kind == kind; });
    if (again && kind != Kind::Submit && kind != Kind::Submitted) continue;  // equal ones: their order says nothing
    steps.push_back({kind, index});
    if (kind == Kind::Finalize && setup_.finalizeFailures > 0) steps.push_back({Kind::FinalizeFails, index});
    if (kind == Kind::Submit && setup_.abandons > 0) steps.push_back({Kind::Abandon, index});
  }
  for (std::size_t index = 0; index < transfers_.size(); ++index) {
    const Transfer& transfer = transfers_[index];
    if (transfer.cancelled) steps.push_back({Kind::End, index, Head::Right, CURLE_ABORTED_BY_CALLBACK});
    if (transfer.body == Transfer::Body::Stopped) {
      if (!transfer.cancelled) steps.push_back({Kind::End, index, Head::Right, transfer.ownResult});
      continue;
    }
    if (transfer.body == Transfer::Body::Unanswered) {
      // What a job that is ending is answered does not matter.
      steps.push_back({Kind::Answer, index, Head::Right});
      if (ending) continue;
      for (const Head head : setup_.heads) {
        // A range of a file of unknown total says nothing of a size that is another one by now.
        if (head == Head::NoTotal && sizesDiffer_) continue;
        if (head == Head::OldVersion && versions_.size() == 1) continue;
        if (mayHinder || head <= Head::Capped) steps.push_back({Kind::Answer, index, head});
      }
    } else {
      steps.push_back({Kind::End, index});
      if (!transfer.pieceCame && setup_.pieces > 0) steps.push_back({Kind::Piece, index});
    }
    if (!mayHinder || ending) continue;
    for (const std::int32_t code : setup_.ends) {
      const bool status = code >= 100;
      if (status && transfer.body != Transfer::Body::Unanswered) continue;
      steps.push_back({Kind::End, index, Head::Right, status ? 0 : code, status ? code : 0});
    }
  }
  for (std::size_t index = 0; index < timers_.size(); ++index) steps.push_back({Kind::RetryDue, index});
  const bool remembers = setup_.keepsPauses && core_.state() == JobState::Probing;
  if ((core_.state() == JobState::Running || remembers) && setup_.pauses > 0) steps.push_back({Kind::Pause});
  if (core_.state() == JobState::Paused || pauseRemembered_) steps.push_back({Kind::Resume});
  if (!ending && setup_.cancels > 0) steps.push_back({Kind::Cancel});
  if (setup_.adaptive && !ending && setup_.turns > 0) {
    for (const Kind kind : {Kind::ShortTurn, Kind::Turn, Kind::LongTurn}) steps.push_back({kind});
  }
  if (ending || !mayHinder) return steps;
  const bool writing = std::any_of(transfers_.begin(), transfers_.end(),
                                   [](const Transfer& transfer) { return transfer.body == Transfer::Body::Delivered; });
  if (writing && setup_.writeFailures > 0) steps.push_back({Kind::WriteFails});
  if (setup_.newVersions > 0) steps.push_back({Kind::NewVersion});
  if (setup_.newSizes > 0) steps.push_back({Kind::NewSize});
  if (setup_.openFailures > 0 && !fileOpen_ && !openFails_) steps.push_back({Kind::OpenFails});
  return steps;
}

void JobCoreWorld::take(const Step& step) {
  perform(step);
  watch();
}

void JobCoreWorld::perform(const Step& step) {
  const auto takeAction = [&] {
    const Action action = actions_[step.index];
    actions_.erase(actions_.begin() + static_cast<std::ptrdiff_t>(step.index));
    return action;
  };
  switch (step.kind) {
    case Kind::Refill:
      return refill();
    case Kind::Submit:
      return submit(takeAction().flight);
    case Kind::Submitted:
      tellTicket(takeAction());
      if (!setup_.refillInOneStep) actions_.push_back({Kind::Refill});
      return;
    case Kind::Abandon:
      --setup_.abandons;
      seenCodes_.insert(result::kException);
      return want(core_.abandoned(takeAction().flight));
    case Kind::CancelSuperseded:
      takeAction();
      return core_.takeSuperseded([&](Ticket ticket) {
        for (Transfer& transfer : transfers_) transfer.cancelled = transfer.cancelled || transfer.ticket == ticket;
      });
    case Kind::CancelAll:
      takeAction();
      for (Transfer& transfer : transfers_) transfer.cancelled = true;
      return;
    case Kind::Finalize:
      return finalize(takeAction().size, 0);
    case Kind::FinalizeFails:
      --setup_.finalizeFailures;
      return finalize(takeAction().size, result::kFileNotOpen);
    case Kind::Close:
      takeAction();
      fileClosed_ = true;
      return core_.closed();
    case Kind::RetryDue: {
      const std::uint64_t id = timers_[step.index];
      timers_.erase(timers_.begin() + static_cast<std::ptrdiff_t>(step.index));
      retryDueWhilePaused_ = retryDueWhilePaused_ || core_.state() == JobState::Paused;
      return want(core_.retryDue(id));
    }
    case Kind::Answer:
      if (step.head > Head::Capped) --setup_.deviations;
      return answer(transfers_[step.index], step.head);
    case Kind::Piece: {
      Transfer& transfer = transfers_[step.index];
      transfer.pieceCame = true;
      --setup_.pieces;
      return deliver(transfer, (transfer.bodyEnd - transfer.position + 1) / 2);
    }
    case Kind::End:
      if ((step.code != 0 || step.status != 0) && transfers_[step.index].body != Transfer::Body::Stopped &&
          step.code != CURLE_ABORTED_BY_CALLBACK) {
        --setup_.deviations;
      }
      return end(step.index, step.code, step.status);
    case Kind::Pause:
      --setup_.pauses;
      pauseRemembered_ = core_.state() == JobState::Probing;
      core_.pause();
      return;
    case Kind::Resume: {
      JobActions actions;
      core_.resume(actions);
      pauseRemembered_ = false;
      return want(actions);
    }
    case Kind::Cancel:
      --setup_.cancels;
      cancelled_ = true;
      return want(core_.cancel());
    case Kind::WriteFails:
      --setup_.deviations;
      --setup_.writeFailures;
      seenCodes_.insert(result::kWriteFailed);
      return want(core_.writeFailed(result::kWriteFailed));
    case Kind::NewVersion:
    case Kind::NewSize: {
      --setup_.deviations;
      Version next = versions_.back();
      ++next.content;
      next.tag = "v" + std::to_string(next.content);
      next.otherTag = next.tag + "b";
      if (step.kind == Kind::NewSize) {
        --setup_.newSizes;
        next.size += setup_.chunk / 2 + 1;
        lied_ = true;
      } else {
        --setup_.newVersions;
      }
      versions_.push_back(next);
      return;
    }
    case Kind::OpenFails:
      --setup_.deviations;
      --setup_.openFailures;
      openFails_ = true;
      return;
    case Kind::ShortTurn:
      --setup_.turns;
      return turn(3);
    case Kind::Turn:
      --setup_.turns;
      return turn(60);
    case Kind::LongTurn:
      --setup_.turns;
      return turn(1500);
  }
}

// ---- What the core asks for ----

void JobCoreWorld::want(const JobActions& actions) {
  const auto add = [&](Kind kind) { actions_.push_back({kind}); };
  for (const JobActions::Cut& cutting : actions.cuts) cut(cutting);
  if (actions.cancelSuperseded) add(Kind::CancelSuperseded);
  if (actions.cancelAll) add(Kind::CancelAll);
  if (actions.finalize) {
    actions_.push_back({Kind::Finalize, {}, 0, *actions.finalize});
    ++finalizeAsked_;
    if (fileClosed_ || closeAsked_ > 0) breaks("a file that was closed is finalised");
    for (const Transfer& transfer : transfers_) {
      if (!transfer.flight->superseded) breaks("the file is finalised while a transfer writes");
    }
  }
  if (actions.close) {
    add(Kind::Close);
    ++closeAsked_;
    if (!transfers_.empty() || pending(Kind::Submit)) breaks("the file is closed while something is in flight");
    if (pending(Kind::Finalize)) breaks("the file is closed while it is being cut");
  }
  if (actions.retry) {
    timers_.push_back(actions.retry->id);
    ++retries_;
  }
  if (actions.refill) add(Kind::Refill);
}

void JobCoreWorld::refill() {
  const auto action =
      std::find_if(actions_.begin(), actions_.end(), [](const Action& one) { return one.kind == Kind::Refill; });
  const JobState before = core_.state();
  const JobCore::FlightPtr flight = core_.next();
  if (!flight) {
    actions_.erase(action);
    return;
  }
  const bool probes = setup_.adaptive && before == JobState::Probing;
  if (before != JobState::Running && !probes) breaks("a job that is not running submits");
  const std::size_t limit = wholeAnswered_ ? 1 : setup_.connections;
  if (core_.inFlight() > limit) breaks("more is in flight than may be");
  if (setup_.refillInOneStep) {
    submit(flight);
    return refill();
  }
  *action = {Kind::Submit, flight};
}

void JobCoreWorld::submit(const JobCore::FlightPtr& flight) {
  Transfer transfer;
  transfer.flight = flight;
  transfer.ticket = ++lastTicket_;
  transfer.position = transfer.bodyOffset = flight->asked.start;
  if (flight->asked.end != 0) transfer.end = flight->asked.end;
  const ByteRange first{flight->asked.start, flight->asked.start + 1};
  if (flight->sample && !broughtWell_.covers(flight->asked)) breaks("a sample is taken of what was not delivered");
  // What was superseded by a whole file counts no more.
  const bool counts = !setup_.adaptive || !wholeAnswered_;
  if (!flight->sample && !flight->superseded && counts && broughtWell_.covers(first))
    breaks("what was delivered is asked for again");
  const Action told{Kind::Submitted, flight, transfer.ticket};
  transfers_.push_back(std::move(transfer));
  if (setup_.ticketsAtOnce) return tellTicket(told);
  actions_.push_back(told);
}

void JobCoreWorld::tellTicket(const Action& action) {
  const bool cancel = core_.submitted(*action.flight, action.ticket);
  for (Transfer& transfer : transfers_) {
    if (transfer.ticket != action.ticket) continue;
    transfer.registered = true;
    transfer.cancelled = transfer.cancelled || cancel;
  }
}

void JobCoreWorld::finalize(std::uint64_t size, std::int32_t error) {
  finalizedWhilePaused_ = finalizedWhilePaused_ || core_.state() == JobState::Paused;
  fileClosed_ = true;
  if (error == 0) {
    finalSize_ = size;
  } else {
    seenCodes_.insert(error);
  }
  want(core_.finalized(error));
}

void JobCoreWorld::open() {
  if (openFails_) {
    seenCodes_.insert(result::kFileNotCreated);
    return want(core_.fail(result::kFileNotCreated, 0));
  }
  if (fileOpen_) breaks("the file is opened twice");
  fileOpen_ = true;
  want(core_.fileOpened());
}

void JobCoreWorld::turn(std::uint64_t ms) {
  nowNs_ += ms * kMs;
  core_.setTime(nowNs_);
  want(core_.turned({nowNs_, ms * kMs, ms * kMs}));
  // The thread that delivers submits before it delivers again: a copy begins where its original is.
  if (pending(Kind::Refill)) refill();
}

// At once, as the loop does.
void JobCoreWorld::cut(const JobActions::Cut& cut) {
  const auto transfer =
      std::find_if(transfers_.begin(), transfers_.end(), [&](const Transfer& one) { return one.ticket == cut.ticket; });
  if (transfer == transfers_.end()) return breaks("a transfer is cut that has ended");
  if (transfer->end && *transfer->end <= cut.end) return breaks("a cut does not lower an end");
  if (transfer->position > cut.end) return breaks("what was delivered is cut off");
  if (transfer->body != Transfer::Body::Delivered) return;  // its answer will be placed up to there
  transfer->end = cut.end;
  if (transfer->position < cut.end) return;
  transfer->bodyEnd = cut.end;
  end(static_cast<std::size_t>(transfer - transfers_.begin()), 0, 0);
}

// ---- The server and the backend ----

void JobCoreWorld::answer(Transfer& transfer, Head kind) {
  transfer.version = versions_.size() - (kind == Head::OldVersion ? 2 : 1);
  const Version& version = versions_[transfer.version];
  const ByteRange asked = transfer.flight->asked;
  const bool rangeAsked = asked.start != 0 || asked.end != 0;
  if (rangeAsked && asked.start >= version.size && !isWhole(kind)) {
    return end(static_cast<std::size_t>(&transfer - transfers_.data()), 0, kUnsatisfiable);
  }
  ResponseHead head;
  const std::string& tag = kind == Head::OtherTag ? version.otherTag : version.tag;
  otherTags_ += kind == Head::OtherTag ? 1 : 0;
  (setup_.strongTags ? head.strongEtag : head.weakEtag) = tag;
  const bool whole = !rangeAsked || isWhole(kind);
  if (whole) {
    head.status = 200;
    transfer.bodyEnd = version.size;
    transfer.bodyOffset = 0;
    transfer.endIsLost = kind == Head::WholeToTheEnd;
    if (kind == Head::WholeUnsized) head.transferEncoding = true;
    if (kind != Head::WholeUnsized && kind != Head::WholeToTheEnd) {
      head.contentLength = version.size;
      transfer.announced = static_cast<std::int64_t>(version.size);
    }
  } else {
    head.status = 206;
    std::uint64_t last = asked.end == 0 ? version.size : std::min(asked.end, version.size);
    if (kind == Head::Capped) last = asked.start + (last - asked.start + 1) / 2;
    transfer.bodyEnd = last;
    transfer.bodyOffset = asked.start;
    head.contentLength = last - asked.start;
    transfer.announced = static_cast<std::int64_t>(last - asked.start);
    head.contentRange = ContentRange{asked.start, last - 1, version.size};
    if (kind == Head::NoTotal) head.contentRange->total.reset();
    if (kind == Head::Unusable) ++head.contentRange->first;
  }
  transfer.status = head.status;
  const bool counts = !core_.ending() && !transfer.flight->superseded && !transfer.flight->sample;
  wholeAnswered_ = wholeAnswered_ || (whole && counts);
  const bool ofNoUse = core_.ending() || transfer.flight->superseded;
  JobActions actions;
  Placement placement = core_.answered(transfer.flight, head, actions);
  if (actions.open) {
    open();
    if (!fileOpen_) {
      placement.action = Placement::Action::Stop;
      placement.code = CURLE_ABORTED_BY_CALLBACK;
    }
  }
  if (ofNoUse && placement.action != Placement::Action::Stop) breaks("an answer of no use is let through");
  if (placement.action == Placement::Action::Stop) {
    transfer.body = Transfer::Body::Stopped;
    transfer.ownResult = placement.code;
  } else {
    transfer.body = Transfer::Body::Delivered;
    transfer.bodyOffset = transfer.position = placement.bodyOffset;
    transfer.end = placement.end;
    transfer.namedEnd = placement.namedEnd;
    transfer.codeAtEnd = placement.code;
    const bool atItsPlace = placement.bodyOffset == (whole ? 0 : asked.start);
    if (placement.action != Placement::Action::Deliver || !atItsPlace) breaks("a body is placed elsewhere");
  }
  want(actions);
}

void JobCoreWorld::deliver(Transfer& transfer, std::uint64_t length) {
  JobCore::Flight& flight = *transfer.flight;
  const int content = versions_[transfer.version].content;
  while (length != 0) {
    std::uint64_t size = std::min({length, transfer.bodyEnd - transfer.position, kPiece});
    if (size == 0) return;
    const std::uint64_t room = transfer.end ? *transfer.end - std::min(*transfer.end, transfer.position) : size;
    const bool goesOn = size > room;
    size = std::min(size, room);
    const std::uint64_t from = std::max(transfer.position, flight.asked.start);
    const std::uint64_t to = transfer.position + size;
    transfer.position = to;
    length -= size;
    if (from < to && !flight.superseded) {
      std::vector<std::uint8_t> bytes(to - from);
      for (std::uint64_t offset = from; offset < to; ++offset) bytes[offset - from] = byteOf(content, offset);
      if (flight.sample) {
        flight.sampled.insert(flight.sampled.end(), bytes.begin(), bytes.end());
      } else {
        if (fileClosed_ || !fileOpen_) breaks("a closed file is written to");
        if (hostSize_ && to > *hostSize_) breaks("the host's size is exceeded");
        if (file_.size() < to) file_.resize(to);
        std::copy(bytes.begin(), bytes.end(), file_.begin() + static_cast<std::ptrdiff_t>(from));
        if (flight.hasher) flight.hasher->add(bytes.data(), bytes.size());
        flight.position = to;
        // What a range brings is kept however it ends.
        if (setup_.adaptive && transfer.status == 206) broughtWell_.add({from, to});
      }
    }
    if (goesOn) {
      transfer.ownResult = transfer.codeAtEnd;
      transfer.bodyEnd = transfer.position;
      return;
    }
  }
}

void JobCoreWorld::end(std::size_t index, std::int32_t code, std::int32_t status) {
  Transfer& transfer = transfers_[index];
  const JobCore::FlightPtr flight = transfer.flight;
  if (transfer.body == Transfer::Body::Delivered && code == 0) {
    deliver(transfer, transfer.bodyEnd - transfer.position);
    code = transfer.ownResult;
  }
  // A body that ends with the connection looks whole wherever it breaks off; only a size that is known tells.
  if (transfer.endIsLost && code == CURLE_PARTIAL_FILE && setup_.sizeFrom && !sizesDiffer_) code = 0;
  if (transfer.body == Transfer::Body::Delivered && code == 0 && transfer.end) {
    const EndedBody body{flight->asked.start, transfer.bodyOffset, transfer.position,
                         transfer.end,        transfer.namedEnd,   transfer.announced};
    if (judgeEnd(body) == EndVerdict::Short) code = CURLE_PARTIAL_FILE;
  }
  if (status == 0) status = transfer.status;
  const std::uint64_t start = flight->asked.start;
  const std::uint64_t bytes = transfer.position > start ? transfer.position - start : 0;
  const bool ranWell = code == 0 && (status == 200 || status == 206);
  seenCodes_.insert(code != 0 ? code : status);
  const bool endIsLost = transfer.endIsLost;
  const bool brokeOffEarly = transfer.position < transfer.bodyEnd;
  transfers_.erase(transfers_.begin() + static_cast<std::ptrdiff_t>(index));
  if (!ranWell && code != CURLE_ABORTED_BY_CALLBACK) ++failures_;
  const JobActions actions = core_.ended(flight, {code, status, bytes});
  const bool brokeOff = endIsLost && (setup_.adaptive ? brokeOffEarly : actions.retry.has_value());
  if (ranWell && !brokeOff && !flight->superseded && !flight->sample) broughtWell_.add({start, start + bytes});
  want(actions);
}

// ---- When the environment behaves ----

Step JobCoreWorld::firstGoodStep() const {
  if (core_.state() == JobState::Paused) return {Kind::Resume};
  if (!actions_.empty()) return {actions_.front().kind, 0};
  if (!transfers_.empty()) {
    const Transfer& transfer = transfers_.front();
    if (transfer.cancelled) return {Kind::End, 0, Head::Right, CURLE_ABORTED_BY_CALLBACK};
    if (transfer.body == Transfer::Body::Stopped) return {Kind::End, 0, Head::Right, transfer.ownResult};
    if (transfer.body == Transfer::Body::Unanswered) return {Kind::Answer, 0};
    return {Kind::End, 0};
  }
  if (timers_.empty()) return {Kind::LongTurn};
  return {Kind::RetryDue, 0};
}

void JobCoreWorld::behave() {
  constexpr int kMostSteps = 10'000;
  const auto goesOn = [&] {
    const bool turns = setup_.adaptive && !isFinal(core_.state());
    return fault_.empty() && (!nothingPending() || core_.state() == JobState::Paused || turns);
  };
  for (int steps = 0; goesOn(); ++steps) {
    if (steps == kMostSteps) return breaks("the job comes to no end");
    take(firstGoodStep());
  }
  watchEnd();
}

// ---- What is promised ----

void JobCoreWorld::breaks(const std::string& promise) {
  if (fault_.empty()) fault_ = promise;
}

bool JobCoreWorld::nothingPending() const {
  return actions_.empty() && transfers_.empty() && timers_.empty();
}

// After every step.
void JobCoreWorld::watch() {
  for (const Transfer& transfer : transfers_) {
    const JobCore::Flight& flight = *transfer.flight;
    const bool goesOn = transfer.registered && !transfer.cancelled && transfer.body != Transfer::Body::Stopped;
    const bool toBeCancelled = pending(Kind::CancelAll) || (flight.superseded && pending(Kind::CancelSuperseded));
    if (goesOn && !toBeCancelled && core_.ending()) breaks("a transfer of a job that is ending goes on");
    if (goesOn && !toBeCancelled && flight.superseded) breaks("a superseded transfer goes on");
    if (flight.superseded) continue;
    if (transfer.body != Transfer::Body::Delivered || flight.sample) continue;
    constexpr std::uint64_t kOpen = 1ULL << 62;
    const ByteRange range{flight.asked.start, transfer.end.value_or(kOpen)};
    int sameBytes = 0;  // a slow range may be fetched a second time
    for (const Transfer& other : transfers_) {
      if (&other == &transfer || other.flight->superseded || other.flight->sample) continue;
      if (other.body != Transfer::Body::Delivered) continue;
      const ByteRange others{other.flight->asked.start, other.end.value_or(kOpen)};
      if (std::max(range.start, others.start) < std::min(range.end, others.end)) ++sameBytes;
    }
    if (sameBytes > (setup_.adaptive ? 1 : 0)) breaks("too many transfers write a byte");
  }
  const std::size_t onTheirWay = static_cast<std::size_t>(
      std::count_if(actions_.begin(), actions_.end(), [](const Action& one) { return one.kind == Kind::Submit; }));
  if (core_.inFlight() != transfers_.size() + onTheirWay) breaks("the core miscounts what is in flight");
  if (core_.state() == JobState::Paused && core_.next()) breaks("a paused job submits");
  if (core_.ending() && core_.next()) breaks("a job that is ending submits");
  if (finalizeAsked_ > 1) breaks("the file is finalised twice");
  if (closeAsked_ > 1) breaks("the file is closed twice");
  const bool pauseCost = !setup_.keepsPauses && (retryDueWhilePaused_ || finalizedWhilePaused_);
  if (core_.standsStill() && !pauseCost) breaks("the core stands still by itself");
  if (pauseRemembered_ && core_.state() == JobState::Running) breaks("a pause during Probing is forgotten");
  if (core_.state() != JobState::Probing) pauseRemembered_ = false;
  if (core_.state() == JobState::Completed) {
    const std::string wrong = completedWrongly();
    if (!wrong.empty()) breaks(wrong);
  }
  if (core_.state() == JobState::Failed && !failureHasAReason()) {
    breaks("the job failed without a reason, with " + std::to_string(core_.errorCode()));
  }
  const bool mayStand = core_.state() == JobState::Running && core_.standsStill();
  if (!setup_.adaptive && nothingPending() && core_.state() != JobState::Paused && !isFinal(core_.state()) &&
      !mayStand) {
    breaks("the job is stuck");
  }
}

void JobCoreWorld::watchEnd() {
  if (!fault_.empty()) return;
  const JobState state = core_.state();
  if (isFinal(state)) {
    if (fileOpen_ && !fileClosed_) breaks("the file stays open");
    if (closeAsked_ != (fileOpen_ ? 1 : 0)) breaks("the file is not closed once");
    if (cancelled_ && state == JobState::Completed) breaks("a cancelled job completed");
  } else if (!core_.standsStill()) {
    breaks("the job did not end");
  }
  if (const std::string wrong = brokenHistory(); !wrong.empty()) breaks("the history: " + wrong);
}

// Each request is begun and ended once, and nothing is told of it outside; no two of them share a connection.
std::string JobCoreWorld::brokenHistory() const {
  if (!core_.history().keeps()) return "";
  using EventKind = DownloadEvent::Kind;
  std::uint64_t number = 0;
  std::uint64_t timeNs = 0;
  std::uint64_t lastRequest = 0;
  JobState state = JobState::Idle;
  std::map<std::uint64_t, std::uint32_t> underWay;  // by request
  for (const DownloadEvent& event : core_.history().from(0)) {
    const std::string which = " at event " + std::to_string(event.number);
    if (event.number != number++) return "a number is missing" + which;
    if (event.timeNs < timeNs) return "time falls" + which;
    timeNs = event.timeNs;
    const bool known = underWay.contains(event.request);
    switch (event.kind) {
      case EventKind::State:
        if (!mayFollow(state, event.state)) return "a state that may not follow" + which;
        state = event.state;
        break;
      case EventKind::Begun:
        if (event.request <= lastRequest) return "a request that is not new" + which;
        lastRequest = event.request;
        for (const auto& [request, connection] : underWay) {
          if (connection == event.connection) return "a connection with two requests" + which;
        }
        if (event.connection == 0 || event.connection > underWay.size() + 1) {
          return "a connection's number that is not the lowest" + which;
        }
        underWay.emplace(event.request, event.connection);
        break;
      case EventKind::Ended:
        if (underWay.erase(event.request) == 0) return "the end of an unknown request" + which;
        break;
      case EventKind::TriedAgain:
        if (known || event.request > lastRequest) return "a retry of what has not ended" + which;
        break;
      case EventKind::HostLeftAlone:
        if (event.waitNs == 0) return "a wait without a time" + which;
        break;
      case EventKind::Answered:
      case EventKind::Cut:
      case EventKind::GivenUp:
      case EventKind::Overtaken:
        if (!known) return "news of an unknown request" + which;
        if (underWay.at(event.request) != event.connection) return "a request that changes its connection" + which;
        break;
    }
  }
  if (state != core_.state()) return "the last state is not told";
  if (const std::string wrong = brokenNews(); !wrong.empty()) return wrong;
  if (isFinal(state) && !underWay.empty()) return "a request that never ends";
  return "";
}

// A host is told the events of some kinds, each of them and in their order.
std::string JobCoreWorld::brokenNews() const {
  using EventKind = DownloadEvent::Kind;
  std::vector<DownloadEvent> wanted = core_.history().from(0);
  std::erase_if(wanted, [](const DownloadEvent& event) {
    return event.kind != EventKind::State && event.kind != EventKind::GivenUp && event.kind != EventKind::TriedAgain &&
           event.kind != EventKind::HostLeftAlone;
  });
  const std::vector<DownloadEvent> news = core_.news().from(0);
  const bool same = std::equal(wanted.begin(), wanted.end(), news.begin(), news.end(),
                               [](const DownloadEvent& one, const DownloadEvent& other) {
                                 return one.kind == other.kind && one.state == other.state &&
                                        one.request == other.request && one.waitNs == other.waitNs;
                               });
  return same ? "" : "the news are not those of the history";
}

std::optional<std::uint64_t> JobCoreWorld::sizeOf(const Version& version) const {
  return hostSize_ ? std::min(*hostSize_, version.size) : version.size;
}

std::string JobCoreWorld::completedWrongly() const {
  if (!finalSize_) return "a file that was not finalised is complete";
  if (!broughtWell_.covers({0, *finalSize_})) return "a file is complete with bytes that no transfer brought well";
  const bool right = std::any_of(versions_.begin(), versions_.end(), [&](const Version& version) {
    if (sizeOf(version) != finalSize_ || file_.size() < *finalSize_) return false;
    for (std::uint64_t offset = 0; offset < *finalSize_; ++offset) {
      if (file_[offset] != byteOf(version.content, offset)) return false;
    }
    return true;
  });
  return right ? "" : "a complete file is not one of the server's";
}

bool JobCoreWorld::failureHasAReason() const {
  const std::int32_t code = core_.errorCode();
  const bool exhausted = setup_.adaptive ? failures_ >= kRetries : retries_ >= kRetries;
  switch (code) {
    case kForbidden:
    case result::kException:
    case result::kWriteFailed:
    case result::kFileNotOpen:
    case result::kFileNotCreated:
      return seenCodes_.contains(code);
    case CURLE_RANGE_ERROR:
      return versions_.size() > 1 || lied_ || exhausted || otherTags_ >= (setup_.strongTags ? 1 : kMostDoubts);
    case CURLE_PARTIAL_FILE:
      return exhausted || versions_.size() > 1 || lied_;
    case kUnsatisfiable:
      return lied_;
    default:
      return exhausted;
  }
}

}  // namespace support
