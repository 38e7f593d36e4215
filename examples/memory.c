/*
 * Fetches an URL into memory and, when a path is given, a second time into a file as the bytes arrive.
 *
 *   memory URL [PATH [MOST_BYTES]]
 *
 * The second request is broken off when more than MOST_BYTES bytes arrive.
 */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>

#include <xfer/xfer_request.h>

/* An answer with any HTTP status counts as a success of the request: what its status means is the host's to say. */
static int isWanted(const xfer_response* response) {
  return response->error == 0 && response->httpStatus == 200;
}

static int fetchIntoMemory(const char* url) {
  xfer_request_options options;
  xfer_requestOptionsInit(&options, sizeof options); /* always first: it sets the record's size and the defaults */
  options.url = url;
  options.verifyPeer = XFER_VERIFY_ON; /* certificates are checked only when a host asks for it */
  options.timeoutSec = 60;

  xfer_response response;
  xfer_responseInit(&response, sizeof response);
  response.body = xfer_bufferNew(); /* without a buffer the body is not kept */
  if (response.body == NULL) {
    fprintf(stderr, "out of memory\n");
    return 0;
  }

  xfer_request(&options, &response);                              /* its result is in response.error, too */
  const char* body = (const char*)xfer_bufferData(response.body); /* null when empty; no zero follows the bytes */
  const uint64_t size = xfer_bufferSize(response.body);
  printf("in memory: %s, HTTP status %" PRId32 ", %" PRIu64 " bytes\n", xfer_errorText(response.error),
         response.httpStatus, size);
  if (size > 0) printf("begins with: %.*s\n", size < 20 ? (int)size : 20, body);

  xfer_bufferFree(response.body); /* and with it what body points to */
  return isWanted(&response);
}

/* What the callback below needs. */
typedef struct target {
  FILE* file;
  uint64_t bytesLeft;
  const char* stopped; /* why the callback ended the request; null: it did not */
} target;

/* Receives the body piece by piece, on the thread that runs the request.  Any result but 0 ends the request. */
static int32_t writePiece(void* user, int32_t httpStatus, const uint8_t* bytes, uint64_t size) {
  target* to = user;
  if (httpStatus != 200) {
    to->stopped = "not what was asked for";
    return 1;
  }
  if (size > to->bytesLeft) {
    to->stopped = "more bytes than wanted";
    return 1;
  }
  if (fwrite(bytes, 1, (size_t)size, to->file) != size) {
    to->stopped = "the file could not be written";
    return 1;
  }
  to->bytesLeft -= size;
  return 0;
}

static int fetchIntoFile(const char* url, const char* path, uint64_t mostBytes) {
  target to = {.file = fopen(path, "wb"), .bytesLeft = mostBytes};
  if (to.file == NULL) {
    perror(path);
    return 0;
  }

  xfer_request_options options;
  xfer_requestOptionsInit(&options, sizeof options);
  options.url = url;
  options.verifyPeer = XFER_VERIFY_ON;
  options.onBody = writePiece;
  options.user = &to;
  /* Another thread, that of a Cancel button for instance, can end the request with an xfer_cancel. */

  xfer_response response;
  xfer_responseInit(&response, sizeof response); /* no buffers: neither headers nor body are kept */
  xfer_request(&options, &response);
  if (fclose(to.file) != 0 && to.stopped == NULL) to.stopped = "the file could not be written";
  printf("into a file: %s, HTTP status %" PRId32 ", %" PRIu64 " bytes\n",
         to.stopped != NULL ? to.stopped : xfer_errorText(response.error), response.httpStatus, response.bodySize);
  return to.stopped == NULL && isWanted(&response);
}

int main(int argc, char** argv) {
  if (argc < 2 || argc > 4) {
    fprintf(stderr, "usage: memory URL [PATH [MOST_BYTES]]\n");
    return 2;
  }
  const char* url = argv[1];
  int good = fetchIntoMemory(url);
  if (good && argc > 2) {
    good = fetchIntoFile(url, argv[2], argc > 3 ? strtoull(argv[3], NULL, 10) : UINT64_MAX);
  }
  return good ? 0 : 1;
}
