"""What becomes of a process that uses the package: its signals, its end, its children, and where it finds the library."""
import os
import shutil
import signal
import subprocess
import sys
import unittest

import support
from support import LONG, PACKAGE

import xfer

LIBRARY = os.environ["XFER_LIBRARY"]


class Processes(support.Served):
    def child(self, source, *arguments, **how):
        return support.Child(self, source, *arguments, **how)

    def assert_ends_silently(self, child, says=""):
        self.assertEqual(child.end(), (0, says, ""))

    def test_ctrl_c_cancels_a_download_and_is_raised(self):
        served = self.serve_gated()
        path = self.folder() / "file"
        child = self.child("""
import xfer
try:
    xfer.download(sys.argv[1], sys.argv[2], progress=lambda done, total: print("progress", flush=True))
except KeyboardInterrupt:
    from xfer import _download
    print("interrupted", len(_download._running))
""", served.url("/file"), path)
        child.await_line("progress")
        child.process.send_signal(signal.SIGINT)
        code, out, err = child.end()
        self.assertEqual((code, out.splitlines()[-1], err), (0, "interrupted 0", ""))

    def test_ctrl_c_ends_a_wait_and_leaves_the_download(self):
        served = self.serve_gated()
        child = self.child("""
import xfer
with xfer.start(sys.argv[1], sys.argv[2]) as running:
    while running.status().done == 0: pass
    try:
        print("waits", flush=True)
        running.wait()
    except KeyboardInterrupt:
        print("interrupted", running.status().state.name)
""", served.url("/file"), self.folder() / "file")
        child.await_line("waits")
        child.process.send_signal(signal.SIGINT)
        self.assert_ends_silently(child, "interrupted RUNNING\n")

    def test_ctrl_c_ends_a_silent_request_and_is_raised(self):
        served = self.serve()
        child = self.child("""
import xfer
try:
    xfer.fetch(sys.argv[1])
except KeyboardInterrupt:
    from xfer import _fetch
    print("interrupted", len(_fetch._live))
""", served.url("/do/silent"))
        self.assertTrue(served.silence_begun.wait(LONG))
        child.process.send_signal(signal.SIGINT)
        self.assert_ends_silently(child, "interrupted 0\n")

    def test_a_process_ends_with_downloads_running(self):
        served = self.serve_gated()
        child = self.child("""
import xfer
kept = [xfer.start(sys.argv[1], sys.argv[2] + str(i), on_event=lambda event: event.kind.name) for i in range(8)]
while not all(running.status().done for running in kept): pass
""", served.url("/file"), self.folder() / "file")
        self.assert_ends_silently(child)

    def test_a_process_ends_with_a_download_at_full_speed(self):
        for _ in range(5):
            child = self.child("""
import xfer
xfer.start(sys.argv[1], sys.argv[2], on_event=lambda event: [event] * 1000)
""", self.serve().url("/file"), self.folder() / "file")
            self.assert_ends_silently(child)

    def test_a_process_ends_with_threads_that_wait(self):
        served = self.serve_gated()
        child = self.child("""
import threading
import xfer
running = xfer.start(sys.argv[1], sys.argv[2])
def silently(function):
    try: function()
    except Exception: pass
for function in (running.wait, lambda: list(running), lambda: xfer.fetch(sys.argv[3]),
                 lambda: xfer.fetch(sys.argv[4], stream=lambda piece: None)):
    threading.Thread(target=silently, args=(function,), daemon=True).start()
while running.status().done == 0: pass
""", served.url("/file"), self.folder() / "file", served.url("/do/silent"), served.url("/do/endless"))
        self.assert_ends_silently(child)

    def test_nothing_is_started_once_the_interpreter_ends(self):
        child = self.child("""
import atexit
def late():
    try: xfer.fetch("http://127.0.0.1:1/")
    except RuntimeError as error: print(error)
atexit.register(late)
import xfer
""")
        self.assert_ends_silently(child, "the interpreter is ending\n")

    @unittest.skipUnless(hasattr(os, "fork"), "this system has no fork")
    def test_a_forked_child_is_told_that_it_cannot_go_on(self):
        served = self.serve_gated()
        child = self.child("""
import os
import xfer
running = xfer.start(sys.argv[1], sys.argv[2])
while running.status().done == 0: pass
pid = os.fork()
if pid == 0:
    for call in (running.status, running.close, lambda: xfer.fetch(sys.argv[1])):
        try: call()
        except RuntimeError as error: print("forked" in str(error), flush=True)
    del running
    xfer._end()
    os._exit(3)
print(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]), running.status().state.name)
""", served.url("/file"), self.folder() / "file")
        self.assert_ends_silently(child, "True\nTrue\nTrue\n3 RUNNING\n")

    @unittest.skipUnless(hasattr(os, "fork"), "this system has no fork")
    def test_a_process_may_fork_before_its_first_download(self):
        child = self.child("""
import os
import xfer
xfer.version()
pid = os.fork()
if pid == 0:
    os._exit(xfer.fetch(sys.argv[1]).status - 200)
print(os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]))
""", self.serve().url("/file"))
        self.assert_ends_silently(child, "0\n")


class Library(support.Served):
    def child_says(self, source, environment):
        child = support.Child(self, f"import xfer\n{source}", environment=environment)
        code, out, err = child.end()
        self.assertEqual((code, err), (0, ""))
        return out.strip()

    def test_a_missing_library_is_told_with_the_way_to_name_it(self):
        said = self.child_says("""
try: xfer.version()
except ImportError as error: print(type(error).__name__, error)
""", {"XFER_LIBRARY": str(self.folder() / "none.so")})
        self.assertRegex(said, "^LibraryError .*XFER_LIBRARY.*load_library.*none.so")

    def test_a_library_can_be_named_by_an_argument(self):
        self.assertEqual(self.child_says(f"xfer.load_library({LIBRARY!r}); print(xfer.version())", {}), xfer.version())

    def test_another_library_is_refused_once_one_is_loaded(self):
        with self.assertRaisesRegex(RuntimeError, "loaded already"):
            xfer.version()
            xfer.load_library("other.so")

    def test_a_library_beside_the_package_is_found(self):
        folder = self.folder()
        shutil.copytree(PACKAGE / "xfer", folder / "xfer")
        for name in ("libxfer.so.1", "libkeel.so.1"):
            (folder / "xfer" / name).symlink_to(os.path.join(os.path.dirname(LIBRARY), name))
        said = subprocess.run([sys.executable, "-c", "import xfer; xfer.version(); print(xfer._native.library()._name)"],
                              cwd=folder, env={}, capture_output=True, text=True, check=True, timeout=LONG).stdout
        self.assertEqual(said.strip(), str(folder / "xfer" / "libxfer.so.1"))

    def build(self, source):
        path = self.folder() / "other.so"
        subprocess.run(["cc", "-shared", "-fPIC", "-x", "c", "-", "-o", str(path)], input=source, text=True, check=True)
        return {"XFER_LIBRARY": str(path)}

    def test_a_library_that_lacks_functions_is_refused(self):
        said = self.child_says("try: xfer.version()\nexcept xfer.LibraryError as error: print(error)",
                               self.build('const char* xfer_version(void) { return "1.0.0"; }'))
        self.assertRegex(said, "lacks a function.*xfer_errorText")

    def test_a_library_of_another_major_version_is_refused(self):
        source = "".join(f"void {name}(void) {{}}\n" for name, _, _ in xfer._native._FUNCTIONS if name != "xfer_version")
        said = self.child_says("try: xfer.version()\nexcept xfer.LibraryError as error: print(error)",
                               self.build(source + 'const char* xfer_version(void) { return "2.0.0"; }'))
        self.assertRegex(said, "is xfer 2.0.0, and this package is for 1.x")


if __name__ == "__main__":
    unittest.main()
