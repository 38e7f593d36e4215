#include "host_terms.h"

#include <algorithm>

#include "sys/never_destroyed.h"

namespace xfer {

HostTerms HostBook::of(std::string_view origin) const {
  const sys::MutexLock lock(mutex_);
  const auto known = hosts_.find(origin);
  return known == hosts_.end() ? HostTerms{} : known->second;
}

void HostBook::note(std::string_view origin, const HostTerms& terms) {
  const sys::MutexLock lock(mutex_);
  auto known = hosts_.find(origin);
  if (known == hosts_.end()) known = hosts_.emplace(std::string(origin), HostTerms{}).first;
  known->second.notBeforeNs = std::max(known->second.notBeforeNs, terms.notBeforeNs);
  known->second.connections = terms.connections;
}

HostBook& hostBook() {
  static sys::NeverDestroyed<HostBook> book;
  return book.get();
}

}  // namespace xfer
