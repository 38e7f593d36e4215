// Formats a download's progress.  Pure.
//
// Errors: std::bad_alloc.
// Units:  bytes, bytes per second, milliseconds; columns of a terminal, one a character.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "xfer/xfer.hpp"

namespace xfer_get {

/// "999 B", "1.0 KiB", "12.3 MiB", ...
std::string sizeText(std::uint64_t bytes);

/// "0:07", "12:30", "3:00:00"; "--:--" when unknown or 100 hours or more.
std::string etaText(const xfer::DownloadSnapshot& snapshot);

/// bytesDone, but at most the size: bytes that were fetched again count again in a snapshot.
std::uint64_t shownBytes(const xfer::DownloadSnapshot& snapshot);

/// Of shownBytes, rounded down; 100 when the download is complete and no sooner.  Nothing without a size.
std::optional<unsigned> shownPercent(const xfer::DownloadSnapshot& snapshot);

/// "1.0 MiB of 4.0 MiB", "1.0 MiB" without a size.
std::string amountText(const xfer::DownloadSnapshot& snapshot);

/// "asking", "paused", "cancelling"; empty while it runs and once it has ended.
std::string stateText(xfer::JobState state);

/// "x4", empty for none.
std::string connectionsText(unsigned connections);

/// "next try in 4 s".
std::string nextTryText(std::uint64_t nextTryMs);

/// "[###.....]" of so many columns, at least 2.  Full at 100, empty at nothing.
std::string barText(std::optional<unsigned> percent, std::size_t columns, bool colours);

/// A line of at most columns characters: bar, percent, done and total, speed, time left, connections.  Without the room
/// for all, percent, speed and time left come first, then done and total, the bar, the connections.  connections: in
/// use now.  nextTryMs: nothing is asked for before; 0: something is.
std::string progressLine(const xfer::DownloadSnapshot& snapshot, unsigned connections, unsigned columns,
                         std::uint64_t nextTryMs = 0, bool colours = false);

/// The same line without a bar, with all else, for a log.
std::string plainLine(const xfer::DownloadSnapshot& snapshot, unsigned connections, std::uint64_t nextTryMs = 0);

}  // namespace xfer_get
