// What the tables of ids do around a job that throws, and around one whose destruction takes long.  The linker sends
// the C interface's calls of a job through the functions below (see CMakeLists.txt).
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>

#include "handles.h"
#include "support/gate.h"
#include "support/log_line.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "xfer/download_job.h"
#include "xfer/xfer.h"

namespace {

std::atomic<bool> g_jobsThrow{false};
std::atomic<bool> g_destructorsWait{false};
std::atomic<int> g_destroyed{0};

struct Gates {
  support::Gate entered;
  support::Gate mayEnd;
};
Gates* g_destruction = nullptr;  // of the destructors that wait

void throwOnDemand() {
  if (g_jobsThrow) throw std::runtime_error("demanded by the test");
}

}  // namespace

extern "C" {

void __real__ZN4xfer11DownloadJob5pauseEv(xfer::DownloadJob* job);
void __real__ZN4xfer11DownloadJob6resumeEv(xfer::DownloadJob* job);
void __real__ZN4xfer11DownloadJob6cancelEv(xfer::DownloadJob* job);
xfer::DownloadSnapshot __real__ZNK4xfer11DownloadJob8snapshotEv(const xfer::DownloadJob* job);
void __real__ZN4xfer11DownloadJobD1Ev(xfer::DownloadJob* job);

void __wrap__ZN4xfer11DownloadJob5pauseEv(xfer::DownloadJob* job) {
  throwOnDemand();
  __real__ZN4xfer11DownloadJob5pauseEv(job);
}

void __wrap__ZN4xfer11DownloadJob6resumeEv(xfer::DownloadJob* job) {
  throwOnDemand();
  __real__ZN4xfer11DownloadJob6resumeEv(job);
}

void __wrap__ZN4xfer11DownloadJob6cancelEv(xfer::DownloadJob* job) {
  throwOnDemand();
  __real__ZN4xfer11DownloadJob6cancelEv(job);
}

xfer::DownloadSnapshot __wrap__ZNK4xfer11DownloadJob8snapshotEv(const xfer::DownloadJob* job) {
  throwOnDemand();
  return __real__ZNK4xfer11DownloadJob8snapshotEv(job);
}

void __wrap__ZN4xfer11DownloadJobD1Ev(xfer::DownloadJob* job) {
  if (g_destructorsWait) {
    g_destruction->entered.open();
    EXPECT_TRUE(g_destruction->mayEnd.wait());
  }
  __real__ZN4xfer11DownloadJobD1Ev(job);
  ++g_destroyed;
}
}

namespace {

using support::failure;
using support::kXfer;
using support::logError;

constexpr std::uint64_t kSize = 1000;
constexpr std::uint32_t kMalformedUrl = 3;  // libcurl's code

struct Progress {
  std::uint64_t downloaded = 7777;
  std::uint32_t error = 8888;
  std::uint8_t finished = 99;
};

Progress progressOf(std::uint64_t id) {
  Progress progress;
  EXPECT_EQ(xfer_getProgress(id, &progress.downloaded, &progress.error, &progress.finished), 0);
  return progress;
}

class Handles : public testing::Test {
 protected:
  Handles() { g_destroyed = 0; }

  [[nodiscard]] std::uint64_t startEndless() const {
    return xfer_downloadFile(server_.url("/file").c_str(), folder_.file("out").c_str(), nullptr, 1, nullptr, 0, kSize,
                             nullptr);
  }

  [[nodiscard]] std::uint64_t startFailing() const {
    return xfer_downloadFile("", folder_.file("failing").c_str(), nullptr, 1, nullptr, 0, kSize, nullptr);
  }

  const support::TempDir folder_;
  const support::RecordingLogger log_{3};
  const support::ScriptedServer server_{[](const support::ReceivedRequest& request) {
    return support::range206(request, kSize, {.bodyBytes = 1}).stall();
  }};
};

class ThrowingJobs {
 public:
  ThrowingJobs() { g_jobsThrow = true; }
  ~ThrowingJobs() { g_jobsThrow = false; }
  ThrowingJobs(const ThrowingJobs&) = delete;
  ThrowingJobs& operator=(const ThrowingJobs&) = delete;
};

// Runs a call on a thread of its own, whose destruction of a job waits until finish.
class SlowDestruction {
 public:
  template <class Call>
  explicit SlowDestruction(Call call) {
    g_destruction = &gates_;
    g_destructorsWait = true;
    thread_ = std::thread([this, call] {
      call();
      returned_ = true;
    });
    EXPECT_TRUE(gates_.entered.wait());
    g_destructorsWait = false;
  }
  ~SlowDestruction() { finish(); }
  SlowDestruction(const SlowDestruction&) = delete;
  SlowDestruction& operator=(const SlowDestruction&) = delete;

  [[nodiscard]] bool returned() const { return returned_; }

  void finish() {
    gates_.mayEnd.open();
    if (thread_.joinable()) thread_.join();
  }

 private:
  Gates gates_;
  std::atomic<bool> returned_{false};
  std::thread thread_;
};

TEST_F(Handles, areAllForgottenAtOnce) {
  xfer::Handles table;
  const std::uint64_t download = table.file(xfer::Handles::reserveDownload());
  const std::uint64_t request = table.file(xfer::Handles::reserveRequest());
  EXPECT_TRUE(table.progress(download));
  table.clear();
  EXPECT_FALSE(table.progress(download));
  EXPECT_TRUE(table.take(request).empty());
}

TEST_F(Handles, aStopIsTrueAndTheJobGoneWhenItsCancelThrows) {
  const std::uint64_t id = startEndless();
  {
    const ThrowingJobs throwing;
    EXPECT_TRUE(xfer_stopDownloadHandle(id));
  }
  EXPECT_EQ(g_destroyed, 1) << "before the call returned";
  EXPECT_EQ(logError(log_, failure(kXfer, 580, "xfer_stopDownloadHandle exception")), "");
  EXPECT_EQ(progressOf(id).downloaded, 7777U) << "no result of a stopped download is kept";
  EXPECT_FALSE(xfer_stopDownloadHandle(id));
}

TEST_F(Handles, aPauseOrResumeThatThrowsIs100000) {
  const std::uint64_t id = startEndless();
  {
    const ThrowingJobs throwing;
    EXPECT_EQ(xfer_downloadPause(id), 100000);
    EXPECT_EQ(xfer_downloadResume(id), 100000);
  }
  EXPECT_EQ(logError(log_, failure(kXfer, "xfer_downloadPause exception")), "");
  EXPECT_EQ(logError(log_, failure(kXfer, "xfer_downloadResume exception")), "");
  EXPECT_EQ(xfer_downloadPause(id), 0);
  EXPECT_TRUE(xfer_stopDownloadHandle(id));
}

TEST_F(Handles, aProgressThatThrowsChangesNothing) {
  const std::uint64_t id = startEndless();
  {
    const ThrowingJobs throwing;
    const Progress progress = progressOf(id);
    EXPECT_EQ(progress.downloaded, 7777U);
    EXPECT_EQ(progress.error, 8888U);
    EXPECT_EQ(progress.finished, 99);
  }
  EXPECT_EQ(logError(log_, failure(kXfer, "xfer_getProgress exception")), "");
  EXPECT_EQ(progressOf(id).finished, 0);
  EXPECT_TRUE(xfer_stopDownloadHandle(id));
}

TEST_F(Handles, aSlowStopHoldsNobodyUpAndReturnsAfterTheDestruction) {
  const std::uint64_t stopped = startEndless();
  const std::uint64_t other = startFailing();
  SlowDestruction slow([stopped] { EXPECT_TRUE(xfer_stopDownloadHandle(stopped)); });
  EXPECT_EQ(xfer_downloadPause(other), 0);
  EXPECT_EQ(progressOf(stopped).downloaded, 7777U);
  const std::string text = "xfer_getProgress | dl_id=" + std::to_string(stopped) + " not found!";
  EXPECT_EQ(logError(log_, failure(kXfer, 625, text)), "");
  EXPECT_FALSE(xfer_stopDownloadHandle(stopped));
  EXPECT_TRUE(xfer_stopDownloadHandle(other));
  EXPECT_FALSE(slow.returned());
  EXPECT_EQ(g_destroyed, 1);
  slow.finish();
  EXPECT_EQ(g_destroyed, 2);
}

TEST_F(Handles, aSlowEndIsReportedToOthersMeanwhile) {
  const std::uint64_t id = startFailing();
  SlowDestruction slow([id] {
    Progress end;
    EXPECT_TRUE(support::waitUntil([&] { return (end = progressOf(id)).finished == 1; }));
    EXPECT_EQ(end.error, kMalformedUrl);
  });
  const Progress end = progressOf(id);
  EXPECT_EQ(end.finished, 1);
  EXPECT_EQ(end.error, kMalformedUrl);
  EXPECT_EQ(end.downloaded, 0U);
  EXPECT_EQ(xfer_downloadPause(id), 100001);
  EXPECT_FALSE(xfer_stopDownloadHandle(id));
  EXPECT_FALSE(slow.returned());
  slow.finish();
  EXPECT_EQ(g_destroyed, 1);
}

}  // namespace
