// The functions that read what hosts pass in and what servers send: they neither crash nor break their promises,
// whatever the text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "body_placement.h"
#include "easy_options.h"
#include "fuzz/promise.h"
#include "remote_file.h"
#include "remote_file_text.h"
#include "request_text.h"
#include "response_head.h"
#include "sys/descrambler.h"
#include "xfer/fetch.h"

namespace {

using fuzz::promise;

void splitsIntoLines(const std::string& text) {
  std::vector<std::string> lines;
  xfer::splitLines(text.c_str(), lines);
  for (const std::string& line : lines) {
    promise(!line.empty() && line.find('\n') == std::string::npos, "a line is not empty and holds no line feed");
  }
  if (xfer::holdsLineBreak("", lines)) return;
  for (std::string_view line : lines) {
    if (line.ends_with('\r')) line.remove_suffix(1);
    promise(line.find('\r') == std::string_view::npos, "a carriage return inside of a line is found");
  }
}

void readsOptionsAndProxies(const std::string& text) {
  const xfer::RequestOptions options = xfer::parseRequestOptions(text.c_str());
  promise(options.postFields.empty() || options.post, "who gives a body asks for a POST");
  const net::Proxy proxy = xfer::parseProxySpec(text);
  promise(proxy.host.find(':') == std::string::npos, "the port is no part of the host");
  promise(proxy.username.find_first_of(":@") == std::string::npos, "nor the password of the user's name");
  promise(xfer::proxyAddress(proxy).starts_with(proxy.host), "the address begins with the host");
  promise(xfer::watchPagePath(text).starts_with('/'), "a path begins with a slash");
}

void readsHeaders(const std::string& text) {
  const std::int32_t type = xfer::mediaTypeFromHeaders(text);
  promise((type >= 0 && type <= 7) || type == 11 || type == 12, "a media type is one of the table");
  promise(!xfer::remoteSize(404, text), "an error page has no size");
  for (const std::int32_t status : {200, 206, 404}) {
    xfer::Response response;
    response.status = status;
    response.headers = text;
    const xfer::RemoteFileInfo info = xfer::remoteFileInfo(response);
    promise((info.error == 0) == (status != 404), "an error is told");
    promise(status != 404 || info.size == 0, "and has no size");
    promise(info.contentType.find_first_of("\r\n;") == std::string::npos, "a type comes without parameters");
  }
}

void judgesAnswers(const std::string& text) {
  constexpr std::uint64_t kStart = 10;
  xfer::ResponseHeadReader reader;
  std::string_view rest(text);
  while (!rest.empty()) {
    const std::size_t end = rest.find('\n');
    reader.add(rest.substr(0, end == std::string_view::npos ? end : end + 1));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
  }
  const xfer::ResponseHead& head = reader.head();
  const xfer::RemoteFileInfo info = xfer::remoteFileInfo(head);
  promise(info.error == 0 || info.size == 0, "an answer that is refused has no size");
  promise(!head.contentRange || !head.contentRange->total || head.contentRange->last < *head.contentRange->total,
          "a range lies inside of its file");
  promise(!head.transferEncoding || !head.bodyLength(), "a transfer encoding decides the length");
  const xfer::AnswerClaim claim = xfer::readClaim(head, kStart);
  using Kind = xfer::AnswerClaim::Kind;
  promise(claim.kind != Kind::NoContent || (head.status != 200 && head.status != 206), "these statuses bring content");
  if (claim.kind == Kind::WholeFile) {
    promise(head.status == 200 && !head.contentLengthsDiffer, "a whole file is a 200 of one length");
    promise(claim.endIsSeen || !claim.length, "a length shows where a body ends");
  }
  if (claim.kind != Kind::Range) return;
  promise(head.status == 206 && !head.multipartRanges && !head.contentLengthsDiffer, "a range is a plain 206");
  if (!head.contentRange) return promise(!claim.total && !claim.namedEnd, "that names nothing");
  promise(head.contentRange->first == kStart, "that begins where it was asked to");
  promise(claim.namedEnd > kStart && (!claim.total || *claim.namedEnd <= *claim.total), "and ends inside of the file");
}

void scramblesAndBack(const std::string& text) {
  promise(sys::descrambleString(sys::descrambleString(text, false), true) == text, "decoding undoes encoding");
  promise(sys::descrambleString(sys::descrambleString(text, true), false) == text, "encoding undoes decoding");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  splitsIntoLines(text);
  readsOptionsAndProxies(text);
  readsHeaders(text);
  judgesAnswers(text);
  scramblesAndBack(text);
  return 0;
}
