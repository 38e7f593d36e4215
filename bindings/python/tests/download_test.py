"""Downloads against a server of their own."""
import gc
import os
import pathlib
import socket
import ssl
import subprocess
import sys
import threading
import unittest
from unittest import mock

import support
from support import BODY, LONG, SIZE

import xfer
from xfer import EventKind, State
from xfer import _download
from xfer._native import EventRecord


def unused_port(case):
    """A port that refuses connections: bound until the end of the test, so that nobody else gets it, and not listening."""
    unused = socket.socket()
    case.addCleanup(unused.close)
    unused.bind(("127.0.0.1", 0))
    return unused.getsockname()[1]


def certificate(folder):
    """A certificate of 127.0.0.1's own, and the server's side of TLS with it."""
    certificate, key = folder / "certificate.pem", folder / "key.pem"
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                    "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1", "-days", "2",
                    "-out", str(certificate), "-keyout", str(key)], check=True, capture_output=True)
    tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    tls.load_cert_chain(certificate, key)
    return certificate, tls


class Downloads(support.Served):
    def setUp(self):
        self.addCleanup(self.all_are_forgotten)
        self.path = self.folder() / "file"

    def all_are_forgotten(self):
        gc.collect()
        self.assertEqual(_download._running, {}, "downloads that are not forgotten")

    def start_gated(self, **options):
        """A download that has begun and cannot end."""
        served = self.serve_gated()
        running = xfer.start(served.url("/file"), self.path, **options)
        self.addCleanup(running.close)
        self.await_true(lambda: running.status().done > 0, "no byte has arrived")
        return served, running


class CompletedDownloads(Downloads):
    def test_the_file_has_the_servers_bytes(self):
        result = xfer.download(self.serve().url("/file"), self.path)
        self.assertEqual(result, xfer.Result(self.path, SIZE))
        self.assertEqual(self.path.read_bytes(), BODY)

    def test_progress_rises_to_the_size_on_the_callers_thread(self):
        told = []
        served = self.serve(bytes_per_sec=4 << 20)
        xfer.download(served.url("/file"), self.path, connections=1,
                      progress=lambda done, total: told.append((done, total, threading.get_ident())))
        self.assertTrue(told)
        self.assertEqual([done for done, _, _ in told], sorted(done for done, _, _ in told))
        self.assertEqual({total for done, total, _ in told if done}, {SIZE})
        self.assertEqual(told[-1][0], SIZE)
        self.assertEqual({thread for _, _, thread in told}, {threading.get_ident()})

    def test_events_begin_with_running_and_end_with_the_one_end(self):
        told = []
        xfer.download(self.serve().url("/file"), self.path, on_event=told.append)
        states = [event.state for event in told if event.kind is EventKind.STATE]
        self.assertIn(State.RUNNING, states)
        self.assertEqual([event for event in told if event.kind is EventKind.END], told[-1:])
        self.assertEqual((told[-1].state, told[-1].done, told[-1].total, told[-1].error),
                         (State.COMPLETED, SIZE, SIZE, 0))

    def test_on_event_of_start_hears_the_same_in_the_same_order_as_who_iterates(self):
        told = []
        with xfer.start(self.serve(busy=1).url("/file"), self.path, on_event=told.append) as running:
            taken = list(running)
            self.assertEqual(running.wait(LONG).size, SIZE)
        but_progress = [[event for event in events if event.kind is not EventKind.PROGRESS] for events in (told, taken)]
        self.assertEqual(but_progress[0], but_progress[1])
        again = [event for event in taken if event.note is xfer.Note.TRIED_AGAIN]
        self.assertEqual([event.http_status for event in again], [503])

    def test_a_second_iterator_of_an_ended_download_ends_at_once(self):
        with xfer.start(self.serve().url("/file"), self.path) as running:
            self.assertIs(list(running)[-1].kind, EventKind.END)
            self.assertEqual(list(running), [])

    def test_of_progress_that_nobody_takes_the_latest_is_kept(self):
        with xfer.start(self.serve(bytes_per_sec=1 << 20).url("/file"), self.path, connections=1) as running:
            running.wait(LONG)
            kinds = [event.kind for event in running]
        self.assertIn(EventKind.PROGRESS, kinds)
        self.assertNotIn((EventKind.PROGRESS, EventKind.PROGRESS), list(zip(kinds, kinds[1:])))

    def test_of_other_events_that_nobody_takes_the_latest_1024_are_kept(self):
        running = _download._Running(None)
        for request in range(1100):
            running.tell(EventRecord(kind=EventKind.NOTE, state=State.RUNNING, note=99, request=request, reason=b"why"))
        running.tell(EventRecord(kind=EventKind.END, state=State.COMPLETED, reason=b""))
        told = list(iter(lambda: running.next(None), None))
        self.assertEqual([(event.request, event.note, event.reason) for event in told[:-1]],
                         [(request, 99, "why") for request in range(77, 1100)])

    def test_events_of_a_newer_library_that_cannot_be_understood_are_not_told(self):
        running = _download._Running(lambda event: self.fail(event))
        running.tell(EventRecord(kind=9, state=State.RUNNING, reason=b""))
        running.tell(EventRecord(kind=EventKind.STATE, state=9, reason=b""))
        self.assertIsNone(running.error)

    def test_a_paused_download_ends_only_when_it_goes_on(self):
        served, running = self.start_gated()
        running.pause()
        self.await_true(lambda: running.status().state is State.PAUSED, "not paused")
        served.gate.open()
        with self.assertRaises(TimeoutError):
            running.wait(0.3)
        self.assertLess(running.status().done, SIZE)
        running.resume()
        self.assertEqual(running.wait(LONG).size, SIZE)
        self.assertEqual(self.path.read_bytes(), BODY)

    def test_a_limit_holds_until_it_is_raised(self):
        with xfer.start(self.serve().url("/file"), self.path, limit=SIZE // 8) as running:
            self.assertEqual(running.speed_limit, SIZE // 8)
            with self.assertRaises(TimeoutError):
                running.wait(0.3)
            running.speed_limit = 0
            self.assertEqual(running.wait(LONG).size, SIZE)
            self.assertEqual(running.speed_limit, 0)

    def test_paths_may_be_unicode_and_bytes(self):
        served = self.serve()
        names = ["größe – 大きい.bin", "大".encode()]
        if sys.platform == "linux":
            names.append(b"\xff\xfe")
        for name in names:
            path = os.path.join(os.fsencode(self.path.parent) if isinstance(name, bytes) else self.path.parent, name)
            with self.subTest(name):
                self.assertEqual(xfer.download(served.url("/file"), path).path, path)
                self.assertEqual(pathlib.Path(os.fsdecode(path)).read_bytes(), BODY)

    def test_many_run_at_once(self):
        served = self.serve()
        paths = [self.path.with_name(str(i)) for i in range(24)]
        downloads = [xfer.start(served.url("/file"), path) for path in paths[:12]]
        threads = [threading.Thread(target=xfer.download, args=(served.url("/file"), path)) for path in paths[12:]]
        for thread in threads:
            thread.start()
        for running in downloads:
            running.wait(LONG)
            running.close()
        for thread in threads:
            thread.join()
        self.assertEqual([path.read_bytes() == BODY for path in paths], [True] * 24)

    def test_headers_cookie_and_user_agent_reach_the_server(self):
        served = self.serve()
        for headers in ({"X-A": "1", "X-B": "2"}, [("X-A", "1"), ("X-B", "2")], ["X-A: 1", "X-B:2"]):
            with self.subTest(headers):
                xfer.download(served.url("/file"), self.path, headers=headers, cookie="c=3", user_agent="agent/4")
                seen = served.seen[-1].headers
                self.assertEqual([seen[name] for name in ("X-A", "X-B", "Cookie", "User-Agent")],
                                 ["1", "2", "c=3", "agent/4"])

    def test_a_download_that_nobody_has_any_more_goes_on_and_is_forgotten_at_its_end(self):
        served = self.serve_gated()
        xfer.start(served.url("/file"), self.path)
        gc.collect()
        self.assertEqual(len(_download._running), 1)
        served.gate.open()
        self.await_true(lambda: not _download._running, "not forgotten")
        self.assertEqual(self.path.read_bytes(), BODY)

    def test_closing_in_its_own_on_event_forgets_it(self):
        def close(event):
            if event.kind is EventKind.PROGRESS and "running" in here:
                here.pop("running").close()
        here = {}
        served = self.serve_gated()
        running = xfer.start(served.url("/file"), self.path, on_event=close)
        here["running"] = running
        with self.assertRaises(xfer.DownloadCancelled):
            running.wait(LONG)
        self.assertNotIn(EventKind.END, [event.kind for event in running])


class FailedDownloads(Downloads):
    def assert_fails(self, code, http_status, message, url, path=None, **options):
        with self.assertRaises(xfer.DownloadError) as raised:
            xfer.download(url, path or self.path, max_tries=1, **options)
        error = raised.exception
        self.assertEqual((error.code, error.http_status, error.message), (code, http_status, message))
        self.assertEqual(str(error), f"{message} ({code})")
        self.assertNotIsInstance(error, xfer.DownloadCancelled)

    def test_a_missing_file_is_told_by_its_status(self):
        self.assert_fails(404, 404, "HTTP 404: not found", self.serve().url("/gone"))

    def test_words_are_those_of_the_error_page_where_there_was_one(self):
        self.assertEqual(_download.described(18, 503), _download.described(503, 503))
        self.assertNotEqual(_download.described(18, 206), _download.described(206, 206))

    def test_a_refused_connection_is_told_by_its_code(self):
        self.assert_fails(7, 0, "Couldn't connect to server", f"http://127.0.0.1:{unused_port(self)}/")

    def test_a_path_that_cannot_be_is_told_by_its_code(self):
        self.assert_fails(100004, 0, _download.described(100004, 0), self.serve().url("/file"),
                          self.path / "below" / "nothing")

    def test_certificates_are_checked_unless_told_otherwise(self):
        trusted, tls = certificate(self.path.parent)
        url = self.serve(tls=tls).url("/file").replace("http:", "https:")
        self.assert_fails(60, 0, _download.described(60, 0), url)
        self.assertEqual(xfer.download(url, self.path, verify=False).size, SIZE)
        self.assertEqual(xfer.download(url, self.path, ca_file=trusted).size, SIZE)
        self.assert_fails(90, 0, _download.described(90, 0), url, ca_file=trusted, pinned_key="sha256//" + "A" * 43 + "=")

    def test_a_cancelled_download_says_so(self):
        _, running = self.start_gated()
        running.cancel()
        with self.assertRaises(xfer.DownloadCancelled) as raised:
            running.wait(LONG)
        self.assertEqual(raised.exception.code, 102)
        self.assertIs(running.status().state, State.CANCELLED)

    def test_leaving_it_cancels_it_and_tells_its_end(self):
        told = []
        _, running = self.start_gated(on_event=told.append)
        with running:
            pass
        self.assertEqual((told[-1].kind, told[-1].state), (EventKind.END, State.CANCELLED))
        self.assertIs(running.status().state, State.CANCELLED)
        for call in (running.pause, running.resume, running.cancel, running.close):
            call()
        with self.assertRaises(xfer.DownloadCancelled):
            running.wait()

    def test_closing_ends_who_waits_and_who_iterates_elsewhere(self):
        _, running = self.start_gated()
        ends = []

        def wait():
            try:
                running.wait()
            except xfer.DownloadCancelled as error:
                ends.append(error.code)
        threads = [threading.Thread(target=wait), threading.Thread(target=lambda: ends.append(len(list(running)) > 0))]
        for thread in threads:
            thread.start()
        running.close()
        for thread in threads:
            thread.join(LONG)
        self.assertEqual(sorted(ends), [True, 102])

    def test_a_download_that_takes_too_long_leaves_its_file_to_the_next(self):
        served = self.serve_gated()
        with self.assertRaises(TimeoutError):
            xfer.download(served.url("/file"), self.path, timeout=0.3)
        served.gate.open()
        self.assertEqual(xfer.download(served.url("/file"), self.path).size, SIZE)

    def test_what_progress_raises_ends_the_download_and_is_raised(self):
        served = self.serve_gated()
        with self.assertRaises(ZeroDivisionError):
            xfer.download(served.url("/file"), self.path, progress=lambda done, total: done // 0)

    def test_what_on_event_raises_cancels_the_download_and_is_raised_by_wait(self):
        told = []

        def refuse(event):
            told.append(event)
            raise ZeroDivisionError
        served = self.serve_gated()
        running = xfer.start(served.url("/file"), self.path, on_event=refuse)
        with self.assertRaises(ZeroDivisionError):
            running.wait(LONG)
        self.assertIs(running.status().state, State.CANCELLED)
        self.assertEqual(len(told), 1)
        running.close()

    def test_what_on_event_raises_is_raised_by_leaving_without_a_wait(self):
        def refuse(event):
            raise ZeroDivisionError
        served = self.serve_gated()
        with self.assertRaises(ZeroDivisionError):
            with xfer.start(served.url("/file"), self.path, on_event=refuse):
                pass

    def test_what_on_event_raises_is_logged_when_nobody_waits(self):
        def refuse(event):
            raise ZeroDivisionError
        served = self.serve_gated()
        with self.assertLogs("xfer", "ERROR") as logged:
            xfer.start(served.url("/file"), self.path, on_event=refuse)
            gc.collect()
            self.await_true(lambda: not _download._running, "not forgotten")
        self.assertIn("ZeroDivisionError", logged.output[0])

    def test_a_wait_inside_of_an_on_event_is_refused_instead_of_waiting_for_itself(self):
        for wait in (lambda running: running.wait(), lambda running: list(running)):
            ready = threading.Event()
            here = []

            def on_event(event):
                ready.wait(LONG)
                wait(here[0])
            served = self.serve_gated()
            with xfer.start(served.url("/file"), self.path, on_event=on_event) as running:
                here.append(running)
                ready.set()
                with self.assertRaisesRegex(RuntimeError, "wait for itself"):
                    running.wait(LONG)

    def test_arguments_that_cannot_be_are_refused_by_name(self):
        for error, name, options in (
                (ValueError, "connections", {"connections": 0}), (ValueError, "connections", {"connections": 65536}),
                (ValueError, "limit", {"limit": -1}), (ValueError, "limit", {"limit": 2**64}),
                (ValueError, "max_tries", {"max_tries": 2**32}), (ValueError, "retry_max_time", {"retry_max_time": -1}),
                (ValueError, "headers", {"headers": {"A": "1\nB: 2"}}), (ValueError, "headers", {"headers": ["A"]}),
                (TypeError, "headers", {"headers": "A: 1"}), (ValueError, "cookie", {"cookie": "a\0b"}),
                (TypeError, "proxy", {"proxy": 1}), (ValueError, "ca_file", {"verify": False, "ca_file": "x"}),
                (ValueError, "url", {"url": "http://h/\0"}), (ValueError, "path", {"path": "a\0b"}),
                (TypeError, "connections", {"connections": 1.5}), (TypeError, "url", {"url": None})):
            with self.subTest(options):
                arguments = {"url": "http://127.0.0.1:1/", "path": self.path, **options}
                with self.assertRaisesRegex(error, "integer" if "connections" in options and error is TypeError else name):
                    xfer.start(**arguments)

    def test_a_download_that_cannot_be_handed_out_is_cancelled(self):
        served = self.serve_gated()
        with mock.patch.object(_download, "Download", side_effect=KeyboardInterrupt):
            with self.assertRaises(KeyboardInterrupt):
                xfer.start(served.url("/file"), self.path)
        self.assertEqual(_download._running, {})
        served.gate.open()
        self.assertEqual(xfer.download(served.url("/file"), self.path).size, SIZE)

    def test_a_download_that_is_refused_leaves_nothing(self):
        with self.assertRaises(xfer.DownloadError) as raised:
            xfer.start("http://127.0.0.1:1/", self.path, ca_file=self.path)
        self.assertEqual(raised.exception.code, 100030)
        self.assertEqual(_download._running, {})

    def test_errors_can_be_pickled(self):
        import pickle
        error = pickle.loads(pickle.dumps(xfer.DownloadError(404, 404, "why")))
        self.assertEqual((type(error), error.code, str(error)), (xfer.DownloadError, 404, "why (404)"))


if __name__ == "__main__":
    unittest.main()
