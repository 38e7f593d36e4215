// The header lines of one transfer, and which of them go to whom: a cookie or a login belongs to the origin (scheme,
// host and port) of the URL that it was given for, and a redirect to another one is followed without it.
//
// libcurl's own rules do not fit: its cookie option follows every redirect, and its rule for header lines drops a login
// where a site moves its visitors from http to https.
//
// Threads: any, one at a time; once applied, that which runs the handle.
// Errors:  the constructor and hopBetween throw std::bad_alloc.  A redirect is not followed when memory runs out: the
//          transfer ends with libcurl's aborted-by-callback code (42).
#pragma once

#include <string>
#include <vector>

#include "curl_handles.h"

namespace xfer {

/// What a request's URL is to the URL that the secrets were given for.
enum class Hop {
  SameOrigin,
  Upgrade,    ///< the same host, from http on port 80 to https on port 443
  Elsewhere,  ///< also when one of them cannot be read
};

Hop hopBetween(const std::string& givenFor, const std::string& next);

class RequestHeaders {
 public:
  /// Sets the handle's header lines (see headerList) and cookie.  Must outlive every transfer of the handle.
  RequestHeaders(CURL* easy, const std::string& url, const std::string& cookie, const std::vector<std::string>& lines);
  RequestHeaders(const RequestHeaders&) = delete;
  RequestHeaders& operator=(const RequestHeaders&) = delete;

 private:
  static int beforeRequest(void* self, char* remoteAddress, char* localAddress, int remotePort, int localPort);
  void choose();

  CURL* const easy_;
  const std::string givenFor_;
  SlistPtr first_;           // as the caller gave them; the cookie is libcurl's option
  SlistPtr withSecrets_;     // the cookie among the lines, so that bringing it back allocates nothing
  SlistPtr withoutSecrets_;  // both empty when there is no secret
  bool hasLeft_ = false;     // an earlier request of the handle went elsewhere
};

}  // namespace xfer
