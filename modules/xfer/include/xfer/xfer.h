/*
 * The C interface of xfer: requests into memory, downloads into files by numeric handle, and module-wide settings.
 *
 * Threads: every function may be called from any thread, unless it says otherwise.
 * Errors:  by number.  0 is success.  Positive numbers below 100000 that a function does not name are libcurl's codes;
 *          100000 is a caught exception, 100001 an unknown id.  No function throws: see the table below.
 * Texts:   UTF-8, ended by a zero byte, only read during the call.  A null text is taken as empty.
 * Units:   sizes are bytes, speeds bytes per second.
 *
 * Arguments that several functions share:
 *   headers  extra request header lines "Name: value", separated by line feeds
 *   cookie   value of the Cookie header; null or empty: none
 *   proxy    [username[:password]@]host[:port]; null or empty: the proxy of xfer_setProxy
 *   options  option lines separated by line feeds: "OPT_POSTFIELDS=" and a body makes the request a POST,
 *            "REDIRECT_POLICY_NEVER" refuses redirects; all else is ignored
 *
 * When memory runs out, a thread cannot be started or a buffer object throws, the exception is caught and the function
 * answers as follows.  All but xfer_downloadText log "<function> exception" as a failure.
 *   xfer_download            100000
 *   xfer_downloadText        -1; 100000 when it happens inside the transfer
 *   xfer_downloadAsync       100000; *dlId is not written, no request is started
 *   xfer_queryAsyncBuffer    100000; the id is unknown from then on
 *   xfer_downloadFile        an id, for which xfer_getProgress reports the end with 100000; 0 when no id can be filed
 *   xfer_downloadPause       100000
 *   xfer_downloadResume      100000
 *   xfer_stopDownloadHandle  true; the download is gone
 *   xfer_getProgress         0; no output is written
 *   xfer_getRemoteFileSize   1; *size is not written
 *   xfer_getContentLength    false; *length is -1
 *   xfer_setProxy            the proxy stays as it was
 *   xfer_ensureCurlInit      libcurl is brought up by the next call that needs it
 * The other functions allocate nothing and start no thread.
 */
#ifndef XFER_XFER_H
#define XFER_XFER_H

#include <stdint.h>

#include "xfer/export.h"

#ifdef __cplusplus
#include "sys/idata_buff.h"
typedef sys::IDataBuff xfer_buffer;
extern "C" {
#else
#include <stdbool.h>
/* A buffer object of the host's; its interface is C++ (sys/idata_buff.h). */
typedef struct xfer_buffer xfer_buffer;
#endif

/*
 * Fetches url and blocks until that has ended.  There is no limit on the whole time; connecting may take 15 s, and a
 * transfer below 1024 bytes per second for 10 s is given up.
 *
 * The response's headers (of redirects too) and its body are copied into the caller's buffers; an empty part leaves its
 * buffer as it was.  The HTTP status is not judged: an error page is a success.
 *
 * 0; libcurl's code of a failed transfer (what had arrived is in the buffers); -1: no transfer handle; 100000;
 * 100009: done, but outBody is empty.
 */
XFER_API int xfer_download(const char* url, const char* headers, const char* options, xfer_buffer* outHeaders,
                           xfer_buffer* outBody, const char* cookie, const char* proxy);

/*
 * Fetches a page of the video site as a desktop browser would, and blocks.  The buffers are filled only when the
 * answer's status is 200 to 299.
 *
 * 0; 100001: url is null; -1000 - status; -999: no status could be read; -1: a caught exception, or as xfer_download,
 * whose other results but 100009 pass through.
 */
XFER_API int32_t xfer_downloadText(const char* url, const char* cookie, xfer_buffer* outHeaders, xfer_buffer* outBody,
                                   const char* proxy);

/*
 * Starts a request in the background and stores its id in *dlId.  The id must be collected with
 * xfer_queryAsyncBuffer, or its result stays in memory until the module is unloaded.
 *
 * 0; 100000, and *dlId is not written.
 */
XFER_API int32_t xfer_downloadAsync(const char* url, uint64_t* dlId, const char* headers, const char* options,
                                    const char* cookie, const char* proxy);

/*
 * Waits for the request with that id and copies its result as xfer_download does.  The id is unknown from then on.
 *
 * 0; libcurl's code of a failed transfer; -1: no transfer handle; 100000: an exception, here or in the request; 100001;
 * 100009: done, but bodyOut is empty.
 */
XFER_API int32_t xfer_queryAsyncBuffer(uint64_t dlId, xfer_buffer* headersOut, xfer_buffer* bodyOut);

/*
 * Starts a download of url into the file at path and returns its id.  xfer_getProgress reports the outcome, failures
 * to start included.  0, which is never an id: out of memory, nothing was started.
 *
 * threads: connections at once; 0: the number of xfer_setNumThreads.  reserved is not read.  knownSize: the file's size
 * if the host knows it; 0: the server is asked.
 */
XFER_API uint64_t xfer_downloadFile(const char* url, const char* path, const char* headers, uint16_t threads,
                                    const char* cookie, uint64_t reserved, uint64_t knownSize, const char* proxy);

/* Holds a download that is running; does nothing in any other state.  0; 100000; 100001. */
XFER_API int32_t xfer_downloadPause(uint64_t dl_id);

/* Lets a paused download run on; does nothing in any other state.  0; 100000; 100001. */
XFER_API int32_t xfer_downloadResume(uint64_t dl_id);

/*
 * Cancels a download and forgets its id; returns when the download's threads have ended.  The partial file stays.
 * Takes well under a second.
 *
 * Whether there was such a download; one whose end xfer_getProgress has reported is gone.
 */
XFER_API bool xfer_stopDownloadHandle(uint64_t dl_id);

/*
 * Reports a download.  Always 0.
 *
 * *downloaded: the bytes received so far; *finished: 1 when it has ended, else 0; *errorCode: only written when it has
 * ended: 0 when the file is whole, 102 when it was cancelled, else the failure (a libcurl code, an HTTP status, 100000
 * for an exception, 100004 and 100024 when the file could not be made, 100006 when it was not open, -1 when it could
 * not be written or there was no transfer handle).
 *
 * The first call that finds a download ended ends its life: later ones give the same *errorCode, and 0 in *downloaded.
 * That result stays, by design, until the module is unloaded: about 64 bytes a download.  For an unknown id *finished
 * is 1 and the others are not written.
 */
XFER_API int32_t xfer_getProgress(uint64_t dl_id, uint64_t* downloaded, uint32_t* errorCode, uint8_t* finished);

/*
 * Asks the server for the size of url, and blocks for 10 s a try at most.  retries is the number of tries, at least 1.
 * *size is written on success only; *mediaType after each answer: 1 mp4, 2 flv, 3 3gp, 4 webm, 5 mpeg and 6 ogg video,
 * 7 octet stream, 11 mpeg audio, 12 jpeg, 0 anything else.
 *
 * 0; libcurl's code of the last try; -1: no transfer handle; 100: the last answer held no size; 1: a caught exception
 * (libcurl's 1, an unsupported protocol, looks the same).
 */
XFER_API int32_t xfer_getRemoteFileSize(const char* url, uint64_t* size, uint32_t* mediaType, const char* cookie,
                                        const char* headers, uint16_t retries, const char* proxy);

/*
 * Sets the proxy for every call that is given none; null or empty: no proxy.  Running transfers keep theirs.
 */
XFER_API void xfer_setProxy(const char* proxy);

/* Default connection count of later downloads, for a threads argument of 0; initially 1. */
XFER_API void xfer_setNumThreads(uint16_t value);

/* Limit of each download that is started from now on, over all its connections; 0: none. */
XFER_API void xfer_setMaxDownloadSpeed(uint64_t value);

/*
 * true: silences the traces of xfer_download when called on this thread, and every record of the request below it.  Its
 * own failure records are still written.  false, which is the initial setting: all is logged.
 */
XFER_API void xfer_setQuietMode(bool quiet);

/* Initialises libcurl now instead of with the first request. */
XFER_API void xfer_ensureCurlInit(void);

/* Ends libcurl.  For a host that is about to unload the module: nothing may be in flight, nothing may follow. */
XFER_API void xfer_curlGlobalCleanup(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#if defined(__cplusplus) && !defined(XFER_NO_CXX_LIBRARY)
#include <string>

/*
 * The size of url in *length, -1 when it cannot be learned; whether it is greater than 0.  Blocks, uses no
 * proxy.  Only for hosts that share the library's standard string.
 */
extern "C" XFER_API bool xfer_getContentLength(const std::string& url, int64_t* length);
#endif

#endif
