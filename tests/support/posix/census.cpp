#include "support/census.h"

#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>

#include "support/wait_until.h"

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
  // ThreadSanitizer starts a thread of its own with the program's first one and keeps it: it is to be in every count.
  static const bool started = [] {
    std::string first;
    std::thread([&] { first = "/proc/self/task/" + std::to_string(::gettid()); }).join();
    // One that is joined may be listed a moment longer.
    return waitUntil([&] { return !std::filesystem::exists(first); });
  }();
  static_cast<void>(started);
  return entriesOf("/proc/self/task");
}

std::size_t openFileCount() {
  return entriesOf("/proc/self/fd") - 1;  // without the one that lists them
}

}  // namespace support
