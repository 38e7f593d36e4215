#include "paint.h"

#include <algorithm>

#include "text_width.h"

namespace xfer_get {
namespace {

constexpr std::string_view kGreen = "\x1b[32m";
constexpr std::string_view kRed = "\x1b[31m";
constexpr std::string_view kPlain = "\x1b[0m";

// The colour that text begins with; empty: none.
std::string_view colourAt(std::string_view text) {
  for (const std::string_view colour : {kGreen, kRed, kPlain}) {
    if (text.substr(0, colour.size()) == colour) return colour;
  }
  return {};
}

// Where the next colour begins, or text ends.
std::size_t nextColour(std::string_view text) {
  std::size_t at = text.find('\x1b');
  while (at != std::string_view::npos && colourAt(text.substr(at)).empty()) at = text.find('\x1b', at + 1);
  return std::min(at, text.size());
}

}  // namespace

std::string paint(std::string_view text, Colour colour, bool on) {
  std::string painted(text);
  if (!on || text.empty()) return painted;
  return painted.insert(0, colour == Colour::Green ? kGreen : kRed).append(kPlain);
}

std::string cutPainted(std::string_view text, std::size_t cells) {
  std::string cut;
  bool painted = false;
  while (!text.empty()) {
    const std::string_view colour = colourAt(text);
    if (!colour.empty()) {
      cut += colour;
      painted = colour != kPlain;
      text.remove_prefix(colour.size());
      continue;
    }
    const std::string_view part = text.substr(0, nextColour(text));
    const std::size_t partCells = cellsOf(part);
    cut += cutTo(part, cells);
    if (partCells > cells) break;
    cells -= partCells;
    text.remove_prefix(part.size());
  }
  return painted ? cut.append(kPlain) : cut;
}

std::size_t cellsOfPainted(std::string_view text) {
  std::size_t cells = 0;
  while (!text.empty()) {
    const std::size_t end = nextColour(text);
    cells += cellsOf(text.substr(0, end));
    text.remove_prefix(end);
    text.remove_prefix(colourAt(text).size());
  }
  return cells;
}

}  // namespace xfer_get
