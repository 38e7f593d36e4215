// A file has one writer on POSIX: what excludes the second one, and what does not.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "file_sink.h"
#include "support/log_line.h"
#include "support/recording_logger.h"
#include "support/temp_dir.h"

using std::chrono::milliseconds;
using support::TempDir;
using xfer::FileSink;

namespace {

// What happens when a lock is asked for: an error number, or 0 to go on to the system.
std::function<int()>& whenLocking() {
  static std::function<int()> hook;
  return hook;
}

}  // namespace

// The linker sends the calls that lock a file through here.
extern "C" {
int __real_fcntl(int descriptor, int command, ...);

int __wrap_fcntl(int descriptor, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  if (command == F_OFD_SETLK && static_cast<struct flock*>(argument)->l_type == F_WRLCK && whenLocking()) {
    if (const int error = whenLocking()(); error != 0) {
      errno = error;
      return -1;
    }
  }
  return __real_fcntl(descriptor, command, argument);
}
}

namespace {

constexpr std::int32_t kNotCreated = 100004;

class WhenLocking {
 public:
  explicit WhenLocking(std::function<int()> hook) { whenLocking() = std::move(hook); }
  ~WhenLocking() { whenLocking() = nullptr; }
  WhenLocking(const WhenLocking&) = delete;
  WhenLocking& operator=(const WhenLocking&) = delete;
};

void doNotWait(milliseconds /*time*/) {}

std::int32_t write(FileSink& sink, std::uint64_t offset, const std::string& text) {
  return sink.writeAt(offset, reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

std::int32_t openOnce(const std::string& path) {
  FileSink sink(doNotWait);
  return sink.open(path, 5);
}

std::string refusal(const std::string& path) {
  return "open | another job or process is writing the file | path=" + path;
}

// The descriptors of this process that stand for the file.
std::vector<int> descriptorsOf(const std::string& path) {
  std::vector<int> found;
  for (const std::string& name : support::listFolder("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink("/proc/self/fd/" + name, gone) == std::filesystem::canonical(path))
      found.push_back(std::stoi(name));
  }
  return found;
}

// A process that is a copy of this one and runs one function; its result is the exit code.
class Fork {
 public:
  explicit Fork(const std::function<int()>& function) : id_(::fork()) {
    if (id_ == 0) ::_exit(function());
    if (id_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
  }
  ~Fork() {
    if (id_ > 0) static_cast<void>(wait());
  }
  Fork(const Fork&) = delete;
  Fork& operator=(const Fork&) = delete;

  int wait() {
    int status = 0;
    while (::waitpid(id_, &status, 0) < 0 && errno == EINTR) {
    }
    id_ = 0;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
  }

 private:
  pid_t id_;
};

class Pipe {
 public:
  Pipe() {
    if (::pipe2(ends_.data(), O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  }
  ~Pipe() {
    ::close(ends_[0]);
    closeWriting();
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  void closeWriting() {
    if (ends_[1] >= 0) ::close(ends_[1]);
    ends_[1] = -1;
  }

  // Until something comes (true) or no writer is left.
  [[nodiscard]] bool read() const {
    char byte = 0;
    return ::read(ends_[0], &byte, 1) == 1;
  }
  void send() const { EXPECT_EQ(::write(ends_[1], "x", 1), 1); }

 private:
  std::array<int, 2> ends_{};
};

TEST(OneWriter, isWaitedForUpToASecondAndThenNamedInOneLine) {
  const TempDir folder;
  const std::string path = folder.file("f");
  FileSink first;
  ASSERT_EQ(first.open(path, 5), 0);
  ASSERT_EQ(write(first, 0, "first"), 0);
  const support::RecordingLogger log(3);
  milliseconds waited{0};
  FileSink second([&](milliseconds time) {
    EXPECT_LE(time, milliseconds(10)) << "a file that is let go is noticed soon";
    waited += time;
  });
  EXPECT_EQ(second.open(path, 5), kNotCreated);
  EXPECT_EQ(second.failureText().view(), "it is being written by another download");
  EXPECT_EQ(waited, milliseconds(1000));
  EXPECT_EQ(support::wholeLogError(log.records(), {support::failure(support::kSink, refusal(path))}), "");
  EXPECT_EQ(support::readFile(path), "first");
  EXPECT_EQ(descriptorsOf(path).size(), 1U) << "the first one's";
}

TEST(OneWriter, thatLetsGoInTimeIsFollowedByTheNext) {
  const TempDir folder;
  const std::string path = folder.file("f");
  const support::RecordingLogger log(3);
  FileSink first;
  ASSERT_EQ(first.open(path, 5), 0);
  int waits = 0;
  FileSink second([&](milliseconds) {
    if (++waits == 3) first.close();
  });
  EXPECT_EQ(second.open(path, 7), 0);
  EXPECT_EQ(waits, 3);
  EXPECT_EQ(support::fileSize(path), 7U);
  EXPECT_TRUE(log.texts().empty());
}

TEST(OneWriter, inAnotherProcessExcludesThisOneUntilItLetsGo) {
  const TempDir folder;
  const std::string path = folder.file("f");
  Pipe writing;
  Pipe enough;
  Fork other([&] {
    enough.closeWriting();
    FileSink sink;
    if (sink.open(path, 5) != 0 || write(sink, 0, "other") != 0) return 1;
    writing.send();
    static_cast<void>(enough.read());
    return sink.finalize(5);
  });
  writing.closeWriting();
  ASSERT_TRUE(writing.read());
  const support::RecordingLogger log(3);
  EXPECT_EQ(openOnce(path), kNotCreated);
  EXPECT_EQ(support::wholeLogError(log.records(), {support::failure(support::kSink, refusal(path))}), "");
  EXPECT_EQ(support::readFile(path), "other");
  enough.closeWriting();
  EXPECT_EQ(other.wait(), 0);
  EXPECT_EQ(openOnce(path), 0);
}

TEST(OneWriter, isOneAFileAndNotOneAName) {
  const TempDir folder;
  const std::string path = folder.file("f");
  FileSink first;
  ASSERT_EQ(first.open(path, 5), 0);
  std::filesystem::create_symlink(path, folder.file("symbolic"));
  std::filesystem::create_hard_link(path, folder.file("hard"));
  EXPECT_EQ(openOnce(folder.file("symbolic")), kNotCreated);
  EXPECT_EQ(openOnce(folder.file("hard")), kNotCreated);
  EXPECT_EQ(openOnce(folder.file("other")), 0);
}

// A process that is not root may not write it; the file of a writer is not moved aside for that.
TEST(OneWriter, ofAFileThatOthersMayOnlyReadKeepsItsName) {
  const TempDir folder;
  const std::string path = folder.file("f");
  ASSERT_EQ(::chmod(folder.path().c_str(), 0777), 0);
  FileSink first;
  ASSERT_EQ(first.open(path, 5), 0);
  ASSERT_EQ(::chmod(path.c_str(), 0444), 0);
  const auto openWithoutPrivilege = [&] {
    constexpr uid_t kNobody = 65534;
    if (::geteuid() == 0 && ::setuid(kNobody) != 0) return 2;
    return openOnce(path) == kNotCreated ? 1 : 0;
  };
  EXPECT_EQ(Fork(openWithoutPrivilege).wait(), 1);
  EXPECT_EQ(support::listFolder(folder.path()), std::vector<std::string>{"f"});
  first.close();
  EXPECT_EQ(Fork(openWithoutPrivilege).wait(), 0);
  EXPECT_EQ(support::listFolder(folder.path()), (std::vector<std::string>{"f", "f.bak"}));
}

TEST(OneWriter, doesNotEmptyAFileThatWasRenamedWhileItWasOpened) {
  const TempDir folder;
  const std::string path = folder.file("f");
  support::writeFile(path, "before");
  int locks = 0;
  const WhenLocking hook([&] {
    if (++locks == 1) std::filesystem::rename(path, folder.file("kept"));
    return 0;
  });
  FileSink sink(doNotWait);
  EXPECT_EQ(sink.open(path, 5), 0);
  EXPECT_EQ(write(sink, 0, "after"), 0);
  EXPECT_EQ(support::readFile(path), "after");
  EXPECT_EQ(support::readFile(folder.file("kept")), "before");
  EXPECT_EQ(openOnce(folder.file("kept")), 0) << "the renamed one was let go";
}

TEST(OneWriter, ofAPathThatIsReplacedAgainAndAgainGivesUp) {
  const TempDir folder;
  const std::string path = folder.file("f");
  const WhenLocking hook([&] {
    support::writeFile(folder.file("new"), "new");
    std::filesystem::rename(folder.file("new"), path);
    return 0;
  });
  const support::RecordingLogger log(3);
  EXPECT_EQ(openOnce(path), kNotCreated);
  EXPECT_EQ(support::wholeLogError(log.records(), {support::failure(support::kSink, refusal(path))}), "");
  EXPECT_EQ(support::readFile(path), "new");
}

TEST(OneWriter, cannotBeToldWhereTheFileSystemCannotLock) {
  const TempDir folder;
  for (const int error : {ENOLCK, EOPNOTSUPP, ENOSYS, EINVAL}) {
    const WhenLocking hook([error] { return error; });
    FileSink sink(doNotWait);
    EXPECT_EQ(sink.open(folder.file("f"), 5), 0) << error;
    EXPECT_EQ(openOnce(folder.file("f")), 0) << error;
  }
}

TEST(OneWriter, isAskedForAgainAfterASignal) {
  const TempDir folder;
  FileSink first;
  ASSERT_EQ(first.open(folder.file("f"), 5), 0);
  int locks = 0;
  const WhenLocking hook([&] { return ++locks % 2 == 1 ? EINTR : 0; });
  EXPECT_EQ(openOnce(folder.file("f")), kNotCreated);
}

TEST(OneWriter, doesNotMindAnFlockOfTheHosts) {
  const TempDir folder;
  support::writeFile(folder.file("f"), "before");
  const int host = ::open(folder.file("f").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(::flock(host, LOCK_EX | LOCK_NB), 0);
  EXPECT_EQ(openOnce(folder.file("f")), 0);
  ::close(host);
}

TEST(OneWriter, locksNoneOfTheBytesThatAFileCanHave) {
  const TempDir folder;
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 5), 0);
  const int reader = ::open(folder.file("f").c_str(), O_RDONLY | O_CLOEXEC);
  struct flock lock {};
  lock.l_type = F_RDLCK;
  lock.l_whence = SEEK_SET;
  lock.l_len = INT64_MAX;
  EXPECT_EQ(::fcntl(reader, F_OFD_SETLK, &lock), 0);
  ::close(reader);
}

TEST(OneWriter, leavesTheFileFreeThoughAChildOfTheHostStillHasIt) {
  const TempDir folder;
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 5), 0);
  Pipe enough;
  Fork child([&] {
    enough.closeWriting();
    return enough.read() ? 1 : 0;
  });
  sink.close();
  EXPECT_EQ(openOnce(folder.file("f")), 0);
  enough.closeWriting();
  EXPECT_EQ(child.wait(), 0);
}

TEST(OneWriter, isNotAskedOfADevice) {
  FileSink first(doNotWait);
  FileSink second(doNotWait);
  EXPECT_EQ(first.open("/dev/null", 0), 0);
  EXPECT_EQ(second.open("/dev/null", 0), 0);
  EXPECT_EQ(write(first, 0, "first"), 0);
  EXPECT_EQ(write(second, 0, "second"), 0);
}

TEST(OneWriter, tellsADeviceFromAFullDisk) {
  FileSink sink(doNotWait);
  EXPECT_EQ(sink.open("/dev/null", 5), 100024);
  EXPECT_EQ(sink.failureText().view(), "not a regular file");
  EXPECT_EQ(sink.open("/dev/null", 0), 0);
  EXPECT_TRUE(sink.failureText().empty()) << "that was before";
}

TEST(OneWriter, tellsAFifoAndASocketFromAFullDisk) {
  const TempDir folder;
  FileSink sink(doNotWait);
  ASSERT_EQ(::mkfifo(folder.file("fifo").c_str(), 0600), 0);
  const int reader = ::open(folder.file("fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  EXPECT_EQ(sink.open(folder.file("fifo"), 5), 100024);
  EXPECT_EQ(sink.failureText().view(), "not a regular file");
  ::close(reader);
  ASSERT_EQ(::mknod(folder.file("socket").c_str(), S_IFSOCK | 0600, 0), 0);
  EXPECT_EQ(sink.open(folder.file("socket"), 5), 100004);
  EXPECT_EQ(sink.failureText().view(), "not a regular file");
}

TEST(OneWriter, isNotAskedOfAFifo) {
  const TempDir folder;
  ASSERT_EQ(::mkfifo(folder.file("fifo").c_str(), 0600), 0);
  const int reader = ::open(folder.file("fifo").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  FileSink first(doNotWait);
  FileSink second(doNotWait);
  EXPECT_EQ(first.open(folder.file("fifo"), 0), 0);
  EXPECT_EQ(second.open(folder.file("fifo"), 0), 0);
  ::close(reader);
}

TEST(OutputFile, isNoStandardStreamOfAHostThatClosedThem) {
  const TempDir folder;
  const std::string path = folder.file("f");
  Fork host([&] {
    for (const int standard : {0, 1, 2}) ::close(standard);
    FileSink sink;
    if (sink.open(path, 5) != 0 || write(sink, 0, "whole") != 0) return 1;
    if (::write(STDERR_FILENO, "printed", 7) != -1 || errno != EBADF) return 2;
    for (const int standard : {0, 1, 2}) {
      if (::fcntl(standard, F_GETFD) != -1) return 3;
    }
    const std::vector<int> descriptors = descriptorsOf(path);
    if (descriptors.size() != 1 || (::fcntl(descriptors[0], F_GETFD) & FD_CLOEXEC) == 0) return 4;
    if (openOnce(path) != kNotCreated) return 5;
    return sink.finalize(5);
  });
  EXPECT_EQ(host.wait(), 0);
  EXPECT_EQ(support::readFile(path), "whole");
}

TEST(OutputFile, isNotInheritedByPrograms) {
  const TempDir folder;
  FileSink sink;
  ASSERT_EQ(sink.open(folder.file("f"), 5), 0);
  const std::vector<int> descriptors = descriptorsOf(folder.file("f"));
  ASSERT_EQ(descriptors.size(), 1U);
  EXPECT_NE(::fcntl(descriptors[0], F_GETFD) & FD_CLOEXEC, 0);
}

}  // namespace
