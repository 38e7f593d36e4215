// What a host asked for, or was found to bear.
//
// Units: times are nanoseconds of the job's monotonic clock.
#pragma once

#include <cstddef>
#include <cstdint>

namespace xfer {

struct HostTerms {
  std::uint64_t notBeforeNs = 0;  ///< no new request before; 0: at any time
  std::size_t connections = 0;    ///< most at once; 0: no limit is known

  bool operator==(const HostTerms&) const = default;
};

}  // namespace xfer
