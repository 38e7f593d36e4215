"""The C interface: its records and functions, where the library is found, and when it may not be called any more.

Threads: any thread may call every function here.
Errors:  LibraryError when there is no library that fits; RuntimeError when it may not be called."""
from __future__ import annotations

import contextlib
import ctypes
import os
import pathlib
import sys
import threading
from collections.abc import Iterator
from ctypes import c_char_p, c_int32, c_uint32, c_uint64, c_void_p
from typing import Optional

from ._version import __version__

VERIFY_ON = 1
VERIFY_OFF = 2
PLAN_ADAPTIVE = 1

CANCELLED = 102
OUT_OF_MEMORY = 100000
UNKNOWN_ID = 100001
NOT_ENDED = 100038


# The records: field by field as in the headers, with the types that the headers give.
class EventRecord(ctypes.Structure):
    _fields_ = [("size", c_uint32), ("kind", c_uint32), ("id", c_uint64), ("state", c_uint32),
                ("connections", c_uint32), ("bytes", c_uint64), ("total", c_uint64), ("bytesPerSec", c_uint64),
                ("error", c_int32), ("httpStatus", c_int32), ("note", c_uint32), ("connection", c_uint32),
                ("request", c_uint64), ("rangeStart", c_uint64), ("rangeEnd", c_uint64), ("position", c_uint64),
                ("waitMs", c_uint64), ("reason", c_char_p)]


EventCallback = ctypes.CFUNCTYPE(None, c_void_p, ctypes.POINTER(EventRecord))


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


class StatusRecord(ctypes.Structure):
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


class ResponseRecord(ctypes.Structure):
    _fields_ = [("size", c_uint32), ("error", c_int32), ("httpStatus", c_int32), ("reserved", c_uint32),
                ("bodySize", c_uint64), ("headers", c_void_p), ("body", c_void_p)]


_pointer = ctypes.POINTER
# Name, result, arguments.  Without them ctypes cuts ids and pointers to 32 bits.
_FUNCTIONS = (
    ("xfer_version", c_char_p, []),
    ("xfer_errorText", c_char_p, [c_int32]),
    ("xfer_downloadOptionsInit", None, [_pointer(DownloadOptions), c_uint32]),
    ("xfer_downloadStart", c_int32, [_pointer(DownloadOptions), _pointer(c_uint64)]),
    ("xfer_statusInit", None, [_pointer(StatusRecord), c_uint32]),
    ("xfer_downloadStatus", c_int32, [c_uint64, _pointer(StatusRecord)]),
    ("xfer_downloadWait", c_int32, [c_uint64, c_uint64]),
    ("xfer_downloadPause", c_int32, [c_uint64]),
    ("xfer_downloadResume", c_int32, [c_uint64]),
    ("xfer_downloadSetSpeed", c_int32, [c_uint64, c_uint64]),
    ("xfer_downloadCancel", c_int32, [c_uint64]),
    ("xfer_downloadForget", c_int32, [c_uint64]),
    ("xfer_cancelNew", c_void_p, []),
    ("xfer_cancelSet", None, [c_void_p]),
    ("xfer_cancelFree", None, [c_void_p]),
    ("xfer_requestOptionsInit", None, [_pointer(RequestOptions), c_uint32]),
    ("xfer_responseInit", None, [_pointer(ResponseRecord), c_uint32]),
    ("xfer_request", c_int32, [_pointer(RequestOptions), _pointer(ResponseRecord)]),
    ("xfer_bufferNew", c_void_p, []),
    ("xfer_bufferData", c_void_p, [c_void_p]),
    ("xfer_bufferSize", c_uint64, [c_void_p]),
    ("xfer_bufferFree", None, [c_void_p]),
)
_NAMES = ("xfer.dll",) if sys.platform == "win32" else ("libxfer.so.1", "libxfer.so")

_lock = threading.Lock()
_library: Optional[ctypes.CDLL] = None
_used = False  # a thread of the library may exist
_forked = False  # in a child of a process that had used it
_closing = False  # the interpreter is ending
_starting = threading.Lock()  # held while something is started and listed: what close does not forbid, its caller finds


class LibraryError(ImportError):
    """The dynamic library is not there, cannot be loaded, or is another version's."""


def _candidates() -> list[str]:
    here = pathlib.Path(__file__).parent.resolve()
    folders = [here]
    if here.parent.name == "python":  # in an archive, unpacked anywhere
        folders += [here.parents[1] / "lib", here.parents[1] / "bin"]
    there = [str(folder / name) for folder in folders for name in _NAMES if (folder / name).exists()]
    return there + list(_NAMES)


def _loaded(names: list[str]) -> ctypes.CDLL:
    problems = []
    for name in names:
        try:
            return ctypes.CDLL(name)
        except OSError as error:
            problems.append(f"{name}: {error}")
    raise LibraryError("the dynamic library of xfer was not found; name it in the environment variable XFER_LIBRARY or "
                       "to xfer.load_library (" + "; ".join(problems) + ")")


def _checked(found: ctypes.CDLL) -> ctypes.CDLL:
    try:
        for name, result, arguments in _FUNCTIONS:
            function = getattr(found, name)
            function.restype = result
            function.argtypes = arguments
    except AttributeError as error:
        raise LibraryError(f"{found._name} lacks a function of xfer {__version__}: {error}") from None
    there = found.xfer_version().decode()
    if there.split(".")[0] != __version__.split(".")[0]:
        raise LibraryError(f"{found._name} is xfer {there}, and this package is for {__version__.split('.')[0]}.x")
    return found


def load_library(path: Optional[os.PathLike[str] | str] = None) -> None:
    """Loads the dynamic library from path now, instead of with the first call from where it is found.

    Without a path: from where the environment variable XFER_LIBRARY says, else from beside this package's modules, else
    from the archive that they are a part of, else from where the system's loader finds it.  Raises LibraryError;
    RuntimeError when another one is loaded already."""
    global _library
    named = os.fspath(path) if path is not None else os.environ.get("XFER_LIBRARY")
    with _lock:
        if _library is not None:
            if path is not None and _library._name != named:
                raise RuntimeError(f"{_library._name} is loaded already")
            return
        _library = _checked(_loaded([named] if named else _candidates()))


def library() -> ctypes.CDLL:
    """The library, loaded if it is not yet."""
    if _library is None:
        load_library()
    assert _library is not None
    return _library


@contextlib.contextmanager
def starting() -> Iterator[None]:
    """What is started and listed inside of this is either listed when close returns, or refused."""
    library()
    with _starting:
        use()
        yield


def use() -> ctypes.CDLL:
    """The library, for a call that may start threads or needs those of an earlier one."""
    global _used
    if _forked:
        raise RuntimeError("xfer was used before this process was forked, and does not work in the child: "
                           "let multiprocessing spawn, or fork before the first download")
    if _closing:
        raise RuntimeError("the interpreter is ending")
    found = library()
    _used = True
    return found


def usable() -> bool:
    """Whether what was started in this process can still be looked after."""
    return not _forked and not _closing


def close() -> None:
    """From here on nothing new is started."""
    global _closing
    with _starting:
        _closing = True


def forked() -> bool:
    return _forked


def _after_fork() -> None:
    global _forked, _lock, _starting
    _lock = threading.Lock()
    _starting = threading.Lock()
    _forked = _used


if hasattr(os, "register_at_fork"):
    os.register_at_fork(after_in_child=_after_fork)


def error_text(code: int) -> str:
    """Words for a number that the library has returned."""
    return library().xfer_errorText(code).decode()


def version() -> str:
    """The version of the library that is loaded, as "1.0.0"."""
    return library().xfer_version().decode()
