#include "qz/platform/gd.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace kiv {
namespace {

std::optional<GDVariant> eval(GDExpressionEvaluator& ev, const String& text) {
    GDVariant v;
    if (!ev.evaluateExpression(text, text.size(), v, 1)) return std::nullopt;
    return v;
}

std::optional<GDVariant> eval(const String& text) {
    GDExpressionEvaluator ev;
    return eval(ev, text);
}

String readTestFile(const char* name) {
    std::ifstream in(std::string(KIV_GD_TESTDATA) + "/" + name, std::ios::binary);
    EXPECT_TRUE(in.good()) << name;
    std::stringstream ss;
    ss << in.rdbuf();
    return String::fromUtf8(ss.str());
}

const GDJsonArray* asArray(const GDVariant& v) { return dynamic_cast<const GDJsonArray*>(v.getValue()); }
const GDJsonObject* asObject(const GDVariant& v) { return dynamic_cast<const GDJsonObject*>(v.getValue()); }

// Structural equality: containers compare by content, scalars by kind and value.
bool sameValue(const GDVariant& a, const GDVariant& b) {
    if (a.kind() != b.kind()) return false;
    if (a.kind() != GDVariant::Kind::kValue) return a == b;
    if (auto* x = asArray(a)) {
        auto* y = asArray(b);
        if (!y || x->getCount() != y->getCount()) return false;
        for (std::size_t i = 0; i < x->getCount(); ++i)
            if (!sameValue(x->elements()[i], y->elements()[i])) return false;
        return true;
    }
    if (auto* x = asObject(a)) {
        auto* y = asObject(b);
        if (!y || x->getCount() != y->getCount()) return false;
        for (std::size_t i = 0; i < x->getCount(); ++i) {
            if (x->members()[i].first != y->members()[i].first) return false;
            if (!sameValue(x->members()[i].second, y->members()[i].second)) return false;
        }
        return true;
    }
    return false;
}

String nested(std::size_t depth, const wchar_t* open, const wchar_t* inner, const wchar_t* close) {
    String s;
    for (std::size_t i = 0; i < depth; ++i) s += open;
    s += inner;
    for (std::size_t i = 0; i < depth; ++i) s += close;
    return s;
}

// ------------------------------------------------------------- literals

TEST(GDJsonEvaluator, NullEvaluatesToEmptyVariant) {
    GDVariant v = 5;
    GDExpressionEvaluator ev;
    ASSERT_TRUE(ev.evaluateExpression(L"null", 4, v, 1));
    EXPECT_TRUE(v.isEmpty());
}

TEST(GDJsonEvaluator, BooleansEvaluateToBool) {
    auto t = eval(L"true");
    auto f = eval(L" false ");
    ASSERT_TRUE(t && f);
    EXPECT_EQ(t->kind(), GDVariant::Kind::kBool);
    EXPECT_TRUE(t->getBool());
    EXPECT_FALSE(f->getBool());
}

TEST(GDJsonEvaluator, IntegersEvaluateToInt64) {
    auto v = eval(L"-9223372036854775808");
    ASSERT_TRUE(v);
    ASSERT_EQ(v->kind(), GDVariant::Kind::kInt);
    EXPECT_EQ(v->getInt(), INT64_MIN);
    auto w = eval(L"42");
    ASSERT_TRUE(w);
    EXPECT_EQ(w->getInt(), 42);
}

TEST(GDJsonEvaluator, FractionsAndExponentsEvaluateToDouble) {
    auto v = eval(L"0.5");
    ASSERT_TRUE(v);
    ASSERT_EQ(v->kind(), GDVariant::Kind::kDouble);
    EXPECT_EQ(v->getDouble(), 0.5);
    auto w = eval(L"1E3");
    ASSERT_TRUE(w);
    ASSERT_EQ(w->kind(), GDVariant::Kind::kDouble);
    EXPECT_EQ(w->getDouble(), 1000.0);
}

TEST(GDJsonEvaluator, StringsAreDecodedIncludingEscapesAndNonAscii) {
    auto v = eval(L"\"Ums\u00e4tze \\u00e9\\n\\\"q\\\" \\ud83d\\ude00 \U0001F600\"");
    ASSERT_TRUE(v);
    ASSERT_EQ(v->kind(), GDVariant::Kind::kString);
    EXPECT_EQ(v->getString(), String(L"Ums\u00e4tze \u00e9\n\"q\" \U0001F600 \U0001F600"));
}

TEST(GDJsonEvaluator, EmptyArrayAndObjectEvaluateToContainers) {
    auto a = eval(L"[]");
    auto o = eval(L"{}");
    ASSERT_TRUE(a && o);
    ASSERT_NE(asArray(*a), nullptr);
    EXPECT_EQ(asArray(*a)->getCount(), 0u);
    ASSERT_NE(asObject(*o), nullptr);
    EXPECT_EQ(asObject(*o)->getCount(), 0u);
}

TEST(GDJsonEvaluator, LengthLimitsTheEvaluatedText) {
    GDExpressionEvaluator ev;
    GDVariant v;
    const String text = L"[1,2] garbage";
    ASSERT_TRUE(ev.evaluateExpression(text, 5, v, 1));
    EXPECT_EQ(asArray(v)->getCount(), 2u);
    EXPECT_FALSE(ev.evaluateExpression(text, text.size(), v, 1));
    ASSERT_TRUE(ev.evaluateExpression(L"7", 100, v, 1));
    EXPECT_EQ(v.getInt(), 7);
}

TEST(GDJsonEvaluator, FlagOtherThanJsonLiteralFails) {
    GDExpressionEvaluator ev;
    GDVariant v = 3;
    EXPECT_FALSE(ev.evaluateExpression(L"1", 1, v, 0));
    EXPECT_FALSE(ev.evaluateExpression(L"1", 1, v, 2));
    EXPECT_EQ(v.getInt(), 3);  // untouched on failure
}

// ------------------------------------------------------------- containers

TEST(GDJsonContainers, NestedArraysAndObjectsAreReadThroughTheirViews) {
    GDExpressionEvaluator ev;
    auto v = eval(ev, L"[{\"type\":1,\"name\":\"Sales\",\"children\":[{\"type\":0,\"path\":\"/shared/Sales/Dashboard\"}]}, 3]");
    ASSERT_TRUE(v);
    GDValue* root = v->getValue()->resolveReferences();
    auto* arr = dynamic_cast<IGDRandomAccessContainer*>(root);
    ASSERT_NE(arr, nullptr);
    ASSERT_EQ(arr->getCount(), 2u);

    GDVariant first;
    ASSERT_TRUE(arr->getElement(0, first));
    auto* bag = dynamic_cast<IGDReadablePropertyBag*>(first.getValue()->resolveReferences());
    ASSERT_NE(bag, nullptr);
    GDAdjustableSizeVariant name;
    ASSERT_TRUE(bag->getProperty(ev.getContext(), GDPropertyKey(L"name"), name));
    EXPECT_EQ(GDTypeConversions::toString(ev.getContext(), name.getReferencedValue()), L"Sales");

    GDAdjustableSizeVariant children;
    ASSERT_TRUE(bag->getProperty(ev.getContext(), GDPropertyKey(L"children"), children));
    auto* kids = dynamic_cast<IGDRandomAccessContainer*>(children.getReferencedValue().getValue());
    ASSERT_NE(kids, nullptr);
    EXPECT_EQ(kids->getCount(), 1u);

    GDVariant second;
    ASSERT_TRUE(arr->getElement(1, second));
    EXPECT_EQ(second.getInt(), 3);
    EXPECT_EQ(second.getValue(), nullptr);  // a scalar does not resolve to a value
}

TEST(GDJsonContainers, AbsentPropertyReadsFalseAndLeavesOutputAlone) {
    GDExpressionEvaluator ev;
    auto v = eval(ev, L"{\"type\":0}");
    ASSERT_TRUE(v);
    GDVariant out = L"keep";
    EXPECT_FALSE(asObject(*v)->getProperty(ev.getContext(), GDPropertyKey(L"path"), out));
    EXPECT_EQ(out.getString(), L"keep");
    EXPECT_FALSE(asObject(*v)->getProperty(ev.getContext(), GDPropertyKey(L"Type"), out));  // keys are case-sensitive
}

TEST(GDJsonContainers, NullPropertyIsPresentAndEmpty) {
    GDExpressionEvaluator ev;
    auto v = eval(ev, L"{\"path\":null}");
    ASSERT_TRUE(v);
    GDVariant out = 1;
    ASSERT_TRUE(asObject(*v)->getProperty(ev.getContext(), GDPropertyKey(L"path"), out));
    EXPECT_TRUE(out.isEmpty());
    EXPECT_EQ(GDTypeConversions::toString(ev.getContext(), out), L"");
}

TEST(GDJsonContainers, ElementOutOfRangeReadsFalse) {
    auto v = eval(L"[10,20]");
    ASSERT_TRUE(v);
    GDVariant out = L"keep";
    EXPECT_FALSE(asArray(*v)->getElement(2, out));
    EXPECT_FALSE(asArray(*v)->getElement(SIZE_MAX, out));
    EXPECT_EQ(out.getString(), L"keep");
}

TEST(GDJsonContainers, ElementsKeepDocumentOrder) {
    auto v = eval(L"[\"c\",\"a\",\"b\"]");
    ASSERT_TRUE(v);
    const auto& e = asArray(*v)->elements();
    EXPECT_EQ(e[0].getString(), L"c");
    EXPECT_EQ(e[1].getString(), L"a");
    EXPECT_EQ(e[2].getString(), L"b");
}

TEST(GDJsonContainers, DuplicateKeysLastValueWinsAtFirstPosition) {
    GDExpressionEvaluator ev;
    auto v = eval(ev, readTestFile("duplicate_keys.json"));
    ASSERT_TRUE(v);
    const GDJsonObject* o = asObject(*v);
    ASSERT_EQ(o->getCount(), 2u);
    EXPECT_EQ(o->members()[0].first, L"type");
    EXPECT_EQ(o->members()[1].first, L"path");
    GDVariant out;
    ASSERT_TRUE(o->getProperty(ev.getContext(), GDPropertyKey(L"type"), out));
    EXPECT_EQ(out.getInt(), 1);
    ASSERT_TRUE(o->getProperty(ev.getContext(), GDPropertyKey(L"path"), out));
    EXPECT_EQ(out.getString(), L"/last");
    EXPECT_EQ(GDTypeConversions::toString(ev.getContext(), *v), L"{\"type\":1,\"path\":\"/last\"}");
}

// A JSON array of n catalog-object items with the paths /shared/reports/r0 to r(n-1).
String leafArray(int n) {
    String text = L"[";
    for (int i = 0; i < n; ++i) {
        if (i) text += L",";
        text += L"{\"type\":0,\"path\":\"/shared/reports/r" + std::to_wstring(i) + L"\"}";
    }
    return text + L"]";
}

// The start of an object with members "k0":0 to "k<n-1>":n-1, each followed by a comma.
String numberedMembers(int n) {
    String text = L"{";
    for (int i = 0; i < n; ++i) text += L"\"k" + std::to_wstring(i) + L"\":" + std::to_wstring(i) + L",";
    return text;
}

TEST(GDJsonContainers, DuplicateKeysInLargeObjectFollowTheSameRule) {
    const String text = numberedMembers(100) + L"\"k5\":500,\"k99\":990,\"k5\":555}";
    GDExpressionEvaluator ev;
    auto v = eval(ev, text);
    ASSERT_TRUE(v);
    const GDJsonObject* o = asObject(*v);
    ASSERT_EQ(o->getCount(), 100u);
    EXPECT_EQ(o->members()[5].first, L"k5");
    EXPECT_EQ(o->members()[5].second.getInt(), 555);
    EXPECT_EQ(o->find(L"k99")->getInt(), 990);
    EXPECT_EQ(o->find(L"k0")->getInt(), 0);
    EXPECT_EQ(o->find(L"k100"), nullptr);
    for (int i = 0; i < 100; ++i) EXPECT_NE(o->find(L"k" + std::to_wstring(i)), nullptr) << i;
}

TEST(GDJsonContainers, ReferenceHolderResolvesToItsTarget) {
    Handle<GDValue> arr(new GDJsonArray({GDVariant(1), GDVariant(2)}));
    Handle<GDValue> ref(new GDReferenceValue(GDVariant(arr)));
    Handle<GDValue> refref(new GDReferenceValue(GDVariant(ref)));
    EXPECT_EQ(refref->resolveReferences(), arr.get());
    EXPECT_EQ(arr->resolveReferences(), arr.get());

    GDAdjustableSizeVariant holder{GDVariant(refref)};
    EXPECT_EQ(holder.getReferencedValue().getValue(), arr.get());
    GDContext ctx;
    EXPECT_EQ(GDTypeConversions::toString(ctx, holder), L"[1,2]");
}

TEST(GDJsonContainers, ReferenceToScalarResolvesToNullButReadsAsText) {
    Handle<GDValue> ref(new GDReferenceValue(GDVariant(L"text")));
    EXPECT_EQ(ref->resolveReferences(), nullptr);
    GDAdjustableSizeVariant holder{GDVariant(ref)};
    EXPECT_EQ(holder.getReferencedValue().getString(), L"text");
}

// ------------------------------------------------------------- text form

TEST(GDTypeConversionsToString, ScalarsHaveDocumentedTextForms) {
    GDContext ctx;
    EXPECT_EQ(GDTypeConversions::toString(ctx, GDVariant(L"a \"b\"")), L"a \"b\"");
    EXPECT_EQ(GDTypeConversions::toString(ctx, GDVariant(std::int64_t{-7})), L"-7");
    EXPECT_EQ(GDTypeConversions::toString(ctx, GDVariant(0.1)), L"0.1");
    EXPECT_EQ(GDTypeConversions::toString(ctx, GDVariant(2.0)), L"2");
    EXPECT_EQ(GDTypeConversions::toString(ctx, GDVariant(1e300)), L"1e+300");
    EXPECT_EQ(GDTypeConversions::toString(ctx, GDVariant(true)), L"true");
    EXPECT_EQ(GDTypeConversions::toString(ctx, GDVariant(false)), L"false");
    EXPECT_EQ(GDTypeConversions::toString(ctx, GDVariant()), L"");
}

TEST(GDTypeConversionsToString, TypeValuesReadAsTheTextOfTheTypeMap) {
    GDExpressionEvaluator ev;
    auto v = eval(ev, L"[0, 1, \"1\", 1.0]");
    ASSERT_TRUE(v);
    const auto& e = asArray(*v)->elements();
    EXPECT_EQ(GDTypeConversions::toString(ev.getContext(), e[0]), L"0");
    EXPECT_EQ(GDTypeConversions::toString(ev.getContext(), e[1]), L"1");
    EXPECT_EQ(GDTypeConversions::toString(ev.getContext(), e[2]), L"1");
    EXPECT_EQ(GDTypeConversions::toString(ev.getContext(), e[3]), L"1");
}

TEST(GDTypeConversionsToString, ArrayTextIsCompactJsonThatReEvaluatesToAnEqualStructure) {
    GDExpressionEvaluator ev;
    const String text =
        L"[ {\"type\" : 1, \"name\": \"Sales \\\"EU\\\"\\n\\t\\u0001\", \"children\": [ {\"type\":0,\"path\":\"/s/\u00e9\"} ] },"
        L" 2.0, -0.0, 1e-7, 12345678901234, true, false, null, [], {}, [[[]]] ]";
    auto v = eval(ev, text);
    ASSERT_TRUE(v);
    const String form = GDTypeConversions::toString(ev.getContext(), *v);
    EXPECT_EQ(form.find(L' '), form.find(L"Sales ") + 5);  // the only blank is inside a string
    auto again = eval(ev, form);
    ASSERT_TRUE(again) << std::string(form.toUtf8());
    EXPECT_TRUE(sameValue(*v, *again));
    EXPECT_EQ(GDTypeConversions::toString(ev.getContext(), *again), form);
    EXPECT_EQ(asArray(*again)->elements()[1].kind(), GDVariant::Kind::kDouble);
}

TEST(GDTypeConversionsToString, ChildArraysReParseLevelByLevel) {
    GDExpressionEvaluator ev;
    const String text =
        L"[{\"type\":1,\"name\":\"A\",\"children\":[{\"type\":1,\"name\":\"B\",\"children\":"
        L"[{\"type\":1,\"name\":\"C\",\"children\":[{\"type\":0,\"path\":\"/x\"}]}]}]}]";
    String level = text;
    for (const wchar_t* name : {L"A", L"B", L"C"}) {
        auto v = eval(ev, level);
        ASSERT_TRUE(v);
        GDVariant item;
        ASSERT_TRUE(asArray(*v)->getElement(0, item));
        GDAdjustableSizeVariant prop;
        ASSERT_TRUE(asObject(item)->getProperty(ev.getContext(), GDPropertyKey(L"name"), prop));
        EXPECT_EQ(GDTypeConversions::toString(ev.getContext(), prop.getReferencedValue()), name);
        ASSERT_TRUE(asObject(item)->getProperty(ev.getContext(), GDPropertyKey(L"children"), prop));
        level = GDTypeConversions::toString(ev.getContext(), prop.getReferencedValue());
    }
    EXPECT_EQ(level, L"[{\"type\":0,\"path\":\"/x\"}]");
}

TEST(GDTypeConversionsToString, TextFormEvaluatedInSameContextGivesTheSameValueUnparsed) {
    GDExpressionEvaluator ev;
    auto v = eval(ev, L"{\"children\":[{\"type\":0,\"path\":\"/x\"}]}");
    ASSERT_TRUE(v);
    GDVariant children;
    ASSERT_TRUE(asObject(*v)->getProperty(ev.getContext(), GDPropertyKey(L"children"), children));
    const String text = GDTypeConversions::toString(ev.getContext(), children);
    auto again = eval(ev, text);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->getValue(), children.getValue());  // shared, immutable
    auto third = eval(ev, text);                         // remembered once only: parsed now
    ASSERT_TRUE(third);
    EXPECT_NE(third->getValue(), children.getValue());
    EXPECT_TRUE(sameValue(*third, children));
    GDExpressionEvaluator other;
    auto elsewhere = eval(other, text);
    ASSERT_TRUE(elsewhere);
    EXPECT_NE(elsewhere->getValue(), children.getValue());
    EXPECT_TRUE(sameValue(*elsewhere, children));
}

TEST(GDTypeConversionsToString, PrefixOfRememberedTextIsParsedNormally) {
    GDExpressionEvaluator ev;
    auto v = eval(ev, L"[[1,2],3]");
    ASSERT_TRUE(v);
    const String text = GDTypeConversions::toString(ev.getContext(), *v);
    GDVariant out;
    EXPECT_FALSE(ev.evaluateExpression(text, 6, out, 1));  // "[[1,2]" is not JSON
    ASSERT_TRUE(ev.evaluateExpression(text, text.size(), out, 1));
    EXPECT_EQ(out.getValue(), v->getValue());
}

// The children arrays of a three-level tree, in document order.
std::vector<GDVariant> childrenArrays(GDContext& ctx, const GDVariant& tree) {
    std::vector<GDVariant> out;
    for (const GDVariant& item : asArray(tree)->elements()) {
        GDVariant children;
        if (!asObject(item)->getProperty(ctx, GDPropertyKey(L"children"), children)) continue;
        out.push_back(children);
        for (GDVariant& c : childrenArrays(ctx, children)) out.push_back(c);
    }
    return out;
}

String treeText(int groups) {
    String text = L"[";
    for (int g = 0; g < groups; ++g) {
        if (g) text += L",";
        const String n = std::to_wstring(g);
        text += L"{\"type\":1,\"name\":\"G" + n + L"\",\"children\":[{\"type\":1,\"name\":\"T" + n +
                L"\",\"children\":[{\"type\":0,\"path\":\"/a/" + n + L"\"},{\"type\":0,\"path\":\"/b/" + n +
                L"\"}]},{\"type\":0,\"path\":\"/c/" + n + L"\"}]}";
    }
    return text + L"]";
}

// Every nested text is cut from the tree's text, whichever order the texts
// are asked for in: forward, backward, or jumping far before or after the
// last one (a tree of 120 groups has hundreds of containers). A container of
// another document is not taken for one of this tree's.
TEST(GDTypeConversionsToString, NestedTextsEqualTheirOwnJsonInAnyOrder) {
    for (const int groups : {3, 120}) {
        SCOPED_TRACE(groups);
        GDExpressionEvaluator ev;
        auto tree = eval(ev, treeText(groups));
        ASSERT_TRUE(tree);
        GDContext& ctx = ev.getContext();
        std::vector<GDVariant> arrays = childrenArrays(ctx, *tree);
        ASSERT_EQ(arrays.size(), 2u * static_cast<std::size_t>(groups));
        GDContext fresh;
        (void)GDTypeConversions::toString(ctx, *tree);  // written once; the rest is cut from it
        for (const GDVariant& a : arrays)
            EXPECT_EQ(GDTypeConversions::toString(ctx, a), GDTypeConversions::toJson(fresh, a));
        for (auto it = arrays.rbegin(); it != arrays.rend(); ++it)  // away from document order
            EXPECT_EQ(GDTypeConversions::toString(ctx, *it), GDTypeConversions::toJson(fresh, *it));
        for (std::size_t k = 0; k < arrays.size(); ++k) {  // a permutation: 97 and 2n share no factor
            const GDVariant& a = arrays[(k * 97) % arrays.size()];
            EXPECT_EQ(GDTypeConversions::toString(ctx, a), GDTypeConversions::toJson(fresh, a)) << k;
        }
        // Objects inside the tree are cut from it too.
        const GDVariant& item = asArray(*tree)->elements()[1];
        EXPECT_EQ(GDTypeConversions::toString(ctx, item), GDTypeConversions::toJson(fresh, item));
        GDExpressionEvaluator other;
        auto otherTree = eval(other, treeText(3));
        ASSERT_TRUE(otherTree);
        for (const GDVariant& a : childrenArrays(other.getContext(), *otherTree))
            EXPECT_EQ(GDTypeConversions::toString(ctx, a), GDTypeConversions::toJson(fresh, a));
    }
}

TEST(GDTypeConversionsToString, EachLevelsTextEvaluatesToItsOwnValueUnparsed) {
    GDExpressionEvaluator ev;
    auto tree = eval(ev, treeText(2));
    ASSERT_TRUE(tree);
    GDContext& ctx = ev.getContext();
    for (const GDVariant& a : childrenArrays(ctx, *tree)) {
        const String text = GDTypeConversions::toString(ctx, a);
        auto again = eval(ev, text);
        ASSERT_TRUE(again);
        EXPECT_EQ(again->getValue(), a.getValue());
    }
}

TEST(GDTypeConversionsToString, TextsStayRightAfterManyOtherTreesWereWritten) {
    GDExpressionEvaluator ev;
    GDContext& ctx = ev.getContext();
    auto first = eval(ev, treeText(2));
    ASSERT_TRUE(first);
    const GDVariant inner = childrenArrays(ctx, *first).back();
    (void)GDTypeConversions::toString(ctx, *first);
    for (int i = 0; i < 10; ++i) {  // more trees than the context keeps written
        auto other = eval(ev, treeText(i + 1));
        ASSERT_TRUE(other);
        (void)GDTypeConversions::toString(ctx, *other);
    }
    GDContext fresh;
    const String text = GDTypeConversions::toString(ctx, inner);
    EXPECT_EQ(text, GDTypeConversions::toJson(fresh, inner));
    auto again = eval(ev, text);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->getValue(), inner.getValue());
}

TEST(GDTypeConversionsToString, ValueSharedInsideOneTreeHasOneText) {
    Handle<GDValue> shared(new GDJsonArray({GDVariant(L"x"), GDVariant(2)}));
    Handle<GDValue> tree(new GDJsonArray({GDVariant(shared), GDVariant(3), GDVariant(shared)}));
    GDExpressionEvaluator ev;
    EXPECT_EQ(GDTypeConversions::toString(ev.getContext(), GDVariant(tree)), L"[[\"x\",2],3,[\"x\",2]]");
    const String text = GDTypeConversions::toString(ev.getContext(), GDVariant(shared));
    EXPECT_EQ(text, L"[\"x\",2]");
    auto again = eval(ev, text);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->getValue(), shared.get());
}

// ------------------------------------------------------- values read lazily

// An evaluated array or object reads its members from the parsed document on
// first need. These tests read them in the orders a caller may choose and
// compare with values built from vectors, which hold their members from the
// start.

// A copy of `v` made of values built from vectors (strings, numbers and
// literals copied; arrays and objects rebuilt member by member).
GDVariant rebuilt(const GDVariant& v) {
    if (auto* a = asArray(v)) {
        std::vector<GDVariant> elements;
        for (const GDVariant& e : a->elements()) elements.push_back(rebuilt(e));
        return GDVariant(Handle<GDValue>(new GDJsonArray(std::move(elements))));
    }
    if (auto* o = asObject(v)) {
        std::vector<GDJsonObject::Member> members;
        for (const auto& [key, value] : o->members()) members.emplace_back(key, rebuilt(value));
        return GDVariant(Handle<GDValue>(new GDJsonObject(std::move(members))));
    }
    return v;
}

const wchar_t* const kVariedText =
    L"[{\"s\":\"plain ascii text that is longer than sixteen\",\"e\":\"\\\"q\\\" \\\\ \\/ \\b\\f\\n\\r\\t \\u0001\\u001f\","
    L"\"u\":\"caf\u00e9 \u4e2d \\ud83d\\ude00 and then a long ascii tail after them\",\"k\u00e9y\":1},"
    L"12345678901234,-7,0,18446744073709551615,2.0,-0.0,1e-7,1.5e300,0.1,true,false,null,\"\",[],{},"
    L"[[[\"deep\"]]],{\"a\":{\"b\":{\"c\":[1,{\"d\":null}]}}},"
    L"\"0123456789abcde\\\"\",\"0123456789abcdef\\n\",\"0123456789abcdef0123456789abcde\u00e9\"]";

TEST(GDLazyValues, TextWrittenFromTheDocumentEqualsTextWrittenFromValues) {
    GDExpressionEvaluator ev;
    auto v = eval(ev, kVariedText);
    ASSERT_TRUE(v);
    GDContext fresh;
    const String fromDocument = GDTypeConversions::toJson(fresh, *v);  // written before any member is read
    const String fromValues = GDTypeConversions::toJson(fresh, rebuilt(*v));
    EXPECT_EQ(fromDocument, fromValues);
    EXPECT_EQ(GDTypeConversions::toString(ev.getContext(), *v), fromValues);
    auto again = eval(fromDocument);
    ASSERT_TRUE(again);
    EXPECT_TRUE(sameValue(*again, *v));
}

TEST(GDLazyValues, EveryNestedTextEqualsItsTextWrittenFromValues) {
    GDExpressionEvaluator ev;
    auto v = eval(ev, kVariedText);
    ASSERT_TRUE(v);
    GDContext& ctx = ev.getContext();
    (void)GDTypeConversions::toString(ctx, *v);  // nested texts are cut from this one
    GDContext fresh;
    std::size_t containers = 0;
    std::function<void(const GDVariant&)> check = [&](const GDVariant& x) {
        if (!asArray(x) && !asObject(x)) return;
        ++containers;
        EXPECT_EQ(GDTypeConversions::toString(ctx, x), GDTypeConversions::toJson(fresh, rebuilt(x)));
        if (auto* a = asArray(x))
            for (const GDVariant& e : a->elements()) check(e);
        else
            for (const auto& m : asObject(x)->members()) check(m.second);
    };
    check(*v);
    EXPECT_EQ(containers, 12u);
}

TEST(GDLazyValues, PropertyOfAnUnreadObjectIsItsLastValue) {
    GDExpressionEvaluator ev;
    auto v = eval(ev, L"{\"type\":0,\"path\":\"/first\",\"type\":1,\"path\":\"/last\",\"n\":null}");
    ASSERT_TRUE(v);
    const GDJsonObject* o = asObject(*v);
    GDVariant out;
    ASSERT_TRUE(o->getProperty(ev.getContext(), GDPropertyKey(L"path"), out));  // before the member list exists
    EXPECT_EQ(out.getString(), L"/last");
    ASSERT_TRUE(o->getProperty(ev.getContext(), GDPropertyKey(L"type"), out));
    EXPECT_EQ(out.getInt(), 1);
    ASSERT_TRUE(o->getProperty(ev.getContext(), GDPropertyKey(L"n"), out));
    EXPECT_TRUE(out.isEmpty());
    GDVariant untouched(L"x");
    EXPECT_FALSE(o->getProperty(ev.getContext(), GDPropertyKey(L"typ"), untouched));
    EXPECT_FALSE(o->getProperty(ev.getContext(), GDPropertyKey(L"types"), untouched));
    EXPECT_FALSE(o->getProperty(ev.getContext(), GDPropertyKey(L""), untouched));
    EXPECT_EQ(untouched.getString(), L"x");
    EXPECT_EQ(GDTypeConversions::toString(ev.getContext(), *v), L"{\"type\":1,\"path\":\"/last\",\"n\":null}");
    EXPECT_EQ(o->getCount(), 3u);
}

TEST(GDLazyValues, NonAsciiKeysAreFoundWhereTheyLie) {
    GDExpressionEvaluator ev;
    auto v = eval(ev, L"{\"caf\u00e9\":1,\"\\u4e2d\":2,\"\\ud83d\\ude00\":3,\"cafe\":4}");
    ASSERT_TRUE(v);
    const GDJsonObject* o = asObject(*v);
    GDVariant out;
    ASSERT_TRUE(o->getProperty(ev.getContext(), GDPropertyKey(L"caf\u00e9"), out));
    EXPECT_EQ(out.getInt(), 1);
    ASSERT_TRUE(o->getProperty(ev.getContext(), GDPropertyKey(L"\u4e2d"), out));
    EXPECT_EQ(out.getInt(), 2);
    ASSERT_TRUE(o->getProperty(ev.getContext(), GDPropertyKey(String(1, static_cast<wchar_t>(0x1F600))), out));
    EXPECT_EQ(out.getInt(), 3);
    ASSERT_TRUE(o->getProperty(ev.getContext(), GDPropertyKey(L"cafe"), out));
    EXPECT_EQ(out.getInt(), 4);
    String surrogate(1, static_cast<wchar_t>(0xD83D));  // no key can spell it
    EXPECT_FALSE(o->getProperty(ev.getContext(), GDPropertyKey(surrogate), out));
    EXPECT_FALSE(o->getProperty(ev.getContext(), GDPropertyKey(L"caf"), out));
}

TEST(GDLazyValues, LargeUnreadObjectAnswersLikeItsMemberList) {
    const String text = numberedMembers(40) + L"\"k7\":700}";
    GDExpressionEvaluator ev;
    auto v = eval(ev, text);
    ASSERT_TRUE(v);
    const GDJsonObject* o = asObject(*v);
    GDVariant out;
    ASSERT_TRUE(o->getProperty(ev.getContext(), GDPropertyKey(L"k7"), out));
    EXPECT_EQ(out.getInt(), 700);
    ASSERT_TRUE(o->getProperty(ev.getContext(), GDPropertyKey(L"k39"), out));
    EXPECT_EQ(out.getInt(), 39);
    EXPECT_FALSE(o->getProperty(ev.getContext(), GDPropertyKey(L"k40"), out));
    // Its text, written from the document, keeps k7 at its first place with its last value.
    GDContext fresh;
    const String written = GDTypeConversions::toJson(fresh, *v);
    EXPECT_NE(written.find(L"\"k6\":6,\"k7\":700,\"k8\":8"), String::npos) << std::string(written.toUtf8());
    EXPECT_EQ(written.find(L"\"k7\"", written.find(L"\"k7\"") + 1), String::npos);
    EXPECT_EQ(o->getCount(), 40u);
    EXPECT_EQ(written, GDTypeConversions::toJson(fresh, rebuilt(*v)));
}

TEST(GDLazyValues, ArrayCountIsKnownBeforeItsElementsAreRead) {
    auto v = eval(L"[1,[2,3],{\"a\":4},\"five\",6.5]");
    ASSERT_TRUE(v);
    const GDJsonArray* a = asArray(*v);
    EXPECT_EQ(a->getCount(), 5u);
    GDVariant out;
    EXPECT_FALSE(a->getElement(5, out));
    ASSERT_TRUE(a->getElement(3, out));
    EXPECT_EQ(out.getString(), L"five");
    ASSERT_TRUE(a->getElement(1, out));
    EXPECT_EQ(asArray(out)->getCount(), 2u);
    EXPECT_EQ(a->getCount(), 5u);
}

TEST(GDLazyValues, OnePropertyReadTwiceIsOneContainerForItsText) {
    GDExpressionEvaluator ev;
    auto v = eval(ev, L"{\"children\":[{\"type\":0,\"path\":\"/x\"}],\"other\":[1]}");
    ASSERT_TRUE(v);
    GDContext& ctx = ev.getContext();
    GDVariant first, second;
    ASSERT_TRUE(asObject(*v)->getProperty(ctx, GDPropertyKey(L"children"), first));
    ASSERT_TRUE(asObject(*v)->getProperty(ctx, GDPropertyKey(L"children"), second));
    EXPECT_TRUE(sameValue(first, second));
    (void)GDTypeConversions::toString(ctx, *v);
    EXPECT_EQ(GDTypeConversions::toString(ctx, first), L"[{\"type\":0,\"path\":\"/x\"}]");
    const String text = GDTypeConversions::toString(ctx, second);
    EXPECT_EQ(text, L"[{\"type\":0,\"path\":\"/x\"}]");
    auto again = eval(ev, text);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->getValue(), second.getValue());
}

TEST(GDLazyValues, ValuesOfALargeTextAreReadLikeThoseOfASmallOne) {
    // Larger than what a thread keeps its parser buffers for.
    const String text = leafArray(120000);
    ASSERT_GT(text.size(), 4u << 20);
    GDExpressionEvaluator ev;
    auto big = eval(ev, text);
    ASSERT_TRUE(big);
    auto small = eval(ev, L"[{\"type\":0,\"path\":\"/shared/reports/r119999\"}]");
    ASSERT_TRUE(small);
    GDVariant item;
    ASSERT_TRUE(asArray(*big)->getElement(119999, item));
    EXPECT_TRUE(sameValue(item, asArray(*small)->elements()[0]));
}

// Texts of values that no evaluation could have produced: evaluating them
// parses the text, with the outcome the text alone decides.
TEST(GDTypeConversionsToString, TextOfValueJsonCannotSpellIsParsedWhenEvaluated) {
    GDExpressionEvaluator ev;
    GDContext& ctx = ev.getContext();

    Handle<GDValue> nan(new GDJsonArray({GDVariant(std::nan(""))}));
    const String nanText = GDTypeConversions::toString(ctx, GDVariant(nan));
    EXPECT_EQ(nanText, L"[null]");
    auto nanAgain = eval(ev, nanText);
    ASSERT_TRUE(nanAgain);
    EXPECT_NE(nanAgain->getValue(), nan.get());
    EXPECT_TRUE(asArray(*nanAgain)->elements()[0].isEmpty());

    Handle<GDValue> target(new GDJsonArray({GDVariant(1)}));
    Handle<GDValue> viaHolder(new GDJsonArray({GDVariant(Handle<GDValue>(new GDReferenceValue(GDVariant(target))))}));
    const String holderText = GDTypeConversions::toString(ctx, GDVariant(viaHolder));
    EXPECT_EQ(holderText, L"[[1]]");
    auto holderAgain = eval(ev, holderText);
    ASSERT_TRUE(holderAgain);
    EXPECT_NE(holderAgain->getValue(), viaHolder.get());
    EXPECT_TRUE(asArray(asArray(*holderAgain)->elements()[0]));

    String surrogate = L"a";
    surrogate[0] = static_cast<wchar_t>(0xD800);
    Handle<GDValue> badString(new GDJsonArray({GDVariant(surrogate)}));
    EXPECT_FALSE(eval(ev, GDTypeConversions::toString(ctx, GDVariant(badString))));

    Handle<GDValue> deep(new GDJsonArray({GDVariant(1)}));
    for (std::size_t i = 1; i <= GDExpressionEvaluator::kMaxDepth; ++i)
        deep = Handle<GDValue>(new GDJsonArray({GDVariant(deep)}));
    EXPECT_FALSE(eval(ev, GDTypeConversions::toString(ctx, GDVariant(deep))));
}

TEST(GDTypeConversionsToString, MovedVariantGivesTheSameText) {
    GDContext ctx;
    EXPECT_EQ(GDTypeConversions::toString(ctx, GDVariant(L"moved text")), L"moved text");
    EXPECT_EQ(GDTypeConversions::toString(ctx, GDVariant(std::int64_t{-7})), L"-7");
    EXPECT_EQ(GDTypeConversions::toString(ctx, GDVariant(0.5)), L"0.5");
    GDVariant arr(Handle<GDValue>(new GDJsonArray({GDVariant(L"a")})));
    EXPECT_EQ(GDTypeConversions::toString(ctx, std::move(arr)), L"[\"a\"]");
}

TEST(GDTypeConversionsToString, LongStringsWithEscapesAndNonAsciiRoundTrip) {
    GDExpressionEvaluator ev;
    String s(40, L'a');
    s[15] = L'"';   // last of a block of sixteen
    s[16] = L'\\';  // first of the next
    s[31] = L'\n';
    s += L"\u00e9\u4e2d";
    s.append(33, L'b');
    s += static_cast<wchar_t>(0x1F600);
    s += L'\u0001';
    GDContext fresh;
    const String json = GDTypeConversions::toJson(fresh, GDVariant(s));
    auto back = eval(ev, json);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->getString(), s);
    Handle<GDValue> arr(new GDJsonArray({GDVariant(s)}));
    const String text = GDTypeConversions::toString(ev.getContext(), GDVariant(arr));
    EXPECT_EQ(text, L"[" + json + L"]");
    auto again = eval(ev, text);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->getValue(), arr.get());
}

// A string read from a document is written back 16 characters at a time
// while they need no escape: a character that does, or one that is not
// ASCII, must be found at every place of a block, of the overlapping last
// block and of the short tail.
TEST(GDTypeConversionsToString, DocumentStringWithASpecialCharacterAtEveryPlaceIsWrittenBack) {
    const wchar_t specials[] = {L'"', L'\\', L'\n', L'\u0001', L'\u001f', L'\u00e9', L'\u4e2d', L'\u007f', L' '};
    for (const wchar_t special : specials) {
        for (std::size_t length = 1; length <= 40; ++length) {
            for (std::size_t at = 0; at < length; ++at) {
                String s;
                for (std::size_t i = 0; i < length; ++i) s.push_back(static_cast<wchar_t>(L'a' + i % 26));
                s[at] = special;
                GDContext fresh;
                const String json = GDTypeConversions::toJson(fresh, GDVariant(s));
                GDExpressionEvaluator ev;
                auto outer = eval(ev, L"[[" + json + L"]]");
                ASSERT_TRUE(outer);
                GDVariant inner;
                ASSERT_TRUE(asArray(*outer)->getElement(0, inner));
                ASSERT_EQ(GDTypeConversions::toString(ev.getContext(), inner), L"[" + json + L"]")
                    << static_cast<unsigned>(special) << " " << length << " " << at;
            }
        }
    }
}

class OtherArray final : public GDValue, public IGDRandomAccessContainer {
public:
    std::size_t getCount() const noexcept override { return 0; }
    bool getElement(std::size_t, GDVariant&) const override { return false; }
};

TEST(GDJsonContainers, ViewsAgreeWithDynamicCast) {
    Handle<GDValue> arr(new GDJsonArray());
    Handle<GDValue> obj(new GDJsonObject());
    Handle<GDValue> other(new OtherArray());
    Handle<GDValue> ref(new GDReferenceValue(GDVariant(arr)));
    for (const GDValue* v : {arr.get(), obj.get(), other.get(), ref.get(), static_cast<GDValue*>(nullptr)}) {
        EXPECT_EQ(arrayView(v), dynamic_cast<const IGDRandomAccessContainer*>(v));
        EXPECT_EQ(objectView(v), dynamic_cast<const IGDReadablePropertyBag*>(v));
    }
    EXPECT_NE(arrayView(other.get()), nullptr);
    EXPECT_NE(objectView(obj.get()), nullptr);
}

TEST(GDJsonBadInput, UnpairedSurrogateAfterLongAsciiRunFails) {
    String text = L"[\"" + String(40, L'x') + L"\"]";
    text[37] = static_cast<wchar_t>(0xDC00);
    EXPECT_FALSE(eval(text));
}

TEST(GDTypeConversionsToJson, ScalarsBecomeJsonLiterals) {
    GDContext ctx;
    EXPECT_EQ(GDTypeConversions::toJson(ctx, GDVariant()), L"null");
    EXPECT_EQ(GDTypeConversions::toJson(ctx, GDVariant(L"a\\b")), L"\"a\\\\b\"");
    EXPECT_EQ(GDTypeConversions::toJson(ctx, GDVariant(3.0)), L"3.0");
}

// ------------------------------------------------------------- bad input

class GDJsonRejectedFile : public ::testing::TestWithParam<const char*> {};

TEST_P(GDJsonRejectedFile, EvaluationFails) {
    GDVariant v = L"keep";
    GDExpressionEvaluator ev;
    const String text = readTestFile(GetParam());
    EXPECT_FALSE(ev.evaluateExpression(text, text.size(), v, 1));
    EXPECT_EQ(v.getString(), L"keep");
}

INSTANTIATE_TEST_SUITE_P(MalformedOrNotJson, GDJsonRejectedFile,
                         ::testing::Values("truncated_tree.json", "truncated_object.json", "not_json_assignment.txt",
                                           "trailing_text.json", "single_quoted_keys.txt",
                                           "lone_surrogate_escape.json", "integer_beyond_64_bits.json",
                                           "number_beyond_double.json", "trailing_comma.json", "nan_infinity.txt",
                                           "empty.txt", "whitespace_only.txt", "two_documents.txt",
                                           "missing_colon.json"),
                         [](const auto& info) {
                             std::string n = info.param;
                             for (char& c : n) if (c == '.') c = '_';
                             return n;
                         });

TEST(GDJsonBadInput, TextWithUnpairedSurrogateCodePointFails) {
    String text = L"[\"a\"]";
    text[2] = static_cast<wchar_t>(0xD800);
    EXPECT_FALSE(eval(text));
}

TEST(GDJsonBadInput, TextWithCodePointAboveUnicodeRangeFails) {
    String text = L"\"x\"";
    text[1] = static_cast<wchar_t>(0x110000);
    EXPECT_FALSE(eval(text));
}

TEST(GDJsonBadInput, RawControlCharacterInStringFails) {
    EXPECT_FALSE(eval(L"\"a\nb\""));
}

TEST(GDJsonBadInput, NestingAtTheLimitIsAccepted) {
    auto v = eval(nested(GDExpressionEvaluator::kMaxDepth, L"[", L"1", L"]"));
    ASSERT_TRUE(v);
    auto o = eval(nested(GDExpressionEvaluator::kMaxDepth, L"{\"a\":", L"1", L"}"));
    EXPECT_TRUE(o);
}

TEST(GDJsonBadInput, NestingAboveTheLimitFails) {
    EXPECT_FALSE(eval(nested(GDExpressionEvaluator::kMaxDepth + 1, L"[", L"1", L"]")));
    EXPECT_FALSE(eval(nested(GDExpressionEvaluator::kMaxDepth + 1, L"{\"a\":", L"1", L"}")));
    EXPECT_FALSE(eval(nested(100000, L"[", L"", L"]")));
    EXPECT_FALSE(eval(nested(100000, L"[", L"", L"")));  // unclosed as well
}

TEST(GDJsonBadInput, HugeStringBelowTheLimitIsAccepted) {
    String text = L"\"";
    text.append(1000000, L'x');
    text += L"\"";
    auto v = eval(text);
    ASSERT_TRUE(v);
    EXPECT_EQ(v->getString().size(), 1000000u);
}

TEST(GDJsonBadInput, TextAboveTheSizeLimitFails) {
    String text = L"\"";
    text.append(GDExpressionEvaluator::kMaxTextBytes, L'x');
    text += L"\"";
    EXPECT_FALSE(eval(text));
    // Multi-byte characters count by their UTF-8 size.
    String wide = L"\"";
    wide.append(GDExpressionEvaluator::kMaxTextBytes / 3 + 1, L'\u20ac');
    wide += L"\"";
    EXPECT_FALSE(eval(wide));
}

// The text of an array read from a document is written again (numbers in
// their own form: 1e2 becomes 100.0) and counted in UTF-8 bytes against the
// limit: a string with a two-byte character and an escape, eight numbers that
// grow by two bytes each, and a filler make the written text one byte longer
// than the limit (one character shorter than that), while the document itself
// is within it. Evaluating that text fails; one byte less and it evaluates.
TEST(GDJsonBadInput, TextWrittenFromADocumentCountsItsUtf8BytesAgainstTheLimit) {
    constexpr std::size_t kLimit = GDExpressionEvaluator::kMaxTextBytes;
    for (const std::size_t written : {kLimit + 1, kLimit}) {
        SCOPED_TRACE(written);
        // Written: ["\u00e9\n",100.0 x8,"x...x"] = 6m + filler + 11 bytes (m = 8).
        const std::size_t filler = written - 59;
        String text = L"[[\"\u00e9\\n\"";
        for (int m = 0; m < 8; ++m) text += L",1e2";
        text += L",\"" + String(filler, L'x') + L"\"]]";
        GDExpressionEvaluator ev;
        auto outer = eval(ev, text);
        ASSERT_TRUE(outer);
        GDVariant inner;
        ASSERT_TRUE(asArray(*outer)->getElement(0, inner));
        const String innerText = GDTypeConversions::toString(ev.getContext(), inner);
        ASSERT_EQ(innerText.size(), written - 1);  // the two-byte character is one character
        EXPECT_EQ(eval(ev, innerText).has_value(), written <= kLimit);
    }
}

TEST(GDJsonBadInput, HugeNumbersFollowTheDocumentedRule) {
    auto big = eval(L"18446744073709551615");
    ASSERT_TRUE(big);
    EXPECT_EQ(big->kind(), GDVariant::Kind::kDouble);
    EXPECT_EQ(big->getDouble(), 18446744073709551615.0);
    EXPECT_FALSE(eval(L"18446744073709551616"));
    EXPECT_FALSE(eval(L"-9223372036854775809"));
    auto longFraction = eval(L"0." + String(5000, L'3'));
    ASSERT_TRUE(longFraction);
    EXPECT_DOUBLE_EQ(longFraction->getDouble(), 1.0 / 3.0);
    auto tiny = eval(L"1e-400");
    ASSERT_TRUE(tiny);
    EXPECT_EQ(tiny->getDouble(), 0.0);
}

TEST(GDJsonEvaluator, EvaluatorIsReusableAfterAFailure) {
    GDExpressionEvaluator ev;
    EXPECT_FALSE(eval(ev, L"[1,"));
    auto v = eval(ev, L"[1,2,3]");
    ASSERT_TRUE(v);
    EXPECT_EQ(asArray(*v)->getCount(), 3u);
}

TEST(GDJsonEvaluator, ValuesOutliveTheEvaluatorAndLaterEvaluations) {
    std::optional<GDVariant> first;
    {
        GDExpressionEvaluator ev;
        first = eval(ev, L"{\"k\":[\"v\"]}");
        ASSERT_TRUE(eval(ev, L"[\"other\",\"text\"]"));
    }
    ASSERT_TRUE(first);
    GDContext ctx;
    EXPECT_EQ(GDTypeConversions::toString(ctx, *first), L"{\"k\":[\"v\"]}");
}

TEST(GDJsonEvaluator, LaterEvaluationsOnTheThreadLeaveLiveValuesAlone) {
    GDExpressionEvaluator ev;
    auto kept = eval(ev, L"[{\"k\":\"first\"},[1,2]]");  // nothing read from it yet
    ASSERT_TRUE(kept);
    for (int i = 0; i < 3; ++i) {
        auto other = eval(ev, L"[{\"k\":\"other " + std::to_wstring(i) + L"\"},[3]]");
        ASSERT_TRUE(other);
        GDVariant k;
        ASSERT_TRUE(asObject(asArray(*other)->elements()[0])->getProperty(ev.getContext(), GDPropertyKey(L"k"), k));
        EXPECT_EQ(k.getString(), L"other " + std::to_wstring(i));
    }
    GDVariant k;
    ASSERT_TRUE(asObject(asArray(*kept)->elements()[0])->getProperty(ev.getContext(), GDPropertyKey(L"k"), k));
    EXPECT_EQ(k.getString(), L"first");
    EXPECT_EQ(asArray(asArray(*kept)->elements()[1])->getCount(), 2u);
}

TEST(GDJsonEvaluator, ADocumentNoValueHoldsIsParsedIntoAgain) {
    GDExpressionEvaluator ev;
    for (int i = 0; i < 5; ++i) {
        // Each evaluation's values are dropped before the next; shorter and
        // longer texts alternate.
        String text = L"[\"" + String(static_cast<std::size_t>(i % 2 ? 3 : 300), L'a' + static_cast<wchar_t>(i)) + L"\"]";
        auto v = eval(ev, text);
        ASSERT_TRUE(v);
        GDContext fresh;
        EXPECT_EQ(GDTypeConversions::toJson(fresh, *v), text);
    }
}

TEST(GDJsonEvaluator, TenThousandItemTreeIsReadCompletely) {
    const String text = leafArray(10000);
    GDExpressionEvaluator ev;
    auto v = eval(ev, text);
    ASSERT_TRUE(v);
    ASSERT_EQ(asArray(*v)->getCount(), 10000u);
    GDVariant item, path;
    ASSERT_TRUE(asArray(*v)->getElement(9999, item));
    ASSERT_TRUE(asObject(item)->getProperty(ev.getContext(), GDPropertyKey(L"path"), path));
    EXPECT_EQ(path.getString(), L"/shared/reports/r9999");
}

}  // namespace
}  // namespace kiv
