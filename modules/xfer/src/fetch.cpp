#include "xfer/fetch.h"

#include <cstdint>
#include <exception>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

#include "curl_handles.h"
#include "easy_options.h"
#include "fetch_option_values.h"
#include "fetch_stoppable.h"
#include "log.h"
#include "request_headers.h"
#include "request_text.h"
#include "result_codes.h"
#include "share_pool.h"
#include "sys/module.h"
#include "sys/mutex.h"
#include "sys/never_destroyed.h"

namespace xfer {
namespace {

constexpr const char* kLogTag = "xfer";
constexpr int kLongestWaitMs = 1000;  // as curl_easy_perform
constexpr int kStopCheckMs = 50;      // when libcurl cannot be woken

// State of a transfer that libcurl's callbacks update.
struct Arrival {
  FetchReceiver& receiver;
  std::uint64_t bodyBytes = 0;
  bool endedByReceiver = false;
  std::exception_ptr failure{};
};

std::size_t takeHeader(char* bytes, std::size_t size, std::size_t count, void* userdata) {
  auto& arrival = *static_cast<Arrival*>(userdata);
  try {
    arrival.endedByReceiver = !arrival.receiver.header({bytes, size * count});
    return arrival.endedByReceiver ? CURL_WRITEFUNC_ERROR : size * count;
  } catch (...) {
    arrival.failure = std::current_exception();
    return CURL_WRITEFUNC_ERROR;
  }
}

std::size_t takeBody(char* bytes, std::size_t size, std::size_t count, void* userdata) {
  auto& arrival = *static_cast<Arrival*>(userdata);
  try {
    arrival.bodyBytes += size * count;
    arrival.endedByReceiver = !arrival.receiver.body({bytes, size * count});
    return arrival.endedByReceiver ? CURL_WRITEFUNC_ERROR : size * count;
  } catch (...) {
    arrival.failure = std::current_exception();
    return CURL_WRITEFUNC_ERROR;
  }
}

// Keeps the headers of all responses, and the body if keepsBody.
class Collector final : public FetchReceiver {
 public:
  Collector(Response& response, bool keepsBody) : response_(response), keepsBody_(keepsBody) {}

  bool header(std::string_view line) override {
    response_.headers += line;
    return true;
  }

  bool body(std::string_view bytes) override {
    if (keepsBody_) response_.body += bytes;
    return true;
  }

 private:
  Response& response_;
  bool keepsBody_;
};

StopSignal& unloading() {
  static sys::NeverDestroyed<StopSignal> signal;
  return signal.get();
}

// As curl_easy_perform, but the stop signals abort it.
CURLcode perform(CURL* easy, const ShareLease& lease, const StopSignal& stop) {
  const bool shared = lease.handle() != nullptr;
  const Driver own = shared ? Driver() : Driver::make();
  const Driver* const driver = shared ? lease.driver() : &own;
  CURLM* const multi = driver != nullptr ? driver->multi.get() : nullptr;
  if (multi == nullptr || curl_multi_add_handle(multi, easy) != CURLM_OK) return CURLE_OUT_OF_MEMORY;
  // A wake-up before curl_multi_poll ends that poll, so none is lost between checking the signals and polling.
  const auto wake = [multi] { return curl_multi_wakeup(multi); };
  const StopSignal::Listener atStop(stop, wake);
  const StopSignal::Listener atUnload(unloading(), wake);
  const int longestWaitMs = driver->canBeWoken ? kLongestWaitMs : kStopCheckMs;
  CURLcode code = CURLE_ABORTED_BY_CALLBACK;
  while (!stop.isSet() && !unloading().isSet()) {
    int running = 0;
    curl_multi_perform(multi, &running);
    if (running == 0) {
      int left = 0;
      const CURLMsg* const message = curl_multi_info_read(multi, &left);
      code = message != nullptr ? message->data.result : CURLE_FAILED_INIT;
      break;
    }
    curl_multi_poll(multi, nullptr, 0, longestWaitMs, nullptr);
  }
  curl_multi_remove_handle(multi, easy);
  return code;
}

// 0, or libcurl's code when the request cannot be made as it is to be.
std::int32_t applyRequest(CURL* easy, const Request& request, const TlsTrust& trust) {
  setOption(easy, CURLOPT_URL, request.url.c_str());
  if (!request.body.empty()) {
    setOption(easy, CURLOPT_POST, 1L);
    setOption(easy, CURLOPT_POSTFIELDS, request.body.data());  // not copied; request outlives the transfer
    setOption(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.body.size()));
  }
  setOption(easy, CURLOPT_FOLLOWLOCATION, request.followRedirects ? 1L : 0L);
  setOption(easy, CURLOPT_MAXREDIRS, 20L);
  setOption(easy, CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL));
  if (request.connectTimeoutSec > 0) {
    setOption(easy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(request.connectTimeoutSec));
  }
  if (request.timeoutSec > 0) setOption(easy, CURLOPT_TIMEOUT, static_cast<long>(request.timeoutSec));
  if (request.lowSpeedTimeSec > 0) {
    setOption(easy, CURLOPT_LOW_SPEED_LIMIT, 1024L);
    setOption(easy, CURLOPT_LOW_SPEED_TIME, static_cast<long>(request.lowSpeedTimeSec));
  }
  setOption(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  setOption(easy, CURLOPT_BUFFERSIZE, kReceiveBuffer);
  setOption(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  applyProxy(easy, request.proxy);
  return applyTransport(easy, trust);
}

// Why the request is not to be sent; 0: it is.
std::int32_t refusal(const Request& request, const TlsTrust& trust) {
  if (const char* const field = trust.unworkable()) {
    if (!request.quiet) XFER_LOG(log::kFailure, "fetch | options refused | field=" << field);
    return CURLE_BAD_FUNCTION_ARGUMENT;
  }
  return holdsLineBreak(request.cookie, request.headers) ? CURLE_BAD_FUNCTION_ARGUMENT : CURLE_OK;
}

}  // namespace

void init() {
  // Not call_once: some implementations cannot retry after an exception.
  struct Progress {
    sys::Mutex mutex;
    bool globalIsUp SYS_GUARDED_BY(mutex) = false;
    bool done SYS_GUARDED_BY(mutex) = false;
  };
  static sys::NeverDestroyed<Progress> instance;
  Progress& progress = instance.get();
  const sys::MutexLock lock(progress.mutex);
  if (progress.done) return;
  if (!std::exchange(progress.globalIsUp, true)) curl_global_init(CURL_GLOBAL_ALL);
  sharePool().open();
  progress.done = true;
}

void* shareHandle() {
  return sharePool().primary();
}

void shutdown() {
  sharePool().close();
  curl_global_cleanup();
}

void stopAllFetches() {
  unloading().set();
}

Response fetch(const Request& request) {
  return fetch(request, {});
}

Response fetch(const Request& request, const FetchOptions& options) {
  std::optional<Request> changed;  // a body may be large
  if (!options.values().userAgent.empty()) {
    changed = request;
    addUserAgent(changed->headers, options.values().userAgent);
  }
  Response response;
  Collector receiver(response, true);
  const FetchEnd end =
      fetchInto(changed ? *changed : request, receiver, unloading(), ConnectHeads::Shown, options.values().trust);
  response.curlCode = end.curlCode;
  response.status = end.status;
  return response;
}

CountedResponse fetchCounted(const Request& request, const TlsTrust& trust) {
  CountedResponse counted;
  Collector receiver(counted.response, false);
  const FetchEnd end = fetchInto(request, receiver, unloading(), ConnectHeads::Shown, trust);
  counted.response.curlCode = end.curlCode;
  counted.response.status = end.status;
  counted.bodyBytes = end.bodyBytes;
  return counted;
}

FetchEnd fetchInto(const Request& request, FetchReceiver& receiver, const StopSignal& stop, ConnectHeads connectHeads,
                   const TlsTrust& trust) {
  init();
  FetchEnd end;
  Arrival arrival{receiver};
  {
    const ShareLease lease = sharePool().lease(originOf(request.url), Wire::Http1, trust);
    const EasyPtr easy(curl_easy_init());
    if (!easy) {
      end.curlCode = result::kNoHandle;
      return end;
    }
    if (lease.handle() != nullptr) setOption(easy.get(), CURLOPT_SHARE, lease.handle());
    const std::int32_t unable = applyRequest(easy.get(), request, trust);
    const RequestHeaders headers(easy.get(), request.url, request.cookie, request.headers);
    setOption(easy.get(), CURLOPT_WRITEFUNCTION, takeBody);
    setOption(easy.get(), CURLOPT_WRITEDATA, &arrival);
    setOption(easy.get(), CURLOPT_HEADERFUNCTION, takeHeader);
    setOption(easy.get(), CURLOPT_HEADERDATA, &arrival);
    if (connectHeads == ConnectHeads::Hidden) setOption(easy.get(), CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);

    if (!request.quiet) XFER_LOG_LINE(log::kTrace, 224, "--> fetch | " << request.url);
    auto code = static_cast<CURLcode>(unable != 0 ? unable : refusal(request, trust));
    if (code == CURLE_OK) code = perform(easy.get(), lease, stop);
    if (code == CURLE_WRITE_ERROR && arrival.endedByReceiver) code = CURLE_OK;
    if (code != CURLE_OK) {
      end.curlCode = code;
      if (!request.quiet) {
        XFER_LOG_LINE(log::kFailure, 235,
                      "fetch | curl error " << static_cast<int>(code) << " (" << curl_easy_strerror(code) << ")");
      }
    } else {
      long status = 0;
      curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
      end.status = static_cast<std::int32_t>(status);
    }
  }
  if (arrival.failure) std::rethrow_exception(arrival.failure);
  end.bodyBytes = arrival.bodyBytes;
  if (!request.quiet) {
    XFER_LOG_LINE(log::kTrace, 242, "<-- fetch | status=" << end.status << " | body_size=" << end.bodyBytes);
  }
  return end;
}

std::future<Response> fetchAsync(const Request& request) {
  return fetchAsync(request, {});
}

std::future<Response> fetchAsync(const Request& request, const FetchOptions& options) {
  // The captured copies are not const, so that the task is moved to its thread and not copied again.
  return std::async(std::launch::async, [request = Request(request), options = FetchOptions(options)] {
    struct EndOfThread {
      ~EndOfThread() { sys::releaseThreadState(); }
    } const endOfThread;
    return fetch(request, options);
  });
}

std::int64_t getContentLength(const std::string& url, const net::Proxy& proxy, const std::string& cookie) {
  return getContentLength(url, proxy, cookie, FetchOptions());
}

std::int64_t getContentLength(const std::string& url, const net::Proxy& proxy, const std::string& cookie,
                              const FetchOptions& options) {
  Request request;
  request.url = url;
  request.proxy = proxy;
  request.cookie = cookie;
  request.headers = {"Range: bytes=0-0"};
  addUserAgent(request.headers, options.values().userAgent);
  request.quiet = true;
  const Response response = fetchCounted(request, options.values().trust).response;
  if (response.curlCode != 0) return -1;
  constexpr std::uint64_t kMost = std::numeric_limits<std::int64_t>::max();
  if (const auto total = contentRangeTotal(response.headers)) {
    const auto size = leadingNumber(*total);
    if (!size || *size > kMost) return -1;
    if (*size > 0) return static_cast<std::int64_t>(*size);
  }
  // Intended: without a total, returns the length of the one-byte part.
  const auto length = contentLengthText(response.headers);
  const auto size = length ? leadingNumber(*length) : std::nullopt;
  return !size || *size < 1 || *size > kMost ? -1 : static_cast<std::int64_t>(*size);
}

}  // namespace xfer
