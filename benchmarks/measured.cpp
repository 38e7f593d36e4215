// measured SECONDS COMMAND [ARGUMENT...]: runs a command without input or output, and says what it took.
//
//   {"code": 0, "stopped": false, "seconds": 0.123, "processor_seconds": 0.1, "peak_kib": 12345}
//
// code is null when a signal ended the command; stopped: that was this program, after SECONDS.  The peak of memory is
// why this is a program of its own: a process is charged with what its parent had when it was started.
//
// Threads: main only.
// Errors: exit code 1 when the command cannot be run, 2 for usage.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

constexpr int kNotRun = 127;

volatile std::sig_atomic_t child = 0;
volatile std::sig_atomic_t stopped = 0;

extern "C" void onAlarm(int /*signal*/) {
  stopped = 1;
  ::kill(-static_cast<pid_t>(child), SIGKILL);  // with what it has started
}

[[noreturn]] void runCommand(char** command) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  ::setsid();
  const int nothing = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  for (int stream = 0; stream <= 2; ++stream) ::dup2(nothing, stream);
  ::execvp(command[0], command);
  std::_Exit(kNotRun);
}

double secondsOf(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

int main(int count, char** arguments) {
  const double most = count > 2 ? std::strtod(arguments[1], nullptr) : 0;
  if (most <= 0) {
    std::fputs("usage: measured SECONDS COMMAND [ARGUMENT...]\n", stderr);
    return 2;
  }
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  const auto begin = std::chrono::steady_clock::now();
  const pid_t pid = ::fork();
  if (pid < 0) return 1;
  if (pid == 0) runCommand(arguments + 2);
  child = pid;
  std::signal(SIGALRM, onAlarm);
  itimerval timer{};
  timer.it_value.tv_sec = static_cast<time_t>(most);
  timer.it_value.tv_usec = static_cast<suseconds_t>((most - static_cast<double>(timer.it_value.tv_sec)) * 1e6);
  ::setitimer(ITIMER_REAL, &timer, nullptr);
  int status = 0;
  rusage usage{};
  while (::wait4(pid, &status, 0, &usage) < 0) {
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotRun) return 1;
  const std::string code = WIFEXITED(status) ? std::to_string(WEXITSTATUS(status)) : "null";
  std::printf("{\"code\": %s, \"stopped\": %s, \"seconds\": %.6f, \"processor_seconds\": %.6f, \"peak_kib\": %ld}\n",
              code.c_str(), stopped != 0 ? "true" : "false", seconds,
              secondsOf(usage.ru_utime) + secondsOf(usage.ru_stime), usage.ru_maxrss);
  return 0;
}
