#include "qz/platform/soap.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "qz/platform/assert.h"

namespace kiv {
namespace {

std::string readTestFile(const std::string& name) {
    std::ifstream in(std::string(KIV_SOAP_TESTDATA) + "/" + name, std::ios::binary);
    EXPECT_TRUE(in.good()) << name;
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::unique_ptr<SoapRequest> parseFile(const std::string& name) { return SoapRequest::parse(readTestFile(name)); }

std::string wrap(const std::string& operationContent, const std::string& extraBody = "") {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\"\n"
           "    xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"\n"
           "    xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:fav=\"urn:kiv:favorites\">\n"
           " <SOAP-ENV:Body>\n  <fav:updateFavorites>" +
           operationContent + "</fav:updateFavorites>" + extraBody + "\n </SOAP-ENV:Body>\n</SOAP-ENV:Envelope>\n";
}

// Reads one scalar child the way the favorites input does: look it up by name
// at the position, convert, then follow references to the value.
SoapParameter* valueOf(SoapParameter& parent, const String& name, const SoapParametersIterator& it,
                       SoapParameter::EType type) {
    SoapParameter* p = parent.getChildParam(name, it, true, false);
    p->convert(type);
    while (p->getType() == SoapParameter::kRef || p->getType() == SoapParameter::kRefUnresolved) {
        if (p->getType() == SoapParameter::kRefUnresolved) p->resolveRef();
        p = p->getRefParam();
    }
    return p;
}

// The children of a structure, in order.
std::vector<SoapParameter*> childrenOf(const SoapParameter& p) {
    std::vector<SoapParameter*> out;
    for (auto it = p.begin(); it != p.end(); ++it) out.push_back(*it);
    return out;
}

// Walks items as the favorites input does and renders them as text, e.g.
// "Sales{Dashboard=/shared/x,}". An item that raises is left out.
std::string walk(const std::vector<SoapParameter*>& items, int& skipped) {
    std::string out;
    for (SoapParameter* item : items) {
        try {
            std::string one;
            auto it = item->begin();
            const String name = valueOf(*item, L"name", it, SoapParameter::kString)->getString();
            ++it;
            valueOf(*item, L"path", it, SoapParameter::kString);
            ++it;
            const auto type = valueOf(*item, L"type", it, SoapParameter::kUnsignedShort)->getUnsignedShort();
            ++it;
            one += name.toUtf8();
            if (type != 0) {
                item->getChildParam(L"favoriteItem", it, false, false);
                std::vector<SoapParameter*> subs;
                for (; it != item->end() && item->getChildParam(it) &&
                       item->getChildParam(it)->getName() == L"favoriteItem";
                     ++it)
                    subs.push_back(item->getChildParam(it));
                one += "{" + walk(subs, skipped) + "}";
            } else {
                one += "=" + valueOf(*item, L"catalogPath", it, SoapParameter::kString)->getString().toUtf8();
            }
            out += one + ",";
        } catch (const Exception&) {
            ++skipped;
        }
    }
    return out;
}

// ------------------------------------------------------------- real envelopes

TEST(SoapEnvelope, ClientEnvelopeBecomesParameterTree) {
    auto req = parseFile("updatefavorites_request.xml");
    EXPECT_EQ(req->getOperationName(), L"updateFavorites");
    EXPECT_EQ(req->getOperationNamespace(), L"urn:kiv:favorites");
    EXPECT_EQ(req->getOperation().getType(), SoapParameter::kStruct);
    auto items = childrenOf(req->getOperation());
    ASSERT_EQ(items.size(), 2u);
    SoapParameter* sales = items[0];
    EXPECT_EQ(sales->getType(), SoapParameter::kStruct);
    ASSERT_EQ(sales->getChildCount(), 5u);
    auto it = sales->begin();
    EXPECT_EQ((*it)->getName(), L"name");
    EXPECT_EQ((*it)->getType(), SoapParameter::kString);
    EXPECT_EQ((*it)->getString(), L"Sales");
    ++it;
    ++it;
    EXPECT_EQ((*it)->getName(), L"type");
    EXPECT_EQ((*it)->getType(), SoapParameter::kUnsignedShort);
    EXPECT_EQ((*it)->getUnsignedShort(), 1);
    EXPECT_EQ((*it)->getString(), L"1");
}

TEST(SoapEnvelope, EntitiesAndNonAsciiTextAreDecoded) {
    auto req = parseFile("updatefavorites_request.xml");
    SoapParameter* item = childrenOf(req->getOperation())[1];
    EXPECT_EQ(item->getChildParam(L"name", item->begin(), true, false)->getString(), L"Ums\u00e4tze & Kosten");
    EXPECT_EQ(item->getChildParam(L"catalogPath", item->begin(), true, true)->getString(),
              L"/shared/Finance/Ums\u00e4tze <2024>");
}

TEST(SoapEnvelope, FavoritesWalkReadsWholeTree) {
    auto req = parseFile("updatefavorites_request.xml");
    int skipped = 0;
    EXPECT_EQ(walk(childrenOf(req->getOperation()), skipped),
              "Sales{Dashboard=/shared/Sales/Dashboard,Regions{},},Ums\xC3\xA4tze & Kosten=/shared/Finance/Ums\xC3\xA4tze "
              "<2024>,");
    EXPECT_EQ(skipped, 0);
}

TEST(SoapEnvelope, WhitespaceAroundTypedValuesIsIgnoredButKeptInStrings) {
    auto req = SoapRequest::parse(wrap("\n   <type xsi:type=\"xsd:unsignedShort\">\n 7 \n</type>\n"
                                       "   <name xsi:type=\"xsd:string\">  padded  </name>\n  "));
    SoapParameter& op = req->getOperation();
    ASSERT_EQ(op.getChildCount(), 2u);
    EXPECT_EQ(op.getChildParam(L"type", op.begin(), true, false)->getUnsignedShort(), 7);
    EXPECT_EQ(op.getChildParam(L"name", op.begin(), true, true)->getString(), L"  padded  ");
}

TEST(SoapEnvelope, UntypedLeafIsStringAndUnknownSimpleTypeKeepsText) {
    auto req = SoapRequest::parse(wrap("<a>plain</a><b xsi:type=\"xsd:dateTime\">2024-01-01T00:00:00Z</b>"
                                       "<c xsi:nil=\"true\"/><d xsi:type=\"fav:Thing\"/>"));
    SoapParameter& op = req->getOperation();
    auto it = op.begin();
    EXPECT_EQ((*it)->getType(), SoapParameter::kString);
    EXPECT_EQ((*it)->getString(), L"plain");
    ++it;
    EXPECT_EQ((*it)->getType(), SoapParameter::kString);
    EXPECT_EQ((*it)->getString(), L"2024-01-01T00:00:00Z");
    ++it;
    EXPECT_EQ((*it)->getType(), SoapParameter::kNull);
    EXPECT_EQ((*it)->getString(), L"");
    ++it;
    EXPECT_EQ((*it)->getType(), SoapParameter::kStruct);
    EXPECT_EQ((*it)->getChildCount(), 0u);
}

TEST(SoapEnvelope, OtherSimpleTypesAreTyped) {
    auto req = SoapRequest::parse(wrap("<a xsi:type=\"xsd:int\">-5</a><b xsi:type=\"xsd:boolean\">true</b>"
                                       "<c xsi:type=\"xsd:double\">2.5</c><d xsi:type=\"xsd:unsignedLong\">18446744073709551615</d>"));
    SoapParameter& op = req->getOperation();
    EXPECT_EQ(op.getChildParam(L"a", op.begin(), true, true)->getInteger(), -5);
    EXPECT_TRUE(op.getChildParam(L"b", op.begin(), true, true)->getBool());
    EXPECT_EQ(op.getChildParam(L"c", op.begin(), true, true)->getDouble(), 2.5);
    SoapParameter* d = op.getChildParam(L"d", op.begin(), true, true);
    EXPECT_EQ(d->getType(), SoapParameter::kUnsignedLong);
    EXPECT_THROW(d->getInteger(), SoapException);
}

TEST(SoapEnvelope, OperationWithoutParametersHasNoItems) {
    auto req = SoapRequest::parse(wrap(""));
    EXPECT_EQ(req->getOperation().getType(), SoapParameter::kStruct);
    EXPECT_EQ(req->getOperation().getChildCount(), 0u);
    EXPECT_TRUE(childrenOf(req->getOperation()).empty());
}

TEST(SoapEnvelope, ArrayWrapperIsAnArrayOfItsElements) {
    auto req = parseFile("array_wrapper_request.xml");
    SoapParameter* wrapper = childrenOf(req->getOperation()).at(0);
    EXPECT_EQ(wrapper->getType(), SoapParameter::kArray);
    auto items = childrenOf(*wrapper);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0]->getName(), L"item");
    int skipped = 0;
    EXPECT_EQ(walk(items, skipped), "First=/shared/first,Second{},");
    EXPECT_EQ(skipped, 0);
}

TEST(SoapEnvelope, HeaderEntriesThatNeedNotBeUnderstoodAreIgnored) {
    EXPECT_NO_THROW(parseFile("multiref_request.xml"));
}

TEST(SoapEnvelope, TenThousandItemsParse) {
    std::string items;
    for (int i = 0; i < 10000; ++i)
        items += "<favoriteItem><name xsi:type=\"xsd:string\">n" + std::to_string(i) +
                 "</name><path xsi:type=\"xsd:string\">/p</path><type xsi:type=\"xsd:unsignedShort\">0</type>"
                 "<catalogPath xsi:type=\"xsd:string\">/shared/r" + std::to_string(i) + "</catalogPath></favoriteItem>";
    auto req = SoapRequest::parse(wrap(items));
    ASSERT_EQ(childrenOf(req->getOperation()).size(), 10000u);
    int skipped = 0;
    const std::string text = walk(childrenOf(req->getOperation()), skipped);
    EXPECT_EQ(skipped, 0);
    EXPECT_NE(text.find("n9999=/shared/r9999,"), std::string::npos);
}

// ------------------------------------------------------------- iteration and children

TEST(SoapParameters, IteratorVisitsChildrenInDocumentOrder) {
    auto req = SoapRequest::parse(wrap("<a>1</a><b>2</b><c>3</c>"));
    SoapParameter& op = req->getOperation();
    std::wstring names;
    for (auto it = op.begin(); it != op.end(); ++it) names += (*it)->getName();
    EXPECT_EQ(names, L"abc");
}

TEST(SoapParameters, IteratorsCopyCompareAndAdvance) {
    auto req = SoapRequest::parse(wrap("<a>1</a><b>2</b>"));
    SoapParameter& op = req->getOperation();
    auto it = op.begin();
    auto copy = it;
    EXPECT_TRUE(copy == it);
    auto old = it++;
    EXPECT_TRUE(old == copy);
    EXPECT_FALSE(it == copy);
    EXPECT_EQ((*it)->getName(), L"b");
    ++it;
    EXPECT_TRUE(it == op.end());
    EXPECT_EQ(*it, nullptr);
    EXPECT_FALSE(op.begin() == op.getChildParam(L"a", op.begin(), true, false)->begin());
}

TEST(SoapParameters, ScalarHasNoChildren) {
    auto p = SoapParameter::makeString(L"s", L"v");
    EXPECT_TRUE(p->begin() == p->end());
    EXPECT_EQ(p->getChildParam(p->begin()), nullptr);
    EXPECT_THROW(p->getChildParam(L"x", p->begin(), true, false), SoapException);
}

TEST(SoapParameters, NamedChildAtPositionIsReturned) {
    auto req = SoapRequest::parse(wrap("<name>n</name><path>p</path><type>0</type>"));
    SoapParameter& op = req->getOperation();
    auto it = op.begin();
    ++it;
    SoapParameter* path = op.getChildParam(L"path", it, true, false);
    ASSERT_NE(path, nullptr);
    EXPECT_EQ(path->getString(), L"p");
}

TEST(SoapParameters, MisnamedChildRaisesWhenRequired) {
    auto req = SoapRequest::parse(wrap("<name>n</name><type>0</type>"));
    SoapParameter& op = req->getOperation();
    auto it = op.begin();
    ++it;
    try {
        op.getChildParam(L"path", it, true, false);
        FAIL() << "no exception";
    } catch (const Exception& e) {  // the host's base type
        EXPECT_NE(e.getMessageText().find(L"path"), String::npos);
    }
    EXPECT_EQ(op.getChildParam(L"path", it, false, false), nullptr);
}

TEST(SoapParameters, MissingChildPastTheEndRaisesWhenRequired) {
    auto req = SoapRequest::parse(wrap("<name>n</name>"));
    SoapParameter& op = req->getOperation();
    auto it = op.end();
    EXPECT_THROW(op.getChildParam(L"name", it, true, false), SoapException);
    EXPECT_EQ(op.getChildParam(L"name", it, false, false), nullptr);
    EXPECT_EQ(op.getChildParam(it), nullptr);
}

TEST(SoapParameters, SearchOnwardFindsLaterChildOnlyFromThePosition) {
    auto req = SoapRequest::parse(wrap("<name>n</name><x/><catalogPath>/c</catalogPath>"));
    SoapParameter& op = req->getOperation();
    EXPECT_EQ(op.getChildParam(L"catalogPath", op.begin(), true, true)->getString(), L"/c");
    auto it = op.begin();
    ++it;
    EXPECT_EQ(op.getChildParam(L"name", it, false, true), nullptr);
    EXPECT_THROW(op.getChildParam(L"name", it, true, true), SoapException);
}

TEST(SoapParameters, IteratorOfAnotherStructureFindsNothing) {
    auto req = SoapRequest::parse(wrap("<s><name>n</name></s><name>m</name>"));
    SoapParameter& op = req->getOperation();
    SoapParameter* s = op.getChildParam(L"s", op.begin(), true, false);
    EXPECT_EQ(op.getChildParam(s->begin()), nullptr);
    EXPECT_THROW(op.getChildParam(L"name", s->begin(), true, false), SoapException);
    EXPECT_EQ(s->getChildParam(s->begin())->getString(), L"n");
}

TEST(SoapParameters, ChildAtPositionOrNull) {
    auto req = SoapRequest::parse(wrap("<a>1</a>"));
    SoapParameter& op = req->getOperation();
    EXPECT_EQ(op.getChildParam(op.begin())->getName(), L"a");
    auto it = op.begin();
    ++it;
    EXPECT_EQ(op.getChildParam(it), nullptr);
}

// ------------------------------------------------------------- convert

TEST(SoapConvert, NumericStringBecomesUnsignedShort) {
    auto p = SoapParameter::makeString(L"type", L"12");
    p->convert(SoapParameter::kUnsignedShort);
    EXPECT_EQ(p->getType(), SoapParameter::kUnsignedShort);
    EXPECT_EQ(p->getUnsignedShort(), 12);
}

TEST(SoapConvert, BoundsOfUnsignedShortConvert) {
    auto lo = SoapParameter::makeString(L"t", L" +0 ");
    lo->convert(SoapParameter::kUnsignedShort);
    EXPECT_EQ(lo->getUnsignedShort(), 0);
    auto hi = SoapParameter::makeString(L"t", L"65535");
    hi->convert(SoapParameter::kUnsignedShort);
    EXPECT_EQ(hi->getUnsignedShort(), 65535);
}

TEST(SoapConvert, NonNumericOrOutOfRangeValueRaisesAndKeepsValue) {
    for (const wchar_t* text : {L"abc", L"65536", L"-1", L"", L"1.5", L"1 2", L"0x10", L"99999999999999999999999",
                                L"\u0661"}) {
        auto p = SoapParameter::makeString(L"type", text);
        EXPECT_THROW(p->convert(SoapParameter::kUnsignedShort), SoapException) << String(text).toUtf8();
        EXPECT_EQ(p->getType(), SoapParameter::kString);
        EXPECT_EQ(p->getString(), String(text));
    }
}

TEST(SoapConvert, ReadingUnconvertedValueAsUnsignedShortRaises) {
    auto p = SoapParameter::makeString(L"type", L"1");
    EXPECT_THROW(p->getUnsignedShort(), SoapException);
}

TEST(SoapConvert, IntegerOutOfUnsignedShortRangeRaises) {
    auto req = SoapRequest::parse(wrap("<type xsi:type=\"xsd:int\">70000</type>"));
    SoapParameter* p = req->getOperation().getChildParam(req->getOperation().begin());
    EXPECT_THROW(p->convert(SoapParameter::kUnsignedShort), SoapException);
    EXPECT_EQ(p->getType(), SoapParameter::kInt);
}

TEST(SoapConvert, UnsignedShortConvertsToString) {
    auto p = SoapParameter::makeUnsignedShort(L"type", 3);
    p->convert(SoapParameter::kString);
    EXPECT_EQ(p->getType(), SoapParameter::kString);
    EXPECT_EQ(p->getString(), L"3");
}

TEST(SoapConvert, StructureCannotConvert) {
    auto s = SoapParameter::makeStruct(L"favoriteItem");
    EXPECT_THROW(s->convert(SoapParameter::kString), SoapException);
    EXPECT_THROW(s->convert(SoapParameter::kUnsignedShort), SoapException);
    EXPECT_THROW(s->getString(), SoapException);
    EXPECT_EQ(s->getType(), SoapParameter::kStruct);
}

TEST(SoapConvert, ScalarCannotConvertToStructureOrReference) {
    auto p = SoapParameter::makeString(L"n", L"x");
    EXPECT_THROW(p->convert(SoapParameter::kStruct), SoapException);
    EXPECT_THROW(p->convert(SoapParameter::kRef), SoapException);
}

TEST(SoapConvert, ConvertOnReferenceConvertsItsTarget) {
    auto target = SoapParameter::makeString(L"multiRef", L"5");
    auto ref = SoapParameter::makeUnresolvedRef(L"type", target.get());
    ref->convert(SoapParameter::kUnsignedShort);
    EXPECT_EQ(ref->getType(), SoapParameter::kRef);
    EXPECT_EQ(target->getType(), SoapParameter::kUnsignedShort);
    EXPECT_EQ(ref->getRefParam()->getUnsignedShort(), 5);
}

// ------------------------------------------------------------- references

TEST(SoapReferences, MultiReferenceValuesAreReadThroughReferences) {
    auto req = parseFile("multiref_request.xml");
    auto items = childrenOf(req->getOperation());
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0]->getType(), SoapParameter::kRefUnresolved);
    EXPECT_EQ(items[0]->getRefId(), L"id0");
    EXPECT_EQ(items[0]->getChildCount(), 4u);  // the target's children
    int skipped = 0;
    EXPECT_EQ(walk(items, skipped), "Reports{Revenue=/shared/Revenue,},Revenue=/shared/Revenue,");
    EXPECT_EQ(skipped, 0);
}

TEST(SoapReferences, ResolveRefMakesReferenceResolved) {
    auto req = parseFile("multiref_request.xml");
    SoapParameter* ref = childrenOf(req->getOperation())[0];
    EXPECT_EQ(ref->getType(), SoapParameter::kRefUnresolved);
    ref->resolveRef();
    EXPECT_EQ(ref->getType(), SoapParameter::kRef);
    EXPECT_EQ(ref->getRefParam(), req->findById(L"id0"));
    EXPECT_EQ(ref->getRefParam()->getName(), L"multiRef");
    ref->resolveRef();  // idempotent
    EXPECT_EQ(ref->getType(), SoapParameter::kRef);
}

TEST(SoapReferences, SharedValueIsReadByEveryReference) {
    auto req = parseFile("multiref_request.xml");
    SoapParameter* a = req->findById(L"id0");
    SoapParameter* b = req->findById(L"id1");
    auto ita = a->begin();
    ++ita;
    auto itb = b->begin();
    ++itb;
    EXPECT_EQ(valueOf(*a, L"path", ita, SoapParameter::kString), valueOf(*b, L"path", itb, SoapParameter::kString));
}

TEST(SoapReferences, ReferenceToMissingIdStaysUnresolvedAndReadingRaises) {
    auto req = parseFile("ref_missing_id.xml");
    SoapParameter* item = childrenOf(req->getOperation()).at(0);
    auto it = item->begin();
    ++it;
    ++it;
    SoapParameter* type = item->getChildParam(L"type", it, true, false);
    type->convert(SoapParameter::kUnsignedShort);  // nothing to convert yet
    type->resolveRef();
    EXPECT_EQ(type->getType(), SoapParameter::kRefUnresolved);
    debug::ScopedAssertRecorder rec;
    EXPECT_THROW(type->getRefParam(), SoapException);
    ASSERT_EQ(rec.failures().size(), 1u);
    EXPECT_EQ(rec.failures()[0].message, L"m_pRefParam != __null");
    int skipped = 0;
    EXPECT_EQ(walk(childrenOf(req->getOperation()), skipped), "");
    EXPECT_EQ(skipped, 1);
}

TEST(SoapReferences, SelfReferenceNeverResolves) {
    auto req = parseFile("ref_cycle_self.xml");
    SoapParameter* item = childrenOf(req->getOperation()).at(0);
    item->resolveRef();
    EXPECT_EQ(item->getType(), SoapParameter::kRefUnresolved);
    EXPECT_EQ(item->getChildCount(), 0u);
    debug::ScopedAssertRecorder rec;
    int skipped = 0;
    EXPECT_EQ(walk(childrenOf(req->getOperation()), skipped), "");
    EXPECT_EQ(skipped, 1);
}

TEST(SoapReferences, MutualReferencesNeverResolveAndReadingEnds) {
    auto req = parseFile("ref_cycle_mutual.xml");
    SoapParameter& op = req->getOperation();
    debug::ScopedAssertRecorder rec;
    EXPECT_THROW(valueOf(op, L"type", op.begin(), SoapParameter::kUnsignedShort), SoapException);
    EXPECT_EQ(rec.failures().size(), 1u);
}

TEST(SoapReferences, CategoryContainingReferenceToItselfIsReadOnce) {
    auto req = parseFile("ref_cycle_containment.xml");
    int skipped = 0;
    EXPECT_EQ(walk(childrenOf(req->getOperation()), skipped), "Loop{},");
    EXPECT_EQ(skipped, 1);  // the inner reference closes the cycle and is left out
}

TEST(SoapReferences, BuiltReferenceCycleIsRefused) {
    auto a = SoapParameter::makeUnresolvedRef(L"a", nullptr);
    auto b = SoapParameter::makeUnresolvedRef(L"b", a.get());
    auto c = SoapParameter::makeUnresolvedRef(L"c", b.get());
    // a -> nothing: never resolves.
    a->resolveRef();
    EXPECT_EQ(a->getType(), SoapParameter::kRefUnresolved);
    b->resolveRef();
    EXPECT_EQ(b->getType(), SoapParameter::kRef);
    c->resolveRef();
    EXPECT_EQ(c->getRefParam(), b.get());
    auto self = SoapParameter::makeUnresolvedRef(L"s", nullptr);
    auto loop = SoapParameter::makeUnresolvedRef(L"s", self.get());
    auto self2 = SoapParameter::makeUnresolvedRef(L"s", loop.get());
    self2->resolveRef();  // self2 -> loop -> self -> nothing: fine
    EXPECT_EQ(self2->getType(), SoapParameter::kRef);
}

TEST(SoapReferences, BuiltStructureIsReadLikeParsedOne) {
    auto item = SoapParameter::makeStruct(L"favoriteItem");
    item->addChild(SoapParameter::makeString(L"name", L"n"));
    item->addChild(SoapParameter::makeString(L"path", L"p"));
    auto shared = SoapParameter::makeString(L"multiRef", L"0");
    item->addChild(SoapParameter::makeUnresolvedRef(L"type", shared.get()));
    item->addChild(SoapParameter::makeString(L"catalogPath", L"/shared/x"));
    int skipped = 0;
    EXPECT_EQ(walk({item.get()}, skipped), "n=/shared/x,");
    EXPECT_EQ(skipped, 0);
    EXPECT_THROW(shared->addChild(SoapParameter::makeString(L"x", L"y")), SoapException);
}

TEST(SoapReferences, ExternalHrefIsNeverFollowed) {
    auto req = SoapRequest::parse(wrap("<type href=\"http://example.invalid/x\"/>"));
    SoapParameter* p = req->getOperation().getChildParam(req->getOperation().begin());
    p->resolveRef();
    EXPECT_EQ(p->getType(), SoapParameter::kRefUnresolved);
    EXPECT_TRUE(p->getRefId().empty());
}

// ------------------------------------------------------------- rejected input

struct Rejected {
    const char* file;
    const wchar_t* messagePart;
};

class SoapRejectedFile : public ::testing::TestWithParam<Rejected> {};

TEST_P(SoapRejectedFile, ParseRaisesWithClearMessage) {
    try {
        parseFile(GetParam().file);
        FAIL() << "accepted " << GetParam().file;
    } catch (const SoapException& e) {
        EXPECT_NE(e.getMessageText().find(GetParam().messagePart), String::npos) << e.what();
    }
}

INSTANTIATE_TEST_SUITE_P(
    BadEnvelopes, SoapRejectedFile,
    ::testing::Values(Rejected{"not_soap_plain_xml.xml", L"not a SOAP envelope"},
                      Rejected{"envelope_without_namespace.xml", L"not a SOAP envelope"},
                      Rejected{"soap12_envelope.xml", L"SOAP 1.2"},
                      Rejected{"not_xml_json.txt", L"malformed XML"},
                      Rejected{"truncated_envelope.xml", L"malformed XML"},
                      Rejected{"mismatched_tags.xml", L"malformed XML"},
                      Rejected{"undefined_entity.xml", L"malformed XML"},
                      Rejected{"undeclared_element_prefix.xml", L"malformed XML"},
                      Rejected{"invalid_utf8.xml", L"UTF-8"},
                      Rejected{"latin1_declared.xml", L"UTF-8"},
                      Rejected{"doctype_entity_expansion.xml", L"document type"},
                      Rejected{"doctype_external_entity.xml", L"document type"},
                      Rejected{"no_body.xml", L"no Body"},
                      Rejected{"empty_body.xml", L"no operation"},
                      Rejected{"fault_envelope.xml", L"fault"},
                      Rejected{"must_understand_header.xml", L"must be understood"},
                      Rejected{"duplicate_id.xml", L"used twice"},
                      Rejected{"bad_typed_value.xml", L"not a valid unsignedShort"},
                      Rejected{"unsigned_short_out_of_range.xml", L"not a valid unsignedShort"},
                      Rejected{"undeclared_type_prefix.xml", L"undeclared prefix"},
                      Rejected{"nesting_too_deep.xml", L"nest deeper"},
                      Rejected{"ref_expansion_bomb.xml", L"expand to more"},
                      Rejected{"ref_chain_too_deep.xml", L"nest values deeper"}),
    [](const auto& info) {
        std::string n = info.param.file;
        for (char& c : n)
            if (c == '.') c = '_';
        return n;
    });

TEST(SoapRejected, DoctypeTextInsideCdataOrACommentIsDataNotADeclaration) {
    // Only a real declaration is refused; the same characters as string
    // content or inside a comment are read like any other text.
    auto req = SoapRequest::parse(wrap("<!-- <!DOCTYPE x> --><name><![CDATA[<!DOCTYPE x>]]></name>"));
    const SoapParameter& op = req->getOperation();
    EXPECT_EQ(op.getChildParam(L"name", op.begin(), true, false)->getString(), L"<!DOCTYPE x>");
}

TEST(SoapRejected, DoctypeAfterTheRootElementIsMalformedXml) {
    // A declaration is only a declaration before the root element; after it
    // the parser reports the document as not well-formed.
    try {
        SoapRequest::parse(wrap("<name>a</name>") + "<!DOCTYPE x>");
        FAIL() << "accepted";
    } catch (const SoapException& e) {
        EXPECT_NE(e.getMessageText().find(L"malformed XML"), String::npos) << e.what();
    }
}

TEST(SoapRejected, EmptyInputRaises) { EXPECT_THROW(SoapRequest::parse(""), SoapException); }

TEST(SoapRejected, OversizedInputRaises) {
    std::string big = wrap("<name>" + std::string(SoapRequest::kMaxEnvelopeBytes, 'x') + "</name>");
    EXPECT_THROW(SoapRequest::parse(big), SoapException);
}

TEST(SoapRejected, NestingBelowTheLimitIsAccepted) {
    std::string deep;
    for (int i = 0; i < 100; ++i) deep += "<s>";
    deep += "x";
    for (int i = 0; i < 100; ++i) deep += "</s>";
    EXPECT_NO_THROW(SoapRequest::parse(wrap(deep)));
}

TEST(SoapRejected, ExceptionIsTheHostBaseType) {
    try {
        SoapRequest::parse("<x/>");
        FAIL();
    } catch (const Exception& e) {
        EXPECT_NE(dynamic_cast<const SoapException*>(&e), nullptr);
        std::unique_ptr<Exception> copy(e.clone());
        EXPECT_THROW(copy->throwMe(), SoapException);
    }
}

}  // namespace
}  // namespace kiv
