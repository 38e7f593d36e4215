// One download of the program: a job, its file, its trace and its checksum.
//
//   begin --> step, step, ... until over
//
// Threads: one, but for the wakeup, which the library's thread calls.
// Errors:  the outcome; std::bad_alloc.
// Units:   seconds.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "digest.h"
#include "options.h"
#include "outcome.h"
#include "place.h"
#include "target.h"
#include "trace_file.h"
#include "xfer/xfer.hpp"

namespace xfer_get {

class Download {
 public:
  struct Shared {
    const Options* options;
    const xfer::SpeedLimiter* limiter;
    std::function<void()> wakeUp;  ///< called when the job has ended
  };

  /// number: from 1 on, in the order in which the URLs were given.
  Download(const Shared& shared, Target target, std::size_t number);

  /// Starts the job, or is over at once.
  void begin();

  /// Breaks off whatever is under way; the outcome says so.
  void cancel();

  /// Does a bounded piece of what is to be done.  True: there is more to be done at once.
  bool step();

  [[nodiscard]] bool over() const { return outcome_.has_value(); }

  /// What the job has done since the step before; for notes.
  [[nodiscard]] const std::vector<xfer::DownloadEvent>& events() const { return events_; }

  /// Requires: over.
  [[nodiscard]] const Outcome& outcome() const { return *outcome_; }

  /// Nothing: it has not come to that.
  [[nodiscard]] std::optional<bool> checksumMatches() const { return checksumMatches_; }

  [[nodiscard]] std::size_t number() const { return number_; }
  [[nodiscard]] const Target& target() const { return target_; }

  /// Where it is stored; its target's when that has not been decided.
  [[nodiscard]] const std::string& path() const { return place_ ? place_->path() : target_.path; }

  /// Idle when there is no job.
  [[nodiscard]] xfer::DownloadSnapshot snapshot() const;

  /// Nothing when there is no job.
  [[nodiscard]] std::optional<xfer::DownloadDetails> details() const;

  /// In use, a moment ago.
  [[nodiscard]] unsigned connections() const { return *connections_; }

  /// The file's size once it is whole.
  [[nodiscard]] std::uint64_t size() const { return size_; }

  /// Since begin, until it was over.
  [[nodiscard]] double seconds() const;

 private:
  using Clock = std::chrono::steady_clock;

  [[nodiscard]] xfer::DownloadJob makeJob() const;
  void look();
  void takeArrived();
  bool check();
  void jobEnded();
  void end(Outcome outcome);
  [[nodiscard]] Outcome traceOutcome() const;
  [[nodiscard]] Asked asked() const { return {target_.url, path(), !target_.proxy.host.empty()}; }

  Shared shared_;
  Target target_;
  std::size_t number_;
  std::optional<Place> place_;
  std::optional<TraceFile> trace_;
  std::optional<FileDigest> digest_;
  std::optional<xfer::DownloadJob> job_;
  std::vector<xfer::DownloadEvent> events_;
  std::uint64_t nextEvent_ = 0;
  std::shared_ptr<std::atomic<unsigned>> connections_ = std::make_shared<std::atomic<unsigned>>(0U);
  bool stored_ = false;
  bool cancelled_ = false;
  bool late_ = false;  // cancelled since its time was over
  std::uint64_t size_ = 0;
  std::optional<bool> checksumMatches_;
  Clock::time_point begun_{};
  Clock::time_point ended_{};
  std::optional<Outcome> outcome_;
};

}  // namespace xfer_get
