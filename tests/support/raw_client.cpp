#include "support/raw_client.h"

#include <asio.hpp>
#include <limits>

namespace support {

class RawClient::Impl {
 public:
  explicit Impl(std::uint16_t port) : socket_(io_) {
    socket_.connect(asio::ip::tcp::endpoint(asio::ip::address_v4::loopback(), port));
  }

  void send(const std::string& bytes) { asio::write(socket_, asio::buffer(bytes)); }

  std::string receive(std::size_t length, std::chrono::milliseconds timeout) {
    std::string bytes;
    asio::error_code error;
    bool done = false;
    asio::async_read(socket_, asio::dynamic_buffer(bytes, length), asio::transfer_all(),
                     [&](asio::error_code result, std::size_t) {
                       error = result;
                       done = true;
                     });
    io_.restart();
    io_.run_for(timeout);
    if (!done) {
      socket_.cancel();
      io_.restart();
      io_.run();
      return bytes;
    }
    if (error == asio::error::eof) {
      end_ = End::Closed;
    } else if (error) {
      end_ = End::Reset;
    }
    return bytes;
  }

  End end() const { return end_; }

 private:
  asio::io_context io_;
  asio::ip::tcp::socket socket_;
  End end_ = End::Open;
};

RawClient::RawClient(std::uint16_t port) : impl_(std::make_unique<Impl>(port)) {}
RawClient::~RawClient() = default;

void RawClient::send(const std::string& bytes) {
  impl_->send(bytes);
}

std::string RawClient::receive(std::size_t length, std::chrono::milliseconds timeout) {
  return impl_->receive(length, timeout);
}

std::string RawClient::receiveAll(std::chrono::milliseconds timeout) {
  return impl_->receive(std::numeric_limits<std::size_t>::max(), timeout);
}

RawClient::End RawClient::end() const {
  return impl_->end();
}

}  // namespace support
