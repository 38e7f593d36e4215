// Settings of the module for the requests of the C interface: what they trust, and who they say they are.
//
// Threads: any.
// Errors:  std::bad_alloc; the setting stays as it was then.
#pragma once

#include <cstdint>
#include <string>

#include "tls_trust.h"

namespace xfer {

/// Refuses what cannot work: 43 for caFile without verify, and a code of its own for a file that cannot be read
/// and for one without a certificate; the setting stays as it was then.  Otherwise 0.
std::int32_t setModuleTrust(bool verify, const std::string& caFile);

TlsTrust moduleTrust();

/// What a record's fields mean: an XFER_VERIFY_ enumerator, and texts that are empty where there is none.  Refuses an
/// unknown enumerator, a caFile where nothing is verified by the record's own wish (43), and a caFile as setModuleTrust
/// does.  Otherwise 0, and sets trust.
std::int32_t trustOf(std::uint32_t verify, const std::string& caFile, const std::string& pinnedKey, TlsTrust& trust);

/// Empty: the default.  Refuses one with a line break, with 43; the setting stays as it was then.  Otherwise 0.
std::int32_t setModuleUserAgent(const std::string& userAgent);

std::string moduleUserAgent();

}  // namespace xfer
