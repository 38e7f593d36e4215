#include "response_head.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

namespace xfer {
namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Whether text begins with prefix, which is in lower case; if so, removes it.
bool skip(std::string_view& text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  const bool same =
      std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) { return a == lower(b); });
  if (same) text.remove_prefix(prefix.size());
  return same;
}

void skipBlanks(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
}

std::optional<std::uint64_t> skipNumber(std::string_view& text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

}  // namespace

std::optional<ContentRange> parseContentRange(std::string_view value) {
  if (!skip(value, "bytes")) return std::nullopt;
  skipBlanks(value);
  ContentRange range;
  const auto first = skipNumber(value);
  if (!first || !skip(value, "-")) return std::nullopt;
  range.first = *first;
  if (!skipNumber(value) || !skip(value, "/")) return std::nullopt;
  if (!skip(value, "*")) {
    range.total = skipNumber(value);
    if (!range.total) return std::nullopt;
  }
  skipBlanks(value);
  if (!value.empty()) return std::nullopt;
  return range;
}

void ResponseHeadReader::add(std::string_view line) {
  while (line.ends_with('\n') || line.ends_with('\r')) line.remove_suffix(1);
  if (line.size() >= 5 && line.starts_with("HTTP/")) {
    const auto space = line.find(' ');
    ResponseHead next;
    next.status = head_.status;  // a status line without a status leaves the last one standing
    if (space != std::string_view::npos) next.status = std::atoi(std::string(line.substr(space + 1)).c_str());
    head_ = next;
  } else if (skip(line, "content-range:")) {
    skipBlanks(line);
    head_.contentRange = parseContentRange(line);
  } else if (skip(line, "content-type:")) {
    skipBlanks(line);
    head_.multipartRanges = skip(line, "multipart/byteranges");
  } else if (skip(line, "etag:")) {
    skipBlanks(line);
    head_.strongEtag = line.starts_with('"') ? line : std::string_view();
  }
}

}  // namespace xfer
