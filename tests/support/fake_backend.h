// A transfer backend without a network: tests say what each transfer gets and how it ends.
//
//   FakeTransfers transfers;                       // the test's side; must outlive the backend
//   auto backend = transfers.makeBackend();        // the job's side
//   ... the job submits [0, 10) ...
//   transfers.deliver(0, 0, "0123456789");
//   transfers.finish(0, 0, 206, 10);
//
// Cancelling ends nothing by itself: like the real backend it takes effect later, when the test says finish(start, 42).
// Nor does cutting.
// Stopping ends every transfer with 42.
//
// Threads: every function from any thread.  Callbacks run on the thread that calls deliver, answer, finish, serve or
//          turn; after stop, on the one that called stop.
// Errors:  std::logic_error for a range that has no transfer in flight.
// Units:   offsets and lengths are bytes, half-open [start, end).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sys/mutex.h"
#include "transfer_backend.h"

namespace support {

enum class BackendCommand { CancelAll, Pause, Resume, Cancel, Cut, Stop };

struct BackendCall {
  BackendCommand command{};
  std::uint64_t rangeStart = 0;  // Cancel and Cut: of the transfer
  std::uint64_t end = 0;         // Cut: the new one

  bool operator==(const BackendCall&) const = default;
};

class FakeTransfers {
 public:
  std::unique_ptr<xfer::ITransferBackend> makeBackend();

  /// Every request so far, oldest first.
  [[nodiscard]] std::vector<xfer::TransferRequest> submissions() const;

  /// The starts of all ranges that were submitted so far, oldest first.
  [[nodiscard]] std::vector<std::uint64_t> submittedStarts() const;

  /// Whether there were this many submissions (in all) before the time was over.
  [[nodiscard]] bool waitForSubmissions(std::size_t count) const;

  /// The starts of the ranges whose transfers have not ended, oldest first.
  [[nodiscard]] std::vector<std::uint64_t> inFlight() const;

  /// Whether the range was or came in flight before the time was over.
  [[nodiscard]] bool waitForInFlight(std::uint64_t rangeStart) const;

  /// What the backend was told beside submissions, oldest first.
  [[nodiscard]] std::vector<BackendCall> calls() const;
  [[nodiscard]] std::size_t count(BackendCommand command) const;

  /// Every later submission ends at once with this code.
  void refuseSubmissions(std::int32_t code);

  /// Every later submission throws std::runtime_error.
  void throwOnSubmit();

  /// Shows the head of an answer to the transfer; one that it refuses ends, as in the real backend.
  xfer::Placement answer(std::uint64_t rangeStart, const xfer::ResponseHead& head);

  void deliver(std::uint64_t rangeStart, std::uint64_t offset, const std::string& bytes);
  void finish(std::uint64_t rangeStart, std::int32_t code, std::int32_t httpStatus, std::uint64_t bytes = 0);
  void finish(std::uint64_t rangeStart, const xfer::TransferEnd& how);

  /// The whole range, of the pattern, as a 206.
  void serve(std::uint64_t rangeStart);

  /// Ends a turn of the loop: calls the turn callback, if there is one and the backend has not stopped.
  void turn(const xfer::LoopTurn& turn) const;

 private:
  friend class FakeBackend;
  struct Transfer {
    xfer::Ticket ticket = 0;
    xfer::TransferRequest request;
    xfer::DataCallback onData;
    xfer::DoneCallback onDone;
    bool ended = false;
  };

  [[nodiscard]] std::shared_ptr<Transfer> running(std::uint64_t rangeStart) const;
  void end(Transfer& transfer, const xfer::TransferEnd& how);
  void stop();

  mutable sys::Mutex mutex_;  // not held while calling back
  std::vector<std::shared_ptr<Transfer>> transfers_ SYS_GUARDED_BY(mutex_);
  std::vector<BackendCall> calls_ SYS_GUARDED_BY(mutex_);
  std::function<void(const xfer::LoopTurn&)> onTurn_ SYS_GUARDED_BY(mutex_);
  std::optional<std::int32_t> refusal_ SYS_GUARDED_BY(mutex_);
  bool throws_ SYS_GUARDED_BY(mutex_) = false;
  bool stopped_ SYS_GUARDED_BY(mutex_) = false;
};

class FakeBackend final : public xfer::ITransferBackend {
 public:
  explicit FakeBackend(FakeTransfers& transfers) : transfers_(transfers) {}
  ~FakeBackend() override { transfers_.stop(); }
  FakeBackend(const FakeBackend&) = delete;
  FakeBackend& operator=(const FakeBackend&) = delete;

  xfer::Ticket submit(const xfer::TransferRequest& request, xfer::DataCallback onData,
                      xfer::DoneCallback onDone) override;
  void cancelAll() noexcept override { record({BackendCommand::CancelAll, 0}); }
  void pause() noexcept override { record({BackendCommand::Pause, 0}); }
  void resume() noexcept override { record({BackendCommand::Resume, 0}); }
  [[nodiscard]] std::int32_t activeCount() const override;
  void cancel(xfer::Ticket ticket) noexcept override;
  void cut(xfer::Ticket ticket, std::uint64_t end) override;
  void onTurn(std::function<void(const xfer::LoopTurn&)> callback) override;
  void stop() noexcept override { transfers_.stop(); }

 private:
  void record(const BackendCall& call);

  FakeTransfers& transfers_;
};

}  // namespace support
