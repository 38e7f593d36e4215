// Messages on standard error.
#pragma once

#include <cstdio>
#include <string>

namespace xfer_get {

inline void say(const std::string& text) {
  std::fprintf(stderr, "xfer-get: %s\n", text.c_str());
}

}  // namespace xfer_get
