// What the C interface makes of responses that no server gives through libcurl, and of every result that a request can
// have.  The linker sends its requests through this file, which answers them (see CMakeLists.txt).
#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "fetch_stoppable.h"
#include "support/log_line.h"
#include "support/recording_logger.h"
#include "sys/data_buff.h"
#include "xfer/fetch.h"
#include "xfer/xfer.h"

namespace {

using xfer::CountedResponse;
using xfer::Request;
using xfer::Response;

// The next answers; the last one stays.
std::deque<CountedResponse> g_answers;
std::vector<Request> g_requests;

CountedResponse answer(const Request& request) {
  g_requests.push_back(request);
  CountedResponse next = g_answers.front();
  if (g_answers.size() > 1) g_answers.pop_front();
  return next;
}

}  // namespace

extern "C" {

Response __wrap__ZN4xfer5fetchERKNS_7RequestERKNS_12FetchOptionsE(const Request& request,
                                                                  const xfer::FetchOptions& /*options*/) {
  return answer(request).response;
}

CountedResponse __wrap__ZN4xfer12fetchCountedERKNS_7RequestERKNS_8TlsTrustE(const Request& request,
                                                                            const xfer::TlsTrust& /*trust*/) {
  return answer(request);
}
}

namespace {

using support::failure;
using support::kXfer;
using support::trace;
using support::wholeLogError;

constexpr const char* kUrl = "http://host.test/file";

CountedResponse response(std::int32_t status, const std::string& headers, const std::string& body = "") {
  CountedResponse counted;
  counted.response.status = status;
  counted.response.headers = headers;
  counted.response.body = body;
  counted.bodyBytes = body.size();
  return counted;
}

CountedResponse failed(std::int32_t code, const std::string& headers = "", const std::string& body = "") {
  CountedResponse counted = response(0, headers, body);
  counted.response.curlCode = code;
  return counted;
}

class FabricatedResponses : public testing::Test {
 protected:
  FabricatedResponses() { g_requests.clear(); }

  static void answerWith(const std::vector<CountedResponse>& answers) {
    g_answers.assign(answers.begin(), answers.end());
  }

  support::RecordingLogger log;
};

// ---- xfer_download ----

class Downloads : public FabricatedResponses {
 protected:
  int download() { return xfer_download(kUrl, nullptr, nullptr, &headers, &body, nullptr, nullptr); }

  sys::DataBuff headers;
  sys::DataBuff body;
};

TEST_F(Downloads, returnEveryCodeOfTheirRequestAsItIs) {
  for (const std::int32_t code : {-1, 1, 7, 18, 28, 99, 99999}) {
    answerWith({failed(code)});
    log.clear();
    EXPECT_EQ(download(), code);
    EXPECT_EQ(wholeLogError(log.records(), {trace(kXfer, 291, std::string("--> xfer_download | ") + kUrl),
                                            failure(kXfer, 329, "fetch error: curl code " + std::to_string(code))}),
              "");
  }
}

TEST_F(Downloads, thatFailHandOverWhatArrived) {
  answerWith({failed(18, "HTTP/1.1 200 OK\r\n", "part")});
  EXPECT_EQ(download(), 18);
  EXPECT_EQ(headers.toString(), "HTTP/1.1 200 OK\r\n");
  EXPECT_EQ(body.toString(), "part");
}

TEST_F(Downloads, leaveABufferForWhichNothingArrived) {
  headers.assign("h");
  body.assign("b");
  answerWith({failed(7)});
  EXPECT_EQ(download(), 7);
  EXPECT_EQ(headers.toString(), "h");
  EXPECT_EQ(body.toString(), "b");
  answerWith({response(200, "", "new body")});
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(headers.toString(), "h");
  EXPECT_EQ(body.toString(), "new body");
}

TEST_F(Downloads, doNotJudgeTheStatus) {
  for (const std::int32_t status : {0, 204, 302, 404, 503}) {
    answerWith({response(status, "HTTP/1.1 x\r\n", "page")});
    EXPECT_EQ(download(), 0) << status;
    EXPECT_EQ(body.toString(), "page");
  }
}

TEST_F(Downloads, withoutABodyAre100009UnlessTheBufferHoldsSomething) {
  answerWith({response(200, "HTTP/1.1 200 OK\r\n")});
  EXPECT_EQ(download(), 100009);
  EXPECT_EQ(headers.toString(), "HTTP/1.1 200 OK\r\n");
  body.assign("before");
  EXPECT_EQ(download(), 0);
  EXPECT_EQ(body.toString(), "before");
}

// ---- xfer_downloadText ----

class Texts : public FabricatedResponses {
 protected:
  std::int32_t download(const std::vector<CountedResponse>& answers) {
    answerWith(answers);
    headers.assign("h");
    body.assign("b");
    return xfer_downloadText(kUrl, nullptr, &headers, &body, nullptr);
  }

  void expectUntouched(const std::string& what) {
    EXPECT_EQ(headers.toString(), "h") << what;
    EXPECT_EQ(body.toString(), "b") << what;
  }

  sys::DataBuff headers;
  sys::DataBuff body;
};

TEST_F(Texts, ofASuccessFillBothBuffers) {
  for (const char* line : {"HTTP/1.1 200 OK", "HTTP/1.1 204 x", "HTTP/1.1 299", "HTTP/2 206 ", "  x\t\t+200 "}) {
    const std::string head = std::string(line) + "\r\n\r\n";
    EXPECT_EQ(download({response(500, head, "page")}), 0) << line << ": the text counts";
    EXPECT_EQ(headers.toString(), head);
    EXPECT_EQ(body.toString(), "page");
  }
  EXPECT_EQ(download({response(204, "HTTP/1.1 204 No Content\r\n\r\n")}), 0);
  EXPECT_TRUE(body.empty()) << "an empty body clears the buffer";
}

TEST_F(Texts, ofAnyOtherStatusAreThatStatusBelowMinus1000AndLeaveTheBuffers) {
  for (const auto& [status, code] : std::vector<std::pair<std::string, std::int32_t>>{{"100", -1100},
                                                                                      {"199", -1199},
                                                                                      {"300", -1300},
                                                                                      {"302", -1302},
                                                                                      {"404", -1404},
                                                                                      {"503", -1503},
                                                                                      {"0", -1000}}) {
    EXPECT_EQ(download({response(200, "HTTP/1.1 " + status + " x\r\n\r\n", "page")}), code);
    expectUntouched(status);
  }
}

TEST_F(Texts, whoseStatusIsNoNumberAreMinus999AndLeaveTheBuffers) {
  for (const char* head : {"", "HTTP/1.1", "HTTP/1.1\r\n\r\n", "HTTP/1.1 abc\r\n", "HTTP/1.1 x200\r\n",
                           "HTTP/1.1 99999999999 OK\r\n", "HTTP/1.1 -99999999999 OK\r\n"}) {
    EXPECT_EQ(download({response(200, head, "page")}), -999) << head;
    expectUntouched(head);
  }
}

TEST_F(Texts, areJudgedByTheFirstOfSeveralResponses) {
  EXPECT_EQ(download({response(200, "HTTP/1.1 302 Found\r\n\r\nHTTP/1.1 200 OK\r\n\r\n", "page")}), -1302);
  EXPECT_EQ(download({response(404, "HTTP/1.1 200 OK\r\n\r\nHTTP/1.1 404 Not Found\r\n\r\n", "page")}), 0);
}

TEST_F(Texts, thatFailReturnTheCodeAndLeaveTheBuffers) {
  for (const std::int32_t code : {-1, 7, 18, 99}) {
    EXPECT_EQ(download({failed(code, "HTTP/1.1 200 OK\r\n\r\n", "part")}), code);
    expectUntouched(std::to_string(code));
  }
}

TEST_F(Texts, ofANullUrlAre100001WithoutARequest) {
  answerWith({response(200, "HTTP/1.1 200 OK\r\n\r\n", "page")});
  EXPECT_EQ(xfer_downloadText(nullptr, nullptr, &headers, &body, nullptr), 100001);
  EXPECT_TRUE(g_requests.empty());
}

// ---- xfer_getRemoteFileSize ----

class Sizes : public FabricatedResponses {
 protected:
  struct Result {
    std::int32_t code = 0;
    std::uint64_t size = 99;
    std::uint32_t type = 99;
    std::size_t requests = 0;
  };

  Result ask(std::uint16_t retries, const std::vector<CountedResponse>& answers) {
    answerWith(answers);
    g_requests.clear();
    log.clear();
    Result result;
    result.code = xfer_getRemoteFileSize(kUrl, &result.size, &result.type, "a=b", "X: y", retries, nullptr);
    result.requests = g_requests.size();
    return result;
  }

  const CountedResponse kGood = response(200, "HTTP/1.1 200 OK\r\nContent-Length: 777\r\n\r\n");
  const CountedResponse kMissing = response(404, "HTTP/1.1 404 x\r\nContent-Type: video/mp4\r\n\r\n", "gone");
};

TEST_F(Sizes, areAskedForOnceAtLeastAndAsOftenAsSaidAtMost) {
  for (const auto& [retries, requests] :
       std::vector<std::pair<std::uint16_t, std::size_t>>{{0, 1}, {1, 1}, {2, 2}, {3, 3}, {65535, 65535}}) {
    const Result result = ask(retries, {failed(7)});
    EXPECT_EQ(result.code, 7);
    EXPECT_EQ(result.requests, requests);
    EXPECT_EQ(result.size, 99U);
    EXPECT_EQ(result.type, 99U) << "nobody answered";
    EXPECT_EQ(wholeLogError(log.records(), {}), "") << "failed tries are not logged";
  }
}

TEST_F(Sizes, endWithTheFirstAnswerThatGivesOne) {
  const Result result = ask(5, {failed(7), kMissing, kGood, failed(28)});
  EXPECT_EQ(result.code, 0);
  EXPECT_EQ(result.size, 777U);
  EXPECT_EQ(result.type, 0U) << "of the last answer";
  EXPECT_EQ(result.requests, 3U);
}

TEST_F(Sizes, thatAreNotFoundEndWithTheResultOfTheLastTry) {
  EXPECT_EQ(ask(3, {failed(7), failed(28), failed(52)}).code, 52);
  EXPECT_EQ(ask(2, {kMissing, failed(28)}).code, 28);
  EXPECT_EQ(ask(2, {failed(28), kMissing}).code, 100);
  EXPECT_EQ(ask(1, {failed(-1)}).code, -1);
}

TEST_F(Sizes, ofAnAnswerThatGivesNoneLeaveTheSizeAndTellTheType) {
  const Result result = ask(2, {kMissing});
  EXPECT_EQ(result.code, 100);
  EXPECT_EQ(result.size, 99U);
  EXPECT_EQ(result.type, 1U);
  const auto line = failure(kXfer, 259,
                            "xfer_getRemoteFileSize: unexpected response, http=404 headers_len=" +
                                std::to_string(kMissing.response.headers.size()) + " body_len=4");
  EXPECT_EQ(wholeLogError(log.records(), {line, line}), "") << "one each try";
}

TEST_F(Sizes, areReadFromARangesTotalOrTheLengthAndNothingElse) {
  const std::vector<std::pair<CountedResponse, std::uint64_t>> good{
      {response(206, "Content-Range: bytes 0-0/12345\r\nContent-Length: 1\r\n"), 12345},
      {response(206, "CONTENT-RANGE: bytes 0-0/12345\r\n"), 12345},
      {response(206, "content-range: bytes 0-0/12345"), 12345},
      {response(206, "Content-Range: bytes 0-0/*\r\nContent-Length: 1\r\n"), 1},
      {response(206, "Content-Range: bytes 0-0\r\nContent-Length: 1\r\n"), 1},
      {response(206, "Content-Length: 5\r\n"), 5},
      {response(200, "Content-Length: 777\r\n"), 777},
      {response(200, "CONTENT-LENGTH:   777\r\n"), 777},
      {response(200, "Content-Range: bytes 0-0/12345\r\nContent-Length: 777\r\n"), 777},
      {response(200, "Content-Length: 0\r\n"), 0}};
  for (const auto& [answer, size] : good) {
    const Result result = ask(1, {answer});
    EXPECT_EQ(result.code, 0) << answer.response.headers;
    EXPECT_EQ(result.size, size) << answer.response.headers;
    EXPECT_EQ(wholeLogError(log.records(), {}), "");
  }
  for (const CountedResponse& answer :
       {response(200, "Server: x\r\n"), response(206, "Server: x\r\n"), response(206, "Content-Range: bytes 0-0/*\r\n"),
        response(201, "Content-Length: 5\r\n"), response(302, "Content-Length: 5\r\n"),
        response(416, "Content-Range: bytes */5\r\nContent-Length: 5\r\n"), response(500, "Content-Length: 5\r\n"),
        response(200, "")}) {
    const Result result = ask(1, {answer});
    EXPECT_EQ(result.code, 100) << answer.response.headers;
    EXPECT_EQ(result.size, 99U) << answer.response.headers;
    EXPECT_EQ(log.records().size(), 1U);
  }
}

TEST_F(Sizes, areAskedForWithOneByteOfTheFile) {
  ask(1, {kGood});
  const Request& request = g_requests.at(0);
  EXPECT_EQ(request.url, kUrl);
  EXPECT_EQ(request.cookie, "a=b");
  EXPECT_EQ(request.headers, (std::vector<std::string>{"X: y", "Range: bytes=0-0"}));
  EXPECT_EQ(request.body, "");
  EXPECT_TRUE(request.followRedirects);
  EXPECT_EQ(request.connectTimeoutSec, 15);
  EXPECT_EQ(request.timeoutSec, 10);
  EXPECT_EQ(request.lowSpeedTimeSec, 10);
  EXPECT_TRUE(request.quiet);
}

// ---- Settings ----

// Nothing else in this program brings the library up.
TEST_F(FabricatedResponses, settingAProxyBringsTheLibraryUp) {
  ASSERT_EQ(xfer::shareHandle(), nullptr) << "an earlier test of this process has initialised the library";
  xfer_setProxy(nullptr);
  EXPECT_NE(xfer::shareHandle(), nullptr);
}

}  // namespace
