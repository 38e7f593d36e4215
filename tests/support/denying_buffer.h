// A host's buffer that does not do what it is told.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "sys/idata_buff.h"

namespace support {

/// Holds so many bytes and always answers that it cannot, or throws instead.
class DenyingBuffer final : public sys::IDataBuff {
 public:
  explicit DenyingBuffer(std::uint64_t room, bool throwing = false) : room_(room), throwing_(throwing) {}
  bool resize(std::uint64_t n) override {
    if (throwing_) throw std::length_error("thrown by a buffer");
    if (n <= room_) bytes_.resize(n);
    return false;
  }
  void clear() override {}
  void assign(const std::string&) override {}
  void assign(const void*, std::uint64_t) override {}
  std::uint8_t* data() override { return reinterpret_cast<std::uint8_t*>(bytes_.data()); }
  void attach(std::uint8_t*, std::uint64_t) override {}
  void takeFrom(sys::IDataBuff*) override {}
  std::uint8_t* release(std::uint64_t*) override { return nullptr; }
  sys::DataBuff* moveTo(sys::IDataBuff*) override { return nullptr; }
  void copyTo(std::wstring&) override {}
  void copyTo(std::string&) override {}
  std::string toString() override { return bytes_; }
  std::uint64_t size() override { return bytes_.size(); }
  bool empty() override { return bytes_.empty(); }

 private:
  const std::uint64_t room_;
  const bool throwing_;
  std::string bytes_;
};

}  // namespace support
