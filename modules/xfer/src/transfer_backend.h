// The interface that runs a job's range transfers, and its records.  Knows nothing of libcurl, range plans or files.
//
// Threads: any; but stop and destruction not from a callback, since they join the thread that runs the callbacks.
//          Callbacks run on that thread and must not block for long; but the done callback of a submit that fails at
//          once runs on the submitting thread.
// Errors:  reported to the done callback.  pause, resume, cancel, cancelAll and stop neither allocate nor throw.
// Units:   offsets and lengths are bytes, half-open [start, end); speeds bytes per second.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "body_placement.h"
#include "net/proxy.h"
#include "rate_limit.h"
#include "response_head.h"
#include "short_text.h"

namespace xfer {

/// Identifies one submitted transfer of a backend; never reused.
using Ticket = std::uint64_t;

/// How a transfer ended.
struct TransferEnd {
  /// 0 (success), 18 (short range), 42 (cancelled, or the backend has stopped), -1 (could not be set up or added),
  /// 43 (line break in the cookie or a header) or another libcurl code.
  std::int32_t code = 0;
  std::int32_t status = 0;  ///< HTTP status; 0: none
  std::uint64_t bytes = 0;  ///< delivered, from the range's start
  /// How long the server asked to be left alone, in seconds from now on.  Nothing: it did not, or not legibly.
  std::optional<std::uint64_t> retryAfterSec{};
  ShortText text{};  ///< what lies behind the code; empty: no more is known
};

/// One turn of the backend's loop.
struct LoopTurn {
  std::uint64_t nowNs = 0;    ///< monotonic
  std::uint64_t sinceNs = 0;  ///< the time since the turn before
  std::uint64_t sleptNs = 0;  ///< of which the loop waited for the network, and was not busy
  bool last = false;          ///< the loop cannot go on: nothing that is submitted from now on will run
};

/// Takes each piece of a successful response's body: its file offset, its bytes (valid only during the call) and their
/// number.
using DataCallback = std::function<void(std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length)>;

/// Called exactly once for each submitted transfer, or never when the backend stops before its loop has taken it over.
using DoneCallback = std::function<void(std::uint64_t rangeStart, const TransferEnd& end)>;

/// Judges a response with a status below 400 before its first body byte, or at its end when it has none.
using HeadCallback = std::function<Placement(const ResponseHead& head)>;

/// What to fetch.  Constant from submit on; the backend keeps the state of each attempt.
struct TransferRequest {
  std::string url;
  std::string cookie;                ///< empty: none
  std::vector<std::string> headers;  ///< lines "Name: value"
  net::Proxy proxy;                  ///< empty host: none
  std::uint64_t rangeStart = 0;
  std::uint64_t rangeEnd = 0;      ///< 0: open-ended; when rangeStart is 0 too, no range is requested
  std::uint64_t maxRecvSpeed = 0;  ///< its share while the job's own limit is not set; 0: unlimited
  SpeedLimits limits;
  bool freshConnection = false;     ///< not over a connection that was used before
  std::uint64_t receiveBuffer = 0;  ///< bytes; 0: as usual
  HeadCallback onHead;              ///< empty: any body is taken as the requested range
  /// Tells whether a speed limit holds the transfer, at each change; on the loop thread.
  std::function<void(bool held)> onThrottled;
  /// Whether to hold the transfer.  The loop thread asks at every turn, and pause and resume start a turn.  Empty:
  /// pause and resume hold and continue the transfer.
  std::function<bool()> isHeld;
};

class ITransferBackend {
 public:
  virtual ~ITransferBackend() = default;

  /// Queues one transfer.  May throw; nothing is queued then.
  virtual Ticket submit(const TransferRequest& request, DataCallback onData, DoneCallback onDone) = 0;

  /// Ends every transfer submitted so far with 42.  Later ones run.
  virtual void cancelAll() noexcept = 0;

  /// Holds the transfers without isHeld that are active when the loop handles the command; later ones run.
  virtual void pause() noexcept = 0;

  /// Continues every transfer that pause held.
  virtual void resume() noexcept = 0;

  /// The number of transfers in progress, without queued ones.
  [[nodiscard]] virtual std::int32_t activeCount() const = 0;

  /// Ends one transfer with 42; does nothing when it has ended already.
  virtual void cancel(Ticket ticket) noexcept = 0;

  /// Lowers the exclusive end of the bytes that a transfer has to deliver; it ends well there, at once when it is there
  /// already.  Only from the turn callback.  Does nothing when the transfer has ended, or ends before.
  virtual void cut(Ticket ticket, std::uint64_t end) = 0;

  /// Calls back on the loop thread at the end of each of its turns, at least every 20 ms, after the data and done
  /// callbacks of the turn.  Set before the first submit; a loop that does not run at all says so at once, on the
  /// calling thread.
  virtual void onTurn(std::function<void(const LoopTurn&)> callback) = 0;

  /// Ends every transfer with 42 and joins the loop thread; transfers that the loop has not taken over yet get no done
  /// callback.  Later submissions end at once with 42.  Destruction does the same; a job calls stop first, so that no
  /// other thread uses the object during destruction.
  virtual void stop() noexcept = 0;
};

}  // namespace xfer
