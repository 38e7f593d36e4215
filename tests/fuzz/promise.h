// What a fuzz target expects to hold whatever its input is.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace fuzz {

/// Ends the process, which the fuzzer reports with the input, unless it is kept.
inline void promise(bool kept, const char* what) {
  if (kept) return;
  std::fprintf(stderr, "broken promise: %s\n", what);
  std::abort();
}

}  // namespace fuzz
