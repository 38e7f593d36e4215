// Parses the fields of a response head that decide what the body is and where it belongs.  Knows nothing of transfers.
//
// Threads: one at a time.
// Errors:  none; a field that cannot be parsed counts as missing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace xfer {

struct ContentRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;              ///< inclusive, as the server wrote it
  std::optional<std::uint64_t> total;  ///< nothing for "*"
};

/// Parses "bytes first-last/total"; nothing when the value has another form, last < first, or total <= last.
std::optional<ContentRange> parseContentRange(std::string_view value);

/// The parsed header fields of one response.  Names match as a whole and case-insensitively.  Numbers are digits that
/// fit 64 bits.
struct ResponseHead {
  std::int32_t status = 0;                        ///< 0: no status line yet
  std::optional<ContentRange> contentRange;       ///< nothing when missing or malformed
  std::optional<std::uint64_t> unsatisfiedTotal;  ///< N of "Content-Range: bytes */N"
  std::optional<std::uint64_t> contentLength;     ///< as written; see bodyLength
  bool contentLengthsDiffer = false;              ///< several different values
  bool transferEncoding = false;                  ///< a Transfer-Encoding field is present, with any value
  bool acceptRangesBytes = false;
  bool multipartRanges = false;  ///< the body is multipart/byteranges
  std::string contentType;       ///< without parameters
  std::string strongEtag;        ///< with its quotes; empty: none, or a weak one
  std::string weakEtag;          ///< with its W/ and quotes; empty: none, or a strong one
  std::string lastModified;      ///< as written
  std::string date;              ///< as written
  std::string retryAfter;        ///< as written
  std::string contentEncoding;   ///< as written; empty: none, or identity

  /// Announced length of the body; nothing when unknown, ambiguous or replaced by a transfer encoding.
  [[nodiscard]] std::optional<std::uint64_t> bodyLength() const;
};

/// Parses header lines as libcurl delivers them, those of interim responses, redirects and a proxy's reply to CONNECT
/// too.  Each status line starts a new head, so the last one counts; the empty line ends it, so trailers are ignored.
/// A repeated field replaces the earlier one, except Content-Length.
class ResponseHeadReader {
 public:
  void add(std::string_view line);
  [[nodiscard]] const ResponseHead& head() const { return head_; }

  /// Whether the head has ended.
  [[nodiscard]] bool headIsWhole() const { return head_.status != 0 && !open_; }

 private:
  void addField(std::string_view name, std::string_view value);
  void addLengths(std::string_view list);

  ResponseHead head_;
  std::optional<std::string> lengthText_;  // first Content-Length value, without leading zeros
  bool open_ = false;                      // inside a head: after its status line, before the empty line
};

}  // namespace xfer
