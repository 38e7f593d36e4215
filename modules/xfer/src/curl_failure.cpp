#include "curl_failure.h"

#include <string_view>

namespace xfer {
namespace {

template <class Value>
Value told(CURL* easy, CURLINFO what) {
  Value value{};
  curl_easy_getinfo(easy, what, &value);
  return value;
}

// libcurl takes a header line that is longer than it reads for a lack of memory.
bool endedInTheHead(CURL* easy, std::int32_t code) {
  constexpr std::int32_t kTooLarge = 100;  // of later releases
  if (code != CURLE_OUT_OF_MEMORY && code != kTooLarge) return false;
  return told<curl_off_t>(easy, CURLINFO_STARTTRANSFER_TIME_T) > 0 &&
         told<curl_off_t>(easy, CURLINFO_SIZE_DOWNLOAD_T) == 0;
}

// Where the last redirect led; null: there was none.  The address that libcurl tells is the one before, when it does
// not know the scheme.
const char* lastTarget(CURL* easy) {
  for (auto request = static_cast<int>(told<long>(easy, CURLINFO_REDIRECT_COUNT)); request >= 0; --request) {
    curl_header* location = nullptr;
    if (curl_easy_header(easy, "Location", 0, CURLH_HEADER, request, &location) == CURLHE_OK) return location->value;
  }
  return nullptr;
}

}  // namespace

ShortText curlFailure(CURL* easy, std::int32_t code, const ErrorBuffer& said) noexcept {
  constexpr long kFirstRefusal = 300;
  const long proxyStatus = told<long>(easy, CURLINFO_HTTP_CONNECTCODE);
  if (proxyStatus >= kFirstRefusal) {
    return ShortText::of("HTTP status ", static_cast<std::uint64_t>(proxyStatus), " from the proxy");
  }
  if (endedInTheHead(easy, code)) {
    return ShortText::of("a header line of the answer is too long, or memory ran out");
  }
  ShortText text;
  text.addWithoutUserinfo(said.data());
  if (const char* const target = code == CURLE_UNSUPPORTED_PROTOCOL ? lastTarget(easy) : nullptr) {
    text.add(" (redirected to ");
    text.addAddress(target);
    text.add(")");
  }
  return text;
}

}  // namespace xfer
