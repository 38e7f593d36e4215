#include "support/pattern.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "support/temp_dir.h"

namespace support {
namespace {

constexpr std::size_t kBlockBytes = 1 << 20;

struct Difference {
  std::uint64_t offset;
  std::string what;
};

std::optional<Difference> compare(const std::string& path, std::uint64_t size, std::uint64_t seed) {
  const std::optional<std::uint64_t> actualSize = fileSize(path);
  std::ifstream file(toPath(path), std::ios::binary);
  if (!actualSize || !file) return Difference{0, "cannot be read"};

  std::vector<char> actual(kBlockBytes);
  std::vector<char> expected(kBlockBytes);
  const std::uint64_t common = std::min(*actualSize, size);
  for (std::uint64_t at = 0; at < common;) {
    const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(kBlockBytes, common - at));
    if (!file.read(actual.data(), static_cast<std::streamsize>(length))) return Difference{at, "cannot be read on"};
    fillPattern(at, expected.data(), length, seed);
    if (std::memcmp(actual.data(), expected.data(), length) != 0) {
      const auto wrong = std::mismatch(actual.begin(), actual.end(), expected.begin());
      std::ostringstream what;
      what << std::hex << "holds 0x" << (static_cast<unsigned>(*wrong.first) & 0xFF) << " instead of 0x"
           << (static_cast<unsigned>(*wrong.second) & 0xFF);
      return Difference{at + static_cast<std::uint64_t>(wrong.first - actual.begin()), what.str()};
    }
    at += length;
  }
  if (*actualSize != size) {
    return Difference{common, "has " + std::to_string(*actualSize) + " bytes instead of " + std::to_string(size)};
  }
  return std::nullopt;
}

}  // namespace

void fillPattern(std::uint64_t from, void* buffer, std::size_t length, std::uint64_t seed) {
  auto* out = static_cast<std::uint8_t*>(buffer);
  std::size_t done = 0;
  while (done < length && (from + done) % 8 != 0) {
    out[done] = patternByte(from + done, seed);
    ++done;
  }
  for (; length - done >= 8; done += 8) {
    const std::uint64_t word = patternWord((from + done) / 8, seed);
    for (unsigned i = 0; i < 8; ++i) out[done + i] = static_cast<std::uint8_t>(word >> (8 * i));
  }
  for (; done < length; ++done) out[done] = patternByte(from + done, seed);
}

std::string patternBytes(std::uint64_t from, std::uint64_t to, std::uint64_t seed) {
  std::string bytes(static_cast<std::size_t>(to - from), '\0');
  fillPattern(from, bytes.data(), bytes.size(), seed);
  return bytes;
}

void writePatternFile(const std::string& path, std::uint64_t size, std::uint64_t seed) {
  std::ofstream file(toPath(path), std::ios::binary | std::ios::trunc);
  std::vector<char> block(kBlockBytes);
  for (std::uint64_t at = 0; at < size;) {
    const auto length = static_cast<std::size_t>(std::min<std::uint64_t>(kBlockBytes, size - at));
    fillPattern(at, block.data(), length, seed);
    file.write(block.data(), static_cast<std::streamsize>(length));
    at += length;
  }
  file.close();
  if (!file) throw std::runtime_error("cannot write " + path);
}

std::optional<std::uint64_t> firstWrongByte(const std::string& path, std::uint64_t size, std::uint64_t seed) {
  const std::optional<Difference> difference = compare(path, size, seed);
  if (!difference) return std::nullopt;
  return difference->offset;
}

std::string patternError(const std::string& path, std::uint64_t size, std::uint64_t seed) {
  const std::optional<Difference> difference = compare(path, size, seed);
  if (!difference) return "";
  return path + " " + difference->what + ", first at offset " + std::to_string(difference->offset);
}

}  // namespace support
