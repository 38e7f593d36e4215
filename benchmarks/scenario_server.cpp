// scenario_server FILE [options]: an HTTP/1.1 server on the loopback interface that is difficult in a chosen way.
//
// Serves FILE under every path: GET and HEAD, single ranges, a strong ETag, kept connections.  Prints its port when it
// accepts connections and runs until its standard input ends; then it prints what it served as one line of JSON.
//
//   --latency MS             waits before each response's first byte
//   --rate BYTES             sends at most so many bytes a second on each connection, however many requests that serves
//   --changing SEED          draws each connection's rate anew every second of its life, from 1/4 to 7/4 of --rate;
//                            the draw depends on the seed, the connection's number and the second only
//   --every-fourth slow      every fourth connection has a sixteenth of the rate
//   --every-fourth silent    every fourth connection stays open but sends nothing after its first 64 KiB
//   --dying BYTES            of the first eight connections the third is reset and the sixth closed after so many bytes
//   --limit CONNECTIONS      prints the least seconds for FILE instead of serving it, and ends
//
// Connections are numbered as they are accepted, from the server's start: give each download a server of its own.
//
// Without a rate the bodies go out by sendfile as fast as the client reads.  With one, the rate is strict: bytes are
// sent when they are due and not before, nothing is saved up while a connection idles or its client does not read, and
// the send buffer is small.  SO_MAX_PACING_RATE would let the first ten segments pass at once, 640 KiB here.
//
// The limit is arithmetic: the time in which that many connections, all opened at the start and busy until the end,
// carry the file at their rates.  Slow connections count with their own rate and silent ones not at all, so that a
// client that replaces those can be faster than the limit.  Dying ones count as if replaced at once.  Neither latency
// nor what requests cost is part of it; without a rate it is 0.
//
// Threads: one for each connection, and main, which accepts.
// Errors: exit code 1 for a failing system call, 2 for usage.
// Units: bytes, and seconds unless a name says otherwise.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace {

using std::chrono::steady_clock;

constexpr std::uint64_t kSilentAfter = 64ULL * 1024;
constexpr double kSlowPart = 1.0 / 16;
constexpr std::uint64_t kWritesPerSecond = 250;
constexpr int kPacedSendBuffer = 64 * 1024;
constexpr auto kMostLag = std::chrono::milliseconds(50);  // what a late wake-up may catch up on
constexpr std::string_view kETag = "\"scenario-1\"";

enum class Fourth { kNormal, kSlow, kSilent };

struct Scenario {
  int file = -1;
  const char* content = nullptr;
  std::uint64_t size = 0;
  std::chrono::milliseconds latency{0};
  std::uint64_t rate = 0;  // 0 is unlimited
  std::optional<std::uint64_t> changingSeed;
  Fourth fourth = Fourth::kNormal;
  std::uint64_t dyingAfter = 0;  // 0 is never
};

struct Served {
  std::atomic<std::uint64_t> connections{0};
  std::atomic<std::uint64_t> openConnections{0};
  std::atomic<std::uint64_t> mostOpenConnections{0};
  std::atomic<std::uint64_t> requests{0};
  std::atomic<std::uint64_t> bodyBytes{0};
};

Scenario scenario;  // constant once main has read the command line
Served served;

[[noreturn]] void fail(const char* what) {
  std::perror(what);
  std::_Exit(1);
}

std::uint64_t mixed(std::uint64_t number) {
  number += 0x9e3779b97f4a7c15;
  number = (number ^ (number >> 30)) * 0xbf58476d1ce4e5b9;
  number = (number ^ (number >> 27)) * 0x94d049bb133111eb;
  return number ^ (number >> 31);
}

bool isFourth(std::uint64_t connection) {
  return connection % 4 == 3;
}

/// Bytes a second that the connection may send in this second of its life.
double rateOf(std::uint64_t connection, std::uint64_t second) {
  auto rate = static_cast<double>(scenario.rate);
  if (scenario.changingSeed) {
    const std::uint64_t draw = mixed(mixed(mixed(*scenario.changingSeed) + connection) + second);
    rate *= 0.25 + 1.5 * static_cast<double>(draw >> 11) / static_cast<double>(1ULL << 53);
  }
  return scenario.fourth == Fourth::kSlow && isFourth(connection) ? rate * kSlowPart : rate;
}

double leastSeconds(std::uint64_t connections) {
  if (scenario.rate == 0) {
    return 0;
  }
  auto missing = static_cast<double>(scenario.size);
  for (std::uint64_t second = 0;; ++second) {
    double sum = 0;
    for (std::uint64_t connection = 0; connection < connections; ++connection) {
      const bool silent = scenario.fourth == Fourth::kSilent && isFourth(connection);
      sum += silent ? 0 : rateOf(connection, second);
    }
    if (missing <= sum) {
      return static_cast<double>(second) + missing / sum;
    }
    missing -= sum;
  }
}

enum class Death { kNone, kReset, kClosed };

Death deathOf(std::uint64_t connection) {
  if (scenario.dyingAfter == 0) {
    return Death::kNone;
  }
  return connection == 2 ? Death::kReset : connection == 5 ? Death::kClosed : Death::kNone;
}

/// The value of a header line of the request, empty when there is none.
std::string_view headerValue(std::string_view head, std::string_view name) {
  for (std::size_t line = head.find("\r\n"); line != std::string_view::npos; line = head.find("\r\n", line)) {
    line += 2;
    if (head.size() > line + name.size() && head[line + name.size()] == ':' &&
        strncasecmp(head.data() + line, name.data(), name.size()) == 0) {
      std::string_view value = head.substr(line + name.size() + 1);
      value = value.substr(0, value.find("\r\n"));
      return value.substr(std::min(value.size(), value.find_first_not_of(" \t")));
    }
  }
  return {};
}

struct Range {
  std::uint64_t begin;
  std::uint64_t end;  // exclusive
};

enum class RangeKind { kNone, kOne, kUnsatisfiable };

/// Reads "bytes=a-b", "bytes=a-" and "bytes=-n"; anything else counts as no range.
RangeKind readRange(std::string_view text, Range& range) {
  constexpr std::string_view kUnit = "bytes=";
  const std::size_t dash = text.find('-');
  if (!text.starts_with(kUnit) || dash == std::string_view::npos) {
    return RangeKind::kNone;
  }
  const std::string_view first = text.substr(kUnit.size(), dash - kUnit.size());
  const std::string_view last = text.substr(dash + 1);
  const auto isWhole = [](std::string_view digits, std::uint64_t& number) {
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    return error == std::errc() && end == digits.data() + digits.size();
  };
  std::uint64_t begin = 0;
  std::uint64_t inclusiveEnd = scenario.size - 1;
  if (first.empty()) {
    std::uint64_t count = 0;
    if (!isWhole(last, count)) {
      return RangeKind::kNone;
    }
    begin = scenario.size - std::min(count, scenario.size);
  } else if (!isWhole(first, begin) || (!last.empty() && (!isWhole(last, inclusiveEnd) || inclusiveEnd < begin))) {
    return RangeKind::kNone;
  }
  range = {begin, std::min(inclusiveEnd, scenario.size - 1) + 1};
  return begin < scenario.size ? RangeKind::kOne : RangeKind::kUnsatisfiable;
}

/// One accepted connection; owns its socket.
class Connection {
 public:
  Connection(int socket, std::uint64_t number)
      : socket_(socket), number_(number), birth_(steady_clock::now()), due_(birth_) {
    const int on = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (scenario.rate > 0) {
      setsockopt(socket_, SOL_SOCKET, SO_SNDBUF, &kPacedSendBuffer, sizeof kPacedSendBuffer);
    }
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;
  ~Connection() { close(socket_); }

  void serve() {
    std::string head;
    while (readHead(head) && answer(head)) {
    }
  }

 private:
  /// Reads up to the end of the next request's head; false when there is none.
  bool readHead(std::string& head) {
    std::size_t end = 0;
    while ((end = received_.find("\r\n\r\n")) == std::string::npos) {
      char buffer[4096];
      const ssize_t count = recv(socket_, buffer, sizeof buffer, 0);
      if (count <= 0) {
        return false;
      }
      received_.append(buffer, static_cast<std::size_t>(count));
    }
    head = received_.substr(0, end + 2);
    received_.erase(0, end + 4);
    return true;
  }

  /// False when the connection is at its end.
  bool answer(std::string_view head) {
    served.requests += 1;
    const bool wantsBody = head.starts_with("GET ");
    if (!wantsBody && !head.starts_with("HEAD ")) {
      sendText("HTTP/1.1 405 Method Not Allowed\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
      return false;
    }
    Range range{0, scenario.size};
    const std::string_view condition = headerValue(head, "If-Range");
    const RangeKind kind =
        condition.empty() || condition == kETag ? readRange(headerValue(head, "Range"), range) : RangeKind::kNone;
    const std::string total = std::to_string(scenario.size);
    std::string text;
    if (kind == RangeKind::kUnsatisfiable) {
      range = {0, 0};
      text = "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */" + total + "\r\n";
    } else if (kind == RangeKind::kOne) {
      text = "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + std::to_string(range.begin) + "-" +
             std::to_string(range.end - 1) + "/" + total + "\r\n";
    } else {
      text = "HTTP/1.1 200 OK\r\n";
    }
    text += "Content-Length: " + std::to_string(range.end - range.begin) +
            "\r\nContent-Type: application/octet-stream\r\nAccept-Ranges: bytes\r\nETag: " + std::string(kETag) +
            "\r\n\r\n";
    std::this_thread::sleep_for(scenario.latency);
    if (!sendText(text)) {
      return false;
    }
    if (wantsBody && !(scenario.rate > 0 ? sendPaced(range) : sendUnlimited(range))) {
      return false;
    }
    return headerValue(head, "Connection") != "close";
  }

  bool sendText(std::string_view text) {
    return send(socket_, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
  }

  bool sendUnlimited(Range range) {
    auto offset = static_cast<off_t>(range.begin);
    const auto end = static_cast<off_t>(range.end);
    while (offset < end) {
      const ssize_t count = sendfile(socket_, scenario.file, &offset, static_cast<std::size_t>(end - offset));
      if (count <= 0) {
        return false;
      }
      served.bodyBytes += static_cast<std::uint64_t>(count);
    }
    return true;
  }

  bool sendPaced(Range range) {
    due_ = std::max(due_, steady_clock::now());
    while (range.begin < range.end) {
      const auto second = std::chrono::duration_cast<std::chrono::seconds>(due_ - birth_).count();
      const double rate = rateOf(number_, static_cast<std::uint64_t>(second));
      const std::uint64_t piece =
          std::min({std::max<std::uint64_t>(static_cast<std::uint64_t>(rate) / kWritesPerSecond, 1024),
                    range.end - range.begin, bytesOfLife() - sent_});
      if (piece == 0) {
        endOfLife();
        return false;
      }
      due_ += std::chrono::duration_cast<steady_clock::duration>(
          std::chrono::duration<double>(static_cast<double>(piece) / rate));
      due_ = std::max(due_, steady_clock::now() - kMostLag);
      std::this_thread::sleep_until(due_);
      if (!sendPiece(scenario.content + range.begin, piece)) {
        return false;
      }
      range.begin += piece;
      sent_ += piece;
    }
    return true;
  }

  /// Sends all of it; while the client does not read, no right to send is saved up.
  bool sendPiece(const char* bytes, std::uint64_t size) {
    while (size > 0) {
      const ssize_t count = send(socket_, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (count > 0) {
        bytes += count;
        size -= static_cast<std::uint64_t>(count);
        served.bodyBytes += static_cast<std::uint64_t>(count);
      } else if (errno == EAGAIN) {
        pollfd waiting{socket_, POLLOUT, 0};
        poll(&waiting, 1, -1);
        due_ = steady_clock::now();
      } else {
        return false;
      }
    }
    return true;
  }

  /// How many body bytes the connection sends before it falls silent or dies.
  std::uint64_t bytesOfLife() const {
    if (scenario.fourth == Fourth::kSilent && isFourth(number_)) {
      return kSilentAfter;
    }
    return deathOf(number_) == Death::kNone ? UINT64_MAX : scenario.dyingAfter;
  }

  void endOfLife() {
    if (deathOf(number_) == Death::kReset) {
      const linger reset{1, 0};
      setsockopt(socket_, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    } else if (deathOf(number_) == Death::kNone) {
      pollfd clientsEnd{socket_, POLLRDHUP, 0};
      poll(&clientsEnd, 1, -1);
    }
  }

  const int socket_;
  const std::uint64_t number_;
  const steady_clock::time_point birth_;
  steady_clock::time_point due_;  // when the last byte that was allowed so far is due
  std::uint64_t sent_ = 0;
  std::string received_;
};

void accepted(int socket) {
  const std::uint64_t number = served.connections++;
  std::thread([socket, number] {
    const std::uint64_t open = ++served.openConnections;
    for (std::uint64_t most = served.mostOpenConnections;
         most < open && !served.mostOpenConnections.compare_exchange_weak(most, open);) {
    }
    Connection(socket, number).serve();
    --served.openConnections;
  }).detach();
}

void serveUntilInputEnds() {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const plain = reinterpret_cast<sockaddr*>(&address);
  if (listener < 0 || bind(listener, plain, sizeof address) != 0 || listen(listener, 512) != 0 ||
      getsockname(listener, plain, &length) != 0) {
    fail("listen");
  }
  std::printf("%d\n", ntohs(address.sin_port));
  std::fflush(stdout);
  for (;;) {
    pollfd waiting[2] = {{listener, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
    if (poll(waiting, 2, -1) < 0) {
      fail("poll");
    }
    if (waiting[1].revents != 0) {
      return;
    }
    const int socket = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket >= 0) {
      accepted(socket);
    }
  }
}

[[noreturn]] void usage() {
  std::fputs(
      "usage: scenario_server FILE [--latency MS] [--rate BYTES] [--changing SEED] [--every-fourth slow|silent]\n"
      "                       [--dying BYTES] [--limit CONNECTIONS]\n",
      stderr);
  std::exit(2);
}

void openFile(const char* path) {
  struct stat status {};
  scenario.file = open(path, O_RDONLY | O_CLOEXEC);
  if (scenario.file < 0 || fstat(scenario.file, &status) != 0) {
    fail(path);
  }
  scenario.size = static_cast<std::uint64_t>(status.st_size);
  void* const content = mmap(nullptr, scenario.size, PROT_READ, MAP_SHARED | MAP_POPULATE, scenario.file, 0);
  if (content == MAP_FAILED) {
    fail("mmap");
  }
  scenario.content = static_cast<const char*>(content);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc % 2 != 0) {
    usage();
  }
  std::uint64_t limitConnections = 0;
  for (int at = 2; at < argc; at += 2) {
    const std::string_view option = argv[at];
    const std::string_view value = argv[at + 1];
    const std::uint64_t number = std::strtoull(argv[at + 1], nullptr, 10);
    if (option == "--latency") {
      scenario.latency = std::chrono::milliseconds(number);
    } else if (option == "--rate") {
      scenario.rate = number;
    } else if (option == "--changing") {
      scenario.changingSeed = number;
    } else if (option == "--every-fourth" && (value == "slow" || value == "silent")) {
      scenario.fourth = value == "slow" ? Fourth::kSlow : Fourth::kSilent;
    } else if (option == "--dying") {
      scenario.dyingAfter = number;
    } else if (option == "--limit") {
      limitConnections = number;
    } else {
      usage();
    }
  }
  std::signal(SIGPIPE, SIG_IGN);  // sendfile has no flag for it
  openFile(argv[1]);
  if (limitConnections > 0) {
    std::printf("%.6f\n", leastSeconds(limitConnections));
    return 0;
  }
  serveUntilInputEnds();
  std::printf(R"({"connections": %ju, "most_open": %ju, "requests": %ju, "body_bytes": %ju})"
              "\n",
              static_cast<std::uintmax_t>(served.connections), static_cast<std::uintmax_t>(served.mostOpenConnections),
              static_cast<std::uintmax_t>(served.requests), static_cast<std::uintmax_t>(served.bodyBytes));
  std::fflush(stdout);
  std::_Exit(0);  // threads of open connections still use the globals
}
