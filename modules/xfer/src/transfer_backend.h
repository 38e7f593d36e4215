// What runs a job's range transfers: the interface, and the records that cross it.  Knows nothing of libcurl, ranges
// plans or files.
//
// Threads: every operation from any thread; stop and destruction not from a callback, since they wait for the thread
//          that runs the callbacks.  Data, head and done callbacks run on one thread, one at a time; they must not
//          block for long.  The done callback of a submit that fails at once runs on the submitting thread.
// Errors:  through the done callback.  pause, resume, cancel, cancelAll and stop neither allocate nor throw.
// Units:   offsets and lengths are bytes, half-open [start, end); speeds bytes per second.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "body_placement.h"
#include "net/proxy.h"
#include "response_head.h"

namespace xfer {

/// Names one submitted transfer of a backend; never used twice.
using Ticket = std::uint64_t;

/// How a transfer ended.
struct TransferEnd {
  /// 0 (success), 18 (short range), 42 (cancelled, or the backend has stopped), -1 (could not be set up or added),
  /// 43 (the request would smuggle in a header line) or another code of libcurl.
  std::int32_t code = 0;
  std::int32_t status = 0;  ///< HTTP status; 0: none was seen
  std::uint64_t bytes = 0;  ///< delivered, counted from the range's start
};

/// Gets each piece of a successful response's body: the file offset where it belongs, its bytes (only valid during the
/// call) and their number.
using DataCallback = std::function<void(std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length)>;

/// Called exactly once for each submitted transfer, unless the backend is stopped before it has begun with it.
using DoneCallback = std::function<void(std::uint64_t rangeStart, const TransferEnd& end)>;

/// Judges a response with a status below 400 before its first body byte, or at its end when it has none.
using HeadCallback = std::function<Placement(const ResponseHead& head)>;

/// What is to be fetched.  Constant from submit on; what one attempt at it learns is the backend's own affair.
struct TransferRequest {
  std::string url;
  std::string cookie;                ///< empty: none
  std::vector<std::string> headers;  ///< whole lines
  net::Proxy proxy;                  ///< empty host: none
  std::uint64_t rangeStart = 0;
  std::uint64_t rangeEnd = 0;      ///< 0: open-ended; with a start of 0 no range is asked for at all
  std::uint64_t maxRecvSpeed = 0;  ///< 0: unlimited
  HeadCallback onHead;             ///< empty: whatever arrives is taken as the range asked for
  /// Whether the transfer is to be held just now; asked by the loop thread whenever it turns, so an answer that changes
  /// takes effect soon after resume or pause is called.  Empty: the transfer is held by pause and let go by resume.
  std::function<bool()> isHeld;
};

class ITransferBackend {
 public:
  virtual ~ITransferBackend() = default;

  /// Queues one transfer.  May throw; then there is no transfer.
  virtual Ticket submit(const TransferRequest& request, DataCallback onData, DoneCallback onDone) = 0;

  /// Ends every transfer that was submitted before, with 42.  Later ones run.
  virtual void cancelAll() noexcept = 0;

  /// Holds the transfers that are active when the loop gets to it; later ones run.
  virtual void pause() noexcept = 0;

  /// Lets every transfer that pause held run on.
  virtual void resume() noexcept = 0;

  /// How many transfers are on the wire.
  [[nodiscard]] virtual std::int32_t activeCount() const = 0;

  /// Ends one transfer with 42; does nothing when it has ended.
  virtual void cancel(Ticket ticket) noexcept = 0;

  /// Ends the loop thread and every transfer, with 42; those that the loop had not taken over yet get no done callback.
  /// Later submissions end at once, with 42.  Destruction does the same; a job calls it first so that no other thread
  /// is inside the object when it goes.
  virtual void stop() noexcept = 0;
};

}  // namespace xfer
