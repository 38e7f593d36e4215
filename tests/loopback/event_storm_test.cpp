// Downloads whose callbacks do at random what callbacks may do, while other threads do the same: nothing hangs, nothing
// is told after a download is forgotten, and what is told is in order.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/plan_under_test.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "xfer/xfer_download.h"

namespace {

using std::chrono::milliseconds;

constexpr std::size_t kDownloads = 200;
constexpr std::uint64_t kSize = 200'000;
constexpr std::int32_t kUnknownId = 100001;

class Storm {
 public:
  explicit Storm(std::string url, std::uint64_t seed) : url_(std::move(url)), seed_(seed) {}

  // Everything once: starts what is left to start, and plays with what there is.
  void play(std::minstd_rand& random) {
    const auto choice = random() % 10;
    if (choice < 3) return start();
    const std::uint64_t id = anyId(random);
    if (id == 0) return;
    xfer_status status{};
    status.size = sizeof status;
    switch (choice) {
      case 3:
        return expectKnownOrNot(xfer_downloadCancel(id));
      case 4:
        return forget(id);
      case 5:
        expectKnownOrNot(xfer_downloadPause(id));
        return expectKnownOrNot(xfer_downloadResume(id));
      case 6:
        return expectKnownOrNot(xfer_downloadStatus(id, &status));
      case 7:
        return expectKnownOrNot(xfer_downloadSetSpeed(id, random() % 2 == 0 ? 0 : 1'000'000));
      default:
        std::this_thread::sleep_for(milliseconds(random() % 3));
    }
  }

  [[nodiscard]] bool allStarted() const { return started_ >= kDownloads; }

  void forgetAll() {
    for (const auto& one : downloads_) {
      if (const std::uint64_t id = one->id; id != 0) forget(id);
    }
    // One that was forgotten by what it told may still be telling that.
    EXPECT_TRUE(support::waitUntil([this] { return !inside_; }));
  }

  void expectNothingWrong() const {
    std::size_t ends = 0;
    for (const auto& one : downloads_) {
      EXPECT_EQ(one->wrong, "");
      ends += one->ended ? 1 : 0;
    }
    std::cout << started_ << " downloads, " << ends << " told their end, " << calls_ << " calls\n";
  }

 private:
  // What a download has told; only the thread of callbacks writes it.
  struct Told {
    explicit Told(Storm& itsStorm, std::uint64_t seed) : storm(itsStorm), random(static_cast<unsigned>(seed)) {}
    Storm& storm;
    std::minstd_rand random;
    std::atomic<std::uint64_t> id{0};
    std::atomic<bool> forgotten{false};
    bool ended = false;
    std::uint32_t state = XFER_STATE_IDLE;
    std::string wrong;
  };

  static void hear(void* user, const xfer_event* event) {
    auto& told = *static_cast<Told*>(user);
    Storm& storm = told.storm;
    if (storm.inside_.exchange(true)) told.wrong = "two callbacks at once";
    ++storm.calls_;
    if (told.forgotten) told.wrong = "told after it was forgotten";
    if (told.ended) told.wrong = "told after its end";
    if (event->kind == XFER_EVENT_END) told.ended = true;
    if (event->kind == XFER_EVENT_STATE) {
      if (event->state == told.state) told.wrong = "the same state twice";
      told.state = event->state;
    }
    if (xfer_downloadWait(event->id, 1'000'000) == 0) told.wrong = "waited inside of a callback";
    if (told.random() % 3 == 0) storm.play(told.random);
    storm.inside_ = false;
  }

  void start() {
    const std::size_t number = started_++;
    if (number >= kDownloads) return;
    Told* told = nullptr;
    {
      const std::lock_guard lock(mutex_);
      downloads_.push_back(std::make_unique<Told>(*this, seed_ + number));
      told = downloads_.back().get();
    }
    xfer_download_options options;
    xfer_downloadOptionsInit(&options, sizeof options);
    const std::string path = folder_.file(std::to_string(number));
    options.url = url_.c_str();
    options.path = path.c_str();
    options.plan = support::adaptivePlan() ? XFER_PLAN_ADAPTIVE : XFER_PLAN_STATED;
    options.connections = 2;
    options.onEvent = &Storm::hear;
    options.user = told;
    options.progressMs = 1;
    options.notes = number % 2 == 0 ? XFER_NOTES_ALL : XFER_NOTES_MAIN;
    std::uint64_t id = 0;
    EXPECT_EQ(xfer_downloadStart(&options, &id), 0);
    told->id = id;
  }

  std::uint64_t anyId(std::minstd_rand& random) {
    const std::lock_guard lock(mutex_);
    return downloads_.empty() ? 0 : downloads_[random() % downloads_.size()]->id.load();
  }

  void forget(std::uint64_t id) {
    const std::int32_t code = xfer_downloadForget(id);
    expectKnownOrNot(code);
    if (code != 0) return;  // somebody else does
    const std::lock_guard lock(mutex_);
    for (const auto& one : downloads_) {
      if (one->id == id) one->forgotten = true;
    }
  }

  static void expectKnownOrNot(std::int32_t code) { EXPECT_TRUE(code == 0 || code == kUnknownId) << code; }

  const std::string url_;
  const std::uint64_t seed_;
  const support::TempDir folder_;
  std::atomic<std::size_t> started_{0};
  std::atomic<std::size_t> calls_{0};
  std::atomic<bool> inside_{false};
  std::mutex mutex_;
  std::vector<std::unique_ptr<Told>> downloads_;
};

TEST(EventStorm, callbacksThatCancelForgetStartAndSleepNeitherHangNorHearWhatIsForgotten) {
  const std::uint64_t seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  support::ScriptedServer server([](const support::ReceivedRequest& request) {
    return support::range206(request, kSize, {.pace = {.bytesEach = 20'000, .rest = milliseconds(2)}});
  });
  Storm storm(server.url("/file"), seed);
  std::vector<std::thread> threads;
  for (unsigned number = 1; number <= 3; ++number) {
    threads.emplace_back([&storm, number, seed] {
      std::minstd_rand random(static_cast<unsigned>(seed) + 1000 * number);
      while (!storm.allStarted()) storm.play(random);
    });
  }
  for (std::thread& thread : threads) thread.join();
  storm.forgetAll();
  storm.expectNothingWrong();
}

}  // namespace
