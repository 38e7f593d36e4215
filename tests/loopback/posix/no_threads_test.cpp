// Threads that cannot be started.  This program's pthread_create takes the place of the system's, in the C++ library
// too: it refuses while a test says so.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <string>
#include <system_error>

#include "retry_timers.h"
#include "support/census.h"
#include "support/job_run.h"
#include "support/log_line.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "sys/data_buff.h"
#include "xfer/download_job.h"
#include "xfer/xfer.h"

namespace {

std::atomic<bool> g_refuse{false};
std::atomic<int> g_refused{0};

}  // namespace

extern "C" [[gnu::visibility("default")]] int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                                             void* (*function)(void*), void* argument) noexcept {
  if (g_refuse) {
    ++g_refused;
    return EAGAIN;
  }
  static const auto real = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  return real(thread, attributes, function, argument);
}

namespace {

using support::failure;
using support::kXfer;
using support::trace;

constexpr std::uint64_t kSize = 1000;
constexpr std::uint64_t kUntouched = 4242;

class RefusedThreads {
 public:
  RefusedThreads() {
    g_refused = 0;
    g_refuse = true;
  }
  ~RefusedThreads() { g_refuse = false; }
  RefusedThreads(const RefusedThreads&) = delete;
  RefusedThreads& operator=(const RefusedThreads&) = delete;
};

class NoThreads : public testing::Test {
 protected:
  // Nothing stays behind: the server is stopped.
  ~NoThreads() override {
    server_.stop();
    EXPECT_TRUE(support::waitUntil([this] { return support::threadCount() <= threads_; }));
  }

  [[nodiscard]] std::uint64_t start(std::uint64_t knownSize) const {
    return xfer_downloadFile(server_.url("/file").c_str(), path_.c_str(), nullptr, 2, nullptr, 0, knownSize, nullptr);
  }

  [[nodiscard]] std::uint64_t startWithoutThreads(std::uint64_t knownSize) const {
    const RefusedThreads refused;
    return start(knownSize);
  }

  struct Progress {
    std::uint64_t downloaded = kUntouched;
    std::uint32_t error = kUntouched;
    std::uint8_t finished = 99;
  };

  static Progress progressOf(std::uint64_t id) {
    Progress progress;
    EXPECT_EQ(xfer_getProgress(id, &progress.downloaded, &progress.error, &progress.finished), 0);
    return progress;
  }

  static Progress endOf(std::uint64_t id) {
    Progress progress;
    EXPECT_TRUE(support::waitUntil([&] { return (progress = progressOf(id)).finished == 1; }));
    return progress;
  }

  void expectFailedStart(std::uint64_t id) const {
    EXPECT_EQ(g_refused, 1);
    ASSERT_NE(id, 0U);
    const Progress end = endOf(id);
    EXPECT_EQ(end.error, 100000U);
    EXPECT_EQ(end.downloaded, 0U);
    EXPECT_EQ(progressOf(id).error, 100000U) << "it is known from then on";
    EXPECT_FALSE(xfer_stopDownloadHandle(id));
    EXPECT_TRUE(server_.requests().empty());
  }

  void expectNextWorks(std::uint64_t failedId, std::uint64_t knownSize) const {
    const std::uint64_t id = start(knownSize);
    EXPECT_EQ(id, failedId + 1);
    EXPECT_EQ(endOf(id).error, 0U);
    EXPECT_EQ(support::patternError(path_, kSize), "");
  }

 private:
  const std::size_t threads_ = support::threadCount();
  const support::TempDir folder_;
  const std::string path_ = folder_.file("out");

 protected:
  const support::RecordingLogger log_;
  support::ScriptedServer server_{support::patternFile(kSize)};
};

TEST_F(NoThreads, aFileDownloadThatCannotAskForTheSizeEndsWith100000) {
  const std::uint64_t id = startWithoutThreads(0);
  expectFailedStart(id);
  EXPECT_EQ(logError(log_, failure(kXfer, "xfer_downloadFile exception")), "");
  expectNextWorks(id, 0);
}

TEST_F(NoThreads, aFileDownloadThatCannotTransferEndsWith100000) {
  const std::uint64_t id = startWithoutThreads(kSize);
  expectFailedStart(id);
  expectNextWorks(id, kSize);
}

TEST_F(NoThreads, aRetryTimerThatCannotBeStartedIsNotAwaited) {
  int runs = 0;
  xfer::RetryTimers timers([](std::uint64_t) {});
  {
    const RefusedThreads refused;
    EXPECT_THROW(timers.schedule(0, [&] { ++runs; }), std::system_error);
  }
  timers.joinAll();
  EXPECT_EQ(runs, 0);
  timers.schedule(0, [&] { ++runs; });
  timers.joinAll();
  EXPECT_EQ(runs, 1);
}

TEST_F(NoThreads, aJobThatCannotAskForTheSizeSaysSoAndCanBeStartedLater) {
  const support::TempDir folder;
  xfer::DownloadRequest request;
  request.url = server_.url("/file");
  request.path = folder.file("job");
  xfer::DownloadJob job(request, {}, support::planUnderTest());
  {
    const RefusedThreads refused;
    try {
      job.start();
      FAIL() << "it has no thread";
    } catch (const std::system_error& error) {
      EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
    }
  }
  EXPECT_EQ(g_refused, 1);
  EXPECT_EQ(job.snapshot().state, xfer::JobState::Idle);
  EXPECT_EQ(wholeLogError(log_.records(), {}), "");
  EXPECT_EQ(support::run(job).state, xfer::JobState::Completed);
}

TEST_F(NoThreads, aJobThatCannotTransferFailsInItsStart) {
  const support::TempDir folder;
  xfer::DownloadRequest request;
  request.url = server_.url("/file");
  request.path = folder.file("job");
  request.knownSize = kSize;
  xfer::DownloadJob job(request, {}, support::planUnderTest());
  {
    const RefusedThreads refused;
    EXPECT_NO_THROW(job.start());
  }
  EXPECT_EQ(job.snapshot().state, xfer::JobState::Failed);
  EXPECT_EQ(job.snapshot().errorCode, 100000);
  EXPECT_EQ(wholeLogError(recordsUpTo(log_, 4), {failure(support::kJob, "job exception")}), "");
}

TEST_F(NoThreads, aRequestInTheBackgroundDoesNotStart) {
  std::uint64_t id = kUntouched;
  {
    const RefusedThreads refused;
    EXPECT_EQ(xfer_downloadAsync(server_.url("/").c_str(), &id, nullptr, nullptr, nullptr, nullptr), 100000);
  }
  EXPECT_EQ(g_refused, 1);
  EXPECT_EQ(id, kUntouched);
  EXPECT_EQ(wholeLogError(log_.records(), {trace(kXfer, 434, "--> xfer_downloadAsync | " + server_.url("/")),
                                           failure(kXfer, 457, "xfer_downloadAsync exception"),
                                           trace(kXfer, 461, "<-- xfer_downloadAsync")}),
            "");
  EXPECT_TRUE(server_.requests().empty());
  ASSERT_EQ(xfer_downloadAsync(server_.url("/").c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  sys::DataBuff headers;
  sys::DataBuff body;
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), 0);
  EXPECT_EQ(body.toString(), support::patternBytes(0, kSize));
}

}  // namespace
