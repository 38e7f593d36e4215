#include "proxy_setting.h"

#include <string>

#include "request_text.h"
#include "sys/mutex.h"
#include "sys/never_destroyed.h"

namespace xfer {
namespace {

struct Setting {
  sys::Mutex mutex;
  std::string host SYS_GUARDED_BY(mutex);
  std::string port SYS_GUARDED_BY(mutex);  // decimal
  std::string username SYS_GUARDED_BY(mutex);
  std::string password SYS_GUARDED_BY(mutex);
};

Setting& setting() {
  static sys::NeverDestroyed<Setting> instance;
  return instance.get();
}

}  // namespace

void setModuleProxy(const net::Proxy& proxy) {
  // Copy before taking the lock: running out of memory must not leave half a setting.
  std::string host = proxy.host;
  std::string port = std::to_string(proxy.port);
  std::string username = proxy.username;
  std::string password = proxy.password;
  Setting& stored = setting();
  const sys::MutexLock lock(stored.mutex);
  stored.host.swap(host);
  stored.port.swap(port);
  stored.username.swap(username);
  stored.password.swap(password);
}

net::Proxy resolveProxy(const char* spec) {
  if (spec != nullptr && *spec != '\0') return parseProxySpec(spec);
  Setting& stored = setting();
  const sys::MutexLock lock(stored.mutex);
  if (stored.host.empty()) return {};
  net::Proxy proxy = parseProxyAddress(stored.host + ":" + (stored.port.empty() ? "80" : stored.port));
  proxy.username = stored.username;
  proxy.password = stored.password;
  return proxy;
}

}  // namespace xfer
