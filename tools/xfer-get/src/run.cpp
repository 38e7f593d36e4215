#include "run.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "downloads.h"
#include "environment_proxy.h"
#include "json_report.h"
#include "keel/keel.h"
#include "options.h"
#include "outcome.h"
#include "path.h"
#include "request.h"
#include "say.h"
#include "target.h"
#include "terminal.h"
#include "text_report.h"

namespace xfer_get {
namespace {

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

std::optional<std::string> environmentVariable(const std::string& name) {
  const char* const value = std::getenv(name.c_str());
  return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
}

// Nothing when it cannot be read.
std::optional<std::string> textOf(const std::string& path) {
  std::ifstream file;
  if (path != "-") file.open(pathOf(path), std::ios::binary);
  std::istream& in = path == "-" ? std::cin : file;
  std::string text(std::istreambuf_iterator<char>(in), {});
  if (path != "-" && (!file.is_open() || file.bad())) return std::nullopt;
  return text;
}

ProxyChoice proxyOf(const Options& options, const std::string& url) {
  return options.proxy ? ProxyChoice{*options.proxy, ""} : proxyFromEnvironment(url, environmentVariable);
}

// What is to be downloaded, with all that can be known to be wrong before the first byte is fetched.
Outcome findTargets(const Options& options, std::vector<Target>* found) {
  Targets listed;
  if (!options.list.empty()) {
    const std::optional<std::string> text = textOf(options.list);
    if (!text) return {kFile, options.list + ": the list of URLs cannot be read"};
    listed = targetsFromList(*text, options.list);
    if (!listed.error.empty()) return {kUsage, listed.error};
  }
  std::optional<ChecksumList> checksums;
  if (!options.checksumFile.empty()) {
    const std::optional<std::string> text = textOf(options.checksumFile);
    if (!text) return {kFile, options.checksumFile + ": the list of checksums cannot be read"};
    std::size_t line = 0;
    checksums = checksumListFromText(*text, &line);
    if (!checksums) return {kUsage, options.checksumFile + ":" + std::to_string(line) + ": no line of a checksum list"};
  }
  Targets targets =
      placeTargets(options, std::move(listed), everyFolderHasDevices(), checksums ? &*checksums : nullptr);
  if (!targets.error.empty()) return {kUsage, targets.error};
  for (Target& target : targets.all) {
    ProxyChoice choice = proxyOf(options, target.url);
    if (!choice.error.empty()) return {kUsage, choice.error};
    target.proxy = std::move(choice.proxy);
  }
  *found = std::move(targets.all);
  return {};
}

Outcome download(const Options& options) {
  std::vector<Target> targets;
  Outcome outcome = findTargets(options, &targets);
  if (outcome.code != kDone) return outcome;
  if (options.file == "-") return printFile(options, targets.front().proxy, targets.front().checksum);
  std::error_code failure;
  if (!options.folder.empty()) std::filesystem::create_directories(pathOf(options.folder), failure);
  if (failure) return {kFile, options.folder + ": the folder could not be made: " + failure.message()};
  watchSignals();
  std::unique_ptr<Report> report;
  if (options.json) {
    report = std::make_unique<JsonReport>();
  } else {
    report = std::make_unique<TextReport>(options, targets.size());
  }
  const ExitCode code = runDownloads(options, targets, *report);
  if (!report->isGood()) return {kFile, "standard output could not be written"};
  return {code, ""};  // the report has said why
}

Outcome carryOut(const Options& options) {
  if (!options.info && !options.print && !options.head && options.data.empty()) return download(options);
  const ProxyChoice choice = proxyOf(options, options.urls.front());
  if (!choice.error.empty()) return {kUsage, choice.error};
  return options.info ? printInfo(options, choice.proxy) : printAnswer(options, choice.proxy);
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
    if (const int signal = endingSignal(); signal != 0 && outcome.code == kCancelled) return endBySignal(signal);
    return outcome.code;
  } catch (const std::exception& error) {
    say(std::string("internal error: ") + error.what());
    return kInternal;
  }
}

}  // namespace xfer_get
