"""Runs one example against a server of its own and checks what it says, its exit code and the bytes that it wrote.

    examples_test.py CHECK --seconds N -- COMMAND...

COMMAND starts the example; the check adds the arguments.  Nothing runs longer than N seconds."""
import argparse
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time

import server

SIZE = 2 << 20
BODY = server.text(SIZE)
RATE = 1 << 20
NOT_FOUND = "HTTP 404: not found"


class Run:
    """A program that was run: what it wrote, and its exit code.  on_line is called with each line as it comes; what it
    returns is typed, or sent when it is a signal.  Nothing is typed unless talks says so."""

    def __init__(self, command, arguments, seconds, on_line=lambda line: None, talks=False):
        self.lines = []
        process = subprocess.Popen([*command, *arguments], stdin=subprocess.PIPE if talks else subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, bufsize=1)
        timer = threading.Timer(seconds, process.kill)
        timer.start()
        try:
            for line in process.stdout:
                print(f"  {line}", end="", flush=True)
                self.lines.append(line.rstrip("\n"))
                answer = on_line(self.lines[-1])
                if isinstance(answer, signal.Signals):
                    process.send_signal(answer)
                elif answer is not None:
                    process.stdin.write(answer)
            self.code = process.wait()
        finally:
            timer.cancel()
            process.kill()
            process.wait()
        print(f"  exit code {self.code}", flush=True)

    def expect(self, code, *patterns):
        """The exit code, and lines that match these patterns, in this order."""
        if self.code != code:
            sys.exit(f"exit code {self.code}, not {code}")
        rest = iter(self.lines)
        for pattern in patterns:
            if not any(re.search(pattern, line) for line in rest):
                sys.exit(f"no line (behind those found before) says: {pattern}")


def settled(value):
    """What value() returns once it has not changed for a while; the caller's own end is that of the program's."""
    last, since = value(), time.monotonic()
    while time.monotonic() - since < 0.3:
        time.sleep(0.01)
        now = value()
        if now != last:
            last, since = now, time.monotonic()
    return last


def expect_file(path, body=BODY):
    if pathlib.Path(path).read_bytes() != body:
        sys.exit(f"{path} does not hold the server's bytes")


class Checks:
    def __init__(self, command, seconds, folder):
        self.command = command
        self.seconds = seconds
        self.folder = pathlib.Path(folder)

    def path(self, name="file"):
        return str(self.folder / name)

    def run(self, *arguments):
        return Run(self.command, arguments, self.seconds)

    def run_gated(self, pattern, *arguments):
        """The file's last quarter is not sent before the program has said this: it cannot end unseen."""
        gate = server.Gate(SIZE)
        with server.serving({"/file": BODY}, gate=gate, bytes_per_sec=RATE) as served:
            return Run(self.command, [served.url("/file") if a is None else a for a in arguments], self.seconds,
                       lambda line: gate.open() if re.search(pattern, line) else None)

    def download_pauses_and_goes_on(self):
        run = self.run_gated("state: paused", None, self.path())
        run.expect(0, "^state: asking the server$", "^state: running$", rf"^\d+ of {SIZE} bytes, .*connections: [1-4]$",
                   "^state: paused$", "^state: running$", f"^completed: {SIZE} bytes$")
        expect_file(self.path())

    def download_tells_of_its_progress(self):
        run = self.run_gated(f" of {SIZE} bytes", None, self.path())
        run.expect(0, "asking the server$", "running$", rf"\d+ of {SIZE} bytes$", f"^completed: {SIZE} bytes, success$")
        expect_file(self.path())

    def download_asks_a_busy_server_again(self):
        with server.serving({"/file": BODY}, busy=1) as served:
            run = self.run(served.url("/file"), self.path())
        run.expect(0, "asks again: HTTP 503", f"^completed: {SIZE} bytes, success$")
        expect_file(self.path())

    def download_reports_a_missing_file(self):
        with server.serving({}) as served:
            run = self.run(served.url("/file"), self.path())
        run.expect(1, f"^failed: 0 bytes, {NOT_FOUND}$")

    def several_keep_one_limit(self):
        names = ["first", "second", "third"]
        limit = 4 << 20
        with server.serving({f"/{name}": BODY for name in names}) as served:
            run = self.run(str(limit), *(a for name in names for a in (served.url(f"/{name}"), self.path(name))))
        run.expect(0, *(f"{name}: success$" for name in names), rf"^{len(names) * SIZE} bytes in [\d.]+ s$")
        for name in names:
            run.expect(0, rf"{name}: \d+ of {SIZE} bytes$")
            expect_file(self.path(name))
        passed = float(run.lines[-1].split()[-2])
        least = len(names) * SIZE / limit - 0.2  # a limiter lets 100 ms' worth through at once
        if passed < least:
            sys.exit(f"the limit was not kept: {passed} s is less than {least} s")

    def several_report_the_one_that_fails(self):
        with server.serving({"/first": BODY}) as served:
            run = self.run("0", served.url("/first"), self.path("first"), served.url("/second"), self.path("second"))
        run.expect(1, "first: success$", f"second: {NOT_FOUND}$")
        expect_file(self.path("first"))

    def logger_shows_what_the_library_did(self):
        with server.serving({"/file": BODY}) as served:
            run = self.run(served.url("/file"))
        run.expect(0, "^log: trace .*/file ", f"^log: trace .*status=200.*{SIZE}", f"^success, .* 200, {SIZE} bytes$")

    def logger_shows_a_failure(self):
        with server.serving({}) as served:
            gone = served.url("/file")
        run = self.run(gone)
        run.expect(1, r"^log: failure .*curl error 7 ", "HTTP status 0, 0 bytes$")

    def memory_has_the_bytes_and_streams_them(self):
        with server.serving({"/file": BODY}) as served:
            run = self.run(served.url("/file"), self.path())
        run.expect(0, f"^in memory: success, HTTP status 200, {SIZE} bytes$", "^begins with: line 0000000000$",
                   f"^into a file: success, HTTP status 200, {SIZE} bytes$")
        expect_file(self.path())

    def memory_breaks_off_what_is_too_long(self):
        with server.serving({"/file": BODY}) as served:
            run = self.run(served.url("/file"), self.path(), str(SIZE - 1))
        run.expect(1, "^in memory: success", "^into a file: more bytes than wanted, HTTP status 200")
        written = pathlib.Path(self.path()).read_bytes()
        if len(written) >= SIZE or not BODY.startswith(written):
            sys.exit("the file does not hold the first bytes")

    def memory_shows_the_status_of_an_error_page(self):
        with server.serving({}) as served:
            run = self.run(served.url("/file"))
        run.expect(1, "^in memory: success, HTTP status 404, 12 bytes$", "^begins with: no such file$")

    def list_of(self, served, *names):
        path = self.path("list")
        pathlib.Path(path).write_text("".join(f"{served.url('/' + name)} {self.path(name)}\n" for name in names))
        return path

    def expect_done(self, *names):
        done = [line.split("/")[-1] for line in pathlib.Path(self.path("list.done")).read_text().splitlines()]
        if sorted(done) != sorted(names):
            sys.exit(f"remembered as done: {done}")

    def bytes_in(self, *names):
        """Of a file that is not whole, too: it has its full size, and there is no zero byte in what the server sends."""
        return sum(len(data) - data.count(0) for data in (pathlib.Path(self.path(name)).read_bytes() for name in names))

    def resume_list_stands_still_and_goes_on(self, how):
        gate = server.Gate(SIZE)
        reached = {"running": set(), "paused": set()}

        def on_line(line):
            path, _, state = line.partition(": ")
            if state not in reached or path in reached[state]:
                return None
            reached[state].add(path)
            if len(reached[state]) != 2:
                return None
            if state == "paused":
                # The server sends on, as far as the sockets hold it, and nothing of it is taken.
                sent = served.sent
                held = settled(lambda: self.bytes_in("first", "second"))
                gate.open()
                if settled(lambda: served.sent) == sent:
                    sys.exit("the server sent nothing during the pause")
                if self.bytes_in("first", "second") != held:
                    sys.exit("bytes arrived during the pause")
            return how

        with server.serving({f"/{name}": BODY for name in ("first", "second", "third")}, gate=gate,
                            bytes_per_sec=RATE) as served:
            run = Run(self.command, [self.list_of(served, "first", "second", "third")], self.seconds, on_line, talks=True)
        run.expect(0, "^pauses$", "first: paused$", "^goes on$", "third: running$", f"third: completed, {SIZE} bytes$")
        run.expect(0, "second: paused$", "^goes on$", f"second: completed, {SIZE} bytes$")
        for name in ("first", "second", "third"):
            expect_file(self.path(name))
        self.expect_done("first", "second", "third")

    def resume_list_pauses_when_told(self):
        self.resume_list_stands_still_and_goes_on("p\n")

    def resume_list_pauses_at_ctrl_c(self):
        self.resume_list_stands_still_and_goes_on(signal.SIGINT)

    def resume_list_starts_nothing_while_it_is_paused(self):
        gate = server.Gate(SIZE)

        def on_line(line):
            if line.endswith("first: running"):
                return None if gate.opened else "p\n"
            if line.endswith("first: paused"):
                gate.open()  # the missing file, which is asked for beside this one, is told now, and makes room
            if line.endswith(NOT_FOUND):
                settled(lambda: len(served.asked))
                if "/second" in served.asked:
                    sys.exit("a download was started during the pause")
                return "p\n"
            return None

        with server.serving({"/first": BODY, "/second": BODY}, gate=gate) as served:
            run = Run(self.command, [self.list_of(served, "gone", "first", "second")], self.seconds, on_line, talks=True)
        run.expect(1, "first: paused$", f"gone: {NOT_FOUND}$", "^goes on$", f"second: completed, {SIZE} bytes$")

    def resume_list_downloads_the_rest_later(self):
        files = {"/first": BODY, "/third": BODY}
        with server.serving(files) as served:
            path = self.list_of(served, "first", "second", "third")
            run = self.run(path)
            run.expect(1, f"second: {NOT_FOUND}$")
            for name in ("first", "third"):
                run.expect(1, f"{name}: completed, {SIZE} bytes$")
            self.expect_done("first", "third")

            files["/second"] = BODY
            served.asked.clear()
            self.run(path).expect(0, "first: done before$", f"second: completed, {SIZE} bytes$")
            if set(served.asked) != {"/second"}:
                sys.exit(f"asked for again: {served.asked}")
            self.expect_done("first", "second", "third")

            pathlib.Path(self.path("third")).unlink()
            self.run(path).expect(0, "second: done before$", f"third: completed, {SIZE} bytes$")
        for name in ("first", "second", "third"):
            expect_file(self.path(name))

    def resume_list_ends_when_told(self):
        running = set()

        def on_line(line):
            if not line.endswith(": running"):
                return None
            running.add(line)
            return "q\n" if len(running) == 2 else None

        files = {f"/{name}": BODY for name in ("first", "second", "third")}
        with server.serving(files, gate=server.Gate(SIZE)) as served:
            run = Run(self.command, [self.list_of(served, "first", "second", "third")], self.seconds, on_line, talks=True)
        for name in ("first", "second"):
            run.expect(3, f"{name}: cancelled$")
        if len(run.lines) != 4:
            sys.exit("each of the two is told once to run, and once to be cancelled")
        if any("third" in line for line in run.lines):
            sys.exit("the third file was begun")

    def python_has_the_bytes_and_the_file(self):
        run = self.run_gated(f" of {SIZE} bytes", None, self.path())
        run.expect(0, "^state: running$", rf"^\d+ of {SIZE} bytes$", f"^completed: {SIZE} bytes, success$",
                   f"^in memory: success, HTTP status 200, {SIZE} bytes$")
        expect_file(self.path())


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("check")
    parser.add_argument("--seconds", type=float, required=True)
    parser.add_argument("command", nargs="+")
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        getattr(Checks(args.command, args.seconds, folder), args.check)()


main()
