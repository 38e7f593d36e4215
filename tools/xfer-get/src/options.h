// Command-line options.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "net/proxy.h"
#include "xfer/download_options.h"

namespace xfer_get {

struct Options {
  std::string url;
  std::string file;  ///< empty: named after the URL
  std::uint16_t connections = 4;
  std::uint64_t bytesPerSec = 0;  ///< 0: unlimited
  std::uint64_t knownSize = 0;    ///< 0: unknown
  xfer::DownloadPlan plan = xfer::DownloadPlan::Adaptive;
  std::optional<std::uint32_t> maxTries;
  std::optional<std::uint32_t> retryMaxSec;
  std::optional<net::Proxy> proxy;  ///< not given: that of the environment; empty host: none
  bool insecure = false;            ///< certificates are not checked
  std::string caFile;               ///< empty: the system's store
  std::string pinnedKey;            ///< empty: any key
  std::string userAgent;            ///< empty: the library's
  std::string cookie;
  std::vector<std::string> headers;
  std::string data;
  bool print = false;
  bool head = false;
  bool info = false;
  bool noRedirect = false;
  bool map = true;
  std::string trace;  ///< file; empty: none
  bool quiet = false;
  int verbosity = 0;
};

/// Parses the arguments (without the program's name).  Nothing when the program should exit: help or an error has been
/// written, and *exitCode is set.
std::optional<Options> parseOptions(std::vector<std::string> arguments, int* exitCode);

}  // namespace xfer_get
