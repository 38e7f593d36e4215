#include "request_setting.h"

#include <curl/curl.h>

#include <filesystem>
#include <fstream>
#include <ios>
#include <iterator>
#include <utility>

#include "easy_options.h"
#include "result_codes.h"
#include "sys/mutex.h"
#include "sys/never_destroyed.h"
#include "xfer/xfer.h"

namespace xfer {
namespace {

struct Setting {
  sys::Mutex mutex;
  TlsTrust trust SYS_GUARDED_BY(mutex);
  std::string userAgent SYS_GUARDED_BY(mutex);
};

Setting& setting() {
  static sys::NeverDestroyed<Setting> instance;
  return instance.get();
}

std::int32_t judgeCaFile(const std::string& path) {
  std::ifstream file(std::filesystem::path(std::u8string(path.begin(), path.end())), std::ios::binary);
  if (!file.is_open()) return result::kCaFileUnreadable;
  std::string text;
  try {
    text.assign(std::istreambuf_iterator<char>(file), {});
  } catch (const std::ios_base::failure&) {
    return result::kCaFileUnreadable;  // a folder can be opened, and not be read
  }
  const bool holdsOne = text.find("-----BEGIN CERTIFICATE-----") != std::string::npos ||
                        text.find("-----BEGIN TRUSTED CERTIFICATE-----") != std::string::npos;
  return holdsOne ? result::kSuccess : result::kCaFileEmpty;
}

}  // namespace

std::int32_t setModuleTrust(bool verify, const std::string& caFile) {
  TlsTrust trust{verify, caFile, {}};
  if (trust.unworkable() != nullptr) return CURLE_BAD_FUNCTION_ARGUMENT;
  if (const std::int32_t error = caFile.empty() ? 0 : judgeCaFile(caFile)) return error;
  Setting& stored = setting();
  const sys::MutexLock lock(stored.mutex);
  std::swap(stored.trust, trust);
  return result::kSuccess;
}

std::int32_t trustOf(std::uint32_t verify, const std::string& caFile, const std::string& pinnedKey, TlsTrust& trust) {
  if (verify > XFER_VERIFY_OFF) return result::kUnknownEnumerator;
  TlsTrust wanted{verify == XFER_VERIFY_ON, caFile, pinnedKey};
  if (wanted.unworkable() != nullptr) return CURLE_BAD_FUNCTION_ARGUMENT;
  if (const std::int32_t error = caFile.empty() ? 0 : judgeCaFile(caFile)) return error;
  if (verify == XFER_VERIFY_AS_SET) {
    wanted = moduleTrust();
    wanted.pinnedKey = pinnedKey;
  }
  trust = std::move(wanted);
  return result::kSuccess;
}

TlsTrust moduleTrust() {
  Setting& stored = setting();
  const sys::MutexLock lock(stored.mutex);
  return stored.trust;
}

std::int32_t setModuleUserAgent(const std::string& userAgent) {
  if (holdsLineBreak(userAgent, {})) return CURLE_BAD_FUNCTION_ARGUMENT;
  std::string copy = userAgent;
  Setting& stored = setting();
  const sys::MutexLock lock(stored.mutex);
  stored.userAgent.swap(copy);
  return result::kSuccess;
}

std::string moduleUserAgent() {
  Setting& stored = setting();
  const sys::MutexLock lock(stored.mutex);
  return stored.userAgent;
}

}  // namespace xfer
