// Lines at the bottom of what a terminal shows that are drawn again and again, and lasting text above them.  Makes the
// text that is to be written to the terminal; the caller writes it, all of it and in order.
//
// Between two calls the cursor is at the beginning of the first line.  A terminal that wraps anew when its size changes
// takes the cursor along, so that everything from there on can be erased; and what others write begins there.
//
// Threads: one.
// Errors:  std::bad_alloc.
// Units:   columns and rows of the terminal; cells, as in text_width.h.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace xfer_get {

class LiveLines {
 public:
  /// Replaces what was drawn before.  columns: most cells that a line may have, without wrapping; longer ones are cut.
  /// rows: of the terminal; lines beyond are left out.  0: the cursor cannot be moved up, and nothing can be erased:
  /// one line only, drawn over by the next one.  Lines may be painted (paint.h), other escapes are made harmless.
  [[nodiscard]] std::string draw(const std::vector<std::string>& lines, unsigned columns, unsigned rows);

  /// Lines that last, above the drawn ones, which are drawn again.  text is as in draw, but may have line feeds, and
  /// wraps.
  [[nodiscard]] std::string above(std::string_view text);

  /// Erases what was drawn.
  [[nodiscard]] std::string clear();

 private:
  [[nodiscard]] std::size_t cellsInTheWay() const;
  [[nodiscard]] std::string redraw(std::size_t inTheWay) const;

  std::vector<std::string> lines_;  // drawn now
  unsigned rows_ = 0;
};

}  // namespace xfer_get
