#include "command_rules.h"

#include <algorithm>
#include <array>

#include "command_table.h"

namespace xfer_get {
namespace {

bool has(const CommandLine& line, std::string_view name) {
  return line.given.count(name) > 0;
}

// The states that rules ask for.
constexpr std::string_view kRequest = "(a request)";
constexpr std::string_view kNoPlainRequest = "(no request but --info)";
constexpr std::string_view kNoBody = "(no body is printed)";
constexpr std::string_view kSeveralUrls = "(several URLs)";
constexpr std::string_view kStream = "(standard output)";
constexpr std::string_view kSeveralForStream = "(several connections to standard output)";
constexpr std::string_view kStatedPlan = "(stated plan)";

struct State {
  std::string_view name;
  bool (*holds)(const CommandLine& line);
};

bool printsBody(const CommandLine& line) {
  return has(line, "print") || has(line, "data");
}

bool streams(const CommandLine& line) {
  return line.options.file == "-";
}

constexpr std::array<State, 7> kStates{{
    {kRequest, [](const CommandLine& line) { return printsBody(line) || has(line, "head") || has(line, "info"); }},
    {kNoPlainRequest, [](const CommandLine& line) { return !printsBody(line) && !has(line, "head"); }},
    {kNoBody, [](const CommandLine& line) { return !printsBody(line); }},
    {kSeveralUrls, [](const CommandLine& line) { return line.options.urls.size() > 1 || has(line, "input-file"); }},
    {kStream, streams},
    {kSeveralForStream, [](const CommandLine& line) { return streams(line) && line.options.connections > 1; }},
    {kStatedPlan, [](const CommandLine& line) { return line.options.plan == xfer::DownloadPlan::Stated; }},
}};

bool holds(const CommandLine& line, std::string_view what) {
  const auto* const state =
      std::find_if(kStates.begin(), kStates.end(), [&](const State& one) { return one.name == what; });
  return state != kStates.end() ? state->holds(line) : has(line, what);
}

constexpr std::string_view kForDownloads =
    "is for downloads; --print, --head, --info and --data write to standard output";

// Refuses subject when other is there too: an option's name, kFileArgument, or a state.
struct Rule {
  std::string_view subject;
  std::string_view other;
  std::string_view words;  // follow the subject's name
};

// The first one that is broken is told.
constexpr std::array<Rule, 22> kRules{{
    {"info", "print", "cannot go with --print"},
    {"info", "head", "cannot go with --head"},
    {"info", "data", "cannot go with --data"},
    {"head", "data", "cannot go with --data, which sends a POST"},
    {"head", "print", "cannot go with --print, as its answer has no body; --print --include prints headers and body"},
    {"include", kNoBody, "is for --print and --data"},
    {"no-redirect", kNoPlainRequest, "is for --print, --head and --data; a download follows redirects"},
    {"header", "info", "cannot go with --info, which sends no further headers"},
    {"connect-timeout", "info", "cannot go with --info, whose time --max-time limits"},
    {"stall-timeout", "info", "cannot go with --info, whose time --max-time limits"},
    {kFileArgument, kRequest, kForDownloads},
    {"output", kFileArgument, "cannot go with FILE, which means the same"},
    {kFileArgument, kSeveralUrls, "is for one URL: use -P DIR"},
    {"output", kSeveralUrls, "is for one URL: use -P DIR"},
    {"checksum", kSeveralUrls, "is for one URL: use --checksum-file FILE"},
    {"checksum", "checksum-file", "cannot go with --checksum-file"},
    {"connections", kSeveralForStream, "cannot go with -o -, which has one connection"},
    {"max-tries", kStatedPlan, "cannot go with --plan stated, whose tries are fixed"},
    {"retry-max-time", kStatedPlan, "cannot go with --plan stated, whose tries are fixed"},
    {"cacert", "insecure", "cannot go with --insecure, which checks no certificate"},
    {"quiet", "verbose", "cannot go with --verbose"},
    {"json", "quiet", "cannot go with --quiet"},
}};

std::string sentence(std::string_view subject, std::string_view words) {
  return (subject == kFileArgument ? "" : "--") + std::string(subject) + " " + std::string(words);
}

std::string brokenScope(const CommandLine& line, const OptionRow& row) {
  if (!has(line, row.name)) return "";
  if (row.scope.downloads && holds(line, kRequest)) return sentence(row.name, kForDownloads);
  if (row.scope.oneUrl && holds(line, kSeveralUrls)) return sentence(row.name, "is for one URL");
  if (row.scope.files && holds(line, kStream)) return sentence(row.name, "cannot go with -o -, which stores no file");
  return "";
}

}  // namespace

std::string brokenRule(const CommandLine& line) {
  for (const Rule& rule : kRules) {
    if (holds(line, rule.subject) && holds(line, rule.other)) return sentence(rule.subject, rule.words);
  }
  for (const OptionRow& row : optionRows()) {
    if (std::string broken = brokenScope(line, row); !broken.empty()) return broken;
  }
  return "";
}

}  // namespace xfer_get
