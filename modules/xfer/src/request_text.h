// Parses the C interface's texts into records, and sizes and types from response headers.  Pure functions.
//
// Threads: any.  Errors: none; every text gives a result.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "net/proxy.h"

namespace xfer {

/// Appends the non-empty lines of text, which are separated by line feeds.  A carriage return before the line feed
/// stays.  Null adds nothing.
void splitLines(const char* text, std::vector<std::string>& out);

struct RequestOptions {
  std::string postFields;
  bool followRedirects = true;
  bool post = false;
};

/// Parses option lines ("OPT_POSTFIELDS=...", "REDIRECT_POLICY_NEVER", "OPT_POST"); ignores all others.  The last
/// OPT_POSTFIELDS wins.  Null gives the defaults.
RequestOptions parseRequestOptions(const char* options);

/// Parses [username[:password]@]host[:port].  Does not understand a scheme or a bracketed address: the host ends at the
/// first colon.
net::Proxy parseProxySpec(const std::string& spec);

/// Parses host[:port]; for parseProxySpec, the part behind the credentials.
net::Proxy parseProxyAddress(const std::string& address);

/// The address for CURLOPT_PROXY, host[:port]; empty without a proxy.
std::string proxyAddress(const net::Proxy& proxy);

/// The C interface's number for the first Content-Type of raw response headers; 0: none, or an unknown type.
std::int32_t mediaTypeFromHeaders(const std::string& rawHeaders);

/// Adds a User-Agent line, unless a caller's line is one or the text is empty.
void addUserAgent(std::vector<std::string>& lines, const std::string& userAgent);

/// The name of a field that cannot work: "method" when it is no method's name (letters, digits and !#$%&'*+-.^_`|~),
/// "body" when it comes with HEAD; null when both can.  An empty method always works.
const char* unworkableMethod(std::string_view method, std::uint64_t bodySize);

/// Whether a request header line ("Name: value" or, for libcurl an empty field, "Name;") sets the field of this
/// lower-case name.
bool setsField(std::string_view line, std::string_view name);

/// Case-insensitive position of name in raw headers; npos when absent.  Matches anywhere, also in the middle of a line.
std::size_t findHeader(std::string_view rawHeaders, std::string_view name);

/// The total of the first Content-Range of raw headers: the text from the first "/" after the header's name, even on a
/// later line, to the end of that line.  Nothing when there is no such header or "/".
std::optional<std::string> contentRangeTotal(const std::string& rawHeaders);

/// The text of raw headers from the first Content-Length's value to the end, without leading blanks; nothing when there
/// is no such header.
std::optional<std::string> contentLengthText(const std::string& rawHeaders);

/// The decimal number at the start of text, after white space.  0 without digits (a sign is not a digit); nothing when
/// it does not fit 64 bits.
std::optional<std::uint64_t> leadingNumber(std::string_view text);

/// The size of a remote file from the response to a request for its first byte: the Content-Range total of a 206, else
/// the Content-Length of a 200 or 206; nothing when there is neither, or it does not fit 64 bits.
std::optional<std::uint64_t> remoteSize(std::int32_t status, const std::string& rawHeaders);

/// The path and query of the watch page in url, for the Referer header; "/" when there is none.  Drops everything
/// behind the page's id.
std::string watchPagePath(std::string_view url);

/// Parses an HTTP status; -1 when word does not start with a number.
int parseStatus(const std::string& word);

}  // namespace xfer
