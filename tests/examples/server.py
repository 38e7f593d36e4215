"""The server that the examples are run against: HTTP/1.1 on the loopback interface, with byte ranges."""
import contextlib
import http.server
import re
import socketserver
import threading
import time

ETAG = '"1"'
PIECE = 16384


def text(size):
    """A text whose every line says where it is, so that a byte out of place is seen."""
    return b"".join(b"line %010d\n" % i for i in range(size // 16 + 1))[:size]


class Gate:
    """Lets three quarters of a file pass by ranges; the rest, and what is not there, waits until it is opened."""

    def __init__(self, size):
        self.most = size // PIECE * 3 // 4
        self.passed = set()
        self.changed = threading.Condition()
        self.opened = False

    def open(self):
        with self.changed:
            self.opened = True
            self.changed.notify_all()

    def wait(self):
        with self.changed:
            self.changed.wait_for(lambda: self.opened)

    def wait_for(self, piece):
        with self.changed:
            self.changed.wait_for(lambda: self.opened or piece in self.passed or len(self.passed) < self.most)
            self.passed.add(piece)


class Server(socketserver.ThreadingMixIn, http.server.HTTPServer):
    """Serves files, a dictionary of path and bytes.  gate: what ranges wait for.  bytes_per_sec: of a connection.
    busy: so many answers are 503 before the first other one.  asked: the paths of the requests.  sent: bytes of bodies."""
    daemon_threads = True
    block_on_close = False
    request_queue_size = 128

    def __init__(self, files, gate=None, bytes_per_sec=None, busy=0):
        super().__init__(("127.0.0.1", 0), Handler)
        self.files = files
        self.gate = gate
        self.bytes_per_sec = bytes_per_sec
        self.busy = busy
        self.lock = threading.Lock()
        self.asked = []
        self.sent = 0

    def url(self, path):
        return f"http://127.0.0.1:{self.server_address[1]}{path}"

    def is_busy(self):
        with self.lock:
            self.busy -= 1
            return self.busy >= 0

    def handle_error(self, request, client_address):
        pass  # clients break connections off whenever they like


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True

    def do_GET(self):
        with self.server.lock:
            self.server.asked.append(self.path)
        if self.server.is_busy():
            self.answer(503, b"busy", {"Retry-After": "0"})
            return
        body = self.server.files.get(self.path)
        if body is None:
            if self.server.gate is not None:
                self.server.gate.wait()
            self.answer(404, b"no such file", {})
            return
        asked = re.fullmatch(r"bytes=(\d+)-(\d*)", self.headers.get("Range", ""))
        if asked is None:
            self.answer(200, body, {"Accept-Ranges": "bytes", "ETag": ETAG})
            return
        start = int(asked[1])
        end = min(int(asked[2]) + 1 if asked[2] else len(body), len(body))
        if start >= end:
            self.answer(416, b"", {"Content-Range": f"bytes */{len(body)}"})
            return
        self.answer(206, body[start:end], {"ETag": ETAG, "Content-Range": f"bytes {start}-{end - 1}/{len(body)}"},
                    start, self.server.gate)

    def answer(self, status, body, headers, start=0, gate=None):
        self.send_response(status)
        for name, value in headers.items():
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        begin = time.monotonic()
        at = 0
        while at < len(body):
            if gate is not None:
                gate.wait_for((start + at) // PIECE)
            if self.server.bytes_per_sec is not None:
                time.sleep(max(0.0, begin + at / self.server.bytes_per_sec - time.monotonic()))
            end = at + PIECE - (start + at) % PIECE
            self.wfile.write(body[at:end])
            with self.server.lock:
                self.server.sent += len(body[at:end])
            at = end

    def log_message(self, *args):
        pass


@contextlib.contextmanager
def serving(files, **how):
    server = Server(files, **how)
    thread = threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.02})
    thread.start()
    try:
        yield server
    finally:
        server.shutdown()
        thread.join()
        server.server_close()
