// Which plan the download jobs of a test program go by: its tests are registered once for each plan that they are for
// (tests/CMakeLists.txt), and the environment variable XFER_TEST_PLAN says which one this run is.
//
// Threads: any.
// Errors:  a plan that does not exist ends the program: nothing would be tested.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <string_view>

#include "xfer/download_options.h"

namespace support {

/// "stated", also when the variable is not set, or "adaptive".
inline bool adaptivePlan() {
  static const bool adaptive = [] {
    const char* const value = std::getenv("XFER_TEST_PLAN");
    const std::string_view plan = value != nullptr ? value : "stated";
    if (plan != "stated" && plan != "adaptive") {
      std::cerr << "XFER_TEST_PLAN is \"" << plan << "\": it may be stated or adaptive\n";
      std::abort();
    }
    return plan == "adaptive";
  }();
  return adaptive;
}

/// Options of a job that goes by that plan.  An adaptive one first asks for firstRange bytes at most, so that several
/// connections have something to do in a small file; nothing: for as many as it does otherwise.
inline xfer::DownloadOptions planUnderTest(std::optional<std::uint64_t> firstRange = std::nullopt) {
  xfer::DownloadOptions options;
  if (!adaptivePlan()) return options;
  options.setPlan(xfer::DownloadPlan::Adaptive);
  if (firstRange) options.setFirstRange(*firstRange);
  return options;
}

/// As planUnderTest, for a server that never gets better: an adaptive plan ends the job after so many tries in a row
/// that bring nothing.  The stated plan has its own number of them.
inline xfer::DownloadOptions planOfTries(std::uint32_t tries, std::optional<std::uint64_t> firstRange = std::nullopt) {
  xfer::DownloadOptions options = planUnderTest(firstRange);
  if (adaptivePlan()) options.setMaxTries(tries);
  return options;
}

/// By how many bytes the download of a whole file counted more or less than it may: 0 is right.  An adaptive plan may
/// fetch the end of a file twice, up to 256 KiB or a hundredth of it.
inline std::uint64_t bytesAmiss(std::uint64_t counted, std::uint64_t size) {
  const std::uint64_t most = size + (adaptivePlan() ? std::max<std::uint64_t>(256 * 1024, size / 100) : 0);
  return counted < size ? size - counted : counted - std::min(counted, most);
}

}  // namespace support
