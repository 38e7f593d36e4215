// What a job asks a server before a download whose size it does not know, and what it makes of the answer.  With an
// adaptive plan this is the first range.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "remote_file.h"
#include "support/gate.h"
#include "support/job_run.h"
#include "support/log_line.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "xfer/download_job.h"

namespace {

using std::chrono::steady_clock;
using support::chunksOf;
using support::full200;
using support::Gate;
using support::patternError;
using support::patternFile;
using support::range206;
using support::ReceivedRequest;
using support::Reply;
using support::requestFor;
using support::run;
using support::ScriptedServer;
using support::status;
using support::waitUntil;
using xfer::DownloadJob;
using xfer::DownloadRequest;
using xfer::DownloadSnapshot;
using xfer::JobState;
using xfer::RemoteFileInfo;

constexpr std::uint64_t kChunk = 16 * 1024;
constexpr std::uint64_t kSize = 5 * kChunk + 7;
constexpr std::uint64_t kMostDrained = 64 * 1024;
constexpr int kTimeoutSec = 30;  // longer than any of these probes may take
constexpr std::int32_t kWeirdServerReply = 8;
constexpr std::int32_t kRangeError = 33;

xfer::ProbedFile probe(const DownloadRequest& request) {
  const xfer::StopSignal never;
  return xfer::probeStoppable(request, kTimeoutSec, never);
}

xfer::ProbedFile probe(const ScriptedServer& server) {
  return probe(requestFor(server.url("/file"), ""));
}

RemoteFileInfo probeOf(const std::string& answer) {
  const ScriptedServer server([&](const ReceivedRequest&) { return Reply().send(answer).close(); });
  return probe(server);
}

bool isProbe(const ReceivedRequest& request) {
  return request.range == support::RequestedRange{0, support::adaptivePlan() ? kChunk - 1 : 0};
}

// ---- The request ----

TEST(JobProbe, sendsTheJobsHeaderLinesAndItsOwnRange) {
  const ScriptedServer server(patternFile(kSize));
  DownloadRequest request = requestFor(server.url("/file"), "");
  request.headers = {"Authorization: Bearer x", "Range: bytes=5-9", "X-Range: 1",  "rANGE: bytes=1-",
                     "Range : bytes=2-",        "Range;",           "Range-Of: 2", "User-Agent: host"};
  request.cookie = "a=b";
  EXPECT_EQ(probe(request).size, kSize);
  const ReceivedRequest received = server.requests().at(0);
  EXPECT_EQ(received.header("Authorization"), "Bearer x");
  EXPECT_EQ(received.header("X-Range"), "1");
  EXPECT_EQ(received.header("Range-Of"), "2");
  EXPECT_EQ(received.header("User-Agent"), "host");
  EXPECT_EQ(received.header("Cookie"), "a=b");
  std::vector<std::string> ranges;
  for (const std::string& line : received.headerLines) {
    if (line.starts_with("Range:") || line.starts_with("Range ") || line.starts_with("rANGE")) ranges.push_back(line);
  }
  EXPECT_EQ(ranges, std::vector<std::string>{"Range: bytes=0-0"});
}

TEST(JobProbe, headerLinesThatWouldAddALineAreRefused) {
  const ScriptedServer server(patternFile(kSize));
  DownloadRequest request = requestFor(server.url("/file"), "");
  request.headers = {"X: a\r\nY: b"};
  EXPECT_EQ(probe(request).error, 43);
  EXPECT_EQ(server.connectionsAccepted(), 0U);
}

// ---- The answer ----

TEST(JobProbe, headersOfARedirectSayNothing) {
  const ScriptedServer server([](const ReceivedRequest& request) {
    if (request.path() == "/file") {
      return status(302, std::string(145, 'x'), {"Location: /moved", "Accept-Ranges: bytes", "Content-Type: text/x"});
    }
    return full200(10, {.contentType = "", .acceptRanges = false, .framing = support::Framing::Chunked});
  });
  const RemoteFileInfo info = probe(server);
  EXPECT_EQ(server.requests().size(), 2U);
  EXPECT_EQ(info.error, 0);
  EXPECT_EQ(info.httpStatus, 200);
  EXPECT_EQ(info.size, 0U);
  EXPECT_FALSE(info.acceptRanges);
  EXPECT_EQ(info.contentType, "");
}

TEST(JobProbe, trailersSayNothing) {
  const RemoteFileInfo info = probeOf(
      "HTTP/1.1 206 x\r\nTransfer-Encoding: chunked\r\nContent-Type: a/b\r\n\r\n1\r\na\r\n0\r\n"
      "Content-Range: bytes 0-0/5\r\nContent-Type: c/d\r\n\r\n");
  EXPECT_EQ(info.error, 0);
  EXPECT_EQ(info.size, 0U);
  EXPECT_EQ(info.contentType, "a/b");
}

TEST(JobProbe, lengthsThatDifferAreARangeErrorAndLogged) {
  for (const char* status : {"200 OK", "206 x"}) {
    const ScriptedServer server([&](const ReceivedRequest&) {
      return Reply()
          .send("HTTP/1.1 " + std::string(status) + "\r\nContent-Length: 1\r\nContent-Length: 9\r\n\r\na")
          .stall();
    });
    const support::RecordingLogger log;
    const xfer::ProbedFile info = probe(server);
    if (info.error == kWeirdServerReply) continue;  // a libcurl that refuses the answer by itself
    EXPECT_EQ(info.error, kRangeError) << status;
    EXPECT_EQ(info.failure.view(), "Content-Length values differ");
    const char* const text = "probe | answer refused | reason=Content-Length values differ";
    EXPECT_EQ(support::wholeLogError(log.records(), {support::failure(support::kJob, text)}), "")
        << "no trace of the request itself";
  }
}

TEST(JobProbe, failedRequestGivesItsCodeAndNothingElse) {
  const RemoteFileInfo info = probeOf("");
  EXPECT_EQ(info.error, 52);
  EXPECT_EQ(info.httpStatus, 0);
  EXPECT_EQ(info.size, 0U);
  EXPECT_FALSE(info.acceptRanges);
  EXPECT_EQ(info.contentType, "");
}

// ---- Bodies ----

TEST(JobProbe, smallBodyLeavesItsConnectionForTheNextRequest) {
  for (const auto& [code, bytes] : {std::pair(200, std::uint64_t{10}), {200, kMostDrained}, {404, 10}, {206, 1}}) {
    const ScriptedServer server([code = code, bytes = bytes](const ReceivedRequest& request) {
      if (code == 206) return range206(request, kSize, {.framing = support::Framing::Chunked});
      if (code == 404) return status(404, support::patternBytes(0, bytes));
      return full200(bytes);
    });
    EXPECT_EQ(probe(server).httpStatus, code);
    EXPECT_EQ(probe(server).httpStatus, code);
    EXPECT_EQ(server.requests().size(), 2U);
    EXPECT_EQ(server.connectionsAccepted(), 1U) << code << " with " << bytes << " bytes";
  }
}

// No byte of these bodies but the first arrives: an answer that goes on is not waited for.
TEST(JobProbe, endsWithTheFirstByteOfABodyThatIsLargeOrOfUnknownLength) {
  for (const char* head : {"200 OK\r\nContent-Length: 65537", "200 OK\r\nTransfer-Encoding: chunked", "200 OK\r\nX: x",
                           "404 No\r\nContent-Length: 65537", "206 x\r\nContent-Length: 65537",
                           "200 OK\r\nContent-Length: 99999999999999999999"}) {
    const ScriptedServer server([&](const ReceivedRequest&) {
      return Reply().send("HTTP/1.1 " + std::string(head) + "\r\n\r\n1\r\na\r\n").stall();
    });
    const auto begin = steady_clock::now();
    const RemoteFileInfo info = probe(server);
    EXPECT_LT(steady_clock::now() - begin, support::testTimeout() / 10) << head;
    EXPECT_EQ(info.httpStatus, std::stoi(head));
    EXPECT_EQ(info.error, info.httpStatus == 404 ? 404 : 0) << head;
    EXPECT_EQ(info.size, info.httpStatus == 200 && std::string(head).ends_with("65537") ? 65537U : 0U);
  }
}

TEST(JobProbe, endsWithTheHeadOfALargeFileWhoseBodyStalls) {
  for (const char* const framing : {"Content-Length: 65537\r\n", "Transfer-Encoding: chunked\r\n", ""}) {
    const ScriptedServer server([framing](const ReceivedRequest&) {
      return Reply().send(std::string("HTTP/1.1 200 OK\r\n") + framing + "\r\n").stall();
    });
    const auto begin = steady_clock::now();
    const RemoteFileInfo info = probe(server);
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds(kTimeoutSec) / 2) << framing;
    EXPECT_EQ(info.error, 0) << framing;
    EXPECT_EQ(info.httpStatus, 200) << framing;
  }
}

TEST(JobProbe, bodyThatBreaksOffChangesNothingOfWhatTheHeadSaid) {
  const RemoteFileInfo whole = probeOf("HTTP/1.1 200 OK\r\nContent-Length: 500\r\n\r\nonly this");
  EXPECT_EQ(whole.error, 0);
  EXPECT_EQ(whole.size, 500U);
  const RemoteFileInfo range = probeOf("HTTP/1.1 206 x\r\nContent-Range: bytes 0-0/77\r\nContent-Length: 1\r\n\r\n");
  EXPECT_EQ(range.error, 0);
  EXPECT_EQ(range.size, 77U);
  EXPECT_TRUE(range.acceptRanges);
}

TEST(JobProbe, answerOfAProxyToConnectIsNoHead) {
  // The tunnel stands, and then nothing comes.
  const ScriptedServer proxy([](const ReceivedRequest&) {
    return Reply().send("HTTP/1.1 200 Connection established\r\nX: y\r\n\r\n").close();
  });
  DownloadRequest request = requestFor("https://127.0.0.1:1/file", "");
  request.proxy.host = "127.0.0.1";
  request.proxy.port = proxy.port();
  const RemoteFileInfo info = probe(request);
  EXPECT_NE(info.error, 0);
  EXPECT_EQ(info.httpStatus, 0);
}

TEST(JobProbe, readsLittleOfALargeBody) {
  constexpr std::uint64_t large = 400 * 1024 * 1024;
  constexpr std::uint64_t more = 32 * 1024 * 1024;  // than both sides' socket buffers hold
  for (const int code : {200, 206, 404}) {
    const Gate passed;
    const ScriptedServer server([&](const ReceivedRequest&) {
      return Reply()
          .send("HTTP/1.1 " + std::to_string(code) + " x\r\nContent-Length: " + std::to_string(large) + "\r\n\r\n")
          .sendPattern(0, more)
          .open(passed)
          .sendPattern(more, large);
    });
    EXPECT_EQ(probe(server).httpStatus, code);
    EXPECT_TRUE(waitUntil([&] { return server.openConnections() == 0; }));
    EXPECT_FALSE(passed.isOpen());
  }
}

TEST(JobProbe, endlessRangeIsReadUpToALimit) {
  const ScriptedServer server([](const ReceivedRequest&) {
    return Reply()
        .send("HTTP/1.1 206 x\r\nContent-Range: bytes 0-0/5\r\n\r\n")
        .sendPattern(0, kMostDrained + 1)
        .stall();
  });
  const RemoteFileInfo info = probe(server);
  EXPECT_EQ(info.error, 0);
  EXPECT_EQ(info.size, 5U);
}

// ---- Whole jobs ----

class JobProbeRun : public testing::TestWithParam<std::uint16_t> {
 protected:
  void TearDown() override {
    if (HasFailure()) support::tell(log);
  }

  DownloadSnapshot download(const ScriptedServer& server, std::vector<std::string> headers = {}) {
    DownloadRequest request = requestFor(server.url("/file"), path);
    request.headers = std::move(headers);
    DownloadJob job(std::move(request), policy, support::planOfTries(1, kChunk));
    return run(job);
  }

  support::RecordingLogger log;
  const support::TempDir folder;
  const std::string path = folder.file("out");
  xfer::DownloadPolicy policy = chunksOf(kChunk, GetParam());
};

INSTANTIATE_TEST_SUITE_P(Connections, JobProbeRun, testing::Values(1, 4));

TEST_P(JobProbeRun, redirectWithABodyToAChunkedFileBringsTheWholeFile) {
  const ScriptedServer server([](const ReceivedRequest& request) {
    if (request.path() == "/file") return status(302, std::string(145, 'x'), {"Location: /moved"});
    return full200(kSize, {.acceptRanges = false, .framing = support::Framing::Chunked});
  });
  EXPECT_EQ(download(server).state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
}

TEST_P(JobProbeRun, redirectWithABodyToAFileOfKnownLengthBringsTheWholeFile) {
  const ScriptedServer server([](const ReceivedRequest& request) {
    if (request.path() == "/file") return status(302, std::string(145, 'x'), {"Location: /moved"});
    return full200(kSize, {.acceptRanges = false});
  });
  const DownloadSnapshot end = download(server);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(end.totalBytes, kSize);
  EXPECT_EQ(patternError(path, kSize), "");
}

TEST_P(JobProbeRun, fieldWhoseNameEndsLikeContentLengthSaysNothing) {
  const ScriptedServer server(patternFile(kSize, {.headers = {"X-Stored-Content-Length: 100"}}));
  const DownloadSnapshot end = download(server);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(end.totalBytes, kSize);
  EXPECT_EQ(patternError(path, kSize), "");
}

TEST_P(JobProbeRun, serverThatWantsAuthorizationIsGivenIt) {
  const ScriptedServer server([file = patternFile(kSize)](const ReceivedRequest& request) {
    return request.header("Authorization") == "Bearer x" ? file(request) : status(401, "who?");
  });
  EXPECT_EQ(download(server, {"Authorization: Bearer x"}).state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
  EXPECT_TRUE(isProbe(server.requests().at(0)));
}

TEST_P(JobProbeRun, unsatisfiedRangeOfNoBytesCompletesWithAnEmptyFile) {
  const ScriptedServer server([](const ReceivedRequest& request) {
    return request.range ? status(416, "no such range", {"Content-Range: bytes */0"}) : status(200);
  });
  EXPECT_EQ(download(server).state, JobState::Completed);
  EXPECT_EQ(support::fileSize(path), 0U);
}

TEST_P(JobProbeRun, lengthBesideAChunkedBodyIsNoSize) {
  const ScriptedServer server([](const ReceivedRequest&) {
    return full200(kSize,
                   {.headers = {"Content-Length: 100"}, .acceptRanges = false, .framing = support::Framing::Chunked});
  });
  const DownloadSnapshot end = download(server);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
}

TEST_P(JobProbeRun, lengthAbove64BitsIsNoSize) {
  const ScriptedServer server([](const ReceivedRequest& request) {
    if (!isProbe(request)) return full200(kSize, {.acceptRanges = false});
    return Reply()
        .send("HTTP/1.1 200 OK\r\nContent-Length: 18446744073709551617\r\n\r\n")
        .sendPattern(0, kSize)
        .close();
  });
  EXPECT_EQ(download(server).state, JobState::Completed);
  EXPECT_EQ(patternError(path, kSize), "");
}

TEST_P(JobProbeRun, lengthsThatDifferFailTheJob) {
  const ScriptedServer server(
      [](const ReceivedRequest&) { return full200(kSize, {.headers = {"Content-Length: 5"}}); });
  const DownloadSnapshot end = download(server);
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_TRUE(end.errorCode == kRangeError || end.errorCode == kWeirdServerReply) << end.errorCode;
  EXPECT_FALSE(support::fileSize(path)) << "no file is made";
}

TEST_P(JobProbeRun, errorPageOfAnySizeFailsTheJobWithItsStatus) {
  const ScriptedServer server([](const ReceivedRequest&) {
    return Reply().send("HTTP/1.1 404 No\r\nContent-Length: 99999999\r\n\r\npage").stall();
  });
  policy.lowSpeedTimeSec = 1;
  const DownloadSnapshot end = download(server);
  EXPECT_EQ(end.state, JobState::Failed);
  if (support::adaptivePlan()) {
    EXPECT_EQ(end.httpStatus, 404);
    EXPECT_FALSE(support::fileSize(path)) << "no file is made";
    return;
  }
  EXPECT_EQ(end.errorCode, 404);
}

}  // namespace
