"""The history of a user's favorites through favoritesd: every change keeps
the version it replaces, a version can be put back (and that undone), and
stored favorites that do not load are reported with every answer about them."""

import os
import sys
import tempfile
import unittest

sys.dont_write_bytecode = True  # keep the source tree free of __pycache__

import harness  # noqa: E402
from harness import query  # noqa: E402

API = "/api/v1"
KPIS = "/shared/Common/Company KPIs"
PIPELINE = "/shared/Sales/Reports/Pipeline"

# Parses and validates, but a category name holds a TAB (a character
# reference), which the catalog refuses: the load stops there.
UNREADABLE = (
    '<favoritelist xmlns="urn:kiv-web:favorites/v1">'
    '<favorite name="a&#9;b" type="category"/></favoritelist>'
)


class HistoryTests(harness.ServerTestCase):
    """Every test works as a user of its own, who starts with no favorites."""

    users = {"h%02d" % i: ("pw-h%02d" % i, ["sales"]) for i in range(1, 13)}
    _next_user = 0

    def fresh_user(self):
        cls = type(self)
        cls._next_user += 1
        name = "h%02d" % cls._next_user
        return (name, cls.users[name][0])

    def history(self, auth):
        return self.assertJson(self.get(API + "/favorites/history", auth=auth), 200)

    def add(self, auth, catalog_path):
        return self.assertJson(self.post(API + "/favorites/items", {"catalogPath": catalog_path}, auth=auth), 201)

    def paths(self, auth):
        items = self.assertJson(self.get(API + "/favorites", auth=auth), 200)["items"]
        return [i.get("catalogPath") for i in items]

    def store_unreadable(self, user):
        with tempfile.NamedTemporaryFile("w", suffix=".xml", delete=False) as f:
            f.write(UNREADABLE)
        try:
            self.catalog.run("catalog", "put", "/users/%s/favorites" % user, "--signature", "mobilefavorites1",
                             "--body", f.name)
        finally:
            os.unlink(f.name)

    def test_a_new_user_has_no_history(self):
        u = self.fresh_user()
        body = self.history(u)
        self.assertEqual(body["favoritesPath"], "/users/%s/favorites" % u[0])
        self.assertEqual(body["versions"], [])

    def test_every_change_keeps_the_version_it_replaced_newest_first(self):
        u = self.fresh_user()
        self.add(u, KPIS)
        self.add(u, PIPELINE)
        versions = self.history(u)["versions"]
        self.assertEqual([v["version"] for v in versions], [2, 1])
        self.assertEqual([v["catalogObjects"] for v in versions], [1, 0])
        for v in versions:
            self.assertTrue(v["readable"])
            self.assertRegex(v["modified"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")
            self.assertGreater(v["bytes"], 0)

    def test_restore_puts_a_version_back_and_can_itself_be_undone(self):
        u = self.fresh_user()
        self.add(u, KPIS)
        self.add(u, PIPELINE)
        r = self.assertJson(self.post(API + "/favorites/history/2/restore", {}, auth=u), 200)
        self.assertEqual(r, {"result": "kSuccess", "restored": 2, "categories": 0, "catalogObjects": 1})
        self.assertEqual(self.paths(u), [KPIS])
        # The restore kept the version it replaced: undo it.
        newest = self.history(u)["versions"][0]["version"]
        self.assertEqual(newest, 3)
        self.assertJson(self.post(API + "/favorites/history/3/restore", {}, auth=u), 200)
        self.assertEqual(self.paths(u), [KPIS, PIPELINE])

    def test_restoring_a_version_that_is_not_kept_answers_404(self):
        u = self.fresh_user()
        self.add(u, KPIS)
        self.assertError(self.post(API + "/favorites/history/9/restore", {}, auth=u), 404, "catalog", 1,
                         "kErrorPathNotFound")
        for bad in ("0", "x", "-1"):
            r = self.post(API + "/favorites/history/%s/restore" % bad, {}, auth=u)
            self.assertStatus(r, 404)
        self.assertEqual(self.paths(u), [KPIS])

    def test_restore_is_a_post_and_other_methods_are_refused(self):
        u = self.fresh_user()
        self.assertStatus(self.get(API + "/favorites/history/1/restore", auth=u), 405)

    def test_another_users_history_is_refused_unless_an_administrator_asks(self):
        u = self.fresh_user()
        self.add(u, KPIS)
        self.add(u, PIPELINE)
        other = self.fresh_user()
        self.assertStatus(self.get(API + "/favorites/history" + query(user=u[0]), auth=other), 403)
        body = self.assertJson(self.get(API + "/favorites/history" + query(user=u[0]), auth=harness.ADMIN), 200)
        self.assertEqual(len(body["versions"]), 2)

    def test_stored_favorites_that_do_not_load_are_reported_and_restorable_after_a_change(self):
        u = self.fresh_user()
        self.add(u, KPIS)
        self.store_unreadable(u[0])
        body = self.assertJson(self.get(API + "/favorites", auth=u), 200)
        self.assertEqual(body["items"], [])
        self.assertIn("cannot be read", body["warning"])
        self.assertIn("kItemNameControlCharacter", body["warning"])
        # The lenient library stores over them at the next change; the
        # history keeps both earlier versions.
        r = self.assertJson(self.post(API + "/favorites/items", {"catalogPath": PIPELINE}, auth=u), 201)
        self.assertNotIn("warning", r)
        versions = self.history(u)["versions"]
        self.assertFalse(versions[0]["readable"])
        self.assertIn("refuses", versions[0]["problem"])
        readable = [v["version"] for v in versions if v["readable"] and v["catalogObjects"] == 1]
        self.assertJson(self.post(API + "/favorites/history/%d/restore" % readable[0], {}, auth=u), 200)
        self.assertEqual(self.paths(u), [KPIS])

    def test_the_xml_export_of_stored_favorites_that_do_not_load_is_the_stored_document(self):
        u = self.fresh_user()
        self.add(u, KPIS)
        self.store_unreadable(u[0])
        # The tree shows as empty; the export gives what is stored, to be mended.
        self.assertEqual(self.paths(u), [])
        r = self.get(API + "/favorites/export", auth=u)
        self.assertStatus(r, 200)
        self.assertEqual(r.body, UNREADABLE.encode("utf-8"))

    def test_restoring_a_version_that_does_not_load_is_refused(self):
        u = self.fresh_user()
        self.add(u, KPIS)
        self.store_unreadable(u[0])
        # The manager in memory reloads at the next edit, and the name it
        # stops at is the library's exception; the answer says what is wrong.
        r = self.post(API + "/favorites/items", {"catalogPath": PIPELINE}, auth=u)
        self.assertStatus(r, 400)
        self.assertIn("cannot be read", r.json["warning"])
        self.assertEqual(self.paths(u), [])
        self.add(u, PIPELINE)
        bad = self.history(u)["versions"][0]["version"]
        r = self.post(API + "/favorites/history/%d/restore" % bad, {}, auth=u)
        self.assertStatus(r, 400)
        self.assertEqual(self.paths(u), [PIPELINE])

    def test_the_largest_tree_a_put_can_carry_is_stored_and_read_back_equal(self):
        # Categories each holding a catalog object, up to one byte short of
        # the 16 MiB that both the default --max-body and the JSON reader take.
        u = self.fresh_user()
        entry = '{"type":"1","name":"C%07d","children":[{"type":"0","path":"' + KPIS + '"}]}'
        parts, size, n = [], 2, 0
        while size + len(entry % n) + 1 < 16 * 1024 * 1024:
            parts.append(entry % n)
            size += len(parts[-1]) + 1
            n += 1
        text = ("[" + ",".join(parts) + "]").encode()
        self.assertLess(len(text), 16 * 1024 * 1024)
        r = self.req("PUT", API + "/favorites", body=text, auth=u)
        self.assertEqual(self.assertJson(r, 200)["categories"], n)
        exported = self.get(API + "/favorites/export?format=json", auth=u)
        self.assertStatus(exported, 200)
        self.assertTrue(exported.body.rstrip(b"\n") == text, "the export differs from the tree sent")


if __name__ == "__main__":
    unittest.main()
