"""Shared helpers of the favoritesd HTTP tests.

The tests run the built binaries: FAVORITESD names the server, FAVORITES_TOOL
the `favorites` command-line tool (KIV_DATA_DIR, when set, is passed on to
both). Every test works on a catalog of its own in a temporary directory,
made with `favorites catalog demo`, and talks to a server started on a free
port of 127.0.0.1.

Nothing here may hang: every process wait, socket operation and polling loop
has a bound in time and in count.
"""

import base64
import http.client
import json
import os
import re
import resource
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest
import urllib.parse

HOST = "127.0.0.1"
DEMO_PASSWORD = "demo"
ALICE = ("alice", DEMO_PASSWORD)
BOB = ("bob", DEMO_PASSWORD)
CAROL = ("carol", DEMO_PASSWORD)
DAVE = ("dave", DEMO_PASSWORD)
ADMIN = ("admin", DEMO_PASSWORD)

START_TIMEOUT = 30.0
STOP_TIMEOUT = 30.0
REQUEST_TIMEOUT = 30.0
TOOL_TIMEOUT = 120.0

# Runs a command so that it is killed when the process that started it dies
# (PR_SET_PDEATHSIG, kept across exec): a test run that is killed leaves no
# server behind. The signal follows the thread that started the command, so
# servers are started from the main thread. argv: parent pid, program,
# arguments.
_KILL_WITH_PARENT = (
    "import ctypes, os, signal, sys\n"
    "ctypes.CDLL(None, use_errno=True).prctl(1, signal.SIGKILL)\n"
    "if os.getppid() != int(sys.argv[1]):\n"
    "    sys.exit(70)\n"
    "os.execv(sys.argv[2], sys.argv[2:])\n"
)

LISTENING_RE = re.compile(r"^listening on http://127\.0\.0\.1:(\d+)$")

# Alice's favorites as the demo catalog writes them, in the server's item form.
ALICE_ITEMS = [
    {
        "type": "category",
        "name": "Sales",
        "favoritesPath": "/root/Sales",
        "children": [
            {
                "type": "catalogObject",
                "name": "Revenue by Region",
                "favoritesPath": "/root/Sales/Revenue by Region",
                "catalogPath": "/shared/Sales/Reports/Revenue by Region",
            },
            {
                "type": "catalogObject",
                "name": "Summary",
                "favoritesPath": "/root/Sales/Summary",
                "catalogPath": "/shared/Sales/Dashboards/Sales Overview/Summary",
            },
        ],
    },
    {
        "type": "catalogObject",
        "name": "Company KPIs",
        "favoritesPath": "/root/Company KPIs",
        "catalogPath": "/shared/Common/Company KPIs",
    },
]


class SetupError(RuntimeError):
    """The test environment is not usable (a binary is missing, a tool call failed)."""


def _binary(variable):
    value = os.environ.get(variable, "")
    if not value:
        raise SetupError(
            "%s is not set: it must name the built %s binary"
            % (variable, "favoritesd" if variable == "FAVORITESD" else "favorites")
        )
    if not os.path.isfile(value) or not os.access(value, os.X_OK):
        raise SetupError("%s=%s is not an executable file" % (variable, value))
    return value


def server_binary():
    return _binary("FAVORITESD")


def tool_binary():
    return _binary("FAVORITES_TOOL")


def raise_open_files_limit(wanted):
    """Raises the soft limit of open files to `wanted` (bounded by the hard
    limit), so that this process and the servers it starts can hold that many
    sockets. Returns the soft limit in effect afterwards."""
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft != resource.RLIM_INFINITY and soft < wanted:
        target = wanted if hard == resource.RLIM_INFINITY else min(wanted, hard)
        resource.setrlimit(resource.RLIMIT_NOFILE, (target, hard))
        soft = target
    return soft


def query(**params):
    """A query string ("?a=b&c=d") with every value percent-encoded as UTF-8
    (a space as %20); parameters whose value is None are left out."""
    items = [(k, v) for k, v in params.items() if v is not None]
    if not items:
        return ""
    return "?" + urllib.parse.urlencode(items, quote_via=urllib.parse.quote, safe="")


def basic_header(user, password):
    token = base64.b64encode(("%s:%s" % (user, password)).encode("utf-8")).decode("ascii")
    return "Basic " + token


# ---------------------------------------------------------------------------
# The catalog and the command-line tool


class ToolResult:
    def __init__(self, args, returncode, stdout, stderr):
        self.args = args
        self.returncode = returncode
        self.stdout = stdout
        self.stderr = stderr

    def json(self):
        return json.loads(self.stdout)


class Catalog:
    """A catalog file in a fresh temporary directory (or the catalog `store`
    names: a postgresql:// URI), and the tool to work on it."""

    def __init__(self, demo=True, store=None):
        self.tool = tool_binary()
        self._tmp = tempfile.TemporaryDirectory(prefix="favoritesd-test-")
        self.dir = self._tmp.name
        self.file = store or os.path.join(self.dir, "catalog.db")
        if demo:
            self.run("catalog", "demo")

    def cleanup(self):
        if self._tmp is not None:
            self._tmp.cleanup()

    def copy(self, name):
        """A copy of the catalog file (with its journal files) in the same
        directory, as a Catalog of its own that the original cleans up. The
        catalog must not be in use while it is copied."""
        other = object.__new__(Catalog)
        other.tool = self.tool
        other._tmp = None
        other.dir = self.dir
        other.file = self.path(name)
        for suffix in ("", "-wal", "-shm", "-journal"):
            if os.path.exists(self.file + suffix):
                shutil.copyfile(self.file + suffix, other.file + suffix)
        return other

    def path(self, name):
        """A file name inside the catalog's temporary directory."""
        return os.path.join(self.dir, name)

    def run(self, *args, user=None, json_output=False, stdin=None, check=True, timeout=TOOL_TIMEOUT):
        cmd = [self.tool, "--catalog", self.file]
        if user is not None:
            cmd += ["--user", user]
        if json_output:
            cmd.append("--json")
        cmd += list(args)
        try:
            proc = subprocess.run(
                cmd,
                input=stdin.encode("utf-8") if isinstance(stdin, str) else stdin,
                stdin=None if stdin is not None else subprocess.DEVNULL,
                stdout=subprocess.PIPE,
                stderr=subprocess.PIPE,
                timeout=timeout,
            )
        except subprocess.TimeoutExpired:
            raise SetupError("the tool did not finish within %.0f s: %r" % (timeout, cmd))
        result = ToolResult(
            cmd,
            proc.returncode,
            proc.stdout.decode("utf-8", "replace"),
            proc.stderr.decode("utf-8", "replace"),
        )
        if check and proc.returncode != 0:
            raise SetupError(
                "the tool failed (exit %d): %r\nstdout: %s\nstderr: %s"
                % (proc.returncode, cmd, result.stdout, result.stderr)
            )
        return result

    # Catalog administration.
    def add_user(self, name, password, groups=()):
        args = ["catalog", "add-user", name]
        for g in groups:
            args += ["--group", g]
        self.run(*args)
        self.passwd(name, password)

    def passwd(self, name, password):
        self.run("catalog", "passwd", name, stdin=password + "\n")

    def put(self, path, signature="report1"):
        self.run("catalog", "put", path, "--signature", signature)

    def mkdir(self, path):
        self.run("catalog", "mkdir", path)

    def grant(self, path, principal, rights, group=False):
        args = ["catalog", "grant", path, principal, rights]
        if group:
            args.append("--group")
        self.run(*args)

    def ls(self, path):
        return self.run("catalog", "ls", path).stdout

    # Favorites, as a user.
    def favorites(self, user, *args, check=True, stdin=None):
        return self.run(*args, user=user, check=check, stdin=stdin)

    def tree_items(self, user):
        """The user's stored tree as the tool reads it (`--json tree` items)."""
        return self.run("tree", user=user, json_output=True).json()["items"]

    def is_favorite(self, user, path):
        out = self.run("is", path, user=user).stdout
        line = out.splitlines()[0]
        if line.startswith("yes"):
            return True
        if line.startswith("no"):
            return False
        raise SetupError("unexpected output of `is`: %r" % out)


# ---------------------------------------------------------------------------
# The test PostgreSQL server


class TestPostgres:
    """The PostgreSQL server the CTest fixture "postgres" started
    (scripts/pgtest.sh): its connection string is in the file that
    KIV_TEST_PG_CONNINFO names. Each catalog gets a database of its own."""

    _counter = 0

    def __init__(self):
        file = os.environ.get("KIV_TEST_PG_CONNINFO", "")
        try:
            with open(file, encoding="utf-8") as f:
                self.conninfo = f.read().strip()
        except OSError as e:
            raise SetupError(
                "no test PostgreSQL server (%s): run this test through ctest, whose fixture \"postgres\" starts one"
                % e
            )
        fields = dict(part.split("=", 1) for part in self.conninfo.split())
        self.socket_dir = fields["host"]
        self.user = fields.get("user", "postgres")

    def sql(self, statement, database="postgres"):
        proc = subprocess.run(
            ["psql", "-X", "-q", "-v", "ON_ERROR_STOP=1", "-h", self.socket_dir, "-U", self.user, "-d", database,
             "-c", statement],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=TOOL_TIMEOUT,
        )
        if proc.returncode != 0:
            raise SetupError("psql failed: %s\n%s" % (statement, proc.stderr.decode("utf-8", "replace")))
        return proc.stdout.decode("utf-8", "replace")

    def new_database(self):
        """A fresh empty database; returns its postgresql:// URI."""
        TestPostgres._counter += 1
        name = "kivtest_%d_%d" % (os.getpid(), TestPostgres._counter)
        self.sql("CREATE DATABASE %s" % name)
        return "postgresql://%s@/%s?host=%s" % (self.user, name, urllib.parse.quote(self.socket_dir, safe="/"))


# ---------------------------------------------------------------------------
# The server


class Server:
    """favoritesd on a free port of 127.0.0.1, over a catalog (a file or a
    postgresql:// URI)."""

    def __init__(self, catalog_file, *flags):
        self.binary = server_binary()
        self.catalog_file = catalog_file
        self.flags = [str(f) for f in flags]
        self.proc = None
        self.port = None
        self.returncode = None
        self._stdout_lines = []
        self._stderr_chunks = []
        self._lock = threading.Lock()
        self._listening = threading.Event()
        self._threads = []

    @property
    def command(self):
        return [self.binary, "--catalog", self.catalog_file, "--listen", HOST + ":0"] + self.flags

    def start(self):
        self.proc = subprocess.Popen(
            [sys.executable, "-c", _KILL_WITH_PARENT, str(os.getpid())] + self.command,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
        )
        t_out = threading.Thread(target=self._drain_stdout, daemon=True)
        t_err = threading.Thread(target=self._drain_stderr, daemon=True)
        t_out.start()
        t_err.start()
        self._threads = [t_out, t_err]
        deadline = time.monotonic() + START_TIMEOUT
        while time.monotonic() < deadline:
            if self._listening.wait(0.1):
                return self
            if self.proc.poll() is not None:
                for t in self._threads:
                    t.join(5)
                raise SetupError(
                    "favoritesd exited with status %s before listening: %r\nstdout:\n%s\nstderr:\n%s"
                    % (self.proc.returncode, self.command, self.stdout_text(), self.stderr_text())
                )
        self.kill()
        raise SetupError(
            "favoritesd did not print 'listening on http://127.0.0.1:PORT' within %.0f s: %r\nstdout:\n%s\nstderr:\n%s"
            % (START_TIMEOUT, self.command, self.stdout_text(), self.stderr_text())
        )

    def _drain_stdout(self):
        for raw in iter(self.proc.stdout.readline, b""):
            line = raw.decode("utf-8", "replace").rstrip("\r\n")
            with self._lock:
                self._stdout_lines.append(line)
            if self.port is None:
                m = LISTENING_RE.match(line)
                if m:
                    self.port = int(m.group(1))
                    self._listening.set()
        self.proc.stdout.close()

    def _drain_stderr(self):
        while True:
            chunk = self.proc.stderr.read1(65536) if hasattr(self.proc.stderr, "read1") else self.proc.stderr.read(4096)
            if not chunk:
                break
            with self._lock:
                self._stderr_chunks.append(chunk)
        self.proc.stderr.close()

    def stdout_text(self):
        with self._lock:
            return "\n".join(self._stdout_lines)

    def stdout_lines(self):
        with self._lock:
            return list(self._stdout_lines)

    def stderr_text(self):
        with self._lock:
            return b"".join(self._stderr_chunks).decode("utf-8", "replace")

    def running(self):
        return self.proc is not None and self.proc.poll() is None

    def signal_term(self):
        if self.running():
            self.proc.send_signal(signal.SIGTERM)

    def wait(self, timeout=STOP_TIMEOUT):
        """Waits for the process to exit; returns its status, or None when it
        is still running after `timeout` seconds."""
        try:
            self.returncode = self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            return None
        for t in self._threads:
            t.join(5)
        return self.returncode

    def stop(self, timeout=STOP_TIMEOUT):
        """SIGTERM, then waits; returns the exit status. A server that does
        not exit in time is killed and reported."""
        if self.proc is None:
            return None
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
        code = self.wait(timeout)
        if code is None:
            self.kill()
            raise AssertionError(
                "favoritesd did not exit within %.0f s after SIGTERM\nstderr:\n%s"
                % (timeout, self.stderr_tail())
            )
        return code

    def kill(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.kill()
            try:
                self.proc.wait(10)
            except subprocess.TimeoutExpired:
                pass

    def stderr_tail(self, limit=6000):
        text = self.stderr_text()
        return text if len(text) <= limit else "...\n" + text[-limit:]

    # Requests.
    def connection(self, timeout=REQUEST_TIMEOUT, source_address=None):
        return http.client.HTTPConnection(HOST, self.port, timeout=timeout, source_address=source_address)

    def request(self, method, path, **kwargs):
        return request(self.port, method, path, **kwargs)


# ---------------------------------------------------------------------------
# Requests

_NO_JSON = object()


class Response:
    def __init__(self, method, path, status, reason, headers, body):
        self.method = method
        self.path = path
        self.status = status
        self.reason = reason
        self.headers = headers  # list of (name, value), as received
        self.body = body
        self.json = None
        self.json_error = None
        if self.content_type().startswith("application/json") and body:
            try:
                self.json = json.loads(body.decode("utf-8"))
            except (ValueError, UnicodeDecodeError) as e:
                self.json_error = str(e)

    def header(self, name, default=None):
        lname = name.lower()
        for k, v in self.headers:
            if k.lower() == lname:
                return v
        return default

    def header_all(self, name):
        lname = name.lower()
        return [v for k, v in self.headers if k.lower() == lname]

    def content_type(self):
        return (self.header("Content-Type") or "").strip().lower()

    def text(self):
        return self.body.decode("utf-8", "replace")

    def __str__(self):
        body = self.text()
        if len(body) > 1500:
            body = body[:1500] + "...(%d bytes)" % len(self.body)
        return "%s %s -> %d %s\n%s\n%s" % (
            self.method,
            self.path,
            self.status,
            self.reason,
            "\n".join("%s: %s" % kv for kv in self.headers),
            body,
        )


def request(
    port,
    method,
    path,
    auth=None,
    cookie=None,
    headers=None,
    json_body=_NO_JSON,
    body=None,
    timeout=REQUEST_TIMEOUT,
    conn=None,
    source_address=None,
):
    """Sends one request and reads the answer.

    auth: (user, password) for Basic; cookie: the session id (kiv_session) or a
    whole Cookie header value when it holds "="; json_body: a value sent as
    JSON; body: raw bytes (or text) sent as is. With `conn`, the request goes
    on that keep-alive connection, which stays open."""
    hdrs = {}
    if auth is not None:
        hdrs["Authorization"] = basic_header(*auth)
    if cookie is not None:
        hdrs["Cookie"] = cookie if "=" in cookie else "kiv_session=" + cookie
    payload = None
    if json_body is not _NO_JSON:
        payload = json.dumps(json_body, ensure_ascii=False).encode("utf-8")
        hdrs["Content-Type"] = "application/json"
    elif body is not None:
        payload = body.encode("utf-8") if isinstance(body, str) else body
        hdrs.setdefault("Content-Type", "application/json")
    if headers:
        hdrs.update(headers)
    own = conn is None
    if own:
        conn = http.client.HTTPConnection(HOST, port, timeout=timeout, source_address=source_address)
    try:
        conn.request(method, path, body=payload, headers=hdrs)
        resp = conn.getresponse()
        data = resp.read()
        return Response(method, path, resp.status, resp.reason, resp.getheaders(), data)
    finally:
        if own:
            conn.close()


# ---------------------------------------------------------------------------
# Raw sockets, for requests http.client will not send


class RawResponse:
    def __init__(self, status, reason, headers, body):
        self.status = status
        self.reason = reason
        self.headers = headers  # lower-case name -> value (the last one)
        self.body = body
        self.json = None
        if headers.get("content-type", "").lower().startswith("application/json") and body:
            try:
                self.json = json.loads(body.decode("utf-8"))
            except (ValueError, UnicodeDecodeError):
                self.json = None

    def header(self, name, default=None):
        return self.headers.get(name.lower(), default)

    def __str__(self):
        return "%d %s\n%s\n%s" % (
            self.status,
            self.reason,
            "\n".join("%s: %s" % kv for kv in self.headers.items()),
            self.body[:1500].decode("utf-8", "replace"),
        )


def raw_connect(port, timeout=10.0, source_address=None):
    sock = socket.create_connection((HOST, port), timeout=timeout, source_address=source_address)
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    return sock


class RawReader:
    """Reads HTTP/1.1 responses from a socket, keeping what follows one
    response for the next."""

    def __init__(self, sock):
        self.sock = sock
        self.buf = b""
        self.eof = False

    def _fill(self, deadline):
        remaining = deadline - time.monotonic()
        if remaining <= 0:
            raise TimeoutError("no complete response in time")
        self.sock.settimeout(remaining)
        try:
            chunk = self.sock.recv(65536)
        except socket.timeout:
            raise TimeoutError("no complete response in time")
        except ConnectionResetError:
            chunk = b""
        if not chunk:
            self.eof = True
        self.buf += chunk
        return bool(chunk)

    def read_response(self, timeout=REQUEST_TIMEOUT):
        """The next response, or None when the connection closed before its
        first byte. Raises TimeoutError when it does not arrive in time."""
        deadline = time.monotonic() + timeout
        while b"\r\n\r\n" not in self.buf:
            if self.eof or not self._fill(deadline):
                if not self.buf:
                    return None
                raise ConnectionError("the connection closed inside a response head: %r" % self.buf[:200])
        head, self.buf = self.buf.split(b"\r\n\r\n", 1)
        lines = head.decode("iso-8859-1").split("\r\n")
        fields = lines[0].split(" ", 2)
        status = int(fields[1])
        reason = fields[2] if len(fields) > 2 else ""
        headers = {}
        for line in lines[1:]:
            if ":" in line:
                k, v = line.split(":", 1)
                headers[k.strip().lower()] = v.strip()
        if "chunked" in headers.get("transfer-encoding", "").lower():
            body = self._read_chunked(deadline)
        else:
            length = int(headers.get("content-length", "0"))
            while len(self.buf) < length:
                if self.eof or not self._fill(deadline):
                    raise ConnectionError("the connection closed inside a response body")
            body, self.buf = self.buf[:length], self.buf[length:]
        return RawResponse(status, reason, headers, body)

    def _read_chunked(self, deadline):
        body = b""
        while True:
            while b"\r\n" not in self.buf:
                if self.eof or not self._fill(deadline):
                    raise ConnectionError("the connection closed inside a chunked body")
            size_line, self.buf = self.buf.split(b"\r\n", 1)
            size = int(size_line.split(b";")[0].strip() or b"0", 16)
            while len(self.buf) < size + 2:
                if self.eof or not self._fill(deadline):
                    raise ConnectionError("the connection closed inside a chunk")
            body += self.buf[:size]
            self.buf = self.buf[size + 2 :]
            if size == 0:
                return body

    def wait_closed(self, timeout):
        """Reads until the peer closes the connection. Returns (closed, data):
        whether it closed within `timeout` seconds, and the bytes that came
        before."""
        deadline = time.monotonic() + timeout
        while not self.eof:
            try:
                if not self._fill(deadline):
                    break
            except TimeoutError:
                return False, self.buf
        return True, self.buf


def raw_request_bytes(method, path, headers=None, body=b"", auth=None, keep_alive=True):
    lines = ["%s %s HTTP/1.1" % (method, path), "Host: %s" % HOST]
    if auth is not None:
        lines.append("Authorization: " + basic_header(*auth))
    for k, v in (headers or {}).items():
        lines.append("%s: %s" % (k, v))
    if body or method in ("POST", "PUT"):
        lines.append("Content-Length: %d" % len(body))
    if not keep_alive:
        lines.append("Connection: close")
    return ("\r\n".join(lines) + "\r\n\r\n").encode("utf-8") + body


def send_request_with_large_body(port, method, path, head_lines, body, timeout=REQUEST_TIMEOUT):
    """Sends a request head, then its body while the server has not answered
    yet (a server may answer early and stop reading); returns the response,
    or None when the connection closed without one."""
    sock = raw_connect(port, timeout)
    try:
        head = "%s %s HTTP/1.1\r\nHost: %s\r\n%sContent-Length: %d\r\n\r\n" % (
            method,
            path,
            HOST,
            "".join(line + "\r\n" for line in head_lines),
            len(body),
        )
        sock.sendall(head.encode("utf-8"))
        sent = 0
        deadline = time.monotonic() + timeout
        while sent < len(body) and time.monotonic() < deadline:
            readable, writable, _ = select.select([sock], [sock], [], 1.0)
            if readable:
                break
            if writable:
                try:
                    sent += sock.send(body[sent : sent + 65536])
                except (BrokenPipeError, ConnectionResetError):
                    break
        return RawReader(sock).read_response(timeout=max(1.0, deadline - time.monotonic()))
    finally:
        sock.close()


def port_is_closed(port, timeout=2.0):
    """True when nothing accepts connections on the port any more."""
    try:
        s = socket.create_connection((HOST, port), timeout=timeout)
    except (ConnectionRefusedError, socket.timeout, OSError):
        return True
    s.close()
    return False


def can_bind(address):
    """Whether a client socket can use `address` (such as 127.0.0.2) as its
    source address."""
    s = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    try:
        s.bind((address, 0))
        return True
    except OSError:
        return False
    finally:
        s.close()


# ---------------------------------------------------------------------------
# Test cases


class ServerTestCase(unittest.TestCase):
    """One catalog and one server for the whole class.

    Subclasses set `server_flags`, `users` ({name: (password, [groups])}, made
    before the server starts) and may override `prepare_catalog` to add items
    first. A failing test's report ends with the tail of the server's
    standard error."""

    server_flags = ()
    users = {}
    start_server = True
    expected_exit = 0
    catalog = None
    server = None

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.catalog = Catalog()
        try:
            for name, (password, groups) in cls.users.items():
                cls.catalog.add_user(name, password, groups)
            cls.prepare_catalog(cls.catalog)
            if cls.start_server:
                cls.server = Server(cls.catalog.file, *cls.server_flags).start()
        except BaseException:
            cls.catalog.cleanup()
            raise

    @classmethod
    def prepare_catalog(cls, catalog):
        pass

    @classmethod
    def tearDownClass(cls):
        try:
            if cls.server is not None and cls.server.proc is not None and cls.server.returncode is None:
                code = cls.server.stop()
                if code != cls.expected_exit:
                    raise AssertionError(
                        "favoritesd exited with status %s after SIGTERM (expected %s)\nstderr:\n%s"
                        % (code, cls.expected_exit, cls.server.stderr_tail())
                    )
        finally:
            cls.server = None
            if cls.catalog is not None:
                cls.catalog.cleanup()
            super().tearDownClass()

    def servers_to_report(self):
        servers = []
        for s in (getattr(type(self), "server", None), self.__dict__.get("server")):
            if s is not None and s not in servers:
                servers.append(s)
        return servers + list(self.__dict__.get("extra_servers", []))

    def run(self, result=None):
        if result is None:
            return super().run(result)
        before = (len(result.failures), len(result.errors))
        outcome = super().run(result)
        tails = []
        for s in self.servers_to_report():
            if s.proc is not None:
                tails.append("--- favoritesd stderr (%s) ---\n%s" % (" ".join(s.flags) or "default flags", s.stderr_tail()))
        if tails:
            for lst, n in ((result.failures, before[0]), (result.errors, before[1])):
                for i in range(n, len(lst)):
                    test, text = lst[i]
                    lst[i] = (test, text + "\n" + "\n".join(tails))
        return outcome

    # Requests on the class's server.
    def req(self, method, path, **kwargs):
        server = self.__dict__.get("server") or type(self).server
        return server.request(method, path, **kwargs)

    def get(self, path, **kwargs):
        return self.req("GET", path, **kwargs)

    def post(self, path, data, **kwargs):
        return self.req("POST", path, json_body=data, **kwargs)

    def put(self, path, data, **kwargs):
        return self.req("PUT", path, json_body=data, **kwargs)

    def delete(self, path, **kwargs):
        return self.req("DELETE", path, **kwargs)

    # Assertions.
    def assertStatus(self, resp, status):
        if isinstance(status, (tuple, list, set)):
            self.assertIn(resp.status, status, "unexpected status:\n%s" % resp)
        else:
            self.assertEqual(resp.status, status, "unexpected status:\n%s" % resp)

    def assertJson(self, resp, status, expected=_NO_JSON):
        """The answer has `status`, a JSON content type, a parseable body and,
        when given, exactly the body `expected`. Returns the parsed body."""
        self.assertStatus(resp, status)
        self.assertTrue(
            resp.content_type().startswith("application/json"),
            "the answer is not typed application/json:\n%s" % resp,
        )
        self.assertIsNone(resp.json_error, "the body is not JSON (%s):\n%s" % (resp.json_error, resp))
        if expected is not _NO_JSON:
            self.assertEqual(resp.json, expected, "unexpected body:\n%s" % resp)
        return resp.json

    def assertError(self, resp, status, source, code=None, name=None, message=None, path=None):
        """The answer is the error shape: {"error":{"source","code","name",
        "message"[,"path"]}} with the given values (None: any value of the
        right type)."""
        body = self.assertJson(resp, status)
        self.assertIsInstance(body, dict, "the error body is not an object:\n%s" % resp)
        self.assertEqual(list(body.keys()), ["error"], "the error body has other members:\n%s" % resp)
        err = body["error"]
        self.assertIsInstance(err, dict, "error is not an object:\n%s" % resp)
        required = {"source", "code", "name", "message"}
        allowed = required | {"path"}
        self.assertTrue(required <= set(err), "the error lacks %s:\n%s" % (sorted(required - set(err)), resp))
        self.assertTrue(set(err) <= allowed, "the error has unknown members %s:\n%s" % (sorted(set(err) - allowed), resp))
        if source is not None:
            self.assertEqual(err["source"], source, "unexpected error source:\n%s" % resp)
        self.assertIn(err["source"], ("favorites", "catalog", "server"), "unknown error source:\n%s" % resp)
        self.assertIsInstance(err["code"], int, "error code is not a number:\n%s" % resp)
        self.assertIsInstance(err["name"], str, "error name is not text:\n%s" % resp)
        self.assertIsInstance(err["message"], str, "error message is not text:\n%s" % resp)
        self.assertTrue(err["message"], "the error message is empty:\n%s" % resp)
        if err["source"] == "server":
            self.assertEqual(err["code"], status, "a server error's code is its HTTP status:\n%s" % resp)
        if err["source"] == "catalog":
            self.assertIn("path", err, "a catalog error names the item:\n%s" % resp)
        if code is not None:
            self.assertEqual(err["code"], code, "unexpected error code:\n%s" % resp)
        if name is not None:
            self.assertEqual(err["name"], name, "unexpected error name:\n%s" % resp)
        if message is not None:
            self.assertEqual(err["message"], message, "unexpected error message:\n%s" % resp)
        if path is not None:
            self.assertEqual(err.get("path"), path, "unexpected error path:\n%s" % resp)
        return err

    def assertServerError(self, resp, status, name, message=None):
        return self.assertError(resp, status, "server", status, name, message)


class FreshServerTestCase(ServerTestCase):
    """A catalog for the class, and a server of its own for every test
    (started by `start` inside the test, stopped at its end)."""

    start_server = False

    def setUp(self):
        super().setUp()
        self.extra_servers = []

    def start(self, *flags, catalog_file=None):
        server = Server(catalog_file or self.catalog.file, *flags)
        self.extra_servers.append(server)
        server.start()
        self.addCleanup(self._stop_quietly, server)
        return server

    @staticmethod
    def _stop_quietly(server):
        if server.proc is not None and server.proc.poll() is None:
            server.stop()

    def stop_and_check(self, server, expected=0):
        code = server.stop()
        self.assertEqual(code, expected, "favoritesd exited with status %s after SIGTERM\nstderr:\n%s" % (code, server.stderr_tail()))


def poll(predicate, timeout, interval=0.1):
    """Calls predicate until it returns a true value or `timeout` seconds
    pass; returns the last value."""
    deadline = time.monotonic() + timeout
    value = predicate()
    while not value and time.monotonic() < deadline:
        time.sleep(interval)
        value = predicate()
    return value
