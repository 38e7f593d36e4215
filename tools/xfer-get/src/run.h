// The program behind main.
#pragma once

#include <string>
#include <vector>

namespace xfer_get {

/// Runs the program with arguments (UTF-8, without the program's name) and returns the exit code.
int run(const std::vector<std::string>& arguments) noexcept;

}  // namespace xfer_get
