/*
 * The C interface of xfer: requests into memory, downloads into files by numeric id, and module-wide settings.
 *
 * Threads: any thread may call every function, except xfer_curlGlobalCleanup while anything is in flight.
 * Errors:  by number.  0 is success.  Positive numbers below 100000 that a function does not name are libcurl's codes;
 *          100000 is a caught exception, 100001 an unknown id.  No function throws: see the table below.
 * Texts:   UTF-8, zero-terminated, read only during the call.  Null means empty unless a function says otherwise.
 * Units:   sizes are bytes, speeds bytes per second.
 *
 * Common arguments:
 *   headers  extra request header lines "Name: value", separated by line feeds
 *   cookie   value of the Cookie header; null or empty: none
 *   proxy    [username[:password]@]host[:port], used for every host; null or empty: the proxy of xfer_setProxy.  Proxy
 *            variables of the environment are not read
 *   options  option lines separated by line feeds: "OPT_POSTFIELDS=" and a body makes the request a POST,
 *            "REDIRECT_POLICY_NEVER" disables redirects; other lines are ignored
 *
 * The cookie, and header lines Cookie and Authorization, go to the scheme, host and port of url only, and from http to
 * https of the same host when both ports are the standard ones; a redirect elsewhere is followed without them.
 *
 * When memory runs out, a thread cannot be started or a buffer object throws, the function catches the exception and
 * returns as follows.  All but xfer_downloadText log "<function> exception" as a failure.
 *   xfer_download            100000
 *   xfer_downloadText        -1; 100000 when thrown inside the transfer
 *   xfer_downloadAsync       100000; *dlId is not written, no request is started
 *   xfer_queryAsyncBuffer    100000; the id is unknown from then on
 *   xfer_downloadFile        an id for which xfer_getProgress reports 100000; 0 when no id can be stored
 *   xfer_downloadPause       100000
 *   xfer_downloadResume      100000
 *   xfer_stopDownloadHandle  true; the download is gone
 *   xfer_getProgress         0; no output is written
 *   xfer_getRemoteFileSize   1; *size is not written
 *   xfer_getContentLength    false; *length is -1
 *   xfer_setProxy            the proxy stays as it was
 *   xfer_setTls              100000; the setting stays as it was
 *   xfer_setUserAgent        100000; the setting stays as it was
 *   xfer_ensureCurlInit      the next call that needs libcurl initialises it
 *   xfer_bufferNew           null
 * The other functions allocate nothing but log records and start no thread.
 */
#ifndef XFER_XFER_H
#define XFER_XFER_H

#include <stdint.h>

#include "xfer/export.h"
#include "xfer/version.h"

#ifdef __cplusplus
#include "sys/idata_buff.h"
/* A buffer: one of xfer_bufferNew, or an object of a host's own class. */
typedef sys::IDataBuff xfer_buffer;
extern "C" {
#else
#include <stdbool.h>
/* A buffer: one of xfer_bufferNew, or an object of a C++ host's (sys/idata_buff.h). */
typedef struct xfer_buffer xfer_buffer;
#endif

/* The version of the library that is loaded, as XFER_VERSION_TEXT of its headers: "1.0.0".  Static text. */
XFER_API const char* xfer_version(void);

/*
 * Words for every number that a function of this interface returns or reports: "success", "the file could not be
 * created, ...", "HTTP 404: not found".  In English, static, never null; "unknown code" for any other number.
 */
XFER_API const char* xfer_errorText(int32_t code);

/* An empty buffer of the library's, for the functions below; the caller frees it.  Null without memory. */
XFER_API xfer_buffer* xfer_bufferNew(void);

/* Its bytes, until it is filled again or freed; null while it is empty.  Any buffer, a host's own too; not null. */
XFER_API const uint8_t* xfer_bufferData(const xfer_buffer* buffer);

/* The number of its bytes.  Any buffer; not null. */
XFER_API uint64_t xfer_bufferSize(const xfer_buffer* buffer);

/* Frees a buffer of xfer_bufferNew, and no other.  Null: does nothing. */
XFER_API void xfer_bufferFree(xfer_buffer* buffer);

/*
 * Fetches url and blocks until the transfer ends.  The total time is unlimited; connecting times out after 15 s, and a
 * transfer below 1024 bytes per second for 10 s is aborted.
 *
 * Copies the response headers (those of redirects too) and the body into the caller's buffers; an empty part leaves its
 * buffer unchanged.  Ignores the HTTP status: an error page is a success.
 *
 * Returns 0; libcurl's code of a failed transfer (the buffers hold what arrived); -1: no transfer handle; 100000;
 * 100009: complete, but outBody is empty.
 */
XFER_API int xfer_download(const char* url, const char* headers, const char* options, xfer_buffer* outHeaders,
                           xfer_buffer* outBody, const char* cookie, const char* proxy);

/*
 * Fetches a page of the video site with a desktop browser's headers, and blocks.  Fills the buffers only when the
 * status is 200 to 299.  The status is that of the first response, also when that is a redirect or a proxy's reply to
 * CONNECT.
 *
 * Returns 0; 100001: url is null; -1000 - status; -999: no status could be read; -1: a caught exception, or no transfer
 * handle; any other result of xfer_download but 100009, which counts as 0.
 */
XFER_API int32_t xfer_downloadText(const char* url, const char* cookie, xfer_buffer* outHeaders, xfer_buffer* outBody,
                                   const char* proxy);

/*
 * Starts a request in the background and stores its id in *dlId.  Collect the result with xfer_queryAsyncBuffer;
 * otherwise it stays in memory until the module is unloaded.
 *
 * Returns 0; 100000: *dlId is not written.
 */
XFER_API int32_t xfer_downloadAsync(const char* url, uint64_t* dlId, const char* headers, const char* options,
                                    const char* cookie, const char* proxy);

/*
 * Waits for the request and copies its result as xfer_download does.  The id is unknown from then on.
 *
 * Returns 0; libcurl's code of a failed transfer; -1: no transfer handle; 100000: an exception, here or in the request;
 * 100001; 100009: complete, but bodyOut is empty.
 */
XFER_API int32_t xfer_queryAsyncBuffer(uint64_t dlId, xfer_buffer* headersOut, xfer_buffer* bodyOut);

/*
 * Starts a download of url into the file at path and returns its id, which is never 0.  xfer_getProgress reports the
 * outcome, also of a failure to start.  Returns 0 when out of memory; nothing is started then.
 *
 * threads: number of connections; 0: that of xfer_setNumThreads.  reserved: ignored.  knownSize: the file's size; 0:
 * unknown, the server is probed.
 */
XFER_API uint64_t xfer_downloadFile(const char* url, const char* path, const char* headers, uint16_t threads,
                                    const char* cookie, uint64_t reserved, uint64_t knownSize, const char* proxy);

/*
 * Holds a running download; does nothing in any other state.
 *
 * Intended: two things that happen during a pause leave the download at a stand-still, which xfer_downloadResume does
 * not end; xfer_getProgress then never reports it finished:
 *   - a retry falls due: it is dropped, and the download never completes.  Stop it and start it again;
 *   - the last range ends: the file is whole, but the download stays paused, and running after xfer_downloadResume.
 *     Stopping it keeps the file.
 *
 * Returns 0; 100000; 100001.
 */
XFER_API int32_t xfer_downloadPause(uint64_t dl_id);

/*
 * Continues a paused download; does nothing in any other state.  See xfer_downloadPause for when it cannot complete any
 * more.  Returns 0; 100000; 100001.
 */
XFER_API int32_t xfer_downloadResume(uint64_t dl_id);

/*
 * Cancels a download, waits for its threads, well under a second, and forgets its id.  The partial file stays.
 *
 * Returns false when there is no such download of xfer_downloadFile, it could not be started, or xfer_getProgress has
 * reported its end.
 */
XFER_API bool xfer_stopDownloadHandle(uint64_t dl_id);

/*
 * Reports a download's progress.  Always returns 0.
 *
 * *downloaded: bytes received so far.  *finished: 1 when the download has ended, else 0.  *errorCode: written only when
 * it has ended: 0: the file is whole; 102: cancelled; else the failure: a libcurl code, an HTTP status, 100000: an
 * exception, 100004 or 100024: the file could not be created, 100006: it was not open, -1: a write failed or there was
 * no transfer handle.
 *
 * The first call that finds the download ended releases it; later calls give the same *errorCode, and 0 in *downloaded.
 * Intended: this result is kept until the module is unloaded, about 64 bytes a download.  For an unknown id, as one of
 * xfer_downloadStart is here, *finished is 1 and the others are not written.
 */
XFER_API int32_t xfer_getProgress(uint64_t dl_id, uint64_t* downloaded, uint32_t* errorCode, uint8_t* finished);

/*
 * Asks the server for the size of url; blocks for at most 10 s per try.  retries: number of tries; 0 counts as 1.
 * Writes *size on success only, and *mediaType after each response: 1 mp4, 2 flv, 3 3gp, 4 webm, 5 mpeg and 6 ogg
 * video, 7 octet stream, 11 mpeg audio, 12 jpeg, 0 anything else.
 *
 * Returns 0; libcurl's code of the last try; -1: no transfer handle; 100: the last response gave no size; 1: a caught
 * exception, or libcurl's code for an unsupported protocol.
 */
XFER_API int32_t xfer_getRemoteFileSize(const char* url, uint64_t* size, uint32_t* mediaType, const char* cookie,
                                        const char* headers, uint16_t retries, const char* proxy);

/*
 * Sets the default proxy, for calls with a proxy argument that is null or empty; null or empty: no proxy.  Running
 * transfers keep theirs.
 */
XFER_API void xfer_setProxy(const char* proxy);

/*
 * Whether later requests and downloads of this interface check certificates; at first they do not.  caFile: a PEM file
 * with the certificates that are trusted, UTF-8, read now and whenever a connection is made; null or empty: the
 * system's store (the distribution's bundle on Linux, the native store on Windows).  What is refused ends with
 * libcurl's code 60.
 *
 * Returns 0; 43: a caFile without verify; 100000; 100030: the file cannot be read; 100031: it holds no certificate. The
 * setting stays as it was then.
 */
XFER_API int32_t xfer_setTls(bool verify, const char* caFile);

/* Whether one request or download checks certificates, where its record says so. */
enum {
  XFER_VERIFY_AS_SET = 0, /* as xfer_setTls says, its caFile included */
  XFER_VERIFY_ON = 1,     /* checks them, whatever xfer_setTls says */
  XFER_VERIFY_OFF = 2     /* does not */
};

/*
 * The User-Agent header of later requests and downloads of this interface, where their header lines have none; null or
 * empty: that of a desktop browser, as at first.  xfer_downloadText keeps its own.
 *
 * Returns 0; 43: the text has a line break; 100000.  The setting stays as it was then.
 */
XFER_API int32_t xfer_setUserAgent(const char* userAgent);

/* Sets the connection count of later downloads whose threads argument is 0; initially 1.  0 counts as 1. */
XFER_API void xfer_setNumThreads(uint16_t value);

/* Limits the speed of each later xfer_downloadFile, over all its connections; 0 (the initial value): unlimited. */
XFER_API void xfer_setMaxDownloadSpeed(uint64_t value);

/*
 * true: xfer_download calls on this thread log no traces, and their requests log nothing.  xfer_download still logs its
 * own failures.  false (the initial value): everything is logged.
 */
XFER_API void xfer_setQuietMode(bool quiet);

/* Initialises libcurl and the share handle now instead of with the first request. */
XFER_API void xfer_ensureCurlInit(void);

/* Releases the share handles and libcurl's global state.  Call it only just before unloading the module: nothing may be
 * in flight, and no call may follow. */
XFER_API void xfer_curlGlobalCleanup(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#if defined(__cplusplus) && !defined(XFER_NO_CXX_LIBRARY)
#include <string>

/*
 * Stores the size of url in *length, or -1 when the server gives none; returns whether it is greater than 0.  Blocks;
 * uses no proxy.  Only for hosts that share the library's std::string.
 */
extern "C" XFER_API bool xfer_getContentLength(const std::string& url, int64_t* length);
#endif

#endif
