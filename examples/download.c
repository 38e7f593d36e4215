/*
 * Downloads a file over several connections and is told of what happens.
 *
 *   download URL PATH
 */
#include <inttypes.h>
#include <stdio.h>

#include <xfer/xfer_download.h>

static const char* stateName(uint32_t state) {
  switch (state) {
    case XFER_STATE_IDLE:
      return "idle";
    case XFER_STATE_PROBING:
      return "asking the server";
    case XFER_STATE_RUNNING:
      return "running";
    case XFER_STATE_PAUSED:
      return "paused";
    case XFER_STATE_CANCELLING:
      return "cancelling";
    case XFER_STATE_COMPLETED:
      return "completed";
    case XFER_STATE_FAILED:
      return "failed";
    case XFER_STATE_CANCELLED:
      return "cancelled";
    default:
      return "?";
  }
}

/* Why a request or the download failed.  An error page has both numbers, and its HTTP status is the one that says why.
 */
static const char* textOf(int32_t error, int32_t httpStatus) {
  return xfer_errorText(httpStatus >= 400 ? httpStatus : error);
}

/* What the library did about a connection or a server that held the download up. */
static void printNote(const char* path, const xfer_event* event) {
  switch (event->note) {
    case XFER_NOTE_GIVEN_UP:
      printf("%s: a connection is replaced, it is %s\n", path, event->reason);
      break;
    case XFER_NOTE_TRIED_AGAIN:
      printf("%s: asks again: %s\n", path, textOf(event->error, event->httpStatus));
      break;
    case XFER_NOTE_HOST_LEFT_ALONE:
      printf("%s: sends the server nothing for %" PRIu64 " ms\n", path, event->waitMs);
      break;
    default: /* the other notes are told with XFER_NOTES_ALL only */
      break;
  }
}

/* Runs on a thread of the library, so it must lock what it shares with other threads.  user is what main has set. */
static void onEvent(void* user, const xfer_event* event) {
  const char* path = user;
  switch (event->kind) {
    case XFER_EVENT_STATE:
      printf("%s: %s\n", path, stateName(event->state));
      break;
    case XFER_EVENT_PROGRESS:
      printf("%s: %" PRIu64 " of %" PRIu64 " bytes\n", path, event->bytes, event->total);
      break;
    case XFER_EVENT_NOTE:
      printNote(path, event);
      break;
    default: /* XFER_EVENT_END, which main asks for itself, and what later versions may tell */
      break;
  }
  fflush(stdout);
}

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: download URL PATH\n");
    return 2;
  }

  xfer_download_options options;
  xfer_downloadOptionsInit(&options, sizeof options); /* always first: it sets the record's size and the defaults */
  options.url = argv[1];
  options.path = argv[2];
  options.plan = XFER_PLAN_ADAPTIVE; /* slow connections do not hold the download up */
  options.connections = 4;
  options.retryMaxTimeSec = 30;        /* without a byte, after which a failure is final */
  options.verifyPeer = XFER_VERIFY_ON; /* certificates are checked only when a host asks for it */
  options.onEvent = onEvent;
  options.user = argv[2];

  uint64_t id = 0;
  const int32_t started = xfer_downloadStart(&options, &id);
  if (started != 0) {
    fprintf(stderr, "not started: %s\n", xfer_errorText(started));
    return 1;
  }

  /* A program with a loop of its own need not wait: it can ask for the status whenever it likes. */
  xfer_status status;
  xfer_statusInit(&status, sizeof status);
  while (xfer_downloadWait(id, 1000) == XFER_NOT_ENDED) {
    if (xfer_downloadStatus(id, &status) == 0) {
      printf("%" PRIu64 " bytes/s, connections: %" PRIu32 "\n", status.bytesPerSec, status.connections);
      fflush(stdout);
    }
  }

  const int32_t known = xfer_downloadStatus(id, &status);
  if (known == 0) {
    printf("%s: %" PRIu64 " bytes, %s\n", stateName(status.state), status.bytes,
           textOf(status.error, status.httpStatus));
  } else {
    fprintf(stderr, "no status: %s\n", xfer_errorText(known));
  }
  xfer_downloadForget(id); /* from here on onEvent is not called any more */
  return known == 0 && status.state == XFER_STATE_COMPLETED ? 0 : 1;
}
