/*
 * Single requests with all that HTTP hosts need, for hosts in plain C: any method, a body of any bytes, answers in
 * memory or as they arrive, and a way to cancel.
 *
 *   xfer_request_options options;
 *   xfer_response response;
 *   xfer_requestOptionsInit(&options, sizeof options);
 *   xfer_responseInit(&response, sizeof response);
 *   options.url = "https://host/list.json";
 *   response.body = xfer_bufferNew();
 *   if (xfer_request(&options, &response) == 0 && response.httpStatus == 200) {
 *     fwrite(xfer_bufferData(response.body), 1, xfer_bufferSize(response.body), stdout);
 *   } else {
 *     fprintf(stderr, "%s (HTTP %d)\n", xfer_errorText(response.error), response.httpStatus);
 *   }
 *   xfer_bufferFree(response.body);
 *
 * Records begin with their size and grow at their end: hosts that were built with an older or a newer header than the
 * library are understood.
 *
 * Threads: any thread may call every function; a request runs on the caller's.
 * Errors:  numbers, for which xfer_errorText has words.  None of these functions throws.
 * Units:   sizes are bytes; times seconds.
 */
#ifndef XFER_XFER_REQUEST_H
#define XFER_XFER_REQUEST_H

#include <stdint.h>

#include "xfer/export.h"
#include "xfer/xfer.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What cancels requests, from any thread.  One may be given to several requests, at once or one after the other. */
typedef struct xfer_cancel xfer_cancel;

/* One that is not set; the caller frees it.  Null without memory. */
XFER_API xfer_cancel* xfer_cancelNew(void);

/*
 * Ends every request that was given this one within 100 ms, with 42, and every later one at once.  Not for signal
 * handlers, as it takes a lock.  Null: nothing.
 */
XFER_API void xfer_cancelSet(xfer_cancel* cancel);

/* Frees it.  Requests that were given it and still run go on, and cannot be cancelled any more.  Null: nothing. */
XFER_API void xfer_cancelFree(xfer_cancel* cancel);

/*
 * Receives a piece of the last answer's body, in order, on the thread that runs the request.  httpStatus is that
 * answer's.  Returns 0: go on; any other number: the request ends with 42.
 */
typedef int32_t (*xfer_body_callback)(void* user, int32_t httpStatus, const uint8_t* bytes, uint64_t size);

/*
 * Texts are UTF-8, read only during the call, and null where there is none.  Methods are case-sensitive; any token is
 * one, and HEAD takes no body.  POST, PUT and PATCH without a body tell a length of 0.  A body whose type no header
 * line tells goes out as application/x-www-form-urlencoded.
 */
typedef struct xfer_request_options {
  uint32_t size;         /* of the record; set by xfer_requestOptionsInit */
  uint32_t verifyPeer;   /* XFER_VERIFY_...; initially XFER_VERIFY_AS_SET */
  const char* url;       /* absolute, http or https */
  const char* method;    /* as "PUT"; null or empty: GET, and POST with a body.  A redirect keeps it, and the body */
  const char* headers;   /* lines "Name: value", separated by line feeds */
  const char* cookie;    /* value of the Cookie header */
  const char* proxy;     /* [user[:password]@]host[:port]; null or empty: that of xfer_setProxy */
  const char* userAgent; /* null or empty: that of xfer_setUserAgent */
  const char* caFile;    /* only with XFER_VERIFY_ON; null or empty: the system's store */
  const char* pinnedKey; /* "sha256//..."; null or empty: any key */
  const void* body;      /* any bytes; null only when bodySize is 0 */
  uint64_t bodySize;     /* its bytes */
  xfer_body_callback onBody;  /* null: the body goes into the response's buffer.  Else nothing of it is kept */
  void* user;                 /* for onBody */
  xfer_cancel* cancel;        /* null: the request cannot be cancelled */
  uint32_t maxRedirects;      /* 0: none is followed, and the redirect is the answer; initially 20 */
  uint32_t connectTimeoutSec; /* initially 15; 0: libcurl's 300.  More than 24 days count as 24, here and below */
  uint32_t timeoutSec;        /* for the whole request; initially 0: none */
  uint32_t lowSpeedTimeSec;   /* ended after so long below 1024 bytes per second; initially 10; 0: never */
} xfer_request_options;

/* Sets every field to its default.  size: sizeof *options.  Null: does nothing. */
XFER_API void xfer_requestOptionsInit(xfer_request_options* options, uint32_t size);

/* How a request ended.  The caller sets the two buffers and frees them. */
typedef struct xfer_response {
  uint32_t size;        /* of the record; set by xfer_responseInit */
  int32_t error;        /* out: what xfer_request returned */
  int32_t httpStatus;   /* out: of the last answer, also after a failure; 0: none came */
  uint32_t reserved;    /* out: 0 */
  uint64_t bodySize;    /* out: bytes of the body that have arrived, kept or not */
  xfer_buffer* headers; /* in: filled with the header lines of all answers; null: they are not kept */
  xfer_buffer* body;    /* in: filled with the last answer's body; null: it is not kept */
} xfer_response;

/* Sets every field to 0 and null.  size: sizeof *response.  Null: does nothing. */
XFER_API void xfer_responseInit(xfer_response* response, uint32_t size);

/*
 * Runs one request and blocks until it ends.  An answer with any HTTP status is a success.  The buffers hold what has
 * arrived, also after a failure, except without memory; a part of which nothing arrived leaves its buffer unchanged.
 *
 * Returns 0; libcurl's code of a failed transfer; -1: no transfer handle; 42: cancelled, or ended by onBody; 43: a
 * field cannot have its value, alone or with the others, and the log names it; 100000: out of memory; 100030, 100031:
 * as xfer_setTls; 100032: a record's size cannot be right, or it has fields that this library does not know; 100033:
 * options, response, url or a body with a size is null; 100035: verifyPeer is none of its enumerators; 100037: onBody
 * threw.  With 43 and with 100030 to 100035 nothing was sent, and of response only error is written, and not even that
 * where its own size cannot be right.  Of several mistakes the first counts: null records, sizes, other null pointers,
 * verifyPeer, caFile, and then the rest.
 */
XFER_API int32_t xfer_request(const xfer_request_options* options, xfer_response* response);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif
