// A world around one AdaptivePlan, in virtual time: a server, connections with rates, and a caller that does what a job
// does on its loop.  Each world is drawn from a seed; it keeps watch over what the plan promises.
//
// Bytes flow as a fluid.  A new connection costs one to three latencies before its request is answered, one that was
// kept only one, and begins slowly where slow starts are on.  Rates change, end, fall silent; their sum may be capped.
//
// The ideal is the time that the same world needs where no byte has an owner: the first connection alone until its
// request is answered; from then on as many as the plan may use, and the server serves, each set up like any other one
// and then delivering at its own rate, through the same slow starts and under the same cap, without a pause; one that
// dies or falls silent is replaced in that moment.  Its connections are the first of those that the plan meets.  The
// plan can be faster, where it leaves slow connections for others.
//
// Threads: one at a time.
// Errors:  the first promise that was broken is in the outcome.
// Units:   times are seconds, rates bytes per second.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace support {

/// What a server does to requests that it does not want.
enum class Refusal { Connection, Busy, Mute, Forbidden };

struct PlanWorld {
  std::uint64_t seed = 0;
  std::uint64_t size = 0;
  std::size_t connections = 8;
  bool sizeGiven = false;
  bool shortFirst = false;  ///< the plan first asks for no more than 1 MiB

  double latency = 0.05;
  double setup = 1;  ///< latencies that a new connection costs beyond those of its request
  bool slowStarts = false;
  double rate = 1e6;     ///< of a connection
  double spread = 0;     ///< rates differ by so much of it
  double sumCap = 0;     ///< 0: none
  double slowShare = 0;  ///< of connections that are slowBy times slower
  double slowBy = 1;
  double changeEvery = 0;  ///< 0: rates do not change
  double changeBy = 0;
  double deathShare = 0;    ///< of connections that break after a part of endAfter
  double silenceShare = 0;  ///< or fall silent
  double endAfter = 0;      ///< bytes

  // What makes it hostile.
  std::size_t served = 0;  ///< most connections at once; 0: any number
  Refusal refusal = Refusal::Busy;
  double busyFrom = 0;
  double busyTo = 0;           ///< until then new requests are answered with 503
  bool tellsWhen = false;      ///< with Retry-After
  double flaky = 0;            ///< share of requests that fail
  double voided = 0;           ///< share of broken transfers of which nothing counts
  std::uint64_t rangeCap = 0;  ///< most bytes of a range
  bool ranges = true;
  bool unsized = false;
  std::int32_t refusesAll = 0;  ///< with this status

  // What the caller does.
  double holdFrom = 0;
  double holdTo = 0;
  enum class Hold { None, Paused, Throttled, ProcessorBound, Outage } hold = Hold::None;
};

struct PlanOutcome {
  std::string fault{};  ///< empty: none
  bool gaveUp = false;
  double seconds = 0;
  double ideal = 0;
  std::uint64_t requests = 0;
  std::uint64_t duplicates = 0;
  std::uint64_t turns = 0;
};

/// Worlds in which nothing but connections goes wrong.
PlanWorld drawWorld(std::uint64_t seed);

/// Worlds with a server or a caller that hinders.
PlanWorld drawHostileWorld(std::uint64_t seed);

/// Whether a job may give up in it.
bool deservesGivingUp(const PlanWorld& world);

PlanOutcome live(const PlanWorld& world);

/// For people.
std::string describe(const PlanWorld& world);

}  // namespace support
