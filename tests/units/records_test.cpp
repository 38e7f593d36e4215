// The records that cross the library's interface: hosts rely on the order of their fields and on what these start with.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "xfer/download_job.h"
#include "xfer/download_records.h"
#include "xfer/fetch.h"

using namespace xfer;

namespace {

TEST(RequestRecord, startsWithoutABodyAndWithTimeOuts) {
  const Request request;
  EXPECT_EQ(request.url + request.cookie + request.body, "");
  EXPECT_TRUE(request.headers.empty());
  EXPECT_EQ(request.proxy.host, "");
  EXPECT_TRUE(request.followRedirects);
  EXPECT_EQ(request.connectTimeoutSec, 15);
  EXPECT_EQ(request.timeoutSec, 10);
  EXPECT_EQ(request.lowSpeedTimeSec, 10);
  EXPECT_FALSE(request.quiet);
}

TEST(RequestRecord, hasItsFieldsInThisOrder) {
  const Request request{"url", "cookie", {"header"}, {}, "body", false, 1, 2, 3, true};
  EXPECT_EQ(request.url, "url");
  EXPECT_EQ(request.cookie, "cookie");
  EXPECT_EQ(request.headers, std::vector<std::string>{"header"});
  EXPECT_EQ(request.body, "body");
  EXPECT_FALSE(request.followRedirects);
  EXPECT_EQ(request.connectTimeoutSec, 1);
  EXPECT_EQ(request.timeoutSec, 2);
  EXPECT_EQ(request.lowSpeedTimeSec, 3);
  EXPECT_TRUE(request.quiet);
}

TEST(ResponseRecord, hasItsFieldsInThisOrderAndStartsEmpty) {
  const Response empty;
  EXPECT_EQ(empty.curlCode, 0);
  EXPECT_EQ(empty.status, 0);
  EXPECT_EQ(empty.headers + empty.body, "");
  const Response response{1, 2, "headers", "body"};
  EXPECT_EQ(response.curlCode, 1);
  EXPECT_EQ(response.status, 2);
  EXPECT_EQ(response.headers, "headers");
  EXPECT_EQ(response.body, "body");
}

TEST(ProxyRecord, hasItsFieldsInThisOrderAndStartsWithPort80) {
  const net::Proxy none;
  EXPECT_EQ(none.host + none.username + none.password, "");
  EXPECT_EQ(none.port, 80);
  const net::Proxy proxy{"host", 1, "user", "password"};
  EXPECT_EQ(proxy.host, "host");
  EXPECT_EQ(proxy.port, 1);
  EXPECT_EQ(proxy.username, "user");
  EXPECT_EQ(proxy.password, "password");
}

TEST(DownloadRequestRecord, hasItsFieldsInThisOrderAndStartsWithoutASize) {
  EXPECT_EQ(DownloadRequest().knownSize, 0U);
  const DownloadRequest request{"url", "path", "cookie", {"header"}, {}, 1};
  EXPECT_EQ(request.url, "url");
  EXPECT_EQ(request.path, "path");
  EXPECT_EQ(request.cookie, "cookie");
  EXPECT_EQ(request.headers, std::vector<std::string>{"header"});
  EXPECT_EQ(request.knownSize, 1U);
}

// What file downloads of the C interface run with.
TEST(DownloadPolicyRecord, startsWithGrowingChunksAndNoLimitOfTimeOrSpeed) {
  const DownloadPolicy policy;
  EXPECT_EQ(policy.numThreads, 1U);
  EXPECT_EQ(policy.maxDownloadSpeed, 0U);
  EXPECT_TRUE(policy.rampChunks);
  EXPECT_EQ(policy.initialChunkSize, 0x100000U);
  EXPECT_EQ(policy.maxChunkSize, 0x1000000U);
  EXPECT_EQ(policy.chunkGrowthFactor, 4U);
  EXPECT_EQ(policy.probeTimeoutSec, 10U);
  EXPECT_EQ(policy.connectTimeoutSec, 20U);
  EXPECT_EQ(policy.transferTimeoutSec, 0U);
  EXPECT_EQ(policy.lowSpeedLimit, 1024U);
  EXPECT_EQ(policy.lowSpeedTimeSec, 30U);
  EXPECT_FALSE(policy.useHttp2);
  EXPECT_TRUE(policy.tcpKeepAlive);
  EXPECT_TRUE(policy.multiplex);
}

TEST(DownloadPolicyRecord, hasItsFieldsInThisOrder) {
  const DownloadPolicy policy{1, 2, false, 3, 4, 5, 6, 7, 8, 9, 10, true, false, false};
  EXPECT_EQ(policy.numThreads, 1U);
  EXPECT_EQ(policy.maxDownloadSpeed, 2U);
  EXPECT_FALSE(policy.rampChunks);
  EXPECT_EQ(policy.initialChunkSize, 3U);
  EXPECT_EQ(policy.maxChunkSize, 4U);
  EXPECT_EQ(policy.chunkGrowthFactor, 5U);
  EXPECT_EQ(policy.probeTimeoutSec, 6U);
  EXPECT_EQ(policy.connectTimeoutSec, 7U);
  EXPECT_EQ(policy.transferTimeoutSec, 8U);
  EXPECT_EQ(policy.lowSpeedLimit, 9U);
  EXPECT_EQ(policy.lowSpeedTimeSec, 10U);
  EXPECT_TRUE(policy.useHttp2);
  EXPECT_FALSE(policy.tcpKeepAlive);
  EXPECT_FALSE(policy.multiplex);
}

TEST(SnapshotRecord, hasItsFieldsInThisOrder) {
  const DownloadSnapshot snapshot{JobState::Failed, 1, 2, 3, 4, 5, 6.0F, true};
  EXPECT_EQ(snapshot.state, JobState::Failed);
  EXPECT_EQ(snapshot.bytesDone, 1U);
  EXPECT_EQ(snapshot.totalBytes, 2U);
  EXPECT_EQ(snapshot.bytesPerSec, 3U);
  EXPECT_EQ(snapshot.errorCode, 4);
  EXPECT_EQ(snapshot.httpStatus, 5);
  EXPECT_EQ(snapshot.percent, 6.0F);
  EXPECT_TRUE(snapshot.throttled);
}

TEST(RemoteFileRecord, hasItsFieldsInThisOrderAndStartsEmpty) {
  const RemoteFileInfo none;
  EXPECT_EQ(none.size, 0U);
  EXPECT_FALSE(none.acceptRanges);
  EXPECT_EQ(none.contentType, "");
  EXPECT_EQ(none.httpStatus, 0);
  EXPECT_EQ(none.error, 0);
  const RemoteFileInfo info{1, true, "type", 2, 3};
  EXPECT_EQ(info.size, 1U);
  EXPECT_TRUE(info.acceptRanges);
  EXPECT_EQ(info.contentType, "type");
  EXPECT_EQ(info.httpStatus, 2);
  EXPECT_EQ(info.error, 3);
}

TEST(JobStates, haveTheNumbersThatHostsKnow) {
  EXPECT_EQ(static_cast<std::uint32_t>(JobState::Idle), 0U);
  EXPECT_EQ(static_cast<std::uint32_t>(JobState::Probing), 1U);
  EXPECT_EQ(static_cast<std::uint32_t>(JobState::Running), 2U);
  EXPECT_EQ(static_cast<std::uint32_t>(JobState::Paused), 3U);
  EXPECT_EQ(static_cast<std::uint32_t>(JobState::Cancelling), 4U);
  EXPECT_EQ(static_cast<std::uint32_t>(JobState::Completed), 5U);
  EXPECT_EQ(static_cast<std::uint32_t>(JobState::Failed), 6U);
  EXPECT_EQ(static_cast<std::uint32_t>(JobState::Cancelled), 7U);
}

}  // namespace
