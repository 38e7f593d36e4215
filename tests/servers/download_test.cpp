// Jobs and requests against every real server of the fixture.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/pattern.h"
#include "support/plan_under_test.h"
#include "support/real_servers.h"
#include "support/temp_dir.h"
#include "transfer_support.h"
#include "xfer/xfer.hpp"

namespace {

using servers_test::download;
using servers_test::expectWhole;
using servers_test::manyRanges;
using support::RealServer;
using support::RealServers;

constexpr RealServer kAll[] = {
    RealServer::Nginx,  RealServer::NginxTls, RealServer::NginxH2, RealServer::NginxWithoutRanges,
    RealServer::Apache, RealServer::Lighttpd, RealServer::Python};

bool servesRanges(RealServer server) {
  return server != RealServer::NginxWithoutRanges && server != RealServer::Python;
}

const std::vector<std::pair<std::string, std::uint64_t>>& files() {
  static const std::vector<std::pair<std::string, std::uint64_t>> all = {{"/empty.bin", 0},
                                                                         {"/one.bin", 1},
                                                                         {"/1m.bin", RealServers::kSmallFileBytes},
                                                                         {"/16m.bin", RealServers::kBigFileBytes}};
  return all;
}

class EachServer : public testing::TestWithParam<RealServer> {
 protected:
  const RealServers servers_;
  const support::TempDir folder_;
};

TEST_P(EachServer, fileOfEverySizeArrivesWholeOverManyConnections) {
  for (const auto& [name, size] : files()) {
    SCOPED_TRACE(name);
    const std::string path = folder_.file("out");
    expectWhole(download(servers_.url(GetParam(), name), path, manyRanges(GetParam())), path, size);
  }
}

TEST_P(EachServer, fileArrivesWholeOverOneConnection) {
  const std::string path = folder_.file("out");
  expectWhole(download(servers_.url(GetParam(), "/16m.bin"), path, manyRanges(GetParam(), 1)), path,
              RealServers::kBigFileBytes);
}

TEST_P(EachServer, fileOfKnownSizeArrivesWholeWithoutAnyQuestionFirst) {
  const std::string path = folder_.file("out");
  xfer::DownloadJob job({.url = servers_.url(GetParam(), "/16m.bin"),
                         .path = path,
                         .cookie = {},
                         .headers = {},
                         .proxy = {},
                         .knownSize = RealServers::kBigFileBytes},
                        manyRanges(GetParam()), support::planUnderTest(manyRanges(GetParam()).initialChunkSize));
  job.start();
  job.wait();
  expectWhole(job.snapshot(), path, RealServers::kBigFileBytes);
}

TEST_P(EachServer, pausesAndResumesDoNotDisturbTheFile) {
  const std::string path = folder_.file("out");
  xfer::DownloadPolicy policy = manyRanges(GetParam());
  policy.maxDownloadSpeed = 32'000'000;  // so that there is something to pause
  xfer::DownloadRequest request;
  request.url = servers_.url(GetParam(), "/16m.bin");
  request.path = path;
  xfer::DownloadJob job(request, policy, support::planUnderTest(policy.initialChunkSize));
  job.start();
  std::uint64_t nextPause = 1;
  int pauses = 0;
  while (job.snapshot().state < xfer::JobState::Cancelling) {
    const xfer::DownloadSnapshot snapshot = job.snapshot();
    // The last ranges are left alone: a pause that meets the very end keeps the job from saying that it has ended.
    if (snapshot.bytesDone >= nextPause && snapshot.bytesDone < 12'000'000) {
      job.pause();
      job.resume();
      nextPause = snapshot.bytesDone + 1'000'000;
      ++pauses;
    }
    std::this_thread::yield();
  }
  expectWhole(job.snapshot(), path, RealServers::kBigFileBytes);
  EXPECT_GT(pauses, 3);
}

TEST_P(EachServer, bodyOfARequestIsTheFile) {
  for (const auto& [name, size] : files()) {
    xfer::Request request;
    request.url = servers_.url(GetParam(), name);
    const xfer::Response response = xfer::fetch(request);
    EXPECT_EQ(response.curlCode, 0) << name;
    EXPECT_EQ(response.status, 200) << name;
    EXPECT_TRUE(response.body == support::patternBytes(0, size)) << name << ": " << response.body.size() << " bytes";
  }
}

TEST_P(EachServer, firstQuestionTellsSizeTypeAndWhetherRangesAreServed) {
  const xfer::RemoteFileInfo info = xfer::probeRemoteFile(servers_.url(GetParam(), "/1m.bin"), {}, "", 10);
  EXPECT_EQ(info.error, 0);
  EXPECT_EQ(info.size, RealServers::kSmallFileBytes);
  EXPECT_EQ(info.acceptRanges, servesRanges(GetParam()));
  EXPECT_EQ(info.httpStatus, servesRanges(GetParam()) ? 206 : 200);
  // Apache is told no types, and Python writes "Content-type", which intentionally is not taken for the header's name.
  const bool tellsType = GetParam() != RealServer::Apache && GetParam() != RealServer::Python;
  EXPECT_EQ(info.contentType, tellsType ? "application/octet-stream" : "");
  EXPECT_EQ(xfer::getContentLength(servers_.url(GetParam(), "/1m.bin"), {}, ""),
            static_cast<std::int64_t>(RealServers::kSmallFileBytes));
}

TEST_P(EachServer, missingFileFailsTheJobWithItsStatus) {
  const xfer::DownloadSnapshot snapshot =
      download(servers_.url(GetParam(), "/missing.bin"), folder_.file("out"), manyRanges(GetParam()));
  EXPECT_EQ(snapshot.state, xfer::JobState::Failed);
  EXPECT_EQ(snapshot.errorCode, 404);
  if (support::adaptivePlan()) {
    EXPECT_EQ(snapshot.httpStatus, 404);
  }
  EXPECT_FALSE(support::exists(folder_.file("out")));
}

INSTANTIATE_TEST_SUITE_P(Servers, EachServer, testing::ValuesIn(kAll),
                         [](const auto& server) { return support::nameOf(server.param); });

// A request that speaks HTTP/1.1 leaves its connection behind where jobs look for theirs.
TEST(Http2, jobAfterRequestsOfHttp11ToTheSameServerCompletes) {
  const RealServers servers;
  const support::TempDir folder;
  const std::string url = servers.url(RealServer::NginxH2, "/16m.bin");
  const std::string path = folder.file("out");
  for (int round = 0; round < 5; ++round) {
    SCOPED_TRACE(round);
    expectWhole(download(url, path, manyRanges(RealServer::NginxH2)), path, RealServers::kBigFileBytes);
    xfer::Request request;
    request.url = servers.url(RealServer::NginxH2, "/one.bin");
    EXPECT_EQ(xfer::fetch(request).body, support::patternBytes(0, 1));
  }
}

// Connections that are full, on their way out or go another way make libcurl begin new ones beside them.
TEST(Http2, jobsSurviveConnectionsThatAreShortLivedAndFull) {
  const RealServers servers;
  const support::TempDir folder;
  const std::string url = servers.url(RealServer::NginxShortH2, "/16m.bin");
  const std::string path = folder.file("out");
  const net::Proxy proxy{.host = "127.0.0.1", .port = servers.proxyPort(), .username = {}, .password = {}};
  for (int round = 0; round < 10; ++round) {
    SCOPED_TRACE(round);
    const xfer::DownloadSnapshot end =
        download(url, path, manyRanges(RealServer::NginxH2), round % 2 == 0 ? net::Proxy() : proxy);
    EXPECT_EQ(end.state, xfer::JobState::Completed) << "error " << end.errorCode;
    EXPECT_EQ(support::patternError(path, RealServers::kBigFileBytes), "");
  }
}

// ---- Answers in front of the one that counts ----

TEST(FinalAnswer, behindARedirectWithABodyBringsTheWholeFile) {
  const RealServers servers;
  const support::TempDir folder;
  const std::string path = folder.file("out");
  for (const std::uint16_t connections : {std::uint16_t{1}, std::uint16_t{4}}) {
    expectWhole(download(servers.url(RealServer::Nginx, "/to-python/16m.bin"), path,
                         manyRanges(RealServer::Python, connections)),
                path, RealServers::kBigFileBytes);
  }
}

TEST(FinalAnswer, thatNoRangeOfAnEmptyFileIsSatisfiableBringsTheEmptyFile) {
  const RealServers servers;
  const support::TempDir folder;
  const std::string path = folder.file("out");
  for (const std::uint16_t connections : {std::uint16_t{1}, std::uint16_t{4}}) {
    expectWhole(
        download(servers.url(RealServer::Nginx, "/unsatisfied"), path, manyRanges(RealServer::Nginx, connections)),
        path, 0);
  }
}

}  // namespace
