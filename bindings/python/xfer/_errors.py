"""What is raised when a transfer fails."""
from __future__ import annotations

from . import _native


class Error(Exception):
    """A transfer that failed.

    code         0 to 101: libcurl's; otherwise the library's own, or the HTTP status that is the failure
    http_status  of the request that failed; 0: none
    message      why, in words"""

    def __init__(self, code: int, http_status: int, message: str) -> None:
        super().__init__(code, http_status, message)
        self.code = code
        self.http_status = http_status
        self.message = message

    def __str__(self) -> str:
        return f"{self.message} ({self.code})"


class DownloadError(Error):
    """A download that ended without its file."""


class DownloadCancelled(DownloadError):
    """A download that was cancelled or closed before its end."""


class FetchError(Error):
    """A request that brought no whole answer."""


def described(code: int, http_status: int) -> str:
    """Why something failed.  An error page has both numbers, and its HTTP status is the one that says why."""
    return _native.error_text(http_status if http_status >= 400 else code)
