// What a request can do beside its record.  A request whose options are not set behaves as one without options.
//
// With options that cannot work together the result is libcurl's bad-function-argument code, 43, and the log names the
// option.
//
// Threads: a plain value.
// Errors:  std::bad_alloc.
#pragma once

#include <memory>
#include <string>

#include "xfer/export.h"

namespace xfer {

/// Grows without breaking hosts that are built already.  A moved-from object may only be destroyed or assigned to.
class FetchOptions {
 public:
  struct Values;  ///< internal

  XFER_API FetchOptions();
  XFER_API FetchOptions(const FetchOptions& other);
  XFER_API FetchOptions(FetchOptions&& other) noexcept;
  XFER_API FetchOptions& operator=(const FetchOptions& other);
  XFER_API FetchOptions& operator=(FetchOptions&& other) noexcept;
  XFER_API ~FetchOptions();

  /// Whether the server's certificate is checked, and its host name against it, also after a redirect; it is not when
  /// this is not set.  A certificate that is refused ends the request with 60.
  XFER_API FetchOptions& setVerifyPeer(bool verify);

  /// The certificates that are trusted: a PEM file, UTF-8, instead of the system's store (the distribution's bundle on
  /// Linux, the native store on Windows).  Read whenever a connection is made.  Only with setVerifyPeer.  A file that
  /// cannot be read, or holds no certificate, ends the request with 77.
  XFER_API FetchOptions& setCaFile(const std::string& path);

  /// The server's key has to be one of these: "sha256//" and the base64 SHA-256 digest of its public key; several are
  /// separated by semicolons.  Counts for every server that is asked, redirects included, also without setVerifyPeer.
  /// Any other key ends the request with 90.
  XFER_API FetchOptions& setPinnedKey(const std::string& pin);

  /// The User-Agent header of every request, redirects included, where the request has no such line of its own; empty
  /// or not set: that of a desktop browser.
  XFER_API FetchOptions& setUserAgent(const std::string& userAgent);

  [[nodiscard]] const Values& values() const;  ///< internal

 private:
  std::unique_ptr<Values> values_;
};

}  // namespace xfer
