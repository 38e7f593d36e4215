// What hosts asked for, or were found to bear, remembered for the process: the jobs of one host go by it together.
//
// Threads: a HostBook's functions from any thread; it locks inside.
// Errors:  note throws std::bad_alloc.
// Units:   times are nanoseconds of one monotonic clock for all callers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "sys/mutex.h"

namespace xfer {

struct HostTerms {
  std::uint64_t notBeforeNs = 0;  ///< no new request before; 0: at any time
  std::size_t connections = 0;    ///< most at once; 0: no limit is known

  bool operator==(const HostTerms&) const = default;
};

class HostBook {
 public:
  [[nodiscard]] HostTerms of(std::string_view origin) const SYS_EXCLUDES(mutex_);

  /// A job's new knowledge: the number of connections replaces the old one, the later time stays.
  void note(std::string_view origin, const HostTerms& terms) SYS_EXCLUDES(mutex_);

 private:
  mutable sys::Mutex mutex_;
  std::map<std::string, HostTerms, std::less<>> hosts_ SYS_GUARDED_BY(mutex_);
};

/// The process's book.
HostBook& hostBook();

}  // namespace xfer
