// A backend with a way into the turns of its loop, and with what its transfers brought and how they ended.  Bodies are
// expected to be the pattern.
//
//   LoopingBackend backend;
//   const Ticket ticket = backend.submit(rangeOf(url, 0, 1000));
//   backend.cut(ticket, 500);                              // returns when it is done
//   EXPECT_EQ(backend.ends(1), (std::vector<End>{...}));
//
// Threads: every function from one thread, which is not the loop's.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "curl_multi_backend.h"
#include "support/gate.h"
#include "support/pattern.h"
#include "support/wait_until.h"

namespace support {

struct End {
  std::uint64_t start = 0;
  std::int32_t code = 0;
  std::int32_t status = 0;
  std::uint64_t bytes = 0;

  bool operator==(const End&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const End& end) {
  return out << "{" << end.start << ", " << end.code << ", " << end.status << ", " << end.bytes << "}";
}

inline xfer::TransferRequest rangeOf(const std::string& url, std::uint64_t start, std::uint64_t end) {
  xfer::TransferRequest request;
  request.url = url;
  request.rangeStart = start;
  request.rangeEnd = end;
  return request;
}

class LoopingBackend {
 public:
  using Task = std::function<void(xfer::CurlMultiBackend&)>;

  explicit LoopingBackend(const xfer::DownloadPolicy& policy = {}) : backend_(policy) {
    backend_.onTurn([this](const xfer::LoopTurn&) { runTasks(); });
  }

  xfer::Ticket submit(const xfer::TransferRequest& request) {
    return backend_.submit(
        request,
        [this](std::uint64_t offset, const std::uint8_t* bytes, std::uint64_t length) {
          const std::lock_guard lock(mutex_);
          wrong_ = wrong_ ||
                   std::string(reinterpret_cast<const char*>(bytes), length) != patternBytes(offset, offset + length);
          received_ += length;
        },
        [this](std::uint64_t start, const xfer::TransferEnd& end) {
          const std::lock_guard lock(mutex_);
          ends_.push_back({start, end.code, end.status, end.bytes});
        });
  }

  /// Runs the task on the loop thread at the end of a turn; returns when it has run.
  void atTurn(Task task) {
    Gate over;
    {
      const std::lock_guard lock(mutex_);
      tasks_.emplace_back([task = std::move(task), over](xfer::CurlMultiBackend& backend) mutable {
        task(backend);
        over.open();
      });
    }
    EXPECT_TRUE(over.wait());
  }

  void cut(xfer::Ticket ticket, std::uint64_t end) {
    atTurn([=](xfer::CurlMultiBackend& backend) { backend.cut(ticket, end); });
  }

  /// All so far, once there are so many.
  std::vector<End> ends(std::size_t count) {
    EXPECT_TRUE(waitUntil([&] {
      const std::lock_guard lock(mutex_);
      return ends_.size() >= count;
    }));
    const std::lock_guard lock(mutex_);
    return ends_;
  }

  std::uint64_t received() {
    const std::lock_guard lock(mutex_);
    EXPECT_FALSE(wrong_) << "bytes that do not belong where they were delivered";
    return received_;
  }

  [[nodiscard]] bool waitForBytes(std::uint64_t count) {
    return waitUntil([&] { return received() >= count; });
  }

  xfer::CurlMultiBackend& backend() { return backend_; }

 private:
  void runTasks() {
    std::vector<Task> tasks;
    {
      const std::lock_guard lock(mutex_);
      tasks.swap(tasks_);
    }
    for (const Task& task : tasks) task(backend_);
  }

  std::mutex mutex_;
  std::vector<Task> tasks_;
  std::vector<End> ends_;
  std::uint64_t received_ = 0;
  bool wrong_ = false;
  xfer::CurlMultiBackend backend_;  // last: its loop uses the others
};

}  // namespace support
