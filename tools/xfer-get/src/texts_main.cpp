// Writes the manual and the completions into a folder: a part of the build, not of what is installed.
#include <cstdio>
#include <exception>
#include <fstream>
#include <string>

#include "completions.h"
#include "manual.h"

namespace {

void write(const std::string& path, const std::string& text) {
  std::ofstream file;
  file.exceptions(std::ios::failbit | std::ios::badbit);
  file.open(path, std::ios::binary);
  file << text;
  file.close();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: xfer-get-texts FOLDER\n", stderr);
    return 2;
  }
  try {
    const std::string folder = std::string(argv[1]) + "/";
    write(folder + "xfer-get.1", xfer_get::manualPage());
    write(folder + "xfer-get.bash", xfer_get::bashCompletion());
    write(folder + "_xfer-get", xfer_get::zshCompletion());
    write(folder + "xfer-get.fish", xfer_get::fishCompletion());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "xfer-get-texts: %s\n", error.what());
    return 1;
  }
  return 0;
}
