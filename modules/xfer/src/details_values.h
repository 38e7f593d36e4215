// What DownloadDetails holds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "adaptive_plan.h"
#include "host_terms.h"
#include "xfer/download_details.h"

namespace xfer {

struct DownloadDetails::Values {
  std::vector<RangeDetails> ranges{};
  std::vector<MissingRange> missing{};
  std::vector<GivenUpConnection> givenUp{};
  AdaptivePlan::Counters counters{};
  std::uint64_t hostConnections = 0;
  std::uint64_t hostLeftAloneMs = 0;
  std::string failureText{};
  std::string contentEncoding{};
};

}  // namespace xfer
