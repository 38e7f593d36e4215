#include "trace.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using xfer::DownloadEvent;
using xfer::JobState;
using xfer_get::Trace;
using Kind = DownloadEvent::Kind;

constexpr std::uint64_t kMs = 1'000'000;
constexpr std::uint64_t kMiB = 1 << 20;

// The lines of a trace but for its frame and the names of its rows.
std::vector<std::string> linesOf(const std::vector<DownloadEvent>& events) {
  Trace trace;
  std::string text = trace.add(events);
  text += trace.end();
  const std::string begin =
      "{\"displayTimeUnit\":\"ms\",\"traceEvents\":[\n"
      "{\"ph\":\"M\",\"pid\":1,\"tid\":1,\"name\":\"process_name\",\"args\":{\"name\":\"xfer-get\"}}";
  const std::string end = "\n]}\n";
  EXPECT_EQ(text.substr(0, begin.size()), begin);
  EXPECT_EQ(text.substr(text.size() - end.size()), end);
  std::vector<std::string> lines;
  const std::string separator = ",\n";
  for (std::size_t at = begin.size(); at + end.size() < text.size();) {
    EXPECT_EQ(text.substr(at, separator.size()), separator);
    at += separator.size();
    const std::size_t next = std::min(text.find(separator, at), text.size() - end.size());
    const std::string line = text.substr(at, next - at);
    if (line.find("\"thread_") == std::string::npos) lines.push_back(line);
    at = next;
  }
  return lines;
}

DownloadEvent state(std::uint64_t timeNs, JobState state) {
  DownloadEvent event;
  event.timeNs = timeNs;
  event.state = state;
  return event;
}

DownloadEvent ofRequest(std::uint64_t timeNs, Kind kind, std::uint64_t request, std::uint32_t connection,
                        std::uint64_t start, std::uint64_t end, std::uint64_t position) {
  DownloadEvent event;
  event.timeNs = timeNs;
  event.kind = kind;
  event.request = request;
  event.connection = connection;
  event.start = start;
  event.end = end;
  event.position = position;
  return event;
}

using Lines = std::vector<std::string>;

TEST(Trace, ofNothingIsAFrame) {
  EXPECT_EQ(linesOf({}), Lines{});
}

TEST(Trace, hasABarForEachState) {
  EXPECT_EQ(linesOf({state(0, JobState::Probing), state(2 * kMs + 5, JobState::Running),
                     state(5 * kMs, JobState::Completed)}),
            (Lines{R"({"ph":"X","pid":1,"tid":1,"ts":0.000,"dur":2000.005,"name":"asking","args":{}})",
                   R"({"ph":"X","pid":1,"tid":1,"ts":2000.005,"dur":2999.995,"name":"running","args":{}})",
                   R"({"ph":"i","s":"t","pid":1,"tid":1,"ts":5000.000,"name":"complete","args":{}})"}));
}

TEST(Trace, hasABarForARequestAndForItsWaitOnTheRowOfItsConnection) {
  DownloadEvent end = ofRequest(9 * kMs, Kind::Ended, 7, 2, kMiB, 2 * kMiB, 2 * kMiB);
  end.httpStatus = 206;
  EXPECT_EQ(linesOf({ofRequest(kMs, Kind::Begun, 7, 2, kMiB, 4 * kMiB, kMiB),
                     ofRequest(3 * kMs, Kind::Answered, 7, 2, kMiB, 4 * kMiB, kMiB),
                     ofRequest(5 * kMs, Kind::Cut, 7, 2, kMiB, 2 * kMiB, kMiB + 1), end}),
            (Lines{R"({"ph":"i","s":"t","pid":1,"tid":4,"ts":5000.000,"name":"cut to 2.0 MiB",)"
                   R"("args":{"request":7,"start":1048576,"end":2097152,"position":1048577}})",
                   R"({"ph":"X","pid":1,"tid":4,"ts":1000.000,"dur":8000.000,"name":"1.0 MiB > 2.0 MiB",)"
                   R"("args":{"request":7,"start":1048576,"end":2097152,"position":2097152,"asked_end":4194304,)"
                   R"("http":206}})",
                   R"({"ph":"X","pid":1,"tid":4,"ts":1000.000,"dur":2000.000,"name":"waits for the answer",)"
                   R"("args":{}})"}));
}

TEST(Trace, saysHowARequestFailed) {
  const auto nameAfter = [](std::int32_t code, std::int32_t status) {
    DownloadEvent end = ofRequest(kMs, Kind::Ended, 1, 1, 0, 10, 5);
    end.code = code;
    end.httpStatus = status;
    const Lines lines = linesOf({ofRequest(0, Kind::Begun, 1, 1, 0, 10, 0), end});
    const std::size_t name = lines.at(0).find("\"name\":\"") + 8;
    return lines.at(0).substr(name, lines.at(0).find('"', name) - name);
  };
  EXPECT_EQ(nameAfter(0, 206), "0 B > 5 B");
  EXPECT_EQ(nameAfter(56, 206), "0 B > 5 B, error 56");
  EXPECT_EQ(nameAfter(-1, 0), "0 B > 5 B, error -1");
  EXPECT_EQ(nameAfter(42, 206), "0 B > 5 B, broken off");
  EXPECT_EQ(nameAfter(0, 503), "0 B > 5 B, HTTP 503");
  EXPECT_EQ(nameAfter(22, 400), "0 B > 5 B, HTTP 400");
}

TEST(Trace, marksReplacedConnectionsRetriesAndOvertakenRequests) {
  DownloadEvent givenUp = ofRequest(kMs, Kind::GivenUp, 1, 1, 0, 10, 5);
  givenUp.reason = "silent";
  DownloadEvent again = ofRequest(2 * kMs, Kind::TriedAgain, 2, 2, 10, 20, 15);
  again.waitNs = 1500 * kMs;
  again.httpStatus = 503;
  const Lines lines = linesOf({givenUp, again, ofRequest(3 * kMs, Kind::Overtaken, 3, 3, 20, 30, 25)});
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_NE(lines[0].find(R"("tid":3,"ts":1000.000,"name":"replaced: silent")"), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find(R"("tid":4,"ts":2000.000,"name":"tried again after 1500 ms, HTTP 503")"), std::string::npos)
      << lines[1];
  EXPECT_NE(lines[2].find(R"("tid":5,"ts":3000.000,"name":"overtaken")"), std::string::npos) << lines[2];
}

DownloadEvent wait(std::uint64_t timeNs, std::uint64_t waitNs) {
  DownloadEvent event;
  event.timeNs = timeNs;
  event.kind = Kind::HostLeftAlone;
  event.waitNs = waitNs;
  return event;
}

TEST(Trace, hasOneBarForAWaitOfTheHostThatIsMadeLonger) {
  EXPECT_EQ(linesOf({wait(kMs, 4 * kMs), wait(2 * kMs, 8 * kMs), wait(3 * kMs, kMs), wait(20 * kMs, 3 * kMs),
                     state(30 * kMs, JobState::Running)}),
            (Lines{R"({"ph":"X","pid":1,"tid":2,"ts":1000.000,"dur":9000.000,"name":"left alone","args":{}})",
                   R"({"ph":"X","pid":1,"tid":1,"ts":30000.000,"dur":0.000,"name":"running","args":{}})",
                   R"({"ph":"X","pid":1,"tid":2,"ts":20000.000,"dur":3000.000,"name":"left alone","args":{}})"}));
}

TEST(Trace, endsWhatIsUnderWayWithTheLastEvent) {
  const Lines lines = linesOf({state(0, JobState::Running), ofRequest(kMs, Kind::Begun, 1, 1, 0, 10, 0),
                               wait(2 * kMs, 1000 * kMs), state(5 * kMs, JobState::Cancelled)});
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_NE(lines[1].find(R"("ts":5000.000,"name":"cancelled")"), std::string::npos) << lines[1];
  EXPECT_NE(lines[2].find(R"("ts":1000.000,"dur":4000.000,"name":"0 B > 0 B, broken off")"), std::string::npos);
  EXPECT_NE(lines[3].find(R"("ts":1000.000,"dur":4000.000,"name":"waits for the answer")"), std::string::npos);
  EXPECT_NE(lines[4].find(R"("ts":2000.000,"dur":3000.000,"name":"left alone")"), std::string::npos) << lines[4];
}

TEST(Trace, ignoresTheEndOfARequestWhoseBeginningItDoesNotKnow) {
  EXPECT_EQ(linesOf({ofRequest(kMs, Kind::Answered, 1, 1, 0, 10, 0), ofRequest(kMs, Kind::Ended, 1, 1, 0, 10, 5)}),
            Lines{});
}

TEST(Trace, namesEachRowOnce) {
  Trace trace;
  const auto end = [](std::uint64_t request, std::uint32_t connection) {
    return ofRequest(kMs, Kind::Ended, request, connection, 0, 10, 10);
  };
  const auto begin = [](std::uint64_t request, std::uint32_t connection) {
    return ofRequest(0, Kind::Begun, request, connection, 0, 10, 0);
  };
  std::string text = trace.add({begin(1, 1), end(1, 1), begin(2, 1), end(2, 1)});
  text += trace.add({begin(3, 1), end(3, 1), begin(4, 2), end(4, 2)});
  const auto count = [&](const std::string& part) {
    std::size_t times = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++times;
    return times;
  };
  EXPECT_EQ(count(R"("tid":3,"name":"thread_name","args":{"name":"connection 1"})"), 1U);
  EXPECT_EQ(count(R"("tid":3,"name":"thread_sort_index","args":{"sort_index":3})"), 1U);
  EXPECT_EQ(count(R"("tid":4,"name":"thread_name","args":{"name":"connection 2"})"), 1U);
}

}  // namespace
