// Single requests whose response headers and body go into memory.
//
// Threads: any thread may call every function.  shutdown must not race with a request in flight.
// Errors:  Response::curlCode reports a failed transfer.  Functions throw std::bad_alloc without memory; fetchAsync
//          throws std::system_error when it cannot start a thread.
// Units:   time-outs are seconds.
//
// The cookie, and header lines Cookie and Authorization, go to the scheme, host and port of the URL only, and from http
// to https of the same host when both ports are the standard ones; a redirect elsewhere is followed without them. Proxy
// variables of the environment are not read.
#pragma once

#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include "net/proxy.h"
#include "xfer/export.h"
#include "xfer/fetch_options.h"

namespace xfer {

/// What to ask for.
struct Request {
  std::string url;                      ///< absolute, http or https
  std::string cookie;                   ///< value of the Cookie header; empty: not sent
  std::vector<std::string> headers;     ///< lines "Name: value" without a line end
  net::Proxy proxy;                     ///< for every host; empty host: none
  std::string body;                     ///< not empty: sent as a POST, or by the options' method
  bool followRedirects = true;          ///< at most 20; a POST stays a POST
  std::int32_t connectTimeoutSec = 15;  ///< 0 or less: libcurl's 300
  std::int32_t timeoutSec = 10;         ///< for the whole transfer; 0 or less: none
  std::int32_t lowSpeedTimeSec = 10;    ///< aborts after this long below 1024 bytes per second; 0 or less: never
  bool quiet = false;                   ///< log nothing about this request, failures included
};

/// How a request ended, and what arrived.
struct Response {
  /// 0: the transfer is complete, with any HTTP status.  -1: no transfer handle could be created.  Otherwise libcurl's
  /// CURLcode.  43 (bad function argument) also means a line break in the cookie or a header line (header injection),
  /// or options that cannot work; 42 (aborted by callback) a cancelled request, also by the options' callback; 100037
  /// that this callback threw.
  std::int32_t curlCode = 0;
  std::int32_t status = 0;  ///< HTTP status of the last response; 0: the transfer failed
  std::string headers;      ///< all header lines received, redirects included, with their CR LF
  std::string body;         ///< of the last response, as served; partial after a failure
};

/// Runs one request and blocks until it ends.  Does not verify certificates.
XFER_API Response fetch(const Request& request);

/// With abilities beside the request's, such as certificate checks.
XFER_API Response fetch(const Request& request, const FetchOptions& options);

/// Runs fetch with a copy of the request on a new thread.  The future's get rethrows what fetch throws; its destructor
/// waits for the request to end.
XFER_API std::future<Response> fetchAsync(const Request& request);

/// With abilities beside the request's.
XFER_API std::future<Response> fetchAsync(const Request& request, const FetchOptions& options);

/// Requests one byte of url and returns the total size from the response headers; -1 when they give none.  Ignores the
/// HTTP status: an error page's length counts.  When Content-Range gives no total, the Content-Length counts.
XFER_API std::int64_t getContentLength(const std::string& url, const net::Proxy& proxy, const std::string& cookie);

/// Initialises libcurl and the share handle, once per process; later calls return at once.  Requests call it
/// themselves; a host may call it earlier.
XFER_API void init();

/// The share handle (a CURLSH*) that init created; null before init, after shutdown, or when libcurl could not create
/// one.  The library leases it to one operation at a time, so a host must not use it for its own transfers.
XFER_API void* shareHandle();

/// Releases the share handles and libcurl's global state.  Call it only just before unloading the module: init never
/// runs again, and later requests use no share.
XFER_API void shutdown();

}  // namespace xfer
