"""Single requests against a server of their own."""
import gc
import io
import threading
import time
import unittest
import weakref

import support
from download_test import certificate, unused_port
from support import BODY, SIZE

import xfer
from xfer import _fetch


class Fetches(support.Served):
    def setUp(self):
        self.served = self.serve()

    def url(self, what):
        return self.served.url(what)

    def tearDown(self):
        self.assertEqual(_fetch._live, set(), "requests that are still running")

    def test_an_answer_has_status_headers_and_body(self):
        answer = xfer.fetch(self.url("/file"))
        self.assertEqual((answer.status, answer.body), (200, BODY))
        self.assertEqual(answer.headers["content-LENGTH"], str(SIZE))
        self.assertIn("etag", answer.headers)
        self.assertNotIn("X-None", answer.headers)

    def test_an_error_page_is_an_answer(self):
        answer = xfer.fetch(self.url("/gone"))
        self.assertEqual((answer.status, answer.body), (404, b"no such file"))

    def test_methods_bodies_and_headers_arrive(self):
        for method, body, sent in ((None, b"\0\xff", "POST"), (None, None, "GET"), (None, "", "POST"), ("PUT", "ä", "PUT"),
                                   ("PUT", bytearray(b"x"), "PUT"), ("DELETE", None, "DELETE"),
                                   ("POST", memoryview(b"y"), "POST"), ("HEAD", None, "HEAD")):
            with self.subTest(f"{method} {body!r}"):
                answer = xfer.fetch(self.url("/do/echo"), method=method, body=body, cookie="c=1", user_agent="agent/2",
                                    headers={"X-Mine": "3", "Content-Type": "text/plain"})
                self.assertEqual(answer.headers["X-Method"], sent)
                self.assertEqual(answer.body, b"" if body is None else body.encode() if isinstance(body, str) else body)
                seen = self.served.seen[-1].headers
                self.assertEqual([seen[name] for name in ("X-Mine", "Cookie", "User-Agent", "Content-Type")],
                                 ["3", "c=1", "agent/2", "text/plain"])

    def test_a_header_that_comes_twice_is_there_twice(self):
        headers = xfer.fetch(self.url("/do/twice")).headers
        self.assertEqual(headers.get_all("Set-Cookie"), ["a=1", "b=2, c"])
        self.assertEqual(headers["SET-COOKIE"], "a=1")
        self.assertEqual([name for name in headers if name.lower() == "set-cookie"], ["Set-Cookie"])
        self.assertEqual(len(headers), len(list(headers)))

    def test_headers_are_those_of_the_last_answer(self):
        answer = xfer.fetch(self.url("/do/moved"))
        self.assertEqual((answer.status, answer.headers["X-Method"]), (200, "GET"))
        self.assertNotIn("X-First", answer.headers)

    def test_a_redirect_that_is_not_followed_is_the_answer(self):
        answer = xfer.fetch(self.url("/do/moved"), max_redirects=0)
        self.assertEqual((answer.status, answer.headers["Location"], answer.body), (302, "/do/echo", b"over there"))

    def test_header_lines_of_servers_are_taken_as_they_are(self):
        raw = (b"HTTP/1.1 100 Continue\r\n\r\n"
               b"HTTP/1.1 200 OK\r\nA: 1\r\n  more\r\nB:\xe4\r\nnone\r\nHTTP/x: y\r\n\r\nTrailer: z\r\n\r\n")
        self.assertEqual(_fetch._last_headers(raw).lines, [("A", "1 more"), ("B", "ä"), ("HTTP/x", "y")])

    def test_a_stream_has_the_bytes_in_order_on_the_callers_thread(self):
        pieces, threads = [], set()

        def take(piece):
            pieces.append(piece)
            threads.add(threading.get_ident())
        answer = xfer.fetch(self.url("/file"), stream=take)
        self.assertEqual((answer.status, answer.body), (200, b""))
        self.assertEqual(b"".join(pieces), BODY)
        self.assertEqual(threads, {threading.get_ident()})

    def test_a_file_can_be_the_stream_and_gets_no_error_page(self):
        file = io.BytesIO()
        xfer.fetch(self.url("/file"), stream=file)
        self.assertEqual(file.getvalue(), BODY)
        file = io.BytesIO()
        self.assertEqual(xfer.fetch(self.url("/do/error"), stream=file).body, b"an error page")
        self.assertEqual(file.getvalue(), b"")

    def test_what_a_stream_raises_breaks_the_request_off_and_is_raised(self):
        def refuse(piece):
            raise ZeroDivisionError
        with self.assertRaises(ZeroDivisionError):
            xfer.fetch(self.url("/do/endless"), stream=refuse)
        self.assertTrue(self.served.broken_off.wait(support.LONG))

    def test_a_slow_stream_holds_the_answer_up_instead_of_filling_memory(self):
        most = 0

        def take(piece):
            nonlocal most
            request, = _fetch._live
            most = max(most, len(request._pieces))
            time.sleep(0.001)
            taken.append(piece)
            if len(taken) == 200:
                raise InterruptedError
        taken = []
        with self.assertRaises(InterruptedError):
            xfer.fetch(self.url("/do/endless"), stream=take)
        self.assertTrue(0 < most <= _fetch._KEPT_PIECES, most)

    def test_a_request_that_takes_too_long_is_ended(self):
        for where in ("/do/silent", "/do/endless"):
            with self.subTest(where), self.assertRaises(TimeoutError):
                xfer.fetch(self.url(where), timeout=0.2, stream=lambda piece: None)

    def test_a_slow_stream_is_called_no_more_when_the_time_is_over(self):
        taken = []

        def take(piece):
            taken.append(piece)
            time.sleep(0.05)
        with self.assertRaises(TimeoutError):
            xfer.fetch(self.url("/do/endless"), timeout=0.3, stream=take)
        self.assertLessEqual(len(taken), 7)

    def test_failed_transfers_raise_with_their_code(self):
        for code, status, url in ((7, 0, f"http://127.0.0.1:{unused_port(self)}/"), (18, 200, self.url("/do/cut")),
                                  (1, 0, "ftp://127.0.0.1/")):
            with self.subTest(url), self.assertRaises(xfer.FetchError) as raised:
                xfer.fetch(url)
            self.assertEqual((raised.exception.code, raised.exception.http_status), (code, status))

    def test_certificates_are_checked_unless_told_otherwise(self):
        trusted, tls = certificate(self.folder())
        url = self.serve(tls=tls).url("/do/echo").replace("http:", "https:")
        with self.assertRaises(xfer.FetchError) as raised:
            xfer.fetch(url)
        self.assertEqual(raised.exception.code, 60)
        self.assertEqual(xfer.fetch(url, verify=False).status, 200)
        self.assertEqual(xfer.fetch(url, ca_file=trusted).status, 200)

    def test_many_run_at_once(self):
        bodies = []
        threads = [threading.Thread(target=lambda: bodies.append(xfer.fetch(self.url("/file")).body)) for _ in range(32)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.assertEqual([body == BODY for body in bodies], [True] * 32)

    def test_a_request_is_freed_at_its_end(self):
        def take(piece):
            requests.update(_fetch._live)
            seen.append(len(requests))
        requests, seen = weakref.WeakSet(), []
        gc.collect()
        gc.disable()  # what refers to itself stays until a collection
        try:
            xfer.fetch(self.url("/file"), stream=take)
            self.assertEqual(seen[0], 1)
            self.await_true(lambda: not requests, "the request is still there")
        finally:
            gc.enable()

    def test_arguments_that_cannot_be_are_refused_by_name(self):
        for name, options in (("method", {"method": "G\nT"}), ("max_redirects", {"max_redirects": -1}),
                              ("connect_timeout", {"connect_timeout": float("nan")}),
                              ("low_speed_time", {"low_speed_time": -1}), ("headers", {"headers": [("A:", "b")]})):
            with self.subTest(name), self.assertRaisesRegex(ValueError, name):
                xfer.fetch(self.url("/file"), **options)


if __name__ == "__main__":
    unittest.main()
