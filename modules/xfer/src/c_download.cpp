// The C interface of downloads with options: records in, numbers out.
#include "xfer/xfer_download.h"

#include <curl/curl.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "c_entry.h"
#include "download_job_impl.h"
#include "easy_options.h"
#include "end_code.h"
#include "event_dispatcher.h"
#include "handles.h"
#include "job_state.h"
#include "log.h"
#include "module_defaults.h"
#include "option_values.h"
#include "proxy_setting.h"
#include "range_scheduler.h"
#include "request_setting.h"
#include "request_text.h"
#include "result_codes.h"

struct xfer_speed_limiter {
  xfer::SpeedLimiter limiter;
};

namespace {

using xfer::DownloadEvent;
using xfer::DownloadOptions;
using xfer::DownloadPolicy;
using xfer::DownloadRequest;
using xfer::DownloadUpdate;
using xfer::guardedEntry;
using xfer::handles;
using xfer::orEmpty;
using xfer::StartedJob;
using xfer::TlsTrust;
namespace log = xfer::log;
namespace result = xfer::result;

constexpr const char* kLogTag = "xfer";

// The sizes that the records had when there were hosts for the first time.
constexpr std::size_t kFirstOptions = 208;
constexpr std::size_t kFirstStatus = 48;

xfer_download_options initialOptions() {
  const DownloadPolicy policy;
  const xfer::AdaptiveSettings adaptive;
  constexpr std::uint64_t kNsPerSec = 1'000'000'000;
  xfer_download_options options{};
  options.plan = XFER_PLAN_STATED;
  options.rampChunks = policy.rampChunks ? 1 : 0;
  options.initialChunkSize = policy.initialChunkSize;
  options.maxChunkSize = policy.maxChunkSize;
  options.chunkGrowthFactor = policy.chunkGrowthFactor;
  options.probeTimeoutSec = policy.probeTimeoutSec;
  options.connectTimeoutSec = policy.connectTimeoutSec;
  options.transferTimeoutSec = policy.transferTimeoutSec;
  options.lowSpeedLimit = policy.lowSpeedLimit;
  options.lowSpeedTimeSec = policy.lowSpeedTimeSec;
  options.useHttp2 = policy.useHttp2 ? 1 : 0;
  options.tcpKeepAlive = policy.tcpKeepAlive ? 1 : 0;
  options.multiplex = policy.multiplex ? 1 : 0;
  options.longestWaitSec = static_cast<std::uint32_t>(adaptive.longestWaitNs / kNsPerSec);
  options.progressMs = DownloadOptions::Values::kDefaultProgressMs;
  options.notes = XFER_NOTES_MAIN;
  return options;
}

DownloadRequest requestOf(const xfer_download_options& options) {
  DownloadRequest request;
  request.url = orEmpty(options.url);
  request.path = orEmpty(options.path);
  request.cookie = orEmpty(options.cookie);
  xfer::splitLines(options.headers, request.headers);
  const std::string userAgent = orEmpty(options.userAgent);
  xfer::addUserAgent(request.headers, userAgent.empty() ? xfer::moduleUserAgent() : userAgent);
  request.proxy = xfer::resolveProxy(options.proxy);
  request.knownSize = options.knownSize;
  return request;
}

DownloadPolicy policyOf(const xfer_download_options& options) {
  DownloadPolicy policy;
  const std::uint32_t connections = options.connections != 0 ? options.connections : xfer::moduleConnections();
  policy.numThreads = static_cast<std::uint16_t>(connections);
  policy.maxDownloadSpeed = options.maxSpeed;
  policy.rampChunks = options.rampChunks != 0;
  policy.initialChunkSize = options.initialChunkSize;
  policy.maxChunkSize = options.maxChunkSize;
  policy.chunkGrowthFactor = options.chunkGrowthFactor;
  policy.probeTimeoutSec = options.probeTimeoutSec;
  policy.connectTimeoutSec = options.connectTimeoutSec;
  policy.transferTimeoutSec = options.transferTimeoutSec;
  policy.lowSpeedLimit = options.lowSpeedLimit;
  policy.lowSpeedTimeSec = options.lowSpeedTimeSec;
  policy.useHttp2 = options.useHttp2 != 0;
  policy.tcpKeepAlive = options.tcpKeepAlive != 0;
  policy.multiplex = options.multiplex != 0;
  return policy;
}

// Whom a download tells what happens.
struct Listener {
  Listener(xfer_event_callback itsCallback, void* itsUser) : callback(itsCallback), user(itsUser) {}

  const xfer_event_callback callback;
  void* const user;
  std::atomic<std::uint64_t> id{0};  // set before there is anything to tell
};

static_assert(XFER_NOTE_BEGUN == static_cast<int>(DownloadEvent::Kind::Begun));
static_assert(XFER_NOTE_ANSWERED == static_cast<int>(DownloadEvent::Kind::Answered));
static_assert(XFER_NOTE_CUT == static_cast<int>(DownloadEvent::Kind::Cut));
static_assert(XFER_NOTE_GIVEN_UP == static_cast<int>(DownloadEvent::Kind::GivenUp));
static_assert(XFER_NOTE_OVERTAKEN == static_cast<int>(DownloadEvent::Kind::Overtaken));
static_assert(XFER_NOTE_ENDED == static_cast<int>(DownloadEvent::Kind::Ended));
static_assert(XFER_NOTE_TRIED_AGAIN == static_cast<int>(DownloadEvent::Kind::TriedAgain));
static_assert(XFER_NOTE_HOST_LEFT_ALONE == static_cast<int>(DownloadEvent::Kind::HostLeftAlone));
static_assert(XFER_EVENT_STATE == static_cast<int>(DownloadUpdate::Kind::State));
static_assert(XFER_EVENT_PROGRESS == static_cast<int>(DownloadUpdate::Kind::Progress));
static_assert(XFER_EVENT_NOTE == static_cast<int>(DownloadUpdate::Kind::Note));
static_assert(XFER_EVENT_END == static_cast<int>(DownloadUpdate::Kind::End));

xfer_event eventOf(std::uint64_t id, const DownloadUpdate& update) {
  constexpr std::uint64_t kNsPerMs = 1'000'000;
  xfer_event event{};
  event.size = sizeof event;
  event.kind = static_cast<std::uint32_t>(update.kind);
  event.id = id;
  event.state = static_cast<std::uint32_t>(update.state);
  event.connections = update.connections;
  event.bytes = update.snapshot.bytesDone;
  event.total = update.snapshot.totalBytes;
  event.bytesPerSec = update.snapshot.bytesPerSec;
  event.reason = update.note.reason;
  if (update.kind == DownloadUpdate::Kind::End) {
    event.error = static_cast<std::int32_t>(xfer::endCode(update.state, update.snapshot.errorCode));
    event.httpStatus = update.snapshot.httpStatus;
  } else if (update.kind == DownloadUpdate::Kind::Note) {
    event.error = update.note.code;
    event.httpStatus = update.note.httpStatus;
    event.note = static_cast<std::uint32_t>(update.note.kind);
    event.connection = update.note.connection;
    event.request = update.note.request;
    event.rangeStart = update.note.start;
    event.rangeEnd = update.note.end;
    event.position = update.note.position;
    event.waitMs = (update.note.waitNs + kNsPerMs - 1) / kNsPerMs;
  }
  return event;
}

void tell(DownloadOptions& abilities, const xfer_download_options& options, const std::shared_ptr<Listener>& listener) {
  abilities.setOnUpdate([listener](const DownloadUpdate& update) {
    const xfer_event event = eventOf(listener->id, update);
    listener->callback(listener->user, &event);
  });
  abilities.setProgressInterval(options.progressMs);
  abilities.setNotes(static_cast<xfer::DownloadNotes>(options.notes));
}

DownloadOptions abilitiesOf(const xfer_download_options& options, const TlsTrust& trust) {
  DownloadOptions abilities;
  const bool adaptive = options.plan == XFER_PLAN_ADAPTIVE;
  abilities.setPlan(static_cast<xfer::DownloadPlan>(options.plan));
  if (options.maxTries != 0) abilities.setMaxTries(options.maxTries);
  if (options.retryMaxTimeSec != 0) abilities.setRetryMaxTime(options.retryMaxTimeSec);
  if (adaptive) abilities.setLongestWait(options.longestWaitSec);
  if (options.firstRange != 0) abilities.setFirstRange(options.firstRange);
  if (options.limiter != nullptr) abilities.setSpeedLimiter(options.limiter->limiter);
  abilities.setVerifyPeer(trust.verifyPeer).setCaFile(trust.caFile).setPinnedKey(trust.pinnedKey);
  return abilities;
}

// The name of a field that cannot have its value; null when all can.
const char* unworkable(const xfer_download_options& options, const DownloadRequest& request,
                       const DownloadPolicy& policy, const DownloadOptions& abilities) {
  constexpr std::uint32_t kMostConnections = 65535;
  if (options.connections > kMostConnections) return "connections";
  if (xfer::holdsLineBreak(orEmpty(options.userAgent), {})) return "userAgent";
  if (xfer::holdsLineBreak(request.cookie, {})) return "cookie";
  if (xfer::holdsLineBreak({}, request.headers)) return "headers";
  if (const char* const field = xfer::unworkableField(policy)) return field;
  return abilities.values().unworkable();
}

void logRefusal(const char* field) {
  XFER_LOG(log::kFailure, "xfer_downloadStart | options refused | field=" << field);
}

// The download has its id before it starts: what it tells names it.
std::int32_t start(const std::shared_ptr<StartedJob>& download, Listener* listener, std::uint64_t& id) {
  xfer::Handles::StartedEntry entry = xfer::Handles::reserveStarted();
  entry.mapped() = download;
  const std::uint64_t newId = handles().file(std::move(entry));
  if (listener != nullptr) listener->id = newId;
  try {
    download->job.start();
  } catch (...) {
    handles().forget(newId);
    throw;
  }
  id = newId;
  return result::kSuccess;
}

// The download with this id; an answer other than 0 when there is none.
std::int32_t find(std::uint64_t id, std::shared_ptr<StartedJob>& started) {
  started = handles().started(id);
  if (started) return result::kSuccess;
  return handles().knows(id) ? result::kOtherKind : result::kUnknownId;
}

template <class Use>
std::int32_t withDownload(const char* function, std::uint64_t id, Use use) {
  return guardedEntry(function, [&] {
    std::shared_ptr<StartedJob> started;
    if (const std::int32_t error = find(id, started)) return error;
    return use(started->job);
  });
}

}  // namespace

void xfer_downloadOptionsInit(xfer_download_options* options, uint32_t size) {
  xfer::initRecord(initialOptions(), options, size);
}

void xfer_statusInit(xfer_status* status, uint32_t size) {
  xfer::initRecord(xfer_status{}, status, size);
}

int32_t xfer_downloadStart(const xfer_download_options* options, uint64_t* id) {
  return guardedEntry("xfer_downloadStart", [&] {
    if (options == nullptr || id == nullptr) return result::kNullArgument;
    xfer_download_options known = initialOptions();
    if (!xfer::readRecord(*options, kFirstOptions, known) || known.reserved != 0) return result::kBadRecord;
    if (known.url == nullptr || known.path == nullptr) return result::kNullArgument;
    if (known.plan > XFER_PLAN_ADAPTIVE || known.notes > XFER_NOTES_ALL) return result::kUnknownEnumerator;
    TlsTrust trust;
    if (const std::int32_t error =
            xfer::trustOf(known.verifyPeer, orEmpty(known.caFile), orEmpty(known.pinnedKey), trust)) {
      if (error == CURLE_BAD_FUNCTION_ARGUMENT) logRefusal("caFile");
      return error;
    }
    DownloadRequest request = requestOf(known);
    const DownloadPolicy policy = policyOf(known);
    DownloadOptions abilities = abilitiesOf(known, trust);
    if (const char* const field = unworkable(known, request, policy, abilities)) {
      logRefusal(field);
      return static_cast<std::int32_t>(CURLE_BAD_FUNCTION_ARGUMENT);
    }
    std::shared_ptr<Listener> listener;
    if (known.onEvent != nullptr) {
      listener = std::make_shared<Listener>(known.onEvent, known.user);
      tell(abilities, known, listener);
    }
    return start(std::make_shared<StartedJob>(std::move(request), policy, abilities.values()), listener.get(), *id);
  });
}

xfer_speed_limiter* xfer_speedLimiterNew(uint64_t bytesPerSec) {
  xfer_speed_limiter* limiter = nullptr;
  guardedEntry("xfer_speedLimiterNew", [&] {
    limiter = new xfer_speed_limiter{xfer::SpeedLimiter(bytesPerSec)};
    return result::kSuccess;
  });
  return limiter;
}

void xfer_speedLimiterSet(xfer_speed_limiter* limiter, uint64_t bytesPerSec) {
  if (limiter != nullptr) limiter->limiter.setLimit(bytesPerSec);
}

void xfer_speedLimiterFree(xfer_speed_limiter* limiter) {
  delete limiter;
}

int32_t xfer_downloadStatus(uint64_t id, xfer_status* status) {
  return withDownload("xfer_downloadStatus", id, [&](xfer::DownloadJob::Impl& job) {
    if (status == nullptr) return result::kNullArgument;
    if (!xfer::isRecordSize(status->size, kFirstStatus)) return result::kBadRecord;
    const xfer::DownloadSnapshot snapshot = job.snapshot();
    xfer_status known{};
    known.state = static_cast<std::uint32_t>(snapshot.state);
    known.bytes = snapshot.bytesDone;
    known.total = snapshot.totalBytes;
    known.bytesPerSec = snapshot.bytesPerSec;
    known.connections = static_cast<std::uint32_t>(job.inFlight());
    if (isFinal(snapshot.state)) {
      known.error = static_cast<std::int32_t>(xfer::endCode(snapshot.state, snapshot.errorCode));
      known.httpStatus = snapshot.httpStatus;
    }
    xfer::writeRecord(known, *status);
    return result::kSuccess;
  });
}

int32_t xfer_downloadWait(uint64_t id, uint64_t milliseconds) {
  return withDownload("xfer_downloadWait", id, [&](xfer::DownloadJob::Impl& job) -> std::int32_t {
    if (xfer::eventDispatcher().isHere()) return result::kInsideCallback;
    return job.waitFor(milliseconds) ? result::kSuccess : result::kNotEnded;
  });
}

int32_t xfer_downloadSetSpeed(uint64_t id, uint64_t bytesPerSec) {
  return withDownload("xfer_downloadSetSpeed", id, [&](xfer::DownloadJob::Impl& job) {
    job.setSpeedLimit(bytesPerSec);
    return result::kSuccess;
  });
}

int32_t xfer_downloadCancel(uint64_t id) {
  return withDownload("xfer_downloadCancel", id, [&](xfer::DownloadJob::Impl& job) {
    job.cancel();
    return result::kSuccess;
  });
}

int32_t xfer_downloadForget(uint64_t id) {
  return withDownload("xfer_downloadForget", id, [&](xfer::DownloadJob::Impl& job) {
    handles().forget(id);
    job.silence();
    job.cancel();
    job.wait();  // another thread may be using the download, and then destroys it
    return result::kSuccess;
  });
}
