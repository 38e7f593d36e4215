"""Downloads a file, and fetches the same URL into memory, through the library's C interface.

    python3 download.py LIBRARY URL PATH

LIBRARY is the path of libxfer.so or xfer.dll."""
import ctypes
import sys
from ctypes import c_char_p, c_int32, c_uint32, c_uint64, c_void_p

# From xfer.h, xfer_download.h and xfer_request.h.
VERIFY_ON = 1
PLAN_ADAPTIVE = 1
EVENT_STATE, EVENT_PROGRESS, EVENT_NOTE, EVENT_END = range(4)
STATE_NAMES = ("idle", "asking the server", "running", "paused", "cancelling", "completed", "failed", "cancelled")
STATE_COMPLETED = 5
NOT_ENDED = 100038


# The records: field by field as in the headers, with the types that the headers give.
class Event(ctypes.Structure):
    _fields_ = [("size", c_uint32), ("kind", c_uint32), ("id", c_uint64), ("state", c_uint32),
                ("connections", c_uint32), ("bytes", c_uint64), ("total", c_uint64), ("bytesPerSec", c_uint64),
                ("error", c_int32), ("httpStatus", c_int32), ("note", c_uint32), ("connection", c_uint32),
                ("request", c_uint64), ("rangeStart", c_uint64), ("rangeEnd", c_uint64), ("position", c_uint64),
                ("waitMs", c_uint64), ("reason", c_char_p)]


EventCallback = ctypes.CFUNCTYPE(None, c_void_p, ctypes.POINTER(Event))


class DownloadOptions(ctypes.Structure):
    _fields_ = [("size", c_uint32), ("plan", c_uint32), ("url", c_char_p), ("path", c_char_p), ("headers", c_char_p),
                ("cookie", c_char_p), ("proxy", c_char_p), ("userAgent", c_char_p), ("caFile", c_char_p),
                ("pinnedKey", c_char_p), ("knownSize", c_uint64), ("maxSpeed", c_uint64),
                ("initialChunkSize", c_uint64), ("maxChunkSize", c_uint64), ("firstRange", c_uint64),
                ("limiter", c_void_p), ("onEvent", EventCallback), ("user", c_void_p), ("connections", c_uint32),
                ("verifyPeer", c_uint32), ("rampChunks", c_uint32), ("useHttp2", c_uint32),
                ("tcpKeepAlive", c_uint32), ("multiplex", c_uint32), ("chunkGrowthFactor", c_uint32),
                ("probeTimeoutSec", c_uint32), ("connectTimeoutSec", c_uint32), ("transferTimeoutSec", c_uint32),
                ("lowSpeedLimit", c_uint32), ("lowSpeedTimeSec", c_uint32), ("maxTries", c_uint32),
                ("retryMaxTimeSec", c_uint32), ("longestWaitSec", c_uint32), ("progressMs", c_uint32),
                ("notes", c_uint32), ("reserved", c_uint32)]


class Status(ctypes.Structure):
    _fields_ = [("size", c_uint32), ("state", c_uint32), ("bytes", c_uint64), ("total", c_uint64),
                ("bytesPerSec", c_uint64), ("connections", c_uint32), ("error", c_int32), ("httpStatus", c_int32),
                ("reserved", c_uint32)]


BodyCallback = ctypes.CFUNCTYPE(c_int32, c_void_p, c_int32, c_void_p, c_uint64)


class RequestOptions(ctypes.Structure):
    _fields_ = [("size", c_uint32), ("verifyPeer", c_uint32), ("url", c_char_p), ("method", c_char_p),
                ("headers", c_char_p), ("cookie", c_char_p), ("proxy", c_char_p), ("userAgent", c_char_p),
                ("caFile", c_char_p), ("pinnedKey", c_char_p), ("body", c_void_p), ("bodySize", c_uint64),
                ("onBody", BodyCallback), ("user", c_void_p), ("cancel", c_void_p), ("maxRedirects", c_uint32),
                ("connectTimeoutSec", c_uint32), ("timeoutSec", c_uint32), ("lowSpeedTimeSec", c_uint32)]


class Response(ctypes.Structure):
    _fields_ = [("size", c_uint32), ("error", c_int32), ("httpStatus", c_int32), ("reserved", c_uint32),
                ("bodySize", c_uint64), ("headers", c_void_p), ("body", c_void_p)]


def load(path):
    """The library, with the types of what is used here: without them ctypes cuts ids and pointers to 32 bits."""
    xfer = ctypes.CDLL(path)
    pointer = ctypes.POINTER
    for name, result, arguments in (
            ("xfer_errorText", c_char_p, [c_int32]),
            ("xfer_downloadOptionsInit", None, [pointer(DownloadOptions), c_uint32]),
            ("xfer_downloadStart", c_int32, [pointer(DownloadOptions), pointer(c_uint64)]),
            ("xfer_downloadStatus", c_int32, [c_uint64, pointer(Status)]),
            ("xfer_downloadWait", c_int32, [c_uint64, c_uint64]),
            ("xfer_downloadForget", c_int32, [c_uint64]),
            ("xfer_requestOptionsInit", None, [pointer(RequestOptions), c_uint32]),
            ("xfer_responseInit", None, [pointer(Response), c_uint32]),
            ("xfer_request", c_int32, [pointer(RequestOptions), pointer(Response)]),
            ("xfer_bufferNew", c_void_p, []),
            ("xfer_bufferData", c_void_p, [c_void_p]),
            ("xfer_bufferSize", c_uint64, [c_void_p]),
            ("xfer_bufferFree", None, [c_void_p])):
        function = getattr(xfer, name)
        function.restype = result
        function.argtypes = arguments
    return xfer


def text_of(xfer, code, http_status=0):
    """Why something failed.  An error page has both numbers, and its HTTP status is the one that says why."""
    return xfer.xfer_errorText(http_status if http_status >= 400 else code).decode()


def download(xfer, url, path):
    """Downloads url into the file at path; returns whether it is whole."""

    def on_event(_, event):  # runs on a thread of the library; the event is valid during the call only
        event = event.contents
        if event.kind == EVENT_STATE:
            print(f"state: {STATE_NAMES[event.state]}", flush=True)
        elif event.kind == EVENT_PROGRESS:
            print(f"{event.bytes} of {event.total} bytes", flush=True)

    callback = EventCallback(on_event)  # kept in a variable, or Python would free it while the library uses it
    options = DownloadOptions()
    xfer.xfer_downloadOptionsInit(options, ctypes.sizeof(options))
    options.url = url.encode()
    options.path = path.encode()
    options.plan = PLAN_ADAPTIVE  # slow connections do not hold the download up
    options.connections = 4
    options.retryMaxTimeSec = 30  # without a byte, after which a failure is final
    options.verifyPeer = VERIFY_ON  # certificates are checked only when a host asks for it
    options.onEvent = callback

    download_id = c_uint64()
    error = xfer.xfer_downloadStart(options, download_id)
    if error != 0:
        print(f"not started: {text_of(xfer, error)}")
        return False
    try:
        while xfer.xfer_downloadWait(download_id, 200) == NOT_ENDED:  # short, so that Ctrl-C is seen
            pass
        status = Status(size=ctypes.sizeof(Status))
        xfer.xfer_downloadStatus(download_id, status)
    finally:
        xfer.xfer_downloadForget(download_id)  # from here on the callback is not called any more
    print(f"{STATE_NAMES[status.state]}: {status.bytes} bytes, {text_of(xfer, status.error, status.httpStatus)}")
    return status.state == STATE_COMPLETED


def fetch(xfer, url):
    """The bytes at url; None when the server does not give them."""
    options = RequestOptions()
    xfer.xfer_requestOptionsInit(options, ctypes.sizeof(options))
    options.url = url.encode()
    options.verifyPeer = VERIFY_ON

    response = Response()
    xfer.xfer_responseInit(response, ctypes.sizeof(response))
    response.body = xfer.xfer_bufferNew()
    if not response.body:
        raise MemoryError
    try:
        error = xfer.xfer_request(options, response)
        body = ctypes.string_at(xfer.xfer_bufferData(response.body), xfer.xfer_bufferSize(response.body))
    finally:
        xfer.xfer_bufferFree(response.body)
    print(f"in memory: {text_of(xfer, error)}, HTTP status {response.httpStatus}, {len(body)} bytes")
    return body if error == 0 and response.httpStatus == 200 else None


def main():
    if len(sys.argv) != 4:
        sys.exit("usage: download.py LIBRARY URL PATH")
    library, url, path = sys.argv[1:]
    xfer = load(library)
    whole = download(xfer, url, path)
    body = fetch(xfer, url)
    return 0 if whole and body is not None else 1


sys.exit(main())
