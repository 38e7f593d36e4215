// An HTTP server on 127.0.0.1 that answers with scripts, byte by byte as the test wants it, and keeps every request as
// it was received.  It knows no rule of HTTP that would stop it from sending nonsense.
//
//   ScriptedServer server(patternFile(1000));
//   ... download server.url("/file") ...
//   EXPECT_EQ(server.requests().at(0).headerLines, ...);
//
// Each connection has a thread of its own, which reads a request (head and Content-Length body; a request that expects
// it gets its "100 Continue"), records it, asks the handler and plays the reply.  As an HTTP proxy it sees absolute
// targets and CONNECT; what follows an answered CONNECT on the same connection is read as further requests.
//
// Threads: every function may be called from any thread, but stop() and the destructor not from a handler.
// Errors:  a port that cannot be bound throws std::system_error.  A connection that fails just ends.  An exception that
//          leaves a handler ends the process.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/received_request.h"
#include "support/reply.h"
#include "support/test_timeout.h"

namespace support {

class ScriptedServer {
 public:
  /// Listens when it returns.  port: 0, or one that nobody listens on; another server made with it may follow.
  explicit ScriptedServer(Handler handler, std::uint16_t port = 0);

  /// Stops.
  ~ScriptedServer();

  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  /// Ends every connection, whatever it does, and returns when the last thread has ended.  What was recorded stays.
  void stop();

  /// For later requests.
  void setHandler(Handler handler);

  [[nodiscard]] std::uint16_t port() const;

  /// "http://127.0.0.1:<port>" and the path, which starts with "/".
  [[nodiscard]] std::string url(const std::string& path) const;

  /// What arrived so far, in that order.
  [[nodiscard]] std::vector<ReceivedRequest> requests() const;

  /// Whether this many requests (in all) arrived before the time was over.
  [[nodiscard]] bool waitForRequests(std::size_t count, std::chrono::milliseconds timeout = testTimeout()) const;

  [[nodiscard]] std::size_t connectionsAccepted() const;

  /// Those that neither side has ended.  That the client has gone is seen while a request is awaited or a script waits.
  [[nodiscard]] std::size_t openConnections() const;

  /// Requests whose script has not come to its last piece or wait.  A request is let go before its client can have the
  /// whole reply, so that one which follows at once does not count as a second one.
  [[nodiscard]] std::size_t concurrentRequests() const;

  /// The most that there ever were at the same time.
  [[nodiscard]] std::size_t maxConcurrentRequests() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace support
