// Which servers a transfer trusts.
//
// Threads: a plain value.
// Errors:  std::bad_alloc.
#pragma once

#include <string>

namespace xfer {

struct TlsTrust {
  bool verifyPeer = false;
  std::string caFile{};     ///< PEM, UTF-8 path; empty: the system's store.  Only with verifyPeer
  std::string pinnedKey{};  ///< in libcurl's format; empty: any key

  /// The name of a field that cannot work with the others; null when all can.
  [[nodiscard]] const char* unworkable() const { return !caFile.empty() && !verifyPeer ? "caFile" : nullptr; }

  /// Connections and TLS sessions are kept for transfers with the same text only: what a transfer that trusts less has
  /// opened is never used by one that trusts more.
  [[nodiscard]] std::string keptFor() const {
    if (!verifyPeer && pinnedKey.empty()) return {};
    return (verifyPeer ? "verified\n" : "\n") + caFile + "\n" + pinnedKey;
  }
};

}  // namespace xfer
