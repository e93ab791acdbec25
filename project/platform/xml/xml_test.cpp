#include "qz/platform/xml.h"

#include <gtest/gtest.h>
#include <libxml/tree.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace kiv {
namespace {

const String kFavNs = L"urn:kiv-web:favorites/v1";

std::string readTestFile(const std::string& name) {
    std::ifstream in(std::string(KIV_XML_TESTDATA) + "/" + name, std::ios::binary);
    EXPECT_TRUE(in.good()) << "missing test file " << name;
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

void parseInto(XmlDocument& doc, const std::string& text) { doc.parse(text.data(), text.size()); }

Handle<XmlDocument> parsed(const std::string& text) {
    return XmlDocument::fromBuffer(text.data(), text.size());
}

// Parses `text` expecting failure; returns the message of the XmlException.
std::string parseFailure(const std::string& text) {
    XmlDocument doc;
    try {
        parseInto(doc, text);
    } catch (const XmlException& e) {
        return e.what();
    }
    ADD_FAILURE() << "parsing succeeded but should have failed";
    return std::string();
}

std::string nested(int depth) {
    std::string s;
    for (int i = 0; i < depth; ++i) s += "<e>";
    for (int i = 0; i < depth; ++i) s += "</e>";
    return s;
}

std::vector<String> childNames(const XmlElement& e) {
    std::vector<String> names;
    for (XmlNode* n = e.getFirstChild(); n; n = n->getNextSibling()) {
        if (XmlElement* child = xml_cast_element(n))
            names.push_back(child->getAttributeValue(L"name", XmlElement::kNotRequired));
    }
    return names;
}

const char* kSample =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<favoritelist xmlns=\"urn:kiv-web:favorites/v1\">\n"
    "  <!-- a comment -->\n"
    "  <favorite xmlns=\"\" name=\"Sales\" type=\"category\">\n"
    "    <favorite name=\"Q1\" catalogpath=\"/shared/Sales/Q1\" type=\"catalogitem\"/>\n"
    "  </favorite>\n"
    "  <favorite xmlns=\"\" name=\"Top\" catalogpath=\"/shared/Top\" type=\"catalogitem\"/>\n"
    "</favoritelist>\n";

// -- parsing and serialising -------------------------------------------------------

TEST(XmlDocumentTest, NewDocumentIsEmpty) {
    XmlDocument doc;
    EXPECT_TRUE(doc.isEmpty());
    EXPECT_EQ(doc.getRootElement(), nullptr);
    EXPECT_NE(doc.nativeHandle(), nullptr);
    EXPECT_THROW(doc.getRootElementRef(), XmlException);
}

TEST(XmlDocumentTest, ParsedDocumentSerialisesAndParsesBackEqual) {
    auto doc = parsed(kSample);
    const std::string out = doc->serialize();
    EXPECT_EQ(out.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>", 0), 0u) << out;
    auto again = parsed(out);
    EXPECT_TRUE(doc->equals(*again));
    EXPECT_EQ(again->serialize(), out);
}

TEST(XmlDocumentTest, AttributeValuesAsUTF8AreTheDocumentText) {
    auto doc = parsed("<f p=\"/r\xC3\xA9sum&#233;/\xE4\xB8\xAD &amp; x\" e=\"\"/>");
    const XmlElement& root = doc->getRootElementRef();
    EXPECT_EQ(root.getAttributeValueUtf8(L"p"), "/r\xC3\xA9sum\xC3\xA9/\xE4\xB8\xAD & x");
    EXPECT_EQ(String::fromUtf8(root.getAttributeValueUtf8(L"p")), root.getAttributeValue(L"p", XmlElement::kRequired));
    EXPECT_EQ(root.getAttributeValueUtf8(L"e"), "");
    EXPECT_EQ(root.getAttributeValueUtf8(L"missing"), "");
}

TEST(XmlDocumentTest, NamespacedRootHoldsUnnamespacedChildrenWithAttributes) {
    auto doc = parsed(kSample);
    XmlElement& root = doc->getRootElementRef();
    EXPECT_EQ(root.getLocalName(), L"favoritelist");
    EXPECT_EQ(root.getNamespaceUri(), kFavNs);
    XmlElement* first = root.getFirstChildElement();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->getLocalName(), L"favorite");
    EXPECT_EQ(first->getNamespaceUri(), L"");
    EXPECT_EQ(first->getAttributeValue(L"name", XmlElement::kRequired), L"Sales");
    EXPECT_EQ(first->getAttributeValue(L"type", XmlElement::kNotRequired), L"category");
    EXPECT_TRUE(first->hasAttribute(L"type"));
    EXPECT_FALSE(first->hasAttribute(L"catalogpath"));
    EXPECT_EQ(first->getAttributeValue(L"catalogpath", XmlElement::kNotRequired), L"");
    EXPECT_EQ(first->unchecked_getAttributeValue(L"catalogpath", XmlElement::kRequired), L"");
    EXPECT_THROW(first->getAttributeValue(L"catalogpath", XmlElement::kRequired), XmlException);
    EXPECT_EQ(first->getAttributeValueUtf8(L"name"), "Sales");
    EXPECT_EQ(first->getAttributeValueUtf8(L"catalogpath"), "");
    XmlElement* leaf = first->getFirstChildElement();
    ASSERT_NE(leaf, nullptr);
    EXPECT_EQ(leaf->getAttributeValue(L"catalogpath", XmlElement::kRequired), L"/shared/Sales/Q1");
    EXPECT_EQ(leaf->getNamespaceUri(), L"");
}

TEST(XmlDocumentTest, BuiltDocumentKeepsChildrenOutOfTheRootNamespace) {
    XmlDocument doc;
    XmlElement* root = doc.createXmlElement(XmlQualifiedName(L"favoritelist", XmlNamespace(kFavNs)));
    doc.setRootElement(root, XmlDocument::kSplice);
    XmlElement* cat = root->appendXmlElement(XmlQualifiedName(L"favorite"));
    cat->setAttributeValue(XmlQualifiedName(L"name"), L"Sales");
    cat->setAttributeValue(XmlQualifiedName(L"type"), L"category");
    XmlElement* leaf = cat->appendXmlElement(XmlQualifiedName(L"favorite"));
    leaf->setAttributeValue(XmlQualifiedName(L"name"), L"Q1");

    EXPECT_EQ(root->getNamespaceUri(), kFavNs);
    EXPECT_EQ(cat->getNamespaceUri(), L"");

    const std::string out = doc.serialize();
    EXPECT_NE(out.find("<favoritelist xmlns=\"urn:kiv-web:favorites/v1\">"), std::string::npos) << out;
    auto back = parsed(out);
    XmlElement& r = back->getRootElementRef();
    EXPECT_EQ(r.getNamespaceUri(), kFavNs);
    ASSERT_NE(r.getFirstChildElement(), nullptr);
    EXPECT_EQ(r.getFirstChildElement()->getNamespaceUri(), L"");
    ASSERT_NE(r.getFirstChildElement()->getFirstChildElement(), nullptr);
    EXPECT_EQ(r.getFirstChildElement()->getFirstChildElement()->getNamespaceUri(), L"");
    EXPECT_TRUE(doc.equals(*back));
}

TEST(XmlDocumentTest, AttributeValuesWithSpecialCharactersAreEscapedAndReadBack) {
    const String tricky = L"A&B <c> \"quoted\" 'single' tab\there\nnewline \u00e9\u4e2d\U0001F600 ]]> &amp;";
    XmlDocument doc;
    XmlElement* root = doc.createXmlElement(XmlQualifiedName(L"favoritelist", XmlNamespace(kFavNs)));
    doc.setRootElement(root, XmlDocument::kSplice);
    root->appendXmlElement(XmlQualifiedName(L"favorite"))
        ->setAttributeValue(XmlQualifiedName(L"name"), tricky);

    const std::string out = doc.serialize();
    EXPECT_EQ(out.find("<c>"), std::string::npos) << out;
    EXPECT_NE(out.find("&amp;amp;"), std::string::npos) << out;
    auto back = parsed(out);
    EXPECT_EQ(
        back->getRootElementRef().getFirstChildElement()->getAttributeValue(L"name", XmlElement::kRequired),
        tricky);
}

TEST(XmlDocumentTest, ParsedAttributeValuesWithReferencesAndEmptyValuesReadBack) {
    auto doc = parsed(
        "<favoritelist xmlns=\"urn:kiv-web:favorites/v1\">"
        "<favorite xmlns=\"\" name=\"a&amp;b &#233;&#x4e2d; &lt;x&gt;\" catalogpath=\"\"/>"
        "</favoritelist>");
    XmlElement* e = doc->getRootElementRef().getFirstChildElement();
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getAttributeValue(L"name", XmlElement::kRequired), String(L"a&b \u00e9\u4e2d <x>"));
    EXPECT_TRUE(e->hasAttribute(L"catalogpath"));
    EXPECT_EQ(e->getAttributeValue(L"catalogpath", XmlElement::kRequired), String());
    EXPECT_EQ(e->getAttributeValue(L"type", XmlElement::kNotRequired), String());
}

TEST(XmlDocumentTest, SettingAnAttributeAgainReplacesItsValue) {
    XmlDocument doc;
    XmlElement* root = doc.createXmlElement(XmlQualifiedName(L"r"));
    doc.setRootElement(root, XmlDocument::kSplice);
    root->setAttributeValue(XmlQualifiedName(L"a"), L"1");
    root->setAttributeValue(XmlQualifiedName(L"a"), L"2");
    EXPECT_EQ(root->getAttributeValue(L"a", XmlElement::kRequired), L"2");
    EXPECT_EQ(doc.serialize().find("a=\"1\""), std::string::npos);
}

TEST(XmlDocumentTest, ValueThatXmlCannotCarryIsRefused) {
    XmlDocument doc;
    XmlElement* root = doc.createXmlElement(XmlQualifiedName(L"r"));
    doc.setRootElement(root, XmlDocument::kSplice);
    EXPECT_THROW(root->setAttributeValue(XmlQualifiedName(L"a"), String(L"bell\u0007")), XmlException);
    EXPECT_FALSE(root->hasAttribute(L"a"));
}

TEST(XmlDocumentTest, ValueRefusedAfterEightPrintableCharactersNamesItsPosition) {
    XmlDocument doc;
    XmlElement* root = doc.createXmlElement(XmlQualifiedName(L"r"));
    doc.setRootElement(root, XmlDocument::kSplice);
    for (const wchar_t bad : {L'\u0001', static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0xFFFE),
                              static_cast<wchar_t>(0x110000)}) {
        String value(L"abcdefghijk");
        value[9] = bad;
        try {
            root->setAttributeValue(XmlQualifiedName(L"a"), value);
            ADD_FAILURE() << "accepted U+" << std::hex << static_cast<unsigned>(bad);
        } catch (const XmlException& e) {
            EXPECT_NE(std::string(e.what()).find("at position 9"), std::string::npos) << e.what();
        }
    }
    EXPECT_FALSE(root->hasAttribute(L"a"));
    // Tab, newline and carriage return are characters XML carries.
    root->setAttributeValue(XmlQualifiedName(L"a"), String(L"0123456789\t\n\r"));
    EXPECT_EQ(root->getAttributeValue(L"a", XmlElement::kRequired), String(L"0123456789\t\n\r"));
}

TEST(XmlDocumentTest, NonAsciiNamesAreCheckedByTheXmlRules) {
    XmlDocument doc;
    XmlElement* root = doc.createXmlElement(XmlQualifiedName(L"\u00e9l\u00e9ment"));
    doc.setRootElement(root, XmlDocument::kSplice);
    root->setAttributeValue(XmlQualifiedName(L"_a-b.c9"), L"1");
    root->setAttributeValue(XmlQualifiedName(L"\u4e2d"), L"2");
    EXPECT_THROW(root->setAttributeValue(XmlQualifiedName(L"9a"), L"3"), XmlException);
    EXPECT_THROW(root->setAttributeValue(XmlQualifiedName(L"-a"), L"3"), XmlException);
    EXPECT_THROW(root->setAttributeValue(XmlQualifiedName(L"a:b"), L"3"), XmlException);
    EXPECT_THROW(root->setAttributeValue(XmlQualifiedName(L"a\u00d7"), L"3"), XmlException);  // not a name character
    auto back = parsed(doc.serialize());
    EXPECT_EQ(back->getRootElementRef().getLocalName(), String(L"\u00e9l\u00e9ment"));
    EXPECT_EQ(back->getRootElementRef().getAttributeValue(L"_a-b.c9", XmlElement::kRequired), String(L"1"));
    EXPECT_EQ(back->getRootElementRef().getAttributeValue(L"\u4e2d", XmlElement::kRequired), String(L"2"));
}

TEST(XmlDocumentTest, SerialisingIntoASinkGivesTheSameBytesInPieces) {
    XmlDocument doc;
    XmlElement* root = doc.createXmlElement(XmlQualifiedName(L"favoritelist", XmlNamespace(kFavNs)));
    doc.setRootElement(root, XmlDocument::kSplice);
    for (int i = 0; i < 2000; ++i) {
        XmlElement* e = root->appendXmlElement(XmlQualifiedName(L"favorite"));
        e->setAttributeValue(XmlQualifiedName(L"name"), String(L"n\u00e9 & <") + String(std::to_wstring(i)));
    }
    const std::string whole = doc.serialize();
    std::string joined;
    std::size_t pieces = 0;
    doc.serialize([&](const char* data, std::size_t size) {
        joined.append(data, size);
        ++pieces;
    });
    EXPECT_EQ(joined, whole);
    EXPECT_GT(pieces, 1u);
    EXPECT_EQ(whole.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n", 0), 0u);
    EXPECT_NE(whole.find("n\xC3\xA9 &amp; &lt;1999"), std::string::npos);
    // Serialising leaves the document as it was.
    EXPECT_EQ(doc.serialize(), whole);
}

TEST(XmlDocumentTest, ExceptionFromTheSinkEndsSerialisation) {
    XmlDocument doc;
    XmlElement* root = doc.createXmlElement(XmlQualifiedName(L"r"));
    doc.setRootElement(root, XmlDocument::kSplice);
    for (int i = 0; i < 2000; ++i) root->appendXmlElement(XmlQualifiedName(L"e"))->setAttributeValue(XmlQualifiedName(L"a"), L"value");
    int calls = 0;
    EXPECT_THROW(doc.serialize([&](const char*, std::size_t) {
        ++calls;
        throw std::runtime_error("disk full");
    }),
                 std::runtime_error);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(parsed(doc.serialize())->getRootElementRef().countChildNodes(), 2000u);
}

TEST(XmlDocumentTest, InvalidElementNameIsRefused) {
    XmlDocument doc;
    EXPECT_THROW(doc.createXmlElement(XmlQualifiedName(L"not a name")), XmlException);
    EXPECT_THROW(doc.createXmlElement(XmlQualifiedName(L"")), XmlException);
}

TEST(XmlDocumentTest, NamespacedAttributeGetsAPrefix) {
    XmlDocument doc;
    XmlElement* root = doc.createXmlElement(XmlQualifiedName(L"r", XmlNamespace(L"urn:a")));
    doc.setRootElement(root, XmlDocument::kSplice);
    root->setAttributeValue(XmlQualifiedName(L"x", XmlNamespace(L"urn:b", L"b")), L"v");
    auto back = parsed(doc.serialize());
    EXPECT_FALSE(back->getRootElementRef().hasAttribute(L"x"));  // namespaced, so not the plain "x"
    EXPECT_NE(doc.serialize().find("b:x=\"v\""), std::string::npos) << doc.serialize();
    EXPECT_TRUE(doc.equals(*back));
}

TEST(XmlDocumentTest, IteratingChildrenSkipsTextAndCommentNodes) {
    auto doc = parsed(kSample);
    XmlElement& root = doc->getRootElementRef();
    int elements = 0, others = 0;
    bool sawComment = false, sawText = false;
    for (XmlNode* n = root.getFirstChild(); n; n = n->getNextSibling()) {
        if (xml_cast_element(n)) {
            ++elements;
            EXPECT_EQ(n->getNodeType(), XmlNode::kElement);
        } else {
            ++others;
            sawComment |= n->getNodeType() == XmlNode::kComment;
            sawText |= n->getNodeType() == XmlNode::kText;
        }
    }
    EXPECT_EQ(elements, 2);
    EXPECT_GT(others, 0);
    EXPECT_TRUE(sawComment);
    EXPECT_TRUE(sawText);
    EXPECT_EQ(root.countChildNodes(), static_cast<std::size_t>(elements + others));
    EXPECT_EQ(childNames(root), (std::vector<String>{L"Sales", L"Top"}));
    const XmlNode* constNode = root.getFirstChild();
    EXPECT_EQ(xml_cast_element(constNode), nullptr);  // whitespace text first
    EXPECT_EQ(xml_cast_element(static_cast<XmlNode*>(nullptr)), nullptr);
}

TEST(XmlDocumentTest, ElementIterationVisitsOnlyElementsInOrder) {
    auto doc = parsed("<r><!--c--><a/>text<b/><?pi x?><c/></r>");
    std::wstring seen;
    for (XmlElement* e = doc->getRootElementRef().getFirstChildElement(); e; e = e->getNextSiblingElement())
        seen += e->getLocalName();
    EXPECT_EQ(seen, L"abc");
    EXPECT_EQ(doc->getRootElementRef().countChildNodes(), 6u);
}

TEST(XmlDocumentTest, TextContentJoinsDescendantText) {
    auto doc = parsed("<r>one<a>two<b>three</b></a><![CDATA[<four>]]></r>");
    EXPECT_EQ(doc->getRootElementRef().getTextContent(), L"onetwothree<four>");
    EXPECT_EQ(doc->getRootElementRef().getFirstChild()->getNodeType(), XmlNode::kText);
}

TEST(XmlDocumentTest, SelectSingleElementFollowsLocalNamesStepByStep) {
    auto doc = parsed(
        "<root xmlns='urn:x'><other/><favoritelist><item n='1'/><item n='2'><sub/></item></favoritelist>"
        "<favoritelist><item n='3'/></favoritelist></root>");
    XmlElement& root = doc->getRootElementRef();
    XmlElement* list = root.selectSingleElement(PathFilter(L"favoritelist"));
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->countChildNodes(), 2u);  // the first "favoritelist"
    XmlElement* item = root.selectSingleElement(PathFilter(L"favoritelist/item"));
    ASSERT_NE(item, nullptr);
    EXPECT_EQ(item->getAttributeValue(L"n", XmlElement::kRequired), L"1");
    EXPECT_EQ(root.selectSingleElement(PathFilter(L"favoritelist/item/sub")),
              nullptr);  // first item has none
    EXPECT_EQ(root.selectSingleElement(PathFilter(L"missing")), nullptr);
    EXPECT_EQ(root.selectSingleElement(PathFilter(L"favoritelist/missing")), nullptr);
}

TEST(XmlDocumentTest, PathFilterSplitsOnSlashesAndDropsEmptySteps) {
    EXPECT_EQ(PathFilter(L"a/b").steps(), (std::vector<String>{L"a", L"b"}));
    EXPECT_EQ(PathFilter(L"/a//b/").steps(), (std::vector<String>{L"a", L"b"}));
    EXPECT_TRUE(PathFilter(L"").steps().empty());
}

TEST(XmlDocumentTest, CopyIsDeepAndIndependent) {
    auto original = parsed(kSample);
    XmlDocument copy(*original);
    EXPECT_TRUE(copy.equals(*original));
    EXPECT_NE(copy.getRootElement(), original->getRootElement());
    copy.getRootElementRef().getFirstChildElement()->setAttributeValue(XmlQualifiedName(L"name"), L"Changed");
    copy.getRootElementRef().appendXmlElement(XmlQualifiedName(L"favorite"));
    EXPECT_FALSE(copy.equals(*original));
    EXPECT_EQ(original->getRootElementRef().getFirstChildElement()->getAttributeValue(L"name",
                                                                                      XmlElement::kRequired),
              L"Sales");

    XmlDocument assigned;
    assigned = *original;
    EXPECT_TRUE(assigned.equals(*original));
    original.reset();  // the copy outlives the original
    EXPECT_EQ(assigned.getRootElementRef().getFirstChildElement()->getAttributeValue(L"name",
                                                                                     XmlElement::kRequired),
              L"Sales");
}

TEST(XmlDocumentTest, SwapExchangesContents) {
    XmlDocument a;
    parseInto(a, "<a/>");
    XmlDocument b;
    XmlElement* aRoot = a.getRootElement();
    a.swap(b);
    EXPECT_TRUE(a.isEmpty());
    EXPECT_EQ(b.getRootElement(), aRoot);
    EXPECT_EQ(b.getRootElementRef().getLocalName(), L"a");
}

TEST(XmlDocumentTest, EqualsIgnoresAttributeOrderWhitespaceAndComments) {
    auto a = parsed("<r xmlns='urn:x'><e a='1' b='2'>text</e><f/></r>");
    auto b = parsed(
        "<?xml version='1.0'?>\n<r xmlns='urn:x'>\n  <!-- note -->\n  <e b='2' a='1'>text</e>\n  "
        "<f></f>\n</r>\n");
    EXPECT_TRUE(a->equals(*b));
    EXPECT_TRUE(b->equals(*a));
}

TEST(XmlDocumentTest, EqualsSeesEveryStructuralDifference) {
    auto base = parsed("<r xmlns='urn:x'><e a='1'>text</e><f/></r>");
    EXPECT_FALSE(base->equals(*parsed("<r xmlns='urn:y'><e a='1'>text</e><f/></r>")));  // namespace
    EXPECT_FALSE(base->equals(*parsed("<r xmlns='urn:x'><e a='2'>text</e><f/></r>")));  // attribute value
    EXPECT_FALSE(
        base->equals(*parsed("<r xmlns='urn:x'><e a='1' b=''>text</e><f/></r>")));       // extra attribute
    EXPECT_FALSE(base->equals(*parsed("<r xmlns='urn:x'><e a='1'>other</e><f/></r>")));  // text
    EXPECT_FALSE(base->equals(*parsed("<r xmlns='urn:x'><f/><e a='1'>text</e></r>")));   // child order
    EXPECT_FALSE(base->equals(*parsed("<r xmlns='urn:x'><e a='1'>text</e></r>")));       // missing child
    EXPECT_FALSE(base->equals(*parsed("<r xmlns='urn:x'><e a='1'>text</e><g/></r>")));   // child name
    EXPECT_FALSE(base->equals(XmlDocument()));
    EXPECT_TRUE(XmlDocument().equals(XmlDocument()));
    // Prefixes do not matter, namespace URIs do.
    EXPECT_TRUE(base->equals(*parsed("<p:r xmlns:p='urn:x'><p:e a='1'>text</p:e><p:f/></p:r>")));
}

TEST(XmlDocumentTest, SetRootElementMovesTheCreatedElementWithoutCloning) {
    XmlDocument doc;
    XmlElement* root = doc.createXmlElement(XmlQualifiedName(L"favoritelist", XmlNamespace(kFavNs)));
    XmlElement* child = root->appendXmlElement(XmlQualifiedName(L"favorite"));
    doc.setRootElement(root, XmlDocument::kSplice);
    EXPECT_EQ(doc.getRootElement(), root);
    EXPECT_EQ(doc.getRootElementRef().getFirstChildElement(), child);
    EXPECT_EQ(root->getNamespaceUri(), kFavNs);
}

TEST(XmlDocumentTest, SetRootElementReplacesThePreviousRoot) {
    XmlDocument doc;
    parseInto(doc, "<old><x/></old>");
    XmlElement* fresh = doc.createXmlElement(XmlQualifiedName(L"new"));
    doc.setRootElement(fresh, XmlDocument::kSplice);
    EXPECT_EQ(doc.getRootElement(), fresh);
    auto back = parsed(doc.serialize());
    EXPECT_EQ(back->getRootElementRef().getLocalName(), L"new");
    EXPECT_EQ(back->getRootElementRef().countChildNodes(), 0u);
}

TEST(XmlDocumentTest, SetRootElementCanPromoteAnElementFromTheTree) {
    XmlDocument doc;
    parseInto(doc, "<p:old xmlns:p='urn:p'><p:inner a='1'><p:leaf/></p:inner></p:old>");
    XmlElement* inner = doc.getRootElementRef().getFirstChildElement();
    doc.setRootElement(inner, XmlDocument::kSplice);
    EXPECT_EQ(doc.getRootElement(), inner);
    auto back = parsed(doc.serialize());
    EXPECT_TRUE(back->equals(*parsed("<inner xmlns='urn:p' a='1'><leaf/></inner>")));
}

TEST(XmlDocumentTest, ElementFromAnotherDocumentCannotBecomeRoot) {
    XmlDocument a, b;
    XmlElement* e = a.createXmlElement(XmlQualifiedName(L"e"));
    EXPECT_THROW(b.setRootElement(e, XmlDocument::kSplice), XmlException);
    EXPECT_THROW(b.setRootElement(nullptr, XmlDocument::kSplice), XmlException);
}

TEST(XmlDocumentTest, CreatedButUnplacedElementsAreFreedWithTheDocument) {
    // Run under the address sanitizer this proves nothing leaks.
    XmlDocument doc;
    XmlElement* e = doc.createXmlElement(XmlQualifiedName(L"never", XmlNamespace(L"urn:x")));
    e->appendXmlElement(XmlQualifiedName(L"child"))->setAttributeValue(XmlQualifiedName(L"a"), L"b");
    EXPECT_TRUE(doc.isEmpty());
}

TEST(XmlDocumentTest, ParsingReplacesTheContentAndAFailedParseKeepsIt) {
    XmlDocument doc;
    parseInto(doc, "<first/>");
    parseInto(doc, "<second/>");
    EXPECT_EQ(doc.getRootElementRef().getLocalName(), L"second");
    EXPECT_THROW(parseInto(doc, "<broken>"), XmlException);
    EXPECT_EQ(doc.getRootElementRef().getLocalName(), L"second");
}

TEST(XmlDocumentTest, UndeclaredPrefixFailsToParse) {
    const std::string msg = parseFailure("<p:r/>");
    EXPECT_NE(msg.find("p"), std::string::npos);
}

TEST(XmlDocumentTest, EmptyInputFailsToParse) {
    XmlDocument doc;
    EXPECT_THROW(doc.parse("", 0), XmlException);
    EXPECT_THROW(doc.parse(nullptr, 0), XmlException);
}

// -- hostile and broken input ------------------------------------------------------------

TEST(XmlParsingTest, ParsingMalformedXmlFailsWithLibraryMessageAndLine) {
    const std::string msg = parseFailure(readTestFile("malformed.xml"));
    EXPECT_NE(msg.find("line 4"), std::string::npos) << msg;
    EXPECT_NE(msg.find("mismatch"), std::string::npos) << msg;
}

TEST(XmlParsingTest, ParsingATruncatedDocumentFails) {
    const std::string msg = parseFailure(readTestFile("truncated.xml"));
    EXPECT_NE(msg.find("cannot be read"), std::string::npos) << msg;
}

TEST(XmlParsingTest, ADocumentInADeclaredSingleByteEncodingParsesToTheSameText) {
    const std::string latin1 = "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><r a=\"caf\xE9\">\xC5sa</r>";
    XmlDocument doc;
    parseInto(doc, latin1);
    EXPECT_EQ(doc.getRootElement()->unchecked_getAttributeValue(String(L"a"), XmlElement::kNotRequired),
              String(L"caf\u00E9"));
}

TEST(XmlParsingTest, TextInvalidInTheDeclaredEncodingFailsNamingItAndPrintsNothing) {
    // 0xFF 0xFF is no character of EUC-JP: the conversion fails inside
    // libxml2, which would print that to standard error by itself.
    const std::string bad = "<?xml version=\"1.0\" encoding=\"EUC-JP\"?><r a=\"\xFF\xFF\xFF\xFF\"/>";
    ::testing::internal::CaptureStderr();
    const std::string msg = parseFailure(bad);
    const std::string printed = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(msg.find("conversion"), std::string::npos) << msg;
    EXPECT_EQ(printed, "");
}

TEST(XmlParsingTest, ParsingInvalidUtf8Fails) {
    const std::string msg = parseFailure(readTestFile("invalid_utf8.xml"));
    EXPECT_NE(msg.find("UTF-8"), std::string::npos) << msg;
}

TEST(XmlParsingTest, ParsingAnEntityExpansionBombFailsFast) {
    const auto start = std::chrono::steady_clock::now();
    const std::string msg = parseFailure(readTestFile("billion_laughs.xml"));
    EXPECT_NE(msg.find("DOCTYPE"), std::string::npos) << msg;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(XmlParsingTest, ParsingAnExternalFileEntityFailsWithoutReadingTheFile) {
    XmlDocument doc;
    try {
        parseInto(doc, readTestFile("external_entity.xml"));
        FAIL() << "parsing succeeded";
    } catch (const XmlException& e) {
        const std::string msg = e.what();
        EXPECT_NE(msg.find("DOCTYPE"), std::string::npos) << msg;
        EXPECT_EQ(msg.find("root:"), std::string::npos) << msg;  // nothing of /etc/passwd
    }
}

TEST(XmlParsingTest, ParsingADocumentWithAnExternalDtdFails) {
    const std::string msg = parseFailure(readTestFile("external_dtd.xml"));
    EXPECT_NE(msg.find("DOCTYPE"), std::string::npos) << msg;
    EXPECT_NE(msg.find("line 2"), std::string::npos) << msg;
}

TEST(XmlParsingTest, ParsingAnyDoctypeFails) {
    const std::string msg = parseFailure(readTestFile("doctype_without_declarations.xml"));
    EXPECT_NE(msg.find("DOCTYPE"), std::string::npos) << msg;
}

TEST(XmlParsingTest, ParsingNestingDeeperThanTheLimitFails) {
    const std::string msg = parseFailure(nested(XmlDocument::kMaxDepth + 1));
    EXPECT_NE(msg.find("nested deeper than the limit of 1024"), std::string::npos) << msg;
}

TEST(XmlParsingTest, NestingExactlyAtTheLimitParses) {
    XmlDocument doc;
    EXPECT_NO_THROW(parseInto(doc, nested(XmlDocument::kMaxDepth)));
    EXPECT_THROW(parseInto(doc, nested(XmlDocument::kMaxDepth + 1)), XmlException);
}

TEST(XmlParsingTest, ParsingAnOversizeDocumentFailsBeforeParsing) {
    std::string big = "<r>";
    big.resize(XmlDocument::kMaxDocumentBytes + 1, ' ');
    const auto start = std::chrono::steady_clock::now();
    const std::string msg = parseFailure(big);
    EXPECT_NE(msg.find("limit"), std::string::npos) << msg;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(XmlParsingTest, FromBufferGivesAParsedDocumentOrThrows) {
    const std::string text = "<r/>";
    Handle<XmlDocument> doc = XmlDocument::fromBuffer(text.data(), text.size());
    EXPECT_EQ(doc->getRootElementRef().getLocalName(), L"r");
    EXPECT_THROW(XmlDocument::fromBuffer("<r>", 3), XmlException);
}

TEST(XmlParsingTest, ByteOrderMarkIsAccepted) {
    XmlDocument doc;
    EXPECT_NO_THROW(parseInto(doc, "\xEF\xBB\xBF<r/>"));
}

TEST(XmlParsingTest, XmlExceptionClonesWithItsTypeAndMessage) {
    XmlException e(String(L"boom"));
    std::unique_ptr<Exception> copy(e.clone());
    EXPECT_NE(dynamic_cast<XmlException*>(copy.get()), nullptr);
    EXPECT_EQ(copy->getMessageText(), L"boom");
    EXPECT_THROW(copy->throwMe(), XmlException);
}

// -- schema validation ---------------------------------------------------------------------

XmlValidator favoritesValidator() {
    return XmlValidator(
        {xml::SchemaLocation(kFavNs, String::fromUtf8(KIV_TEST_DATA_DIR "/schemas/favorites.xsd"))});
}

bool validates(const std::string& text, std::vector<String>* errorsOut = nullptr) {
    auto doc = parsed(text);
    std::vector<String> errors;
    const bool ok = favoritesValidator().validate(*doc, errors);
    EXPECT_EQ(ok, errors.empty());
    if (errorsOut) *errorsOut = errors;
    return ok;
}

std::string favorites(const std::string& body) {
    return "<?xml version=\"1.0\"?><favoritelist xmlns=\"urn:kiv-web:favorites/v1\">" + body +
           "</favoritelist>";
}

TEST(XmlValidatorTest, EmptyFavoritesListIsValid) { EXPECT_TRUE(validates(favorites(""))); }

TEST(XmlValidatorTest, TypicalFavoritesDocumentWithCommentsIsValid) { EXPECT_TRUE(validates(kSample)); }

TEST(XmlValidatorTest, TypeValuesInAnyCaseAndUnknownTypesAreValid) {
    EXPECT_TRUE(
        validates(favorites("<favorite xmlns='' name='a' type='CATEGORY'/>"
                            "<favorite xmlns='' name='b' type='CatalogItem' catalogpath='/x'/>"
                            "<favorite xmlns='' name='c' type='folder'/>"
                            "<favorite xmlns='' name='d' type=''/>")));
}

TEST(XmlValidatorTest, FavoriteWithoutAttributesIsValid) {
    EXPECT_TRUE(validates(favorites("<favorite xmlns=''/>")));
}

TEST(XmlValidatorTest, FavoriteNestedBelowACatalogItemIsValid) {
    EXPECT_TRUE(
        validates(favorites("<favorite xmlns='' type='catalogitem' catalogpath='/x' name='x'>"
                            "<favorite type='category' name='inner'><favorite/></favorite></favorite>")));
}

TEST(XmlValidatorTest, DocumentBuiltThroughTheApiIsValid) {
    XmlDocument doc;
    XmlElement* root = doc.createXmlElement(XmlQualifiedName(L"favoritelist", XmlNamespace(kFavNs)));
    doc.setRootElement(root, XmlDocument::kSplice);
    XmlElement* cat = root->appendXmlElement(XmlQualifiedName(L"favorite"));
    cat->setAttributeValue(XmlQualifiedName(L"name"), L"Sales");
    cat->setAttributeValue(XmlQualifiedName(L"type"), L"category");
    XmlElement* leaf = cat->appendXmlElement(XmlQualifiedName(L"favorite"));
    leaf->setAttributeValue(XmlQualifiedName(L"name"), L"Q1");
    leaf->setAttributeValue(XmlQualifiedName(L"catalogpath"), L"/shared/Q1");
    leaf->setAttributeValue(XmlQualifiedName(L"type"), L"catalogitem");
    std::vector<String> errors;
    EXPECT_TRUE(favoritesValidator().validate(doc, errors)) << (errors.empty() ? "" : errors[0].toUtf8());
}

TEST(XmlValidatorTest, WrongRootNameIsRejected) {
    std::vector<String> errors;
    EXPECT_FALSE(validates("<favorites xmlns='urn:kiv-web:favorites/v1'/>", &errors));
    ASSERT_FALSE(errors.empty());
    EXPECT_NE(errors[0].find(L"favorites"), String::npos) << errors[0].toUtf8();
}

TEST(XmlValidatorTest, RootInAnotherNamespaceIsRejected) {
    std::vector<String> errors;
    EXPECT_FALSE(validates("<favoritelist xmlns='urn:kiv-web:favorites/v2'/>", &errors));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_NE(errors[0].find(L"urn:kiv-web:favorites/v2"), String::npos);
}

TEST(XmlValidatorTest, RootWithoutNamespaceIsRejected) { EXPECT_FALSE(validates("<favoritelist/>")); }

TEST(XmlValidatorTest, RootInNoNamespaceIsRejectedEvenWithASchemaForNoNamespace) {
    // A location for the empty namespace pointing at the favorites schema:
    // the schema itself refuses an unqualified root.
    XmlValidator v({xml::SchemaLocation(L"", String::fromUtf8(KIV_TEST_DATA_DIR "/schemas/favorites.xsd"))});
    std::vector<String> errors;
    EXPECT_FALSE(v.validate(*parsed("<favoritelist/>"), errors));
    EXPECT_FALSE(errors.empty());
}

TEST(XmlValidatorTest, ChildElementWithAnotherNameIsRejected) {
    std::vector<String> errors;
    EXPECT_FALSE(validates(favorites("<folder xmlns='' name='x'/>"), &errors));
    ASSERT_FALSE(errors.empty());
    EXPECT_NE(errors[0].find(L"line 1"), String::npos) << errors[0].toUtf8();
}

TEST(XmlValidatorTest, FavoriteInTheFavoritesNamespaceIsAccepted) {
    // A writer that leaves the root's default namespace in force.
    EXPECT_TRUE(validates(favorites("<favorite name='x' type='category'><favorite name='y'/></favorite>")));
}

TEST(XmlValidatorTest, FavoriteInAnotherNamespaceIsRejected) {
    EXPECT_FALSE(validates(favorites("<favorite xmlns='urn:other' name='x'/>")));
}

TEST(XmlValidatorTest, UnknownAttributeIsRejected) {
    EXPECT_FALSE(validates(favorites("<favorite xmlns='' name='x' colour='red'/>")));
}

TEST(XmlValidatorTest, TextInsideTheListIsRejected) {
    EXPECT_FALSE(validates(favorites("stray text<favorite xmlns=''/>")));
}

TEST(XmlValidatorTest, EmptyDocumentIsRejected) {
    std::vector<String> errors;
    EXPECT_FALSE(favoritesValidator().validate(XmlDocument(), errors));
    EXPECT_EQ(errors.size(), 1u);
}

TEST(XmlValidatorTest, MissingSchemaFileRaisesXmlException) {
    XmlValidator v({xml::SchemaLocation(kFavNs, L"/nonexistent/dir/favorites.xsd")});
    std::vector<String> errors;
    EXPECT_THROW(v.validate(*parsed(favorites("")), errors), XmlException);
}

TEST(XmlValidatorTest, LocationIsChosenByTheRootNamespace) {
    XmlValidator v(
        {xml::SchemaLocation(L"urn:other", L"/nonexistent/other.xsd"),
         xml::SchemaLocation(kFavNs, String::fromUtf8(KIV_TEST_DATA_DIR "/schemas/favorites.xsd"))});
    std::vector<String> errors;
    EXPECT_TRUE(v.validate(*parsed(favorites("<favorite xmlns=''/>")), errors));
}

}  // namespace
}  // namespace kiv
