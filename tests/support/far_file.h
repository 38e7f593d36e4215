// A piece of a file that is too large to be read as a whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>

#include "support/temp_dir.h"

namespace support {

/// The bytes of [from, from + length) in the file at path; fewer when it ends before.
inline std::string readAt(const std::string& path, std::uint64_t from, std::size_t length) {
  std::ifstream file(toPath(path), std::ios::binary);
  file.seekg(static_cast<std::streamoff>(from));
  std::string bytes(length, '\0');
  file.read(bytes.data(), static_cast<std::streamsize>(length));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  return bytes;
}

}  // namespace support
