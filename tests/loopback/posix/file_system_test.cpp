// Downloads into file systems that are small, or that lack something.  Each is mounted for one program only, in
// namespaces of its own, so that no privilege is needed and nothing has to be cleaned up.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/pattern.h"
#include "support/process.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"

namespace {

using support::Finished;
using support::ReceivedRequest;
using support::TempDir;

constexpr std::uint64_t kMiB = 1 << 20;

// Runs xfer-get with the arguments, "out" in a file system of that type as its file, and copies that file to `copy`.
Finished getInto(const std::string& type, const std::string& mountOptions, std::vector<std::string> arguments,
                 const std::string& copy) {
  const TempDir folder;
  std::vector<std::string> command = {
      "unshare",
      "--user",
      "--map-root-user",
      "--mount",
      "sh",
      "-c",
      R"(mount -t "$1" -o "$2" none "$3" || exit 99; file=$3/out; copy=$4; shift 4; "$@" "$file"; code=$?)"
      R"(; cp "$file" "$copy"; exit "$code")",
      "sh",
      type,
      mountOptions,
      folder.path(),
      copy,
      support::siblingProgram("xfer-get"),
      "-v"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return support::runProcess(command);
}

TEST(SmallFileSystem, failsADownloadOfUnknownLengthWhenItIsFull) {
  const support::ScriptedServer server(
      [](const ReceivedRequest&) { return support::full200(8 * kMiB, {.framing = support::Framing::Chunked}); });
  const TempDir folder;
  const Finished get = getInto("tmpfs", "size=1m", {server.url("/file")}, folder.file("copy"));
  EXPECT_EQ(get.exitCode, 3) << get.err;
  EXPECT_NE(get.err.find("writeAt | WriteFile failed | offset="), std::string::npos) << get.err;
  EXPECT_NE(get.err.find("onTransferDone | finalize failed | err=-1"), std::string::npos) << get.err;
  EXPECT_EQ(support::fileSize(folder.file("copy")), kMiB) << "what fitted stays";
}

TEST(SmallFileSystem, refusesAFileThatDoesNotFitBeforeAnyRange) {
  const support::ScriptedServer server(support::patternFile(8 * kMiB));
  const TempDir folder;
  const Finished get = getInto("tmpfs", "size=1m", {server.url("/file")}, folder.file("copy"));
  EXPECT_EQ(get.exitCode, 3) << get.err;
  EXPECT_NE(get.err.find("open | SetEndOfFile failed | err=28"), std::string::npos) << get.err;
  EXPECT_EQ(server.requests().size(), 1U) << "the question for the size";
}

TEST(SmallFileSystem, takesAFileThatFits) {
  const support::ScriptedServer server(support::patternFile(8 * kMiB));
  const TempDir folder;
  const Finished get = getInto("tmpfs", "size=9m", {server.url("/file")}, folder.file("copy"));
  EXPECT_EQ(get.exitCode, 0) << get.err;
  EXPECT_EQ(support::patternError(folder.file("copy"), 8 * kMiB), "");
}

TEST(FileSystemThatCannotReserve, hasTheFileExtendedInstead) {
  const support::ScriptedServer server(support::patternFile(8 * kMiB));
  const TempDir folder;
  const Finished get = getInto("ramfs", "mode=700", {server.url("/file")}, folder.file("copy"));
  EXPECT_EQ(get.exitCode, 0) << get.err;
  EXPECT_EQ(support::patternError(folder.file("copy"), 8 * kMiB), "");
}

}  // namespace
