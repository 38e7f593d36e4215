#include "support/scripted_server.h"

#include <algorithm>
#include <array>
#include <asio.hpp>
#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "support/pattern.h"
#include "support/unsent_bytes.h"

namespace support {
namespace {

using asio::ip::tcp;

constexpr std::size_t kMaxHeadBytes = 1 << 20;
constexpr std::size_t kWriteBytes = 65'536;

bool containsIgnoringCase(std::string text, const std::string& lowerCaseWord) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return text.find(lowerCaseWord) != std::string::npos;
}

bool wantsClose(const ReceivedRequest& request) {
  return request.version == "HTTP/1.0" || containsIgnoringCase(request.header("Connection").value_or(""), "close");
}

}  // namespace

class ScriptedServer::Impl {
 public:
  Impl(Handler handler, std::uint16_t port);

  void stop();

  std::shared_ptr<const Handler> handler() const;
  void setHandler(Handler handler);

  /// Gives the request its number.
  void arrived(ReceivedRequest& request);
  void answered();
  void connectionEnded();

  mutable std::mutex mutex_;
  mutable std::condition_variable requestArrived_;
  // Guarded by mutex_.
  std::shared_ptr<const Handler> handler_;
  std::vector<ReceivedRequest> requests_;
  std::size_t accepted_ = 0;
  std::size_t open_ = 0;
  std::size_t concurrent_ = 0;
  std::size_t maxConcurrent_ = 0;

  std::uint16_t port_ = 0;

 private:
  class Connection;

  void accept();
  void joinEnded();

  asio::io_context io_;
  tcp::acceptor acceptor_;  // accept thread only, once it runs
  std::thread acceptThread_;
  std::list<std::shared_ptr<Connection>> connections_;  // accept thread only; after its end, stop()
};

// Blocking in form, asynchronous underneath: each operation runs the connection's own io_context until it is over, so
// that stop() can end it from another thread by a message to that io_context.
class ScriptedServer::Impl::Connection : public std::enable_shared_from_this<Connection> {
 public:
  Connection(Impl& server, std::size_t number) : server_(server), number_(number), socket_(io_), timer_(io_) {}

  asio::io_context& io() { return io_; }

  void start(tcp::socket socket) {
    socket_ = std::move(socket);
    thread_ = std::thread([this] { run(); });
  }

  void stop() {
    asio::post(io_, [this] {
      alive_ = false;
      closeSocket();
      timer_.cancel();
    });
  }

  void join() { thread_.join(); }

  bool ended() const { return ended_; }

 private:
  void run() {
    asio::error_code ignored;
    socket_.set_option(tcp::no_delay(true), ignored);
    socket_.non_blocking(true, ignored);
    while (alive_) {
      std::optional<ReceivedRequest> request = readRequest();
      if (!request) break;
      server_.arrived(*request);
      answering_ = true;
      play((*server_.handler())(*request));
      markAnswered();
      if (wantsClose(*request)) break;
    }
    closeInOrder();
    server_.connectionEnded();
    ended_ = true;
  }

  // start begins one asynchronous operation with the completion handler that it is given.
  template <class Start>
  bool finish(Start start) {
    bool done = false;
    asio::error_code error;
    start([&](asio::error_code result, auto...) {
      error = result;
      done = true;
    });
    runUntil([&] { return done; });
    return !error && alive_;
  }

  template <class Condition>
  void runUntil(Condition condition) {
    while (!condition()) io_.run_one();
  }

  // One more piece into received_.
  bool readSome() {
    return finish([this](auto handler) {
      socket_.async_read_some(asio::buffer(piece_),
                              [this, handler](asio::error_code error, std::size_t length) mutable {
                                received_.append(piece_.data(), length);
                                handler(error);
                              });
    });
  }

  // Waits for room and then writes what fits: Wine sometimes never completes a pending write of a socket that is
  // closed.
  bool write(const char* bytes, std::size_t length) {
    while (length > 0) {
      io_.poll();  // the message of stop(), should there always be room
      if (!alive_) return false;
      asio::error_code error;
      const std::size_t written = socket_.write_some(asio::buffer(bytes, length), error);
      bytes += written;
      length -= written;
      if (error == asio::error::would_block) {
        if (!finish([this](auto handler) { socket_.async_wait(tcp::socket::wait_write, handler); })) return false;
      } else if (error) {
        return false;
      }
    }
    return true;
  }

  std::optional<ReceivedRequest> readRequest() {
    std::size_t end = 0;
    while ((end = received_.find("\r\n\r\n")) == std::string::npos) {
      if (received_.size() > kMaxHeadBytes || !readSome()) return std::nullopt;
    }
    ReceivedRequest request = parseHead(received_.substr(0, end + 4));
    received_.erase(0, end + 4);

    if (containsIgnoringCase(request.header("Expect").value_or(""), "100-continue")) {
      const std::string goOn = "HTTP/1.1 100 Continue\r\n\r\n";
      if (!write(goOn.data(), goOn.size())) return std::nullopt;
    }
    const std::size_t length = std::strtoull(request.header("Content-Length").value_or("0").c_str(), nullptr, 10);
    while (received_.size() < length) {
      if (!readSome()) return std::nullopt;
    }
    request.body = received_.substr(0, length);
    received_.erase(0, length);
    request.connection = number_;
    request.time = std::chrono::steady_clock::now();
    return request;
  }

  void play(const Reply& reply) {
    // A request counts as answered before the client can know that it is, or a client that sends its next one at once
    // would seem to have two at a time.
    const auto& steps = reply.steps();
    std::size_t lastBusy = steps.size();
    while (lastBusy > 0 && !isBusy(steps[lastBusy - 1])) --lastBusy;
    for (std::size_t i = 0; i < steps.size() && alive_; ++i) {
      inLastBusyStep_ = i + 1 == lastBusy;
      std::visit([this](const auto& what) { perform(what); }, steps[i]);
      if (inLastBusyStep_) markAnswered();
    }
  }

  static bool isBusy(const Reply::Step& step) {
    return std::holds_alternative<Reply::Send>(step) || std::holds_alternative<Reply::SendPattern>(step) ||
           std::holds_alternative<Reply::Wait>(step);
  }

  void markAnswered() {
    if (answering_) server_.answered();
    answering_ = false;
  }

  void perform(const Reply::Send& step) {
    sendPaced(0, step.bytes.size(), step.pace,
              [&](std::uint64_t from, std::size_t length) { return write(step.bytes.data() + from, length); });
  }

  void perform(const Reply::SendPattern& step) {
    std::vector<char> bytes;
    sendPaced(step.from, step.to, step.pace, [&](std::uint64_t from, std::size_t length) {
      bytes.resize(length);
      fillPattern(from, bytes.data(), length, step.seed);
      return write(bytes.data(), length);
    });
  }

  void perform(const Reply::Wait& step) { wait(step.time, step.gate); }

  void perform(const Reply::Open& step) {
    Gate gate = step.gate;
    gate.open();
  }

  void perform(const Reply::Close&) {
    closeInOrder();
    alive_ = false;
  }

  void perform(const Reply::Reset&) {
    const auto handle = static_cast<std::uintptr_t>(socket_.native_handle());
    const auto deadline = std::chrono::steady_clock::now() + testTimeout();
    while (alive_ && unsentBytes(handle) > 0 && std::chrono::steady_clock::now() < deadline) {
      wait(std::chrono::milliseconds(1), std::nullopt);
    }
    asio::error_code ignored;
    socket_.set_option(asio::socket_base::linger(true, 0), ignored);
    closeSocket();
    alive_ = false;
  }

  template <class Write>
  void sendPaced(std::uint64_t from, std::uint64_t to, const Pace& pace, Write writePiece) {
    const std::uint64_t each = pace.bytesEach > 0 ? pace.bytesEach : kWriteBytes;
    while (alive_ && from < to) {
      const auto length = static_cast<std::size_t>(std::min(each, to - from));
      if (inLastBusyStep_ && from + length == to) markAnswered();
      if (!writePiece(from, length)) {
        alive_ = false;
        return;
      }
      from += length;
      if (pace.rest.count() > 0) wait(pace.rest, std::nullopt);
    }
  }

  // Until the time is over, the gate opens, the client goes away or the server stops.  Requests that the client sends
  // ahead are kept for later.
  void wait(std::optional<std::chrono::milliseconds> time, const std::optional<Gate>& gate) {
    bool timing = false;
    bool over = false;
    if (time) {
      timing = true;
      timer_.expires_after(*time);
      timer_.async_wait([&](asio::error_code) {
        timing = false;
        over = true;
      });
    }
    const auto opened = std::make_shared<bool>(false);
    if (gate) {
      gate->whenOpen([weak = weak_from_this(), opened] {
        if (const auto self = weak.lock()) asio::post(self->io_, [opened] { *opened = true; });
      });
    }
    bool reading = false;
    const std::function<void()> watch = [&] {
      reading = true;
      socket_.async_read_some(asio::buffer(piece_), [&](asio::error_code error, std::size_t length) {
        reading = false;
        received_.append(piece_.data(), length);
        if (error && error != asio::error::operation_aborted) alive_ = false;
        if (!error && received_.size() <= kMaxHeadBytes && !over && !*opened) watch();
      });
    };
    watch();
    runUntil([&] { return over || *opened || !alive_; });

    over = true;
    timer_.cancel();
    asio::error_code ignored;
    socket_.cancel(ignored);
    runUntil([&] { return !timing && !reading; });
  }

  void closeInOrder() {
    asio::error_code ignored;
    socket_.shutdown(tcp::socket::shutdown_send, ignored);
    closeSocket();
  }

  void closeSocket() {
    asio::error_code ignored;
    socket_.close(ignored);
  }

  Impl& server_;
  const std::size_t number_;
  asio::io_context io_;
  asio::executor_work_guard<asio::io_context::executor_type> work_ = asio::make_work_guard(io_);
  std::thread thread_;
  std::atomic<bool> ended_{false};  // tells the accept thread that joining takes no time

  // The connection's thread only.
  tcp::socket socket_;
  asio::steady_timer timer_;
  std::array<char, 16'384> piece_;
  std::string received_;  // what no request has taken yet
  bool alive_ = true;
  bool answering_ = false;
  bool inLastBusyStep_ = false;
};

ScriptedServer::Impl::Impl(Handler handler, std::uint16_t port)
    : handler_(std::make_shared<const Handler>(std::move(handler))),
      acceptor_(io_, tcp::endpoint(asio::ip::address_v4::loopback(), port), /*reuse_addr=*/port != 0) {
  port_ = acceptor_.local_endpoint().port();
  accept();
  acceptThread_ = std::thread([this] { io_.run(); });
}

void ScriptedServer::Impl::accept() {
  const auto connection = std::make_shared<Connection>(*this, accepted_);
  acceptor_.async_accept(connection->io(), [this, connection](asio::error_code error, tcp::socket socket) {
    if (!acceptor_.is_open()) return;
    if (!error) {
      joinEnded();
      {
        const std::lock_guard lock(mutex_);
        ++accepted_;
        ++open_;
      }
      connections_.push_back(connection);
      connection->start(std::move(socket));
    }
    accept();
  });
}

void ScriptedServer::Impl::joinEnded() {
  connections_.remove_if([](const std::shared_ptr<Connection>& connection) {
    if (!connection->ended()) return false;
    connection->join();
    return true;
  });
}

void ScriptedServer::Impl::stop() {
  if (!acceptThread_.joinable()) return;
  asio::post(io_, [this] { acceptor_.close(); });
  acceptThread_.join();
  for (const auto& connection : connections_) connection->stop();
  for (const auto& connection : connections_) connection->join();
  connections_.clear();
}

std::shared_ptr<const Handler> ScriptedServer::Impl::handler() const {
  const std::lock_guard lock(mutex_);
  return handler_;
}

void ScriptedServer::Impl::setHandler(Handler handler) {
  const std::lock_guard lock(mutex_);
  handler_ = std::make_shared<const Handler>(std::move(handler));
}

void ScriptedServer::Impl::arrived(ReceivedRequest& request) {
  const std::lock_guard lock(mutex_);
  request.number = requests_.size();
  requests_.push_back(request);
  ++concurrent_;
  maxConcurrent_ = std::max(maxConcurrent_, concurrent_);
  requestArrived_.notify_all();
}

void ScriptedServer::Impl::answered() {
  const std::lock_guard lock(mutex_);
  --concurrent_;
}

void ScriptedServer::Impl::connectionEnded() {
  const std::lock_guard lock(mutex_);
  --open_;
}

ScriptedServer::ScriptedServer(Handler handler, std::uint16_t port)
    : impl_(std::make_unique<Impl>(std::move(handler), port)) {}

ScriptedServer::~ScriptedServer() {
  stop();
}

void ScriptedServer::stop() {
  impl_->stop();
}

void ScriptedServer::setHandler(Handler handler) {
  impl_->setHandler(std::move(handler));
}

std::uint16_t ScriptedServer::port() const {
  return impl_->port_;
}

std::string ScriptedServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port()) + path;
}

std::vector<ReceivedRequest> ScriptedServer::requests() const {
  const std::lock_guard lock(impl_->mutex_);
  return impl_->requests_;
}

bool ScriptedServer::waitForRequests(std::size_t count, std::chrono::milliseconds timeout) const {
  std::unique_lock lock(impl_->mutex_);
  return impl_->requestArrived_.wait_for(lock, timeout, [&] { return impl_->requests_.size() >= count; });
}

std::size_t ScriptedServer::connectionsAccepted() const {
  const std::lock_guard lock(impl_->mutex_);
  return impl_->accepted_;
}

std::size_t ScriptedServer::openConnections() const {
  const std::lock_guard lock(impl_->mutex_);
  return impl_->open_;
}

std::size_t ScriptedServer::concurrentRequests() const {
  const std::lock_guard lock(impl_->mutex_);
  return impl_->concurrent_;
}

std::size_t ScriptedServer::maxConcurrentRequests() const {
  const std::lock_guard lock(impl_->mutex_);
  return impl_->maxConcurrent_;
}

}  // namespace support
