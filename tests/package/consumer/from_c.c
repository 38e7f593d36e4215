/* from_c PORT: a host in C.  PORT refuses connections. */
#include <stdio.h>
#include <stdlib.h>
#include <xfer/xfer.h>

int main(int argc, char** argv) {
  uint64_t downloaded = 77;
  uint32_t error = 77;
  uint8_t finished = 0;
  uint64_t id = 0;
  char url[64];
  if (argc != 2) return 2;

  if (xfer_getProgress(12345, &downloaded, &error, &finished) != 0) return 3;
  if (finished != 1 || downloaded != 77 || error != 77) return 4;
  if (xfer_downloadPause(12345) != 100001) return 5;
  if (xfer_stopDownloadHandle(12345)) return 6;

  (void)snprintf(url, sizeof url, "http://127.0.0.1:%s/file", argv[1]);
  id = xfer_downloadFile(url, "from_c.out", NULL, 2, NULL, 0, 0, NULL);
  if (id == 0) return 7;
  do {
    xfer_getProgress(id, &downloaded, &error, &finished);
  } while (finished == 0);
  if (error != 7) return 8; /* libcurl's code for a refused connection */
  return 0;
}
