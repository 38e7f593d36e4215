// What DownloadOptions holds.
#pragma once

#include <memory>

#include "rate_limit.h"
#include "xfer/download_options.h"

namespace xfer {

struct DownloadOptions::Values {
  std::shared_ptr<RateLimit> sharedLimit{};  ///< null: none
};

}  // namespace xfer
