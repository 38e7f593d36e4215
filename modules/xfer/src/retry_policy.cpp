#include "retry_policy.h"

#include <curl/curl.h>

#include <algorithm>

namespace xfer {
namespace {

constexpr std::array<std::int32_t, 9> kRetryableCodes{
    CURLE_COULDNT_RESOLVE_PROXY, CURLE_COULDNT_RESOLVE_HOST, CURLE_COULDNT_CONNECT,
    CURLE_PARTIAL_FILE,          CURLE_OPERATION_TIMEDOUT,   CURLE_SSL_CONNECT_ERROR,
    CURLE_GOT_NOTHING,           CURLE_SEND_ERROR,           CURLE_RECV_ERROR,
};

}  // namespace

Verdict classifyTransfer(std::int32_t code, std::int32_t httpStatus) {
  if (code == CURLE_OK && (httpStatus == 200 || httpStatus == 206)) return Verdict::Success;
  if (httpStatus == 403 || httpStatus == 204) return Verdict::Rejected;
  if (httpStatus == 429 || (httpStatus >= 500 && httpStatus <= 599)) return Verdict::Retryable;
  const bool retryable = std::find(kRetryableCodes.begin(), kRetryableCodes.end(), code) != kRetryableCodes.end();
  return retryable ? Verdict::Retryable : Verdict::Fatal;
}

}  // namespace xfer
