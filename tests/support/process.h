// A child process of a test, with its output in files.  One twin a platform.
//
// Threads: one at a time.
// Errors:  a program that cannot be started throws std::system_error.
// Units:   paths and arguments are UTF-8.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "support/test_timeout.h"

namespace support {

struct ProcessOptions {
  std::vector<std::string> environment{};  // "NAME=value", on top of the test's own
  std::string folder{};                    // where the child starts; "" is where the test is
  std::string inFile{};                    // "" is nothing
  std::string outFile{};                   // "" is a file of the object's own
  std::string errFile{};
};

class Process {
 public:
  /// Starts command[0] (looked for along PATH when it has no separator) with the further arguments and none of the
  /// test's descriptors.
  explicit Process(const std::vector<std::string>& command, const ProcessOptions& options = {});

  /// Kills the child when it still runs.
  ~Process();

  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  /// The exit code once the child has ended; nullopt when the time is over before.  POSIX: 128 + the number of the
  /// signal that ended it.
  std::optional<int> wait(std::chrono::milliseconds timeout = testTimeout());

  [[nodiscard]] bool running() { return !wait(std::chrono::milliseconds(0)).has_value(); }

  /// What Ctrl-C does: SIGINT; on Windows a Ctrl-Break, as a child in a process group of its own gets no Ctrl-C.
  void interrupt();

  /// SIGTERM.  Windows has nothing of the kind: the child ends at once, with exit code 1.
  void terminate();

  /// SIGKILL, or at once with exit code 1.
  void kill();

  [[nodiscard]] std::int64_t id() const { return id_; }

  /// What it has written so far, as it is: with "\r\n" on Windows where the child's stream is a text stream.
  [[nodiscard]] std::string out() const { return readFile(outFile_).value_or(""); }
  [[nodiscard]] std::string err() const { return readFile(errFile_).value_or(""); }

 private:
  TempDir folder_;
  std::string outFile_;
  std::string errFile_;
  std::int64_t id_ = 0;
  std::intptr_t handle_ = 0;  // Windows only
  std::optional<int> exitCode_;
};

struct Finished {
  int exitCode = 0;
  std::string out;
  std::string err;
};

/// The program of this name in the folder of the running one, with the platform's ending.
std::string siblingProgram(const std::string& name);

/// Runs a program to its end; one that does not end in time is killed and throws std::runtime_error.
Finished runProcess(const std::vector<std::string>& command, const ProcessOptions& options = {},
                    std::chrono::milliseconds timeout = testTimeout());

}  // namespace support
