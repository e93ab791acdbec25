// FavoritesManager against the embedded SQLite catalog: loading, the index,
// lookups, creation, edits, storage, messages and exceptions.
#include "qz/webfavorites/favoritesmanager.h"

#include <gtest/gtest.h>

#include "qz/platform/assert.h"
#include "qz/platform/config.h"
#include "qz/platform/logger.h"
#include "qz/platform/message.h"
#include "qz/platform/xml.h"
#include "qz/webcatalog/catalog.h"
#include "testcatalog.h"
#include "testsupport.h"
#include "webfavorites/favoritesmanagertestpeer.h"

namespace kiv {

namespace {

using catalog::Path;
using Peer = FavoritesManagerTestPeer;
using testing::dump;
using testing::TestCatalog;

Path P(const wchar_t* s) { return Path(String(s)); }

class FavoritesManagerTest : public testing::FavoritesTest {};

// --- Construction and loading ---------------------------------------------------

TEST_F(FavoritesManagerTest, NewUserGetsAnEmptyRootAndAStoredDefaultDocument) {
    auto m = manager();
    ASSERT_FALSE(m->getRootFolder().isNull());
    EXPECT_EQ(m->getRootFolder()->getName().toString(), String(L"root"));
    EXPECT_EQ(m->getRootFolder()->getPath(), FavoritesManager::getRootFolderPath());
    EXPECT_EQ(FavoritesManager::getRootFolderPath(), P(L"/root"));
    EXPECT_TRUE(env.admin().exists(TestCatalog::favoritesPath(L"alice")));
    auto doc = XmlDocument::fromBuffer(env.storedFavorites(L"alice").data(), env.storedFavorites(L"alice").size());
    EXPECT_EQ(doc->getRootElementRef().getLocalName(), String(L"favoritelist"));
    EXPECT_EQ(doc->getRootElementRef().getNamespaceUri(), String(L"urn:kiv-web:favorites/v1"));
    EXPECT_EQ(doc->getRootElementRef().getFirstChildElement(), nullptr);
    FavoritesItems items;
    EXPECT_EQ(m->getFavorites(items, String(), String()), favorites::kSuccess);
    EXPECT_TRUE(items.empty());
    EXPECT_FALSE(m->isDirty());
}

TEST_F(FavoritesManagerTest, StoredTreeIsLoadedInDocumentOrder) {
    auto m = managerWith("Sales[ /shared/Sales/Report2 Q1[ /shared/Sales/Report1 ] ] /shared/HR/Headcount");
    EXPECT_EQ(tree(m), "Sales[ /shared/Sales/Report2 Q1[ /shared/Sales/Report1 ] ] /shared/HR/Headcount");
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report1")));
    EXPECT_TRUE(m->isFavorite(P(L"/shared/HR/Headcount")));
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report3")));
}

TEST_F(FavoritesManagerTest, ObjectFailingTheSchemaLoadsAnEmptyTreeAndIsNotReloadedWhileUnchanged) {
    env.storeFavoritesXml(L"alice", "<wrongroot xmlns=\"urn:kiv-web:favorites/v1\"><favorite name=\"Report1\" "
                                    "catalogpath=\"/shared/Sales/Report1\" type=\"catalogitem\"/></wrongroot>");
    auto m = manager();
    EXPECT_EQ(Peer::load(*m), catalog::kErrorSchemaValidationFailed);
    EXPECT_EQ(tree(m), "");
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report1")));
    // The modified time was recorded before validation: no reload while the
    // object is unchanged, so the favorites stay empty.
    EXPECT_TRUE(m->isFavoritesInSync());
    FavoritesItems items;
    EXPECT_EQ(m->getFavorites(items, String(), String()), favorites::kSuccess);
    EXPECT_TRUE(items.empty());
    // Once the object changes, the next query reloads it.
    env.storeFavorites(L"alice", "/shared/Sales/Report1");
    EXPECT_EQ(m->getFavorites(items, String(), String()), favorites::kSuccess);
    EXPECT_EQ(items.size(), 1u);
}

TEST_F(FavoritesManagerTest, ValidationFailureLeavesTheDirtyFlagAsItWas) {
    auto m = managerWith("/shared/Sales/Report1");
    Peer::dirty(*m) = true;
    env.storeFavoritesXml(L"alice", "<favoritelist xmlns=\"urn:other\"/>");
    EXPECT_EQ(Peer::load(*m), catalog::kErrorSchemaValidationFailed);
    EXPECT_TRUE(m->isDirty());
}

TEST_F(FavoritesManagerTest, DocumentThatDoesNotParseLeavesAnEmptyTree) {
    env.storeFavoritesXml(L"alice", "<f:favoritelist xmlns:f=\"urn:kiv-web:favorites/v1\"><favorite");
    auto m = manager();  // the parse error is dropped by the constructor
    EXPECT_EQ(tree(m), "");
    EXPECT_THROW(Peer::load(*m), Exception);
    EXPECT_EQ(tree(m), "");
}

TEST_F(FavoritesManagerTest, UnreadableFavoritesObjectAnswersTheCatalogCodeAndAnEmptyTree) {
    env.storeFavorites(L"alice", "/shared/Sales/Report1");
    // bob may not read alice's folder, so the catalog does not tell him
    // whether her favorites object exists.
    FavoritesManager m(env.catalog(), env.bob, TestCatalog::favoritesPath(L"alice"));
    EXPECT_EQ(Peer::load(m), catalog::kErrorPathNotFound);
    EXPECT_EQ(dump(m.getRootFolder()), "");
    EXPECT_FALSE(m.isFavorite(P(L"/shared/Sales/Report1")));
}

TEST_F(FavoritesManagerTest, MissingConfigurationAnswersOtherWithoutValidating) {
    auto m = managerWith("/shared/Sales/Report1");
    auto saved = config::getCurrent();
    config::setCurrent(nullptr);
    const catalog::ReturnCode rc = Peer::load(*m);
    config::setCurrent(saved);
    EXPECT_EQ(rc, catalog::kErrorOther);
    EXPECT_EQ(tree(m), "");
}

TEST_F(FavoritesManagerTest, LoadingRecordsTheReloadClock) {
    auto m = managerWith("/shared/Sales/Report1");
    const std::uint64_t before = Peer::lastReload(*m);
    Peer::load(*m);
    EXPECT_GE(Peer::lastReload(*m), before);
}

TEST_F(FavoritesManagerTest, SuccessfulLoadClearsTheDirtyFlagAndTakesTheModifiedTime) {
    auto m = managerWith("/shared/Sales/Report1");
    Peer::dirty(*m) = true;
    Peer::lastModified(*m) = 1;
    EXPECT_EQ(Peer::load(*m), catalog::kSuccess);
    EXPECT_FALSE(m->isDirty());
    catalog::ItemInfo info;
    ASSERT_EQ(env.catalog().getItemInfo(env.alice, TestCatalog::favoritesPath(L"alice"), info, false, true),
              catalog::kSuccess);
    EXPECT_EQ(Peer::lastModified(*m), info.getLastModifiedTime(catalog::kInfoResolved));
}

// --- Reading the document ---------------------------------------------------------

TEST_F(FavoritesManagerTest, RootWithoutElementChildrenYieldsAnEmptyRoot) {
    env.storeFavoritesXml(L"alice", "<f:favoritelist xmlns:f=\"urn:kiv-web:favorites/v1\">  <!-- none --> </f:favoritelist>");
    EXPECT_EQ(tree(manager()), "");
}

TEST_F(FavoritesManagerTest, FavoritesLeftInTheDefaultNamespaceAreLoaded) {
    env.storeFavoritesXml(L"alice",
                          "<favoritelist xmlns=\"urn:kiv-web:favorites/v1\">"
                          "<favorite name=\"A\" type=\"category\">"
                          "<favorite name=\"Report1\" catalogpath=\"/shared/Sales/Report1\" type=\"catalogitem\"/>"
                          "</favorite></favoritelist>");
    EXPECT_EQ(tree(manager()), "A[ /shared/Sales/Report1 ]");
}

TEST_F(FavoritesManagerTest, TypeValuesInAnyCaseAreAccepted) {
    env.storeFavoritesXml(L"alice",
                          "<f:favoritelist xmlns:f=\"urn:kiv-web:favorites/v1\">"
                          "<favorite name=\"A\" type=\"CATEGORY\">"
                          "<favorite name=\"Report1\" catalogpath=\"/shared/Sales/Report1\" type=\"CatalogItem\"/>"
                          "</favorite></f:favoritelist>");
    EXPECT_EQ(tree(manager()), "A[ /shared/Sales/Report1 ]");
}

TEST_F(FavoritesManagerTest, AnyOtherTypeValueIsIgnoredWithItsSubtree) {
    env.storeFavoritesXml(L"alice",
                          "<f:favoritelist xmlns:f=\"urn:kiv-web:favorites/v1\">"
                          "<favorite name=\"F\" type=\"folder\">"
                          "<favorite name=\"Report1\" catalogpath=\"/shared/Sales/Report1\" type=\"catalogitem\"/>"
                          "</favorite>"
                          "<favorite name=\"Report2\" catalogpath=\"/shared/Sales/Report2\" type=\"catalogitem\"/>"
                          "<favorite name=\"G\"/>"
                          "</f:favoritelist>");
    auto m = manager();
    EXPECT_EQ(tree(m), "/shared/Sales/Report2");
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report1")));
}

TEST_F(FavoritesManagerTest, SecondSiblingCategoryOfTheSameNameIsDroppedButItsPathsAreCounted) {
    auto m = managerWith("A[ /shared/Sales/Report1 ] A[ /shared/Sales/Report2 ]");
    EXPECT_EQ(tree(m), "A[ /shared/Sales/Report1 ]");
    // The rejected folder's children were still built, and entered the index.
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report2")));
}

TEST_F(FavoritesManagerTest, CatalogItemWhoseObjectIsGoneIsAbsentFromTreeAndIndex) {
    env.storeFavorites(L"alice", "/shared/Sales/Report1 /shared/Sales/Gone /private/Secret");
    auto m = manager();
    EXPECT_EQ(tree(m), "/shared/Sales/Report1");
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Gone")));
    EXPECT_FALSE(m->isFavorite(P(L"/private/Secret")));  // not readable by alice
}

TEST_F(FavoritesManagerTest, SkippedFavoriteDropsOutOfStorageAtTheNextSave) {
    env.storeFavorites(L"alice", "/shared/Sales/Report1 /shared/Sales/Gone");
    auto m = manager();
    auto h = item(*m, L"/shared/Sales/Report2");
    EXPECT_EQ(m->addItem(h), favorites::kSuccess);
    env.admin().putObject(P(L"/shared/Sales/Gone"), String(L"report1"), {}, "back");
    EXPECT_EQ(storedTree(), "/shared/Sales/Report1 /shared/Sales/Report2");
}

TEST_F(FavoritesManagerTest, WhitespaceAndCommentsBetweenElementsAreIgnored) {
    env.storeFavoritesXml(L"alice",
                          "<f:favoritelist xmlns:f=\"urn:kiv-web:favorites/v1\">\n  <!-- c -->\n"
                          "  <favorite name=\"A\" type=\"category\">\n    <!-- d -->\n"
                          "    <favorite name=\"Report1\" catalogpath=\"/shared/Sales/Report1\" type=\"catalogitem\"/>\n"
                          "  </favorite>\n</f:favoritelist>\n");
    EXPECT_EQ(tree(manager()), "A[ /shared/Sales/Report1 ]");
}

TEST_F(FavoritesManagerTest, CategoryNestedInsideACatalogItemIsNeverRead) {
    env.storeFavoritesXml(L"alice",
                          "<f:favoritelist xmlns:f=\"urn:kiv-web:favorites/v1\">"
                          "<favorite name=\"Report1\" catalogpath=\"/shared/Sales/Report1\" type=\"catalogitem\">"
                          "<favorite name=\"Hidden\" type=\"category\"/>"
                          "</favorite></f:favoritelist>");
    EXPECT_EQ(tree(manager()), "/shared/Sales/Report1");
}

TEST_F(FavoritesManagerTest, CatalogItemTakesItsNameFromTheCatalogPathNotTheNameAttribute) {
    env.storeFavoritesXml(L"alice",
                          "<f:favoritelist xmlns:f=\"urn:kiv-web:favorites/v1\">"
                          "<favorite name=\"Caption\" catalogpath=\"/shared/Sales/Report1\" type=\"catalogitem\"/>"
                          "</f:favoritelist>");
    auto m = manager();
    FavoritesItems items;
    m->getFavorites(items, String(), String());
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0]->getName().toString(), String(L"Report1"));
    EXPECT_EQ(items[0]->getPath(), P(L"/root/Report1"));
}

TEST_F(FavoritesManagerTest, ElementWithAnInvalidNameStopsTheBuildKeepingWhatWasBuilt) {
    env.storeFavoritesXml(L"alice",
                          "<f:favoritelist xmlns:f=\"urn:kiv-web:favorites/v1\">"
                          "<favorite name=\"Report1\" catalogpath=\"/shared/Sales/Report1\" type=\"catalogitem\"/>"
                          "<favorite catalogpath=\"/shared/Sales/Report2\" type=\"catalogitem\"/>"
                          "<favorite name=\"Report3\" catalogpath=\"/shared/Sales/Report3\" type=\"catalogitem\"/>"
                          "</f:favoritelist>");
    auto m = manager();  // the name constructor's exception is dropped by the constructor
    EXPECT_EQ(tree(m), "/shared/Sales/Report1");
    EXPECT_THROW(Peer::load(*m), catalog::CatalogNameException);
    EXPECT_EQ(tree(m), "/shared/Sales/Report1");
}

TEST_F(FavoritesManagerTest, ElementWithARelativeCatalogPathStopsTheBuild) {
    env.storeFavoritesXml(L"alice",
                          "<f:favoritelist xmlns:f=\"urn:kiv-web:favorites/v1\">"
                          "<favorite name=\"A\" type=\"category\"/>"
                          "<favorite name=\"x\" catalogpath=\"shared/x\" type=\"catalogitem\"/>"
                          "<favorite name=\"B\" type=\"category\"/>"
                          "</f:favoritelist>");
    EXPECT_EQ(tree(manager()), "A[]");
}

TEST_F(FavoritesManagerTest, BuildingOntoANullParentRaisesInvalidHandle) {
    auto m = manager();
    const std::string xml = "<a><b name=\"x\" type=\"category\"/></a>";
    auto doc = XmlDocument::fromBuffer(xml.data(), xml.size());
    EXPECT_THROW(Peer::build(*m, doc->getRootElement(), Handle<FavoritesItem>()), InvalidHandleException);
    EXPECT_NO_THROW(Peer::build(*m, nullptr, Handle<FavoritesItem>()));  // a null element returns first
}

// --- Writing the document ---------------------------------------------------------

TEST_F(FavoritesManagerTest, EmptyTreeIsSavedAsAListWithoutChildren) {
    auto m = managerWith("/shared/Sales/Report1");
    EXPECT_EQ(m->deleteItem(item(*m, L"/shared/Sales/Report1"), false), favorites::kSuccess);
    auto stored = env.storedFavorites(L"alice");
    auto doc = XmlDocument::fromBuffer(stored.data(), stored.size());
    EXPECT_EQ(doc->getRootElementRef().getLocalName(), String(L"favoritelist"));
    EXPECT_EQ(doc->getRootElementRef().getFirstChildElement(), nullptr);
}

TEST_F(FavoritesManagerTest, SavedDocumentHasTheExactElementsAndAttributeOrder) {
    auto m = manager();
    auto c = category(*m, L"Empty");
    ASSERT_EQ(m->addItem(c), favorites::kSuccess);
    auto r = item(*m, L"/shared/Sales/Report1");
    ASSERT_EQ(m->addItem(r), favorites::kSuccess);
    const std::string stored = env.storedFavorites(L"alice");
    EXPECT_NE(stored.find("<favoritelist xmlns=\"urn:kiv-web:favorites/v1\">"), std::string::npos) << stored;
    EXPECT_NE(stored.find("<favorite xmlns=\"\" name=\"Empty\" type=\"category\"/>"), std::string::npos) << stored;
    EXPECT_NE(stored.find("<favorite xmlns=\"\" name=\"Report1\" catalogpath=\"/shared/Sales/Report1\" type=\"catalogitem\"/>"),
              std::string::npos)
        << stored;
}

// The stored bytes, whole: declaration, namespace declarations, escaping of
// the XML special characters and raw UTF-8 for everything else.
TEST_F(FavoritesManagerTest, SavedDocumentIsExactlyTheseBytes) {
    env.admin().putObject(P(L"/shared/Sales/R&D <\"q\"> 'x' \u00fcber \U0001F600"), String(L"report1"), {}, "b");
    auto m = managerWith("Sales[ /shared/Sales/Report1 Q1[ /shared/Sales/Report2 Deep[] ] ] /shared/HR/Headcount");
    Handle<FavoritesItem> c;
    ASSERT_EQ(m->createFavoriteCategory(String(L"/root/Sales"), String(L"Tom & Jerry <\"\u6771\u4eac\"> 'x'"), c),
              favorites::kSuccess);
    ASSERT_EQ(m->addItem(c), favorites::kSuccess);
    auto r = item(*m, L"/shared/Sales/R&D <\"q\"> 'x' \u00fcber \U0001F600",
                  L"/root/Sales/Tom & Jerry <\"\u6771\u4eac\"> 'x'");
    ASSERT_EQ(m->addItem(r), favorites::kSuccess);
    const std::string tokyo = "\xE6\x9D\xB1\xE4\xBA\xAC", ueber = "\xC3\xBC" "ber", smile = "\xF0\x9F\x98\x80";
    const std::string special = "R&amp;D &lt;&quot;q&quot;&gt; 'x' " + ueber + " " + smile;
    EXPECT_EQ(env.storedFavorites(L"alice"),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<favoritelist xmlns=\"urn:kiv-web:favorites/v1\">"
              "<favorite xmlns=\"\" name=\"Sales\" type=\"category\">"
              "<favorite name=\"Report1\" catalogpath=\"/shared/Sales/Report1\" type=\"catalogitem\"/>"
              "<favorite name=\"Q1\" type=\"category\">"
              "<favorite name=\"Report2\" catalogpath=\"/shared/Sales/Report2\" type=\"catalogitem\"/>"
              "<favorite name=\"Deep\" type=\"category\"/>"
              "</favorite>"
              "<favorite name=\"Tom &amp; Jerry &lt;&quot;" + tokyo + "&quot;&gt; 'x'\" type=\"category\">"
              "<favorite name=\"" + special + "\" catalogpath=\"/shared/Sales/" + special + "\" type=\"catalogitem\"/>"
              "</favorite>"
              "</favorite>"
              "<favorite xmlns=\"\" name=\"Headcount\" catalogpath=\"/shared/HR/Headcount\" type=\"catalogitem\"/>"
              "</favoritelist>\n");
}

TEST_F(FavoritesManagerTest, SameObjectInTwoCategoriesIsWrittenTwice) {
    auto m = managerWith("A[ /shared/Sales/Report1 ] B[]");
    auto r = item(*m, L"/shared/Sales/Report1", L"/root/B");
    ASSERT_EQ(m->addItem(r), favorites::kSuccess);
    EXPECT_EQ(storedTree(), "A[ /shared/Sales/Report1 ] B[ /shared/Sales/Report1 ]");
}

TEST_F(FavoritesManagerTest, NamesWithXmlSpecialCharactersRoundTrip) {
    env.admin().putObject(P(L"/shared/Sales/R&D <\"quoted\"> 'x'"), String(L"report1"), {}, "b");
    auto m = manager();
    Handle<FavoritesItem> c;
    ASSERT_EQ(m->createFavoriteCategory(String(), String(L"Tom & Jerry <\"best\">"), c), favorites::kSuccess);
    ASSERT_EQ(m->addItem(c), favorites::kSuccess);
    auto r = item(*m, L"/shared/Sales/R&D <\"quoted\"> 'x'", L"/root/Tom & Jerry <\"best\">");
    ASSERT_EQ(m->addItem(r), favorites::kSuccess);
    EXPECT_EQ(tree(m), "Tom_&_Jerry_<\"best\">[ /shared/Sales/R&D <\"quoted\"> 'x' ]");
    EXPECT_EQ(storedTree(), tree(m));
    auto fresh = manager();
    FavoritesItems items;
    ASSERT_EQ(fresh->getFavorites(items, String(L"/root/Tom & Jerry <\"best\">"), String()), favorites::kSuccess);
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0]->getCatalogPath(), P(L"/shared/Sales/R&D <\"quoted\"> 'x'"));
}

TEST_F(FavoritesManagerTest, NonAsciiNamesRoundTrip) {
    env.admin().putObject(P(L"/shared/Sales/Umsatz \u00fcber \u6771\u4eac \U0001F600"), String(L"report1"), {}, "b");
    auto m = manager();
    auto c = category(*m, L"Gr\u00fc\u00dfe \u6771\u4eac");
    ASSERT_EQ(m->addItem(c), favorites::kSuccess);
    auto r = item(*m, L"/shared/Sales/Umsatz \u00fcber \u6771\u4eac \U0001F600", L"/root/Gr\u00fc\u00dfe \u6771\u4eac");
    ASSERT_EQ(m->addItem(r), favorites::kSuccess);
    EXPECT_EQ(storedTree(), tree(m));
    EXPECT_TRUE(manager()->isFavorite(P(L"/shared/Sales/Umsatz \u00fcber \u6771\u4eac \U0001F600")));
}

TEST_F(FavoritesManagerTest, TreeToStoredDocumentToTreeGivesTheSameTree) {
    const std::string text =
        "Sales[ /shared/Sales/Report1 Q1[ /shared/Sales/Report2 Deep[ /shared/Sales/Report3 ] ] Empty[] ] "
        "/shared/HR/Headcount HR[ /shared/Sales/Report1 ]";
    auto m = managerWith(text);
    ASSERT_EQ(tree(m), text);
    Peer::dirty(*m) = true;
    ASSERT_EQ(m->persist(), favorites::kSuccess);
    EXPECT_EQ(storedTree(), text);
}

TEST_F(FavoritesManagerTest, StoredDocumentReadAndWrittenBackIsTheSameDocument) {
    const std::string original = TestCatalog::documentFromNotation(
        "Sales[ /shared/Sales/Report1 Q1[ /shared/Sales/Report2 ] ] /shared/HR/Headcount");
    env.storeFavoritesXml(L"alice", original);
    auto m = manager();
    Peer::dirty(*m) = true;
    ASSERT_EQ(m->persist(), favorites::kSuccess);
    const std::string written = env.storedFavorites(L"alice");
    auto a = XmlDocument::fromBuffer(original.data(), original.size());
    auto b = XmlDocument::fromBuffer(written.data(), written.size());
    EXPECT_TRUE(a->equals(*b)) << written;
}

// --- Persisting and sync ------------------------------------------------------------

TEST_F(FavoritesManagerTest, PersistOnAFreshlyLoadedManagerWritesNothing) {
    auto m = managerWith("/shared/Sales/Report1");
    catalog::ItemInfo before;
    env.catalog().getItemInfo(env.alice, TestCatalog::favoritesPath(L"alice"), before, false, true);
    EXPECT_EQ(m->persist(), favorites::kSuccess);
    catalog::ItemInfo after;
    env.catalog().getItemInfo(env.alice, TestCatalog::favoritesPath(L"alice"), after, false, true);
    EXPECT_EQ(before.getLastModifiedTime(catalog::kInfoResolved), after.getLastModifiedTime(catalog::kInfoResolved));
}

TEST_F(FavoritesManagerTest, SecondPersistAfterASuccessfulOneWritesNothing) {
    auto m = managerWith("/shared/Sales/Report1");
    Peer::dirty(*m) = true;
    ASSERT_EQ(m->persist(), favorites::kSuccess);
    EXPECT_FALSE(m->isDirty());
    const catalog::Time t = Peer::lastModified(*m);
    EXPECT_EQ(m->persist(), favorites::kSuccess);
    catalog::ItemInfo info;
    env.catalog().getItemInfo(env.alice, TestCatalog::favoritesPath(L"alice"), info, false, true);
    EXPECT_EQ(info.getLastModifiedTime(catalog::kInfoResolved), t);
}

TEST_F(FavoritesManagerTest, PersistRefusesWhenTheStoredObjectChangedByAnyAmount) {
    auto m = managerWith("/shared/Sales/Report1");
    Peer::dirty(*m) = true;
    Peer::lastModified(*m) -= 1;
    EXPECT_EQ(m->persist(), favorites::kErrorFavoritesOutOfSync);
    EXPECT_TRUE(m->isDirty());
    Peer::lastModified(*m) += 2;
    EXPECT_EQ(m->persist(), favorites::kErrorFavoritesOutOfSync);
}

TEST_F(FavoritesManagerTest, InSyncIsTrueForAFavoritesPathThatDoesNotExist) {
    auto m = manager();
    env.admin().remove(TestCatalog::favoritesPath(L"alice"));
    EXPECT_TRUE(m->isFavoritesInSync());
}

TEST_F(FavoritesManagerTest, ObjectThatCannotBeInspectedIsServedFromMemory) {
    auto m = managerWith("/shared/Sales/Report1");
    env.admin().remove(TestCatalog::favoritesPath(L"alice"));
    FavoritesItems items;
    EXPECT_EQ(m->getFavorites(items, String(), String()), favorites::kSuccess);
    EXPECT_EQ(items.size(), 1u);
}

TEST_F(FavoritesManagerTest, SaveGoesAheadWhenTheObjectCannotBeInspected) {
    auto m = managerWith("/shared/Sales/Report1");
    env.admin().remove(TestCatalog::favoritesPath(L"alice"));
    auto r = item(*m, L"/shared/Sales/Report2");
    EXPECT_EQ(m->addItem(r), favorites::kSuccess);
    EXPECT_EQ(storedTree(), "/shared/Sales/Report1 /shared/Sales/Report2");
}

TEST_F(FavoritesManagerTest, GetFavoritesReloadsWhenAnotherWriterChangedTheObject) {
    auto m = managerWith("/shared/Sales/Report1");
    env.storeFavorites(L"alice", "/shared/Sales/Report2");
    FavoritesItems items;
    ASSERT_EQ(m->getFavorites(items, String(), String()), favorites::kSuccess);
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0]->getCatalogPath(), P(L"/shared/Sales/Report2"));
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report1")));
}

TEST_F(FavoritesManagerTest, DestroyingAManagerDropsAnUnsavedChange) {
    auto m = managerWith("/shared/Sales/Report1");
    auto r = item(*m, L"/shared/Sales/Report2");
    m->getRootFolder()->addChild(r);  // changed in memory only
    Peer::dirty(*m) = true;
    m = Handle<FavoritesManager>();
    EXPECT_EQ(storedTree(), "/shared/Sales/Report1");
}

// --- getFavorites --------------------------------------------------------------------

TEST_F(FavoritesManagerTest, GetFavoritesOfACategoryReturnsItsDirectChildren) {
    auto m = managerWith("Sales[ /shared/Sales/Report1 Q1[ /shared/Sales/Report2 ] ] /shared/HR/Headcount");
    FavoritesItems items;
    ASSERT_EQ(m->getFavorites(items, String(L"/root/Sales"), String()), favorites::kSuccess);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0]->getCatalogPath(), P(L"/shared/Sales/Report1"));
    EXPECT_EQ(items[1]->getName().toString(), String(L"Q1"));
}

TEST_F(FavoritesManagerTest, GetFavoritesOfACatalogItemPathOrNothingAnswersDoesNotExist) {
    auto m = managerWith("Sales[ /shared/Sales/Report1 ]");
    FavoritesItems items;
    EXPECT_EQ(m->getFavorites(items, String(L"/root/Sales/Report1"), String()),
              favorites::kErrorItemDoesNotExitsInCatalog);
    EXPECT_EQ(m->getFavorites(items, String(L"/root/Nothing"), String()), favorites::kErrorItemDoesNotExitsInCatalog);
    EXPECT_TRUE(items.empty());
}

TEST_F(FavoritesManagerTest, GetFavoritesAppliesTheNamedFilterToCatalogItemsOnly) {
    auto m = managerWith("Sub[] /shared/Sales/Report1 /shared/Sales/Dashboard/Page1");
    FavoritesItems reports;
    ASSERT_EQ(m->getFavorites(reports, String(), String(L"reports")), favorites::kSuccess);
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_EQ(reports[0]->getName().toString(), String(L"Sub"));
    EXPECT_EQ(reports[1]->getCatalogPath(), P(L"/shared/Sales/Report1"));
    FavoritesItems all;
    ASSERT_EQ(m->getFavorites(all, String(), String(L"no such filter")), favorites::kSuccess);
    EXPECT_EQ(all.size(), 3u);
}

TEST_F(FavoritesManagerTest, FilterRejectingEverythingStillReturnsSubCategories) {
    auto m = managerWith("A[] /shared/Sales/Report1 B[ /shared/Sales/Report2 ]");
    FavoritesItems items;
    ASSERT_EQ(m->getFavorites(items, String(), String(L"dashboards")), favorites::kSuccess);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(items[0]->getName().toString(), String(L"A"));
    EXPECT_EQ(items[1]->getName().toString(), String(L"B"));
}

TEST_F(FavoritesManagerTest, GetFavoritesAppendsToTheCallersVector) {
    auto m = managerWith("/shared/Sales/Report1");
    FavoritesItems items;
    m->getFavorites(items, String(), String());
    m->getFavorites(items, String(), String());
    EXPECT_EQ(items.size(), 2u);
}

// --- The path index ------------------------------------------------------------------

TEST_F(FavoritesManagerTest, EmptyIndexAnswersFalseForEveryPath) {
    auto m = manager();
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report1")));
    EXPECT_FALSE(m->isFavorite(P(L"/")));
    EXPECT_FALSE(m->isFavorite(catalog::kpBlank));
}

TEST_F(FavoritesManagerTest, IndexCountsInsertionsOfOnePath) {
    auto m = manager();
    const Path p = P(L"/shared/x");
    Peer::insert(*m, p);
    Peer::insert(*m, p);
    EXPECT_EQ(Peer::index(*m).count(p), 2u);
    Peer::remove(*m, p);
    EXPECT_TRUE(m->isFavorite(p));
    Peer::remove(*m, p);
    EXPECT_FALSE(m->isFavorite(p));
    Peer::remove(*m, p);  // a third removal does nothing
    EXPECT_FALSE(m->isFavorite(p));
    EXPECT_EQ(Peer::index(*m).size(), 0u);
}

TEST_F(FavoritesManagerTest, RemovingAPathNeverInsertedChangesNothing) {
    auto m = managerWith("/shared/Sales/Report1");
    Peer::remove(*m, P(L"/shared/never"));
    EXPECT_EQ(Peer::index(*m).size(), 1u);
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report1")));
}

TEST_F(FavoritesManagerTest, AfterAFailedReloadEveryPathAnswersFalse) {
    auto m = managerWith("/shared/Sales/Report1 /shared/Sales/Report2");
    ASSERT_TRUE(m->isFavorite(P(L"/shared/Sales/Report1")));
    env.storeFavoritesXml(L"alice", "<other/>");
    EXPECT_EQ(Peer::load(*m), catalog::kErrorSchemaValidationFailed);
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report1")));
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report2")));
}

TEST_F(FavoritesManagerTest, IsFavoriteDoesNotCheckSync) {
    auto m = managerWith("/shared/Sales/Report1");
    env.storeFavorites(L"alice", "/shared/Sales/Report2");
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report1")));
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report2")));
}

TEST_F(FavoritesManagerTest, IndexHasSeventeenBinsWithTheDefaultScalingFactor) {
    auto m = manager();
    EXPECT_EQ(Peer::index(*m).binCount(), 17u);
}

// --- Codes, messages and exceptions ----------------------------------------------------

struct MessageCase {
    favorites::ReturnCode code;
    const wchar_t* id;
    bool insert;
};

TEST(FavoritesMessagesTest, EveryCodeMapsToItsMessage) {
    const MessageCase cases[] = {
        {favorites::kErrorItemAlreadyExists, L"kmsgFavoritesErrorItemAlreadyExists", true},
        {favorites::kSuccess, L"kmsgFavoritesErrorUnknownError", false},
        {favorites::kInvalidItem, L"kmsgFavoritesErrorInvalidItem", false},
        {favorites::kErrorFavoritesOutOfSync, L"kmsgFavoritesErrorFavoritesOutOfSync", false},
        {favorites::kErrorItemCannotHaveChild, L"kmsgFavoritesErrorItemCannotHaveChild", true},
        {favorites::kErrorItemNotFound, L"kmsgFavoritesErrorItemDoesNotExitsInCatalog", true},
        {favorites::kErrorItemDoesNotExitsInCatalog, L"kmsgFavoritesErrorItemDoesNotExitsInCatalog", true},
        {favorites::kErrorInvalidFavoritesPath, L"kmsgFavoritesErrorInvalidFavoritesPath", true},
        {favorites::kErrorFavoritesCannotBeSaved, L"kmsgFavoritesErrorUnknownError", false},
        {favorites::kErrorInvalidFavoritesJson, L"kmsgFavoritesErrorInvalidFavoritesJson", false},
        {static_cast<favorites::ReturnCode>(42), L"kmsgFavoritesErrorUnknownError", false},
    };
    for (const MessageCase& c : cases) {
        SCOPED_TRACE(favorites::returnCodeName(c.code));
        GDVariant v = FavoritesManager::errorCodeToMessage(c.code, String(L"ARG"));
        const Message* msg = v.getMessage();
        ASSERT_NE(msg, nullptr);
        EXPECT_EQ(msg->getId(), String(c.id));
        if (c.insert) {
            ASSERT_EQ(msg->getInserts().size(), 1u);
            EXPECT_EQ(msg->getInserts()[0], GDVariant(String(L"ARG")));
            EXPECT_NE(msg->getText().find(L"ARG"), String::npos) << msg->getText().toUtf8();
        } else {
            EXPECT_TRUE(msg->getInserts().empty());
            EXPECT_EQ(msg->getText().find(L"ARG"), String::npos);
        }
        // Every message has a real text in the message file.
        EXPECT_EQ(msg->getText().find(L"kmsg"), String::npos) << msg->getText().toUtf8();
    }
}

TEST(FavoritesMessagesTest, NotFoundAndDoesNotExistShareOneMessageWithTheArgumentAsInsertOne) {
    GDVariant a = FavoritesManager::errorCodeToMessage(favorites::kErrorItemNotFound, String(L"/root/x"));
    GDVariant b = FavoritesManager::errorCodeToMessage(favorites::kErrorItemDoesNotExitsInCatalog, String(L"/root/x"));
    EXPECT_TRUE(a == b);
    EXPECT_EQ(a.getMessage()->getInserts().at(0), GDVariant(String(L"/root/x")));
}

TEST(FavoritesMessagesTest, InvalidItemIgnoresItsArgument) {
    GDVariant a = FavoritesManager::errorCodeToMessage(favorites::kInvalidItem, String(L"one"));
    GDVariant b = FavoritesManager::errorCodeToMessage(favorites::kInvalidItem, String(L"two"));
    EXPECT_TRUE(a == b);
}

TEST(FavoritesMessagesTest, ErrorCodeToExceptionForSuccessNeitherLogsNorThrows) {
    auto writer = std::make_shared<CapturingLogWriter>();
    Logger::getLogger().addWriter(writer);
    EXPECT_NO_THROW(FavoritesManager::errorCodeToException(favorites::kSuccess, KIV_FILE_LOCATION("t", 1), String()));
    Logger::getLogger().removeWriter(writer);
    EXPECT_TRUE(writer->records().empty());
}

TEST(FavoritesMessagesTest, ErrorCodeToExceptionLogsAndThrowsWithTheCode) {
    auto writer = std::make_shared<CapturingLogWriter>();
    Logger::getLogger().addWriter(writer);
    try {
        FavoritesManager::errorCodeToException(favorites::kErrorItemAlreadyExists, KIV_FILE_LOCATION("host.cpp", 77),
                                               String(L"Report1"));
        ADD_FAILURE() << "no exception";
    } catch (const FavoritesException& e) {
        EXPECT_EQ(e.getCode(), favorites::kErrorItemAlreadyExists);
        EXPECT_NE(e.getMessageText().find(L"Report1"), String::npos);
    }
    Logger::getLogger().removeWriter(writer);
    auto records = writer->records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].file, String(L"host.cpp"));
    EXPECT_EQ(records[0].line, 77);
    EXPECT_NE(records[0].text.find(L"Report1"), String::npos);
}

TEST(FavoritesMessagesTest, CannotBeSavedThrowsTheUnknownErrorMessageWithCodeEight) {
    try {
        FavoritesManager::errorCodeToException(favorites::kErrorFavoritesCannotBeSaved, KIV_FILE_LOCATION("t", 1),
                                               String(L"x"));
        ADD_FAILURE() << "no exception";
    } catch (const FavoritesException& e) {
        EXPECT_EQ(e.getCode(), favorites::kErrorFavoritesCannotBeSaved);
        EXPECT_EQ(e.getMessage().getMessage()->getId(), String(L"kmsgFavoritesErrorUnknownError"));
    }
}

TEST(FavoritesMessagesTest, ValuesOutsideTheEnumerationKeepTheirCode) {
    try {
        FavoritesManager::errorCodeToException(static_cast<favorites::ReturnCode>(99), KIV_FILE_LOCATION("t", 1),
                                               String());
        ADD_FAILURE() << "no exception";
    } catch (const FavoritesException& e) {
        EXPECT_EQ(static_cast<int>(e.getCode()), 99);
        EXPECT_EQ(e.getMessage().getMessage()->getId(), String(L"kmsgFavoritesErrorUnknownError"));
    }
}

TEST(FavoritesMessagesTest, ClonedExceptionKeepsCodeAndMessage) {
    FavoritesException e(FavoritesManager::errorCodeToMessage(favorites::kErrorInvalidFavoritesPath, String(L"p")),
                         favorites::kErrorInvalidFavoritesPath);
    std::unique_ptr<Exception> copy(e.clone());
    auto* fe = dynamic_cast<FavoritesException*>(copy.get());
    ASSERT_NE(fe, nullptr);
    EXPECT_EQ(fe->getCode(), favorites::kErrorInvalidFavoritesPath);
    EXPECT_TRUE(fe->getMessage() == e.getMessage());
    EXPECT_EQ(fe->getMessageText(), e.getMessageText());
}

TEST(FavoritesMessagesTest, ReturnCodesHaveTheirFixedValues) {
    EXPECT_EQ(favorites::kErrorItemAlreadyExists, 0);
    EXPECT_EQ(favorites::kSuccess, 1);
    EXPECT_EQ(favorites::kInvalidItem, 2);
    EXPECT_EQ(favorites::kErrorFavoritesOutOfSync, 3);
    EXPECT_EQ(favorites::kErrorItemCannotHaveChild, 4);
    EXPECT_EQ(favorites::kErrorItemNotFound, 5);
    EXPECT_EQ(favorites::kErrorItemDoesNotExitsInCatalog, 6);
    EXPECT_EQ(favorites::kErrorInvalidFavoritesPath, 7);
    EXPECT_EQ(favorites::kErrorFavoritesCannotBeSaved, 8);
    EXPECT_EQ(favorites::kErrorInvalidFavoritesJson, 9);
    EXPECT_EQ(favorites::kCatalogObject, 0);
    EXPECT_EQ(favorites::kCategory, 1);
}

}  // namespace
}  // namespace kiv
