// The first request of each kind, byte for byte.
#include <gtest/gtest.h>

#include <string>

#include "support/job_run.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "sys/data_buff.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"
#include "xfer/xfer.h"

namespace {

using support::patternFile;
using support::ScriptedServer;

constexpr std::uint64_t kSize = 1000;

const std::string kDefaultLines =
    "Accept: */*\r\n"
    "Accept-Encoding: identity\r\n"
    "Accept-Language: en-US\r\n"
    "User-Agent: Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/126.0.0.0 "
    "Safari/537.36\r\n";

class RequestBytes : public testing::Test {
 protected:
  [[nodiscard]] std::string url() const { return server_.url("/path/file?query=1"); }

  [[nodiscard]] std::string bytesOf(std::size_t request) const {
    const auto requests = server_.requests();
    return request < requests.size() ? requests[request].head + requests[request].body : "";
  }

  [[nodiscard]] std::string firstLines(const std::string& method = "GET") const {
    return method + " /path/file?query=1 HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server_.port()) + "\r\n";
  }

  [[nodiscard]] std::string rangeOfTheFirstByte() const {
    return firstLines() + "Range: bytes=0-0\r\n" + kDefaultLines + "\r\n";
  }

  const ScriptedServer server_{patternFile(kSize)};
  const support::TempDir folder_;
};

TEST_F(RequestBytes, ofAFetch) {
  xfer::Request request;
  request.url = url();
  EXPECT_EQ(xfer::fetch(request).curlCode, 0);
  EXPECT_EQ(bytesOf(0), firstLines() + kDefaultLines + "\r\n");
}

TEST_F(RequestBytes, ofAFetchWithEverything) {
  xfer::Request request;
  request.url = url();
  request.headers = {"X-First: 1", "X-Second: 2"};
  request.cookie = "a=b; c=d";
  const std::string body("key=value\0other=", 16);
  request.body = body;
  EXPECT_EQ(xfer::fetch(request).curlCode, 0);
  EXPECT_EQ(bytesOf(0), firstLines("POST") + "Cookie: a=b; c=d\r\nX-First: 1\r\nX-Second: 2\r\n" + kDefaultLines +
                            "Content-Length: 16\r\nContent-Type: application/x-www-form-urlencoded\r\n\r\n" + body);
}

// libcurl by itself would ask whether it may send so much.
TEST_F(RequestBytes, ofALargePostWaitForNoPermission) {
  xfer::Request request;
  request.url = url();
  request.body = std::string(2 << 20, 'x');
  EXPECT_EQ(xfer::fetch(request).curlCode, 0);
  EXPECT_EQ(bytesOf(0), firstLines("POST") + kDefaultLines +
                            "Content-Length: 2097152\r\nContent-Type: application/x-www-form-urlencoded\r\n\r\n" +
                            request.body);
}

TEST_F(RequestBytes, ofADownloadIntoMemory) {
  sys::DataBuff headers;
  sys::DataBuff body;
  EXPECT_EQ(xfer_download(url().c_str(), nullptr, nullptr, &headers, &body, nullptr, nullptr), 0);
  EXPECT_EQ(bytesOf(0), firstLines() + kDefaultLines + "\r\n");
}

TEST_F(RequestBytes, ofATextDownload) {
  const std::string origin = XFER_VIDEO_SITE_ORIGIN;
  sys::DataBuff headers;
  sys::DataBuff body;
  const std::string page = server_.url("/watch?v=abcdefghijk&t=1");
  EXPECT_EQ(xfer_downloadText(page.c_str(), "a=b", &headers, &body, nullptr), 0);
  // Each line but the last ends with one more carriage return, which the header block has and libcurl sends.
  EXPECT_EQ(bytesOf(0),
            "GET /watch?v=abcdefghijk&t=1 HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server_.port()) +
                "\r\nCookie: a=b\r\n"
                "User-Agent: Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) "
                "Chrome/122.0 Safari/537.36\r\r\n"
                "Accept: */*\r\r\n"
                "Accept-Language: en-US,en;q=0.9\r\r\n"
                "Origin: " +
                origin + "\r\r\nReferer: " + origin + "/watch?v=abcdefghijk\r\r\n" +
                "Accept-Encoding: identity\r\n\r\n");
}

TEST_F(RequestBytes, ofEveryQuestionForASize) {
  EXPECT_EQ(xfer::getContentLength(url(), {}, ""), kSize);
  EXPECT_EQ(xfer::probeRemoteFile(url(), {}, "", 10).size, kSize);
  std::uint64_t size = 0;
  std::uint32_t type = 0;
  EXPECT_EQ(xfer_getRemoteFileSize(url().c_str(), &size, &type, nullptr, nullptr, 1, nullptr), 0);
  std::int64_t length = 0;
  EXPECT_TRUE(xfer_getContentLength(url(), &length));
  for (std::size_t request = 0; request < 4; ++request) EXPECT_EQ(bytesOf(request), rangeOfTheFirstByte()) << request;
}

TEST_F(RequestBytes, ofAJobsProbeAndOfItsRange) {
  xfer::DownloadJob job(support::requestFor(url(), folder_.file("out")), support::chunksOf(2 * kSize, 1),
                        support::planUnderTest(2 * kSize));
  EXPECT_EQ(support::run(job).state, xfer::JobState::Completed);
  if (support::adaptivePlan()) {
    EXPECT_EQ(bytesOf(0), firstLines() + "Range: bytes=0-1999\r\n" + kDefaultLines + "\r\n");
    return;
  }
  EXPECT_EQ(bytesOf(0), rangeOfTheFirstByte());
  EXPECT_EQ(bytesOf(1), firstLines() + "Range: bytes=0-999\r\n" + kDefaultLines + "\r\n");
}

TEST_F(RequestBytes, ofAJobsProbeAndOfItsRangeWithEverything) {
  xfer::DownloadRequest request = support::requestFor(url(), folder_.file("out"));
  request.headers = {"X-First: 1", "User-Agent: of the host", "X-Second: 2"};
  request.cookie = "a=b";
  xfer::DownloadJob job(request, support::chunksOf(2 * kSize, 1), support::planUnderTest(2 * kSize));
  EXPECT_EQ(support::run(job).state, xfer::JobState::Completed);
  const std::string own = "X-First: 1\r\nUser-Agent: of the host\r\nX-Second: 2\r\n";
  const std::string defaults = "Accept: */*\r\nAccept-Encoding: identity\r\nAccept-Language: en-US\r\n";
  if (support::adaptivePlan()) {
    EXPECT_EQ(bytesOf(0), firstLines() + "Range: bytes=0-1999\r\nCookie: a=b\r\n" + own + defaults + "\r\n");
    return;
  }
  EXPECT_EQ(bytesOf(0), firstLines() + "Cookie: a=b\r\n" + own + "Range: bytes=0-0\r\n" + defaults + "\r\n");
  EXPECT_EQ(bytesOf(1), firstLines() + "Range: bytes=0-999\r\nCookie: a=b\r\n" + own + defaults + "\r\n");
}

}  // namespace
