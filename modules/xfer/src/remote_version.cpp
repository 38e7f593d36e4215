#include "remote_version.h"

#include <algorithm>

namespace xfer {
namespace {

bool differ(const std::string& one, const std::string& other) {
  return !one.empty() && !other.empty() && one != other;
}

void fillIn(std::string& field, const std::string& value) {
  if (field.empty()) field = value;
}

}  // namespace

Likeness compare(const Validator& one, const Validator& other) {
  if (!one.strongEtag.empty() && !other.strongEtag.empty()) {
    return one.strongEtag == other.strongEtag ? Likeness::Same : Likeness::Other;
  }
  const bool doubt = differ(one.weakEtag, other.weakEtag) || differ(one.lastModified, other.lastModified);
  return doubt ? Likeness::Doubt : Likeness::Same;
}

Likeness RemoteVersion::judge(const Validator& validator) const {
  Likeness nearest = accepted_.empty() ? Likeness::Same : Likeness::Other;
  for (const Validator& accepted : accepted_) nearest = std::min(nearest, compare(accepted, validator));
  return nearest;
}

void RemoteVersion::accept(const Validator& validator) {
  if (!validator.says()) return;
  const auto same = std::find_if(accepted_.begin(), accepted_.end(), [&](const Validator& accepted) {
    return compare(accepted, validator) == Likeness::Same;
  });
  if (same == accepted_.end()) {
    if (accepted_.size() == kMostAccepted) accepted_.erase(accepted_.begin());
    accepted_.push_back(validator);
    return;
  }
  fillIn(same->strongEtag, validator.strongEtag);
  fillIn(same->weakEtag, validator.weakEtag);
  fillIn(same->lastModified, validator.lastModified);
}

}  // namespace xfer
