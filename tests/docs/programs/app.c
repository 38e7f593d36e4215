/* The program of a reader's, which a page's commands build. */
#include <stdio.h>

#include <xfer/xfer.h>

int main(void) {
  return puts(xfer_version()) < 0;
}
