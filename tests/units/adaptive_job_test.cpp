// A download job with the adaptive plan, in a world without a network: what it does of its own accord, beside the plan.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "download_job_impl.h"
#include "host_terms.h"
#include "support/fake_job_world.h"
#include "support/log_line.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/temp_dir.h"
#include "xfer/download_job.h"

namespace {

using support::FakeJobWorld;
using support::patternBytes;
using xfer::DownloadJob;
using xfer::DownloadOptions;
using xfer::DownloadPlan;
using xfer::DownloadPolicy;
using xfer::DownloadRequest;
using xfer::HostBook;
using xfer::JobState;
using xfer::ResponseHead;
using Starts = std::vector<std::uint64_t>;

constexpr std::uint64_t kFirst = 1000;
constexpr std::uint64_t kSize = 4000;
constexpr std::int32_t kBadArgument = 43;
constexpr std::int32_t kPartialFile = 18;
constexpr std::int32_t kCouldNotConnect = 7;
constexpr std::int32_t kCannotCreate = 100004;
constexpr std::int32_t kCancelled = 42;
constexpr std::int32_t kBusy = 503;

class AdaptiveJob : public testing::Test {
 protected:
  struct Running {
    explicit Running(const DownloadRequest& request, const DownloadPolicy& policy, const DownloadOptions& options,
                     HostBook* hosts)
        : job(request, policy, environment(world, hosts), options.values()) {}

    static xfer::JobEnvironment environment(FakeJobWorld& world, HostBook* hosts) {
      xfer::JobEnvironment environment = world.environment();
      environment.hosts = hosts;
      return environment;
    }

    // A turn of a loop that waited for the network all the time.
    void turn(std::uint64_t ms) {
      world.advanceMs(ms);
      world.transfers.turn({0, ms * 1'000'000, ms * 1'000'000});
    }

    // The head of a range of the file.
    xfer::Placement answer(std::uint64_t start) {
      std::uint64_t end = 0;
      for (const auto& request : world.transfers.submissions()) {
        if (request.rangeStart == start) end = request.rangeEnd;
      }
      ResponseHead head;
      head.status = 206;
      head.strongEtag = "\"one\"";
      head.contentRange = xfer::ContentRange{start, std::min(end, kSize) - 1, kSize};
      return world.transfers.answer(start, head);
    }

    FakeJobWorld world;  // before the job
    DownloadJob::Impl job;
  };

  DownloadRequest request(std::uint64_t knownSize = 0, const std::string& host = "host.test") const {
    DownloadRequest request;
    request.url = "http://" + host + "/file";
    request.path = path_;
    request.knownSize = knownSize;
    return request;
  }

  static DownloadPolicy policy(std::uint16_t connections) {
    DownloadPolicy policy;
    policy.numThreads = connections;
    return policy;
  }

  static DownloadOptions adaptive() { return DownloadOptions().setPlan(DownloadPlan::Adaptive).setFirstRange(kFirst); }

  const support::TempDir folder_;
  const std::string path_ = folder_.file("out.bin");
  HostBook hosts_;
};

TEST_F(AdaptiveJob, asksForTheFirstRangeAloneAndTouchesNoFileBeforeItsAnswer) {
  support::writePatternFile(path_, 10);
  Running run(request(), policy(4), adaptive(), &hosts_);
  run.job.start();
  run.turn(1);
  run.turn(100);
  ASSERT_EQ(run.world.transfers.submittedStarts(), (Starts{0}));
  EXPECT_EQ(run.world.transfers.submissions()[0].rangeEnd, kFirst);
  EXPECT_EQ(run.job.snapshot().state, JobState::Probing);
  EXPECT_EQ(support::fileSize(path_), 10U);
  EXPECT_EQ(run.world.probes(), 0U);

  EXPECT_EQ(run.answer(0).action, xfer::Placement::Action::Deliver);
  EXPECT_EQ(run.job.snapshot().state, JobState::Running);
  EXPECT_EQ(run.job.snapshot().totalBytes, kSize);
  EXPECT_EQ(support::fileSize(path_), kSize);
  run.turn(5);
  EXPECT_GT(run.world.transfers.submittedStarts().size(), 1U) << "others go out";
}

TEST_F(AdaptiveJob, asksForAGibibyteFirstUnlessItsOptionsSayOtherwise) {
  Running run(request(), policy(4), DownloadOptions().setPlan(DownloadPlan::Adaptive), &hosts_);
  run.job.start();
  run.turn(1);
  ASSERT_EQ(run.world.transfers.submittedStarts(), (Starts{0}));
  EXPECT_EQ(run.world.transfers.submissions()[0].rangeEnd, std::uint64_t{1} << 30);
}

TEST_F(AdaptiveJob, refusedFirstRequestLeavesTheFileAsItWas) {
  support::writePatternFile(path_, 10);
  Running run(request(), policy(4), adaptive(), &hosts_);
  run.job.start();
  run.turn(1);
  run.world.transfers.finish(0, kPartialFile, 404);
  const xfer::DownloadSnapshot end = run.job.snapshot();
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.httpStatus, 404);
  EXPECT_EQ(support::patternError(path_, 10), "");
}

TEST_F(AdaptiveJob, fileThatCannotBeOpenedFailsTheJobBeforeItsFirstByte) {
  DownloadRequest nowhere = request();
  nowhere.path = folder_.file("missing") + "/out.bin";
  Running run(nowhere, policy(2), adaptive(), &hosts_);
  run.job.start();
  run.turn(1);
  EXPECT_EQ(run.answer(0).action, xfer::Placement::Action::Stop);
  EXPECT_EQ(run.job.snapshot().state, JobState::Failed);
  EXPECT_EQ(run.job.snapshot().errorCode, kCannotCreate);
}

TEST_F(AdaptiveJob, keepsWhatABrokenTransferBroughtAndAsksForTheRest) {
  Running run(request(), policy(1), adaptive(), &hosts_);
  run.job.start();
  run.turn(1);
  run.answer(0);
  run.world.transfers.deliver(0, 0, patternBytes(0, 400));
  run.turn(5);
  run.world.transfers.finish(0, kPartialFile, 206, 400);
  run.turn(2000);
  EXPECT_EQ(run.world.transfers.submittedStarts(), (Starts{0, 400}));
}

TEST_F(AdaptiveJob, jobThatIsWholeDuringAPauseCompletesWhenItIsResumed) {
  Running run(request(), policy(1), adaptive(), &hosts_);
  run.job.start();
  run.turn(1);
  run.answer(0);
  run.world.transfers.deliver(0, 0, patternBytes(0, kFirst));
  run.world.transfers.finish(0, 0, 206, kFirst);
  run.turn(5);
  ASSERT_EQ(run.world.transfers.inFlight(), (Starts{kFirst}));
  run.answer(kFirst);
  run.world.transfers.deliver(kFirst, kFirst, patternBytes(kFirst, kSize));
  run.job.pause();
  run.world.transfers.finish(kFirst, 0, 206, kSize - kFirst);
  EXPECT_EQ(run.job.snapshot().state, JobState::Paused);
  run.job.resume();
  EXPECT_EQ(run.job.snapshot().state, JobState::Completed);
  EXPECT_EQ(support::patternError(path_, kSize), "");
}

// libcurl reads a status where the line has none that counts, and calls a transfer without a body a success.
TEST_F(AdaptiveJob, endWithoutAnAcceptedAnswerIsATryThatBroughtNothing) {
  Running run(request(), policy(1), adaptive().setMaxTries(2), &hosts_);
  run.job.start();
  run.turn(1);
  run.world.transfers.finish(0, 0, 200, 0);
  EXPECT_EQ(run.job.snapshot().state, JobState::Probing);
  EXPECT_EQ(run.world.transfers.submissions().size(), 1U) << "not again at once";
  run.turn(60'000);
  ASSERT_EQ(run.world.transfers.submissions().size(), 2U);
  run.world.transfers.finish(0, 0, 200, 0);
  EXPECT_EQ(run.job.snapshot().state, JobState::Failed);
  EXPECT_EQ(run.job.snapshot().errorCode, kPartialFile);
}

// ---- Options ----

TEST_F(AdaptiveJob, optionsThatCannotWorkAreRefusedByName) {
  const auto unknown = static_cast<DownloadPlan>(7);
  const struct {
    DownloadOptions options;
    const char* field;
  } cases[] = {
      {DownloadOptions().setPlan(unknown), "plan"},
      {DownloadOptions().setMaxTries(3), "maxTries"},
      {adaptive().setMaxTries(0), "maxTries"},
      {DownloadOptions().setRetryMaxTime(3), "retryMaxTime"},
      {DownloadOptions().setLongestWait(3), "longestWait"},
      {DownloadOptions().setFirstRange(3), "firstRange"},
      {adaptive().setFirstRange(0), "firstRange"},
      {DownloadOptions().setHistory(16'777'217), "history"},
      {DownloadOptions().setHistory(std::numeric_limits<std::size_t>::max()), "history"},
      {DownloadOptions().setCaFile("ca.pem"), "caFile"},
      {adaptive().setVerifyPeer(true).setVerifyPeer(false).setCaFile("ca.pem"), "caFile"},
  };
  for (const auto& one : cases) {
    support::RecordingLogger log;
    Running run(request(kSize), policy(2), one.options, &hosts_);
    run.job.start();
    EXPECT_EQ(run.job.snapshot().state, JobState::Failed) << one.field;
    EXPECT_EQ(run.job.snapshot().errorCode, kBadArgument) << one.field;
    EXPECT_TRUE(run.world.transfers.submissions().empty()) << one.field;
    EXPECT_EQ(log.count(std::string("doStart | options refused | field=") + one.field), 1U);
  }
}

TEST_F(AdaptiveJob, hasAsManyTriesAsItsOptionsSay) {
  for (const std::uint32_t tries : {1U, 3U}) {
    Running run(request(), policy(2), adaptive().setMaxTries(tries), nullptr);
    run.job.start();
    for (std::uint32_t failed = 0; failed < tries; ++failed) {
      EXPECT_EQ(run.job.snapshot().state, JobState::Probing);
      run.turn(60'000);
      run.world.transfers.finish(0, kCouldNotConnect, 0);
    }
    EXPECT_EQ(run.job.snapshot().state, JobState::Failed);
    EXPECT_EQ(run.job.snapshot().errorCode, kCouldNotConnect);
  }
}

TEST_F(AdaptiveJob, givesUpWhenNothingCameForTheTimeThatItsOptionsSay) {
  Running run(request(), policy(2), adaptive().setRetryMaxTime(100), nullptr);
  run.job.start();
  run.turn(1);
  run.turn(99'000);
  run.world.transfers.finish(0, kCouldNotConnect, 0);
  EXPECT_EQ(run.job.snapshot().state, JobState::Probing);
  run.turn(60'000);
  run.world.transfers.finish(0, kCouldNotConnect, 0);
  EXPECT_EQ(run.job.snapshot().state, JobState::Failed);
}

TEST_F(AdaptiveJob, waitsNoLongerForAHostThanItsOptionsSay) {
  for (const std::uint64_t wait : {20U, 21U}) {
    support::RecordingLogger log;
    Running run(request(), policy(2), adaptive().setLongestWait(20), nullptr);
    run.job.start();
    run.turn(1);
    run.world.transfers.finish(0, {kPartialFile, kBusy, 0, wait});
    EXPECT_EQ(run.job.snapshot().state, wait <= 20 ? JobState::Probing : JobState::Failed);
    EXPECT_EQ(log.count("host asks to be left alone | range=0 | seconds=" + std::to_string(wait)),
              wait <= 20 ? 0U : 1U);
  }
}

TEST_F(AdaptiveJob, speedOfThePolicyIsTheJobs) {
  DownloadPolicy limited = policy(4);
  limited.maxDownloadSpeed = 5000;
  Running run(request(), limited, adaptive(), &hosts_);
  run.job.start();
  run.turn(1);
  ASSERT_EQ(run.world.transfers.submissions().size(), 1U);
  EXPECT_EQ(run.world.transfers.submissions()[0].limits.own->rate(), 5000U);
}

// ---- Pauses ----

TEST_F(AdaptiveJob, pauseBeforeTheFirstAnswerHoldsTheJobAsSoonAsItHasCome) {
  Running run(request(), policy(2), adaptive(), &hosts_);
  run.job.start();
  run.turn(1);
  run.job.pause();
  EXPECT_EQ(run.job.snapshot().state, JobState::Probing);
  run.answer(0);
  EXPECT_EQ(run.job.snapshot().state, JobState::Paused);
  run.turn(5);
  EXPECT_EQ(run.world.transfers.submittedStarts(), Starts{0}) << "no others go out";
  ASSERT_TRUE(run.world.transfers.submissions()[0].isHeld());
  run.job.resume();
  EXPECT_EQ(run.job.snapshot().state, JobState::Running);
  EXPECT_FALSE(run.world.transfers.submissions()[0].isHeld());
  run.turn(5);
  EXPECT_GT(run.world.transfers.submittedStarts().size(), 1U);
}

// ---- Hosts ----

TEST_F(AdaptiveJob, whatAHostAskedOneJobForHoldsForTheOthers) {
  Running busy(request(), policy(2), adaptive(), &hosts_);
  busy.job.start();
  busy.turn(1);
  busy.world.transfers.finish(0, {kPartialFile, kBusy, 0, 30});
  busy.turn(1);
  EXPECT_GE(busy.job.details().hostLeftAloneMs(), 29'000U);
  EXPECT_EQ(busy.job.details().retries(), 1U);

  Running other(request(0, "other.test"), policy(2), adaptive(), &hosts_);
  other.job.start();
  other.turn(1);
  EXPECT_EQ(other.world.transfers.submissions().size(), 1U) << "another host";

  Running late(request(), policy(2), adaptive(), &hosts_);
  late.job.start();
  late.turn(1);
  late.turn(29'900);
  EXPECT_TRUE(late.world.transfers.submissions().empty());
  late.turn(3'200);
  EXPECT_EQ(late.world.transfers.submissions().size(), 1U);
}

TEST_F(AdaptiveJob, goesByWhatAHostAsksAnotherJobForWhileItRuns) {
  Running run(request(), policy(2), adaptive(), &hosts_);
  run.job.start();
  run.turn(1);
  run.world.transfers.finish(0, kCouldNotConnect, 0);
  run.turn(1);  // it has looked into the book
  hosts_.note("http://host.test", {run.world.environment().nowNs() + 50'000'000'000, 0});
  run.turn(1);
  run.turn(49'000);
  EXPECT_EQ(run.world.transfers.submissions().size(), 1U);
  run.turn(10'000);
  EXPECT_EQ(run.world.transfers.submissions().size(), 2U);
}

TEST_F(AdaptiveJob, opensNoMoreConnectionsThanTheHostIsKnownToBear) {
  hosts_.note("http://host.test", {0, 2});
  Running run(request(), policy(8), adaptive(), &hosts_);
  run.job.start();
  run.turn(1);
  run.answer(0);
  run.turn(5);
  run.turn(5);
  EXPECT_EQ(run.world.transfers.inFlight().size(), 2U);
  EXPECT_EQ(run.job.details().hostConnections(), 2U);
}

TEST_F(AdaptiveJob, keepsWhatItKnowsOfTheHostWhenItPlansAnew) {
  hosts_.note("http://host.test", {0, 2});
  Running run(request(), policy(8), adaptive(), &hosts_);
  run.job.start();
  run.turn(1);
  ResponseHead unsized;
  unsized.status = 206;
  unsized.contentRange = xfer::ContentRange{0, kFirst - 1, std::nullopt};
  EXPECT_EQ(run.world.transfers.answer(0, unsized).action, xfer::Placement::Action::Stop);
  run.turn(1);
  ASSERT_EQ(run.world.transfers.submissions().size(), 2U);
  EXPECT_EQ(run.world.transfers.submissions()[1].rangeEnd, 0U) << "as a whole";
  ResponseHead sized;
  sized.status = 206;
  sized.contentRange = xfer::ContentRange{0, kSize - 1, kSize};
  EXPECT_EQ(run.world.transfers.answer(0, sized).action, xfer::Placement::Action::Stop);
  EXPECT_EQ(run.job.details().hostConnections(), 2U);
  run.turn(1);
  EXPECT_EQ(run.world.transfers.submissions().back().rangeEnd, kFirst) << "in ranges after all";
  EXPECT_EQ(hosts_.of("http://host.test").connections, 2U);
}

TEST(HostBook, keepsTheLaterTimeAndTheNewerNumber) {
  HostBook book;
  EXPECT_EQ(book.of("http://a"), xfer::HostTerms());
  book.note("http://a", {100, 4});
  book.note("http://a", {50, 3});
  EXPECT_EQ(book.of("http://a"), (xfer::HostTerms{100, 3}));
  EXPECT_EQ(book.of("http://b"), xfer::HostTerms());
}

// ---- Details ----

TEST_F(AdaptiveJob, tellsWhatItsConnectionsDo) {
  Running run(request(), policy(2), adaptive(), &hosts_);
  EXPECT_TRUE(run.job.details().ranges().empty());
  run.job.start();
  run.turn(1);
  run.answer(0);
  run.turn(5);
  run.world.transfers.deliver(0, 0, patternBytes(0, 400));
  run.turn(10);
  run.turn(20);
  const std::vector<xfer::RangeDetails> ranges = run.job.details().ranges();
  ASSERT_EQ(ranges.size(), 2U);
  EXPECT_EQ(ranges[0].start, 0U);
  EXPECT_EQ(ranges[0].end, kFirst);
  EXPECT_EQ(ranges[0].position, 400U);
  EXPECT_EQ(ranges[0].silentMs, 20U);
  EXPECT_FALSE(ranges[0].copy);
  EXPECT_EQ(ranges[1].start, kFirst);
  EXPECT_GT(ranges[1].end, kFirst);
  EXPECT_LE(ranges[1].end, kSize);
  EXPECT_EQ(ranges[1].position, kFirst);
  EXPECT_EQ(run.job.details().givenUpCount(), 0U);
}

TEST_F(AdaptiveJob, tellsWhatNoConnectionFetches) {
  Running run(request(), policy(1), adaptive(), &hosts_);
  run.job.start();
  run.turn(1);
  EXPECT_TRUE(run.job.details().missing().empty()) << "of a size that is unknown";
  run.answer(0);
  run.turn(5);
  const std::vector<xfer::MissingRange> missing = run.job.details().missing();
  ASSERT_EQ(missing.size(), 1U);
  EXPECT_EQ(missing[0].start, kFirst);
  EXPECT_EQ(missing[0].end, kSize);
}

TEST_F(AdaptiveJob, tellsOfAWholeFileThatItEndsWhereTheFileDoesAndThatAllOfItLacksBetweenTwoTries) {
  Running run(request(), policy(2), DownloadOptions().setPlan(DownloadPlan::Adaptive), &hosts_);
  run.job.start();
  run.turn(1);
  ResponseHead head;
  head.status = 200;
  head.contentLength = kSize;
  EXPECT_EQ(run.world.transfers.answer(0, head).action, xfer::Placement::Action::Deliver);
  run.turn(5);
  ASSERT_EQ(run.job.details().ranges().size(), 1U);
  EXPECT_EQ(run.job.details().ranges()[0].end, kSize);
  EXPECT_TRUE(run.job.details().missing().empty());
  run.world.transfers.finish(0, {kPartialFile, 200, 0});
  const std::vector<xfer::MissingRange> missing = run.job.details().missing();
  ASSERT_EQ(missing.size(), 1U);
  EXPECT_EQ(missing[0].start, 0U);
  EXPECT_EQ(missing[0].end, kSize);
}

TEST_F(AdaptiveJob, tellsWhatItHasDoneEventByEvent) {
  using Kind = xfer::DownloadEvent::Kind;
  Running run(request(), policy(2), adaptive().setHistory(100), &hosts_);
  EXPECT_TRUE(run.job.history(0).empty());
  run.job.start();
  run.turn(1);
  run.turn(50);
  run.answer(0);
  run.turn(5);
  ASSERT_EQ(run.world.transfers.inFlight(), (Starts{0, kFirst}));
  run.world.transfers.deliver(0, 0, patternBytes(0, 400));
  run.turn(7);
  run.world.transfers.finish(kFirst, {kPartialFile, kBusy, 0, 3});
  run.turn(1);
  const std::vector<xfer::DownloadEvent> events = run.job.history(0);
  std::vector<Kind> kinds;
  for (const xfer::DownloadEvent& event : events) kinds.push_back(event.kind);
  ASSERT_EQ(kinds, (std::vector<Kind>{Kind::State, Kind::Begun, Kind::Answered, Kind::State, Kind::Begun, Kind::Ended,
                                      Kind::TriedAgain, Kind::HostLeftAlone}));

  EXPECT_EQ(events[0].state, JobState::Probing);
  EXPECT_EQ(events[1].request, 1U);
  EXPECT_EQ(events[1].connection, 1U);
  EXPECT_EQ(events[1].start, 0U);
  EXPECT_EQ(events[1].end, kFirst);
  EXPECT_EQ(events[2].timeNs - events[1].timeNs, 50'000'000U);
  EXPECT_EQ(events[3].state, JobState::Running);
  EXPECT_EQ(events[4].request, 2U);
  EXPECT_EQ(events[4].connection, 2U);
  EXPECT_EQ(events[4].start, kFirst);
  EXPECT_EQ(events[5].request, 2U);
  EXPECT_EQ(events[5].code, kPartialFile);
  EXPECT_EQ(events[5].httpStatus, kBusy);
  EXPECT_EQ(events[5].position, kFirst);
  EXPECT_EQ(events[6].request, 2U);
  EXPECT_EQ(events[6].httpStatus, kBusy);
  EXPECT_GE(events[6].waitNs, 3'000'000'000U);
  EXPECT_GT(events[7].waitNs, 2'900'000'000U);
  EXPECT_LE(events[7].waitNs, events[6].waitNs);

  run.world.transfers.finish(0, {0, 206, kFirst, {}});
  const std::vector<xfer::DownloadEvent> later = run.job.history(8);
  ASSERT_FALSE(later.empty());
  EXPECT_EQ(later[0].number, 8U);
  EXPECT_EQ(later[0].kind, Kind::Ended);
  EXPECT_EQ(later[0].request, 1U);
  EXPECT_EQ(later[0].position, 400U);
}

TEST_F(AdaptiveJob, keepsNoHistoryUnlessItsOptionsSaySo) {
  Running run(request(), policy(2), adaptive(), &hosts_);
  run.job.start();
  run.turn(1);
  run.answer(0);
  EXPECT_TRUE(run.job.history(0).empty());
}

TEST_F(AdaptiveJob, tellsWhyItGaveAConnectionUp) {
  support::RecordingLogger log;
  Running run(request(), policy(3), adaptive().setHistory(1000), &hosts_);
  run.job.start();
  run.turn(1);
  run.answer(0);
  run.turn(5);
  const Starts starts = run.world.transfers.inFlight();
  ASSERT_EQ(starts.size(), 3U);
  run.answer(starts[1]);
  run.answer(starts[2]);
  std::uint64_t sent = 0;
  for (int turns = 0; turns < 300 && run.job.details().givenUp().empty(); ++turns) {
    for (const std::uint64_t start : {starts[0], starts[1]}) {
      run.world.transfers.deliver(start, start + sent, patternBytes(start + sent, start + sent + 1));
    }
    ++sent;
    run.turn(10);
  }
  const xfer::DownloadEvent noted = run.job.history(0).back();
  EXPECT_EQ(noted.kind, xfer::DownloadEvent::Kind::GivenUp);
  EXPECT_STREQ(noted.reason, "silent");
  EXPECT_EQ(noted.start, starts[2]);
  const std::vector<xfer::GivenUpConnection> givenUp = run.job.details().givenUp();
  ASSERT_EQ(givenUp.size(), 1U);
  EXPECT_STREQ(givenUp[0].reason, "silent");
  EXPECT_EQ(givenUp[0].start, starts[2]);
  EXPECT_EQ(givenUp[0].position, starts[2]);
  EXPECT_EQ(run.job.details().givenUpCount(), 1U);
  EXPECT_EQ(log.count("turn | connection given up | reason=silent | range=" + std::to_string(starts[2])), 1U);
  run.world.transfers.finish(starts[2], kCancelled, 0);
  run.turn(10);
  const auto submissions = run.world.transfers.submissions();
  EXPECT_TRUE(std::any_of(submissions.begin(), submissions.end(), [](const auto& one) { return one.freshConnection; }))
      << "a new connection takes its place";
}

TEST_F(AdaptiveJob, jobOfTheStatedPlanHasNoDetails) {
  Running run(request(kSize), policy(2), DownloadOptions(), &hosts_);
  run.job.start();
  EXPECT_TRUE(run.job.details().ranges().empty());
  EXPECT_EQ(run.job.details().hostConnections(), 0U);
}

}  // namespace
