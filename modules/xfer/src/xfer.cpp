// The C interface: its texts become records, its handles name jobs and futures, and it keeps the module's settings.
#include "xfer/xfer.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <utility>

#include "end_code.h"
#include "fetch_stoppable.h"
#include "job_state.h"
#include "keel/keel.h"
#include "log.h"
#include "proxy_setting.h"
#include "request_text.h"
#include "result_codes.h"
#include "sys/data_buff.h"
#include "sys/descrambler.h"
#include "sys/module.h"
#include "sys/mutex.h"
#include "sys/never_destroyed.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"

namespace {

using xfer::DownloadJob;
using xfer::DownloadPolicy;
using xfer::DownloadRequest;
using xfer::Request;
using xfer::Response;
namespace log = xfer::log;
namespace result = xfer::result;

constexpr const char* kLogTag = "xfer";

// ---- Module-wide settings.  A setter that races with a start may be seen late. ----

std::atomic<std::uint16_t> g_numThreads{1};
std::atomic<std::uint64_t> g_maxDownloadSpeed{0};
thread_local bool t_quiet = false;

// ---- Handles ----

// One thing that a handle names.  While it lives the module cannot be unloaded: it may own threads.
template <class T>
struct Held {
  sys::ModulePin pin;
  T value;
};

struct Handles {
  // The outermost lock: jobs' pause, resume, snapshot, cancel and destruction run under it.  Never held while waiting
  // for a result or starting a job.
  sys::Mutex mutex;
  std::uint64_t lastId SYS_GUARDED_BY(mutex) = 0;
  std::map<std::uint64_t, std::unique_ptr<Held<DownloadJob>>> liveJobs SYS_GUARDED_BY(mutex);
  std::map<std::uint64_t, std::uint32_t> finishedResults SYS_GUARDED_BY(mutex);
  std::map<std::uint64_t, std::unique_ptr<Held<std::future<Response>>>> pendingResults SYS_GUARDED_BY(mutex);
};

Handles& handles();

// Ends what a host left behind.  The requests are stopped first: a future's destructor waits for its request.
void releaseHandles() {
  xfer::stopAllFetches();
  Handles& all = handles();
  const sys::MutexLock lock(all.mutex);
  all.liveJobs.clear();
  all.pendingResults.clear();
  all.finishedResults.clear();
}

Handles& handles() {
  static sys::NeverDestroyed<Handles> instance;
  // What libcurl has run at exit was registered when the module was loaded, and so runs after this.
  static const bool registered = (sys::atUnload(releaseHandles), true);
  static_cast<void>(registered);
  return instance.get();
}

const char* orEmpty(const char* text) {
  return text != nullptr ? text : "";
}

// What all requests of the C interface have in common.
Request makeRequest(const char* url, const char* headers, const char* cookie, const char* proxy) {
  Request request;
  request.url = orEmpty(url);
  request.proxy = xfer::resolveProxy(proxy);
  request.cookie = orEmpty(cookie);
  xfer::splitLines(headers, request.headers);
  return request;
}

// A request whose whole time is not limited: hosts fetch large things this way.
Request makeDownload(const char* url, const char* headers, const char* options, const char* cookie, const char* proxy) {
  Request request = makeRequest(url, headers, cookie, proxy);
  request.timeoutSec = 0;
  xfer::RequestOptions parsed = xfer::parseRequestOptions(options);
  // Intended: without a body the request stays a GET, whether or not the options ask for a POST.
  request.body = std::move(parsed.postFields);
  request.followRedirects = parsed.followRedirects;
  return request;
}

// The buffer's size tells whether it holds the part: what resize answers is the host's business.
void fill(sys::IDataBuff& out, const void* bytes, std::uint64_t size) {
  out.resize(size);
  if (out.size() != size) throw std::bad_alloc();
  if (size != 0) std::memcpy(out.data(), bytes, size);
}

// An empty part leaves its buffer untouched.
void copyOut(const std::string& part, sys::IDataBuff* out) {
  if (!part.empty()) fill(*out, part.data(), part.size());
}

}  // namespace

// ---- Lifetime and settings ----

void xfer_ensureCurlInit(void) {
  xfer::init();
}

void xfer_curlGlobalCleanup(void) {
  XFER_LOG_LINE(log::kTrace, 194, "xfer_curlGlobalCleanup");
  xfer::shutdown();
}

void xfer_setProxy(const char* proxy) {
  XFER_LOG_LINE(log::kTrace, 185, "--> xfer_setProxy");
  xfer::init();
  xfer::setModuleProxy(xfer::parseProxySpec(orEmpty(proxy)));
}

void xfer_setNumThreads(uint16_t value) {
  XFER_LOG_LINE(log::kTrace, 635, "--> xfer_setNumThreads | value = " << value);
  g_numThreads = value;
}

void xfer_setMaxDownloadSpeed(uint64_t value) {
  g_maxDownloadSpeed = value;
}

void xfer_setQuietMode(bool quiet) {
  t_quiet = quiet;
}

// ---- Requests into memory ----

int xfer_download(const char* url, const char* headers, const char* options, sys::IDataBuff* outHeaders,
                  sys::IDataBuff* outBody, const char* cookie, const char* proxy) {
  const bool quiet = t_quiet;
  int code = result::kSuccess;
  try {
    if (!quiet) {
      XFER_LOG_LINE(log::kTrace, 291, "--> xfer_download | " << sys::loggedUrl(Keel::getSettingsName(), orEmpty(url)));
    }
    Request request = makeDownload(url, headers, options, cookie, proxy);
    request.quiet = quiet;
    const Response response = xfer::fetch(request);
    copyOut(response.headers, outHeaders);
    copyOut(response.body, outBody);
    if (response.curlCode != 0) {
      XFER_LOG_LINE(log::kFailure, 329, "fetch error: curl code " << response.curlCode);
      return response.curlCode;
    }
    if (outBody->size() == 0) return result::kEmptyBody;
  } catch (...) {
    XFER_LOG_LINE(log::kFailure, 336, "xfer_download exception");
    code = result::kException;
  }
  if (!quiet) XFER_LOG_LINE(log::kTrace, 341, "<-- xfer_download");
  return code;
}

int32_t xfer_downloadText(const char* url, const char* cookie, sys::IDataBuff* outHeaders, sys::IDataBuff* outBody,
                          const char* proxy) {
  if (url == nullptr) return result::kNullUrl;
  try {
    const std::string origin = XFER_VIDEO_SITE_ORIGIN;
    const std::string headerBlock =
        "User-Agent: Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/122.0 "
        "Safari/537.36\r\n"
        "Accept: */*\r\n"
        "Accept-Language: en-US,en;q=0.9\r\n"
        "Origin: " +
        origin + "\r\n" + "Referer: " + origin + xfer::watchPagePath(url) + "\r\n\r\n";
    sys::DataBuff headers;
    sys::DataBuff body;
    const int code = xfer_download(url, headerBlock.c_str(), "", &headers, &body, cookie, proxy);
    // A page without a body is one all the same.
    if (code != result::kSuccess && code != result::kEmptyBody) return code;
    std::istringstream words(headers.toString());
    std::string protocol;
    std::string statusWord;
    words >> protocol >> statusWord;
    const int status = xfer::parseStatus(statusWord);
    if (status < 200 || status > 299) return -1000 - status;
    fill(*outHeaders, headers.data(), headers.size());
    fill(*outBody, body.data(), body.size());
    return result::kSuccess;
  } catch (...) {
    return result::kTextException;
  }
}

int32_t xfer_downloadAsync(const char* url, uint64_t* dlId, const char* headers, const char* options,
                           const char* cookie, const char* proxy) {
  int32_t code = result::kSuccess;
  try {
    XFER_LOG_LINE(log::kTrace, 434, "--> xfer_downloadAsync | " << orEmpty(url));
    const Request request = makeDownload(url, headers, options, cookie, proxy);
    auto pending = std::make_unique<Held<std::future<Response>>>();
    pending->value = xfer::fetchAsync(request);
    Handles& all = handles();
    const sys::MutexLock lock(all.mutex);
    const std::uint64_t id = ++all.lastId;
    all.pendingResults.emplace(id, std::move(pending));
    *dlId = id;
  } catch (...) {
    XFER_LOG_LINE(log::kFailure, 457, "xfer_downloadAsync exception");
    code = result::kException;
  }
  XFER_LOG_LINE(log::kTrace, 461, "<-- xfer_downloadAsync");
  return code;
}

int32_t xfer_queryAsyncBuffer(uint64_t dlId, sys::IDataBuff* headersOut, sys::IDataBuff* bodyOut) {
  Handles& all = handles();
  std::unique_ptr<Held<std::future<Response>>> pending;
  {
    const sys::MutexLock lock(all.mutex);
    const auto found = all.pendingResults.find(dlId);
    if (found == all.pendingResults.end()) {
      XFER_LOG_LINE(log::kFailure, 473, "xfer_queryAsyncBuffer | dl_id=" << dlId << " not found");
      return result::kUnknownId;
    }
    pending = std::move(found->second);
    all.pendingResults.erase(found);
  }
  try {
    const Response response = pending->value.get();
    copyOut(response.headers, headersOut);
    copyOut(response.body, bodyOut);
    if (response.curlCode != 0) {
      XFER_LOG_LINE(log::kFailure, 496, "fetch error: curl code " << response.curlCode);
      return response.curlCode;
    }
    return bodyOut->size() != 0 ? result::kSuccess : result::kEmptyBody;
  } catch (...) {
    XFER_LOG_LINE(log::kFailure, 501, "xfer_queryAsyncBuffer exception");
    return result::kException;
  }
}

// ---- Remote sizes ----

int32_t xfer_getRemoteFileSize(const char* url, uint64_t* size, uint32_t* mediaType, const char* cookie,
                               const char* headers, uint16_t retries, const char* proxy) {
  try {
    Request request = makeRequest(url, headers, cookie, proxy);
    request.headers.emplace_back("Range: bytes=0-0");
    request.quiet = true;
    int32_t code = result::kNoSize;
    for (int attempt = 0; attempt < std::max<int>(retries, 1); ++attempt) {
      const xfer::CountedResponse answer = xfer::fetchCounted(request);
      const Response& response = answer.response;
      code = response.curlCode;
      if (code != 0) continue;
      *mediaType = static_cast<std::uint32_t>(xfer::mediaTypeFromHeaders(response.headers));
      if (const auto remoteSize = xfer::remoteSize(response.status, response.headers)) {
        *size = *remoteSize;
        return result::kSuccess;
      }
      XFER_LOG_LINE(log::kFailure, 259,
                    "xfer_getRemoteFileSize: unexpected response, http=" << response.status
                                                                         << " headers_len=" << response.headers.size()
                                                                         << " body_len=" << answer.bodyBytes);
      code = result::kNoSize;
    }
    return code;
  } catch (...) {
    XFER_LOG_LINE(log::kFailure, 264, "xfer_getRemoteFileSize exception");
    return result::kSizeException;
  }
}

bool xfer_getContentLength(const std::string& url, int64_t* length) {
  *length = xfer::getContentLength(url, {}, {});
  return *length > 0;
}

// ---- Downloads into files ----

uint64_t xfer_downloadFile(const char* url, const char* path, const char* headers, uint16_t threads, const char* cookie,
                           uint64_t /*reserved*/, uint64_t knownSize, const char* proxy) {
  const std::string connections = threads >= 2 ? "(x" + std::to_string(threads) + ") " : "";
  XFER_LOG_LINE(log::kTrace, 515,
                "--> xfer_downloadFile | " << connections << orEmpty(url) << " | " << orEmpty(path)
                                           << " | known_size=" << knownSize);
  DownloadRequest request;
  request.url = orEmpty(url);
  request.path = orEmpty(path);
  request.cookie = orEmpty(cookie);
  xfer::splitLines(headers, request.headers);
  request.proxy = xfer::resolveProxy(proxy);
  request.knownSize = knownSize;
  DownloadPolicy policy;  // its defaults are what file downloads use
  policy.numThreads = threads != 0 ? threads : std::max<std::uint16_t>(g_numThreads, 1);
  policy.maxDownloadSpeed = g_maxDownloadSpeed;

  Handles& all = handles();
  auto job = std::unique_ptr<Held<DownloadJob>>(new Held<DownloadJob>{{}, DownloadJob(std::move(request), policy)});
  job->value.start();
  const sys::MutexLock lock(all.mutex);
  const std::uint64_t id = ++all.lastId;
  all.liveJobs.emplace(id, std::move(job));
  return id;
}

int32_t xfer_downloadPause(uint64_t dl_id) {
  XFER_LOG_LINE(log::kTrace, 540, "--> xfer_downloadPause");
  Handles& all = handles();
  const sys::MutexLock lock(all.mutex);
  const auto found = all.liveJobs.find(dl_id);
  if (found == all.liveJobs.end()) {
    XFER_LOG_LINE(log::kFailure, 546, "xfer_downloadPause | dl_id=" << dl_id << " not found");
    return result::kUnknownId;
  }
  found->second->value.pause();
  return result::kSuccess;
}

int32_t xfer_downloadResume(uint64_t dl_id) {
  XFER_LOG_LINE(log::kTrace, 554, "--> xfer_downloadResume");
  Handles& all = handles();
  const sys::MutexLock lock(all.mutex);
  const auto found = all.liveJobs.find(dl_id);
  if (found == all.liveJobs.end()) {
    XFER_LOG_LINE(log::kFailure, 560, "xfer_downloadResume | dl_id=" << dl_id << " not found");
    return result::kUnknownId;
  }
  found->second->value.resume();
  return result::kSuccess;
}

bool xfer_stopDownloadHandle(uint64_t dl_id) {
  XFER_LOG_LINE(log::kTrace, 568, "--> xfer_stopDownloadHandle");
  Handles& all = handles();
  const sys::MutexLock lock(all.mutex);
  const auto found = all.liveJobs.find(dl_id);
  if (found == all.liveJobs.end()) {
    XFER_LOG_LINE(log::kFailure, 576, "xfer_stopDownloadHandle | dl_id=" << dl_id << " not found!");
    return false;
  }
  try {
    found->second->value.cancel();
    all.liveJobs.erase(found);
  } catch (...) {
    // Intended: the caller is told that the handle is gone.
    XFER_LOG_LINE(log::kFailure, 580, "xfer_stopDownloadHandle exception");
  }
  return true;
}

int32_t xfer_getProgress(uint64_t dl_id, uint64_t* downloaded, uint32_t* errorCode, uint8_t* finished) {
  Handles& all = handles();
  const sys::MutexLock lock(all.mutex);
  *finished = 1;
  const auto live = all.liveJobs.find(dl_id);
  if (live == all.liveJobs.end()) {
    const auto known = all.finishedResults.find(dl_id);
    if (known == all.finishedResults.end()) {
      XFER_LOG_LINE(log::kFailure, 625, "xfer_getProgress | dl_id=" << dl_id << " not found!");
      return result::kSuccess;
    }
    *errorCode = known->second;
    *downloaded = 0;
    return result::kSuccess;
  }
  const xfer::DownloadSnapshot snapshot = live->second->value.snapshot();
  *downloaded = snapshot.bytesDone;
  if (!xfer::isFinal(snapshot.state)) {
    *finished = 0;
    return result::kSuccess;
  }
  *errorCode = xfer::endCode(snapshot.state, snapshot.errorCode);
  all.finishedResults.emplace(dl_id, *errorCode);
  all.liveJobs.erase(live);
  return result::kSuccess;
}
