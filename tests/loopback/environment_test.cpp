// The environment decides nothing: a transfer is direct or goes through the proxy that it was given.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/job_run.h"
#include "support/pattern.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "xfer/fetch.h"

namespace {

using support::patternFile;
using support::ScriptedServer;

void setVariable(const std::string& name, const std::string& value) {
#ifdef _WIN32
  ASSERT_EQ(_putenv_s(name.c_str(), value.c_str()), 0);
#else
  ASSERT_EQ(setenv(name.c_str(), value.c_str(), 1), 0);
#endif
}

xfer::Request get(const std::string& url, const net::Proxy& proxy) {
  xfer::Request request;
  request.url = url;
  request.proxy = proxy;
  return request;
}

xfer::DownloadSnapshot download(const std::string& url, const net::Proxy& proxy, const std::string& path) {
  xfer::DownloadRequest request = support::requestFor(url, path);
  request.proxy = proxy;
  xfer::DownloadJob job(request, support::chunksOf(500, 2), support::planUnderTest(500));
  return support::run(job);
}

class Environment : public testing::Test {
 protected:
  // Whoever asks the environment goes through other_.
  void SetUp() override {
    for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"}) {
      setVariable(name, other_.url(""));
    }
  }

  // A fetch, a question for the size, and the job's.
  static void expectRequests(const ScriptedServer& server) {
    if (support::adaptivePlan()) {
      EXPECT_GE(server.requests().size(), 4U);
    } else {
      EXPECT_EQ(server.requests().size(), 5U);
    }
  }

  const support::TempDir folder_;
  const ScriptedServer server_{patternFile(1000)};
  const ScriptedServer other_{[](const support::ReceivedRequest&) { return support::status(502, "not meant for me"); }};
};

TEST_F(Environment, transferWithoutAProxyIsDirect) {
  EXPECT_EQ(xfer::fetch(get(server_.url("/file"), {})).body, support::patternBytes(0, 1000));
  EXPECT_EQ(xfer::getContentLength(server_.url("/file"), {}, ""), 1000);
  EXPECT_EQ(download(server_.url("/file"), {}, folder_.file("out")).state, xfer::JobState::Completed);
  expectRequests(server_);
  EXPECT_TRUE(other_.requests().empty());
}

TEST_F(Environment, transferWithAProxyUsesItForEveryHost) {
  const ScriptedServer named(patternFile(1000));
  const net::Proxy proxy{"127.0.0.1", named.port(), "", ""};
  setVariable("no_proxy", "*");
  setVariable("NO_PROXY", "*");
  EXPECT_EQ(xfer::fetch(get(server_.url("/file"), proxy)).body, support::patternBytes(0, 1000));
  EXPECT_EQ(xfer::getContentLength(server_.url("/file"), proxy, ""), 1000);
  EXPECT_EQ(download(server_.url("/file"), proxy, folder_.file("out")).state, xfer::JobState::Completed);
  expectRequests(named);
  EXPECT_EQ(named.requests().front().target, server_.url("/file"));
  EXPECT_TRUE(server_.requests().empty());
  EXPECT_TRUE(other_.requests().empty());
}

}  // namespace
