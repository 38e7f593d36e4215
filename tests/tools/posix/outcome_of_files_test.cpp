// What the program says of files that cannot hold a download, in the words of a POSIX system.
#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <string>

#include "outcome.h"
#include "support/gate.h"
#include "support/pattern.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/wait_until.h"

namespace {

using support::ReceivedRequest;
using support::Reply;
using support::ScriptedServer;

constexpr std::uint64_t kSize = 1000;

class OutcomeOfFiles : public testing::Test {
 protected:
  static xfer::DownloadOptions adaptive() { return xfer::DownloadOptions().setPlan(xfer::DownloadPlan::Adaptive); }

  xfer::DownloadJob jobFor(const std::string& path) const {
    xfer::DownloadRequest request;
    request.url = server.url("/a");
    request.path = path;
    return {request, {}, adaptive()};
  }

  std::string messageFor(const std::string& path) const {
    xfer::DownloadJob job = jobFor(path);
    job.start();
    job.wait();
    const auto outcome =
        xfer_get::downloadOutcome({server.url("/a"), path}, job.snapshot(), job.details().failureText());
    EXPECT_EQ(outcome.code, xfer_get::kFile);
    return outcome.message;
  }

  const support::TempDir folder;
  const ScriptedServer server{support::patternFile(kSize)};
};

TEST_F(OutcomeOfFiles, thatTheSystemRefuses) {
  const std::string hint = " (code 100004); check the folder, or choose another place";
  const std::string none = folder.file("none") + "/out";
  EXPECT_EQ(messageFor(none), none + ": the file could not be created: No such file or directory" + hint);
  EXPECT_EQ(messageFor(folder.path()), folder.path() + ": the file could not be created: Is a directory" + hint);
  std::ofstream(folder.file("file")) << "x";
  const std::string below = folder.file("file") + "/out";
  EXPECT_EQ(messageFor(below), below + ": the file could not be created: Not a directory" + hint);
}

TEST_F(OutcomeOfFiles, thatAreDevices) {
  EXPECT_EQ(messageFor("/dev/null"),
            "/dev/null: this cannot hold a download: not a regular file (code 100024); choose another name");
}

TEST_F(OutcomeOfFiles, thatAnotherDownloadIsWriting) {
  const std::string path = folder.file("out");
  support::Gate goOn;
  const ScriptedServer slow([goOn](const ReceivedRequest&) {
    return Reply().send("HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nx").waitFor(goOn).send("x");
  });
  xfer::DownloadRequest request;
  request.url = slow.url("/a");
  request.path = path;
  xfer::DownloadJob writer(request, {}, adaptive());
  writer.start();
  ASSERT_TRUE(support::waitUntil([&] { return writer.snapshot().bytesDone == 1; }));
  EXPECT_EQ(messageFor(path),
            path +
                ": the file could not be created: it is being written by another download (code 100004); wait for "
                "that one, or choose another name");
  goOn.open();
  writer.wait();
  EXPECT_EQ(writer.snapshot().state, xfer::JobState::Completed) << "it was left alone";
}

}  // namespace
