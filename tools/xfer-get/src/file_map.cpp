#include "file_map.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdio>

#include "progress.h"

namespace xfer_get {
namespace {

constexpr std::size_t kNarrowestMap = 8;
constexpr std::uint64_t kSilentMs = 1000;  // shorter gaps are no news

// A line whose columns are equal parts of a file, or several columns a byte of a tiny one.
class Columns {
 public:
  Columns(std::uint64_t size, std::size_t count) : size_(size), text_(count, '#') {}

  void markAt(std::uint64_t offset, char with) { text_[before(offset)] = with; }

  // Every column that has a part in [start, end), as far as it lies in the file.
  void mark(std::uint64_t start, std::uint64_t end, char with) {
    end = std::min(end, size_);
    if (start >= end) return;
    const auto behind = static_cast<std::size_t>(std::ceil(columnsTo(end)));
    for (std::size_t i = before(start); i < std::min(behind, text_.size()); ++i) text_[i] = with;
  }

  [[nodiscard]] const std::string& text() const { return text_; }

 private:
  [[nodiscard]] double columnsTo(std::uint64_t offset) const {
    return static_cast<double>(offset) / static_cast<double>(size_) * static_cast<double>(text_.size());
  }
  [[nodiscard]] std::size_t before(std::uint64_t offset) const {
    return std::min(static_cast<std::size_t>(columnsTo(offset)), text_.size() - 1);
  }

  std::uint64_t size_;
  std::string text_;
};

// 0: unknown.  Before the file's size is known a range may reach far behind its end.
std::uint64_t endOf(const xfer::RangeDetails& range, std::uint64_t size) {
  return range.end != 0 ? std::min(range.end, size) : size;
}

std::string paceText(const xfer::RangeDetails& range) {
  if (range.silentMs >= kSilentMs) return "silent " + std::to_string(range.silentMs / 1000) + " s";
  return range.bytesPerSec != 0 ? sizeText(range.bytesPerSec) + "/s" : "begins";
}

}  // namespace

std::string mapLine(const FileParts& parts, unsigned columns) {
  if (parts.size == 0 || columns < kNarrowestMap) return "";
  Columns map(parts.size, columns - 2);
  for (const auto& range : parts.ranges) map.mark(range.position, endOf(range, parts.size), '-');
  for (const auto& range : parts.missing) map.mark(range.start, range.end, '.');
  for (const auto& range : parts.ranges) {
    if (range.position < endOf(range, parts.size)) map.markAt(range.position, '>');
  }
  return "[" + map.text() + "]";
}

std::string connectionLine(const xfer::RangeDetails& range, std::uint64_t size, unsigned columns) {
  const std::uint64_t end = endOf(range, size);
  std::array<char, 96> text{};
  std::snprintf(text.data(), text.size(), "%10s > %10s  %s%s", sizeText(range.position).c_str(),
                end != 0 ? sizeText(end).c_str() : "?", paceText(range).c_str(), range.copy ? "  again" : "");
  return std::string(text.data()).substr(0, columns);
}

std::vector<std::string> mapLines(const FileParts& parts, unsigned columns, unsigned rows) {
  std::vector<std::string> lines;
  if (std::string map = mapLine(parts, columns); !map.empty() && rows > 0) lines.push_back(std::move(map));
  const std::size_t room = rows - lines.size();
  const std::size_t shown = parts.ranges.size() <= room ? parts.ranges.size() : room - std::min<std::size_t>(room, 1);
  for (std::size_t i = 0; i < shown; ++i) lines.push_back(connectionLine(parts.ranges[i], parts.size, columns));
  if (shown < parts.ranges.size() && room > 0) {
    lines.push_back(("and " + std::to_string(parts.ranges.size() - shown) + " more connections").substr(0, columns));
  }
  return lines;
}

}  // namespace xfer_get
