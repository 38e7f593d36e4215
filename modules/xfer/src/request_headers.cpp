#include "request_headers.h"

#include <algorithm>
#include <array>
#include <memory>
#include <new>
#include <optional>
#include <string_view>

#include "easy_options.h"
#include "request_text.h"

namespace xfer {
namespace {

struct UrlDeleter {
  void operator()(CURLU* url) const noexcept { curl_url_cleanup(url); }
};
struct TextDeleter {
  void operator()(char* text) const noexcept { curl_free(text); }
};

struct Origin {
  std::string scheme;
  std::string host;
  std::string zone;  // of a link-local IPv6 address
  std::string port;
};

// Throws without memory: a URL that was not read for lack of it may be of any origin.
bool isDone(CURLUcode code) {
  if (code == CURLUE_OUT_OF_MEMORY) throw std::bad_alloc();
  return code == CURLUE_OK;
}

std::string partOf(CURLU* url, CURLUPart part) {
  char* text = nullptr;
  if (!isDone(curl_url_get(url, part, &text, CURLU_DEFAULT_PORT))) return {};
  const std::unique_ptr<char, TextDeleter> owner(text);
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return lower;
}

// As libcurl reads the URL of a transfer.
std::optional<Origin> originIn(const std::string& url) {
  const std::unique_ptr<CURLU, UrlDeleter> parsed(curl_url());
  constexpr unsigned kFlags = CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME;
  if (!parsed) throw std::bad_alloc();
  if (!isDone(curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), kFlags))) return std::nullopt;
  Origin origin{partOf(parsed.get(), CURLUPART_SCHEME), partOf(parsed.get(), CURLUPART_HOST),
                partOf(parsed.get(), CURLUPART_ZONEID), partOf(parsed.get(), CURLUPART_PORT)};
  if (origin.scheme.empty() || origin.host.empty() || origin.port.empty()) return std::nullopt;
  return origin;
}

bool isSecret(const std::string& line) {
  constexpr std::array<std::string_view, 2> kSecrets{"cookie", "authorization"};
  return std::any_of(kSecrets.begin(), kSecrets.end(), [&](std::string_view name) { return setsField(line, name); });
}

}  // namespace

Hop hopBetween(const std::string& givenFor, const std::string& next) {
  const auto from = originIn(givenFor);
  const auto to = originIn(next);
  if (!from || !to || from->host != to->host || from->zone != to->zone) return Hop::Elsewhere;
  if (from->scheme == to->scheme && from->port == to->port) return Hop::SameOrigin;
  const bool upgrade = from->scheme == "http" && from->port == "80" && to->scheme == "https" && to->port == "443";
  return upgrade ? Hop::Upgrade : Hop::Elsewhere;
}

RequestHeaders::RequestHeaders(CURL* easy, const std::string& url, const std::string& cookie,
                               const std::vector<std::string>& lines)
    : easy_(easy), givenFor_(url), first_(headerList(lines)) {
  setOption(easy_, CURLOPT_HTTPHEADER, first_.get());
  if (!cookie.empty()) setOption(easy_, CURLOPT_COOKIE, cookie.c_str());

  std::vector<std::string> open = lines;
  std::erase_if(open, isSecret);
  if (cookie.empty() && open.size() == lines.size()) return;
  withoutSecrets_ = headerList(open);
  const bool cookieCounts = !cookie.empty() && std::none_of(lines.begin(), lines.end(), [](const std::string& line) {
    return setsField(line, "cookie");  // the caller's own line wins
  });
  std::vector<std::string> all = lines;
  if (cookieCounts) all.push_back("Cookie: " + cookie);
  withSecrets_ = headerList(all);
  setOption(easy_, CURLOPT_PREREQFUNCTION, beforeRequest);
  setOption(easy_, CURLOPT_PREREQDATA, this);
}

int RequestHeaders::beforeRequest(void* self, char* /*remoteAddress*/, char* /*localAddress*/, int /*remotePort*/,
                                  int /*localPort*/) {
  try {
    static_cast<RequestHeaders*>(self)->choose();
    return CURL_PREREQFUNC_OK;
  } catch (...) {
    return CURL_PREREQFUNC_ABORT;  // out of memory: without its secrets, the request might get another answer
  }
}

// Runs before each request of a transfer, when libcurl knows where it goes and has not built it yet.
void RequestHeaders::choose() {
  long redirects = 0;
  const char* next = nullptr;
  curl_easy_getinfo(easy_, CURLINFO_REDIRECT_COUNT, &redirects);
  curl_easy_getinfo(easy_, CURLINFO_EFFECTIVE_URL, &next);
  Hop hop = Hop::Elsewhere;
  if (redirects == 0) {
    hop = Hop::SameOrigin;
  } else if (next != nullptr) {
    hop = hopBetween(givenFor_, next);
  }
  // None of these allocates.
  hasLeft_ = hasLeft_ || hop == Hop::Elsewhere;
  if (hasLeft_) {
    curl_easy_setopt(easy_, CURLOPT_COOKIE, nullptr);
    curl_easy_setopt(easy_, CURLOPT_HTTPHEADER, hop == Hop::Elsewhere ? withoutSecrets_.get() : withSecrets_.get());
  }
  // Lets the lines pass libcurl's own rule, which would drop them here.
  curl_easy_setopt(easy_, CURLOPT_UNRESTRICTED_AUTH, hop == Hop::Upgrade ? 1L : 0L);
}

}  // namespace xfer
