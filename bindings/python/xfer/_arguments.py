"""What callers pass, as the C interface takes it.  ctypes itself cuts numbers that do not fit, and texts at a zero.

Errors: TypeError and ValueError, which name the argument."""
from __future__ import annotations

import math
import operator
import os
from collections.abc import Iterable, Mapping
from typing import Optional, Union

from . import _native

Headers = Union[Mapping[str, str], Iterable[Union[str, tuple[str, str]]]]
Path = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]


def text(name: str, value: str) -> bytes:
    if not isinstance(value, str):
        raise TypeError(f"{name} is to be a str, not {type(value).__name__}")
    if any(c in value for c in "\0\r\n"):
        raise ValueError(f"{name} has a line break or a zero in it")
    return value.encode()


def optional_text(name: str, value: Optional[str]) -> Optional[bytes]:
    return None if value is None else text(name, value)


def path(name: str, value: Path) -> bytes:
    encoded = os.fsencode(value)
    if b"\0" in encoded:
        raise ValueError(f"{name} has a zero in it")
    return encoded


def header_lines(headers: Headers) -> Optional[bytes]:
    """A mapping, pairs of name and value, or lines "Name: value"."""
    if isinstance(headers, (str, bytes)):
        raise TypeError("headers is to be a mapping, or a list of pairs or of lines")
    lines = []
    for entry in headers.items() if isinstance(headers, Mapping) else headers:
        name, value = entry.split(":", 1) if isinstance(entry, str) and ":" in entry else ("", "")
        if not isinstance(entry, str):
            name, value = entry
        if not name or ":" in name:
            raise ValueError(f"headers: {entry!r} is no name and value")
        lines.append(text("headers", f"{name}: {value.strip(' ')}"))
    return b"".join(line + b"\n" for line in lines) or None


def whole(name: str, value: int, least: int, most: int) -> int:
    number = operator.index(value)
    if not least <= number <= most:
        raise ValueError(f"{name} is to be from {least} to {most}, not {number}")
    return number


def size(name: str, value: int) -> int:
    return whole(name, value, 0, 2**64 - 1)


def seconds(name: str, value: float) -> int:
    """Whole seconds, rounded up.  0 stays 0."""
    if not 0 <= value < 2**31:
        raise ValueError(f"{name} is to be a number of seconds, not {value}")
    return math.ceil(value)


def trust(record: Union[_native.DownloadOptions, _native.RequestOptions], verify: bool, ca_file: Optional[Path],
          pinned_key: Optional[str]) -> None:
    """Sets which servers are trusted."""
    if ca_file is not None and not verify:
        raise ValueError("ca_file goes with verify=True only")
    record.verifyPeer = _native.VERIFY_ON if verify else _native.VERIFY_OFF
    record.caFile = None if ca_file is None else path("ca_file", ca_file)
    record.pinnedKey = optional_text("pinned_key", pinned_key)
