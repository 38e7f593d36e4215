#include "support/scripted_server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "support/census.h"
#include "support/pattern.h"
#include "support/raw_client.h"
#include "support/wait_until.h"

namespace support {
namespace {

using namespace std::chrono_literals;

const std::string kRequest = "GET /file HTTP/1.1\r\nHost: x\r\n\r\n";

std::string rangeRequest(const std::string& range) {
  return "GET /file HTTP/1.1\r\nHost: x\r\nRange: bytes=" + range + "\r\nConnection: close\r\n\r\n";
}

TEST(ScriptedServer, sendsExactlyTheScriptsBytes) {
  const std::string malformed("HTTP/9.9 abc\nContent-Length: 3x\r\n\0\xFF\r\n\r\n", 38);
  ScriptedServer server(
      [&](const ReceivedRequest&) { return Reply().send(malformed).sendPattern(5, 100'005).close(); });

  RawClient client(server.port());
  client.send(kRequest);

  EXPECT_EQ(client.receiveAll(), malformed + patternBytes(5, 100'005));
  EXPECT_EQ(client.end(), RawClient::End::Closed);
}

TEST(ScriptedServer, recordsRequestsExactlyAsReceived) {
  ScriptedServer server([](const ReceivedRequest&) { return status(200, "ok"); });
  const std::string head =
      "POST http://host.example:81/a%20b?c=d HTTP/1.1\r\nhost:  x \r\nX-Two: 1\r\nX-Two: 2\r\nRange: bytes=10-19\r\n"
      "Content-Length: 5\r\n\r\n";

  RawClient client(server.port());
  client.send(head + "he\r\no");
  ASSERT_TRUE(server.waitForRequests(1));

  const ReceivedRequest request = server.requests().at(0);
  EXPECT_EQ(request.head, head);
  EXPECT_EQ(request.body, "he\r\no");
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "http://host.example:81/a%20b?c=d");
  EXPECT_EQ(request.version, "HTTP/1.1");
  EXPECT_EQ(request.path(), "/a%20b");
  EXPECT_EQ(request.headerLines,
            (std::vector<std::string>{"host:  x ", "X-Two: 1", "X-Two: 2", "Range: bytes=10-19", "Content-Length: 5"}));
  EXPECT_EQ(request.header("HOST"), "x");
  EXPECT_EQ(request.header("X-Three"), std::nullopt);
  EXPECT_EQ(request.range, (RequestedRange{10, 19}));
  EXPECT_EQ(request.number, 0u);
  EXPECT_EQ(request.connection, 0u);
}

TEST(ScriptedServer, readsARequestThatComesByteByByte) {
  ScriptedServer server([](const ReceivedRequest&) { return status(204); });
  RawClient client(server.port());
  for (const char c : kRequest) client.send(std::string(1, c));
  ASSERT_TRUE(server.waitForRequests(1));
  EXPECT_EQ(server.requests().at(0).head, kRequest);
}

TEST(ScriptedServer, understandsOnlySingleRangesWithAStart) {
  const auto rangeOf = [](const std::string& value) {
    return parseHead("GET / HTTP/1.1\r\nRange: " + value + "\r\n\r\n").range;
  };
  EXPECT_EQ(rangeOf("bytes=0-0"), (RequestedRange{0, 0}));
  EXPECT_EQ(rangeOf("bytes=7-"), (RequestedRange{7, std::nullopt}));
  EXPECT_EQ(rangeOf("bytes=5000000000-18446744073709551615"), (RequestedRange{5'000'000'000, UINT64_MAX}));
  for (const char* other : {"bytes=-5", "bytes=1-2,3-4", "bytes=a-b", "bytes=1", "items=1-2", "bytes="}) {
    EXPECT_EQ(rangeOf(other), std::nullopt) << other;
  }
}

TEST(ScriptedServer, answersSeveralRequestsOnOneConnectionAlsoWhenTheyAreSentAhead) {
  ScriptedServer server([](const ReceivedRequest& request) { return status(200, request.target); });
  const auto reply = [](const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
  };

  RawClient client(server.port());
  client.send("GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
  EXPECT_EQ(client.receive((reply("/1") + reply("/2")).size()), reply("/1") + reply("/2"));
  client.send("GET /3 HTTP/1.1\r\nConnection: close\r\n\r\n");
  EXPECT_EQ(client.receiveAll(), reply("/3"));

  EXPECT_EQ(server.connectionsAccepted(), 1u);
  for (const ReceivedRequest& request : server.requests()) EXPECT_EQ(request.connection, 0u);
}

TEST(ScriptedServer, keepsWhatIsSentWhileAScriptWaits) {
  Gate gate;
  ScriptedServer server([&](const ReceivedRequest&) { return Reply().waitFor(gate).send("done"); });
  RawClient client(server.port());
  client.send(kRequest + "GET /sent");
  ASSERT_TRUE(server.waitForRequests(1));
  client.send("-ahead HTTP/1.1\r\n\r\n");
  gate.open();
  EXPECT_EQ(client.receive(8), "donedone");
  EXPECT_EQ(server.requests().at(1).target, "/sent-ahead");
}

TEST(ScriptedServer, sendsContinueToARequestThatWaitsForIt) {
  ScriptedServer server([](const ReceivedRequest& request) { return Reply().send(request.body).close(); });
  RawClient client(server.port());
  client.send("PUT / HTTP/1.1\r\nContent-Length: 4\r\nExpect: 100-continue\r\n\r\n");
  const std::string goOn = "HTTP/1.1 100 Continue\r\n\r\n";
  ASSERT_EQ(client.receive(goOn.size()), goOn);
  client.send("body");
  EXPECT_EQ(client.receiveAll(), "body");
}

TEST(ScriptedServer, closesAfterARequestOfAnOldVersion) {
  ScriptedServer server([](const ReceivedRequest&) { return Reply().send("x"); });
  RawClient client(server.port());
  client.send("GET / HTTP/1.0\r\n\r\n");
  EXPECT_EQ(client.receiveAll(), "x");
  EXPECT_EQ(client.end(), RawClient::End::Closed);
}

TEST(ScriptedServer, pauseAndDripTakeTheirTime) {
  ScriptedServer server([](const ReceivedRequest&) {
    return Reply().pause(50ms).send("0123456789", {.bytesEach = 3, .rest = 20ms}).close();
  });
  RawClient client(server.port());
  const auto start = std::chrono::steady_clock::now();
  client.send(kRequest);
  EXPECT_EQ(client.receiveAll(), "0123456789");
  EXPECT_GE(std::chrono::steady_clock::now() - start, 50ms + 4 * 20ms);
}

TEST(ScriptedServer, stallsUntilTheClientGoes) {
  ScriptedServer server([](const ReceivedRequest&) { return Reply().send("abc").stall(); });
  {
    RawClient client(server.port());
    client.send(kRequest);
    EXPECT_EQ(client.receive(3), "abc");
    EXPECT_EQ(client.receive(1, 50ms), "");
    EXPECT_EQ(client.end(), RawClient::End::Open);
    EXPECT_EQ(server.openConnections(), 1u);
    EXPECT_EQ(server.concurrentRequests(), 1u);
  }
  EXPECT_TRUE(waitUntil([&] { return server.openConnections() == 0; }));
  EXPECT_EQ(server.concurrentRequests(), 0u);
}

TEST(ScriptedServer, endsWhileStalledAndWhileSendingToAClientThatDoesNotRead) {
  auto server = std::make_unique<ScriptedServer>(routes({
      {"/stall", [](const ReceivedRequest&) { return Reply().stall(); }},
      {"/gate", [](const ReceivedRequest&) { return Reply().waitFor(Gate()); }},
      {"/pause", [](const ReceivedRequest&) { return Reply().pause(1h); }},
      {"/much", [](const ReceivedRequest&) { return Reply().sendPattern(0, 1ull << 40); }},
  }));
  std::vector<std::unique_ptr<RawClient>> clients;
  for (const char* path : {"/stall", "/gate", "/pause", "/much"}) {
    clients.push_back(std::make_unique<RawClient>(server->port()));
    clients.back()->send(std::string("GET ") + path + " HTTP/1.1\r\n\r\n");
  }
  clients.push_back(std::make_unique<RawClient>(server->port()));  // sends nothing
  ASSERT_TRUE(server->waitForRequests(4));

  const auto start = std::chrono::steady_clock::now();
  server.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - start, testTimeout() / 2);
}

TEST(ScriptedServer, leavesNoThreadAndNoDescriptorBehind) {
  constexpr std::size_t kRounds = 10;
  const ScriptedServer other(patternFile(1));  // holds what comes with the first server and stays
  const std::size_t threads = threadCount();
  const std::size_t handles = openFileCount();
  for (std::size_t i = 0; i < kRounds; ++i) {
    ScriptedServer server(patternFile(1000));
    RawClient client(server.port());
    client.send(kRequest);
    EXPECT_EQ(client.receive(10).size(), 10u);
  }
  EXPECT_TRUE(waitUntil([&] { return threadCount() == threads; })) << threadCount() << " instead of " << threads;
  EXPECT_TRUE(waitUntil([&] { return openFileCount() < handles + kRounds; })) << openFileCount();
}

TEST(ScriptedServer, stoppedServerRefusesAndKeepsItsRecords) {
  ScriptedServer server(patternFile(10));
  {
    RawClient client(server.port());
    client.send(kRequest);
    ASSERT_TRUE(server.waitForRequests(1));
  }
  server.stop();
  EXPECT_THROW(RawClient{server.port()}, std::system_error);
  EXPECT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.openConnections(), 0u);
}

TEST(ScriptedServer, gatesOrderScriptsAndTests) {
  Gate reached;
  Gate goOn;
  ScriptedServer server(
      [&](const ReceivedRequest&) { return Reply().send("a").open(reached).waitFor(goOn).send("b").close(); });
  RawClient client(server.port());
  client.send(kRequest);
  ASSERT_TRUE(reached.wait());
  EXPECT_EQ(client.receive(1), "a");
  EXPECT_EQ(client.receive(1, 50ms), "");
  goOn.open();
  EXPECT_EQ(client.receiveAll(), "b");
}

TEST(ScriptedServer, answersConnectionsAtTheSameTimeAndCountsThem) {
  constexpr std::size_t kClients = 5;
  Gate all;
  ScriptedServer server([&](const ReceivedRequest&) { return Reply().waitFor(all).send("x").close(); });
  std::vector<std::unique_ptr<RawClient>> clients;
  for (std::size_t i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<RawClient>(server.port()));
    clients.back()->send(kRequest);
  }
  ASSERT_TRUE(server.waitForRequests(kClients));
  EXPECT_EQ(server.concurrentRequests(), kClients);
  EXPECT_EQ(server.connectionsAccepted(), kClients);
  all.open();
  for (const auto& client : clients) EXPECT_EQ(client->receiveAll(), "x");
  EXPECT_EQ(server.maxConcurrentRequests(), kClients);
}

// A limit that a client keeps must never look broken because the server was slow to notice an end.
TEST(ScriptedServer, requestsOneAfterTheOtherNeverCountAsTwo) {
  ScriptedServer server(patternFile(100'000));
  for (int i = 0; i < 200; ++i) {
    RawClient client(server.port());
    client.send(rangeRequest("0-99999"));
    ASSERT_GT(client.receiveAll().size(), 100'000u);
  }
  EXPECT_EQ(server.maxConcurrentRequests(), 1u);
}

TEST(ScriptedServer, takesANewHandlerForLaterRequests) {
  ScriptedServer server([](const ReceivedRequest&) { return Reply().send("1"); });
  RawClient client(server.port());
  client.send(kRequest);
  EXPECT_EQ(client.receive(1), "1");
  server.setHandler([](const ReceivedRequest&) { return Reply().send("2"); });
  client.send(kRequest);
  EXPECT_EQ(client.receive(1), "2");
}

TEST(ScriptedServer, answersAConnectAndWhatFollowsInTheTunnel) {
  ScriptedServer server([](const ReceivedRequest& request) {
    return request.method == "CONNECT" ? Reply().send("HTTP/1.1 200 Yes\r\n\r\n") : Reply().send("inside").close();
  });
  RawClient client(server.port());
  client.send("CONNECT host.example:443 HTTP/1.1\r\nHost: host.example:443\r\n\r\n" + kRequest);
  EXPECT_EQ(client.receiveAll(), "HTTP/1.1 200 Yes\r\n\r\ninside");
  EXPECT_EQ(server.requests().at(0).target, "host.example:443");
}

std::string answerTo(const Handler& handler, const std::string& request) {
  ScriptedServer server(handler);
  RawClient client(server.port());
  client.send(request);
  return client.receiveAll();
}

TEST(Replies, patternFileAnswersRangesLikeAGoodServer) {
  const Handler file = patternFile(1000, {.etag = "\"v1\""});
  const std::string type = "Content-Type: application/octet-stream\r\n";
  const std::string etag = "ETag: \"v1\"\r\n";
  const std::string whole =
      "HTTP/1.1 200 OK\r\n" + type + "Accept-Ranges: bytes\r\n" + etag + "Content-Length: 1000\r\n\r\n";
  const auto part = [&](const std::string& range, const std::string& length) {
    return "HTTP/1.1 206 Partial Content\r\n" + type + "Content-Range: bytes " + range + "/1000\r\n" + etag +
           "Content-Length: " + length + "\r\n\r\n";
  };
  const std::string close = "Connection: close\r\n\r\n";

  EXPECT_EQ(answerTo(file, "GET / HTTP/1.1\r\n" + close), whole + patternBytes(0, 1000));
  EXPECT_EQ(answerTo(file, "HEAD / HTTP/1.1\r\n" + close), whole);
  EXPECT_EQ(answerTo(file, rangeRequest("10-19")), part("10-19", "10") + patternBytes(10, 20));
  EXPECT_EQ(answerTo(file, rangeRequest("990-")), part("990-999", "10") + patternBytes(990, 1000));
  EXPECT_EQ(answerTo(file, rangeRequest("990-5000")), part("990-999", "10") + patternBytes(990, 1000));
  EXPECT_EQ(answerTo(file, rangeRequest("1000-")),
            "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */1000\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(answerTo(file, "GET / HTTP/1.1\r\nRange: bytes=0-0\r\nIf-Range: \"v1\"\r\n" + close),
            part("0-0", "1") + patternBytes(0, 1));
  EXPECT_EQ(answerTo(file, "GET / HTTP/1.1\r\nRange: bytes=0-0\r\nIf-Range: \"v0\"\r\n" + close),
            whole + patternBytes(0, 1000));
  EXPECT_EQ(answerTo(patternFile(0), rangeRequest("0-0")),
            "HTTP/1.1 200 OK\r\n" + type + "Accept-Ranges: bytes\r\nContent-Length: 0\r\n\r\n");
}

TEST(Replies, rangeReplyLiesAsItIsTold) {
  const auto reply = [](const ReplyOptions& options) {
    return answerTo([=](const ReceivedRequest& request) { return range206(request, 1000, options).close(); },
                    rangeRequest("10-29"));
  };
  const std::string start = "HTTP/1.1 206 Partial Content\r\nContent-Type: application/octet-stream\r\n";
  const std::string right = "Content-Range: bytes 10-29/1000\r\n";
  const std::string length = "Content-Length: 20\r\n";

  EXPECT_EQ(reply({.contentRange = "bytes 0-19/1000"}),
            start + "Content-Range: bytes 0-19/1000\r\n" + length + "\r\n" + patternBytes(10, 30));
  EXPECT_EQ(reply({.contentRange = ""}), start + length + "\r\n" + patternBytes(10, 30));
  EXPECT_EQ(reply({.bodyBytes = 5}), start + right + length + "\r\n" + patternBytes(10, 15));
  EXPECT_EQ(reply({.announced = 5, .bodyBytes = 5}),
            start + right + "Content-Length: 5\r\n\r\n" + patternBytes(10, 15));
  EXPECT_EQ(reply({.bodyBytes = 25}), start + right + length + "\r\n" + patternBytes(10, 35));
  EXPECT_EQ(reply({.contentType = "multipart/byteranges; boundary=b", .headers = {"X-More: 1"}}),
            "HTTP/1.1 206 Partial Content\r\nContent-Type: multipart/byteranges; boundary=b\r\n" + right +
                "X-More: 1\r\n" + length + "\r\n" + patternBytes(10, 30));
  EXPECT_EQ(reply({.seed = 7}), start + right + length + "\r\n" + patternBytes(10, 30, 7));
}

TEST(Replies, wholeFileComesInEveryFraming) {
  const auto reply = [](const ReplyOptions& options) {
    return answerTo([=](const ReceivedRequest&) { return full200(20, options); },
                    "GET / HTTP/1.1\r\nConnection: close\r\n\r\n");
  };
  const std::string start = "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n";
  const std::string body = patternBytes(0, 20);

  EXPECT_EQ(reply({.acceptRanges = false}), start + "Content-Length: 20\r\n\r\n" + body);
  EXPECT_EQ(reply({.framing = Framing::UntilClose}),
            start + "Accept-Ranges: bytes\r\nConnection: close\r\n\r\n" + body);
  EXPECT_EQ(reply({.framing = Framing::Chunked, .chunkBytes = 17}),
            start + "Accept-Ranges: bytes\r\nTransfer-Encoding: chunked\r\n\r\n11\r\n" + body.substr(0, 17) +
                "\r\n3\r\n" + body.substr(17) + "\r\n0\r\n\r\n");
}

TEST(Replies, redirectsAndStatusesAreShort) {
  const std::string close = "GET / HTTP/1.1\r\nConnection: close\r\n\r\n";
  EXPECT_EQ(answerTo([](const ReceivedRequest&) { return redirect(302, "/there"); }, close),
            "HTTP/1.1 302 Found\r\nLocation: /there\r\nContent-Length: 0\r\n\r\n");
  EXPECT_EQ(
      answerTo([](const ReceivedRequest&) { return status(503, "busy", {"Retry-After: 1"}); }, close),
      "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 1\r\nContent-Type: text/plain\r\nContent-Length: 4\r\n\r\n"
      "busy");
  EXPECT_EQ(answerTo([](const ReceivedRequest&) { return status(204); }, close), "HTTP/1.1 204 No Content\r\n\r\n");
}

}  // namespace
}  // namespace support
