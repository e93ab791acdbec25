"""The requests of favoritesd's REST API (docs/rest-api.md): every route, its
answers and its error mapping."""

import json
import re
import sys
import unittest
import xml.etree.ElementTree as ET

sys.dont_write_bytecode = True  # keep the source tree free of __pycache__

import harness  # noqa: E402
from harness import ALICE, BOB, query  # noqa: E402

API = "/api/v1"
FAV_NS = "{urn:kiv-web:favorites/v1}"
MODIFIED_RE = re.compile(r"^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{6}Z$")

MAX_BODY = 1000000
MAX_HEADER = 8192

PIPELINE = "/shared/Sales/Reports/Pipeline"
REVENUE = "/shared/Sales/Reports/Revenue by Region"
TOP_CUSTOMERS = "/shared/Sales/Reports/Top Customers"
SUMMARY = "/shared/Sales/Dashboards/Sales Overview/Summary"
TRENDS = "/shared/Sales/Dashboards/Sales Overview/Trends"
KPIS = "/shared/Common/Company KPIs"
HOLIDAYS = "/shared/Common/Holiday Calendar"
HEADCOUNT = "/shared/HR/Reports/Headcount"

WEEKLY = [
    {
        "type": "1",
        "name": "Weekly",
        "children": [
            {"type": "0", "path": PIPELINE},
            {"type": "1", "name": "Dashboards", "children": [{"type": "0", "path": TRENDS}]},
        ],
    },
    {"type": "0", "path": HOLIDAYS},
]

WEEKLY_ITEMS = [
    {
        "type": "category",
        "name": "Weekly",
        "favoritesPath": "/root/Weekly",
        "children": [
            {
                "type": "catalogObject",
                "name": "Pipeline",
                "favoritesPath": "/root/Weekly/Pipeline",
                "catalogPath": PIPELINE,
            },
            {
                "type": "category",
                "name": "Dashboards",
                "favoritesPath": "/root/Weekly/Dashboards",
                "children": [
                    {
                        "type": "catalogObject",
                        "name": "Trends",
                        "favoritesPath": "/root/Weekly/Dashboards/Trends",
                        "catalogPath": TRENDS,
                    }
                ],
            },
        ],
    },
    {
        "type": "catalogObject",
        "name": "Holiday Calendar",
        "favoritesPath": "/root/Holiday Calendar",
        "catalogPath": HOLIDAYS,
    },
]


def object_item(catalog_path, category_path="/root"):
    name = catalog_path.rsplit("/", 1)[1]
    return {
        "type": "catalogObject",
        "name": name,
        "favoritesPath": category_path + "/" + name,
        "catalogPath": catalog_path,
    }


def xml_tree(text):
    """The favorites XML document as nested (name, type, catalogpath, children) tuples."""
    root = ET.fromstring(text)

    def walk(elem):
        return [
            (c.get("name"), c.get("type"), c.get("catalogpath"), walk(c))
            for c in elem
            if c.tag in ("favorite", FAV_NS + "favorite")
        ]

    return root.tag, walk(root)


class ReadTests(harness.ServerTestCase):
    """Requests that read alice's and bob's favorites and the catalog."""

    server_flags = ("--max-body", MAX_BODY, "--max-header", MAX_HEADER)

    @classmethod
    def prepare_catalog(cls, catalog):
        # An object in a folder everyone reads whose own access list admits
        # the finance group only.
        catalog.put("/shared/Common/Finance Only")
        catalog.grant("/shared/Common/Finance Only", "finance", "read", group=True)

    # --- GET /api/v1/favorites ---------------------------------------------

    def test_get_favorites_answers_the_whole_tree(self):
        r = self.get(API + "/favorites", auth=ALICE)
        self.assertJson(
            r,
            200,
            {"user": "alice", "favoritesPath": "/users/alice/favorites", "items": harness.ALICE_ITEMS},
        )

    def test_get_favorites_matches_the_tree_the_tool_reads(self):
        r = self.get(API + "/favorites", auth=BOB)
        body = self.assertJson(r, 200)
        self.assertEqual(body["user"], "bob")
        self.assertEqual(body["favoritesPath"], "/users/bob/favorites")
        self.assertEqual(body["items"], self.catalog.tree_items("bob"))

    # --- GET /api/v1/favorites/children --------------------------------------

    def test_children_of_the_root_lists_items_without_subtrees(self):
        r = self.get(API + "/favorites/children", auth=ALICE)
        self.assertJson(
            r,
            200,
            {
                "category": "/root",
                "filter": "",
                "items": [
                    {"type": "category", "name": "Sales", "favoritesPath": "/root/Sales"},
                    object_item(KPIS),
                ],
            },
        )

    def test_children_of_a_category_given_by_name_or_by_favorites_path(self):
        expected = {
            "category": "/root/Sales",
            "filter": "",
            "items": [object_item(REVENUE, "/root/Sales"), object_item(SUMMARY, "/root/Sales")],
        }
        for category in ("Sales", "/root/Sales"):
            with self.subTest(category=category):
                r = self.get(API + "/favorites/children" + query(category=category), auth=ALICE)
                self.assertJson(r, 200, expected)

    def test_children_with_an_empty_category_lists_the_root(self):
        r = self.get(API + "/favorites/children" + query(category=""), auth=ALICE)
        body = self.assertJson(r, 200)
        self.assertEqual(body["category"], "/root")
        self.assertEqual([i["name"] for i in body["items"]], ["Sales", "Company KPIs"])

    def test_children_filter_keeps_admitted_objects_and_every_category(self):
        cases = [
            ("", "reports", [{"type": "category", "name": "Sales", "favoritesPath": "/root/Sales"}, object_item(KPIS)]),
            ("", "dashboards", [{"type": "category", "name": "Sales", "favoritesPath": "/root/Sales"}]),
            ("Sales", "reports", [object_item(REVENUE, "/root/Sales")]),
            ("Sales", "dashboards", [object_item(SUMMARY, "/root/Sales")]),
            ("Sales", "readable", [object_item(REVENUE, "/root/Sales"), object_item(SUMMARY, "/root/Sales")]),
        ]
        for category, filt, items in cases:
            with self.subTest(category=category, filter=filt):
                r = self.get(API + "/favorites/children" + query(category=category, filter=filt), auth=ALICE)
                self.assertJson(
                    r,
                    200,
                    {"category": "/root/Sales" if category else "/root", "filter": filt, "items": items},
                )

    def test_children_of_an_unknown_category_answers_404_with_code_6(self):
        r = self.get(API + "/favorites/children" + query(category="Nope"), auth=ALICE)
        self.assertError(
            r, 404, "favorites", 6, "kErrorItemDoesNotExitsInCatalog", "The item '/root/Nope' does not exist."
        )

    def test_children_of_a_catalog_object_answers_404_with_code_6(self):
        r = self.get(API + "/favorites/children" + query(category="/root/Company KPIs"), auth=ALICE)
        self.assertError(
            r,
            404,
            "favorites",
            6,
            "kErrorItemDoesNotExitsInCatalog",
            "The item '/root/Company KPIs' does not exist.",
        )

    # --- POST /api/v1/favorites/status ---------------------------------------

    def test_status_answers_in_the_order_asked(self):
        paths = [PIPELINE, KPIS, REVENUE, HEADCOUNT, SUMMARY, "/shared/Nowhere/Gone", KPIS]
        r = self.post(API + "/favorites/status", {"paths": paths}, auth=ALICE)
        self.assertJson(
            r,
            200,
            {
                "results": [
                    {"path": PIPELINE, "favorite": False},
                    {"path": KPIS, "favorite": True},
                    {"path": REVENUE, "favorite": True},
                    {"path": HEADCOUNT, "favorite": False},
                    {"path": SUMMARY, "favorite": True},
                    {"path": "/shared/Nowhere/Gone", "favorite": False},
                    {"path": KPIS, "favorite": True},
                ]
            },
        )

    def test_status_repeats_each_path_as_sent_non_ascii_and_escaped_ones_too(self):
        paths = ["/shared/Finance/Ums\u00e4tze <2024>", '/shared/Quote "q" back', "/shared/\U0001F600 smile", KPIS]
        for ascii_only in (False, True):  # UTF-8 text, then every non-ASCII character escaped
            with self.subTest(ascii_only=ascii_only):
                text = json.dumps({"paths": paths}, ensure_ascii=ascii_only)
                r = self.req("POST", API + "/favorites/status", body=text, auth=ALICE)
                body = self.assertJson(r, 200)
                self.assertEqual(body["results"], [{"path": p, "favorite": p == KPIS} for p in paths])

    def test_status_with_a_malformed_catalog_path_names_the_path_and_the_rule(self):
        r = self.post(API + "/favorites/status", {"paths": [KPIS, "/shared//Common"]}, auth=ALICE)
        self.assertServerError(r, 400, "badRequest")
        self.assertIn("'/shared//Common' is not a valid catalog path (kItemNameEmpty)", r.json["error"]["message"])

    def test_status_for_10000_paths_answers_200(self):
        paths = [KPIS if i % 100 == 0 else "/shared/Load/p%05d" % i for i in range(10000)]
        r = self.post(API + "/favorites/status", {"paths": paths}, auth=ALICE)
        body = self.assertJson(r, 200)
        results = body["results"]
        self.assertEqual(len(results), 10000)
        self.assertEqual([x["path"] for x in results], paths, "the results are not in the order asked")
        self.assertEqual([x["favorite"] for x in results], [i % 100 == 0 for i in range(10000)])

    def test_status_for_10001_paths_answers_400(self):
        paths = ["/shared/Load/p%05d" % i for i in range(10001)]
        r = self.post(API + "/favorites/status", {"paths": paths}, auth=ALICE)
        self.assertServerError(r, 400, "badRequest")

    def test_status_without_paths_answers_400(self):
        for body in ({"paths": []}, {}, {"paths": "/shared/Common/Company KPIs"}, {"paths": [1, 2]}, {"paths": [None]}):
            with self.subTest(body=body):
                r = self.post(API + "/favorites/status", body, auth=ALICE)
                self.assertServerError(r, 400, "badRequest")

    def test_status_with_a_malformed_catalog_path_answers_400(self):
        for bad in ("shared/Common/Company KPIs", "/shared//Common", "/shared/Common/\u0001bell", ""):
            with self.subTest(path=bad):
                r = self.post(API + "/favorites/status", {"paths": [KPIS, bad]}, auth=ALICE)
                self.assertServerError(r, 400, "badRequest")

    # --- GET /api/v1/favorites/export ------------------------------------------

    def test_export_answers_the_xml_document_by_default(self):
        for q in ("", query(format="xml")):
            with self.subTest(query=q):
                r = self.get(API + "/favorites/export" + q, auth=ALICE)
                self.assertStatus(r, 200)
                self.assertTrue(r.content_type().startswith("application/xml"), str(r))
                self.assertTrue((r.header("Content-Disposition") or "").startswith("attachment"), str(r))
                tag, tree = xml_tree(r.body)
                self.assertEqual(tag, FAV_NS + "favoritelist")
                self.assertEqual(
                    tree,
                    [
                        (
                            "Sales",
                            "category",
                            None,
                            [
                                ("Revenue by Region", "catalogitem", REVENUE, []),
                                ("Summary", "catalogitem", SUMMARY, []),
                            ],
                        ),
                        ("Company KPIs", "catalogitem", KPIS, []),
                    ],
                )

    def test_export_xml_is_the_stored_document_byte_for_byte(self):
        r = self.get(API + "/favorites/export", auth=ALICE)
        self.assertStatus(r, 200)
        stored = self.catalog.run("catalog", "cat", "/users/alice/favorites").stdout
        self.assertEqual(r.body, stored.encode("utf-8"))

    def test_export_json_answers_the_replacement_text(self):
        r = self.get(API + "/favorites/export" + query(format="json"), auth=ALICE)
        self.assertStatus(r, 200)
        self.assertTrue(r.content_type().startswith("application/json"), str(r))
        self.assertTrue((r.header("Content-Disposition") or "").startswith("attachment"), str(r))
        expected = json.loads(self.catalog.run("export", "--format", "json", user="alice").stdout)
        self.assertEqual(r.json, expected)
        self.assertEqual(
            r.json,
            [
                {"type": "1", "name": "Sales", "children": [{"type": "0", "path": REVENUE}, {"type": "0", "path": SUMMARY}]},
                {"type": "0", "path": KPIS},
            ],
        )

    def test_export_with_an_unknown_format_answers_400(self):
        r = self.get(API + "/favorites/export" + query(format="csv"), auth=ALICE)
        self.assertServerError(r, 400, "badRequest")

    # --- GET /api/v1/catalog/children ------------------------------------------

    def check_catalog_item(self, got, expected):
        """`got` has every member of `expected` with its value, a modified
        time in the documented form, and no `favorite` exactly when it is a
        plain folder."""
        for key, value in expected.items():
            self.assertEqual(got.get(key), value, "member %r of %r" % (key, got))
        self.assertRegex(got.get("modified", ""), MODIFIED_RE, "modified of %r" % got)
        if expected["kind"] == "folder":
            self.assertNotIn("favorite", got, "a plain folder carries no favorite flag: %r" % got)
        else:
            self.assertIn("favorite", got)

    def check_catalog_listing(self, resp, path, expected_items):
        body = self.assertJson(resp, 200)
        self.assertEqual(sorted(body.keys()), ["items", "path"], str(resp))
        self.assertEqual(body["path"], path)
        self.assertEqual(
            [i.get("path") for i in body["items"]],
            [e["path"] for e in expected_items],
            "unexpected items or order:\n%s" % resp,
        )
        for got, expected in zip(body["items"], expected_items):
            self.check_catalog_item(got, expected)
        return body

    def test_catalog_children_lists_reports_with_their_favorite_flag(self):
        r = self.get(API + "/catalog/children" + query(path="/shared/Sales/Reports"), auth=ALICE)
        self.check_catalog_listing(
            r,
            "/shared/Sales/Reports",
            [
                {"name": "Pipeline", "path": PIPELINE, "type": "object", "kind": "report", "signature": "report1", "favorite": False},
                {"name": "Revenue by Region", "path": REVENUE, "type": "object", "kind": "report", "signature": "report1", "favorite": True},
                {"name": "Top Customers", "path": TOP_CUSTOMERS, "type": "object", "kind": "report", "signature": "report1", "favorite": False},
            ],
        )

    def test_catalog_children_lists_folders_and_a_link_with_its_target(self):
        r = self.get(API + "/catalog/children" + query(path="/shared/Sales"), auth=ALICE)
        self.check_catalog_listing(
            r,
            "/shared/Sales",
            [
                {"name": "Dashboards", "path": "/shared/Sales/Dashboards", "type": "folder", "kind": "folder"},
                {
                    "name": "Latest Revenue",
                    "path": "/shared/Sales/Latest Revenue",
                    "type": "link",
                    "kind": "link",
                    "target": REVENUE,
                    "favorite": False,
                },
                {"name": "Reports", "path": "/shared/Sales/Reports", "type": "folder", "kind": "folder"},
            ],
        )

    def test_catalog_children_lists_a_dashboard_and_its_pages(self):
        r = self.get(API + "/catalog/children" + query(path="/shared/Sales/Dashboards"), auth=ALICE)
        self.check_catalog_listing(
            r,
            "/shared/Sales/Dashboards",
            [
                {
                    "name": "Sales Overview",
                    "path": "/shared/Sales/Dashboards/Sales Overview",
                    "type": "folder",
                    "kind": "dashboard",
                    "favorite": False,
                }
            ],
        )
        base = "/shared/Sales/Dashboards/Sales Overview"
        r = self.get(API + "/catalog/children" + query(path=base), auth=ALICE)
        self.check_catalog_listing(
            r,
            base,
            [
                {"name": page, "path": base + "/" + page, "type": "object", "kind": "dashboardPage", "signature": "dashboardpage1", "favorite": page == "Summary"}
                for page in ("Regions", "Summary", "Trends")
            ],
        )

    def test_catalog_children_without_a_path_lists_the_root_folder(self):
        r = self.get(API + "/catalog/children", auth=ALICE)
        body = self.assertJson(r, 200)
        self.assertEqual(body["path"], "/")
        self.assertIn("/shared", [i.get("path") for i in body["items"]], str(r))

    def test_catalog_children_filter_leaves_out_objects_it_does_not_admit(self):
        base = "/shared/Sales/Dashboards/Sales Overview"
        r = self.get(API + "/catalog/children" + query(path=base, filter="reports"), auth=ALICE)
        self.check_catalog_listing(r, base, [])
        r = self.get(API + "/catalog/children" + query(path="/shared/Sales/Reports", filter="dashboards"), auth=ALICE)
        self.check_catalog_listing(r, "/shared/Sales/Reports", [])
        r = self.get(API + "/catalog/children" + query(path=base, filter="dashboards"), auth=ALICE)
        self.assertEqual(
            [i["name"] for i in self.assertJson(r, 200)["items"]], ["Regions", "Summary", "Trends"], str(r)
        )
        r = self.get(API + "/catalog/children" + query(path="/shared/Sales", filter="reports"), auth=ALICE)
        names = [i["name"] for i in self.assertJson(r, 200)["items"]]
        self.assertIn("Dashboards", names, "folders are always listed:\n%s" % r)
        self.assertIn("Reports", names, "folders are always listed:\n%s" % r)

    def test_catalog_children_of_an_unreadable_folder_answers_403(self):
        r = self.get(API + "/catalog/children" + query(path="/shared/HR"), auth=ALICE)
        self.assertError(r, 403, "catalog", 5, "kErrorAccessDenied", path="/shared/HR")

    def test_catalog_children_of_a_missing_folder_answers_404(self):
        r = self.get(API + "/catalog/children" + query(path="/shared/Nope"), auth=ALICE)
        self.assertError(r, 404, "catalog", 1, "kErrorPathNotFound", path="/shared/Nope")

    def test_catalog_children_of_an_object_answers_400_folder_expected(self):
        r = self.get(API + "/catalog/children" + query(path=PIPELINE), auth=ALICE)
        self.assertError(r, 400, "catalog", 15, "kErrorFolderExpected", path=PIPELINE)

    def test_catalog_children_leaves_out_what_the_user_cannot_read(self):
        r = self.get(API + "/catalog/children" + query(path="/shared/Common"), auth=ALICE)
        self.assertEqual(
            [i["path"] for i in self.assertJson(r, 200)["items"]], [KPIS, HOLIDAYS], "alice:\n%s" % r
        )
        r = self.get(API + "/catalog/children" + query(path="/shared/Common"), auth=BOB)
        self.assertEqual(
            [i["path"] for i in self.assertJson(r, 200)["items"]],
            [KPIS, "/shared/Common/Finance Only", HOLIDAYS],
            "bob:\n%s" % r,
        )
        r = self.get(API + "/catalog/children" + query(path="/shared"), auth=ALICE)
        self.assertEqual(
            [i["path"] for i in self.assertJson(r, 200)["items"]],
            ["/shared/Common", "/shared/Sales"],
            "alice may read only Common and Sales below /shared:\n%s" % r,
        )

    def test_catalog_children_with_a_malformed_path_answers_400(self):
        for bad in ("shared/Sales", "/shared//Sales"):
            with self.subTest(path=bad):
                r = self.get(API + "/catalog/children" + query(path=bad), auth=ALICE)
                self.assertServerError(r, 400, "badRequest")

    # --- Routing, parsing and limits -------------------------------------------

    def test_an_unknown_route_answers_404_not_found(self):
        for path in (API + "/nope", API + "/favorites/nope", "/nope", API):
            with self.subTest(path=path):
                r = self.get(path, auth=ALICE)
                self.assertServerError(r, 404, "notFound")

    def test_a_method_the_route_does_not_take_answers_405_with_allow(self):
        cases = [
            ("PATCH", API + "/favorites", {"GET", "PUT"}),
            ("POST", API + "/favorites/children", {"GET"}),
            ("GET", API + "/favorites/status", {"POST"}),
            ("PUT", API + "/favorites/items", {"POST", "DELETE"}),
            ("GET", API + "/favorites/categories", {"DELETE"}),
            ("POST", API + "/favorites/export", {"GET"}),
            ("DELETE", API + "/catalog/children", {"GET"}),
            ("PUT", API + "/session", {"GET", "POST", "DELETE"}),
            ("POST", "/healthz", {"GET"}),
        ]
        for method, path, allowed in cases:
            with self.subTest(method=method, path=path):
                r = self.req(method, path, auth=ALICE, body=b"{}" if method in ("POST", "PUT", "PATCH") else None)
                self.assertServerError(r, 405, "methodNotAllowed")
                allow = r.header("Allow")
                self.assertIsNotNone(allow, "405 without Allow:\n%s" % r)
                methods = {m.strip().upper() for m in allow.split(",") if m.strip()}
                self.assertTrue(allowed <= methods, "Allow %r lacks %s" % (allow, sorted(allowed - methods)))
                self.assertNotIn(method, methods, "Allow %r names the refused method" % allow)

    def test_malformed_json_answers_400(self):
        cases = [
            (API + "/favorites/items", b'{"catalogPath": "/shared/Sales/Reports/Pipeline",'),
            (API + "/favorites/items", b"[]"),
            (API + "/favorites/items", b""),
            (API + "/favorites/status", b"not json"),
            (API + "/favorites/status", b'{"paths": ["/shared/Common/Company KPIs"]} trailing'),
        ]
        for path, body in cases:
            with self.subTest(path=path, body=body):
                r = self.req("POST", path, auth=ALICE, body=body)
                self.assertServerError(r, 400, "badRequest")

    def test_invalid_utf8_in_a_body_answers_400(self):
        r = self.req("POST", API + "/favorites/status", auth=ALICE, body=b'{"paths": ["/shared/Common/Company KPIs\xff"]}')
        self.assertServerError(r, 400, "badRequest")
        r = self.req("POST", API + "/favorites/items", auth=ALICE, body=b'{"name": "Bad \xc3\x28 name"}')
        self.assertServerError(r, 400, "badRequest")
        self.assertEqual(self.catalog.tree_items("alice"), harness.ALICE_ITEMS)

    def test_invalid_utf8_in_a_query_parameter_answers_400(self):
        for path in (
            API + "/favorites/children?category=Sales%FF",
            API + "/favorites/children?filter=%C3%28",
            API + "/catalog/children?path=%2Fshared%2F%FF",
            API + "/favorites/export?format=%FF",
        ):
            with self.subTest(path=path):
                r = self.get(path, auth=ALICE)
                self.assertServerError(r, 400, "badRequest")

    def test_a_body_over_max_body_answers_413(self):
        body = b'{"paths": ["' + b"x" * (MAX_BODY + 200000) + b'"]}'
        r = harness.send_request_with_large_body(
            self.server.port,
            "POST",
            API + "/favorites/status",
            ["Authorization: " + harness.basic_header(*ALICE), "Content-Type: application/json"],
            body,
        )
        self.assertIsNotNone(r, "the connection closed without an answer")
        self.assertEqual(r.status, 413, str(r))
        self.assertEqual(
            r.json and r.json.get("error", {}).get("name"), "payloadTooLarge", "unexpected body:\n%s" % r
        )
        self.assertEqual(r.json["error"]["source"], "server")
        self.assertEqual(r.json["error"]["code"], 413)
        self.assertStatus(self.get("/healthz"), 200)

    def test_a_body_at_max_body_is_accepted(self):
        # {"paths":[...]} padded with blanks to exactly --max-body bytes.
        head = b'{"paths": ["/shared/Common/Company KPIs"]'
        body = head + b" " * (MAX_BODY - len(head) - 1) + b"}"
        self.assertEqual(len(body), MAX_BODY)
        r = self.req("POST", API + "/favorites/status", auth=ALICE, body=body)
        self.assertJson(r, 200, {"results": [{"path": KPIS, "favorite": True}]})

    def test_a_header_over_max_header_answers_431(self):
        sock = harness.raw_connect(self.server.port)
        try:
            sock.sendall(
                harness.raw_request_bytes(
                    "GET", API + "/favorites", headers={"X-Filler": "a" * (MAX_HEADER + 2000)}, auth=ALICE
                )
            )
            r = harness.RawReader(sock).read_response(timeout=15)
        finally:
            sock.close()
        self.assertIsNotNone(r, "the connection closed without an answer")
        self.assertEqual(r.status, 431, str(r))
        self.assertIsNotNone(r.json, "431 without a JSON error body:\n%s" % r)
        self.assertEqual(r.json["error"]["name"], "headerTooLarge")
        self.assertEqual(r.json["error"]["source"], "server")
        self.assertEqual(r.json["error"]["code"], 431)
        self.assertStatus(self.get("/healthz"), 200)

    def test_openapi_document_is_served_without_sign_in(self):
        r = self.get(API + "/openapi.json")
        body = self.assertJson(r, 200)
        self.assertTrue(str(body.get("openapi", "")).startswith("3."), "not an OpenAPI 3 document:\n%s" % r)
        self.assertIsInstance(body.get("paths"), dict)
        self.assertTrue(body["paths"], "the document lists no paths")


class EditTests(harness.ServerTestCase):
    """Requests that change favorites. Every test works as a user of its own,
    who starts with no favorites."""

    server_flags = ("--max-body", MAX_BODY)
    users = {"e%02d" % i: ("pw-e%02d" % i, ["sales"]) for i in range(1, 33)}
    _next_user = 0

    @classmethod
    def prepare_catalog(cls, catalog):
        catalog.put("/shared/Common/Soon Hidden")

    def fresh_user(self):
        cls = type(self)
        cls._next_user += 1
        name = "e%02d" % cls._next_user
        self.assertIn(name, cls.users, "not enough test users")
        return (name, cls.users[name][0])

    def tree(self, auth):
        return self.assertJson(self.get(API + "/favorites", auth=auth), 200)["items"]

    def status(self, auth, *paths):
        body = self.assertJson(self.post(API + "/favorites/status", {"paths": list(paths)}, auth=auth), 200)
        return [r["favorite"] for r in body["results"]]

    def add(self, auth, catalog_path=None, category=None, name=None):
        data = {}
        if catalog_path is not None:
            data["catalogPath"] = catalog_path
        if name is not None:
            data["name"] = name
        if category is not None:
            data["category"] = category
        return self.post(API + "/favorites/items", data, auth=auth)

    # --- POST /api/v1/favorites/items ------------------------------------------

    def test_adding_a_catalog_object_answers_201_with_the_item(self):
        u = self.fresh_user()
        r = self.add(u, PIPELINE, "")
        self.assertJson(r, 201, {"result": "kSuccess", "item": object_item(PIPELINE)})
        self.assertEqual(self.status(u, PIPELINE, KPIS), [True, False])
        self.assertEqual(self.tree(u), [object_item(PIPELINE)])
        self.assertTrue(self.catalog.is_favorite(u[0], PIPELINE), "the add was not stored")

    def test_adding_without_a_category_adds_to_the_root(self):
        u = self.fresh_user()
        r = self.add(u, HOLIDAYS)
        self.assertJson(r, 201, {"result": "kSuccess", "item": object_item(HOLIDAYS)})

    def test_adding_a_category_answers_201_with_the_item(self):
        u = self.fresh_user()
        r = self.add(u, name="Month end", category="")
        self.assertJson(
            r, 201, {"result": "kSuccess", "item": {"type": "category", "name": "Month end", "favoritesPath": "/root/Month end"}}
        )
        r = self.add(u, name="Q1", category="/root/Month end")
        self.assertJson(
            r, 201, {"result": "kSuccess", "item": {"type": "category", "name": "Q1", "favoritesPath": "/root/Month end/Q1"}}
        )
        r = self.add(u, HOLIDAYS, "Month end")
        self.assertJson(r, 201, {"result": "kSuccess", "item": object_item(HOLIDAYS, "/root/Month end")})
        r = self.add(u, PIPELINE, "Month end/Q1")
        self.assertJson(r, 201, {"result": "kSuccess", "item": object_item(PIPELINE, "/root/Month end/Q1")})
        self.assertEqual(
            self.tree(u),
            [
                {
                    "type": "category",
                    "name": "Month end",
                    "favoritesPath": "/root/Month end",
                    "children": [
                        {
                            "type": "category",
                            "name": "Q1",
                            "favoritesPath": "/root/Month end/Q1",
                            "children": [object_item(PIPELINE, "/root/Month end/Q1")],
                        },
                        object_item(HOLIDAYS, "/root/Month end"),
                    ],
                }
            ],
        )

    def test_a_slash_in_a_category_name_is_escaped_in_its_path(self):
        u = self.fresh_user()
        r = self.add(u, name="Plan/Actual", category="")
        self.assertJson(
            r, 201, {"result": "kSuccess", "item": {"type": "category", "name": "Plan/Actual", "favoritesPath": "/root/Plan\\/Actual"}}
        )
        r = self.add(u, KPIS, "Plan\\/Actual")
        self.assertJson(r, 201, {"result": "kSuccess", "item": object_item(KPIS, "/root/Plan\\/Actual")})
        r = self.get(API + "/favorites/children" + query(category="Plan\\/Actual"), auth=u)
        self.assertJson(r, 200, {"category": "/root/Plan\\/Actual", "filter": "", "items": [object_item(KPIS, "/root/Plan\\/Actual")]})

    def test_adding_an_existing_favorite_answers_409_with_code_0(self):
        u = self.fresh_user()
        self.assertStatus(self.add(u, PIPELINE, ""), 201)
        r = self.add(u, PIPELINE, "")
        self.assertError(
            r, 409, "favorites", 0, "kErrorItemAlreadyExists", "The favorite '/shared/Sales/Reports/Pipeline' already exists."
        )
        self.assertEqual(self.tree(u), [object_item(PIPELINE)])

    def test_adding_an_existing_category_answers_409_with_code_0(self):
        u = self.fresh_user()
        self.assertStatus(self.add(u, name="Month end"), 201)
        r = self.add(u, name="Month end")
        self.assertError(r, 409, "favorites", 0, "kErrorItemAlreadyExists", "The favorite '/root/Month end' already exists.")

    def test_adding_an_object_the_user_cannot_read_answers_403(self):
        u = self.fresh_user()
        r = self.add(u, "/shared/HR", "")
        self.assertError(r, 403, "catalog", 5, "kErrorAccessDenied", path="/shared/HR")
        self.assertEqual(self.tree(u), [])

    def test_adding_an_object_in_a_folder_the_user_cannot_read_answers_404_whether_it_exists_or_not(self):
        u = self.fresh_user()
        r = self.add(u, HEADCOUNT, "")
        self.assertError(r, 404, "catalog", 1, "kErrorPathNotFound", path=HEADCOUNT)
        r = self.add(u, "/shared/HR/Reports/No such report", "")
        self.assertError(r, 404, "catalog", 1, "kErrorPathNotFound", path="/shared/HR/Reports/No such report")
        self.assertEqual(self.tree(u), [])

    def test_adding_a_missing_object_answers_404(self):
        u = self.fresh_user()
        r = self.add(u, "/shared/Sales/Reports/Nope", "")
        self.assertError(r, 404, "catalog", 1, "kErrorPathNotFound", path="/shared/Sales/Reports/Nope")
        self.assertEqual(self.tree(u), [])

    def test_adding_to_a_missing_category_answers_400_with_code_7(self):
        u = self.fresh_user()
        r = self.add(u, PIPELINE, "Nope")
        self.assertError(r, 400, "favorites", 7, "kErrorInvalidFavoritesPath", "The favorites path '/root/Nope' is not valid.")
        self.assertEqual(self.tree(u), [])

    def test_an_item_with_both_catalog_path_and_name_or_neither_answers_400(self):
        u = self.fresh_user()
        for data in ({"catalogPath": PIPELINE, "name": "Both", "category": ""}, {"category": ""}, {}):
            with self.subTest(body=data):
                r = self.post(API + "/favorites/items", data, auth=u)
                self.assertServerError(r, 400, "badRequest")
        self.assertEqual(self.tree(u), [])

    def test_adding_with_a_malformed_path_or_name_answers_400(self):
        u = self.fresh_user()
        for data in (
            {"catalogPath": "shared/Sales/Reports/Pipeline"},
            {"catalogPath": "/shared//Reports"},
            {"name": "   "},
            {"name": ""},
            {"name": "bell\u0007"},
            {"catalogPath": 42},
        ):
            with self.subTest(body=data):
                r = self.post(API + "/favorites/items", data, auth=u)
                self.assertServerError(r, 400, "badRequest")
        self.assertEqual(self.tree(u), [])

    # --- DELETE /api/v1/favorites/items ------------------------------------------

    def test_deleting_an_object_answers_200(self):
        u = self.fresh_user()
        self.assertStatus(self.add(u, PIPELINE), 201)
        self.assertStatus(self.add(u, KPIS), 201)
        r = self.delete(API + "/favorites/items" + query(catalogPath=PIPELINE), auth=u)
        self.assertJson(r, 200, {"result": "kSuccess"})
        self.assertEqual(self.status(u, PIPELINE, KPIS), [False, True])
        self.assertEqual(self.tree(u), [object_item(KPIS)])
        self.assertFalse(self.catalog.is_favorite(u[0], PIPELINE), "the removal was not stored")

    def test_deleting_an_object_that_is_not_there_answers_404_with_code_5(self):
        u = self.fresh_user()
        self.assertStatus(self.add(u, PIPELINE), 201)
        r = self.delete(API + "/favorites/items" + query(catalogPath=TOP_CUSTOMERS), auth=u)
        self.assertError(
            r, 404, "favorites", 5, "kErrorItemNotFound", "The item '/shared/Sales/Reports/Top Customers' does not exist."
        )
        self.assertEqual(self.tree(u), [object_item(PIPELINE)])

    def test_deleting_from_a_missing_category_answers_400_with_code_7(self):
        u = self.fresh_user()
        self.assertStatus(self.add(u, PIPELINE), 201)
        r = self.delete(API + "/favorites/items" + query(catalogPath=PIPELINE, category="Nope"), auth=u)
        self.assertError(r, 400, "favorites", 7, "kErrorInvalidFavoritesPath", "The favorites path '/root/Nope' is not valid.")
        self.assertEqual(self.tree(u), [object_item(PIPELINE)])

    def test_deleting_from_one_category_keeps_the_other_copies(self):
        u = self.fresh_user()
        self.assertStatus(self.add(u, name="A"), 201)
        self.assertStatus(self.add(u, PIPELINE, "A"), 201)
        self.assertStatus(self.add(u, PIPELINE), 201)
        r = self.delete(API + "/favorites/items" + query(catalogPath=PIPELINE, category="A"), auth=u)
        self.assertJson(r, 200, {"result": "kSuccess"})
        self.assertEqual(
            self.tree(u), [{"type": "category", "name": "A", "favoritesPath": "/root/A", "children": []}, object_item(PIPELINE)]
        )
        self.assertEqual(self.status(u, PIPELINE), [True])

    def test_deleting_everywhere_removes_every_copy(self):
        u = self.fresh_user()
        self.assertStatus(self.add(u, name="A"), 201)
        self.assertStatus(self.add(u, name="B", category="A"), 201)
        self.assertStatus(self.add(u, PIPELINE, "A"), 201)
        self.assertStatus(self.add(u, PIPELINE, "A/B"), 201)
        self.assertStatus(self.add(u, PIPELINE), 201)
        self.assertStatus(self.add(u, KPIS), 201)
        r = self.delete(API + "/favorites/items" + query(catalogPath=PIPELINE, everywhere="true"), auth=u)
        self.assertJson(r, 200, {"result": "kSuccess"})
        self.assertEqual(
            self.tree(u),
            [
                {
                    "type": "category",
                    "name": "A",
                    "favoritesPath": "/root/A",
                    "children": [{"type": "category", "name": "B", "favoritesPath": "/root/A/B", "children": []}],
                },
                object_item(KPIS),
            ],
        )
        self.assertEqual(self.status(u, PIPELINE, KPIS), [False, True])

    def test_deleting_without_a_catalog_path_answers_400(self):
        u = self.fresh_user()
        for q in ("", query(catalogPath=""), query(catalogPath="relative/path")):
            with self.subTest(query=q):
                r = self.delete(API + "/favorites/items" + q, auth=u)
                self.assertServerError(r, 400, "badRequest")

    def test_deleting_with_invalid_utf8_in_the_query_answers_400(self):
        u = self.fresh_user()
        self.assertStatus(self.add(u, PIPELINE), 201)
        r = self.delete(API + "/favorites/items?catalogPath=%2Fshared%2FSales%2FReports%2FPipeline%FF", auth=u)
        self.assertServerError(r, 400, "badRequest")
        self.assertEqual(self.tree(u), [object_item(PIPELINE)])

    # --- DELETE /api/v1/favorites/categories ---------------------------------------

    def test_deleting_a_category_removes_everything_in_it(self):
        u = self.fresh_user()
        self.assertStatus(self.add(u, name="A"), 201)
        self.assertStatus(self.add(u, name="B", category="A"), 201)
        self.assertStatus(self.add(u, PIPELINE, "A/B"), 201)
        self.assertStatus(self.add(u, KPIS), 201)
        r = self.delete(API + "/favorites/categories" + query(path="A"), auth=u)
        self.assertJson(r, 200, {"result": "kSuccess"})
        self.assertEqual(self.tree(u), [object_item(KPIS)])
        self.assertEqual(self.status(u, PIPELINE, KPIS), [False, True])

    def test_deleting_a_category_given_by_favorites_path(self):
        u = self.fresh_user()
        self.assertStatus(self.add(u, name="A"), 201)
        self.assertStatus(self.add(u, name="B", category="A"), 201)
        r = self.delete(API + "/favorites/categories" + query(path="/root/A/B"), auth=u)
        self.assertJson(r, 200, {"result": "kSuccess"})
        self.assertEqual(self.tree(u), [{"type": "category", "name": "A", "favoritesPath": "/root/A", "children": []}])

    def test_deleting_the_root_category_answers_400(self):
        u = self.fresh_user()
        self.assertStatus(self.add(u, KPIS), 201)
        for q in (query(path="/root"), query(path=""), ""):
            with self.subTest(query=q):
                r = self.delete(API + "/favorites/categories" + q, auth=u)
                self.assertError(r, 400, None)
        self.assertEqual(self.tree(u), [object_item(KPIS)])

    def test_deleting_a_missing_category_answers_404_with_code_5(self):
        u = self.fresh_user()
        r = self.delete(API + "/favorites/categories" + query(path="Nope"), auth=u)
        self.assertError(r, 404, "favorites", 5, "kErrorItemNotFound", "The item '/root/Nope' does not exist.")

    # --- PUT /api/v1/favorites ---------------------------------------------------

    def test_put_replaces_the_whole_tree(self):
        u = self.fresh_user()
        self.assertStatus(self.add(u, KPIS), 201)
        r = self.put(API + "/favorites", WEEKLY, auth=u)
        self.assertJson(r, 200, {"result": "kSuccess", "categories": 2, "catalogObjects": 3})
        self.assertEqual(self.tree(u), WEEKLY_ITEMS)
        self.assertEqual(self.status(u, KPIS, PIPELINE, TRENDS, HOLIDAYS), [False, True, True, True])
        self.assertEqual(self.catalog.tree_items(u[0]), WEEKLY_ITEMS)

    def test_put_of_an_empty_array_empties_the_favorites(self):
        u = self.fresh_user()
        self.assertStatus(self.put(API + "/favorites", WEEKLY, auth=u), 200)
        r = self.put(API + "/favorites", [], auth=u)
        self.assertJson(r, 200, {"result": "kSuccess", "categories": 0, "catalogObjects": 0})
        self.assertEqual(self.tree(u), [])
        self.assertEqual(self.status(u, PIPELINE), [False])

    def test_put_of_a_non_array_is_refused_with_400_and_favorites_kept(self):
        u = self.fresh_user()
        self.assertStatus(self.put(API + "/favorites", WEEKLY, auth=u), 200)
        for body in ({"type": "1", "name": "Weekly"}, "text", 42, None, True):
            with self.subTest(body=body):
                r = self.put(API + "/favorites", body, auth=u)
                self.assertError(
                    r,
                    400,
                    "favorites",
                    9,
                    "kErrorInvalidFavoritesJson",
                    "The favorites data sent by the client is not valid and cannot be used.",
                )
                self.assertEqual(self.tree(u), WEEKLY_ITEMS)
        self.assertEqual(self.catalog.tree_items(u[0]), WEEKLY_ITEMS)

    def test_put_of_malformed_text_is_refused_with_400_and_favorites_kept(self):
        u = self.fresh_user()
        self.assertStatus(self.put(API + "/favorites", WEEKLY, auth=u), 200)
        for body in (b'[{"type":"1","name":"Broken"', b"", b'[{"type":"0","path":"/shared/Common/\xff"}]'):
            with self.subTest(body=body):
                r = self.req("PUT", API + "/favorites", body=body, auth=u)
                self.assertError(r, 400, None)
                self.assertEqual(self.tree(u), WEEKLY_ITEMS)

    def test_put_of_an_array_nested_past_the_json_reader_is_refused_naming_the_depth(self):
        u = self.fresh_user()
        self.assertStatus(self.put(API + "/favorites", WEEKLY, auth=u), 200)
        body = b"[" * 600 + b"]" * 600
        r = self.req("PUT", API + "/favorites", body=body, auth=u)
        self.assertError(r, 400, "server", name="jsonTooDeep")
        self.assertIn("nested deeper than 512 levels", self.assertJson(r, 400)["error"]["message"])
        self.assertEqual(self.tree(u), WEEKLY_ITEMS)

    def test_put_drops_items_the_user_cannot_read(self):
        u = self.fresh_user()
        text = [
            {"type": "0", "path": HEADCOUNT},
            {"type": "0", "path": PIPELINE},
            {"type": "0", "path": "/shared/Finance/Reports/Cash Flow"},
        ]
        r = self.put(API + "/favorites", text, auth=u)
        self.assertJson(r, 200, {"result": "kSuccess", "categories": 0, "catalogObjects": 1})
        self.assertEqual(self.tree(u), [object_item(PIPELINE)])

    def test_export_json_round_trips_through_put(self):
        u = self.fresh_user()
        self.assertStatus(self.put(API + "/favorites", WEEKLY, auth=u), 200)
        self.assertStatus(self.add(u, name="Plan/Actual", category="Weekly"), 201)
        self.assertStatus(self.add(u, KPIS, "Weekly/Plan\\/Actual"), 201)
        tree_before = self.tree(u)
        exp_json = self.get(API + "/favorites/export" + query(format="json"), auth=u)
        self.assertStatus(exp_json, 200)
        exp_xml = self.get(API + "/favorites/export" + query(format="xml"), auth=u)
        self.assertStatus(exp_xml, 200)
        self.assertEqual(
            exp_json.json,
            [
                {
                    "type": "1",
                    "name": "Weekly",
                    "children": WEEKLY[0]["children"]
                    + [{"type": "1", "name": "Plan/Actual", "children": [{"type": "0", "path": KPIS}]}],
                },
                WEEKLY[1],
            ],
        )

        self.assertStatus(self.put(API + "/favorites", [], auth=u), 200)
        r = self.req("PUT", API + "/favorites", body=exp_json.body, auth=u)
        self.assertJson(r, 200, {"result": "kSuccess", "categories": 3, "catalogObjects": 4})
        self.assertEqual(self.tree(u), tree_before)
        again_json = self.get(API + "/favorites/export" + query(format="json"), auth=u)
        again_xml = self.get(API + "/favorites/export" + query(format="xml"), auth=u)
        self.assertEqual(again_json.json, exp_json.json)
        self.assertEqual(xml_tree(again_xml.body), xml_tree(exp_xml.body))

    # --- Filters and rights on favorites --------------------------------------------

    def test_children_leave_out_a_favorite_the_user_can_no_longer_read(self):
        u = self.fresh_user()
        self.assertStatus(self.add(u, "/shared/Common/Soon Hidden"), 201)
        self.assertStatus(self.add(u, KPIS), 201)
        self.catalog.grant("/shared/Common/Soon Hidden", "finance", "read", group=True)
        r = self.get(API + "/favorites/children", auth=u)
        self.assertJson(r, 200, {"category": "/root", "filter": "", "items": [object_item(KPIS)]})


if __name__ == "__main__":
    unittest.main()
