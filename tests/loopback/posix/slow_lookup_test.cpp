// Names whose lookup takes for ever.  This program's getaddrinfo takes the place of the system's, in libcurl too: it
// holds the names that end in ".slow" until the test lets them go.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "support/census.h"
#include "support/gate.h"
#include "support/job_run.h"
#include "support/pattern.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"
#include "xfer/fetch.h"
#include "xfer/xfer.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

std::atomic<int> g_lookups{0};

support::Gate& lookupsMayEnd() {
  static support::Gate gate;
  return gate;
}

}  // namespace

extern "C" [[gnu::visibility("default")]] int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                                                          addrinfo** result) {
  if (node != nullptr && std::string_view(node).ends_with(".slow")) {
    ++g_lookups;
    static_cast<void>(lookupsMayEnd().wait());
    --g_lookups;
    return EAI_NONAME;
  }
  static const auto real = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return real(node, service, hints, result);
}

namespace {

constexpr milliseconds kPrompt{500};
constexpr std::uint64_t kSize = 1000;

class SlowLookup : public testing::Test {
 protected:
  // Whatever was given up ends here, so that nothing of it is left to the next test.
  ~SlowLookup() override {
    lookupsMayEnd().open();
    EXPECT_TRUE(support::waitUntil([] { return g_lookups == 0; }));
    EXPECT_TRUE(support::waitUntil([this] { return support::threadCount() <= threads_; }));
    lookupsMayEnd() = support::Gate();
  }

  static bool oneIsHeld() {
    return support::waitUntil([] { return g_lookups == 1; });
  }

  template <class Action>
  static void expectPrompt(Action action) {
    const auto begin = steady_clock::now();
    action();
    EXPECT_LT(steady_clock::now() - begin, kPrompt);
  }

  const support::TempDir folder_;

 private:
  const std::size_t threads_ = support::threadCount();
};

TEST_F(SlowLookup, ofTheProbeDoesNotHoldADestructionUp) {
  auto job = std::make_unique<xfer::DownloadJob>(support::requestFor("http://host.slow/file", folder_.file("out")),
                                                 xfer::DownloadPolicy(), support::planUnderTest());
  job->start();
  ASSERT_TRUE(oneIsHeld());
  expectPrompt([&] { job.reset(); });
}

TEST_F(SlowLookup, ofARangeDoesNotHoldADestructionUp) {
  auto job =
      std::make_unique<xfer::DownloadJob>(support::requestFor("http://host.slow/file", folder_.file("out"), kSize),
                                          xfer::DownloadPolicy(), support::planUnderTest());
  job->start();
  ASSERT_TRUE(oneIsHeld());
  expectPrompt([&] { job.reset(); });
}

TEST_F(SlowLookup, doesNotHoldACancelUp) {
  xfer::DownloadJob job(support::requestFor("http://host.slow/file", folder_.file("out"), kSize),
                        xfer::DownloadPolicy(), support::planUnderTest());
  job.start();
  ASSERT_TRUE(oneIsHeld());
  expectPrompt([&] {
    job.cancel();
    job.wait();
  });
  EXPECT_EQ(job.snapshot().state, xfer::JobState::Cancelled);
}

TEST_F(SlowLookup, doesNotHoldTheCancelOfARequestUp) {
  xfer::CancelToken token;
  xfer::Request request;
  request.url = "http://host.slow/file";
  std::future<xfer::Response> response = xfer::fetchAsync(request, xfer::FetchOptions().setCancelToken(token));
  ASSERT_TRUE(oneIsHeld());
  expectPrompt([&] {
    token.cancel();
    EXPECT_EQ(response.get().curlCode, 42);
  });
}

TEST_F(SlowLookup, holdsNoOtherDownloadOfTheCInterfaceUp) {
  const support::ScriptedServer server(support::patternFile(kSize));
  const std::string path = folder_.file("other");
  const std::uint64_t slow =
      xfer_downloadFile("http://host.slow/file", folder_.file("out").c_str(), "", 2, "", 0, kSize, "");
  ASSERT_TRUE(oneIsHeld());
  const std::uint64_t other = xfer_downloadFile(server.url("/file").c_str(), path.c_str(), "", 2, "", 0, 0, "");
  std::uint64_t done = 0;
  std::uint32_t error = 0;
  std::uint8_t finished = 0;
  EXPECT_TRUE(support::waitUntil([&] {
    xfer_getProgress(other, &done, &error, &finished);
    return finished != 0;
  }));
  EXPECT_EQ(error, 0U);
  EXPECT_EQ(support::patternError(path, kSize), "");
  expectPrompt([&] { EXPECT_TRUE(xfer_stopDownloadHandle(slow)); });
}

}  // namespace
