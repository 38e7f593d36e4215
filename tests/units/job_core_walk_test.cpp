// The core of a job under all orders of what may happen to it, as far as these can be counted, and under long random
// ones.  Everything that a walk meets is in job_core_world.h.
//
// XFER_WALK_SEED gives the random walks another seed.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <random>

#include "job_core_world.h"
#include "job_state.h"
#include "support/test_timeout.h"

using namespace xfer;
using namespace support;

namespace {

constexpr std::int32_t kForbidden = 403;
constexpr std::int32_t kBusy = 503;

// 1, or more in slow surroundings.
std::uint64_t slowness() {
  return static_cast<std::uint64_t>(support::testTimeout() / std::chrono::seconds(20));
}

// So many steps are walked by each test case, or somewhat fewer.  Far fewer in slow surroundings: one thread without an
// input of its own has little to show a sanitizer.
std::uint64_t stepsToWalk() {
  constexpr std::uint64_t kSteps = 5'000'000;
  return kSteps / (slowness() * slowness());
}

// All sequences of steps up to a depth; after each the environment behaves.
class Walk {
 public:
  Walk(const WorldSetup& setup, std::size_t depth, std::uint64_t mostSteps)
      : setup_(setup), depth_(depth), mostSteps_(mostSteps) {}

  void run() { explore(std::make_unique<JobCoreWorld>(setup_)); }

  [[nodiscard]] bool gaveUp() const { return steps_ > mostSteps_; }
  [[nodiscard]] std::uint64_t steps() const { return steps_; }
  [[nodiscard]] std::uint64_t sequences() const { return sequences_; }
  [[nodiscard]] std::uint64_t standing() const { return standing_; }
  [[nodiscard]] const std::string& fault() const { return fault_; }

 private:
  void explore(std::unique_ptr<JobCoreWorld> world) {
    const std::vector<Step> choices = path_.size() < depth_ ? world->choices() : std::vector<Step>{};
    if (choices.empty()) return finish(*world);
    for (const Step& step : choices) {
      if (!world) world = replay();
      world->take(step);
      ++steps_;
      path_.push_back(step);
      if (!world->fault().empty()) return tell(*world);
      explore(std::exchange(world, nullptr));
      if (!fault_.empty() || gaveUp()) return;
      path_.pop_back();
    }
  }

  std::unique_ptr<JobCoreWorld> replay() {
    auto world = std::make_unique<JobCoreWorld>(setup_);
    for (const Step& step : path_) world->take(step);
    steps_ += path_.size();
    return world;
  }

  void finish(JobCoreWorld& world) {
    ++sequences_;
    world.behave();
    if (!world.fault().empty()) return tell(world);
    if (!isFinal(world.state())) ++standing_;
  }

  void tell(const JobCoreWorld& world) {
    fault_ = world.fault() + ", after:";
    for (const Step& step : path_) fault_ += "\n  " + nameOf(step);
  }

  const WorldSetup setup_;
  const std::size_t depth_;
  const std::uint64_t mostSteps_;
  std::vector<Step> path_;
  std::uint64_t steps_ = 0;
  std::uint64_t sequences_ = 0;
  std::uint64_t standing_ = 0;
  std::string fault_;
};

// Walks deeper and deeper, as long as the whole of a depth can be walked.
void walkAll(const char* what, const WorldSetup& setup, std::uint64_t mostSteps) {
  std::size_t depth = 0;
  std::uint64_t sequences = 0;
  std::uint64_t standing = 0;
  for (std::size_t next = 2; next < 64; ++next) {
    Walk walk(setup, next, mostSteps);
    walk.run();
    ASSERT_EQ(walk.fault(), "") << what;
    if (walk.gaveUp()) break;
    mostSteps -= walk.steps();
    const bool everything = walk.sequences() == sequences;
    depth = next;
    sequences = walk.sequences();
    standing = walk.standing();
    if (everything) break;
  }
  std::cout << "  " << setup.ranges << " range(s), " << setup.connections << " connection(s), " << what << ": depth "
            << depth << ", " << sequences << " sequences, " << standing << " of them in a required stand-still\n";
  EXPECT_GT(sequences, 100U) << what;
}

struct Shape {
  std::uint64_t ranges;
  std::uint16_t connections;
};

class JobCoreWalk : public testing::TestWithParam<Shape> {
 protected:
  static WorldSetup setup() {
    WorldSetup setup;
    setup.ranges = GetParam().ranges;
    setup.connections = GetParam().connections;
    setup.pieces = 1;
    return setup;
  }

  // No commands of the host, and tickets that come at once: longer sequences of answers.
  static WorldSetup answersAlone() {
    WorldSetup setup = JobCoreWalk::setup();
    setup.ticketsAtOnce = true;
    setup.pauses = setup.cancels = setup.writeFailures = 0;
    return setup;
  }
};

TEST_P(JobCoreWalk, hostsCommandsAndFailuresInEveryOrder) {
  WorldSetup world = setup();
  world.ends = {CURLE_COULDNT_CONNECT, kForbidden};
  world.pauses = 2;
  walkAll("commands and failures", world, stepsToWalk());
}

// One thing that goes wrong leaves room for longer sequences.
TEST_P(JobCoreWalk, oneMishapInEveryOrder) {
  WorldSetup world = setup();
  world.heads = {Head::Whole, Head::OtherTag, Head::Unusable};
  world.ends = {CURLE_PARTIAL_FILE};
  world.deviations = 1;
  world.writeFailures = 0;
  walkAll("one mishap", world, stepsToWalk());
}

TEST_P(JobCoreWalk, everyStepOfASubmissionInEveryOrder) {
  WorldSetup world = setup();
  world.refillInOneStep = false;
  world.ends = {CURLE_PARTIAL_FILE};
  world.heads = {Head::Whole};
  world.newVersions = 0;
  world.abandons = 1;
  world.finalizeFailures = 1;
  world.deviations = 2;
  walkAll("step by step", world, stepsToWalk());
}

TEST_P(JobCoreWalk, answersOfEveryKindInEveryOrder) {
  using From = JobCore::SizeFrom;
  for (const std::optional<From> from :
       {std::optional<From>(From::Host), std::optional(From::ProbedRange), std::optional(From::ProbedFile)}) {
    WorldSetup world = answersAlone();
    world.sizeFrom = from;
    world.heads = {Head::Capped, Head::Whole, Head::WholeToTheEnd, Head::OtherTag, Head::OldVersion, Head::Unusable};
    world.ends = {CURLE_PARTIAL_FILE};
    walkAll(from == From::Host ? "answers, size by host"
                               : (from == From::ProbedRange ? "answers, size of a range" : "answers, size of a file"),
            world, stepsToWalk() / 3);
  }
}

TEST_P(JobCoreWalk, sizesThatProveWrongInEveryOrder) {
  using From = JobCore::SizeFrom;
  for (const From from : {From::Host, From::ProbedRange, From::ProbedFile}) {
    for (const std::int64_t error : {-3, 3}) {
      WorldSetup world = answersAlone();
      world.sizeFrom = from;
      world.sizeError = error;
      world.heads = {Head::Capped, Head::Whole, Head::WholeUnsized};
      world.ends = {CURLE_PARTIAL_FILE};
      world.newSizes = 1;
      walkAll(error < 0 ? "size known too small" : "size known too large", world, stepsToWalk() / 6);
    }
  }
}

// As a job with options: no pause costs anything.
TEST_P(JobCoreWalk, pausesThatAreKeptInEveryOrder) {
  WorldSetup world = setup();
  world.keepsPauses = true;
  world.ends = {CURLE_COULDNT_CONNECT, kForbidden};
  world.pauses = 2;
  walkAll("kept pauses", world, stepsToWalk());
}

INSTANTIATE_TEST_SUITE_P(Shapes, JobCoreWalk, testing::Values(Shape{1, 1}, Shape{1, 2}, Shape{2, 1}, Shape{2, 2}),
                         [](const auto& shape) {
                           return std::to_string(shape.param.ranges) + "ranges" +
                                  std::to_string(shape.param.connections) + "connections";
                         });

TEST(JobCoreWalkOfUnknownSize, everyOrder) {
  WorldSetup world;
  world.sizeFrom.reset();
  world.connections = 1;
  world.heads = {Head::Whole, Head::WholeUnsized, Head::WholeToTheEnd, Head::OtherTag, Head::Unusable};
  world.ends = {CURLE_PARTIAL_FILE, kBusy};
  world.newSizes = 1;
  walkAll("size unknown", world, stepsToWalk());
}

// ---- With a plan that moves ranges ----

class MovingWalk : public testing::TestWithParam<Shape> {
 protected:
  static WorldSetup setup() {
    WorldSetup setup;
    setup.adaptive = true;
    setup.ranges = GetParam().ranges;
    setup.connections = GetParam().connections;
    setup.sizeFrom.reset();
    setup.ticketsAtOnce = true;  // all is submitted by the thread that makes the turns
    setup.pieces = 1;
    setup.turns = 3;
    setup.keepsPauses = true;  // a moving plan is an option
    return setup;
  }
};

TEST_P(MovingWalk, hostsCommandsAndFailuresInEveryOrder) {
  WorldSetup world = setup();
  world.ends = {CURLE_COULDNT_CONNECT, kForbidden};
  world.openFailures = 1;
  walkAll("moving, commands and failures", world, stepsToWalk());
}

TEST_P(MovingWalk, answersOfEveryKindInEveryOrder) {
  for (const bool known : {false, true}) {
    WorldSetup world = setup();
    if (known) world.sizeFrom = JobCore::SizeFrom::Host;
    world.pauses = world.cancels = world.writeFailures = 0;
    world.heads = {Head::Capped,   Head::NoTotal,    Head::Whole,   Head::WholeToTheEnd,
                   Head::OtherTag, Head::OldVersion, Head::Unusable};
    world.ends = {CURLE_PARTIAL_FILE};
    walkAll(known ? "moving, answers, size by host" : "moving, answers", world, stepsToWalk() / 2);
  }
}

INSTANTIATE_TEST_SUITE_P(Shapes, MovingWalk, testing::Values(Shape{1, 1}, Shape{2, 2}, Shape{4, 3}),
                         [](const auto& shape) {
                           return std::to_string(shape.param.ranges) + "ranges" +
                                  std::to_string(shape.param.connections) + "connections";
                         });

// ---- At random ----

using Random = std::mt19937_64;

template <class Value>
Value oneOf(Random& random, std::initializer_list<Value> values) {
  return values.begin()[random() % values.size()];
}

WorldSetup randomSetup(Random& random) {
  using From = JobCore::SizeFrom;
  WorldSetup setup;
  setup.chunk = oneOf<std::uint64_t>(random, {1, 2, 7, 8, 64, 1500, 40'000});
  setup.ranges = 1 + random() % 6;
  setup.connections = static_cast<std::uint16_t>(1 + random() % 4);
  setup.lastRangeCut = random() % setup.chunk;
  setup.sizeFrom = oneOf<std::optional<From>>(random, {From::Host, From::ProbedRange, From::ProbedFile, std::nullopt});
  if (random() % 4 == 0 && setup.sizeFrom && setup.ranges > 1) {
    setup.sizeError = oneOf<std::int64_t>(random, {-1, 1, 2, static_cast<std::int64_t>(setup.chunk)});
  }
  setup.strongTags = random() % 4 == 0;
  setup.refillInOneStep = random() % 2 == 0;
  // A world of few kinds of answers goes on for longer than one of many.
  for (const Head head : {Head::Capped, Head::NoTotal, Head::Whole, Head::WholeUnsized, Head::WholeToTheEnd,
                          Head::OtherTag, Head::OldVersion, Head::Unusable}) {
    if (random() % 3 == 0) setup.heads.push_back(head);
  }
  for (const std::int32_t code : {std::int32_t{CURLE_PARTIAL_FILE}, std::int32_t{CURLE_COULDNT_CONNECT},
                                  std::int32_t{CURLE_OPERATION_TIMEDOUT}, kBusy}) {
    if (random() % 3 == 0) setup.ends.push_back(code);
  }
  if (random() % 32 == 0) setup.ends.push_back(kForbidden);
  setup.keepsPauses = random() % 2 == 0;
  setup.pieces = 64;
  setup.history = 8192;  // all of them
  setup.ticketsAtOnce = setup.refillInOneStep && random() % 2 == 0;
  setup.deviations = static_cast<int>(random() % 16);
  setup.pauses = static_cast<int>(random() % 3);
  setup.cancels = random() % 8 == 0 ? 1 : 0;
  setup.writeFailures = random() % 16 == 0 ? 1 : 0;
  setup.newVersions = random() % 4 == 0 ? static_cast<int>(random() % 3) : 0;
  setup.newSizes = random() % 8 == 0 ? 1 : 0;
  setup.finalizeFailures = random() % 16 == 0 ? 1 : 0;
  setup.abandons = random() % 32 == 0 ? 1 : 0;
  return setup;
}

WorldSetup randomMovingSetup(Random& random) {
  WorldSetup setup = randomSetup(random);
  setup.adaptive = true;
  setup.keepsPauses = true;
  setup.longFirst = random() % 2 == 0;
  setup.refillInOneStep = setup.ticketsAtOnce = true;
  if (random() % 4 != 0 || !setup.sizeFrom) {
    setup.sizeFrom.reset();
    setup.sizeError = 0;
  } else {
    setup.sizeFrom = JobCore::SizeFrom::Host;
  }
  setup.abandons = 0;
  setup.turns = 200;
  setup.openFailures = random() % 16 == 0 ? 1 : 0;
  return setup;
}

class JobCoreWalkAtRandom : public testing::TestWithParam<bool> {};

TEST_P(JobCoreWalkAtRandom, everyWorldComesToItsEnd) {
  const bool moving = GetParam();
  const int worlds = 40'000 / static_cast<int>(slowness());
  constexpr int kMostSteps = 400;
  std::uint64_t seed = 20'240'229;
  if (const char* const text = std::getenv("XFER_WALK_SEED")) seed = std::strtoull(text, nullptr, 10);
  std::cout << "  seed " << seed << "\n";
  std::uint64_t steps = 0;
  std::array<int, 8> ends{};
  int standing = 0;
  for (int index = 0; index < worlds; ++index) {
    Random random(seed + static_cast<std::uint64_t>(index));
    JobCoreWorld world(moving ? randomMovingSetup(random) : randomSetup(random));
    std::string path;
    for (int step = 0; step < kMostSteps && world.fault().empty(); ++step) {
      const std::vector<Step> choices = world.choices();
      if (choices.empty()) break;
      const Step& choice = choices[random() % choices.size()];
      path += "\n  " + nameOf(choice);
      world.take(choice);
      ++steps;
    }
    world.behave();
    ASSERT_EQ(world.fault(), "") << "seed " << seed + static_cast<std::uint64_t>(index) << ", after:" << path;
    ++ends.at(static_cast<std::size_t>(world.state()));
    if (!isFinal(world.state())) ++standing;
  }
  const auto count = [&](JobState state) { return ends.at(static_cast<std::size_t>(state)); };
  std::cout << "  " << worlds << " worlds, " << steps << " steps: " << count(JobState::Completed) << " completed, "
            << count(JobState::Failed) << " failed, " << count(JobState::Cancelled) << " cancelled, " << standing
            << " in a required stand-still\n";
  EXPECT_GT(count(JobState::Completed), worlds / 4);
  EXPECT_GT(count(JobState::Failed), 0);
  EXPECT_GT(count(JobState::Cancelled), 0);
  if (moving) {
    EXPECT_EQ(standing, 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Plans, JobCoreWalkAtRandom, testing::Bool(),
                         [](const auto& moving) { return moving.param ? "moving" : "stated"; });

}  // namespace
