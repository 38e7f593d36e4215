// A host as Microsoft's compiler builds one: its own buffer class, no C++ library, nothing but Win32.
//
// usage: host URL LENGTH: fetches URL and exits 0 when the body has LENGTH bytes that count up from 0, modulo 251.
#define XFER_NO_CXX_LIBRARY
#include "xfer/xfer.h"

// Stands in for the C++ library's string, so that the operation that returns one can be overridden.
template <class C, class Traits, class Allocator>
class std::basic_string {
  char unused_[32];
};

extern "C" {
__declspec(dllimport) void* GetProcessHeap();
__declspec(dllimport) void* HeapAlloc(void* heap, unsigned long flags, uint64_t size);
__declspec(dllimport) int HeapFree(void* heap, unsigned long flags, void* block);
__declspec(dllimport) const char* GetCommandLineA();
__declspec(dllimport) void* GetStdHandle(unsigned long which);
__declspec(dllimport) int WriteFile(void* file, const void* bytes, unsigned long length, unsigned long* written, void*);
__declspec(dllimport) __declspec(noreturn) void ExitProcess(unsigned code);
int _purecall() {
  ExitProcess(90);
}
int _fltused = 0;
}

void operator delete(void* block) noexcept {
  HeapFree(GetProcessHeap(), 0, block);
}

extern "C" void* memcpy(void* to, const void* from, uint64_t n) {
  for (uint64_t i = 0; i < n; ++i) static_cast<volatile char*>(to)[i] = static_cast<const char*>(from)[i];
  return to;
}

namespace {

// What the library must not call ends the process with the slot's number.
class Buffer : public sys::IDataBuff {
 public:
  ~Buffer() override { clear(); }
  bool resize(uint64_t n) override {
    auto* const block = static_cast<uint8_t*>(HeapAlloc(GetProcessHeap(), 0, n != 0 ? n : 1));
    if (block == nullptr) return false;
    if (block_ != nullptr) HeapFree(GetProcessHeap(), 0, block_);
    block_ = block;
    size_ = n;
    return true;
  }
  void clear() override {
    if (block_ != nullptr) HeapFree(GetProcessHeap(), 0, block_);
    block_ = nullptr;
    size_ = 0;
  }
  void assign(const std::string&) override { ExitProcess(103); }
  void assign(const void*, uint64_t) override { ExitProcess(104); }
  uint8_t* data() override { return block_; }
  void attach(uint8_t*, uint64_t) override { ExitProcess(106); }
  void takeFrom(sys::IDataBuff*) override { ExitProcess(107); }
  uint8_t* release(uint64_t*) override { ExitProcess(108); }
  sys::DataBuff* moveTo(sys::IDataBuff*) override { ExitProcess(109); }
  void copyTo(std::wstring&) override { ExitProcess(110); }
  void copyTo(std::string&) override { ExitProcess(111); }
  std::string toString() override { ExitProcess(112); }
  uint64_t size() override { return size_; }
  bool empty() override { return size_ == 0; }

 private:
  uint8_t* block_ = nullptr;
  uint64_t size_ = 0;
};

void say(const char* text) {
  unsigned long length = 0;
  while (text[length] != 0) ++length;
  WriteFile(GetStdHandle(static_cast<unsigned long>(-11)), text, length, &length, nullptr);
}

// Splits off the next word of the command line.
char* nextWord(char*& rest) {
  while (*rest == ' ') ++rest;
  const char end = *rest == '"' ? '"' : ' ';
  if (end == '"') ++rest;
  char* const word = rest;
  while (*rest != 0 && *rest != end) ++rest;
  if (*rest != 0) *rest++ = 0;
  return word;
}

}  // namespace

extern "C" void mainCRTStartup() {
  static char commandLine[1024];
  const char* const given = GetCommandLineA();
  for (int i = 0; given[i] != 0 && i < 1023; ++i) commandLine[i] = given[i];
  char* rest = commandLine;
  nextWord(rest);
  const char* const url = nextWord(rest);
  uint64_t length = 0;
  for (const char* digit = nextWord(rest); *digit != 0; ++digit)
    length = length * 10 + static_cast<uint64_t>(*digit - '0');

  Buffer headers;
  Buffer body;
  const int code = xfer_download(url, nullptr, nullptr, &headers, &body, nullptr, nullptr);
  if (code != 0) {
    say("xfer_download failed\n");
    ExitProcess(2);
  }
  if (headers.size() < 12 || headers.data()[0] != 'H' || body.size() != length) {
    say("the sizes are wrong\n");
    ExitProcess(3);
  }
  for (uint64_t i = 0; i < length; ++i) {
    if (body.data()[i] != i % 251) {
      say("the body is wrong\n");
      ExitProcess(4);
    }
  }
  say("served\n");
  ExitProcess(0);
}
