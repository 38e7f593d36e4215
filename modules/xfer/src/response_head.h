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
  std::optional<std::uint64_t> total;  ///< nothing when the server wrote "*"
};

/// Reads "bytes first-last/total"; nothing when the value has another form.
std::optional<ContentRange> parseContentRange(std::string_view value);

struct ResponseHead {
  std::int32_t status = 0;                   ///< 0 until a status line was seen
  std::optional<ContentRange> contentRange;  ///< nothing when the header is missing or cannot be read
  bool multipartRanges = false;              ///< the body is of type multipart/byteranges
  std::string strongEtag;                    ///< with its quotes; empty when there is none or a weak one
};

/// Takes header lines as libcurl delivers them, of interim responses and redirects too: the last status line starts
/// the head that counts.  Lines of one response that are repeated replace each other.
class ResponseHeadReader {
 public:
  void add(std::string_view line);
  [[nodiscard]] const ResponseHead& head() const { return head_; }

 private:
  ResponseHead head_;
};

}  // namespace xfer
