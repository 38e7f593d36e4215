#include <string>
#include <vector>

#include "run.h"

int main(int argc, char** argv) {
  return xfer_get::run(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
}
