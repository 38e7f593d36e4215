// Shows several downloads at once: a line for each one that runs, and one for all.  Names and figures stand in columns
// of their own.  Pure.
//
// Errors: std::bad_alloc.
// Units:  bytes, bytes per second, milliseconds; columns and rows of a terminal.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "xfer/xfer.hpp"

namespace xfer_get {

/// A download that runs.
struct BoardRow {
  std::string name;  ///< any text; shown as text_width.h does
  xfer::DownloadSnapshot snapshot;
  unsigned connections = 0;     ///< in use now
  std::uint64_t nextTryMs = 0;  ///< nothing is asked for before; 0: something is
};

/// All downloads, those that have ended and those that wait included.
struct BoardTotal {
  unsigned done = 0;
  unsigned failed = 0;
  unsigned running = 0;
  unsigned waiting = 0;
  std::uint64_t bytesDone = 0;
  std::uint64_t bytesTotal = 0;  ///< 0: not known of all
  std::uint64_t bytesPerSec = 0;
};

/// At most so many lines, none of more cells than columns.  The total is the last one; when there are more rows than
/// lines, the first ones are shown, and the line before the total says how many are left out.  Without the room for all
/// columns, percent and the name's beginning and end come first, then speed, time left, the bar, done and total, and
/// connections.  colours: with those of paint.h.
std::vector<std::string> boardLines(const std::vector<BoardRow>& rows, const BoardTotal& total, unsigned columns,
                                    unsigned lines, bool colours = false);

}  // namespace xfer_get
