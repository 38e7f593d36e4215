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
#include <utility>
#include <vector>

#include "curl_multi_backend.h"
#include "support/brought.h"
#include "support/gate.h"
#include "support/wait_until.h"

namespace support {

class LoopingBackend {
 public:
  using Task = std::function<void(xfer::CurlMultiBackend&)>;

  explicit LoopingBackend(const xfer::DownloadPolicy& policy = {}) : backend_(policy) {
    backend_.onTurn([this](const xfer::LoopTurn&) { runTasks(); });
  }

  xfer::Ticket submit(const xfer::TransferRequest& request) { return brought_.submitTo(backend_, request); }

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

  /// See Brought.
  std::vector<End> ends(std::size_t count) { return brought_.ends(count); }
  std::uint64_t received() { return brought_.received(); }

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
  Brought brought_;
  xfer::CurlMultiBackend backend_;  // last: its loop uses the others
};

}  // namespace support
