#include "support/test_timeout.h"

#include <cstdlib>

namespace support {

std::chrono::milliseconds testTimeout() {
  static const double factor = [] {
    const char* text = std::getenv("XFER_TEST_TIMEOUT_FACTOR");
    const double value = text != nullptr ? std::atof(text) : 1;
    return value > 0 ? value : 1;
  }();
  return std::chrono::milliseconds(static_cast<long long>(20'000 * factor));
}

}  // namespace support
