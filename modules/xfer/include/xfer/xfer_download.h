/*
 * Downloads into files with all that a job can do, for hosts in plain C.
 *
 *   xfer_download_options options;
 *   uint64_t id = 0;
 *   xfer_downloadOptionsInit(&options, sizeof options);
 *   options.url = "https://host/big.bin";
 *   options.path = "big.bin";
 *   options.connections = 8;
 *   options.plan = XFER_PLAN_ADAPTIVE;
 *   if (xfer_downloadStart(&options, &id) != 0) ...
 *   while (xfer_downloadWait(id, 200) == XFER_NOT_ENDED) {
 *     xfer_status status;
 *     xfer_statusInit(&status, sizeof status);
 *     xfer_downloadStatus(id, &status);
 *     ...
 *   }
 *   xfer_downloadForget(id);
 *
 * Records begin with their size and grow at their end: hosts that were built with an older or a newer header than the
 * library are understood.
 *
 * Threads: any thread may call every function.
 * Errors:  numbers, for which xfer_errorText has words.  None of these functions throws.  Beside what stands with each:
 *          100000: out of memory or threads; 100001: no such download; 100032: the record's size cannot be right, or it
 *          has fields that this library does not know; 100033: a null pointer where none may be; 100034: the id is one
 *          of xfer_downloadFile or xfer_downloadAsync; 100035: a field is none of its enumerators.
 * Units:   offsets and sizes are bytes, speeds bytes per second; times seconds unless a name says otherwise.
 */
#ifndef XFER_XFER_DOWNLOAD_H
#define XFER_XFER_DOWNLOAD_H

#include <stdint.h>

#include "xfer/export.h"
#include "xfer/xfer.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Which bytes each connection fetches: see DownloadPlan in xfer/download_options.h. */
enum {
  XFER_PLAN_STATED = 0,  /* ranges that are cut before the download starts */
  XFER_PLAN_ADAPTIVE = 1 /* ranges that are cut by measured rates */
};

/* Which notes a download tells: see DownloadNotes in xfer/download_options.h. */
enum {
  XFER_NOTES_MAIN = 0, /* a connection given up, a try repeated, a host left alone */
  XFER_NOTES_ALL = 1   /* every one */
};

/* A speed limit that several downloads keep together: see SpeedLimiter in xfer/speed_limiter.h. */
typedef struct xfer_speed_limiter xfer_speed_limiter;

/* A new one; 0: unlimited.  The caller frees it.  Null without memory. */
XFER_API xfer_speed_limiter* xfer_speedLimiterNew(uint64_t bytesPerSec);

/* Counts at once, also for what is running.  Null: does nothing. */
XFER_API void xfer_speedLimiterSet(xfer_speed_limiter* limiter, uint64_t bytesPerSec);

/* Frees it; downloads that were given it keep the limit.  Null: does nothing. */
XFER_API void xfer_speedLimiterFree(xfer_speed_limiter* limiter);

/* What an event is about. */
enum {
  XFER_EVENT_STATE = 0,    /* state is the download's new one, which is not final */
  XFER_EVENT_PROGRESS = 1, /* more bytes have arrived */
  XFER_EVENT_NOTE = 2,     /* see note */
  XFER_EVENT_END = 3       /* the last one; state, error and httpStatus say how it ended */
};

/* What a note says: see DownloadEvent in xfer/download_history.h for the fields that each has. */
enum {
  XFER_NOTE_BEGUN = 1,          /* a request is on its way */
  XFER_NOTE_ANSWERED = 2,       /* its answer has begun */
  XFER_NOTE_CUT = 3,            /* its end is lower now */
  XFER_NOTE_GIVEN_UP = 4,       /* the connection is replaced; reason says why */
  XFER_NOTE_OVERTAKEN = 5,      /* another request has brought its bytes */
  XFER_NOTE_ENDED = 6,          /* with error and httpStatus */
  XFER_NOTE_TRIED_AGAIN = 7,    /* after waitMs; error and httpStatus say why, as those of xfer_status do */
  XFER_NOTE_HOST_LEFT_ALONE = 8 /* for waitMs */
};

/* What a download tells its host. */
typedef struct xfer_event {
  uint32_t size;        /* of the record */
  uint32_t kind;        /* XFER_EVENT_... */
  uint64_t id;          /* of the download */
  uint32_t state;       /* XFER_STATE_... */
  uint32_t connections; /* requests under way */
  uint64_t bytes;       /* received so far */
  uint64_t total;       /* size of the file; 0: unknown */
  uint64_t bytesPerSec; /* last measured speed */
  int32_t error;        /* of a note or the end; 0: none */
  int32_t httpStatus;   /* of a note or the end; 0: none */
  uint32_t note;        /* XFER_NOTE_...; 0: none, as are the fields below then */
  uint32_t connection;  /* from 1 on; 0: none */
  uint64_t request;     /* from 1 on; 0: none */
  uint64_t rangeStart;  /* of the request's range */
  uint64_t rangeEnd;    /* exclusive; 0: as long as it goes */
  uint64_t position;    /* exclusive end of what has arrived of the range */
  uint64_t waitMs;      /* of XFER_NOTE_TRIED_AGAIN and XFER_NOTE_HOST_LEFT_ALONE */
  const char* reason;   /* static; "" where there is none */
} xfer_event;

/*
 * Called on one thread of the library for all downloads, one call after the other; a slow one delays other calls and
 * slows no transfer.  event: valid during the call.  Every function may be called from inside but xfer_downloadWait,
 * which returns 100036 then.
 */
typedef void (*xfer_event_callback)(void* user, const xfer_event* event);

/* Texts are UTF-8, copied by xfer_downloadStart, and null where there is none. */
typedef struct xfer_download_options {
  uint32_t size;               /* of the record; set by xfer_downloadOptionsInit */
  uint32_t plan;               /* initially XFER_PLAN_STATED */
  const char* url;             /* http or https */
  const char* path;            /* of the local file; replaced when it exists */
  const char* headers;         /* lines "Name: value", each ended by a line feed */
  const char* cookie;          /* value of the Cookie header */
  const char* proxy;           /* [user[:password]@]host[:port]; null or empty: that of xfer_setProxy */
  const char* userAgent;       /* null or empty: that of xfer_setUserAgent */
  const char* caFile;          /* only with XFER_VERIFY_ON; null or empty: the system's store */
  const char* pinnedKey;       /* "sha256//..."; null or empty: any key */
  uint64_t knownSize;          /* 0: unknown */
  uint64_t maxSpeed;           /* of the whole download; 0: unlimited */
  uint64_t initialChunkSize;   /* of the first chunk, as the one below with the stated plan only */
  uint64_t maxChunkSize;       /* of the later ones, at most */
  uint64_t firstRange;         /* 0: not set.  Only with the adaptive plan */
  xfer_speed_limiter* limiter; /* null: none */
  xfer_event_callback onEvent; /* null: nothing is told */
  void* user;                  /* for onEvent */
  uint32_t connections;        /* most at once; 0 (initially): that of xfer_setNumThreads */
  uint32_t verifyPeer;         /* XFER_VERIFY_...; initially XFER_VERIFY_AS_SET */
  uint32_t rampChunks;         /* 0 or 1, as the three below */
  uint32_t useHttp2;           /* over TLS */
  uint32_t tcpKeepAlive;       /* send keep-alive probes */
  uint32_t multiplex;          /* transfers may share one HTTP/2 connection */
  uint32_t chunkGrowthFactor;  /* of one chunk to the one before */
  uint32_t probeTimeoutSec;    /* for the whole probe; 0: none */
  uint32_t connectTimeoutSec;  /* 0: libcurl's 300 */
  uint32_t transferTimeoutSec; /* for one request; 0: none */
  uint32_t lowSpeedLimit;      /* bytes per second below which a request counts as stalled; 0: never */
  uint32_t lowSpeedTimeSec;    /* a request that stalls so long is ended; 0: never */
  uint32_t maxTries;           /* 0: not set.  Only with the adaptive plan, as the two below */
  uint32_t retryMaxTimeSec;    /* 0: no limit */
  uint32_t longestWaitSec;     /* 0: not set; a server that asks for a longer wait ends the download */
  uint32_t progressMs;         /* progress is told at most once in so many milliseconds; initially 100; 0: never */
  uint32_t notes;              /* XFER_NOTES_...; initially XFER_NOTES_MAIN */
  uint32_t reserved;           /* 0 */
} xfer_download_options;

/*
 * Sets every field to its default: those of DownloadPolicy and DownloadOptions (xfer/download_records.h and
 * xfer/download_options.h), which also say what each field means.  size: sizeof *options, of which no byte more is
 * written.  Null: does nothing.
 */
XFER_API void xfer_downloadOptionsInit(xfer_download_options* options, uint32_t size);

/*
 * Starts a download and stores its id, which is never 0.  Its outcome is told by xfer_downloadStatus; the id is known
 * until xfer_downloadForget, or until the module is unloaded.  xfer_downloadPause and xfer_downloadResume take it too;
 * a pause costs nothing (see DownloadJob::pause about jobs with options).
 *
 * Returns 0; 43: a field cannot have its value, alone or with the others, and the log names it; 100030, 100031: as
 * xfer_setTls.  *id is not written then, and nothing is started.  onEvent may be called before this returns.
 */
XFER_API int32_t xfer_downloadStart(const xfer_download_options* options, uint64_t* id);

/* The states of a download; the last three are final. */
enum {
  XFER_STATE_IDLE = 0,       /* not started */
  XFER_STATE_PROBING = 1,    /* asking the server for the file's size */
  XFER_STATE_RUNNING = 2,    /* transferring ranges */
  XFER_STATE_PAUSED = 3,     /* transfers are held */
  XFER_STATE_CANCELLING = 4, /* tearing down transfers */
  XFER_STATE_COMPLETED = 5,  /* the file is whole */
  XFER_STATE_FAILED = 6,     /* error and httpStatus say why */
  XFER_STATE_CANCELLED = 7   /* stopped by xfer_downloadCancel */
};

/* Where a download is. */
typedef struct xfer_status {
  uint32_t size;        /* of the record; set by xfer_statusInit */
  uint32_t state;       /* XFER_STATE_... */
  uint64_t bytes;       /* received so far */
  uint64_t total;       /* size of the file; 0: unknown */
  uint64_t bytesPerSec; /* last measured speed; 0 in the first half second */
  uint32_t connections; /* requests under way */
  int32_t error;        /* 0: none, or not ended; else why it ended: see DownloadSnapshot::errorCode; 102: cancelled */
  int32_t httpStatus;   /* of the request that failed; 0: none */
  uint32_t reserved;    /* 0 */
} xfer_status;

/* Sets every field to 0.  size: sizeof *status.  Null: does nothing. */
XFER_API void xfer_statusInit(xfer_status* status, uint32_t size);

/* Reports where a download is, as often as the host likes.  Sets as much of the record as its size says.  Returns 0. */
XFER_API int32_t xfer_downloadStatus(uint64_t id, xfer_status* status);

/* What xfer_downloadWait returns when the time is over. */
enum {
  XFER_NOT_ENDED = 100038 /* the download goes on */
};

/*
 * Blocks until the download has ended and a call of onEvent with XFER_EVENT_END has returned, or the time is over.
 * Returns 0: it has ended; XFER_NOT_ENDED; 100036: called from inside of an onEvent.
 */
XFER_API int32_t xfer_downloadWait(uint64_t id, uint64_t milliseconds);

/* Limits the download's speed from now on, over all its connections; 0: unlimited.  Returns 0. */
XFER_API int32_t xfer_downloadSetSpeed(uint64_t id, uint64_t bytesPerSec);

/* Requests cancellation and returns at once; the partial file stays.  Returns 0, also when the download has ended. */
XFER_API int32_t xfer_downloadCancel(uint64_t id);

/*
 * Cancels a download that has not ended, waits until it has, well under a second, and forgets its id.  Nothing is told
 * of it once this has returned, its end included: this waits for a call of onEvent about it that runs on another
 * thread, so that nothing that onEvent needs may wait for this.  Returns 0.
 */
XFER_API int32_t xfer_downloadForget(uint64_t id);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
