#include <gtest/gtest.h>

#include <thread>

#include "keel/keel.h"
#include "support/denying_buffer.h"
#include "support/log_line.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/unused_port.h"
#include "support/wait_until.h"
#include "sys/data_buff.h"
#include "sys/descrambler.h"
#include "xfer/xfer.h"

using namespace support;

namespace {

std::string unreachable() {
  static const UnusedPort nobody;
  return nobody.url("/");
}

struct Result {
  int code = 0;
  std::string headers;
  std::string body;
};

Result download(const std::string& url, const char* headers = nullptr, const char* options = nullptr,
                const char* cookie = nullptr, const char* proxy = nullptr) {
  sys::DataBuff outHeaders;
  sys::DataBuff outBody;
  const int code = xfer_download(url.c_str(), headers, options, &outHeaders, &outBody, cookie, proxy);
  return {code, outHeaders.toString(), outBody.toString()};
}

// ---- xfer_download ----

TEST(Download, fillsBothBuffers) {
  ScriptedServer server(patternFile(10));
  const Result result = download(server.url("/x"));
  EXPECT_EQ(result.code, 0);
  EXPECT_TRUE(result.headers.starts_with("HTTP/1.1 200"));
  EXPECT_EQ(result.body, patternBytes(0, 10));
}

TEST(Download, nullUrlFailsInLibcurl) {
  const RecordingLogger log;
  sys::DataBuff headers;
  sys::DataBuff body;
  EXPECT_EQ(xfer_download(nullptr, nullptr, nullptr, &headers, &body, nullptr, nullptr), 3);
  EXPECT_EQ(logError(log, failure(kXfer, 329, "fetch error: curl code 3")), "");
}

TEST(Download, emptyBodyIs100009UnlessTheBufferHeldSomething) {
  ScriptedServer server([](const ReceivedRequest&) { return status(200); });
  EXPECT_EQ(download(server.url("/")).code, 100009);
  sys::DataBuff headers;
  sys::DataBuff body;
  body.assign("before");
  EXPECT_EQ(xfer_download(server.url("/").c_str(), nullptr, nullptr, &headers, &body, nullptr, nullptr), 0);
  EXPECT_EQ(body.toString(), "before");
}

TEST(Download, errorPageIsASuccess) {
  ScriptedServer server([](const ReceivedRequest&) { return status(404, "gone"); });
  const Result result = download(server.url("/"));
  EXPECT_EQ(result.code, 0);
  EXPECT_TRUE(result.headers.starts_with("HTTP/1.1 404"));
  EXPECT_EQ(result.body, "gone");
}

TEST(Download, failureHandsOverWhatArrived) {
  ScriptedServer server([](const ReceivedRequest&) { return full200(1000, {.bodyBytes = 10}).close(); });
  const Result result = download(server.url("/"));
  EXPECT_EQ(result.code, 18);
  EXPECT_TRUE(result.headers.starts_with("HTTP/1.1 200"));
  EXPECT_EQ(result.body, patternBytes(0, 10));
}

TEST(Download, emptyPostFieldsSendAGet) {
  ScriptedServer server(patternFile(5));
  EXPECT_EQ(download(server.url("/"), nullptr, "OPT_POSTFIELDS=").code, 0);
  EXPECT_EQ(download(server.url("/"), nullptr, "OPT_POST").code, 0);
  EXPECT_EQ(server.requests()[0].method, "GET");
  EXPECT_EQ(server.requests()[1].method, "GET");
}

TEST(Download, sendsBodyHeadersAndCookie) {
  ScriptedServer server([](const ReceivedRequest&) { return status(200, "ok"); });
  EXPECT_EQ(download(server.url("/"), "X-A: 1\nX-B: 2", "OPT_POSTFIELDS=a=1&b=2", "c=d").body, "ok");
  const auto request = server.requests().at(0);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.body, "a=1&b=2");
  EXPECT_EQ(request.header("X-A"), "1");
  EXPECT_EQ(request.header("X-B"), "2");
  EXPECT_EQ(request.header("Cookie"), "c=d");
}

TEST(Download, brandsTraceIsRewrittenAndTheRequestIsNot) {
  const std::string hidden = sys::descrambleString(sys::scrambledSearchText(), true);
  ScriptedServer server(patternFile(1));
  const RecordingLogger log;
  Keel::setSettingsName("Quillon");
  download(server.url("/" + hidden));
  Keel::setSettingsName("");
  EXPECT_EQ(logError(log, trace(kXfer, 291, "--> xfer_download | " + server.url("/serv"))), "");
  EXPECT_EQ(logError(log, trace(kFetch, 224, "--> fetch | " + server.url("/" + hidden))), "");
  EXPECT_EQ(server.requests().at(0).target, "/" + hidden);
}

TEST(Download, bufferThatCannotGrowEndsTheCallWith100000) {
  ScriptedServer server(patternFile(10));
  sys::DataBuff headers;
  DenyingBuffer body(5);
  EXPECT_EQ(xfer_download(server.url("/").c_str(), nullptr, nullptr, &headers, &body, nullptr, nullptr), 100000);
  std::uint64_t id = 0;
  ASSERT_EQ(xfer_downloadAsync(server.url("/").c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), 100000);
  EXPECT_EQ(xfer_downloadText(server.url("/").c_str(), nullptr, &headers, &body, nullptr), -1);
}

TEST(Download, bufferThatThrowsEndsTheCallAndNothingEscapes) {
  ScriptedServer server(patternFile(10));
  const RecordingLogger log;
  sys::DataBuff headers;
  DenyingBuffer body(10, true);
  EXPECT_EQ(xfer_download(server.url("/").c_str(), nullptr, nullptr, &headers, &body, nullptr, nullptr), 100000);
  EXPECT_EQ(logError(log, failure(kXfer, 336, "xfer_download exception")), "");
  EXPECT_EQ(xfer_downloadText(server.url("/").c_str(), nullptr, &headers, &body, nullptr), -1);
  std::uint64_t id = 0;
  ASSERT_EQ(xfer_downloadAsync(server.url("/").c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), 100000);
  EXPECT_EQ(logError(log, failure(kXfer, 501, "xfer_queryAsyncBuffer exception")), "");
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), 100001) << "it is collected once";
}

TEST(Download, bufferThatHoldsThePartIsFilledWhateverItsResizeAnswers) {
  ScriptedServer server(patternFile(10));
  DenyingBuffer headers(1000);
  DenyingBuffer body(10);
  EXPECT_EQ(xfer_download(server.url("/").c_str(), nullptr, nullptr, &headers, &body, nullptr, nullptr), 0);
  EXPECT_EQ(body.toString(), support::patternBytes(0, 10));
  DenyingBuffer text(10);
  EXPECT_EQ(xfer_downloadText(server.url("/").c_str(), nullptr, &headers, &text, nullptr), 0);
  EXPECT_EQ(text.toString(), support::patternBytes(0, 10));
}

// ---- Settings ----

TEST(Settings, proxyIsUsedUntilItIsCleared) {
  ScriptedServer proxy([](const ReceivedRequest&) { return status(200, "via"); });
  ScriptedServer server([](const ReceivedRequest&) { return status(200, "direct"); });
  for (const char* clearing : {static_cast<const char*>(nullptr), ""}) {
    xfer_setProxy(("user:secret@127.0.0.1:" + std::to_string(proxy.port())).c_str());
    EXPECT_EQ(download(server.url("/")).body, "via");
    EXPECT_EQ(proxy.requests().back().header("Proxy-Authorization"), "Basic dXNlcjpzZWNyZXQ=");
    EXPECT_EQ(proxy.requests().back().target, server.url("/"));
    xfer_setProxy(clearing);
    EXPECT_EQ(download(server.url("/")).body, "direct");
  }
}

// ---- xfer_downloadText ----

TEST(DownloadText, sendsItsHeaderBlockWithCarriageReturns) {
  ScriptedServer server([](const ReceivedRequest&) { return status(200, "page"); });
  sys::DataBuff headers;
  sys::DataBuff body;
  EXPECT_EQ(xfer_downloadText(server.url("/watch?v=abcdefghijk&t=1").c_str(), "", &headers, &body, nullptr), 0);
  EXPECT_EQ(body.toString(), "page");
  const std::string head = server.requests().at(0).head;
  EXPECT_NE(head.find("Chrome/122.0 Safari/537.36\r\r\nAccept: */*\r\r\nAccept-Language: en-US,en;q=0.9\r\r\nOrigin: "),
            std::string::npos)
      << head;
  EXPECT_NE(head.find("/watch?v=abcdefghijk\r\r\n"), std::string::npos);
}

TEST(DownloadText, errorStatusLeavesTheBuffers) {
  ScriptedServer server([](const ReceivedRequest&) { return status(404, "no"); });
  sys::DataBuff headers;
  sys::DataBuff body;
  headers.assign("h");
  body.assign("b");
  EXPECT_EQ(xfer_downloadText(server.url("/").c_str(), nullptr, &headers, &body, nullptr), -1404);
  EXPECT_EQ(headers.toString(), "h");
  EXPECT_EQ(body.toString(), "b");
}

TEST(DownloadText, answerWithoutABodyClearsTheBuffer) {
  ScriptedServer server([](const ReceivedRequest&) { return Reply().send("HTTP/1.1 204 No Content\r\n\r\n"); });
  sys::DataBuff headers;
  sys::DataBuff body;
  body.assign("before");
  EXPECT_EQ(xfer_downloadText(server.url("/").c_str(), nullptr, &headers, &body, nullptr), 0);
  EXPECT_TRUE(body.empty());
  EXPECT_FALSE(headers.empty());
}

TEST(DownloadText, nullUrlAndTransportFailuresAreReported) {
  sys::DataBuff buff;
  EXPECT_EQ(xfer_downloadText(nullptr, nullptr, &buff, &buff, nullptr), 100001);
  EXPECT_EQ(xfer_downloadText(unreachable().c_str(), nullptr, &buff, &buff, nullptr), 7);
}

// ---- Asynchronous downloads ----

Result collect(std::uint64_t id) {
  sys::DataBuff headers;
  sys::DataBuff body;
  const int code = xfer_queryAsyncBuffer(id, &headers, &body);
  return {code, headers.toString(), body.toString()};
}

TEST(Async, idsAreConsecutiveAcrossBothKinds) {
  ScriptedServer server(patternFile(10));
  const TempDir folder;
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  ASSERT_EQ(xfer_downloadAsync(server.url("/").c_str(), &first, nullptr, nullptr, nullptr, nullptr), 0);
  ASSERT_EQ(xfer_downloadAsync(server.url("/").c_str(), &second, nullptr, nullptr, nullptr, nullptr), 0);
  const std::uint64_t third =
      xfer_downloadFile(server.url("/").c_str(), folder.file("f").c_str(), nullptr, 0, nullptr, 0, 0, nullptr);
  EXPECT_EQ(first, 1U);
  EXPECT_EQ(second, 2U);
  EXPECT_EQ(third, 3U);
  EXPECT_EQ(collect(first).body, patternBytes(0, 10));
  EXPECT_EQ(collect(second).code, 0);
  EXPECT_TRUE(xfer_stopDownloadHandle(third));
}

TEST(Async, secondCollectFindsNothing) {
  ScriptedServer server(patternFile(10));
  const RecordingLogger log;
  std::uint64_t id = 0;
  xfer_downloadAsync(server.url("/").c_str(), &id, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(collect(id).code, 0);
  EXPECT_EQ(collect(id).code, 100001);
  const std::string text = "xfer_queryAsyncBuffer | dl_id=" + std::to_string(id) + " not found";
  EXPECT_EQ(logError(log, failure(kXfer, 473, text)), "");
}

TEST(Async, emptyBodyIs100009WithTheHeaders) {
  ScriptedServer server([](const ReceivedRequest&) { return status(200); });
  std::uint64_t id = 0;
  xfer_downloadAsync(server.url("/").c_str(), &id, nullptr, nullptr, nullptr, nullptr);
  const Result result = collect(id);
  EXPECT_EQ(result.code, 100009);
  EXPECT_FALSE(result.headers.empty());
}

TEST(Async, failureSurfacesAtCollection) {
  const RecordingLogger log;
  std::uint64_t id = 0;
  EXPECT_EQ(xfer_downloadAsync(unreachable().c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(collect(id).code, 7);
  EXPECT_EQ(logError(log, failure(kXfer, 496, "fetch error: curl code 7")), "");
}

TEST(Async, failureHandsOverWhatArrivedAndLeavesTheRest) {
  ScriptedServer server([](const ReceivedRequest&) { return full200(1000, {.bodyBytes = 10}).close(); });
  sys::DataBuff headers;
  sys::DataBuff body;
  std::uint64_t id = 0;
  ASSERT_EQ(xfer_downloadAsync(server.url("/").c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), 18);
  EXPECT_TRUE(headers.toString().starts_with("HTTP/1.1 200")) << headers.toString();
  EXPECT_EQ(body.toString(), patternBytes(0, 10));
  const std::string before = headers.toString();
  ASSERT_EQ(xfer_downloadAsync(unreachable().c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), 7);
  EXPECT_EQ(headers.toString(), before);
  EXPECT_EQ(body.toString(), patternBytes(0, 10));
}

TEST(Async, errorPageIsASuccess) {
  ScriptedServer server([](const ReceivedRequest&) { return status(404, "gone"); });
  std::uint64_t id = 0;
  xfer_downloadAsync(server.url("/").c_str(), &id, nullptr, nullptr, nullptr, nullptr);
  const Result result = collect(id);
  EXPECT_EQ(result.code, 0);
  EXPECT_TRUE(result.headers.starts_with("HTTP/1.1 404"));
  EXPECT_EQ(result.body, "gone");
}

TEST(Async, emptyBodyIntoABufferThatHoldsSomethingIsASuccess) {
  ScriptedServer server([](const ReceivedRequest&) { return status(200); });
  sys::DataBuff headers;
  sys::DataBuff body;
  body.assign("before");
  std::uint64_t id = 0;
  xfer_downloadAsync(server.url("/").c_str(), &id, nullptr, nullptr, nullptr, nullptr);
  EXPECT_EQ(xfer_queryAsyncBuffer(id, &headers, &body), 0);
  EXPECT_EQ(body.toString(), "before");
}

TEST(Async, idsOfOneKindAreUnknownToTheFunctionsOfTheOther) {
  ScriptedServer server([](const ReceivedRequest& request) {
    return request.range ? range206(request, 1000, {.bodyBytes = 1}).stall() : full200(10);
  });
  const TempDir folder;
  std::uint64_t request = 0;
  xfer_downloadAsync(server.url("/").c_str(), &request, nullptr, nullptr, nullptr, nullptr);
  const std::uint64_t download =
      xfer_downloadFile(server.url("/").c_str(), folder.file("f").c_str(), nullptr, 1, nullptr, 0, 1000, nullptr);
  EXPECT_EQ(xfer_downloadPause(request), 100001);
  EXPECT_EQ(xfer_downloadResume(request), 100001);
  EXPECT_FALSE(xfer_stopDownloadHandle(request));
  std::uint64_t downloaded = 7777;
  std::uint32_t error = 8888;
  std::uint8_t finished = 99;
  EXPECT_EQ(xfer_getProgress(request, &downloaded, &error, &finished), 0);
  EXPECT_EQ(finished, 1);
  EXPECT_EQ(downloaded, 7777U);
  EXPECT_EQ(error, 8888U);
  EXPECT_EQ(collect(download).code, 100001);
  EXPECT_EQ(collect(request).code, 0) << "it is still there";
  EXPECT_TRUE(xfer_stopDownloadHandle(download)) << "and so is this one";
}

TEST(Async, idIsUnknownToASecondCollectorWhileTheFirstOneWaits) {
  Gate gate;
  ScriptedServer server([&](const ReceivedRequest&) {
    return Reply().waitFor(gate).send("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\na");
  });
  std::uint64_t id = 0;
  xfer_downloadAsync(server.url("/").c_str(), &id, nullptr, nullptr, nullptr, nullptr);
  ASSERT_TRUE(server.waitForRequests(1));
  std::atomic<int> firsts{0};
  std::atomic<int> others{0};
  const auto collectOnce = [&] { ++(collect(id).code == 0 ? firsts : others); };
  std::thread one(collectOnce);
  std::thread another(collectOnce);
  EXPECT_TRUE(waitUntil([&] { return others == 1; })) << "before the request has ended";
  gate.open();
  one.join();
  another.join();
  EXPECT_EQ(firsts, 1);
}

TEST(Async, collectorWaitsWhileOthersStart) {
  Gate gate;
  ScriptedServer server([&](const ReceivedRequest& request) {
    return request.path() == "/slow" ? Reply().waitFor(gate).send("HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\na")
                                     : full200(1);
  });
  std::uint64_t slow = 0;
  xfer_downloadAsync(server.url("/slow").c_str(), &slow, nullptr, nullptr, nullptr, nullptr);
  std::atomic<bool> collected{false};
  std::thread collector([&] {
    EXPECT_EQ(collect(slow).body, "a");
    collected = true;
  });
  ASSERT_TRUE(server.waitForRequests(1));
  std::uint64_t quick = 0;
  EXPECT_EQ(xfer_downloadAsync(server.url("/quick").c_str(), &quick, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(collect(quick).code, 0);
  EXPECT_FALSE(collected);
  gate.open();
  collector.join();
}

TEST(Async, twoHundredRequestsAtOnceAllReturnTheirBytes) {
  ScriptedServer server(patternFile(20000));
  std::atomic<int> wrong{0};
  const std::string expected = patternBytes(0, 20000);
  std::vector<std::uint64_t> ids(136);
  for (auto& id : ids)
    ASSERT_EQ(xfer_downloadAsync(server.url("/").c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 4; ++i) wrong += download(server.url("/")).body != expected ? 1 : 0;
      for (std::size_t i = static_cast<std::size_t>(t); i < ids.size(); i += 16)
        wrong += collect(ids[i]).body != expected ? 1 : 0;
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

// ---- Remote sizes ----

struct Size {
  int code = 0;
  std::uint64_t size = 99;
  std::uint32_t type = 99;
};

Size sizeOf(const std::string& url, std::uint16_t retries) {
  Size result;
  result.code = xfer_getRemoteFileSize(url.c_str(), &result.size, &result.type, nullptr, nullptr, retries, nullptr);
  return result;
}

TEST(RemoteFileSize, isReadFromTheRangeOrTheLength) {
  ScriptedServer server([](const ReceivedRequest& request) {
    if (request.path() == "/total") return range206(request, 12345, {.contentType = "video/mp4"});
    if (request.path() == "/star") return range206(request, 12345, {.contentRange = "bytes 0-0/*"});
    return full200(777);
  });
  const Size total = sizeOf(server.url("/total"), 1);
  EXPECT_EQ(total.code, 0);
  EXPECT_EQ(total.size, 12345U);
  EXPECT_EQ(total.type, 1U);
  EXPECT_EQ(sizeOf(server.url("/star"), 1).size, 1U);
  EXPECT_EQ(sizeOf(server.url("/whole"), 1).size, 777U);
  EXPECT_EQ(server.requests()[0].header("Range"), "bytes=0-0");
}

TEST(RemoteFileSize, answerWithoutASizeIs100AndLogged) {
  ScriptedServer server([](const ReceivedRequest&) { return status(404, "page"); });
  const RecordingLogger log;
  const Size result = sizeOf(server.url("/"), 0);
  EXPECT_EQ(result.code, 100);
  EXPECT_EQ(result.size, 99U);
  EXPECT_EQ(server.requests().size(), 1U);
  const std::string text = "xfer_getRemoteFileSize: unexpected response, http=404 headers_len=# body_len=4";
  EXPECT_EQ(wholeLogError(log.records(), {failure(kXfer, 259, text)}), "") << "no trace of the request itself";
}

TEST(RemoteFileSize, asksAsOftenAsItIsTold) {
  ScriptedServer server([](const ReceivedRequest& request) { return request.number < 2 ? status(503) : full200(5); });
  EXPECT_EQ(sizeOf(server.url("/"), 3).size, 5U);
  EXPECT_EQ(server.requests().size(), 3U);
  EXPECT_EQ(sizeOf(unreachable(), 3).code, 7);
}

TEST(ContentLength, isTrueForMoreThanNothing) {
  ScriptedServer server([](const ReceivedRequest& request) { return full200(request.path() == "/none" ? 0 : 5000); });
  std::int64_t length = 0;
  EXPECT_TRUE(xfer_getContentLength(server.url("/"), &length));
  EXPECT_EQ(length, 5000);
  EXPECT_FALSE(xfer_getContentLength(server.url("/none"), &length));
  EXPECT_EQ(length, -1);
}

// ---- File downloads ----

struct Progress {
  std::uint64_t downloaded = 7777;
  std::uint32_t error = 8888;
  std::uint8_t finished = 99;
};

Progress progressOf(std::uint64_t id) {
  Progress progress;
  EXPECT_EQ(xfer_getProgress(id, &progress.downloaded, &progress.error, &progress.finished), 0);
  return progress;
}

Progress endOf(std::uint64_t id) {
  Progress progress;
  EXPECT_TRUE(waitUntil([&] { return (progress = progressOf(id)).finished == 1; }));
  return progress;
}

std::uint64_t start(const std::string& url, const std::string& path, std::uint16_t threads,
                    std::uint64_t knownSize = 0) {
  return xfer_downloadFile(url.c_str(), path.c_str(), nullptr, threads, nullptr, 0, knownSize, nullptr);
}

TEST(FileDownload, endsWithTheWholeFileAndIsReportedOnce) {
  ScriptedServer server(patternFile(3'000'000));
  const TempDir folder;
  const std::uint64_t id = start(server.url("/f"), folder.file("f"), 8);
  EXPECT_EQ(id, 1U);
  const Progress end = endOf(id);
  EXPECT_EQ(end.error, 0U);
  EXPECT_EQ(end.downloaded, 3'000'000U);
  EXPECT_EQ(patternError(folder.file("f"), 3'000'000), "");
  const Progress again = progressOf(id);
  EXPECT_EQ(again.finished, 1);
  EXPECT_EQ(again.error, 0U);
  EXPECT_EQ(again.downloaded, 0U);
  EXPECT_FALSE(xfer_stopDownloadHandle(id)) << "it is gone";
}

TEST(FileDownload, withoutANumberUsesTheModulesConnections) {
  ScriptedServer server(patternFile(100));
  const TempDir folder;
  const RecordingLogger log;
  endOf(start(server.url("/f"), folder.file("a"), 0));
  EXPECT_EQ(logError(log, trace(kBackend, "eventLoop | started | http2=no | max_conn=1")), "");
  xfer_setNumThreads(5);
  endOf(start(server.url("/f"), folder.file("b"), 0));
  EXPECT_EQ(logError(log, trace(kBackend, "eventLoop | started | http2=no | max_conn=5")), "");
  xfer_setNumThreads(0);
  EXPECT_EQ(endOf(start(server.url("/f"), folder.file("c"), 0)).error, 0U);
  EXPECT_EQ(logError(log, trace(kBackend, "eventLoop | started | http2=no | max_conn=1"), 2), "");
  xfer_setNumThreads(1);
}

TEST(FileDownload, failureIsReportedByItsCode) {
  ScriptedServer server([](const ReceivedRequest&) { return status(404); });
  const TempDir folder;
  EXPECT_EQ(endOf(start(server.url("/f"), folder.file("f"), 2)).error, 404U);
  EXPECT_EQ(endOf(start("", folder.file("f"), 2)).error, 3U);
  EXPECT_EQ(endOf(start(server.url("/f"), folder.file("no") + "/f", 2, 10)).error, 100004U);
  EXPECT_EQ(endOf(start("file:///etc/hostname", folder.file("f"), 2)).error, 1U);
}

TEST(FileDownload, failureIsReportedAgainByItsCodeAlone) {
  ScriptedServer server([](const ReceivedRequest& request) {
    return request.range->first == 0 ? range206(request, 2'000'000) : status(403);
  });
  const TempDir folder;
  const std::uint64_t id = start(server.url("/f"), folder.file("f"), 1, 2'000'000);
  const Progress end = endOf(id);
  EXPECT_EQ(end.downloaded, 1'048'576U) << "what came before the failure";
  EXPECT_NE(end.error, 0U);
  for (int again = 0; again < 2; ++again) {
    const Progress later = progressOf(id);
    EXPECT_EQ(later.finished, 1);
    EXPECT_EQ(later.error, end.error);
    EXPECT_EQ(later.downloaded, 0U);
  }
  EXPECT_EQ(xfer_downloadPause(id), 100001);
  EXPECT_EQ(xfer_downloadResume(id), 100001);
  EXPECT_FALSE(xfer_stopDownloadHandle(id));
}

TEST(FileDownload, unknownIdsAreToldApart) {
  const Progress none = progressOf(4242);
  EXPECT_EQ(none.finished, 1);
  EXPECT_EQ(none.downloaded, 7777U);
  EXPECT_EQ(none.error, 8888U);
  EXPECT_EQ(xfer_downloadPause(4242), 100001);
  EXPECT_EQ(xfer_downloadResume(4242), 100001);
  EXPECT_FALSE(xfer_stopDownloadHandle(4242));
}

TEST(FileDownload, stoppedDownloadIsForgottenAndItsPartialFileStays) {
  ScriptedServer server(
      [](const ReceivedRequest& request) { return range206(request, 1'000'000, {.bodyBytes = 1}).stall(); });
  const TempDir folder;
  const std::uint64_t id = start(server.url("/f"), folder.file("f"), 1, 1'000'000);
  ASSERT_TRUE(waitUntil([&] { return progressOf(id).downloaded > 0; }));
  const Progress running = progressOf(id);
  EXPECT_EQ(running.finished, 0);
  EXPECT_EQ(running.downloaded, 1U);
  EXPECT_EQ(running.error, 8888U) << "written at the end alone";
  EXPECT_TRUE(xfer_stopDownloadHandle(id));
  EXPECT_EQ(support::fileSize(folder.file("f")), 1'000'000U);
  const RecordingLogger log;
  EXPECT_EQ(progressOf(id).downloaded, 7777U);
  const std::string text = "xfer_getProgress | dl_id=" + std::to_string(id) + " not found!";
  EXPECT_EQ(wholeLogError(log.records(), {failure(kXfer, 625, text)}), "");
}

TEST(FileDownload, isHeldAndGoesOn) {
  ScriptedServer server([](const ReceivedRequest& request) {
    return range206(request, 2'000'000, {.pace = {.bytesEach = 20'000, .rest = std::chrono::milliseconds(10)}});
  });
  const TempDir folder;
  const std::uint64_t id = start(server.url("/f"), folder.file("f"), 1, 2'000'000);
  ASSERT_TRUE(waitUntil([&] { return progressOf(id).downloaded > 0; }));
  EXPECT_EQ(xfer_downloadPause(id), 0);
  // What was on its way when the pause was asked for still arrives; then nothing does.
  std::uint64_t held = 0;
  ASSERT_TRUE(waitUntil([&] {
    const std::uint64_t before = std::exchange(held, progressOf(id).downloaded);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return before == held && progressOf(id).downloaded == held;
  }));
  EXPECT_LT(held, 2'000'000U);
  EXPECT_EQ(xfer_downloadResume(id), 0);
  EXPECT_EQ(endOf(id).error, 0U);
  EXPECT_EQ(patternError(folder.file("f"), 2'000'000), "");
}

TEST(FileDownload, pauseOfAFinishedOneChangesNothing) {
  ScriptedServer server(patternFile(10));
  const TempDir folder;
  const RecordingLogger log;
  const std::uint64_t id = start(server.url("/f"), folder.file("f"), 1);
  ASSERT_TRUE(log.waitFor("finalize | "));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));  // asking for its state would end its life
  EXPECT_EQ(xfer_downloadPause(id), 0);
  const Progress end = endOf(id);
  EXPECT_EQ(end.finished, 1);
}

// ---- Buffers of the library's ----

TEST(Buffer, isFilledReadAndFreed) {
  ScriptedServer server(patternFile(1000));
  xfer_buffer* const headers = xfer_bufferNew();
  xfer_buffer* const body = xfer_bufferNew();
  ASSERT_NE(headers, nullptr);
  ASSERT_NE(body, nullptr);
  EXPECT_EQ(xfer_bufferSize(body), 0U);
  EXPECT_EQ(xfer_bufferData(body), nullptr);
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(xfer_download(server.url("/").c_str(), nullptr, nullptr, headers, body, nullptr, nullptr), 0);
    ASSERT_EQ(xfer_bufferSize(body), 1000U);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(xfer_bufferData(body)), 1000), support::patternBytes(0, 1000));
    EXPECT_GT(xfer_bufferSize(headers), 0U);
  }
  xfer_bufferFree(headers);
  xfer_bufferFree(body);
  xfer_bufferFree(nullptr);
}

TEST(Buffer, ofAHostCanBeReadToo) {
  sys::DataBuff own;
  own.assign(std::string("own"));
  EXPECT_EQ(xfer_bufferSize(&own), 3U);
  EXPECT_EQ(xfer_bufferData(&own), own.data());
}

}  // namespace
