// The servers and proxies that tests/servers/fixture.py runs during the tests with the label "servers".
//
// They serve one folder: empty.bin, one.bin, 1m.bin and 16m.bin of the pattern (see pattern.h; their sizes are
// below), and page.txt.  The nginx ones have further paths, for each method:
//   /redirect/<301|302|303|307|308>/<path>   to /<path>;  /redirect/loop to itself
//   /to-python/<path>                        302 to /<path> of Python, with a short page as its body
//   /unsatisfied                             an empty file; a range gets 416 with "bytes */0"
//   /status/<403|404|416|429|500|503>        an answer with this status
//   /echo                                    200 with the request's body (one line of text) as body
//   /secrets                                 200 with the request's "<Cookie>|<Authorization>" as body
//   /to-https/<path>, /to-http/<path>        302 to https or http, the host's name and <path>
//   /method                                  200 with the request's method as body
//   /private/<path>                          the folder, for user() with password() by Basic authentication
//
// Threads: any.
// Errors:  std::runtime_error when XFER_TEST_SERVERS does not name the fixture's file: then the servers do not run.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace support {

enum class RealServer {
  Nginx,               // HTTP/1.1, ranges, keep-alive
  NginxTls,            // the same with TLS
  NginxH2,             // the same with TLS and HTTP/2
  NginxShortH2,        // the same, 3 requests at once and 20 in all on a connection
  NginxWithoutRanges,  // max_ranges 0: a range gets a 200
  NginxSlow,           // 1 MiB a second and connection
  Apache,              // ranges
  Lighttpd,            // ranges
  Python,              // Python's http.server: HTTP/1.0, no ranges
};

/// Its name, for a parametrised test's.
const char* nameOf(RealServer server);

/// What a server of its own shows: nginx with TLS and HTTP/1.1.
enum class Certificate {
  Valid,       // from the authority in caFile(), for 127.0.0.1 and localhost
  Expired,     // the same, but since yesterday
  OtherHost,   // from the same authority, for other.test only
  SelfSigned,  // for 127.0.0.1 and localhost, from nobody but itself
};

const char* nameOf(Certificate certificate);

class RealServers {
 public:
  static constexpr std::uint64_t kSmallFileBytes = 1 << 20;       // 1m.bin
  static constexpr std::uint64_t kBigFileBytes = (16 << 20) + 7;  // 16m.bin; no multiple of anything

  RealServers();

  /// The server's origin and the path, which starts with "/".
  [[nodiscard]] std::string url(RealServer server, const std::string& path) const;

  [[nodiscard]] std::string url(Certificate certificate, const std::string& path) const;

  /// The authority of the servers above, one that has signed nothing, and a file without any: PEM files, whose paths
  /// hold in every working folder.
  [[nodiscard]] std::string caFile() const;
  [[nodiscard]] std::string otherCaFile() const;
  [[nodiscard]] std::string emptyFile() const;

  /// Names the public key of Certificate::Valid, as libcurl does: "sha256//..."
  [[nodiscard]] std::string pin() const;

  /// The connections (their numbers are unique) that the servers of all certificates were asked over for this path and
  /// query, once for each request that they have answered so far, in the order of the answers' ends.
  [[nodiscard]] std::vector<std::uint64_t> connectionsOf(const std::string& path) const;

  /// The certificate (its own authority, for 127.0.0.1 and localhost) that the TLS servers show, as a PEM file.
  [[nodiscard]] std::string certificateFile() const;

  /// The folder that is served.
  [[nodiscard]] std::string documentRoot() const;

  /// An HTTP proxy on 127.0.0.1 for everybody, and one that wants user() and password() by Basic authentication.
  [[nodiscard]] std::uint16_t proxyPort() const;
  [[nodiscard]] std::uint16_t authProxyPort() const;

  /// An HTTP proxy that reaches Nginx for every http URL and NginxTls behind every CONNECT, whatever host and port
  /// are named.
  [[nodiscard]] std::uint16_t relayProxyPort() const;

  [[nodiscard]] std::string user() const;
  [[nodiscard]] std::string password() const;

 private:
  [[nodiscard]] const std::string& value(const std::string& key) const;
  [[nodiscard]] std::uint16_t port(const std::string& key) const;
  [[nodiscard]] std::string absolutePath(const std::string& key) const;

  std::map<std::string, std::string> values_;
};

}  // namespace support
