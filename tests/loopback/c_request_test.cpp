// Requests of the C interface that are made with a record.  What they have in common with those of C++ hosts is tested
// in fetch_options_test.cpp.
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/denying_buffer.h"
#include "support/gate.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/unused_port.h"
#include "sys/data_buff.h"
#include "xfer/xfer_request.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;
using support::Gate;
using support::patternBytes;
using support::ReceivedRequest;
using support::Reply;
using support::ScriptedServer;

constexpr std::int32_t kConnectionRefused = 7;
constexpr std::int32_t kPartialFile = 18;
constexpr std::int32_t kTimedOut = 28;
constexpr std::int32_t kAborted = 42;
constexpr std::int32_t kBadArgument = 43;
constexpr std::int32_t kTooManyRedirects = 47;
constexpr std::int32_t kMalformedUrl = 3;
constexpr std::int32_t kException = 100000;
constexpr std::int32_t kCaFileUnreadable = 100030;
constexpr std::int32_t kCaFileEmpty = 100031;
constexpr std::int32_t kBadRecord = 100032;
constexpr std::int32_t kNullArgument = 100033;
constexpr std::int32_t kUnknownEnumerator = 100035;
constexpr std::int32_t kCallbackThrew = 100037;
constexpr auto kLongBeforeTheDefaults = seconds(8);

// The sizes that no record of this kind can have.
template <class Record>
std::array<std::uint32_t, 5> wrongSizes() {
  return {0, 1, static_cast<std::uint32_t>(sizeof(Record)) - 1, 4097, std::numeric_limits<std::uint32_t>::max()};
}

struct Piece {
  std::int32_t status = 0;
  std::string bytes;
};

std::int32_t keep(void* user, std::int32_t status, const std::uint8_t* bytes, std::uint64_t size) {
  static_cast<std::vector<Piece>*>(user)->push_back({status, {reinterpret_cast<const char*>(bytes), size}});
  return 0;
}

class CRequest : public testing::Test {
 protected:
  CRequest() {
    xfer_requestOptionsInit(&options_, sizeof options_);
    xfer_responseInit(&response_, sizeof response_);
    response_.headers = &headers_;
    response_.body = &body_;
  }
  ~CRequest() override {
    xfer_setProxy(nullptr);
    EXPECT_EQ(xfer_setUserAgent(nullptr), 0);
    EXPECT_EQ(xfer_setTls(false, nullptr), 0);
  }

  std::int32_t ask(const std::string& url) {
    options_.url = url.c_str();
    const std::int32_t code = xfer_request(&options_, &response_);
    options_.url = nullptr;
    EXPECT_EQ(response_.error, code);
    return code;
  }

  // Asks with a response in which every field has a value, and expects that only the error is written.
  std::int32_t refusal() {
    headers_.assign("headers before");
    body_.assign("body before");
    response_.error = 70;
    response_.httpStatus = 71;
    response_.reserved = 72;
    response_.bodySize = 73;
    const xfer_response before = response_;
    const std::int32_t code = xfer_request(&options_, &response_);
    EXPECT_EQ(response_.error, code);
    response_.error = before.error;
    EXPECT_EQ(std::memcmp(&response_, &before, sizeof before), 0);
    EXPECT_EQ(headers_.toString(), "headers before");
    EXPECT_EQ(body_.toString(), "body before");
    return code;
  }

  const support::TempDir folder_;
  xfer_request_options options_{};
  xfer_response response_{};
  sys::DataBuff headers_;
  sys::DataBuff body_;
};

// ---- The records ----

TEST(CRequestRecords, haveTheirDefaultsAtFirst) {
  xfer_request_options options;
  std::memset(&options, 0xee, sizeof options);
  xfer_requestOptionsInit(&options, sizeof options);
  EXPECT_EQ(options.size, sizeof options);
  EXPECT_EQ(options.verifyPeer, static_cast<std::uint32_t>(XFER_VERIFY_AS_SET));
  for (const char* const text : {options.url, options.method, options.headers, options.cookie, options.proxy,
                                 options.userAgent, options.caFile, options.pinnedKey}) {
    EXPECT_EQ(text, nullptr);
  }
  EXPECT_EQ(options.body, nullptr);
  EXPECT_EQ(options.bodySize, 0U);
  EXPECT_EQ(options.onBody, nullptr);
  EXPECT_EQ(options.user, nullptr);
  EXPECT_EQ(options.cancel, nullptr);
  EXPECT_EQ(options.maxRedirects, 20U);
  EXPECT_EQ(options.connectTimeoutSec, 15U);
  EXPECT_EQ(options.timeoutSec, 0U);
  EXPECT_EQ(options.lowSpeedTimeSec, 10U);

  xfer_response response;
  std::memset(&response, 0xee, sizeof response);
  xfer_responseInit(&response, sizeof response);
  xfer_response empty{};
  empty.size = sizeof empty;
  EXPECT_EQ(std::memcmp(&response, &empty, sizeof empty), 0);
  xfer_requestOptionsInit(nullptr, 100);
  xfer_responseInit(nullptr, 100);
}

TEST_F(CRequest, optionsOfAnotherSizeAreUnderstoodOrRefused) {
  const ScriptedServer server(support::patternFile(10));
  const std::string url = server.url("/file");
  struct Newer {
    xfer_request_options known;
    std::uint64_t field = 0;
  } newer{options_};
  newer.known.size = sizeof newer;
  newer.known.url = url.c_str();
  EXPECT_EQ(xfer_request(&newer.known, &response_), 0) << "a field that is not set is none";
  EXPECT_EQ(body_.toString(), patternBytes(0, 10));
  newer.field = 1;
  EXPECT_EQ(xfer_request(&newer.known, &response_), kBadRecord) << "what is not known cannot be done";
  EXPECT_EQ(response_.error, kBadRecord);
  options_.url = url.c_str();
  for (const std::uint32_t size : wrongSizes<xfer_request_options>()) {
    options_.size = size;
    EXPECT_EQ(refusal(), kBadRecord) << size;
  }
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(CRequest, optionsOfTheLargestSizeAreUnderstood) {
  const ScriptedServer server(support::patternFile(10));
  const std::string url = server.url("/file");
  alignas(xfer_request_options) std::array<std::uint8_t, 4096> room{};
  options_.url = url.c_str();
  options_.size = room.size();
  std::memcpy(room.data(), &options_, sizeof options_);
  EXPECT_EQ(xfer_request(reinterpret_cast<const xfer_request_options*>(room.data()), &response_), 0);
  room.back() = 1;
  EXPECT_EQ(xfer_request(reinterpret_cast<const xfer_request_options*>(room.data()), &response_), kBadRecord);
}

TEST_F(CRequest, responseOfANewerHostIsFilledAsFarAsItIsKnown) {
  const ScriptedServer server(support::patternFile(10));
  const std::string url = server.url("/file");
  struct Newer {
    xfer_response known;
    std::uint64_t field;
    std::uint64_t behind;
  } newer{response_, 0, 7};
  newer.known.size = sizeof newer - sizeof newer.behind;
  options_.url = url.c_str();
  ASSERT_EQ(xfer_request(&options_, &newer.known), 0);
  EXPECT_EQ(newer.known.size, sizeof newer - sizeof newer.behind);
  EXPECT_EQ(newer.known.httpStatus, 200);
  EXPECT_EQ(newer.known.bodySize, 10U);
  EXPECT_EQ(newer.known.body, &body_);
  EXPECT_EQ(newer.field, 0U);
  EXPECT_EQ(newer.behind, 7U) << "behind the record";
  newer.field = 1;
  EXPECT_EQ(xfer_request(&options_, &newer.known), kBadRecord) << "what is not known cannot be done";
  EXPECT_EQ(newer.known.error, kBadRecord);
  EXPECT_EQ(newer.known.httpStatus, 200) << "not written";
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_F(CRequest, responseWhoseSizeCannotBeRightIsNotWrittenAtAll) {
  const ScriptedServer server(support::patternFile(10));
  const std::string url = server.url("/file");
  options_.url = url.c_str();
  for (const std::uint32_t size : wrongSizes<xfer_response>()) {
    response_.size = size;
    const xfer_response before = response_;
    EXPECT_EQ(xfer_request(&options_, &response_), kBadRecord) << size;
    EXPECT_EQ(std::memcmp(&response_, &before, sizeof before), 0) << size;
  }
  EXPECT_EQ(server.connectionsAccepted(), 0U);
}

// ---- What cannot be asked ----

TEST_F(CRequest, nullIsRefused) {
  const ScriptedServer server(support::patternFile(10));
  const std::string url = server.url("/file");
  options_.url = nullptr;
  EXPECT_EQ(refusal(), kNullArgument) << "url";
  options_.url = url.c_str();
  options_.bodySize = 1;
  EXPECT_EQ(refusal(), kNullArgument) << "a body with a size";
  EXPECT_EQ(xfer_request(&options_, nullptr), kNullArgument);
  response_.error = 0;
  EXPECT_EQ(xfer_request(nullptr, &response_), kNullArgument);
  EXPECT_EQ(response_.error, kNullArgument);
  EXPECT_EQ(xfer_request(nullptr, nullptr), kNullArgument);
  EXPECT_EQ(server.connectionsAccepted(), 0U);
}

TEST_F(CRequest, thatCannotWorkIsRefusedByTheNameOfItsField) {
  using Change = void (*)(xfer_request_options&);
  const std::vector<std::pair<Change, std::string>> cases = {
      {[](xfer_request_options& options) { options.method = "GET /other HTTP/1.1\r\nX: "; }, "method"},
      {[](xfer_request_options& options) { options.headers = "X-One: 1\nX-Two: 2\rX-Three: 3"; }, "headers"},
      {[](xfer_request_options& options) { options.cookie = "a=b\r\nX-Injected: 1"; }, "cookie"},
      {[](xfer_request_options& options) { options.cookie = "a=b\n"; }, "cookie"},
      {[](xfer_request_options& options) { options.userAgent = "host\nX-Injected: 1"; }, "userAgent"},
      {[](xfer_request_options& options) { options.caFile = "ca.pem"; }, "caFile"},
      {[](xfer_request_options& options) {
         options.verifyPeer = XFER_VERIFY_OFF;
         options.caFile = "ca.pem";
       },
       "caFile"},
      {[](xfer_request_options& options) {
         options.method = "HEAD";
         options.body = "b";
         options.bodySize = 1;
       },
       "body"},
  };
  const ScriptedServer server(support::patternFile(10));
  const std::string url = server.url("/file");
  options_.url = url.c_str();
  const xfer_request_options good = options_;
  for (const auto& [change, field] : cases) {
    const support::RecordingLogger log;
    options_ = good;
    change(options_);
    EXPECT_EQ(refusal(), kBadArgument) << field;
    EXPECT_EQ(log.texts(), std::vector<std::string>{"xfer_request | options refused | field=" + field});
    EXPECT_EQ(log.records().front().level, 3U);
    EXPECT_EQ(log.records().front().tag, "xfer");
  }
  EXPECT_EQ(server.connectionsAccepted(), 0U);
}

TEST_F(CRequest, verificationThatCannotBeIsRefused) {
  const ScriptedServer server(support::patternFile(10));
  const std::string url = server.url("/file");
  const std::string missing = folder_.file("missing.pem");
  const std::string empty = folder_.file("empty.pem");
  support::writeFile(empty, "no certificate");
  options_.url = url.c_str();
  options_.verifyPeer = 3;
  EXPECT_EQ(refusal(), kUnknownEnumerator);
  options_.verifyPeer = XFER_VERIFY_ON;
  options_.caFile = missing.c_str();
  EXPECT_EQ(refusal(), kCaFileUnreadable);
  options_.caFile = empty.c_str();
  EXPECT_EQ(refusal(), kCaFileEmpty);
  EXPECT_EQ(server.connectionsAccepted(), 0U);
}

// Of several mistakes the first of this order counts.
TEST_F(CRequest, mistakesAreToldInOneOrder) {
  options_.url = nullptr;
  options_.size = 1;
  options_.verifyPeer = 3;
  options_.caFile = "missing.pem";
  options_.cookie = "a\nb";
  EXPECT_EQ(xfer_request(&options_, nullptr), kNullArgument);
  EXPECT_EQ(refusal(), kBadRecord);
  options_.size = sizeof options_;
  EXPECT_EQ(refusal(), kNullArgument);
  options_.url = "http://127.0.0.1:9/never";
  EXPECT_EQ(refusal(), kUnknownEnumerator);
  options_.verifyPeer = XFER_VERIFY_ON;
  EXPECT_EQ(refusal(), kCaFileUnreadable);
  options_.caFile = nullptr;
  EXPECT_EQ(refusal(), kBadArgument);
}

// ---- What is sent ----

TEST_F(CRequest, sendsWhatTheRecordSays) {
  const ScriptedServer server(support::patternFile(10));
  options_.headers = "X-One: 1\n\nX-Two: 2\nX-Three: 3";
  options_.cookie = "a=b";
  options_.userAgent = "host/2";
  EXPECT_EQ(ask(server.url("/file?a=1")), 0);
  const ReceivedRequest request = server.requests().at(0);
  EXPECT_EQ(request.target, "/file?a=1");
  EXPECT_EQ(request.header("X-One"), "1");
  EXPECT_EQ(request.header("X-Two"), "2");
  EXPECT_EQ(request.header("X-Three"), "3");
  EXPECT_EQ(request.header("Cookie"), "a=b");
  EXPECT_EQ(request.header("User-Agent"), "host/2");
}

TEST_F(CRequest, userAgentIsTheRecordsThenTheModulesThenABrowsers) {
  const ScriptedServer server(support::patternFile(10));
  const auto seen = [&] {
    EXPECT_EQ(ask(server.url("/file")), 0);
    return server.requests().back().header("User-Agent").value_or("none");
  };
  EXPECT_EQ(seen().rfind("Mozilla/5.0 ", 0), 0U);
  ASSERT_EQ(xfer_setUserAgent("module/1"), 0);
  EXPECT_EQ(seen(), "module/1");
  options_.userAgent = "";
  EXPECT_EQ(seen(), "module/1");
  options_.userAgent = "record/1";
  EXPECT_EQ(seen(), "record/1");
  options_.headers = "User-Agent: line/1";
  EXPECT_EQ(seen(), "line/1");
}

TEST_F(CRequest, proxyIsTheRecordsThenTheModules) {
  const auto answering = [](const char* name) {
    return [name](const ReceivedRequest&) { return support::status(200, name); };
  };
  const ScriptedServer server(answering("server"));
  const ScriptedServer records(answering("record's"));
  const ScriptedServer modules(answering("module's"));
  const std::string address = "user:secret@127.0.0.1:" + std::to_string(records.port());
  const auto answer = [&] {
    EXPECT_EQ(ask(server.url("/")), 0);
    return body_.toString();
  };
  EXPECT_EQ(answer(), "server");
  xfer_setProxy(("127.0.0.1:" + std::to_string(modules.port())).c_str());
  EXPECT_EQ(answer(), "module's");
  options_.proxy = "";
  EXPECT_EQ(answer(), "module's");
  options_.proxy = address.c_str();
  EXPECT_EQ(answer(), "record's");
  EXPECT_EQ(records.requests().at(0).header("Proxy-Authorization"), "Basic dXNlcjpzZWNyZXQ=");
}

TEST_F(CRequest, verificationAsSetIsTheModules) {
  // Nothing is trusted by an authority that signed nothing: the handshake fails, where it would fail later unverified.
  const std::string file = folder_.file("ca.pem");
  support::writeFile(file, "-----BEGIN CERTIFICATE-----\nnot one\n-----END CERTIFICATE-----\n");
  constexpr std::int32_t kCaFileUnusable = 77;
  ASSERT_EQ(xfer_setTls(true, file.c_str()), 0);
  const ScriptedServer server([](const ReceivedRequest&) { return Reply().close(); });
  std::string url = server.url("/");
  url.replace(0, 4, "https");
  EXPECT_EQ(ask(url), kCaFileUnusable);
  options_.verifyPeer = XFER_VERIFY_OFF;
  options_.timeoutSec = 1;
  EXPECT_EQ(ask(url), kTimedOut) << "it gets as far as the greeting, which the server never answers";
}

TEST_F(CRequest, bodyWithoutASizeIsNone) {
  const ScriptedServer server(support::patternFile(10));
  options_.body = "not sent";
  EXPECT_EQ(ask(server.url("/file")), 0);
  EXPECT_EQ(server.requests().at(0).method, "GET");
  EXPECT_EQ(server.requests().at(0).body, "");
}

// ---- What comes back ----

TEST_F(CRequest, answerFillsTheBuffersAndTheRecord) {
  const ScriptedServer server([](const ReceivedRequest& request) {
    if (request.path() == "/there") return support::redirect(302, "/file");
    return support::full200(100'000);
  });
  EXPECT_EQ(ask(server.url("/there")), 0);
  EXPECT_EQ(response_.size, sizeof response_);
  EXPECT_EQ(response_.httpStatus, 200);
  EXPECT_EQ(response_.reserved, 0U);
  EXPECT_EQ(response_.bodySize, 100'000U);
  EXPECT_EQ(response_.headers, &headers_);
  EXPECT_EQ(response_.body, &body_);
  EXPECT_TRUE(body_.toString() == patternBytes(0, 100'000));
  const std::string headers = headers_.toString();
  EXPECT_EQ(headers.rfind("HTTP/1.1 302 ", 0), 0U);
  EXPECT_NE(headers.find("\r\n\r\nHTTP/1.1 200 OK\r\n"), std::string::npos);
}

TEST_F(CRequest, buffersOfTheLibrarysAreFilledToo) {
  const ScriptedServer server(support::patternFile(1000));
  response_.headers = nullptr;
  response_.body = xfer_bufferNew();
  ASSERT_NE(response_.body, nullptr);
  EXPECT_EQ(ask(server.url("/file")), 0);
  const std::string body(reinterpret_cast<const char*>(xfer_bufferData(response_.body)),
                         xfer_bufferSize(response_.body));
  EXPECT_EQ(body, patternBytes(0, 1000));
  xfer_bufferFree(response_.body);
}

TEST_F(CRequest, partsWithoutABufferAreNotKept) {
  const ScriptedServer server(support::patternFile(1000));
  response_.body = nullptr;
  EXPECT_EQ(ask(server.url("/file")), 0);
  EXPECT_EQ(response_.bodySize, 1000U);
  EXPECT_EQ(response_.body, nullptr);
  EXPECT_NE(headers_.size(), 0U);
  response_.headers = nullptr;
  EXPECT_EQ(ask(server.url("/file")), 0);
  EXPECT_EQ(response_.httpStatus, 200);
  EXPECT_EQ(response_.bodySize, 1000U);
}

TEST_F(CRequest, partOfWhichNothingArrivedLeavesItsBufferUnchanged) {
  const ScriptedServer server([](const ReceivedRequest&) { return support::status(204); });
  const support::UnusedPort nobody;
  headers_.assign("before");
  body_.assign("before");
  EXPECT_EQ(ask(nobody.url("/")), kConnectionRefused);
  EXPECT_EQ(headers_.toString(), "before");
  EXPECT_EQ(body_.toString(), "before");
  EXPECT_EQ(ask(server.url("/")), 0);
  EXPECT_EQ(response_.httpStatus, 204);
  EXPECT_NE(headers_.toString(), "before");
  EXPECT_EQ(body_.toString(), "before");
}

TEST_F(CRequest, errorPageIsASuccess) {
  const ScriptedServer server([](const ReceivedRequest&) { return support::status(503, "busy"); });
  EXPECT_EQ(ask(server.url("/")), 0);
  EXPECT_EQ(response_.httpStatus, 503);
  EXPECT_EQ(body_.toString(), "busy");
}

TEST_F(CRequest, failureInTheBodyKeepsWhatHasArrivedAndItsStatus) {
  const ScriptedServer server([](const ReceivedRequest&) {
    return Reply().send("HTTP/1.1 206 Partial Content\r\nContent-Length: 10\r\n\r\nhello").close();
  });
  EXPECT_EQ(ask(server.url("/")), kPartialFile);
  EXPECT_EQ(response_.httpStatus, 206);
  EXPECT_EQ(response_.bodySize, 5U);
  EXPECT_EQ(body_.toString(), "hello");
  EXPECT_NE(headers_.toString().find("Content-Length: 10"), std::string::npos);
}

TEST_F(CRequest, failureWithoutAnAnswerHasNoStatusAlsoWhenTheRecordIsUsedAgain) {
  const ScriptedServer server(support::patternFile(10));
  const support::UnusedPort nobody;
  EXPECT_EQ(ask(server.url("/file")), 0);
  EXPECT_EQ(ask(nobody.url("/")), kConnectionRefused);
  EXPECT_EQ(response_.httpStatus, 0);
  EXPECT_EQ(response_.bodySize, 0U);
  EXPECT_EQ(ask(""), kMalformedUrl);
  EXPECT_EQ(response_.httpStatus, 0);
}

TEST_F(CRequest, redirectBeyondTheLimitTellsItsStatus) {
  const ScriptedServer server([](const ReceivedRequest&) { return support::redirect(307, "/again"); });
  options_.maxRedirects = 2;
  EXPECT_EQ(ask(server.url("/")), kTooManyRedirects);
  EXPECT_EQ(response_.httpStatus, 307);
  EXPECT_EQ(server.requests().size(), 3U);
}

TEST_F(CRequest, piecesComeInOrderAndTheBufferStaysAsItWas) {
  const ScriptedServer server([](const ReceivedRequest&) { return support::full200(1'000'000); });
  std::vector<Piece> pieces;
  options_.onBody = keep;
  options_.user = &pieces;
  body_.assign("before");
  EXPECT_EQ(ask(server.url("/")), 0);
  std::string all;
  for (const Piece& piece : pieces) {
    EXPECT_EQ(piece.status, 200);
    EXPECT_FALSE(piece.bytes.empty());
    all += piece.bytes;
  }
  EXPECT_TRUE(all == patternBytes(0, 1'000'000));
  EXPECT_EQ(response_.bodySize, 1'000'000U);
  EXPECT_EQ(body_.toString(), "before");
}

TEST_F(CRequest, anyNumberButZeroOfTheCallbackEndsTheRequest) {
  const ScriptedServer server([](const ReceivedRequest&) { return support::status(404, "page"); });
  for (const std::int32_t number : {1, -1, std::numeric_limits<std::int32_t>::min()}) {
    std::int32_t answer = number;
    options_.user = &answer;
    options_.onBody = [](void* user, std::int32_t, const std::uint8_t*, std::uint64_t) {
      return *static_cast<const std::int32_t*>(user);
    };
    EXPECT_EQ(ask(server.url("/")), kAborted) << number;
    EXPECT_EQ(response_.httpStatus, 404);
    EXPECT_EQ(response_.bodySize, 4U) << "the piece has arrived";
    EXPECT_EQ(body_.size(), 0U);
  }
}

TEST_F(CRequest, callbackThatThrowsIsToldFromMemoryThatRanOut) {
  const ScriptedServer server([](const ReceivedRequest&) { return support::status(200, "page"); });
  options_.onBody = [](void*, std::int32_t, const std::uint8_t*, std::uint64_t) -> std::int32_t {
    throw std::bad_alloc();
  };
  EXPECT_EQ(ask(server.url("/")), kCallbackThrew);
  EXPECT_EQ(response_.httpStatus, 200);
  EXPECT_EQ(response_.bodySize, 4U);
}

TEST_F(CRequest, bufferThatCannotHoldItsPartEndsTheRequestWith100000) {
  const ScriptedServer server(support::patternFile(1000));
  for (const bool throwing : {false, true}) {
    support::DenyingBuffer small(10, throwing);
    const support::RecordingLogger log;
    response_.body = &small;
    EXPECT_EQ(ask(server.url("/file")), kException);
    EXPECT_EQ(response_.httpStatus, 200);
    EXPECT_EQ(log.count("xfer_request exception"), 1U);
  }
  support::DenyingBuffer denying(1000);
  response_.body = &denying;
  EXPECT_EQ(ask(server.url("/file")), 0) << "what a buffer answers does not count, its size does";
  EXPECT_EQ(denying.toString(), patternBytes(0, 1000));
}

// ---- Time ----

class CRequestTimeOut : public CRequest {
 protected:
  void expectTimeOut(const std::string& url) {
    const auto begin = steady_clock::now();
    EXPECT_EQ(ask(url), kTimedOut);
    EXPECT_LT(steady_clock::now() - begin, kLongBeforeTheDefaults);
  }

  const ScriptedServer mute_{[](const ReceivedRequest&) { return Reply().stall(); }};
};

TEST_F(CRequestTimeOut, ofConnectingIsTheRecords) {
  std::string url = mute_.url("/");
  url.replace(0, 4, "https");  // the server waits for a request, and never answers the greeting
  options_.connectTimeoutSec = 1;
  expectTimeOut(url);
}

TEST_F(CRequestTimeOut, ofTheWholeRequestIsTheRecords) {
  options_.timeoutSec = 1;
  expectTimeOut(mute_.url("/"));
  EXPECT_EQ(response_.httpStatus, 0);
}

TEST_F(CRequestTimeOut, ofALowSpeedIsTheRecords) {
  options_.lowSpeedTimeSec = 1;
  expectTimeOut(mute_.url("/"));
}

// ---- Cancelling ----

TEST_F(CRequest, cancelThatIsFreedWhileItsRequestRunsLeavesItAlone) {
  Gate goOn;
  const ScriptedServer server([goOn](const ReceivedRequest&) {
    return Reply().waitFor(goOn).send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nwhole");
  });
  options_.cancel = xfer_cancelNew();
  ASSERT_NE(options_.cancel, nullptr);
  std::thread host([&] {
    EXPECT_TRUE(server.waitForRequests(1));
    xfer_cancelFree(options_.cancel);
    goOn.open();
  });
  EXPECT_EQ(ask(server.url("/")), 0);
  host.join();
  EXPECT_EQ(body_.toString(), "whole");
}

TEST_F(CRequest, cancelThatIsSetAndFreedAtOnceEndsItsRequest) {
  const ScriptedServer mute([](const ReceivedRequest&) { return Reply().stall(); });
  options_.cancel = xfer_cancelNew();
  std::thread host([&] {
    EXPECT_TRUE(mute.waitForRequests(1));
    xfer_cancelSet(options_.cancel);
    xfer_cancelFree(options_.cancel);
  });
  EXPECT_EQ(ask(mute.url("/")), kAborted);
  host.join();
}

TEST_F(CRequest, cancelInTheBodyKeepsWhatHasArrived) {
  const ScriptedServer server([](const ReceivedRequest&) {
    return Reply().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nhello").stall();
  });
  options_.cancel = xfer_cancelNew();
  options_.user = options_.cancel;
  options_.onBody = [](void* user, std::int32_t, const std::uint8_t*, std::uint64_t) -> std::int32_t {
    xfer_cancelSet(static_cast<xfer_cancel*>(user));
    return 0;
  };
  EXPECT_EQ(ask(server.url("/")), kAborted);
  EXPECT_EQ(response_.httpStatus, 200);
  EXPECT_EQ(response_.bodySize, 5U);
  EXPECT_NE(headers_.size(), 0U);
  xfer_cancelFree(options_.cancel);
}

TEST(CCancel, nullIsNone) {
  xfer_cancelSet(nullptr);
  xfer_cancelFree(nullptr);
}

}  // namespace
