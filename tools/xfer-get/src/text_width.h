// Measures and cuts UTF-8 text for a terminal, and makes it harmless: a file name or a URL cannot move the cursor,
// change colours or the direction of writing.  Knows no escapes: colours come later, see paint.h.  Pure.
//
// Errors: std::bad_alloc.
// Units:  cells, the columns that a terminal takes for a character: 0 for marks that combine with the one before, 2 for
//         East Asian wide characters and emoji.  Where terminals disagree, the larger number.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace xfer_get {

/// Whether a terminal may take it as an order instead of a character: C0, DEL, C1, line and paragraph separators, and
/// what overrides or isolates the direction of writing.
bool ordersTerminal(char32_t codePoint);

/// text with a '?' for each control character and each invalid piece.
std::string plainText(std::string_view text);

/// Of plainText(text).
std::size_t cellsOf(std::string_view text);

/// The beginning of plainText(text), of at most so many cells.  A character stays whole, with its marks.
std::string cutTo(std::string_view text, std::size_t cells);

/// plainText(text), or its beginning and its end with "..." between them when it has more cells.
std::string cutMiddle(std::string_view text, std::size_t cells);

}  // namespace xfer_get
