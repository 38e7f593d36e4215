"""Downloads over several connections, and single requests, through the dynamic library of xfer.

    import xfer

    xfer.download("https://host/big.bin", "big.bin", connections=8)

    with xfer.start("https://host/big.bin", "big.bin") as running:
        for event in running:
            print(event.kind.name, event.done, event.total)
        running.wait()

    page = xfer.fetch("https://host/list.json")

Certificates are checked unless verify=False says otherwise.  The library itself is found by load_library.

Threads: any thread may call every function.  At the end of the interpreter what is still running is cancelled.  A child
         that is forked after the first download cannot use the package: let multiprocessing spawn.
Errors:  DownloadError and FetchError for transfers that failed, with the numbers of the library; LibraryError without
         the library; TypeError and ValueError for arguments.
Units:   sizes are bytes, speeds bytes per second, times seconds."""
import atexit

from . import _download, _fetch, _native
from ._download import Download, Event, EventKind, Note, Result, State, Status, download, start
from ._errors import DownloadCancelled, DownloadError, Error, FetchError
from ._fetch import Headers, Response, fetch
from ._native import LibraryError, load_library, version
from ._version import __version__

__all__ = ["Download", "DownloadCancelled", "DownloadError", "Error", "Event", "EventKind", "FetchError", "Headers",
           "LibraryError", "Note", "Response", "Result", "State", "Status", "__version__", "download", "fetch",
           "load_library", "start", "version"]


def _end() -> None:
    """The library's threads must not call into an interpreter that is being taken apart."""
    _native.close()
    _fetch.cancel_all()
    _download.close_all()


atexit.register(_end)
