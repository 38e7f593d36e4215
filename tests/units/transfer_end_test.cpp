// The rule for bodies that are shorter than needed.
#include "transfer_end.h"

#include <gtest/gtest.h>

#include <vector>

using namespace xfer;

namespace {

constexpr auto kOpen = std::nullopt;
constexpr auto kNotNamed = std::nullopt;
constexpr std::int64_t kNotAnnounced = -1;

struct Case {
  const char* what;
  EndedBody body;
  EndVerdict verdict;
};

TEST(TransferEnd, verdicts) {
  const std::vector<Case> table{
      {"all of the range", {10, 10, 20, 20, kNotNamed, 10}, EndVerdict::Whole},
      {"all of the range, of unknown length", {10, 10, 20, 20, kNotNamed, kNotAnnounced}, EndVerdict::Whole},
      {"more than the range", {10, 10, 25, 20, kNotNamed, 15}, EndVerdict::Whole},
      {"as long as it goes", {0, 0, 5, kOpen, kNotNamed, kNotAnnounced}, EndVerdict::Whole},
      {"as long as it goes, and nothing came", {0, 0, 0, kOpen, kNotNamed, 7}, EndVerdict::Whole},
      {"an empty range", {0, 0, 0, 0, kNotNamed, kNotAnnounced}, EndVerdict::Whole},

      {"as long as announced", {10, 10, 15, 20, kNotNamed, 5}, EndVerdict::ShortAccepted},
      {"shorter than announced", {10, 10, 15, 20, kNotNamed, 6}, EndVerdict::Short},
      {"longer than announced", {10, 10, 15, 20, kNotNamed, 4}, EndVerdict::Short},
      {"of unknown length", {10, 10, 15, 20, kNotNamed, kNotAnnounced}, EndVerdict::Short},
      {"empty, as announced", {10, 10, 10, 20, kNotNamed, 0}, EndVerdict::Short},
      {"one byte, as announced", {10, 10, 11, 20, kNotNamed, 1}, EndVerdict::ShortAccepted},

      {"a whole file that ends early, as announced", {10, 0, 15, 20, kNotNamed, 15}, EndVerdict::ShortAccepted},
      {"a whole file that breaks off", {10, 0, 15, 20, kNotNamed, 20}, EndVerdict::Short},
      {"a whole file that ends before the range", {10, 0, 5, 20, kNotNamed, 5}, EndVerdict::ShortAccepted},
      {"the part of a whole file that announces the range's length", {10, 0, 15, 20, kNotNamed, 5}, EndVerdict::Short},

      {"as far as named", {10, 10, 15, 20, 15, kNotAnnounced}, EndVerdict::WholeAsNamed},
      {"as far as named and announced", {10, 10, 15, 20, 15, 5}, EndVerdict::WholeAsNamed},
      {"not as far as named", {10, 10, 14, 20, 15, kNotAnnounced}, EndVerdict::Short},
      {"not as far as named, but as announced", {10, 10, 14, 20, 15, 4}, EndVerdict::ShortAccepted},
      {"further than named", {10, 10, 16, 20, 15, kNotAnnounced}, EndVerdict::Short},
      {"named to end where it starts", {10, 10, 10, 20, 10, kNotAnnounced}, EndVerdict::Short},
      {"the range although less was named", {10, 10, 20, 20, 15, 10}, EndVerdict::Whole},
  };
  for (const auto& [what, body, verdict] : table) EXPECT_EQ(judgeEnd(body), verdict) << what;
}

}  // namespace
