"""Downloads into files.

Threads: any thread may call every function.  on_event runs on one thread of the library for all downloads.
Errors:  DownloadError and its kind for downloads that failed; TypeError and ValueError for arguments.
Units:   sizes and offsets are bytes, speeds bytes per second, times seconds."""
from __future__ import annotations

import collections
import ctypes
import enum
import itertools
import logging
import threading
import time
import weakref
from collections.abc import Callable, Iterator
from types import TracebackType
from typing import NamedTuple, Optional, Union

from . import _arguments, _native
from ._errors import DownloadCancelled, DownloadError, described

_SLICE = 0.1  # of a wait, so that Ctrl-C is seen on every platform
_KEPT_EVENTS = 1024  # that nobody has taken yet
_LONGEST_END = 1000  # ms that a cancelled download has to end by itself, of which it needs a few


class State(enum.IntEnum):
    """Where a download is.  The last three are final."""
    IDLE = 0
    PROBING = 1
    RUNNING = 2
    PAUSED = 3
    CANCELLING = 4
    COMPLETED = 5
    FAILED = 6
    CANCELLED = 7


class EventKind(enum.IntEnum):
    """What an event is about."""
    STATE = 0
    PROGRESS = 1
    NOTE = 2
    END = 3


class Note(enum.IntEnum):
    """What a note says: see xfer/download_history.h for the fields that each has."""
    BEGUN = 1
    ANSWERED = 2
    CUT = 3
    GIVEN_UP = 4
    OVERTAKEN = 5
    ENDED = 6
    TRIED_AGAIN = 7
    HOST_LEFT_ALONE = 8


_FINAL = (State.COMPLETED, State.FAILED, State.CANCELLED)


class Status(NamedTuple):
    """Where a download is."""
    state: State
    done: int  # received so far
    total: Optional[int]  # size of the file; None: unknown
    speed: int  # last measured; 0 in the first half second
    connections: int  # requests under way
    error: int  # why it ended; 0: completed, or not ended
    http_status: int  # of the request that failed; 0: none


class Event(NamedTuple):
    """Something that has happened to a download.  The fields from note on are a note's."""
    kind: EventKind
    state: State
    done: int
    total: Optional[int]
    speed: int
    connections: int
    error: int
    http_status: int
    note: Union[Note, int, None]  # a plain number: one that this package does not know
    connection: int  # from 1 on; 0: none
    request: int  # from 1 on; 0: none
    range_start: int
    range_end: int  # exclusive; 0: as long as it goes
    position: int  # exclusive end of what has arrived of the range
    wait: float
    reason: str


class Result(NamedTuple):
    """A download that has completed."""
    path: _arguments.Path
    size: int


EventFunction = Callable[[Event], object]
ProgressFunction = Callable[[int, Optional[int]], object]

_inside = threading.local()  # .callback: this thread is the library's, in an on_event
_running: dict[int, _Running] = {}  # by what the C interface calls user
_users = itertools.count(1)


@_native.EventCallback
def _tell(user: int, record: ctypes._Pointer[_native.EventRecord]) -> None:  # one for all: it is never collected
    running = _running.get(user)
    if running is not None:
        running.tell(record.contents)


def _note(number: int) -> Union[Note, int, None]:
    try:
        return Note(number) if number != 0 else None
    except ValueError:
        return number


def _event_of(record: _native.EventRecord) -> Event:
    """Raises ValueError for a kind or a state that this package does not know."""
    return Event(EventKind(record.kind), State(record.state), record.bytes, record.total or None, record.bytesPerSec,
                 record.connections, record.error, record.httpStatus, _note(record.note), record.connection,
                 record.request, record.rangeStart, record.rangeEnd, record.position, record.waitMs / 1000,
                 record.reason.decode())


class _Running:
    """What the library's thread and this module's share about a download, from its start until it is forgotten."""

    def __init__(self, on_event: Optional[EventFunction]) -> None:
        self.user = next(_users)
        self.id = 0
        self.error: Optional[BaseException] = None  # raised by on_event
        self.error_raised = False
        self._on_event = on_event
        self._events: collections.deque[Event] = collections.deque(maxlen=_KEPT_EVENTS)
        self._changed = threading.Condition()
        self._over = False  # no event follows
        # Read and written without a lock, one after the other: a collector runs abandon inside of anything.
        self._told_end = False
        self._abandoned = False

    def tell(self, record: _native.EventRecord) -> None:
        """Runs on the library's thread."""
        self.id = record.id  # start may not have returned yet
        try:
            event = _event_of(record)
        except ValueError:
            return  # of a newer library
        _inside.callback = True
        try:
            if self._on_event is not None and self.error is None:
                self._on_event(event)
        except BaseException as error:
            self.error = error
            _native.library().xfer_downloadCancel(record.id)
        finally:
            _inside.callback = False
        with self._changed:
            if self._events and self._events[-1].kind is event.kind is EventKind.PROGRESS:
                self._events.pop()
            self._events.append(event)
            self._over = self._over or event.kind is EventKind.END
            self._changed.notify_all()
        if event.kind is EventKind.END:
            self._told_end = True
            if self._abandoned:
                self._forget_abandoned()

    def next(self, deadline: Optional[float]) -> Optional[Event]:
        """The next event; None after the last one.  Raises TimeoutError at the deadline."""
        with self._changed:
            while not self._events:
                if self._over:
                    return None
                self._changed.wait(_slice(deadline))
            return self._events.popleft()

    def forget(self) -> None:
        """No event follows once this has returned."""
        if _running.pop(self.user, None) is not None:
            _native.library().xfer_downloadForget(self.id)
        with self._changed:
            self._over = True
            self._changed.notify_all()

    def abandon(self) -> None:
        """Nobody has its Download any more: it goes on, and is forgotten at its end."""
        if not _native.usable() or self.user not in _running:
            return
        self._abandoned = True
        if self._told_end:
            self._forget_abandoned()

    def _forget_abandoned(self) -> None:
        if self.error is not None and not self.error_raised:
            self.error_raised = True
            logging.getLogger("xfer").error("on_event of a download that nobody waits for", exc_info=self.error)
        self.forget()


def _slice(deadline: Optional[float]) -> float:
    if deadline is None:
        return _SLICE
    left = deadline - time.monotonic()
    if left <= 0:
        raise TimeoutError("the download has not ended in time")
    return min(left, _SLICE)


def _deadline(timeout: Optional[float]) -> Optional[float]:
    return None if timeout is None else time.monotonic() + timeout


def _raise_code(code: int) -> None:
    if code == _native.OUT_OF_MEMORY:
        raise MemoryError("xfer has no memory or threads left")
    if code != 0:
        raise DownloadError(code, 0, described(code, 0))


class Download:
    """A download that start has started.

    Leaving it as a context manager cancels it, unless it has ended, and forgets it.  A Download that is dropped goes on
    until it ends or the interpreter does.  Iterating gives its events, each to one iterator only, until the last one,
    whose kind is END; of those that nobody takes the latest 1024 are kept, and of progress the latest.

    None of its functions may be called in a process that was forked after the first download.  An on_event may call all
    but wait and the iteration, which would wait for the on_event itself: they raise RuntimeError there."""

    def __init__(self, running: _Running, path: _arguments.Path, limit: int) -> None:
        """Internal: see start."""
        self._running = running
        self._path = path
        self._limit = limit
        self._end: Optional[Status] = None  # set before the library forgets it
        self._abandon = weakref.finalize(self, running.abandon)
        self._abandon.atexit = False

    def pause(self) -> None:
        """Holds it until resume, also before its first answer.  Does nothing once it has ended."""
        self._call(_native.use().xfer_downloadPause)

    def resume(self) -> None:
        """Continues after a pause."""
        self._call(_native.use().xfer_downloadResume)

    def cancel(self) -> None:
        """Asks it to end, and returns at once.  The partial file stays; wait raises DownloadCancelled."""
        self._call(_native.use().xfer_downloadCancel)

    @property
    def speed_limit(self) -> int:
        """Of the whole download; 0: unlimited.  Counts from when it is set."""
        return self._limit

    @speed_limit.setter
    def speed_limit(self, bytes_per_sec: int) -> None:
        limit = _arguments.size("speed_limit", bytes_per_sec)
        self._call(lambda id: _native.use().xfer_downloadSetSpeed(id, limit))
        self._limit = limit

    def status(self) -> Status:
        """Where it is, or how it ended."""
        if self._end is not None:
            return self._end
        record = _native.StatusRecord()
        found = _native.use()
        found.xfer_statusInit(record, ctypes.sizeof(record))
        code = found.xfer_downloadStatus(self._running.id, record)
        if code == _native.UNKNOWN_ID and self._end is not None:  # another thread has closed it meanwhile
            return self._end
        _raise_code(code)
        return Status(State(record.state), record.bytes, record.total or None, record.bytesPerSec, record.connections,
                      record.error, record.httpStatus)

    def wait(self, timeout: Optional[float] = None) -> Result:
        """Blocks until it has ended and its last on_event has returned.

        Raises what an on_event has raised, which has cancelled the download; DownloadCancelled; DownloadError, when it
        failed; TimeoutError, when the time is over: the download goes on."""
        _refuse_inside()
        deadline = _deadline(timeout)
        while self._end is None:
            left = _SLICE if deadline is None else deadline - time.monotonic()
            milliseconds = int(min(max(left, 0), _SLICE) * 1000)
            code = _native.use().xfer_downloadWait(self._running.id, milliseconds)
            if code == _native.NOT_ENDED and left > 0:
                continue
            if code == _native.NOT_ENDED:
                raise TimeoutError("the download has not ended in time")
            if code != _native.UNKNOWN_ID:  # another thread closes it
                _raise_code(code)
            break
        end = self.status()
        if self._running.error is not None:
            self._running.error_raised = True
            raise self._running.error
        if end.state is State.COMPLETED:
            return Result(self._path, end.done)
        kind = DownloadCancelled if end.state is State.CANCELLED else DownloadError
        raise kind(end.error, end.http_status, described(end.error, end.http_status))

    def close(self) -> None:
        """Cancels it, unless it has ended, and forgets it: no on_event runs once this has returned.

        Waits for an on_event of this download that runs on another thread: do not close while you hold what that needs.
        status and wait still tell how it ended."""
        if self._end is None and self._running.user in _running:
            found = _native.use()
            found.xfer_downloadCancel(self._running.id)
            found.xfer_downloadWait(self._running.id, _LONGEST_END)  # at once inside of an on_event
            end = self.status()
            if end.state not in _FINAL:
                end = end._replace(state=State.CANCELLED, error=_native.CANCELLED)
            self._end = end
        self._running.forget()

    def __enter__(self) -> Download:
        return self

    def __exit__(self, kind: Optional[type[BaseException]], error: Optional[BaseException],
                 traceback: Optional[TracebackType]) -> None:
        self.close()
        if kind is None and self._running.error is not None and not self._running.error_raised:
            self._running.error_raised = True
            raise self._running.error

    def __iter__(self) -> Iterator[Event]:
        return self._events(None)

    def _events(self, deadline: Optional[float]) -> Iterator[Event]:
        _refuse_inside()
        while True:
            event = self._running.next(deadline)
            if event is None:
                return
            yield event

    def _call(self, function: Callable[[int], int]) -> None:
        code = 0 if self._end is not None else function(self._running.id)
        if code != _native.UNKNOWN_ID or self._end is None:
            _raise_code(code)


def _refuse_inside() -> None:
    if getattr(_inside, "callback", False):
        raise RuntimeError("an on_event cannot wait for a download: it would wait for itself")


def start(url: str, path: _arguments.Path, *, connections: int = 4, headers: _arguments.Headers = (),
          cookie: Optional[str] = None, proxy: Optional[str] = None, limit: int = 0, verify: bool = True,
          ca_file: Optional[_arguments.Path] = None, pinned_key: Optional[str] = None,
          user_agent: Optional[str] = None, max_tries: Optional[int] = None, retry_max_time: Optional[float] = None,
          on_event: Optional[EventFunction] = None) -> Download:
    """Starts a download of url into the file at path, which is replaced when it exists, and returns at once.

    connections     most at once
    headers         of each request: a mapping, or a list of pairs or of lines "Name: value"
    cookie          value of the Cookie header
    proxy           "[user[:password]@]host[:port]", for every host
    limit           bytes per second, of the whole download; 0: unlimited
    verify          whether certificates are checked.  Here they are, unlike in the library's other interfaces
    ca_file         PEM file of the certificates that are trusted instead of the system's
    pinned_key      "sha256//...": the keys of which the server must have one
    user_agent      instead of a desktop browser's
    max_tries       in a row without a byte, 10 when not given
    retry_max_time  seconds without a byte after which a failure is final; no limit when not given
    on_event        called with each Event on one thread of the library for all downloads: a slow one delays the others,
                    and slows no transfer.  It may be called before start returns.  What it raises cancels the download
                    and is raised by wait; it is not called again then

    A connection that is slow or silent is replaced, and a server that is busy is asked again when it wants to be."""
    found = _native.use()
    record = _native.DownloadOptions()
    found.xfer_downloadOptionsInit(record, ctypes.sizeof(record))
    record.plan = _native.PLAN_ADAPTIVE
    record.url = _arguments.text("url", url)
    record.path = _arguments.path("path", path)
    record.headers = _arguments.header_lines(headers)
    record.cookie = _arguments.optional_text("cookie", cookie)
    record.proxy = _arguments.optional_text("proxy", proxy)
    record.userAgent = _arguments.optional_text("user_agent", user_agent)
    record.connections = _arguments.whole("connections", connections, 1, 65535)
    record.maxSpeed = _arguments.size("limit", limit)
    if max_tries is not None:
        record.maxTries = _arguments.whole("max_tries", max_tries, 1, 2**32 - 1)
    if retry_max_time is not None:
        record.retryMaxTimeSec = _arguments.seconds("retry_max_time", retry_max_time)
    _arguments.trust(record, verify, ca_file, pinned_key)

    running = _Running(on_event)
    record.onEvent = _tell
    record.user = running.user
    id = ctypes.c_uint64()
    try:
        with _native.starting():
            _running[running.user] = running
            _raise_code(found.xfer_downloadStart(record, id))
            running.id = id.value
        return Download(running, path, limit)
    except BaseException:  # Ctrl-C too: nobody will have it
        running.forget()
        raise


def download(url: str, path: _arguments.Path, *, connections: int = 4, headers: _arguments.Headers = (),
             cookie: Optional[str] = None, proxy: Optional[str] = None, limit: int = 0, verify: bool = True,
             ca_file: Optional[_arguments.Path] = None, pinned_key: Optional[str] = None,
             user_agent: Optional[str] = None, max_tries: Optional[int] = None,
             retry_max_time: Optional[float] = None, progress: Optional[ProgressFunction] = None,
             on_event: Optional[EventFunction] = None, timeout: Optional[float] = None) -> Result:
    """Downloads url into the file at path, and blocks until it is there.

    progress        called with the bytes that have arrived and the file's size, None while that is not known; at last
                    when all have arrived
    on_event        called with each Event
    timeout         seconds for all of it
    The others are those of start.  progress and on_event run on the caller's thread.

    Raises DownloadError when it fails; TimeoutError when the time is over; KeyboardInterrupt after Ctrl-C, and what
    progress and on_event raise: each of these cancels the download.  The partial file stays."""
    deadline = _deadline(timeout)
    with start(url, path, connections=connections, headers=headers, cookie=cookie, proxy=proxy, limit=limit,
               verify=verify, ca_file=ca_file, pinned_key=pinned_key, user_agent=user_agent, max_tries=max_tries,
               retry_max_time=retry_max_time) as running:
        for event in running._events(deadline):
            if on_event is not None:
                on_event(event)
            if progress is not None and (event.kind is EventKind.PROGRESS or event.state is State.COMPLETED):
                progress(event.done, event.total)
        return running.wait()


def close_all() -> None:
    """Cancels and forgets every download: no on_event runs once this has returned."""
    if _native.forked():
        return
    downloads = list(_running.values())
    for running in downloads:
        _native.library().xfer_downloadCancel(running.id)
    for running in downloads:
        running.forget()
