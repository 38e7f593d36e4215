#include "live_lines.h"

#include <algorithm>
#include <limits>

#include "paint.h"

namespace xfer_get {
namespace {

constexpr std::string_view kEraseLine = "\x1b[K";   // behind the cursor
constexpr std::string_view kEraseBelow = "\x1b[J";  // that, and all lines below
constexpr std::string_view kWrapOff = "\x1b[?7l";
constexpr std::string_view kWrapOn = "\x1b[?7h";
constexpr std::string_view kNextLine = "\n\r";

// Hides what is in the way behind the line.
std::string over(const std::string& line, std::size_t inTheWay) {
  return line + std::string(inTheWay - std::min(inTheWay, cellsOfPainted(line)), ' ');
}

}  // namespace

std::string LiveLines::draw(const std::vector<std::string>& lines, unsigned columns, unsigned rows) {
  const std::size_t inTheWay = std::min<std::size_t>(cellsInTheWay(), columns);
  rows_ = rows;
  lines_.clear();
  for (const std::string& line : lines) {
    if (lines_.size() < std::max(rows, 1U)) lines_.push_back(cutPainted(line, columns));
  }
  return redraw(inTheWay);
}

std::string LiveLines::above(std::string_view text) {
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  std::string lasting = "\r";
  if (rows_ > 0 && !lines_.empty()) lasting += kEraseBelow;
  std::size_t inTheWay = cellsInTheWay();
  for (bool more = true; more; inTheWay = 0) {
    const std::size_t end = text.find('\n');
    lasting += over(cutPainted(text.substr(0, end), std::numeric_limits<std::size_t>::max()), inTheWay);
    lasting += kNextLine;
    more = end != std::string_view::npos;
    if (more) text.remove_prefix(end + 1);
  }
  return lines_.empty() ? lasting : lasting + redraw(0);
}

std::string LiveLines::clear() {
  if (lines_.empty()) return "";
  const std::size_t inTheWay = cellsInTheWay();
  lines_.clear();
  return redraw(inTheWay);
}

std::size_t LiveLines::cellsInTheWay() const {
  return rows_ == 0 && !lines_.empty() ? cellsOfPainted(lines_.front()) : 0;
}

std::string LiveLines::redraw(std::size_t inTheWay) const {
  std::string text = "\r";
  if (rows_ == 0) return text + over(lines_.empty() ? "" : lines_.front(), inTheWay) + "\r";
  if (lines_.empty()) return text.append(kEraseBelow);
  // A terminal that is narrower now may not have told so yet.
  text.append(kWrapOff);
  for (std::size_t i = 0; i + 1 < lines_.size(); ++i) text.append(lines_[i]).append(kEraseLine).append(kNextLine);
  text.append(lines_.back()).append(kEraseBelow).append(kWrapOn);
  if (lines_.size() > 1) text.append("\x1b[" + std::to_string(lines_.size() - 1) + "A");
  return text.append("\r");
}

}  // namespace xfer_get
