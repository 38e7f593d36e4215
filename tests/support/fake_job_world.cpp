#include "support/fake_job_world.h"

#include <chrono>
#include <memory>

#include "support/wait_until.h"

namespace support {

xfer::JobEnvironment FakeJobWorld::environment() {
  xfer::JobEnvironment environment;
  environment.makeBackend = [this](const xfer::DownloadRequest&, const xfer::DownloadPolicy& policy) {
    if (beforeBackend) beforeBackend();
    const sys::MutexLock lock(mutex_);
    policies_.push_back(policy);
    return transfers.makeBackend();
  };
  environment.probe = [this](const xfer::DownloadRequest& request, int timeoutSec, const xfer::StopSignal& stop) {
    ++probes_;
    if (probe) return probe(request, timeoutSec, stop);
    xfer::RemoteFileInfo info;
    info.acceptRanges = true;
    info.httpStatus = 206;
    return info;
  };
  environment.nowNs = [this] { return nowNs_.load(); };
  environment.waitForRetry = [this](std::uint64_t delayMs, xfer::StopSignal& stop) { wait(delayMs, stop); };
  return environment;
}

std::vector<xfer::DownloadPolicy> FakeJobWorld::backendPolicies() const {
  const sys::MutexLock lock(mutex_);
  return policies_;
}

std::vector<std::uint64_t> FakeJobWorld::delaysMs() const {
  const sys::MutexLock lock(mutex_);
  return delays_;
}

bool FakeJobWorld::waitForDelays(std::size_t count) const {
  return waitUntil([&] { return delaysMs().size() >= count; });
}

void FakeJobWorld::endDelays() {
  const sys::MutexLock lock(mutex_);
  ended_ = delays_.size();
}

void FakeJobWorld::endDelaysAtOnce() {
  const sys::MutexLock lock(mutex_);
  atOnce_ = true;
}

void FakeJobWorld::wait(std::uint64_t delayMs, xfer::StopSignal& stop) {
  std::size_t index = 0;
  {
    const sys::MutexLock lock(mutex_);
    index = delays_.size();
    delays_.push_back(delayMs);
  }
  const auto over = [&] {
    const sys::MutexLock lock(mutex_);
    return atOnce_ || index < ended_;
  };
  while (!over() && !stop.isSet()) stop.waitFor(std::chrono::milliseconds(1));
}

}  // namespace support
