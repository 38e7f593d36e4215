"""What the tests of the package share: a server that answers more than files, and a child that runs Python."""
import contextlib
import http.server
import pathlib
import subprocess
import sys
import threading
import time
import unittest

PACKAGE = pathlib.Path(__file__).resolve().parents[1]
PROJECT = PACKAGE.parents[1]
sys.path[:0] = [str(PACKAGE), str(PROJECT / "tests" / "examples")]
sys.dont_write_bytecode = True

import server as files_server  # noqa: E402: found by the path above

SIZE = 2 << 20
BODY = files_server.text(SIZE)
LONG = 30  # s; nothing here takes so long unless it hangs


class Handler(files_server.Handler):
    """Files, and below /do/ what a single request may meet."""

    def do_GET(self):
        self.server.seen.append(self)
        if not self.path.startswith("/do/"):
            super().do_GET()
            return
        sent = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        getattr(self, self.path.removeprefix("/do/"))(sent)

    do_HEAD = do_POST = do_PUT = do_DELETE = do_GET

    def echo(self, sent):
        self.answer(200, sent if self.command != "HEAD" else b"", {"X-Method": self.command})

    def twice(self, sent):
        self.send_response(200)
        self.send_header("Set-Cookie", "a=1")
        self.send_header("set-cookie", "b=2, c")
        self.send_header("Content-Length", "0")
        self.end_headers()

    def moved(self, sent):
        self.answer(302, b"over there", {"Location": "/do/echo", "X-First": "1"})

    def error(self, sent):
        self.answer(500, b"an error page", {})

    def silent(self, sent):
        self.server.silence_begun.set()
        self.server.ended.wait(LONG)

    def endless(self, sent):
        self.send_response(200)
        self.end_headers()
        with contextlib.suppress(OSError):
            while True:
                self.wfile.write(bytes(files_server.PIECE))
        self.server.broken_off.set()

    def cut(self, sent):
        self.send_response(200)
        self.send_header("Content-Length", "100")
        self.end_headers()
        self.wfile.write(b"short")
        self.close_connection = True


class Server(files_server.Server):
    def __init__(self, files, **how):
        super().__init__(files, **how)
        self.RequestHandlerClass = Handler
        self.seen = []
        self.silence_begun = threading.Event()
        self.ended = threading.Event()
        self.broken_off = threading.Event()


class Served(unittest.TestCase):
    """A test with a server, and a folder of its own."""

    def serve(self, tls=None, **how):
        served = Server({"/file": BODY}, **how)
        if tls is not None:
            served.socket = tls.wrap_socket(served.socket, server_side=True)
        thread = threading.Thread(target=served.serve_forever, kwargs={"poll_interval": 0.02})
        thread.start()

        def end():
            served.ended.set()
            if served.gate is not None:
                served.gate.open()
            served.shutdown()
            thread.join()
            served.server_close()
        self.addCleanup(end)
        return served

    def serve_gated(self):
        """The file's last quarter is not sent before the gate opens."""
        return self.serve(gate=files_server.Gate(SIZE))

    def folder(self):
        import tempfile
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        return pathlib.Path(folder.name)

    def await_true(self, condition, what):
        end = time.monotonic() + LONG
        while not condition():
            self.assertLess(time.monotonic(), end, what)
            time.sleep(0.002)


class Child:
    """A Python program that imports xfer; its warnings are errors."""

    def __init__(self, test, source, *arguments, environment=None):
        self.process = subprocess.Popen(
            [sys.executable, "-X", "dev", "-W", "error", "-c", f"import sys; sys.path[:0] = [{str(PACKAGE)!r}]\n{source}",
             *map(str, arguments)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=environment)
        timer = threading.Timer(LONG, self.process.kill)
        timer.start()

        def end():
            timer.cancel()
            self.process.kill()
            self.process.communicate()
        test.addCleanup(end)

    def await_line(self, line):
        for said in self.process.stdout:
            if said.rstrip("\n") == line:
                return
        raise AssertionError(f"the child did not say {line!r}: {self.process.stderr.read()}")

    def end(self):
        """Exit code, what else it wrote to standard output, and what to standard error."""
        out, err = self.process.communicate()
        return self.process.returncode, out, err
