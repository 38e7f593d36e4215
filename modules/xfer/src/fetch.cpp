#include "xfer/fetch.h"

#include <cstdlib>
#include <exception>
#include <mutex>
#include <optional>

#include "curl_handles.h"
#include "easy_options.h"
#include "fetch_stoppable.h"
#include "log.h"
#include "request_text.h"
#include "result_codes.h"
#include "share_pool.h"
#include "sys/module.h"
#include "sys/never_destroyed.h"

namespace xfer {
namespace {

constexpr const char* kLogTag = "xfer";
constexpr int kStopCheckMs = 50;

// Where libcurl's write callback puts what arrives.
struct Delivery {
  std::string& target;
  std::exception_ptr& failure;
};

std::size_t append(char* bytes, std::size_t size, std::size_t count, void* userdata) {
  const auto& delivery = *static_cast<Delivery*>(userdata);
  try {
    delivery.target.append(bytes, size * count);
  } catch (...) {
    delivery.failure = std::current_exception();
    return CURL_WRITEFUNC_ERROR;
  }
  return size * count;
}

StopSignal& unloading() {
  static sys::NeverDestroyed<StopSignal> signal;
  return signal.get();
}

// What curl_easy_perform does, with a look at the stop signals between two waits.
CURLcode perform(CURL* easy, const StopSignal& stop) {
  const MultiPtr multi(curl_multi_init());
  if (!multi || curl_multi_add_handle(multi.get(), easy) != CURLM_OK) return CURLE_OUT_OF_MEMORY;
  CURLcode code = CURLE_ABORTED_BY_CALLBACK;
  while (!stop.isSet() && !unloading().isSet()) {
    int running = 0;
    curl_multi_perform(multi.get(), &running);
    if (running == 0) {
      int left = 0;
      const CURLMsg* const message = curl_multi_info_read(multi.get(), &left);
      code = message != nullptr ? message->data.result : CURLE_FAILED_INIT;
      break;
    }
    curl_multi_poll(multi.get(), nullptr, 0, kStopCheckMs, nullptr);
  }
  curl_multi_remove_handle(multi.get(), easy);
  return code;
}

void applyRequest(CURL* easy, const Request& request) {
  curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
  if (!request.body.empty()) {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());  // not copied: the request outlives the transfer
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(request.body.size()));
  }
  curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, request.followRedirects ? 1L : 0L);
  curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 20L);
  curl_easy_setopt(easy, CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL));
  if (request.connectTimeoutSec > 0) {
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, static_cast<long>(request.connectTimeoutSec));
  }
  if (request.timeoutSec > 0) curl_easy_setopt(easy, CURLOPT_TIMEOUT, static_cast<long>(request.timeoutSec));
  if (request.lowSpeedTimeSec > 0) {
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1024L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, static_cast<long>(request.lowSpeedTimeSec));
  }
  applyTransport(easy);
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReceiveBuffer);
  curl_easy_setopt(easy, CURLOPT_TCP_KEEPALIVE, 1L);
  applyProxy(easy, request.proxy);
  if (!request.cookie.empty()) curl_easy_setopt(easy, CURLOPT_COOKIE, request.cookie.c_str());
}

}  // namespace

void init() {
  static std::once_flag once;
  std::call_once(once, [] {
    curl_global_init(CURL_GLOBAL_ALL);
    sharePool().open();
  });
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
  return fetchStoppable(request, unloading());
}

Response fetchStoppable(const Request& request, const StopSignal& stop) {
  init();
  Response response;
  std::exception_ptr failure;
  {
    const ShareLease lease = sharePool().lease(originOf(request.url));
    const EasyPtr easy(curl_easy_init());
    if (!easy) {
      response.curlCode = result::kNoHandle;
      return response;
    }
    if (lease.handle() != nullptr) curl_easy_setopt(easy.get(), CURLOPT_SHARE, lease.handle());
    applyRequest(easy.get(), request);
    const SlistPtr headers = headerList(request.headers);
    curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, headers.get());
    Delivery toBody{response.body, failure};
    Delivery toHeaders{response.headers, failure};
    curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &toBody);
    curl_easy_setopt(easy.get(), CURLOPT_HEADERFUNCTION, append);
    curl_easy_setopt(easy.get(), CURLOPT_HEADERDATA, &toHeaders);

    if (!request.quiet) XFER_LOG_LINE(log::kTrace, 224, "--> fetch | " << request.url);
    const CURLcode code =
        holdsLineBreak(request.cookie, request.headers) ? CURLE_BAD_FUNCTION_ARGUMENT : perform(easy.get(), stop);
    if (code != CURLE_OK) {
      response.curlCode = code;
      if (!request.quiet) {
        XFER_LOG_LINE(log::kFailure, 235,
                      "fetch | curl error " << static_cast<int>(code) << " (" << curl_easy_strerror(code) << ")");
      }
    } else {
      long status = 0;
      curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
      response.status = static_cast<std::int32_t>(status);
    }
  }
  if (failure) std::rethrow_exception(failure);
  if (!request.quiet) {
    XFER_LOG_LINE(log::kTrace, 242,
                  "<-- fetch | status=" << response.status << " | body_size=" << response.body.size());
  }
  return response;
}

std::future<Response> fetchAsync(const Request& request) {
  return std::async(std::launch::async, [request] {
    struct EndOfThread {
      ~EndOfThread() { sys::releaseThreadState(); }
    } const endOfThread;
    return fetch(request);
  });
}

std::int64_t getContentLength(const std::string& url, const net::Proxy& proxy, const std::string& cookie) {
  Request request;
  request.url = url;
  request.proxy = proxy;
  request.cookie = cookie;
  request.headers = {"Range: bytes=0-0"};
  request.quiet = true;
  const Response response = fetch(request);
  if (response.curlCode != 0) return -1;
  if (const auto total = contentRangeTotal(response.headers)) {
    if (const auto size = std::strtoll(total->c_str(), nullptr, 10); size > 0) return size;
  }
  // An unknown total leaves the length of the one-byte part, and that is what is returned.
  const auto length = contentLengthText(response.headers);
  const auto size = length ? std::strtoll(length->c_str(), nullptr, 10) : 0;
  return size < 1 ? -1 : size;
}

}  // namespace xfer
