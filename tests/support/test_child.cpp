// What the process tests start: does what its arguments say, one after the other.
//   out=TEXT, err=TEXT   write a line         env=NAME   writes a variable's value
//   sleep=MS             exit=CODE            lines      writes every further argument on a line of its own, and ends
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string argument = argv[i];
    const std::size_t equals = argument.find('=');
    const std::string what = argument.substr(0, equals);
    const std::string value = equals == std::string::npos ? "" : argument.substr(equals + 1);
    if (what == "out") {
      std::printf("%s\n", value.c_str());
      std::fflush(stdout);
    } else if (what == "err") {
      std::fprintf(stderr, "%s\n", value.c_str());
    } else if (what == "env") {
      const char* variable = std::getenv(value.c_str());
      std::printf("%s\n", variable != nullptr ? variable : "(not set)");
    } else if (what == "sleep") {
      std::this_thread::sleep_for(std::chrono::milliseconds(std::stoi(value)));
    } else if (what == "exit") {
      return std::stoi(value);
    } else if (what == "lines") {
      for (++i; i < argc; ++i) std::printf("%s\n", argv[i]);
    }
  }
  return 0;
}
