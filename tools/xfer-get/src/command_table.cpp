#include "command_table.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <optional>

#include "proxy_text.h"
#include "size_text.h"

namespace xfer_get {
namespace {

using Group = OptionGroup;
using Kind = ArgumentKind;

constexpr std::uint32_t kLongestSec = 2'147'483;  // libcurl counts in milliseconds, of 31 bits
constexpr std::uint32_t kLongestRetrySec = 1'000'000'000;
constexpr OptionScope kDownloads{.downloads = true};
constexpr OptionScope kStoredFiles{.downloads = true, .files = true};
constexpr OptionScope kOneDownload{.downloads = true, .oneUrl = true};
constexpr OptionScope kOneStoredFile{.downloads = true, .oneUrl = true, .files = true};
constexpr OptionScope kOneUrl{.oneUrl = true};

template <bool Options::*flag>
std::string set(Options& options, const std::string& /*none*/) {
  options.*flag = true;
  return "";
}

template <std::string Options::*text>
std::string takeText(Options& options, const std::string& argument) {
  options.*text = argument;
  return "";
}

template <std::string Options::*text>
std::string takeName(Options& options, const std::string& argument) {
  options.*text = argument;
  return argument.empty() ? "empty: give a name" : "";
}

// Not left to the parser, which reads "-1" as a large number.
template <auto number, std::uint32_t least, std::uint32_t most>
std::string takeNumber(Options& options, const std::string& argument) {
  std::uint32_t value = 0;
  const char* const last = argument.data() + argument.size();
  const auto [end, error] = std::from_chars(argument.data(), last, value);
  const bool whole = error == std::errc() && end == last;
  if (!whole || value < least || value > most) {
    const std::string range = "a number from " + std::to_string(least) + " to " + std::to_string(most);
    return argument.empty() ? "empty: give " + range : "not " + range + ": " + argument;
  }
  auto& field = options.*number;
  if constexpr (std::is_same_v<decltype(field), std::uint16_t&>) {
    static_assert(most <= std::numeric_limits<std::uint16_t>::max());
    field = static_cast<std::uint16_t>(value);
  } else {
    field = value;
  }
  return "";
}

template <std::uint64_t Options::*size, bool unitsAllowed>
std::string takeBytes(Options& options, const std::string& argument) {
  const auto bytes = sizeFromText(argument, unitsAllowed);
  if (!bytes) return argument.empty() ? "empty: give a number of bytes" : "not a number of bytes: " + argument;
  options.*size = *bytes;
  return "";
}

std::string takePlan(Options& options, const std::string& argument) {
  if (argument != "adaptive" && argument != "stated") return "neither adaptive nor stated: " + argument;
  options.plan = argument == "adaptive" ? xfer::DownloadPlan::Adaptive : xfer::DownloadPlan::Stated;
  return "";
}

// libcurl would take any other text for the name of a file with a key.
std::string takePin(Options& options, const std::string& argument) {
  constexpr std::string_view kScheme = "sha256//";
  if (!argument.starts_with(kScheme) || argument.size() == kScheme.size()) {
    return "not of the form sha256//BASE64: " + argument;
  }
  options.pinnedKey = argument;
  return "";
}

std::string takeChecksum(Options& options, const std::string& argument) {
  options.checksum = checksumFromText(argument);
  if (options.checksum) return "";
  return "not ALGO=HEX with ALGO sha256, sha512, sha1 or md5 and all of its digits: " + argument;
}

// The text may hold a password: it is not repeated.
std::string takeProxy(Options& options, const std::string& argument) {
  options.proxy = argument.empty() ? net::Proxy{} : proxyFromText(argument);
  return options.proxy ? "" : "not of the form [user[:password]@]host[:port]";
}

std::string takeHeader(Options& options, const std::string& argument) {
  const auto colon = argument.find(':');
  if (colon == 0 || colon == std::string::npos) return "not of the form \"Name: value\": " + argument;
  options.headers.push_back(argument);
  return "";
}

std::string takeData(Options& options, const std::string& argument) {
  options.data = argument;
  return argument.empty() ? "empty: there is nothing to send" : "";
}

std::string noMap(Options& options, const std::string& /*none*/) {
  options.map = false;
  return "";
}

std::string moreWords(Options& options, const std::string& /*none*/) {
  ++options.verbosity;
  return "";
}

constexpr std::array kRows{
    OptionRow{.group = Group::Output,
              .letter = 'o',
              .name = "output",
              .argument = "FILE",
              .words = "store the file as FILE; \"-\": standard output",
              .more =
                  "FILE behind the URL means the same.  Without both the file is named after the URL.  What goes to "
                  "standard output comes over one connection.",
              .kind = Kind::File,
              .scope = kOneDownload,
              .take = takeName<&Options::file>},
    OptionRow{.group = Group::Output,
              .letter = 'P',
              .name = "directory",
              .argument = "DIR",
              .words = "store files in DIR, which is made when missing",
              .kind = Kind::Folder,
              .scope = kStoredFiles,
              .take = takeName<&Options::folder>},
    OptionRow{.group = Group::Output,
              .name = "overwrite",
              .words = "replace a file that has the name already; else another name is taken",
              .scope = kStoredFiles,
              .take = set<&Options::overwrite>},

    OptionRow{.group = Group::SeveralFiles,
              .letter = 'i',
              .name = "input-file",
              .argument = "LIST",
              .words = "download the URLs in the file LIST, one a line; \"-\": standard input",
              .more = "They come behind the URLs of the command line.",
              .kind = Kind::File,
              .scope = kDownloads,
              .take = takeName<&Options::list>},
    OptionRow{.group = Group::SeveralFiles,
              .letter = 'j',
              .name = "jobs",
              .argument = "N",
              .words = "downloads at once, 1 to 64 (default: 3)",
              .scope = kDownloads,
              .take = takeNumber<&Options::jobs, 1, 64>},

    OptionRow{.group = Group::Speed,
              .letter = 'n',
              .name = "connections",
              .argument = "N",
              .words = "connections a download, 1 to 256 (default: 4)",
              .scope = kDownloads,
              .take = takeNumber<&Options::connections, 1, 256>},
    OptionRow{.group = Group::Speed,
              .letter = 'l',
              .name = "limit-rate",
              .argument = "BYTES",
              .words = "most bytes per second, of all downloads together; K, M, G and T are understood",
              .more = "K is 1024 bytes, and so on.  0 is no limit.",
              .scope = kDownloads,
              .take = takeBytes<&Options::bytesPerSec, true>},
    OptionRow{.group = Group::Speed,
              .name = "known-size",
              .argument = "BYTES",
              .words = "size of the file, when it is known; saves a question",
              .scope = kOneStoredFile,
              .take = takeBytes<&Options::knownSize, false>},
    OptionRow{.group = Group::Speed,
              .name = "plan",
              .argument = "PLAN",
              .words = "adaptive: ranges move from slow connections to fast ones (default); stated: ranges are fixed",
              .kind = Kind::Choice,
              .choices = "adaptive stated",
              .scope = kStoredFiles,
              .take = takePlan},

    OptionRow{.group = Group::GivingUp,
              .name = "connect-timeout",
              .argument = "SECONDS",
              .words = "give up a connection that takes longer to make",
              .take = takeNumber<&Options::connectTimeoutSec, 1, kLongestSec>},
    OptionRow{.group = Group::GivingUp,
              .name = "stall-timeout",
              .argument = "SECONDS",
              .words = "give up a connection that brings next to nothing for so long; 0: never",
              .take = takeNumber<&Options::stallTimeoutSec, 0, kLongestSec>},
    OptionRow{.group = Group::GivingUp,
              .letter = 'm',
              .name = "max-time",
              .argument = "SECONDS",
              .words = "give up a URL after so long, all tries together; 0: never (default)",
              .take = takeNumber<&Options::maxTimeSec, 0, kLongestSec>},
    OptionRow{.group = Group::GivingUp,
              .letter = 't',
              .name = "max-tries",
              .alias = "tries",
              .argument = "N",
              .words = "give up after so many tries in a row that bring nothing (default: 10)",
              .scope = kStoredFiles,
              .take = takeNumber<&Options::maxTries, 1, 1'000'000>},
    OptionRow{.group = Group::GivingUp,
              .name = "retry-max-time",
              .argument = "SECONDS",
              .words = "give up when nothing has arrived for so long; 0: never (default)",
              .scope = kStoredFiles,
              .take = takeNumber<&Options::retryMaxSec, 0, kLongestRetrySec>},

    OptionRow{.group = Group::Trust,
              .letter = 'k',
              .name = "insecure",
              .words = "do not check the server's certificate",
              .take = set<&Options::insecure>},
    OptionRow{.group = Group::Trust,
              .name = "cacert",
              .argument = "FILE",
              .words = "trust the certificates in FILE (PEM) instead of the system's",
              .kind = Kind::File,
              .take = takeName<&Options::caFile>},
    OptionRow{.group = Group::Trust,
              .name = "pinnedpubkey",
              .argument = "DIGEST",
              .words = "the server's key must have this digest: sha256//BASE64, several separated by ;",
              .take = takePin},
    OptionRow{.group = Group::Trust,
              .name = "checksum",
              .argument = "ALGO=HEX",
              .words = "the file must have this checksum; ALGO: sha256, sha512, sha1 or md5",
              .kind = Kind::Beginning,
              .choices = "sha256= sha512= sha1= md5=",
              .scope = kOneDownload,
              .take = takeChecksum},
    OptionRow{.group = Group::Trust,
              .name = "checksum-file",
              .argument = "FILE",
              .words = "files must have the checksums that FILE lists, lines \"HEX NAME\"",
              .more = "This is what sha256sum and its kin write.",
              .kind = Kind::File,
              .scope = kDownloads,
              .take = takeName<&Options::checksumFile>},

    OptionRow{.group = Group::Request,
              .letter = 'x',
              .name = "proxy",
              .argument = "PROXY",
              .words = "proxy: [user[:password]@]host[:port], port 80 when not given; \"\": none",
              .more = "It counts instead of the environment's.",
              .take = takeProxy},
    OptionRow{.group = Group::Request,
              .letter = 'A',
              .name = "user-agent",
              .argument = "TEXT",
              .words = "value of the User-Agent header",
              .take = takeText<&Options::userAgent>},
    OptionRow{.group = Group::Request,
              .letter = 'b',
              .name = "cookie",
              .argument = "TEXT",
              .words = "value of the Cookie header",
              .take = takeText<&Options::cookie>},
    OptionRow{.group = Group::Request,
              .letter = 'H',
              .name = "header",
              .argument = "LINE",
              .words = "a request header line \"Name: value\"; may be repeated",
              .repeats = true,
              .take = takeHeader},
    OptionRow{.group = Group::Request,
              .letter = 'd',
              .name = "data",
              .argument = "TEXT",
              .words = "send TEXT as the body of a POST, and print the answer's body",
              .scope = kOneUrl,
              .take = takeData},
    OptionRow{.group = Group::Request,
              .name = "no-redirect",
              .words = "do not follow redirects (with --print, --head or --data)",
              .take = set<&Options::noRedirect>},

    OptionRow{.group = Group::Instead,
              .letter = 'p',
              .name = "print",
              .words = "print the answer's body, and store no file",
              .scope = kOneUrl,
              .take = set<&Options::print>},
    OptionRow{.group = Group::Instead,
              .name = "include",
              .words = "print the answer's headers before its body (with --print or --data)",
              .take = set<&Options::include>},
    OptionRow{.group = Group::Instead,
              .letter = 'I',
              .name = "head",
              .words = "ask for headers alone (HEAD), and print them",
              .scope = kOneUrl,
              .take = set<&Options::head>},
    OptionRow{.group = Group::Instead,
              .name = "info",
              .words = "print size, range support and media type",
              .scope = kOneUrl,
              .take = set<&Options::info>},

    OptionRow{.group = Group::Display,
              .name = "json",
              .words = "write what happens to standard output, one JSON object a line",
              .scope = kStoredFiles,
              .take = set<&Options::json>},
    OptionRow{.group = Group::Display,
              .name = "no-map",
              .words = "draw no map of the file and its connections",
              .more = "On a terminal there is one below the progress: # is there, > is where a connection writes, - is "
                      "asked for, . is missing.",
              .scope = kDownloads,
              .take = noMap},
    OptionRow{.group = Group::Display,
              .name = "trace",
              .argument = "FILE",
              .words = "write what each connection does to FILE, for a trace viewer",
              .kind = Kind::File,
              .scope = kOneStoredFile,
              .take = takeName<&Options::trace>},
    OptionRow{.group = Group::Display,
              .letter = 'q',
              .name = "quiet",
              .words = "write nothing but errors",
              .take = set<&Options::quiet>},
    OptionRow{.group = Group::Display,
              .letter = 'v',
              .name = "verbose",
              .words = "log failures, retries and replaced connections; twice: everything",
              .repeats = true,
              .take = moreWords},
    OptionRow{.group = Group::Display, .letter = 'h', .name = "help", .words = "print a summary of the options"},
    OptionRow{.group = Group::Display, .letter = 'V', .name = "version", .words = "print the version"},
};

static_assert(std::is_sorted(kRows.begin(), kRows.end(),
                             [](const OptionRow& one, const OptionRow& other) { return one.group < other.group; }));

constexpr std::array<Explained, 9> kExitCodes{{
    {"0", "done"},
    {"1", "internal error", "An internal error: no memory, no threads, or a fault of the program."},
    {"2", "usage", "The command line cannot be carried out."},
    {"3", "file", "A file could not be read or written."},
    {"4", "network", "No connection could be made or kept, or what arrived does not fit together."},
    {"5", "HTTP status", "The server answered with an HTTP status that tells of an error."},
    {"6", "certificate or key refused", "The server's certificate or key is refused."},
    {"7", "checksum differs", "A file does not have the checksum that it is to have."},
    {"129, 130 and 143", "ended by a signal", "Ended by SIGHUP, SIGINT (Ctrl-C) or SIGTERM."},
}};

constexpr std::array<Explained, 5> kVariables{{
    {"http_proxy", "the proxy for http URLs, redirects included"},
    {"https_proxy, HTTPS_PROXY", "the same for https URLs"},
    {"all_proxy, ALL_PROXY", "the proxy where neither is set"},
    {"no_proxy, NO_PROXY", "hosts, addresses and networks that have no proxy, separated by commas; \"*\": all"},
    {"NO_COLOR", "when not empty, nothing is coloured"},
}};

constexpr std::array<Explained, 6> kExamples{{
    {"xfer-get -n 8 https://host/big.bin", "Download a file over eight connections."},
    {"xfer-get -P files -j 2 -i list.txt", "Download the URLs in list.txt into a folder, two at once."},
    {"xfer-get -o - https://host/files.tar | tar -x", "Unpack an archive while it arrives."},
    {"xfer-get --checksum-file SHA256SUMS https://host/a.iso https://host/b.iso",
     "Download two files, and check them by a list."},
    {"xfer-get -p --include https://host/", "Print an answer's headers and body."},
    {"xfer-get --json https://host/big.bin", "Tell another program what happens."},
}};

}  // namespace

std::span<const OptionRow> optionRows() {
  return kRows;
}

std::string_view titleOf(OptionGroup group) {
  constexpr std::array<std::string_view, 8> kTitles{"Output",  "Several files",         "Speed",  "Giving up", "Trust",
                                                    "Request", "Instead of a download", "Display"};
  return kTitles.at(static_cast<std::size_t>(group));
}

std::span<const Explained> exitCodes() {
  return kExitCodes;
}

std::span<const Explained> environmentVariables() {
  return kVariables;
}

std::span<const Explained> commandExamples() {
  return kExamples;
}

}  // namespace xfer_get
