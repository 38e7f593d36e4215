#include "outcome.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace xfer_get {
namespace {

struct Words {
  std::int32_t code;
  ExitCode exitCode;
  std::string_view text;
};

// The codes that users are likely to see; positive ones below 100000 are libcurl's.
constexpr std::array<Words, 24> kWords{{
    {-1, kInternal, "no transfer could be set up"},
    {1, kUsage, "only http and https URLs can be fetched"},
    {3, kUsage, "the URL is malformed"},
    {5, kNetwork, "the proxy's name could not be resolved"},
    {6, kNetwork, "the host's name could not be resolved"},
    {7, kNetwork, "could not connect"},
    {18, kNetwork, "the server sent less than it announced"},
    {23, kInternal, "the answer could not be stored"},
    {27, kInternal, "out of memory"},
    {28, kNetwork, "timed out"},
    {33, kNetwork, "the server sent other bytes than asked for, or the remote file changed"},
    {35, kNetwork, "the TLS connection could not be made"},
    {42, kCancelled, "cancelled"},
    {43, kUsage, "a header, the cookie or an option cannot be used"},
    {47, kNetwork, "too many redirects"},
    {52, kNetwork, "the server sent nothing"},
    {55, kNetwork, "sending failed"},
    {56, kNetwork, "receiving failed"},
    {60, kTrust, "the server's certificate is refused; -k accepts any, --cacert names those that are trusted"},
    {77, kTrust, "the certificates to trust cannot be read: those of --cacert, or the system's"},
    {90, kTrust, "the server's key is not the one of --pinnedpubkey"},
    {100000, kInternal, "out of memory or threads"},
    {100004, kFile, "the file could not be created"},
    {100024, kFile, "there is no room for the file"},
}};

Outcome codeOutcome(std::int32_t code) {
  const auto words = std::find_if(kWords.begin(), kWords.end(), [&](const Words& one) { return one.code == code; });
  const std::string number = " (code " + std::to_string(code) + ")";
  if (words == kWords.end()) return {kNetwork, "the transfer failed" + number};
  return {words->exitCode, std::string(words->text) + number};
}

Outcome statusOutcome(std::int32_t status) {
  return {kHttpStatus, "the server answered with HTTP status " + std::to_string(status)};
}

bool isErrorStatus(std::int32_t status) {
  return status >= 400 || status == 204;
}

}  // namespace

Outcome downloadOutcome(const xfer::DownloadSnapshot& snapshot) {
  if (snapshot.state == xfer::JobState::Completed) return {};
  if (snapshot.state == xfer::JobState::Cancelled) {
    return {kCancelled, snapshot.totalBytes != 0 ? "cancelled; the partial file was left in place" : "cancelled"};
  }
  if (isErrorStatus(snapshot.httpStatus)) return statusOutcome(snapshot.httpStatus);
  // An HTTP error of the probe is the error code itself; libcurl's codes are below 100.
  if (snapshot.errorCode >= 100 && snapshot.errorCode < 1000) return statusOutcome(snapshot.errorCode);
  if (snapshot.errorCode == -1) return {kFile, "the file could not be written (code -1)"};
  return codeOutcome(snapshot.errorCode);
}

Outcome responseOutcome(const xfer::Response& response) {
  if (response.curlCode != 0) return codeOutcome(response.curlCode);
  return response.status >= 400 ? statusOutcome(response.status) : Outcome{};
}

Outcome infoOutcome(const xfer::RemoteFileInfo& info) {
  if (info.httpStatus != 0 && info.error == info.httpStatus) return statusOutcome(info.httpStatus);
  return info.error != 0 ? codeOutcome(info.error) : Outcome{};
}

}  // namespace xfer_get
