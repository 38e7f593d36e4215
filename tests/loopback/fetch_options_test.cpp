// What a request can do beside its record, by every way that takes such options.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "support/curl_polls.h"
#include "support/gate.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/wait_until.h"
#include "sys/data_buff.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"
#include "xfer/xfer_request.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::Gate;
using support::ReceivedRequest;
using support::Reply;
using support::ScriptedServer;
using xfer::FetchOptions;

constexpr std::int32_t kAborted = 42;
constexpr std::int32_t kBadArgument = 43;
constexpr std::int32_t kTooManyRedirects = 47;
constexpr std::int32_t kCallbackThrew = 100037;
constexpr milliseconds kPrompt{5000};  // enough for a busy machine; polls are patient, requests have 30 s
const std::string kNulBytes("a\0\r\n\xff\0b", 7);
const std::string kDefaultLines =
    "Accept: */*\r\n"
    "Accept-Encoding: identity\r\n"
    "Accept-Language: en-US\r\n"
    "User-Agent: Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/126.0.0.0 "
    "Safari/537.36\r\n";
const std::string kFormLine = "Content-Type: application/x-www-form-urlencoded\r\n";

using OnBody = std::function<bool(std::int32_t status, std::string_view bytes)>;

// One of each kind that is set together.
class Cancel {
 public:
  Cancel() : number_(xfer_cancelNew(), xfer_cancelFree) {}
  void set() {
    token_.cancel();
    xfer_cancelSet(number_.get());
  }
  [[nodiscard]] const xfer::CancelToken& token() const { return token_; }
  [[nodiscard]] xfer_cancel* number() const { return number_.get(); }

 private:
  xfer::CancelToken token_;
  std::unique_ptr<xfer_cancel, decltype(&xfer_cancelFree)> number_;
};

struct Ask {
  std::string url{};
  std::string method{};
  std::string body{};
  std::vector<std::string> headers{};
  std::optional<std::uint32_t> maxRedirects{};
  OnBody onBody{};
  const Cancel* cancel = nullptr;
};

struct End {
  std::int32_t code = -77;
  std::int32_t status = -77;
  std::string headers{};
  std::string body{};
};

End endOf(const xfer::Response& response) {
  return {response.curlCode, response.status, response.headers, response.body};
}

xfer::Request requestOf(const Ask& ask) {
  xfer::Request request;
  request.url = ask.url;
  request.body = ask.body;
  request.headers = ask.headers;
  request.timeoutSec = 30;
  request.lowSpeedTimeSec = 0;
  return request;
}

FetchOptions optionsOf(const Ask& ask) {
  FetchOptions options = FetchOptions().setMethod(ask.method).setOnBody(ask.onBody);
  if (ask.maxRedirects) options.setMaxRedirects(*ask.maxRedirects);
  if (ask.cancel != nullptr) options.setCancelToken(ask.cancel->token());
  return options;
}

End fetch(const Ask& ask) {
  return endOf(xfer::fetch(requestOf(ask), optionsOf(ask)));
}

End fetchAsync(const Ask& ask) {
  return endOf(xfer::fetchAsync(requestOf(ask), optionsOf(ask)).get());
}

End byNumbers(const Ask& ask) {
  xfer_request_options options;
  xfer_response response;
  sys::DataBuff headers;
  sys::DataBuff body;
  xfer_requestOptionsInit(&options, sizeof options);
  xfer_responseInit(&response, sizeof response);
  std::string lines;
  for (const std::string& line : ask.headers) lines += line + "\n";
  options.url = ask.url.c_str();
  options.method = ask.method.empty() ? nullptr : ask.method.c_str();
  options.headers = lines.c_str();
  options.body = ask.body.data();
  options.bodySize = ask.body.size();
  options.timeoutSec = 30;
  options.lowSpeedTimeSec = 0;
  if (ask.maxRedirects) options.maxRedirects = *ask.maxRedirects;
  if (ask.cancel != nullptr) options.cancel = ask.cancel->number();
  OnBody onBody = ask.onBody;
  if (onBody) {
    options.user = &onBody;
    options.onBody = [](void* user, std::int32_t status, const std::uint8_t* bytes, std::uint64_t size) {
      const std::string_view piece(reinterpret_cast<const char*>(bytes), size);
      return (*static_cast<OnBody*>(user))(status, piece) ? 0 : -1;
    };
  }
  response.headers = &headers;
  response.body = &body;
  const std::int32_t code = xfer_request(&options, &response);
  EXPECT_EQ(response.error, code);
  return {code, code == 0 ? response.httpStatus : 0, headers.toString(), body.toString()};
}

struct Way {
  const char* name;
  End (*run)(const Ask& ask);
};

constexpr Way kWays[] = {{"fetch", fetch}, {"fetchAsync", fetchAsync}, {"xfer_request", byNumbers}};

std::string nameOf(const testing::TestParamInfo<Way>& info) {
  return info.param.name;
}

// Answers "/n" with a redirect to "/n-1", of this status, and "/0" with the method and the body that arrived.
support::Handler countdown(int status) {
  return [status](const ReceivedRequest& request) {
    const int left = std::stoi(request.path().substr(1));
    if (left > 0) return support::redirect(status, "/" + std::to_string(left - 1));
    const std::string seen = request.method + " " + request.body;
    return Reply().send("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(seen.size()) + "\r\n\r\n" +
                        (request.method == "HEAD" ? "" : seen));
  };
}

class EachWay : public testing::TestWithParam<Way> {
 protected:
  static End run(const Ask& ask) { return GetParam().run(ask); }

  // How long the request goes on after the cancel was set; it is set when the request has come this far.
  template <class Begun>
  static milliseconds timeToEnd(Ask ask, Begun begun) {
    const support::PatientPolls patient;
    Cancel cancel;
    ask.cancel = &cancel;
    steady_clock::time_point set;
    std::thread canceller([&] {
      EXPECT_TRUE(begun());
      set = steady_clock::now();
      cancel.set();
    });
    const End end = run(ask);
    const auto ended = steady_clock::now();
    canceller.join();
    EXPECT_EQ(end.code, kAborted);
    EXPECT_EQ(end.status, 0);
    return std::chrono::duration_cast<milliseconds>(ended - set);
  }
};

INSTANTIATE_TEST_SUITE_P(Of, EachWay, testing::ValuesIn(kWays), nameOf);

// ---- Methods ----

TEST_P(EachWay, methodGoesOutByteForByte) {
  struct Row {
    const char* method;
    std::string body;
    std::string firstWord;
    std::string lastLines;
  };
  const std::string formOf7 = "Content-Length: 7\r\n" + kFormLine;
  const std::string formOf0 = "Content-Length: 0\r\n" + kFormLine;
  const Row rows[] = {
      {"", "", "GET", ""},
      {"", kNulBytes, "POST", formOf7},
      {"GET", "", "GET", ""},
      {"GET", kNulBytes, "GET", formOf7},
      {"HEAD", "", "HEAD", ""},
      {"POST", "", "POST", formOf0},
      {"POST", kNulBytes, "POST", formOf7},
      {"PUT", "", "PUT", formOf0},
      {"PUT", kNulBytes, "PUT", formOf7},
      {"PATCH", "", "PATCH", formOf0},
      {"PATCH", kNulBytes, "PATCH", formOf7},
      {"DELETE", "", "DELETE", ""},
      {"DELETE", kNulBytes, "DELETE", formOf7},
      {"OPTIONS", "", "OPTIONS", ""},
      {"x-Own!", "", "x-Own!", ""},
  };
  for (const Row& row : rows) {
    const testing::ScopedTrace trace(__FILE__, __LINE__, row.method + (" " + std::to_string(row.body.size())));
    const ScriptedServer server(countdown(302));
    const End end = run({.url = server.url("/0?query"), .method = row.method, .body = row.body});
    EXPECT_EQ(end.code, 0);
    EXPECT_EQ(end.status, 200);
    EXPECT_EQ(end.body, row.firstWord == "HEAD" ? "" : row.firstWord + " " + row.body);
    ASSERT_EQ(server.requests().size(), 1U);
    const ReceivedRequest request = server.requests().front();
    EXPECT_EQ(request.head, row.firstWord + " /0?query HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(server.port()) +
                                "\r\n" + kDefaultLines + row.lastLines + "\r\n");
    EXPECT_EQ(request.body, row.body);
  }
}

TEST_P(EachWay, bodyHasTheTypeOfTheRequestsOwnLine) {
  const ScriptedServer server(countdown(302));
  EXPECT_EQ(
      run({.url = server.url("/0"), .method = "PUT", .body = "{}", .headers = {"Content-Type: application/json"}}).code,
      0);
  EXPECT_EQ(server.requests().at(0).header("Content-Type"), "application/json");
  EXPECT_EQ(server.requests().at(0).head.find(kFormLine), std::string::npos);
}

TEST_P(EachWay, largeBodyArrivesWhole) {
  const ScriptedServer server(countdown(302));
  const std::string body = support::patternBytes(0, 3'000'000);
  const End end = run({.url = server.url("/0"), .method = "PUT", .body = body});
  EXPECT_EQ(end.code, 0);
  EXPECT_TRUE(end.body == "PUT " + body) << end.body.size() << " bytes";
  EXPECT_TRUE(server.requests().at(0).body == body);
}

TEST_P(EachWay, headDoesNotWaitForTheBodyThatItsAnswerAnnounces) {
  const ScriptedServer server([](const ReceivedRequest&) {
    return Reply().send("HTTP/1.1 200 OK\r\nContent-Length: 1000\r\nX-Own: 1\r\n\r\n").stall();
  });
  const auto begin = steady_clock::now();
  const End end = run({.url = server.url("/"), .method = "HEAD"});
  EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(10)) << "the request's own limit is 30";
  EXPECT_EQ(end.code, 0);
  EXPECT_EQ(end.status, 200);
  EXPECT_EQ(end.headers, "HTTP/1.1 200 OK\r\nContent-Length: 1000\r\nX-Own: 1\r\n\r\n");
  EXPECT_EQ(end.body, "");
}

TEST_P(EachWay, methodOfOneRequestIsNotThatOfTheNext) {
  const ScriptedServer server(countdown(302));
  for (const char* const method : {"PUT", "HEAD", "DELETE", ""}) {
    EXPECT_EQ(run({.url = server.url("/0"), .method = method}).code, 0);
  }
  EXPECT_EQ(server.connectionsAccepted(), 1U) << "over one connection";
  EXPECT_EQ(server.requests().at(3).method, "GET");
}

TEST_P(EachWay, textThatIsNoMethodSendsNothing) {
  const ScriptedServer server(countdown(302));
  for (const char* const method : {" ", "G ET", "GET ", "GET /other HTTP/1.1\r\nX:", "PUT\n", "A:B", "(", "\x7f",
                                   "M\xc3\xa9thode", "\"GET\"", "GET\t"}) {
    const support::RecordingLogger log;
    EXPECT_EQ(run({.url = server.url("/0"), .method = method}).code, kBadArgument) << method;
    EXPECT_EQ(log.count(" | options refused | field=method"), 1U) << method;
  }
  EXPECT_EQ(server.connectionsAccepted(), 0U);
}

TEST_P(EachWay, headWithABodySendsNothing) {
  const ScriptedServer server(countdown(302));
  const support::RecordingLogger log;
  EXPECT_EQ(run({.url = server.url("/0"), .method = "HEAD", .body = "b"}).code, kBadArgument);
  EXPECT_EQ(log.count(" | options refused | field=body"), 1U);
  EXPECT_EQ(server.connectionsAccepted(), 0U);
}

// ---- Redirects ----

TEST_P(EachWay, redirectKeepsTheMethodAndTheBody) {
  for (const int status : {301, 302, 303, 307, 308}) {
    for (const auto& [method, body] : {std::pair<std::string, std::string>{"PUT", kNulBytes},
                                       {"POST", kNulBytes},
                                       {"POST", ""},
                                       {"", kNulBytes},
                                       {"DELETE", ""},
                                       {"DELETE", "why"},
                                       {"HEAD", ""},
                                       {"PATCH", ""}}) {
      const testing::ScopedTrace trace(__FILE__, __LINE__, method + " by " + std::to_string(status));
      const ScriptedServer server(countdown(status));
      EXPECT_EQ(run({.url = server.url("/2"), .method = method, .body = body}).code, 0);
      const std::vector<ReceivedRequest> requests = server.requests();
      ASSERT_EQ(requests.size(), 3U);
      for (const ReceivedRequest& request : requests) {
        EXPECT_EQ(request.method, method.empty() ? "POST" : method);
        EXPECT_EQ(request.body, body);
        EXPECT_EQ(request.header("Content-Length"), requests.front().header("Content-Length"));
      }
    }
  }
}

TEST_P(EachWay, redirectIsTheAnswerWhereNoneIsFollowed) {
  const ScriptedServer server([](const ReceivedRequest&) {
    return Reply().send("HTTP/1.1 302 Found\r\nLocation: /0\r\nContent-Length: 5\r\n\r\nmoved");
  });
  const End end = run({.url = server.url("/1"), .maxRedirects = 0});
  EXPECT_EQ(end.code, 0);
  EXPECT_EQ(end.status, 302);
  EXPECT_EQ(end.body, "moved");
  EXPECT_EQ(server.requests().size(), 1U);
}

TEST_P(EachWay, redirectsAreFollowedUpToTheLimit) {
  for (const std::uint32_t limit : {1U, 2U, 25U}) {
    const ScriptedServer server(countdown(302));
    EXPECT_EQ(run({.url = server.url("/" + std::to_string(limit)), .maxRedirects = limit}).status, 200) << limit;
    EXPECT_EQ(server.requests().size(), limit + 1) << limit;
    const End end = run({.url = server.url("/" + std::to_string(limit + 1)), .maxRedirects = limit});
    EXPECT_EQ(end.code, kTooManyRedirects) << limit;
    EXPECT_EQ(end.body, "") << limit;
    EXPECT_EQ(server.requests().size(), 2 * (limit + 1)) << limit;
  }
}

TEST_P(EachWay, twentyRedirectsAreFollowedUnlessOtherwiseSet) {
  const ScriptedServer server(countdown(302));
  EXPECT_EQ(run({.url = server.url("/20")}).status, 200);
  EXPECT_EQ(run({.url = server.url("/21")}).code, kTooManyRedirects);
}

TEST_P(EachWay, limitBeyondLibcurlsIsAHighOne) {
  const ScriptedServer server(countdown(302));
  for (const std::uint32_t limit : {40'000U, 0x8000'0000U, 0xffff'ffffU}) {
    EXPECT_EQ(run({.url = server.url("/40"), .maxRedirects = limit}).status, 200) << limit;
  }
}

TEST(FetchOptions, redirectLimitCountsInsteadOfTheRecordsField) {
  const ScriptedServer server(countdown(302));
  xfer::Request request;
  request.url = server.url("/1");
  request.followRedirects = false;
  EXPECT_EQ(xfer::fetch(request, FetchOptions()).status, 302);
  EXPECT_EQ(xfer::fetch(request, FetchOptions().setMaxRedirects(1)).status, 200);
  request.followRedirects = true;
  EXPECT_EQ(xfer::fetch(request, FetchOptions().setMaxRedirects(0)).status, 302);
}

// ---- Bodies as they arrive ----

struct Pieces {
  std::string all{};
  std::size_t count = 0;
  std::vector<std::int32_t> statuses{};  // without repetitions

  OnBody taking(std::size_t most = 1'000'000) {
    return [this, most](std::int32_t status, std::string_view bytes) {
      all += bytes;
      if (statuses.empty() || statuses.back() != status) statuses.push_back(status);
      return ++count < most;
    };
  }
};

TEST_P(EachWay, bodyIsHandedOverInOrderAndNotKept) {
  constexpr std::uint64_t kSize = 2'000'000;
  const ScriptedServer server([](const ReceivedRequest& request) {
    if (request.path() == "/there") {
      return Reply().send("HTTP/1.1 302 Found\r\nLocation: /file\r\nContent-Length: 5\r\n\r\nmoved");
    }
    return support::full200(kSize);
  });
  Pieces pieces;
  const End end = run({.url = server.url("/there"), .onBody = pieces.taking()});
  EXPECT_EQ(end.code, 0);
  EXPECT_EQ(end.status, 200);
  EXPECT_EQ(end.body, "");
  EXPECT_NE(end.headers.find("HTTP/1.1 302 Found"), std::string::npos);
  EXPECT_NE(end.headers.find("HTTP/1.1 200 OK"), std::string::npos);
  EXPECT_TRUE(pieces.all == support::patternBytes(0, kSize));
  EXPECT_GT(pieces.count, 1U);
  EXPECT_EQ(pieces.statuses, std::vector<std::int32_t>{200}) << "of the answer that the body belongs to";
}

TEST_P(EachWay, pieceIsHandedOverBeforeTheNextOneIsSent) {
  Gate taken;
  const ScriptedServer server([taken](const ReceivedRequest&) {
    return Reply().send("HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nfir").waitFor(taken).send("sec");
  });
  Pieces pieces;
  const OnBody take = pieces.taking();
  const End end = run({.url = server.url("/"), .onBody = [&](std::int32_t status, std::string_view bytes) {
                         taken.open();
                         return take(status, bytes);
                       }});
  EXPECT_EQ(end.code, 0);
  EXPECT_EQ(pieces.all, "firsec");
  EXPECT_EQ(pieces.count, 2U);
}

TEST_P(EachWay, errorPageIsHandedOverWithItsStatus) {
  const ScriptedServer server([](const ReceivedRequest&) { return support::status(404, "not here"); });
  Pieces pieces;
  const End end = run({.url = server.url("/"), .onBody = pieces.taking()});
  EXPECT_EQ(end.code, 0);
  EXPECT_EQ(end.status, 404);
  EXPECT_EQ(pieces.all, "not here");
  EXPECT_EQ(pieces.statuses, std::vector<std::int32_t>{404});
}

TEST_P(EachWay, callbackIsNotAskedWhereThereIsNoBody) {
  const ScriptedServer server(countdown(302));
  Pieces pieces;
  EXPECT_EQ(run({.url = server.url("/1"), .method = "HEAD", .onBody = pieces.taking()}).code, 0);
  EXPECT_EQ(pieces.count, 0U);
}

// Two pieces that the client cannot get as one; the third never comes.
Reply inPieces(const Gate& firstTaken) {
  return Reply().send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nfir").waitFor(firstTaken).send("sec").stall();
}

TEST_P(EachWay, callbackThatReturnsFalseEndsTheRequest) {
  for (const std::size_t last : {1U, 2U}) {
    const testing::ScopedTrace trace(__FILE__, __LINE__, "piece " + std::to_string(last));
    const support::RecordingLogger log;
    Gate taken;
    const ScriptedServer server([taken](const ReceivedRequest&) { return inPieces(taken); });
    Pieces pieces;
    const OnBody take = pieces.taking(last);
    const End end = run({.url = server.url("/"), .onBody = [&](std::int32_t status, std::string_view bytes) {
                           taken.open();
                           return take(status, bytes);
                         }});
    EXPECT_EQ(end.code, kAborted);
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(end.body, "");
    EXPECT_NE(end.headers.find("Content-Length: 9"), std::string::npos) << "what has arrived";
    EXPECT_EQ(pieces.count, last) << "it is not asked again";
    EXPECT_EQ(log.count("fetch | curl error 42 ("), 1U);
  }
}

TEST_P(EachWay, callbackThatThrowsEndsTheRequest) {
  for (const bool anException : {true, false}) {
    const support::RecordingLogger log;
    const ScriptedServer server([](const ReceivedRequest&) { return inPieces(Gate()); });
    std::size_t count = 0;
    const End end = run({.url = server.url("/"), .onBody = [&](std::int32_t, std::string_view) -> bool {
                           ++count;
                           if (anException) throw std::runtime_error("of the host");
                           throw 7;
                         }});
    EXPECT_EQ(end.code, kCallbackThrew);
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(log.texts(3), std::vector<std::string>{"fetch | onBody threw"});
  }
}

TEST(FetchOptions, quietRequestsLogNoFailureOfACallbackOrAMethod) {
  const ScriptedServer server(support::patternFile(10));
  xfer::Request request;
  request.url = server.url("/file");
  request.quiet = true;
  const support::RecordingLogger log;
  const auto thrower = [](std::int32_t, std::string_view) -> bool { throw std::runtime_error("of the host"); };
  EXPECT_EQ(xfer::fetch(request, FetchOptions().setOnBody(thrower)).curlCode, kCallbackThrew);
  EXPECT_EQ(xfer::fetch(request, FetchOptions().setMethod("a b")).curlCode, kBadArgument);
  EXPECT_EQ(log.texts(), std::vector<std::string>());
}

TEST(FetchOptions, emptyCallbackIsNone) {
  const ScriptedServer server(support::patternFile(10));
  EXPECT_EQ(fetch({.url = server.url("/file"), .onBody = OnBody()}).body, support::patternBytes(0, 10));
}

TEST_P(EachWay, requestAfterOneThatACallbackEndedIsWhole) {
  const ScriptedServer server(support::patternFile(500'000));
  Pieces pieces;
  EXPECT_EQ(run({.url = server.url("/file"), .onBody = pieces.taking(1)}).code, kAborted);
  EXPECT_TRUE(run({.url = server.url("/file")}).body == support::patternBytes(0, 500'000));
}

// ---- Cancelling ----

TEST_P(EachWay, cancelEndsARequestThatConnects) {
  const ScriptedServer mute([](const ReceivedRequest&) { return Reply().stall(); });
  std::string url = mute.url("/");
  url.replace(0, 4, "https");  // the server waits for a request, and never answers the greeting
  EXPECT_LT(
      timeToEnd({.url = url}, [&] { return support::waitUntil([&] { return mute.connectionsAccepted() == 1; }); }),
      kPrompt);
}

TEST_P(EachWay, cancelEndsARequestThatWaitsForItsAnswer) {
  const ScriptedServer mute([](const ReceivedRequest&) { return Reply().stall(); });
  EXPECT_LT(timeToEnd({.url = mute.url("/")}, [&] { return mute.waitForRequests(1); }), kPrompt);
}

TEST_P(EachWay, cancelEndsARequestWhoseBodyArrives) {
  Gate begun;
  const ScriptedServer server([](const ReceivedRequest&) {
    return Reply()
        .send("HTTP/1.1 200 OK\r\nContent-Length: 90000000\r\n\r\n")
        .sendPattern(0, 90'000'000, {.bytesEach = 10'000, .rest = milliseconds(5)});
  });
  Ask ask{.url = server.url("/")};
  ask.onBody = [begun](std::int32_t, std::string_view) mutable {
    begun.open();
    return true;
  };
  EXPECT_LT(timeToEnd(ask, [&] { return begun.wait(); }), kPrompt);
}

TEST_P(EachWay, cancelThatIsSetBeforeSendsNothing) {
  const support::PatientPolls patient;
  const ScriptedServer server(support::patternFile(10));
  Cancel cancel;
  cancel.set();
  for (int times = 0; times < 2; ++times) {
    const auto begin = steady_clock::now();
    const End end = run({.url = server.url("/file"), .cancel = &cancel});
    EXPECT_LT(steady_clock::now() - begin, kPrompt);
    EXPECT_EQ(end.code, kAborted);
    EXPECT_EQ(end.headers + end.body, "");
  }
  EXPECT_TRUE(server.requests().empty());
  EXPECT_EQ(run({.url = server.url("/file")}).code, 0) << "other requests go on";
}

TEST_P(EachWay, oneCancelEndsEveryRequestThatWasGivenIt) {
  constexpr std::size_t kRequests = 3;
  const ScriptedServer mute([](const ReceivedRequest& request) {
    return request.path() == "/served" ? support::status(200, "served") : Reply().stall();
  });
  Cancel cancel;
  EXPECT_EQ(run({.url = mute.url("/served"), .cancel = &cancel}).body, "served") << "an earlier one is not ended";
  const support::PatientPolls patient;
  std::vector<std::thread> threads;
  std::vector<End> ends(kRequests);
  for (End& end : ends) {
    threads.emplace_back([&] { end = run({.url = mute.url("/"), .cancel = &cancel}); });
  }
  EXPECT_TRUE(mute.waitForRequests(1 + kRequests));
  const auto set = steady_clock::now();
  cancel.set();
  for (std::thread& thread : threads) thread.join();
  EXPECT_LT(steady_clock::now() - set, kPrompt);
  for (const End& end : ends) EXPECT_EQ(end.code, kAborted);
  EXPECT_EQ(run({.url = mute.url("/served"), .cancel = &cancel}).code, kAborted);
}

TEST_P(EachWay, cancelThatIsNotSetChangesNothing) {
  const Cancel cancel;
  const ScriptedServer server(support::patternFile(1000));
  EXPECT_EQ(run({.url = server.url("/file"), .cancel = &cancel}).body, support::patternBytes(0, 1000));
}

TEST_P(EachWay, cancelInsideOfTheCallbackEndsTheRequest) {
  const support::PatientPolls patient;
  Cancel cancel;
  const ScriptedServer server([](const ReceivedRequest&) { return inPieces(Gate()); });
  const auto begin = steady_clock::now();
  const End end = run({.url = server.url("/"),
                       .onBody =
                           [&](std::int32_t, std::string_view) {
                             cancel.set();
                             return true;
                           },
                       .cancel = &cancel});
  EXPECT_LT(steady_clock::now() - begin, kPrompt);
  EXPECT_EQ(end.code, kAborted);
}

TEST(CancelToken, copiesAreOneToken) {
  xfer::CancelToken token;
  const xfer::CancelToken copy = token;
  xfer::CancelToken other;
  EXPECT_FALSE(copy.cancelled());
  token.cancel();
  token.cancel();
  EXPECT_TRUE(token.cancelled());
  EXPECT_TRUE(copy.cancelled());
  EXPECT_FALSE(other.cancelled());
  other = copy;
  EXPECT_TRUE(other.cancelled());
}

TEST(CancelToken, thatNobodyHasAnyMoreLeavesItsRequestAlone) {
  Gate goOn;
  const ScriptedServer server([goOn](const ReceivedRequest&) {
    return Reply().waitFor(goOn).send("HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nwhole");
  });
  xfer::Request request;
  request.url = server.url("/");
  auto options = std::make_unique<FetchOptions>();
  options->setCancelToken(xfer::CancelToken());
  std::future<xfer::Response> response = xfer::fetchAsync(request, *options);
  EXPECT_TRUE(server.waitForRequests(1));
  options.reset();
  goOn.open();
  EXPECT_EQ(response.get().body, "whole");
}

// ---- Options as values ----

TEST(FetchOptions, areCopiedAndMovedWhole) {
  const ScriptedServer server(countdown(302));
  xfer::CancelToken token;
  xfer::Request request;
  request.url = server.url("/1");
  Pieces pieces;
  const FetchOptions first =
      FetchOptions().setMethod("PUT").setMaxRedirects(1).setOnBody(pieces.taking()).setCancelToken(token);
  FetchOptions copy = first;
  FetchOptions assigned;
  assigned = copy;
  const FetchOptions moved = std::move(copy);
  for (const FetchOptions* const options : {&first, &std::as_const(assigned), &moved}) {
    pieces = {};
    EXPECT_EQ(xfer::fetch(request, *options).status, 200);
    EXPECT_EQ(pieces.all, "PUT ");
  }
  token.cancel();
  for (const FetchOptions* const options : {&first, &std::as_const(assigned), &moved}) {
    EXPECT_EQ(xfer::fetch(request, *options).curlCode, kAborted);
  }
}

TEST(FetchOptions, thatAreForRequestsCountNotForTheQuestionForASize) {
  const ScriptedServer server(support::patternFile(1000));
  xfer::CancelToken cancelled;
  cancelled.cancel();
  Pieces pieces;
  const FetchOptions options =
      FetchOptions().setMethod("DELETE").setMaxRedirects(0).setOnBody(pieces.taking(1)).setCancelToken(cancelled);
  EXPECT_EQ(xfer::probeRemoteFile(server.url("/file"), {}, "", 10, options).size, 1000U);
  EXPECT_EQ(server.requests().at(0).method, "GET");
  EXPECT_EQ(pieces.count, 0U);
}

}  // namespace
