#include "keel/keel.h"

#include <atomic>
#include <mutex>
#include <shared_mutex>
#include <string>

namespace {

std::atomic<std::uint32_t> g_threshold{3};
std::string g_settingsName;

// Every write holds it shared, so that setRecordSink waits for running writes.
std::shared_mutex g_sinkMutex;
Keel::RecordSink g_sink = nullptr;
void* g_sinkContext = nullptr;

// Lives as long as the library, so references are not counted.
class Logger final : public Keel::ILogger {
 public:
  void addRef() override {}
  void release() override {}

  void write(std::uint32_t level, const char* tag, const char* text, const char* file, std::uint32_t line) override {
    const std::shared_lock lock(g_sinkMutex);
    if (g_sink != nullptr) g_sink(g_sinkContext, level, tag, text, file, line);
  }

  std::uint32_t threshold() override { return g_threshold.load(std::memory_order_relaxed); }
};

Logger g_logger;

}  // namespace

int createLogger(Keel::ILogger** out) {
  const std::shared_lock lock(g_sinkMutex);
  if (g_sink == nullptr) return 1;
  g_logger.addRef();
  *out = &g_logger;
  return 0;
}

namespace Keel {

const char* getSettingsName() {
  return g_settingsName.c_str();
}

void setSettingsName(const char* name) {
  g_settingsName = name != nullptr ? name : "";
}

void setLogThreshold(std::uint32_t threshold) {
  g_threshold.store(threshold, std::memory_order_relaxed);
}

void setRecordSink(RecordSink sink, void* context) {
  const std::unique_lock lock(g_sinkMutex);
  g_sink = sink;
  g_sinkContext = context;
}

}  // namespace Keel
