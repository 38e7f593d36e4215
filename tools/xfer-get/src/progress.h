// Formats a download's progress.  Pure.
//
// Units: bytes, bytes per second, columns.
#pragma once

#include <cstdint>
#include <string>

#include "xfer/xfer.hpp"

namespace xfer_get {

/// "999 B", "1.0 KiB", "12.3 MiB", ...
std::string sizeText(std::uint64_t bytes);

/// "0:07", "12:30", "3:00:00"; "--:--" when unknown or 100 hours or more.
std::string etaText(const xfer::DownloadSnapshot& snapshot);

/// A line of at most columns characters: a bar if there is room, percent, done and total, speed, time left,
/// connections.  nextTryMs: nothing is asked for before; 0: something is.
std::string progressLine(const xfer::DownloadSnapshot& snapshot, unsigned connections, unsigned columns,
                         std::uint64_t nextTryMs = 0);

/// The same line without a bar, for a log.
std::string plainLine(const xfer::DownloadSnapshot& snapshot, unsigned connections, std::uint64_t nextTryMs = 0);

}  // namespace xfer_get
