// Runs range transfers on one libcurl multi handle.
//
// One backend belongs to one job.  It owns one thread, the event loop, which alone drives the multi handle and the easy
// handles; other threads hand it work through a locked queue and locked flags, and wake it.
//
//   submit ──► submissions ──► waiting ──(gate: numThreads)──► active on the multi handle ──► done callback
//                                 ^──────────put back──────────────┘
//
// The gate is the backend's own: libcurl counts its connection limits over the pool it shares, and a transfer that it
// holds back there can wait for ever.  For its whole life a backend leases one share handle (see share_pool.h), so that
// no other thread is ever inside its connection pool.
//
// Threads: see transfer_backend.h.  A thread that joins itself ends the process.  What runs on the loop thread asserts
//          it in debug builds.
// Errors:  see transfer_backend.h.  An exception from a callback is caught: from the done and turn callbacks it is
//          logged, from the others it ends the transfer with libcurl's write error (23).
// Units:   offsets and lengths are bytes, half-open [start, end); speeds bytes per second.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>
#include <vector>

#include "curl_handles.h"
#include "share_pool.h"
#include "sys/mutex.h"
#include "tls_trust.h"
#include "token_bucket.h"
#include "transfer_backend.h"
#include "xfer/download_records.h"

namespace xfer {

class CurlMultiBackend final : public ITransferBackend {
 public:
  /// origin tells whose connections it would like to find in its share; see SharePool::lease.  Throws std::system_error
  /// when the loop thread cannot be started.
  explicit CurlMultiBackend(const DownloadPolicy& policy, std::string_view origin = {}, const TlsTrust& trust = {});
  ~CurlMultiBackend() override;
  CurlMultiBackend(const CurlMultiBackend&) = delete;
  CurlMultiBackend& operator=(const CurlMultiBackend&) = delete;

  Ticket submit(const TransferRequest& request, DataCallback onData, DoneCallback onDone) override;
  void cancelAll() noexcept override;
  void pause() noexcept override { setHold(true); }
  void resume() noexcept override { setHold(false); }
  [[nodiscard]] std::int32_t activeCount() const override { return activeCount_.load(std::memory_order_relaxed); }
  void cancel(Ticket ticket) noexcept override;
  void cut(Ticket ticket, std::uint64_t end) override;
  void onTurn(std::function<void(const LoopTurn&)> callback) override;
  void stop() noexcept override;

 private:
  struct Transfer;
  using Transfers = std::list<std::unique_ptr<Transfer>>;  // lists: moving a transfer on never allocates

  // What other threads want of the loop.  A fixed set, so that asking never allocates.
  struct Commands {
    bool stop = false;
    Ticket cancelBelow = 0;    // every transfer with a lower ticket is to end
    std::optional<bool> hold;  // what pause or resume, whichever came last, wants of the active transfers
    bool cancelSome = false;   // some in live_ are marked
  };

  // Body bytes of this turn, of one transfer at a time: few large writes beat many small ones, and libcurl hands out
  // what it has of one transfer before it turns to the next.
  class Staging {
   public:
    void add(Transfer& transfer, const std::uint8_t* piece, std::uint64_t offset, std::uint64_t length);
    void flush();                         // hands what is staged to its transfer's data callback
    void drop(const Transfer& transfer);  // what is staged of it

   private:
    static void deliver(Transfer& transfer, std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length);

    std::vector<std::uint8_t> bytes_;
    Transfer* owner_ = nullptr;  // null: nothing is staged
    std::uint64_t offset_ = 0;   // in the file, of the first byte
  };

  static std::size_t onHeader(char* bytes, std::size_t size, std::size_t count, void* transfer);
  static std::size_t onBody(char* bytes, std::size_t size, std::size_t count, void* transfer);

  void setHold(bool hold) noexcept SYS_EXCLUDES(mutex_);
  void wake() noexcept;
  [[nodiscard]] std::int32_t configure(Transfer& transfer);

  void assertLoopThread() const;
  void eventLoop();
  void turn() SYS_EXCLUDES(mutex_);
  void apply(const Commands& commands) SYS_EXCLUDES(mutex_);
  template <class Predicate>
  void cancelWhere(Transfers& transfers, Predicate&& which);
  void cancelEverything() SYS_EXCLUDES(mutex_);
  [[nodiscard]] bool hasRoom() const;
  void addTransfer();
  void leaveMulti(Transfer& transfer);
  void flushBodies();
  void processCompleted();
  [[nodiscard]] bool isWorthAnotherTry(Transfer& transfer, CURLcode result) const;
  void putBack(Transfers::iterator position);
  void completeTransfer(Transfers::iterator position, CURLcode result);
  void finishTransfer(const Transfer& transfer, const TransferEnd& end) SYS_EXCLUDES(mutex_);
  void updateHolds();
  [[nodiscard]] bool releasePiece(Transfers::iterator position);
  void applyHolds(Transfers::iterator position);
  void reportTurn();
  void reportLastTurn();
  void poll(int timeoutMs);

  // Constant after construction.
  const DownloadPolicy policy_;
  const TlsTrust trust_;
  ShareLease share_;  // before the handles that are in it
  MultiPtr multi_;

  sys::Mutex mutex_;  // never held while calling libcurl or a callback
  Commands commands_ SYS_GUARDED_BY(mutex_);
  Transfers submissions_ SYS_GUARDED_BY(mutex_);
  std::map<Ticket, bool> live_ SYS_GUARDED_BY(mutex_);  // submitted and not ended: whether it is to be cancelled
  Ticket lastTicket_ SYS_GUARDED_BY(mutex_) = 0;
  std::function<void(const LoopTurn&)> newTurnCallback_ SYS_GUARDED_BY(mutex_);  // empty: the loop has taken it over

  // Loop thread only; after it has ended, the thread that destroys the backend.
  Transfers taken_;    // submissions of this turn, until its commands are applied
  Transfers waiting_;  // in front of the gate, oldest first
  Transfers putBack_;  // to be tried again: go to the front of waiting_ in the next turn
  Transfers active_;   // on the multi handle
  Staging staging_;
  // Each keeps a connection's share of the speed, and passes from one transfer to the next.
  std::list<TokenBucket> buckets_;      // in use by active transfers
  std::list<TokenBucket> freeBuckets_;  // left by those that ended; the last one is the most recent
  std::function<void(const LoopTurn&)> turnCallback_;
  std::optional<std::uint64_t> reportedNs_;  // when the turn callback ran last
  std::uint64_t sleptNs_ = 0;                // since then

  std::atomic<bool> running_{false};          // read by submit on other threads
  std::atomic<std::int32_t> activeCount_{0};  // read by activeCount on other threads
  std::atomic<std::thread::id> loopId_{};     // for assertions
  std::thread loop_;
};

}  // namespace xfer
