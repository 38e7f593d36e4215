// plain_recv PORT SIZE CONNECTIONS FILE: what the machine can do, for comparison.
//
// Fetches SIZE bytes from the loopback interface with raw sockets into FILE: each connection asks for an equal share,
// receives and writes at its place, and asks again from where it stopped when it is closed too early.  Knows nothing of
// HTTP beyond the end of a response's head, and trusts the server.
//
// Threads: one for each connection.
// Errors: exit code 1 for anything that fails, 2 for usage.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace {

constexpr std::size_t kBuffer = std::size_t{256} * 1024;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::_Exit(1);
}

/// A connection on which the bytes [begin, end) have been asked for.
int asked(std::uint16_t port, std::uint64_t begin, std::uint64_t end) {
  const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connection < 0 || connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    fail("connect");
  }
  const std::string request = "GET /file.bin HTTP/1.1\r\nHost: 127.0.0.1\r\nRange: bytes=" + std::to_string(begin) +
                              "-" + std::to_string(end - 1) + "\r\n\r\n";
  if (send(connection, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size())) {
    fail("send");
  }
  return connection;
}

void store(int file, const char* bytes, std::size_t size, std::uint64_t offset) {
  if (pwrite(file, bytes, size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size)) {
    fail("pwrite");
  }
}

void fetch(std::uint16_t port, int file, std::uint64_t begin, std::uint64_t end) {
  const auto buffer = std::make_unique_for_overwrite<char[]>(kBuffer);
  while (begin < end) {
    const int connection = asked(port, begin, end);
    std::string head;
    bool inBody = false;
    while (begin < end) {
      const ssize_t count = recv(connection, buffer.get(), kBuffer, 0);
      if (count <= 0) {
        break;
      }
      std::string_view bytes(buffer.get(), static_cast<std::size_t>(count));
      if (!inBody) {
        head.append(bytes);
        const std::size_t headEnd = head.find("\r\n\r\n");
        if (headEnd == std::string::npos) {
          continue;
        }
        bytes.remove_prefix(bytes.size() - (head.size() - headEnd - 4));
        inBody = true;
      }
      store(file, bytes.data(), bytes.size(), begin);
      begin += bytes.size();
    }
    close(connection);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fputs("usage: plain_recv PORT SIZE CONNECTIONS FILE\n", stderr);
    return 2;
  }
  const auto port = static_cast<std::uint16_t>(std::strtoul(argv[1], nullptr, 10));
  const std::uint64_t size = std::strtoull(argv[2], nullptr, 10);
  const std::uint64_t connections = std::strtoull(argv[3], nullptr, 10);
  const int file = open(argv[4], O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  if (file < 0 || ftruncate(file, static_cast<off_t>(size)) != 0) {
    fail(argv[4]);
  }
  std::vector<std::thread> threads;
  for (std::uint64_t number = 0; number < connections; ++number) {
    threads.emplace_back(fetch, port, file, size * number / connections, size * (number + 1) / connections);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return 0;
}
