// The core's events one at a time.  All orders of them are job_core_walk_test.cpp's.
#include "job_core.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "result_codes.h"
#include "retry_policy.h"
#include "support/log_line.h"
#include "support/recording_logger.h"

using namespace xfer;

namespace {

using support::failure;
using support::kJob;
using FlightPtr = JobCore::FlightPtr;
using SizeFrom = JobCore::SizeFrom;
using Action = Placement::Action;

constexpr std::uint64_t kChunk = 10;
constexpr std::int32_t kPartial = 206;
constexpr std::int32_t kForbidden = 403;
constexpr std::int32_t kBusy = 503;
constexpr std::int32_t kNoStatus = 0;

ResponseHead rangeHead(std::uint64_t first, std::uint64_t end, std::uint64_t total, const std::string& weakTag = "") {
  ResponseHead head;
  head.status = kPartial;
  head.contentRange = ContentRange{first, end - 1, total};
  head.weakEtag = weakTag;
  return head;
}

ResponseHead wholeHead(std::uint64_t length) {
  ResponseHead head;
  head.status = 200;
  head.contentLength = length;
  return head;
}

// A job of ranges of ten bytes each.
class JobCoreTest : public testing::Test {
 protected:
  static DownloadPolicy policy(std::uint16_t numThreads) {
    DownloadPolicy policy;
    policy.numThreads = numThreads;
    return policy;
  }

  static DownloadPolicy chunks() {
    DownloadPolicy policy;
    policy.rampChunks = false;
    policy.maxChunkSize = kChunk;
    return policy;
  }

  void prepare(std::uint64_t size, SizeFrom from = SizeFrom::Host) {
    core.setSize(size, from);
    core.fileOpened();
    core.plan(chunks());
  }

  void start(std::uint64_t size, SizeFrom from = SizeFrom::Host) {
    prepare(size, from);
    ASSERT_TRUE(core.run().refill);
  }

  Placement answer(const FlightPtr& flight, const ResponseHead& head) {
    JobActions actions;
    const Placement placement = core.answered(flight, head, actions);
    cancelSuperseded = actions.cancelSuperseded;
    return placement;
  }

  // The answer that was asked for, and all of its bytes.
  JobActions bring(const FlightPtr& flight, const std::string& weakTag = "", std::uint8_t content = 1) {
    const ByteRange asked = flight->asked;
    EXPECT_EQ(answer(flight, rangeHead(asked.start, asked.end, 30, weakTag)).action, Action::Deliver);
    deliver(flight, content);
    return core.ended(flight, {CURLE_OK, kPartial, asked.length()});
  }

  static void deliver(const FlightPtr& flight, std::uint8_t content) {
    const std::vector<std::uint8_t> bytes(flight->asked.length(), content);
    if (flight->sample) {
      flight->sampled = bytes;
    } else if (flight->hasher) {
      flight->hasher->add(bytes.data(), bytes.size());
    }
  }

  JobCore core{policy(2)};
  bool cancelSuperseded = false;
};

// ---- Start ----

TEST_F(JobCoreTest, handsOutAsManyRangesAsThePolicyAllows) {
  start(30);
  EXPECT_EQ(core.next()->asked, (ByteRange{0, 10}));
  EXPECT_EQ(core.next()->asked, (ByteRange{10, 20}));
  EXPECT_EQ(core.next(), nullptr);
  EXPECT_EQ(core.inFlight(), 2U);
}

TEST_F(JobCoreTest, startsOnce) {
  EXPECT_TRUE(core.beginProbe());
  EXPECT_FALSE(core.beginProbe());
  EXPECT_EQ(core.state(), JobState::Probing);
}

TEST_F(JobCoreTest, handsOutNothingBeforeItRuns) {
  prepare(30);
  EXPECT_EQ(core.next(), nullptr);
}

TEST_F(JobCoreTest, cancelBeforeTheFileIsOpenIsFinalAtOnceAndTheFileIsClosedLater) {
  const JobActions cancelled = core.cancel();
  EXPECT_EQ(core.state(), JobState::Cancelled);
  EXPECT_FALSE(cancelled.close);
  EXPECT_TRUE(core.fileOpened().close);
  EXPECT_FALSE(core.run().refill);
  EXPECT_EQ(core.state(), JobState::Cancelled);
}

TEST_F(JobCoreTest, cancelBetweenOpeningAndRunningClosesTheFile) {
  prepare(30);
  EXPECT_TRUE(core.cancel().close);
  EXPECT_EQ(core.state(), JobState::Cancelling);
  core.closed();
  EXPECT_EQ(core.state(), JobState::Cancelled);
}

TEST_F(JobCoreTest, jobThatIsCancelledBeforeItRunsIsFinalWhenItWouldRun) {
  prepare(30);
  core.cancel();
  EXPECT_FALSE(core.run().refill);
  EXPECT_EQ(core.state(), JobState::Cancelled);
}

TEST_F(JobCoreTest, closesItsFileOnce) {
  prepare(30);
  EXPECT_TRUE(core.cancel().close);
  EXPECT_FALSE(core.fail(result::kException, 0).close);
}

TEST_F(JobCoreTest, failureBeforeRunningStays) {
  prepare(30);
  EXPECT_TRUE(core.fail(result::kException, 0).close);
  EXPECT_FALSE(core.run().refill);
  EXPECT_EQ(core.state(), JobState::Failed);
  EXPECT_EQ(core.errorCode(), result::kException);
}

// ---- To the end ----

TEST_F(JobCoreTest, lastRangeFinalisesAndCompletesAndClosesOnce) {
  start(30);
  bring(core.next());
  bring(core.next());
  const JobActions last = bring(core.next());
  EXPECT_EQ(last.finalize, 30U);
  EXPECT_FALSE(last.close);
  EXPECT_EQ(core.state(), JobState::Running);
  EXPECT_TRUE(core.finalized(0).close);
  EXPECT_EQ(core.state(), JobState::Completed);
  core.closed();
  EXPECT_EQ(core.state(), JobState::Completed);
}

TEST_F(JobCoreTest, fileThatCannotBeCutFailsTheJob) {
  start(10, SizeFrom::Host);
  const FlightPtr flight = core.next();
  answer(flight, rangeHead(0, 10, 10));
  ASSERT_EQ(core.ended(flight, {CURLE_OK, kPartial, 10}).finalize, 10U);
  EXPECT_TRUE(core.finalized(result::kFileNotOpen).close);
  EXPECT_EQ(core.errorCode(), result::kFileNotOpen);
}

TEST_F(JobCoreTest, jobThatFailsWhileItsFileIsCutClosesItWhenCuttingFailsToo) {
  start(10);
  const FlightPtr flight = core.next();
  answer(flight, rangeHead(0, 10, 10));
  ASSERT_TRUE(core.ended(flight, {CURLE_OK, kPartial, 10}).finalize);
  EXPECT_FALSE(core.fail(result::kException, 0).close);
  EXPECT_TRUE(core.finalized(result::kFileNotOpen).close);
  EXPECT_EQ(core.errorCode(), result::kException);
}

TEST_F(JobCoreTest, cancelWhileTheFileIsCutEndsWithIt) {
  start(10);
  const FlightPtr flight = core.next();
  answer(flight, rangeHead(0, 10, 10));
  ASSERT_TRUE(core.ended(flight, {CURLE_OK, kPartial, 10}).finalize);
  EXPECT_FALSE(core.cancel().close);
  EXPECT_FALSE(core.standsStill());
  EXPECT_TRUE(core.finalized(0).close);
  EXPECT_FALSE(core.standsStill()) << "the core is about to end it";
  core.closed();
  EXPECT_EQ(core.state(), JobState::Cancelled);
}

TEST_F(JobCoreTest, cancelWithTransfersInFlightClosesTheFileAfterTheLastOfThem) {
  start(30);
  const FlightPtr one = core.next();
  const FlightPtr other = core.next();
  const JobActions cancelled = core.cancel();
  EXPECT_TRUE(cancelled.cancelAll);
  EXPECT_FALSE(cancelled.close);
  EXPECT_FALSE(core.ended(one, {CURLE_ABORTED_BY_CALLBACK, kNoStatus, 0}).close);
  EXPECT_TRUE(core.ended(other, {CURLE_ABORTED_BY_CALLBACK, kNoStatus, 0}).close);
}

TEST_F(JobCoreTest, transferThatIsSubmittedAfterAStopIsToBeCancelled) {
  start(30);
  const FlightPtr before = core.next();
  const FlightPtr after = core.next();
  EXPECT_FALSE(core.submitted(*before, 1));
  core.cancel();
  EXPECT_TRUE(core.submitted(*after, 2));
}

TEST_F(JobCoreTest, transferThatCannotBeSubmittedFailsTheJob) {
  start(10);
  const JobActions actions = core.abandoned(core.next());
  EXPECT_TRUE(actions.close);
  EXPECT_EQ(core.errorCode(), result::kException);
  EXPECT_EQ(core.inFlight(), 0U);
}

TEST_F(JobCoreTest, firstFailureIsTheOneThatCounts) {
  start(30);
  const FlightPtr one = core.next();
  const FlightPtr other = core.next();
  core.ended(one, {CURLE_OK, kForbidden, 0});
  core.writeFailed(result::kWriteFailed);
  EXPECT_FALSE(core.fail(result::kException, kNoStatus).cancelAll);
  core.ended(other, {CURLE_OK, kForbidden + 1, 0});
  EXPECT_EQ(core.errorCode(), kForbidden);
  EXPECT_EQ(core.httpStatus(), kForbidden);
}

// ---- Pause and resume ----

TEST_F(JobCoreTest, pausedJobHandsOutNothing) {
  start(30);
  ASSERT_TRUE(core.pause());
  EXPECT_FALSE(core.pause());
  EXPECT_EQ(core.next(), nullptr);
}

TEST_F(JobCoreTest, probingJobCannotBePaused) {
  core.beginProbe();
  EXPECT_FALSE(core.pause());
  EXPECT_EQ(core.state(), JobState::Probing);
}

TEST_F(JobCoreTest, resumeRefillsOnlyWhenNothingIsInFlight) {
  start(30);
  const FlightPtr flight = core.next();
  core.pause();
  JobActions actions;
  EXPECT_TRUE(core.resume(actions));
  EXPECT_FALSE(actions.refill);
  core.pause();
  bring(flight);
  EXPECT_TRUE(core.resume(actions));
  EXPECT_TRUE(actions.refill);
  EXPECT_FALSE(core.resume(actions)) << "it runs";
}

TEST_F(JobCoreTest, everyRangeEndingDuringAPauseStandsStill) {
  start(10);
  const FlightPtr flight = core.next();
  core.pause();
  answer(flight, rangeHead(0, 10, 10));
  ASSERT_TRUE(core.ended(flight, {CURLE_OK, kPartial, 10}).finalize);
  EXPECT_FALSE(core.finalized(0).close);
  EXPECT_EQ(core.state(), JobState::Paused);
  EXPECT_TRUE(core.standsStill());
  EXPECT_TRUE(core.cancel().close) << "a cancel ends it";
}

// ---- Retries ----

TEST_F(JobCoreTest, failedRangeWaitsForItsTurnAndIsHandedOutAgain) {
  start(10);
  const JobActions failed = core.ended(core.next(), {CURLE_COULDNT_CONNECT, kNoStatus, 0});
  ASSERT_TRUE(failed.retry);
  EXPECT_EQ(failed.retry->delayMs, kRetryDelaysMs[0]);
  EXPECT_FALSE(failed.refill);
  EXPECT_EQ(core.next(), nullptr);
  EXPECT_TRUE(core.retryDue(failed.retry->id).refill);
  EXPECT_EQ(core.next()->asked, (ByteRange{0, 10}));
}

TEST_F(JobCoreTest, retryIsDueOnce) {
  start(10);
  const JobActions failed = core.ended(core.next(), {CURLE_OK, kBusy, 0});
  core.retryDue(failed.retry->id);
  EXPECT_FALSE(core.retryDue(failed.retry->id).refill);
  EXPECT_FALSE(core.retryDue(failed.retry->id + 1).refill);
}

TEST_F(JobCoreTest, retryThatFallsDueDuringAPauseIsDropped) {
  start(10);
  const JobActions failed = core.ended(core.next(), {CURLE_OK, kBusy, 0});
  core.pause();
  EXPECT_FALSE(core.standsStill());
  core.retryDue(failed.retry->id);
  EXPECT_TRUE(core.standsStill());
  JobActions actions;
  core.resume(actions);
  EXPECT_EQ(core.next(), nullptr);
}

TEST_F(JobCoreTest, fourthFailureOfARangeIsTheLast) {
  start(10);
  for (const std::uint64_t delayMs : kRetryDelaysMs) {
    const JobActions failed = core.ended(core.next(), {CURLE_OK, kBusy, 0});
    ASSERT_TRUE(failed.retry);
    EXPECT_EQ(failed.retry->delayMs, delayMs);
    core.retryDue(failed.retry->id);
  }
  EXPECT_TRUE(core.ended(core.next(), {CURLE_OK, kBusy, 0}).close);
  EXPECT_EQ(core.errorCode(), kBusy);
}

// ---- Answers ----

TEST_F(JobCoreTest, rangeIsPlacedWhereItBelongs) {
  start(30);
  core.next();
  const Placement placement = answer(core.next(), rangeHead(10, 20, 30));
  EXPECT_EQ(placement.action, Action::Deliver);
  EXPECT_EQ(placement.bodyOffset, 10U);
  EXPECT_EQ(placement.end, 20U);
}

TEST_F(JobCoreTest, answerThatIsNoContentIsDropped) {
  start(30);
  ResponseHead head;
  head.status = 203;
  EXPECT_EQ(answer(core.next(), head).action, Action::Drop);
}

TEST_F(JobCoreTest, unusableAnswerIsRetriedWhateverItsEnd) {
  start(30);
  const FlightPtr flight = core.next();
  EXPECT_EQ(answer(flight, rangeHead(5, 10, 30)).action, Action::Stop);
  EXPECT_TRUE(core.ended(flight, {CURLE_RANGE_ERROR, kPartial, 0}).retry);
}

TEST_F(JobCoreTest, wholeFileSupersedesTheOthersAndIsFetchedAlone) {
  start(30);
  const FlightPtr lead = core.next();
  const FlightPtr other = core.next();
  core.submitted(*other, 7);
  const Placement placement = answer(lead, wholeHead(30));
  EXPECT_EQ(placement.bodyOffset, 0U);
  EXPECT_EQ(placement.end, 30U);
  EXPECT_FALSE(lead->superseded);
  EXPECT_TRUE(other->superseded);
  EXPECT_TRUE(cancelSuperseded);
  std::vector<Ticket> tickets;
  core.takeSuperseded([&](Ticket ticket) { tickets.push_back(ticket); });
  core.takeSuperseded([&](Ticket ticket) { tickets.push_back(ticket); });
  EXPECT_EQ(tickets, std::vector<Ticket>{7}) << "each once";
  core.ended(other, {CURLE_ABORTED_BY_CALLBACK, kNoStatus, 0});
  EXPECT_EQ(core.next(), nullptr) << "one transfer at a time from here on";
  EXPECT_EQ(core.ended(lead, {CURLE_OK, 200, 30}).finalize, 30U);
}

TEST_F(JobCoreTest, wholeFileDropsTheRetriesOfTheRangesThatItBrought) {
  start(30);
  const FlightPtr first = core.next();
  const FlightPtr second = core.next();
  ASSERT_TRUE(core.ended(first, {CURLE_COULDNT_CONNECT, kNoStatus, 0}).retry);
  const JobActions failed = core.ended(second, {CURLE_COULDNT_CONNECT, kNoStatus, 0});
  ASSERT_TRUE(failed.retry);
  core.retryDue(failed.retry->id);
  const FlightPtr lead = core.next();
  const FlightPtr last = core.next();
  ASSERT_EQ(last->asked, (ByteRange{20, 30}));
  const JobActions third = core.ended(last, {CURLE_COULDNT_CONNECT, kNoStatus, 0});
  ASSERT_TRUE(third.retry);
  ASSERT_EQ(answer(lead, wholeHead(30)).action, Action::Deliver);
  core.ended(lead, {CURLE_OK, 200, 20});
  core.pause();
  core.retryDue(third.retry->id);
  EXPECT_FALSE(core.standsStill()) << "nothing was dropped that is needed";
}

TEST_F(JobCoreTest, supersededRangeIsFetchedWhenTheWholeFileBreaksOff) {
  start(20);
  const FlightPtr lead = core.next();
  const FlightPtr other = core.next();
  answer(lead, wholeHead(20));
  EXPECT_TRUE(core.ended(lead, {CURLE_PARTIAL_FILE, 200, 5}).retry);
  EXPECT_TRUE(core.ended(other, {CURLE_ABORTED_BY_CALLBACK, kNoStatus, 0}).refill);
  EXPECT_EQ(core.next()->asked, (ByteRange{10, 20}));
}

TEST_F(JobCoreTest, wholeFileInPlaceOfALaterRangeWaitsForTheEarlierOne) {
  start(20);
  core.next();
  const FlightPtr later = core.next();
  EXPECT_EQ(answer(later, wholeHead(20)).action, Action::Stop);
  EXPECT_TRUE(later->superseded);
  core.ended(later, {CURLE_ABORTED_BY_CALLBACK, 200, 0});
  EXPECT_EQ(core.next(), nullptr);
}

TEST_F(JobCoreTest, wholeFileDoesNotWaitForAnEarlierRangeThatIsSuperseded) {
  JobCore wide{policy(3)};
  wide.setSize(30, SizeFrom::Host);
  wide.fileOpened();
  wide.plan(chunks());
  wide.run();
  const FlightPtr first = wide.next();
  const FlightPtr put = wide.next();
  const FlightPtr last = wide.next();
  JobActions actions;
  ASSERT_EQ(wide.answered(put, wholeHead(30), actions).action, Action::Stop);
  wide.ended(first, {CURLE_COULDNT_CONNECT, kNoStatus, 0});
  EXPECT_EQ(wide.answered(last, wholeHead(30), actions).action, Action::Deliver);
}

TEST_F(JobCoreTest, wholeFileOfAnotherLengthTakesThePlaceOfRangesThatAreNotWholeYet) {
  start(20, SizeFrom::ProbedFile);
  const FlightPtr lead = core.next();
  const FlightPtr other = core.next();
  ResponseHead withoutATotal;
  withoutATotal.status = kPartial;
  ASSERT_EQ(answer(other, withoutATotal).action, Action::Deliver);
  const Placement placement = answer(lead, wholeHead(25));
  EXPECT_EQ(placement.action, Action::Deliver);
  EXPECT_EQ(placement.end, 25U);
  EXPECT_TRUE(other->superseded);
  EXPECT_EQ(core.totalBytes(), 25U);
}

TEST_F(JobCoreTest, wholeFileIsReadUpToTheLastByteThatIsMissing) {
  start(30);
  const FlightPtr first = core.next();
  bring(core.next());
  const JobActions failed = core.ended(first, {CURLE_COULDNT_CONNECT, kNoStatus, 0});
  ASSERT_TRUE(failed.retry);
  bring(core.next());
  core.retryDue(failed.retry->id);
  EXPECT_EQ(answer(core.next(), wholeHead(30)).end, 10U);
}

TEST_F(JobCoreTest, wholeFileThatEndsWhereTheRangeStartsFailsTheJob) {
  start(20);
  const FlightPtr range = core.next();
  ResponseHead withoutATotal;
  withoutATotal.status = kPartial;
  answer(range, withoutATotal);
  core.ended(range, {CURLE_OK, kPartial, 10});
  const FlightPtr flight = core.next();
  ASSERT_EQ(flight->asked, (ByteRange{10, 20}));
  EXPECT_EQ(answer(flight, wholeHead(10)).code, CURLE_RANGE_ERROR);
}

TEST_F(JobCoreTest, anotherEntityTagIsNoHarmWhileNothingWasDelivered) {
  start(10);
  ResponseHead head = rangeHead(0, 10, 10);
  head.strongEtag = "\"old\"";
  const FlightPtr flight = core.next();
  answer(flight, head);
  const JobActions failed = core.ended(flight, {CURLE_RECV_ERROR, kPartial, 3});
  ASSERT_TRUE(failed.retry);
  core.retryDue(failed.retry->id);
  head.strongEtag = "\"new\"";
  EXPECT_EQ(answer(core.next(), head).action, Action::Deliver);
}

TEST_F(JobCoreTest, rangeThatIsCappedGoesOnAtOnceAndCostsNoAttempt) {
  start(20);
  for (std::uint64_t start = 0; start < 8; start += 4) {
    const FlightPtr flight = core.next();
    EXPECT_EQ(flight->asked, (ByteRange{start, 10}));
    EXPECT_EQ(answer(flight, rangeHead(start, start + 4, 20)).namedEnd, start + 4);
    const JobActions ended = core.ended(flight, {CURLE_OK, kPartial, 4});
    EXPECT_TRUE(ended.refill);
    EXPECT_FALSE(ended.retry);
  }
}

TEST_F(JobCoreTest, bodyThatIsShorterThanAskedIsNotWholeWhenNothingSaysThatTheFileGoesOn) {
  start(20);
  ResponseHead head = rangeHead(0, 5, 20);
  head.contentRange->total.reset();
  EXPECT_FALSE(answer(core.next(), head).namedEnd);
}

TEST_F(JobCoreTest, bodyThatIsShorterThanItsOwnAnswerNamesGoesOn) {
  start(10);
  const FlightPtr flight = core.next();
  ResponseHead head = rangeHead(0, 10, 10);
  head.contentRange->total.reset();
  answer(flight, head);
  EXPECT_FALSE(core.ended(flight, {CURLE_OK, kPartial, 5}).finalize);
  EXPECT_EQ(core.next()->asked, (ByteRange{5, 10}));
}

TEST_F(JobCoreTest, wholeFileWithoutALengthHasToEndWhereTheRangesSay) {
  start(30);
  bring(core.next());
  ResponseHead head;
  head.status = 200;
  head.transferEncoding = true;
  const Placement placement = answer(core.next(), head);
  EXPECT_EQ(placement.end, 30U);
  EXPECT_EQ(placement.code, CURLE_RANGE_ERROR);
  EXPECT_EQ(placement.codeIfShort, CURLE_RANGE_ERROR);
}

TEST_F(JobCoreTest, fileThatIsShorterThanTheHostSaysEndsWhereTheAnswersSay) {
  const support::RecordingLogger log;
  start(40);
  bring(core.next());
  bring(core.next());
  EXPECT_EQ(log.count("known size is contradicted"), 1U) << "noted once";
  const FlightPtr flight = core.next();
  ResponseHead head;
  head.status = 200;
  head.transferEncoding = true;
  EXPECT_EQ(answer(flight, head).end, 30U);
  EXPECT_EQ(core.ended(flight, {CURLE_OK, 200, 10}).finalize, 30U);
}

TEST_F(JobCoreTest, serverThatSendsLessThanAskedIsNotedOnce) {
  const support::RecordingLogger log;
  start(20);
  for (std::uint64_t start = 0; start < 8; start += 4) {
    const FlightPtr flight = core.next();
    answer(flight, rangeHead(start, start + 4, 20));
    core.ended(flight, {CURLE_OK, kPartial, 4});
  }
  EXPECT_EQ(log.count("server sends less of a range than asked"), 1U);
}

TEST_F(JobCoreTest, writesThatFailAfterTheJobHasFailedAreNotLogged) {
  const support::RecordingLogger log;
  start(20);
  core.writeFailed(result::kWriteFailed);
  core.writeFailed(result::kWriteFailed);
  EXPECT_EQ(log.count("finalize failed"), 1U);
}

// ---- What is told of a failure ----

TEST_F(JobCoreTest, tellsWhatTheTransferSaidOfTheFailureThatEndedTheJob) {
  start(30);
  const FlightPtr flight = core.next();
  const FlightPtr other = core.next();
  EXPECT_TRUE(core.failureText().empty());
  core.ended(flight, {CURLE_UNSUPPORTED_PROTOCOL, kNoStatus, 0, {}, ShortText::of("no such protocol")});
  core.ended(other, {CURLE_URL_MALFORMAT, kNoStatus, 0, {}, ShortText::of("later")});
  core.fail(result::kException, kNoStatus, ShortText::of("later still"));
  EXPECT_EQ(core.failureText().view(), "no such protocol") << "of the first one";
  EXPECT_EQ(core.details().failureText, "no such protocol");
}

TEST_F(JobCoreTest, tellsNothingOfAFailureThatIsTriedAgain) {
  start(30);
  core.ended(core.next(), {CURLE_COULDNT_CONNECT, kNoStatus, 0, {}, ShortText::of("refused")});
  EXPECT_EQ(core.state(), JobState::Running);
  EXPECT_TRUE(core.failureText().empty());
}

TEST_F(JobCoreTest, tellsNothingWhereNothingIsKnown) {
  start(30);
  core.ended(core.next(), {CURLE_URL_MALFORMAT, kNoStatus, 0});
  EXPECT_EQ(core.state(), JobState::Failed);
  EXPECT_TRUE(core.failureText().empty());
}

TEST_F(JobCoreTest, tellsTheStatusWhereNothingIsKnownOfWhatBrokeItsAnswerOff) {
  start(30);
  core.ended(core.next(), {CURLE_BAD_CONTENT_ENCODING, kForbidden, 0});
  EXPECT_EQ(core.failureText().view(), "HTTP status 403");
}

TEST_F(JobCoreTest, tellsTheSizeThatTheAnswersHadAndNotTheHosts) {
  start(30);
  const FlightPtr first = core.next();
  ASSERT_EQ(answer(first, rangeHead(0, 10, 40)).action, Action::Deliver);
  core.ended(first, {CURLE_OK, kPartial, kChunk});
  const FlightPtr second = core.next();
  ASSERT_EQ(answer(second, rangeHead(10, 20, 50)).action, Action::Stop);
  core.ended(second, {CURLE_RANGE_ERROR, kPartial, 0});
  EXPECT_EQ(core.failureText().view(), "the size was 40, now it is 50");
}

TEST_F(JobCoreTest, tellsThatTheFileEndsBeforeTheRange) {
  start(30);
  ResponseHead head;
  head.status = kPartial;
  const FlightPtr first = core.next();
  ASSERT_EQ(answer(first, head).action, Action::Deliver);
  core.ended(first, {CURLE_OK, kPartial, kChunk});
  const FlightPtr second = core.next();
  ASSERT_EQ(answer(second, wholeHead(5)).action, Action::Stop);
  core.ended(second, {CURLE_RANGE_ERROR, 200, 0});
  EXPECT_EQ(core.failureText().view(), "byte 10 was asked for, now the size is 5");
}

// Of a range that fails in the same way at every try.
class JobCoreLastTry : public JobCoreTest {
 protected:
  std::string textAfter(const ResponseHead& head, std::uint64_t bytes) {
    for (std::size_t tries = 0; tries <= kRetryDelaysMs.size(); ++tries) {
      const FlightPtr flight = core.next();
      EXPECT_EQ(answer(flight, head).action, Action::Deliver);
      const JobActions actions = core.ended(flight, {CURLE_OK, head.status, bytes});
      if (actions.retry) core.retryDue(actions.retry->id);
    }
    EXPECT_EQ(core.errorCode(), CURLE_PARTIAL_FILE);
    return std::string(core.failureText().view());
  }
};

TEST_F(JobCoreLastTry, tellsThatTheAnswerHasNoByte) {
  start(10);
  EXPECT_EQ(textAfter(rangeHead(0, 10, 10), 0), "the answer has no byte of the range");
}

TEST_F(JobCoreLastTry, tellsWhereTheConnectionEndedTheBody) {
  start(10, SizeFrom::ProbedFile);
  ResponseHead head;
  head.status = 200;
  EXPECT_EQ(textAfter(head, 7), "the size is 10, the answer ended at 7");
}

TEST_F(JobCoreTest, tellsThatPartsOfARangeAreAllThatComes) {
  start(30000);
  core.plan([] {
    DownloadPolicy wide = chunks();
    wide.maxChunkSize = 30000;
    return wide;
  }());
  std::uint64_t reached = 0;
  for (int answers = 0; core.state() == JobState::Running; ++answers) {
    ASSERT_LT(answers, 100);
    const FlightPtr flight = core.next();
    ASSERT_NE(flight, nullptr);
    reached = flight->asked.start;
    ASSERT_EQ(answer(flight, rangeHead(reached, reached + 1, 30000)).action, Action::Deliver);
    const JobActions actions = core.ended(flight, {CURLE_OK, kPartial, 1});
    if (actions.retry) core.retryDue(actions.retry->id);
  }
  EXPECT_EQ(core.failureText().view(),
            "the server sends less of a range than asked: 1 of " + std::to_string(30000 - reached) + " bytes");
}

TEST_F(JobCoreTest, tellsThatTheAnswerOfAMovingPlanHasNoBody) {
  JobCore moving{policy(1), CoreOptions{.adaptive = AdaptiveSettings{.maxTries = 1}}};
  ASSERT_TRUE(moving.beginProbe());
  moving.plan(chunks());
  std::uint64_t nowNs = 0;
  for (int tries = 0; moving.state() != JobState::Failed && tries < 100; ++tries) {
    moving.setTime(nowNs += 100'000'000'000);
    moving.turned({.nowNs = nowNs, .sinceNs = 100'000'000'000});
    if (const FlightPtr flight = moving.next()) moving.ended(flight, {CURLE_OK, kPartial, 0});
  }
  EXPECT_EQ(moving.errorCode(), CURLE_PARTIAL_FILE);
  EXPECT_EQ(moving.failureText().view(), "the answer ended before its body");
}

TEST_F(JobCoreTest, tellsTheStatusAndWhatBrokeItsAnswerOff) {
  start(30);
  core.ended(core.next(), {CURLE_BAD_CONTENT_ENCODING, 404, 0, {}, ShortText::of("broken")});
  EXPECT_EQ(core.failureText().view(), "HTTP status 404: broken");
}

TEST_F(JobCoreTest, tellsTheStatusAloneWhereOnlyItsPageIsShort) {
  start(30);
  core.ended(core.next(), {CURLE_PARTIAL_FILE, kForbidden, 0, {}, ShortText::of("0 of 10 bytes came")});
  EXPECT_EQ(core.failureText().view(), "HTTP status 403");
}

TEST_F(JobCoreTest, tellsTheCauseWhereARedirectIsAllThatCame) {
  start(30);
  core.ended(core.next(), {CURLE_TOO_MANY_REDIRECTS, 302, 0, {}, ShortText::of("Maximum (10) redirects followed")});
  EXPECT_EQ(core.failureText().view(), "Maximum (10) redirects followed");
}

TEST_F(JobCoreTest, tellsNoRangeWhereNoneWasAskedFor) {
  start(0, SizeFrom::ProbedFile);
  core.ended(core.next(), {CURLE_OK, 302, 0});
  EXPECT_EQ(core.failureText().view(), "HTTP status 302");
}

TEST_F(JobCoreTest, tellsWhyTheFileCouldNotBeWritten) {
  start(30);
  core.writeFailed(result::kWriteFailed, ShortText::of("the disk is full"));
  EXPECT_EQ(core.failureText().view(), "the disk is full");
}

TEST_F(JobCoreTest, tellsThatABodyWithoutALengthGoesOnBehindTheSize) {
  start(30, SizeFrom::ProbedRange);
  const FlightPtr flight = core.next();
  ResponseHead head;
  head.status = 200;
  EXPECT_EQ(answer(flight, head).end, 30U);
  core.ended(flight, {CURLE_RANGE_ERROR, 200, 30});
  EXPECT_EQ(core.failureText().view(), "the size was 30, now the file goes on behind that");
}

TEST_F(JobCoreTest, tellsWhereABodyWithoutALengthEnds) {
  start(30, SizeFrom::ProbedRange);
  const FlightPtr flight = core.next();
  ResponseHead head;
  head.status = 200;
  head.transferEncoding = true;
  EXPECT_EQ(answer(flight, head).codeIfShort, CURLE_RANGE_ERROR);
  core.ended(flight, {CURLE_RANGE_ERROR, 200, 20});
  EXPECT_EQ(core.failureText().view(), "the size was 30, now it is 20");
}

TEST_F(JobCoreTest, tellsTheFirstEncodingOfTheBody) {
  start(30);
  for (const char* const encoding : {"", "br", "gzip"}) {
    const FlightPtr flight = core.next();
    ResponseHead head = rangeHead(flight->asked.start, flight->asked.end, 30);
    head.contentEncoding = encoding;
    ASSERT_EQ(answer(flight, head).action, Action::Deliver);
    core.ended(flight, {CURLE_OK, kPartial, kChunk});
  }
  EXPECT_EQ(core.details().contentEncoding, "br");
}

TEST_F(JobCoreTest, restOfAFileOfUnknownSizeIsAskedForUpToTheTotalThatAnAnswerNames) {
  start(0, SizeFrom::ProbedFile);
  const FlightPtr flight = core.next();
  EXPECT_FALSE(answer(flight, rangeHead(0, 10, 30)).end);
  core.ended(flight, {CURLE_OK, kPartial, 10});
  EXPECT_EQ(core.next()->asked, (ByteRange{10, 30}));
}

TEST_F(JobCoreTest, tenAnswersOfLessThanAKibibyteInARowAreAFailedTry) {
  DownloadPolicy oneRange = chunks();
  oneRange.maxChunkSize = 40'000;
  core.setSize(40'000, SizeFrom::Host);
  core.fileOpened();
  core.plan(oneRange);
  ASSERT_TRUE(core.run().refill);
  std::uint64_t at = 0;
  const auto bring = [&](std::uint64_t bytes) {
    const FlightPtr flight = core.next();
    EXPECT_EQ(flight->asked.start, at);
    EXPECT_EQ(flight->rangeStart, 0U);
    answer(flight, rangeHead(at, at + bytes, 40'000));
    at += bytes;
    return core.ended(flight, {CURLE_OK, kPartial, bytes}).retry.has_value();
  };
  for (int small = 1; small <= 9; ++small) ASSERT_FALSE(bring(1023)) << small;
  ASSERT_FALSE(bring(1024)) << "large enough: the count begins anew";
  for (int small = 1; small <= 10; ++small) ASSERT_EQ(bring(1023), small == 10) << small;
}

TEST_F(JobCoreTest, answerWithoutAByteIsAFailedTry) {
  start(20);
  const FlightPtr flight = core.next();
  answer(flight, rangeHead(0, 10, 20));
  EXPECT_TRUE(core.ended(flight, {CURLE_OK, kPartial, 0}).retry);
}

TEST_F(JobCoreTest, sizeThatOnlyTheProbeGaveGivesWay) {
  start(20, SizeFrom::ProbedRange);
  const FlightPtr first = core.next();
  const FlightPtr second = core.next();
  EXPECT_EQ(answer(first, rangeHead(0, 10, 25)).action, Action::Stop) << "the file is cut anew";
  EXPECT_EQ(core.totalBytes(), 25U);
  EXPECT_TRUE(second->superseded);
  core.ended(second, {CURLE_ABORTED_BY_CALLBACK, kNoStatus, 0});
  core.ended(first, {CURLE_ABORTED_BY_CALLBACK, kPartial, 0});
  EXPECT_EQ(core.next()->asked, (ByteRange{0, 10}));
  EXPECT_EQ(core.next()->asked, (ByteRange{10, 20}));
}

TEST_F(JobCoreTest, wholeFileOfAnotherLengthThanTheRangesFailsTheJob) {
  start(30);
  bring(core.next());
  const FlightPtr flight = core.next();
  EXPECT_EQ(answer(flight, wholeHead(520)).code, CURLE_RANGE_ERROR);
  EXPECT_TRUE(core.ended(flight, {CURLE_RANGE_ERROR, 200, 0}).close);
  EXPECT_EQ(core.errorCode(), CURLE_RANGE_ERROR);
  EXPECT_EQ(core.failureText().view(), "the size was 30, now it is 520");
}

TEST_F(JobCoreTest, wholeFileThatEndsElsewhereThanWasProbedIsNotMixedWithRanges) {
  start(20, SizeFrom::ProbedFile);
  const FlightPtr range = core.next();
  ResponseHead head;
  head.status = kPartial;
  answer(range, head);
  core.ended(range, {CURLE_OK, kPartial, 10});
  const FlightPtr flight = core.next();
  head.status = 200;
  head.transferEncoding = true;
  EXPECT_FALSE(answer(flight, head).end);
  const support::RecordingLogger log;
  core.ended(flight, {CURLE_OK, 200, 5});
  EXPECT_EQ(core.errorCode(), CURLE_RANGE_ERROR);
  EXPECT_EQ(core.failureText().view(), "the size was 20, now it is 15");
  EXPECT_EQ(wholeLogError(log.records(), {failure(kJob, "onTransferDone | size of the remote file changed | end=15"),
                                          failure(kJob, "fatal | range=10 | err=33 | http=200")}),
            "");
}

// ---- Doubts ----

class JobCoreDoubtTest : public JobCoreTest {
 protected:
  // One range was delivered under one tag, and the answer to the next one had another.
  void raiseDoubt() {
    start(30);
    bring(core.next(), "a");
    const FlightPtr flight = core.next();
    ASSERT_EQ(answer(flight, rangeHead(10, 20, 30, "b")).action, Action::Stop);
    ASSERT_TRUE(core.ended(flight, {CURLE_ABORTED_BY_CALLBACK, kPartial, 0}).refill);
  }
};

TEST_F(JobCoreDoubtTest, isSettledByASampleOfWhatWasDelivered) {
  raiseDoubt();
  const FlightPtr sample = core.next();
  EXPECT_TRUE(sample->sample);
  EXPECT_EQ(sample->asked, (ByteRange{0, 10}));
  EXPECT_EQ(core.next(), nullptr);
  EXPECT_TRUE(bring(sample, "b").refill);
  const FlightPtr next = core.next();
  EXPECT_FALSE(next->sample);
  EXPECT_EQ(next->asked, (ByteRange{10, 20}));
}

TEST_F(JobCoreDoubtTest, failsTheJobWhenTheSampleDiffers) {
  raiseDoubt();
  EXPECT_TRUE(bring(core.next(), "b", 2).close);
  EXPECT_EQ(core.errorCode(), CURLE_RANGE_ERROR);
  EXPECT_EQ(core.failureText().view(), "the remote file changed: bytes from 0 to 10 differ");
}

TEST_F(JobCoreDoubtTest, tellsTheSizeThatTheSampleNames) {
  raiseDoubt();
  const FlightPtr sample = core.next();
  EXPECT_EQ(answer(sample, rangeHead(0, 10, 40, "b")).action, Action::Stop);
  core.ended(sample, {CURLE_RANGE_ERROR, kPartial, 0});
  EXPECT_EQ(core.failureText().view(), "the size was 30, now it is 40");
}

TEST_F(JobCoreDoubtTest, waitsForWhatIsInFlight) {
  start(30);
  bring(core.next(), "a");
  const FlightPtr one = core.next();
  const FlightPtr other = core.next();
  answer(one, rangeHead(10, 20, 30, "b"));
  core.ended(one, {CURLE_ABORTED_BY_CALLBACK, kPartial, 0});
  EXPECT_EQ(core.next(), nullptr);
  bring(other, "a");
  EXPECT_TRUE(core.next()->sample);
}

TEST_F(JobCoreDoubtTest, isNotSettledByAnAnswerOfTheOldVersion) {
  raiseDoubt();
  const FlightPtr sample = core.next();
  EXPECT_EQ(answer(sample, rangeHead(0, 10, 30, "a")).action, Action::Stop);
  EXPECT_TRUE(core.ended(sample, {CURLE_ABORTED_BY_CALLBACK, kPartial, 0}).refill);
  EXPECT_TRUE(core.next()->sample);
}

TEST_F(JobCoreDoubtTest, isDroppedWhenTheNewVersionIsNotSeenAgain) {
  raiseDoubt();
  constexpr int kMost = 16;
  const support::RecordingLogger log;
  for (int old = 0; old < kMost; ++old) {
    const FlightPtr sample = core.next();
    ASSERT_TRUE(sample->sample) << old;
    answer(sample, rangeHead(0, 10, 30, "a"));
    ASSERT_TRUE(core.ended(sample, {CURLE_ABORTED_BY_CALLBACK, kPartial, 0}).refill);
  }
  EXPECT_FALSE(core.next()->sample);
  EXPECT_EQ(
      wholeLogError(log.records(),
                    {support::recovery(kJob, "onHead | changed validator was not seen again, going on | range=0")}),
      "");
}

TEST_F(JobCoreDoubtTest, failsTheJobWhenTheSampleIsOfAThirdVersion) {
  raiseDoubt();
  const FlightPtr sample = core.next();
  answer(sample, rangeHead(0, 10, 30, "c"));
  core.ended(sample, {CURLE_RANGE_ERROR, kPartial, 0});
  EXPECT_EQ(core.state(), JobState::Failed);
}

TEST_F(JobCoreDoubtTest, sampleThatFailsIsTriedAgain) {
  raiseDoubt();
  const JobActions failed = core.ended(core.next(), {CURLE_OK, kBusy, 0});
  ASSERT_TRUE(failed.retry);
  EXPECT_EQ(core.next(), nullptr);
  EXPECT_TRUE(core.retryDue(failed.retry->id).refill);
  EXPECT_TRUE(core.next()->sample);
}

TEST_F(JobCoreDoubtTest, sampleThatIsCappedGoesOnWhereItEnded) {
  raiseDoubt();
  const FlightPtr first = core.next();
  answer(first, rangeHead(0, 4, 30, "b"));
  first->sampled.assign(4, 1);
  EXPECT_TRUE(core.ended(first, {CURLE_OK, kPartial, 4}).refill);
  const FlightPtr second = core.next();
  EXPECT_EQ(second->asked, (ByteRange{4, 10}));
  bring(second, "b");
  EXPECT_FALSE(core.next()->sample);
}

TEST_F(JobCoreDoubtTest, everyBlockOfTheSampleIsCompared) {
  start(30);
  bring(core.next(), "a");
  bring(core.next(), "a");
  const FlightPtr flight = core.next();
  answer(flight, rangeHead(20, 30, 30, "b"));
  core.ended(flight, {CURLE_ABORTED_BY_CALLBACK, kPartial, 0});
  bring(core.next(), "b");
  const FlightPtr second = core.next();
  ASSERT_EQ(second->asked, (ByteRange{10, 20}));
  EXPECT_TRUE(second->sample);
  EXPECT_TRUE(bring(second, "b", 2).close);
}

// Ranges of ten bytes that come under another tag each, so that each but the first raises a doubt.
class JobCoreManyDoubtsTest : public JobCoreTest {
 protected:
  static constexpr std::uint64_t kSize = 200;

  static ResponseHead head(const FlightPtr& flight, int tag) {
    return rangeHead(flight->asked.start, flight->asked.end, kSize, std::to_string(tag));
  }

  // Answers under a new tag, and brings the samples; what the answer met.
  Placement doubtAndSettle(const FlightPtr& flight, int tag) {
    const Placement placement = answer(flight, head(flight, tag));
    core.ended(flight, {CURLE_ABORTED_BY_CALLBACK, kPartial, 0});
    for (range = core.next(); range && range->sample; range = core.next()) take(range, tag);
    return placement;
  }

  void take(const FlightPtr& flight, int tag) {
    ASSERT_EQ(answer(flight, head(flight, tag)).action, Action::Deliver);
    deliver(flight, 1);
    core.ended(flight, {CURLE_OK, kPartial, flight->asked.length()});
  }

  FlightPtr range;
};

TEST_F(JobCoreManyDoubtsTest, thatAreSettledDoNotAddUp) {
  start(kSize);
  take(core.next(), 0);
  for (int tag = 1; tag < 12; ++tag) {
    ASSERT_EQ(doubtAndSettle(core.next(), tag).code, CURLE_ABORTED_BY_CALLBACK) << tag;
    take(range, tag);
  }
  EXPECT_EQ(core.state(), JobState::Running);
}

TEST_F(JobCoreManyDoubtsTest, inARowFailTheJobWithTheNinth) {
  start(kSize);
  take(core.next(), 0);
  range = core.next();
  for (int tag = 1; tag <= 8; ++tag) ASSERT_EQ(doubtAndSettle(range, tag).code, CURLE_ABORTED_BY_CALLBACK) << tag;
  EXPECT_EQ(answer(range, head(range, 9)).code, CURLE_RANGE_ERROR);
}

TEST_F(JobCoreDoubtTest, failsTheJobWhenASampleBringsNothing) {
  raiseDoubt();
  const FlightPtr sample = core.next();
  answer(sample, rangeHead(0, 10, 30, "b"));
  EXPECT_TRUE(core.ended(sample, {CURLE_OK, kPartial, 0}).close);
  EXPECT_EQ(core.errorCode(), CURLE_RANGE_ERROR);
}

TEST_F(JobCoreDoubtTest, sampleIsFetchedFromWhereTheBytesWereDelivered) {
  start(30);
  const FlightPtr first = core.next();
  bring(core.next(), "a");
  core.ended(first, {CURLE_COULDNT_CONNECT, kNoStatus, 0});
  const FlightPtr flight = core.next();
  ASSERT_EQ(answer(flight, rangeHead(20, 30, 30, "b")).action, Action::Stop);
  core.ended(flight, {CURLE_ABORTED_BY_CALLBACK, kPartial, 0});
  EXPECT_EQ(core.next()->asked, (ByteRange{10, 20}));
}

TEST_F(JobCoreDoubtTest, isDroppedWhenNothingThatItIsAboutWasDelivered) {
  start(30);
  const FlightPtr old = core.next();
  const FlightPtr put = core.next();
  answer(old, rangeHead(0, 10, 30, "a"));
  ASSERT_EQ(answer(put, rangeHead(10, 20, 30, "b")).action, Action::Stop);
  core.ended(put, {CURLE_ABORTED_BY_CALLBACK, kPartial, 0});
  core.ended(old, {CURLE_COULDNT_CONNECT, kNoStatus, 0});
  const FlightPtr next = core.next();
  EXPECT_FALSE(next->sample) << "nothing that was delivered is in doubt";
  EXPECT_EQ(next->asked, (ByteRange{10, 20}));
}

TEST_F(JobCoreDoubtTest, failsTheJobWhenNothingIsKnownOfWhatWasDelivered) {
  start(30);
  const FlightPtr first = core.next();
  answer(first, rangeHead(0, 10, 30, "a"));
  core.ended(first, {CURLE_OK, kPartial, 10});  // its bytes went past the hasher
  const FlightPtr second = core.next();
  ASSERT_EQ(answer(second, rangeHead(10, 20, 30, "b")).action, Action::Stop);
  const support::RecordingLogger log;
  core.ended(second, {CURLE_ABORTED_BY_CALLBACK, kPartial, 0});
  EXPECT_EQ(core.errorCode(), CURLE_RANGE_ERROR);
  EXPECT_EQ(core.failureText().view(), "the remote file changed, and nothing is known to compare it with");
  EXPECT_EQ(core.httpStatus(), 0);
  EXPECT_EQ(wholeLogError(log.records(),
                          {failure(kJob, "onHead | remote file changed, and nothing is known to compare it with")}),
            "");
}

TEST_F(JobCoreDoubtTest, isDroppedWhenTheFileIsWholeWithoutTheAnswerInDoubt) {
  JobCore wide{policy(3)};
  wide.setSize(30, SizeFrom::Host);
  wide.fileOpened();
  wide.plan(chunks());
  wide.run();
  const FlightPtr lead = wide.next();
  const FlightPtr one = wide.next();
  const FlightPtr put = wide.next();
  JobActions actions;
  wide.answered(one, rangeHead(10, 20, 30, "a"), actions);
  ASSERT_EQ(wide.answered(put, rangeHead(20, 30, 30, "b"), actions).action, Action::Stop);
  ResponseHead whole = wholeHead(30);
  whole.weakEtag = "a";
  ASSERT_EQ(wide.answered(lead, whole, actions).action, Action::Deliver);
  const std::vector<std::uint8_t> bytes(30, 1);
  lead->hasher->add(bytes.data(), bytes.size());
  ASSERT_EQ(wide.ended(lead, {CURLE_OK, 200, 30}).finalize, 30U);
  wide.ended(one, {CURLE_ABORTED_BY_CALLBACK, kNoStatus, 0});
  wide.ended(put, {CURLE_ABORTED_BY_CALLBACK, kPartial, 0});
  EXPECT_EQ(wide.next(), nullptr) << "there is nothing to compare any more";
}

TEST_F(JobCoreDoubtTest, isDroppedWhenALaterAnswerBroughtItsVersion) {
  JobCore wide{policy(3)};
  wide.setSize(30, SizeFrom::Host);
  wide.fileOpened();
  wide.plan(chunks());
  wide.run();
  const FlightPtr one = wide.next();
  const FlightPtr put = wide.next();
  const FlightPtr late = wide.next();
  JobActions actions;
  wide.answered(one, rangeHead(0, 10, 30, "a"), actions);
  ASSERT_EQ(wide.answered(put, rangeHead(10, 20, 30, "b"), actions).action, Action::Stop);
  wide.ended(put, {CURLE_ABORTED_BY_CALLBACK, kPartial, 0});
  wide.ended(one, {CURLE_COULDNT_CONNECT, kNoStatus, 0});
  ASSERT_EQ(wide.answered(late, rangeHead(20, 30, 30, "b"), actions).action, Action::Deliver);
  deliver(late, 1);
  EXPECT_TRUE(wide.ended(late, {CURLE_OK, kPartial, 10}).refill);
  const FlightPtr next = wide.next();
  EXPECT_FALSE(next->sample) << "what was delivered is of the version in doubt";
  EXPECT_EQ(next->asked, (ByteRange{10, 20}));
}

}  // namespace
