// What the program shows on a terminal, and what it does when standard output cannot take more.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "support/gate.h"
#include "support/process.h"
#include "support/scripted_server.h"
#include "support/temp_dir.h"

namespace {

using support::patternFile;
using support::Process;
using support::ReceivedRequest;
using support::ScriptedServer;

constexpr std::uint64_t kSize = 1'000'000;

class Terminal {
 public:
  explicit Terminal(unsigned short columns) : fd_(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)) {
    winsize size{};
    size.ws_row = 24;
    size.ws_col = columns;
    if (fd_ < 0 || ::grantpt(fd_) != 0 || ::unlockpt(fd_) != 0 || ::ioctl(fd_, TIOCSWINSZ, &size) != 0) {
      throw std::system_error(errno, std::generic_category(), "a terminal");
    }
    std::vector<char> name(256);
    if (::ptsname_r(fd_, name.data(), name.size()) != 0)
      throw std::system_error(errno, std::generic_category(), "name");
    path_ = name.data();
  }

  ~Terminal() { ::close(fd_); }

  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }

  // What is written to it until nobody has it open any more.  Only to be called once the child has opened it, which a
  // started Process has.  onText gets all that was written so far, whenever there is more.
  std::string readToEnd(const std::function<void(const std::string&)>& onText) const {
    std::string text;
    const auto deadline = std::chrono::steady_clock::now() + support::testTimeout();
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd ready{fd_, POLLIN, 0};
      if (::poll(&ready, 1, 100) <= 0) continue;
      char bytes[4096];
      const ssize_t n = ::read(fd_, bytes, sizeof bytes);
      if (n < 0 && errno == EIO) return text;  // the other side's end
      if (n <= 0) continue;
      text.append(bytes, static_cast<std::size_t>(n));
      onText(text);
    }
    ADD_FAILURE() << "not over in time: " << text;
    return text;
  }

 private:
  int fd_;
  std::string path_;
};

// The pieces between line feeds and carriage returns.
std::vector<std::string> pieces(const std::string& text) {
  std::vector<std::string> pieces(1);
  for (const char c : text) {
    if (c != '\r' && c != '\n') {
      pieces.back() += c;
    } else if (!pieces.back().empty()) {
      pieces.emplace_back();
    }
  }
  return pieces;
}

class XferGetOnATerminal : public testing::Test {
 protected:
  struct Shown {
    std::optional<int> exitCode;
    std::string text;
  };

  Shown get(
      unsigned short columns, const std::vector<std::string>& options = {},
      const std::function<void(const std::string&)>& onText = [](const std::string&) {}) const {
    std::vector<std::string> command = {support::siblingProgram("xfer-get"), server_.url("/file"), "out",
                                        "--overwrite"};
    command.insert(command.end(), options.begin(), options.end());
    const Terminal terminal(columns);
    Process child(command, {.environment = {std::string("TERM=") + kind_, std::string("NO_COLOR=") + noColor_},
                            .folder = folder_.path(),
                            .errFile = terminal.path()});
    std::string text = terminal.readToEnd(onText);
    return {child.wait(), std::move(text)};
  }

  // A file of whose ranges nothing but so many bytes comes until the gate is open.
  static support::Handler rangesThatWait(std::uint64_t bytes, const support::Gate& gate) {
    return [bytes, gate](const ReceivedRequest& request) {
      const std::uint64_t start = request.range->first;
      const std::uint64_t end = std::min(request.range->last.value_or(kSize - 1) + 1, kSize);
      const std::uint64_t held = std::min(start + bytes, end);
      return support::Reply()
          .send("HTTP/1.1 206 Partial Content\r\nContent-Length: " + std::to_string(end - start) +
                "\r\nContent-Range: bytes " + std::to_string(start) + "-" + std::to_string(end - 1) + "/" +
                std::to_string(kSize) + "\r\n\r\n")
          .sendPattern(start, held)
          .waitFor(gate)
          .sendPattern(held, end);
    };
  }

  const char* kind_ = "dumb";  // of the terminal
  const char* noColor_ = "";
  // Slow enough for a few drawings.
  ScriptedServer server_{[](const ReceivedRequest& request) {
    if (request.range == support::RequestedRange{0, 0}) return support::range206(request, kSize);
    return support::range206(request, kSize, {.pace = {kSize / 4, std::chrono::milliseconds(200)}});
  }};
  const support::TempDir folder_;
};

TEST_F(XferGetOnATerminal, redrawsOneLineThatNeverWraps) {
  for (const unsigned short columns : std::vector<unsigned short>{120, 80, 20, 1}) {
    const Shown shown = get(columns);
    EXPECT_EQ(shown.exitCode, 0) << shown.text;
    const std::vector<std::string> drawn = pieces(shown.text.substr(0, shown.text.find("xfer-get: ")));
    if (columns > 1) {
      EXPECT_GE(drawn.size(), 3U) << shown.text;
    }
    for (const std::string& line : drawn) EXPECT_LT(line.size(), columns) << line;
    EXPECT_EQ(shown.text.find('\n'), shown.text.find("\nxfer-get: ")) << "one line, then the message: " << shown.text;
    EXPECT_EQ(shown.text.back(), '\n');
  }
}

TEST_F(XferGetOnATerminal, beginsWithAnEmptyBarAndEndsWithAFullOne) {
  const std::string emptyBar = "\r[........";
  support::Gate drawn;
  server_.setHandler(rangesThatWait(0, drawn));
  const Shown shown = get(100, {}, [&](const std::string& text) {
    if (text.find(emptyBar) != std::string::npos) drawn.open();
  });
  EXPECT_EQ(shown.exitCode, 0) << shown.text;
  EXPECT_NE(shown.text.find(emptyBar), std::string::npos) << shown.text;
  EXPECT_NE(shown.text.find("#] 100% 976.6 KiB of 976.6 KiB"), std::string::npos) << shown.text;
}

TEST_F(XferGetOnATerminal, drawsNoBarBetweenTheRecordsOfALog) {
  const Shown shown = get(100, {"-vv"});
  EXPECT_EQ(shown.exitCode, 0) << shown.text;
  EXPECT_EQ(shown.text.find('['), std::string::npos) << shown.text;
  for (const std::string& line : pieces(shown.text)) {
    const bool record = line.rfind("trace ", 0) == 0 || line.rfind("note ", 0) == 0;
    EXPECT_TRUE(line.empty() || record || line.rfind("xfer-get: ", 0) == 0) << line;
  }
}

TEST_F(XferGetOnATerminal, drawsAMapAndItsConnectionsBelowTheLineAndClearsThemInTheEnd) {
  // Where a connection is within the file, and the map above it.
  const auto drawing = [](const std::string& text) {
    const std::size_t begun = text.find("KiB > ");
    return begun == std::string::npos ? begun : text.rfind("\r\n\r[", begun);
  };
  kind_ = "xterm";
  for (const unsigned short columns : std::vector<unsigned short>{200, 80, 40}) {
    support::Gate drawn;
    server_.setHandler(rangesThatWait(kSize / 4, drawn));
    const Shown shown = get(columns, {}, [&](const std::string& text) {
      if (drawing(text) != std::string::npos) drawn.open();
    });
    EXPECT_EQ(shown.exitCode, 0) << shown.text;
    const std::size_t map = drawing(shown.text);
    ASSERT_NE(map, std::string::npos) << shown.text;
    const std::size_t end = shown.text.find("\x1b[K", map);
    EXPECT_EQ(end - map, 3U + columns - 1) << "as wide as the terminal, but for its last column: " << shown.text;
    EXPECT_NE(shown.text.substr(map, end - map).find('>'), std::string::npos) << shown.text;
    const std::size_t line = shown.text.find("\r\n\r", end);
    EXPECT_EQ(line, end + 3) << "a connection's line: " << shown.text;
    EXPECT_NE(shown.text.find("A\r", line), std::string::npos) << "back to the progress line: " << shown.text;
    const std::size_t cleared = shown.text.rfind("\x1b[J");
    ASSERT_NE(cleared, std::string::npos) << shown.text;
    const std::string left = shown.text.substr(cleared);
    EXPECT_EQ(left.find('\n'), left.find("\nxfer-get: out: ")) << "one line, then the message: " << shown.text;
    EXPECT_NE(left.find("100%"), std::string::npos) << shown.text;
    EXPECT_EQ(left.find('>'), std::string::npos) << "no map is left: " << shown.text;
  }
}

TEST_F(XferGetOnATerminal, drawsNoMapAndNoColoursWhereTheCursorMayNotMove) {
  for (const char* const kind : {"dumb", ""}) {
    kind_ = kind;
    const Shown shown = get(80);
    EXPECT_EQ(shown.exitCode, 0) << shown.text;
    EXPECT_EQ(shown.text.find('\x1b'), std::string::npos) << shown.text;
  }
}

TEST_F(XferGetOnATerminal, drawsNoMapWhereNoneIsWanted) {
  kind_ = "xterm";
  const Shown shown = get(80, {"--no-map"});
  EXPECT_EQ(shown.exitCode, 0) << shown.text;
  EXPECT_EQ(shown.text.find('>'), std::string::npos) << shown.text;
  EXPECT_EQ(shown.text.find('\n'), shown.text.find("\nxfer-get: out: "))
      << "one line, then the message: " << shown.text;
}

TEST_F(XferGetOnATerminal, paintsTheBarUnlessColoursAreUnwanted) {
  kind_ = "xterm";
  EXPECT_NE(get(80).text.find("\x1b[32m#"), std::string::npos);
  noColor_ = "1";
  const std::string plain = get(80).text;
  EXPECT_EQ(plain.find("\x1b[32m"), std::string::npos) << plain;
  EXPECT_EQ(plain.find("\x1b[0m"), std::string::npos) << plain;
}

TEST_F(XferGetOnATerminal, quietShowsNothing) {
  EXPECT_EQ(get(100, {"-q"}).text, "");
}

TEST(XferGetOutput, thatCannotBeWrittenIsAFileError) {
  ScriptedServer server(patternFile(1000));
  for (const char* option : {"--print", "--head", "--info"}) {
    Process child({support::siblingProgram("xfer-get"), option, server.url("/file")}, {.outFile = "/dev/full"});
    EXPECT_EQ(child.wait(), 3) << option;
    EXPECT_EQ(child.err(), "xfer-get: standard output could not be written\n") << option;
  }
}

TEST(XferGetOutput, isNoDevice) {
  ScriptedServer server(patternFile(1000));
  for (const char* how : {"--overwrite", "-v"}) {
    Process child({support::siblingProgram("xfer-get"), server.url("/file"), "-o", "/dev/null", how});
    EXPECT_EQ(child.wait(), 3);
    EXPECT_EQ(child.err(), "xfer-get: /dev/null: this is no regular file; -o - writes to standard output\n");
  }
  EXPECT_TRUE(server.requests().empty());
}

}  // namespace
