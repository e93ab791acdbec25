"""favoritesd's limits on connections: request and idle timeouts, many idle
connections, the connection cap, and stopping with requests in flight."""

import http.client
import json
import select
import sys
import threading
import time
import unittest

sys.dont_write_bytecode = True  # keep the source tree free of __pycache__

import harness  # noqa: E402
from harness import ADMIN, ALICE, BOB, CAROL, DAVE  # noqa: E402

API = "/api/v1"
# Categories of the large tree put while the server is told to stop (8
# objects each): enough that storing it takes a good part of a second.
CATEGORIES = 6000
HEALTHZ = harness.raw_request_bytes("GET", "/healthz")
READABLE_BY_ALICE = [
    "/shared/Sales/Reports/Pipeline",
    "/shared/Sales/Reports/Revenue by Region",
    "/shared/Sales/Reports/Top Customers",
    "/shared/Sales/Dashboards/Sales Overview/Summary",
    "/shared/Sales/Dashboards/Sales Overview/Regions",
    "/shared/Sales/Dashboards/Sales Overview/Trends",
    "/shared/Common/Company KPIs",
    "/shared/Common/Holiday Calendar",
]


def close_all(socks):
    for s in socks:
        try:
            s.close()
        except OSError:
            pass


def send_quietly(sock, data):
    """Sends `data`; False when the peer has already closed the connection."""
    try:
        sock.sendall(data)
        return True
    except (BrokenPipeError, ConnectionResetError, ConnectionAbortedError):
        return False


class TimeoutTests(harness.ServerTestCase):
    server_flags = ("--request-timeout", 2, "--idle-timeout", 1)

    def test_a_request_sent_one_header_byte_per_second_is_cut_off_after_the_request_timeout(self):
        sock = harness.raw_connect(self.server.port)
        try:
            sock.sendall(b"GET /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\n")
            start = time.monotonic()
            trickle = b"X-Slow: " + b"a" * 40 + b"\r\n\r\n"
            received = b""
            closed = False
            for i in range(len(trickle)):
                if time.monotonic() - start > 12:
                    break
                readable, _, _ = select.select([sock], [], [], 1.0)
                if readable:
                    try:
                        chunk = sock.recv(65536)
                    except ConnectionResetError:
                        chunk = b""
                    if not chunk:
                        closed = True
                        break
                    received += chunk
                    continue
                if not send_quietly(sock, trickle[i : i + 1]):
                    closed = True
                    break
            elapsed = time.monotonic() - start
        finally:
            sock.close()
        self.assertTrue(closed, "the slow request's connection is still open after %.1f s (--request-timeout 2)" % elapsed)
        self.assertGreaterEqual(elapsed, 1.0, "the connection was closed after only %.1f s" % elapsed)
        self.assertLessEqual(elapsed, 8.0, "the connection was closed only after %.1f s (--request-timeout 2)" % elapsed)
        self.assertFalse(received.startswith(b"HTTP/1.1 2"), "the slow request was answered: %r" % received[:200])

    def test_a_request_paused_less_than_the_request_timeout_is_answered(self):
        sock = harness.raw_connect(self.server.port)
        try:
            sock.sendall(b"GET /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\n")
            time.sleep(0.8)
            sock.sendall(b"X-Slow: a\r\n\r\n")
            r = harness.RawReader(sock).read_response(timeout=10)
        finally:
            sock.close()
        self.assertIsNotNone(r, "the connection closed without an answer")
        self.assertEqual(r.status, 200, str(r))

    def test_an_idle_keep_alive_connection_is_closed_after_the_idle_timeout(self):
        sock = harness.raw_connect(self.server.port)
        try:
            sock.sendall(HEALTHZ)
            reader = harness.RawReader(sock)
            r = reader.read_response(timeout=10)
            self.assertIsNotNone(r)
            self.assertEqual(r.status, 200, str(r))
            start = time.monotonic()
            closed, data = reader.wait_closed(8)
            elapsed = time.monotonic() - start
        finally:
            sock.close()
        self.assertTrue(closed, "the idle connection is still open after 8 s (--idle-timeout 1)")
        self.assertGreaterEqual(elapsed, 0.5, "the keep-alive connection was closed at once, not after being idle")
        self.assertLessEqual(elapsed, 4.0, "the idle connection was closed only after %.1f s (--idle-timeout 1)" % elapsed)
        self.assertEqual(data, b"", "unexpected bytes on the idle connection")

    def test_a_connection_in_use_outlives_the_idle_timeout(self):
        sock = harness.raw_connect(self.server.port)
        try:
            reader = harness.RawReader(sock)
            for i in range(8):
                sock.sendall(HEALTHZ)
                r = reader.read_response(timeout=10)
                self.assertIsNotNone(r, "request %d: the connection was closed" % i)
                self.assertEqual(r.status, 200, str(r))
                time.sleep(0.4)
        finally:
            sock.close()


class ManyIdleConnectionsTests(harness.ServerTestCase):
    CONNECTIONS = 1000

    @classmethod
    def setUpClass(cls):
        # The server inherits the limit: it must hold every connection too.
        limit = harness.raise_open_files_limit(2 * cls.CONNECTIONS + 200)
        if limit < cls.CONNECTIONS + 100:
            raise unittest.SkipTest("the open files limit (%d) is too low for %d connections" % (limit, cls.CONNECTIONS))
        super().setUpClass()

    def test_1000_idle_keep_alive_connections_do_not_delay_a_new_client(self):
        self.assertStatus(self.get(API + "/favorites", auth=ALICE), 200)
        socks = []
        try:
            readers = []
            batch = 100
            for start in range(0, self.CONNECTIONS, batch):
                fresh = []
                for _ in range(batch):
                    s = harness.raw_connect(self.server.port, timeout=15)
                    s.sendall(HEALTHZ)
                    socks.append(s)
                    fresh.append(harness.RawReader(s))
                for i, reader in enumerate(fresh):
                    r = reader.read_response(timeout=15)
                    self.assertIsNotNone(r, "connection %d was closed" % (start + i))
                    self.assertEqual(r.status, 200, str(r))
                readers += fresh
            self.assertEqual(len(socks), self.CONNECTIONS)

            began = time.monotonic()
            r = self.get(API + "/favorites", auth=ALICE, timeout=10)
            elapsed = time.monotonic() - began
            self.assertJson(r, 200, {"user": "alice", "favoritesPath": "/users/alice/favorites", "items": harness.ALICE_ITEMS})
            self.assertLess(elapsed, 3.0, "a new client waited %.1f s beside %d idle connections" % (elapsed, self.CONNECTIONS))

            began = time.monotonic()
            r = self.get("/healthz", timeout=10)
            self.assertStatus(r, 200)
            self.assertLess(time.monotonic() - began, 3.0)

            # The idle connections still work.
            for i in (0, self.CONNECTIONS // 2, self.CONNECTIONS - 1):
                socks[i].sendall(HEALTHZ)
                r = readers[i].read_response(timeout=10)
                self.assertIsNotNone(r, "idle connection %d was closed" % i)
                self.assertEqual(r.status, 200, str(r))
        finally:
            close_all(socks)


class MaxConnectionsTests(harness.ServerTestCase):
    server_flags = ("--max-connections", 5)

    def open_and_use(self):
        s = harness.raw_connect(self.server.port)
        s.sendall(HEALTHZ)
        reader = harness.RawReader(s)
        r = reader.read_response(timeout=10)
        return s, reader, r

    def test_a_sixth_connection_is_closed_at_once(self):
        socks = []
        try:
            readers = []
            for i in range(5):
                s, reader, r = self.open_and_use()
                socks.append(s)
                readers.append(reader)
                self.assertIsNotNone(r, "connection %d of 5 was closed" % (i + 1))
                self.assertEqual(r.status, 200, str(r))

            began = time.monotonic()
            try:
                sixth = harness.raw_connect(self.server.port)
            except (ConnectionRefusedError, ConnectionResetError):
                sixth = None
            if sixth is not None:
                socks.append(sixth)
                send_quietly(sixth, HEALTHZ)
                closed, data = harness.RawReader(sixth).wait_closed(5)
                self.assertTrue(closed, "the sixth connection is still open after 5 s (--max-connections 5)")
                self.assertLess(time.monotonic() - began, 5.0)
                self.assertFalse(data.startswith(b"HTTP/1.1 2"), "the sixth connection was served: %r" % data[:200])

            # The five stay usable.
            for i, (s, reader) in enumerate(zip(socks[:5], readers)):
                s.sendall(HEALTHZ)
                r = reader.read_response(timeout=10)
                self.assertIsNotNone(r, "connection %d was closed" % (i + 1))
                self.assertEqual(r.status, 200, str(r))

            # Once one of them closes, a new connection is served.
            socks[0].close()
            served = None
            for _ in range(20):
                try:
                    s, _, r = self.open_and_use()
                    socks.append(s)
                except (ConnectionError, TimeoutError, OSError):
                    r = None
                if r is not None and r.status == 200:
                    served = r
                    break
                time.sleep(0.25)
            self.assertIsNotNone(served, "no new connection was served after one of the five closed")
        finally:
            close_all(socks)


class ShutdownTests(harness.FreshServerTestCase):
    def test_sigterm_lets_requests_in_flight_finish_and_the_server_exits_0(self):
        server = self.start("--shutdown-timeout", 20)
        # alice and carol are signed in beforehand; bob, dave and admin sign
        # in with their requests, whose password checks are then in flight too.
        for who in (ALICE, CAROL):
            self.assertStatus(server.request("GET", API + "/favorites", auth=who), 200)

        big_tree = [
            {"type": "1", "name": "C%04d" % i, "children": [{"type": "0", "path": p} for p in READABLE_BY_ALICE]}
            for i in range(CATEGORIES)
        ]
        carol_tree = [
            {"type": "1", "name": "D%04d" % i, "children": [{"type": "0", "path": p} for p in READABLE_BY_ALICE[:4]]}
            for i in range(2000)
        ]
        holidays = {"catalogPath": "/shared/Common/Holiday Calendar"}
        jobs = [
            ("alice PUT", "PUT", API + "/favorites", ALICE, big_tree, 200),
            ("carol PUT", "PUT", API + "/favorites", CAROL, carol_tree, 200),
            ("bob add", "POST", API + "/favorites/items", BOB, holidays, 201),
            ("dave add", "POST", API + "/favorites/items", DAVE, holidays, 201),
            ("admin add", "POST", API + "/favorites/items", ADMIN, holidays, 201),
        ]
        sent = [threading.Event() for _ in jobs]
        results = [None] * len(jobs)
        answered = [None] * len(jobs)

        def run(i, method, path, auth, data):
            conn = server.connection(timeout=60)
            try:
                body = json.dumps(data).encode("utf-8")
                conn.request(
                    method,
                    path,
                    body=body,
                    headers={"Authorization": harness.basic_header(*auth), "Content-Type": "application/json"},
                )
                sent[i].set()
                resp = conn.getresponse()
                results[i] = (resp.status, resp.read())
                answered[i] = time.monotonic()
            except Exception as e:  # reported below with the job's name
                results[i] = ("exception", repr(e))
            finally:
                sent[i].set()
                conn.close()

        threads = [
            threading.Thread(target=run, args=(i, method, path, auth, data), daemon=True)
            for i, (_, method, path, auth, data, _) in enumerate(jobs)
        ]
        for t in threads:
            t.start()
        for e in sent:
            self.assertTrue(e.wait(30), "a request could not be sent")
        time.sleep(0.1)
        server.signal_term()
        signalled = time.monotonic()

        time.sleep(0.5)
        try:
            probe = server.request("GET", "/healthz", timeout=5)
            self.assertNotEqual(probe.status, 200, "the server still answers /healthz with 200 after SIGTERM")
            if probe.status != 503:
                self.fail("unexpected answer to /healthz while stopping:\n%s" % probe)
        except (ConnectionError, OSError, http.client.HTTPException):
            pass  # no longer accepting: as good

        for t in threads:
            t.join(60)
        self.assertFalse(any(t.is_alive() for t in threads), "a request in flight got no answer within 60 s")
        for (name, _, _, _, _, expected), result in zip(jobs, results):
            with self.subTest(request=name):
                self.assertEqual(result[0], expected, "%s: %r" % (name, result))
        self.assertEqual(
            json.loads(results[0][1]), {"result": "kSuccess", "categories": CATEGORIES, "catalogObjects": 8 * CATEGORIES}
        )

        self.assertGreater(
            answered[0], signalled, "the large PUT was answered before SIGTERM: it was not in flight (make it larger)"
        )
        code = server.wait(30)
        self.assertIsNotNone(code, "favoritesd did not exit within 30 s after SIGTERM")
        self.assertEqual(code, 0, "favoritesd exited with status %s\n%s" % (code, server.stderr_tail()))
        self.assertTrue(harness.port_is_closed(server.port), "the port still accepts connections after the server exited")
        self.assertEqual(len(self.catalog.tree_items("alice")), CATEGORIES, "alice's replaced tree was not stored")
        self.assertTrue(self.catalog.is_favorite("bob", "/shared/Common/Holiday Calendar"))

    def test_sigterm_when_idle_exits_0_and_stops_accepting(self):
        server = self.start()
        self.assertStatus(server.request("GET", "/healthz"), 200)
        began = time.monotonic()
        self.stop_and_check(server)
        self.assertLess(time.monotonic() - began, 10.0, "an idle server took long to stop")
        self.assertTrue(harness.port_is_closed(server.port))

    def test_the_shutdown_timeout_closes_connections_that_do_not_finish(self):
        server = self.start("--shutdown-timeout", 2, "--request-timeout", 60, "--idle-timeout", 60)
        idle = harness.raw_connect(server.port)
        partial = harness.raw_connect(server.port)
        try:
            idle.sendall(HEALTHZ)
            idle_reader = harness.RawReader(idle)
            r = idle_reader.read_response(timeout=10)
            self.assertEqual(r.status, 200, str(r))
            partial.sendall(b"GET /healthz HTTP/1.1\r\nHost: 127.0.0.1\r\n")
            time.sleep(0.3)
            began = time.monotonic()
            server.signal_term()
            code = server.wait(20)
            elapsed = time.monotonic() - began
            self.assertIsNotNone(code, "favoritesd did not exit within 20 s (--shutdown-timeout 2)")
            self.assertEqual(code, 0, server.stderr_tail())
            self.assertLess(elapsed, 10.0, "favoritesd took %.1f s to stop (--shutdown-timeout 2)" % elapsed)
            closed, data = idle_reader.wait_closed(5)
            self.assertTrue(closed, "the idle connection was left open")
            closed, data = harness.RawReader(partial).wait_closed(5)
            self.assertTrue(closed, "the connection with a partial request was left open")
            self.assertFalse(data.startswith(b"HTTP/1.1 2"), data[:200])
        finally:
            close_all([idle, partial])


if __name__ == "__main__":
    unittest.main()
