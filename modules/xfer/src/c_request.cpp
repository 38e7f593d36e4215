// The C interface of requests with options: records in, numbers out.
#include "xfer/xfer_request.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "c_entry.h"
#include "easy_options.h"
#include "fetch_option_values.h"
#include "fetch_stoppable.h"
#include "host_buffer.h"
#include "log.h"
#include "proxy_setting.h"
#include "request_setting.h"
#include "request_text.h"
#include "result_codes.h"
#include "xfer/cancel_token.h"
#include "xfer/fetch.h"

struct xfer_cancel {
  xfer::CancelToken token{};
};

namespace {

using xfer::FetchOptions;
using xfer::orEmpty;
using xfer::Request;
namespace log = xfer::log;
namespace result = xfer::result;

constexpr const char* kLogTag = "xfer";

// The sizes that the records had when there were hosts for the first time.
constexpr std::size_t kFirstOptions = 128;
constexpr std::size_t kFirstResponse = 40;

// libcurl counts milliseconds with an int, and leaves a longer time-out out.
std::int32_t seconds(std::uint32_t given) {
  constexpr std::uint32_t kMost = 2'147'483;
  return static_cast<std::int32_t>(std::min(given, kMost));
}

xfer_request_options initialOptions() {
  const Request request;
  xfer_request_options options{};
  options.verifyPeer = XFER_VERIFY_AS_SET;
  options.maxRedirects = 20;
  options.connectTimeoutSec = static_cast<std::uint32_t>(request.connectTimeoutSec);
  options.lowSpeedTimeSec = static_cast<std::uint32_t>(request.lowSpeedTimeSec);
  return options;
}

Request requestOf(const xfer_request_options& options) {
  Request request;
  request.url = orEmpty(options.url);
  request.cookie = orEmpty(options.cookie);
  xfer::splitLines(options.headers, request.headers);
  request.proxy = xfer::resolveProxy(options.proxy);
  request.connectTimeoutSec = seconds(options.connectTimeoutSec);
  request.timeoutSec = seconds(options.timeoutSec);
  request.lowSpeedTimeSec = seconds(options.lowSpeedTimeSec);
  return request;
}

FetchOptions abilitiesOf(const xfer_request_options& options, const xfer::TlsTrust& trust) {
  FetchOptions abilities;
  abilities.setVerifyPeer(trust.verifyPeer).setCaFile(trust.caFile).setPinnedKey(trust.pinnedKey);
  const std::string userAgent = orEmpty(options.userAgent);
  abilities.setUserAgent(userAgent.empty() ? xfer::moduleUserAgent() : userAgent);
  abilities.setMethod(orEmpty(options.method)).setMaxRedirects(options.maxRedirects);
  if (options.onBody != nullptr) {
    abilities.setOnBody([give = options.onBody, user = options.user](std::int32_t status, std::string_view bytes) {
      return give(user, status, reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()) == 0;
    });
  }
  if (options.cancel != nullptr) abilities.setCancelToken(options.cancel->token);
  return abilities;
}

// The name of a field that cannot have its value; null when all can.
const char* unworkable(const Request& request, const FetchOptions::Values& values, std::uint64_t bodySize) {
  if (xfer::holdsLineBreak({}, request.headers)) return "headers";
  if (xfer::holdsLineBreak(request.cookie, {})) return "cookie";
  if (xfer::holdsLineBreak(values.userAgent, {})) return "userAgent";
  return xfer::unworkableMethod(values.method, bodySize);
}

std::int32_t refused(const char* field) {
  XFER_LOG(log::kFailure, "xfer_request | options refused | field=" << field);
  return CURLE_BAD_FUNCTION_ARGUMENT;
}

}  // namespace

xfer_cancel* xfer_cancelNew(void) {
  try {
    return new xfer_cancel;
  } catch (...) {
    return nullptr;
  }
}

void xfer_cancelSet(xfer_cancel* cancel) {
  if (cancel != nullptr) cancel->token.cancel();
}

void xfer_cancelFree(xfer_cancel* cancel) {
  delete cancel;
}

void xfer_requestOptionsInit(xfer_request_options* options, uint32_t size) {
  xfer::initRecord(initialOptions(), options, size);
}

void xfer_responseInit(xfer_response* response, uint32_t size) {
  xfer::initRecord(xfer_response{}, response, size);
}

int32_t xfer_request(const xfer_request_options* options, xfer_response* response) {
  const std::int32_t code = xfer::guardedEntry("xfer_request", [&]() -> std::int32_t {
    if (options == nullptr || response == nullptr) return result::kNullArgument;
    xfer_request_options asked = initialOptions();
    xfer_response answer{};
    if (!xfer::readRecord(*options, kFirstOptions, asked)) return result::kBadRecord;
    if (!xfer::readRecord(*response, kFirstResponse, answer)) return result::kBadRecord;
    if (asked.url == nullptr || (asked.body == nullptr && asked.bodySize != 0)) return result::kNullArgument;

    xfer::TlsTrust trust;
    if (const auto error = xfer::trustOf(asked.verifyPeer, orEmpty(asked.caFile), orEmpty(asked.pinnedKey), trust)) {
      return error == CURLE_BAD_FUNCTION_ARGUMENT ? refused("caFile") : error;
    }
    const Request request = requestOf(asked);
    const FetchOptions abilities = abilitiesOf(asked, trust);
    if (const char* const field = unworkable(request, abilities.values(), asked.bodySize)) return refused(field);

    answer.httpStatus = 0;
    answer.reserved = 0;
    answer.bodySize = 0;
    xfer::writeRecord(answer, *response);  // counts when memory runs out
    const std::string_view body(static_cast<const char*>(asked.body), static_cast<std::size_t>(asked.bodySize));
    const xfer::KeptResponse kept =
        xfer::fetchKept(request, abilities.values(), body, {answer.headers != nullptr, answer.body != nullptr});
    answer.httpStatus = kept.lastStatus;
    answer.bodySize = kept.bodyBytes;
    xfer::writeRecord(answer, *response);
    xfer::copyOut(kept.response.headers, answer.headers);
    xfer::copyOut(kept.response.body, answer.body);
    return kept.response.curlCode;
  });
  if (response != nullptr && xfer::isRecordSize(response->size, kFirstResponse)) response->error = code;
  return code;
}
