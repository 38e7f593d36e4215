#include "support/unused_port.h"

#include <asio.hpp>

namespace support {

class UnusedPort::Impl {
 public:
  Impl() : socket_(io_, asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), 0)) {}

  std::uint16_t port() const { return socket_.local_endpoint().port(); }

 private:
  asio::io_context io_;
  asio::ip::tcp::socket socket_;  // bound, never listening
};

UnusedPort::UnusedPort() : impl_(std::make_unique<Impl>()) {}
UnusedPort::~UnusedPort() = default;

std::uint16_t UnusedPort::port() const {
  return impl_->port();
}

std::string UnusedPort::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port()) + path;
}

}  // namespace support
