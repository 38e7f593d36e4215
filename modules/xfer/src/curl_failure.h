// What libcurl tells of a transfer that failed, in words.
//
// Threads: the one that drives the handle.
#pragma once

#include <array>
#include <cstdint>

#include "curl_handles.h"
#include "short_text.h"

namespace xfer {

/// Where libcurl writes: CURLOPT_ERRORBUFFER.  Must outlive the handle.
using ErrorBuffer = std::array<char, CURL_ERROR_SIZE>;

/// Of the handle's transfer, which ended with this code of libcurl's; empty when libcurl says nothing.  Names no user
/// and no password.  Requires: the transfer has ended.
ShortText curlFailure(CURL* easy, std::int32_t code, const ErrorBuffer& said) noexcept;

}  // namespace xfer
