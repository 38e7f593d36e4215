// What the library offers a server before anything is encrypted: cipher suites, versions of TLS, and of HTTP.
#include <gtest/gtest.h>

#include <algorithm>
#include <asio.hpp>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "support/job_run.h"
#include "support/temp_dir.h"
#include "support/test_timeout.h"
#include "xfer/download_job.h"
#include "xfer/fetch.h"

namespace {

using asio::ip::tcp;

struct Hello {
  std::vector<std::uint16_t> ciphers;
  std::vector<std::uint16_t> versions;
  std::vector<std::string> protocols;  // of the application, best first
};

// Takes numbers and pieces off the front of a text; past its end there are zeros and empty pieces.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : bytes_(bytes) {}

  std::size_t number(std::size_t width) {
    std::size_t value = 0;
    for (const char byte : piece(width)) value = value << 8 | static_cast<unsigned char>(byte);
    return value;
  }

  std::string_view piece(std::size_t length) {
    const std::string_view taken = bytes_.substr(0, length);
    bytes_.remove_prefix(taken.size());
    return taken;
  }

  /// A piece behind its own length.
  std::string_view counted(std::size_t width) { return piece(number(width)); }

  [[nodiscard]] bool atEnd() const { return bytes_.empty(); }

 private:
  std::string_view bytes_;
};

std::vector<std::uint16_t> numbersOf(std::string_view list) {
  std::vector<std::uint16_t> numbers;
  for (Reader reader(list); !reader.atEnd();) numbers.push_back(static_cast<std::uint16_t>(reader.number(2)));
  return numbers;
}

Hello parseHello(std::string_view handshake) {
  constexpr std::size_t kProtocols = 16;
  constexpr std::size_t kVersions = 43;
  Hello hello;
  Reader reader(handshake);
  reader.piece(1 + 3 + 2 + 32);  // type, length, version, random
  reader.counted(1);             // session
  hello.ciphers = numbersOf(reader.counted(2));
  reader.counted(1);  // compression
  for (Reader extensions(reader.counted(2)); !extensions.atEnd();) {
    const std::size_t type = extensions.number(2);
    Reader extension(extensions.counted(2));
    if (type == kVersions) hello.versions = numbersOf(extension.counted(1));
    if (type != kProtocols) continue;
    for (Reader list(extension.counted(2)); !list.atEnd();) hello.protocols.emplace_back(list.counted(1));
  }
  return hello;
}

// Listens, and hears the first message of the first connection.
class Listener {
 public:
  Listener() : acceptor_(io_, tcp::endpoint(asio::ip::address_v4::loopback(), 0)), socket_(io_) {}

  [[nodiscard]] std::string url() const {
    return "https://127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port()) + "/";
  }

  /// Ends the connection.
  Hello hear() {
    constexpr std::size_t kRecordHead = 5;
    acceptor_.async_accept(socket_, [&](asio::error_code error) {
      if (error) return;
      asio::async_read(socket_, asio::dynamic_buffer(head_, kRecordHead), [&](asio::error_code failed, std::size_t) {
        if (failed) return;
        const std::size_t length = Reader(std::string_view(head_).substr(3)).number(2);
        asio::async_read(socket_, asio::dynamic_buffer(body_, length), [](asio::error_code, std::size_t) {});
      });
    });
    io_.run_for(support::testTimeout());
    socket_.close();
    acceptor_.close();
    EXPECT_EQ(Reader(head_).number(1), 22U) << "a handshake";
    return parseHello(body_);
  }

 private:
  asio::io_context io_;
  tcp::acceptor acceptor_;
  tcp::socket socket_;
  std::string head_;
  std::string body_;
};

void expectSuitesAndVersions(const Hello& hello) {
  const std::vector<std::uint16_t> suites{
      0x1301, 0x1302, 0x1303,                           // TLS 1.3
      0xC02B, 0xC02F, 0xC02C, 0xC030, 0xCCA9, 0xCCA8,   // ephemeral keys, authenticated encryption
      0xC013, 0xC014, 0x009C, 0x009D, 0x002F, 0x0035};  // older servers
  constexpr std::uint16_t kRenegotiation = 0x00FF;      // no suite: some say this way what others say in an extension
  std::vector<std::uint16_t> offered = hello.ciphers;
  std::erase(offered, kRenegotiation);
  EXPECT_EQ(offered, suites);
  for (const int version : {0x0303, 0x0304}) {
    EXPECT_EQ(std::count(hello.versions.begin(), hello.versions.end(), version), 1) << version;
  }
}

TEST(ClientHello, ofAFetchOffersItsSuitesAndHttp1) {
  Listener listener;
  xfer::Request request;
  request.url = listener.url();
  auto response = xfer::fetchAsync(request);
  const Hello hello = listener.hear();
  expectSuitesAndVersions(hello);
  EXPECT_EQ(hello.protocols, std::vector<std::string>{"http/1.1"});
  EXPECT_NE(response.get().curlCode, 0);
}

TEST(ClientHello, ofAJobOffersItsSuitesAndHttp2WhenThePolicySaysSo) {
  for (const bool http2 : {false, true}) {
    Listener listener;
    const support::TempDir folder;
    xfer::DownloadPolicy policy;
    policy.useHttp2 = http2;
    xfer::DownloadJob job(support::requestFor(listener.url(), folder.file("out"), 1000), policy,
                          support::planUnderTest());
    job.start();
    const Hello hello = listener.hear();
    expectSuitesAndVersions(hello);
    EXPECT_EQ(hello.protocols,
              http2 ? (std::vector<std::string>{"h2", "http/1.1"}) : std::vector<std::string>{"http/1.1"});
  }
}

}  // namespace
