// Reads how long a server asks to be left alone: the Retry-After field of an answer.  Knows nothing of what follows
// from it.  Pure.
//
// Errors:  none; a value that cannot be read counts as missing.
// Units:   seconds.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "response_head.h"

namespace xfer {

/// No server is taken to ask for more: some 31 years, which fit 64 bits as nanoseconds too.
inline constexpr std::uint64_t kLongestRetryAfterSec = 1'000'000'000;

/// Parses an HTTP date (RFC 9110: "Sun, 06 Nov 1994 08:49:37 GMT" and its two obsolete forms) to seconds since 1970.  A
/// year of two digits is the one that is nearest to the year of nearUnixTime.  The name of the day is not compared with
/// the date.
std::optional<std::int64_t> parseHttpDate(std::string_view text, std::int64_t nearUnixTime);

/// The time that Retry-After asks for, from the answer on.  A date is compared with the answer's own Date, since the
/// server's clock may be wrong; without one, with the local time.  0 for a date in the past.
std::optional<std::uint64_t> retryAfterSec(const ResponseHead& head, std::int64_t localUnixTime);

}  // namespace xfer
