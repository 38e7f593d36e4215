// The trace that xfer-get writes, judged by the format's rules as trace_rules.py has them.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "support/pattern.h"
#include "support/process.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"

namespace {

using support::Finished;
using support::ReceivedRequest;
using support::Reply;
using support::ScriptedServer;

constexpr std::uint64_t kSize = 8'000'000;

class TraceFile : public testing::Test {
 protected:
  [[nodiscard]] std::string trace() const { return folder_.file("trace.json"); }

  [[nodiscard]] Finished get(const ScriptedServer& server, const std::vector<std::string>& options = {}) const {
    std::vector<std::string> command = {support::siblingProgram("xfer-get"), server.url("/file"), folder_.file("out"),
                                        "--trace", trace()};
    command.insert(command.end(), options.begin(), options.end());
    return support::runProcess(command, {.environment = {"no_proxy=*"}});
  }

  // The first broken rule; empty: none.
  [[nodiscard]] std::string brokenRule() const {
    const Finished checked = support::runProcess({"python3", TRACE_RULES, trace()}, {});
    if (checked.exitCode == 0) return "";
    return checked.out.empty() ? checked.err : checked.out;
  }

  [[nodiscard]] std::string text() const { return support::readFile(trace()).value_or(""); }

  void write(const std::string& text) const { std::ofstream(trace(), std::ios::binary) << text; }

  const support::TempDir folder_;
};

// Every fourth request fails, and its rest is asked for again; one connection is far slower than the others.
TEST_F(TraceFile, ofATroubledDownloadKeepsTheRules) {
  ScriptedServer server([](const ReceivedRequest& request) {
    if (request.number % 4 == 3) return support::status(503);
    const bool slow = request.connection == 1;
    return support::range206(request, kSize,
                             {.pace = {slow ? 2'000U : 100'000U, std::chrono::milliseconds(slow ? 20 : 10)}});
  });
  const Finished done = get(server, {"-n", "4"});
  EXPECT_EQ(done.exitCode, 0) << done.err;
  EXPECT_EQ(support::patternError(folder_.file("out"), kSize), "");
  EXPECT_EQ(brokenRule(), "");
  for (const char* part : {R"("name":"running")", R"("name":"connection 4")", R"("name":"waits for the answer")",
                           ", HTTP 503", "tried again after ", "cut to ", R"("name":"left alone")"}) {
    EXPECT_NE(text().find(part), std::string::npos) << part << " in:\n" << text();
  }
}

TEST_F(TraceFile, ofADownloadThatFailsKeepsTheRules) {
  ScriptedServer server([](const ReceivedRequest&) { return support::status(403); });
  EXPECT_EQ(get(server).exitCode, 5);
  EXPECT_EQ(brokenRule(), "");
  EXPECT_NE(text().find(R"("name":"failed")"), std::string::npos) << text();
}

TEST_F(TraceFile, ofTheStatedPlanKeepsTheRulesToo) {
  ScriptedServer server(support::patternFile(kSize));
  EXPECT_EQ(get(server, {"--plan", "stated"}).exitCode, 0);
  EXPECT_EQ(brokenRule(), "");
  EXPECT_NE(text().find("0 B > 1.0 MiB"), std::string::npos) << text();
}

// The rules themselves: each of these breaks one.
TEST_F(TraceFile, thatIsBrokenIsSeenToBe) {
  const std::string good = R"({"displayTimeUnit":"ms","traceEvents":[)"
                           R"({"ph":"M","pid":1,"tid":3,"name":"thread_name","args":{"name":"connection 1"}},)"
                           R"({"ph":"X","pid":1,"tid":3,"ts":1.5,"dur":10,"name":"bar","args":{}},)"
                           R"({"ph":"X","pid":1,"tid":3,"ts":2.5,"dur":3,"name":"inside","args":{}},)"
                           R"({"ph":"i","s":"t","pid":1,"tid":3,"ts":4,"name":"mark"}]})";
  write(good);
  EXPECT_EQ(brokenRule(), "");
  const std::vector<std::pair<std::string, std::string>> changes = {
      {R"("displayTimeUnit":"ms",)", ""}, {R"("tid":3,"ts":4)", R"("ts":4)"}, {R"("ph":"M")", R"("ph":"Q")"},
      {R"("ts":1.5)", R"("ts":-1)"},      {R"("dur":10)", R"("dur":"10")"},   {R"("dur":3)", R"("dur":30)"},
      {R"("s":"t")", R"("s":"x")"},       {R"("name":"mark")", R"("n":1)"},   {R"(}]})", R"(},]})"},
      {R"("thread_name")", R"("thread")"}};
  for (const auto& [from, to] : changes) {
    std::string bad = good;
    bad.replace(bad.find(from), from.size(), to);
    write(bad);
    EXPECT_NE(brokenRule(), "") << bad;
  }
}

}  // namespace
