#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "outcome.h"
#include "proxy_text.h"
#include "size_text.h"

namespace xfer_get {
namespace {

// The parser takes "-1" for a large number.
std::uint64_t bytes(const char* option, const std::string& text, bool unitsAllowed) {
  const auto size = sizeFromText(text, unitsAllowed);
  if (!size) throw CLI::ValidationError(option, "is not a number of bytes: " + text);
  return *size;
}

// What the parser cannot say by itself.
void checkTogether(const Options& options, bool hasData) {
  const bool asks = options.print || options.head || hasData;
  if (hasData && options.data.empty()) throw CLI::ValidationError("--data", "is empty: there is nothing to send");
  if (options.info && hasData) throw CLI::ValidationError("--info", "asks for no body, so it cannot send --data");
  if ((asks || options.info) && !options.file.empty()) {
    throw CLI::ValidationError("FILE", "is for downloads; --print, --head, --info and --data write to standard output");
  }
  if (options.noRedirect && !asks) {
    throw CLI::ValidationError("--no-redirect", "is for --print, --head and --data; a download follows redirects");
  }
}

}  // namespace

std::optional<Options> parseOptions(std::vector<std::string> arguments, int* exitCode) {
  Options options;
  CLI::App app("Downloads a file over several connections at once, or prints what a server answers.", "xfer-get");
  app.add_option("URL", options.url, "http or https")->required();
  app.add_option("FILE", options.file, "where to store it; named after the URL when not given");
  app.add_option("-n,--connections", options.connections, "connections at once")
      ->check(CLI::Range(1, 256))
      ->capture_default_str();
  app.add_option_function<std::string>(
         "-l,--limit-rate",
         [&](const std::string& text) { options.bytesPerSec = bytes("--limit-rate", text, /*unitsAllowed=*/true); },
         "most bytes per second; K, M, G and T are understood")
      ->type_name("BYTES");
  app.add_option_function<std::string>(
         "--known-size",
         [&](const std::string& text) { options.knownSize = bytes("--known-size", text, /*unitsAllowed=*/false); },
         "size of the file in bytes, when it is known; saves the question")
      ->type_name("BYTES");
  app.add_option_function<std::string>(
         "-x,--proxy",
         [&](const std::string& text) {
           const auto proxy = proxyFromText(text);
           if (!proxy)
             throw CLI::ValidationError("--proxy", "is not of the form [user[:password]@]host[:port]: " + text);
           options.proxy = *proxy;
         },
         "[user[:password]@]host[:port]; the port is 80 when not given")
      ->type_name("TEXT");
  app.add_option("-b,--cookie", options.cookie, "value of the Cookie header");
  app.add_option("-H,--header", options.headers, "a request header line \"Name: value\"; may be repeated")
      ->allow_extra_args(false);
  auto* const print = app.add_flag("-p,--print", options.print, "print the answer's body instead of storing a file");
  auto* const head = app.add_flag("-I,--head", options.head, "print the answer's headers");
  app.add_flag("--info", options.info, "print size, range support and media type")->excludes(print)->excludes(head);
  auto* const data = app.add_option("-d,--data", options.data, "send this as the body of a POST, and print the answer");
  app.add_flag("--no-redirect", options.noRedirect, "do not follow redirects (with --print, --head or --data)");
  auto* const quiet = app.add_flag("-q,--quiet", options.quiet, "write nothing but errors");
  app.add_flag("-v,--verbose", options.verbosity, "log failures; twice: retries too; three times: everything")
      ->excludes(quiet);
  app.set_version_flag("-V,--version", std::string("xfer-get ") + XFER_VERSION);
  app.footer(
      "Exit codes: 0 done, 1 internal error, 2 usage, 3 file, 4 network, 5 HTTP status, 130 cancelled.\n"
      "Progress, messages and the log go to standard error.  A partial file is left where it is.");
  try {
    std::reverse(arguments.begin(), arguments.end());  // the order in which the parser takes a vector
    app.parse(arguments);
    checkTogether(options, data->count() > 0);
  } catch (const CLI::ParseError& error) {
    *exitCode = app.exit(error) == 0 ? kDone : kUsage;
    return std::nullopt;
  }
  return options;
}

}  // namespace xfer_get
