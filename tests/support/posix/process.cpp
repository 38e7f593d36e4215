#include "support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <system_error>

#include "support/wait_until.h"

namespace support {
namespace {

void check(int error, const std::string& what) {
  if (error != 0) throw std::system_error(error, std::generic_category(), what);
}

class FileActions {
 public:
  FileActions() { check(::posix_spawn_file_actions_init(&actions_), "posix_spawn_file_actions_init"); }
  ~FileActions() { ::posix_spawn_file_actions_destroy(&actions_); }
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;

  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::string nameOf(const std::string& variable) {
  return variable.substr(0, variable.find('='));
}

std::vector<std::string> environmentWith(const std::vector<std::string>& additions) {
  std::vector<std::string> environment;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    bool replaced = false;
    for (const std::string& addition : additions) replaced = replaced || nameOf(addition) == nameOf(*variable);
    if (!replaced) environment.emplace_back(*variable);
  }
  environment.insert(environment.end(), additions.begin(), additions.end());
  return environment;
}

}  // namespace

Process::Process(const std::vector<std::string>& command, const ProcessOptions& options)
    : outFile_(options.outFile.empty() ? folder_.file("out") : options.outFile),
      errFile_(options.errFile.empty() ? folder_.file("err") : options.errFile) {
  FileActions actions;
  constexpr int kCreate = O_WRONLY | O_CREAT | O_TRUNC | O_APPEND;
  const std::string in = options.inFile.empty() ? "/dev/null" : options.inFile;
  check(::posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, in.c_str(), O_RDONLY, 0), in);
  check(::posix_spawn_file_actions_addopen(actions.get(), STDOUT_FILENO, outFile_.c_str(), kCreate, 0600), outFile_);
  check(::posix_spawn_file_actions_addopen(actions.get(), STDERR_FILENO, errFile_.c_str(), kCreate, 0600), errFile_);
  check(::posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1), "closefrom");
  if (!options.folder.empty()) {
    check(::posix_spawn_file_actions_addchdir_np(actions.get(), options.folder.c_str()), options.folder);
  }

  std::vector<std::string> arguments = command;
  std::vector<std::string> environment = environmentWith(options.environment);
  pid_t pid = 0;
  check(::posix_spawnp(&pid, command.front().c_str(), actions.get(), nullptr, pointers(arguments).data(),
                       pointers(environment).data()),
        command.front());
  id_ = pid;
}

Process::~Process() {
  kill();
  wait();
}

std::optional<int> Process::wait(std::chrono::milliseconds timeout) {
  const auto ended = [this] {
    int status = 0;
    if (exitCode_ || ::waitpid(static_cast<pid_t>(id_), &status, WNOHANG) == 0) return exitCode_.has_value();
    exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return true;
  };
  return waitUntil(ended, timeout) ? exitCode_ : std::nullopt;
}

void Process::interrupt() {
  if (running()) ::kill(static_cast<pid_t>(id_), SIGINT);
}

void Process::terminate() {
  if (running()) ::kill(static_cast<pid_t>(id_), SIGTERM);
}

void Process::kill() {
  if (running()) ::kill(static_cast<pid_t>(id_), SIGKILL);
}

std::string siblingProgram(const std::string& name) {
  return toUtf8(std::filesystem::read_symlink("/proc/self/exe").parent_path() / toPath(name));
}

}  // namespace support
