// What a scripted server answers to one request: a byte-exact script, step after step, and builders for common ones.
//
//   return range206(request, 1000, {.bodyBytes = 10}).reset();     // 10 of the announced bytes, then a reset
//   return Reply().send("HTTP/1.1 200 OK\r\n\r\n").stall();
//
// A script that ends without close() or reset() leaves the connection open for the next request, unless the request
// itself said "Connection: close" or was of HTTP/1.0.  Nothing is added to what the steps say.
//
// Threads: a plain value; a handler may return the same one from several threads.
// Units:   offsets and sizes are bytes; ranges are half-open [from, to).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "support/gate.h"
#include "support/received_request.h"

namespace support {

/// How bytes go out: this many at a time, with a rest after each; all at once when bytesEach is 0.
struct Pace {
  std::size_t bytesEach = 0;
  std::chrono::milliseconds rest{0};
};

class Reply {
 public:
  struct Send {
    std::string bytes;
    Pace pace;
  };
  struct SendPattern {
    std::uint64_t from;
    std::uint64_t to;
    std::uint64_t seed;
    Pace pace;
  };
  struct Wait {
    std::optional<std::chrono::milliseconds> time;
    std::optional<Gate> gate;
  };
  struct Open {
    Gate gate;
  };
  struct Close {};
  struct Reset {};
  using Step = std::variant<Send, SendPattern, Wait, Open, Close, Reset>;

  Reply& send(std::string bytes, Pace pace = {});

  /// The pattern's bytes of [from, to); see pattern.h.
  Reply& sendPattern(std::uint64_t from, std::uint64_t to, Pace pace = {}, std::uint64_t seed = 0);

  Reply& pause(std::chrono::milliseconds time);

  /// Does nothing more until the client goes away or the server stops.
  Reply& stall();

  /// Goes on when the gate is opened.
  Reply& waitFor(Gate gate);

  /// Opens the gate, so that a test knows that the script has come this far: everything before it is with the
  /// operating system.
  Reply& open(Gate gate);

  /// An orderly end of the connection.  What follows in the script is not run.
  Reply& close();

  /// A reset.  On Linux the client has everything that was sent before; elsewhere it may lose some of it.
  Reply& reset();

  [[nodiscard]] const std::vector<Step>& steps() const { return steps_; }

 private:
  std::vector<Step> steps_;
};

/// Called from several threads at once, each for a connection of its own.  It must return: a server that stops waits
/// for it (to wait for a test, put a gate into the script).
using Handler = std::function<Reply(const ReceivedRequest&)>;

enum class Framing { ContentLength, UntilClose, Chunked };

/// What the builders change about a correct reply.
struct ReplyOptions {
  std::string etag{};  // with its quotes; "" sends none
  std::string contentType = "application/octet-stream";
  std::vector<std::string> headers{};         // further header lines, without their line ends
  std::optional<std::string> contentRange{};  // this value instead of the right one; "" sends no such header
  std::optional<std::uint64_t> announced{};   // this Content-Length instead of the right one
  std::optional<std::uint64_t> bodyBytes{};   // this many bytes of body instead of all; more is possible too.  What
                                              // happens then is up to the caller: append close(), reset() or stall()
  bool acceptRanges = true;                   // full200: "Accept-Ranges: bytes"
  Framing framing = Framing::ContentLength;   // UntilClose closes after the body
  std::size_t chunkBytes = 16'384;            // of Framing::Chunked
  Pace pace{};                                // of the body
  std::uint64_t seed = 0;                     // of the pattern
};

/// A whole file of total bytes.
Reply full200(std::uint64_t total, const ReplyOptions& options = {});

/// The range that the request asks for, cut at the file's end; the whole file as a 206 when it asks for none.
/// Requires: the range starts inside of the file (not checked).
Reply range206(const ReceivedRequest& request, std::uint64_t total, const ReplyOptions& options = {});

/// Any status with a text body.  Further header lines come without their line ends.
Reply status(int code, const std::string& body = "", const std::vector<std::string>& headers = {});

Reply redirect(int code, const std::string& location);

/// A good range server for a file of size bytes: HEAD, whole file, ranges, If-Range, 416.  Ranges of an empty file get
/// an empty 200.
Handler patternFile(std::uint64_t size, ReplyOptions options = {});

/// Hands a request to the handler of its path; 404 when there is none.
Handler routes(std::vector<std::pair<std::string, Handler>> handlers);

}  // namespace support
