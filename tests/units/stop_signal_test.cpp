#include "stop_signal.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

namespace {

using xfer::StopSignal;

TEST(StopSignal, wakesTheListenersThatLive) {
  StopSignal signal;
  std::vector<int> woken;
  std::vector<std::unique_ptr<StopSignal::Listener>> listeners;
  for (int i = 0; i < 6; ++i) {
    listeners.push_back(std::make_unique<StopSignal::Listener>(signal, [&woken, i] { woken.push_back(i); }));
  }
  for (const std::size_t gone : {2U, 1U, 5U, 0U}) listeners[gone].reset();  // from the middle and from both ends
  signal.set();
  EXPECT_EQ(woken, (std::vector<int>{4, 3}));
}

TEST(StopSignal, listenerOfASetSignalIsNotCalled) {
  StopSignal signal;
  signal.set();
  bool woken = false;
  const StopSignal::Listener late(signal, [&woken] { woken = true; });
  EXPECT_FALSE(woken);
  EXPECT_TRUE(signal.isSet());
}

TEST(StopSignal, isSetBeforeItsListenersAreCalled) {
  StopSignal signal;
  bool seen = false;
  const StopSignal::Listener listener(signal, [&] { seen = signal.isSet(); });
  signal.set();
  EXPECT_TRUE(seen);
}

TEST(StopSignal, endsAWait) {
  StopSignal signal;
  const auto begin = std::chrono::steady_clock::now();
  std::thread setter([&] { signal.set(); });
  signal.waitFor(std::chrono::minutes(10));
  setter.join();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::minutes(1));
}

}  // namespace
