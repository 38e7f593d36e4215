// Turns the C interface's texts into records, and reads sizes and types out of response headers.  Pure functions.
//
// Threads: any.  Errors: none; whatever a text holds gives some result.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "net/proxy.h"

namespace xfer {

/// Appends the lines of text, which line feeds separate, without the empty ones.  Nothing else is touched: a carriage
/// return before the line feed stays.  Null adds nothing.
void splitLines(const char* text, std::vector<std::string>& out);

struct RequestOptions {
  std::string postFields;
  bool followRedirects = true;
  bool post = false;
};

/// Reads option lines ("OPT_POSTFIELDS=...", "REDIRECT_POLICY_NEVER", "OPT_POST"); ignores all others.  The last body
/// counts.  Null gives the defaults.
RequestOptions parseRequestOptions(const char* options);

/// Reads [username[:password]@]host[:port].  There is no scheme and no bracketed address: both split at their first
/// colon like anything else.
net::Proxy parseProxySpec(const std::string& spec);

/// The part of parseProxySpec behind the credentials.
net::Proxy parseProxyAddress(const std::string& address);

/// What libcurl takes as the proxy's address: host[:port]; empty when there is no proxy.
std::string proxyAddress(const net::Proxy& proxy);

/// The C interface's number for the media type that raw response headers declare; 0: none or another one.
std::int32_t mediaTypeFromHeaders(const std::string& rawHeaders);

/// The position of name in raw headers whatever the case of its letters; npos when it is not there.  It is found
/// anywhere in the text, the middle of a line included.
std::size_t findHeader(std::string_view rawHeaders, std::string_view name);

/// The total of the first Content-Range line of raw headers: the text between the first "/" behind the header's name,
/// wherever that is, and the end of its line.  Nothing when there is no such header or "/".
std::optional<std::string> contentRangeTotal(const std::string& rawHeaders);

/// The text of raw headers from the first Content-Length's value on, blanks skipped; nothing when there is none.
std::optional<std::string> contentLengthText(const std::string& rawHeaders);

/// The decimal number that text begins with, behind white space: its digits up to the first other character.  0 when
/// there are none, also before a sign; nothing when it does not fit 64 bits.
std::optional<std::uint64_t> leadingNumber(std::string_view text);

/// The size of a remote file as the answer to a request for its first byte gives it: the Content-Range total of a 206,
/// else the Content-Length of a 200 or 206; nothing when there is neither, or when it does not fit 64 bits.
std::optional<std::uint64_t> remoteSize(std::int32_t status, const std::string& rawHeaders);

/// The path and query of the watch page that url names, for the Referer of its text download; "/" when it names none.
/// What follows the page's id in url is dropped.
std::string watchPagePath(std::string_view url);

/// The number that an HTTP status word is; -1 when it is none.
int parseStatus(const std::string& word);

}  // namespace xfer
