// Internal fetches: a receiver gets the response as it arrives, and another thread can abort the transfer.
//
// Threads: any; a receiver is called on the fetching thread.
// Errors:  as fetch.  An exception of a receiver aborts the transfer and is rethrown to the caller.
#pragma once

#include <cstdint>
#include <string_view>

#include "stop_signal.h"
#include "tls_trust.h"
#include "xfer/fetch.h"

namespace xfer {

/// Receives a response as it arrives.
class FetchReceiver {
 public:
  /// Takes one header line as libcurl delivers it, redirects included.  False ends the transfer as a success.
  virtual bool header(std::string_view line) = 0;

  /// Takes a piece of the last response's body.  False ends the transfer as a success.
  virtual bool body(std::string_view bytes) = 0;

 protected:
  ~FetchReceiver() = default;
};

struct FetchEnd {
  std::int32_t curlCode = 0;
  std::int32_t status = 0;
  std::uint64_t bodyBytes = 0;  ///< handed to the receiver
};

/// Whether the receiver also gets a proxy's response headers to CONNECT.
enum class ConnectHeads { Shown, Hidden };

/// As fetch, into a receiver.  Setting stop aborts the transfer within 100 ms with libcurl's aborted-by-callback code.
FetchEnd fetchInto(const Request& request, FetchReceiver& receiver, const StopSignal& stop,
                   ConnectHeads connectHeads = ConnectHeads::Shown, const TlsTrust& trust = {});

struct CountedResponse {
  Response response;  ///< its body stays empty
  std::uint64_t bodyBytes = 0;
};

/// As fetch, but counts the body's bytes and discards them.
CountedResponse fetchCounted(const Request& request, const TlsTrust& trust = {});

/// As the exported one, with abilities.
std::int64_t getContentLength(const std::string& url, const net::Proxy& proxy, const std::string& cookie,
                              const FetchOptions& options);

/// Aborts every current and later fetch of the process, for unloading the module.
void stopAllFetches();

}  // namespace xfer
