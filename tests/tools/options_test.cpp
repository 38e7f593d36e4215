#include "options.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "command_table.h"
#include "xfer/version.h"

namespace {

using xfer_get::Options;
using Arguments = std::vector<std::string>;

const std::string kUrl = "http://host/file";

struct Parsed {
  std::optional<Options> options;
  int exitCode = -1;
  std::string out;
  std::string err;
};

Parsed parse(const Arguments& arguments) {
  Parsed parsed;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  parsed.options = xfer_get::parseOptions(arguments, &parsed.exitCode);
  parsed.out = testing::internal::GetCapturedStdout();
  parsed.err = testing::internal::GetCapturedStderr();
  return parsed;
}

// Of a command line that is refused.
std::string complaint(const Arguments& arguments) {
  const Parsed parsed = parse(arguments);
  EXPECT_FALSE(parsed.options);
  EXPECT_EQ(parsed.exitCode, 2);
  EXPECT_EQ(parsed.out, "");
  const std::string start = "xfer-get: ";
  const std::string end = "\nRun xfer-get --help for more information.\n";
  const bool framed = parsed.err.starts_with(start) && parsed.err.ends_with(end);
  EXPECT_TRUE(framed) << parsed.err;
  return framed ? parsed.err.substr(start.size(), parsed.err.size() - start.size() - end.size()) : parsed.err;
}

Options accepted(const Arguments& arguments) {
  const Parsed parsed = parse(arguments);
  EXPECT_TRUE(parsed.options) << parsed.err;
  EXPECT_EQ(parsed.out + parsed.err, "");
  return parsed.options.value_or(Options());
}

TEST(Options, urlAloneIsADownload) {
  const Options options = accepted({kUrl});
  EXPECT_EQ(options.urls, Arguments{kUrl});
  EXPECT_EQ(options.file + options.folder + options.list + options.trace + options.checksumFile, "");
  EXPECT_EQ(options.caFile + options.pinnedKey + options.userAgent + options.cookie + options.data, "");
  EXPECT_FALSE(options.print || options.include || options.head || options.info || options.noRedirect);
  EXPECT_FALSE(options.overwrite || options.insecure || options.json || options.quiet);
  EXPECT_TRUE(options.map);
  EXPECT_EQ(options.verbosity, 0);
  EXPECT_EQ(options.bytesPerSec + options.knownSize + options.maxTimeSec, 0U);
  EXPECT_FALSE(options.maxTries || options.retryMaxSec || options.connectTimeoutSec || options.stallTimeoutSec);
  EXPECT_FALSE(options.checksum || options.proxy);
  EXPECT_TRUE(options.headers.empty());
  EXPECT_EQ(options.plan, xfer::DownloadPlan::Adaptive);
}

// Every option by each of its names: what it sets.
TEST(Options, setWhatTheyAreNamedFor) {
  const std::string digits(64, 'a');
  using Check = std::function<bool(const Options&)>;
  const std::vector<std::pair<std::vector<Arguments>, Check>> cases = {
      {{{"-o", "f"}, {"--output", "f"}, {"--output=f"}, {"f"}}, [](const Options& o) { return o.file == "f"; }},
      {{{"-o", "-"}, {"-o-"}, {"-"}}, [](const Options& o) { return o.file == "-"; }},
      {{{"-P", "d"}, {"--directory", "d"}}, [](const Options& o) { return o.folder == "d"; }},
      {{{"--overwrite"}}, [](const Options& o) { return o.overwrite; }},
      {{{"-i", "l"}, {"--input-file", "l"}}, [](const Options& o) { return o.list == "l"; }},
      {{{"-i", "-"}}, [](const Options& o) { return o.list == "-"; }},
      {{{"-j", "1"}, {"--jobs", "1"}}, [](const Options& o) { return o.jobs == 1; }},
      {{{"-j", "64"}}, [](const Options& o) { return o.jobs == 64; }},
      {{{"-n1"}, {"--connections=1"}}, [](const Options& o) { return o.connections == 1; }},
      {{{"-n", "256"}}, [](const Options& o) { return o.connections == 256; }},
      {{{"-l", "5000"}, {"--limit-rate", "5000"}}, [](const Options& o) { return o.bytesPerSec == 5000; }},
      {{{"-l", "20K"}}, [](const Options& o) { return o.bytesPerSec == 20 << 10; }},
      {{{"-l3m"}}, [](const Options& o) { return o.bytesPerSec == 3 << 20; }},
      {{{"--known-size", "7"}}, [](const Options& o) { return o.knownSize == 7; }},
      {{{"--plan", "adaptive"}}, [](const Options& o) { return o.plan == xfer::DownloadPlan::Adaptive; }},
      {{{"--plan", "stated"}}, [](const Options& o) { return o.plan == xfer::DownloadPlan::Stated; }},
      {{{"--connect-timeout", "1"}}, [](const Options& o) { return o.connectTimeoutSec == 1U; }},
      {{{"--stall-timeout", "0"}}, [](const Options& o) { return o.stallTimeoutSec == 0U; }},
      {{{"-m", "9"}, {"--max-time", "9"}}, [](const Options& o) { return o.maxTimeSec == 9; }},
      {{{"--max-time", "2147483"}}, [](const Options& o) { return o.maxTimeSec == 2'147'483; }},
      {{{"-t", "2"}, {"--max-tries", "2"}, {"--tries", "2"}}, [](const Options& o) { return o.maxTries == 2U; }},
      {{{"--retry-max-time", "0"}}, [](const Options& o) { return o.retryMaxSec == 0U; }},
      {{{"-k"}, {"--insecure"}}, [](const Options& o) { return o.insecure; }},
      {{{"--cacert", "ca"}}, [](const Options& o) { return o.caFile == "ca"; }},
      {{{"--pinnedpubkey", "sha256//A;B"}}, [](const Options& o) { return o.pinnedKey == "sha256//A;B"; }},
      {{{"--checksum", "SHA256=" + digits}}, [&](const Options& o) { return o.checksum && o.checksum->hex == digits; }},
      {{{"--checksum-file", "sums"}}, [](const Options& o) { return o.checksumFile == "sums"; }},
      {{{"-x", "u:p@h:3128"}, {"--proxy", "u:p@h:3128"}},
       [](const Options& o) {
         return o.proxy && o.proxy->host == "h" && o.proxy->port == 3128 && o.proxy->username == "u" &&
                o.proxy->password == "p";
       }},
      {{{"-x", ""}, {"--proxy="}}, [](const Options& o) { return o.proxy && o.proxy->host.empty(); }},
      {{{"-A", "a"}, {"--user-agent", "a"}}, [](const Options& o) { return o.userAgent == "a"; }},
      {{{"-b", "c=d"}, {"--cookie", "c=d"}}, [](const Options& o) { return o.cookie == "c=d"; }},
      {{{"-H", "A: 1", "-H", "B: 2, 3"}, {"--header", "A: 1", "--header", "B: 2, 3"}},
       [](const Options& o) {
         return o.headers == Arguments{"A: 1", "B: 2, 3"};
       }},
      {{{"-d", "x"}, {"--data", "x"}}, [](const Options& o) { return o.data == "x"; }},
      {{{"-p", "--no-redirect"}, {"--print", "--no-redirect"}},
       [](const Options& o) { return o.print && o.noRedirect; }},
      {{{"-p", "--include"}}, [](const Options& o) { return o.print && o.include; }},
      {{{"-I"}, {"--head"}}, [](const Options& o) { return o.head; }},
      {{{"--info"}}, [](const Options& o) { return o.info; }},
      {{{"--json"}, {"--json", "-v"}}, [](const Options& o) { return o.json; }},
      {{{"--no-map"}}, [](const Options& o) { return !o.map; }},
      {{{"--trace", "t"}}, [](const Options& o) { return o.trace == "t"; }},
      {{{"-q"}, {"--quiet"}, {"-q", "-q"}, {"-qk"}}, [](const Options& o) { return o.quiet; }},
      {{{"-vvv"}, {"-v", "-vv"}, {"--verbose", "-v", "--verbose"}}, [](const Options& o) { return o.verbosity == 3; }},
  };
  for (const auto& [forms, check] : cases) {
    for (Arguments arguments : forms) {
      const std::string form = testing::PrintToString(arguments);
      arguments.push_back(kUrl);
      EXPECT_TRUE(check(accepted(arguments))) << form;
      std::rotate(arguments.begin(), arguments.end() - 1, arguments.end());
      EXPECT_TRUE(check(accepted(arguments))) << form << " behind the URL";
    }
  }
}

TEST(Options, urlsAreToldFromTheFileByTheirScheme) {
  const Options several = accepted({"HTTP://a", "https://b/x", "-q", "hTtPs://c"});
  EXPECT_EQ(several.urls, (Arguments{"HTTP://a", "https://b/x", "hTtPs://c"}));
  EXPECT_EQ(accepted({"name", kUrl}).file, "name");
  const Options usual = accepted({"https://host/big.bin", "big.bin", "-n", "8"});
  EXPECT_EQ(usual.urls, Arguments{"https://host/big.bin"});
  EXPECT_EQ(usual.file, "big.bin");
  EXPECT_EQ(usual.connections, 8);
  EXPECT_EQ(accepted({"-i", "list"}).urls, Arguments{});
  EXPECT_EQ(accepted({"-i", "list", kUrl}).urls, Arguments{kUrl});
}

// The parser would read these texts as lists, or as options.
TEST(Options, takeTextsAsTheyAre) {
  for (const std::string text : {"{}", "[a,b]", "%%", "-q", "--", "a=b", "=", "/x", "a b", "--x="}) {
    EXPECT_EQ(accepted({"-d", text, kUrl}).data, text);
    EXPECT_EQ(accepted({"-o", text, kUrl}).file, text);
    EXPECT_EQ(accepted({kUrl, "--", text}).file, text);
    EXPECT_EQ(accepted({"--cookie=" + text, kUrl}).cookie, text);
  }
  for (const std::string text : {"[a]", "{}", "/x", "-5", "%%"}) EXPECT_EQ(accepted({kUrl, text}).file, text);
  EXPECT_EQ(accepted({"--", kUrl}).urls, Arguments{kUrl});
}

TEST(Options, thatCannotWorkAreRefusedWithAReason) {
  const std::string size = ": not a number of bytes: ";
  const std::string forDownloads = " is for downloads; --print, --head, --info and --data write to standard output";
  const std::string header = "--header: not of the form \"Name: value\": ";
  const std::string checksum = "--checksum: not ALGO=HEX with ALGO sha256, sha512, sha1 or md5 and all of its digits: ";
  const std::vector<std::pair<Arguments, std::string>> cases = {
      {{}, "name a URL"},
      {{"-q"}, "name a URL"},
      {{"host/file"}, "not an http or https URL: host/file"},
      {{""}, "not an http or https URL: "},
      {{"ftp://x"}, "not an http or https URL: ftp://x"},
      {{"ftp://x", kUrl}, "not an http or https URL: ftp://x"},
      {{kUrl, "name", "more"}, "not an http or https URL: more"},
      {{"-i", "list", "name"}, "not an http or https URL: name"},
      {{"name", "http:/host"}, "not an http or https URL: name"},
      {{kUrl, kUrl, "a", "b"}, "not an http or https URL: a"},
      {{kUrl, kUrl, "name"}, "FILE is for one URL: use -P DIR"},
      {{"-i", "list", kUrl, "name"}, "FILE is for one URL: use -P DIR"},
      {{kUrl, ""}, "FILE is empty: leave it out to use the URL's name"},
      {{kUrl, "name", "-o", "other"}, "--output cannot go with FILE, which means the same"},
      {{kUrl, "name", "-p"}, "FILE" + forDownloads},
      {{kUrl, "name", "-I"}, "FILE" + forDownloads},
      {{kUrl, "name", "-d", "x"}, "FILE" + forDownloads},
      {{kUrl, "name", "--info"}, "FILE" + forDownloads},
      {{"-o", "", kUrl}, "--output: empty: give a name"},
      {{"-P", "", kUrl}, "--directory: empty: give a name"},
      {{"-i", ""}, "--input-file: empty: give a name"},
      {{"--checksum-file", "", kUrl}, "--checksum-file: empty: give a name"},
      {{"--cacert", "", kUrl}, "--cacert: empty: give a name"},
      {{"--trace=", kUrl}, "--trace: empty: give a name"},
      {{"-d", "", kUrl}, "--data: empty: there is nothing to send"},
      {{"-n"}, "--connections: N is missing"},
      {{"--quiet=x", kUrl}, "--quiet: takes no argument"},
      {{"--quiet=", kUrl}, "--quiet: takes no argument"},
      {{kUrl, "--output"}, "--output: FILE is missing"},
      {{"-n", "2", "-n", "3", kUrl}, "--connections: given more than once"},
      {{"-t", "2", "--tries", "3", kUrl}, "--max-tries: given more than once"},
      {{"-l", "fast", kUrl}, "--limit-rate" + size + "fast"},
      {{"-l", "-5", kUrl}, "--limit-rate" + size + "-5"},
      {{"-l", "K", kUrl}, "--limit-rate" + size + "K"},
      {{"-l", "1KK", kUrl}, "--limit-rate" + size + "1KK"},
      {{"-l", "16777216T", kUrl}, "--limit-rate" + size + "16777216T"},
      {{"-l", "", kUrl}, "--limit-rate: empty: give a number of bytes"},
      {{"--known-size", "5K", kUrl}, "--known-size" + size + "5K"},
      {{"--known-size", "-1", kUrl}, "--known-size" + size + "-1"},
      {{"--known-size", "1.5", kUrl}, "--known-size" + size + "1.5"},
      {{"--known-size", "99999999999999999999", kUrl}, "--known-size" + size + "99999999999999999999"},
      {{"--plan", "fast", kUrl}, "--plan: neither adaptive nor stated: fast"},
      {{"-x", "user:secret@proxy:port", kUrl}, "--proxy: not of the form [user[:password]@]host[:port]"},
      {{"--pinnedpubkey", "key.pem", kUrl}, "--pinnedpubkey: not of the form sha256//BASE64: key.pem"},
      {{"--pinnedpubkey", "sha256//", kUrl}, "--pinnedpubkey: not of the form sha256//BASE64: sha256//"},
      {{"--checksum", "sha256=ab", kUrl}, checksum + "sha256=ab"},
      {{"--checksum", "crc=ab", kUrl}, checksum + "crc=ab"},
      {{"-H", "A", kUrl}, header + "A"},
      {{"-H", ": 1", kUrl}, header + ": 1"},
      {{"-H", "A: 1", "-H", "", kUrl}, header},
      {{"--colour", kUrl}, "--colour: there is no such option"},
      {{"--over=1", kUrl}, "--over: there is no such option; did you mean --overwrite?"},
      {{"--conections", "8", kUrl}, "--conections: there is no such option; did you mean --connections?"},
      {{"--treis", "8", kUrl}, "--treis: there is no such option; did you mean --tries?"},
      {{"-qZ", kUrl}, "-Z: there is no such option"},
      {{"--include", kUrl}, "--include is for --print and --data"},
      {{"--no-redirect", kUrl}, "--no-redirect is for --print, --head and --data; a download follows redirects"},
      {{"-o", "-", "-n", "2", kUrl}, "--connections cannot go with -o -, which has one connection"},
      {{"-n", "2", kUrl, "-"}, "--connections cannot go with -o -, which has one connection"},
      {{"--checksum", "md5=" + std::string(32, '0'), "-i", "l"}, "--checksum is for one URL: use --checksum-file FILE"},
      {{"-j", "2", "-p", kUrl}, "--jobs" + forDownloads},
      {{"--json", "-o", "-", kUrl}, "--json cannot go with -o -, which stores no file"},
      {{"--trace", "t", kUrl, kUrl}, "--trace is for one URL"},
      {{"-o", "name", kUrl, kUrl}, "--output is for one URL: use -P DIR"},
      {{"-i", "list", "-p"}, "--input-file" + forDownloads},
  };
  for (const auto& [arguments, words] : cases) EXPECT_EQ(complaint(arguments), words);
}

std::string complaintOf(const std::string& name, const std::string& words) {
  return "--" + name + ": " + words;
}

TEST(Options, numbersOutOfTheirRangeAreRefusedWithIt) {
  const std::vector<std::pair<std::string, std::string>> ranges = {{"jobs", "1 to 64"},
                                                                   {"connections", "1 to 256"},
                                                                   {"connect-timeout", "1 to 2147483"},
                                                                   {"max-time", "0 to 2147483"},
                                                                   {"stall-timeout", "0 to 2147483"},
                                                                   {"max-tries", "1 to 1000000"},
                                                                   {"retry-max-time", "0 to 1000000000"}};
  for (const auto& [name, range] : ranges) {
    const std::string option = "--" + name;
    const std::size_t space = range.find(' ');
    const long long least = std::stoll(range.substr(0, space));
    const long long most = std::stoll(range.substr(range.rfind(' ')));
    const std::string notOne = "not a number from " + range + ": ";
    accepted({option, std::to_string(least), kUrl});
    accepted({option, std::to_string(most), kUrl});
    for (const std::string& text : {std::to_string(least - 1), std::to_string(most + 1), std::string("-1"),
                                    std::string("4x"), std::string("many"), std::string(" 4"), std::string("+4"),
                                    std::string("0x4"), std::string("99999999999999999999")}) {
      EXPECT_EQ(complaint({option, text, kUrl}), complaintOf(name, notOne + text));
    }
    EXPECT_EQ(complaint({option, "", kUrl}), complaintOf(name, "empty: give a number from " + range));
  }
}

// ---- Which options go together ----

// An argument of each option that takes one.
const std::map<std::string, std::string> kSamples = {{"output", "file"},
                                                     {"directory", "folder"},
                                                     {"input-file", "list"},
                                                     {"jobs", "2"},
                                                     {"connections", "8"},
                                                     {"limit-rate", "1K"},
                                                     {"known-size", "5"},
                                                     {"plan", "stated"},
                                                     {"connect-timeout", "5"},
                                                     {"stall-timeout", "5"},
                                                     {"max-time", "5"},
                                                     {"max-tries", "5"},
                                                     {"retry-max-time", "5"},
                                                     {"cacert", "ca.pem"},
                                                     {"pinnedpubkey", "sha256//AAAA"},
                                                     {"checksum", "md5=" + std::string(32, '0')},
                                                     {"checksum-file", "sums"},
                                                     {"proxy", "host:80"},
                                                     {"user-agent", "text"},
                                                     {"cookie", "a=b"},
                                                     {"header", "A: 1"},
                                                     {"data", "text"},
                                                     {"trace", "trace"}};

std::vector<std::string> optionNames() {
  std::vector<std::string> names;
  for (const xfer_get::OptionRow& row : xfer_get::optionRows()) {
    if (row.take != nullptr) names.emplace_back(row.name);
  }
  return names;
}

Arguments sampleOf(const std::string& name) {
  const auto sample = kSamples.find(name);
  return sample == kSamples.end() ? Arguments{"--" + name} : Arguments{"--" + name, sample->second};
}

using Pair = std::set<std::string>;

std::set<Pair> pairsOf(const std::vector<std::string>& one, const std::vector<std::string>& other) {
  std::set<Pair> pairs;
  for (const std::string& first : one) {
    for (const std::string& second : other) pairs.insert({first, second});
  }
  return pairs;
}

// One that names none of the options is no explanation.
void expectItNames(const Parsed& parsed, const Pair& options) {
  const bool names = std::any_of(options.begin(), options.end(), [&](const std::string& name) {
    return parsed.err.find("--" + name + " ") != std::string::npos;
  });
  EXPECT_TRUE(names || parsed.err.starts_with("xfer-get: FILE ")) << parsed.err;
  EXPECT_EQ(parsed.exitCode, 2);
}

TEST(Options, pairsThatExcludeEachOtherAreRefusedAndAllOthersAreNot) {
  const std::vector<std::string> forDownloads = {
      "output", "directory", "overwrite", "input-file",     "jobs", "connections",   "limit-rate", "known-size",
      "plan",   "max-tries", "checksum",  "retry-max-time", "json", "checksum-file", "no-map",     "trace"};
  std::set<Pair> excluded = pairsOf(forDownloads, {"print", "head", "info", "data"});
  excluded.merge(pairsOf({"input-file"}, {"output", "known-size", "checksum", "trace"}));
  excluded.merge(pairsOf({"info"}, {"print", "head", "data", "header", "connect-timeout", "stall-timeout"}));
  excluded.merge(pairsOf({"head"}, {"print", "data"}));
  excluded.merge(pairsOf({"plan"}, {"max-tries", "retry-max-time"}));
  excluded.merge(pairsOf({"quiet"}, {"verbose", "json"}));
  excluded.merge(pairsOf({"cacert"}, {"insecure"}));
  excluded.merge(pairsOf({"checksum"}, {"checksum-file"}));
  const std::vector<std::string> names = optionNames();
  for (const std::string& name : names) {  // these need another one
    if (name != "print" && name != "data") excluded.insert({"include", name});
    if (name != "print" && name != "data" && name != "head") excluded.insert({"no-redirect", name});
  }
  for (std::size_t i = 0; i < names.size(); ++i) {
    for (std::size_t j = i + 1; j < names.size(); ++j) {
      Arguments arguments = sampleOf(names[i]);
      const Arguments other = sampleOf(names[j]);
      arguments.insert(arguments.end(), other.begin(), other.end());
      arguments.push_back(kUrl);
      const Parsed parsed = parse(arguments);
      const Pair pair = {names[i], names[j]};
      EXPECT_EQ(!parsed.options, excluded.count(pair) > 0) << testing::PrintToString(pair) << parsed.err;
      if (!parsed.options) expectItNames(parsed, pair);
    }
  }
}

// Each option beside what is there already: refused are those that are named, and no others.
void expectRefused(const Arguments& there, const std::vector<std::string>& refused) {
  for (const std::string& name : optionNames()) {
    Arguments arguments = sampleOf(name);
    if (std::find(there.begin(), there.end(), "--" + name) != there.end()) continue;
    arguments.insert(arguments.end(), there.begin(), there.end());
    const Parsed parsed = parse(arguments);
    const bool expected = std::find(refused.begin(), refused.end(), name) != refused.end();
    EXPECT_EQ(!parsed.options, expected) << testing::PrintToString(arguments) << parsed.err;
    if (!parsed.options) expectItNames(parsed, {name, "output"});
  }
}

TEST(Options, ofOneUrlDoNotGoWithSeveral) {
  expectRefused({kUrl, kUrl}, {"output", "known-size", "checksum", "trace", "print", "head", "info", "data", "include",
                               "no-redirect"});
}

TEST(Options, ofStoredFilesDoNotGoWithStandardOutput) {
  expectRefused({"--output", "-", kUrl},
                {"directory", "overwrite", "input-file", "connections", "known-size", "plan", "max-tries",
                 "retry-max-time", "json", "trace", "print", "head", "info", "data", "include", "no-redirect"});
  EXPECT_EQ(accepted({"-o", "-", "-n", "1", kUrl}).connections, 1);
  EXPECT_TRUE(accepted({"-o", "-", "--checksum", "md5=" + std::string(32, '0'), kUrl}).checksum);
}

TEST(Options, ofSingleFilesAreRefusedAsAUrlsAre) {
  expectRefused({kUrl, "name"}, {"output", "input-file", "print", "head", "info", "data", "include", "no-redirect"});
}

// ---- What the parser answers by itself ----

TEST(Options, helpTakesPrecedence) {
  for (const Arguments& arguments : {Arguments{"--help"}, {"-h"}, {"-hV"}, {"-n", "0", "--wrong", "-h"}}) {
    const Parsed parsed = parse(arguments);
    EXPECT_FALSE(parsed.options);
    EXPECT_EQ(parsed.exitCode, 0);
    EXPECT_TRUE(parsed.out.starts_with("Usage: xfer-get [OPTION...] URL... [FILE]\n")) << parsed.out;
    EXPECT_EQ(parsed.err, "");
  }
}

TEST(Options, versionIsThatOfTheLibrary) {
  for (const char* option : {"--version", "-V"}) {
    const Parsed parsed = parse({option});
    EXPECT_FALSE(parsed.options);
    EXPECT_EQ(parsed.exitCode, 0);
    EXPECT_EQ(parsed.out, "xfer-get " XFER_VERSION_TEXT "\n");
  }
}

}  // namespace
