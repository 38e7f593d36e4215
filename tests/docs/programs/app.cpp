// The program of a reader's, which a page's commands build.
#include <cstdio>

#include <xfer/xfer.h>

int main() {
  return std::puts(xfer_version()) < 0 ? 1 : 0;
}
