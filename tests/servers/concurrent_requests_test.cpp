// Two hundred requests at once through the C interface.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/census.h"
#include "support/gate.h"
#include "support/pattern.h"
#include "support/raw_client.h"
#include "support/real_servers.h"
#include "support/wait_until.h"
#include "sys/data_buff.h"
#include "xfer/xfer.h"

namespace {

using support::RealServer;
using support::RealServers;

constexpr int kThreads = 16;
constexpr int kEach = 4;
constexpr int kRequests = 200;
constexpr int kBackground = kRequests - kThreads * kEach;

// Ids that one thread hands to others.
class Ids {
 public:
  void put(std::uint64_t id) {
    {
      const std::lock_guard lock(mutex_);
      ids_.push_back(id);
    }
    changed_.notify_one();
  }

  void close() {
    {
      const std::lock_guard lock(mutex_);
      closed_ = true;
    }
    changed_.notify_all();
  }

  /// Nothing when there will be no more.
  std::optional<std::uint64_t> take() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return closed_ || !ids_.empty(); });
    if (ids_.empty()) return std::nullopt;
    const std::uint64_t id = ids_.front();
    ids_.pop_front();
    return id;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<std::uint64_t> ids_;
  bool closed_ = false;
};

// What is left is counted when libcurl has been ended, which the process can do once: hence one suite a program.
class ConcurrentRequests : public testing::TestWithParam<RealServer> {
 protected:
  static void SetUpTestSuite() {
    std::thread([] {}).join();
    support::RawClient(static_cast<std::uint16_t>(RealServers().proxyPort()));
    threads_ = support::threadCount();
    handles_ = support::openFileCount();
  }

  static void TearDownTestSuite() {
    xfer_curlGlobalCleanup();
    EXPECT_TRUE(support::waitUntil([] { return support::threadCount() <= threads_; }))
        << support::threadCount() << " threads, at first " << threads_;
    EXPECT_TRUE(support::waitUntil([] { return support::openFileCount() <= handles_; }))
        << support::openFileCount() << " descriptors, at first " << handles_;
  }

  static std::size_t threads_;
  static std::size_t handles_;
};

std::size_t ConcurrentRequests::threads_ = 0;
std::size_t ConcurrentRequests::handles_ = 0;

TEST_P(ConcurrentRequests, eachReturnsTheRightBytes) {
  const std::string url = RealServers().url(GetParam(), "/1m.bin");
  const std::string expected = support::patternBytes(0, RealServers::kSmallFileBytes);
  std::atomic<int> right{0};
  std::atomic<int> wrong{0};
  const auto judge = [&](std::int32_t code, sys::DataBuff& headers, sys::DataBuff& body) {
    const bool good = code == 0 && body.toString() == expected && headers.toString().find(" 200 ") != std::string::npos;
    (good ? right : wrong) += 1;
  };

  support::Gate start;
  Ids ids;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      EXPECT_TRUE(start.wait());
      for (int n = 0; n < kEach; ++n) {
        sys::DataBuff headers;
        sys::DataBuff body;
        const int code = xfer_download(url.c_str(), "", "", &headers, &body, "", "");
        judge(code, headers, body);
      }
    });
  }
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      while (const auto id = ids.take()) {
        sys::DataBuff headers;
        sys::DataBuff body;
        const std::int32_t code = xfer_queryAsyncBuffer(*id, &headers, &body);
        judge(code, headers, body);
      }
    });
  }
  start.open();
  for (int i = 0; i < kBackground; ++i) {
    std::uint64_t id = 0;
    const std::int32_t code = xfer_downloadAsync(url.c_str(), &id, "", "", "", "");
    EXPECT_EQ(code, 0);
    if (code == 0) ids.put(id);
  }
  ids.close();
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(right, kRequests);
  EXPECT_EQ(wrong, 0);
}

INSTANTIATE_TEST_SUITE_P(Servers, ConcurrentRequests, testing::Values(RealServer::Nginx, RealServer::NginxTls),
                         [](const auto& server) { return support::nameOf(server.param); });

}  // namespace
