// Cuts a file into pieces by what its connections deliver, and cuts the pieces again while they run, so that no slow,
// silent or dead connection holds the download up.
//
//   - The first piece's answer tells the size, and whether more connections can help.  They are opened once the loop
//     waits for the network; until then whoever is free gets all that is missing.  The first piece is long, so that its
//     connection delivers while the others are opened and wait for their answers.
//   - What is missing is shared among all connections in long contiguous pieces.
//   - A connection without work takes the tail of the piece that is predicted to end last, so much that all end
//     together.  Nothing is taken that does not pay for the request, and nothing while the processor is the limit.
//   - A piece whose connection is silent while others receive is closed, and so is one that is far slower than the
//     others; what it lacks is missing again.  When all are silent the network is, and nothing is closed but
//     requests without an answer, which lose nothing: one at a time, each after twice the time.
//   - At the end, where nothing is worth taking, the last piece may be fetched a second time.  The first to be complete
//     wins; the other one is closed.  Apart from this no byte has two owners.
//   - What the host bears is decided in host_pace.h.
//
// The caller reports the position of every piece, then calls turn and carries its orders out, then calls next until
// nothing is left to do or limit() are in flight.  A piece is one request; one that ends at the end it was handed out
// with leaves its connection open for the next piece, any other one does not.
//
// Time in which the job is paused, or a speed limit holds a transfer, is neither silence nor a low rate.  While a speed
// limit is what holds pieces up, nothing is moved or copied.
//
// Threads: one at a time.
// Errors:  std::bad_alloc.
// Units:   as range_plan.h; rates are bytes per second.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "byte_range.h"
#include "host_pace.h"
#include "host_terms.h"
#include "range_plan.h"

namespace xfer {

struct AdaptiveSettings {
  std::size_t connections = 1;                    ///< most at once
  std::uint64_t firstPiece = 1073741824;          ///< longest first piece, which tells the size; at least 1
  std::size_t maxTries = 10;                      ///< tries in a row that bring nothing before the job gives up
  std::uint64_t longestWaitNs = 600'000'000'000;  ///< a host that asks for a longer wait ends the job
  std::uint64_t retryMaxNs = 0;                   ///< gives up after so long a time without progress; 0: never
  std::uint64_t seed = 0;                         ///< of the random part of delays
};

class AdaptivePlan final : public RangePlan {
 public:
  /// What is to become of pieces in flight.
  struct Orders {
    struct Cut {
      PieceId piece = 0;
      std::uint64_t end = 0;  ///< where the piece ends now: behind what it has delivered, before its end so far
    };
    struct Close {
      enum class Reason {
        Silent,
        Slow,
        Overtaken  ///< another piece has brought the same bytes
      };
      PieceId piece = 0;
      Reason reason = Reason::Silent;
    };
    std::vector<Cut> cuts{};
    std::vector<Close> closes{};  ///< the plan knows these no more; what they have not delivered is missing again
  };

  /// What one piece in flight does.
  struct Activity {
    PieceId piece = 0;
    ByteRange range{};
    std::uint64_t position = 0;     ///< exclusive end of what it has delivered
    std::uint64_t bytesPerSec = 0;  ///< 0: nothing was measured yet
    std::uint64_t silentNs = 0;     ///< since the last byte, without the time in which it was held
    bool copy = false;              ///< of a range that another piece fetches too
  };

  struct Counters {
    std::uint64_t stolenBytes = 0;     ///< moved from one piece in flight to another
    std::uint64_t duplicateBytes = 0;  ///< that copies brought a second time
    std::uint64_t retries = 0;         ///< failures that were followed by another try
    std::uint64_t replaced = 0;        ///< connections that were given up for being silent or slow
  };

  /// With a size that the host gave; nothing: the first answer tells.
  AdaptivePlan(const AdaptiveSettings& settings, std::optional<std::uint64_t> size);

  // ---- What the first answer tells ----

  /// The size is known now: of the first answer, when none was known before.
  void setSize(std::uint64_t size);

  /// The size cannot be known before the end: one piece, without a range.  Forgets every piece in flight.
  void setUnsized();

  // ---- Events of pieces in flight ----

  /// The head of its answer has come and was accepted.
  void answered(PieceId piece, std::uint64_t nowNs);

  /// Where it is now, and whether a speed limit holds it.  Before each turn, for every piece in flight.
  void report(PieceId piece, std::uint64_t position, bool throttled);

  /// The caller ended its transfer after it had arrived up to reached: what follows is missing again.
  void interrupted(PieceId piece, std::uint64_t reached);

  /// paused: the job is, so nothing can arrive.
  [[nodiscard]] Orders turn(const LoopTurn& turn, bool paused);

  // ---- The host ----

  /// What the host asked for, or bears, as far as this job knows.
  [[nodiscard]] const HostTerms& terms() const;

  /// No new request before: as the host asked, or after failures.  0: at any time.
  [[nodiscard]] std::uint64_t notBeforeNs() const { return pace_.notBeforeNs(); }

  /// What others have learned of the host.
  void adopt(const HostTerms& terms);

  // ---- For onlookers ----

  [[nodiscard]] std::vector<Activity> activity() const;
  [[nodiscard]] const Counters& counters() const;

  /// What nobody fetches, ascending.  Of a file whose size the plan does not know: all of it, as far as offsets go,
  /// while nothing is in flight.
  [[nodiscard]] std::vector<ByteRange> missing() const;

  // ---- RangePlan ----

  [[nodiscard]] std::size_t limit() const override;
  void oneAtATime() override;
  std::optional<Piece> next(std::uint64_t nowNs) override;
  void complete(PieceId piece, std::uint64_t nowNs) override;
  [[nodiscard]] bool partDone(PieceId piece, std::uint64_t reached, std::uint64_t lastBytes,
                              std::uint64_t nowNs) override;
  void release(PieceId piece) override;
  FollowUp failed(PieceId piece, Verdict verdict, const TransferEnd& end, std::uint64_t reached,
                  std::uint64_t nowNs) override;
  [[nodiscard]] bool awaitsRequeue(PieceId /*piece*/) const override { return false; }
  void requeue(PieceId /*piece*/) override {}
  void completeFrom(PieceId piece) override;
  [[nodiscard]] std::uint64_t openEnd() const override;
  [[nodiscard]] bool allDone() const override;

 private:
  // A moving average: old bytes and the time in which they came fade alike.
  struct Meter {
    double bytes = 0;
    double seconds = 0;

    void add(double newBytes, double newSeconds, double keep, double window) {
      bytes = bytes * keep + newBytes;
      seconds = seconds * keep + (newSeconds > 0 ? window * (1 - keep) : 0);
    }
    [[nodiscard]] double rate() const { return seconds > 0 ? bytes / seconds : 0; }
  };

  struct Flight {
    PieceId id = 0;
    ByteRange range{};
    std::uint64_t uncutEnd = 0;
    std::uint64_t position = 0;
    std::uint64_t measuredTo = 0;  // position at the turn before
    std::uint64_t have = 0;        // up to here another piece has delivered its bytes
    std::uint64_t begunNs = 0;
    std::uint64_t begunActiveNs = 0;  // on the clock that stands still in pauses
    std::uint64_t quietNs = 0;        // since the last byte, without the time in which it was held
    std::uint64_t silentNs = 0;       // of which the loop waited for the network
    std::uint64_t receivingNs = 0;    // since the first byte, without the time in which it was held
    std::uint64_t slowNs = 0;         // so long it has been far slower than the others
    Meter slow{};
    Meter quick{};
    double expectedRate = 0;  // until it is measured; 0: as any other that was not
    PieceId twin = 0;         // fetches the same bytes up to the end; 0: none
    bool answered = false;
    bool fresh = false;  // over a new connection
    bool throttled = false;
    bool copy = false;
    bool copied = false;  // it has, or had, a copy
    bool paidBack = false;
    bool clockStarted = false;  // the turn in which it began is over

    [[nodiscard]] std::uint64_t left() const { return range.end > position ? range.end - position : 0; }
  };

  // It has lost against its copy, or as one, and is to be closed.
  struct Loser {
    PieceId id = 0;
    ByteRange shared{};  // what both fetched
    std::uint64_t position = 0;
  };

  using Index = std::size_t;

  [[nodiscard]] Index find(PieceId piece) const;
  [[nodiscard]] Flight* known(PieceId piece);
  Piece launch(const ByteRange& range, std::uint64_t nowNs);
  void takeOff(Index index, std::uint64_t reached);
  void separate(const Flight& ended, std::uint64_t reached);
  void delivered(std::uint64_t nowNs);
  void keepConnection(const Flight& ended);
  void forgetLoser(PieceId piece);
  void settleLoser(const Loser& loser);
  void addMissing(const ByteRange& range);
  void dropMissingFrom(std::uint64_t start);
  [[nodiscard]] ByteRange takeShare(std::size_t slots);
  [[nodiscard]] std::size_t soonFree(std::size_t slots) const;

  void measure(std::uint64_t elapsedNs, std::uint64_t sleptNs, bool paused, std::uint64_t nowNs);
  void watchLoop(const LoopTurn& turn);
  void judge(Orders& orders, std::uint64_t elapsedNs, std::uint64_t nowNs);
  [[nodiscard]] std::size_t countReceiving(std::uint64_t withinNs) const;
  [[nodiscard]] bool isSuspect(const Flight& flight, std::size_t receiving) const;
  void steal(Orders& orders);
  [[nodiscard]] double endTogether(std::size_t thieves) const;
  void considerCopy();
  Flight* latestFlight();
  [[nodiscard]] std::size_t idle() const;
  [[nodiscard]] bool countsInParts() const { return !whole_ && !oneAtATime_; }
  [[nodiscard]] bool isShared() const { return opened_ && !oneAtATime_ && !whole_; }

  void updateRates(double elapsedSec);
  [[nodiscard]] double rateOf(const Flight& flight) const;
  [[nodiscard]] double expectedRate(bool fresh) const;
  [[nodiscard]] double secondsToGo(const Flight& flight) const;
  [[nodiscard]] double waitOf(const Flight& flight) const;
  [[nodiscard]] double cost(bool fresh) const;
  [[nodiscard]] double patience(const Flight& flight) const;
  [[nodiscard]] std::uint64_t fewestBytes() const;
  [[nodiscard]] double smallestPiece(bool fresh) const;
  [[nodiscard]] double smallestGain(bool fresh) const;
  [[nodiscard]] std::uint64_t mostDuplicates() const;
  [[nodiscard]] bool isMeasured(const Flight& flight) const;

  const AdaptiveSettings settings_;
  HostPace pace_;
  Counters counters_{};

  std::optional<std::uint64_t> size_;
  bool whole_ = false;      // one piece without a range: the size is unknown or 0
  bool wholeDone_ = false;  // only when whole_
  bool oneAtATime_ = false;
  bool firstAnswered_ = false;
  bool opened_ = false;  // more connections than the first

  std::vector<ByteRange> missing_;  // ascending, neither touching nor overlapping; nobody's
  std::vector<Flight> flights_;     // by ascending ids
  std::vector<Loser> losers_;
  PieceId lastId_ = 0;
  PieceId copyNext_ = 0;       // next is to copy this one; 0: none
  std::size_t stolenFor_ = 0;  // among so many pieces what is missing is to be shared; 0: among all idle connections
  std::size_t kept_ = 0;       // idle connections
  std::size_t freshOwed_ = 0;  // pieces that are to replace a connection
  std::size_t slowClosed_ = 0;
  std::size_t closedInVain_ = 0;    // for silence, since the last byte of all
  std::uint64_t smallAnswers_ = 0;  // in a row
  std::uint64_t duplicatesAtRisk_ = 0;

  bool changed_ = false;  // since it was looked for something to take
  std::uint64_t lookAgainNs_ = 0;

  std::uint64_t lastTurnNs_ = 0;
  std::uint64_t limitedNs_ = 0;  // when a speed limit held a piece last; 0: never
  std::uint64_t pausedNs_ = 0;
  std::uint64_t loopNs_ = 0;   // of the window in which the loop is watched
  std::uint64_t sleptNs_ = 0;  // in that window
  bool busy_ = false;          // the processor is the limit, as far as the last window tells

  double newConnectionSec_ = 0;  // to the head of an answer; 0: not measured
  double keptConnectionSec_ = 0;
  double gapSec_ = 0;          // between bursts, where bytes come in bursts
  double medianRate_ = 0;      // of those in flight
  double newRate_ = 0;         // that a new connection is expected to have
  double keptRate_ = 0;        // average of the idle ones
  std::vector<double> rates_;  // for the median
};

}  // namespace xfer
