// load_host URL PATH: loads the library, uses it and unloads it, again and again.  URL is a file of 300000 bytes.
// Exit code: 0 when nothing is left, the library included; else what it says on standard error.
#include <dlfcn.h>

#include <cstdint>
#include <cstdio>

#include "support/census.h"
#include "support/wait_until.h"

namespace {

constexpr int kRounds = 10;

int complain(const char* what, int code) {
  std::fprintf(stderr, "%s\n", what);
  return code;
}

template <class Function>
Function* function(void* library, const char* name) {
  return reinterpret_cast<Function*>(dlsym(library, name));
}

int useOnce(const char* url, const char* path) {
  void* const library = dlopen(XFER_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return complain(dlerror(), 3);
  auto* const download =
      function<std::uint64_t(const char*, const char*, const char*, std::uint16_t, const char*, std::uint64_t,
                             std::uint64_t, const char*)>(library, "xfer_downloadFile");
  auto* const progress =
      function<std::int32_t(std::uint64_t, std::uint64_t*, std::uint32_t*, std::uint8_t*)>(library, "xfer_getProgress");
  auto* const remoteSize = function<std::int32_t(const char*, std::uint64_t*, std::uint32_t*, const char*, const char*,
                                                 std::uint16_t, const char*)>(library, "xfer_getRemoteFileSize");
  if (download == nullptr || progress == nullptr || remoteSize == nullptr) return complain("a function is missing", 4);

  std::uint64_t size = 0;
  std::uint32_t type = 0;
  if (remoteSize(url, &size, &type, "", "", 1, "") != 0 || size != 300'000) return complain("wrong size", 5);
  const std::uint64_t id = download(url, path, "", 4, "", 0, 0, "");
  std::uint64_t done = 0;
  std::uint32_t error = 0;
  std::uint8_t finished = 0;
  const bool ended = support::waitUntil([&] {
    progress(id, &done, &error, &finished);
    return finished != 0;
  });
  if (!ended || error != 0 || done != size) return complain("the download failed", 6);

  dlclose(library);
  if (dlopen(XFER_LIBRARY, RTLD_NOW | RTLD_NOLOAD) != nullptr) return complain("the library is still there", 7);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return complain("usage: load_host URL PATH", 2);
  const std::size_t threads = support::threadCount();
  const std::size_t handles = support::openHandleCount();
  for (int round = 0; round < kRounds; ++round) {
    if (const int code = useOnce(argv[1], argv[2]); code != 0) return code;
  }
  if (!support::waitUntil([&] { return support::threadCount() <= threads; })) return complain("a thread is left", 8);
  if (support::openHandleCount() > handles) return complain("a descriptor is left", 9);
  return 0;
}
