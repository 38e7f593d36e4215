#include "event_dispatcher.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "support/census.h"
#include "support/gate.h"
#include "support/test_timeout.h"
#include "support/wait_until.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::Gate;
using support::waitUntil;
using xfer::EventDispatcher;

// Does at each question what the test says.
class Speaker final : public EventDispatcher::Source {
 public:
  using Body = std::function<std::optional<EventDispatcher::Time>()>;

  explicit Speaker(Body body) : body_(std::move(body)) {}

  std::optional<EventDispatcher::Time> tell() noexcept override {
    ++asked;
    return body_();
  }

  std::atomic<int> asked{0};

 private:
  Body body_;
};

std::shared_ptr<Speaker> speaker(const std::function<void()>& body) {
  return std::make_shared<Speaker>([body] {
    body();
    return std::optional<EventDispatcher::Time>();
  });
}

TEST(EventDispatcher, asksWhoIsWokenAndNobodyElse) {
  EventDispatcher dispatcher;
  const auto one = speaker([] {});
  const auto other = speaker([] {});
  dispatcher.add(one);
  dispatcher.add(other);
  dispatcher.wake(*one);
  EXPECT_TRUE(waitUntil([&] { return one->asked == 1; }));
  dispatcher.wake(*other);
  EXPECT_TRUE(waitUntil([&] { return other->asked == 1; }));
  EXPECT_EQ(one->asked, 1);
  dispatcher.remove(*one);
  dispatcher.remove(*other);
}

TEST(EventDispatcher, asksOnAThreadOfItsOwnThatKnowsItself) {
  EventDispatcher dispatcher;
  std::thread::id thread;
  bool here = false;
  const auto source = speaker([&] {
    thread = std::this_thread::get_id();
    here = dispatcher.isHere();
  });
  EXPECT_FALSE(dispatcher.isHere());
  dispatcher.add(source);
  dispatcher.wake(*source);
  EXPECT_TRUE(waitUntil([&] { return source->asked == 1; }));
  dispatcher.remove(*source);
  EXPECT_TRUE(here);
  EXPECT_NE(thread, std::this_thread::get_id());
  EXPECT_FALSE(dispatcher.isHere());
}

TEST(EventDispatcher, asksAgainWhenASourceWantsItTo) {
  EventDispatcher dispatcher;
  std::atomic<bool> tooSoon{false};
  EventDispatcher::Time due{};
  const auto source = std::make_shared<Speaker>([&]() -> std::optional<EventDispatcher::Time> {
    if (steady_clock::now() < due) tooSoon = true;
    due = steady_clock::now() + milliseconds(5);
    return due;
  });
  dispatcher.add(source);
  EXPECT_EQ(source->asked, 0) << "not before it is woken once";
  dispatcher.wake(*source);
  EXPECT_TRUE(waitUntil([&] { return source->asked >= 5; }));
  dispatcher.remove(*source);
  EXPECT_FALSE(tooSoon);
  const int asked = source->asked;
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_EQ(source->asked, asked) << "a source that is removed is not due";
}

TEST(EventDispatcher, wakeThatComesWhileASourceTellsIsNotLost) {
  EventDispatcher dispatcher;
  const Gate inside;
  Gate goOn;
  const auto source = speaker([&] {
    Gate(inside).open();
    EXPECT_TRUE(goOn.wait());
  });
  dispatcher.add(source);
  dispatcher.wake(*source);
  ASSERT_TRUE(inside.wait());
  dispatcher.wake(*source);
  goOn.open();
  EXPECT_TRUE(waitUntil([&] { return source->asked == 2; }));
  dispatcher.remove(*source);
}

TEST(EventDispatcher, sourceThatWasWokenBeforeItIsAddedIsAskedOnceItIs) {
  EventDispatcher dispatcher;
  const auto other = speaker([] {});
  dispatcher.add(other);
  dispatcher.wake(*other);
  ASSERT_TRUE(waitUntil([&] { return other->asked == 1; }));
  const auto source = speaker([] {});
  dispatcher.wake(*source);
  std::this_thread::sleep_for(milliseconds(20));  // the thread looks for it, and waits again
  dispatcher.add(source);
  EXPECT_TRUE(waitUntil([&] { return source->asked == 1; }));
  dispatcher.remove(*source);
  dispatcher.remove(*other);
}

TEST(EventDispatcher, sourcesTakeTurns) {
  EventDispatcher dispatcher;
  std::vector<int> order;
  const Gate inside;
  Gate goOn;
  const auto first = speaker([&] {
    Gate(inside).open();
    EXPECT_TRUE(goOn.wait());
  });
  const auto one = speaker([&] { order.push_back(1); });
  const auto two = speaker([&] { order.push_back(2); });
  for (const auto& source : {first, one, two}) dispatcher.add(source);
  dispatcher.wake(*first);
  ASSERT_TRUE(inside.wait());
  for (const auto& source : {two, one}) dispatcher.wake(*source);
  goOn.open();
  EXPECT_TRUE(waitUntil([&] { return one->asked + two->asked == 2; }));
  for (const auto& source : {first, one, two}) dispatcher.remove(*source);
  EXPECT_EQ(order, (std::vector{1, 2})) << "who was asked longest ago is next";
}

TEST(EventDispatcher, sourceThatIsWokenAgainWhileItTellsComesBehindTheOthers) {
  EventDispatcher dispatcher;
  std::vector<int> order;
  const Gate inside;
  Gate goOn;
  const auto restless = speaker([&] {
    order.push_back(1);
    Gate(inside).open();
    EXPECT_TRUE(goOn.wait());
  });
  const auto other = speaker([&] { order.push_back(2); });
  for (const auto& source : {restless, other}) dispatcher.add(source);
  dispatcher.wake(*restless);
  ASSERT_TRUE(inside.wait());
  for (const auto& source : {restless, other}) dispatcher.wake(*source);
  goOn.open();
  EXPECT_TRUE(waitUntil([&] { return restless->asked + other->asked == 3; }));
  for (const auto& source : {restless, other}) dispatcher.remove(*source);
  EXPECT_EQ(order, (std::vector{1, 2, 1}));
}

TEST(EventDispatcher, removalWaitsForWhatIsBeingTold) {
  EventDispatcher dispatcher;
  const Gate inside;
  Gate goOn;
  std::atomic<bool> told{false};
  const auto source = speaker([&] {
    Gate(inside).open();
    EXPECT_TRUE(goOn.wait());
    told = true;
  });
  dispatcher.add(source);
  dispatcher.wake(*source);
  ASSERT_TRUE(inside.wait());
  std::atomic<bool> removed{false};
  const auto remove = [&] {
    dispatcher.remove(*source);
    EXPECT_TRUE(told);
    removed = true;
  };
  std::thread remover(remove);
  std::thread another(remove);
  std::this_thread::sleep_for(milliseconds(20));
  EXPECT_FALSE(removed);
  goOn.open();
  remover.join();
  another.join();
}

TEST(EventDispatcher, removalDoesNotWaitForWhatAnotherSourceTells) {
  EventDispatcher dispatcher;
  const Gate inside;
  Gate goOn;
  const auto slow = speaker([&] {
    Gate(inside).open();
    EXPECT_TRUE(goOn.wait());
  });
  const auto other = speaker([] {});
  dispatcher.add(slow);
  dispatcher.add(other);
  dispatcher.wake(*slow);
  ASSERT_TRUE(inside.wait());
  std::thread remover([&] { dispatcher.remove(*slow); });
  dispatcher.remove(*other);  // hangs when it waits
  goOn.open();
  remover.join();
}

TEST(EventDispatcher, removalOfTheLastSourceDoesNotWaitForOneThatHasRemovedItselfAndStillTells) {
  EventDispatcher dispatcher;
  const Gate inside;
  Gate goOn;
  std::atomic<bool> told{false};
  std::shared_ptr<Speaker> slow;
  slow = speaker([&] {
    dispatcher.remove(*slow);
    Gate(inside).open();
    EXPECT_TRUE(goOn.wait());
    told = true;
  });
  const auto other = speaker([] {});
  dispatcher.add(slow);
  dispatcher.add(other);
  dispatcher.wake(*slow);
  ASSERT_TRUE(inside.wait());
  dispatcher.remove(*other);  // hangs when it waits
  EXPECT_FALSE(told);
  goOn.open();
  dispatcher.remove(*slow);
  EXPECT_TRUE(told);
}

TEST(EventDispatcher, sourceIsReleasedWhenItsRemovalReturns) {
  EventDispatcher dispatcher;
  for (int round = 0; round < 200; ++round) {
    auto source = speaker([] {});
    const std::weak_ptr<Speaker> seen = source;
    dispatcher.add(source);
    dispatcher.wake(*source);
    while (source->asked == 0) std::this_thread::yield();
    dispatcher.remove(*source);
    source.reset();
    ASSERT_TRUE(seen.expired());
  }
}

TEST(EventDispatcher, sourceMayRemoveItselfAndTheLastOneMayDoSoAgainAndAgain) {
  EventDispatcher dispatcher;
  for (int round = 0; round < 50; ++round) {
    std::atomic<bool> removed{false};
    std::shared_ptr<Speaker> source;
    source = speaker([&] {
      dispatcher.remove(*source);
      removed = true;
    });
    dispatcher.add(source);
    dispatcher.wake(*source);
    ASSERT_TRUE(waitUntil([&] { return removed.load(); }));
    dispatcher.wake(*source);  // does nothing any more
    dispatcher.remove(*source);
    EXPECT_EQ(source->asked, 1);
  }
}

TEST(EventDispatcher, sourceMayAddAndRemoveOthers) {
  EventDispatcher dispatcher;
  const auto other = speaker([] {});
  const auto added = speaker([] {});
  const auto source = speaker([&] {
    dispatcher.remove(*other);
    dispatcher.add(added);
    dispatcher.wake(*added);
  });
  dispatcher.add(source);
  dispatcher.add(other);
  dispatcher.wake(*source);
  EXPECT_TRUE(waitUntil([&] { return added->asked == 1; }));
  dispatcher.wake(*other);
  dispatcher.remove(*source);
  dispatcher.remove(*added);
  EXPECT_EQ(other->asked, 0);
}

TEST(EventDispatcher, hasNoThreadWithoutSources) {
  EventDispatcher dispatcher;
  const auto source = speaker([] {});
  std::atomic<bool> over{false};
  std::thread counted([&] {
    while (!over) std::this_thread::sleep_for(milliseconds(1));
  });
  const std::size_t before = support::threadCount();
  dispatcher.add(source);
  EXPECT_EQ(support::threadCount(), before + 1);
  dispatcher.remove(*source);
  EXPECT_TRUE(waitUntil([&] { return support::threadCount() == before; }));
  over = true;
  counted.join();
}

// Everybody at once: nothing hangs, no two are asked at the same time, and nobody after its removal.
TEST(EventDispatcher, staysInOrderWhateverComesTogether) {
  EventDispatcher dispatcher;
  std::atomic<int> inside{0};
  std::atomic<bool> wrong{false};
  const auto storm = [&](unsigned seed) {
    std::minstd_rand random(seed);
    for (int round = 0; round < 400; ++round) {
      std::atomic<bool> gone{false};
      std::shared_ptr<Speaker> source;
      const bool fromInside = random() % 4 == 0;
      source = std::make_shared<Speaker>([&]() -> std::optional<EventDispatcher::Time> {
        if (++inside != 1 || gone) wrong = true;
        if (fromInside) {
          dispatcher.remove(*source);
          gone = true;
        }
        --inside;
        return steady_clock::now() + milliseconds(1);
      });
      dispatcher.add(source);
      for (auto times = random() % 3; times > 0; --times) dispatcher.wake(*source);
      if (random() % 2 == 0) std::this_thread::yield();
      dispatcher.remove(*source);
      gone = true;
    }
  };
  std::vector<std::thread> threads;
  for (unsigned seed = 1; seed <= 4; ++seed) threads.emplace_back(storm, seed);
  for (std::thread& thread : threads) thread.join();
  EXPECT_FALSE(wrong);
}

}  // namespace
