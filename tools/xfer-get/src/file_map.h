// Draws where a file's bytes are: there, asked for, or missing, and what each connection does.  Pure.
//
// Units: bytes, columns, rows.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "xfer/download_details.h"

namespace xfer_get {

/// What is known of a file that is being downloaded.
struct FileParts {
  std::uint64_t size = 0;  ///< 0: unknown
  std::vector<xfer::RangeDetails> ranges{};
  std::vector<xfer::MissingRange> missing{};
};

/// "[####>---###>...]" of so many columns, each of which stands for an equal part of the file:
///   #  all of it is there
///   >  a connection writes here
///   -  some of it is still to come, and asked for
///   .  some of it is still missing, and nobody's
/// Empty where the size is unknown, or there is no room.
std::string mapLine(const FileParts& parts, unsigned columns);

/// Where a connection is, where its range ends, and how fast it is or since when it is silent.  Cut to columns.
std::string connectionLine(const xfer::RangeDetails& range, std::uint64_t size, unsigned columns);

/// The map and a line for each connection, as many as the rows allow; the last one says how many are left out.
std::vector<std::string> mapLines(const FileParts& parts, unsigned columns, unsigned rows);

}  // namespace xfer_get
