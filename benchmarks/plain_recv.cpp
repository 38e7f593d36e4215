// plain_recv PORT SIZE CONNECTIONS FILE [splice]: what the machine can do, for comparison.
//
// Fetches SIZE bytes from the loopback interface with raw sockets into FILE: each connection asks for an equal share,
// receives and writes at its place, and asks again from where it stopped when it is closed too early.  With splice the
// body does not pass through the program: a pipe hands it from the socket to the file.  Knows nothing of HTTP beyond
// the end of a response's head, and trusts the server.
//
// Threads: one for each connection.
// Errors: exit code 1 for anything that fails, 2 for usage.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
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
constexpr std::size_t kPipe = std::size_t{1024} * 1024;  // the most that an unprivileged user may have

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

/// Moves what the connection brings, up to end, into the file; returns where it stopped.
std::uint64_t spliceBody(int connection, int file, std::uint64_t begin, std::uint64_t end) {
  int pipe[2];
  if (pipe2(pipe, O_CLOEXEC) != 0) fail("pipe");
  fcntl(pipe[1], F_SETPIPE_SZ, static_cast<int>(kPipe));
  while (begin < end) {
    ssize_t held =
        splice(connection, nullptr, pipe[1], nullptr, std::min<std::uint64_t>(end - begin, kPipe), SPLICE_F_MOVE);
    if (held <= 0) break;
    for (auto at = static_cast<loff_t>(begin); held > 0;) {
      const ssize_t moved = splice(pipe[0], nullptr, file, &at, static_cast<std::size_t>(held), SPLICE_F_MOVE);
      if (moved <= 0) fail("splice");
      held -= moved;
      begin += static_cast<std::uint64_t>(moved);
    }
  }
  close(pipe[0]);
  close(pipe[1]);
  return begin;
}

void fetch(std::uint16_t port, int file, std::uint64_t begin, std::uint64_t end, bool splices) {
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
      if (splices) begin = spliceBody(connection, file, begin, end);
    }
    close(connection);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const bool splices = argc == 6 && std::string_view(argv[5]) == "splice";
  if (argc != 5 && !splices) {
    std::fputs("usage: plain_recv PORT SIZE CONNECTIONS FILE [splice]\n", stderr);
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
    threads.emplace_back(fetch, port, file, size * number / connections, size * (number + 1) / connections, splices);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return 0;
}
