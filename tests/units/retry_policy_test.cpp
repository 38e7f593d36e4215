#include "retry_policy.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

namespace {

using xfer::classifyTransfer;
using xfer::Verdict;

constexpr std::array<int, 9> kRetryableCodes{5, 6, 7, 18, 28, 35, 52, 55, 56};

bool isRetryable(int code) {
  return std::find(kRetryableCodes.begin(), kRetryableCodes.end(), code) != kRetryableCodes.end();
}

TEST(RetryPolicy, delaysAreHalfASecondThenTwoThenFive) {
  EXPECT_EQ(xfer::kRetryDelaysMs, (std::array<std::uint64_t, 3>{500, 2000, 5000}));
}

TEST(RetryPolicy, onlyAnUntroubled200Or206IsASuccess) {
  for (int status = 0; status < 600; ++status) {
    EXPECT_EQ(classifyTransfer(0, status) == Verdict::Success, status == 200 || status == 206) << status;
  }
  for (int code = -1; code < 100; ++code) {
    EXPECT_EQ(classifyTransfer(code, 206) == Verdict::Success, code == 0) << code;
  }
}

TEST(RetryPolicy, status403And204AreRejectionsWhateverTheCode) {
  for (int code = -1; code < 100; ++code) {
    EXPECT_EQ(classifyTransfer(code, 403), Verdict::Rejected) << code;
    EXPECT_EQ(classifyTransfer(code, 204), Verdict::Rejected) << code;
  }
}

TEST(RetryPolicy, busyAndBrokenServersAreTriedAgainWhateverTheCode) {
  for (int code = -1; code < 100; ++code) {
    EXPECT_EQ(classifyTransfer(code, 429), Verdict::Retryable) << code;
    for (int status = 500; status <= 599; ++status) {
      ASSERT_EQ(classifyTransfer(code, status), Verdict::Retryable) << code << ' ' << status;
    }
  }
}

TEST(RetryPolicy, nineNetworkCodesAreTriedAgainAndNoOther) {
  for (int code = -1; code < 100; ++code) {
    if (code == 0) continue;
    const Verdict expected = isRetryable(code) ? Verdict::Retryable : Verdict::Fatal;
    for (const int status : {0, 200, 206, 302, 404, 416, 600}) {
      EXPECT_EQ(classifyTransfer(code, status), expected) << code << ' ' << status;
    }
  }
}

TEST(RetryPolicy, otherStatusesAreFatal) {
  for (const int status : {0, 100, 201, 205, 207, 301, 302, 304, 400, 401, 402, 404, 407, 416, 428, 430, 499, 600}) {
    EXPECT_EQ(classifyTransfer(0, status), Verdict::Fatal) << status;
  }
}

}  // namespace
