"""Signing in to favoritesd: HTTP Basic, session cookies with their
anti-forgery token, acting for another user, and the slow-down of failed
sign-ins."""

import re
import sys
import time
import unittest

sys.dont_write_bytecode = True  # keep the source tree free of __pycache__

import harness  # noqa: E402
from harness import ADMIN, ALICE, BOB, query  # noqa: E402

API = "/api/v1"
HEX64_RE = re.compile(r"^[0-9a-f]{64}$")
HEX_RE = re.compile(r"^[0-9a-fA-F]+$")
PIPELINE = "/shared/Sales/Reports/Pipeline"
KPIS = "/shared/Common/Company KPIs"
HOLIDAYS = "/shared/Common/Holiday Calendar"
BUDGET = "/shared/Finance/Reports/Budget vs Actual"
WWW_AUTHENTICATE = 'Basic realm="favorites"'

# Enough failed sign-ins allowed that the tests of wrong credentials never
# meet the slow-down meant for guessing.
GENEROUS_SIGNIN = ("--signin-failures", 1000)


def parse_set_cookie(value):
    """(name, value, {attribute lower-case: value or True})."""
    fields = [p.strip() for p in value.split(";")]
    name, _, val = fields[0].partition("=")
    attrs = {}
    for p in fields[1:]:
        if not p:
            continue
        k, eq, v = p.partition("=")
        attrs[k.strip().lower()] = v.strip() if eq else True
    return name.strip(), val.strip(), attrs


class BasicAuthTests(harness.ServerTestCase):
    server_flags = GENEROUS_SIGNIN + ("--credential-cache-seconds", 1)
    users = {"erin": ("old-password", ["sales"])}

    def assertUnauthorized(self, r):
        self.assertServerError(r, 401, "unauthorized")
        self.assertEqual(r.header("WWW-Authenticate"), WWW_AUTHENTICATE, "401 to Basic without the challenge:\n%s" % r)

    def test_no_credentials_answer_401_with_www_authenticate(self):
        for method, path, body in (
            ("GET", API + "/favorites", None),
            ("GET", API + "/favorites/children", None),
            ("POST", API + "/favorites/status", {"paths": [KPIS]}),
            ("POST", API + "/favorites/items", {"catalogPath": KPIS}),
            ("GET", API + "/catalog/children", None),
            ("GET", API + "/favorites/export", None),
        ):
            with self.subTest(method=method, path=path):
                if body is None:
                    r = self.req(method, path)
                else:
                    r = self.req(method, path, json_body=body)
                self.assertUnauthorized(r)

    def test_wrong_password_answers_401(self):
        r = self.get(API + "/favorites", auth=("alice", "not-the-password"))
        self.assertUnauthorized(r)

    def test_unknown_user_answers_401(self):
        r = self.get(API + "/favorites", auth=("mallory", "demo"))
        self.assertUnauthorized(r)

    def test_malformed_authorization_header_answers_401(self):
        for value in ("Basic", "Basic !!!not-base64!!!", "Basic " + "YWxpY2U=", "Bearer abc", "basic"):
            with self.subTest(value=value):
                r = self.get(API + "/favorites", headers={"Authorization": value})
                self.assertServerError(r, 401, "unauthorized")

    def test_right_password_answers_200(self):
        r = self.get(API + "/favorites", auth=ALICE)
        self.assertJson(r, 200, {"user": "alice", "favoritesPath": "/users/alice/favorites", "items": harness.ALICE_ITEMS})

    def test_a_wrong_password_is_refused_after_the_right_one_was_remembered(self):
        for _ in range(3):
            self.assertStatus(self.get(API + "/favorites", auth=ALICE), 200)
        self.assertUnauthorized(self.get(API + "/favorites", auth=("alice", "demo ")))
        self.assertUnauthorized(self.get(API + "/favorites", auth=("alice", "")))
        self.assertStatus(self.get(API + "/favorites", auth=ALICE), 200)

    def test_a_changed_password_takes_effect_once_the_remembered_one_expires(self):
        self.assertStatus(self.get(API + "/favorites", auth=("erin", "old-password")), 200)
        self.catalog.passwd("erin", "new-password")
        time.sleep(2.0)  # --credential-cache-seconds 1
        self.assertUnauthorized(self.get(API + "/favorites", auth=("erin", "old-password")))
        self.assertStatus(self.get(API + "/favorites", auth=("erin", "new-password")), 200)

    def test_many_requests_with_basic_credentials_all_answer_200(self):
        conn = self.server.connection()
        try:
            for i in range(50):
                r = harness.request(self.server.port, "GET", API + "/favorites/children", auth=BOB, conn=conn)
                self.assertStatus(r, 200)
        finally:
            conn.close()

    # --- Acting for another user ---------------------------------------------

    def test_another_users_favorites_answer_403_forbidden(self):
        before = self.catalog.tree_items("bob")
        for method, path, body in (
            ("GET", API + "/favorites" + query(user="bob"), None),
            ("GET", API + "/favorites/children" + query(user="bob"), None),
            ("POST", API + "/favorites/status" + query(user="bob"), {"paths": [BUDGET]}),
            ("POST", API + "/favorites/items" + query(user="bob"), {"catalogPath": KPIS}),
            ("DELETE", API + "/favorites/items" + query(user="bob", catalogPath="/shared/Finance/Reports/Cash Flow", category="Month end"), None),
            ("DELETE", API + "/favorites/categories" + query(user="bob", path="Month end"), None),
            ("PUT", API + "/favorites" + query(user="bob"), []),
            ("GET", API + "/favorites/export" + query(user="bob"), None),
            ("GET", API + "/catalog/children" + query(user="bob", path="/shared/Finance"), None),
        ):
            with self.subTest(method=method, path=path):
                if body is None:
                    r = self.req(method, path, auth=ALICE)
                else:
                    r = self.req(method, path, auth=ALICE, json_body=body)
                self.assertServerError(r, 403, "forbidden")
        self.assertEqual(self.catalog.tree_items("bob"), before, "bob's favorites changed")

    def test_naming_oneself_in_the_user_parameter_is_allowed(self):
        r = self.get(API + "/favorites" + query(user="alice"), auth=ALICE)
        self.assertJson(r, 200, {"user": "alice", "favoritesPath": "/users/alice/favorites", "items": harness.ALICE_ITEMS})

    def test_administrator_acting_for_alice_sees_alices_tree(self):
        own = self.assertJson(self.get(API + "/favorites", auth=ALICE), 200)
        r = self.get(API + "/favorites" + query(user="alice"), auth=ADMIN)
        self.assertJson(r, 200, own)
        r = self.post(API + "/favorites/status" + query(user="alice"), {"paths": [KPIS, PIPELINE]}, auth=ADMIN)
        self.assertJson(r, 200, {"results": [{"path": KPIS, "favorite": True}, {"path": PIPELINE, "favorite": False}]})

    def test_administrator_acting_for_alice_has_alices_rights(self):
        self.assertStatus(self.get(API + "/catalog/children" + query(path="/shared/Finance"), auth=ADMIN), 200)
        r = self.get(API + "/catalog/children" + query(path="/shared/Finance", user="alice"), auth=ADMIN)
        self.assertError(r, 403, "catalog", 5, "kErrorAccessDenied", path="/shared/Finance")
        r = self.post(API + "/favorites/items" + query(user="alice"), {"catalogPath": BUDGET}, auth=ADMIN)
        # In a folder alice may not read: not found, as if it did not exist.
        self.assertError(r, 404, "catalog", 1, "kErrorPathNotFound", path=BUDGET)

    def test_administrator_edits_for_another_user_change_that_users_favorites(self):
        r = self.post(API + "/favorites/items" + query(user="bob"), {"catalogPath": BUDGET, "category": "Month end"}, auth=ADMIN)
        self.assertJson(
            r,
            201,
            {
                "result": "kSuccess",
                "item": {
                    "type": "catalogObject",
                    "name": "Budget vs Actual",
                    "favoritesPath": "/root/Month end/Budget vs Actual",
                    "catalogPath": BUDGET,
                },
            },
        )
        r = self.post(API + "/favorites/status", {"paths": [BUDGET]}, auth=BOB)
        self.assertJson(r, 200, {"results": [{"path": BUDGET, "favorite": True}]})
        self.assertTrue(self.catalog.is_favorite("bob", BUDGET))
        self.assertFalse(self.catalog.is_favorite("admin", BUDGET), "the add went to the administrator's favorites")
        r = self.delete(API + "/favorites/items" + query(user="bob", catalogPath=BUDGET, category="Month end"), auth=ADMIN)
        self.assertJson(r, 200, {"result": "kSuccess"})
        self.assertFalse(self.catalog.is_favorite("bob", BUDGET))

    def test_session_without_a_cookie_answers_401(self):
        r = self.get(API + "/session")
        self.assertServerError(r, 401, "unauthorized")


class SessionTests(harness.ServerTestCase):
    server_flags = GENEROUS_SIGNIN
    users = {"sam": ("pw-sam", ["sales"]), "sue": ("pw-sue", ["sales"])}

    def sign_in(self, user="sam", password=None):
        password = password if password is not None else self.users[user][0] if user in self.users else "demo"
        r = self.post(API + "/session", {"user": user, "password": password})
        body = self.assertJson(r, 200)
        cookies = [parse_set_cookie(v) for v in r.header_all("Set-Cookie")]
        session = [c for c in cookies if c[0] == "kiv_session"]
        self.assertEqual(len(session), 1, "no single kiv_session cookie:\n%s" % r)
        return session[0][1], body["csrfToken"], r

    def test_sign_in_answers_200_with_the_user_and_a_token(self):
        _, token, r = self.sign_in("alice", "demo")
        body = r.json
        self.assertEqual(sorted(body.keys()), ["administrator", "csrfToken", "expiresIn", "user"], str(r))
        self.assertEqual(body["user"], "alice")
        self.assertIs(body["administrator"], False)
        self.assertEqual(body["expiresIn"], 28800)
        self.assertRegex(token, HEX_RE)
        _, _, r = self.sign_in("admin", "demo")
        self.assertIs(r.json["administrator"], True)
        self.assertEqual(r.json["user"], "admin")

    def test_sign_in_sets_an_http_only_strict_cookie_with_a_64_hex_digit_id(self):
        sid, _, r = self.sign_in()
        _, _, attrs = [parse_set_cookie(v) for v in r.header_all("Set-Cookie") if v.strip().startswith("kiv_session=")][0]
        self.assertRegex(sid, HEX64_RE)
        self.assertIn("httponly", attrs, "cookie without HttpOnly:\n%s" % r)
        self.assertEqual(str(attrs.get("samesite", "")).lower(), "strict", "cookie without SameSite=Strict:\n%s" % r)
        self.assertEqual(attrs.get("path"), "/", "cookie without Path=/:\n%s" % r)
        self.assertEqual(attrs.get("max-age"), "28800", "cookie without the session's Max-Age:\n%s" % r)
        self.assertNotIn("secure", attrs, "Secure on a plain HTTP server:\n%s" % r)

    def test_every_sign_in_gets_a_session_of_its_own(self):
        sid1, token1, _ = self.sign_in()
        sid2, token2, _ = self.sign_in()
        self.assertNotEqual(sid1, sid2)
        self.assertNotEqual(token1, token2)

    def test_sign_in_with_a_wrong_password_answers_401_without_a_cookie(self):
        for data in ({"user": "sam", "password": "wrong"}, {"user": "nobody", "password": "pw-sam"}):
            with self.subTest(body=data):
                r = self.post(API + "/session", data)
                self.assertServerError(r, 401, "unauthorized")
                self.assertFalse(
                    [v for v in r.header_all("Set-Cookie") if parse_set_cookie(v)[1]],
                    "a failed sign-in set a cookie:\n%s" % r,
                )

    def test_sign_in_with_a_malformed_body_answers_400(self):
        for body in (b"not json", b'{"user":"sam"}', b'{"password":"pw-sam"}', b'["sam","pw-sam"]', b'{"user":1,"password":2}'):
            with self.subTest(body=body):
                r = self.req("POST", API + "/session", body=body)
                self.assertServerError(r, 400, "badRequest")

    def test_the_cookie_signs_in_get_requests(self):
        sid, token, signin = self.sign_in("alice", "demo")
        r = self.get(API + "/favorites", cookie=sid)
        self.assertJson(r, 200, {"user": "alice", "favoritesPath": "/users/alice/favorites", "items": harness.ALICE_ITEMS})
        r = self.get(API + "/session", cookie=sid)
        body = self.assertJson(r, 200)
        self.assertEqual(sorted(body.keys()), ["administrator", "csrfToken", "expiresIn", "user"], str(r))
        self.assertEqual((body["user"], body["administrator"], body["csrfToken"]), ("alice", False, token))
        self.assertTrue(0 < body["expiresIn"] <= 28800, str(r))
        r = self.get(API + "/catalog/children" + query(path="/shared/Sales/Reports"), cookie=sid)
        self.assertStatus(r, 200)

    def test_cookie_edits_without_the_token_answer_403_and_change_nothing(self):
        sid, _, _ = self.sign_in()
        self.assertStatus(self.post(API + "/favorites/items", {"catalogPath": KPIS}, auth=("sam", "pw-sam")), 201)
        before = self.catalog.tree_items("sam")
        for method, path, body in (
            ("POST", API + "/favorites/items", {"catalogPath": PIPELINE}),
            ("POST", API + "/favorites/status", {"paths": [KPIS]}),
            ("PUT", API + "/favorites", []),
            ("DELETE", API + "/favorites/items" + query(catalogPath=KPIS), None),
            ("DELETE", API + "/favorites/categories" + query(path="Nope"), None),
            ("PATCH", API + "/favorites", []),
        ):
            with self.subTest(method=method, path=path):
                if body is None:
                    r = self.req(method, path, cookie=sid)
                else:
                    r = self.req(method, path, cookie=sid, json_body=body)
                if method == "PATCH" and r.status == 405:
                    continue  # no route takes PATCH; refusing the method is as good
                self.assertServerError(r, 403, "csrfTokenMissing")
        self.assertEqual(self.catalog.tree_items("sam"), before, "a refused request changed the favorites")

    def test_cookie_edits_with_a_wrong_token_answer_403_and_change_nothing(self):
        sid, token, _ = self.sign_in()
        _, other_token, _ = self.sign_in()
        before = self.catalog.tree_items("sam")
        for wrong in (other_token, token[:-1], token + "0", "", "x" * len(token)):
            with self.subTest(token=wrong):
                r = self.post(API + "/favorites/items", {"catalogPath": HOLIDAYS}, cookie=sid, headers={"X-CSRF-Token": wrong})
                if wrong == "":
                    self.assertError(r, 403, "server", 403)
                    self.assertIn(r.json["error"]["name"], ("csrfTokenMissing", "csrfTokenMismatch"), str(r))
                else:
                    self.assertServerError(r, 403, "csrfTokenMismatch")
                r = self.put(API + "/favorites", [], cookie=sid, headers={"X-CSRF-Token": wrong or "0"})
                self.assertServerError(r, 403, "csrfTokenMismatch")
        self.assertEqual(self.catalog.tree_items("sam"), before, "a refused request changed the favorites")

    def test_cookie_edits_with_the_right_token_work(self):
        sid, token, _ = self.sign_in("sue")
        hdr = {"X-CSRF-Token": token}
        r = self.post(API + "/favorites/items", {"catalogPath": PIPELINE}, cookie=sid, headers=hdr)
        self.assertStatus(r, 201)
        r = self.post(API + "/favorites/status", {"paths": [PIPELINE]}, cookie=sid, headers=hdr)
        self.assertJson(r, 200, {"results": [{"path": PIPELINE, "favorite": True}]})
        r = self.delete(API + "/favorites/items" + query(catalogPath=PIPELINE), cookie=sid, headers=hdr)
        self.assertJson(r, 200, {"result": "kSuccess"})
        r = self.put(API + "/favorites", [{"type": "0", "path": KPIS}], cookie=sid, headers=hdr)
        self.assertJson(r, 200, {"result": "kSuccess", "categories": 0, "catalogObjects": 1})
        self.assertTrue(self.catalog.is_favorite("sue", KPIS))

    def test_basic_edits_need_no_token(self):
        r = self.post(API + "/favorites/items", {"catalogPath": HOLIDAYS}, auth=("sue", "pw-sue"))
        self.assertStatus(r, (201, 409))
        r = self.delete(API + "/favorites/items" + query(catalogPath=HOLIDAYS), auth=("sue", "pw-sue"))
        self.assertJson(r, 200, {"result": "kSuccess"})

    def test_sign_out_answers_204_and_ends_the_session(self):
        sid, token, _ = self.sign_in()
        self.assertStatus(self.get(API + "/favorites", cookie=sid), 200)
        r = self.delete(API + "/session", cookie=sid)
        self.assertServerError(r, 403, "csrfTokenMissing")
        self.assertStatus(self.get(API + "/favorites", cookie=sid), 200)
        r = self.delete(API + "/session", cookie=sid, headers={"X-CSRF-Token": token})
        self.assertStatus(r, 204)
        self.assertEqual(r.body, b"")
        cleared = [parse_set_cookie(v) for v in r.header_all("Set-Cookie")]
        cleared = [c for c in cleared if c[0] == "kiv_session"]
        self.assertEqual(len(cleared), 1, "sign-out does not clear the cookie:\n%s" % r)
        _, value, attrs = cleared[0]
        self.assertTrue(
            value == "" or attrs.get("max-age") == "0" or "expires" in attrs,
            "the cookie is not cleared:\n%s" % r,
        )
        self.assertServerError(self.get(API + "/favorites", cookie=sid), 401, "unauthorized")
        self.assertServerError(self.get(API + "/session", cookie=sid), 401, "unauthorized")
        r = self.post(API + "/favorites/items", {"catalogPath": PIPELINE}, cookie=sid, headers={"X-CSRF-Token": token})
        self.assertServerError(r, 401, "unauthorized")

    def test_an_unknown_session_cookie_answers_401(self):
        for sid in ("0" * 64, "not-a-session", "f" * 63):
            with self.subTest(cookie=sid):
                self.assertServerError(self.get(API + "/favorites", cookie=sid), 401, "unauthorized")

    def test_a_session_is_bound_to_its_own_user(self):
        sid, token, _ = self.sign_in("alice", "demo")
        r = self.get(API + "/favorites" + query(user="bob"), cookie=sid)
        self.assertServerError(r, 403, "forbidden")
        sid, token, _ = self.sign_in("admin", "demo")
        r = self.get(API + "/favorites" + query(user="alice"), cookie=sid)
        self.assertJson(r, 200, {"user": "alice", "favoritesPath": "/users/alice/favorites", "items": harness.ALICE_ITEMS})


class SessionExpiryTests(harness.ServerTestCase):
    server_flags = GENEROUS_SIGNIN + ("--session-seconds", 1)

    def test_an_expired_session_answers_401(self):
        r = self.post(API + "/session", {"user": "alice", "password": "demo"})
        body = self.assertJson(r, 200)
        signed_in = time.monotonic()
        self.assertEqual(body["expiresIn"], 1)
        sid = [parse_set_cookie(v) for v in r.header_all("Set-Cookie") if v.strip().startswith("kiv_session=")][0][1]
        first = self.get(API + "/favorites", cookie=sid)
        if time.monotonic() - signed_in < 0.5:
            self.assertStatus(first, 200)
        time.sleep(2.0)
        self.assertServerError(self.get(API + "/favorites", cookie=sid), 401, "unauthorized")
        self.assertServerError(self.get(API + "/session", cookie=sid), 401, "unauthorized")
        r = self.post(API + "/favorites/items", {"catalogPath": KPIS}, cookie=sid, headers={"X-CSRF-Token": body["csrfToken"]})
        self.assertServerError(r, 401, "unauthorized")


class SigninSlowdownTests(harness.FreshServerTestCase):
    """--signin-failures 3 --signin-window-seconds 2, a fresh server per test."""

    WINDOW = 2
    FLAGS = ("--signin-failures", 3, "--signin-window-seconds", WINDOW)

    def source(self, n):
        """A source address 127.0.0.n for requests that must come from an
        address of their own, or None (127.0.0.1) where the system cannot
        bind one."""
        address = "127.0.0.%d" % n
        return (address, 0) if harness.can_bind(address) else None

    def assertSlowedDown(self, r):
        self.assertServerError(r, 429, "tooManyRequests")
        retry = r.header("Retry-After")
        self.assertIsNotNone(retry, "429 without Retry-After:\n%s" % r)
        self.assertTrue(retry.strip().isdigit(), "Retry-After is not a number of seconds:\n%s" % r)
        self.assertTrue(1 <= int(retry) <= self.WINDOW + 1, "Retry-After out of the window:\n%s" % r)

    def test_the_fourth_basic_attempt_for_one_name_answers_429_even_with_the_right_password(self):
        server = self.start(*self.FLAGS)
        sources = [self.source(n) for n in (2, 3, 4, 5)]
        for src in sources[:3]:
            r = server.request("GET", API + "/favorites", auth=("alice", "wrong"), source_address=src)
            self.assertServerError(r, 401, "unauthorized")
        r = server.request("GET", API + "/favorites", auth=ALICE, source_address=sources[3])
        self.assertSlowedDown(r)
        # Another user is not slowed down by alice's failures.
        if sources[3] is not None:
            r = server.request("GET", API + "/favorites", auth=BOB, source_address=self.source(9))
            self.assertStatus(r, 200)
        time.sleep(self.WINDOW + 0.7)
        r = server.request("GET", API + "/favorites", auth=ALICE, source_address=sources[3])
        self.assertStatus(r, 200)
        self.stop_and_check(server)

    def test_the_fourth_session_sign_in_for_one_name_answers_429_even_with_the_right_password(self):
        server = self.start(*self.FLAGS)
        sources = [self.source(n) for n in (2, 3, 4, 5)]
        for src in sources[:3]:
            r = server.request("POST", API + "/session", json_body={"user": "alice", "password": "wrong"}, source_address=src)
            self.assertServerError(r, 401, "unauthorized")
        r = server.request("POST", API + "/session", json_body={"user": "alice", "password": "demo"}, source_address=sources[3])
        self.assertSlowedDown(r)
        self.assertFalse(
            [v for v in r.header_all("Set-Cookie") if parse_set_cookie(v)[1]], "a slowed-down sign-in set a cookie:\n%s" % r
        )
        time.sleep(self.WINDOW + 0.7)
        r = server.request("POST", API + "/session", json_body={"user": "alice", "password": "demo"}, source_address=sources[3])
        self.assertStatus(r, 200)
        self.stop_and_check(server)

    def test_failures_from_one_address_with_varying_names_answer_429(self):
        server = self.start(*self.FLAGS)
        for name in ("x1", "x2", "x3"):
            r = server.request("GET", API + "/favorites", auth=(name, "guess"))
            self.assertServerError(r, 401, "unauthorized")
        r = server.request("GET", API + "/favorites", auth=ALICE)
        self.assertSlowedDown(r)
        r = server.request("POST", API + "/session", json_body={"user": "bob", "password": "demo"})
        self.assertSlowedDown(r)
        # Another address is not slowed down.
        other = self.source(7)
        if other is not None:
            r = server.request("GET", API + "/favorites", auth=BOB, source_address=other)
            self.assertStatus(r, 200)
        time.sleep(self.WINDOW + 0.7)
        r = server.request("GET", API + "/favorites", auth=ALICE)
        self.assertStatus(r, 200)
        self.stop_and_check(server)

    def test_failures_below_the_limit_do_not_slow_down(self):
        server = self.start(*self.FLAGS)
        for _ in range(2):
            self.assertServerError(
                server.request("GET", API + "/favorites", auth=("alice", "wrong")), 401, "unauthorized"
            )
        self.assertStatus(server.request("GET", API + "/favorites", auth=ALICE), 200)
        self.stop_and_check(server)


if __name__ == "__main__":
    unittest.main()
