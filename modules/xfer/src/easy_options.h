// The libcurl options that single requests and range transfers have in common.
//
// Threads: any, one at a time for one handle.
// Errors:  the results of curl_easy_setopt are ignored: an option that libcurl does not know must not fail a transfer.
//          headerList throws std::bad_alloc.
#pragma once

#include <string>
#include <vector>

#include "curl_handles.h"
#include "net/proxy.h"

namespace xfer {

/// Receive buffer of a transfer without a speed limit.
inline constexpr long kReceiveBuffer = 524288;

/// Whether the cookie or a header line holds a line break, with which it would smuggle further lines into the request.
/// One carriage return at the end of a header line is allowed: hosts that end their lines with CR LF leave it there.
bool holdsLineBreak(const std::string& cookie, const std::vector<std::string>& headers);

/// The caller's lines unchanged and in order, then those of Accept, Accept-Encoding, Accept-Language and User-Agent
/// that no caller line begins with (case counts), and last an empty Expect, which keeps libcurl from waiting for a
/// "100 Continue".
SlistPtr headerList(const std::vector<std::string>& headers);

/// Only http and https, redirects included; certificates unchecked; the fixed cipher lists.
void applyTransport(CURL* easy);

/// Nothing when proxy has no host.
void applyProxy(CURL* easy, const net::Proxy& proxy);

}  // namespace xfer
