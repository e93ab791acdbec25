"""Many clients at once: 64 client threads of 8 users mix reads and edits.
Every answer must be one the API allows for the request, and at the end each
user's favorites hold exactly the adds that succeeded and were not removed."""

import http.client
import json
import random
import sys
import threading
import time
import unittest

sys.dont_write_bytecode = True  # keep the source tree free of __pycache__

import harness  # noqa: E402
from harness import query  # noqa: E402

API = "/api/v1"
USERS = ["u%d" % i for i in range(1, 9)]
THREADS_PER_USER = 8
OBJECTS_PER_THREAD = 16
OBJECTS = ["/shared/Load/r%d" % i for i in range(THREADS_PER_USER * OBJECTS_PER_THREAD)]


class Client:
    """One client thread: a user, a keep-alive connection, and the objects
    only this thread adds and removes (so it knows their state exactly)."""

    def __init__(self, test, server, user, index, operations, seed):
        self.test = test
        self.server = server
        self.user = user
        self.auth = (user, "pw-" + user)
        self.objects = OBJECTS[index * OBJECTS_PER_THREAD : (index + 1) * OBJECTS_PER_THREAD]
        self.present = set()
        self.operations = operations
        self.random = random.Random(seed)
        self.errors = []
        self.out_of_sync = 0
        self.added = 0
        self.removed = 0
        self.conn = None

    def request(self, method, path, data=None):
        if self.conn is None:
            self.conn = self.server.connection(timeout=60)
        try:
            kwargs = {} if data is None else {"json_body": data}
            return harness.request(self.server.port, method, path, auth=self.auth, conn=self.conn, **kwargs)
        except (OSError, http.client.HTTPException) as e:
            self.conn.close()
            self.conn = None
            self.errors.append("%s %s %s: no answer (%r)" % (self.user, method, path, e))
            return None

    def fail(self, what, r):
        self.errors.append("%s: %s\n%s" % (self.user, what, r))

    def error_of(self, r):
        if r.json and isinstance(r.json, dict) and isinstance(r.json.get("error"), dict):
            return r.json["error"]
        return {}

    def is_out_of_sync(self, r):
        err = self.error_of(r)
        if r.status == 409 and err.get("source") == "favorites" and err.get("code") == 3:
            self.out_of_sync += 1
            return True
        return False

    def own_favorites(self, catalog_paths):
        return {p for p in catalog_paths if p in self.objects}

    def check_own(self, what, found, r):
        if found != self.present:
            self.fail(
                "%s: own favorites %s, expected %s" % (what, sorted(found), sorted(self.present)),
                r,
            )

    def add(self):
        absent = [o for o in self.objects if o not in self.present]
        if not absent:
            return self.delete()
        obj = self.random.choice(absent)
        r = self.request("POST", API + "/favorites/items", {"catalogPath": obj})
        if r is None:
            return
        if r.status == 201:
            item = (r.json or {}).get("item", {})
            if item.get("catalogPath") != obj or item.get("favoritesPath") != "/root/" + obj.rsplit("/", 1)[1]:
                self.fail("add of %s answered another item" % obj, r)
            self.present.add(obj)
            self.added += 1
        elif not self.is_out_of_sync(r):
            self.fail("add of %s (not a favorite yet)" % obj, r)

    def delete(self):
        if self.present and self.random.random() < 0.85:
            obj = self.random.choice(sorted(self.present))
            r = self.request("DELETE", API + "/favorites/items" + query(catalogPath=obj))
            if r is None:
                return
            if r.status == 200 and r.json == {"result": "kSuccess"}:
                self.present.discard(obj)
                self.removed += 1
            elif not self.is_out_of_sync(r):
                self.fail("delete of %s (a favorite)" % obj, r)
        else:
            absent = [o for o in self.objects if o not in self.present]
            if not absent:
                return
            obj = self.random.choice(absent)
            r = self.request("DELETE", API + "/favorites/items" + query(catalogPath=obj))
            if r is None:
                return
            err = self.error_of(r)
            if not (r.status == 404 and err.get("code") == 5 and err.get("source") == "favorites") and not self.is_out_of_sync(r):
                self.fail("delete of %s (not a favorite)" % obj, r)

    def status(self):
        r = self.request("POST", API + "/favorites/status", {"paths": self.objects})
        if r is None:
            return
        if r.status != 200 or not isinstance(r.json, dict):
            return self.fail("status", r)
        results = r.json.get("results", [])
        if [x.get("path") for x in results] != self.objects:
            return self.fail("status paths out of order", r)
        self.check_own("status", {x["path"] for x in results if x.get("favorite") is True}, r)

    def tree(self):
        r = self.request("GET", API + "/favorites")
        if r is None:
            return
        if r.status != 200 or not isinstance(r.json, dict) or r.json.get("user") != self.user:
            return self.fail("tree", r)
        self.check_own("tree", self.own_favorites(i.get("catalogPath") for i in r.json.get("items", [])), r)

    def children(self):
        r = self.request("GET", API + "/favorites/children")
        if r is None:
            return
        if r.status != 200 or not isinstance(r.json, dict):
            return self.fail("children", r)
        self.check_own("children", self.own_favorites(i.get("catalogPath") for i in r.json.get("items", [])), r)

    def catalog_children(self):
        r = self.request("GET", API + "/catalog/children" + query(path="/shared/Load"))
        if r is None:
            return
        if r.status != 200 or not isinstance(r.json, dict):
            return self.fail("catalog children", r)
        items = r.json.get("items", [])
        if len(items) != len(OBJECTS):
            return self.fail("catalog children: %d items, expected %d" % (len(items), len(OBJECTS)), r)
        self.check_own("catalog children", self.own_favorites(i["path"] for i in items if i.get("favorite") is True), r)

    def run(self):
        actions = [self.add] * 4 + [self.delete] * 2 + [self.status] * 2 + [self.tree, self.children, self.catalog_children]
        try:
            for _ in range(self.operations):
                self.random.choice(actions)()
        except Exception as e:  # a failure of the client itself, reported like the others
            self.errors.append("%s: client failure %r" % (self.user, e))
        finally:
            if self.conn is not None:
                self.conn.close()


class ConcurrencyTests(harness.FreshServerTestCase):
    users = {u: ("pw-" + u, ["sales"]) for u in USERS}

    @classmethod
    def prepare_catalog(cls, catalog):
        catalog.mkdir("/shared/Load")
        catalog.grant("/shared/Load", "everyone", "read", group=True)
        for path in OBJECTS:
            catalog.put(path)

    def run_clients(self, flags, operations, copy_name):
        catalog = self.catalog.copy(copy_name)
        server = self.start(*flags, catalog_file=catalog.file)
        # Each user signs in once before the load, so that the load measures
        # the favorites requests rather than password checks.
        for u in USERS:
            self.assertStatus(server.request("GET", API + "/favorites", auth=(u, "pw-" + u)), 200)

        clients = [
            Client(self, server, user, t, operations, seed=1000 * k + t)
            for k, user in enumerate(USERS)
            for t in range(THREADS_PER_USER)
        ]
        threads = [threading.Thread(target=c.run, daemon=True) for c in clients]
        began = time.monotonic()
        for t in threads:
            t.start()
        for t in threads:
            t.join(max(1.0, 600 - (time.monotonic() - began)))
        self.assertFalse(any(t.is_alive() for t in threads), "client threads still running after 600 s")

        errors = [e for c in clients for e in c.errors]
        self.assertGreater(sum(c.added for c in clients), len(clients), "too few adds succeeded to judge the run")
        self.assertGreater(sum(c.removed for c in clients), 0, "no removal succeeded")
        self.assertFalse(
            errors, "%d unexpected answers; the first ones:\n%s" % (len(errors), "\n\n".join(errors[:8]))
        )

        for user in USERS:
            expected = set()
            for c in clients:
                if c.user == user:
                    expected |= c.present
            r = server.request("GET", API + "/favorites", auth=(user, "pw-" + user))
            body = self.assertJson(r, 200)
            paths = [i.get("catalogPath") for i in body["items"]]
            self.assertEqual(len(paths), len(set(paths)), "%s's tree holds an object twice:\n%s" % (user, r))
            self.assertEqual(set(paths), expected, "%s's tree as served" % user)
            self.assertTrue(all(i["type"] == "catalogObject" for i in body["items"]))
            stored = [i.get("catalogPath") for i in catalog.tree_items(user)]
            self.assertEqual(sorted(stored), sorted(expected), "%s's tree as stored" % user)
        self.stop_and_check(server)
        return clients

    def test_64_clients_of_8_users_get_consistent_answers(self):
        self.run_clients((), 60, "load-default.db")

    def test_64_clients_with_fewer_cached_managers_than_users_get_consistent_answers(self):
        self.run_clients(("--max-users", 3), 40, "load-max-users.db")


if __name__ == "__main__":
    unittest.main()
