// One HTTP request as it came over the wire.
//
// Threads: a plain value.
// Errors:  none: what cannot be taken apart is left empty, and head and body hold the bytes in any case.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace support {

/// "Range: bytes=first-last" (last is the last byte's own offset) or "bytes=first-".
struct RequestedRange {
  std::uint64_t first = 0;
  std::optional<std::uint64_t> last;

  bool operator==(const RequestedRange&) const = default;
};

struct ReceivedRequest {
  std::string head;  // every byte up to and with the empty line
  std::string body;

  std::string method;
  std::string target;                    // as sent: "/path?query", "http://host/path" to a proxy, "host:port"
  std::string version;                   // "HTTP/1.1"
  std::vector<std::string> headerLines;  // in order, as sent, without their line ends
  std::optional<RequestedRange> range;   // nullopt for none and for any other form

  std::size_t number = 0;      // from 0 in the order of arrival at this server
  std::size_t connection = 0;  // from 0 in the order in which connections were accepted
  std::chrono::steady_clock::time_point time;

  /// The value of the first header of this name, without the white space around it; letters' case does not matter.
  [[nodiscard]] std::optional<std::string> header(const std::string& name) const;

  /// The target's path: no scheme, host or query.
  [[nodiscard]] std::string path() const;
};

/// Takes a head apart.  number, connection, time and body are left to the caller.
ReceivedRequest parseHead(std::string head);

}  // namespace support
