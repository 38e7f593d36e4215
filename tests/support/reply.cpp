#include "support/reply.h"

#include <algorithm>
#include <cstdio>

namespace support {
namespace {

const char* reasonOf(int code) {
  switch (code) {
    case 200:
      return "OK";
    case 201:
      return "Created";
    case 204:
      return "No Content";
    case 206:
      return "Partial Content";
    case 301:
      return "Moved Permanently";
    case 302:
      return "Found";
    case 303:
      return "See Other";
    case 304:
      return "Not Modified";
    case 307:
      return "Temporary Redirect";
    case 308:
      return "Permanent Redirect";
    case 400:
      return "Bad Request";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 407:
      return "Proxy Authentication Required";
    case 408:
      return "Request Timeout";
    case 410:
      return "Gone";
    case 412:
      return "Precondition Failed";
    case 416:
      return "Range Not Satisfiable";
    case 429:
      return "Too Many Requests";
    case 500:
      return "Internal Server Error";
    case 502:
      return "Bad Gateway";
    case 503:
      return "Service Unavailable";
    case 504:
      return "Gateway Timeout";
    default:
      return "Status";
  }
}

std::string statusLine(int code) {
  return "HTTP/1.1 " + std::to_string(code) + " " + reasonOf(code) + "\r\n";
}

void sendChunked(Reply& reply, std::uint64_t from, std::uint64_t to, const ReplyOptions& options) {
  while (from < to) {
    const std::uint64_t end = from + std::min<std::uint64_t>(std::max<std::size_t>(options.chunkBytes, 1), to - from);
    char size[24];
    std::snprintf(size, sizeof size, "%llx\r\n", static_cast<unsigned long long>(end - from));
    reply.send(size).sendPattern(from, end, options.pace, options.seed).send("\r\n");
    from = end;
  }
  reply.send("0\r\n\r\n");
}

Reply patternReply(int code, const std::string& headers, std::uint64_t from, std::uint64_t to,
                   const ReplyOptions& options) {
  std::string head = statusLine(code) + "Content-Type: " + options.contentType + "\r\n" + headers;
  if (!options.etag.empty()) head += "ETag: " + options.etag + "\r\n";
  for (const std::string& line : options.headers) head += line + "\r\n";
  switch (options.framing) {
    case Framing::ContentLength:
      head += "Content-Length: " + std::to_string(options.announced.value_or(to - from)) + "\r\n";
      break;
    case Framing::UntilClose:
      head += "Connection: close\r\n";
      break;
    case Framing::Chunked:
      head += "Transfer-Encoding: chunked\r\n";
      break;
  }
  Reply reply;
  reply.send(head + "\r\n");
  const std::uint64_t end = from + options.bodyBytes.value_or(to - from);
  if (options.framing == Framing::Chunked) {
    sendChunked(reply, from, end, options);
  } else if (end > from) {
    reply.sendPattern(from, end, options.pace, options.seed);
  }
  if (options.framing == Framing::UntilClose) reply.close();
  return reply;
}

}  // namespace

Reply& Reply::send(std::string bytes, Pace pace) {
  steps_.emplace_back(Send{std::move(bytes), pace});
  return *this;
}

Reply& Reply::sendPattern(std::uint64_t from, std::uint64_t to, Pace pace, std::uint64_t seed) {
  steps_.emplace_back(SendPattern{from, to, seed, pace});
  return *this;
}

Reply& Reply::pause(std::chrono::milliseconds time) {
  steps_.emplace_back(Wait{time, std::nullopt});
  return *this;
}

Reply& Reply::stall() {
  steps_.emplace_back(Wait{});
  return *this;
}

Reply& Reply::waitFor(Gate gate) {
  steps_.emplace_back(Wait{std::nullopt, std::move(gate)});
  return *this;
}

Reply& Reply::open(Gate gate) {
  steps_.emplace_back(Open{std::move(gate)});
  return *this;
}

Reply& Reply::close() {
  steps_.emplace_back(Close{});
  return *this;
}

Reply& Reply::reset() {
  steps_.emplace_back(Reset{});
  return *this;
}

Reply full200(std::uint64_t total, const ReplyOptions& options) {
  std::string headers = options.acceptRanges ? "Accept-Ranges: bytes\r\n" : "";
  if (options.contentRange && !options.contentRange->empty()) {
    headers += "Content-Range: " + *options.contentRange + "\r\n";
  }
  return patternReply(200, headers, 0, total, options);
}

Reply range206(const ReceivedRequest& request, std::uint64_t total, const ReplyOptions& options) {
  const RequestedRange asked = request.range.value_or(RequestedRange{});
  const std::uint64_t from = asked.first;
  const std::uint64_t to = asked.last ? std::min(*asked.last, total - 1) + 1 : total;
  const std::string right =
      "bytes " + std::to_string(from) + "-" + std::to_string(to - 1) + "/" + std::to_string(total);
  const std::string value = options.contentRange.value_or(right);
  return patternReply(206, value.empty() ? "" : "Content-Range: " + value + "\r\n", from, to, options);
}

Reply status(int code, const std::string& body, const std::vector<std::string>& headers) {
  std::string head = statusLine(code);
  for (const std::string& line : headers) head += line + "\r\n";
  if (!body.empty()) head += "Content-Type: text/plain\r\n";
  if (code != 204 && code != 304) head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  return Reply().send(head + "\r\n" + body);
}

Reply redirect(int code, const std::string& location) {
  return status(code, "", {"Location: " + location});
}

Handler patternFile(std::uint64_t size, ReplyOptions options) {
  return [size, options = std::move(options)](const ReceivedRequest& request) {
    const auto condition = request.header("If-Range");
    const bool wantsRange = request.range && (!condition || *condition == options.etag);
    ReplyOptions changed = options;
    if (request.method == "HEAD") changed.bodyBytes = 0;
    if (!wantsRange || size == 0) return full200(size, changed);
    if (request.range->first >= size) return status(416, "", {"Content-Range: bytes */" + std::to_string(size)});
    return range206(request, size, changed);
  };
}

Handler routes(std::vector<std::pair<std::string, Handler>> handlers) {
  return [handlers = std::move(handlers)](const ReceivedRequest& request) {
    const std::string path = request.path();
    for (const auto& [route, handler] : handlers) {
      if (route == path) return handler(request);
    }
    return status(404, "nothing here");
  };
}

}  // namespace support
