// The C interface: parses texts into records, keeps the module's settings, and catches every exception.
#include "xfer/xfer.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <utility>

#include "download_job_impl.h"
#include "error_text.h"
#include "fetch_stoppable.h"
#include "handles.h"
#include "host_buffer.h"
#include "keel/keel.h"
#include "log.h"
#include "module_defaults.h"
#include "proxy_setting.h"
#include "request_setting.h"
#include "request_text.h"
#include "result_codes.h"
#include "sys/data_buff.h"
#include "sys/descrambler.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"

namespace {

using xfer::copyOut;
using xfer::DownloadPolicy;
using xfer::DownloadRequest;
using xfer::Handles;
using xfer::handles;
using xfer::Request;
using xfer::Response;
namespace log = xfer::log;
namespace result = xfer::result;

constexpr const char* kLogTag = "xfer";

// ---- Module-wide settings.  A start that races with a setter may use the old value. ----

std::atomic<std::uint64_t> g_maxDownloadSpeed{0};
thread_local bool t_quiet = false;

// ---- Exception guard ----

// Runs the body of an entry and returns its result.  On an exception: logs "<function> exception" with that line number
// (not when function is null) and returns failure.
template <class Answer, class Body>
Answer guarded(const char* function, std::uint32_t line, Answer failure, Body body) noexcept {
  try {
    return body();
  } catch (...) {
    if (function != nullptr) XFER_LOG_LINE(log::kFailure, line, function << " exception");
    return failure;
  }
}

// For an entry without a result.
template <class Body>
void guarded(const char* function, std::uint32_t line, Body body) noexcept {
  guarded(function, line, true, [&] {
    body();
    return true;
  });
}

// ---- Records ----

const char* orEmpty(const char* text) {
  return text != nullptr ? text : "";
}

// The fields that all requests of the C interface set.
Request makeRequest(const char* url, const char* headers, const char* cookie, const char* proxy) {
  Request request;
  request.url = orEmpty(url);
  request.proxy = xfer::resolveProxy(proxy);
  request.cookie = orEmpty(cookie);
  xfer::splitLines(headers, request.headers);
  xfer::addUserAgent(request.headers, xfer::moduleUserAgent());
  return request;
}

// A request without a total timeout: hosts fetch large bodies this way.
Request makeDownload(const char* url, const char* headers, const char* options, const char* cookie, const char* proxy) {
  Request request = makeRequest(url, headers, cookie, proxy);
  request.timeoutSec = 0;
  xfer::RequestOptions parsed = xfer::parseRequestOptions(options);
  // Intended: without a body the request stays a GET, even when the options ask for a POST.
  request.body = std::move(parsed.postFields);
  request.followRedirects = parsed.followRedirects;
  return request;
}

xfer::FetchOptions moduleOptions() {
  const xfer::TlsTrust trust = xfer::moduleTrust();
  return xfer::FetchOptions().setVerifyPeer(trust.verifyPeer).setCaFile(trust.caFile);
}

}  // namespace

// ---- Words ----

const char* xfer_version(void) {
  return XFER_VERSION_TEXT;
}

const char* xfer_errorText(int32_t code) {
  return xfer::errorText(code);
}

// ---- Buffers ----

sys::IDataBuff* xfer_bufferNew(void) {
  return new (std::nothrow) sys::DataBuff;
}

// The interface's functions are not const: a host's buffer may do anything in them.
const uint8_t* xfer_bufferData(const sys::IDataBuff* buffer) {
  return const_cast<sys::IDataBuff*>(buffer)->data();
}

uint64_t xfer_bufferSize(const sys::IDataBuff* buffer) {
  return const_cast<sys::IDataBuff*>(buffer)->size();
}

void xfer_bufferFree(sys::IDataBuff* buffer) {
  delete static_cast<sys::DataBuff*>(buffer);
}

// ---- Lifetime and settings ----

void xfer_ensureCurlInit(void) {
  guarded("xfer_ensureCurlInit", __LINE__, [] { xfer::init(); });
}

void xfer_curlGlobalCleanup(void) {
  XFER_LOG_LINE(log::kTrace, 194, "xfer_curlGlobalCleanup");
  guarded("xfer_curlGlobalCleanup", __LINE__, [] { xfer::shutdown(); });
}

void xfer_setProxy(const char* proxy) {
  XFER_LOG_LINE(log::kTrace, 185, "--> xfer_setProxy");
  guarded("xfer_setProxy", __LINE__, [&] {
    xfer::init();
    xfer::setModuleProxy(xfer::parseProxySpec(orEmpty(proxy)));
  });
}

int32_t xfer_setTls(bool verify, const char* caFile) {
  return guarded("xfer_setTls", __LINE__, result::kException,
                 [&] { return xfer::setModuleTrust(verify, orEmpty(caFile)); });
}

int32_t xfer_setUserAgent(const char* userAgent) {
  return guarded("xfer_setUserAgent", __LINE__, result::kException,
                 [&] { return xfer::setModuleUserAgent(orEmpty(userAgent)); });
}

void xfer_setNumThreads(uint16_t value) {
  XFER_LOG_LINE(log::kTrace, 635, "--> xfer_setNumThreads | value = " << value);
  xfer::setModuleConnections(value);
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
  if (!quiet) {
    XFER_LOG_LINE(log::kTrace, 291, "--> xfer_download | " << sys::loggedUrl(Keel::getSettingsName(), orEmpty(url)));
  }
  const std::int32_t code = guarded("xfer_download", 336, result::kException, [&] {
    Request request = makeDownload(url, headers, options, cookie, proxy);
    request.quiet = quiet;
    const Response response = xfer::fetch(request, moduleOptions());
    copyOut(response.headers, outHeaders);
    copyOut(response.body, outBody);
    if (response.curlCode != 0) {
      XFER_LOG_LINE(log::kFailure, 329, "fetch error: curl code " << response.curlCode);
      return response.curlCode;
    }
    return outBody->size() != 0 ? result::kSuccess : result::kEmptyBody;
  });
  // Intended: a failed transfer and an empty body leave no exit trace; an exception does.
  const bool traced = code == result::kSuccess || code == result::kException;
  if (traced && !quiet) XFER_LOG_LINE(log::kTrace, 341, "<-- xfer_download");
  return code;
}

int32_t xfer_downloadText(const char* url, const char* cookie, sys::IDataBuff* outHeaders, sys::IDataBuff* outBody,
                          const char* proxy) {
  if (url == nullptr) return result::kNullUrl;
  // Intended: an exception is not logged here.
  return guarded(nullptr, 0, result::kTextException, [&]() -> std::int32_t {
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
    // Intended: an empty body is a success here.
    if (code != result::kSuccess && code != result::kEmptyBody) return code;
    std::istringstream words(headers.toString());
    std::string protocol;
    std::string statusWord;
    words >> protocol >> statusWord;
    const int status = xfer::parseStatus(statusWord);
    if (status < 200 || status > 299) return result::unexpectedStatus(status);
    xfer::fillBuffer(*outHeaders, headers.data(), headers.size());
    xfer::fillBuffer(*outBody, body.data(), body.size());
    return result::kSuccess;
  });
}

int32_t xfer_downloadAsync(const char* url, uint64_t* dlId, const char* headers, const char* options,
                           const char* cookie, const char* proxy) {
  XFER_LOG_LINE(log::kTrace, 434, "--> xfer_downloadAsync | " << orEmpty(url));
  const std::int32_t code = guarded("xfer_downloadAsync", 457, result::kException, [&] {
    Handles& table = handles();
    const Request request = makeDownload(url, headers, options, cookie, proxy);
    Handles::RequestEntry entry = Handles::reserveRequest();
    entry.mapped().response = xfer::fetchAsync(request, moduleOptions());
    *dlId = table.file(std::move(entry));
    return result::kSuccess;
  });
  XFER_LOG_LINE(log::kTrace, 461, "<-- xfer_downloadAsync");
  return code;
}

int32_t xfer_queryAsyncBuffer(uint64_t dlId, sys::IDataBuff* headersOut, sys::IDataBuff* bodyOut) {
  return guarded("xfer_queryAsyncBuffer", 501, result::kException, [&] {
    Handles::RequestEntry entry = handles().take(dlId);
    if (entry.empty()) {
      XFER_LOG_LINE(log::kFailure, 473, "xfer_queryAsyncBuffer | dl_id=" << dlId << " not found");
      return result::kUnknownId;
    }
    const Response response = entry.mapped().response.get();
    copyOut(response.headers, headersOut);
    copyOut(response.body, bodyOut);
    if (response.curlCode != 0) {
      XFER_LOG_LINE(log::kFailure, 496, "fetch error: curl code " << response.curlCode);
      return response.curlCode;
    }
    return bodyOut->size() != 0 ? result::kSuccess : result::kEmptyBody;
  });
}

// ---- Remote sizes ----

int32_t xfer_getRemoteFileSize(const char* url, uint64_t* size, uint32_t* mediaType, const char* cookie,
                               const char* headers, uint16_t retries, const char* proxy) {
  return guarded("xfer_getRemoteFileSize", 264, result::kSizeException, [&] {
    Request request = makeRequest(url, headers, cookie, proxy);
    request.headers.emplace_back("Range: bytes=0-0");
    request.quiet = true;
    int32_t code = result::kNoSize;
    for (int attempt = 0; attempt < std::max<int>(retries, 1); ++attempt) {
      const xfer::CountedResponse answer = xfer::fetchCounted(request, xfer::moduleTrust());
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
  });
}

bool xfer_getContentLength(const std::string& url, int64_t* length) {
  *length = -1;
  return guarded("xfer_getContentLength", __LINE__, false, [&] {
    *length = xfer::getContentLength(url, {}, {}, moduleOptions().setUserAgent(xfer::moduleUserAgent()));
    return *length > 0;
  });
}

// ---- Downloads into files ----

uint64_t xfer_downloadFile(const char* url, const char* path, const char* headers, uint16_t threads, const char* cookie,
                           uint64_t /*reserved*/, uint64_t knownSize, const char* proxy) {
  XFER_LOG_LINE(log::kTrace, 515,
                "--> xfer_downloadFile | " << (threads >= 2 ? "(x" + std::to_string(threads) + ") " : "")
                                           << orEmpty(url) << " | " << orEmpty(path) << " | known_size=" << knownSize);
  return guarded("xfer_downloadFile", __LINE__, std::uint64_t{0}, [&] {
    Handles& table = handles();
    Handles::DownloadEntry entry = Handles::reserveDownload();
    xfer::Download& download = entry.mapped();
    const bool started = guarded("xfer_downloadFile", __LINE__, false, [&] {
      DownloadRequest request;
      request.url = orEmpty(url);
      request.path = orEmpty(path);
      request.cookie = orEmpty(cookie);
      xfer::splitLines(headers, request.headers);
      request.proxy = xfer::resolveProxy(proxy);
      request.knownSize = knownSize;
      DownloadPolicy policy;  // file downloads use its defaults
      policy.numThreads = threads != 0 ? threads : xfer::moduleConnections();
      policy.maxDownloadSpeed = g_maxDownloadSpeed;
      // Settings of the module are no options of the job: it behaves as one without any.
      xfer::addUserAgent(request.headers, xfer::moduleUserAgent());
      download.live = std::make_unique<xfer::LiveJob>(std::make_unique<xfer::DownloadJob::Impl>(
          std::move(request), policy, xfer::realJobEnvironment(xfer::moduleTrust())));
      download.live->job.start();
      return true;
    });
    if (!started) {
      download.live.reset();
      download.result = static_cast<std::uint32_t>(result::kException);
    }
    return table.file(std::move(entry));
  });
}

int32_t xfer_downloadPause(uint64_t dl_id) {
  XFER_LOG_LINE(log::kTrace, 540, "--> xfer_downloadPause");
  return guarded("xfer_downloadPause", __LINE__, result::kException, [&] {
    if (handles().pause(dl_id)) return result::kSuccess;
    XFER_LOG_LINE(log::kFailure, 546, "xfer_downloadPause | dl_id=" << dl_id << " not found");
    return result::kUnknownId;
  });
}

int32_t xfer_downloadResume(uint64_t dl_id) {
  XFER_LOG_LINE(log::kTrace, 554, "--> xfer_downloadResume");
  return guarded("xfer_downloadResume", __LINE__, result::kException, [&] {
    if (handles().resume(dl_id)) return result::kSuccess;
    XFER_LOG_LINE(log::kFailure, 560, "xfer_downloadResume | dl_id=" << dl_id << " not found");
    return result::kUnknownId;
  });
}

bool xfer_stopDownloadHandle(uint64_t dl_id) {
  XFER_LOG_LINE(log::kTrace, 568, "--> xfer_stopDownloadHandle");
  // Intended: returns true after an exception too, since the handle is gone.
  return guarded("xfer_stopDownloadHandle", 580, true, [&] {
    if (handles().stop(dl_id)) return true;
    XFER_LOG_LINE(log::kFailure, 576, "xfer_stopDownloadHandle | dl_id=" << dl_id << " not found!");
    return false;
  });
}

int32_t xfer_getProgress(uint64_t dl_id, uint64_t* downloaded, uint32_t* errorCode, uint8_t* finished) {
  return guarded("xfer_getProgress", __LINE__, result::kSuccess, [&] {
    const auto progress = handles().progress(dl_id);
    *finished = !progress || progress->finished ? 1 : 0;
    if (!progress) {
      XFER_LOG_LINE(log::kFailure, 625, "xfer_getProgress | dl_id=" << dl_id << " not found!");
      return result::kSuccess;
    }
    *downloaded = progress->bytesDone;
    if (progress->finished) *errorCode = progress->result;
    return result::kSuccess;
  });
}
