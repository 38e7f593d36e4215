#include "downloads.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>

#include "download.h"
#include "terminal.h"
#include "xfer/speed_limiter.h"

namespace xfer_get {
namespace {

using Clock = std::chrono::steady_clock;

// Signals wake nobody up, so they are looked for this often.
constexpr auto kLook = std::chrono::milliseconds(20);

// Ends a wait early when a download ends.
class Wakeup {
 public:
  void wakeUp() {
    const std::lock_guard lock(mutex_);
    woken_ = true;
    changed_.notify_one();
  }

  void waitFor(std::chrono::milliseconds most) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, most, [this] { return woken_; });
    woken_ = false;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool woken_ = false;
};

class Runner {
 public:
  Runner(const Options& options, const std::vector<Target>& targets, Report& report)
      : options_(options), targets_(targets), report_(report), limiter_(options.bytesPerSec) {}

  ExitCode run() {
    while (!running_.empty() || mayBegin()) {
      while (running_.size() < options_.jobs && mayBegin()) begin();
      if (stopped() && !cancelled_) cancelAll();
      const bool busy = stepAll();
      report_.show(shown(), tally());
      if (!busy && !running_.empty()) wakeup_.waitFor(kLook);
    }
    report_.over(tally());
    if (brokenOff()) return kCancelled;
    return failed_.empty() ? kDone : failed_.begin()->second;
  }

 private:
  [[nodiscard]] bool stopped() const { return endingSignal() != 0 || !report_.isGood(); }
  [[nodiscard]] bool mayBegin() const { return next_ < targets_.size() && !stopped(); }

  [[nodiscard]] bool brokenOff() const {
    return next_ < targets_.size() ||
           std::any_of(failed_.begin(), failed_.end(), [](const auto& one) { return one.second == kCancelled; });
  }

  void begin() {
    const Target& target = targets_[next_++];
    const Download::Shared shared{&options_, &limiter_, [this] { wakeup_.wakeUp(); }};
    auto download = std::make_unique<Download>(shared, target, next_);
    download->begin();
    report_.begun(*download);
    running_.push_back(std::move(download));
  }

  void cancelAll() {
    cancelled_ = true;
    for (const auto& download : running_) download->cancel();
  }

  bool stepAll() {
    bool busy = false;
    for (const auto& download : running_) {
      busy |= download->step();
      report_.stepped(*download);
      if (download->over()) ended(*download);
    }
    const auto over = std::remove_if(running_.begin(), running_.end(), [](const auto& one) { return one->over(); });
    busy |= over != running_.end();
    running_.erase(over, running_.end());
    return busy;
  }

  void ended(const Download& download) {
    if (download.outcome().code == kDone) {
      ++done_;
      bytes_ += download.size();
    } else {
      failed_.emplace(download.number(), download.outcome().code);
    }
    report_.ended(download);
  }

  [[nodiscard]] std::vector<const Download*> shown() const {
    std::vector<const Download*> shown;
    for (const auto& download : running_) shown.push_back(download.get());
    return shown;
  }

  [[nodiscard]] Tally tally() const {
    return {
        static_cast<unsigned>(targets_.size()), done_,  static_cast<unsigned>(failed_.size()),
        static_cast<unsigned>(running_.size()), bytes_, std::chrono::duration<double>(Clock::now() - begun_).count()};
  }

  const Options& options_;
  const std::vector<Target>& targets_;
  Report& report_;
  const xfer::SpeedLimiter limiter_;
  const Clock::time_point begun_ = Clock::now();
  Wakeup wakeup_;  // outlives the downloads, whose jobs call it
  std::vector<std::unique_ptr<Download>> running_;
  std::size_t next_ = 0;  // target
  bool cancelled_ = false;
  unsigned done_ = 0;
  std::uint64_t bytes_ = 0;
  std::map<std::size_t, ExitCode> failed_;  // by number
};

}  // namespace

ExitCode runDownloads(const Options& options, const std::vector<Target>& targets, Report& report) {
  return Runner(options, targets, report).run();
}

}  // namespace xfer_get
