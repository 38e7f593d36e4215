// Files, ranges and counts above 4 GiB.  The files are sparse: each takes a few kilobytes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "download_job_impl.h"
#include "file_sink.h"
#include "range_scheduler.h"
#include "request_text.h"
#include "response_head.h"
#include "support/fake_job_world.h"
#include "support/far_file.h"
#include "support/pattern.h"
#include "support/temp_dir.h"
#include "sys/disk_file.h"

namespace {

using support::patternBytes;
using support::readAt;
using xfer::ByteRange;
using xfer::DownloadJob;
using xfer::DownloadPolicy;
using xfer::DownloadRequest;
using xfer::DownloadSnapshot;
using xfer::JobState;

constexpr std::uint64_t kGiB = 1 << 30;
constexpr std::uint64_t k32Bits = 4 * kGiB;

const std::uint8_t* bytesOf(const std::string& text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

DownloadPolicy chunks(std::uint64_t size, std::uint16_t threads) {
  DownloadPolicy policy;
  policy.numThreads = threads;
  policy.rampChunks = false;
  policy.initialChunkSize = policy.maxChunkSize = size;  // the same, so that the connections' shares do not count
  return policy;
}

// ---- Files ----

TEST(FarOffsets, diskFileWritesThereAndCutsThere) {
  const support::TempDir folder;
  sys::DiskFile file;
  ASSERT_EQ(file.create(folder.file("f")), 0);
  ASSERT_EQ(file.reserve(k32Bits + 100).error, 0);
  EXPECT_EQ(support::fileSize(folder.file("f")), k32Bits + 100);
  for (const auto& [offset, text] :
       std::vector<std::pair<std::uint64_t, std::string>>{{k32Bits + 7, "far"}, {k32Bits - 2, "edge"}, {7, "low"}}) {
    std::uint64_t written = 0;
    EXPECT_EQ(file.writeAt(offset, bytesOf(text), text.size(), &written), 0);
    EXPECT_EQ(written, text.size());
  }
  ASSERT_EQ(file.truncate(k32Bits + 9).error, 0);
  file.close();
  EXPECT_EQ(support::fileSize(folder.file("f")), k32Bits + 9);
  EXPECT_EQ(readAt(folder.file("f"), 0, 11), std::string(7, '\0') + "low" + '\0');
  EXPECT_EQ(readAt(folder.file("f"), k32Bits - 3, 13), '\0' + std::string("edge") + std::string(5, '\0') + "fa");
}

TEST(FarOffsets, sinkOpensWritesAndFinalizesThere) {
  const support::TempDir folder;
  xfer::FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), k32Bits + 100), 0);
  EXPECT_EQ(support::fileSize(folder.file("f")), k32Bits + 100);
  EXPECT_EQ(sink.writeAt(k32Bits + 7, bytesOf("far"), 3), 0);
  EXPECT_EQ(sink.finalize(k32Bits + 9), 0);
  EXPECT_EQ(support::fileSize(folder.file("f")), k32Bits + 9);
  EXPECT_EQ(readAt(folder.file("f"), k32Bits + 6, 4), '\0' + std::string("fa"));
  EXPECT_EQ(readAt(folder.file("f"), 0, 16), std::string(16, '\0'));
}

// ---- Ranges ----

TEST(FarOffsets, schedulerCutsHandsOutAndCompletesRangesThere) {
  constexpr std::uint64_t kTotal = 16 * kGiB + 1;
  xfer::RangeScheduler ranges(kTotal, chunks(5 * kGiB, 1));
  const std::vector<ByteRange> expected{
      {0, 5 * kGiB}, {5 * kGiB, 10 * kGiB}, {10 * kGiB, 15 * kGiB}, {15 * kGiB, kTotal}};
  for (const ByteRange& range : expected) EXPECT_EQ(ranges.nextPending(), range);
  EXPECT_EQ(ranges.nextPending(), std::nullopt);
  ranges.fail(10 * kGiB);
  EXPECT_EQ(ranges.nextPending(), expected[2]);
  EXPECT_EQ(ranges.endOf(15 * kGiB), kTotal);
  ranges.complete(15 * kGiB);
  EXPECT_EQ(ranges.openEnd(), 15 * kGiB);
  EXPECT_EQ(ranges.completedBytes(), kGiB + 1);
  ranges.complete(10 * kGiB);
  EXPECT_EQ(ranges.completedBytes(), 6 * kGiB + 1);
  ranges.completeFrom(0);
  EXPECT_EQ(ranges.completedBytes(), kTotal);
  EXPECT_TRUE(ranges.allDone());
}

TEST(FarOffsets, firstChunkMayReachThereAndGrowingOnesToo) {
  DownloadPolicy policy;
  policy.initialChunkSize = k32Bits / 2 + 1;
  policy.maxChunkSize = 3 * k32Bits;
  xfer::RangeScheduler ranges(10 * k32Bits, policy);
  EXPECT_EQ(ranges.nextPending(), (ByteRange{0, k32Bits / 2 + 1}));
  EXPECT_EQ(ranges.nextPending(), (ByteRange{k32Bits / 2 + 1, k32Bits * 5 / 2 + 5}));
  EXPECT_EQ(ranges.nextPending(), (ByteRange{k32Bits * 5 / 2 + 5, k32Bits * 11 / 2 + 5}));
}

// ---- Jobs ----

class FarJob : public testing::Test {
 protected:
  DownloadJob::Impl& started(std::uint64_t size, const DownloadPolicy& policy) {
    DownloadRequest request;
    request.path = path_;
    request.knownSize = size;
    job_ = std::make_unique<DownloadJob::Impl>(request, policy, world_.environment());
    job_->start();
    return *job_;
  }

  const support::TempDir folder_;
  const std::string path_ = folder_.file("out");
  support::FakeJobWorld world_;
  std::unique_ptr<DownloadJob::Impl> job_;
};

TEST_F(FarJob, asksForRangesThereWritesThemThereAndEndsWithAFileOfThatSize) {
  constexpr std::uint64_t kTotal = 9 * kGiB + 5;
  const DownloadJob::Impl& job = started(kTotal, chunks(3 * kGiB, 4));
  const auto asked = world_.transfers.submissions();
  ASSERT_EQ(asked.size(), 4U);
  for (std::size_t index = 0; index < asked.size(); ++index) {
    const std::uint64_t start = index * 3 * kGiB;
    const std::uint64_t end = std::min(start + 3 * kGiB, kTotal);
    EXPECT_EQ(asked[index].rangeStart, start);
    EXPECT_EQ(asked[index].rangeEnd, end);
    world_.transfers.deliver(start, end - 5, patternBytes(end - 5, end));  // as if the rest had come too
    EXPECT_EQ(job.snapshot().totalBytes, kTotal);
    world_.transfers.finish(start, 0, 206, end - start);
  }
  EXPECT_EQ(job.snapshot().state, JobState::Completed);
  EXPECT_EQ(support::fileSize(path_), kTotal);
  for (const xfer::TransferRequest& range : asked) {
    EXPECT_EQ(readAt(path_, range.rangeEnd - 5, 5), patternBytes(range.rangeEnd - 5, range.rangeEnd));
  }
}

TEST_F(FarJob, percentIsOfTheWholeSize) {
  const DownloadJob::Impl& job = started(4 * k32Bits, chunks(4 * k32Bits, 1));
  world_.transfers.deliver(0, 0, patternBytes(0, 1 << 20));
  const DownloadSnapshot snapshot = job.snapshot();
  EXPECT_EQ(snapshot.totalBytes, 4 * k32Bits);
  EXPECT_EQ(snapshot.bytesDone, 1U << 20);
  EXPECT_EQ(snapshot.percent, 100.0F / (1 << 14));
}

// Bytes that are in the file already are counted again and not written again, so that many of them take no time.
TEST_F(FarJob, bytesDonePassesThere) {
  constexpr std::uint64_t kPiece = 16 << 20;
  constexpr std::uint64_t kTimes = 300;
  const DownloadJob::Impl& job = started(2 * kPiece, chunks(kPiece, 2));
  const std::string piece = patternBytes(0, kPiece);
  xfer::ResponseHead head;
  head.status = 206;
  head.strongEtag = "\"one\"";
  head.contentRange = xfer::ContentRange{0, kPiece - 1, 2 * kPiece};
  world_.transfers.answer(0, head);
  world_.transfers.deliver(0, 0, piece);
  world_.transfers.finish(0, 0, 206, kPiece);
  xfer::ResponseHead whole;
  whole.status = 200;
  whole.strongEtag = head.strongEtag;
  whole.contentLength = 2 * kPiece;
  world_.transfers.answer(kPiece, whole);
  for (std::uint64_t time = 0; time < kTimes; ++time) world_.transfers.deliver(kPiece, 0, piece);
  const DownloadSnapshot snapshot = job.snapshot();
  EXPECT_EQ(snapshot.bytesDone, (kTimes + 1) * kPiece);
  EXPECT_GT(snapshot.bytesDone, k32Bits);
  EXPECT_EQ(snapshot.percent, (kTimes + 1) * 50.0F);
}

// ---- Texts ----

std::string contentRange(const std::string& only, std::uint64_t total) {
  return "bytes " + only + "-" + only + "/" + std::to_string(total);
}

TEST(FarOffsets, sizesThereAreReadFromHeaders) {
  for (const std::uint64_t size : {k32Bits - 1, k32Bits, k32Bits + 1, 1024 * k32Bits + 3}) {
    const std::string text = std::to_string(size);
    EXPECT_EQ(xfer::leadingNumber(text), size);
    EXPECT_EQ(xfer::remoteSize(206, "Content-Range: bytes 0-0/" + text + "\r\nContent-Length: 1\r\n"), size);
    EXPECT_EQ(xfer::remoteSize(200, "Content-Length: " + text + "\r\n"), size);
    const auto range = xfer::parseContentRange(contentRange(text, size + 1));
    ASSERT_TRUE(range);
    EXPECT_EQ(range->first, size);
    EXPECT_EQ(range->last, size);
    EXPECT_EQ(range->total, size + 1);
    xfer::ResponseHeadReader reader;
    reader.add("HTTP/1.1 200 OK\r\n");
    reader.add("Content-Length: " + text + "\r\n");
    EXPECT_EQ(reader.head().bodyLength(), size);
  }
}

}  // namespace
