#include "xfer/fetch.h"

#include <algorithm>
#include <cstdint>
#include <exception>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "curl_failure.h"
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
  CURL* easy = nullptr;
  std::uint64_t bodyBytes = 0;
  Next next = Next::More;
  std::exception_ptr failure{};
};

// Gives a part of the response to the receiver; returns what libcurl's callback is to return.
template <class Give>
std::size_t give(Arrival& arrival, std::size_t size, Give give) {
  try {
    arrival.next = give();
    return arrival.next == Next::More ? size : CURL_WRITEFUNC_ERROR;
  } catch (...) {
    arrival.failure = std::current_exception();
    return CURL_WRITEFUNC_ERROR;
  }
}

std::size_t takeHeader(char* bytes, std::size_t size, std::size_t count, void* userdata) {
  auto& arrival = *static_cast<Arrival*>(userdata);
  return give(arrival, size * count, [&] { return arrival.receiver.header({bytes, size * count}); });
}

std::int32_t statusOf(CURL* easy) {
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  return static_cast<std::int32_t>(status);
}

std::size_t takeBody(char* bytes, std::size_t size, std::size_t count, void* userdata) {
  auto& arrival = *static_cast<Arrival*>(userdata);
  arrival.bodyBytes += size * count;
  return give(arrival, size * count, [&] {
    return arrival.receiver.body(statusOf(arrival.easy), {bytes, size * count});
  });
}

// Keeps parts of a response, and hands its body to a host.
class Collector final : public FetchReceiver {
 public:
  Collector(Response& response, Kept kept, const BodyCallback* onBody = nullptr)
      : response_(response), kept_(kept), onBody_(onBody) {}

  Next header(std::string_view line) override {
    if (kept_.headers) response_.headers += line;
    return Next::More;
  }

  Next body(std::int32_t status, std::string_view bytes) override {
    if (onBody_ != nullptr) return hand(status, bytes);
    if (kept_.body) response_.body += bytes;
    return Next::More;
  }

 private:
  [[nodiscard]] Next hand(std::int32_t status, std::string_view bytes) const {
    try {
      return (*onBody_)(status, bytes) ? Next::More : Next::Aborted;
    } catch (...) {
      return Next::Threw;
    }
  }

  Response& response_;
  const Kept kept_;
  const BodyCallback* const onBody_;
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

// The method and the body.  0, or libcurl's code.
std::int32_t applyMethod(CURL* easy, const std::string& method, std::string_view body) {
  // Servers expect a length with these, also when it is 0.
  const bool hasLength = !body.empty() || method == "POST" || method == "PUT" || method == "PATCH";
  if (hasLength) {
    constexpr std::uint64_t kMost = std::numeric_limits<long>::max();
    setOption(easy, CURLOPT_POST, 1L);
    setOption(easy, CURLOPT_POSTFIELDS, body.empty() ? "" : body.data());  // not copied; the body outlives the transfer
    if (body.size() <= kMost) {
      setOption(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    } else if (const auto code =
                   requireOption(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()))) {
      return code;
    }
  }
  if (method.empty()) return CURLE_OK;
  if (method == "HEAD") return requireOption(easy, CURLOPT_NOBODY, 1L);  // by another method libcurl awaits a body
  return requireOption(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
}

void applyRedirects(CURL* easy, const Request& request, const FetchExtras& extras) {
  constexpr std::uint32_t kUnlessSet = 20;
  constexpr std::uint32_t kMost = 32767;  // releases of libcurl refuse more
  const bool follows = extras.maxRedirects ? *extras.maxRedirects > 0 : request.followRedirects;
  setOption(easy, CURLOPT_FOLLOWLOCATION, follows ? 1L : 0L);
  setOption(easy, CURLOPT_MAXREDIRS, static_cast<long>(std::min(extras.maxRedirects.value_or(kUnlessSet), kMost)));
  setOption(easy, CURLOPT_POSTREDIR, static_cast<long>(CURL_REDIR_POST_ALL));
}

std::string_view bodyOf(const Request& request, const FetchExtras& extras) {
  return extras.body.empty() ? request.body : extras.body;
}

// 0, or libcurl's code when the request cannot be made as it is to be.
std::int32_t applyRequest(CURL* easy, const Request& request, const TlsTrust& trust, const FetchExtras& extras) {
  setOption(easy, CURLOPT_URL, request.url.c_str());
  if (const auto code = applyMethod(easy, std::string(extras.method), bodyOf(request, extras))) return code;
  applyRedirects(easy, request, extras);
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
std::int32_t refusal(const Request& request, const std::vector<std::string>& lines, const TlsTrust& trust,
                     const FetchExtras& extras, ShortText& why) {
  const char* field = trust.unworkable();
  if (field == nullptr) field = unworkableMethod(extras.method, bodyOf(request, extras).size());
  if (field != nullptr) {
    if (!request.quiet) XFER_LOG(log::kFailure, "fetch | options refused | field=" << field);
    why = ShortText::of("the option ", field, " cannot be used");
    return CURLE_BAD_FUNCTION_ARGUMENT;
  }
  if (!holdsLineBreak(request.cookie, lines)) return CURLE_OK;
  why = ShortText::of(kLineBreak);
  return CURLE_BAD_FUNCTION_ARGUMENT;
}

// libcurl's code for a transfer that its receiver has ended; its callbacks can only say that they took less.
CURLcode endedBy(Next next) {
  switch (next) {
    case Next::Enough:
      return CURLE_OK;
    case Next::Aborted:
      return CURLE_ABORTED_BY_CALLBACK;
    default:
      return CURLE_WRITE_ERROR;
  }
}

void logFailure(std::int32_t code) {
  if (code == result::kCallbackThrew) {
    XFER_LOG(log::kFailure, "fetch | onBody threw");
    return;
  }
  XFER_LOG_LINE(log::kFailure, 235,
                "fetch | curl error " << code << " (" << curl_easy_strerror(static_cast<CURLcode>(code)) << ")");
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
  return fetchKept(request, options.values(), {}, {}).response;
}

KeptResponse fetchKept(const Request& request, const FetchOptions::Values& values, std::string_view body, Kept kept) {
  KeptResponse answer;
  Collector receiver(answer.response, kept, values.onBody ? &values.onBody : nullptr);
  const FetchExtras extras{values.userAgent, values.method, body, values.maxRedirects};
  const FetchEnd end =
      fetchInto(request, receiver, values.stop ? *values.stop : unloading(), ConnectHeads::Shown, values.trust, extras);
  answer.response.curlCode = end.curlCode;
  answer.response.status = end.status;
  answer.lastStatus = end.lastStatus;
  answer.bodyBytes = end.bodyBytes;
  tellFailure(values, end.curlCode, end.failure);
  return answer;
}

void tellFailure(const FetchOptions::Values& values, std::int32_t curlCode, const ShortText& failure) noexcept {
  if (curlCode == 0 || !values.onFailure) return;
  try {
    values.onFailure(std::string(failure.view()));
  } catch (...) {
    // The request has failed already.
  }
}

CountedResponse fetchCounted(const Request& request, const TlsTrust& trust) {
  CountedResponse counted;
  Collector receiver(counted.response, {.body = false});
  const FetchEnd end = fetchInto(request, receiver, unloading(), ConnectHeads::Shown, trust);
  counted.response.curlCode = end.curlCode;
  counted.response.status = end.status;
  counted.bodyBytes = end.bodyBytes;
  counted.failure = end.failure;
  return counted;
}

FetchEnd fetchInto(const Request& request, FetchReceiver& receiver, const StopSignal& stop, ConnectHeads connectHeads,
                   const TlsTrust& trust, const FetchExtras& extras) {
  init();
  FetchEnd end;
  Arrival arrival{receiver};
  std::optional<std::vector<std::string>> changedLines;
  if (!extras.userAgent.empty()) {
    changedLines = request.headers;
    addUserAgent(*changedLines, std::string(extras.userAgent));
  }
  const std::vector<std::string>& lines = changedLines ? *changedLines : request.headers;
  {
    const ShareLease lease = sharePool().lease(originOf(request.url), Wire::Http1, trust);
    ErrorBuffer said{};
    const EasyPtr easy(curl_easy_init());
    if (!easy) {
      end.curlCode = result::kNoHandle;
      end.failure = ShortText::of("no transfer could be set up");
      return end;
    }
    arrival.easy = easy.get();
    if (lease.handle() != nullptr) setOption(easy.get(), CURLOPT_SHARE, lease.handle());
    const std::int32_t unable = applyRequest(easy.get(), request, trust, extras);
    const RequestHeaders headers(easy.get(), request.url, request.cookie, lines);
    setOption(easy.get(), CURLOPT_WRITEFUNCTION, takeBody);
    setOption(easy.get(), CURLOPT_WRITEDATA, &arrival);
    setOption(easy.get(), CURLOPT_HEADERFUNCTION, takeHeader);
    setOption(easy.get(), CURLOPT_HEADERDATA, &arrival);
    setOption(easy.get(), CURLOPT_ERRORBUFFER, said.data());
    if (connectHeads == ConnectHeads::Hidden) setOption(easy.get(), CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);

    if (!request.quiet) XFER_LOG_LINE(log::kTrace, 224, "--> fetch | " << request.url);
    auto code = static_cast<CURLcode>(unable != 0 ? unable : refusal(request, lines, trust, extras, end.failure));
    if (code == CURLE_OK) {
      code = perform(easy.get(), lease, stop);
      // What its receiver ended, libcurl knows as a failed write.
      if (code != CURLE_OK && code != CURLE_WRITE_ERROR) end.failure = curlFailure(easy.get(), code, said);
    }
    if (code == CURLE_WRITE_ERROR) code = endedBy(arrival.next);
    end.curlCode = arrival.next == Next::Threw ? result::kCallbackThrew : static_cast<std::int32_t>(code);
    end.lastStatus = statusOf(easy.get());
    if (end.curlCode == 0) {
      end.status = end.lastStatus;
    } else if (!request.quiet) {
      logFailure(end.curlCode);
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
