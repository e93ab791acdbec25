"""favoritesd over TLS (--tls-cert, --tls-key), with a certificate made for
the test by the openssl command."""
import http.client
import json
import os
import re
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import unittest

sys.dont_write_bytecode = True

import harness

LISTENING_TLS_RE = re.compile(r"^listening on https://127\.0\.0\.1:(\d+)$")


def make_certificate(directory):
    cert = os.path.join(directory, "cert.pem")
    key = os.path.join(directory, "key.pem")
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", cert, "-days", "2",
         "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1"],
        check=True, capture_output=True, timeout=60)
    return cert, key


class TlsServerTests(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.catalog = harness.Catalog()
        cls.cert, cls.key = make_certificate(cls.catalog.dir)
        cls.proc = subprocess.Popen(
            [harness.server_binary(), "--catalog", cls.catalog.file, "--listen", "127.0.0.1:0",
             "--tls-cert", cls.cert, "--tls-key", cls.key, "--request-timeout", "3"],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        cls.stderr = []
        threading.Thread(target=lambda: cls.stderr.extend(cls.proc.stderr), daemon=True).start()
        line = cls.proc.stdout.readline().strip()
        m = LISTENING_TLS_RE.match(line)
        if not m:
            cls.proc.kill()
            raise AssertionError("favoritesd did not announce an https address: %r %s" % (line, "".join(cls.stderr)))
        cls.port = int(m.group(1))
        cls.context = ssl.create_default_context(cafile=cls.cert)

    @classmethod
    def tearDownClass(cls):
        cls.proc.send_signal(signal.SIGTERM)
        try:
            code = cls.proc.wait(timeout=harness.STOP_TIMEOUT)
        finally:
            cls.catalog.cleanup()
        assert code == 0, "favoritesd exited with %s: %s" % (code, "".join(cls.stderr))

    def https(self, method, path, body=None, headers=None):
        conn = http.client.HTTPSConnection("127.0.0.1", self.port, context=self.context, timeout=30)
        try:
            conn.request(method, path, body=body, headers=headers or {})
            r = conn.getresponse()
            return r.status, r.getheaders(), r.read()
        finally:
            conn.close()

    def test_requests_are_answered_over_tls_with_a_verified_certificate(self):
        status, _, body = self.https("GET", "/healthz")
        self.assertEqual((status, body), (200, b"ok\n"))
        status, _, body = self.https("GET", "/api/v1/favorites", headers={"Authorization": harness.basic_header(*harness.ALICE)})
        self.assertEqual(status, 200)
        self.assertEqual(json.loads(body)["user"], "alice")

    def test_the_session_cookie_is_secure_under_tls(self):
        status, headers, _ = self.https("POST", "/api/v1/session", body=json.dumps({"user": "alice", "password": "demo"}),
                                        headers={"Content-Type": "application/json"})
        self.assertEqual(status, 200)
        cookie = dict((k.lower(), v) for k, v in headers)["set-cookie"]
        self.assertIn("; Secure", cookie)
        self.assertIn("HttpOnly", cookie)

    def test_plain_http_on_the_tls_port_gets_no_http_answer(self):
        with socket.create_connection(("127.0.0.1", self.port), timeout=10) as s:
            s.sendall(b"GET /healthz HTTP/1.1\r\nHost: x\r\n\r\n")
            data = b""
            try:
                while True:
                    chunk = s.recv(4096)
                    if not chunk:
                        break
                    data += chunk
            except (ConnectionResetError, socket.timeout):
                pass
        self.assertFalse(data.startswith(b"HTTP/1.1 200"), data[:100])


class TlsSettingsTests(unittest.TestCase):
    def run_server(self, *flags):
        catalog = harness.Catalog()
        try:
            return subprocess.run([harness.server_binary(), "--catalog", catalog.file, "--listen", "127.0.0.1:0", *flags],
                                  capture_output=True, text=True, timeout=60)
        finally:
            catalog.cleanup()

    def test_a_certificate_without_a_key_is_refused_at_start(self):
        with tempfile.TemporaryDirectory() as d:
            cert, _ = make_certificate(d)
            r = self.run_server("--tls-cert", cert)
        self.assertNotEqual(r.returncode, 0)
        self.assertIn("--tls-key", r.stderr)

    def test_an_unreadable_certificate_is_refused_at_start(self):
        with tempfile.TemporaryDirectory() as d:
            _, key = make_certificate(d)
            r = self.run_server("--tls-cert", os.path.join(d, "missing.pem"), "--tls-key", key)
        self.assertNotEqual(r.returncode, 0)
        self.assertIn("--tls-cert", r.stderr)


if __name__ == "__main__":
    unittest.main()
