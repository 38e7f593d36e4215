// What FetchOptions holds.
#pragma once

#include <string>

#include "tls_trust.h"
#include "xfer/fetch_options.h"

namespace xfer {

struct FetchOptions::Values {
  TlsTrust trust{};
  std::string userAgent{};
};

}  // namespace xfer
