#include "job_history.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using xfer::DownloadEvent;
using xfer::JobHistory;
using Kind = DownloadEvent::Kind;

DownloadEvent event(std::uint64_t request) {
  DownloadEvent event;
  event.kind = Kind::Begun;
  event.request = request;
  return event;
}

std::vector<std::uint64_t> numbers(const std::vector<DownloadEvent>& events) {
  std::vector<std::uint64_t> numbers;
  for (const DownloadEvent& event : events) {
    numbers.push_back(event.number);
    EXPECT_EQ(event.request, event.number * 10);
  }
  return numbers;
}

using Numbers = std::vector<std::uint64_t>;

TEST(JobHistory, keepsNothingUnlessAskedTo) {
  JobHistory history(0);
  EXPECT_FALSE(history.keeps());
  history.add(event(1), 5);
  EXPECT_TRUE(history.from(0).empty());
}

TEST(JobHistory, numbersEventsAndCountsTimeFromTheFirstOne) {
  JobHistory history(8);
  EXPECT_TRUE(history.keeps());
  EXPECT_TRUE(history.from(0).empty());
  history.add(event(0), 1'000'000'007);
  history.add(event(10), 1'000'000'009);
  const std::vector<DownloadEvent> events = history.from(0);
  ASSERT_EQ(numbers(events), (Numbers{0, 1}));
  EXPECT_EQ(events[0].timeNs, 0U);
  EXPECT_EQ(events[1].timeNs, 2U);
  EXPECT_EQ(events[1].kind, Kind::Begun);
}

TEST(JobHistory, tellsThoseFromANumberOn) {
  JobHistory history(8);
  for (std::uint64_t i = 0; i < 5; ++i) history.add(event(i * 10), i);
  EXPECT_EQ(numbers(history.from(3)), (Numbers{3, 4}));
  EXPECT_EQ(numbers(history.from(5)), Numbers{});
  EXPECT_EQ(numbers(history.from(99)), Numbers{});
}

TEST(JobHistory, keepsTheLatestOnes) {
  JobHistory history(3);
  for (std::uint64_t i = 0; i < 11; ++i) {
    history.add(event(i * 10), i);
    const std::uint64_t oldest = i < 3 ? 0 : i - 2;
    Numbers kept;
    for (std::uint64_t number = oldest; number <= i; ++number) kept.push_back(number);
    EXPECT_EQ(numbers(history.from(0)), kept);
    EXPECT_EQ(numbers(history.from(i)), Numbers{i});
  }
}

}  // namespace
