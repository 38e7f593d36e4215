// Internal fetches: a receiver gets the response as it arrives, and another thread can abort the transfer.
//
// Threads: any; a receiver is called on the fetching thread.
// Errors:  as fetch.  An exception of a receiver aborts the transfer and is rethrown to the caller.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "short_text.h"
#include "stop_signal.h"
#include "tls_trust.h"
#include "xfer/fetch.h"

namespace xfer {

/// What follows a part of a response.
enum class Next {
  More,
  Enough,   ///< ends the transfer as a success
  Aborted,  ///< ends it with libcurl's aborted-by-callback code
  Threw     ///< ends it with the code for a host's callback that threw
};

/// Receives a response as it arrives.
class FetchReceiver {
 public:
  /// Takes one header line as libcurl delivers it, redirects included.
  virtual Next header(std::string_view line) = 0;

  /// Takes a piece of the last response's body, with that response's status.
  virtual Next body(std::int32_t status, std::string_view bytes) = 0;

 protected:
  ~FetchReceiver() = default;
};

struct FetchEnd {
  std::int32_t curlCode = 0;    ///< as Response::curlCode
  std::int32_t status = 0;      ///< as Response::status
  std::int32_t lastStatus = 0;  ///< of the last response, also after a failure; 0: none came
  std::uint64_t bodyBytes = 0;  ///< handed to the receiver
  ShortText failure{};          ///< what lies behind curlCode; empty: no more is known
};

/// Whether the receiver also gets a proxy's response headers to CONNECT.
enum class ConnectHeads { Shown, Hidden };

/// What a fetch does beside its request.  The texts must outlive it, and are not copied.
struct FetchExtras {
  std::string_view userAgent{};                 ///< empty: the request's own line, or the default
  std::string_view method{};                    ///< empty: GET, and POST with a body
  std::string_view body{};                      ///< not empty: sent instead of the request's
  std::optional<std::uint32_t> maxRedirects{};  ///< counts instead of the request's followRedirects
};

/// As fetch, into a receiver.  Setting stop aborts the transfer within 100 ms with libcurl's aborted-by-callback code.
FetchEnd fetchInto(const Request& request, FetchReceiver& receiver, const StopSignal& stop,
                   ConnectHeads connectHeads = ConnectHeads::Shown, const TlsTrust& trust = {},
                   const FetchExtras& extras = {});

/// Which parts of a response go into memory.
struct Kept {
  bool headers = true;
  bool body = true;
};

struct KeptResponse {
  Response response;
  std::int32_t lastStatus = 0;  ///< as FetchEnd::lastStatus
  std::uint64_t bodyBytes = 0;  ///< that arrived, kept or not
};

/// Tells the options' host what lies behind a failure; what it throws is ignored.
void tellFailure(const FetchOptions::Values& values, std::int32_t curlCode, const ShortText& failure) noexcept;

/// As fetch with options of these values, with a body that is not copied: it is sent instead of the request's when it
/// is not empty.
KeptResponse fetchKept(const Request& request, const FetchOptions::Values& values, std::string_view body, Kept kept);

struct CountedResponse {
  Response response;  ///< its body stays empty
  std::uint64_t bodyBytes = 0;
  ShortText failure{};  ///< as FetchEnd::failure
};

/// As fetch, but counts the body's bytes and discards them.
CountedResponse fetchCounted(const Request& request, const TlsTrust& trust = {});

/// As the exported one, with abilities.
std::int64_t getContentLength(const std::string& url, const net::Proxy& proxy, const std::string& cookie,
                              const FetchOptions& options);

/// Aborts every current and later fetch of the process, for unloading the module.
void stopAllFetches();

}  // namespace xfer
