#include "near_name.h"

#include <algorithm>
#include <cstddef>

namespace xfer_get {
namespace {

constexpr std::size_t kLongest = 64;  // of a longer one nobody meant an option

// Letters to add, drop or change, or neighbours to swap, until one is the other.
std::size_t distance(std::string_view one, std::string_view other) {
  std::vector<std::vector<std::size_t>> steps(one.size() + 1, std::vector<std::size_t>(other.size() + 1));
  for (std::size_t i = 0; i <= one.size(); ++i) {
    for (std::size_t j = 0; j <= other.size(); ++j) {
      if (i == 0 || j == 0) {
        steps[i][j] = i + j;
        continue;
      }
      const std::size_t changed = steps[i - 1][j - 1] + (one[i - 1] == other[j - 1] ? 0 : 1);
      steps[i][j] = std::min({steps[i - 1][j] + 1, steps[i][j - 1] + 1, changed});
      if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1]) {
        steps[i][j] = std::min(steps[i][j], steps[i - 2][j - 2] + 1);
      }
    }
  }
  return steps[one.size()][other.size()];
}

}  // namespace

std::string_view nearName(std::string_view text, const std::vector<std::string_view>& known) {
  if (text.size() > kLongest) return {};
  const auto begins = [&](std::string_view name) { return name.starts_with(text); };
  if (std::count_if(known.begin(), known.end(), begins) == 1) return *std::find_if(known.begin(), known.end(), begins);
  std::size_t least = text.size() / 3 + 1;
  std::string_view nearest;
  for (const std::string_view name : known) {
    const std::size_t steps = distance(text, name);
    if (steps <= least) nearest = steps < least ? name : std::string_view();
    least = std::min(least, steps);
  }
  return nearest;
}

}  // namespace xfer_get
