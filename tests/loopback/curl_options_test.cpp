// Every option that reaches libcurl, with its value: an option too many, one too few and a wrong value fail.
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "curl_multi_backend.h"
#include "fetch_option_values.h"
#include "fetch_stoppable.h"
#include "rate_limit.h"
#include "remote_file.h"
#include "steady_time.h"
#include "support/gate.h"
#include "support/pattern.h"
#include "support/recorded_options.h"
#include "support/scripted_server.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"
#include "xfer/xfer_request.h"

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
constexpr int kOutOfMemory = 100000;

const std::string kDefaultLines =
    "Accept: */*\n"
    "Accept-Encoding: identity\n"
    "Accept-Language: en-US\n"
    "User-Agent: Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) "
    "Chrome/126.0.0.0 Safari/537.36\n"
    "Expect:\n";

const std::string kFile = "/file";
const std::string kMoved = "/moved";         // redirects to the file
const std::string kAway = "/away";           // redirects to another server's file
const std::string kThereAndBack = "/there";  // redirects to another server, which redirects to the file

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
    {"PROXY", ""},    // none, whatever the environment says
    {"NOPROXY", ""},  // and no exceptions
    {"SHARE", "set"},
    {"WRITEFUNCTION", "set"},
    {"WRITEDATA", "set"},
    {"HEADERFUNCTION", "set"},
    {"HEADERDATA", "set"},
    {"ERRORBUFFER", "set"},
};

// What comes with a cookie or a login, before the request and with it.
const Options kGuard{{"PREREQFUNCTION", "set"}, {"PREREQDATA", "set"}};
const Options kGuarded{{"UNRESTRICTED_AUTH", "0"}};

const Options kFetch = with(kEvery, {{"MAXREDIRS", "20"},
                                     {"POSTREDIR", "7"},  // a POST stays one
                                     {"CONNECTTIMEOUT", "15"},
                                     {"TIMEOUT", "10"},
                                     {"LOW_SPEED_LIMIT", "1024"},
                                     {"LOW_SPEED_TIME", "10"}});

const Options kProbe = with(kFetch, {{"TIMEOUT", std::to_string(kProbeTimeoutSec)},
                                     {"HTTPHEADER", "Range: bytes=0-0\n" + kDefaultLines},
                                     {"SUPPRESS_CONNECT_HEADERS", "1"}});

// Of the C interface: without a limit for the whole request.
const Options kNumbers = with(kFetch, {}, {"TIMEOUT"});

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
  std::optional<xfer::FetchOptions> options{};

  int run(const std::string& url, const net::Proxy& proxy) const {
    Request request;
    request.url = url;
    request.proxy = proxy;
    ask(request);
    return (options ? xfer::fetch(request, *options) : xfer::fetch(request)).curlCode;
  }
};

// Of the C interface.
struct Numbers {
  std::function<void(xfer_request_options&)> ask = [](xfer_request_options&) {};

  int run(const std::string& url, const net::Proxy& proxy) const {
    xfer_request_options options;
    xfer_response response;
    xfer_requestOptionsInit(&options, sizeof options);
    xfer_responseInit(&response, sizeof response);
    const std::string proxyText = proxy.host.empty() ? ""
                                                     : proxy.username + ":" + proxy.password + "@" + proxy.host + ":" +
                                                           std::to_string(proxy.port);
    options.url = url.c_str();
    options.proxy = proxyText.c_str();
    ask(options);
    const int code = xfer_request(&options, &response);
    if (code == kOutOfMemory) throw std::bad_alloc();
    return code;
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

enum class By { Itself, Proxy };

struct Row {
  std::string name{};
  std::variant<Fetch, Numbers, Probe, Range> operation{};
  Options easy{};
  Options later{};  // set before the requests of the transfer
  std::optional<Options> multi{};
  By by = By::Itself;
  net::Proxy login{};  // of the proxy
  std::string path = kFile;
};

Options multiOf(const Row& row) {
  return row.multi.value_or(std::holds_alternative<Range>(row.operation) ? kRangeMulti : Options());
}

net::Proxy login(const std::string& username, const std::string& password) {
  net::Proxy proxy;
  proxy.username = username;
  proxy.password = password;
  return proxy;
}

Fetch fetchOf(std::function<void(Request&)> ask) {
  return {std::move(ask)};
}

Fetch fetchWith(const xfer::FetchOptions& options, const std::string& body = "") {
  return {[body](Request& request) { request.body = body; }, options};
}

Numbers numbersOf(std::function<void(xfer_request_options&)> ask) {
  return {std::move(ask)};
}

Probe probeOf(std::function<void(DownloadRequest&)> ask) {
  return {std::move(ask)};
}

Range rangeOf(const std::function<void(TransferRequest&)>& ask) {
  return {[ask](TransferRequest& request, DownloadPolicy& /*policy*/) { ask(request); }};
}

Range rangeWith(const std::function<void(DownloadPolicy&)>& ask) {
  return {[ask](TransferRequest& /*request*/, DownloadPolicy& policy) { ask(policy); }};
}

// Outlives every transfer.
template <std::uint64_t kBytesPerSec>
xfer::RateLimit* limitOf() {
  static xfer::RateLimit limit;
  limit.setRate(kBytesPerSec, xfer::steadyNs());
  return &limit;
}

const std::vector<std::string> kOwnHeaders{"X-Own: 1", "User-Agent: own", "accept: lower", "Accept-Language: de"};
const std::string kOwnLines = "X-Own: 1\nUser-Agent: own\naccept: lower\nAccept-Language: de\n";
const std::string kMissingLines = "Accept: */*\nAccept-Encoding: identity\nExpect:\n";
const std::string kLogin = "Authorization: Basic c2VjcmV0";
const std::string kCookie = "name=value";

void askForSecrets(Request& request) {
  request.cookie = kCookie;
  request.headers = {kLogin};
}

void askForSecretsOfARange(TransferRequest& request) {
  request.cookie = kCookie;
  request.headers = {kLogin};
}

const Options kSecrets = with(kGuard, {{"COOKIE", kCookie}, {"HTTPHEADER", kLogin + "\n" + kDefaultLines}});
const Options kTwice{{"UNRESTRICTED_AUTH", "0; 0"}};
const Options kElsewhere = with(kTwice, {{"COOKIE", "null"}, {"HTTPHEADER", kDefaultLines}});
const Options kElsewhereAndBack{
    {"UNRESTRICTED_AUTH", "0; 0; 0"},
    {"COOKIE", "null; null"},
    {"HTTPHEADER", kDefaultLines + "; " + kLogin + "\nCookie: " + kCookie + "\n" + kDefaultLines}};

// Every row names what is not as in kFetch, kProbe or kRange.
const std::vector<Row>& rows() {
  static const std::vector<Row> all{
      {.name = "fetchOfNothingElse", .operation = Fetch{}, .easy = kFetch},
      {.name = "fetchOfEverything",
       .operation = fetchOf([](Request& request) {
         request.cookie = kCookie;
         request.headers = kOwnHeaders;
         request.body = "a=1&b=2";
         request.followRedirects = false;
         request.connectTimeoutSec = 21;
         request.timeoutSec = 22;
         request.lowSpeedTimeSec = 23;
       }),
       .easy = with(kFetch, with(kGuard, {{"COOKIE", kCookie},
                                          {"HTTPHEADER", kOwnLines + kMissingLines},
                                          {"POST", "1"},
                                          {"POSTFIELDS", "a=1&b=2"},
                                          {"POSTFIELDSIZE", "7"},
                                          {"FOLLOWLOCATION", "0"},
                                          {"CONNECTTIMEOUT", "21"},
                                          {"TIMEOUT", "22"},
                                          {"LOW_SPEED_TIME", "23"},
                                          {"PROXY", kServer},
                                          {"PROXYUSERNAME", "user"},
                                          {"PROXYPASSWORD", "secret"}})),
       .later = kGuarded,
       .by = By::Proxy,
       .login = login("user", "secret")},
      {.name = "fetchWithoutRedirects",
       .operation = fetchOf([](Request& request) { request.followRedirects = false; }),
       .easy = with(kFetch, {{"FOLLOWLOCATION", "0"}})},
      {.name = "fetchWithABody",
       .operation = fetchOf([](Request& request) { request.body = "x"; }),
       .easy = with(kFetch, {{"POST", "1"}, {"POSTFIELDS", "x"}, {"POSTFIELDSIZE", "1"}})},
      {.name = "fetchWithoutLimits",
       .operation = fetchOf(
           [](Request& request) { request.connectTimeoutSec = request.timeoutSec = request.lowSpeedTimeSec = 0; }),
       .easy = with(kFetch, {}, {"CONNECTTIMEOUT", "TIMEOUT", "LOW_SPEED_LIMIT", "LOW_SPEED_TIME"})},
      {.name = "fetchWithLimitsBelowZero",
       .operation = fetchOf(
           [](Request& request) { request.connectTimeoutSec = request.timeoutSec = request.lowSpeedTimeSec = -1; }),
       .easy = with(kFetch, {}, {"CONNECTTIMEOUT", "TIMEOUT", "LOW_SPEED_LIMIT", "LOW_SPEED_TIME"})},
      {.name = "fetchByAProxy", .operation = Fetch{}, .easy = with(kFetch, {{"PROXY", kServer}}), .by = By::Proxy},
      {.name = "fetchByAProxyWithAUserOnly",
       .operation = Fetch{},
       .easy = with(kFetch, {{"PROXY", kServer}, {"PROXYUSERNAME", "user"}}),
       .by = By::Proxy,
       .login = login("user", "")},
      {.name = "fetchByAProxyWithAPasswordOnly",
       .operation = Fetch{},
       .easy = with(kFetch, {{"PROXY", kServer}, {"PROXYPASSWORD", "secret"}}),
       .by = By::Proxy,
       .login = login("", "secret")},
      {.name = "fetchRedirected", .operation = Fetch{}, .easy = kFetch, .path = kMoved},
      {.name = "fetchWithSecretsRedirected",
       .operation = fetchOf(askForSecrets),
       .easy = with(kFetch, kSecrets),
       .later = kTwice,
       .path = kMoved},
      {.name = "fetchWithSecretsRedirectedElsewhere",
       .operation = fetchOf(askForSecrets),
       .easy = with(kFetch, kSecrets),
       .later = kElsewhere,
       .path = kAway},
      {.name = "fetchWithSecretsRedirectedThereAndBack",
       .operation = fetchOf(askForSecrets),
       .easy = with(kFetch, kSecrets),
       .later = kElsewhereAndBack,
       .path = kThereAndBack},

      {.name = "fetchWithOptionsThatAreNotSet", .operation = fetchWith(xfer::FetchOptions()), .easy = kFetch},
      {.name = "fetchOfEveryOption",
       .operation = fetchWith(xfer::FetchOptions()
                                  .setMethod("PUT")
                                  .setMaxRedirects(3)
                                  .setOnBody([](std::int32_t, std::string_view) { return true; })
                                  .setCancelToken(xfer::CancelToken()),
                              "ab"),
       .easy = with(kFetch, {{"CUSTOMREQUEST", "PUT"},
                             {"POST", "1"},
                             {"POSTFIELDS", "ab"},
                             {"POSTFIELDSIZE", "2"},
                             {"MAXREDIRS", "3"}})},
      {.name = "fetchOfAHead",
       .operation = fetchWith(xfer::FetchOptions().setMethod("HEAD")),
       .easy = with(kFetch, {{"NOBODY", "1"}})},
      {.name = "fetchWithAMethodAndNoBody",
       .operation = fetchWith(xfer::FetchOptions().setMethod("DELETE")),
       .easy = with(kFetch, {{"CUSTOMREQUEST", "DELETE"}})},
      {.name = "fetchWithAMethodAndAnEmptyBody",
       .operation = fetchWith(xfer::FetchOptions().setMethod("POST")),
       .easy = with(kFetch, {{"CUSTOMREQUEST", "POST"}, {"POST", "1"}, {"POSTFIELDS", ""}, {"POSTFIELDSIZE", "0"}})},
      {.name = "fetchThatFollowsNoRedirect",
       .operation = fetchWith(xfer::FetchOptions().setMaxRedirects(0)),
       .easy = with(kFetch, {{"FOLLOWLOCATION", "0"}, {"MAXREDIRS", "0"}})},
      {.name = "fetchWithAHighRedirectLimit",
       .operation = fetchWith(xfer::FetchOptions().setMaxRedirects(0xffff'ffff)),
       .easy = with(kFetch, {{"MAXREDIRS", "32767"}})},

      {.name = "numbersOfNothingElse", .operation = Numbers{}, .easy = kNumbers},
      {.name = "numbersOfEverything",
       .operation = numbersOf([](xfer_request_options& options) {
         options.method = "PATCH";
         options.headers = "X-Own: 1\naccept: lower\nAccept-Language: de";
         options.cookie = kCookie.c_str();
         options.userAgent = "own";
         options.body = "a=1&b=2";
         options.bodySize = 7;
         options.maxRedirects = 4;
         options.connectTimeoutSec = 21;
         options.timeoutSec = 22;
         options.lowSpeedTimeSec = 23;
       }),
       .easy =
           with(kFetch, with(kGuard, {{"COOKIE", kCookie},
                                      {"HTTPHEADER", "X-Own: 1\naccept: lower\nAccept-Language: de\nUser-Agent: own\n" +
                                                         kMissingLines},
                                      {"CUSTOMREQUEST", "PATCH"},
                                      {"POST", "1"},
                                      {"POSTFIELDS", "a=1&b=2"},
                                      {"POSTFIELDSIZE", "7"},
                                      {"MAXREDIRS", "4"},
                                      {"CONNECTTIMEOUT", "21"},
                                      {"TIMEOUT", "22"},
                                      {"LOW_SPEED_TIME", "23"},
                                      {"PROXY", kServer},
                                      {"PROXYUSERNAME", "user"},
                                      {"PROXYPASSWORD", "secret"}})),
       .later = kGuarded,
       .by = By::Proxy,
       .login = login("user", "secret")},
      {.name = "numbersWithoutLimits",
       .operation = numbersOf([](xfer_request_options& options) {
         options.connectTimeoutSec = options.timeoutSec = options.lowSpeedTimeSec = 0;
       }),
       .easy = with(kNumbers, {}, {"CONNECTTIMEOUT", "LOW_SPEED_LIMIT", "LOW_SPEED_TIME"})},
      {.name = "numbersWithLimitsOfMonths",
       .operation = numbersOf([](xfer_request_options& options) {
         options.connectTimeoutSec = options.timeoutSec = options.lowSpeedTimeSec = 0xffff'ffff;
       }),
       .easy = with(kNumbers, {{"CONNECTTIMEOUT", "2147483"}, {"TIMEOUT", "2147483"}, {"LOW_SPEED_TIME", "2147483"}})},

      {.name = "probeOfNothingElse", .operation = Probe{}, .easy = kProbe},
      {.name = "probeOfEverything",
       .operation = probeOf([](DownloadRequest& request) {
         request.cookie = kCookie;
         request.headers = kOwnHeaders;
         request.headers.emplace_back("range: bytes=5-6");  // the probe has a range of its own
         request.knownSize = kFileBytes;
       }),
       .easy = with(kProbe, with(kGuard, {{"COOKIE", kCookie},
                                          {"HTTPHEADER", kOwnLines + "Range: bytes=0-0\n" + kMissingLines},
                                          {"PROXY", kServer},
                                          {"PROXYUSERNAME", "user"},
                                          {"PROXYPASSWORD", "secret"}})),
       .later = kGuarded,
       .by = By::Proxy,
       .login = login("user", "secret")},

      {.name = "rangeOfNothingElse", .operation = Range{}, .easy = kRange},
      {.name = "rangeOfEverything",
       .operation = Range{[](TransferRequest& request, DownloadPolicy& policy) {
         request.cookie = kCookie;
         request.headers = kOwnHeaders;
         request.rangeStart = 100;
         request.rangeEnd = 200;
         request.maxRecvSpeed = 100'000;
         request.freshConnection = true;
         policy.numThreads = 4;
         policy.useHttp2 = true;
         policy.connectTimeoutSec = 21;
         policy.transferTimeoutSec = 22;
         policy.lowSpeedLimit = 2048;
         policy.lowSpeedTimeSec = 23;
       }},
       .easy = with(kRange, with(kGuard, {{"COOKIE", kCookie},
                                          {"HTTPHEADER", kOwnLines + kMissingLines},
                                          {"RANGE", "100-199"},
                                          {"BUFFERSIZE", "12500"},
                                          {"FRESH_CONNECT", "1"},
                                          {"HTTP_VERSION", "4"},  // 2 over TLS
                                          {"PIPEWAIT", "1"},
                                          {"CONNECTTIMEOUT", "21"},
                                          {"TIMEOUT", "22"},
                                          {"LOW_SPEED_LIMIT", "2048"},
                                          {"LOW_SPEED_TIME", "23"},
                                          {"PROXY", kServer},
                                          {"PROXYUSERNAME", "user"},
                                          {"PROXYPASSWORD", "secret"}})),
       .later = kGuarded,
       .multi = with(kRangeMulti, {{"MAX_HOST_CONNECTIONS", "4"}, {"MAX_TOTAL_CONNECTIONS", "4"}}),
       .by = By::Proxy,
       .login = login("user", "secret")},
      {.name = "rangeOfTheFirstByte",
       .operation = rangeOf([](TransferRequest& request) { request.rangeEnd = 1; }),
       .easy = with(kRange, {{"RANGE", "0-0"}})},
      {.name = "rangeWithoutAnEnd",
       .operation = rangeOf([](TransferRequest& request) { request.rangeStart = 100; }),
       .easy = with(kRange, {{"RANGE", "100-"}})},
      {.name = "rangeByHttp2",
       .operation = rangeWith([](DownloadPolicy& policy) { policy.useHttp2 = true; }),
       .easy = with(kRange, {{"HTTP_VERSION", "4"}, {"PIPEWAIT", "1"}})},
      {.name = "rangeWithoutMultiplexing",
       .operation = rangeWith([](DownloadPolicy& policy) { policy.multiplex = false; }),
       .easy = kRange,
       .multi = with(kRangeMulti, {{"PIPELINING", "0"}})},
      {.name = "rangeWithoutKeepAlive",
       .operation = rangeWith([](DownloadPolicy& policy) { policy.tcpKeepAlive = false; }),
       .easy = with(kRange, {}, {"TCP_KEEPALIVE"})},
      {.name = "rangeWithoutLimits",
       .operation = rangeWith([](DownloadPolicy& policy) {
         policy.connectTimeoutSec = policy.transferTimeoutSec = policy.lowSpeedLimit = policy.lowSpeedTimeSec = 0;
       }),
       .easy = with(kRange, {{"LOW_SPEED_LIMIT", "0"}, {"LOW_SPEED_TIME", "0"}}, {"CONNECTTIMEOUT"})},
      {.name = "rangeAtALowSpeed",
       .operation = rangeOf([](TransferRequest& request) { request.maxRecvSpeed = 1500; }),
       .easy = with(kRange, {{"BUFFERSIZE", "1024"}, {"LOW_SPEED_LIMIT", "750"}})},
      {.name = "rangeAtAHighSpeed",
       .operation = rangeOf([](TransferRequest& request) { request.maxRecvSpeed = 100'000'000; }),
       .easy = with(kRange, {{"BUFFERSIZE", "65536"}})},
      {.name = "rangeOverAFreshConnection",
       .operation = rangeOf([](TransferRequest& request) { request.freshConnection = true; }),
       .easy = with(kRange, {{"FRESH_CONNECT", "1"}})},
      {.name = "rangeWithASmallBuffer",
       .operation = rangeOf([](TransferRequest& request) { request.receiveBuffer = 16'384; }),
       .easy = with(kRange, {{"BUFFERSIZE", "16384"}})},
      {.name = "rangeWithALargeBuffer",
       .operation = rangeOf([](TransferRequest& request) { request.receiveBuffer = 1'048'576; }),
       .easy = with(kRange, {{"BUFFERSIZE", "1048576"}})},
      {.name = "rangeWithASmallBufferAtALowSpeed",
       .operation = rangeOf([](TransferRequest& request) {
         request.receiveBuffer = 16'384;
         request.maxRecvSpeed = 64'000;
       }),
       .easy = with(kRange, {{"BUFFERSIZE", "8000"}})},
      {.name = "rangeOfALimitedJob",
       .operation = rangeOf([](TransferRequest& request) { request.limits.own = limitOf<16'000>(); }),
       .easy = with(kRange, {{"BUFFERSIZE", "2000"}})},
      {.name = "rangeOfLimitedJobs",
       .operation = rangeOf([](TransferRequest& request) { request.limits.shared = limitOf<32'000>(); }),
       .easy = with(kRange, {{"BUFFERSIZE", "4000"}})},
      {.name = "rangeOfSeveralLimits",
       .operation = rangeOf([](TransferRequest& request) {
         request.maxRecvSpeed = 64'000;
         request.limits = {limitOf<48'000>(), limitOf<32'000>()};
       }),
       .easy = with(kRange, {{"BUFFERSIZE", "4000"}})},
      {.name = "rangeByAProxy", .operation = Range{}, .easy = with(kRange, {{"PROXY", kServer}}), .by = By::Proxy},
      {.name = "rangeByAProxyWithAUserOnly",
       .operation = Range{},
       .easy = with(kRange, {{"PROXY", kServer}, {"PROXYUSERNAME", "user"}}),
       .by = By::Proxy,
       .login = login("user", "")},
      {.name = "rangeByAProxyWithAPasswordOnly",
       .operation = Range{},
       .easy = with(kRange, {{"PROXY", kServer}, {"PROXYPASSWORD", "secret"}}),
       .by = By::Proxy,
       .login = login("", "secret")},
      {.name = "rangeRedirected", .operation = Range{}, .easy = kRange, .path = kMoved},
      {.name = "rangeWithSecretsRedirected",
       .operation = rangeOf(askForSecretsOfARange),
       .easy = with(kRange, kSecrets),
       .later = kTwice,
       .path = kMoved},
      {.name = "rangeWithSecretsRedirectedElsewhere",
       .operation = rangeOf(askForSecretsOfARange),
       .easy = with(kRange, kSecrets),
       .later = kElsewhere,
       .path = kAway},
      {.name = "rangeWithSecretsRedirectedThereAndBack",
       .operation = rangeOf(askForSecretsOfARange),
       .easy = with(kRange, kSecrets),
       .later = kElsewhereAndBack,
       .path = kThereAndBack},
  };
  return all;
}

// The rows in which each option that there is has a value.
std::vector<Row> fullRows() {
  std::vector<Row> full = rows();
  std::erase_if(full, [](const Row& row) {
    return !row.name.ends_with("OfEverything") && row.name != "fetchOfEveryOption" && row.name != "fetchOfAHead";
  });
  return full;
}

std::string nameOf(const testing::TestParamInfo<Row>& row) {
  return row.param.name;
}

// ---- The table ----

class CurlOptions : public testing::TestWithParam<Row> {
 protected:
  CurlOptions() {
    xfer::init();
    support::forgetHandles();
  }

  // Libcurl's code, or that of a probe that failed.
  [[nodiscard]] int run(const Row& row) const {
    net::Proxy proxy = row.login;
    if (row.by == By::Proxy) {
      proxy.host = "127.0.0.1";
      proxy.port = server_.port();
    }
    const std::string url = server_.url(row.path);
    return std::visit([&](const auto& operation) { return operation.run(url, proxy); }, row.operation);
  }

  // The expected options with what this server's port decides.
  [[nodiscard]] Options here(const Row& row) const {
    Options options = row.easy;
    for (auto& [name, value] : options) {
      if (value == kUrl) value = server_.url(row.path);
      if (value == kServer) value = "127.0.0.1:" + std::to_string(server_.port());
    }
    return options;
  }

  support::ScriptedServer server_{support::patternFile(kFileBytes)};
  support::ScriptedServer other_{support::patternFile(kFileBytes)};
};

TEST_P(CurlOptions, areTheseAndNoOthers) {
  const Row& row = GetParam();
  const support::Handler file = support::patternFile(kFileBytes);
  const auto redirectsTo = [](const std::string& url) {
    return [url](const ReceivedRequest& /*request*/) { return support::redirect(302, url); };
  };
  server_.setHandler(support::routes({{kFile, file},
                                      {kMoved, redirectsTo(kFile)},
                                      {kAway, redirectsTo(other_.url(kFile))},
                                      {kThereAndBack, redirectsTo(other_.url(kMoved))}}));
  other_.setHandler(support::routes({{kFile, file}, {kMoved, redirectsTo(server_.url(kFile))}}));

  EXPECT_EQ(run(row), 0);
  const std::vector<RecordedHandle> easy = support::easyHandles();
  ASSERT_EQ(easy.size(), 1U);
  EXPECT_EQ(easy.front().options, here(row));
  EXPECT_EQ(easy.front().later, row.later);
  const std::vector<RecordedHandle> multi = support::multiHandles();
  ASSERT_EQ(multi.size(), 1U);
  EXPECT_EQ(multi.front().options, multiOf(row));
  const std::vector<RecordedHandle> shares = support::shareHandles();
  EXPECT_FALSE(shares.empty());
  for (const RecordedHandle& share : shares) EXPECT_EQ(share.options, kShare);
}

INSTANTIATE_TEST_SUITE_P(Of, CurlOptions, testing::ValuesIn(rows()), nameOf);

// ---- Options that libcurl refuses ----

using RefusedCurlOptions = CurlOptions;

TEST_P(RefusedCurlOptions, forLackOfMemoryMeanThatNothingIsSent) {
  const Row& row = GetParam();
  for (const auto& [name, value] : row.easy) {
    if (value == "set") continue;  // a pointer takes no memory
    const support::RefusedOptions refused([&, refusedName = name](const std::string& set) {
      return set == refusedName ? CURLE_OUT_OF_MEMORY : CURLE_OK;
    });
    EXPECT_THROW(static_cast<void>(run(row)), std::bad_alloc) << name;
  }
  EXPECT_EQ(server_.requests().size(), 0U);
}

TEST_P(RefusedCurlOptions, asUnknownAreLeftOut) {
  const Row& row = GetParam();
  // Those that came with some release or build of libcurl.
  const std::set<std::string> younger{"PROTOCOLS_STR", "REDIR_PROTOCOLS_STR", "QUICK_EXIT",
                                      "PIPEWAIT",      "TLS13_CIPHERS",       "SSL_CIPHER_LIST",
                                      "TCP_KEEPALIVE", "HTTP_VERSION",        "SUPPRESS_CONNECT_HEADERS",
                                      "SHARE"};
  for (const CURLcode code : {CURLE_UNKNOWN_OPTION, CURLE_NOT_BUILT_IN}) {
    const support::RefusedOptions refused(
        [&](const std::string& set) { return younger.contains(set) ? code : CURLE_OK; });
    EXPECT_EQ(run(row), 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Of, RefusedCurlOptions, testing::ValuesIn(fullRows()), nameOf);

TEST_F(CurlOptions, aMethodThatLibcurlDoesNotTakeIsNotLeftOut) {
  server_.setHandler(support::patternFile(kFileBytes));
  for (const auto& [name, method] :
       {std::pair<std::string, std::string>{"CUSTOMREQUEST", "DELETE"}, {"NOBODY", "HEAD"}}) {
    const support::RefusedOptions refused([&, refusedName = name](const std::string& set) {
      return set == refusedName ? CURLE_UNKNOWN_OPTION : CURLE_OK;
    });
    EXPECT_EQ(fetchWith(xfer::FetchOptions().setMethod(method)).run(server_.url(kFile), {}), CURLE_UNKNOWN_OPTION);
  }
  EXPECT_EQ(server_.requests().size(), 0U);
}

// More than a long can say, which has 32 bits on some platforms.  libcurl takes the size before it reads the body.
TEST_F(CurlOptions, sizeOfAHugeBodyIsToldInFull) {
  constexpr auto kHuge = static_cast<std::size_t>(std::numeric_limits<long>::max()) + 1;
  Request request;
  request.url = server_.url(kFile);
  for (const CURLcode code : {CURLE_OUT_OF_MEMORY, CURLE_UNKNOWN_OPTION}) {
    const support::RefusedOptions refused(
        [&](const std::string& set) { return set == "POSTFIELDSIZE_LARGE" ? code : CURLE_OK; });
    const auto run = [&] { return xfer::fetchKept(request, {}, {"x", kHuge}, {}).response.curlCode; };
    if (code == CURLE_OUT_OF_MEMORY) {
      EXPECT_THROW(static_cast<void>(run()), std::bad_alloc);
    } else {
      EXPECT_EQ(run(), code);
    }
  }
  EXPECT_EQ(server_.requests().size(), 0U);
}

}  // namespace
