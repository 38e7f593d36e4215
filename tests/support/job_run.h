// What tests of whole downloads have in common.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "job_state.h"
#include "support/plan_under_test.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/wait_until.h"
#include "xfer/download_job.h"

namespace support {

/// As wait, but a job that does not end in time comes back with the state that it hangs in.
template <class Job>
xfer::DownloadSnapshot waitForEnd(const Job& job) {
  static_cast<void>(waitUntil([&] { return xfer::isFinal(job.snapshot().state); }));
  return job.snapshot();
}

template <class Job>
xfer::DownloadSnapshot run(Job& job) {
  job.start();
  return waitForEnd(job);
}

inline xfer::DownloadRequest requestFor(std::string url, std::string path, std::uint64_t knownSize = 0) {
  xfer::DownloadRequest request;
  request.url = std::move(url);
  request.path = std::move(path);
  request.knownSize = knownSize;
  return request;
}

/// Ranges of one size.
inline xfer::DownloadPolicy chunksOf(std::uint64_t bytes, std::uint16_t numThreads) {
  xfer::DownloadPolicy policy;
  policy.numThreads = numThreads;
  policy.rampChunks = false;
  policy.initialChunkSize = policy.maxChunkSize = bytes;
  return policy;
}

/// The range that was asked for, of a file of total bytes, once the gate is open.
inline Reply rangeAfter(const Gate& goOn, const ReceivedRequest& request, std::uint64_t total) {
  const std::uint64_t first = request.range->first;
  const std::uint64_t end = std::min(request.range->last.value_or(total - 1) + 1, total);
  return Reply()
      .waitFor(goOn)
      .send("HTTP/1.1 206 Partial Content\r\nContent-Length: " + std::to_string(end - first) + "\r\n\r\n")
      .sendPattern(first, end);
}

/// What was logged, for whoever looks into a failure.
inline void tell(const RecordingLogger& log) {
  for (const Record& record : log.records()) {
    std::cerr << record.level << ' ' << record.tag.value_or("-") << ' ' << record.text << '\n';
  }
}

/// Counts what comes with the same key.  Copies count together.
class Tally {
 public:
  /// How many came before this one.
  std::size_t add(std::uint64_t key) const {
    const std::lock_guard lock(counts_->mutex);
    return counts_->byKey[key]++;
  }

  [[nodiscard]] std::size_t of(std::uint64_t key) const {
    const std::lock_guard lock(counts_->mutex);
    return counts_->byKey[key];
  }

 private:
  struct Counts {
    std::mutex mutex;
    std::map<std::uint64_t, std::size_t> byKey;
  };
  std::shared_ptr<Counts> counts_ = std::make_shared<Counts>();
};

}  // namespace support
