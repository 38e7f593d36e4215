// All that a download job knows of the world, in a test's hand: a backend of fake transfers, a clock that only the test
// moves, a probe that answers what the test says, and retry delays that end when the test says so.
//
// Threads: every function from any thread, but what makes the job's environment behave otherwise is set before the job
//          starts.
// Units:   times of the clock are nanoseconds, delays milliseconds.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <vector>

#include "download_job_impl.h"
#include "support/fake_backend.h"
#include "sys/mutex.h"

namespace support {

class FakeJobWorld {
 public:
  /// Refers to this object, which must outlive the job.
  xfer::JobEnvironment environment();

  FakeTransfers transfers;

  /// What the probe does; a file of unknown size that is served in ranges when the test says nothing.
  std::function<xfer::RemoteFileInfo(const xfer::DownloadRequest&, int timeoutSec, const xfer::StopSignal&)> probe;

  /// Runs before each backend is made; may throw.
  std::function<void()> beforeBackend;

  void advanceMs(std::uint64_t time) { nowNs_ += time * 1'000'000; }

  [[nodiscard]] std::size_t probes() const { return probes_; }

  /// The policies that backends were made with.
  [[nodiscard]] std::vector<xfer::DownloadPolicy> backendPolicies() const;

  /// Every delay that was asked for so far, oldest first.
  [[nodiscard]] std::vector<std::uint64_t> delaysMs() const;

  /// Whether this many delays (in all) had begun before the time was over.
  [[nodiscard]] bool waitForDelays(std::size_t count) const;

  /// Ends the delays that have begun.
  void endDelays();

  /// From now on a delay ends at once.
  void endDelaysAtOnce();

 private:
  void wait(std::uint64_t delayMs, xfer::StopSignal& stop);

  std::atomic<std::uint64_t> nowNs_{1'000'000'000};
  std::atomic<std::size_t> probes_{0};
  mutable sys::Mutex mutex_;
  std::vector<xfer::DownloadPolicy> policies_ SYS_GUARDED_BY(mutex_);
  std::vector<std::uint64_t> delays_ SYS_GUARDED_BY(mutex_);
  std::size_t ended_ SYS_GUARDED_BY(mutex_) = 0;  // so many of the delays, from the oldest on, are over
  bool atOnce_ SYS_GUARDED_BY(mutex_) = false;
};

}  // namespace support
