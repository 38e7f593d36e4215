// The content of every file that the tests transfer: each byte is a function of its offset, so that a byte in the
// wrong place is seen wherever it comes from.  tests/servers/fixture.py writes the same bytes.
//
// Threads: every function may be called from any thread.
// Errors:  a file that cannot be written throws std::runtime_error.
// Units:   offsets and sizes are bytes; ranges are half-open [from, to).  Paths are UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace support {

/// The 8 bytes at offset 8 * index, the lowest first.  A seed gives another file of the same kind; below 2^32.
constexpr std::uint64_t patternWord(std::uint64_t index, std::uint64_t seed = 0) {
  std::uint64_t word = (index + (seed << 32) + 1) * 0x9E3779B97F4A7C15u;
  word = (word ^ (word >> 32)) * 0xD6E8FEB86659FD93u;
  return word ^ (word >> 29);
}

constexpr std::uint8_t patternByte(std::uint64_t offset, std::uint64_t seed = 0) {
  return static_cast<std::uint8_t>(patternWord(offset / 8, seed) >> (8 * (offset % 8)));
}

/// Writes the bytes of [from, from + length) to buffer.
void fillPattern(std::uint64_t from, void* buffer, std::size_t length, std::uint64_t seed = 0);

/// The bytes of [from, to).
std::string patternBytes(std::uint64_t from, std::uint64_t to, std::uint64_t seed = 0);

/// Creates or overwrites path with the first size bytes of the pattern.
void writePatternFile(const std::string& path, std::uint64_t size, std::uint64_t seed = 0);

/// Where the file starts to differ from the first size bytes of the pattern: its own size when it is too short, size
/// when it is too long, 0 when it cannot be read.  Nullopt: they are equal.
std::optional<std::uint64_t> firstWrongByte(const std::string& path, std::uint64_t size, std::uint64_t seed = 0);

/// The same as a sentence for a test's message; "" when they are equal.
std::string patternError(const std::string& path, std::uint64_t size, std::uint64_t seed = 0);

}  // namespace support
