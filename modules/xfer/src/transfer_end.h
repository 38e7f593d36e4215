// Whether the end of a transfer counts as a success although its body is shorter than needed.  Pure.
//
// Units: offsets and lengths are bytes.
#pragma once

#include <cstdint>
#include <optional>

namespace xfer {

/// A transfer that libcurl ended without an error.
struct EndedBody {
  std::uint64_t rangeStart = 0;
  std::uint64_t bodyOffset = 0;              ///< in the file, of the body's first byte
  std::uint64_t reached = 0;                 ///< in the file, exclusive end of the body bytes that arrived
  std::optional<std::uint64_t> neededEnd{};  ///< nothing: as long as it goes
  std::optional<std::uint64_t> namedEnd{};   ///< exclusive end that the answer itself named
  std::int64_t announcedLength = -1;         ///< of the body; -1: the answer gave none
};

enum class EndVerdict {
  Whole,          ///< all that was needed
  WholeAsNamed,   ///< shorter than needed, but all that the answer named
  ShortAccepted,  ///< shorter than needed, but as long as announced
  Short           ///< bytes are missing
};

constexpr EndVerdict judgeEnd(const EndedBody& body) {
  if (!body.neededEnd || body.reached >= *body.neededEnd) return EndVerdict::Whole;
  if (body.namedEnd && body.reached > body.rangeStart && body.reached == *body.namedEnd) {
    return EndVerdict::WholeAsNamed;
  }
  const bool asAnnounced =
      body.announcedLength >= 1 && static_cast<std::uint64_t>(body.announcedLength) == body.reached - body.bodyOffset;
  return asAnnounced ? EndVerdict::ShortAccepted : EndVerdict::Short;
}

}  // namespace xfer
