// Fills the buffers of hosts.
//
// Threads: one at a time for each buffer.
// Errors:  std::bad_alloc when a buffer cannot hold the bytes; what a host's own buffer throws.
#pragma once

#include <cstdint>
#include <cstring>
#include <new>
#include <string>

#include "sys/idata_buff.h"

namespace xfer {

/// Checks the buffer's size and ignores the result of the host's resize.
inline void fillBuffer(sys::IDataBuff& out, const void* bytes, std::uint64_t size) {
  out.resize(size);
  if (out.size() != size) throw std::bad_alloc();
  if (size != 0) std::memcpy(out.data(), bytes, size);
}

/// An empty part leaves its buffer unchanged.
inline void copyOut(const std::string& part, sys::IDataBuff* out) {
  if (!part.empty()) fillBuffer(*out, part.data(), part.size());
}

}  // namespace xfer
