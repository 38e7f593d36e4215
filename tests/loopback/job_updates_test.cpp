// What a download job tells its host while it runs.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "support/gate.h"
#include "support/job_run.h"
#include "support/pattern.h"
#include "support/recording_logger.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "xfer/download_job.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::Gate;
using support::patternFile;
using support::planUnderTest;
using support::ReceivedRequest;
using support::requestFor;
using support::ScriptedServer;
using support::waitForEnd;
using support::waitUntil;
using xfer::DownloadEvent;
using xfer::DownloadJob;
using xfer::DownloadNotes;
using xfer::DownloadOptions;
using xfer::DownloadUpdate;
using xfer::JobState;
using Kind = xfer::DownloadUpdate::Kind;

constexpr std::uint64_t kSize = 2'000'000;
constexpr std::uint64_t kChunk = 250'000;
constexpr std::int32_t kCallbackThrew = 100037;
constexpr std::int32_t kBadArgument = 43;

// Keeps what it is told.
class Ear {
 public:
  void hear(const DownloadUpdate& update) {
    const std::lock_guard lock(mutex_);
    heard_.push_back(update);
  }

  [[nodiscard]] std::vector<DownloadUpdate> heard() const {
    const std::lock_guard lock(mutex_);
    return heard_;
  }

  [[nodiscard]] std::vector<DownloadUpdate> heard(Kind kind) const {
    std::vector<DownloadUpdate> all = heard();
    std::erase_if(all, [kind](const DownloadUpdate& update) { return update.kind != kind; });
    return all;
  }

  [[nodiscard]] std::vector<JobState> states() const {
    std::vector<JobState> states;
    for (const DownloadUpdate& update : heard(Kind::State)) states.push_back(update.state);
    return states;
  }

  [[nodiscard]] bool heardTheEnd() const {
    return waitUntil([this] { return !heard(Kind::End).empty(); });
  }

 private:
  mutable std::mutex mutex_;
  std::vector<DownloadUpdate> heard_;
};

// Sends slowly, so that a job is under way for seconds.
support::Handler slowly() {
  return [](const ReceivedRequest& request) {
    return support::range206(request, kSize, {.pace = {.bytesEach = 10'000, .rest = milliseconds(20)}});
  };
}

class JobUpdates : public testing::Test {
 protected:
  using Callback = std::function<void(const DownloadUpdate&)>;

  DownloadOptions options(Callback callback) {
    DownloadOptions options = planUnderTest(kChunk);
    options.setOnUpdate(std::move(callback));
    return options;
  }

  DownloadOptions heardBy(Ear& ear) {
    return options([&ear](const DownloadUpdate& update) { ear.hear(update); });
  }

  std::unique_ptr<DownloadJob> jobFor(const ScriptedServer& server, const DownloadOptions& options) {
    return std::make_unique<DownloadJob>(requestFor(server.url("/file"), path_), support::chunksOf(kChunk, 3), options);
  }

  const support::TempDir folder_;
  const std::string path_ = folder_.file("out");
};

TEST_F(JobUpdates, statesAndTheEndComeOnceInTheirOrderAndTheEndIsTheLast) {
  ScriptedServer server(patternFile(kSize));
  Ear ear;
  const auto job = jobFor(server, heardBy(ear));
  job->start();
  ASSERT_TRUE(ear.heardTheEnd());
  EXPECT_EQ(ear.states(), (std::vector{JobState::Probing, JobState::Running}));
  ASSERT_EQ(ear.heard(Kind::End).size(), 1U);
  const DownloadUpdate end = ear.heard().back();
  EXPECT_EQ(end.kind, Kind::End);
  EXPECT_EQ(end.state, JobState::Completed);
  EXPECT_EQ(end.snapshot.state, JobState::Completed);
  EXPECT_EQ(end.snapshot.bytesDone, kSize);
  EXPECT_EQ(end.snapshot.totalBytes, kSize);
  EXPECT_EQ(end.snapshot.errorCode, 0);
  EXPECT_EQ(end.connections, 0U);
  EXPECT_TRUE(ear.heard(Kind::Note).empty());
  EXPECT_EQ(support::patternError(path_, kSize), "");
}

TEST_F(JobUpdates, waitReturnsWhenTheEndHasBeenToldAndWaitForSaysWhether) {
  ScriptedServer server(patternFile(kSize));
  Gate goOn;
  std::atomic<bool> told{false};
  const auto job = jobFor(server, options([&](const DownloadUpdate& update) {
                            if (update.kind != Kind::End) return;
                            EXPECT_TRUE(goOn.wait());
                            told = true;
                          }));
  job->start();
  ASSERT_EQ(waitForEnd(*job).state, JobState::Completed);
  EXPECT_FALSE(job->waitFor(10));
  std::thread opener([&] {
    std::this_thread::sleep_for(milliseconds(20));
    goOn.open();
  });
  job->wait();
  EXPECT_TRUE(told);
  EXPECT_TRUE(job->waitFor(0));
  opener.join();
}

TEST_F(JobUpdates, waitDoesNotAwaitTheEndOfAJobThatTellsNothing) {
  ScriptedServer server(patternFile(kSize));
  Ear ear;
  const auto job = jobFor(server, heardBy(ear));
  job->cancel();  // before it was started
  job->wait();
  EXPECT_TRUE(job->waitFor(0));
  EXPECT_TRUE(ear.heard().empty());
}

TEST_F(JobUpdates, pauseResumeAndCancelAreTold) {
  ScriptedServer server(slowly());
  Ear ear;
  const auto job = jobFor(server, heardBy(ear));
  job->start();
  ASSERT_TRUE(waitUntil([&] { return !ear.heard(Kind::Progress).empty(); }));
  EXPECT_GE(ear.heard(Kind::Progress).back().connections, 1U);
  job->pause();
  EXPECT_TRUE(waitUntil([&] { return ear.states().back() == JobState::Paused; }));
  job->resume();
  EXPECT_TRUE(waitUntil([&] { return ear.states().back() == JobState::Running; }));
  job->cancel();
  ASSERT_TRUE(ear.heardTheEnd());
  EXPECT_EQ(ear.states(), (std::vector{JobState::Probing, JobState::Running, JobState::Paused, JobState::Running,
                                       JobState::Cancelling}));
  EXPECT_EQ(ear.heard().back().state, JobState::Cancelled);
}

TEST_F(JobUpdates, failureIsToldWithItsReason) {
  ScriptedServer server([](const ReceivedRequest&) { return support::status(404); });
  Ear ear;
  const auto job = jobFor(server, heardBy(ear));
  job->start();
  ASSERT_TRUE(ear.heardTheEnd());
  const DownloadUpdate end = ear.heard().back();
  EXPECT_EQ(end.state, JobState::Failed);
  EXPECT_EQ(end.snapshot.errorCode, job->snapshot().errorCode);
  EXPECT_EQ(end.snapshot.errorCode, 404);
}

TEST_F(JobUpdates, jobThatIsRefusedTellsItsEndOnly) {
  ScriptedServer server(patternFile(kSize));
  Ear ear;
  xfer::DownloadPolicy policy;
  policy.numThreads = 0;
  DownloadJob job(requestFor(server.url("/file"), path_, kSize), policy, heardBy(ear));
  job.start();
  ASSERT_TRUE(ear.heardTheEnd());
  EXPECT_EQ(ear.heard().size(), 1U);
  EXPECT_EQ(ear.heard().back().snapshot.errorCode, kBadArgument);
}

TEST_F(JobUpdates, progressGrowsAndComesNoSoonerThanItsInterval) {
  constexpr milliseconds kInterval{30};
  ScriptedServer server(slowly());
  std::mutex mutex;
  std::vector<std::uint64_t> bytes;
  DownloadOptions given = options([&](const DownloadUpdate& update) {
    if (update.kind != Kind::Progress) return;
    const std::lock_guard lock(mutex);
    bytes.push_back(update.snapshot.bytesDone);
  });
  const auto job = jobFor(server, given.setProgressInterval(kInterval.count()));
  const auto begin = steady_clock::now();
  job->start();
  ASSERT_TRUE(waitUntil([&] {
    // Each change of the state has the job's news looked at.
    job->pause();
    job->resume();
    const std::lock_guard lock(mutex);
    return bytes.size() >= 6;
  }));
  job->cancel();
  job->wait();
  const std::lock_guard lock(mutex);
  // A busy machine can only make the time longer.
  EXPECT_GE(steady_clock::now() - begin, kInterval * (bytes.size() - 1));
  for (std::size_t i = 1; i < bytes.size(); ++i) EXPECT_GT(bytes[i], bytes[i - 1]);
}

TEST_F(JobUpdates, progressIsNotToldWithoutAnInterval) {
  ScriptedServer server(slowly());
  Ear ear;
  const auto job = jobFor(server, heardBy(ear).setProgressInterval(0));
  job->start();
  ASSERT_TRUE(waitUntil([&] { return job->snapshot().bytesDone > 300'000; }));
  job->cancel();
  ASSERT_TRUE(ear.heardTheEnd());
  EXPECT_TRUE(ear.heard(Kind::Progress).empty());
}

TEST_F(JobUpdates, tryThatIsRepeatedIsNoted) {
  std::atomic<int> asked{0};
  ScriptedServer server([&](const ReceivedRequest& request) {
    const bool first = request.range && request.range->last != 0U && asked++ == 0;
    return first ? support::status(503, "", {"Retry-After: 0"}) : patternFile(kSize)(request);
  });
  Ear ear;
  const auto job = jobFor(server, heardBy(ear));
  job->start();
  ASSERT_TRUE(ear.heardTheEnd());
  EXPECT_EQ(ear.heard().back().state, JobState::Completed);
  const std::vector<DownloadUpdate> notes = ear.heard(Kind::Note);
  ASSERT_FALSE(notes.empty());
  EXPECT_TRUE(std::any_of(notes.begin(), notes.end(), [](const DownloadUpdate& update) {
    return update.note.kind == DownloadEvent::Kind::TriedAgain && update.note.httpStatus == 503;
  }));
}

TEST_F(JobUpdates, everyRequestIsNotedOnDemand) {
  ScriptedServer server(patternFile(kSize));
  Ear ear;
  const auto job = jobFor(server, heardBy(ear).setNotes(DownloadNotes::All));
  job->start();
  ASSERT_TRUE(ear.heardTheEnd());
  std::size_t begun = 0;
  std::optional<std::uint64_t> last;
  for (const DownloadUpdate& update : ear.heard(Kind::Note)) {
    if (update.note.kind == DownloadEvent::Kind::Begun) ++begun;
    EXPECT_NE(update.note.kind, DownloadEvent::Kind::State);
    EXPECT_NE(update.note.connection, 0U);
    EXPECT_TRUE(!last || update.note.number > *last);
    last = update.note.number;
  }
  EXPECT_GE(begun, 1U);
}

TEST_F(JobUpdates, callbackThatHangsHoldsNoTransferUp) {
  ScriptedServer server(patternFile(kSize));
  Gate goOn;
  std::atomic<bool> stuck{false};
  const auto job = jobFor(server, options([&](const DownloadUpdate&) {
                            stuck = true;
                            EXPECT_TRUE(goOn.wait());
                          }));
  job->start();
  EXPECT_EQ(waitForEnd(*job).state, JobState::Completed);
  EXPECT_TRUE(waitUntil([&] { return stuck.load(); }));
  EXPECT_EQ(support::patternError(path_, kSize), "");
  goOn.open();
}

TEST_F(JobUpdates, slowCallbackIsToldTheLatestProgressOnly) {
  ScriptedServer server(slowly());
  Gate goOn;
  Ear ear;
  const auto job = jobFor(server, options([&](const DownloadUpdate& update) {
                                    if (update.kind == Kind::Progress) {
                                      EXPECT_TRUE(goOn.wait());
                                    }
                                    ear.hear(update);
                                  }).setProgressInterval(1));
  job->start();
  ASSERT_TRUE(waitUntil([&] { return job->snapshot().bytesDone > 500'000; }));
  job->cancel();
  static_cast<void>(waitForEnd(*job));
  goOn.open();
  ASSERT_TRUE(ear.heardTheEnd());
  EXPECT_EQ(ear.heard(Kind::Progress).size(), 1U) << "those that it could not be told in between are one";
}

TEST_F(JobUpdates, callbackThatThrowsFailsTheJobByANumberOfItsOwn) {
  for (const Kind when : {Kind::State, Kind::Progress}) {
    const support::RecordingLogger log;
    ScriptedServer server(slowly());
    Ear ear;
    const auto job = jobFor(server, options([&](const DownloadUpdate& update) {
                              ear.hear(update);
                              if (update.kind == when) throw std::runtime_error("a host's own");
                            }));
    job->start();
    ASSERT_TRUE(ear.heardTheEnd());
    EXPECT_EQ(ear.heard().back().state, JobState::Failed);
    EXPECT_EQ(ear.heard().back().snapshot.errorCode, kCallbackThrew);
    EXPECT_GE(log.count("a callback threw"), 1U);
  }
}

TEST_F(JobUpdates, callbackThatThrowsAtTheEndChangesNothing) {
  ScriptedServer server(patternFile(kSize));
  std::atomic<bool> over{false};
  const auto job = jobFor(server, options([&](const DownloadUpdate& update) {
                            if (update.kind != Kind::End) return;
                            over = true;
                            throw 7;
                          }));
  job->start();
  ASSERT_TRUE(waitUntil([&] { return over.load(); }));
  EXPECT_EQ(job->snapshot().state, JobState::Completed);
}

TEST_F(JobUpdates, nothingIsToldOnceTheJobIsDestroyed) {
  ScriptedServer server(slowly());
  for (int round = 0; round < 20; ++round) {
    std::atomic<int> calls{0};
    std::atomic<bool> gone{false};
    std::atomic<bool> late{false};
    auto job = jobFor(server, options([&](const DownloadUpdate&) {
                                if (gone) late = true;
                                ++calls;
                              }).setProgressInterval(1));
    job->start();
    ASSERT_TRUE(waitUntil([&] { return calls > round % 5; }));
    job.reset();
    gone = true;
    const int before = calls;
    std::this_thread::sleep_for(milliseconds(5));
    EXPECT_FALSE(late);
    EXPECT_EQ(calls, before);
  }
}

TEST_F(JobUpdates, destructorWaitsForACallbackThatRuns) {
  ScriptedServer server(slowly());
  const Gate inside;
  Gate goOn;
  std::atomic<bool> returned{false};
  auto job = jobFor(server, options([&](const DownloadUpdate& update) {
                      if (update.kind != Kind::Progress) return;
                      Gate(inside).open();
                      EXPECT_TRUE(goOn.wait());
                      returned = true;
                    }));
  job->start();
  ASSERT_TRUE(inside.wait());
  std::thread opener([&] {
    std::this_thread::sleep_for(milliseconds(20));
    goOn.open();
  });
  job.reset();
  EXPECT_TRUE(returned);
  opener.join();
}

TEST_F(JobUpdates, jobMayBeDestroyedByItsOwnCallbackAndTellsNothingMore) {
  ScriptedServer server(slowly());
  for (const Kind when : {Kind::State, Kind::Progress}) {
    std::unique_ptr<DownloadJob> job;
    std::atomic<int> calls{0};
    std::atomic<bool> destroyed{false};
    job = jobFor(server, options([&](const DownloadUpdate& update) {
                           ++calls;
                           EXPECT_FALSE(destroyed);
                           if (update.kind != when) return;
                           job.reset();
                           destroyed = true;
                         }).setNotes(DownloadNotes::All));
    job->start();
    ASSERT_TRUE(waitUntil([&] { return destroyed.load(); }));
    const int before = calls;
    std::this_thread::sleep_for(milliseconds(5));
    EXPECT_EQ(calls, before);
  }
}

TEST_F(JobUpdates, jobMayBeDestroyedByItsOwnCallbackAtItsEnd) {
  ScriptedServer server(patternFile(kSize));
  std::unique_ptr<DownloadJob> job;
  std::atomic<bool> destroyed{false};
  job = jobFor(server, options([&](const DownloadUpdate& update) {
                 if (update.kind != Kind::End) return;
                 job.reset();
                 destroyed = true;
               }));
  job->start();
  ASSERT_TRUE(waitUntil([&] { return destroyed.load(); }));
  EXPECT_EQ(support::patternError(path_, kSize), "");
}

TEST_F(JobUpdates, everyOperationButWaitingMayBeCalledInsideOfACallback) {
  ScriptedServer server(slowly());
  std::unique_ptr<DownloadJob> job;
  std::unique_ptr<DownloadJob> other;
  Ear ear;
  std::atomic<bool> done{false};
  job = jobFor(server, options([&](const DownloadUpdate& update) {
                 if (update.kind != Kind::Progress || done) return;
                 EXPECT_THROW(job->wait(), std::system_error);
                 const auto before = steady_clock::now();
                 EXPECT_FALSE(job->waitFor(600'000));
                 EXPECT_LT(steady_clock::now() - before, std::chrono::minutes(1));
                 EXPECT_GT(job->snapshot().bytesDone, 0U);
                 EXPECT_GE(job->details().ranges().size(), 0U);
                 job->setSpeedLimit(1'000'000'000);
                 job->pause();
                 EXPECT_EQ(job->snapshot().state, JobState::Paused);
                 job->resume();
                 other = std::make_unique<DownloadJob>(requestFor(server.url("/file"), folder_.file("other")),
                                                       support::chunksOf(kChunk, 1), heardBy(ear));
                 other->start();
                 EXPECT_THROW(other->wait(), std::system_error);
                 job->cancel();
                 done = true;
               }));
  job->start();
  EXPECT_EQ(waitForEnd(*job).state, JobState::Cancelled);
  ASSERT_TRUE(waitUntil([&] { return done.load(); }));
  EXPECT_TRUE(waitUntil([&] { return !ear.heard(Kind::Progress).empty(); }));
  job.reset();
  other.reset();
}

TEST_F(JobUpdates, callbacksOfAllJobsRunOneAfterTheOther) {
  ScriptedServer server(patternFile(kSize));
  std::atomic<int> inside{0};
  std::atomic<bool> together{false};
  std::atomic<int> ends{0};
  std::vector<std::unique_ptr<DownloadJob>> jobs;
  for (int i = 0; i < 5; ++i) {
    DownloadOptions given = options([&](const DownloadUpdate& update) {
      if (++inside != 1) together = true;
      std::this_thread::sleep_for(milliseconds(1));
      if (update.kind == Kind::End) ++ends;
      --inside;
    });
    jobs.push_back(std::make_unique<DownloadJob>(requestFor(server.url("/file"), folder_.file(std::to_string(i))),
                                                 support::chunksOf(kChunk, 2), given));
  }
  for (const auto& job : jobs) job->start();
  EXPECT_TRUE(waitUntil([&] { return ends == 5; }));
  EXPECT_FALSE(together);
}

TEST_F(JobUpdates, jobThatIsMovedGoesOnTelling) {
  ScriptedServer server(slowly());
  Ear ear;
  const auto first = jobFor(server, heardBy(ear));
  first->start();
  DownloadJob job(std::move(*first));
  ASSERT_TRUE(waitUntil([&] { return !ear.heard(Kind::Progress).empty(); }));
  job.cancel();
  EXPECT_TRUE(ear.heardTheEnd());
}

TEST_F(JobUpdates, optionsThatMakeNoSenseWithoutACallbackAreRefusedByName) {
  using Change = DownloadOptions& (*)(DownloadOptions&);
  const std::vector<std::pair<Change, std::string>> cases = {
      {[](DownloadOptions& options) -> DownloadOptions& { return options.setProgressInterval(5); }, "progressInterval"},
      {[](DownloadOptions& options) -> DownloadOptions& { return options.setNotes(DownloadNotes::Main); }, "notes"},
      {[](DownloadOptions& options) -> DownloadOptions& {
         return options.setOnUpdate([](const DownloadUpdate&) {}).setNotes(static_cast<DownloadNotes>(2));
       },
       "notes"},
  };
  ScriptedServer server(patternFile(kSize));
  for (const auto& [change, name] : cases) {
    const support::RecordingLogger log;
    DownloadOptions given = planUnderTest(kChunk);
    const auto job = jobFor(server, change(given));
    job->start();
    EXPECT_EQ(waitForEnd(*job).errorCode, kBadArgument) << name;
    EXPECT_EQ(log.count("doStart | options refused | field=" + name), 1U) << name;
  }
  EXPECT_TRUE(server.requests().empty());
}

}  // namespace
