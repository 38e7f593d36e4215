#include "xfer/fetch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/unused_port.h"
#include "xfer/download_job.h"

using namespace support;
using xfer::Request;
using xfer::Response;

namespace {

const char* const kUserAgent =
    "User-Agent: Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/126.0.0.0 "
    "Safari/537.36";

Request get(const std::string& url) {
  Request request;
  request.url = url;
  return request;
}

std::string unreachable() {
  static const UnusedPort nobody;
  return nobody.url("/");
}

// Must run first in its process, which ctest gives each test.
TEST(Share, handleIsNullBeforeInitAndStaysTheSameAfterIt) {
  EXPECT_EQ(xfer::shareHandle(), nullptr);
  xfer::init();
  void* const handle = xfer::shareHandle();
  EXPECT_NE(handle, nullptr);
  xfer::init();
  EXPECT_EQ(xfer::shareHandle(), handle);
  xfer::shutdown();
  EXPECT_EQ(xfer::shareHandle(), nullptr);
  xfer::init();
  EXPECT_EQ(xfer::shareHandle(), nullptr) << "init never runs again";
}

TEST(Fetch, sendsItsDefaultHeadersInOrder) {
  ScriptedServer server(patternFile(10));
  const Response response = xfer::fetch(get(server.url("/x")));
  EXPECT_EQ(response.curlCode, 0);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, patternBytes(0, 10));
  EXPECT_EQ(server.requests().at(0).headerLines,
            (std::vector<std::string>{"Host: 127.0.0.1:" + std::to_string(server.port()), "Accept: */*",
                                      "Accept-Encoding: identity", "Accept-Language: en-US", kUserAgent}));
}

TEST(Fetch, callersUserAgentReplacesTheDefaultOne) {
  ScriptedServer server(patternFile(1));
  Request request = get(server.url("/x"));
  request.headers = {"User-Agent: x", "accept: y"};
  request.cookie = "a=b";
  xfer::fetch(request);
  const auto received = server.requests().at(0);
  const auto& lines = received.headerLines;
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "User-Agent: x"), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), kUserAgent), 0);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "accept: y"), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Accept: */*"), 1) << "another case is another line";
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Accept-Encoding: identity"), 1);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Accept-Language: en-US"), 1);
  EXPECT_EQ(received.header("Cookie"), "a=b");
}

TEST(Fetch, errorPageIsASuccessfulTransfer) {
  ScriptedServer server([](const ReceivedRequest&) { return status(404, "not here"); });
  const Response response = xfer::fetch(get(server.url("/x")));
  EXPECT_EQ(response.curlCode, 0);
  EXPECT_EQ(response.status, 404);
  EXPECT_EQ(response.body, "not here");
}

TEST(Fetch, tracesWithFixedLineNumbers) {
  ScriptedServer server(patternFile(10));
  const RecordingLogger log;
  xfer::fetch(get(server.url("/x")));
  const auto records = log.records();
  ASSERT_EQ(records.size(), 2U);
  EXPECT_EQ(records[0].text, "--> fetch | " + server.url("/x"));
  EXPECT_EQ(records[0].line, 224U);
  EXPECT_EQ(records[0].level, 6U);
  EXPECT_EQ(records[0].tag, "xfer");
  EXPECT_TRUE(records[0].file.ends_with("modules/xfer/src/fetch.cpp")) << records[0].file;
  EXPECT_EQ(records[1].text, "<-- fetch | status=200 | body_size=10");
  EXPECT_EQ(records[1].line, 242U);
}

TEST(Fetch, unreachableHostIsReportedWithStatus0) {
  const RecordingLogger log;
  const Response response = xfer::fetch(get(unreachable()));
  EXPECT_EQ(response.curlCode, 7);
  EXPECT_EQ(response.status, 0);
  const auto failure = log.findPrefix("fetch | curl error 7 (");
  ASSERT_TRUE(failure);
  EXPECT_EQ(failure->level, 3U);
  EXPECT_EQ(failure->line, 235U);
  EXPECT_EQ(log.texts().back(), "<-- fetch | status=0 | body_size=0");
}

TEST(Fetch, quietRequestLogsNothingAtAll) {
  const RecordingLogger log;
  Request request = get(unreachable());
  request.quiet = true;
  EXPECT_EQ(xfer::fetch(request).curlCode, 7);
  EXPECT_TRUE(log.texts().empty());
}

TEST(Fetch, postStaysAPostAfterRedirects) {
  for (const int code : {301, 302, 303}) {
    ScriptedServer server([&](const ReceivedRequest& request) {
      return request.path() == "/from" ? redirect(code, "/to") : status(200, "done");
    });
    Request request = get(server.url("/from"));
    request.body = "a=1&b=2";
    const Response response = xfer::fetch(request);
    EXPECT_EQ(response.body, "done");
    ASSERT_EQ(server.requests().size(), 2U);
    EXPECT_EQ(server.requests()[1].method, "POST");
    EXPECT_EQ(server.requests()[1].body, "a=1&b=2");
    EXPECT_FALSE(server.requests()[1].header("Expect"));
    EXPECT_NE(response.headers.find(std::to_string(code)), std::string::npos) << "the redirect's headers are kept";
  }
}

TEST(Fetch, redirectIsNotFollowedWhenRefused) {
  ScriptedServer server([](const ReceivedRequest&) { return redirect(302, "/to"); });
  Request request = get(server.url("/from"));
  request.followRedirects = false;
  EXPECT_EQ(xfer::fetch(request).status, 302);
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST(Fetch, redirectLoopEndsWithTooManyRedirects) {
  ScriptedServer server([](const ReceivedRequest&) { return redirect(302, "/again"); });
  EXPECT_EQ(xfer::fetch(get(server.url("/"))).curlCode, 47);
  EXPECT_EQ(server.requests().size(), 21U);
}

TEST(Fetch, goesThroughAProxyWithItsCredentials) {
  ScriptedServer proxy([](const ReceivedRequest&) { return status(200, "via"); });
  Request request = get("http://nowhere.invalid/page");
  request.proxy = {"127.0.0.1", proxy.port(), "user", "secret"};
  EXPECT_EQ(xfer::fetch(request).body, "via");
  EXPECT_EQ(proxy.requests().at(0).target, "http://nowhere.invalid/page");
  EXPECT_EQ(proxy.requests().at(0).header("Proxy-Authorization"), "Basic dXNlcjpzZWNyZXQ=");
}

// libcurl is given the password, and keeps it to itself as long as there is no user name.
TEST(Fetch, proxyPasswordWithoutAUserNameMakesNoCredentials) {
  ScriptedServer proxy([](const ReceivedRequest&) { return status(200, "via"); });
  Request request = get("http://nowhere.invalid/page");
  request.proxy = {"127.0.0.1", proxy.port(), "", "secret"};
  EXPECT_EQ(xfer::fetch(request).body, "via");
  EXPECT_EQ(proxy.requests().at(0).header("Proxy-Authorization"), std::nullopt);
}

TEST(Fetch, stalledServerEndsWithATimeOut) {
  ScriptedServer server([](const ReceivedRequest&) { return Reply().stall(); });
  Request request = get(server.url("/"));
  request.timeoutSec = 1;
  EXPECT_EQ(xfer::fetch(request).curlCode, 28);
}

TEST(Fetch, partialBodyIsKeptAfterAFailure) {
  ScriptedServer server([](const ReceivedRequest&) { return full200(1000, {.bodyBytes = 10}).close(); });
  const Response response = xfer::fetch(get(server.url("/")));
  EXPECT_EQ(response.curlCode, 18);
  EXPECT_EQ(response.status, 0);
  EXPECT_EQ(response.body, patternBytes(0, 10));
}

TEST(Fetch, emptyAndMalformedUrlsFail) {
  EXPECT_EQ(xfer::fetch(get("")).curlCode, 3);
  EXPECT_EQ(xfer::fetch(get("http://")).curlCode, 3);
  EXPECT_EQ(xfer::fetch(get("http://a b/")).curlCode, 3);
}

TEST(Fetch, otherProtocolsAreRefusedAlsoInRedirects) {
  EXPECT_EQ(xfer::fetch(get("file:///etc/hostname")).curlCode, 1);
  EXPECT_EQ(xfer::fetch(get("ftp://127.0.0.1/x")).curlCode, 1);
  for (const char* target : {"ftp://127.0.0.1/x", "file:///etc/hostname"}) {
    ScriptedServer server([&](const ReceivedRequest&) { return redirect(302, target); });
    const Response response = xfer::fetch(get(server.url("/")));
    EXPECT_EQ(response.curlCode, 1) << target;
    EXPECT_TRUE(response.body.empty());
  }
}

TEST(Fetch, lineBreaksThatWouldAddALineAreRefusedBeforeAnyConnection) {
  ScriptedServer server(patternFile(1));
  for (const char* bad : {"X: a\r\nY: b", "X: a\nY: b", "X: a\rb", "X: a\r\r"}) {
    Request request = get(server.url("/"));
    request.headers = {bad};
    EXPECT_EQ(xfer::fetch(request).curlCode, 43) << bad;
  }
  for (const char* bad : {"a=b\r\nY: c", "a=b\n", "a=b\r"}) {
    Request request = get(server.url("/"));
    request.cookie = bad;
    EXPECT_EQ(xfer::fetch(request).curlCode, 43) << bad;
  }
  EXPECT_EQ(server.connectionsAccepted(), 0U);
}

TEST(Fetch, oneTrailingCarriageReturnOfAHeaderLineIsSent) {
  ScriptedServer server(patternFile(1));
  Request request = get(server.url("/"));
  request.headers = {"X-Line: a\r"};
  EXPECT_EQ(xfer::fetch(request).curlCode, 0);
  EXPECT_NE(server.requests().at(0).head.find("X-Line: a\r\r\n"), std::string::npos);
}

TEST(Fetch, fiftyInSequenceUseOneConnection) {
  ScriptedServer server(patternFile(100));
  for (int i = 0; i < 50; ++i) ASSERT_EQ(xfer::fetch(get(server.url("/x"))).curlCode, 0);
  EXPECT_EQ(server.connectionsAccepted(), 1U);
}

TEST(Fetch, thirtyThousandRequestsOnEightThreadsStayBelowThirtyTwoConnections) {
  ScriptedServer server(patternFile(100));
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 3750; ++i) wrong += xfer::fetch(get(server.url("/x"))).body != patternBytes(0, 100) ? 1 : 0;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
  EXPECT_LT(server.connectionsAccepted(), 32U);
}

TEST(FetchAsync, runsAtOnceAndNotWhenItsResultIsAskedFor) {
  ScriptedServer server(patternFile(100));
  std::future<Response> pending = xfer::fetchAsync(get(server.url("/x")));
  EXPECT_TRUE(server.waitForRequests(1));
  EXPECT_EQ(pending.wait_for(testTimeout()), std::future_status::ready);
  EXPECT_EQ(pending.get().status, 200);
}

TEST(FetchAsync, failureIsAResultAndNoException) {
  EXPECT_EQ(xfer::fetchAsync(get(unreachable())).get().curlCode, 7);
}

TEST(FetchAsync, outlivesTheRequestItWasGiven) {
  ScriptedServer server(patternFile(100));
  std::future<Response> pending;
  {
    const Request request = get(server.url("/x"));
    pending = xfer::fetchAsync(request);
  }
  EXPECT_EQ(pending.get().body, patternBytes(0, 100));
}

std::int64_t lengthOf(const std::string& response) {
  ScriptedServer server([&](const ReceivedRequest&) { return Reply().send(response).close(); });
  const std::int64_t length = xfer::getContentLength(server.url("/"), {}, {});
  EXPECT_EQ(server.requests().at(0).header("Range"), "bytes=0-0");
  return length;
}

TEST(GetContentLength, readsTotalsAndLengthsWhateverTheStatus) {
  EXPECT_EQ(lengthOf("HTTP/1.1 206 x\r\nContent-Range: bytes 0-0/1048576\r\nContent-Length: 1\r\n\r\na"), 1048576);
  EXPECT_EQ(lengthOf("HTTP/1.1 206 x\r\nContent-Range: bytes 0-0/*\r\nContent-Length: 1\r\n\r\na"), 1);
  EXPECT_EQ(lengthOf("HTTP/1.1 200 OK\r\ncontent-length: 5\r\n\r\nabcde"), 5);
  EXPECT_EQ(lengthOf("HTTP/1.1 404 No\r\nContent-Length: 4\r\n\r\npage"), 4);
  EXPECT_EQ(lengthOf("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"), -1);
  EXPECT_EQ(lengthOf("HTTP/1.1 200 OK\r\n\r\nabc"), -1);
}

TEST(GetContentLength, takesDigitsThatFitASignedNumber) {
  EXPECT_EQ(lengthOf("HTTP/1.1 206 x\r\nContent-Range: bytes 0-0/9223372036854775807\r\nContent-Length: 1\r\n\r\na"),
            9223372036854775807);
  for (const char* tooLarge : {"9223372036854775808", "99999999999999999999"}) {
    EXPECT_EQ(lengthOf("HTTP/1.1 206 x\r\nContent-Range: bytes 0-0/" + std::string(tooLarge) +
                       "\r\nContent-Length: 1\r\n\r\na"),
              -1);
    EXPECT_EQ(lengthOf("HTTP/1.1 200 OK\r\nX-Content-Length: " + std::string(tooLarge) + "\r\n\r\n"), -1);
  }
  EXPECT_EQ(lengthOf("HTTP/1.1 206 x\r\nContent-Range: bytes 0-0/-5\r\nContent-Length: 1\r\n\r\na"), 1);
  EXPECT_EQ(lengthOf("HTTP/1.1 200 OK\r\nX-Content-Length: +5\r\n\r\n"), -1);
}

TEST(GetContentLength, firstMatchingHeaderOfARedirectChainWins) {
  ScriptedServer server(
      [](const ReceivedRequest& request) { return request.path() == "/from" ? redirect(302, "/to") : full200(5000); });
  const RecordingLogger log;
  EXPECT_EQ(xfer::getContentLength(server.url("/from"), {}, {}), -1) << "the redirect's own length of 0";
  EXPECT_TRUE(log.texts().empty());
  EXPECT_EQ(xfer::getContentLength(unreachable(), {}, {}), -1);
}

xfer::RemoteFileInfo probeOf(const std::string& response) {
  ScriptedServer server([&](const ReceivedRequest&) { return Reply().send(response).close(); });
  return xfer::probeRemoteFile(server.url("/"), {}, "c=d", 5);
}

TEST(Probe, readsA206) {
  const auto info = probeOf(
      "HTTP/1.1 206 x\r\nContent-Range: bytes 0-0/12345\r\nContent-Length: 1\r\n"
      "Content-Type: text/html; charset=utf-8\r\n\r\na");
  EXPECT_EQ(info.size, 12345U);
  EXPECT_TRUE(info.acceptRanges);
  EXPECT_EQ(info.contentType, "text/html");
  EXPECT_EQ(info.httpStatus, 206);
  EXPECT_EQ(info.error, 0);
}

TEST(Probe, unknownOrMissingTotalOfA206IsSize0) {
  EXPECT_EQ(probeOf("HTTP/1.1 206 x\r\nContent-Range: bytes 0-0/*\r\nContent-Length: 1\r\n\r\na").size, 0U);
  const auto none = probeOf("HTTP/1.1 206 x\r\nContent-Length: 1\r\n\r\na");
  EXPECT_EQ(none.size, 0U);
  EXPECT_TRUE(none.acceptRanges);
  EXPECT_EQ(probeOf("HTTP/1.1 206 x\r\nContent-Range: bytes\r\nContent-Length: 1\r\nContent-Type: a/b\r\n\r\na").size,
            0U);
}

TEST(Probe, readsA200AndItsRangeSupportAsWritten) {
  EXPECT_EQ(probeOf("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabc").size, 3U);
  EXPECT_FALSE(probeOf("HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nabc").acceptRanges);
  EXPECT_TRUE(probeOf("HTTP/1.1 200 OK\r\nAccept-Ranges: bytes\r\nContent-Length: 3\r\n\r\nabc").acceptRanges);
  EXPECT_FALSE(probeOf("HTTP/1.1 200 OK\r\nAccept-Ranges: none\r\nContent-Length: 3\r\n\r\nabc").acceptRanges);
  EXPECT_FALSE(probeOf("HTTP/1.1 200 OK\r\naccept-ranges: bytes\r\nContent-Length: 3\r\n\r\nabc").acceptRanges);
  EXPECT_EQ(probeOf("HTTP/1.1 200 OK\r\ncontent-type: a/b\r\nContent-Length: 3\r\n\r\nabc").contentType, "");
}

TEST(Probe, takesDigitsThatFit64Bits) {
  EXPECT_EQ(probeOf("HTTP/1.1 200 OK\r\nX-Content-Length: -5\r\n\r\nabc").size, 0U);
  EXPECT_EQ(probeOf("HTTP/1.1 200 OK\r\nX-Content-Length: 18446744073709551616\r\n\r\nabc").size, 0U);
  EXPECT_EQ(probeOf("HTTP/1.1 206 x\r\nContent-Range: bytes 0-0/-5\r\nContent-Length: 1\r\n\r\na").size, 0U);
  EXPECT_EQ(
      probeOf("HTTP/1.1 206 x\r\nContent-Range: bytes 0-0/18446744073709551616\r\nContent-Length: 1\r\n\r\na").size,
      0U);
}

TEST(Probe, otherStatusIsTheError) {
  const auto info =
      probeOf("HTTP/1.1 404 No\r\nContent-Length: 4\r\nAccept-Ranges: bytes\r\nContent-Type: text/plain\r\n\r\ngone");
  EXPECT_EQ(info.size, 0U);
  EXPECT_FALSE(info.acceptRanges);
  EXPECT_EQ(info.error, 404);
  EXPECT_EQ(info.httpStatus, 404);
  EXPECT_EQ(info.contentType, "text/plain");
}

TEST(Probe, answerWithoutALengthIsNoError) {
  for (const char* answer : {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n1\r\na\r\n0\r\n\r\n",
                             "HTTP/1.1 206 x\r\nContent-Length: 1\r\n\r\na"}) {
    const auto info = probeOf(answer);
    EXPECT_EQ(info.error, 0) << answer;
    EXPECT_EQ(info.size, 0U) << answer;
  }
}

TEST(Probe, failedRequestGivesItsCodeAndNothingElse) {
  const auto info = xfer::probeRemoteFile(unreachable(), {}, "", 5);
  EXPECT_EQ(info.error, 7);
  EXPECT_EQ(info.httpStatus, 0);
  EXPECT_EQ(info.size, 0U);
  EXPECT_FALSE(info.acceptRanges);
  EXPECT_EQ(info.contentType, "");
  const auto broken =
      probeOf("HTTP/1.1 206 x\r\nContent-Range: bytes 0-0/5\r\nContent-Type: a/b\r\nContent-Length: 9\r\n\r\na");
  EXPECT_EQ(broken.error, 18);
  EXPECT_EQ(broken.httpStatus, 0);
  EXPECT_EQ(broken.size, 0U);
  EXPECT_FALSE(broken.acceptRanges);
  EXPECT_EQ(broken.contentType, "");
}

TEST(Probe, bodyThatTakesLongerThanItsTimeFails) {
  ScriptedServer server([](const ReceivedRequest&) { return full200(1000, {.bodyBytes = 10}).stall(); });
  EXPECT_EQ(xfer::probeRemoteFile(server.url("/"), {}, "", 1).error, 28);
}

}  // namespace
