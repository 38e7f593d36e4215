#include "support/census.h"

#include <filesystem>
#include <iterator>
#include <stdexcept>

namespace support {
namespace {

std::size_t entriesOf(const char* folder) {
  std::error_code error;
  const std::filesystem::directory_iterator entries(folder, error);
  if (error) throw std::runtime_error(std::string("cannot list ") + folder);
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

}  // namespace

std::size_t threadCount() {
  return entriesOf("/proc/self/task");
}

std::size_t openHandleCount() {
  return entriesOf("/proc/self/fd") - 1;  // without the one that lists them
}

}  // namespace support
