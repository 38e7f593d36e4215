/* from_c PORT: a host in C.  PORT refuses connections. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <xfer/xfer.h>
#include <xfer/xfer_download.h>
#include <xfer/xfer_request.h>

static int32_t refuse(void* user, int32_t httpStatus, const uint8_t* bytes, uint64_t size) {
  (void)user;
  (void)httpStatus;
  (void)bytes;
  return size != 0;
}

int main(int argc, char** argv) {
  uint64_t downloaded = 77;
  uint32_t error = 77;
  uint8_t finished = 0;
  uint64_t id = 0;
  xfer_buffer* headers = NULL;
  xfer_buffer* body = NULL;
  xfer_download_options options;
  xfer_status status;
  xfer_request_options request;
  xfer_response response;
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

  headers = xfer_bufferNew();
  body = xfer_bufferNew();
  if (headers == NULL || body == NULL) return 9;
  if (xfer_download(url, NULL, NULL, headers, body, NULL, NULL) != 7) return 10;
  if (xfer_bufferSize(body) != 0 || xfer_bufferData(body) != NULL) return 11;
  xfer_bufferFree(headers);
  xfer_bufferFree(body);
  xfer_bufferFree(NULL);
  xfer_downloadOptionsInit(&options, sizeof options);
  options.url = url;
  options.path = "from_c.out";
  options.connections = 2;
  if (xfer_downloadStart(&options, &id) != 0) return 14;
  while (xfer_downloadWait(id, 100) == XFER_NOT_ENDED) continue;
  status.size = sizeof status;
  if (xfer_downloadStatus(id, &status) != 0) return 15;
  if (status.state != XFER_STATE_FAILED || status.error != 7) return 16;
  if (xfer_downloadForget(id) != 0 || xfer_downloadForget(id) != 100001) return 17;
  xfer_requestOptionsInit(&request, sizeof request);
  xfer_responseInit(&response, sizeof response);
  request.url = url;
  request.method = "PUT";
  request.body = "a\0b";
  request.bodySize = 3;
  request.onBody = refuse;
  request.cancel = xfer_cancelNew();
  response.headers = xfer_bufferNew();
  if (request.cancel == NULL || response.headers == NULL) return 18;
  if (xfer_request(&request, &response) != 7 || response.error != 7 || response.httpStatus != 0) return 19;
  xfer_cancelSet(request.cancel);
  if (xfer_request(&request, &response) != 42) return 20;
  request.size = 1;
  if (xfer_request(&request, &response) != 100032 || xfer_request(NULL, &response) != 100033) return 21;
  xfer_cancelFree(request.cancel);
  xfer_bufferFree(response.headers);
  if (strcmp(xfer_version(), XFER_VERSION_TEXT) != 0) return 12;
  if (strcmp(xfer_errorText(404), "HTTP 404: not found") != 0) return 13;
  return 0;
}
