// The facts of a response's head that decide what its body is and where it belongs.  Knows nothing of transfers.
//
// Threads: one at a time.
// Errors:  none; a line that cannot be read says nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace xfer {

struct ContentRange {
  std::uint64_t first = 0;
  std::uint64_t last = 0;              ///< inclusive, as the server wrote it
  std::optional<std::uint64_t> total;  ///< nothing when the server wrote "*"
};

/// Reads "bytes first-last/total"; nothing when the value has another form, last is below first, or total is not above
/// last.
std::optional<ContentRange> parseContentRange(std::string_view value);

/// What one response's header fields say.  Fields are found by their whole names, in any letter case.  A number is
/// digits that fit 64 bits; any other text is no number.
struct ResponseHead {
  std::int32_t status = 0;                        ///< 0 until a status line was seen
  std::optional<ContentRange> contentRange;       ///< nothing when the field is missing or cannot be read
  std::optional<std::uint64_t> unsatisfiedTotal;  ///< N of "Content-Range: bytes */N"
  std::optional<std::uint64_t> contentLength;     ///< as written; see bodyLength
  bool contentLengthsDiffer = false;              ///< several values, not all the same
  bool transferEncoding = false;                  ///< there is a Transfer-Encoding field, whatever its value
  bool acceptRangesBytes = false;
  bool multipartRanges = false;  ///< the body is of type multipart/byteranges
  std::string contentType;       ///< without its parameters
  std::string strongEtag;        ///< with its quotes; empty when there is none or a weak one
  std::string weakEtag;          ///< with its W/ and quotes; empty when there is none or a strong one
  std::string lastModified;      ///< the field's text

  /// Length of the body as announced; nothing when it is unknown, ambiguous or decided by a transfer encoding.
  [[nodiscard]] std::optional<std::uint64_t> bodyLength() const;
};

/// Takes header lines as libcurl delivers them, of interim responses, redirects and a proxy's answer to CONNECT too:
/// the last status line starts the head that counts, and the empty line ends it, so that trailers of a body say
/// nothing. Fields of one response that are repeated replace each other, except for Content-Length.
class ResponseHeadReader {
 public:
  void add(std::string_view line);
  [[nodiscard]] const ResponseHead& head() const { return head_; }

  /// Whether the head has ended: nothing is added to it any more.
  [[nodiscard]] bool headIsWhole() const { return head_.status != 0 && !open_; }

 private:
  void addField(std::string_view name, std::string_view value);
  void addLengths(std::string_view list);

  ResponseHead head_;
  std::optional<std::string> lengthText_;  // of the first Content-Length value, without leading zeros
  bool open_ = false;                      // a status line was seen, and its head has not ended
};

}  // namespace xfer
