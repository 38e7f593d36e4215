// Downloads of the C interface that are started with a record.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/gate.h"
#include "support/pattern.h"
#include "support/plan_under_test.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/unused_port.h"
#include "support/wait_until.h"
#include "sys/data_buff.h"
#include "xfer/download_records.h"
#include "xfer/xfer.h"
#include "xfer/xfer_download.h"

namespace {

using support::patternFile;
using support::ReceivedRequest;
using support::ScriptedServer;

constexpr std::uint64_t kSize = 3'000'000;
constexpr std::uint64_t kLong = 60'000;  // milliseconds
constexpr std::int32_t kBadArgument = 43;
constexpr std::int32_t kStopped = 102;
constexpr std::int32_t kUnknownId = 100001;
constexpr std::int32_t kBadRecord = 100032;
constexpr std::int32_t kNullArgument = 100033;
constexpr std::int32_t kOtherKind = 100034;
constexpr std::int32_t kUnknownEnumerator = 100035;
constexpr std::int32_t kInsideCallback = 100036;
constexpr std::int32_t kCallbackThrew = 100037;

class CDownload : public testing::Test {
 protected:
  CDownload() {
    xfer_downloadOptionsInit(&options_, sizeof options_);
    options_.plan = support::adaptivePlan() ? XFER_PLAN_ADAPTIVE : XFER_PLAN_STATED;
    options_.path = path_.c_str();
    options_.connections = 3;
  }
  ~CDownload() override {
    if (id_ != 0) xfer_downloadForget(id_);
  }

  void start(const std::string& url) {
    options_.url = url.c_str();
    ASSERT_EQ(xfer_downloadStart(&options_, &id_), 0);
    ASSERT_NE(id_, 0U);
  }

  std::int32_t refusal() {
    options_.url = "http://127.0.0.1:9/never";
    std::uint64_t id = 77;
    const std::int32_t code = xfer_downloadStart(&options_, &id);
    EXPECT_EQ(id, 77U) << "not written";
    return code;
  }

  [[nodiscard]] xfer_status status() const {
    xfer_status status{};
    status.size = sizeof status;
    EXPECT_EQ(xfer_downloadStatus(id_, &status), 0);
    EXPECT_EQ(status.size, sizeof status);
    return status;
  }

  const support::TempDir folder_;
  const std::string path_ = folder_.file("out");
  xfer_download_options options_{};
  std::uint64_t id_ = 0;
};

// A server that sends slowly, so that a download is under way for seconds.
support::Handler slowly() {
  return [](const ReceivedRequest& request) {
    return support::range206(request, kSize, {.pace = {.bytesEach = 20'000, .rest = std::chrono::milliseconds(20)}});
  };
}

TEST(CDownloadOptions, areThoseOfThePolicyAtFirst) {
  xfer_download_options options;
  std::memset(&options, 0xee, sizeof options);
  xfer_downloadOptionsInit(&options, sizeof options);
  const xfer::DownloadPolicy policy;
  EXPECT_EQ(options.size, sizeof options);
  EXPECT_EQ(options.plan, static_cast<std::uint32_t>(XFER_PLAN_STATED));
  for (const char* const text : {options.url, options.path, options.headers, options.cookie, options.proxy,
                                 options.userAgent, options.caFile, options.pinnedKey}) {
    EXPECT_EQ(text, nullptr);
  }
  EXPECT_EQ(options.knownSize, 0U);
  EXPECT_EQ(options.maxSpeed, policy.maxDownloadSpeed);
  EXPECT_EQ(options.rampChunks != 0, policy.rampChunks);
  EXPECT_EQ(options.initialChunkSize, policy.initialChunkSize);
  EXPECT_EQ(options.maxChunkSize, policy.maxChunkSize);
  EXPECT_EQ(options.chunkGrowthFactor, policy.chunkGrowthFactor);
  EXPECT_EQ(options.probeTimeoutSec, policy.probeTimeoutSec);
  EXPECT_EQ(options.connectTimeoutSec, policy.connectTimeoutSec);
  EXPECT_EQ(options.transferTimeoutSec, policy.transferTimeoutSec);
  EXPECT_EQ(options.lowSpeedLimit, policy.lowSpeedLimit);
  EXPECT_EQ(options.lowSpeedTimeSec, policy.lowSpeedTimeSec);
  EXPECT_EQ(options.useHttp2 != 0, policy.useHttp2);
  EXPECT_EQ(options.tcpKeepAlive != 0, policy.tcpKeepAlive);
  EXPECT_EQ(options.multiplex != 0, policy.multiplex);
  EXPECT_EQ(options.connections, 0U);
  EXPECT_EQ(options.verifyPeer, 0U);
  EXPECT_EQ(options.firstRange, 0U);
  EXPECT_EQ(options.maxTries, 0U);
  EXPECT_EQ(options.retryMaxTimeSec, 0U);
  EXPECT_EQ(options.longestWaitSec, 600U);
  EXPECT_EQ(options.limiter, nullptr);
  EXPECT_EQ(options.onEvent, nullptr);
  EXPECT_EQ(options.user, nullptr);
  EXPECT_EQ(options.progressMs, 100U);
  EXPECT_EQ(options.notes, static_cast<std::uint32_t>(XFER_NOTES_MAIN));
  EXPECT_EQ(options.reserved, 0U);
  xfer_downloadOptionsInit(nullptr, 100);
}

TEST(CDownloadOptions, recordOfAnotherSizeIsSetAsFarAsItReaches) {
  struct Newer {
    xfer_download_options known;
    std::uint64_t field;
    std::uint64_t behind;
  } newer;
  std::memset(&newer, 0xee, sizeof newer);
  const auto untouched = newer.behind;
  xfer_downloadOptionsInit(&newer.known, sizeof newer - sizeof newer.behind);
  EXPECT_EQ(newer.known.size, sizeof newer - sizeof newer.behind);
  EXPECT_EQ(newer.known.longestWaitSec, 600U);
  EXPECT_EQ(newer.field, 0U);
  EXPECT_EQ(newer.behind, untouched) << "behind the record";
  xfer_download_options older;
  std::memset(&older, 0xee, sizeof older);
  xfer_downloadOptionsInit(&older, offsetof(xfer_download_options, reserved));
  EXPECT_EQ(older.size, offsetof(xfer_download_options, reserved));
  EXPECT_EQ(older.notes, 0U);
  EXPECT_EQ(older.reserved, 0xeeeeeeeeU) << "behind the record";
}

TEST(CDownloadStatus, isZeroAtFirstAsFarAsItReaches) {
  xfer_status status;
  std::memset(&status, 0xee, sizeof status);
  xfer_statusInit(&status, offsetof(xfer_status, reserved));
  EXPECT_EQ(status.size, offsetof(xfer_status, reserved));
  EXPECT_EQ(status.state, 0U);
  EXPECT_EQ(status.error, 0);
  EXPECT_EQ(status.httpStatus, 0);
  EXPECT_EQ(status.reserved, 0xeeeeeeeeU) << "behind the record";
  xfer_statusInit(nullptr, 100);
}

TEST_F(CDownload, storesTheFileAndTellsSoAsOftenAsItIsAsked) {
  ScriptedServer server(patternFile(kSize));
  start(server.url("/file"));
  EXPECT_EQ(xfer_downloadWait(id_, kLong), 0);
  EXPECT_EQ(support::patternError(path_, kSize), "");
  for (int times = 0; times < 3; ++times) {
    const xfer_status end = status();
    EXPECT_EQ(end.state, static_cast<std::uint32_t>(XFER_STATE_COMPLETED));
    EXPECT_EQ(end.bytes, kSize);
    EXPECT_EQ(end.total, kSize);
    EXPECT_EQ(end.error, 0);
    EXPECT_EQ(end.httpStatus, 0);
    EXPECT_EQ(xfer_downloadWait(id_, 0), 0);
    EXPECT_EQ(xfer_downloadCancel(id_), 0) << "which changes nothing";
  }
}

TEST_F(CDownload, tellsOfRequestsUnderWayAndCanBeHeld) {
  ScriptedServer server(slowly());
  start(server.url("/file"));
  ASSERT_TRUE(support::waitUntil([&] { return status().bytes > 0; }));
  const xfer_status running = status();
  EXPECT_EQ(running.state, static_cast<std::uint32_t>(XFER_STATE_RUNNING));
  EXPECT_GE(running.connections, 1U);
  EXPECT_LE(running.connections, 3U);
  EXPECT_EQ(running.error, 0);
  EXPECT_EQ(xfer_downloadWait(id_, 1), XFER_NOT_ENDED);
  EXPECT_EQ(xfer_downloadPause(id_), 0);
  EXPECT_EQ(status().state, static_cast<std::uint32_t>(XFER_STATE_PAUSED));
  EXPECT_EQ(xfer_downloadResume(id_), 0);
  EXPECT_EQ(status().state, static_cast<std::uint32_t>(XFER_STATE_RUNNING));
  EXPECT_EQ(xfer_downloadCancel(id_), 0);
  EXPECT_EQ(xfer_downloadWait(id_, kLong), 0);
  EXPECT_EQ(status().state, static_cast<std::uint32_t>(XFER_STATE_CANCELLED));
  EXPECT_EQ(status().error, kStopped);
}

TEST_F(CDownload, tellsWhyItFailed) {
  ScriptedServer server([](const ReceivedRequest&) { return support::status(404); });
  start(server.url("/file"));
  EXPECT_EQ(xfer_downloadWait(id_, kLong), 0);
  EXPECT_EQ(status().state, static_cast<std::uint32_t>(XFER_STATE_FAILED));
  EXPECT_EQ(status().error, 404);
}

TEST_F(CDownload, isForgottenAtAnyTime) {
  ScriptedServer server(slowly());
  start(server.url("/file"));
  ASSERT_TRUE(support::waitUntil([&] { return status().bytes > 0; }));
  EXPECT_EQ(xfer_downloadForget(id_), 0);
  const std::string other = folder_.file("moved");
  EXPECT_TRUE(support::exists(path_)) << "the partial file stays";
  xfer_status nothing{};
  nothing.size = sizeof nothing;
  EXPECT_EQ(xfer_downloadStatus(id_, &nothing), kUnknownId);
  EXPECT_EQ(xfer_downloadWait(id_, kLong), kUnknownId);
  EXPECT_EQ(xfer_downloadCancel(id_), kUnknownId);
  EXPECT_EQ(xfer_downloadPause(id_), kUnknownId);
  EXPECT_EQ(xfer_downloadForget(id_), kUnknownId);
  id_ = 0;
}

TEST_F(CDownload, thatIsForgottenEndsAnothersWait) {
  ScriptedServer server(slowly());
  start(server.url("/file"));
  ASSERT_TRUE(support::waitUntil([&] { return status().bytes > 0; }));
  std::int32_t waited = -1;
  std::thread waiter([&] { waited = xfer_downloadWait(id_, kLong); });
  EXPECT_EQ(xfer_downloadForget(id_), 0);
  waiter.join();
  EXPECT_TRUE(waited == 0 || waited == kUnknownId) << waited;
  id_ = 0;
}

TEST_F(CDownload, sendsWhatTheRecordSays) {
  ScriptedServer server(patternFile(1000));
  const std::string headers = "X-One: 1\nX-Two: 2";
  options_.headers = headers.c_str();
  options_.cookie = "a=b";
  options_.userAgent = "host/2";
  start(server.url("/file"));
  EXPECT_EQ(xfer_downloadWait(id_, kLong), 0);
  ASSERT_FALSE(server.requests().empty());
  for (const ReceivedRequest& request : server.requests()) {
    EXPECT_EQ(request.header("X-One"), "1");
    EXPECT_EQ(request.header("X-Two"), "2");
    EXPECT_EQ(request.header("Cookie"), "a=b");
    EXPECT_EQ(request.header("User-Agent"), "host/2");
  }
}

TEST_F(CDownload, usesAsManyConnectionsAsItIsTold) {
  ScriptedServer server(patternFile(kSize));
  options_.connections = 1;
  options_.rampChunks = 0;
  options_.maxChunkSize = 500'000;
  start(server.url("/file"));
  EXPECT_EQ(xfer_downloadWait(id_, kLong), 0);
  EXPECT_EQ(support::patternError(path_, kSize), "");
  if (!support::adaptivePlan()) {
    EXPECT_EQ(server.requests().size(), 1 + kSize / 500'000) << "the question for the size, and the chunks";
  }
}

TEST_F(CDownload, thatCannotWorkIsRefusedByTheNameOfItsField) {
  using Change = void (*)(xfer_download_options&);
  const std::vector<std::pair<Change, std::string>> cases = {
      {[](xfer_download_options& options) { options.connections = 65536; }, "connections"},
      {[](xfer_download_options& options) { options.maxChunkSize = 0; }, "maxChunkSize"},
      {[](xfer_download_options& options) { options.cookie = "a=b\r\nX-Injected: 1"; }, "cookie"},
      {[](xfer_download_options& options) { options.userAgent = "host\nX-Injected: 1"; }, "userAgent"},
      {[](xfer_download_options& options) { options.headers = "X-One: 1\rX-Injected: 1"; }, "headers"},
      {[](xfer_download_options& options) { options.caFile = "ca.pem"; }, "caFile"},
      {[](xfer_download_options& options) {
         options.plan = XFER_PLAN_STATED;
         options.maxTries = 3;
       },
       "maxTries"},
      {[](xfer_download_options& options) {
         options.plan = XFER_PLAN_STATED;
         options.firstRange = 3;
       },
       "firstRange"},
  };
  const xfer_download_options good = options_;
  for (const auto& [change, field] : cases) {
    const support::RecordingLogger log;
    options_ = good;
    change(options_);
    EXPECT_EQ(refusal(), kBadArgument) << field;
    EXPECT_EQ(log.count("xfer_downloadStart | options refused | field=" + field), 1U) << field;
  }
  EXPECT_FALSE(support::exists(path_));
}

TEST_F(CDownload, unknownEnumeratorIsRefusedByANumberOfItsOwn) {
  using Field = std::uint32_t xfer_download_options::*;
  const xfer_download_options good = options_;
  for (const auto& [field, first] : {std::pair<Field, std::uint32_t>{&xfer_download_options::plan, 2},
                                     {&xfer_download_options::notes, 2},
                                     {&xfer_download_options::verifyPeer, 3}}) {
    for (const std::uint32_t value : {first, std::numeric_limits<std::uint32_t>::max()}) {
      options_ = good;
      options_.*field = value;
      EXPECT_EQ(refusal(), kUnknownEnumerator);
    }
  }
}

TEST_F(CDownload, fileOfTrustedCertificatesThatCannotBeUsedIsRefusedAtOnce) {
  options_.verifyPeer = XFER_VERIFY_ON;
  const std::string missing = folder_.file("missing.pem");
  options_.caFile = missing.c_str();
  EXPECT_EQ(refusal(), 100030);
  const std::string empty = folder_.file("empty.pem");
  std::ofstream(empty).close();
  options_.caFile = empty.c_str();
  EXPECT_EQ(refusal(), 100031);
}

TEST_F(CDownload, recordOfAnotherSizeIsUnderstoodOrRefused) {
  struct Newer {
    xfer_download_options known;
    std::uint64_t field = 0;
  };
  ScriptedServer server(patternFile(1000));
  const std::string url = server.url("/file");
  Newer newer{options_};
  newer.known.size = sizeof newer;
  newer.known.url = url.c_str();
  ASSERT_EQ(xfer_downloadStart(&newer.known, &id_), 0) << "a field that is not set is none";
  EXPECT_EQ(xfer_downloadWait(id_, kLong), 0);
  options_.reserved = 1;
  EXPECT_EQ(refusal(), kBadRecord) << "what is reserved is not known either";
  options_.reserved = 0;
  newer.field = 1;
  std::uint64_t id = 77;
  EXPECT_EQ(xfer_downloadStart(&newer.known, &id), kBadRecord) << "what is not known cannot be done";
  for (const std::uint32_t size :
       {0U, 1U, static_cast<std::uint32_t>(sizeof options_) - 1, 4097U, std::numeric_limits<std::uint32_t>::max()}) {
    options_.size = size;
    EXPECT_EQ(refusal(), kBadRecord) << size;
  }
  for (const std::uint32_t size : {0U, 1U, static_cast<std::uint32_t>(sizeof(xfer_status)) - 1, 4097U,
                                   std::numeric_limits<std::uint32_t>::max()}) {
    xfer_status status{};
    status.size = size;
    EXPECT_EQ(xfer_downloadStatus(id_, &status), kBadRecord) << size;
    EXPECT_EQ(status.state, 0U) << "not written";
  }
  EXPECT_EQ(id, 77U);
}

TEST_F(CDownload, statusOfANewerHostIsFilledAsFarAsItIsKnown) {
  ScriptedServer server(patternFile(1000));
  start(server.url("/file"));
  EXPECT_EQ(xfer_downloadWait(id_, kLong), 0);
  struct Newer {
    xfer_status known;
    std::uint64_t field;
    std::uint64_t behind;
  } newer{};
  newer.known.size = sizeof newer - sizeof newer.behind;
  newer.field = newer.behind = 7;
  ASSERT_EQ(xfer_downloadStatus(id_, &newer.known), 0);
  EXPECT_EQ(newer.known.bytes, 1000U);
  EXPECT_EQ(newer.known.size, sizeof newer - sizeof newer.behind);
  EXPECT_EQ(newer.field, 0U);
  EXPECT_EQ(newer.behind, 7U) << "behind the record";
}

TEST_F(CDownload, nullIsRefused) {
  std::uint64_t id = 0;
  EXPECT_EQ(xfer_downloadStart(nullptr, &id), kNullArgument);
  EXPECT_EQ(xfer_downloadStart(&options_, nullptr), kNullArgument);
  EXPECT_EQ(xfer_downloadStart(&options_, &id), kNullArgument) << "no URL";
  options_.url = "http://127.0.0.1:9/never";
  options_.path = nullptr;
  EXPECT_EQ(xfer_downloadStart(&options_, &id), kNullArgument) << "no path";
  options_.path = path_.c_str();
  EXPECT_EQ(id, 0U);
  ScriptedServer server(patternFile(10));
  start(server.url("/file"));
  EXPECT_EQ(xfer_downloadStatus(id_, nullptr), kNullArgument);
}

TEST_F(CDownload, idsOfOtherKindsAreToldFromUnknownOnes) {
  ScriptedServer server(patternFile(10));
  const std::uint64_t file =
      xfer_downloadFile(server.url("/file").c_str(), path_.c_str(), nullptr, 1, nullptr, 0, 0, nullptr);
  std::uint64_t request = 0;
  ASSERT_EQ(xfer_downloadAsync(server.url("/file").c_str(), &request, nullptr, nullptr, nullptr, nullptr), 0);
  for (const std::uint64_t id : {file, request}) {
    xfer_status status{};
    status.size = sizeof status;
    EXPECT_EQ(xfer_downloadStatus(id, &status), kOtherKind);
    EXPECT_EQ(xfer_downloadWait(id, 0), kOtherKind);
    EXPECT_EQ(xfer_downloadCancel(id), kOtherKind);
    EXPECT_EQ(xfer_downloadSetSpeed(id, 0), kOtherKind);
    EXPECT_EQ(xfer_downloadForget(id), kOtherKind);
  }
  EXPECT_EQ(xfer_downloadWait(request + 1000, 0), kUnknownId);
  sys::DataBuff headers;
  sys::DataBuff body;
  EXPECT_EQ(xfer_queryAsyncBuffer(request, &headers, &body), 0);
}

// ---- What a download tells ----

// Keeps what it is told, and does what the test says.
class Host {
 public:
  explicit Host(std::function<void(const xfer_event&)> body = {}) : body_(std::move(body)) {}

  static void hear(void* user, const xfer_event* event) {
    auto& host = *static_cast<Host*>(user);
    {
      const std::lock_guard lock(host.mutex_);
      host.heard_.push_back(*event);
    }
    if (host.body_) host.body_(*event);
  }

  [[nodiscard]] std::vector<xfer_event> heard(std::uint32_t kind) const {
    const std::lock_guard lock(mutex_);
    std::vector<xfer_event> of;
    for (const xfer_event& event : heard_) {
      if (event.kind == kind) of.push_back(event);
    }
    return of;
  }

  [[nodiscard]] bool heardTheEnd() const {
    return support::waitUntil([this] { return !heard(XFER_EVENT_END).empty(); });
  }

  void attachTo(xfer_download_options& options) {
    options.onEvent = &Host::hear;
    options.user = this;
  }

 private:
  std::function<void(const xfer_event&)> body_;
  mutable std::mutex mutex_;
  std::vector<xfer_event> heard_;
};

TEST_F(CDownload, progressIsNotToldWithoutAnInterval) {
  ScriptedServer server(slowly());  // the whole file takes longer than the interval that there is at first
  Host host;
  host.attachTo(options_);
  options_.progressMs = 0;
  start(server.url("/file"));
  ASSERT_TRUE(host.heardTheEnd());
  EXPECT_EQ(host.heard(XFER_EVENT_END).back().error, 0);
  EXPECT_TRUE(host.heard(XFER_EVENT_PROGRESS).empty());
}

TEST_F(CDownload, tellsStatesProgressAndItsEndWithItsId) {
  ScriptedServer server(slowly());
  Host host;
  host.attachTo(options_);
  options_.progressMs = 10;
  start(server.url("/file"));
  ASSERT_TRUE(support::waitUntil([&] { return host.heard(XFER_EVENT_PROGRESS).size() >= 3; }));
  EXPECT_EQ(xfer_downloadCancel(id_), 0);
  ASSERT_TRUE(host.heardTheEnd());
  std::vector<std::uint32_t> states;
  for (const xfer_event& event : host.heard(XFER_EVENT_STATE)) {
    EXPECT_EQ(event.id, id_);
    EXPECT_EQ(event.size, sizeof event);
    EXPECT_EQ(event.note, 0U);
    EXPECT_STREQ(event.reason, "");
    states.push_back(event.state);
  }
  EXPECT_EQ(states, (std::vector<std::uint32_t>{XFER_STATE_PROBING, XFER_STATE_RUNNING, XFER_STATE_CANCELLING}));
  const xfer_event progress = host.heard(XFER_EVENT_PROGRESS).back();
  EXPECT_EQ(progress.id, id_);
  EXPECT_EQ(progress.state, static_cast<std::uint32_t>(XFER_STATE_RUNNING));
  EXPECT_EQ(progress.total, kSize);
  EXPECT_GT(progress.bytes, 0U);
  EXPECT_GE(progress.connections, 1U);
  EXPECT_EQ(progress.error, 0);
  const xfer_event end = host.heard(XFER_EVENT_END).back();
  EXPECT_EQ(end.id, id_);
  EXPECT_EQ(end.state, static_cast<std::uint32_t>(XFER_STATE_CANCELLED));
  EXPECT_EQ(end.error, kStopped);
}

TEST_F(CDownload, tellsWhyItFailedWithItsEnd) {
  ScriptedServer server([](const ReceivedRequest&) { return support::status(404); });
  Host host;
  host.attachTo(options_);
  start(server.url("/file"));
  ASSERT_TRUE(host.heardTheEnd());
  const xfer_event end = host.heard(XFER_EVENT_END).back();
  EXPECT_EQ(end.state, static_cast<std::uint32_t>(XFER_STATE_FAILED));
  EXPECT_EQ(end.error, status().error);
  EXPECT_EQ(end.httpStatus, status().httpStatus);
}

TEST_F(CDownload, notesSayWhichRequestTheyAreAbout) {
  ScriptedServer server(patternFile(kSize));
  Host host;
  host.attachTo(options_);
  options_.notes = XFER_NOTES_ALL;
  options_.connections = 1;
  start(server.url("/file"));
  ASSERT_TRUE(host.heardTheEnd());
  const std::vector<xfer_event> notes = host.heard(XFER_EVENT_NOTE);
  ASSERT_GE(notes.size(), 3U);
  EXPECT_EQ(notes.front().note, static_cast<std::uint32_t>(XFER_NOTE_BEGUN));
  EXPECT_EQ(notes.front().request, 1U);
  EXPECT_EQ(notes.front().connection, 1U);
  EXPECT_EQ(notes.front().rangeStart, 0U);
  EXPECT_GT(notes.front().rangeEnd, 0U);
  EXPECT_EQ(notes.at(1).note, static_cast<std::uint32_t>(XFER_NOTE_ANSWERED));
  EXPECT_EQ(notes.back().note, static_cast<std::uint32_t>(XFER_NOTE_ENDED));
  EXPECT_EQ(notes.back().position, kSize);
}

TEST_F(CDownload, tryThatIsRepeatedIsNotedWithItsReason) {
  std::atomic<int> asked{0};
  ScriptedServer server([&](const ReceivedRequest& request) {
    const bool first = request.range && request.range->last != 0U && asked++ == 0;
    return first ? support::status(503, "", {"Retry-After: 1"}) : patternFile(kSize)(request);
  });
  Host host;
  host.attachTo(options_);
  start(server.url("/file"));
  ASSERT_TRUE(host.heardTheEnd());
  const std::vector<xfer_event> notes = host.heard(XFER_EVENT_NOTE);
  ASSERT_FALSE(notes.empty());
  EXPECT_EQ(notes.front().note, static_cast<std::uint32_t>(XFER_NOTE_TRIED_AGAIN));
  EXPECT_EQ(notes.front().httpStatus, 503);
  EXPECT_EQ(host.heard(XFER_EVENT_END).back().error, 0);
}

TEST_F(CDownload, everyFunctionButWaitMayBeCalledInsideOfACallback) {
  ScriptedServer server(slowly());
  const std::string url = server.url("/file");
  const std::string otherPath = folder_.file("other");
  std::uint64_t other = 0;
  std::atomic<bool> done{false};
  Host host([&](const xfer_event& event) {
    if (event.kind != XFER_EVENT_PROGRESS || done) return;
    xfer_status status{};
    status.size = sizeof status;
    EXPECT_EQ(xfer_downloadStatus(event.id, &status), 0);
    EXPECT_GE(status.bytes, event.bytes);
    EXPECT_EQ(xfer_downloadWait(event.id, kLong), kInsideCallback);
    EXPECT_EQ(xfer_downloadPause(event.id), 0);
    EXPECT_EQ(xfer_downloadResume(event.id), 0);
    EXPECT_EQ(xfer_downloadSetSpeed(event.id, 1'000'000'000), 0);
    xfer_download_options more = options_;
    more.url = url.c_str();
    more.path = otherPath.c_str();
    more.onEvent = nullptr;
    EXPECT_EQ(xfer_downloadStart(&more, &other), 0);
    EXPECT_EQ(xfer_downloadWait(other, kLong), kInsideCallback);
    EXPECT_EQ(xfer_downloadForget(other), 0);
    EXPECT_EQ(xfer_downloadCancel(event.id), 0);
    EXPECT_EQ(xfer_downloadForget(event.id), 0);
    EXPECT_EQ(xfer_downloadForget(event.id), kUnknownId);
    done = true;
  });
  host.attachTo(options_);
  options_.progressMs = 1;
  start(url);
  ASSERT_TRUE(support::waitUntil([&] { return done.load(); }));
  const std::size_t told = host.heard(XFER_EVENT_PROGRESS).size();
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(host.heard(XFER_EVENT_PROGRESS).size(), told) << "it is forgotten";
  EXPECT_TRUE(host.heard(XFER_EVENT_END).empty());
  id_ = 0;
}

TEST_F(CDownload, forgettingWaitsForACallbackAndTellsNothingAfterwards) {
  ScriptedServer server(slowly());
  const support::Gate inside;
  support::Gate goOn;
  std::atomic<bool> returned{false};
  std::atomic<bool> forgotten{false};
  std::atomic<bool> late{false};
  Host host([&](const xfer_event& event) {
    if (forgotten) late = true;
    if (event.kind != XFER_EVENT_PROGRESS) return;
    support::Gate(inside).open();
    EXPECT_TRUE(goOn.wait());
    returned = true;
  });
  host.attachTo(options_);
  start(server.url("/file"));
  ASSERT_TRUE(inside.wait());
  // Whoever still waits keeps the download, not what it tells.
  std::thread waiter([id = id_] { xfer_downloadWait(id, kLong); });
  std::thread opener([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    goOn.open();
  });
  EXPECT_EQ(xfer_downloadForget(id_), 0);
  forgotten = true;
  EXPECT_TRUE(returned);
  opener.join();
  waiter.join();
  EXPECT_FALSE(late);
  id_ = 0;
}

TEST_F(CDownload, callbackThatThrowsFailsTheDownloadByANumberOfItsOwn) {
  ScriptedServer server(slowly());
  Host host([](const xfer_event& event) {
    if (event.kind == XFER_EVENT_STATE) throw std::runtime_error("a host's own");
  });
  host.attachTo(options_);
  start(server.url("/file"));
  ASSERT_TRUE(host.heardTheEnd());
  EXPECT_EQ(host.heard(XFER_EVENT_END).back().error, kCallbackThrew);
  EXPECT_EQ(status().error, kCallbackThrew);
}

TEST_F(CDownload, speedCanBeSetWhileItRuns) {
  constexpr std::uint64_t kSlow = 50'000;
  ScriptedServer server(patternFile(20'000'000));
  options_.maxSpeed = kSlow;
  start(server.url("/file"));
  ASSERT_TRUE(support::waitUntil([&] { return status().bytes > 0; }));
  EXPECT_NE(xfer_downloadWait(id_, 50), 0);
  EXPECT_EQ(xfer_downloadSetSpeed(id_, 0), 0);
  EXPECT_EQ(xfer_downloadWait(id_, kLong), 0) << "minutes at the first speed";
  EXPECT_EQ(status().error, 0);
  EXPECT_EQ(xfer_downloadSetSpeed(id_, 0), 0) << "which changes nothing";
}

TEST_F(CDownload, downloadsKeepASharedLimitThatOutlivesItsName) {
  ScriptedServer server(patternFile(1'000'000));
  xfer_speed_limiter* const limiter = xfer_speedLimiterNew(1000);
  ASSERT_NE(limiter, nullptr);
  options_.limiter = limiter;
  options_.connections = 1;
  start(server.url("/file"));
  const std::uint64_t first = std::exchange(id_, 0);
  const std::string other = folder_.file("other");
  options_.path = other.c_str();
  start(server.url("/file"));
  EXPECT_EQ(xfer_downloadWait(first, 100), XFER_NOT_ENDED);
  EXPECT_EQ(xfer_downloadWait(id_, 0), XFER_NOT_ENDED);
  xfer_speedLimiterSet(limiter, 0);
  xfer_speedLimiterFree(limiter);
  EXPECT_EQ(xfer_downloadWait(first, kLong), 0);
  EXPECT_EQ(xfer_downloadWait(id_, kLong), 0);
  EXPECT_EQ(support::patternError(path_, 1'000'000), "");
  EXPECT_EQ(support::patternError(other, 1'000'000), "");
  EXPECT_EQ(xfer_downloadForget(first), 0);
  xfer_speedLimiterSet(nullptr, 1);
  xfer_speedLimiterFree(nullptr);
}

}  // namespace
