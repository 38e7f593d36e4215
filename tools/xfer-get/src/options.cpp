#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <string_view>

#include "outcome.h"
#include "proxy_text.h"
#include "size_text.h"

namespace xfer_get {
namespace {

// Not left to the parser, which reads "-1" as a large number.
std::uint64_t bytes(const char* option, const std::string& text, bool unitsAllowed) {
  const auto size = sizeFromText(text, unitsAllowed);
  if (!size) throw CLI::ValidationError(option, "not a number of bytes: " + text);
  return *size;
}

xfer::DownloadPlan planFromText(const std::string& text) {
  if (text == "adaptive") return xfer::DownloadPlan::Adaptive;
  if (text == "stated") return xfer::DownloadPlan::Stated;
  throw CLI::ValidationError("--plan", "neither adaptive nor stated: " + text);
}

// libcurl would take any other text for the name of a file with a key.
std::string pinFromText(const std::string& text) {
  constexpr std::string_view kScheme = "sha256//";
  if (text.rfind(kScheme, 0) == 0 && text.size() > kScheme.size()) return text;
  throw CLI::ValidationError("--pinnedpubkey", "not of the form sha256//BASE64: " + text);
}

void checkHeader(const std::string& line) {
  const auto colon = line.find(':');
  if (colon == 0 || colon == std::string::npos) {
    throw CLI::ValidationError("--header", "not of the form \"Name: value\": " + line);
  }
}

// Rules between options that the parser cannot express, or reports badly.
void checkTogether(const Options& options, bool hasFile, bool hasData,
                   const std::map<std::string, bool>& forDownloads) {
  const bool asks = options.print || options.head || hasData;
  if (hasFile && options.file.empty()) throw CLI::ValidationError("FILE", "empty: leave it out to use the URL's name");
  if (hasData && options.data.empty()) throw CLI::ValidationError("--data", "empty: there is nothing to send");
  if (options.info && asks) throw CLI::ValidationError("--info", "cannot go with --print, --head and --data");
  if (options.info && !options.headers.empty()) {
    throw CLI::ValidationError("--header", "cannot go with --info, which sends no further headers");
  }
  if ((asks || options.info) && hasFile) {
    throw CLI::ValidationError("FILE", "is for downloads; --print, --head, --info and --data write to standard output");
  }
  if (options.noRedirect && !asks) {
    throw CLI::ValidationError("--no-redirect", "is for --print, --head and --data; a download follows redirects");
  }
  if (asks || options.info) {
    for (const auto& [name, given] : forDownloads) {
      if (given) throw CLI::ValidationError(name, "is for downloads");
    }
  } else if (options.plan == xfer::DownloadPlan::Stated) {
    if (options.maxTries)
      throw CLI::ValidationError("--max-tries", "cannot go with --plan stated, whose tries are fixed");
    if (options.retryMaxSec) throw CLI::ValidationError("--retry-max-time", "cannot go with --plan stated");
  }
  if (forDownloads.at("--trace") && options.trace.empty()) throw CLI::ValidationError("--trace", "empty: name a file");
  if (options.quiet && options.verbosity > 0) throw CLI::ValidationError("--quiet", "cannot go with --verbose");
}

}  // namespace

std::optional<Options> parseOptions(std::vector<std::string> arguments, int* exitCode) {
  Options options;
  CLI::App app("Downloads a file over several connections at once, or prints what a server answers.", "xfer-get");
  app.get_formatter()->column_width(32);
  app.failure_message([](const CLI::App*, const CLI::Error& error) {
    return std::string("xfer-get: ") + error.what() + "\nRun xfer-get --help for more information.\n";
  });
  app.add_option("URL", options.url, "http or https")->required();
  auto* const file = app.add_option("FILE", options.file,
                                    "where to store it, replacing what is there; named after the URL when not given");
  app.add_option("-n,--connections", options.connections, "most connections at once")
      ->check(CLI::Range(1, 256).description(""))
      ->type_name("1..256")
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
  auto* const plan =
      app.add_option_function<std::string>(
             "--plan", [&](const std::string& text) { options.plan = planFromText(text); },
             "adaptive: ranges move from slow connections to fast ones (when not given); stated: ranges are fixed")
          ->type_name("adaptive|stated");
  auto* const maxTries = app.add_option("--max-tries", options.maxTries,
                                        "give up after so many tries in a row that bring nothing (10 when not given)")
                             ->check(CLI::Range(1, 1000000).description(""))
                             ->type_name("N");
  auto* const retryMax = app.add_option("--retry-max-time", options.retryMaxSec,
                                        "give up when nothing has arrived for so long; 0: never (when not given)")
                             ->check(CLI::Range(0, 1000000000).description(""))
                             ->type_name("SECONDS");
  app.add_option_function<std::string>(
         "-x,--proxy",
         [&](const std::string& text) {
           options.proxy = text.empty() ? net::Proxy{} : proxyFromText(text);
           if (!options.proxy) throw CLI::ValidationError("--proxy", "not of the form [user[:password]@]host[:port]");
         },
         "[user[:password]@]host[:port]; the port is 80 when not given; \"\" is none")
      ->type_name("PROXY");
  auto* const insecure = app.add_flag("-k,--insecure", options.insecure, "do not check the server's certificate");
  auto* const caFile =
      app.add_option("--cacert", options.caFile, "trust the certificates in FILE (PEM) instead of the system's")
          ->type_name("FILE");
  app.add_option_function<std::string>(
         "--pinnedpubkey", [&](const std::string& text) { options.pinnedKey = pinFromText(text); },
         "the server's key must have this digest: sha256//BASE64, several separated by ;")
      ->type_name("DIGEST");
  app.add_option("-A,--user-agent", options.userAgent, "value of the User-Agent header")->type_name("TEXT");
  app.add_option("-b,--cookie", options.cookie, "value of the Cookie header");
  app.add_option("-H,--header", options.headers, "a request header line \"Name: value\"; may be repeated")
      ->type_name("LINE")
      ->allow_extra_args(false);
  app.add_flag("-p,--print", options.print, "print the answer's body instead of storing a file");
  app.add_flag("-I,--head", options.head, "print the answer's headers; with --print both");
  app.add_flag("--info", options.info, "print size, range support and media type");
  auto* const data = app.add_option("-d,--data", options.data, "send this as the body of a POST, and print the answer");
  app.add_flag("--no-redirect", options.noRedirect, "do not follow redirects (with --print, --head or --data)");
  auto* const noMap = app.add_flag_callback(
      "--no-map", [&] { options.map = false; }, "draw no map of the file and its connections on a terminal");
  auto* const trace =
      app.add_option("--trace", options.trace, "write what each connection does to FILE, for a trace viewer")
          ->type_name("FILE");
  app.add_flag("-q,--quiet", options.quiet, "write nothing but errors");
  app.add_flag("-v,--verbose", options.verbosity, "log failures, retries and replaced connections; twice: everything");
  app.set_version_flag("-V,--version", std::string("xfer-get ") + XFER_VERSION);
  app.footer(
      "Exit codes: 0 done, 1 internal error, 2 usage, 3 file, 4 network, 5 HTTP status,\n"
      "6 certificate or key refused, 130 cancelled.\n"
      "Without -x the environment names the proxy for URL, redirects included: http_proxy for http; https_proxy or\n"
      "HTTPS_PROXY for https; else all_proxy or ALL_PROXY; none for the hosts in no_proxy or NO_PROXY.\n"
      "The map below the progress: # is there, > is where a connection writes, - is asked for, . is missing.\n"
      "Progress, messages and the log go to standard error.  A download that fails or is cancelled\n"
      "may leave a partial file, which has the size of the whole one.");
  try {
    std::reverse(arguments.begin(), arguments.end());  // the parser expects reverse order
    app.parse(arguments);
    for (const std::string& line : options.headers) checkHeader(line);
    if (caFile->count() > 0 && options.caFile.empty()) throw CLI::ValidationError("--cacert", "empty: name a file");
    if (caFile->count() > 0 && insecure->count() > 0) {
      throw CLI::ValidationError("--cacert", "cannot go with --insecure, which checks no certificate");
    }
    checkTogether(options, file->count() > 0, data->count() > 0,
                  {{"--plan", plan->count() > 0},
                   {"--no-map", noMap->count() > 0},
                   {"--trace", trace->count() > 0},
                   {"--max-tries", maxTries->count() > 0},
                   {"--retry-max-time", retryMax->count() > 0}});
  } catch (const CLI::ParseError& error) {
    *exitCode = app.exit(error) == 0 ? kDone : kUsage;
    return std::nullopt;
  }
  return options;
}

}  // namespace xfer_get
