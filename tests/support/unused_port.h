// A port of 127.0.0.1 that refuses connections for as long as the object lives: it is taken, but nobody listens.
//
// Threads: any, after construction.
// Errors:  std::system_error when there is no port.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace support {

class UnusedPort {
 public:
  UnusedPort();
  ~UnusedPort();
  UnusedPort(const UnusedPort&) = delete;
  UnusedPort& operator=(const UnusedPort&) = delete;

  [[nodiscard]] std::uint16_t port() const;

  /// "http://127.0.0.1:<port>" and the path, which starts with "/".
  [[nodiscard]] std::string url(const std::string& path) const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace support
