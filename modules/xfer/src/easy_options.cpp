#include "easy_options.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "request_text.h"

namespace xfer {
namespace {

constexpr const char* kCiphers =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-RSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
    "ECDHE-RSA-AES256-GCM-SHA384:ECDHE-ECDSA-CHACHA20-POLY1305:ECDHE-RSA-CHACHA20-POLY1305:"
    "ECDHE-RSA-AES128-SHA:ECDHE-RSA-AES256-SHA:AES128-GCM-SHA256:AES256-GCM-SHA384:AES128-SHA:AES256-SHA";
constexpr const char* kTls13Ciphers = "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384:TLS_CHACHA20_POLY1305_SHA256";

struct DefaultHeader {
  std::string_view name;
  const char* line;
};

constexpr std::array<DefaultHeader, 4> kDefaultHeaders{{
    {"Accept:", "Accept: */*"},
    // Never negotiate compression: range offsets count the bytes as stored.
    {"Accept-Encoding:", "Accept-Encoding: identity"},
    {"Accept-Language:", "Accept-Language: en-US"},
    {"User-Agent:",
     "User-Agent: Mozilla/5.0 (Windows NT 10.0; Win64; x64) AppleWebKit/537.36 (KHTML, like Gecko) "
     "Chrome/126.0.0.0 Safari/537.36"},
}};

void append(SlistPtr& list, const char* line) {
  curl_slist* const longer = curl_slist_append(list.get(), line);
  if (longer == nullptr) throw std::bad_alloc();
  static_cast<void>(list.release());
  list.reset(longer);
}

bool hasLineBreak(std::string_view text) {
  return text.find_first_of("\r\n") != std::string_view::npos;
}

// Those that narrow what is trusted may not be left out.
std::int32_t applyTrust(CURL* easy, const TlsTrust& trust) {
  if (trust.verifyPeer) {
    if (const auto code = requireOption(easy, CURLOPT_SSL_VERIFYPEER, 1L)) return code;
    if (const auto code = requireOption(easy, CURLOPT_SSL_VERIFYHOST, 2L)) return code;
  } else {
    setOption(easy, CURLOPT_SSL_VERIFYPEER, 0L);
    setOption(easy, CURLOPT_SSL_VERIFYHOST, 0L);
  }
  if (!trust.caFile.empty()) {
    if (const auto code = requireOption(easy, CURLOPT_CAINFO, trust.caFile.c_str())) return code;
    // Only the file counts; where libcurl has no folder of its own, it may not know the option.
    setOption(easy, CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    setOption(easy, CURLOPT_CA_CACHE_TIMEOUT, 0L);  // the host may replace the file
  } else if (trust.verifyPeer) {
    setOption(easy, CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NATIVE_CA));  // has no effect but on Windows
  }
  if (trust.pinnedKey.empty()) return CURLE_OK;
  return requireOption(easy, CURLOPT_PINNEDPUBLICKEY, trust.pinnedKey.c_str());
}

}  // namespace

bool holdsLineBreak(const std::string& cookie, const std::vector<std::string>& headers) {
  if (hasLineBreak(cookie)) return true;
  return std::any_of(headers.begin(), headers.end(), [](std::string_view line) {
    if (line.ends_with('\r')) line.remove_suffix(1);
    return hasLineBreak(line);
  });
}

SlistPtr headerList(const std::vector<std::string>& headers) {
  SlistPtr list;
  for (const std::string& line : headers) append(list, line.c_str());
  for (const DefaultHeader& header : kDefaultHeaders) {
    const bool supplied = std::any_of(headers.begin(), headers.end(),
                                      [&](const std::string& line) { return line.starts_with(header.name); });
    if (!supplied) append(list, header.line);
  }
  append(list, "Expect:");
  return list;
}

std::int32_t applyTransport(CURL* easy, const TlsTrust& trust) {
  setOption(easy, CURLOPT_NOSIGNAL, 1L);
  setOption(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  setOption(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  setOption(easy, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_DEFAULT));
  setOption(easy, CURLOPT_SSL_CIPHER_LIST, kCiphers);
  setOption(easy, CURLOPT_TLS13_CIPHERS, kTls13Ciphers);
  // Without it, aborting during a name lookup waits for the lookup.
  setOption(easy, CURLOPT_QUICK_EXIT, 1L);
  return applyTrust(easy, trust);
}

void applyProxy(CURL* easy, const net::Proxy& proxy) {
  // Empty texts keep libcurl from reading the environment: the empty proxy is none, the empty list of exceptions too.
  setOption(easy, CURLOPT_PROXY, proxyAddress(proxy).c_str());
  setOption(easy, CURLOPT_NOPROXY, "");
  if (proxy.host.empty()) return;
  if (!proxy.username.empty()) setOption(easy, CURLOPT_PROXYUSERNAME, proxy.username.c_str());
  if (!proxy.password.empty()) setOption(easy, CURLOPT_PROXYPASSWORD, proxy.password.c_str());
}

}  // namespace xfer
