// Tells a host what its job does: turns what the job says of itself into calls of the host's callback.
//
//   states and notes   each once, in their order, as long as the job's news keeps them
//   progress           when more bytes have arrived, and not sooner than the interval after the last one
//   the end            once, after everything else
//
// Threads: open and close: any.  tell: the dispatcher's.
// Errors:  a callback that throws fails the job.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "event_dispatcher.h"
#include "xfer/download_update.h"

namespace xfer {

class JobUpdates final : public EventDispatcher::Source {
 public:
  /// What is asked of the job, without a lock, until close has returned.
  class Job {
   public:
    [[nodiscard]] virtual std::vector<DownloadEvent> news(std::uint64_t fromNumber) = 0;
    [[nodiscard]] virtual DownloadSnapshot snapshot() const = 0;
    [[nodiscard]] virtual std::size_t inFlight() const = 0;
    virtual void callbackThrew() noexcept = 0;

    /// The end has been told: whoever waits for that goes on.
    virtual void endTold() noexcept = 0;

   protected:
    ~Job() = default;
  };

  JobUpdates(Job& job, std::function<void(const DownloadUpdate&)> callback, std::chrono::milliseconds interval)
      : job_(job), callback_(std::move(callback)), interval_(interval) {}

  std::optional<EventDispatcher::Time> tell() noexcept override;

  /// Nothing is told before: a callback may destroy the job, which nobody must be inside of then.
  void open() noexcept;

  /// Whether there is something to come, the end at least.
  [[nodiscard]] bool isPending() const noexcept { return open_ && !closed_ && !ended_; }

  /// Nothing is told from now on; at once inside of the callback, else once a call that is under way has returned.
  void close() noexcept;

 private:
  void tellNews();
  std::optional<EventDispatcher::Time> tellProgress() noexcept;
  void call(DownloadUpdate::Kind kind, JobState state, const DownloadSnapshot& snapshot,
            const DownloadEvent& note) noexcept;

  Job& job_;
  const std::function<void(const DownloadUpdate&)> callback_;
  const std::chrono::milliseconds interval_;  // 0: progress is not told
  std::atomic<bool> open_{false};
  std::atomic<bool> closed_{false};
  std::atomic<bool> ended_{false};  // and that was told

  // The dispatcher's thread's.
  std::uint64_t nextEvent_ = 0;
  std::uint64_t toldBytes_ = 0;
  EventDispatcher::Time progressDue_{};
};

}  // namespace xfer
