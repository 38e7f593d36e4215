#include "options.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

using xfer_get::Options;
using Arguments = std::vector<std::string>;

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

Options accepted(const Arguments& arguments) {
  const Parsed parsed = parse(arguments);
  EXPECT_TRUE(parsed.options) << parsed.err;
  EXPECT_EQ(parsed.out + parsed.err, "");
  return parsed.options.value_or(Options());
}

TEST(Options, urlAloneIsADownloadOverFourConnections) {
  const Options options = accepted({"http://host/file"});
  EXPECT_EQ(options.url, "http://host/file");
  EXPECT_EQ(options.file, "");
  EXPECT_EQ(options.connections, 4);
  EXPECT_EQ(options.bytesPerSec, 0U);
  EXPECT_FALSE(options.print || options.head || options.info || options.noRedirect || options.quiet);
  EXPECT_TRUE(options.map);
}

TEST(Options, mapCanBeLeftOut) {
  EXPECT_FALSE(accepted({"--no-map", "http://host/file"}).map);
  EXPECT_EQ(accepted({"--trace", "t.json", "http://host/file"}).trace, "t.json");
  EXPECT_EQ(accepted({"http://host/file"}).trace, "");
}

TEST(Options, mayStandBeforeAndBehindTheUrl) {
  const Options options = accepted({"-n", "8", "http://host/file", "out.bin", "-q"});
  EXPECT_EQ(options.connections, 8);
  EXPECT_EQ(options.file, "out.bin");
  EXPECT_TRUE(options.quiet);
}

TEST(Options, connectionsAreFrom1To256) {
  EXPECT_EQ(accepted({"-n", "1", "http://host/file"}).connections, 1);
  EXPECT_EQ(accepted({"-n256", "http://host/file"}).connections, 256);
  EXPECT_EQ(accepted({"--connections=16", "http://host/file"}).connections, 16);
}

TEST(Options, ratesUnderstandUnits) {
  for (const auto& [text, rate] : std::vector<std::pair<std::string, std::uint64_t>>{
           {"5000", 5000}, {"20K", 20 << 10}, {"3m", 3 << 20}, {"1G", 1 << 30}}) {
    EXPECT_EQ(accepted({"-l", text, "http://host/file"}).bytesPerSec, rate) << text;
  }
}

TEST(Options, headersCollectAndDoNotTakeTheUrl) {
  const Options options = accepted({"-H", "A: 1", "-H", "B: 2, 3", "http://host/file"});
  EXPECT_EQ(options.headers, (Arguments{"A: 1", "B: 2, 3"}));
  EXPECT_EQ(options.url, "http://host/file");
}

TEST(Options, proxyIsTakenApart) {
  const Options options = accepted({"-x", "user:pass@proxy:3128", "http://host/file"});
  ASSERT_TRUE(options.proxy);
  EXPECT_EQ(options.proxy->host, "proxy");
  EXPECT_EQ(options.proxy->port, 3128);
  EXPECT_EQ(options.proxy->username, "user");
  EXPECT_EQ(options.proxy->password, "pass");
}

TEST(Options, emptyProxyIsNoneAndNoProxyIsNotSaid) {
  const Options none = accepted({"-x", "", "http://host/file"});
  ASSERT_TRUE(none.proxy);
  EXPECT_EQ(none.proxy->host, "");
  EXPECT_FALSE(accepted({"http://host/file"}).proxy);
}

TEST(Options, certificatesAreCheckedUnlessRefused) {
  const Options usual = accepted({"https://host/file"});
  EXPECT_FALSE(usual.insecure);
  EXPECT_EQ(usual.caFile, "");
  EXPECT_EQ(usual.pinnedKey, "");
  EXPECT_TRUE(accepted({"-k", "https://host/file"}).insecure);
  EXPECT_TRUE(accepted({"--insecure", "-p", "https://host/file"}).insecure);
  const Options named =
      accepted({"--cacert", "ca.pem", "--pinnedpubkey", "sha256//AAAA", "--info", "https://host/file"});
  EXPECT_EQ(named.caFile, "ca.pem");
  EXPECT_EQ(named.pinnedKey, "sha256//AAAA");
}

TEST(Options, verbosityCounts) {
  EXPECT_EQ(accepted({"http://host/file"}).verbosity, 0);
  EXPECT_EQ(accepted({"-vvv", "http://host/file"}).verbosity, 3);
}

TEST(Options, printAndHeadGoTogether) {
  const Options options = accepted({"-p", "-I", "-d", "a=b", "--no-redirect", "http://host/file"});
  EXPECT_TRUE(options.print && options.head && options.noRedirect);
  EXPECT_EQ(options.data, "a=b");
}

TEST(Options, thatCannotWorkAreRefusedWithAReason) {
  const std::vector<std::pair<Arguments, std::string>> cases = {
      {{}, "URL"},
      {{"-n", "0", "u"}, "connections"},
      {{"-n", "257", "u"}, "connections"},
      {{"-n", "many", "u"}, "connections"},
      {{"-n", "", "u"}, "connections"},
      {{"-n"}, "connections"},
      {{"-l", "fast", "u"}, "limit-rate"},
      {{"-l", "-5", "u"}, "limit-rate"},
      {{"-l", "K", "u"}, "limit-rate"},
      {{"-l", "1KK", "u"}, "limit-rate"},
      {{"-l", "16777216T", "u"}, "limit-rate"},
      {{"--known-size", "5K", "u"}, "known-size"},
      {{"-n", "-1", "u"}, "connections"},
      {{"--known-size", "-1", "u"}, "known-size"},
      {{"--known-size", "1.5", "u"}, "known-size"},
      {{"--known-size", "99999999999999999999", "u"}, "known-size"},
      {{"-x", "proxy:port", "u"}, "proxy"},
      {{"-q", "-v", "u"}, "quiet"},
      {{"-p", "--no-map", "u"}, "no-map"},
      {{"--map", "u"}, "map"},
      {{"-p", "--trace", "file", "u"}, "trace"},
      {{"--trace", "", "u"}, "trace"},
      {{"--cacert", "", "u"}, "cacert"},
      {{"--cacert", "ca.pem", "-k", "u"}, "cacert"},
      {{"--pinnedpubkey", "key.pem", "u"}, "sha256//"},
      {{"--pinnedpubkey", "sha256//", "u"}, "sha256//"},
      {{"--info", "-p", "u"}, "info"},
      {{"--info", "-I", "u"}, "info"},
      {{"--info", "-H", "A: 1", "u"}, "info"},
      {{"-H", "A", "u"}, "Name: value"},
      {{"-H", ": 1", "u"}, "Name: value"},
      {{"-H", "A: 1", "-H", "", "u"}, "Name: value"},
      {{"--info", "-d", "x", "u"}, "info"},
      {{"-d", "", "u"}, "data"},
      {{"--no-redirect", "u"}, "no-redirect"},
      {{"u", ""}, "FILE"},
      {{"-p", "u", "file"}, "FILE"},
      {{"-I", "u", "file"}, "FILE"},
      {{"--info", "u", "file"}, "FILE"},
      {{"-d", "x", "u", "file"}, "FILE"},
      {{"u", "file", "more"}, "more"},
      {{"--colour", "u"}, "colour"},
  };
  for (const auto& [arguments, reason] : cases) {
    const Parsed parsed = parse(arguments);
    EXPECT_FALSE(parsed.options) << reason;
    EXPECT_EQ(parsed.exitCode, 2) << reason;
    EXPECT_EQ(parsed.err.rfind("xfer-get: ", 0), 0U) << parsed.err;
    EXPECT_NE(parsed.err.find(reason), std::string::npos) << parsed.err;
    EXPECT_EQ(parsed.err.empty() ? ' ' : parsed.err.back(), '\n') << reason;
    EXPECT_EQ(parsed.out, "") << reason;
  }
}

TEST(Options, refusedProxyIsNotRepeated) {
  EXPECT_EQ(parse({"-x", "user:secret@proxy:port", "u"}).err.find("secret"), std::string::npos);
}

TEST(Options, thatMakeNoDifferenceToARequestAreHarmless) {
  EXPECT_TRUE(accepted({"-p", "-n", "8", "-l", "1K", "--known-size", "5", "-q", "u"}).print);
}

TEST(Options, helpNamesEveryExitCodeAndSucceeds) {
  const Parsed parsed = parse({"--help"});
  EXPECT_FALSE(parsed.options);
  EXPECT_EQ(parsed.exitCode, 0);
  EXPECT_EQ(parsed.err, "");
  for (const char* text :
       {"0 done", "1 internal", "2 usage", "3 file", "4 network", "5 HTTP status", "130 cancelled"}) {
    EXPECT_NE(parsed.out.find(text), std::string::npos) << text;
  }
}

TEST(Options, versionSucceeds) {
  const Parsed parsed = parse({"--version"});
  EXPECT_EQ(parsed.exitCode, 0);
  EXPECT_EQ(parsed.out.rfind("xfer-get ", 0), 0U);
}

}  // namespace
