// Every option that reaches libcurl, with its value: an option too many, one too few and a wrong value fail.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <variant>
#include <vector>

#include "curl_multi_backend.h"
#include "remote_file.h"
#include "support/gate.h"
#include "support/pattern.h"
#include "support/recorded_options.h"
#include "support/scripted_server.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"

namespace {

using support::Options;
using support::ReceivedRequest;
using support::RecordedHandle;
using xfer::DownloadPolicy;
using xfer::DownloadRequest;
using xfer::Request;
using xfer::TransferRequest;

constexpr std::uint64_t kFileBytes = 1000;
constexpr int kProbeTimeoutSec = 7;
constexpr int kNoRequest = -1;

const std::string kDefaultLines =
    "Accept: */*\n"
    "Accept-Encoding: identity\n"
    "Accept-Language: en-US\n"
    "User-Agent: Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) "
    "Chrome/126.0.0.0 Safari/537.36\n"
    "Expect:\n";

// In the expected values, what only a running server knows.
const std::string kUrl = "<url>";
const std::string kServer = "<host:port>";

Options with(Options options, const Options& changes, const std::vector<std::string>& unset = {}) {
  for (const std::string& name : unset) EXPECT_EQ(options.erase(name), 1U) << name;
  for (const auto& [name, value] : changes) options[name] = value;
  return options;
}

// ---- What is set when nothing is asked for ----

const Options kEvery{
    {"URL", kUrl},
    {"NOSIGNAL", "1"},
    {"PROTOCOLS_STR", "http,https"},
    {"REDIR_PROTOCOLS_STR", "http,https"},
    {"FOLLOWLOCATION", "1"},
    {"SSL_VERIFYPEER", "0"},
    {"SSL_VERIFYHOST", "0"},
    {"SSLVERSION", "0"},
    {"SSL_CIPHER_LIST",
     "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
     "ECDHE-RSA-AES256-GCM-SHA384:ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
     "ECDHE-RSA-AES128-SHA:ECDHE-RSA-AES256-SHA:AES128-GCM-SHA256:AES256-GCM-SHA384:AES128-SHA:AES256-SHA"},
    {"TLS13_CIPHERS", "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256"},
    {"HTTP_VERSION", "2"},  // 1.1
    {"QUICK_EXIT", "1"},
    {"BUFFERSIZE", "524288"},
    {"TCP_KEEPALIVE", "1"},
    {"HTTPHEADER", kDefaultLines},
    {"SHARE", "set"},
    {"WRITEFUNCTION", "set"},
    {"WRITEDATA", "set"},
    {"HEADERFUNCTION", "set"},
    {"HEADERDATA", "set"},
};

const Options kFetch = with(kEvery, {{"MAXREDIRS", "20"},
                                     {"POSTREDIR", "7"},  // a POST stays one
                                     {"CONNECTTIMEOUT", "15"},
                                     {"TIMEOUT", "10"},
                                     {"LOW_SPEED_LIMIT", "1024"},
                                     {"LOW_SPEED_TIME", "10"}});

const Options kProbe = with(kFetch, {{"TIMEOUT", std::to_string(kProbeTimeoutSec)},
                                     {"HTTPHEADER", "Range: bytes=0-0\n" + kDefaultLines},
                                     {"SUPPRESS_CONNECT_HEADERS", "1"}});

const Options kRange = with(kEvery, {{"MAXREDIRS", "10"},
                                     {"CONNECTTIMEOUT", "20"},
                                     {"LOW_SPEED_LIMIT", "1024"},
                                     {"LOW_SPEED_TIME", "30"},
                                     {"PRIVATE", "set"}});

const Options kRangeMulti{
    {"PIPELINING", "2"}, {"MAX_HOST_CONNECTIONS", "1"}, {"MAX_TOTAL_CONNECTIONS", "1"}};  // 2: multiplex

const Options kShare{{"SHARE", "3; 4; 5"},  // host names, TLS sessions, connections
                     {"LOCKFUNC", "set"},
                     {"UNLOCKFUNC", "set"},
                     {"USERDATA", "set"}};

// ---- The operations ----

struct Fetch {
  std::function<void(Request&)> ask = [](Request&) {};

  int run(const std::string& url, const net::Proxy& proxy) const {
    Request request;
    request.url = url;
    request.proxy = proxy;
    ask(request);
    return xfer::fetch(request).curlCode;
  }
};

struct Probe {
  std::function<void(DownloadRequest&)> ask = [](DownloadRequest&) {};

  int run(const std::string& url, const net::Proxy& proxy) const {
    DownloadRequest request;
    request.url = url;
    request.proxy = proxy;
    ask(request);
    return xfer::probeStoppable(request, kProbeTimeoutSec, xfer::StopSignal()).error;
  }
};

struct Range {
  std::function<void(TransferRequest&, DownloadPolicy&)> ask = [](TransferRequest&, DownloadPolicy&) {};

  int run(const std::string& url, const net::Proxy& proxy) const {
    TransferRequest request;
    request.url = url;
    request.proxy = proxy;
    DownloadPolicy policy;
    ask(request, policy);
    xfer::CurlMultiBackend backend(policy);
    int code = kNoRequest;
    support::Gate over;
    backend.submit(request, {}, [&, over](std::uint64_t /*start*/, const xfer::TransferEnd& end) mutable {
      code = end.code;
      over.open();
    });
    EXPECT_TRUE(over.wait());
    return code;
  }
};

struct Row {
  std::string name;
  std::variant<Fetch, Probe, Range> operation;
  Options easy;
  Options multi;
  bool proxied = false;
  net::Proxy login{};  // of the proxy
};

int run(const Row& row, const std::string& url, const net::Proxy& proxy) {
  return std::visit([&](const auto& operation) { return operation.run(url, proxy); }, row.operation);
}

net::Proxy login(const std::string& username, const std::string& password) {
  net::Proxy proxy;
  proxy.username = username;
  proxy.password = password;
  return proxy;
}

const std::string kOwnLines = "X-Own: 1\nUser-Agent: own\naccept: lower\nAccept-Language: de\n";
const std::vector<std::string> kOwnHeaders{"X-Own: 1", "User-Agent: own", "accept: lower", "Accept-Language: de"};
const std::string kLinesOfOwn = kOwnLines + "Accept: */*\nAccept-Encoding: identity\nExpect:\n";

const std::vector<Row>& rows() {
  static const std::vector<Row> all{
      {"fetchOfNothingElse", Fetch{}, kFetch, {}},
      {"fetchOfEverything",
       Fetch{[](Request& request) {
         request.cookie = "name=value";
         request.headers = kOwnHeaders;
         request.body = "a=1&b=2";
         request.followRedirects = false;
         request.connectTimeoutSec = 21;
         request.timeoutSec = 22;
         request.lowSpeedTimeSec = 23;
       }},
       with(kFetch, {{"COOKIE", "name=value"},
                     {"HTTPHEADER", kLinesOfOwn},
                     {"POST", "1"},
                     {"POSTFIELDS", "a=1&b=2"},
                     {"POSTFIELDSIZE", "7"},
                     {"FOLLOWLOCATION", "0"},
                     {"CONNECTTIMEOUT", "21"},
                     {"TIMEOUT", "22"},
                     {"LOW_SPEED_TIME", "23"},
                     {"PROXY", kServer},
                     {"PROXYUSERNAME", "user"},
                     {"PROXYPASSWORD", "secret"}}),
       {},
       true,
       login("user", "secret")},
      {"fetchWithoutRedirects",
       Fetch{[](Request& request) { request.followRedirects = false; }},
       with(kFetch, {{"FOLLOWLOCATION", "0"}}),
       {}},
      {"fetchOfABody",
       Fetch{[](Request& request) { request.body = "x"; }},
       with(kFetch, {{"POST", "1"}, {"POSTFIELDS", "x"}, {"POSTFIELDSIZE", "1"}}),
       {}},
      {"fetchWithoutLimits",
       Fetch{[](Request& request) {
         request.connectTimeoutSec = 0;
         request.timeoutSec = 0;
         request.lowSpeedTimeSec = 0;
       }},
       with(kFetch, {}, {"CONNECTTIMEOUT", "TIMEOUT", "LOW_SPEED_LIMIT", "LOW_SPEED_TIME"}),
       {}},
      {"fetchWithLimitsBelowZero",
       Fetch{[](Request& request) {
         request.connectTimeoutSec = -1;
         request.timeoutSec = -1;
         request.lowSpeedTimeSec = -1;
       }},
       with(kFetch, {}, {"CONNECTTIMEOUT", "TIMEOUT", "LOW_SPEED_LIMIT", "LOW_SPEED_TIME"}),
       {}},
      {"fetchByAProxy", Fetch{}, with(kFetch, {{"PROXY", kServer}}), {}, true},
      {"fetchByAProxyWithAUserOnly",
       Fetch{},
       with(kFetch, {{"PROXY", kServer}, {"PROXYUSERNAME", "user"}}),
       {},
       true,
       login("user", "")},
      {"fetchByAProxyWithAPasswordOnly",
       Fetch{},
       with(kFetch, {{"PROXY", kServer}, {"PROXYPASSWORD", "secret"}}),
       {},
       true,
       login("", "secret")},

      {"probeOfNothingElse", Probe{}, kProbe, {}},
      {"probeOfEverything",
       Probe{[](DownloadRequest& request) {
         request.cookie = "name=value";
         request.headers = kOwnHeaders;
         request.headers.emplace_back("range: bytes=5-6");  // the probe has a range of its own
         request.knownSize = kFileBytes;
       }},
       with(kProbe, {{"COOKIE", "name=value"},
                     {"HTTPHEADER", kOwnLines + "Range: bytes=0-0\nAccept: */*\nAccept-Encoding: identity\nExpect:\n"},
                     {"PROXY", kServer},
                     {"PROXYUSERNAME", "user"},
                     {"PROXYPASSWORD", "secret"}}),
       {},
       true,
       login("user", "secret")},

      {"rangeOfNothingElse", Range{}, kRange, kRangeMulti},
      {"rangeOfEverything", Range{[](TransferRequest& request, DownloadPolicy& policy) {
         request.cookie = "name=value";
         request.headers = kOwnHeaders;
         request.rangeStart = 100;
         request.rangeEnd = 200;
         request.maxRecvSpeed = 100'000;
         policy.numThreads = 4;
         policy.useHttp2 = true;
         policy.connectTimeoutSec = 21;
         policy.transferTimeoutSec = 22;
         policy.lowSpeedLimit = 2048;
         policy.lowSpeedTimeSec = 23;
       }},
       with(kRange, {{"COOKIE", "name=value"},
                     {"HTTPHEADER", kLinesOfOwn},
                     {"RANGE", "100-199"},
                     {"BUFFERSIZE", "12500"},
                     {"HTTP_VERSION", "4"},  // 2 over TLS
                     {"PIPEWAIT", "1"},
                     {"CONNECTTIMEOUT", "21"},
                     {"TIMEOUT", "22"},
                     {"LOW_SPEED_LIMIT", "2048"},
                     {"LOW_SPEED_TIME", "23"},
                     {"PROXY", kServer},
                     {"PROXYUSERNAME", "user"},
                     {"PROXYPASSWORD", "secret"}}),
       with(kRangeMulti, {{"MAX_HOST_CONNECTIONS", "4"}, {"MAX_TOTAL_CONNECTIONS", "4"}}), true,
       login("user", "secret")},
      {"rangeOfTheFirstByte", Range{[](TransferRequest& request, DownloadPolicy& /*policy*/) { request.rangeEnd = 1; }},
       with(kRange, {{"RANGE", "0-0"}}), kRangeMulti},
      {"rangeWithoutAnEnd",
       Range{[](TransferRequest& request, DownloadPolicy& /*policy*/) { request.rangeStart = 100; }},
       with(kRange, {{"RANGE", "100-"}}), kRangeMulti},
      {"rangeByHttp2", Range{[](TransferRequest& /*request*/, DownloadPolicy& policy) { policy.useHttp2 = true; }},
       with(kRange, {{"HTTP_VERSION", "4"}, {"PIPEWAIT", "1"}}), kRangeMulti},
      {"rangeWithoutMultiplexing",
       Range{[](TransferRequest& /*request*/, DownloadPolicy& policy) { policy.multiplex = false; }}, kRange,
       with(kRangeMulti, {{"PIPELINING", "0"}})},
      {"rangeWithoutKeepAlive",
       Range{[](TransferRequest& /*request*/, DownloadPolicy& policy) { policy.tcpKeepAlive = false; }},
       with(kRange, {}, {"TCP_KEEPALIVE"}), kRangeMulti},
      {"rangeWithoutLimits", Range{[](TransferRequest& /*request*/, DownloadPolicy& policy) {
         policy.connectTimeoutSec = 0;
         policy.transferTimeoutSec = 0;
         policy.lowSpeedLimit = 0;
         policy.lowSpeedTimeSec = 0;
       }},
       with(kRange, {{"LOW_SPEED_LIMIT", "0"}, {"LOW_SPEED_TIME", "0"}}, {"CONNECTTIMEOUT"}), kRangeMulti},
      {"rangeAtTheLowestSpeed",
       Range{[](TransferRequest& request, DownloadPolicy& /*policy*/) { request.maxRecvSpeed = 1500; }},
       with(kRange, {{"BUFFERSIZE", "1024"}, {"LOW_SPEED_LIMIT", "750"}}), kRangeMulti},
      {"rangeAtAHighSpeed",
       Range{[](TransferRequest& request, DownloadPolicy& /*policy*/) { request.maxRecvSpeed = 100'000'000; }},
       with(kRange, {{"BUFFERSIZE", "65536"}}), kRangeMulti},
      {"rangeByAProxy", Range{}, with(kRange, {{"PROXY", kServer}}), kRangeMulti, true},
      {"rangeByAProxyWithAUserOnly", Range{}, with(kRange, {{"PROXY", kServer}, {"PROXYUSERNAME", "user"}}),
       kRangeMulti, true, login("user", "")},
      {"rangeByAProxyWithAPasswordOnly", Range{}, with(kRange, {{"PROXY", kServer}, {"PROXYPASSWORD", "secret"}}),
       kRangeMulti, true, login("", "secret")},
  };
  return all;
}

// ---- The table ----

class CurlOptions : public testing::TestWithParam<Row> {
 protected:
  CurlOptions() {
    xfer::init();
    support::forgetHandles();
  }

  int run(const Row& row) const {
    net::Proxy proxy = row.login;
    if (row.proxied) {
      proxy.host = "127.0.0.1";
      proxy.port = server_.port();
    }
    return ::run(row, server_.url("/file"), proxy);
  }

  // The expected options with what this server's port decides.
  [[nodiscard]] Options here(Options options) const {
    for (auto& [name, value] : options) {
      if (value == kUrl) value = server_.url("/file");
      if (value == kServer) value = "127.0.0.1:" + std::to_string(server_.port());
    }
    return options;
  }

  const support::ScriptedServer server_{support::patternFile(kFileBytes)};
};

TEST_P(CurlOptions, areTheseAndNoOthers) {
  const Row& row = GetParam();
  EXPECT_EQ(run(row), 0);
  const std::vector<RecordedHandle> easy = support::easyHandles();
  ASSERT_EQ(easy.size(), 1U);
  EXPECT_EQ(easy.front().options, here(row.easy));
  EXPECT_EQ(easy.front().later, Options());
  const std::vector<RecordedHandle> multi = support::multiHandles();
  ASSERT_EQ(multi.size(), 1U);
  EXPECT_EQ(multi.front().options, row.multi);
  const std::vector<RecordedHandle> shares = support::shareHandles();
  EXPECT_FALSE(shares.empty());
  for (const RecordedHandle& share : shares) EXPECT_EQ(share.options, kShare);
}

INSTANTIATE_TEST_SUITE_P(Of, CurlOptions, testing::ValuesIn(rows()),
                         [](const auto& parameter) { return parameter.param.name; });

}  // namespace
