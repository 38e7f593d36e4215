// The libcurl options that single requests and range transfers share.
//
// Threads: any, one at a time for each handle.
// Errors:  an option that libcurl does not know is left out and fails no transfer.  One that libcurl has no memory for
//          does: a request without its range, cookie or proxy must not be sent.  headerList, setOption and what applies
//          options throw std::bad_alloc then.
#pragma once

#include <cstdint>
#include <new>
#include <string>
#include <vector>

#include "curl_handles.h"
#include "net/proxy.h"
#include "tls_trust.h"

namespace xfer {

/// Receive buffer size of a transfer without a speed limit, in bytes.
inline constexpr long kReceiveBuffer = 524288;

/// Words for what holdsLineBreak finds.
inline constexpr const char* kLineBreak = "a line break in the cookie or a header line";

/// Whether the cookie or a header line contains a line break (header injection).  One CR at the end of a header line is
/// allowed: hosts that end lines with CR LF leave it there.
bool holdsLineBreak(const std::string& cookie, const std::vector<std::string>& headers);

/// The caller's lines unchanged and in order; then defaults for those of Accept, Accept-Encoding, Accept-Language and
/// User-Agent that no caller line begins with (case-sensitive); last an empty Expect, so that libcurl does not wait for
/// "100 Continue".
SlistPtr headerList(const std::vector<std::string>& headers);

/// Sets an option, if libcurl knows it.  Callbacks, which must not throw, set without it what libcurl does not copy.
template <class Value>
void setOption(CURL* easy, CURLoption option, Value value) {
  if (curl_easy_setopt(easy, option, value) == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
}

/// As setOption, but for an option that must not be left out: libcurl's code when it does not take it.  The transfer
/// must not run then.
template <class Value>
[[nodiscard]] std::int32_t requireOption(CURL* easy, CURLoption option, Value value) {
  const CURLcode code = curl_easy_setopt(easy, option, value);
  if (code == CURLE_OUT_OF_MEMORY) throw std::bad_alloc();
  return code;
}

/// Allows only http and https, redirects included; sets the cipher lists, and what is trusted.  Returns 0, or libcurl's
/// code when it cannot check what trust asks for: the transfer must not run then.
[[nodiscard]] std::int32_t applyTransport(CURL* easy, const TlsTrust& trust);

/// Every host is reached through proxy, or directly when proxy has no host; the environment is not asked.
void applyProxy(CURL* easy, const net::Proxy& proxy);

}  // namespace xfer
