#include "run.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "environment_proxy.h"
#include "file_map.h"
#include "file_name.h"
#include "keel/keel.h"
#include "options.h"
#include "outcome.h"
#include "progress.h"
#include "terminal.h"
#include "trace_file.h"
#include "xfer/xfer.hpp"

namespace xfer_get {
namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kRedraw = std::chrono::milliseconds(200);
constexpr auto kPlainLine = std::chrono::seconds(5);
constexpr std::uint64_t kInterruptLookMs = 20;

void say(const std::string& text) {
  std::fprintf(stderr, "xfer-get: %s\n", text.c_str());
}

void writeRecord(void* /*context*/, std::uint32_t level, const char* tag, const char* text, const char* /*file*/,
                 std::uint32_t line) {
  const char* const word = level <= 3 ? "error" : level <= 4 ? "note" : "trace";
  std::fprintf(stderr, "%s %s:%u  %s\n", word, tag != nullptr ? tag : "-", line, text);
}

void startLog(int verbosity) {
  if (verbosity <= 0) return;
  Keel::setLogThreshold(verbosity == 1 ? 4 : 6);
  Keel::setRecordSink(writeRecord, nullptr);
}

// Shows a running download: redraws a line and a map below it on a terminal; prints a line every few seconds elsewhere
// and with a log.
class Display {
 public:
  explicit Display(const Options& options)
      : quiet_(options.quiet), redraws_(options.verbosity == 0), map_(options.map), connections_(options.connections) {}

  void show(const xfer::DownloadJob& job) { show(job, map_); }

  void end(const xfer::DownloadJob& job) {
    if (!drawn_) return;
    show(job, /*map=*/false);
    std::fputc('\n', stderr);
  }

 private:
  using Lines = std::vector<std::string>;

  void show(const xfer::DownloadJob& job, bool map) {
    if (quiet_) return;
    const xfer::DownloadSnapshot snapshot = job.snapshot();
    const xfer::DownloadDetails details = job.details();
    const FileParts parts{snapshot.totalBytes, details.ranges(), details.missing()};
    const std::uint64_t nextTryMs = parts.ranges.empty() ? details.hostLeftAloneMs() : 0;
    if (const TerminalSize terminal = redraws_ ? terminalSize() : TerminalSize(); terminal.columns > 0) {
      const unsigned columns = terminal.columns - 1;
      const unsigned rows = map && terminal.rows > 1 ? terminal.rows - 1 : 0;
      draw(progressLine(snapshot, connections_, columns, nextTryMs), mapLines(parts, columns, rows), columns);
    } else if (const auto now = Clock::now(); now >= nextPlain_) {
      nextPlain_ = now + kPlainLine;
      say(plainLine(snapshot, connections_, nextTryMs));
    }
  }

  // The cursor stays on the progress line, so that whatever else is written begins there.
  void draw(const std::string& progress, const Lines& below, std::size_t columns) {
    std::string text = "\r" + progress + std::string(columns - progress.size(), ' ');
    for (const std::string& line : below) text += "\n\r" + line + "\x1b[K";
    if (linesBelow_ > below.size()) text += below.empty() ? "\x1b[J" : "\n\r\x1b[J\x1b[A";
    if (!below.empty()) text += "\x1b[" + std::to_string(below.size()) + "A\r";
    linesBelow_ = below.size();
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
    drawn_ = true;
  }

  bool quiet_;
  bool redraws_;
  bool map_;
  unsigned connections_;
  bool drawn_ = false;
  std::size_t linesBelow_ = 0;
  Clock::time_point nextPlain_ = Clock::now() + std::chrono::seconds(1);  // the speed is unknown before
};

// Empty when url gives no usable file name.
std::string nameFor(const std::string& url) {
  std::string name = fileNameFromUrl(url);
  if (everyFolderHasDevices() && namesDeviceOfWindows(name)) name.clear();
  return name;
}

// What every way to a server has.  Abilities: DownloadOptions or FetchOptions.
template <class Abilities>
void setCommon(Abilities& abilities, const Options& options) {
  abilities.setVerifyPeer(!options.insecure).setCaFile(options.caFile).setPinnedKey(options.pinnedKey);
  abilities.setUserAgent(options.userAgent);
}

Outcome download(const Options& options, const net::Proxy& proxy) {
  xfer::DownloadRequest request;
  request.url = options.url;
  request.path = options.file.empty() ? nameFor(options.url) : options.file;
  if (request.path.empty()) return {kUsage, "the URL gives no usable file name: name the file"};
  request.cookie = options.cookie;
  request.headers = options.headers;
  request.proxy = proxy;
  request.knownSize = options.knownSize;
  xfer::DownloadPolicy policy;
  policy.numThreads = options.connections;

  const std::string path = request.path;
  if (options.trace == path) return {kUsage, "--trace: this is the file of the download: " + path};
  std::optional<TraceFile> trace;
  if (!options.trace.empty()) trace.emplace(options.trace);
  Outcome noTrace = {kFile, "the trace could not be written: " + options.trace};
  if (trace && !trace->isGood()) return noTrace;
  Display display(options);
  const auto begin = Clock::now();
  xfer::DownloadOptions abilities;
  setCommon(abilities, options);
  abilities.setPlan(options.plan);
  if (options.maxTries) abilities.setMaxTries(*options.maxTries);
  if (options.retryMaxSec) abilities.setRetryMaxTime(*options.retryMaxSec);
  if (trace) abilities.setHistory(TraceFile::kEvents);
  xfer::DownloadJob job(std::move(request), policy, abilities);
  if (options.bytesPerSec != 0) job.setSpeedLimit(options.bytesPerSec);
  job.start();
  auto next = begin;
  do {
    if (interrupted()) job.cancel();
    if (trace) trace->follow(job);
    if (Clock::now() < next) continue;
    display.show(job);
    next = Clock::now() + kRedraw;
  } while (!job.waitFor(kInterruptLookMs));
  const xfer::DownloadSnapshot snapshot = job.snapshot();
  display.end(job);
  Outcome outcome = downloadOutcome(snapshot);
  if (outcome.code == kFile) outcome.message += ": " + path;
  if (outcome.code == kDone && !options.quiet) {
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    const auto average =
        static_cast<std::uint64_t>(static_cast<double>(snapshot.bytesDone) / (seconds > 0 ? seconds : 1));
    say(path + ": " + sizeText(snapshot.bytesDone) + " at " + sizeText(average) + "/s");
  }
  if (trace) trace->end(job);
  return trace && !trace->isGood() && outcome.code == kDone ? noTrace : outcome;
}

bool print(const std::string& bytes) {
  return std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size() && std::fflush(stdout) == 0;
}

Outcome ask(const Options& options, const net::Proxy& proxy) {
  xfer::Request request;
  request.url = options.url;
  request.cookie = options.cookie;
  request.headers = options.headers;
  request.proxy = proxy;
  request.body = options.data;
  request.followRedirects = !options.noRedirect;
  request.timeoutSec = 0;
  xfer::FetchOptions abilities;
  setCommon(abilities, options);
  const xfer::Response response = xfer::fetch(request, abilities);
  const bool body = options.print || !options.head;
  if ((options.head && !print(response.headers)) || (body && !print(response.body))) {
    return {kFile, "standard output could not be written"};
  }
  return responseOutcome(response);
}

Outcome inform(const Options& options, const net::Proxy& proxy) {
  constexpr int kTimeoutSec = 30;
  xfer::FetchOptions abilities;
  setCommon(abilities, options);
  const xfer::RemoteFileInfo info = xfer::probeRemoteFile(options.url, proxy, options.cookie, kTimeoutSec, abilities);
  Outcome outcome = infoOutcome(info);
  if (outcome.code != kDone) return outcome;
  const bool written = print("size: " + (info.size != 0 ? std::to_string(info.size) : std::string("unknown")) +
                             "\nranges: " + (info.acceptRanges ? "yes" : "no") + "\ntype: " +
                             (info.contentType.empty() ? std::string("unknown") : info.contentType) + "\n");
  return written ? outcome : Outcome{kFile, "standard output could not be written"};
}

std::optional<std::string> environmentVariable(const std::string& name) {
  const char* const value = std::getenv(name.c_str());
  return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

Outcome carryOut(const Options& options) {
  const ProxyChoice choice =
      options.proxy ? ProxyChoice{*options.proxy, ""} : proxyFromEnvironment(options.url, environmentVariable);
  if (!choice.error.empty()) return {kUsage, choice.error};
  if (options.info) return inform(options, choice.proxy);
  if (options.print || options.head || !options.data.empty()) return ask(options, choice.proxy);
  watchInterrupts();
  return download(options, choice.proxy);
}

}  // namespace

int run(const std::vector<std::string>& arguments) noexcept {
  try {
    int exitCode = kDone;
    const auto options = parseOptions(arguments, &exitCode);
    if (!options) return exitCode;
    prepareStandardOutput();
    startLog(options->verbosity);
    const Outcome outcome = carryOut(*options);
    if (!outcome.message.empty()) say(outcome.message);
    Keel::setRecordSink(nullptr, nullptr);
    return outcome.code;
  } catch (const std::exception& error) {
    say(std::string("internal error: ") + error.what());
    return kInternal;
  }
}

}  // namespace xfer_get
