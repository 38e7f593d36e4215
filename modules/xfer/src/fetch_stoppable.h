// Fetches for the library's own use: the answer goes to a receiver as it arrives, and another thread can end the
// transfer early.
//
// Threads: any; a receiver is called on the thread that fetches.
// Errors:  as fetch.  What a receiver throws ends the transfer and leaves the function.
#pragma once

#include <cstdint>
#include <string_view>

#include "stop_signal.h"
#include "xfer/fetch.h"

namespace xfer {

/// Takes an answer as it arrives.
class FetchReceiver {
 public:
  /// One header line as libcurl delivers it, redirects included.  False ends the transfer here, which counts as a
  /// success.
  virtual bool header(std::string_view line) = 0;

  /// A piece of the last response's body.  False ends the transfer here, which counts as a success.
  virtual bool body(std::string_view bytes) = 0;

 protected:
  ~FetchReceiver() = default;
};

struct FetchEnd {
  std::int32_t curlCode = 0;
  std::int32_t status = 0;
  std::uint64_t bodyBytes = 0;  ///< that were handed to the receiver
};

/// Whether a receiver also gets what a proxy answers to CONNECT.
enum class ConnectHeads { Shown, Hidden };

/// As fetch, into a receiver; when stop gets set the transfer ends within a tenth of a second with libcurl's
/// aborted-by-callback code.
FetchEnd fetchInto(const Request& request, FetchReceiver& receiver, const StopSignal& stop,
                   ConnectHeads connectHeads = ConnectHeads::Shown);

struct CountedResponse {
  Response response;  ///< its body stays empty
  std::uint64_t bodyBytes = 0;
};

/// As fetch, but counts the body and keeps nothing of it.
CountedResponse fetchCounted(const Request& request);

/// Makes every fetch of the process end early, those to come included: the module is being unloaded.
void stopAllFetches();

}  // namespace xfer
