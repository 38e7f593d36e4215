#include "size_text.h"

#include <charconv>
#include <limits>

namespace xfer_get {

std::optional<std::uint64_t> sizeFromText(std::string_view text, bool unitsAllowed) {
  constexpr std::string_view kUnits = "KMGTkmgt";
  unsigned shift = 0;
  if (const auto unit = text.empty() ? std::string_view::npos : kUnits.find(text.back());
      unitsAllowed && unit != std::string_view::npos) {
    shift = 10 * static_cast<unsigned>(unit % 4 + 1);
    text.remove_suffix(1);
  }
  std::uint64_t size = 0;
  const char* const last = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), last, size);
  if (error != std::errc() || end != last) return std::nullopt;
  if (size > std::numeric_limits<std::uint64_t>::max() >> shift) return std::nullopt;
  return size << shift;
}

}  // namespace xfer_get
