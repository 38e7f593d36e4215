// Requests and jobs through a real proxy, with and without a login.
#include <gtest/gtest.h>

#include <string>

#include "support/pattern.h"
#include "support/plan_under_test.h"
#include "support/real_servers.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "sys/data_buff.h"
#include "transfer_support.h"
#include "xfer/xfer.h"
#include "xfer/xfer.hpp"

namespace {

using servers_test::download;
using servers_test::expectWhole;
using servers_test::manyRanges;
using support::RealServer;
using support::RealServers;

constexpr int kTunnelRefused = 56;  // libcurl's code for a CONNECT that was not answered with 200

class Proxies : public testing::TestWithParam<RealServer> {
 protected:
  ~Proxies() override { xfer_setProxy(nullptr); }

  [[nodiscard]] net::Proxy open() const {
    return {.host = "127.0.0.1", .port = servers_.proxyPort(), .username = {}, .password = {}};
  }

  [[nodiscard]] net::Proxy closed() const {
    return {.host = "127.0.0.1",
            .port = servers_.authProxyPort(),
            .username = servers_.user(),
            .password = servers_.password()};
  }

  [[nodiscard]] std::string closedAddress() const { return "127.0.0.1:" + std::to_string(servers_.authProxyPort()); }

  [[nodiscard]] std::string closedWithLogin() const {
    return servers_.user() + ":" + servers_.password() + "@" + closedAddress();
  }

  [[nodiscard]] bool isTunnelled() const { return GetParam() != RealServer::Nginx; }

  // The proxy leaves its mark on what it hands on.  A tunnel that is used again shows nothing of it.
  static bool cameThroughProxy(const std::string& headers) { return headers.find("Via:") != std::string::npos; }

  struct Answer {
    int code = 0;
    std::string headers;
    std::string body;
  };

  [[nodiscard]] Answer ask(const char* proxy) const {
    sys::DataBuff headers;
    sys::DataBuff body;
    Answer answer;
    answer.code = xfer_download(servers_.url(GetParam(), "/1m.bin").c_str(), "", "", &headers, &body, "", proxy);
    answer.headers = headers.toString();
    answer.body = body.toString();
    return answer;
  }

  // Without a login the proxy's own page comes instead of the file, and no tunnel.
  void expectRefused(const Answer& answer) const {
    EXPECT_EQ(answer.code, isTunnelled() ? kTunnelRefused : 0);
    EXPECT_NE(answer.headers.find(" 407 "), std::string::npos) << answer.headers;
    EXPECT_NE(answer.body, support::patternBytes(0, RealServers::kSmallFileBytes));
  }

  void expectServed(const Answer& answer, bool throughProxy) const {
    EXPECT_EQ(answer.code, 0);
    EXPECT_TRUE(answer.body == support::patternBytes(0, RealServers::kSmallFileBytes));
    if (!isTunnelled()) {
      EXPECT_EQ(cameThroughProxy(answer.headers), throughProxy) << answer.headers;
    }
  }

  const RealServers servers_;
  const support::TempDir folder_;
};

TEST_P(Proxies, jobComesThroughTheOpenProxy) {
  const std::string path = folder_.file("out");
  expectWhole(download(servers_.url(GetParam(), "/16m.bin"), path, manyRanges(GetParam()), open()), path,
              RealServers::kBigFileBytes);
}

TEST_P(Proxies, jobWithALoginComesThroughTheClosedProxy) {
  const std::string path = folder_.file("out");
  expectWhole(download(servers_.url(GetParam(), "/16m.bin"), path, manyRanges(GetParam()), closed()), path,
              RealServers::kBigFileBytes);
}

TEST_P(Proxies, jobWithoutALoginFailsAtTheClosedProxy) {
  net::Proxy proxy = closed();
  proxy.username.clear();
  proxy.password.clear();
  const xfer::DownloadSnapshot snapshot =
      download(servers_.url(GetParam(), "/1m.bin"), folder_.file("out"), manyRanges(GetParam()), proxy);
  EXPECT_EQ(snapshot.state, xfer::JobState::Failed);
  // The question of a stated plan knows no status of the proxy's own answer.
  EXPECT_EQ(snapshot.errorCode, isTunnelled() && !support::adaptivePlan() ? kTunnelRefused : 407);
}

TEST_P(Proxies, requestNamesItsProxyAndLoginItself) {
  expectServed(ask(nullptr), false);
  expectServed(ask(("127.0.0.1:" + std::to_string(servers_.proxyPort())).c_str()), true);
  expectServed(ask(closedWithLogin().c_str()), true);
  expectRefused(ask(closedAddress().c_str()));
}

TEST_P(Proxies, setProxyHoldsForEveryRequestUntilItIsCleared) {
  xfer_setProxy(closedWithLogin().c_str());
  expectServed(ask(nullptr), true);
  expectServed(ask(""), true);

  xfer_setProxy(closedAddress().c_str());
  expectRefused(ask(nullptr));
  expectServed(ask(closedWithLogin().c_str()), true);

  xfer_setProxy("");
  expectServed(ask(nullptr), false);

  xfer_setProxy(closedWithLogin().c_str());
  xfer_setProxy(nullptr);
  expectServed(ask(nullptr), false);
}

TEST_P(Proxies, setProxyHoldsForDownloadsIntoFilesToo) {
  const auto run = [this] {
    const std::uint64_t id = xfer_downloadFile(servers_.url(GetParam(), "/1m.bin").c_str(), folder_.file("out").c_str(),
                                               "", 4, "", 0, 0, nullptr);
    std::uint64_t done = 0;
    std::uint32_t error = 0;
    std::uint8_t finished = 0;
    EXPECT_TRUE(support::waitUntil([&] {
      xfer_getProgress(id, &done, &error, &finished);
      return finished != 0;
    }));
    return error;
  };
  xfer_setProxy(closedAddress().c_str());
  EXPECT_EQ(run(), isTunnelled() ? static_cast<std::uint32_t>(kTunnelRefused) : 407U);
  xfer_setProxy(closedWithLogin().c_str());
  EXPECT_EQ(run(), 0U);
  EXPECT_EQ(support::patternError(folder_.file("out"), RealServers::kSmallFileBytes), "");
}

INSTANTIATE_TEST_SUITE_P(Servers, Proxies,
                         testing::Values(RealServer::Nginx, RealServer::NginxTls, RealServer::NginxH2),
                         [](const auto& server) { return support::nameOf(server.param); });

}  // namespace
