// What a request can do beside its record.  A request whose options are not set behaves as one without options.
//
// With options that cannot work together the result is libcurl's bad-function-argument code, 43, and the log names the
// option.
//
// Its method, redirect limit, body callback and cancel token count for fetch and fetchAsync; probeRemoteFile leaves
// them aside.
//
// Threads: a plain value.
// Errors:  std::bad_alloc.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "xfer/cancel_token.h"
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

  /// The request's method, "PUT" for instance, with or without a body; empty or not set: GET, and POST with a body.  A
  /// redirect keeps it, and the body.  Case-sensitive.  POST, PUT and PATCH without a body tell a length of 0; a body
  /// whose type no header line tells goes out as application/x-www-form-urlencoded.  43 when it is no method name
  /// (letters, digits and !#$%&'*+-.^_`|~), and for HEAD with a body.
  XFER_API FetchOptions& setMethod(const std::string& method);

  /// So many redirects are followed at most; 0: the redirect is the answer; one more ends the request with 47.  Counts
  /// instead of the request's followRedirects; 20 when neither is set.
  XFER_API FetchOptions& setMaxRedirects(std::uint32_t redirects);

  /// Receives the last answer's body as it arrives, in order, on the thread that runs the request, with that answer's
  /// HTTP status; nothing of it is kept in the response.  False ends the request with 42, an exception with 100037.
  XFER_API FetchOptions& setOnBody(std::function<bool(std::int32_t httpStatus, std::string_view bytes)> callback);

  /// Is told what libcurl or the system said of a failure, for people: one line of at most 1000 bytes, whose words may
  /// change.  Names hosts and addresses, but no user, password or cookie.  Called once, on the thread that runs the
  /// request and before its result is there, when Response::curlCode (RemoteFileInfo::error) is not 0 and no HTTP
  /// status; with an empty text when nothing is known beyond the code.  Never called otherwise: an HTTP status is no
  /// failure of a request.  An exception of it is ignored: the request has failed already, with a code that says more.
  XFER_API FetchOptions& setOnFailure(std::function<void(const std::string& text)> callback);

  /// Ends the request, from any thread.  One that has arrived whole by then stays a success.
  XFER_API FetchOptions& setCancelToken(const CancelToken& token);

  [[nodiscard]] const Values& values() const;  ///< internal

 private:
  std::unique_ptr<Values> values_;
};

}  // namespace xfer
