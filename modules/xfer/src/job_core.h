// Makes the decisions of a download job: its state, what is in flight, what is fetched next, which answers count, and
// when the file is whole.  The caller reports events and carries out the actions that they return.
//
// Answers that are not the range asked for: a server may send the whole file instead (200).  Such a body is placed from
// byte 0 and makes every later range superfluous.  From the first one on the job runs one transfer at a time: the one
// with the lowest start leads, the others in flight are superseded and their ranges wait; when the leader ends well,
// all ranges from its start on are complete.  So the file is fetched once, and counted once.
//
// A server may also send less of a range than asked while it says that the file goes on: the rest is asked for at once.
//
// Which bytes are fetched next, and what follows a failure, is the plan's to say.  With an adaptive plan
//   - there is no probe: the first range's answer tells the size, and the file is opened then;
//   - ranges are cut while they run, and what was delivered of one is kept however its transfer ends.
//
// A doubt: a weak validator that changes between answers may mean another version, or nothing.  The answer is put back,
// what is in flight may end, and then a sample of what was delivered is fetched again and compared.
//
// Knows no lock, no thread, no clock and no file, and of libcurl only the result codes.  It logs.  The caller tells it
// the time before each event.
//
// Threads: one at a time.  Flight::superseded may be read at any time.
// Errors:  pause, resume, cancel, fail and the transitions neither allocate nor throw.  Every other event may throw
//          std::bad_alloc; the job is then to be failed with fail().
// Units:   offsets and lengths are bytes, half-open [start, end); delays milliseconds.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "adaptive_plan.h"
#include "body_placement.h"
#include "byte_range.h"
#include "content_sample.h"
#include "details_values.h"
#include "file_extent.h"
#include "job_history.h"
#include "range_plan.h"
#include "remote_version.h"
#include "short_text.h"
#include "transfer_backend.h"
#include "xfer/download_records.h"

namespace xfer {

/// A further attempt at a range, after a delay.
struct Retry {
  std::uint64_t id = 0;  ///< to be handed to retryDue
  std::uint64_t delayMs = 0;
};

/// What the caller has to do after an event, in any order.
struct JobActions {
  /// Where a running transfer ends now.
  struct Cut {
    Ticket ticket = 0;
    std::uint64_t end = 0;
  };

  std::optional<std::uint64_t> open{};  ///< open the file at this size, then call fileOpened, or fail
  bool refill = false;                  ///< call next until it has nothing more
  bool cancelSuperseded = false;        ///< cancel the transfers of superseded flights
  std::vector<Cut> cuts{};
  bool cancelAll = false;                   ///< cancel every transfer
  bool close = false;                       ///< close the file: nothing is in flight that may still write to it
  std::optional<std::uint64_t> finalize{};  ///< cut the file to this size and close it, then call finalized
  std::optional<Retry> retry{};             ///< call retryDue after the delay
};

/// What a job has beside its policy.
struct CoreOptions {
  std::optional<AdaptiveSettings> adaptive{};  ///< with settings the plan is an adaptive one
  std::size_t history = 0;                     ///< events that are kept
  std::size_t news = 0;                        ///< of those that a host is told, so many are kept
  bool everyNote = false;                      ///< a host is told every event
  /// A pause costs nothing: one during Probing counts from Running on, a retry that falls due is made after resume, and
  /// a job whose last byte arrives is Completed by resume.
  bool keepsPauses = false;
};

class JobCore {
 public:
  /// One range transfer from next to ended.
  struct Flight {
    enum class Refusal {
      None,
      Unusable,  ///< of this answer; another one may be better
      Changed    ///< of the job: the remote file is another one
    };
    /// What the head of an accepted answer says.
    struct Answer {
      AnswerClaim claim;
      std::optional<std::uint64_t> neededEnd;  ///< as placed
      Validator validator;
    };

    std::uint64_t id = 0;
    std::uint32_t connection = 0;               ///< of the history; 0 when none is kept
    ByteRange asked{};                          ///< an end of 0: as long as it goes
    std::optional<RangePlan::PieceId> piece{};  ///< of the plan; nothing when the plan knows it no more, or never did
    std::uint64_t rangeStart = 0;               ///< names it in the log
    std::uint64_t generation = 0;               ///< of the plan that the piece is from
    bool cut = false;                           ///< its end was lowered while it was in flight
    bool freshConnection = false;               ///< not over a connection that was used before
    bool sample = false;                        ///< its bytes are compared and do not reach the file
    std::optional<Ticket> ticket{};             ///< once the backend has given it
    std::optional<Answer> answer{};             ///< once accepted
    Refusal refusal = Refusal::None;
    ShortText whyRefused{};
    bool toCancel = false;                ///< superseded by another one; its transfer does not end by itself
    std::atomic<bool> superseded{false};  ///< other transfers bring its bytes; its result is ignored

    /// Of a whole file: what was delivered before it.  Not written again, since this transfer may yet fail.
    ByteRanges kept{};

    // The data path's own: written by the thread that delivers, read on it or once the transfer has ended.
    std::uint64_t position = 0;            ///< exclusive end of what was delivered; 0: nothing yet
    bool throttled = false;                ///< a speed limit holds it
    std::optional<StreamHasher> hasher{};  ///< when the answer's validator cannot decide alone
    std::vector<std::uint8_t> sampled{};   ///< of a sample
  };
  using FlightPtr = std::shared_ptr<Flight>;

  explicit JobCore(const DownloadPolicy& policy, const CoreOptions& options = {})
      : policy_(policy), options_(options), history_(options.history), news_(options.news) {}

  /// The time of the events that follow.
  void setTime(std::uint64_t nowNs) { nowNs_ = nowNs; }

  // ---- State ----

  [[nodiscard]] JobState state() const { return state_; }
  [[nodiscard]] bool ending() const;  ///< Cancelling or final
  [[nodiscard]] std::int32_t errorCode() const { return errorCode_; }
  [[nodiscard]] std::int32_t httpStatus() const { return httpStatus_; }
  [[nodiscard]] std::uint64_t totalBytes() const { return totalBytes_; }

  /// What lies behind errorCode; empty: no more is known.
  [[nodiscard]] const ShortText& failureText() const { return failureText_; }

  /// Whether so many transfers timed out early that the server is likely holding the client back.
  [[nodiscard]] bool throttled() const;

  [[nodiscard]] std::size_t inFlight() const { return flights_.size(); }

  /// Without an adaptive plan only the failure's text and the body's encoding.
  [[nodiscard]] DownloadDetails::Values details() const;

  [[nodiscard]] const JobHistory& history() const { return history_; }

  /// What a host is told: changes of the state, and notes.
  [[nodiscard]] const JobHistory& news() const { return news_; }

  /// What an adaptive plan goes by; nothing of another one, or before there is a plan.
  [[nodiscard]] std::optional<HostTerms> hostTerms() const {
    return moving_ != nullptr ? std::optional(moving_->terms()) : std::nullopt;
  }

  /// What others learned of the host.
  void adopt(const HostTerms& terms) { moving_->adopt(terms); }

  /// Whether the job will never end by itself: a retry fell due while it was paused, or its last range ended then.
  [[nodiscard]] bool standsStill() const;

  /// Calls back once with the ticket of each transfer that is to be cancelled.
  template <class Callback>
  void takeSuperseded(Callback&& callback) {
    for (const auto& [id, flight] : flights_) {
      if (flight->ticket && std::exchange(flight->toCancel, false)) callback(*flight->ticket);
    }
  }

  // ---- Start ----

  /// Idle to Probing; false when the job is not Idle.
  bool beginProbe() { return state_ == JobState::Idle && enter(JobState::Probing); }

  /// How the size became known.
  enum class SizeFrom { Host, ProbedRange, ProbedFile };

  /// Sets the size to work with; 0: unknown, whatever it is from.
  void setSize(std::uint64_t size, SizeFrom from);

  /// The file is open, and the core says when to close it.  With an adaptive plan the job runs from here on.
  JobActions fileOpened() noexcept;

  /// Plans what to fetch.  An adaptive plan begins with the next refill.
  void plan(const DownloadPolicy& policy);

  /// Enters Running, or Cancelled when the job was cancelled meanwhile.  Not with an adaptive plan.
  JobActions run();

  // ---- Events ----

  /// The next transfer to submit; null when there is none to submit now.
  FlightPtr next();

  /// The backend has taken the flight's transfer; true: it is to be cancelled at once, a stop went past it.
  bool submitted(Flight& flight, Ticket ticket);

  /// The flight could not be submitted.
  JobActions abandoned(const FlightPtr& flight) noexcept;

  /// The head of an answer; says what becomes of its body.
  Placement answered(const FlightPtr& flight, const ResponseHead& head, JobActions& actions);

  JobActions ended(const FlightPtr& flight, const TransferEnd& end);

  /// The loop made a turn; on the thread that delivers.
  JobActions turned(const LoopTurn& turn);

  JobActions retryDue(std::uint64_t id);

  /// A write to the file failed, or its final size could not be set.
  JobActions writeFailed(std::int32_t error, const ShortText& why = {});

  /// The file was cut and closed, or could not be: see JobActions::finalize.
  JobActions finalized(std::int32_t error);

  /// The file was closed: see JobActions::close.
  void closed() noexcept;

  /// Whether the job is Paused by it.
  bool pause() noexcept;

  /// False when the job is not Paused; nothing changes then.
  bool resume(JobActions& actions) noexcept;

  JobActions cancel() noexcept;

  /// Ends the job Failed, unless it has ended; the first failure is the one that counts.
  JobActions fail(std::int32_t code, std::int32_t httpStatus, const ShortText& why = {}) noexcept;

  void markCancelled() noexcept { enter(JobState::Cancelled); }

 private:
  /// A validator changed, and a sample is to tell whether the bytes did.
  struct Doubt {
    Validator candidate;
    bool prepared = false;  // blocks are picked: what was in flight has ended
    bool waiting = false;   // for the next attempt
    std::vector<HashedBlock> blocks;
    std::size_t index = 0;            // of the block that is being fetched
    std::vector<std::uint8_t> bytes;  // of that block, so far
    std::size_t attempts = 0;         // failed ones
    int answersOfOldVersion = 0;
  };

  bool enter(JobState to) noexcept;
  bool enterRunning() noexcept;
  [[nodiscard]] bool resumeCompletes() const { return moving_ != nullptr || options_.keepsPauses; }
  [[nodiscard]] bool keepsEvents() const { return history_.keeps() || news_.keeps(); }
  [[nodiscard]] std::int32_t reasonOf(const TransferEnd& end) const noexcept;
  [[nodiscard]] ShortText sizeChange(std::optional<std::uint64_t> now) const noexcept;
  void noteEncoding(const ResponseHead& head) noexcept;
  void record(const DownloadEvent& event) noexcept;
  void note(DownloadEvent::Kind kind, const Flight& flight, DownloadEvent more = {}) noexcept;
  void noteHostsWait() noexcept;
  [[nodiscard]] std::uint32_t freeConnection() const;
  void settle(JobActions& actions) noexcept;
  void proceed(JobActions& actions);
  void settleDoubt(JobActions& actions);
  [[nodiscard]] bool isLowest(const Flight& flight) const;
  [[nodiscard]] bool othersAreAnswered(const Flight& flight) const;

  [[nodiscard]] std::unique_ptr<RangePlan> makePlan();
  void reportPositions();
  void noteGivenUp(const Flight& flight, const AdaptivePlan::Orders::Close& close, std::uint64_t reached);
  [[nodiscard]] FlightPtr flightOf(RangePlan::PieceId piece) const;
  FlightPtr addFlight();
  FlightPtr nextRange();
  FlightPtr nextSample();

  void learnSize(Flight& flight, bool whole, JobActions& actions);
  void planWithoutSize();
  [[nodiscard]] std::uint64_t sizeToPlan() const;
  std::uint64_t keep(Flight& flight);
  void addSample(Flight& flight);
  void interrupt(Flight& flight, JobActions& actions);
  Placement refuse(Flight& flight, Flight::Refusal refusal, const char* reason, const ShortText& why = {});
  static Placement putBack(Flight& flight);
  Placement place(Flight& flight, const AnswerClaim& claim, const Validator& validator, JobActions& actions);
  void endCopies(const Flight& lastOne, JobActions& actions);
  void supersedeOthers(const Flight& flightThatCounts, JobActions& actions);
  void replan(const Flight& flight, JobActions& actions);
  void giveWay(std::optional<std::uint64_t> size);
  void noteHostsSize();

  void succeeded(Flight& flight, const TransferEnd& end, JobActions& actions);
  [[nodiscard]] bool endWholeFile(Flight& flight, std::uint64_t reached, const TransferEnd& end, JobActions& actions);
  void continueRange(Flight& flight, std::uint64_t reached, const TransferEnd& end, JobActions& actions);
  void finishIfWhole(const Flight& flight, const TransferEnd& end, JobActions& actions);
  void failed(Flight& flight, const TransferEnd& end, JobActions& actions);
  void retryOrFail(Flight& flight, Verdict verdict, const TransferEnd& end, JobActions& actions);
  [[nodiscard]] RangePlan::FollowUp retrySample();
  void giveUp(const Flight& flight, Verdict verdict, const TransferEnd& end, JobActions& actions);
  void scheduleRetry(const Flight& flight, const RangePlan::FollowUp& followUp, const TransferEnd& end,
                     JobActions& actions);
  void failFatally(std::uint64_t rangeStart, const TransferEnd& end, const ShortText& why, JobActions& actions);
  void failFrom(std::int32_t code, std::int32_t httpStatus, const ShortText& why, JobActions& actions) noexcept;

  Placement raiseDoubt(Flight& flight, const Validator& validator, JobActions& actions);
  void prepareSample(JobActions& actions);
  Placement answeredSample(Flight& flight, const AnswerClaim& claim, const Validator& validator);
  void sampleEnded(Flight& flight, const TransferEnd& end, JobActions& actions);
  void sampleSucceeded(Flight& flight, const TransferEnd& end, JobActions& actions);

  const DownloadPolicy policy_;
  const CoreOptions options_;

  std::uint64_t nowNs_ = 0;
  JobState state_ = JobState::Idle;
  std::int32_t errorCode_ = 0;
  std::int32_t httpStatus_ = 0;
  ShortText failureText_;
  ShortText contentEncoding_;  // of the first answer that had one
  bool fileOpen_ = false;
  bool finalizing_ = false;  // the file is being cut
  bool closing_ = false;     // the file is being closed, or is closed
  bool finalized_ = false;
  bool retryDropped_ = false;
  bool pauseWanted_ = false;  // during Probing

  std::uint64_t totalBytes_ = 0;
  bool hostGaveSize_ = false;
  bool hostsSizeNoted_ = false;
  bool partsNoted_ = false;
  FileExtent extent_;
  RemoteVersion version_;
  ContentSample sample_;
  std::optional<Doubt> doubt_;
  int doubtsInARow_ = 0;  // without a transfer that ended well in between

  DownloadPolicy planPolicy_;
  std::uint64_t planSize_ = 0;
  std::uint64_t generation_ = 0;  // of the plan
  std::unique_ptr<RangePlan> plan_;
  AdaptivePlan* moving_ = nullptr;  // plan_, when its pieces move
  bool unsized_ = false;            // an adaptive plan that works without a size

  std::uint64_t lastFlight_ = 0;
  std::map<std::uint64_t, FlightPtr> flights_;  // by id, so oldest first
  bool oneAtATime_ = false;                     // the server sends whole files

  std::uint64_t lastRetry_ = 0;
  std::map<std::uint64_t, std::optional<RangePlan::PieceId>> retries_;  // by id; nothing: the sample

  std::int32_t slowTimeouts_ = 0;

  std::vector<GivenUpConnection> givenUp_;  // the latest ones, oldest first

  JobHistory history_;
  JobHistory news_;
  std::uint64_t notedWaitNs_ = 0;  // until when the host is left alone, as the history has it
};

}  // namespace xfer
