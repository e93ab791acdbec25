"""The SOAP endpoint of favoritesd: a real SOAP client (zeep) that reads the
served WSDL, and envelopes zeep does not write, sent as they are.

zeep loads nothing from outside: its transport serves the SOAP encoding
schema from data/schemas/ and refuses every address but the server's."""
import os
import re
import sys
import unittest

sys.dont_write_bytecode = True

import requests
import zeep
from zeep.transports import Transport

import harness
from harness import ALICE, BOB

REPOSITORY = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..", ".."))
ENCODING_NS = "http://schemas.xmlsoap.org/soap/encoding/"
ENCODING_XSD = os.path.join(REPOSITORY, "data", "schemas", "soap-encoding.xsd")
TESTDATA = os.path.join(REPOSITORY, "project", "platform", "soap", "testdata")
API = "/api/v1"

PIPELINE = "/shared/Sales/Reports/Pipeline"
HOLIDAYS = "/shared/Common/Holiday Calendar"
REVENUE = "/shared/Sales/Reports/Revenue by Region"


class LocalTransport(Transport):
    """Serves the encoding schema from the repository, the server's own
    addresses over HTTP, and refuses every other load."""

    def __init__(self, base, **kwargs):
        super().__init__(**kwargs)
        self.base = base
        self.refused = []

    def load(self, url):
        if url == ENCODING_NS:
            with open(ENCODING_XSD, "rb") as f:
                return f.read()
        if url.startswith(self.base + "/"):
            return super().load(url)
        self.refused.append(url)
        raise IOError("refused to load " + url)


def envelope(operation_content, operation="updateFavorites", header="", body_extra=""):
    return (
        '<?xml version="1.0" encoding="UTF-8"?>'
        '<SOAP-ENV:Envelope xmlns:SOAP-ENV="http://schemas.xmlsoap.org/soap/envelope/"'
        ' xmlns:SOAP-ENC="http://schemas.xmlsoap.org/soap/encoding/"'
        ' xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xmlns:xsd="http://www.w3.org/2001/XMLSchema"'
        ' xmlns:fav="urn:kiv:favorites">' + header + "<SOAP-ENV:Body><fav:%s>%s</fav:%s>%s</SOAP-ENV:Body>"
        "</SOAP-ENV:Envelope>" % (operation, operation_content, operation, body_extra)
    )


def item(name, catalog_path=None, children=None, typed=False):
    t = (lambda xsd: ' xsi:type="xsd:%s"' % xsd) if typed else (lambda xsd: "")
    kind = "0" if catalog_path is not None else "1"
    out = "<favoriteItem><name%s>%s</name><path%s>/%s</path><type%s>%s</type>" % (
        t("string"), name, t("string"), name, t("unsignedShort"), kind)
    if catalog_path is not None:
        out += "<catalogPath%s>%s</catalogPath>" % (t("string"), catalog_path)
    for c in children or []:
        out += c
    return out + "</favoriteItem>"


class SoapTestCase(harness.ServerTestCase):
    def soap(self, body, auth=ALICE, action=None):
        headers = {"Content-Type": "text/xml; charset=utf-8"}
        if action is not None:
            headers["SOAPAction"] = action
        payload = body if isinstance(body, bytes) else body.encode("utf-8")
        return self.req("POST", "/soap", auth=auth, body=payload, headers=headers)

    def assertReturn(self, resp, code):
        self.assertEqual(resp.status, 200, str(resp))
        m = re.search(r"<return[^>]*>(-?\d+)</return>", resp.text())
        self.assertIsNotNone(m, str(resp))
        self.assertEqual(int(m.group(1)), code, str(resp))

    def assertClientFault(self, resp, words=None):
        self.assertEqual(resp.status, 500, str(resp))
        self.assertIn("text/xml", resp.header("Content-Type", ""))
        self.assertIn("<faultcode>SOAP-ENV:Client</faultcode>", resp.text())
        if words:
            self.assertIn(words, resp.text())

    def tree(self, user="alice"):
        return self.catalog.tree_items(user)

    def restore_alice(self):
        self.put(API + "/favorites", [
            {"type": "1", "name": "Sales", "children": [
                {"type": "0", "path": REVENUE},
                {"type": "0", "path": "/shared/Sales/Dashboards/Sales Overview/Summary"}]},
            {"type": "0", "path": "/shared/Common/Company KPIs"}], auth=ALICE)


class ZeepClientTests(SoapTestCase):
    def client(self, auth=ALICE):
        base = "http://127.0.0.1:%d" % self.server.port
        session = requests.Session()
        session.auth = auth
        transport = LocalTransport(base, session=session, timeout=30, operation_timeout=30)
        return zeep.Client(base + "/soap?wsdl", transport=transport), transport

    def test_the_wsdl_loads_with_nothing_fetched_from_outside_and_names_the_servers_address(self):
        client, transport = self.client()
        self.assertEqual(transport.refused, [])
        self.assertEqual(client.service._binding_options["address"], "http://127.0.0.1:%d/soap" % self.server.port)
        self.assertEqual(sorted(client.service._operations), ["getFavorites", "isFavorite", "updateFavorites"])

    def test_update_favorites_replaces_the_tree_seen_by_rest_and_the_tool(self):
        client, _ = self.client()
        item_type = client.get_type("ns0:FavoriteItem")
        items = client.get_type("ns0:ArrayOfFavoriteItem")([
            item_type(name="Weekly", path="/Weekly", type=1, favoriteItem=[
                item_type(name="Pipeline", path="/Weekly/Pipeline", type=0, catalogPath=PIPELINE)]),
            item_type(name="Holidays", path="/Holidays", type=0, catalogPath=HOLIDAYS),
        ])
        try:
            self.assertEqual(client.service.updateFavorites(items), 1)
            tree = self.assertJson(self.get(API + "/favorites", auth=ALICE), 200)["items"]
            self.assertEqual([(i["type"], i["name"]) for i in tree], [("category", "Weekly"), ("catalogObject", "Holiday Calendar")])
            self.assertEqual(tree[0]["children"][0]["catalogPath"], PIPELINE)
            self.assertTrue(self.catalog.is_favorite("alice", PIPELINE))
            self.assertFalse(self.catalog.is_favorite("alice", REVENUE))
        finally:
            self.restore_alice()

    def test_get_favorites_answers_the_items_of_a_category_with_the_code(self):
        client, _ = self.client()
        root = client.service.getFavorites("", "")
        self.assertEqual(root["return"], 1)
        self.assertEqual([(i["name"], i["type"]) for i in root["favoriteItems"]], [("Sales", 1), ("Company KPIs", 0)])
        self.assertEqual(root["favoriteItems"][1]["catalogPath"], "/shared/Common/Company KPIs")
        sales = client.service.getFavorites("Sales", "reports")
        self.assertEqual([i["catalogPath"] for i in sales["favoriteItems"]], [REVENUE])

    def test_get_favorites_of_a_missing_category_is_a_response_with_code_6_not_a_fault(self):
        client, _ = self.client()
        answer = client.service.getFavorites("Nope", "")
        self.assertEqual(answer["return"], 6)
        self.assertFalse(answer["favoriteItems"])

    def test_is_favorite_answers_one_boolean_per_path(self):
        client, _ = self.client()
        paths = client.get_type("ns0:ArrayOfString")([REVENUE, PIPELINE, "/shared/Common/Company KPIs"])
        answer = client.service.isFavorite(paths)
        self.assertEqual(answer["return"], 1)
        self.assertEqual(answer["results"], [True, False, True])

    def test_a_wrong_password_is_refused_with_401(self):
        client, _ = self.client()
        client.transport.session.auth = ("alice", "wrong")
        with self.assertRaises(zeep.exceptions.TransportError) as caught:
            client.service.getFavorites("", "")
        self.assertEqual(caught.exception.status_code, 401)


class RawEnvelopeTests(SoapTestCase):
    users = {"erin": ("pw-erin", ["sales"])}

    def test_directly_listed_items_with_xsi_types_replace_the_tree(self):
        body = envelope(item("Weekly", children=[item("P", PIPELINE, typed=True)], typed=True) + item("H", HOLIDAYS, typed=True))
        self.assertReturn(self.soap(body, auth=("erin", "pw-erin")), 1)
        self.assertEqual([i["name"] for i in self.catalog.tree_items("erin")], ["Weekly", "Holiday Calendar"])

    def test_an_array_wrapper_with_array_type_replaces_the_tree(self):
        body = envelope('<favoriteItems xsi:type="SOAP-ENC:Array" SOAP-ENC:arrayType="fav:FavoriteItem[2]">'
                        '<item><name>A</name><path>/A</path><type>0</type><catalogPath>%s</catalogPath></item>'
                        '<item><name>Cat</name><path>/Cat</path><type>1</type></item>'
                        '</favoriteItems>' % PIPELINE)
        self.assertReturn(self.soap(body, auth=("erin", "pw-erin")), 1)
        self.assertEqual([i["name"] for i in self.catalog.tree_items("erin")], ["Pipeline", "Cat"])

    def test_multi_reference_values_are_followed(self):
        body = envelope('<favoriteItem href="#a"/>',
                        body_extra='<multiRef id="a"><name>M</name><path>/M</path><type href="#t"/>'
                                   '<catalogPath>%s</catalogPath></multiRef><multiRef id="t">0</multiRef>' % HOLIDAYS)
        self.assertReturn(self.soap(body, auth=("erin", "pw-erin")), 1)
        self.assertEqual([i.get("catalogPath") for i in self.catalog.tree_items("erin")], [HOLIDAYS])

    def test_the_sample_requests_are_answered_with_success(self):
        for name in ("updatefavorites_request.xml", "multiref_request.xml", "array_wrapper_request.xml"):
            with self.subTest(name):
                with open(os.path.join(TESTDATA, name), "rb") as f:
                    self.assertReturn(self.soap(f.read(), auth=("erin", "pw-erin")), 1)

    def test_a_soap_action_naming_another_operation_is_refused_and_changes_nothing(self):
        before = self.tree()
        resp = self.soap(envelope(item("X", PIPELINE)), action='"urn:kiv:favorites#getFavorites"')
        self.assertClientFault(resp, "SOAPAction")
        self.assertEqual(self.tree(), before)

    def test_the_soap_action_of_the_operation_and_an_empty_one_are_accepted(self):
        resp = self.soap(envelope('<categoryPath></categoryPath><filter></filter>', "getFavorites"),
                         action='"urn:kiv:favorites#getFavorites"')
        self.assertReturn(resp, 1)
        self.assertReturn(self.soap(envelope('<categoryPath/><filter/>', "getFavorites"), action='""'), 1)

    def test_an_unknown_operation_is_a_client_fault(self):
        self.assertClientFault(self.soap(envelope("", "dropEverything")), "unknown operation")

    def test_an_operation_of_another_namespace_is_a_client_fault(self):
        body = envelope("").replace('<fav:updateFavorites>', '<x:updateFavorites xmlns:x="urn:other">').replace(
            '</fav:updateFavorites>', '</x:updateFavorites>')
        self.assertClientFault(self.soap(body), "namespace")

    def test_no_credentials_answer_401(self):
        resp = self.soap(envelope(""), auth=None)
        self.assertEqual(resp.status, 401, str(resp))

    def test_the_wsdl_is_served_without_sign_in_and_get_without_wsdl_is_400(self):
        resp = self.get("/soap?wsdl")
        self.assertEqual(resp.status, 200, str(resp))
        self.assertIn('location="http://127.0.0.1:%d/soap"' % self.server.port, resp.text())
        self.assertEqual(self.get("/soap").status, 400)


class RejectedEnvelopeTests(SoapTestCase):
    """Every envelope rejected as a whole is a Client fault with HTTP 500 and
    leaves the stored favorites as they were."""

    server_flags = ["--max-body", str(12 * 1024 * 1024)]

    FILES = [
        "bad_typed_value.xml", "doctype_entity_expansion.xml", "doctype_external_entity.xml", "duplicate_id.xml",
        "empty_body.xml", "envelope_without_namespace.xml", "invalid_utf8.xml", "mismatched_tags.xml",
        "must_understand_header.xml", "nesting_too_deep.xml", "no_body.xml", "not_soap_plain_xml.xml",
        "not_xml_json.txt", "ref_chain_too_deep.xml", "ref_expansion_bomb.xml", "soap12_envelope.xml",
        "truncated_envelope.xml", "undefined_entity.xml", "unsigned_short_out_of_range.xml",
    ]

    def assertRejected(self, body):
        before = self.tree()
        stored = self.catalog.run("catalog", "cat", "/users/alice/favorites").stdout
        self.assertClientFault(self.soap(body))
        self.assertEqual(self.tree(), before)
        self.assertEqual(self.catalog.run("catalog", "cat", "/users/alice/favorites").stdout, stored)

    def test_each_rejected_sample_is_a_client_fault_and_changes_nothing(self):
        for name in self.FILES:
            with self.subTest(name):
                with open(os.path.join(TESTDATA, name), "rb") as f:
                    self.assertRejected(f.read())

    def test_a_value_that_does_not_match_its_declared_type_is_rejected(self):
        self.assertRejected(envelope('<favoriteItem><name>a</name><path>/a</path>'
                                     '<type xsi:type="xsd:unsignedShort">abc</type></favoriteItem>'))

    def test_an_envelope_over_8_mib_is_rejected(self):
        filler = "<!--" + "x" * (8 * 1024 * 1024) + "-->"
        self.assertRejected(envelope(item("A", PIPELINE) + filler))

    def test_more_than_500000_elements_are_rejected(self):
        self.assertRejected(envelope("<a/>" * 500001))

    def test_nesting_over_128_levels_is_rejected(self):
        self.assertRejected(envelope("<a>" * 130 + "</a>" * 130))

    def test_a_header_entry_that_must_be_understood_is_rejected(self):
        header = '<SOAP-ENV:Header><x:h xmlns:x="urn:x" SOAP-ENV:mustUnderstand="1"/></SOAP-ENV:Header>'
        self.assertRejected(envelope(item("A", PIPELINE), header=header))

    def test_a_document_type_declaration_is_rejected(self):
        self.assertRejected('<?xml version="1.0"?><!DOCTYPE x [<!ENTITY e "boom">]>' + envelope(item("A", PIPELINE))[21:])

    def test_text_that_is_not_utf8_is_rejected(self):
        self.assertRejected(envelope(item("A\xe9", PIPELINE)).encode("latin-1"))


if __name__ == "__main__":
    unittest.main()
