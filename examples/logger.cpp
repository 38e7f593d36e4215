// Brings the library's log into the host's own logger, here for one request.
//
//   logger URL
//
// The library logs through keel, the host's core library.  Where a host has none of its own, the one that comes with
// xfer hands every record to a function.
#include <cstdint>
#include <exception>
#include <iostream>
#include <mutex>
#include <string>

#include <keel/keel.h>
#include <xfer/xfer.h>
#include <xfer/xfer.hpp>

namespace {

/// Stands for the logger that the host has anyway.
class HostLogger {
 public:
  void write(const std::string& line) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::cout << "log: " << line << std::endl;
  }

 private:
  std::mutex mutex_;
};

const char* nameOf(std::uint32_t level) {
  if (level <= 3) return "failure";
  if (level <= 4) return "recovery";
  return "trace";
}

/// Takes one record.  Any thread of the library may call it, and several at once; nothing may be thrown into them.
void takeRecord(void* context, std::uint32_t level, const char* tag, const char* text, const char* file,
                std::uint32_t line) noexcept {
  try {
    const std::string where = std::string(file) + ":" + std::to_string(line);
    static_cast<HostLogger*>(context)->write(std::string(nameOf(level)) + " [" + (tag != nullptr ? tag : "") + "] " +
                                             text + " (" + where + ")");
  } catch (const std::exception&) {
    // Out of memory: the record is lost.
  }
}

bool fetch(const char* url) {
  xfer::Request request;
  request.url = url;
  xfer::FetchOptions options;
  options.setVerifyPeer(true);
  const xfer::Response response = xfer::fetch(request, options);
  std::cout << xfer_errorText(response.curlCode) << ", HTTP status " << response.status << ", " << response.body.size()
            << " bytes" << std::endl;
  return response.curlCode == 0 && response.status == 200;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: logger URL\n";
    return 2;
  }
  HostLogger logger;
  Keel::setLogThreshold(6);  // traces and all that matters more; 3 is failures only
  Keel::setRecordSink(takeRecord, &logger);
  bool fetched = false;
  try {
    fetched = fetch(argv[1]);
  } catch (const std::exception& e) {
    std::cerr << e.what() << '\n';
  }
  Keel::setRecordSink(nullptr, nullptr);  // before the logger goes: no record is under way once this returns
  return fetched ? 0 : 1;
}
