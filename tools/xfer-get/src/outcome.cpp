#include "outcome.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <string_view>

#include "text_width.h"
#include "url.h"

namespace xfer_get {
namespace {

enum class From { Anything, Download, Request };
enum class Kind { Code, Status };

constexpr std::int32_t kAny = -1000;  // neither a code nor a status

// What came is told by the first row that fits.
struct Row {
  Kind kind;
  std::int32_t number;
  From from;
  std::string_view marker;  // in what the library says of the failure; empty: whatever that is
  ExitCode exitCode;
  bool ofFile;             // the message is about the file, not the URL
  bool tells;              // what the library says follows the words
  std::string_view words;  // of a status: in front of "HTTP status N"
  std::string_view hint;
};

constexpr std::string_view kServerAnswered = "the server answered with";

constexpr Row code(std::int32_t number, ExitCode exitCode, std::string_view words, std::string_view hint = {}) {
  return {Kind::Code, number, From::Anything, {}, exitCode, false, true, words, hint};
}

// Of what the library says in this way.
constexpr Row saying(std::string_view marker, Row row) {
  row.marker = marker;
  return row;
}

constexpr Row from(From from, Row row) {
  row.from = from;
  return row;
}

constexpr Row ofFile(Row row) {
  row.ofFile = true;
  return row;
}

// Where the words say all that the library does.
constexpr Row alone(Row row) {
  row.tells = false;
  return row;
}

constexpr Row status(std::int32_t number, std::string_view hint, std::string_view words = kServerAnswered) {
  return {Kind::Status, number, From::Anything, {}, kHttpStatus, false, true, words, hint};
}

constexpr std::string_view kOfProxy = "from the proxy";
constexpr std::string_view kMakeRoom = "make room, or choose another place";
constexpr std::string_view kTryLater = "try later";

// Positive codes below 103 are libcurl's.
constexpr std::array kRows{
    saying("no transfer", code(-1, kInternal, "the request could not be made")),
    ofFile(from(From::Download, code(-1, kFile, "the file could not be written", kMakeRoom))),
    alone(code(-1, kInternal, "the request could not be made")),
    saying("HTTP/0.9", code(1, kNetwork, "the server does not speak HTTP/1.1",
                            "check the scheme and the port; HTTP/2 alone is not understood")),
    saying("redirected to", code(1, kNetwork, "the server redirects to an address that is neither http nor https")),
    code(1, kUsage, "only http and https URLs can be fetched"),
    saying("redirect", code(3, kNetwork, "the server redirects to a malformed address")),
    code(3, kUsage, "the URL is malformed", "correct it, and write a blank as %20"),
    code(5, kNetwork, "the proxy's name could not be resolved", "check the proxy's name"),
    code(6, kNetwork, "the host's name could not be resolved", "check the name"),
    code(7, kNetwork, "could not connect", "check the host and the port"),
    code(18, kNetwork, "the server sent less than it announced or was asked for", "try again"),
    code(23, kInternal, "the answer could not be stored"),
    saying("header line", code(27, kNetwork, "the server's answer cannot be read")),
    code(27, kInternal, "out of memory"),
    code(28, kNetwork, "it took too long", kTryLater),
    code(33, kNetwork, "the server sent other bytes than asked for, or the remote file changed", "start again"),
    code(35, kNetwork, "the TLS connection could not be made", "check the scheme and the port"),
    alone(code(42, kCancelled, "cancelled")),
    code(43, kUsage, "a header, the cookie or an option cannot be used"),
    code(47, kNetwork, "too many redirects"),
    alone(code(52, kNetwork, "the server closed the connection without an answer",
               "check the scheme and the port; HTTP/2 alone is not understood")),
    code(55, kNetwork, "sending failed", "try again"),
    code(56, kNetwork, "receiving failed", "try again"),
    code(60, kTrust, "the server's certificate is refused", "--cacert names those that are trusted, -k accepts any"),
    code(77, kTrust, "the certificates to trust cannot be read", "check the file of --cacert, or install the system's"),
    code(90, kTrust, "the server's key is not the one of --pinnedpubkey", "ask who runs the server for its key"),
    code(100, kNetwork, "the server's answer is too large"),
    code(100000, kInternal, "out of memory or threads"),
    saying("being written",
           ofFile(code(100004, kFile, "the file could not be created", "wait for that one, or choose another name"))),
    ofFile(code(100004, kFile, "the file could not be created", "check the folder, or choose another place")),
    ofFile(code(100006, kInternal, "the file was not open at its end", "please report this")),
    saying("not a regular file", ofFile(code(100024, kFile, "this cannot hold a download", "choose another name"))),
    ofFile(code(100024, kFile, "there is no room for the file", kMakeRoom)),
    code(kAny, kNetwork, "the transfer failed"),

    status(407, "log in to the proxy with -x user:password@host", "the proxy answered with"),
    saying(kOfProxy, status(kAny, "check the proxy", "the connection could not be made:")),
    status(204, "there is no file at this address"),
    status(304, "leave out header lines such as If-None-Match"),
    status(301, "it names no address to go on to"),
    status(302, "it names no address to go on to"),
    status(303, "it names no address to go on to"),
    status(307, "it names no address to go on to"),
    status(308, "it names no address to go on to"),
    status(401, "send a login with -H \"Authorization: ...\""),
    status(403, "it may want a cookie (-b), a login (-H) or another user agent (-A)"),
    status(404, "check the address"),
    status(408, kTryLater),
    status(410, "check the address"),
    status(416, "check the size of --known-size"),
    status(425, kTryLater),
    status(429, "try later, or over fewer connections (-n)"),
    status(500, kTryLater),
    status(502, kTryLater),
    status(503, "try later, or over fewer connections (-n)"),
    status(504, kTryLater),
    status(kAny, {}),
};

const Row& rowFor(Kind kind, std::int32_t number, From from, std::string_view failureText) {
  return *std::find_if(kRows.begin(), kRows.end(), [&](const Row& row) {
    return row.kind == kind && (row.number == number || row.number == kAny) &&
           (row.from == from || row.from == From::Anything) && failureText.find(row.marker) != std::string_view::npos;
  });
}

std::string subject(const Asked& asked, bool ofFile) {
  if (!ofFile) return plainText(urlWithoutLogin(asked.url));
  return asked.path.empty() ? "standard output" : plainText(asked.path);
}

Outcome outcomeOf(const Row& row, const Asked& asked, const std::string& came) {
  std::string message = subject(asked, row.ofFile) + ": " + came;
  if (!row.hint.empty()) message += "; " + std::string(row.hint);
  return {row.exitCode, message};
}

Outcome codeOutcome(const Asked& asked, std::int32_t number, From from, const std::string& failureText) {
  const Row& row = rowFor(Kind::Code, number, from, failureText);
  std::string came(row.words);
  if (row.tells && !failureText.empty()) came += ": " + plainText(failureText);
  return outcomeOf(row, asked, came + " (code " + std::to_string(number) + ")");
}

constexpr std::string_view kStatus = "HTTP status ";

Outcome statusOutcome(const Asked& asked, std::int32_t number, From from, const std::string& failureText) {
  const Row& row = rowFor(Kind::Status, number, from, failureText);
  const std::string plain = std::string(kStatus) + std::to_string(number);
  // Of http a proxy passes its own answers off as the server's.
  const bool either = asked.proxied && row.words == kServerAnswered && !asked.url.starts_with("https");
  std::string came = either ? "the server or the proxy answered with" : std::string(row.words);
  came += " " + (failureText.starts_with(plain) ? plainText(failureText) : plain);
  return outcomeOf(row, asked, came);
}

// The status that the text names: a proxy's refusal of a connection, or an answer that brings no part of the file; 0:
// it names none.
std::int32_t statusIn(const std::string& failureText) {
  if (!failureText.starts_with(kStatus)) return 0;
  std::int32_t number = 0;
  std::from_chars(failureText.data() + kStatus.size(), failureText.data() + failureText.size(), number);
  return number;
}

Outcome failureOutcome(const Asked& asked, std::int32_t number, From from, const std::string& failureText) {
  if (const std::int32_t status = statusIn(failureText)) return statusOutcome(asked, status, from, failureText);
  return codeOutcome(asked, number, from, failureText);
}

// The status by which a download failed, as its numbers tell it; 0: they do not.
std::int32_t failedStatus(const xfer::DownloadSnapshot& snapshot) {
  constexpr std::int32_t kFirstStatus = 103;  // codes below are libcurl's
  constexpr std::int32_t kLastStatus = 999;
  const std::int32_t status = snapshot.httpStatus;
  const std::int32_t error = snapshot.errorCode;
  if (status >= 400) return status;
  return error >= kFirstStatus && error <= kLastStatus ? error : 0;
}

}  // namespace

Outcome downloadOutcome(const Asked& asked, const xfer::DownloadSnapshot& snapshot, const std::string& failureText) {
  if (snapshot.state == xfer::JobState::Completed) return {};
  if (snapshot.state == xfer::JobState::Cancelled) {
    const bool left = snapshot.totalBytes != 0 && !asked.path.empty();
    return {kCancelled,
            subject(asked, false) + (left ? ": cancelled; the partial file was left in place" : ": cancelled")};
  }
  if (const std::int32_t status = failedStatus(snapshot)) {
    return statusOutcome(asked, status, From::Download, failureText);
  }
  return failureOutcome(asked, snapshot.errorCode, From::Download, failureText);
}

Outcome responseOutcome(const Asked& asked, const xfer::Response& response, const std::string& failureText) {
  if (response.curlCode != 0) return failureOutcome(asked, response.curlCode, From::Request, failureText);
  return response.status >= 400 ? statusOutcome(asked, response.status, From::Request, failureText) : Outcome{};
}

Outcome infoOutcome(const Asked& asked, const xfer::RemoteFileInfo& info, const std::string& failureText) {
  if (info.error == 0) return {};
  if (info.error == info.httpStatus) return statusOutcome(asked, info.error, From::Request, failureText);
  return failureOutcome(asked, info.error, From::Request, failureText);
}

Outcome fileOutcome(const Asked& asked, const std::string& came) {
  return {kFile, subject(asked, true) + ": " + plainText(came)};
}

Outcome uncheckedOutcome(const Asked& asked) {
  return {kCancelled, subject(asked, true) + ": cancelled before its checksum was known; the file is left in place"};
}

Outcome checksumOutcome(const Asked& asked, const Checksum& wanted, const std::string& hex) {
  if (hex == wanted.hex) return {};
  return {kChecksum, subject(asked, true) + ": its " + std::string(nameOf(wanted.algorithm)) + " is " + hex + ", not " +
                         wanted.hex + "; do not use it"};
}

Outcome lateOutcome(const Asked& asked, std::uint32_t maxTimeSec) {
  return {kNetwork, subject(asked, false) + ": not done within the " + std::to_string(maxTimeSec) +
                        " s of --max-time; a partial file is left in place"};
}

std::string encodingNote(const Asked& asked, const std::string& encoding) {
  return subject(asked, true) + ": stored as the server sent it, with Content-Encoding " + plainText(encoding) +
         ", which was not asked for";
}

}  // namespace xfer_get
