// A TCP client that sends and receives bytes as they are, for tests of servers.
//
// Threads: one at a time.
// Errors:  std::system_error when it cannot connect or send.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "support/test_timeout.h"

namespace support {

class RawClient {
 public:
  /// Connects to 127.0.0.1.
  explicit RawClient(std::uint16_t port);
  ~RawClient();
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  void send(const std::string& bytes);

  /// Exactly this many bytes; fewer when the connection or the time ends first.
  std::string receive(std::size_t length, std::chrono::milliseconds timeout = testTimeout());

  /// All bytes up to the end of the connection.
  std::string receiveAll(std::chrono::milliseconds timeout = testTimeout());

  enum class End {
    Open,    // the server has not ended the connection
    Closed,  // in order
    Reset,
  };

  /// How the connection stands after the last receive.
  [[nodiscard]] End end() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace support
