// Which version of the remote file the answers belong to, as far as their validators tell.  Pure.
//
// A strong entity tag decides.  A weak one, or a Last-Modified, that changes only raises a doubt: servers behind one
// address may disagree on them about equal bytes.
//
// Threads: one at a time.
// Errors:  accept throws std::bad_alloc.
#pragma once

#include <string>
#include <vector>

#include "response_head.h"

namespace xfer {

/// What an answer says its version is.  Each is empty when the answer does not say.
struct Validator {
  std::string strongEtag;
  std::string weakEtag;
  std::string lastModified;

  [[nodiscard]] bool says() const { return !strongEtag.empty() || !weakEtag.empty() || !lastModified.empty(); }
  bool operator==(const Validator&) const = default;
};

inline Validator validatorOf(const ResponseHead& head) {
  return {head.strongEtag, head.weakEtag, head.lastModified};
}

enum class Likeness {
  Same,   ///< nothing speaks against it
  Doubt,  ///< only the bytes can tell
  Other   ///< another version
};

Likeness compare(const Validator& one, const Validator& other);

class RemoteVersion {
 public:
  /// Of an answer, against all validators that stand for the file's content.
  [[nodiscard]] Likeness judge(const Validator& validator) const;

  /// The validator stands for the file's content.  What an accepted one did not say is filled in; of many that differ
  /// the oldest is forgotten.
  void accept(const Validator& validator);

  /// Nothing of the version known so far is kept.
  void forget() { accepted_.clear(); }

 private:
  static constexpr std::size_t kMostAccepted = 8;

  std::vector<Validator> accepted_;
};

}  // namespace xfer
