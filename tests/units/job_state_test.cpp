#include "job_state.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "end_code.h"

namespace {

using xfer::JobState;

constexpr std::array<JobState, 8> kStates{JobState::Idle,   JobState::Probing,    JobState::Running,
                                          JobState::Paused, JobState::Cancelling, JobState::Completed,
                                          JobState::Failed, JobState::Cancelled};

// A row for each state to leave, a column for each state to enter, in the order of their numbers.
constexpr std::array<const char*, 8> kMayFollow{
    ".PR.C.FX",  // Idle
    "..R.C.FX",  // Probing
    "...SCDFX",  // Running
    "..R.C.FX",  // Paused
    "......FX",  // Cancelling
    "........",  // Completed
    "........",  // Failed
    "........",  // Cancelled
};

TEST(JobState, numbersAreThoseOfTheInterface) {
  for (std::uint32_t number = 0; number < kStates.size(); ++number) {
    EXPECT_EQ(static_cast<std::uint32_t>(kStates[number]), number);
  }
}

TEST(JobState, everyPairFollowsTheTable) {
  for (std::size_t from = 0; from < kStates.size(); ++from) {
    for (std::size_t to = 0; to < kStates.size(); ++to) {
      EXPECT_EQ(xfer::mayFollow(kStates[from], kStates[to]), kMayFollow[from][to] != '.')
          << "from " << from << " to " << to;
    }
  }
}

TEST(JobState, onlyTheLastThreeAreFinal) {
  for (const JobState state : kStates) {
    EXPECT_EQ(xfer::isFinal(state), static_cast<std::uint32_t>(state) >= 5) << static_cast<std::uint32_t>(state);
  }
}

TEST(JobState, aValueThatIsNoStateIsNeverEntered) {
  EXPECT_FALSE(xfer::mayFollow(JobState::Running, static_cast<JobState>(8)));
}

TEST(EndCode, is102ForACancelledJobAndForAFailureWithoutACode) {
  EXPECT_EQ(xfer::endCode(JobState::Cancelled, 0), 102U);
  EXPECT_EQ(xfer::endCode(JobState::Cancelled, 7), 102U);
  EXPECT_EQ(xfer::endCode(JobState::Failed, 0), 102U);
  EXPECT_EQ(xfer::endCode(JobState::Failed, 28), 28U);
  EXPECT_EQ(xfer::endCode(JobState::Failed, -1), 0xFFFFFFFFU);
  EXPECT_EQ(xfer::endCode(JobState::Completed, 0), 0U);
}

}  // namespace
