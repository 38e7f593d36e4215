// A world around one JobCore, small enough to be walked through: a file, a server, transfers and timers, none of them
// real.  It carries out what the core asks for as download_job.cpp does, but as single steps that a walk may put into
// any order, and it keeps watch over what the core promises.
//
// Every byte of one version of the remote file differs from the same byte of every other one, so that a mixture is
// always seen.
//
// Threads: one at a time.
// Errors:  the first promise that was broken is in fault(); nothing further is told.
// Units:   offsets and sizes are bytes, half-open [start, end).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "job_core.h"

namespace support {

/// What the server answers.
enum class Head {
  Right,          ///< the range asked for, with its total; the whole file when no range was asked for
  Capped,         ///< the first half of that range, as its Content-Range says
  NoTotal,        ///< the range, of a file of unknown total
  Whole,          ///< 200 with the file's length
  WholeUnsized,   ///< 200 whose end the coding marks
  WholeToTheEnd,  ///< 200 that ends with the connection
  OtherTag,       ///< as Right, of the same bytes under another validator
  OldVersion,     ///< as Right, of the version before: another server has it still
  Unusable,       ///< a range that starts elsewhere
};

/// What happens next.
struct Step {
  enum class Kind {
    // What the core asked for.
    Refill,     ///< one call of next, and the flight's way into the backend begins
    Submit,     ///< the backend takes the flight of action index
    Submitted,  ///< the core is told so
    Abandon,    ///< the backend throws instead
    CancelSuperseded,
    CancelAll,
    Finalize,
    FinalizeFails,
    Close,
    // What the world does.
    RetryDue,
    Answer,  ///< of the transfer at index, with the head
    Piece,   ///< half of what is left of its body arrives
    End,     ///< it ends with the code, or with the status of an answer that has no use
    // What the host does, and what becomes of the remote file.
    Pause,
    Resume,
    Cancel,
    WriteFails,
    NewVersion,  ///< of the same size
    NewSize,
    OpenFails,  ///< the next time that the file is to be opened
    // The loop makes a turn, after a time.
    ShortTurn,
    Turn,
    LongTurn,
  };

  Kind kind;
  std::size_t index = 0;
  Head head = Head::Right;
  std::int32_t code = 0;
  std::int32_t status = 0;
};

/// For people: what a walk did.
std::string nameOf(const Step& step);

struct WorldSetup {
  std::uint64_t chunk = 8;
  std::uint64_t ranges = 2;
  std::uint16_t connections = 2;
  /// How the size became known; nothing: it did not.
  std::optional<xfer::JobCore::SizeFrom> sizeFrom = xfer::JobCore::SizeFrom::Host;
  std::int64_t sizeError = 0;  ///< by so much the known size differs from the file's
  bool keepsPauses = false;    ///< as jobs with options do
  bool adaptive = false;       ///< the plan; the size is known from the host, or not
  bool longFirst = false;      ///< an adaptive plan first asks for the whole file, not for a chunk of it
  bool strongTags = false;     ///< versions differ in strong entity tags, else in weak ones
  /// A refill goes on until the core has nothing more, and each flight is submitted.
  bool refillInOneStep = true;
  bool ticketsAtOnce = false;        ///< with a refill in one step: the core is told each ticket at once
  std::uint64_t lastRangeCut = 1;    ///< the file ends so many bytes before the last range would
  std::vector<Head> heads{};         ///< that the server may answer with
  std::vector<std::int32_t> ends{};  ///< codes other than 0 that a transfer may end with; 403 and 503 are statuses
  // How often each kind of event may happen.
  int deviations = 3;  ///< events that hinder the job, all together
  int pauses = 1;
  int pieces = 8;
  int cancels = 1;
  int writeFailures = 1;
  int newVersions = 1;
  int newSizes = 0;
  int finalizeFailures = 0;
  int abandons = 0;
  int openFailures = 0;
  int turns = 0;
  std::size_t history = 0;  ///< events that are kept, and checked in the end
};

class JobCoreWorld {
 public:
  explicit JobCoreWorld(const WorldSetup& setup);

  /// Everything that may happen now.
  [[nodiscard]] std::vector<Step> choices() const;

  void take(const Step& step);

  /// From here on the environment behaves: the job goes on until it has ended or stands still as it is required to.
  void behave();

  /// What was broken; empty: nothing.
  [[nodiscard]] const std::string& fault() const { return fault_; }

  [[nodiscard]] xfer::JobState state() const { return core_.state(); }
  [[nodiscard]] bool standsStill() const { return core_.standsStill(); }

 private:
  struct Action {
    Step::Kind kind;
    xfer::JobCore::FlightPtr flight{};  // Submit, Submitted
    xfer::Ticket ticket = 0;            // Submitted
    std::uint64_t size = 0;             // Finalize
  };

  struct Version {
    std::uint64_t size;
    int content;
    std::string tag;
    std::string otherTag;
  };

  // One transfer in the backend.
  struct Transfer {
    enum class Body { Unanswered, Delivered, Stopped };

    xfer::JobCore::FlightPtr flight;
    xfer::Ticket ticket = 0;
    bool registered = false;
    bool cancelled = false;
    bool pieceCame = false;
    bool endIsLost = false;  // nothing but the end of the connection ends its body
    Body body = Body::Unanswered;
    std::int32_t status = 0;
    std::int32_t ownResult = 0;
    std::size_t version = 0;
    std::uint64_t bodyOffset = 0;
    std::uint64_t position = 0;
    std::uint64_t bodyEnd = 0;
    std::int64_t announced = -1;
    std::optional<std::uint64_t> end;
    std::optional<std::uint64_t> namedEnd;
    std::int32_t codeAtEnd = 0;
    std::optional<xfer::ByteRange> written;
  };

  void perform(const Step& step);
  void refill();
  void submit(const xfer::JobCore::FlightPtr& flight);
  void tellTicket(const Action& action);
  void finalize(std::uint64_t size, std::int32_t error);
  void open();
  void turn(std::uint64_t ms);
  void cut(const xfer::JobActions::Cut& cut);
  void answer(Transfer& transfer, Head head);
  void deliver(Transfer& transfer, std::uint64_t length);
  void end(std::size_t index, std::int32_t code, std::int32_t status);
  void want(const xfer::JobActions& actions);
  [[nodiscard]] Step firstGoodStep() const;
  [[nodiscard]] std::optional<std::uint64_t> sizeOf(const Version& version) const;

  void watch();
  void watchEnd();
  void breaks(const std::string& promise);
  [[nodiscard]] bool pending(Step::Kind kind) const;
  [[nodiscard]] bool nothingPending() const;
  [[nodiscard]] std::string completedWrongly() const;
  [[nodiscard]] std::string brokenHistory() const;
  [[nodiscard]] std::string brokenNews() const;
  [[nodiscard]] bool failureHasAReason() const;

  WorldSetup setup_;
  xfer::JobCore core_;
  std::optional<std::uint64_t> hostSize_;

  std::vector<Version> versions_;  // the last one is served
  std::vector<Action> actions_;
  std::vector<Transfer> transfers_;
  std::vector<std::uint64_t> timers_;
  xfer::Ticket lastTicket_ = 0;

  // The local file: what was written to it, and which bytes transfers brought that ended well.
  std::vector<std::uint8_t> file_;
  xfer::ByteRanges broughtWell_;
  bool fileClosed_ = false;
  std::optional<std::uint64_t> finalSize_;
  std::uint64_t nowNs_ = 1'000'000'000;
  bool fileOpen_ = false;
  bool openFails_ = false;
  int failures_ = 0;
  int finalizeAsked_ = 0;
  int closeAsked_ = 0;

  // What has happened, for promises about it.
  std::set<std::int32_t> seenCodes_;
  int retries_ = 0;
  int otherTags_ = 0;
  bool wholeAnswered_ = false;
  bool lied_ = false;         // the size was known wrong, or has changed
  bool sizesDiffer_ = false;  // or it may
  bool retryDueWhilePaused_ = false;
  bool pauseRemembered_ = false;  // one came during Probing
  bool finalizedWhilePaused_ = false;
  bool cancelled_ = false;

  std::string fault_;
};

}  // namespace support
