// POST bodies and redirects, as a real server understands them.
#include <gtest/gtest.h>

#include <string>

#include "support/pattern.h"
#include "support/real_servers.h"
#include "support/temp_dir.h"
#include "sys/data_buff.h"
#include "transfer_support.h"
#include "xfer/xfer.h"
#include "xfer/xfer.hpp"

namespace {

using support::RealServer;
using support::RealServers;

constexpr int kTooManyRedirects = 47;

class PostsAndRedirects : public testing::TestWithParam<RealServer> {
 protected:
  [[nodiscard]] xfer::Response post(const std::string& path, const std::string& body, bool follow = true) const {
    xfer::Request request;
    request.url = servers_.url(GetParam(), path);
    request.body = body;
    request.followRedirects = follow;
    return xfer::fetch(request);
  }

  const RealServers servers_;
};

TEST_P(PostsAndRedirects, bodyArrivesAsItIs) {
  const xfer::Response response = post("/echo", "a=b&c=d e%20+");
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, "a=b&c=d e%20+");
}

TEST_P(PostsAndRedirects, postStaysAPostOverEveryKindOfRedirectThatKeepsIt) {
  for (const char* code : {"301", "302", "303", "307", "308"}) {
    const std::string to = std::string("/redirect/") + code;
    EXPECT_EQ(post(to + "/method", "x").body, "POST") << code;
    EXPECT_EQ(post(to + "/echo", "k=v").body, "k=v") << code;
    EXPECT_EQ(post(to + to + to + "/echo", "k=v").body, "k=v") << "three times " << code;
  }
}

TEST_P(PostsAndRedirects, refusedRedirectIsTheAnswer) {
  const xfer::Response response = post("/redirect/302/method", "x", false);
  EXPECT_EQ(response.curlCode, 0);
  EXPECT_EQ(response.status, 302);
  EXPECT_NE(response.headers.find("Location:"), std::string::npos);
}

TEST_P(PostsAndRedirects, optionsOfTheCInterfaceDoTheSame) {
  const auto ask = [this](const std::string& path, const char* options) {
    sys::DataBuff headers;
    sys::DataBuff body;
    EXPECT_EQ(xfer_download(servers_.url(GetParam(), path).c_str(), "", options, &headers, &body, "", ""), 0);
    return body.toString();
  };
  EXPECT_EQ(ask("/redirect/302/echo", "OPT_POSTFIELDS=k=v&x=y"), "k=v&x=y");
  EXPECT_EQ(ask("/redirect/307/method", ""), "GET");
  EXPECT_NE(ask("/redirect/302/echo", "OPT_POSTFIELDS=k=v\nREDIRECT_POLICY_NEVER"), "k=v");
}

TEST_P(PostsAndRedirects, endlessRedirectEnds) {
  EXPECT_EQ(post("/redirect/loop", "").curlCode, kTooManyRedirects);
  const support::TempDir folder;
  const xfer::DownloadSnapshot snapshot = servers_test::download(
      servers_.url(GetParam(), "/redirect/loop"), folder.file("out"), servers_test::manyRanges(GetParam()));
  EXPECT_EQ(snapshot.state, xfer::JobState::Failed);
  EXPECT_EQ(snapshot.errorCode, kTooManyRedirects);
}

TEST_P(PostsAndRedirects, jobFollowsRedirects) {
  const support::TempDir folder;
  const std::string path = folder.file("out");
  servers_test::expectWhole(
      servers_test::download(servers_.url(GetParam(), "/redirect/301/redirect/302/redirect/307/16m.bin"), path,
                             servers_test::manyRanges(GetParam())),
      path, RealServers::kBigFileBytes);
}

class SecretsOverStandardPorts : public testing::Test {
 protected:
  // What the last server of the redirects got: "<Cookie>|<Authorization>".
  [[nodiscard]] std::string arrived(const std::string& url) const {
    xfer::Request request;
    request.url = url;
    request.proxy = {.host = "127.0.0.1", .port = servers_.relayProxyPort(), .username = "", .password = ""};
    request.cookie = "a=b";
    request.headers = {"Authorization: Bearer x"};
    const xfer::Response response = xfer::fetch(request);
    EXPECT_EQ(response.curlCode, 0);
    EXPECT_EQ(response.status, 200);
    return response.body;
  }

  const RealServers servers_;
};

TEST_F(SecretsOverStandardPorts, theyFollowASiteFromHttpToHttps) {
  EXPECT_EQ(arrived("http://site.test/to-https/secrets"), "a=b|Bearer x");
  EXPECT_EQ(arrived("http://site.test/to-https/to-https/secrets"), "a=b|Bearer x");
}

TEST_F(SecretsOverStandardPorts, theyDoNotFollowItFromHttpsToHttp) {
  EXPECT_EQ(arrived("https://site.test/to-http/secrets"), "|");
}

TEST_F(SecretsOverStandardPorts, theyComeBackWithTheSiteAndStayThere) {
  EXPECT_EQ(arrived("http://site.test/to-https/to-http/secrets"), "a=b|Bearer x");
  EXPECT_EQ(arrived("https://site.test/to-http/to-https/secrets"), "a=b|Bearer x");
}

TEST_F(SecretsOverStandardPorts, otherPortsOfTheSameNameAreOtherServers) {
  EXPECT_EQ(arrived("http://site.test:8080/to-https/secrets"), "|");
  EXPECT_EQ(arrived("https://site.test:8443/to-http/secrets"), "|");
}

INSTANTIATE_TEST_SUITE_P(Servers, PostsAndRedirects,
                         testing::Values(RealServer::Nginx, RealServer::NginxTls, RealServer::NginxH2),
                         [](const auto& server) { return support::nameOf(server.param); });

}  // namespace
