#include "response_head.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <utility>

namespace xfer {
namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// Removes prefix (lower case) from the start of text, in any case; false when text does not start with it.
bool skip(std::string_view& text, std::string_view prefix) {
  if (text.size() < prefix.size()) return false;
  const bool same =
      std::equal(prefix.begin(), prefix.end(), text.begin(), [](char a, char b) { return a == lower(b); });
  if (same) text.remove_prefix(prefix.size());
  return same;
}

bool sameName(std::string_view text, std::string_view lowerCaseName) {
  return text.size() == lowerCaseName.size() && skip(text, lowerCaseName);
}

void skipBlanks(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
}

std::string_view trimmed(std::string_view text) {
  skipBlanks(text);
  return text.substr(0, text.find_last_not_of(" \t") + 1);
}

// Removes and returns the next element of a comma-separated list, without blanks around it.
std::string_view takeElement(std::string_view& list) {
  const auto end = std::min(list.find(','), list.size());
  const std::string_view element = trimmed(list.substr(0, end));
  list.remove_prefix(std::min(end + 1, list.size()));
  return element;
}

std::optional<std::uint64_t> skipNumber(std::string_view& text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return number;
}

std::optional<std::uint64_t> wholeNumber(std::string_view text) {
  const auto number = skipNumber(text);
  return text.empty() ? number : std::nullopt;
}

std::optional<std::uint64_t> parseUnsatisfiedRange(std::string_view value) {
  if (!skip(value, "bytes")) return std::nullopt;
  skipBlanks(value);
  return skip(value, "*/") ? wholeNumber(value) : std::nullopt;
}

}  // namespace

std::optional<ContentRange> parseContentRange(std::string_view value) {
  if (!skip(value, "bytes")) return std::nullopt;
  skipBlanks(value);
  const auto first = skipNumber(value);
  if (!first || !skip(value, "-")) return std::nullopt;
  const auto last = skipNumber(value);
  if (!last || *last < *first || !skip(value, "/")) return std::nullopt;
  ContentRange range;
  range.first = *first;
  range.last = *last;
  if (!skip(value, "*")) {
    range.total = skipNumber(value);
    if (!range.total || *range.total <= *last) return std::nullopt;
  }
  skipBlanks(value);
  if (!value.empty()) return std::nullopt;
  return range;
}

std::optional<std::uint64_t> ResponseHead::bodyLength() const {
  return transferEncoding || contentLengthsDiffer ? std::nullopt : contentLength;
}

void ResponseHeadReader::add(std::string_view line) {
  while (line.ends_with('\n') || line.ends_with('\r')) line.remove_suffix(1);
  if (line.starts_with("HTTP/")) {
    const auto space = line.find(' ');
    ResponseHeadReader next;
    next.open_ = true;
    next.head_.status = head_.status;  // kept when the status line has no status
    if (space != std::string_view::npos) next.head_.status = std::atoi(std::string(line.substr(space + 1)).c_str());
    *this = std::move(next);
  } else if (line.empty()) {
    open_ = false;
  } else if (const auto colon = line.find(':'); open_ && colon != std::string_view::npos) {
    addField(line.substr(0, colon), trimmed(line.substr(colon + 1)));
  }
}

void ResponseHeadReader::addField(std::string_view name, std::string_view value) {
  if (sameName(name, "content-range")) {
    head_.contentRange = parseContentRange(value);
    head_.unsatisfiedTotal = parseUnsatisfiedRange(value);
  } else if (sameName(name, "content-length")) {
    addLengths(value);
  } else if (sameName(name, "transfer-encoding")) {
    head_.transferEncoding = true;
  } else if (sameName(name, "accept-ranges")) {
    head_.acceptRangesBytes = false;
    while (!value.empty()) head_.acceptRangesBytes |= sameName(takeElement(value), "bytes");
  } else if (sameName(name, "content-type")) {
    head_.contentType = trimmed(value.substr(0, value.find(';')));
    head_.multipartRanges = skip(value, "multipart/byteranges");
  } else if (sameName(name, "etag")) {
    head_.strongEtag = value.starts_with('"') ? value : std::string_view();
    head_.weakEtag = value.starts_with("W/\"") ? value : std::string_view();
  } else if (sameName(name, "last-modified")) {
    head_.lastModified = value;
  } else if (sameName(name, "date")) {
    head_.date = value;
  } else if (sameName(name, "retry-after")) {
    head_.retryAfter = value;
  } else if (sameName(name, "content-encoding")) {
    head_.contentEncoding = sameName(value, "identity") ? std::string_view() : value;
  }
}

void ResponseHeadReader::addLengths(std::string_view list) {
  while (!list.empty()) {
    std::string_view text = takeElement(list);
    if (text.empty()) continue;
    text.remove_prefix(std::min(text.find_first_not_of('0'), text.size() - 1));
    if (!lengthText_) {
      lengthText_ = text;
      head_.contentLength = wholeNumber(text);
    } else if (text != lengthText_) {
      head_.contentLengthsDiffer = true;
    }
  }
}

}  // namespace xfer
