// Who a host's requests say they are.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/job_run.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "sys/data_buff.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"
#include "xfer/xfer.h"

namespace {

using support::patternFile;
using support::planUnderTest;
using support::ReceivedRequest;
using support::ScriptedServer;
using xfer::FetchOptions;

constexpr std::uint64_t kSize = 300'000;
constexpr std::int32_t kBadArgument = 43;
const std::string kHost = "host/1.0 (its own)";

class UserAgent : public testing::Test {
 protected:
  ~UserAgent() override { EXPECT_EQ(xfer_setUserAgent(nullptr), 0); }

  // Of every request since the last call; each has one such line.
  std::vector<std::string> seen() {
    std::vector<std::string> values;
    const std::vector<ReceivedRequest> requests = server_.requests();
    for (; next_ < requests.size(); ++next_) {
      std::size_t lines = 0;
      for (const std::string& line : requests[next_].headerLines) lines += line.rfind("User-Agent:", 0) == 0 ? 1 : 0;
      EXPECT_EQ(lines, 1U) << requests[next_].head;
      values.push_back(requests[next_].header("User-Agent").value_or("none"));
    }
    return values;
  }

  void expectAll(const std::string& value) {
    const std::vector<std::string> values = seen();
    EXPECT_FALSE(values.empty());
    for (const std::string& one : values) EXPECT_EQ(one, value);
  }

  [[nodiscard]] xfer::Request request(const std::vector<std::string>& headers = {}) const {
    xfer::Request request;
    request.url = server_.url("/file");
    request.headers = headers;
    return request;
  }

  std::uint32_t downloadFile(const char* headers = nullptr) const {
    const std::uint64_t id = xfer_downloadFile(server_.url("/file").c_str(), folder_.file("out").c_str(), headers, 2,
                                               nullptr, 0, 0, nullptr);
    std::uint64_t downloaded = 0;
    std::uint32_t error = 1;
    std::uint8_t finished = 0;
    EXPECT_TRUE(support::waitUntil([&] {
      xfer_getProgress(id, &downloaded, &error, &finished);
      return finished != 0;
    }));
    return error;
  }

  const ScriptedServer server_{[](const ReceivedRequest& request) {
    if (request.path() == "/there") return support::redirect(302, "/file");
    return patternFile(kSize)(request);
  }};
  const support::TempDir folder_;
  std::size_t next_ = 0;
};

TEST_F(UserAgent, ofRequestsIsTheOptionsOwn) {
  const FetchOptions options = FetchOptions().setUserAgent(kHost);
  EXPECT_EQ(xfer::fetch(request(), options).curlCode, 0);
  EXPECT_EQ(xfer::fetchAsync(request(), options).get().curlCode, 0);
  EXPECT_EQ(xfer::probeRemoteFile(server_.url("/file"), {}, "", 10, options).error, 0);
  expectAll(kHost);
}

TEST_F(UserAgent, goesAlongWithARedirect) {
  xfer::Request redirected = request();
  redirected.url = server_.url("/there");
  EXPECT_EQ(xfer::fetch(redirected, FetchOptions().setUserAgent(kHost)).status, 200);
  EXPECT_EQ(seen(), (std::vector<std::string>{kHost, kHost}));
}

TEST_F(UserAgent, ofTheRequestItselfWins) {
  const FetchOptions options = FetchOptions().setUserAgent(kHost);
  EXPECT_EQ(xfer::fetch(request({"User-Agent: line"}), options).curlCode, 0);
  EXPECT_EQ(seen(), std::vector<std::string>{"line"});
}

TEST_F(UserAgent, thatIsNotSetIsABrowsers) {
  EXPECT_EQ(xfer::fetch(request(), FetchOptions().setUserAgent("")).curlCode, 0);
  EXPECT_EQ(xfer::fetch(request(), FetchOptions()).curlCode, 0);
  for (const std::string& value : seen()) EXPECT_EQ(value.rfind("Mozilla/5.0 ", 0), 0U) << value;
}

TEST_F(UserAgent, withALineBreakSendsNothing) {
  const FetchOptions options = FetchOptions().setUserAgent("a\r\nX-Injected: 1");
  EXPECT_EQ(xfer::fetch(request(), options).curlCode, kBadArgument);
  EXPECT_EQ(xfer::probeRemoteFile(server_.url("/file"), {}, "", 10, options).error, kBadArgument);
  EXPECT_EQ(xfer_setUserAgent("a\nb"), kBadArgument);
  EXPECT_TRUE(seen().empty());
}

TEST_F(UserAgent, ofJobsIsTheOptionsOwn) {
  xfer::DownloadJob job(support::requestFor(server_.url("/file"), folder_.file("out")), support::chunksOf(100'000, 3),
                        planUnderTest(100'000).setUserAgent(kHost));
  EXPECT_EQ(support::run(job).state, xfer::JobState::Completed);
  expectAll(kHost);
}

TEST_F(UserAgent, ofJobsWithALineBreakSendsNothing) {
  xfer::DownloadJob job(support::requestFor(server_.url("/file"), folder_.file("out")), support::chunksOf(100'000, 3),
                        planUnderTest().setUserAgent("a\nb"));
  const xfer::DownloadSnapshot end = support::run(job);
  EXPECT_EQ(end.state, xfer::JobState::Failed);
  EXPECT_EQ(end.errorCode, kBadArgument);
  EXPECT_TRUE(seen().empty());
}

TEST_F(UserAgent, ofTheCInterfaceIsASetting) {
  sys::DataBuff headers;
  sys::DataBuff body;
  const std::string url = server_.url("/file");
  ASSERT_EQ(xfer_setUserAgent(kHost.c_str()), 0);
  EXPECT_EQ(xfer_download(url.c_str(), nullptr, nullptr, &headers, &body, nullptr, nullptr), 0);
  std::uint64_t id = 0;
  EXPECT_EQ(xfer_downloadAsync(url.c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), 0);
  std::uint64_t size = 0;
  std::uint32_t mediaType = 0;
  EXPECT_EQ(xfer_getRemoteFileSize(url.c_str(), &size, &mediaType, nullptr, nullptr, 1, nullptr), 0);
  std::int64_t length = 0;
  EXPECT_TRUE(xfer_getContentLength(url, &length));
  EXPECT_EQ(downloadFile(), 0U);
  EXPECT_GE(server_.requests().size(), 6U);
  expectAll(kHost);
}

TEST_F(UserAgent, ofTheCInterfacesOwnLinesWins) {
  ASSERT_EQ(xfer_setUserAgent(kHost.c_str()), 0);
  EXPECT_EQ(downloadFile("User-Agent: line"), 0U);
  expectAll("line");
  sys::DataBuff headers;
  sys::DataBuff body;
  EXPECT_EQ(xfer_downloadText(server_.url("/file").c_str(), nullptr, &headers, &body, nullptr), 0);
  for (const std::string& value : seen()) EXPECT_EQ(value.rfind("Mozilla/5.0 ", 0), 0U) << "the page's own: " << value;
}

TEST_F(UserAgent, refusedSettingLeavesTheLastOne) {
  ASSERT_EQ(xfer_setUserAgent(kHost.c_str()), 0);
  EXPECT_EQ(xfer_setUserAgent("a\r\nb"), kBadArgument);
  EXPECT_EQ(downloadFile(), 0U);
  expectAll(kHost);
}

TEST_F(UserAgent, emptySettingIsTheBrowsersAgain) {
  for (const char* const none : {static_cast<const char*>(nullptr), ""}) {
    ASSERT_EQ(xfer_setUserAgent(kHost.c_str()), 0);
    ASSERT_EQ(xfer_setUserAgent(none), 0);
    EXPECT_EQ(downloadFile(), 0U);
    for (const std::string& value : seen()) EXPECT_EQ(value.rfind("Mozilla/5.0 ", 0), 0U) << value;
  }
}

}  // namespace
