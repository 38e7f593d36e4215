#include <gtest/gtest.h>

#include <fstream>
#include <thread>

#include "support/census.h"
#include "support/gate.h"
#include "support/raw_client.h"
#include "support/temp_dir.h"
#include "support/unused_port.h"
#include "support/wait_until.h"

namespace support {
namespace {

using namespace std::chrono_literals;

TEST(Gate, opensForEveryCopyAndStaysOpen) {
  Gate gate;
  const Gate copy = gate;
  EXPECT_FALSE(copy.wait(10ms));
  std::thread opener([gate]() mutable { gate.open(); });
  EXPECT_TRUE(copy.wait());
  opener.join();
  EXPECT_TRUE(gate.isOpen());
  gate.open();
  EXPECT_TRUE(copy.wait(0ms));
}

TEST(Gate, runsWhatWaitsForItOnceAndAtOnceWhenItIsOpen) {
  Gate gate;
  int runs = 0;
  gate.whenOpen([&] { ++runs; });
  EXPECT_EQ(runs, 0);
  gate.open();
  gate.open();
  EXPECT_EQ(runs, 1);
  gate.whenOpen([&] { ++runs; });
  EXPECT_EQ(runs, 2);
}

TEST(WaitUntil, tellsWhetherTheConditionCameTrue) {
  int calls = 0;
  EXPECT_TRUE(waitUntil([&] { return ++calls == 3; }));
  EXPECT_EQ(calls, 3);
  EXPECT_FALSE(waitUntil([] { return false; }, 10ms));
  EXPECT_TRUE(waitUntil([] { return true; }, 0ms)) << "asked at least once";
}

TEST(TempDir, existsAsLongAsItsObject) {
  std::string path;
  {
    const TempDir folder;
    const TempDir other;
    EXPECT_NE(folder.path(), other.path());
    path = folder.path();
    EXPECT_TRUE(exists(path));
    EXPECT_TRUE(listFolder(path).empty());
    std::filesystem::create_directories(toPath(folder.file("deep/er")));
    writeFile(folder.file("deep/er/file"), "x");
  }
  EXPECT_FALSE(exists(path));
}

TEST(TempDir, filesOfAnyNameKeepTheirBytes) {
  const TempDir folder;
  const std::string bytes("a\r\n\0\x1A\xFF", 6);
  const std::string name = "\xC3\xBC \xE2\x82\xAC \xF0\x9F\x98\x80";
  writeFile(folder.file(name), bytes);
  EXPECT_EQ(readFile(folder.file(name)), bytes);
  EXPECT_EQ(fileSize(folder.file(name)), 6u);
  EXPECT_EQ(listFolder(folder.path()), std::vector<std::string>{name});
  EXPECT_EQ(readFile(folder.file("none")), std::nullopt);
  EXPECT_EQ(fileSize(folder.file("none")), std::nullopt);
}

TEST(Census, seesThreadsAndDescriptorsComeAndGo) {
  const TempDir folder;
  writeFile(folder.file("f"), "");
  Gate end;
  std::thread first([&] { EXPECT_TRUE(end.wait()); });
  const std::size_t threads = threadCount();
  const std::size_t handles = openFileCount();
  {
    Gate secondEnd;
    std::thread second([&] { EXPECT_TRUE(secondEnd.wait()); });
    const std::ofstream file(toPath(folder.file("f")));
    EXPECT_EQ(threadCount(), threads + 1);
    EXPECT_GT(openFileCount(), handles);
    secondEnd.open();
    second.join();
  }
  EXPECT_TRUE(waitUntil([&] { return threadCount() == threads; })) << threadCount() << " instead of " << threads;
  EXPECT_TRUE(waitUntil([&] { return openFileCount() <= handles; })) << openFileCount();
  end.open();
  first.join();
}

TEST(UnusedPort, refusesConnections) {
  const UnusedPort port;
  EXPECT_NE(port.port(), 0);
  EXPECT_EQ(port.url("/x"), "http://127.0.0.1:" + std::to_string(port.port()) + "/x");
  EXPECT_THROW(RawClient{port.port()}, std::system_error);
}

}  // namespace
}  // namespace support
