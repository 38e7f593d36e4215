// What the command line asks for.
//
// Units: bytes, bytes per second, seconds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "checksum.h"
#include "net/proxy.h"
#include "xfer/download_options.h"

namespace xfer_get {

struct Options {
  // What is fetched.
  std::vector<std::string> urls;  ///< in the order in which they were given; those of list come behind them
  std::string list;               ///< file with one URL a line, "-": standard input; empty: none

  // Where it goes.
  std::string file;        ///< for one URL; empty: named after it; "-": standard output
  std::string folder;      ///< made when it is missing; empty: the current one
  bool overwrite = false;  ///< a file of that name is replaced; else another name is taken

  // How.
  std::uint32_t jobs = 3;         ///< downloads at once
  std::uint16_t connections = 4;  ///< of each download
  std::uint64_t bytesPerSec = 0;  ///< of all downloads together; 0: unlimited
  std::uint64_t knownSize = 0;    ///< 0: unknown
  xfer::DownloadPlan plan = xfer::DownloadPlan::Adaptive;

  // When to give up.  Not given: the library's values.
  std::optional<std::uint32_t> maxTries;
  std::optional<std::uint32_t> retryMaxSec;
  std::optional<std::uint32_t> connectTimeoutSec;
  std::optional<std::uint32_t> stallTimeoutSec;  ///< a connection that brings next to nothing for so long is given up
  std::uint32_t maxTimeSec = 0;                  ///< for each URL, all tries together; 0: none

  // What is believed.
  bool insecure = false;             ///< certificates are not checked
  std::string caFile;                ///< empty: the system's store
  std::string pinnedKey;             ///< empty: any key
  std::optional<Checksum> checksum;  ///< of one URL's file
  std::string checksumFile;          ///< lines "HEX  NAME"; empty: none

  // What is sent.
  std::optional<net::Proxy> proxy;  ///< not given: that of the environment; empty host: none
  std::string userAgent;            ///< empty: the library's
  std::string cookie;
  std::vector<std::string> headers;
  std::string data;  ///< sent as the body of a POST; empty: none

  // Instead of a download, for one URL.
  bool print = false;    ///< the body goes to standard output
  bool include = false;  ///< and the headers before it
  bool head = false;     ///< asked for with HEAD, the headers go to standard output
  bool info = false;     ///< size, ranges and media type
  bool noRedirect = false;

  // What is shown.
  bool map = true;
  bool json = false;  ///< one object a line on standard output, nothing else
  std::string trace;  ///< file; empty: none
  bool quiet = false;
  int verbosity = 0;
};

/// Parses the arguments (without the program's name).  Nothing when the program should exit: help, a version or an
/// error has been written, and *exitCode is set.
std::optional<Options> parseOptions(std::vector<std::string> arguments, int* exitCode);

}  // namespace xfer_get
