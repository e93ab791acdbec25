"""Several writers on one store lose no update.

Tool processes on one SQLite catalog file, tool processes on one PostgreSQL
catalog, and two favoritesd on one PostgreSQL catalog each add distinct
objects to one user's favorites at the same time, retrying when told the
favorites were out of sync (tool exit status 13, HTTP 409): at the end every
add that was reported successful is stored. A writer killed with SIGKILL in
the middle of edits leaves the others going and the stored object whole.

KIV_WRITER_RUNS (default 5) and KIV_WRITER_ADDS (default 600) set the number
of runs of each case and the adds of each run.
"""

import os
import random
import signal
import subprocess
import sys
import threading
import time
import unittest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402
from harness import ADMIN, Catalog, Server, TestPostgres  # noqa: E402

RUNS = int(os.environ.get("KIV_WRITER_RUNS", "5"))
ADDS = int(os.environ.get("KIV_WRITER_ADDS", "600"))
OUT_OF_SYNC_EXIT = 13
ALREADY_EXISTS_EXIT = 10
MAX_TRIES = 100
KILLS = 60
PASSWORD = "several-writers"


def object_paths(count):
    return ["/shared/load/o%04d" % n for n in range(count)]


def put_objects(catalog, paths):
    for start in range(0, len(paths), 300):
        catalog.run("catalog", "put", *paths[start:start + 300], "--signature", "report1")


def stored_paths(catalog, user):
    """The catalog paths of the user's top-level favorites, as a fresh tool reads them."""
    return {i["catalogPath"] for i in catalog.tree_items(user) if i["type"] == "catalogObject"}


class ToolAdder(threading.Thread):
    """A series of `favorites add` processes, one path each, retried while
    the tool answers out of sync."""

    def __init__(self, catalog, user, paths, on_start=None):
        super().__init__(daemon=True)
        self.catalog = catalog
        self.user = user
        self.paths = paths
        self.on_start = on_start
        self.succeeded = []
        self.failed = []  # (path, exit status, stderr)
        self.retries = 0
        self.killed = 0

    def run(self):
        for path in self.paths:
            killed_before = False
            for _ in range(MAX_TRIES):
                proc = subprocess.Popen(
                    [self.catalog.tool, "--catalog", self.catalog.file, "--user", self.user, "add", path],
                    stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                )
                if self.on_start:
                    self.on_start(proc)
                try:
                    _, err = proc.communicate(timeout=harness.TOOL_TIMEOUT)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.communicate()
                    self.failed.append((path, "timeout", ""))
                    break
                if proc.returncode == 0:
                    self.succeeded.append(path)
                    break
                if proc.returncode == -signal.SIGKILL:
                    self.killed += 1  # killed by the test: its outcome is unknown, try again
                    killed_before = True
                    continue
                if proc.returncode == ALREADY_EXISTS_EXIT and killed_before:
                    self.succeeded.append(path)  # the killed attempt had stored it
                    break
                if proc.returncode == OUT_OF_SYNC_EXIT:
                    self.retries += 1
                    continue
                self.failed.append((path, proc.returncode, err.decode("utf-8", "replace")))
                break


class HttpAdder(threading.Thread):
    """Adds through one server, one request per path, retried on 409."""

    def __init__(self, server, user, paths):
        super().__init__(daemon=True)
        self.server = server
        self.user = user
        self.paths = paths
        self.succeeded = []
        self.failed = []
        self.retries = 0
        self.stopped_by_error = None

    def run(self):
        auth = (self.user, PASSWORD)
        for path in self.paths:
            for _ in range(MAX_TRIES):
                try:
                    resp = self.server.request("POST", "/api/v1/favorites/items", auth=auth,
                                               json_body={"catalogPath": path})
                except (OSError, harness.http.client.HTTPException) as e:
                    self.stopped_by_error = e  # the server is gone
                    return
                if resp.status == 201:
                    self.succeeded.append(path)
                    break
                if resp.status == 409:
                    self.retries += 1
                    continue
                self.failed.append((path, resp.status, resp.text()))
                break


def split(paths, parts):
    return [paths[n::parts] for n in range(parts)]


class SeveralWritersTestCase(unittest.TestCase):
    def check_run(self, catalog, user, adders, label):
        for a in adders:
            a.join(harness.TOOL_TIMEOUT * 10)
            self.assertFalse(a.is_alive(), "%s: a writer did not finish" % label)
        failed = [f for a in adders for f in a.failed]
        self.assertEqual(failed, [], "%s: adds failed" % label)
        succeeded = [p for a in adders for p in a.succeeded]
        stored = stored_paths(catalog, user)
        lost = sorted(set(succeeded) - stored)
        retries = sum(a.retries for a in adders)
        print("%s: %d adds reported successful, %d stored, %d lost, %d out-of-sync retries"
              % (label, len(succeeded), len(stored & set(succeeded)), len(lost), retries), flush=True)
        self.assertEqual(lost, [], "%s: %d adds reported successful are not stored" % (label, len(lost)))
        return succeeded


class ToolProcessesOnSqlite(SeveralWritersTestCase):
    @classmethod
    def setUpClass(cls):
        cls.catalog = Catalog()
        put_objects(cls.catalog, object_paths(ADDS))

    @classmethod
    def tearDownClass(cls):
        cls.catalog.cleanup()

    def run_processes(self, processes):
        for run in range(RUNS):
            user = "p%dr%d" % (processes, run)
            self.catalog.add_user(user, PASSWORD)
            adders = [ToolAdder(self.catalog, user, part) for part in split(object_paths(ADDS), processes)]
            for a in adders:
                a.start()
            succeeded = self.check_run(self.catalog, user, adders, "sqlite, %d processes, run %d" % (processes, run + 1))
            self.assertEqual(len(succeeded), ADDS)

    def test_two_processes_adding_distinct_objects_lose_no_add(self):
        self.run_processes(2)

    def test_four_processes_adding_distinct_objects_lose_no_add(self):
        self.run_processes(4)

    def test_a_process_killed_in_the_middle_of_edits_leaves_the_others_going(self):
        user = "killed"
        self.catalog.add_user(user, PASSWORD)
        paths = object_paths(ADDS)[:120]
        half = len(paths) // 2
        victims = []
        victim = ToolAdder(self.catalog, user, paths[:half], on_start=victims.append)
        survivor = ToolAdder(self.catalog, user, paths[half:])
        stop = threading.Event()

        def killer():
            # At most KILLS kills, so that a slow (sanitizer) build still ends.
            rng = random.Random(7)
            kills = 0
            while not stop.is_set() and kills < KILLS:
                time.sleep(rng.uniform(0.005, 0.06))
                if victims and victims[-1].poll() is None:
                    victims[-1].send_signal(signal.SIGKILL)
                    kills += 1

        k = threading.Thread(target=killer, daemon=True)
        victim.start()
        survivor.start()
        k.start()
        survivor.join(harness.TOOL_TIMEOUT * 10)
        stop.set()
        victim.join(harness.TOOL_TIMEOUT * 10)
        self.assertGreater(victim.killed, 0, "the killer never hit a writer")
        self.check_run(self.catalog, user, [victim, survivor], "sqlite, one writer killed %d times" % victim.killed)
        self.assertEqual(len(survivor.succeeded), len(paths) - half)


class OnPostgres(SeveralWritersTestCase):
    """A demo catalog in a fresh database of the test server, with the objects to add."""

    @classmethod
    def setUpClass(cls):
        cls.pg = TestPostgres()
        cls.catalog = Catalog(store=cls.pg.new_database())
        put_objects(cls.catalog, object_paths(ADDS))

    @classmethod
    def tearDownClass(cls):
        cls.catalog.cleanup()


class ToolProcessesOnPostgres(OnPostgres):
    def test_two_processes_adding_distinct_objects_lose_no_add(self):
        # Each tool process opens its connections anew: one run keeps it short.
        user = "pg_tool"
        self.catalog.add_user(user, PASSWORD)
        paths = object_paths(ADDS)[:200]
        adders = [ToolAdder(self.catalog, user, part) for part in split(paths, 2)]
        for a in adders:
            a.start()
        self.assertEqual(len(self.check_run(self.catalog, user, adders, "postgres, 2 tool processes")), len(paths))


class TwoServersOnPostgres(OnPostgres):
    def setUp(self):
        self.servers = []

    def tearDown(self):
        for s in self.servers:
            if s.proc is not None and s.proc.poll() is None:
                s.stop()

    def start_servers(self, count=2):
        for _ in range(count):
            self.servers.append(Server(self.catalog.file, "--workers", "4").start())
        return self.servers

    def test_a_change_through_one_server_is_seen_at_the_next_request_to_the_other(self):
        a, b = self.start_servers()
        user = "seen"
        self.catalog.add_user(user, PASSWORD)
        auth = (user, PASSWORD)
        before = b.request("GET", "/api/v1/favorites", auth=auth)
        self.assertEqual(before.status, 200, str(before))
        self.assertEqual(before.json["items"], [])
        added = a.request("POST", "/api/v1/favorites/items", auth=auth, json_body={"catalogPath": "/shared/load/o0001"})
        self.assertEqual(added.status, 201, str(added))
        after = b.request("GET", "/api/v1/favorites", auth=auth)
        self.assertEqual(after.status, 200, str(after))
        self.assertEqual([i.get("catalogPath") for i in after.json["items"]], ["/shared/load/o0001"])
        # And back: a removal through the second is seen by the first.
        removed = b.request("DELETE", "/api/v1/favorites/items?catalogPath=/shared/load/o0001", auth=auth)
        self.assertEqual(removed.status, 200, str(removed))
        again = a.request("GET", "/api/v1/favorites", auth=auth)
        self.assertEqual(again.json["items"], [])

    def test_two_servers_adding_distinct_objects_lose_no_add(self):
        servers = self.start_servers()
        for run in range(RUNS):
            user = "s2r%d" % run
            self.catalog.add_user(user, PASSWORD)
            parts = split(object_paths(ADDS), 4)
            adders = [HttpAdder(servers[n % 2], user, parts[n]) for n in range(4)]
            for a in adders:
                a.start()
            succeeded = self.check_run(self.catalog, user, adders, "postgres, 2 servers, run %d" % (run + 1))
            self.assertEqual(len(succeeded), ADDS)
            for s in servers:
                resp = s.request("GET", "/api/v1/favorites", auth=(user, PASSWORD))
                self.assertEqual(len(resp.json["items"]), ADDS, "a server does not show every add")

    def test_a_server_killed_in_the_middle_of_edits_leaves_the_other_going_and_the_object_whole(self):
        victim, survivor = self.start_servers()
        user = "kill9"
        self.catalog.add_user(user, PASSWORD)
        parts = split(object_paths(ADDS)[:300], 2)
        on_victim = HttpAdder(victim, user, parts[0])
        on_survivor = HttpAdder(survivor, user, parts[1])
        on_victim.start()
        on_survivor.start()
        before_kill = min(40, len(parts[0]) // 2)
        harness.poll(lambda: len(on_victim.succeeded) >= before_kill, timeout=60, interval=0.005)
        victim.proc.send_signal(signal.SIGKILL)
        victim.proc.wait(harness.STOP_TIMEOUT)
        on_victim.join(60)
        self.assertIsNotNone(on_victim.stopped_by_error, "the killed server went on answering")
        on_survivor.join(harness.TOOL_TIMEOUT * 10)
        self.assertEqual(on_survivor.failed, [])
        self.assertEqual(len(on_survivor.succeeded), len(parts[1]), "the other server stopped adding")
        stored = stored_paths(self.catalog, user)  # a whole document, or the tool could not list it
        lost = set(on_victim.succeeded + on_survivor.succeeded) - stored
        print("postgres, a server killed after %d adds: %d adds through the other, %d stored, %d lost"
              % (len(on_victim.succeeded), len(on_survivor.succeeded), len(stored), len(lost)), flush=True)
        self.assertEqual(lost, set())
        # The survivor still serves the user, and another add goes through.
        self.catalog.run("catalog", "put", "/shared/after-kill", "--signature", "report1")
        resp = survivor.request("POST", "/api/v1/favorites/items", auth=(user, PASSWORD),
                                json_body={"catalogPath": "/shared/after-kill"})
        self.assertEqual(resp.status, 201, str(resp))


if __name__ == "__main__":
    unittest.main(verbosity=2)
