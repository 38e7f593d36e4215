// Every log line of the C interface and of fetch, whole and in its order, and what leaves lines out: quiet threads,
// quiet requests and the host's threshold.  The source lines in these tests are a contract with hosts.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <thread>
#include <utility>
#include <vector>

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
#include "xfer/download_job.h"
#include "xfer/fetch.h"
#include "xfer/xfer.h"

namespace {

using support::failure;
using support::kBackend;
using support::kFetch;
using support::kJob;
using support::kRanges;
using support::kSink;
using support::kXfer;
using support::logError;
using support::LogLine;
using support::ReceivedRequest;
using support::recovery;
using support::Reply;
using support::ScriptedServer;
using support::trace;
using support::wholeLogError;
using Lines = std::vector<LogLine>;

constexpr int kNobodyListens = CURLE_COULDNT_CONNECT;

class QuietThread {
 public:
  QuietThread() { xfer_setQuietMode(true); }
  ~QuietThread() { xfer_setQuietMode(false); }
  QuietThread(const QuietThread&) = delete;
  QuietThread& operator=(const QuietThread&) = delete;
};

class LogLines : public testing::Test {
 protected:
  int download(const std::string& from) {
    sys::DataBuff body;
    return download(from, body);
  }

  int download(const std::string& from, sys::IDataBuff& body) {
    sys::DataBuff headers;
    return xfer_download(from.c_str(), nullptr, nullptr, &headers, &body, nullptr, nullptr);
  }

  std::int32_t downloadText(const char* from, sys::IDataBuff& body) {
    sys::DataBuff headers;
    return xfer_downloadText(from, nullptr, &headers, &body, nullptr);
  }

  std::int32_t collect(std::uint64_t id) {
    sys::DataBuff headers;
    sys::DataBuff body;
    return xfer_queryAsyncBuffer(id, &headers, &body);
  }

  // One connection, of a size that needs no probe.
  [[nodiscard]] std::uint64_t start(const std::string& from, std::uint16_t threads = 1) const {
    return xfer_downloadFile(from.c_str(), path.c_str(), nullptr, threads, nullptr, 0, 10, nullptr);
  }

  static std::uint8_t progressOf(std::uint64_t id) {
    std::uint64_t downloaded = 0;
    std::uint32_t error = 0;
    std::uint8_t finished = 0;
    EXPECT_EQ(xfer_getProgress(id, &downloaded, &error, &finished), 0);
    return finished;
  }

  static void awaitEnd(std::uint64_t id) {
    EXPECT_TRUE(support::waitUntil([&] { return progressOf(id) == 1; }));
  }

  // What a transfer that nobody answers leaves.
  [[nodiscard]] static LogLine nobodyAnswered() {
    return failure(kFetch, 235,
                   "fetch | curl error 7 (" + std::string(curl_easy_strerror(CURLE_COULDNT_CONNECT)) + ")");
  }

  void expectLog(const Lines& lines) const { EXPECT_EQ(wholeLogError(log.records(), lines), ""); }

  const support::TempDir folder;
  const std::string path = folder.file("out.bin");
  const support::UnusedPort nobody;
  const std::string unreachable = nobody.url("/");
  ScriptedServer server{support::patternFile(10)};
  const std::string url = server.url("/x");
  support::RecordingLogger log;
};

// ---- fetch ----

TEST_F(LogLines, ofARequestAreItsStartAndItsEnd) {
  xfer::Request request;
  request.url = url;
  xfer::fetch(request);
  expectLog({trace(kFetch, 224, "--> fetch | " + url), trace(kFetch, 242, "<-- fetch | status=200 | body_size=10")});
}

TEST_F(LogLines, ofAFailedRequestSayWhyAndReportStatus0AndWhatArrived) {
  server.setHandler([](const ReceivedRequest&) { return support::full200(1000, {.bodyBytes = 10}).close(); });
  xfer::Request request;
  request.url = url;
  xfer::fetch(request);
  expectLog(
      {trace(kFetch, 224, "--> fetch | " + url),
       failure(kFetch, 235, "fetch | curl error 18 (" + std::string(curl_easy_strerror(CURLE_PARTIAL_FILE)) + ")"),
       trace(kFetch, 242, "<-- fetch | status=0 | body_size=10")});
}

TEST_F(LogLines, ofAnErrorPageAreThoseOfASuccess) {
  server.setHandler([](const ReceivedRequest&) { return support::status(404, "gone"); });
  xfer::Request request;
  request.url = url;
  xfer::fetch(request);
  expectLog({trace(kFetch, 224, "--> fetch | " + url), trace(kFetch, 242, "<-- fetch | status=404 | body_size=4")});
}

TEST_F(LogLines, ofAQuietRequestAreNone) {
  xfer::Request request;
  request.quiet = true;
  for (const std::string& asked : {url, unreachable}) {
    request.url = asked;
    xfer::fetch(request);
  }
  EXPECT_EQ(xfer::getContentLength(url, {}, {}), 10);
  EXPECT_EQ(xfer::getContentLength(unreachable, {}, {}), -1);
  EXPECT_EQ(xfer::probeRemoteFile(url, {}, {}, 5).size, 10U);
  EXPECT_EQ(xfer::probeRemoteFile(unreachable, {}, {}, 5).error, kNobodyListens);
  server.setHandler([](const ReceivedRequest&) { return support::status(404); });
  EXPECT_EQ(xfer::probeRemoteFile(url, {}, {}, 5).error, 404);
  expectLog({});
}

// ---- xfer_download ----

TEST_F(LogLines, ofADownloadStandAroundThoseOfItsRequest) {
  EXPECT_EQ(download(url), 0);
  expectLog({trace(kXfer, 291, "--> xfer_download | " + url), trace(kFetch, 224, "--> fetch | " + url),
             trace(kFetch, 242, "<-- fetch | status=200 | body_size=10"), trace(kXfer, 341, "<-- xfer_download")});
}

TEST_F(LogLines, ofAFailedDownloadEndWithItsCodeInPlaceOfTheExit) {
  EXPECT_EQ(download(unreachable), kNobodyListens);
  expectLog({trace(kXfer, 291, "--> xfer_download | " + unreachable), trace(kFetch, 224, "--> fetch | " + unreachable),
             nobodyAnswered(), trace(kFetch, 242, "<-- fetch | status=0 | body_size=0"),
             failure(kXfer, 329, "fetch error: curl code 7")});
}

TEST_F(LogLines, ofADownloadWithoutABodyHaveNoExit) {
  server.setHandler([](const ReceivedRequest&) { return support::status(200); });
  EXPECT_EQ(download(url), 100009);
  expectLog({trace(kXfer, 291, "--> xfer_download | " + url), trace(kFetch, 224, "--> fetch | " + url),
             trace(kFetch, 242, "<-- fetch | status=200 | body_size=0")});
}

TEST_F(LogLines, ofADownloadWhoseBufferThrowsHaveTheExceptionAndTheExit) {
  support::DenyingBuffer body(10, true);
  EXPECT_EQ(download(url, body), 100000);
  expectLog({trace(kXfer, 291, "--> xfer_download | " + url), trace(kFetch, 224, "--> fetch | " + url),
             trace(kFetch, 242, "<-- fetch | status=200 | body_size=10"),
             failure(kXfer, 336, "xfer_download exception"), trace(kXfer, 341, "<-- xfer_download")});
}

TEST_F(LogLines, ofANullUrlPrintItAsEmpty) {
  sys::DataBuff buff;
  EXPECT_EQ(xfer_download(nullptr, nullptr, nullptr, &buff, &buff, nullptr, nullptr), CURLE_URL_MALFORMAT);
  EXPECT_EQ(logError(log, trace(kXfer, 291, "--> xfer_download | ")), "");
  EXPECT_EQ(logError(log, failure(kXfer, 329, "fetch error: curl code 3")), "");
}

// ---- Quiet threads ----

TEST_F(LogLines, ofAQuietThreadsDownloadAreItsFailuresAlone) {
  const QuietThread quiet;
  EXPECT_EQ(download(url), 0);
  expectLog({});
  EXPECT_EQ(download(unreachable), kNobodyListens);
  support::DenyingBuffer body(10, true);
  EXPECT_EQ(download(url, body), 100000);
  expectLog({failure(kXfer, 329, "fetch error: curl code 7"), failure(kXfer, 336, "xfer_download exception")});
}

TEST_F(LogLines, areBackOnceTheThreadIsQuietNoMore) {
  { const QuietThread quiet; }
  download(url);
  EXPECT_EQ(log.records().size(), 4U);
}

TEST_F(LogLines, ofOtherThreadsAreLeftByAQuietOne) {
  const QuietThread quiet;
  std::thread([this] { download(url); }).join();
  EXPECT_EQ(log.records().size(), 4U);
  download(url);
  EXPECT_EQ(log.records().size(), 4U);
}

TEST_F(LogLines, ofAThreadAreLeftByOthersThatAreQuiet) {
  std::thread([this] {
    xfer_setQuietMode(true);
    download(url);
  }).join();
  expectLog({});
  download(url);
  EXPECT_EQ(log.records().size(), 4U);
}

// Quiet is the synchronous download's alone.
TEST_F(LogLines, ofOtherFunctionsAreWrittenByAQuietThreadToo) {
  const QuietThread quiet;
  std::uint64_t id = 0;
  ASSERT_EQ(xfer_downloadAsync(url.c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(collect(id), 0);
  EXPECT_EQ(logError(log, trace(kXfer, 434, "--> xfer_downloadAsync | " + url)), "");
  EXPECT_EQ(logError(log, trace(kFetch, 224, "--> fetch | " + url)), "");
  EXPECT_EQ(logError(log, trace(kFetch, 242, "<-- fetch | status=200 | body_size=10")), "");
  EXPECT_EQ(logError(log, trace(kXfer, 461, "<-- xfer_downloadAsync")), "");
  log.clear();
  xfer_setNumThreads(1);
  EXPECT_EQ(xfer_downloadPause(4242), 100001);
  expectLog({trace(kXfer, 635, "--> xfer_setNumThreads | value = 1"), trace(kXfer, 540, "--> xfer_downloadPause"),
             failure(kXfer, 546, "xfer_downloadPause | dl_id=4242 not found")});
}

// ---- xfer_downloadText ----

TEST_F(LogLines, ofATextDownloadAreThoseOfTheDownloadInIt) {
  for (const int status : {200, 404}) {
    server.setHandler([status](const ReceivedRequest&) { return support::status(status, "page"); });
    log.clear();
    sys::DataBuff body;
    EXPECT_EQ(downloadText(url.c_str(), body), status == 200 ? 0 : -1404);
    expectLog({trace(kXfer, 291, "--> xfer_download | " + url), trace(kFetch, 224, "--> fetch | " + url),
               trace(kFetch, 242, "<-- fetch | status=" + std::to_string(status) + " | body_size=4"),
               trace(kXfer, 341, "<-- xfer_download")});
  }
}

TEST_F(LogLines, ofATextDownloadsOwnFailuresAreNone) {
  sys::DataBuff untouched;
  EXPECT_EQ(downloadText(nullptr, untouched), 100001);
  expectLog({});
  support::DenyingBuffer body(10, true);
  EXPECT_EQ(downloadText(url.c_str(), body), -1);
  EXPECT_EQ(log.records().size(), 4U) << "those of the download in it";
  EXPECT_EQ(wholeLogError(support::recordsUpTo(log, 4), {}), "");
}

// ---- Asynchronous downloads ----

// The request's own lines are another thread's: they come before or after the exit.
TEST_F(LogLines, ofAnAsynchronousDownloadAreItsEntryItsExitAndThoseOfItsRequest) {
  std::uint64_t id = 0;
  ASSERT_EQ(xfer_downloadAsync(url.c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(collect(id), 0);
  const auto records = log.records();
  ASSERT_EQ(records.size(), 4U) << "a collection is not traced";
  EXPECT_EQ(wholeLogError({records.front()}, {trace(kXfer, 434, "--> xfer_downloadAsync | " + url)}), "");
  EXPECT_EQ(logError(log, trace(kXfer, 461, "<-- xfer_downloadAsync")), "");
  EXPECT_EQ(logError(log, trace(kFetch, 224, "--> fetch | " + url)), "");
  EXPECT_EQ(logError(log, trace(kFetch, 242, "<-- fetch | status=200 | body_size=10")), "");
}

TEST_F(LogLines, ofAFailedAsynchronousDownloadGiveTheCodeAtItsCollection) {
  std::uint64_t id = 0;
  ASSERT_EQ(xfer_downloadAsync(unreachable.c_str(), &id, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(collect(id), kNobodyListens);
  const auto records = log.records();
  ASSERT_EQ(records.size(), 6U);
  EXPECT_EQ(wholeLogError({records.back()}, {failure(kXfer, 496, "fetch error: curl code 7")}), "");
  EXPECT_EQ(logError(log, trace(kXfer, 461, "<-- xfer_downloadAsync")), "");
  EXPECT_EQ(logError(log, nobodyAnswered()), "");
  EXPECT_EQ(logError(log, trace(kFetch, 242, "<-- fetch | status=0 | body_size=0")), "");
}

TEST_F(LogLines, ofACollectionThatFindsNothingAreOne) {
  EXPECT_EQ(collect(4242), 100001);
  expectLog({failure(kXfer, 473, "xfer_queryAsyncBuffer | dl_id=4242 not found")});
}

TEST_F(LogLines, ofANullUrlInTheBackgroundPrintItAsEmpty) {
  std::uint64_t id = 0;
  ASSERT_EQ(xfer_downloadAsync(nullptr, &id, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(collect(id), CURLE_URL_MALFORMAT);
  EXPECT_EQ(logError(log, trace(kXfer, 434, "--> xfer_downloadAsync | ")), "");
}

// ---- File downloads ----

TEST_F(LogLines, ofAFileDownloadShowTheArgumentsAndTheNumberOfConnectionsFromTwoOn) {
  for (const auto& [threads, prefix] : std::vector<std::pair<std::uint16_t, std::string>>{
           {0, ""}, {1, ""}, {2, "(x2) "}, {8, "(x8) "}, {65535, "(x65535) "}}) {
    log.clear();
    const std::uint64_t id = start(url, threads);
    awaitEnd(id);
    const std::string text = "--> xfer_downloadFile | " + prefix + url + " | " + path + " | known_size=10";
    EXPECT_EQ(wholeLogError(support::recordsOf(log, kXfer), {trace(kXfer, 515, text)}), "") << "there is no exit";
  }
}

TEST_F(LogLines, ofAFileDownloadOfNullsPrintThemAsEmpty) {
  const std::uint64_t id = xfer_downloadFile(nullptr, nullptr, nullptr, 1, nullptr, 0, 0, nullptr);
  awaitEnd(id);
  EXPECT_EQ(logError(log, trace(kXfer, 515, "--> xfer_downloadFile |  |  | known_size=0")), "");
}

TEST_F(LogLines, ofAnIdThatNobodyHasSayThatItIsNotFound) {
  EXPECT_EQ(progressOf(4242), 1);
  EXPECT_EQ(xfer_downloadPause(4242), 100001);
  EXPECT_EQ(xfer_downloadResume(4242), 100001);
  EXPECT_FALSE(xfer_stopDownloadHandle(4242));
  expectLog(
      {failure(kXfer, 625, "xfer_getProgress | dl_id=4242 not found!"), trace(kXfer, 540, "--> xfer_downloadPause"),
       failure(kXfer, 546, "xfer_downloadPause | dl_id=4242 not found"), trace(kXfer, 554, "--> xfer_downloadResume"),
       failure(kXfer, 560, "xfer_downloadResume | dl_id=4242 not found"),
       trace(kXfer, 568, "--> xfer_stopDownloadHandle"),
       failure(kXfer, 576, "xfer_stopDownloadHandle | dl_id=4242 not found!")});
}

TEST_F(LogLines, ofALiveDownloadsControlAreTheEntriesAlone) {
  server.setHandler(
      [](const ReceivedRequest& request) { return support::range206(request, 10, {.bodyBytes = 1}).stall(); });
  const std::uint64_t id = start(url);
  ASSERT_TRUE(server.waitForRequests(1));
  log.clear();
  EXPECT_EQ(progressOf(id), 0);
  EXPECT_EQ(xfer_downloadPause(id), 0);
  EXPECT_EQ(xfer_downloadResume(id), 0);
  EXPECT_TRUE(xfer_stopDownloadHandle(id));
  EXPECT_EQ(wholeLogError(support::recordsOf(log, kXfer),
                          {trace(kXfer, 540, "--> xfer_downloadPause"), trace(kXfer, 554, "--> xfer_downloadResume"),
                           trace(kXfer, 568, "--> xfer_stopDownloadHandle")}),
            "");
}

TEST_F(LogLines, ofAReportedDownloadTellThatItIsGone) {
  const std::uint64_t id = start(url);
  awaitEnd(id);
  log.clear();
  EXPECT_EQ(progressOf(id), 1);
  expectLog({});
  const std::string name = " | dl_id=" + std::to_string(id) + " not found";
  EXPECT_EQ(xfer_downloadPause(id), 100001);
  EXPECT_EQ(xfer_downloadResume(id), 100001);
  EXPECT_FALSE(xfer_stopDownloadHandle(id));
  EXPECT_EQ(wholeLogError(support::recordsUpTo(log, 4), {failure(kXfer, 546, "xfer_downloadPause" + name),
                                                         failure(kXfer, 560, "xfer_downloadResume" + name),
                                                         failure(kXfer, 576, "xfer_stopDownloadHandle" + name + "!")}),
            "");
}

// ---- Remote sizes ----

TEST_F(LogLines, ofASizeQueryThatFindsTheSizeOrNobodyAreNone) {
  std::uint64_t size = 0;
  std::uint32_t type = 0;
  EXPECT_EQ(xfer_getRemoteFileSize(url.c_str(), &size, &type, nullptr, nullptr, 1, nullptr), 0);
  EXPECT_EQ(xfer_getRemoteFileSize(unreachable.c_str(), &size, &type, nullptr, nullptr, 3, nullptr), kNobodyListens);
  std::int64_t length = 0;
  EXPECT_TRUE(xfer_getContentLength(url, &length));
  EXPECT_FALSE(xfer_getContentLength(unreachable, &length));
  expectLog({});
}

TEST_F(LogLines, ofASizeQueryGiveEachAnswerWithoutASizeWithItsLengths) {
  const std::string answer = "HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\n";
  server.setHandler([&](const ReceivedRequest&) { return Reply().send(answer + "gone"); });
  std::uint64_t size = 0;
  std::uint32_t type = 0;
  EXPECT_EQ(xfer_getRemoteFileSize(url.c_str(), &size, &type, nullptr, nullptr, 3, nullptr), 100);
  const LogLine line =
      failure(kXfer, 259,
              "xfer_getRemoteFileSize: unexpected response, http=404 headers_len=" + std::to_string(answer.size()) +
                  " body_len=4");
  expectLog({line, line, line});
}

// ---- Settings ----

TEST_F(LogLines, ofTheSettersAreTheirEntries) {
  xfer_setProxy("user:secret@10.0.0.5:3128");
  xfer_setProxy(nullptr);
  xfer_setNumThreads(0);
  xfer_setNumThreads(65535);
  xfer_setNumThreads(1);
  expectLog({trace(kXfer, 185, "--> xfer_setProxy"), trace(kXfer, 185, "--> xfer_setProxy"),
             trace(kXfer, 635, "--> xfer_setNumThreads | value = 0"),
             trace(kXfer, 635, "--> xfer_setNumThreads | value = 65535"),
             trace(kXfer, 635, "--> xfer_setNumThreads | value = 1")});
}

TEST_F(LogLines, ofSpeedQuietModeAndInitialisationAreNone) {
  xfer_setMaxDownloadSpeed(5);
  xfer_setMaxDownloadSpeed(0);
  xfer_setQuietMode(true);
  xfer_setQuietMode(false);
  xfer_ensureCurlInit();
  expectLog({});
}

// ---- Thresholds ----

// One connection, so that all of them come in one order but for the loop's start: a range that is busy at first.
class Thresholds : public LogLines {
 protected:
  std::vector<support::Record> recordsAt(std::uint32_t threshold) {
    const std::size_t before = server.requests().size();
    server.setHandler([before](const ReceivedRequest& request) {
      return request.number == before ? support::status(503, "busy") : support::range206(request, 10);
    });
    log.clear();
    Keel::setLogThreshold(threshold);
    const std::uint64_t id = start(url);
    EXPECT_TRUE(support::waitUntil([&] { return support::patternError(path, 10).empty() && progressOf(id) == 1; }));
    auto records = log.records();
    std::stable_partition(records.begin(), records.end(),
                          [](const support::Record& record) { return record.text.starts_with("eventLoop | started"); });
    return records;
  }

  const Lines lines{trace(kBackend, "eventLoop | started | http2=no | max_conn=1"),
                    trace(kXfer, 515, "--> xfer_downloadFile | " + url + " | " + path + " | known_size=10"),
                    trace(kSink, "open | " + path + " | size=10"),
                    trace(kRanges, "buildRanges | total=10 | chunks=1 | max_chunk=16777216 | first=10 | last=10"),
                    trace(kBackend, "submit | range=0 | cookie_len=0 | hdr_count=0 | url=" + url),
                    recovery(kBackend, "short transfer | range=0 | expected=10 | got=0"),
                    trace(kBackend, "done | range=0 | err=18 | http=503 | bytes=0"),
                    failure(kBackend, "HTTP 503 response body (4 bytes): busy"),
                    recovery(kJob, "retry scheduled | range=0 | attempt=1 | delay_ms=500 | err=18 | http=503"),
                    recovery(kRanges, "fail | re-queued range start=0"),
                    trace(kBackend, "submit | range=0 | cookie_len=0 | hdr_count=0 | url=" + url),
                    trace(kBackend, "done | range=0 | err=0 | http=206 | bytes=10"),
                    trace(kSink, "finalize | " + path + " | size=10"),
                    trace(kBackend, "eventLoop | stopped")};
};

TEST_F(Thresholds, letThroughWhatIsOfTheirLevelAndBelow) {
  for (const std::uint32_t threshold : {2U, 3U, 4U, 5U, 6U, 7U}) {
    Lines expected = lines;
    std::erase_if(expected, [&](const LogLine& line) { return line.level > threshold; });
    EXPECT_EQ(wholeLogError(recordsAt(threshold), expected), "") << "threshold " << threshold;
  }
}

TEST_F(Thresholds, changeNothingElse) {
  for (const std::uint32_t threshold : {0U, 6U}) {
    Keel::setLogThreshold(threshold);
    log.clear();
    EXPECT_EQ(download(url), 0);
    EXPECT_EQ(download(unreachable), kNobodyListens);
    EXPECT_EQ(log.records().size(), threshold == 6 ? 9U : 0U);
  }
}

// ---- No logger at all ----

// What a host sees of each function, one after the other.
class WithoutLogger : public LogLines {
 protected:
  std::vector<std::string> outcomes() {
    std::vector<std::string> seen;
    const auto note = [&seen](std::int64_t code, sys::DataBuff& headers, sys::DataBuff& body) {
      seen.push_back(std::to_string(code) + " " + headers.toString() + body.toString());
    };
    for (const std::string& from : {url, unreachable}) {
      sys::DataBuff headers;
      sys::DataBuff body;
      note(xfer_download(from.c_str(), nullptr, nullptr, &headers, &body, nullptr, nullptr), headers, body);
      note(xfer_downloadText(from.c_str(), nullptr, &headers, &body, nullptr), headers, body);
      std::uint64_t id = 0;
      note(xfer_downloadAsync(from.c_str(), &id, nullptr, nullptr, nullptr, nullptr), headers, body);
      note(xfer_queryAsyncBuffer(id, &headers, &body), headers, body);
      note(xfer_queryAsyncBuffer(id, &headers, &body), headers, body);
      std::uint64_t size = 99;
      std::uint32_t type = 99;
      const std::int32_t code = xfer_getRemoteFileSize(from.c_str(), &size, &type, nullptr, nullptr, 2, nullptr);
      std::int64_t length = 99;
      const bool known = xfer_getContentLength(from, &length);
      seen.push_back(std::to_string(code) + " " + std::to_string(size) + " " + std::to_string(type) + " " +
                     std::to_string(known) + " " + std::to_string(length));
      const std::uint64_t job = start(from);
      if (from == url) {
        awaitEnd(job);
        seen.push_back(support::patternError(path, 10));
      }
      seen.push_back(std::to_string(xfer_downloadPause(job)) + " " + std::to_string(xfer_downloadResume(job)) + " " +
                     std::to_string(xfer_stopDownloadHandle(job)) + " " + std::to_string(progressOf(job)));
    }
    sys::DataBuff headers;
    support::DenyingBuffer throwing(10, true);
    seen.push_back(std::to_string(xfer_download(url.c_str(), nullptr, nullptr, &headers, &throwing, nullptr, nullptr)));
    server.setHandler([](const ReceivedRequest&) { return support::status(404); });
    std::uint64_t size = 99;
    std::uint32_t type = 99;
    seen.push_back(std::to_string(xfer_getRemoteFileSize(url.c_str(), &size, &type, nullptr, nullptr, 1, nullptr)));
    server.setHandler(support::patternFile(10));
    xfer_setProxy(nullptr);
    xfer_setNumThreads(1);
    return seen;
  }
};

TEST_F(WithoutLogger, everyFunctionDoesTheSame) {
  const auto logged = outcomes();
  EXPECT_FALSE(log.records().empty());
  log.clear();
  Keel::setRecordSink(nullptr, nullptr);
  EXPECT_EQ(outcomes(), logged);
  EXPECT_TRUE(log.records().empty());
}

// ---- The end: no fetch follows in this process ----

TEST_F(LogLines, ofTheCleanUpAreOneWithoutAnArrowAndTheShareIsGone) {
  xfer_ensureCurlInit();
  EXPECT_NE(xfer::shareHandle(), nullptr);
  xfer_curlGlobalCleanup();
  EXPECT_EQ(xfer::shareHandle(), nullptr);
  xfer_ensureCurlInit();
  EXPECT_EQ(xfer::shareHandle(), nullptr) << "the library comes up once";
  xfer::Request request;
  request.url = url;
  request.quiet = true;
  EXPECT_EQ(xfer::fetch(request).status, 200) << "without a share";
  expectLog({trace(kXfer, 194, "xfer_curlGlobalCleanup")});
}

}  // namespace
