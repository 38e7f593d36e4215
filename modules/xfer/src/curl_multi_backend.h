// Runs range transfers: the interface that a job uses, and its implementation on one libcurl multi handle.
//
// One backend belongs to one job.  It owns one thread, the event loop, which alone drives the multi handle and the easy
// handles; other threads hand it work through two locked queues and wake it.
//
//   submit ──► submissions ──► waiting ──(gate: numThreads)──► active on the multi handle ──► done callback
//
// The gate is the backend's own: libcurl counts its connection limits over the pool it shares, and a transfer that it
// holds back there can wait for ever.  For its whole life a backend leases one share handle (see share_pool.h), so that
// no other thread is ever inside its connection pool.
//
// Threads: the public operations from any thread.  stop and destruction not from a callback: they join the loop thread,
//          and a thread that joins itself ends the process.
//          Data, head and done callbacks run on the loop thread, one at a time; they must not block for long.  The done
//          callback of a submit that fails at once runs on the submitting thread.
// Errors:  through the done callback.  An exception from a callback is caught: from the done callback it is logged,
//          from the others it ends the transfer with libcurl's write error (23).
// Units:   offsets and lengths are bytes, half-open [start, end); speeds bytes per second.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "curl_handles.h"
#include "net/proxy.h"
#include "response_head.h"
#include "share_pool.h"
#include "sys/mutex.h"
#include "token_bucket.h"
#include "xfer/download_job.h"

namespace xfer {

/// Gets each piece of a successful response's body: the file offset where it belongs, its bytes (only valid during the
/// call) and their number.
using DataCallback = std::function<void(std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length)>;

/// Called exactly once for each submitted transfer, unless the backend is stopped before it has begun with it.  code is
/// 0 (success), 18 (short range), 42 (cancelled, or the backend has stopped), -1 (could not be set up or added),
/// 43 (the request would smuggle in a header line) or another code of libcurl.
using DoneCallback =
    std::function<void(std::uint64_t rangeStart, std::int32_t code, std::int32_t httpStatus, std::uint64_t bytes)>;

/// What becomes of a response's body.
struct Placement {
  enum class Action {
    Deliver,  ///< goes to the data callback
    Drop,     ///< is read and forgotten; the transfer ends as it ends
    Stop      ///< the transfer ends before its first byte is delivered, with code as its result
  } action = Action::Deliver;
  std::uint64_t bodyOffset = 0;  ///< Deliver: where in the file the body's first byte belongs; what lies before the
                                 ///< range's start is dropped
  std::uint64_t end = 0;         ///< Deliver: where the needed part ends; a body that goes on is cut off, which is a
                                 ///< success, and one that ends earlier is short; 0: as long as it goes
  std::int32_t code = 0;         ///< Stop
};

/// Judges a response with a status below 400 before its first body byte.
using HeadCallback = std::function<Placement(const ResponseHead& head)>;

struct TransferRequest {
  std::string url;
  std::string cookie;                ///< empty: none
  std::vector<std::string> headers;  ///< whole lines
  net::Proxy proxy;                  ///< empty host: none
  std::uint64_t rangeStart = 0;
  std::uint64_t rangeEnd = 0;      ///< 0: open-ended; with a start of 0 no range is asked for at all
  std::uint64_t maxRecvSpeed = 0;  ///< 0: unlimited
  HeadCallback onHead;             ///< empty: whatever arrives is taken as the range asked for
};

class ITransferBackend {
 public:
  virtual ~ITransferBackend() = default;

  /// Queues one transfer.
  virtual void submit(const TransferRequest& request, DataCallback onData, DoneCallback onDone) = 0;

  /// Ends every transfer that was submitted before, with 42.  Later ones run.
  virtual void cancelAll() = 0;

  /// Holds the transfers that are active when the loop gets to it; later ones run.
  virtual void pause() = 0;

  /// Lets every held transfer run on.
  virtual void resume() = 0;

  /// How many transfers are on the multi handle.
  [[nodiscard]] virtual std::int32_t activeCount() const = 0;

  /// Ends the transfer of the range that starts here, with 42, if it was submitted and has not ended.
  virtual void cancelRange(std::uint64_t rangeStart) = 0;

  /// Ends the loop thread and every transfer, with 42; those that the loop had not taken over yet get no done callback.
  /// Later submissions end at once, with 42.  Destruction does the same; a job calls it first so that no other thread
  /// is inside the object when it goes.
  virtual void stop() = 0;
};

enum class BackendCommand : std::uint32_t { CancelAll = 0, PauseAll = 1, ResumeAll = 2, Stop = 3, CancelRange = 4 };

class CurlMultiBackend final : public ITransferBackend {
 public:
  /// origin tells whose connections it would like to find in its share; see SharePool::lease.  Throws std::system_error
  /// when the loop thread cannot be started.
  explicit CurlMultiBackend(const DownloadPolicy& policy, std::string_view origin = {});
  ~CurlMultiBackend() override;
  CurlMultiBackend(const CurlMultiBackend&) = delete;
  CurlMultiBackend& operator=(const CurlMultiBackend&) = delete;

  void submit(const TransferRequest& request, DataCallback onData, DoneCallback onDone) override;
  void cancelAll() override { command(BackendCommand::CancelAll); }
  void pause() override { command(BackendCommand::PauseAll); }
  void resume() override { command(BackendCommand::ResumeAll); }
  [[nodiscard]] std::int32_t activeCount() const override { return activeCount_.load(std::memory_order_relaxed); }
  void cancelRange(std::uint64_t rangeStart) override { command(BackendCommand::CancelRange, rangeStart); }
  void stop() override;

 private:
  struct Transfer;
  using Transfers = std::list<std::unique_ptr<Transfer>>;  // lists: moving a transfer on never allocates

  struct QueuedCommand {
    BackendCommand command;
    std::uint64_t rangeStart;
    std::uint64_t sequence;  // submissions with a lower number are older than the command
  };

  // What a transfer on the multi handle has the use of; it passes from one to the next.
  struct Slot {
    TokenBucket bucket;
    std::vector<std::uint8_t> staging;  // body bytes of this turn: few large writes beat many small ones
  };

  static std::size_t onHeader(char* bytes, std::size_t size, std::size_t count, void* transfer);
  static std::size_t onBody(char* bytes, std::size_t size, std::size_t count, void* transfer);

  void command(BackendCommand command, std::uint64_t rangeStart = 0) SYS_EXCLUDES(mutex_);
  void configure(Transfer& transfer, const TransferRequest& request);

  void eventLoop();
  void turn() SYS_EXCLUDES(mutex_);
  void apply(const QueuedCommand& queued);
  template <class Predicate>
  void cancel(Transfers& transfers, Predicate&& which);
  void cancelEverything() SYS_EXCLUDES(mutex_);
  [[nodiscard]] bool hasRoom() const;
  void addTransfer();
  void leaveMulti(Transfer& transfer);
  void flushBodies();
  void processCompleted();
  [[nodiscard]] bool isWorthAnotherTry(Transfer& transfer, CURLcode result) const;
  void putBack(Transfers::iterator position);
  void completeTransfer(Transfers::iterator position, CURLcode result);
  void finishTransfer(const Transfer& transfer, std::int32_t result, std::int32_t httpStatus, std::uint64_t bytes);
  void resumeThrottled();
  void applyPauses(Transfers::iterator position);

  // Constant after construction.
  const DownloadPolicy policy_;
  ShareLease share_;  // before the handles that are in it
  MultiPtr multi_;

  sys::Mutex mutex_;  // never held while calling libcurl or a callback
  std::vector<QueuedCommand> commands_ SYS_GUARDED_BY(mutex_);
  Transfers submissions_ SYS_GUARDED_BY(mutex_);
  std::uint64_t nextSequence_ SYS_GUARDED_BY(mutex_) = 0;

  // Loop thread only; after it has ended, whoever destroys the backend.
  std::vector<QueuedCommand> takenCommands_;
  Transfers taken_;            // submissions of this turn, until its commands are applied
  Transfers waiting_;          // in front of the gate, oldest first
  Transfers putBack_;          // to be tried again: go to the front of waiting_ in the next turn
  Transfers active_;           // on the multi handle
  std::list<Slot> slots_;      // in use by active transfers
  std::list<Slot> freeSlots_;  // left by those that ended; the last one is the most recent

  std::atomic<bool> running_{false};          // read by submit on other threads
  std::atomic<std::int32_t> activeCount_{0};  // read by activeCount on other threads
  std::thread loop_;
};

}  // namespace xfer
