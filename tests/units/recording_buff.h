// A host's buffer that holds nothing and remembers what is asked of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sys/idata_buff.h"

namespace test {

class RecordingBuff : public sys::IDataBuff {
 public:
  RecordingBuff() = default;
  ~RecordingBuff() override {
    if (destructions != nullptr) ++*destructions;
  }
  RecordingBuff(const RecordingBuff&) = delete;
  RecordingBuff& operator=(const RecordingBuff&) = delete;

  bool resize(std::uint64_t n) override {
    lengths.push_back(n);
    return note("resize");
  }
  void clear() override { note("clear"); }
  void assign(const std::string& text) override {
    texts.push_back(text);
    note("assign text");
  }
  void assign(const void* src, std::uint64_t n) override {
    objects.push_back(src);
    lengths.push_back(n);
    note("assign bytes");
  }
  std::uint8_t* data() override {
    note("data");
    return &block;
  }
  void attach(std::uint8_t* from, std::uint64_t n) override {
    objects.push_back(from);
    lengths.push_back(n);
    note("attach");
  }
  void takeFrom(sys::IDataBuff* other) override {
    objects.push_back(other);
    note("takeFrom");
  }
  std::uint8_t* release(std::uint64_t* n) override {
    *n = length;
    note("release");
    return &block;
  }
  sys::DataBuff* moveTo(sys::IDataBuff* other) override {
    objects.push_back(other);
    note("moveTo");
    return nullptr;
  }
  void copyTo(std::wstring& out) override {
    out = L"wide";
    note("copyTo wide");
  }
  void copyTo(std::string& out) override {
    out = "narrow";
    note("copyTo narrow");
  }
  std::string toString() override {
    note("toString");
    return "text";
  }
  std::uint64_t size() override {
    note("size");
    return length;
  }
  bool empty() override { return note("empty"); }

  std::uint8_t block = 0;       // what data and release point to
  std::uint64_t length = 7;     // what size and release say
  int* destructions = nullptr;  // counts them when not null

  std::vector<std::string> calls;
  std::vector<std::uint64_t> lengths;  // arguments, in the order of the calls
  std::vector<std::string> texts;
  std::vector<const void*> objects;

 private:
  bool note(const char* call) {
    calls.emplace_back(call);
    return true;
  }
};

}  // namespace test
