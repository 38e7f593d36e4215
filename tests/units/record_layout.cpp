// Where the fields of the C interface's records are, on every platform: hosts that are built already count on it.  A
// new field goes to the end, and adds lines here; none that is here ever changes.  The compiler is the test.
#include <cstddef>

#include "xfer/xfer_download.h"
#include "xfer/xfer_request.h"

#define FIELD(record, field, offset) static_assert(offsetof(record, field) == (offset))

FIELD(xfer_download_options, size, 0);
FIELD(xfer_download_options, plan, 4);
FIELD(xfer_download_options, url, 8);
FIELD(xfer_download_options, path, 16);
FIELD(xfer_download_options, headers, 24);
FIELD(xfer_download_options, cookie, 32);
FIELD(xfer_download_options, proxy, 40);
FIELD(xfer_download_options, userAgent, 48);
FIELD(xfer_download_options, caFile, 56);
FIELD(xfer_download_options, pinnedKey, 64);
FIELD(xfer_download_options, knownSize, 72);
FIELD(xfer_download_options, maxSpeed, 80);
FIELD(xfer_download_options, initialChunkSize, 88);
FIELD(xfer_download_options, maxChunkSize, 96);
FIELD(xfer_download_options, firstRange, 104);
FIELD(xfer_download_options, limiter, 112);
FIELD(xfer_download_options, onEvent, 120);
FIELD(xfer_download_options, user, 128);
FIELD(xfer_download_options, connections, 136);
FIELD(xfer_download_options, verifyPeer, 140);
FIELD(xfer_download_options, rampChunks, 144);
FIELD(xfer_download_options, useHttp2, 148);
FIELD(xfer_download_options, tcpKeepAlive, 152);
FIELD(xfer_download_options, multiplex, 156);
FIELD(xfer_download_options, chunkGrowthFactor, 160);
FIELD(xfer_download_options, probeTimeoutSec, 164);
FIELD(xfer_download_options, connectTimeoutSec, 168);
FIELD(xfer_download_options, transferTimeoutSec, 172);
FIELD(xfer_download_options, lowSpeedLimit, 176);
FIELD(xfer_download_options, lowSpeedTimeSec, 180);
FIELD(xfer_download_options, maxTries, 184);
FIELD(xfer_download_options, retryMaxTimeSec, 188);
FIELD(xfer_download_options, longestWaitSec, 192);
FIELD(xfer_download_options, progressMs, 196);
FIELD(xfer_download_options, notes, 200);
FIELD(xfer_download_options, reserved, 204);
static_assert(sizeof(xfer_download_options) == 208);

FIELD(xfer_event, size, 0);
FIELD(xfer_event, kind, 4);
FIELD(xfer_event, id, 8);
FIELD(xfer_event, state, 16);
FIELD(xfer_event, connections, 20);
FIELD(xfer_event, bytes, 24);
FIELD(xfer_event, total, 32);
FIELD(xfer_event, bytesPerSec, 40);
FIELD(xfer_event, error, 48);
FIELD(xfer_event, httpStatus, 52);
FIELD(xfer_event, note, 56);
FIELD(xfer_event, connection, 60);
FIELD(xfer_event, request, 64);
FIELD(xfer_event, rangeStart, 72);
FIELD(xfer_event, rangeEnd, 80);
FIELD(xfer_event, position, 88);
FIELD(xfer_event, waitMs, 96);
FIELD(xfer_event, reason, 104);
static_assert(sizeof(xfer_event) == 112);

FIELD(xfer_status, size, 0);
FIELD(xfer_status, state, 4);
FIELD(xfer_status, bytes, 8);
FIELD(xfer_status, total, 16);
FIELD(xfer_status, bytesPerSec, 24);
FIELD(xfer_status, connections, 32);
FIELD(xfer_status, error, 36);
FIELD(xfer_status, httpStatus, 40);
FIELD(xfer_status, reserved, 44);
static_assert(sizeof(xfer_status) == 48);

FIELD(xfer_request_options, size, 0);
FIELD(xfer_request_options, verifyPeer, 4);
FIELD(xfer_request_options, url, 8);
FIELD(xfer_request_options, method, 16);
FIELD(xfer_request_options, headers, 24);
FIELD(xfer_request_options, cookie, 32);
FIELD(xfer_request_options, proxy, 40);
FIELD(xfer_request_options, userAgent, 48);
FIELD(xfer_request_options, caFile, 56);
FIELD(xfer_request_options, pinnedKey, 64);
FIELD(xfer_request_options, body, 72);
FIELD(xfer_request_options, bodySize, 80);
FIELD(xfer_request_options, onBody, 88);
FIELD(xfer_request_options, user, 96);
FIELD(xfer_request_options, cancel, 104);
FIELD(xfer_request_options, maxRedirects, 112);
FIELD(xfer_request_options, connectTimeoutSec, 116);
FIELD(xfer_request_options, timeoutSec, 120);
FIELD(xfer_request_options, lowSpeedTimeSec, 124);
static_assert(sizeof(xfer_request_options) == 128);

FIELD(xfer_response, size, 0);
FIELD(xfer_response, error, 4);
FIELD(xfer_response, httpStatus, 8);
FIELD(xfer_response, reserved, 12);
FIELD(xfer_response, bodySize, 16);
FIELD(xfer_response, headers, 24);
FIELD(xfer_response, body, 32);
static_assert(sizeof(xfer_response) == 40);
