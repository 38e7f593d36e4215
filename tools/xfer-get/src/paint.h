// Colours for text on a terminal, and text that has some.  Pure.
//
// Errors: std::bad_alloc.
// Units:  cells, as in text_width.h; a colour takes none.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace xfer_get {

enum class Colour { Green, Red };

/// text in that colour; as it is when off, or when it is empty.  Requires: text has no colour yet.
std::string paint(std::string_view text, Colour colour, bool on);

/// Like cutTo, but for text of which parts are painted: they stay so.
std::string cutPainted(std::string_view text, std::size_t cells);

/// Like cellsOf, but for text of which parts are painted.
std::size_t cellsOfPainted(std::string_view text);

}  // namespace xfer_get
