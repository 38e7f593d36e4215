// Single requests into memory: one request, its response headers and its body.
//
// Threads: every function may be called from any thread.  shutdown must not race with a request in flight.
// Errors:  a failed transfer is reported in Response::curlCode, never thrown.  Running out of memory throws
//          std::bad_alloc.
// Units:   time-outs are seconds.
#pragma once

#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include "net/proxy.h"
#include "xfer/export.h"

namespace xfer {

struct Request {
  std::string url;                      ///< absolute, http or https
  std::string cookie;                   ///< value of the Cookie header; not sent when empty
  std::vector<std::string> headers;     ///< whole lines "Name: value" without a line end
  net::Proxy proxy;                     ///< used when its host is not empty
  std::string body;                     ///< not empty: the request is a POST of these bytes
  bool followRedirects = true;          ///< at most 20; a POST stays a POST
  std::int32_t connectTimeoutSec = 15;  ///< 0 or less: none
  std::int32_t timeoutSec = 10;         ///< for the whole transfer; 0 or less: none
  std::int32_t lowSpeedTimeSec = 10;    ///< gives up after so long below 1024 bytes per second; 0 or less: never
  bool quiet = false;                   ///< log nothing about this request, failures included
};

struct Response {
  /// 0: the transfer is done, whatever its HTTP status.  -1: no transfer handle could be created.  Otherwise libcurl's
  /// CURLcode.  43 (bad function argument) also stands for a cookie or a header line that would smuggle in a further
  /// header line.
  std::int32_t curlCode = 0;
  std::int32_t status = 0;  ///< HTTP status of the last response; 0 when the transfer failed
  std::string headers;      ///< every header line received, those of redirects included, with their CR LF
  std::string body;         ///< the final response's body as served; after a failure, what had arrived
};

/// Runs one request and blocks until it has ended.  Certificates are not verified.
XFER_API Response fetch(const Request& request);

/// Runs fetch on a thread of its own, with a copy of the request.  What fetch throws is thrown by the future's get.
/// The future's destructor waits for the request to end.
XFER_API std::future<Response> fetchAsync(const Request& request);

/// Asks for one byte of url and returns the whole size that the answer's headers give; -1 when it cannot be learned.
/// The HTTP status is not looked at: an error page's length counts.
XFER_API std::int64_t getContentLength(const std::string& url, const net::Proxy& proxy, const std::string& cookie);

/// Brings libcurl and the share handle up, once per process; every later call returns at once.  Whoever needs it calls
/// it by itself; a host may call it early.
XFER_API void init();

/// The share handle (a CURLSH*) that init made; null before init, after shutdown, or when libcurl had none to give.
/// It is lent to one operation at a time, so a host must not use it for transfers of its own.
XFER_API void* shareHandle();

/// Releases the share handles and libcurl's global state.  Only for the time just before the module is unloaded: init
/// never runs again, later requests run unshared.
XFER_API void shutdown();

}  // namespace xfer
