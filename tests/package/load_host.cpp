// load_host WAY URL PATH: a host that loads the library, uses it and unloads it.
//   idle   again and again, with nothing in flight; URL is a file of 300000 bytes
//   told   again and again; the download is forgotten by the callback that is told its end
//   crowd  once; 200 downloads that are cancelled and forgotten by their callbacks, and by others meanwhile
//   busy   once, while a download, one that tells what happens, and a request run; URL sends a part and stalls
// Exit code: 0 when all is as it should be; else what it says on standard error.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "loaded_library.h"
#include "support/census.h"
#include "support/wait_until.h"
#include "xfer/xfer_download.h"

namespace {

constexpr std::size_t kRounds = 10;

int complain(const char* what, int code) {
  std::fprintf(stderr, "%s\n", what);
  return code;
}

// The part of the interface that these hosts use, looked up by name.
struct Interface {
  explicit Interface(const LoadedLibrary& library)
      : download(library.function<std::uint64_t(const char*, const char*, const char*, std::uint16_t, const char*,
                                                std::uint64_t, std::uint64_t, const char*)>("xfer_downloadFile")),
        progress(library.function<std::int32_t(std::uint64_t, std::uint64_t*, std::uint32_t*, std::uint8_t*)>(
            "xfer_getProgress")),
        remoteSize(library.function<std::int32_t(const char*, std::uint64_t*, std::uint32_t*, const char*, const char*,
                                                 std::uint16_t, const char*)>("xfer_getRemoteFileSize")),
        request(library.function<std::int32_t(const char*, std::uint64_t*, const char*, const char*, const char*,
                                              const char*)>("xfer_downloadAsync")),
        optionsInit(library.function<void(xfer_download_options*, std::uint32_t)>("xfer_downloadOptionsInit")),
        start(library.function<std::int32_t(const xfer_download_options*, std::uint64_t*)>("xfer_downloadStart")),
        cancel(library.function<std::int32_t(std::uint64_t)>("xfer_downloadCancel")),
        forget(library.function<std::int32_t(std::uint64_t)>("xfer_downloadForget")) {}

  std::uint64_t (*download)(const char*, const char*, const char*, std::uint16_t, const char*, std::uint64_t,
                            std::uint64_t, const char*);
  std::int32_t (*progress)(std::uint64_t, std::uint64_t*, std::uint32_t*, std::uint8_t*);
  std::int32_t (*remoteSize)(const char*, std::uint64_t*, std::uint32_t*, const char*, const char*, std::uint16_t,
                             const char*);
  std::int32_t (*request)(const char*, std::uint64_t*, const char*, const char*, const char*, const char*);
  void (*optionsInit)(xfer_download_options*, std::uint32_t);
  std::int32_t (*start)(const xfer_download_options*, std::uint64_t*);
  std::int32_t (*cancel)(std::uint64_t);
  std::int32_t (*forget)(std::uint64_t);
};

// Whom a download tells what happens.
struct Listener {
  static void hear(void* user, const xfer_event* event) {
    auto& listener = *static_cast<Listener*>(user);
    if (event->kind == XFER_EVENT_PROGRESS) listener.moves = true;
    if (event->kind != XFER_EVENT_END) return;
    listener.error = event->error;
    if (listener.forget(event->id) != 0) listener.error = -1;
    listener.forgotten = true;
  }

  std::int32_t (*forget)(std::uint64_t);
  std::atomic<bool> moves{false};
  std::atomic<bool> forgotten{false};
  std::atomic<std::int32_t> error{0};
};

// Returns the id; 0: it did not start.
std::uint64_t startTold(const Interface& xfer, const char* url, const char* path, std::uint64_t size,
                        xfer_event_callback callback, void* user) {
  xfer_download_options options;
  xfer.optionsInit(&options, sizeof options);
  options.url = url;
  options.path = path;
  options.knownSize = size;
  options.connections = 2;
  options.progressMs = 1;
  options.onEvent = callback;
  options.user = user;
  std::uint64_t id = 0;
  return xfer.start(&options, &id) == 0 ? id : 0;
}

int useOnce(const char* url, const char* path) {
  LoadedLibrary library(XFER_LIBRARY);
  const Interface xfer(library);
  std::uint64_t size = 0;
  std::uint32_t type = 0;
  if (xfer.remoteSize(url, &size, &type, "", "", 1, "") != 0 || size != 300'000) return complain("wrong size", 5);
  const std::uint64_t id = xfer.download(url, path, "", 4, "", 0, 0, "");
  std::uint64_t done = 0;
  std::uint32_t error = 0;
  std::uint8_t finished = 0;
  const bool ended = support::waitUntil([&] {
    xfer.progress(id, &done, &error, &finished);
    return finished != 0;
  });
  if (!ended || error != 0 || done != size) return complain("the download failed", 6);
  library.unload();
  if (LoadedLibrary::isLoaded(XFER_LIBRARY)) return complain("the library is still there", 7);
  return 0;
}

// The last download is forgotten by what it told: nobody is left who could join the thread of callbacks.
int useTold(const char* url, const char* path) {
  LoadedLibrary library(XFER_LIBRARY);
  const Interface xfer(library);
  Listener listener{xfer.forget};
  if (startTold(xfer, url, path, 0, &Listener::hear, &listener) == 0) return complain("the download did not start", 11);
  if (!support::waitUntil([&] { return listener.forgotten.load(); })) return complain("no end was told", 12);
  if (listener.error != 0) return complain("the download failed", 13);
  library.unload();
  // Where the library cannot wait for the thread while it is unloaded, it goes when the thread has gone.
  const bool gone = support::waitUntil([] { return !LoadedLibrary::isLoaded(XFER_LIBRARY); });
  return gone ? 0 : complain("the library is still there", 14);
}

// One of many downloads, and what it tells.
struct Member {
  static void hear(void* user, const xfer_event* event) {
    auto& member = *static_cast<Member*>(user);
    if (member.number % 5 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (event->kind == XFER_EVENT_STATE && member.number % 4 == 1) member.xfer->cancel(event->id);
    const bool early = event->kind == XFER_EVENT_PROGRESS && member.number % 3 == 0;
    if (early || event->kind == XFER_EVENT_END) member.forget(event->id);
  }

  // Whoever comes first; the others find nothing.
  void forget(std::uint64_t id) {
    if (xfer->forget(id) == 0) forgotten = true;
  }

  const Interface* xfer = nullptr;
  std::size_t number = 0;
  std::atomic<bool> forgotten{false};
};

int useInACrowd(const char* url, const char* path) {
  constexpr std::size_t kMembers = 200;
  LoadedLibrary library(XFER_LIBRARY);
  const Interface xfer(library);
  std::vector<Member> members(kMembers);
  std::atomic<bool> refused{false};
  const auto start = [&](std::size_t from) {
    for (std::size_t number = from; number < kMembers; number += 2) {
      Member& member = members[number];
      member.xfer = &xfer;
      member.number = number;
      const std::string file = path + std::to_string(number);
      const std::uint64_t id = startTold(xfer, url, file.c_str(), 0, &Member::hear, &member);
      if (id == 0) refused = true;
      if (number % 7 == 0) member.forget(id);
    }
  };
  std::thread even(start, 0);
  std::thread odd(start, 1);
  even.join();
  odd.join();
  if (refused) return complain("a download did not start", 16);
  const bool over = support::waitUntil([&] {
    return std::all_of(members.begin(), members.end(), [](const Member& one) { return one.forgotten.load(); });
  });
  if (!over) return complain("a download is left", 17);
  library.unload();
  const bool gone = support::waitUntil([] { return !LoadedLibrary::isLoaded(XFER_LIBRARY); });
  return gone ? 0 : complain("the library is still there", 18);
}

int useAgainAndAgain(int (*useOnce)(const char*, const char*), const char* url, const char* path) {
  // The first use brings the system's own libraries in, with what they keep.
  if (const int code = useOnce(url, path); code != 0) return code;
  const std::size_t threads = support::threadCount();
  const std::size_t files = support::openFileCount();
  for (std::size_t round = 0; round < kRounds; ++round) {
    if (const int code = useOnce(url, path); code != 0) return code;
  }
  if (!support::waitUntil([&] { return support::threadCount() <= threads; })) return complain("a thread is left", 8);
  if (!support::waitUntil([&] { return support::openFileCount() <= files; })) return complain("a file is left", 9);
  return 0;
}

int unloadWhileBusy(const char* url, const char* path) {
  LoadedLibrary library(XFER_LIBRARY);
  const Interface xfer(library);
  const std::uint64_t id = xfer.download(url, path, "", 4, "", 0, 1'000'000, "");
  std::uint64_t done = 0;
  std::uint32_t error = 0;
  std::uint8_t finished = 0;
  const bool runs = support::waitUntil([&] {
    xfer.progress(id, &done, &error, &finished);
    return done > 0;
  });
  std::uint64_t requestId = 0;
  // Static: where a library that works cannot be unloaded, it goes on telling.
  static Listener listener{xfer.forget};
  const bool told =
      startTold(xfer, url, (std::string(path) + ".told").c_str(), 1'000'000, &Listener::hear, &listener) != 0 &&
      support::waitUntil([&] { return listener.moves.load(); });
  if (!told) return complain("nothing is told", 15);
  if (!runs || xfer.request(url, &requestId, "", "", "", "") != 0) return complain("nothing is in flight", 10);
  library.unload();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string way = argc == 4 ? argv[1] : "";
  try {
    if (way == "idle") return useAgainAndAgain(&useOnce, argv[2], argv[3]);
    if (way == "told") return useAgainAndAgain(&useTold, argv[2], argv[3]);
    if (way == "crowd") return useInACrowd(argv[2], argv[3]);
    if (way == "busy") return unloadWhileBusy(argv[2], argv[3]);
  } catch (const std::exception& error) {
    return complain(error.what(), 3);
  }
  return complain("usage: load_host idle|told|crowd|busy URL PATH", 2);
}
