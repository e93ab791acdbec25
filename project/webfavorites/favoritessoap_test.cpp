// Whole-tree replacement from SOAP request parameters.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>

#include "qz/platform/soap.h"
#include "qz/webfavorites/favoritesmanager.h"
#include "testcatalog.h"
#include "testsupport.h"
#include "webfavorites/favoritesmanagertestpeer.h"

namespace kiv {

namespace {

using catalog::Path;
using testing::dump;
using testing::TestCatalog;
using Param = std::unique_ptr<SoapParameter>;

Path P(const wchar_t* s) { return Path(String(s)); }

// Builders of favorite items as a SOAP client sends them.
Param leaf(const wchar_t* catalogPath, const wchar_t* name = L"n", std::uint16_t type = 0) {
    Param p = SoapParameter::makeStruct(String(L"favoriteItem"));
    p->addChild(SoapParameter::makeString(String(L"name"), String(name)));
    p->addChild(SoapParameter::makeString(String(L"path"), String(L"/ignored")));
    p->addChild(SoapParameter::makeUnsignedShort(String(L"type"), type));
    p->addChild(SoapParameter::makeString(String(L"catalogPath"), String(catalogPath)));
    return p;
}
Param categoryParam(const wchar_t* name, std::vector<Param> children = {}, std::uint16_t type = 1) {
    Param p = SoapParameter::makeStruct(String(L"favoriteItem"));
    p->addChild(SoapParameter::makeString(String(L"name"), String(name)));
    p->addChild(SoapParameter::makeString(String(L"path"), String(L"/ignored")));
    p->addChild(SoapParameter::makeUnsignedShort(String(L"type"), type));
    for (auto& c : children) p->addChild(std::move(c));
    return p;
}

class FavoritesSoapTest : public testing::FavoritesTest {
protected:
    std::vector<SoapParameter*> items(std::vector<Param>& owned) {
        std::vector<SoapParameter*> v;
        for (auto& p : owned) v.push_back(p.get());
        return v;
    }
    std::vector<SoapParameter*> fromEnvelope(const std::string& body) {
        const std::string envelope =
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<SOAP-ENV:Envelope xmlns:SOAP-ENV=\"http://schemas.xmlsoap.org/soap/envelope/\"\n"
            "    xmlns:SOAP-ENC=\"http://schemas.xmlsoap.org/soap/encoding/\"\n"
            "    xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"\n"
            "    xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" xmlns:fav=\"urn:kiv:favorites\"\n"
            "    SOAP-ENV:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">\n"
            "  <SOAP-ENV:Body>\n" +
            body + "\n  </SOAP-ENV:Body>\n</SOAP-ENV:Envelope>\n";
        m_request = SoapRequest::parse(envelope);
        return topLevelItems();
    }
    // The operation's favoriteItem children: the items a host hands to
    // updateAll (the envelopes here list them directly).
    std::vector<SoapParameter*> topLevelItems() const {
        std::vector<SoapParameter*> items;
        const SoapParameter& op = m_request->getOperation();
        for (auto it = op.begin(); it != op.end(); ++it)
            if ((*it)->getName() == L"favoriteItem") items.push_back(*it);
        return items;
    }
    std::unique_ptr<SoapRequest> m_request;
};

TEST_F(FavoritesSoapTest, WholeTreeIsReplacedInOrderAndPersisted) {
    auto m = managerWith("Old[ /shared/HR/Headcount ]");
    std::vector<Param> owned;
    std::vector<Param> sales;
    sales.push_back(leaf(L"/shared/Sales/Report2"));
    sales.push_back(categoryParam(L"Q1", [] {
        std::vector<Param> q;
        q.push_back(leaf(L"/shared/Sales/Report1"));
        return q;
    }()));
    owned.push_back(categoryParam(L"Sales", std::move(sales)));
    owned.push_back(leaf(L"/shared/Sales/Report3"));
    EXPECT_EQ(m->updateAll(items(owned)), favorites::kSuccess);
    EXPECT_EQ(tree(m), "Sales[ /shared/Sales/Report2 Q1[ /shared/Sales/Report1 ] ] /shared/Sales/Report3");
    EXPECT_EQ(stored(), tree(m));
    EXPECT_FALSE(m->isFavorite(P(L"/shared/HR/Headcount")));
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report1")));
}

TEST_F(FavoritesSoapTest, EmptyInputEmptiesAndPersistsTheTree) {
    auto m = managerWith("/shared/Sales/Report1");
    EXPECT_EQ(m->updateAll(std::vector<SoapParameter*>()), favorites::kSuccess);
    EXPECT_EQ(tree(m), "");
    EXPECT_EQ(stored(), "");
}

TEST_F(FavoritesSoapTest, CategoryWithoutSubItemsIsAnEmptyCategory) {
    auto m = managerWith("");
    std::vector<Param> owned;
    owned.push_back(categoryParam(L"Empty"));
    EXPECT_EQ(m->updateAll(items(owned)), favorites::kSuccess);
    EXPECT_EQ(tree(m), "Empty[]");
}

TEST_F(FavoritesSoapTest, AnyNonZeroTypeMakesACategory) {
    auto m = managerWith("");
    std::vector<Param> owned;
    owned.push_back(categoryParam(L"Two", {}, 2));
    owned.push_back(categoryParam(L"Big", {}, 65535));
    EXPECT_EQ(m->updateAll(items(owned)), favorites::kSuccess);
    EXPECT_EQ(tree(m), "Two[] Big[]");
}

TEST_F(FavoritesSoapTest, SubItemsAreReadOnlyAsOneRunFromTheFourthChild) {
    auto m = managerWith("");
    std::vector<Param> owned;
    Param c = categoryParam(L"A");
    c->addChild(leaf(L"/shared/Sales/Report1"));
    c->addChild(SoapParameter::makeString(String(L"other"), String(L"x")));
    c->addChild(leaf(L"/shared/Sales/Report2"));  // after another name: not read
    owned.push_back(std::move(c));
    EXPECT_EQ(m->updateAll(items(owned)), favorites::kSuccess);
    EXPECT_EQ(tree(m), "A[ /shared/Sales/Report1 ]");
}

TEST_F(FavoritesSoapTest, CatalogPathComesFromTheFourthChildNeverFromPath) {
    auto m = managerWith("");
    std::vector<Param> owned;
    Param p = SoapParameter::makeStruct(String(L"favoriteItem"));
    p->addChild(SoapParameter::makeString(String(L"name"), String(L"n")));
    p->addChild(SoapParameter::makeString(String(L"path"), String(L"/shared/Sales/Report1")));
    p->addChild(SoapParameter::makeUnsignedShort(String(L"type"), 0));
    p->addChild(SoapParameter::makeString(String(L"catalogPath"), String(L"/shared/Sales/Report2")));
    owned.push_back(std::move(p));
    // A catalog path in fifth position is not found: the item is left out.
    Param q = SoapParameter::makeStruct(String(L"favoriteItem"));
    q->addChild(SoapParameter::makeString(String(L"name"), String(L"n")));
    q->addChild(SoapParameter::makeString(String(L"path"), String(L"/p")));
    q->addChild(SoapParameter::makeUnsignedShort(String(L"type"), 0));
    q->addChild(SoapParameter::makeString(String(L"extra"), String(L"x")));
    q->addChild(SoapParameter::makeString(String(L"catalogPath"), String(L"/shared/Sales/Report3")));
    owned.push_back(std::move(q));
    EXPECT_EQ(m->updateAll(items(owned)), favorites::kSuccess);
    EXPECT_EQ(tree(m), "/shared/Sales/Report2");
}

TEST_F(FavoritesSoapTest, DuplicateCatalogItemStopsTheWholeUpdateWithoutSaving) {
    auto m = managerWith("/shared/HR/Headcount");
    std::vector<Param> owned;
    owned.push_back(leaf(L"/shared/Sales/Report1"));
    owned.push_back(leaf(L"/shared/Sales/Report1"));
    owned.push_back(leaf(L"/shared/Sales/Report2"));
    EXPECT_EQ(m->updateAll(items(owned)), favorites::kErrorItemAlreadyExists);
    EXPECT_EQ(tree(m), "/shared/Sales/Report1");
    EXPECT_EQ(stored(), "/shared/HR/Headcount");
}

TEST_F(FavoritesSoapTest, ItemWithoutTypeIsSkippedAndTheNextIsBuilt) {
    auto m = managerWith("");
    std::vector<Param> owned;
    Param bad = SoapParameter::makeStruct(String(L"favoriteItem"));
    bad->addChild(SoapParameter::makeString(String(L"name"), String(L"n")));
    bad->addChild(SoapParameter::makeString(String(L"path"), String(L"/p")));
    bad->addChild(SoapParameter::makeString(String(L"catalogPath"), String(L"/shared/Sales/Report1")));
    owned.push_back(std::move(bad));
    owned.push_back(leaf(L"/shared/Sales/Report2"));
    EXPECT_EQ(m->updateAll(items(owned)), favorites::kSuccess);
    EXPECT_EQ(tree(m), "/shared/Sales/Report2");
}

TEST_F(FavoritesSoapTest, ItemsWithMisplacedOrUnconvertibleChildrenAreLeftOut) {
    auto m = managerWith("");
    std::vector<Param> owned;
    Param swapped = SoapParameter::makeStruct(String(L"favoriteItem"));
    swapped->addChild(SoapParameter::makeString(String(L"path"), String(L"/p")));
    swapped->addChild(SoapParameter::makeString(String(L"name"), String(L"n")));
    swapped->addChild(SoapParameter::makeUnsignedShort(String(L"type"), 0));
    swapped->addChild(SoapParameter::makeString(String(L"catalogPath"), String(L"/shared/Sales/Report1")));
    owned.push_back(std::move(swapped));
    Param badType = SoapParameter::makeStruct(String(L"favoriteItem"));
    badType->addChild(SoapParameter::makeString(String(L"name"), String(L"n")));
    badType->addChild(SoapParameter::makeString(String(L"path"), String(L"/p")));
    badType->addChild(SoapParameter::makeString(String(L"type"), String(L"category")));
    owned.push_back(std::move(badType));
    Param badPath = leaf(L"no/slash");
    owned.push_back(std::move(badPath));
    Param empty = SoapParameter::makeStruct(String(L"favoriteItem"));
    owned.push_back(std::move(empty));
    owned.push_back(categoryParam(L""));  // an empty name is refused by the name check
    owned.push_back(leaf(L"/shared/Sales/Report2"));
    std::vector<SoapParameter*> v = items(owned);
    v.insert(v.begin() + 2, nullptr);
    EXPECT_EQ(m->updateAll(v), favorites::kSuccess);
    EXPECT_EQ(tree(m), "/shared/Sales/Report2");
}

TEST_F(FavoritesSoapTest, DuplicateCategoryLosesItsSubItemsButTheyAreCounted) {
    auto m = managerWith("");
    std::vector<Param> owned;
    owned.push_back(categoryParam(L"A"));
    std::vector<Param> subs;
    subs.push_back(leaf(L"/shared/Sales/Report1"));
    owned.push_back(categoryParam(L"A", std::move(subs)));
    EXPECT_EQ(m->updateAll(items(owned)), favorites::kSuccess);
    EXPECT_EQ(tree(m), "A[]");
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report1")));
}

TEST_F(FavoritesSoapTest, FailureInsideASubCategoryIsIgnoredAtTheLevelAbove) {
    auto m = managerWith("");
    std::vector<Param> owned;
    std::vector<Param> subs;
    subs.push_back(leaf(L"/shared/Sales/Report1"));
    subs.push_back(leaf(L"/shared/Sales/Report1"));  // stops the sub-level only
    owned.push_back(categoryParam(L"A", std::move(subs)));
    owned.push_back(leaf(L"/shared/Sales/Report2"));
    EXPECT_EQ(m->updateAll(items(owned)), favorites::kSuccess);
    EXPECT_EQ(tree(m), "A[ /shared/Sales/Report1 ] /shared/Sales/Report2");
    EXPECT_EQ(stored(), tree(m));
}

TEST_F(FavoritesSoapTest, EmptyRootHandleRaisesInvalidHandle) {
    auto m = managerWith("");
    FavoritesManagerTestPeer::root(*m) = Handle<FavoritesItem>();
    EXPECT_THROW(m->updateAll(std::vector<SoapParameter*>()), InvalidHandleException);
}

TEST_F(FavoritesSoapTest, FailedSaveReturnsItsCodeAndKeepsTheNewTree) {
    auto m = managerWith("/shared/HR/Headcount");
    env.storeFavorites(L"alice", "/shared/Sales/Report3");  // another writer
    std::vector<Param> owned;
    owned.push_back(leaf(L"/shared/Sales/Report1"));
    EXPECT_EQ(m->updateAll(items(owned)), favorites::kErrorFavoritesOutOfSync);
    EXPECT_EQ(tree(m), "/shared/Sales/Report1");
    EXPECT_EQ(stored(), "/shared/Sales/Report3");
}

// --- Envelopes as SOAP clients write them ---------------------------------------------

TEST_F(FavoritesSoapTest, EnvelopeWithTypedValuesAndWhitespaceIsRead) {
    auto m = managerWith("");
    auto v = fromEnvelope(R"(
    <fav:updateFavorites>
      <favoriteItem xsi:type="fav:FavoriteItem">
        <name xsi:type="xsd:string">Sales &amp; Co</name>
        <path xsi:type="xsd:string">/Sales</path>
        <type xsi:type="xsd:unsignedShort"> 1 </type>
        <favoriteItem xsi:type="fav:FavoriteItem">
          <name xsi:type="xsd:string">Report1</name>
          <path xsi:type="xsd:string">/Sales/Report1</path>
          <type xsi:type="xsd:unsignedShort">0</type>
          <catalogPath xsi:type="xsd:string">/shared/Sales/Report1</catalogPath>
        </favoriteItem>
      </favoriteItem>
      <favoriteItem>
        <name>HR</name><path>/HR</path><type>0</type><catalogPath>/shared/HR/Headcount</catalogPath>
      </favoriteItem>
    </fav:updateFavorites>)");
    ASSERT_EQ(v.size(), 2u);
    EXPECT_EQ(m->updateAll(v), favorites::kSuccess);
    EXPECT_EQ(tree(m), "Sales_&_Co[ /shared/Sales/Report1 ] /shared/HR/Headcount");
}

TEST_F(FavoritesSoapTest, MultiReferenceValuesAreFollowed) {
    auto m = managerWith("");
    auto v = fromEnvelope(R"(
    <fav:updateFavorites>
      <favoriteItem href="#item1"/>
      <favoriteItem>
        <name href="#n1"/><path xsi:type="xsd:string">/x</path><type href="#t0"/>
        <catalogPath href="#cp2"/>
      </favoriteItem>
    </fav:updateFavorites>
    <multiRef id="item1" SOAP-ENC:root="0">
      <name xsi:type="xsd:string">A</name><path xsi:type="xsd:string">/A</path>
      <type xsi:type="xsd:unsignedShort">1</type>
    </multiRef>
    <multiRef id="n1" xsi:type="xsd:string">ignored name</multiRef>
    <multiRef id="t0" xsi:type="xsd:unsignedShort">0</multiRef>
    <multiRef id="cp2" xsi:type="xsd:string">/shared/Sales/Report2</multiRef>)");
    ASSERT_EQ(v.size(), 2u);
    EXPECT_EQ(m->updateAll(v), favorites::kSuccess);
    EXPECT_EQ(tree(m), "A[] /shared/Sales/Report2");
}

TEST_F(FavoritesSoapTest, ReferenceToAMissingIdLeavesThatItemOut) {
    auto m = managerWith("");
    auto v = fromEnvelope(R"(
    <fav:updateFavorites>
      <favoriteItem>
        <name>n</name><path>/x</path><type>0</type><catalogPath href="#nowhere"/>
      </favoriteItem>
      <favoriteItem>
        <name>n</name><path>/x</path><type>0</type><catalogPath>/shared/Sales/Report1</catalogPath>
      </favoriteItem>
    </fav:updateFavorites>)");
    EXPECT_EQ(m->updateAll(v), favorites::kSuccess);
    EXPECT_EQ(tree(m), "/shared/Sales/Report1");
}

TEST_F(FavoritesSoapTest, SampleRequestOfTheDocumentationIsRead) {
    auto m = managerWith("");
    std::ifstream in(std::string(KIV_SOAP_TESTDATA) + "/updatefavorites_request.xml");
    std::stringstream text;
    text << in.rdbuf();
    m_request = SoapRequest::parse(text.str());
    EXPECT_EQ(m->updateAll(topLevelItems()), favorites::kSuccess);
    EXPECT_EQ(tree(m), "Sales[ /shared/Sales/Dashboard Regions[] ] /shared/Finance/Umsätze <2024>");
}

}  // namespace
}  // namespace kiv
