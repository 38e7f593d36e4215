// How often and by how many connections a job may ask its host: decides after each failure whether to go on, when, and
// over how many connections.
//
//   - The host's own word (Retry-After) counts for the whole job: no new request before its time, and up to a tenth
//     later at random.
//   - Without it delays are random below 1 s, then 2 s and so on up to 60 s.
//   - Retries come out of a bucket: a try that brings nothing costs one, progress pays back.  Failures of requests that
//     were begun before the last one was counted belong to the same round and cost nothing.
//   - A host that refuses one request while it serves others gets fewer connections: those that it serves; half of them
//     when that was still too many.  Later one more is tried at a time, and kept where the sum of the rates rises.
//   - While nobody delivers, one request at a time tries for all.
//
// Knows nothing of ranges, transfers, threads and clocks: it is told the time.
//
// Threads: one at a time.
// Errors:  none; nothing allocates.
// Units:   times are nanoseconds of one monotonic clock, rates bytes per second.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "host_terms.h"
#include "retry_policy.h"
#include "transfer_backend.h"

namespace xfer {

class HostPace {
 public:
  struct Settings {
    std::size_t connections = 1;
    std::size_t maxTries = 10;
    std::uint64_t longestWaitNs = 0;
    std::uint64_t retryMaxNs = 0;  ///< 0: never gives up for this
    std::uint64_t seed = 0;
  };

  /// A request that failed.
  struct Failure {
    Verdict verdict = Verdict::Retryable;
    const TransferEnd& end;
    std::uint64_t begunNs = 0;  ///< when it was submitted
    std::uint64_t brought = 0;  ///< bytes that count
    bool answered = false;
    std::size_t inFlight = 0;    ///< others in flight
    std::size_t delivering = 0;  ///< of which so many receive
  };

  /// A try that brought so many bytes costs nothing.
  static constexpr std::uint64_t kProgress = std::uint64_t{16} * 1024;

  explicit HostPace(const Settings& settings);

  /// Most requests at once.
  [[nodiscard]] std::size_t connections() const;

  /// No new request before.
  [[nodiscard]] std::uint64_t notBeforeNs() const;

  [[nodiscard]] const HostTerms& terms() const { return terms_; }

  /// Takes the later time and the lower number.
  void adopt(const HostTerms& terms);

  /// The time without progress starts to count.
  void begin(std::uint64_t nowNs);

  /// A usable answer has come.
  void answered();

  /// Bytes have come.
  void delivered(std::uint64_t nowNs);

  /// The job was paused for so long: this does not count as time without progress.
  void paused(std::uint64_t elapsedNs) { progressNs_ += elapsedNs; }

  /// A request has brought kProgress.
  void paidBack();

  /// How long from now the next request has to wait, in nanoseconds; nothing: the job gives up.
  [[nodiscard]] std::optional<std::uint64_t> failed(const Failure& failure, std::uint64_t nowNs);

  /// A request was given up without an answer while others receive.  inFlight: those that are left.
  void unanswered(std::size_t inFlight, std::uint64_t nowNs);

  /// Tries one connection more when it is time.  inFlight: all; sumRate: of all.
  void turn(std::size_t inFlight, double sumRate, std::uint64_t nowNs);

 private:
  void fewer(std::size_t inFlight, std::uint64_t begunNs, std::uint64_t nowNs);
  void allow(std::size_t connections);
  void holdBack(std::uint64_t nowNs);
  double random();

  const Settings settings_;
  HostTerms terms_;
  std::uint64_t randomState_;

  double tokens_;
  std::uint32_t round_ = 0;       // of delays without a word of the host
  std::uint64_t waitNs_ = 0;      // until when
  std::uint64_t countedNs_ = 0;   // when a failure was counted last
  std::uint64_t progressNs_ = 0;  // when bytes came last
  bool everServed_ = false;
  bool scouting_ = false;

  std::uint64_t troubleNs_ = 0;  // when connections was lowered or settled last
  std::uint64_t loweredNs_ = 0;  // when it was lowered for trouble last; 0: never
  std::uint64_t growAfterNs_;
  bool probing_ = false;       // one more is being tried
  std::uint64_t probeNs_ = 0;  // since when it is in use
  double rateBefore_ = 0;
};

}  // namespace xfer
