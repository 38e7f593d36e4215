// Writes that fail in the middle of a download: the process may not write past a size that it learns too late.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <string>

#include "support/gate.h"
#include "support/job_run.h"
#include "support/log_line.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace {

using support::chunksOf;
using support::failure;
using support::Gate;
using support::kJob;
using support::kSink;
using support::ReceivedRequest;
using support::Reply;
using support::requestFor;
using support::ScriptedServer;
using support::waitForEnd;
using support::waitUntil;
using xfer::DownloadJob;
using xfer::DownloadSnapshot;
using xfer::JobState;

constexpr std::uint64_t kChunk = 1024 * 1024;
constexpr std::uint64_t kSize = 8 * kChunk;

// Writes past this offset fail while it lives.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &before_);
    rlimit limited = before_;
    limited.rlim_cur = bytes;
    if (setrlimit(RLIMIT_FSIZE, &limited) != 0) ADD_FAILURE() << "the limit cannot be set";
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  void (*handler_)(int);
  rlimit before_{};
};

TEST(FailingWrite, endsTheJobFailedAndStopsItsOtherTransfers) {
  const support::RecordingLogger log;
  const support::TempDir folder;
  const std::string path = folder.file("out.bin");
  Gate limited;
  ScriptedServer server([limited](const ReceivedRequest& request) {
    const std::string head = "HTTP/1.1 206 Partial Content\r\nContent-Length: " + std::to_string(kChunk) + "\r\n\r\n";
    const std::uint64_t first = request.range->first;
    if (first == 0) return Reply().send(head).sendPattern(0, 1000).stall();
    return Reply().waitFor(limited).send(head).sendPattern(first, first + kChunk);
  });
  DownloadJob job(requestFor(server.url("/file"), path, kSize), chunksOf(kChunk, 3), support::planUnderTest(kChunk));
  job.start();
  ASSERT_TRUE(waitUntil([&] { return job.snapshot().bytesDone == 1000; }));
  ASSERT_TRUE(server.waitForRequests(3));
  EXPECT_EQ(job.snapshot().state, JobState::Running) << "the file was reserved while there was room";
  {
    const FileSizeLimit limit(kChunk);
    limited.open();
    const DownloadSnapshot end = waitForEnd(job);
    EXPECT_EQ(end.state, JobState::Failed);
    EXPECT_EQ(end.errorCode, -1);
    EXPECT_EQ(end.httpStatus, 0);
    EXPECT_EQ(job.details().failureText(), "File too large");
    EXPECT_TRUE(waitUntil([&] { return server.concurrentRequests() == 0; }, std::chrono::milliseconds(5000)))
        << "the stalled transfer is ended too";
  }
  EXPECT_EQ(wholeLogError(recordsOf(log, kJob), {failure(kJob, "onTransferDone | finalize failed | err=-1")}), "");
  const std::string refused = "writeAt | WriteFile failed | offset=# | err=" + std::to_string(EFBIG);
  EXPECT_EQ(support::wholeLogError({recordsUpTo(log, 3).front()}, {failure(kSink, refused)}), "");
  EXPECT_EQ(server.requests().size(), 3U) << "nothing is asked for afterwards";
}

TEST(FailingWrite, ofTheVeryLastBytesIsNoSuccess) {
  const support::TempDir folder;
  Gate limited;
  ScriptedServer server([limited](const ReceivedRequest& request) {
    return Reply()
        .send("HTTP/1.1 206 Partial Content\r\nContent-Length: 4096\r\n\r\n")
        .sendPattern(request.range->first, request.range->first + 1)
        .waitFor(limited)
        .sendPattern(request.range->first + 1, request.range->first + 4096);
  });
  DownloadJob job(requestFor(server.url("/file"), folder.file("out.bin"), 4096), chunksOf(4096, 1),
                  support::planUnderTest(4096));
  job.start();
  ASSERT_TRUE(waitUntil([&] { return job.snapshot().bytesDone == 1; })) << "the file is open";
  const FileSizeLimit limit(4000);
  limited.open();
  const DownloadSnapshot end = waitForEnd(job);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.errorCode, -1);
}

}  // namespace
