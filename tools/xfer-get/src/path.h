// Paths, which are UTF-8 texts everywhere else.
//
// Errors: std::bad_alloc.
#pragma once

#include <filesystem>
#include <string>

namespace xfer_get {

inline std::filesystem::path pathOf(const std::string& text) {
  return {std::u8string(text.begin(), text.end())};
}

}  // namespace xfer_get
