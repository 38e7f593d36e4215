#include "error_text.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>

#include "result_codes.h"

namespace xfer {
namespace {

struct Words {
  std::int32_t code;
  const char* text;
};

constexpr std::array kOwn{
    Words{result::kSuccess, "success"},
    Words{result::kNoHandle, "no transfer could be set up, or a write to the file failed"},
    Words{result::kSizeException, "the URL is neither http nor https, or out of memory"},
    Words{result::kNoSize, "the answer gave no size"},
    Words{result::kStopped, "cancelled"},
    Words{result::kException, "out of memory or threads"},
    Words{result::kUnknownId, "no such download or request, or no URL"},
    Words{result::kFileNotCreated, "the file could not be created, or is being written by another download"},
    Words{result::kFileNotOpen, "the file was not open"},
    Words{result::kEmptyBody, "the answer is complete and has no body"},
    Words{result::kFileNotReserved, "there is no room for the file"},
    Words{result::kCaFileUnreadable, "the file of trusted certificates cannot be read"},
    Words{result::kCaFileEmpty, "the file of trusted certificates holds none"},
    Words{result::kBadRecord, "a record's size cannot be right, or it has fields that the library does not know"},
    Words{result::kNullArgument, "a null pointer was given where none may be"},
    Words{result::kOtherKind, "the id is of another kind"},
    Words{result::kUnknownEnumerator, "a field has a value that is none of its enumerators"},
    Words{result::kInsideCallback, "this cannot be waited for inside of a callback"},
    Words{result::kNotEnded, "the time is over, and the download goes on"},
    Words{result::kCallbackThrew, "a callback of the host threw an exception"},
    // libcurl's, where the library says more by it.
    Words{CURLE_RANGE_ERROR, "the server sent other bytes than asked for, or the remote file changed"},
    Words{CURLE_ABORTED_BY_CALLBACK, "cancelled"},
    Words{CURLE_BAD_FUNCTION_ARGUMENT, "a header line, the cookie, a policy or an option cannot be used"},
    Words{CURLE_PEER_FAILED_VERIFICATION, "the server's certificate is refused"},
    Words{CURLE_SSL_CACERT_BADFILE, "the trusted certificates cannot be read"},
    Words{CURLE_SSL_PINNEDPUBKEYNOTMATCH, "the server's key is not a pinned one"},
};

constexpr std::array kStatuses{
    Words{204, "HTTP 204: no content"},
    Words{400, "HTTP 400: bad request"},
    Words{401, "HTTP 401: unauthorized"},
    Words{403, "HTTP 403: forbidden"},
    Words{404, "HTTP 404: not found"},
    Words{405, "HTTP 405: method not allowed"},
    Words{407, "HTTP 407: proxy authentication required"},
    Words{408, "HTTP 408: request timeout"},
    Words{410, "HTTP 410: gone"},
    Words{416, "HTTP 416: range not satisfiable"},
    Words{429, "HTTP 429: too many requests"},
    Words{500, "HTTP 500: internal server error"},
    Words{502, "HTTP 502: bad gateway"},
    Words{503, "HTTP 503: service unavailable"},
    Words{504, "HTTP 504: gateway timeout"},
};

constexpr std::array kClasses{"HTTP 1xx: an interim answer", "HTTP 2xx: a success that brings no file",
                              "HTTP 3xx: a redirect that was not followed", "HTTP 4xx: the server refuses the request",
                              "HTTP 5xx: the server failed"};

template <class Table>
const char* wordsIn(const Table& table, std::int32_t code) {
  const auto words = std::find_if(table.begin(), table.end(), [&](const Words& one) { return one.code == code; });
  return words != table.end() ? words->text : nullptr;
}

const char* statusText(std::int32_t status) {
  if (const char* const text = wordsIn(kStatuses, status)) return text;
  const std::int32_t kind = status / 100;
  return kind >= 1 && kind <= 5 ? kClasses.at(static_cast<std::size_t>(kind) - 1) : nullptr;
}

}  // namespace

const char* errorText(std::int32_t code) noexcept {
  constexpr std::int32_t kFirstStatus = 103;  // numbers below are the library's and libcurl's
  constexpr std::int32_t kLastStatus = 599;
  if (const char* const text = wordsIn(kOwn, code)) return text;
  if (code == result::unexpectedStatus(-1)) return "the answer has no readable HTTP status";
  const char* text = nullptr;
  if (code < 0) {
    // unexpectedStatus is its own inverse.
    if (code >= result::unexpectedStatus(kLastStatus)) text = statusText(result::unexpectedStatus(code));
    return text != nullptr ? text : "the answer has an unusual HTTP status";
  }
  if (code < CURL_LAST) return curl_easy_strerror(static_cast<CURLcode>(code));
  if (code >= kFirstStatus) text = statusText(code);
  return text != nullptr ? text : "unknown code";
}

}  // namespace xfer
