// The program, behind its main function.
#pragma once

#include <string>
#include <vector>

namespace xfer_get {

/// Does what the arguments (UTF-8, without the program's name) say, and returns the exit code.
int run(const std::vector<std::string>& arguments) noexcept;

}  // namespace xfer_get
