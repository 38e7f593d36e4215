// engine_benchmark: what the parts of the engine cost, each for itself: the plan, the body's path, a submission, small
// requests, and the C interface.  The server is in this process, so the absolute figures include it; those to compare
// with are beside them: bare easy handles that are kept.
//
// Threads: one a connection of the server, beside what is measured.
// Errors:  anything that fails ends the program with a message.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "adaptive_plan.h"
#include "curl_multi_backend.h"
#include "sys/data_buff.h"
#include "xfer/xfer.h"
#include "xfer/xfer.hpp"

namespace {

constexpr std::uint64_t kMiB = 1 << 20;
constexpr std::uint64_t kBody = 64 * kMiB;
constexpr std::uint64_t kSmall = 1000;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "engine_benchmark: %s\n", what);
  std::exit(1);
}

// ---- A server of one file of kBody bytes, and of kSmall bytes for a request without a range ----

bool sendAll(int connection, const char* bytes, std::size_t length) {
  while (length > 0) {
    const ssize_t sent = ::send(connection, bytes, length, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes += sent;
    length -= static_cast<std::size_t>(sent);
  }
  return true;
}

bool answer(int connection, const std::string& request) {
  static const std::vector<char> block(kMiB, 'x');
  std::uint64_t first = 0;
  std::uint64_t last = kSmall - 1;
  std::string head = "HTTP/1.1 200 OK\r\n";
  if (const auto range = request.find("Range: bytes="); range != std::string::npos) {
    char* next = nullptr;
    first = std::strtoull(request.c_str() + range + 13, &next, 10);
    const bool open = next[0] != '-' || next[1] < '0';
    last = open ? kBody - 1 : std::min<std::uint64_t>(std::strtoull(next + 1, nullptr, 10), kBody - 1);
    head = "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + std::to_string(first) + "-" +
           std::to_string(last) + "/" + std::to_string(kBody) + "\r\n";
  }
  std::uint64_t left = last + 1 - first;
  head += "Content-Length: " + std::to_string(left) + "\r\n\r\n";
  if (left <= kSmall) {
    head.append(block.data(), left);
    left = 0;
  }
  if (!sendAll(connection, head.data(), head.size())) return false;
  for (; left > 0; left -= std::min(left, kMiB)) {
    if (!sendAll(connection, block.data(), std::min(left, kMiB))) return false;
  }
  return true;
}

void serve(int connection) {
  const int on = 1;
  ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  std::string received;
  char bytes[4096];
  for (ssize_t n = 0; (n = ::recv(connection, bytes, sizeof bytes, 0)) > 0;) {
    received.append(bytes, static_cast<std::size_t>(n));
    const auto end = received.find("\r\n\r\n");
    if (end == std::string::npos) continue;
    if (!answer(connection, received.substr(0, end))) break;
    received.erase(0, end + 4);
  }
  ::close(connection);
}

// Listens from the first call on, until the program ends.
const std::string& url() {
  static const std::string address = [] {
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof local;
    if (listener < 0 || ::bind(listener, reinterpret_cast<sockaddr*>(&local), size) != 0 ||
        ::listen(listener, 128) != 0 || ::getsockname(listener, reinterpret_cast<sockaddr*>(&local), &size) != 0) {
      fail("listening failed");
    }
    std::thread([listener] {
      for (int one = 0; (one = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;)
        std::thread(serve, one).detach();
    }).detach();
    return "http://127.0.0.1:" + std::to_string(ntohs(local.sin_port)) + "/";
  }();
  return address;
}

// ---- The plan ----

// A turn in which every connection has delivered something and nothing is to be moved.
void planTurn(benchmark::State& state) {
  const auto connections = static_cast<std::size_t>(state.range(0));
  xfer::AdaptiveSettings settings;
  settings.connections = connections;
  constexpr std::uint64_t kTurnNs = 5'000'000;
  constexpr std::uint64_t kSize = std::uint64_t{1} << 60;  // never over
  xfer::AdaptivePlan plan(settings, kSize);
  std::uint64_t now = 1'000'000'000;
  std::vector<xfer::RangePlan::Piece> pieces;
  while (pieces.size() < connections) {
    while (const auto piece = plan.next(now)) {
      pieces.push_back(*piece);
      plan.answered(piece->id, now);
    }
    now += kTurnNs;
    benchmark::DoNotOptimize(plan.turn({now, kTurnNs, kTurnNs}, false));
  }
  std::uint64_t delivered = 0;
  for (auto _ : state) {
    delivered += 65'536;
    now += kTurnNs;
    for (const auto& piece : pieces) plan.report(piece.id, piece.range.start + delivered, false);
    benchmark::DoNotOptimize(plan.turn({now, kTurnNs, kTurnNs}, false));
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(connections));
}
BENCHMARK(planTurn)->Arg(1)->Arg(8)->Arg(64)->Arg(256);

// ---- Transfers ----

// Submits, and waits for the end.
class Transfers {
 public:
  explicit Transfers(std::uint16_t connections) {
    xfer::DownloadPolicy policy;
    policy.numThreads = connections;
    backend_ = std::make_unique<xfer::CurlMultiBackend>(policy);
  }

  // The file in so many equal ranges at once.
  void fetch(std::uint64_t size, std::uint64_t ranges) {
    {
      const std::lock_guard lock(mutex_);
      left_ = ranges;
    }
    for (std::uint64_t i = 0; i < ranges; ++i) {
      xfer::TransferRequest request;
      request.url = url();
      request.rangeStart = size / ranges * i;
      request.rangeEnd = size / ranges * (i + 1);
      backend_->submit(
          request, [](std::uint64_t, const std::uint8_t* bytes, std::uint64_t) { benchmark::DoNotOptimize(bytes); },
          [this](std::uint64_t, const xfer::TransferEnd& end) {
            if (end.code != 0) fail("a transfer failed");
            const std::lock_guard lock(mutex_);
            if (--left_ == 0) over_.notify_one();
          });
    }
    std::unique_lock lock(mutex_);
    over_.wait(lock, [this] { return left_ == 0; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable over_;
  std::uint64_t left_ = 0;
  std::unique_ptr<xfer::CurlMultiBackend> backend_;  // last: its loop uses the others
};

void bodyPath(benchmark::State& state) {
  const auto connections = static_cast<std::uint16_t>(state.range(0));
  Transfers transfers(connections);
  for (auto _ : state) transfers.fetch(kBody, connections);
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kBody));
}
BENCHMARK(bodyPath)->Arg(1)->Arg(8)->UseRealTime()->Unit(benchmark::kMillisecond);

void submitToEndOfOneByte(benchmark::State& state) {
  Transfers transfers(1);
  for (auto _ : state) transfers.fetch(1, 1);
}
BENCHMARK(submitToEndOfOneByte)->UseRealTime()->Unit(benchmark::kMicrosecond);

// ---- Small requests ----

std::size_t append(char* bytes, std::size_t size, std::size_t count, void* body) {
  static_cast<std::string*>(body)->append(bytes, size * count);
  return size * count;
}

void bareEasyHandle(benchmark::State& state) {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> easy(curl_easy_init(), curl_easy_cleanup);
  std::string body;
  curl_easy_setopt(easy.get(), CURLOPT_URL, url().c_str());
  curl_easy_setopt(easy.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, &body);
  for (auto _ : state) {
    body.clear();
    if (curl_easy_perform(easy.get()) != CURLE_OK || body.size() != kSmall) fail("a bare request failed");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(bareEasyHandle)->Threads(1)->Threads(8)->UseRealTime()->Unit(benchmark::kMicrosecond);

void fetch(benchmark::State& state) {
  xfer::Request request;
  request.url = url();
  for (auto _ : state) {
    const xfer::Response response = xfer::fetch(request);
    if (response.curlCode != 0 || response.body.size() != kSmall) fail("a fetch failed");
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(fetch)->Threads(1)->Threads(8)->UseRealTime()->Unit(benchmark::kMicrosecond);

// ---- The C interface ----

// Beside fetch with one thread: what the entry adds.
void download(benchmark::State& state) {
  sys::DataBuff headers;
  sys::DataBuff body;
  for (auto _ : state) {
    const int code = xfer_download(url().c_str(), nullptr, nullptr, &headers, &body, nullptr, nullptr);
    if (code != 0 || body.size() != kSmall) fail("a download failed");
  }
}
BENCHMARK(download)->UseRealTime()->Unit(benchmark::kMicrosecond);

void getProgress(benchmark::State& state) {
  const std::uint64_t id = xfer_downloadFile(url().c_str(), "/dev/null", nullptr, 1, nullptr, 0, 0, nullptr);
  if (id == 0) fail("no id");
  std::uint64_t downloaded = 0;
  std::uint32_t error = 0;
  std::uint8_t finished = 0;
  for (auto _ : state) benchmark::DoNotOptimize(xfer_getProgress(id, &downloaded, &error, &finished));
}
BENCHMARK(getProgress);

}  // namespace

BENCHMARK_MAIN();
