#include "support/process.h"

#include <stdexcept>

namespace support {

Finished runProcess(const std::vector<std::string>& command, const ProcessOptions& options,
                    std::chrono::milliseconds timeout) {
  Process process(command, options);
  const std::optional<int> exitCode = process.wait(timeout);
  if (!exitCode) throw std::runtime_error(command.front() + " did not end in time; stderr: " + process.err());
  return {*exitCode, process.out(), process.err()};
}

}  // namespace support
