// The program with several downloads, with names that are taken, with checksums, and with standard output as the file.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "support/gate.h"
#include "support/pattern.h"
#include "support/process.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"
#include "support/unused_port.h"
#include "terminal.h"

namespace {

using support::Finished;
using support::listFolder;
using support::patternFile;
using support::ReceivedRequest;
using support::Reply;
using support::ScriptedServer;

constexpr std::uint64_t kSize = 300'001;

// Of the pattern's first 1000 bytes, as another program computes them.
const std::string kSha256 = "247d8799df9a2ee239b7b28d260a0ca76e0b5a13f59d9680c011301e5fa3838b";

using Names = std::vector<std::string>;

class XferGetDownloads : public testing::Test {
 protected:
  static std::vector<std::string> command(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), support::siblingProgram("xfer-get"));
    return arguments;
  }

  Finished get(const std::vector<std::string>& arguments, const std::string& inFile = "") const {
    return support::runProcess(command(arguments),
                               {.environment = {"no_proxy=*"}, .folder = folder_.path(), .inFile = inFile});
  }

  [[nodiscard]] std::string file(const std::string& name) const { return folder_.file(name); }

  [[nodiscard]] std::string stored(const std::string& name, std::uint64_t size = kSize) const {
    return support::patternError(file(name), size);
  }

  const support::TempDir folder_;
  ScriptedServer server_{patternFile(kSize)};
};

bool has(const std::string& text, const std::string& words) {
  return text.find(words) != std::string::npos;
}

// ---- Several URLs ----

TEST_F(XferGetDownloads, ofSeveralUrlsAreNamedAfterThem) {
  const Finished done = get({server_.url("/a.bin"), server_.url("/b.bin"), server_.url("/c%20d.bin")});
  EXPECT_EQ(done.exitCode, 0) << done.err;
  EXPECT_EQ(done.out, "");
  EXPECT_EQ(listFolder(folder_.path()), (Names{"a.bin", "b.bin", "c d.bin"}));
  for (const char* const name : {"a.bin", "b.bin", "c d.bin"}) {
    EXPECT_EQ(stored(name), "");
    EXPECT_TRUE(has(done.err, std::string("xfer-get: ") + name + ": 293.0 KiB at ")) << done.err;
  }
  EXPECT_TRUE(has(done.err, "xfer-get: 3 of 3 done: 878.9 KiB at ")) << done.err;
}

TEST_F(XferGetDownloads, goIntoTheFolderWhichIsMade) {
  const Finished done = get({server_.url("/a"), server_.url("/b"), "-P", "some/new folder"});
  EXPECT_EQ(done.exitCode, 0) << done.err;
  EXPECT_EQ(listFolder(file("some/new folder")), (Names{"a", "b"}));
}

TEST_F(XferGetDownloads, doNotBeginWhenTheFolderCannotBeMade) {
  support::writeFile(file("a"), "mine");
  const Finished done = get({server_.url("/a"), "-P", "a/b"});
  EXPECT_EQ(done.exitCode, 3);
  EXPECT_TRUE(has(done.err, "xfer-get: a/b: the folder could not be made: ")) << done.err;
  EXPECT_TRUE(server_.requests().empty());
  EXPECT_EQ(support::readFile(file("a")), "mine");
}

TEST_F(XferGetDownloads, intoAFolderThatIsMissingFailUnlessItIsToBeMade) {
  const Finished done = get({server_.url("/a"), "-o", "missing/a"});
  EXPECT_EQ(done.exitCode, 3);
  EXPECT_TRUE(has(done.err, "missing/a: the file could not be created")) << done.err;
  EXPECT_TRUE(listFolder(folder_.path()).empty());
}

TEST_F(XferGetDownloads, ofAListAreThoseOfItsLines) {
  support::writeFile(file("list"), "# mine\n" + server_.url("/a") + "\r\n\n  " + server_.url("/b"));
  EXPECT_EQ(get({"-i", "list", "-P", "out"}).exitCode, 0);
  EXPECT_EQ(listFolder(file("out")), (Names{"a", "b"}));
  EXPECT_EQ(get({"-i", "-", "-P", "in", server_.url("/c")}, file("list")).exitCode, 0) << "of standard input";
  EXPECT_EQ(listFolder(file("in")), (Names{"a", "b", "c"}));
}

TEST_F(XferGetDownloads, doNotBeginWhenALineIsNoUrlOrTheListIsMissing) {
  support::writeFile(file("list"), server_.url("/a") + "\nnonsense\n");
  const Finished bad = get({"-i", "list"});
  EXPECT_EQ(bad.exitCode, 2);
  EXPECT_TRUE(has(bad.err, "xfer-get: list:2: not an http or https URL: nonsense")) << bad.err;
  const Finished missing = get({"-i", "none"});
  EXPECT_EQ(missing.exitCode, 3);
  EXPECT_TRUE(has(missing.err, "xfer-get: none: the list of URLs cannot be read")) << missing.err;
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(XferGetDownloads, runAsManyAtOnceAsTheyMay) {
  for (const std::size_t jobs : {1U, 2U}) {
    support::Gate gate;
    ScriptedServer server([gate](const ReceivedRequest& request) {
      return Reply()
          .send("HTTP/1.1 206 Partial Content\r\nContent-Length: 10\r\nContent-Range: bytes 0-9/10\r\n\r\n")
          .waitFor(gate)
          .pause(std::chrono::milliseconds(200))  // for one too many to arrive in
          .sendPattern(0, request.range ? 10 : 0);
    });
    support::Process child(command({server.url("/a"), server.url("/b"), server.url("/c"), "-j", std::to_string(jobs),
                                    "-P", "at" + std::to_string(jobs)}),
                           {.environment = {"no_proxy=*"}, .folder = folder_.path()});
    ASSERT_TRUE(server.waitForRequests(jobs));
    gate.open();
    EXPECT_EQ(child.wait(), 0) << child.err();
    EXPECT_EQ(server.maxConcurrentRequests(), jobs);
    EXPECT_EQ(listFolder(file("at" + std::to_string(jobs))), (Names{"a", "b", "c"}));
  }
}

TEST_F(XferGetDownloads, keepOneLimitTogether) {
  constexpr std::uint64_t kBytesPerSec = 400'000;
  const auto begin = std::chrono::steady_clock::now();
  const Finished done = get({server_.url("/a"), server_.url("/b"), "-l", std::to_string(kBytesPerSec)});
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  EXPECT_EQ(done.exitCode, 0) << done.err;
  EXPECT_GE(seconds, 2 * static_cast<double>(kSize) / kBytesPerSec - 0.3) << "but for a tenth of a second at a time";
}

TEST_F(XferGetDownloads, goOnWhenOneFailsAndTellItsExitCode) {
  const support::UnusedPort nobody;
  ScriptedServer server([](const ReceivedRequest& request) {
    return request.path() == "/missing" ? support::status(404) : patternFile(kSize)(request);
  });
  const Finished done = get(
      {server.url("/a"), server.url("/missing"), nobody.url("/b"), server.url("/c"), "-j", "1", "--max-tries", "1"});
  EXPECT_EQ(done.exitCode, 5) << "of the first that failed: " << done.err;
  EXPECT_EQ(listFolder(folder_.path()), (Names{"a", "c"})) << "no empty files are left";
  EXPECT_TRUE(has(done.err, "404")) << done.err;
  EXPECT_TRUE(has(done.err, "xfer-get: 2 of 4 done, 2 failed: ")) << done.err;
  EXPECT_EQ(get({nobody.url("/b"), server.url("/missing"), "--max-tries", "1"}).exitCode, 4);
}

// ---- Names that are taken ----

TEST_F(XferGetDownloads, secondRunStoresUnderAnotherNameAndSaysSo) {
  ASSERT_EQ(get({server_.url("/big.bin"), "big.bin", "-n", "8"}).exitCode, 0);
  support::writeFile(file("big.bin"), "kept");
  const Finished again = get({server_.url("/big.bin"), "big.bin", "-n", "8"});
  EXPECT_EQ(again.exitCode, 0) << again.err;
  EXPECT_TRUE(has(again.err, "xfer-get: big.bin is there already: stored as big.bin.1 (--overwrite replaces it)"))
      << again.err;
  EXPECT_TRUE(has(again.err, "xfer-get: big.bin.1: 293.0 KiB")) << again.err;
  EXPECT_EQ(support::readFile(file("big.bin")), "kept");
  EXPECT_EQ(stored("big.bin.1"), "");
}

TEST_F(XferGetDownloads, ofTheSameNameInOneRunAreStoredBesideEachOther) {
  EXPECT_EQ(get({server_.url("/1/x"), server_.url("/2/x"), "-j", "2"}).exitCode, 0);
  EXPECT_EQ(listFolder(folder_.path()), (Names{"x", "x.1"}));
  EXPECT_EQ(stored("x"), "");
  EXPECT_EQ(stored("x.1"), "");
}

TEST_F(XferGetDownloads, overwriteReplacesALongerFile) {
  support::writeFile(file("out"), std::string(kSize + 1000, 'x'));
  const Finished done = get({server_.url("/file"), "out", "--overwrite"});
  EXPECT_EQ(done.exitCode, 0) << done.err;
  EXPECT_EQ(listFolder(folder_.path()), Names{"out"});
  EXPECT_EQ(stored("out"), "");
}

TEST_F(XferGetDownloads, folderIsNoFile) {
  const Finished done = get({server_.url("/file"), "-o", folder_.path()});
  EXPECT_EQ(done.exitCode, 3);
  EXPECT_TRUE(has(done.err, "this is a folder; -P stores into it")) << done.err;
  EXPECT_TRUE(server_.requests().empty());
}

TEST_F(XferGetDownloads, thatFailLeaveNoEmptyFile) {
  server_.setHandler([](const ReceivedRequest&) { return support::status(403); });
  EXPECT_EQ(get({server_.url("/file"), "out"}).exitCode, 5);
  EXPECT_TRUE(listFolder(folder_.path()).empty());
}

TEST_F(XferGetDownloads, whoseBytesAreEncodedAreStoredAsTheyAreAndThatIsSaid) {
  server_.setHandler([](const ReceivedRequest& request) {
    return support::range206(request, 1000, {.headers = {"Content-Encoding: gzip"}});
  });
  const Finished done = get({server_.url("/file"), "out"});
  EXPECT_EQ(done.exitCode, 0) << done.err;
  EXPECT_EQ(stored("out", 1000), "");
  EXPECT_TRUE(has(done.err, "out: stored as the server sent it, with Content-Encoding gzip")) << done.err;
}

// ---- Checksums ----

TEST_F(XferGetDownloads, checksumThatMatchesIsTold) {
  server_.setHandler(patternFile(1000));
  const Finished done = get({server_.url("/file"), "out", "--checksum", "SHA256=" + kSha256});
  EXPECT_EQ(done.exitCode, 0) << done.err;
  EXPECT_TRUE(has(done.err, ", sha256 matches")) << done.err;
}

TEST_F(XferGetDownloads, checksumThatDiffersHasAnExitCodeOfItsOwn) {
  server_.setHandler(patternFile(1001));
  const Finished done = get({server_.url("/file"), "out", "--checksum", "sha256=" + kSha256});
  EXPECT_EQ(done.exitCode, 7) << done.err;
  EXPECT_TRUE(has(done.err, kSha256)) << done.err;
  EXPECT_EQ(stored("out", 1001), "") << "it can be looked at";
}

TEST_F(XferGetDownloads, checksumIsThatOfTheFileWhateverWayItsBytesCome) {
  constexpr std::uint64_t kBig = 40'000'003;
  for (const std::string plan : {"adaptive", "stated"}) {
    for (const std::string connections : {"1", "8"}) {
      std::size_t broken = 0;
      // Every third answer breaks off.
      ScriptedServer server([&broken](const ReceivedRequest& request) {
        if (request.number % 3 != 2 || broken++ > 5) return support::range206(request, kBig);
        return support::range206(request, kBig, {.bodyBytes = 700'000}).reset();
      });
      const std::string name = plan + connections;
      const Finished done = get({server.url("/file"), name, "--plan", plan, "-n", connections, "--checksum",
                                 "md5=00000000000000000000000000000000"});
      EXPECT_EQ(done.exitCode, 7) << done.err;
      EXPECT_EQ(stored(name, kBig), "");
      EXPECT_TRUE(has(done.err, "22ce7e8ddf0de382fad65c067f18435f")) << done.err;
    }
  }
}

// Without ranges a try begins anew, and may bring other bytes where some have been read.
TEST_F(XferGetDownloads, checksumIsThatOfTheLastTryOfAServerWithoutRanges) {
  constexpr std::uint64_t kBig = 40'000'003;
  server_.setHandler([](const ReceivedRequest& request) {
    if (request.number > 0) return support::full200(kBig, {.acceptRanges = false});
    return support::full200(kBig, {.bodyBytes = 9'000'000, .acceptRanges = false, .seed = 1})
        .pause(std::chrono::milliseconds(300))
        .reset();
  });
  const Finished done = get({server_.url("/file"), "out", "--checksum", "md5=22ce7e8ddf0de382fad65c067f18435f"});
  EXPECT_EQ(done.exitCode, 0) << done.err;
  EXPECT_EQ(server_.requests().size(), 2U);
  EXPECT_EQ(stored("out", kBig), "");
}

TEST_F(XferGetDownloads, checksumListHasOneForEachFile) {
  server_.setHandler(patternFile(1000));
  support::writeFile(file("SUMS"), kSha256 + "  a\n" + kSha256 + " *b\n");
  EXPECT_EQ(get({server_.url("/a"), server_.url("/b"), "--checksum-file", "SUMS"}).exitCode, 0);
  support::writeFile(file("SUMS"), kSha256 + "  a\n" + std::string(64, '0') + "  b\n");
  const Finished differs = get({server_.url("/a"), server_.url("/b"), "--checksum-file", "SUMS", "--overwrite"});
  EXPECT_EQ(differs.exitCode, 7) << differs.err;
  EXPECT_TRUE(has(differs.err, "xfer-get: 1 of 2 done, 1 failed")) << differs.err;
}

TEST_F(XferGetDownloads, checksumListThatIsMissingOrBrokenOrWithoutTheFileEndsThemBeforeTheyBegin) {
  support::writeFile(file("SUMS"), kSha256 + "  a\n");
  support::writeFile(file("BAD"), "\nnonsense\n");
  const Finished missing = get({server_.url("/a"), "--checksum-file", "none"});
  EXPECT_EQ(missing.exitCode, 3) << missing.err;
  const Finished bad = get({server_.url("/a"), "--checksum-file", "BAD"});
  EXPECT_EQ(bad.exitCode, 2);
  EXPECT_TRUE(has(bad.err, "xfer-get: BAD:2: ")) << bad.err;
  const Finished without = get({server_.url("/a"), server_.url("/b"), "--checksum-file", "SUMS"});
  EXPECT_EQ(without.exitCode, 2);
  EXPECT_TRUE(has(without.err, "xfer-get: SUMS: no line, or more than one, for b")) << without.err;
  EXPECT_TRUE(server_.requests().empty());
}

// ---- Standard output ----

TEST_F(XferGetDownloads, intoStandardOutputAreInOrderAndNothingElse) {
  server_.setHandler(patternFile(5'000'003));
  const Finished done = get({server_.url("/file"), "-o", "-"});
  EXPECT_EQ(done.exitCode, 0) << done.err;
  EXPECT_EQ(done.out, support::patternBytes(0, 5'000'003));
  EXPECT_EQ(done.err, "");
  EXPECT_EQ(server_.requests().size(), 1U);
}

TEST_F(XferGetDownloads, intoStandardOutputHaveNoErrorPage) {
  server_.setHandler([](const ReceivedRequest&) { return support::status(404, "not here"); });
  const Finished done = get({server_.url("/file"), "-o", "-"});
  EXPECT_EQ(done.exitCode, 5);
  EXPECT_EQ(done.out, "");
  EXPECT_TRUE(has(done.err, "404")) << done.err;
}

TEST_F(XferGetDownloads, intoStandardOutputThatEndEarlyFail) {
  server_.setHandler([](const ReceivedRequest&) { return support::full200(1000, {.bodyBytes = 500}).close(); });
  const Finished done = get({server_.url("/file"), "-o", "-"});
  EXPECT_EQ(done.exitCode, 4) << done.err;
  EXPECT_EQ(done.out, support::patternBytes(0, 500));
}

TEST_F(XferGetDownloads, intoStandardOutputHaveTheirChecksumToo) {
  server_.setHandler(patternFile(1000));
  EXPECT_EQ(get({server_.url("/file"), "-o", "-", "--checksum", "sha256=" + kSha256}).exitCode, 0);
  server_.setHandler(patternFile(999));
  const Finished done = get({server_.url("/file"), "-o", "-", "--checksum", "sha256=" + kSha256});
  EXPECT_EQ(done.exitCode, 7);
  EXPECT_EQ(done.out, support::patternBytes(0, 999));
}

TEST_F(XferGetDownloads, intoStandardOutputKeepTheLimit) {
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(get({server_.url("/file"), "-o", "-", "-l", "200000"}).exitCode, 0);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1400));
}

TEST_F(XferGetDownloads, printHasTheFirstBytesBeforeTheLastOnesAreSent) {
  support::Gate gate;
  server_.setHandler([gate](const ReceivedRequest&) {
    return Reply().send("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nfirst").waitFor(gate).send("final");
  });
  support::Process child(command({server_.url("/file"), "-p"}), {.environment = {"no_proxy=*"}});
  const auto deadline = std::chrono::steady_clock::now() + support::testTimeout();
  while (child.out() != "first" && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(child.out(), "first");
  gate.open();
  EXPECT_EQ(child.wait(), 0) << child.err();
  EXPECT_EQ(child.out(), "firstfinal");
}

// ---- When they give up ----

TEST_F(XferGetDownloads, haveATimeForAllTheirTries) {
  server_.setHandler(
      [](const ReceivedRequest& request) { return support::range206(request, kSize, {.bodyBytes = 1000}).stall(); });
  // Long enough for the first bytes to come on a busy machine.
  const Finished done = get({server_.url("/file"), "out", "-m", "5"});
  EXPECT_EQ(done.exitCode, 4) << done.err;
  EXPECT_TRUE(has(done.err, "/file: not done within the 5 s of --max-time; a partial file is left in place"))
      << done.err;
  EXPECT_EQ(get({server_.url("/file"), "-p", "-m", "1"}).exitCode, 4);
}

TEST_F(XferGetDownloads, giveUpConnectionsThatStall) {
  server_.setHandler(
      [](const ReceivedRequest& request) { return support::range206(request, kSize, {.bodyBytes = 1000}).stall(); });
  for (const std::vector<std::string>& how : {Names{"-o", "-"}, Names{"out", "-n", "1", "--max-tries", "1"}}) {
    std::vector<std::string> arguments = {server_.url("/file"), "--stall-timeout", "1"};
    arguments.insert(arguments.end(), how.begin(), how.end());
    const Finished done = get(arguments);
    EXPECT_EQ(done.exitCode, 4) << done.err;
    EXPECT_TRUE(has(done.err, "(code 28)")) << done.err;
  }
}

// ---- JSON ----

TEST_F(XferGetDownloads, tellProgramsOneObjectALine) {
  const Finished done = get({server_.url("/a"), server_.url("/missing/..%2f"), "--json"});
  EXPECT_EQ(done.exitCode, 2) << "nothing is begun when a name is missing";
  const Finished one = get({server_.url("/a"), "--json"});
  EXPECT_EQ(one.exitCode, 0) << one.err;
  EXPECT_EQ(one.err, "");
  EXPECT_EQ(one.out.rfind("{\"event\":\"start\"", 0), 0U) << one.out;
  EXPECT_TRUE(has(one.out, "\n{\"event\":\"end\"")) << one.out;
  EXPECT_FALSE(has(one.out, "\n\n")) << one.out;
  EXPECT_TRUE(has(one.out, "\"result\":\"completed\"")) << one.out;
  EXPECT_TRUE(has(one.out, "\"bytes\":300001")) << one.out;
}

TEST_F(XferGetDownloads, tellProgramsWhatFailed) {
  server_.setHandler([](const ReceivedRequest&) { return support::status(404); });
  const Finished done = get({server_.url("/a"), "--json"});
  EXPECT_EQ(done.exitCode, 5);
  EXPECT_TRUE(has(done.out, "\"result\":\"failed\"")) << done.out;
  EXPECT_TRUE(has(done.out, "\"exitCode\":5")) << done.out;
  EXPECT_TRUE(has(done.out, "\"httpStatus\":404")) << done.out;
}

TEST_F(XferGetDownloads, tellProgramsThatATryWasRepeated) {
  server_.setHandler([](const ReceivedRequest& request) {
    return request.number == 0 ? Reply().close() : patternFile(kSize)(request);
  });
  const Finished done = get({server_.url("/a"), "--json"});
  EXPECT_EQ(done.exitCode, 0) << done.err;
  EXPECT_TRUE(has(done.out, "\"kind\":\"triedAgain\"")) << done.out;
}

}  // namespace
