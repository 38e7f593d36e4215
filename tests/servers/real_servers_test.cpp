#include "support/real_servers.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "support/pattern.h"
#include "support/temp_dir.h"

namespace support {
namespace {

struct Answer {
  CURLcode result = CURLE_OK;
  long status = 0;
  long connectStatus = 0;
  long version = 0;
  std::string headers;
  std::string body;
};

std::size_t append(char* bytes, std::size_t size, std::size_t count, void* text) {
  static_cast<std::string*>(text)->append(bytes, size * count);
  return size * count;
}

struct Question {
  std::string url;
  std::string range{};
  std::string post{};
  bool login = false;
  std::uint16_t proxyPort = 0;
  bool proxyLogin = false;
};

Answer ask(const Question& question) {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(), &curl_easy_cleanup);
  Answer answer;
  curl_easy_setopt(easy.get(), CURLOPT_URL, question.url.c_str());
  curl_easy_setopt(easy.get(), CURLOPT_PROXY, "");
  curl_easy_setopt(easy.get(), CURLOPT_CAINFO, RealServers().certificateFile().c_str());
  curl_easy_setopt(easy.get(), CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_MAXREDIRS, 3L);
  curl_easy_setopt(easy.get(), CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_2TLS);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, &append);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &answer.body);
  curl_easy_setopt(easy.get(), CURLOPT_HEADERFUNCTION, &append);
  curl_easy_setopt(easy.get(), CURLOPT_HEADERDATA, &answer.headers);
  if (!question.range.empty()) curl_easy_setopt(easy.get(), CURLOPT_RANGE, question.range.c_str());
  if (!question.post.empty()) curl_easy_setopt(easy.get(), CURLOPT_POSTFIELDS, question.post.c_str());
  if (question.login) {
    curl_easy_setopt(easy.get(), CURLOPT_USERNAME, RealServers().user().c_str());
    curl_easy_setopt(easy.get(), CURLOPT_PASSWORD, RealServers().password().c_str());
  }
  if (question.proxyPort != 0) {
    curl_easy_setopt(easy.get(), CURLOPT_PROXY, "http://127.0.0.1");
    curl_easy_setopt(easy.get(), CURLOPT_PROXYPORT, static_cast<long>(question.proxyPort));
  }
  if (question.proxyLogin) {
    curl_easy_setopt(easy.get(), CURLOPT_PROXYUSERNAME, RealServers().user().c_str());
    curl_easy_setopt(easy.get(), CURLOPT_PROXYPASSWORD, RealServers().password().c_str());
  }
  answer.result = curl_easy_perform(easy.get());
  curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &answer.status);
  curl_easy_getinfo(easy.get(), CURLINFO_HTTP_CONNECTCODE, &answer.connectStatus);
  curl_easy_getinfo(easy.get(), CURLINFO_HTTP_VERSION, &answer.version);
  return answer;
}

constexpr RealServer kAll[] = {
    RealServer::Nginx,     RealServer::NginxTls, RealServer::NginxH2,  RealServer::NginxWithoutRanges,
    RealServer::NginxSlow, RealServer::Apache,   RealServer::Lighttpd, RealServer::Python};

class EachServer : public testing::TestWithParam<RealServer> {
 protected:
  static bool givesRanges() { return GetParam() != RealServer::NginxWithoutRanges && GetParam() != RealServer::Python; }

  RealServers servers_;
};

TEST_P(EachServer, servesThePattern) {
  for (const auto& [name, size] : {std::pair<const char*, std::uint64_t>{"/empty.bin", 0},
                                   {"/one.bin", 1},
                                   {"/1m.bin", RealServers::kSmallFileBytes}}) {
    const Answer answer = ask({.url = servers_.url(GetParam(), name)});
    EXPECT_EQ(answer.result, CURLE_OK) << name;
    EXPECT_EQ(answer.status, 200) << name;
    EXPECT_TRUE(answer.body == patternBytes(0, size)) << name << " of " << answer.body.size() << " bytes";
  }
}

TEST_P(EachServer, answersARangeAsItIsSetUpTo) {
  const Answer answer = ask({.url = servers_.url(GetParam(), "/1m.bin"), .range = "1000-200000"});
  EXPECT_EQ(answer.result, CURLE_OK);
  EXPECT_EQ(answer.status, givesRanges() ? 206 : 200);
  const std::string expected =
      givesRanges() ? patternBytes(1000, 200'001) : patternBytes(0, RealServers::kSmallFileBytes);
  EXPECT_TRUE(answer.body == expected) << answer.body.size() << " bytes";
}

TEST_P(EachServer, speaksItsVersionOfHttp) {
  const Answer answer = ask({.url = servers_.url(GetParam(), "/page.txt")});
  long version = CURL_HTTP_VERSION_1_1;
  if (GetParam() == RealServer::NginxH2) version = CURL_HTTP_VERSION_2_0;
  if (GetParam() == RealServer::Python) version = CURL_HTTP_VERSION_1_0;
  EXPECT_EQ(answer.version, version);
  EXPECT_EQ(answer.body.substr(0, 7), "line 1:");
}

INSTANTIATE_TEST_SUITE_P(RealServers, EachServer, testing::ValuesIn(kAll),
                         [](const auto& server) { return nameOf(server.param); });

TEST(RealServers, fileOnDiskIsThePatternToo) {
  EXPECT_EQ(patternError(RealServers().documentRoot() + "/16m.bin", RealServers::kBigFileBytes), "");
}

TEST(RealServers, nginxEchoesRedirectsAndAnswersWithAnyStatus) {
  const RealServers servers;
  for (const RealServer server : {RealServer::Nginx, RealServer::NginxTls, RealServer::NginxH2}) {
    EXPECT_EQ(ask({.url = servers.url(server, "/echo"), .post = "a=b&c=d e"}).body, "a=b&c=d e");
    EXPECT_EQ(ask({.url = servers.url(server, "/method"), .post = "x"}).body, "POST");
    for (const char* code : {"301", "302", "303"}) {
      const std::string url = servers.url(server, std::string("/redirect/") + code + "/method");
      EXPECT_EQ(ask({.url = url, .post = "x"}).body, "GET") << url;
    }
    for (const char* code : {"307", "308"}) {
      const std::string url = servers.url(server, std::string("/redirect/") + code + "/method");
      EXPECT_EQ(ask({.url = url, .post = "x"}).body, "POST") << url;
    }
    EXPECT_EQ(ask({.url = servers.url(server, "/redirect/loop")}).result, CURLE_TOO_MANY_REDIRECTS);
    for (const long code : {403, 404, 416, 429, 500, 503}) {
      EXPECT_EQ(ask({.url = servers.url(server, "/status/" + std::to_string(code))}).status, code);
    }
  }
}

TEST(RealServers, privateFolderNeedsALogin) {
  const std::string url = RealServers().url(RealServer::Nginx, "/private/one.bin");
  EXPECT_EQ(ask({.url = url}).status, 401);
  const Answer answer = ask({.url = url, .login = true});
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.body, patternBytes(0, 1));
}

TEST(RealServers, proxyTakesPlainRequestsAndTunnels) {
  const RealServers servers;
  for (const RealServer server : {RealServer::Nginx, RealServer::NginxTls, RealServer::NginxH2}) {
    const Answer answer =
        ask({.url = servers.url(server, "/1m.bin"), .range = "5-9", .proxyPort = servers.proxyPort()});
    EXPECT_EQ(answer.status, 206) << nameOf(server);
    EXPECT_EQ(answer.body, patternBytes(5, 10)) << nameOf(server);
    const bool isProxied = answer.connectStatus == 200 || answer.headers.find("Via:") != std::string::npos;
    EXPECT_TRUE(isProxied) << answer.headers;
  }
}

TEST(RealServers, authProxyWantsALogin) {
  const RealServers servers;
  const std::string plain = servers.url(RealServer::Nginx, "/one.bin");
  const std::string tls = servers.url(RealServer::NginxTls, "/one.bin");
  const std::uint16_t port = servers.authProxyPort();

  EXPECT_EQ(ask({.url = plain, .proxyPort = port}).status, 407);
  EXPECT_EQ(ask({.url = tls, .proxyPort = port}).connectStatus, 407);
  EXPECT_EQ(ask({.url = plain, .proxyPort = port, .proxyLogin = true}).body, patternBytes(0, 1));
  EXPECT_EQ(ask({.url = tls, .proxyPort = port, .proxyLogin = true}).body, patternBytes(0, 1));
}

TEST(RealServers, slowServerKeepsItsRate) {
  const auto start = std::chrono::steady_clock::now();
  const Answer answer = ask({.url = RealServers().url(RealServer::NginxSlow, "/16m.bin"), .range = "0-3145727"});
  EXPECT_EQ(answer.body.size(), 3'145'728u);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
}

}  // namespace
}  // namespace support
