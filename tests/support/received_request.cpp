#include "support/received_request.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace support {
namespace {

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalIgnoringCase(const std::string& a, const std::string& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return lower(x) == lower(y); });
}

std::string trimmed(const std::string& text) {
  const std::size_t from = text.find_first_not_of(" \t");
  if (from == std::string::npos) return "";
  return text.substr(from, text.find_last_not_of(" \t") - from + 1);
}

std::vector<std::string> linesOf(const std::string& head) {
  std::vector<std::string> lines;
  for (std::size_t from = 0; from < head.size();) {
    const std::size_t end = std::min(head.find('\n', from), head.size());
    std::string line = head.substr(from, end - from);
    if (line.ends_with('\r')) line.pop_back();
    lines.push_back(std::move(line));
    from = end + 1;
  }
  while (!lines.empty() && lines.back().empty()) lines.pop_back();
  return lines;
}

std::optional<RequestedRange> parseRange(const std::string& text) {
  const std::string unit = "bytes=";
  if (!text.starts_with(unit)) return std::nullopt;
  const char* const end = text.data() + text.size();
  RequestedRange range;
  const auto first = std::from_chars(text.data() + unit.size(), end, range.first);
  if (first.ec != std::errc() || first.ptr == end || *first.ptr != '-') return std::nullopt;
  if (first.ptr + 1 == end) return range;
  std::uint64_t lastByte = 0;
  const auto last = std::from_chars(first.ptr + 1, end, lastByte);
  if (last.ec != std::errc() || last.ptr != end) return std::nullopt;
  range.last = lastByte;
  return range;
}

}  // namespace

std::optional<std::string> ReceivedRequest::header(const std::string& name) const {
  for (const std::string& line : headerLines) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos || !equalIgnoringCase(line.substr(0, colon), name)) continue;
    return trimmed(line.substr(colon + 1));
  }
  return std::nullopt;
}

std::string ReceivedRequest::path() const {
  std::string path = target.substr(0, target.find_first_of("?#"));
  const std::size_t scheme = path.find("://");
  if (scheme == std::string::npos) return path;
  const std::size_t slash = path.find('/', scheme + 3);
  return slash == std::string::npos ? "/" : path.substr(slash);
}

ReceivedRequest parseHead(std::string head) {
  ReceivedRequest request;
  request.headerLines = linesOf(head);
  request.head = std::move(head);
  if (request.headerLines.empty()) return request;

  const std::string line = request.headerLines.front();
  request.headerLines.erase(request.headerLines.begin());
  const std::size_t afterMethod = line.find(' ');
  const std::size_t beforeVersion = line.rfind(' ');
  if (afterMethod != std::string::npos && beforeVersion > afterMethod) {
    request.method = line.substr(0, afterMethod);
    request.target = line.substr(afterMethod + 1, beforeVersion - afterMethod - 1);
    request.version = line.substr(beforeVersion + 1);
  }
  if (const auto range = request.header("Range")) request.range = parseRange(*range);
  return request;
}

}  // namespace support
