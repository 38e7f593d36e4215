// The library's own byte buffer: one heap block, always exactly as long as its content.  sys/idata_buff.h states the
// contract and the ownership of each operation.
//
// Threads: one at a time.
// Errors:  resize returns false without memory; the operations that make a string throw std::bad_alloc.
// Units:   lengths are bytes.
#pragma once

#include <cstdint>
#include <string>

#include "sys/idata_buff.h"

namespace sys {

class DataBuff final : public IDataBuff {
 public:
  DataBuff() = default;
  ~DataBuff() override;
  DataBuff(const DataBuff&) = delete;
  DataBuff& operator=(const DataBuff&) = delete;

  bool resize(std::uint64_t n) override;
  void clear() override;
  void assign(const std::string& text) override;
  void assign(const void* src, std::uint64_t n) override;
  std::uint8_t* data() override { return data_; }
  void attach(std::uint8_t* block, std::uint64_t n) override;
  void takeFrom(IDataBuff* other) override;
  std::uint8_t* release(std::uint64_t* n) override;
  DataBuff* moveTo(IDataBuff* other) override;
  void copyTo(std::wstring& out) override;
  void copyTo(std::string& out) override;
  std::string toString() override;
  std::uint64_t size() override { return size_; }
  bool empty() override { return size_ == 0; }

 private:
  std::uint8_t* data_ = nullptr;  // from the C heap; null when there is no block
  std::uint64_t size_ = 0;        // of content and block: no spare capacity
};

}  // namespace sys
