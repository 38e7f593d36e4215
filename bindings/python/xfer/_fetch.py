"""Single requests.

Threads: any thread may call fetch.  The request runs on a thread of its own, so that Ctrl-C is seen at once; what the
         caller passes runs on the caller's.
Errors:  FetchError when no whole answer came; TypeError and ValueError for arguments.
Units:   sizes are bytes, times seconds."""
from __future__ import annotations

import collections
import ctypes
import threading
import time
from collections.abc import Callable, Iterator, Mapping
from typing import BinaryIO, NamedTuple, Optional, Union

from . import _arguments, _native
from ._errors import FetchError, described

_SLICE = 0.1  # of a wait, so that Ctrl-C is seen on every platform
_KEPT_PIECES = 64  # that the caller has not taken yet; libcurl's are up to 16 KiB
_LONGEST_END = 5  # that a cancelled request has to end, of which it needs 0.1


class Headers(Mapping[str, str]):
    """Header lines of an answer.  Names are compared without regard to case."""

    def __init__(self, lines: list[tuple[str, str]]) -> None:
        self.lines = lines  # name and value, as they came

    def get_all(self, name: str) -> list[str]:
        """The values of every line with this name."""
        return [value for key, value in self.lines if key.lower() == name.lower()]

    def __getitem__(self, name: str) -> str:
        """The value of the first line with this name."""
        for key, value in self.lines:
            if key.lower() == name.lower():
                return value
        raise KeyError(name)

    def __contains__(self, name: object) -> bool:
        return isinstance(name, str) and bool(self.get_all(name))

    def __iter__(self) -> Iterator[str]:
        return iter({key.lower(): key for key, _ in reversed(self.lines)}.values())

    def __len__(self) -> int:
        return len({key.lower() for key, _ in self.lines})

    def __repr__(self) -> str:
        return f"Headers({self.lines!r})"


class Response(NamedTuple):
    """An answer.  After redirects it is the last one's."""
    status: int
    headers: Headers
    body: bytes  # empty where stream has received it


def _last_headers(raw: bytes) -> Headers:
    """Of the header lines of all answers, those of the last one."""
    lines: list[tuple[str, str]] = []
    ended = True
    for line in raw.decode("latin-1").split("\n"):
        line = line.rstrip("\r")
        if line.startswith("HTTP/") and ended:
            lines = []
            ended = False
        elif not line:
            ended = True
        elif not ended and line[0] in " \t" and lines:  # a value that goes on
            lines[-1] = (lines[-1][0], f"{lines[-1][1]} {line.strip()}")
        elif not ended and ":" in line:
            name, value = line.split(":", 1)
            lines.append((name.strip(), value.strip()))
    return Headers(lines)


class _Request:
    """A request on its own thread, which frees what it was given; the caller takes the pieces of the body."""

    def __init__(self, record: _native.RequestOptions, sent: bytes, streamed: bool) -> None:
        self._library = _native.library()
        self._record: Optional[_native.RequestOptions] = record
        self._sent = sent  # the record points into it
        self._streamed = streamed
        self._changed = threading.Condition()
        self._pieces: collections.deque[tuple[int, bytes]] = collections.deque()
        self._stopped = False  # nothing is taken any more
        self._begun = False
        self._over = False
        self._cancel: Optional[int] = None  # guarded by _changed; None before and after the request
        self.code = 0
        self.status = 0
        self.headers = b""
        self.body = b""
        self.error: Optional[BaseException] = None
        self._thread = threading.Thread(target=self._run, name="xfer.fetch", daemon=True)

    def start(self) -> None:
        with _native.starting():
            _live.add(self)
            self._begun = True
            try:
                self._thread.start()
            except RuntimeError:  # no thread is left; anything else may have come after it was started
                self._begun = False
                _live.discard(self)
                raise

    def pieces(self, deadline: Optional[float]) -> Iterator[tuple[int, bytes]]:
        """Status and bytes of each piece, until the request is over.  Raises TimeoutError at the deadline."""
        while True:
            with self._changed:
                while not self._pieces and not self._over:
                    self._changed.wait(_slice(deadline))
                if not self._pieces:
                    return
                taken = list(self._pieces)
                self._pieces.clear()
                self._changed.notify_all()
            for piece in taken:
                _slice(deadline)
                yield piece

    def stop(self) -> None:
        with self._changed:
            self._stopped = True
            self._changed.notify_all()
            if self._cancel is not None:
                self._library.xfer_cancelSet(self._cancel)

    def join(self) -> None:
        """Waits until it is over, when it has been stopped."""
        with self._changed:
            self._changed.wait_for(lambda: self._over or not self._begun, _LONGEST_END)

    def _take(self, user: object, status: int, start: int, size: int) -> int:
        try:
            piece = ctypes.string_at(start, size)
            with self._changed:
                self._changed.wait_for(lambda: len(self._pieces) < _KEPT_PIECES or self._stopped)
                self._pieces.append((status, piece))
                self._changed.notify_all()
                return 1 if self._stopped else 0
        except BaseException as error:
            self.error = error
            return 1

    def _run(self) -> None:
        found = self._library
        record, self._record = self._record, None  # which refers to this object: the answer is freed with its last user
        response = _native.ResponseRecord()
        found.xfer_responseInit(response, ctypes.sizeof(response))
        cancel = found.xfer_cancelNew()
        response.headers = found.xfer_bufferNew()
        response.body = None if self._streamed else found.xfer_bufferNew()
        try:
            if not cancel or not response.headers or not (response.body or self._streamed):
                raise MemoryError("xfer has no memory left")
            with self._changed:
                self._cancel = cancel
                if self._stopped:
                    found.xfer_cancelSet(cancel)
            record.cancel = cancel
            if self._streamed:
                record.onBody = _native.BodyCallback(self._take)
            self.code = found.xfer_request(record, response)
            self.status = response.httpStatus
            self.headers = _bytes_of(found, response.headers)
            if not self._streamed:
                self.body = _bytes_of(found, response.body)
        except BaseException as error:
            self.error = error
        finally:
            with self._changed:
                self._cancel = None
            found.xfer_cancelFree(cancel)
            found.xfer_bufferFree(response.headers)
            found.xfer_bufferFree(response.body)
            _live.discard(self)
            with self._changed:
                self._over = True
                self._changed.notify_all()


_live: set[_Request] = set()


def _bytes_of(found: ctypes.CDLL, buffer: int) -> bytes:
    size = found.xfer_bufferSize(buffer)
    return ctypes.string_at(found.xfer_bufferData(buffer), size) if size else b""


def _slice(deadline: Optional[float]) -> float:
    if deadline is None:
        return _SLICE
    left = deadline - time.monotonic()
    if left <= 0:
        raise TimeoutError("the request has not ended in time")
    return min(left, _SLICE)


def fetch(url: str, *, method: Optional[str] = None, body: Union[bytes, bytearray, memoryview, str, None] = None,
          headers: _arguments.Headers = (), cookie: Optional[str] = None, proxy: Optional[str] = None,
          stream: Union[Callable[[bytes], object], BinaryIO, None] = None, timeout: Optional[float] = None,
          connect_timeout: float = 15, low_speed_time: float = 10, max_redirects: int = 20, verify: bool = True,
          ca_file: Optional[_arguments.Path] = None, pinned_key: Optional[str] = None,
          user_agent: Optional[str] = None) -> Response:
    """Makes one request, and blocks until its answer is there.  Any HTTP status is an answer: look at status.

    method          GET when not given, POST with a body
    body            bytes, or a str that is sent as UTF-8
    headers         a mapping, or a list of pairs or of lines "Name: value".  A body whose type none of them tells goes
                    out as application/x-www-form-urlencoded
    cookie          value of the Cookie header
    proxy           "[user[:password]@]host[:port]"
    stream          a function of bytes or a file, which receives the body of a 2xx answer in pieces as it arrives;
                    Response.body is empty then.  The bodies of others are in Response.body all the same, so that no
                    error page gets into the file.  What the function raises ends the request and is raised here
    timeout         for the whole request; none when not given
    connect_timeout until there is a connection
    low_speed_time  so long below 1024 bytes per second ends the request; 0: never
    max_redirects   0: the redirect is the answer
    verify          whether certificates are checked.  Here they are, unlike in the library's other interfaces
    ca_file, pinned_key, user_agent: as start has them

    Raises FetchError when no whole answer came; TimeoutError when the time is over; KeyboardInterrupt after Ctrl-C."""
    found = _native.use()
    deadline = None if timeout is None else time.monotonic() + timeout
    record = _native.RequestOptions()
    found.xfer_requestOptionsInit(record, ctypes.sizeof(record))
    record.url = _arguments.text("url", url)
    record.method = _arguments.text("method", method or ("GET" if body is None else "POST"))
    record.headers = _arguments.header_lines(headers)
    record.cookie = _arguments.optional_text("cookie", cookie)
    record.proxy = _arguments.optional_text("proxy", proxy)
    record.userAgent = _arguments.optional_text("user_agent", user_agent)
    record.connectTimeoutSec = _arguments.seconds("connect_timeout", connect_timeout)
    record.lowSpeedTimeSec = _arguments.seconds("low_speed_time", low_speed_time)
    record.maxRedirects = _arguments.whole("max_redirects", max_redirects, 0, 32767)
    _arguments.trust(record, verify, ca_file, pinned_key)
    sent = b"" if body is None else body.encode() if isinstance(body, str) else bytes(body)
    if body is not None:
        record.body = ctypes.cast(ctypes.c_char_p(sent), ctypes.c_void_p)
        record.bodySize = len(sent)
    receive = getattr(stream, "write", stream)

    request = _Request(record, sent, receive is not None)
    kept = []
    try:
        request.start()
        for status, piece in request.pieces(deadline):
            if 200 <= status < 300:
                receive(piece)
            else:
                kept.append(piece)
    finally:  # of which nothing is left to stop, unless something was raised
        request.stop()
        request.join()
    if request.error is not None:
        raise request.error
    if request.code == _native.OUT_OF_MEMORY:
        raise MemoryError("xfer has no memory left")
    if request.code != 0:
        raise FetchError(request.code, request.status, _native.error_text(request.code))
    return Response(request.status, _last_headers(request.headers), b"".join(kept) or request.body)


def cancel_all() -> None:
    """Ends every request: none calls back once this has returned."""
    if _native.forked():
        return
    requests = list(_live)
    for request in requests:
        request.stop()
    for request in requests:
        request.join()
