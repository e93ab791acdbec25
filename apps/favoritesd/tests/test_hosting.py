"""favoritesd as a host of favorites managers: changes made by other writers,
new users, the mobile upgrade, the manager cache, the access log, metrics,
health and the configuration file."""

import re
import sys
import time
import unittest

sys.dont_write_bytecode = True  # keep the source tree free of __pycache__

import harness  # noqa: E402
from harness import ADMIN, ALICE, BOB, CAROL, DAVE, query  # noqa: E402

API = "/api/v1"
PIPELINE = "/shared/Sales/Reports/Pipeline"
REGIONS = "/shared/Sales/Dashboards/Sales Overview/Regions"
KPIS = "/shared/Common/Company KPIs"
HOLIDAYS = "/shared/Common/Holiday Calendar"
BUDGET = "/shared/Finance/Reports/Budget vs Actual"

SAMPLE_RE = re.compile(r"^([a-zA-Z_:][a-zA-Z0-9_:]*)(\{[^}]*\})?\s+(\S+)(\s+\d+)?$")


def object_item(catalog_path, category_path="/root"):
    name = catalog_path.rsplit("/", 1)[1]
    return {"type": "catalogObject", "name": name, "favoritesPath": category_path + "/" + name, "catalogPath": catalog_path}


def metric_samples(text, name):
    """[(labels text, value)] of the samples of one metric name."""
    out = []
    for line in text.splitlines():
        if not line or line.startswith("#"):
            continue
        m = SAMPLE_RE.match(line.strip())
        if m and m.group(1) == name:
            out.append((m.group(2) or "", float(m.group(3))))
    return out


def root_catalog_paths(items):
    return [i["catalogPath"] for i in items if i["type"] == "catalogObject"]


class HostingTests(harness.ServerTestCase):
    users = {"frank": ("pw-frank", ["sales"])}

    def test_a_change_made_with_the_tool_is_seen_at_the_next_get(self):
        r = self.get(API + "/favorites", auth=ALICE)
        self.assertJson(r, 200, {"user": "alice", "favoritesPath": "/users/alice/favorites", "items": harness.ALICE_ITEMS})
        self.catalog.favorites("alice", "add", HOLIDAYS)
        try:
            r = self.get(API + "/favorites", auth=ALICE)
            self.assertJson(
                r,
                200,
                {"user": "alice", "favoritesPath": "/users/alice/favorites", "items": harness.ALICE_ITEMS + [object_item(HOLIDAYS)]},
            )
            r = self.get(API + "/favorites/children", auth=ALICE)
            self.assertEqual(
                [i["name"] for i in self.assertJson(r, 200)["items"]], ["Sales", "Company KPIs", "Holiday Calendar"], str(r)
            )
        finally:
            self.catalog.favorites("alice", "rm", HOLIDAYS)
        r = self.get(API + "/favorites", auth=ALICE)
        self.assertJson(r, 200, {"user": "alice", "favoritesPath": "/users/alice/favorites", "items": harness.ALICE_ITEMS})

    def status_of_budget(self):
        r = self.post(API + "/favorites/status", {"paths": [BUDGET]}, auth=BOB)
        return self.assertJson(r, 200)["results"][0]["favorite"]

    def test_a_change_made_with_the_tool_is_seen_by_status_once_the_index_is_older_than_its_max_age(self):
        # Status answers from an index checked against the store at most
        # --status-max-age (default 1 s) ago.
        time.sleep(1.2)  # past any change another test of the class made
        self.assertFalse(self.status_of_budget())
        self.catalog.favorites("bob", "add", BUDGET)
        try:
            time.sleep(1.2)
            self.assertTrue(self.status_of_budget(), "the server's answer does not reflect the tool's add")
        finally:
            self.catalog.favorites("bob", "rm", BUDGET)
        time.sleep(1.2)
        self.assertFalse(self.status_of_budget(), "the server's answer does not reflect the tool's removal")

    def test_a_change_made_with_the_tool_is_seen_by_status_after_any_other_request(self):
        time.sleep(1.2)  # past any change another test of the class made
        self.assertFalse(self.status_of_budget())
        self.catalog.favorites("bob", "add", BUDGET)
        try:
            self.assertJson(self.get(API + "/favorites", auth=BOB), 200)
            self.assertTrue(self.status_of_budget(), "the reload of the GET does not reach status")
        finally:
            self.catalog.favorites("bob", "rm", BUDGET)


class StatusMaxAgeZeroTests(harness.ServerTestCase):
    server_flags = ["--status-max-age", "0"]

    def test_with_max_age_zero_a_change_made_with_the_tool_is_seen_at_the_next_status_request(self):
        def status():
            r = self.post(API + "/favorites/status", {"paths": [BUDGET]}, auth=BOB)
            return self.assertJson(r, 200)["results"][0]["favorite"]

        self.assertFalse(status())
        self.catalog.favorites("bob", "add", BUDGET)
        self.assertTrue(status(), "the server's answer does not reflect the tool's add")
        self.catalog.favorites("bob", "rm", BUDGET)
        self.assertFalse(status(), "the server's answer does not reflect the tool's removal")


class HostingEditTests(harness.ServerTestCase):
    users = {"frank": ("pw-frank", ["sales"])}

    def test_an_edit_after_a_change_made_with_the_tool_succeeds(self):
        frank = ("frank", "pw-frank")
        self.assertJson(self.get(API + "/favorites", auth=frank), 200)
        self.catalog.favorites("frank", "add", KPIS)
        r = self.post(API + "/favorites/items", {"catalogPath": HOLIDAYS}, auth=frank)
        self.assertJson(r, 201, {"result": "kSuccess", "item": object_item(HOLIDAYS)})
        self.assertEqual(self.catalog.tree_items("frank"), [object_item(KPIS), object_item(HOLIDAYS)])
        self.catalog.favorites("frank", "add", PIPELINE)
        r = self.delete(API + "/favorites/items" + query(catalogPath=KPIS), auth=frank)
        self.assertJson(r, 200, {"result": "kSuccess"})
        self.assertEqual(self.catalog.tree_items("frank"), [object_item(HOLIDAYS), object_item(PIPELINE)])
        r = self.get(API + "/favorites", auth=frank)
        self.assertEqual(self.assertJson(r, 200)["items"], [object_item(HOLIDAYS), object_item(PIPELINE)])

    def test_a_new_users_first_request_creates_the_favorites_object(self):
        self.assertNotIn("/users/carol/favorites", self.catalog.ls("/users/carol"))
        r = self.get(API + "/favorites", auth=CAROL)
        self.assertJson(r, 200, {"user": "carol", "favoritesPath": "/users/carol/favorites", "items": []})
        self.assertIn("/users/carol/favorites", self.catalog.ls("/users/carol"))

    def test_a_user_added_while_the_server_runs_can_sign_in(self):
        self.catalog.add_user("gina", "pw-gina", ["sales"])
        r = self.get(API + "/favorites", auth=("gina", "pw-gina"))
        self.assertJson(r, 200, {"user": "gina", "favoritesPath": "/users/gina/favorites", "items": []})
        self.assertIn("/users/gina/favorites", self.catalog.ls("/users/gina"))

    def test_daves_old_mobile_favorites_are_upgraded_on_his_first_request(self):
        self.assertIn("/users/dave/mobile-favoritelist", self.catalog.ls("/users/dave"))
        expected = {
            "user": "dave",
            "favoritesPath": "/users/dave/favorites",
            "items": [
                {
                    "type": "category",
                    "name": "Mobile Favorites",
                    "favoritesPath": "/root/Mobile Favorites",
                    "children": [
                        object_item(PIPELINE, "/root/Mobile Favorites"),
                        object_item(REGIONS, "/root/Mobile Favorites"),
                    ],
                }
            ],
        }
        self.assertJson(self.get(API + "/favorites", auth=DAVE), 200, expected)
        listing = self.catalog.ls("/users/dave")
        self.assertNotIn("/users/dave/mobile-favoritelist", listing)
        self.assertIn("/users/dave/favorites", listing)
        self.assertJson(self.get(API + "/favorites", auth=DAVE), 200, expected)
        self.assertEqual(self.catalog.tree_items("dave"), expected["items"])

    def test_healthz_answers_ok_without_sign_in(self):
        r = self.get("/healthz")
        self.assertStatus(r, 200)
        self.assertEqual(r.body.strip(), b"ok", str(r))
        self.assertTrue(r.content_type().startswith("text/plain"), str(r))

    def test_metrics_name_the_server_figures(self):
        for _ in range(3):
            self.assertStatus(self.get(API + "/favorites", auth=ALICE), 200)
        self.assertStatus(self.get(API + "/nope", auth=ALICE), 404)
        r = self.get("/metrics")
        self.assertStatus(r, 200)
        self.assertTrue(r.content_type().startswith("text/plain"), str(r))
        text = r.text()
        requests = metric_samples(text, "favoritesd_requests_total")
        self.assertTrue(requests, "no favoritesd_requests_total samples:\n%s" % text)
        self.assertGreaterEqual(sum(v for _, v in requests), 4, text)
        self.assertTrue(any('status="200"' in labels or "200" in labels for labels, _ in requests), text)
        self.assertTrue(any("404" in labels for labels, _ in requests), "no sample for the 404 answer:\n%s" % text)
        buckets = metric_samples(text, "favoritesd_request_duration_seconds_bucket")
        self.assertTrue(buckets, "no favoritesd_request_duration_seconds_bucket samples:\n%s" % text)
        self.assertTrue(any('le="+Inf"' in labels for labels, _ in buckets), text)
        cached = metric_samples(text, "favoritesd_managers_cached")
        self.assertEqual(len(cached), 1, text)
        self.assertGreaterEqual(cached[0][1], 1, text)
        self.assertTrue(
            re.search(r"^favoritesd_catalog_call_duration_seconds(_bucket|_sum|_count)?[{ ]", text, re.M),
            "no favoritesd_catalog_call_duration_seconds samples:\n%s" % text,
        )


class ManagerCacheTests(harness.ServerTestCase):
    server_flags = ("--max-users", 2)
    TURNS = ["/shared/Common/Turn%d" % i for i in range(4)]

    @classmethod
    def prepare_catalog(cls, catalog):
        for path in cls.TURNS:
            catalog.put(path)

    def test_five_users_taking_turns_over_two_cached_managers_are_answered_correctly(self):
        people = [ALICE, BOB, CAROL, DAVE, ADMIN]
        for turn, path in enumerate(self.TURNS[:3]):
            for who in people:
                with self.subTest(turn=turn, user=who[0]):
                    r = self.get(API + "/favorites", auth=who)
                    body = self.assertJson(r, 200)
                    self.assertEqual(body["user"], who[0])
                    self.assertEqual(body["favoritesPath"], "/users/%s/favorites" % who[0])
                    added = [p for p in root_catalog_paths(body["items"]) if p in self.TURNS]
                    self.assertEqual(added, self.TURNS[:turn], "%s's earlier adds:\n%s" % (who[0], r))
                    r = self.post(API + "/favorites/items", {"catalogPath": path}, auth=who)
                    self.assertJson(r, 201, {"result": "kSuccess", "item": object_item(path)})
                    r = self.post(API + "/favorites/status", {"paths": self.TURNS}, auth=who)
                    self.assertEqual(
                        [x["favorite"] for x in self.assertJson(r, 200)["results"]],
                        [i <= turn for i in range(len(self.TURNS))],
                        str(r),
                    )
        for who in people:
            stored = [p for p in root_catalog_paths(self.catalog.tree_items(who[0])) if p in self.TURNS]
            self.assertEqual(stored, self.TURNS[:3], "%s's stored favorites" % who[0])
        r = self.get("/metrics")
        cached = metric_samples(r.text(), "favoritesd_managers_cached")
        self.assertEqual(len(cached), 1, r.text())
        self.assertLessEqual(cached[0][1], 2, "more managers cached than --max-users 2")
        self.assertGreaterEqual(cached[0][1], 1)

    def test_a_user_whose_manager_was_dropped_keeps_his_favorites(self):
        self.assertJson(self.get(API + "/favorites", auth=ALICE), 200)
        for who in (BOB, CAROL, ADMIN):
            self.assertStatus(self.get(API + "/favorites", auth=who), 200)
        r = self.get(API + "/favorites", auth=ALICE)
        items = self.assertJson(r, 200)["items"]
        self.assertEqual([i for i in items if i.get("catalogPath") not in self.TURNS], harness.ALICE_ITEMS)


class AccessLogTests(harness.FreshServerTestCase):
    def matches(self, line, method, path, status, user=None):
        ok = (
            re.search(r"(?<![A-Z])%s(?![A-Z])" % method, line)
            and re.search(re.escape(path) + r"(?![\w/])", line)
            and re.search(r"(?<![\d.])%d(?![\d.])" % status, line)
        )
        if ok and user is not None:
            ok = re.search(r"(?<![\w])%s(?![\w])" % re.escape(user), line)
        return bool(ok)

    def test_the_access_log_has_one_line_per_request(self):
        log = self.catalog.path("access.log")
        server = self.start("--access-log", log)
        expected = [
            (server.request("GET", "/healthz"), "GET", "/healthz", 200, None),
            (server.request("GET", API + "/favorites", auth=ALICE), "GET", API + "/favorites", 200, "alice"),
            (
                server.request("POST", API + "/favorites/items", json_body={"catalogPath": HOLIDAYS}, auth=ALICE),
                "POST",
                API + "/favorites/items",
                201,
                "alice",
            ),
            (
                server.request("GET", API + "/favorites/children" + query(category="Nope"), auth=BOB),
                "GET",
                API + "/favorites/children",
                404,
                "bob",
            ),
            (server.request("DELETE", API + "/favorites/categories", auth=("bob", "wrong")), "DELETE", API + "/favorites/categories", 401, None),
        ]
        for r, _, _, status, _ in expected:
            self.assertStatus(r, status)
        self.stop_and_check(server)
        with open(log, encoding="utf-8", errors="replace") as f:
            lines = [line.rstrip("\n") for line in f if line.strip()]
        self.assertEqual(len(lines), len(expected), "the log:\n%s" % "\n".join(lines))
        for line, (_, method, path, status, user) in zip(lines, expected):
            self.assertTrue(
                self.matches(line, method, path, status, user),
                "no %s %s %d%s in the log line %r" % (method, path, status, " by " + user if user else "", line),
            )
            self.assertGreaterEqual(len(line.split()), 6, "a line has time, user, method, path, status, bytes and duration: %r" % line)

    def console_lines(self, server):
        return server.stdout_lines() + server.stderr_text().splitlines()

    def test_the_access_log_dash_writes_lines_to_the_console(self):
        server = self.start("--access-log", "-")
        self.assertStatus(server.request("GET", API + "/favorites/children", auth=ALICE), 200)
        found = harness.poll(
            lambda: [l for l in self.console_lines(server) if self.matches(l, "GET", API + "/favorites/children", 200, "alice")],
            10,
        )
        self.assertTrue(
            found,
            "no access log line on standard output or standard error:\n%s\n%s" % (server.stdout_text(), server.stderr_text()),
        )
        self.stop_and_check(server)

    def test_access_log_off_writes_no_lines(self):
        server = self.start("--access-log", "off")
        self.assertStatus(server.request("GET", API + "/favorites/children", auth=ALICE), 200)
        self.stop_and_check(server)
        self.assertFalse([l for l in self.console_lines(server) if API + "/favorites/children" in l])


class ConfigFileTests(harness.FreshServerTestCase):
    def test_config_file_keys_take_effect(self):
        config = self.catalog.path("favoritesd.conf")
        with open(config, "w", encoding="utf-8") as f:
            f.write("max-body = 1000\nsession-seconds = 60\nsignin-failures = 1000\n")
        server = self.start("--config", config)
        small = {"paths": [KPIS]}
        r = server.request("POST", API + "/favorites/status", json_body=small, auth=ALICE)
        self.assertJson(r, 200, {"results": [{"path": KPIS, "favorite": True}]})
        big = b'{"paths": ["' + b"/x" * 1000 + b'"]}'
        r = harness.send_request_with_large_body(
            server.port,
            "POST",
            API + "/favorites/status",
            ["Authorization: " + harness.basic_header(*ALICE), "Content-Type: application/json"],
            big,
        )
        self.assertIsNotNone(r, "the connection closed without an answer")
        self.assertEqual(r.status, 413, "max-body = 1000 from the file is not applied:\n%s" % r)
        r = server.request("POST", API + "/session", json_body={"user": "alice", "password": "demo"})
        body = self.assertJson(r, 200)
        self.assertEqual(body["expiresIn"], 60, "session-seconds = 60 from the file is not applied:\n%s" % r)
        self.stop_and_check(server)


if __name__ == "__main__":
    unittest.main()
