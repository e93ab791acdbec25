// FavoritesManager lookups, item creation and validation, and single edits.
#include <gtest/gtest.h>

#include "qz/platform/assert.h"
#include "qz/webcatalog/catalog.h"
#include "qz/webfavorites/favoritesmanager.h"
#include "testcatalog.h"
#include "testsupport.h"

namespace kiv {
namespace {

using catalog::Path;
using testing::dump;
using testing::TestCatalog;

Path P(const wchar_t* s) { return Path(String(s)); }

class OtherFolder : public FavoriteFolder {
public:
    using FavoriteFolder::FavoriteFolder;
};

class FavoritesEditTest : public testing::FavoritesTest {
protected:
    catalog::Time storedTime() {
        catalog::ItemInfo info;
        env.catalog().getItemInfo(env.alice, TestCatalog::favoritesPath(L"alice"), info, false, true);
        return info.getLastModifiedTime(catalog::kInfoResolved);
    }
};

// --- Lookups ------------------------------------------------------------------------

TEST_F(FavoritesEditTest, ParentsOfAPathDirectlyBelowTheRootIsTheRootFolder) {
    auto m = managerWith("/shared/Sales/Report1");
    FavoritesItems parents = m->findParentsForPath(P(L"/root/Anything"));
    ASSERT_EQ(parents.size(), 1u);
    EXPECT_EQ(parents[0].get(), m->getRootFolder().get());
}

TEST_F(FavoritesEditTest, ParentsOfANestedPathIsItsCategory) {
    auto m = managerWith("A[ B[] ]");
    FavoritesItems parents = m->findParentsForPath(P(L"/root/A/B/x"));
    ASSERT_EQ(parents.size(), 1u);
    EXPECT_EQ(parents[0]->getPath(), P(L"/root/A/B"));
    EXPECT_TRUE(m->findParentsForPath(P(L"/root/Z/x")).empty());
}

TEST_F(FavoritesEditTest, CategorySearchEndsAtACatalogItemOfTheSamePath) {
    auto m = managerWith("A[ /shared/Sales/Report1 ]");
    EXPECT_FALSE(m->hasFavoritesItem(P(L"/root/A/Report1"), favorites::kCategory));
    EXPECT_TRUE(m->hasFavoritesItem(P(L"/root/A/Report1"), favorites::kCatalogObject));
    EXPECT_TRUE(m->hasFavoritesItem(P(L"/root/A"), favorites::kCategory));
    EXPECT_FALSE(m->hasFavoritesItem(P(L"/root/A"), favorites::kCatalogObject));
    // Nothing below a path that is not an ancestor is searched.
    EXPECT_FALSE(m->hasFavoritesItem(P(L"/root/A/Report1/x"), favorites::kCatalogObject));
}

TEST_F(FavoritesEditTest, FindingByCatalogPathReturnsEveryLinkDepthFirst) {
    auto m = managerWith("A[ /shared/Sales/Report1 B[ /shared/Sales/Report1 ] ] /shared/Sales/Report2 "
                         "C[ /shared/Sales/Report1 ]");
    FavoritesItems found;
    EXPECT_TRUE(m->findFavoritesItemsByCatalogPath(P(L"/shared/Sales/Report1"), found));
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0]->getPath(), P(L"/root/A/Report1"));
    EXPECT_EQ(found[1]->getPath(), P(L"/root/A/B/Report1"));
    EXPECT_EQ(found[2]->getPath(), P(L"/root/C/Report1"));
    FavoritesItems none;
    EXPECT_FALSE(m->findFavoritesItemsByCatalogPath(P(L"/shared/Sales/Report3"), none));
    EXPECT_TRUE(none.empty());
}

TEST_F(FavoritesEditTest, FindingByCatalogPathFromALeafComparesTheLeafItself) {
    auto m = managerWith("/shared/Sales/Report1");
    FavoritesItems children;
    m->getRootFolder()->getChildren(children, nullptr);
    FavoritesItems found;
    EXPECT_TRUE(m->findFavoritesItemsByCatalogPath(P(L"/shared/Sales/Report1"), found, children[0]));
    EXPECT_FALSE(m->findFavoritesItemsByCatalogPath(P(L"/shared/Sales/Report2"), found, children[0]));
    EXPECT_EQ(found.size(), 1u);
}

TEST_F(FavoritesEditTest, FindCategoryOfACatalogItemPathIsEmpty) {
    auto m = managerWith("A[ /shared/Sales/Report1 ]");
    EXPECT_TRUE(m->findCategory(P(L"/root/A/Report1")).isNull());
    EXPECT_FALSE(m->findCategory(P(L"/root/A")).isNull());
    EXPECT_TRUE(m->findCategory(P(L"/root/Nope")).isNull());
}

TEST_F(FavoritesEditTest, FindCategoryReturnsTheFirstOfTwoCategoriesAtOnePath) {
    auto m = manager();
    Handle<FavoritesItem> first(new FavoriteFolder(P(L"/root"), catalog::ItemName(String(L"A"), catalog::ItemName::kNone)));
    Handle<FavoritesItem> second(new OtherFolder(P(L"/root"), catalog::ItemName(String(L"A"), catalog::ItemName::kNone)));
    ASSERT_EQ(m->getRootFolder()->addChild(first), favorites::kSuccess);
    ASSERT_EQ(m->getRootFolder()->addChild(second), favorites::kSuccess);
    EXPECT_EQ(m->findCategory(P(L"/root/A")).get(), first.get());
    FavoritesItems found;
    EXPECT_TRUE(m->findPathImpl(P(L"/root/A"), m->getRootFolder(), found, favorites::kCategory));
    ASSERT_EQ(found.size(), 1u);  // at most one item per call
    EXPECT_EQ(found[0].get(), first.get());
}

TEST_F(FavoritesEditTest, FindPathFromANullStartRaisesInvalidHandle) {
    auto m = manager();
    FavoritesItems found;
    EXPECT_THROW(m->findPathImpl(P(L"/root"), Handle<FavoritesItem>(), found, favorites::kCategory),
                 InvalidHandleException);
}

// --- Creation and validation ------------------------------------------------------

TEST_F(FavoritesEditTest, CategoryWithAnEmptyParentPathGoesDirectlyBelowTheRoot) {
    auto m = manager();
    auto c = category(*m, L"Reports");
    EXPECT_EQ(c->getName().toString(), String(L"Reports"));
    EXPECT_EQ(c->getPath(), P(L"/root/Reports"));
    EXPECT_EQ(c->getType(), favorites::kCategory);
}

TEST_F(FavoritesEditTest, InvalidParentPathIsNotAnErrorAndUsesTheRoot) {
    auto m = manager();
    Handle<FavoritesItem> h;
    EXPECT_EQ(m->createFavoriteCatalogObject(String(L"/shared/Sales/Report1"), String(L"not/rooted"), h),
              favorites::kSuccess);
    EXPECT_EQ(h->getPath(), P(L"/root/Report1"));
}

TEST_F(FavoritesEditTest, TypeTextOverloadMakesFoldersAndItemsAndRefusesOtherTexts) {
    auto m = manager();
    Handle<FavoritesItem> h;
    EXPECT_EQ(m->createFavoriteItem(String(), String(L"/root/A"), String(L"B"), String(L"1"), h), favorites::kSuccess);
    EXPECT_EQ(h->getType(), favorites::kCategory);
    EXPECT_EQ(h->getPath(), P(L"/root/A/B"));
    EXPECT_EQ(m->createFavoriteItem(String(L"/shared/x"), String(L"/root/A"), String(), String(L"0"), h),
              favorites::kSuccess);
    EXPECT_EQ(h->getType(), favorites::kCatalogObject);
    EXPECT_EQ(h->getPath(), P(L"/root/A/x"));
    Handle<FavoritesItem> untouched = h;
    debug::ScopedAssertRecorder recorder;
    EXPECT_EQ(m->createFavoriteItem(String(L"/shared/x"), String(), String(L"n"), String(L"2"), h),
              favorites::kInvalidItem);
    ASSERT_EQ(recorder.failures().size(), 1u);
    EXPECT_EQ(recorder.failures()[0].message, String(L"String enum value not found: 2"));
    EXPECT_EQ(h.get(), untouched.get());
}

TEST_F(FavoritesEditTest, TypeOutsideTheEnumerationIsAnInvalidItem) {
    auto m = manager();
    Handle<FavoritesItem> h;
    const auto bad = static_cast<favorites::EItemType>(7);
    EXPECT_EQ(m->createFavoriteItem(String(L"/shared/x"), String(), String(L"n"), bad, h), favorites::kInvalidItem);
    EXPECT_TRUE(h.isNull());
}

TEST_F(FavoritesEditTest, FactoriesReplaceTheItemTheHandleHeld) {
    auto m = manager();
    Handle<FavoritesItem> h = category(*m, L"First");
    Handle<FavoritesItem> keep = h;
    EXPECT_EQ(keep->getRefCount(), 2);
    m->createFolder(catalog::ItemName(String(L"Second"), catalog::ItemName::kNone), h, P(L"/root"));
    EXPECT_EQ(h->getName().toString(), String(L"Second"));
    EXPECT_EQ(keep->getRefCount(), 1);
}

TEST_F(FavoritesEditTest, FactoryThatThrowsLeavesTheHandleAndFreesTheBlock) {
    auto m = manager();
    Handle<FavoritesItem> h = category(*m, L"Keep");
    const auto before = memalloc::MemoryAllocatorGateway::liveCounts("project/webfavorites/favoritesmanager", 750);
    // An empty name is refused by the item name's constructor before the
    // folder exists; the root catalog path has no last segment.
    EXPECT_THROW(m->createFavoritesCatalogItem(P(L"/"), h, P(L"/root")), catalog::CatalogNameException);
    EXPECT_THROW(m->createFavoriteCategory(String(), String(), h), catalog::CatalogNameException);
    EXPECT_EQ(h->getName().toString(), String(L"Keep"));
    const auto after = memalloc::MemoryAllocatorGateway::liveCounts("project/webfavorites/favoritesmanager", 750);
    EXPECT_EQ(after.blocks, before.blocks);
    EXPECT_EQ(memalloc::MemoryAllocatorGateway::liveCounts("project/webfavorites/favoritesmanager", 756).blocks, 0);
}

TEST_F(FavoritesEditTest, ComposePathWithAnEmptyPageIsThePathItself) {
    Path out;
    EXPECT_TRUE(FavoritesManager::composePathFromRawArguments(String(L"/shared/Sales/Report1"), String(), out));
    EXPECT_EQ(out, P(L"/shared/Sales/Report1"));
}

TEST_F(FavoritesEditTest, ComposePathAppendsAValidPage) {
    Path out;
    EXPECT_TRUE(FavoritesManager::composePathFromRawArguments(String(L"/shared/Sales/Dashboard"), String(L"Page 1"), out));
    EXPECT_EQ(out, P(L"/shared/Sales/Dashboard/Page 1"));
}

TEST_F(FavoritesEditTest, ComposePathRefusesAnEmptyOrBadPathOrPageAndLeavesTheResult) {
    Path out = P(L"/unchanged");
    EXPECT_FALSE(FavoritesManager::composePathFromRawArguments(String(), String(L"p"), out));
    EXPECT_FALSE(FavoritesManager::composePathFromRawArguments(String(L"relative"), String(), out));
    EXPECT_FALSE(FavoritesManager::composePathFromRawArguments(String(L"/a"), String(L"   "), out));
    EXPECT_FALSE(FavoritesManager::composePathFromRawArguments(String(L"/a"), String(L"bad\x01"), out));
    EXPECT_EQ(out, P(L"/unchanged"));
}

TEST_F(FavoritesEditTest, ValidatingAFolderNeedsNoCatalog) {
    auto m = manager();
    auto c = category(*m, L"Anything");
    EXPECT_EQ(m->validateItem(c), favorites::kSuccess);
}

TEST_F(FavoritesEditTest, ValidatingAMissingOrUnreadableObjectRaisesTheCatalogException) {
    auto m = manager();
    try {
        m->validateItem(item(*m, L"/shared/Sales/Gone"));
        ADD_FAILURE() << "no exception";
    } catch (const catalog::CatalogException& e) {
        EXPECT_EQ(e.getCode(), catalog::kErrorPathNotFound);
        EXPECT_EQ(e.getPath(), String(L"/shared/Sales/Gone"));
    }
    try {
        m->validateItem(item(*m, L"/private/Secret"));
        ADD_FAILURE() << "no exception";
    } catch (const catalog::CatalogException& e) {
        // In a folder the user may not read: not found, as if it did not exist.
        EXPECT_EQ(e.getCode(), catalog::kErrorPathNotFound);
    }
    EXPECT_EQ(m->validateItem(item(*m, L"/shared/Sales/Report1")), favorites::kSuccess);
}

// --- Adding ---------------------------------------------------------------------------

TEST_F(FavoritesEditTest, AddingACatalogItemStoresItAndIndexesIt) {
    auto m = managerWith("Sales[]");
    auto r = item(*m, L"/shared/Sales/Report1", L"/root/Sales");
    EXPECT_EQ(m->addItem(r), favorites::kSuccess);
    EXPECT_FALSE(m->isDirty());
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report1")));
    EXPECT_EQ(storedTree(), "Sales[ /shared/Sales/Report1 ]");
}

TEST_F(FavoritesEditTest, AddingToACategoryThatDoesNotExistWritesNothing) {
    auto m = managerWith("Sales[]");
    const catalog::Time before = storedTime();
    auto r = item(*m, L"/shared/Sales/Report1", L"/root/Missing");
    EXPECT_EQ(m->addItem(r), favorites::kErrorInvalidFavoritesPath);
    EXPECT_EQ(storedTime(), before);
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report1")));
}

TEST_F(FavoritesEditTest, AddingADuplicateIsRefusedAndWritesNothing) {
    auto m = managerWith("/shared/Sales/Report1");
    const catalog::Time before = storedTime();
    auto r = item(*m, L"/shared/Sales/Report1");
    EXPECT_EQ(m->addItem(r), favorites::kErrorItemAlreadyExists);
    EXPECT_EQ(storedTime(), before);
    EXPECT_FALSE(m->isDirty());
}

TEST_F(FavoritesEditTest, AddingAnUnreadableObjectRaisesAndChangesNothing) {
    auto m = manager();
    auto r = item(*m, L"/private/Secret");
    EXPECT_THROW(m->addItem(r), catalog::CatalogException);
    EXPECT_EQ(tree(m), "");
}

TEST_F(FavoritesEditTest, AddingWhenOutOfSyncReloadsAndRefuses) {
    auto m = managerWith("/shared/Sales/Report1");
    env.storeFavorites(L"alice", "/shared/Sales/Report2");  // another server wrote
    auto r = item(*m, L"/shared/Sales/Report3");
    EXPECT_EQ(m->addItem(r), favorites::kErrorFavoritesOutOfSync);
    EXPECT_EQ(tree(m), "/shared/Sales/Report2");
    EXPECT_EQ(storedTree(), "/shared/Sales/Report2");
    EXPECT_EQ(m->addItem(r), favorites::kSuccess);  // now in sync
    EXPECT_EQ(storedTree(), "/shared/Sales/Report2 /shared/Sales/Report3");
}

TEST_F(FavoritesEditTest, SameObjectInTwoCategoriesStaysAFavoriteUntilBothLinksGo) {
    auto m = managerWith("A[] B[]");
    auto a = item(*m, L"/shared/Sales/Report1", L"/root/A");
    auto b = item(*m, L"/shared/Sales/Report1", L"/root/B");
    ASSERT_EQ(m->addItem(a), favorites::kSuccess);
    ASSERT_EQ(m->addItem(b), favorites::kSuccess);
    EXPECT_EQ(m->deleteItem(a, false), favorites::kSuccess);
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report1")));
    EXPECT_EQ(tree(m), "A[] B[ /shared/Sales/Report1 ]");
    EXPECT_EQ(m->deleteItem(b, false), favorites::kSuccess);
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report1")));
}

TEST_F(FavoritesEditTest, AddingACategoryThenItemsBelowIt) {
    auto m = manager();
    auto c = category(*m, L"Sales");
    ASSERT_EQ(m->addItem(c), favorites::kSuccess);
    auto q = category(*m, L"Q1", L"/root/Sales");
    ASSERT_EQ(m->addItem(q), favorites::kSuccess);
    auto r = item(*m, L"/shared/Sales/Report1", L"/root/Sales/Q1");
    ASSERT_EQ(m->addItem(r), favorites::kSuccess);
    EXPECT_EQ(storedTree(), "Sales[ Q1[ /shared/Sales/Report1 ] ]");
}

TEST_F(FavoritesEditTest, PivotOverloadDoesNothingAtAll) {
    auto m = managerWith("/shared/Sales/Report1");
    const catalog::Time before = storedTime();
    auto r = item(*m, L"/shared/Sales/Report2");
    auto pivot = item(*m, L"/shared/Sales/Report1");
    EXPECT_EQ(m->addItem(r, pivot), favorites::kSuccess);
    EXPECT_EQ(tree(m), "/shared/Sales/Report1");
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report2")));
    EXPECT_EQ(storedTime(), before);
}

// --- Deleting ---------------------------------------------------------------------------

TEST_F(FavoritesEditTest, DeletingWithAllLocationsRemovesEveryLinkInNestedCategories) {
    auto m = managerWith("A[ /shared/Sales/Report1 B[ /shared/Sales/Report1 /shared/Sales/Report2 ] ] "
                         "/shared/Sales/Report1");
    auto r = item(*m, L"/shared/Sales/Report1", L"/root/A/B");
    EXPECT_EQ(m->deleteItem(r, true), favorites::kSuccess);
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report1")));
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report2")));
    EXPECT_EQ(storedTree(), "A[ B[ /shared/Sales/Report2 ] ]");
}

TEST_F(FavoritesEditTest, DeletingWithoutAllLocationsTouchesOnlyTheItemsOwnCategory) {
    auto m = managerWith("A[ /shared/Sales/Report1 B[ /shared/Sales/Report1 ] ] /shared/Sales/Report1");
    auto r = item(*m, L"/shared/Sales/Report1", L"/root/A");
    EXPECT_EQ(m->deleteItem(r, false), favorites::kSuccess);
    EXPECT_EQ(storedTree(), "A[ B[ /shared/Sales/Report1 ] ] /shared/Sales/Report1");
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report1")));
}

TEST_F(FavoritesEditTest, DeletingACatalogItemThatIsNotThereIsItemNotFound) {
    auto m = managerWith("A[ /shared/Sales/Report1 ]");
    EXPECT_EQ(m->deleteItem(item(*m, L"/shared/Sales/Report2", L"/root/A"), false), favorites::kErrorItemNotFound);
    EXPECT_EQ(m->deleteItem(item(*m, L"/shared/Sales/Report2"), true), favorites::kErrorItemNotFound);
}

TEST_F(FavoritesEditTest, DeletingFromACategoryThatDoesNotExistRaisesInvalidHandle) {
    auto m = managerWith("/shared/Sales/Report1");
    EXPECT_THROW(m->deleteItem(item(*m, L"/shared/Sales/Report1", L"/root/Missing"), false), InvalidHandleException);
}

TEST_F(FavoritesEditTest, DeletingACategoryRemovesEveryPathBelowItFromTheIndex) {
    auto m = managerWith("A[ /shared/Sales/Report1 B[ /shared/Sales/Report2 C[ /shared/Sales/Report3 ] ] ] "
                         "/shared/Sales/Report2");
    auto a = category(*m, L"A");
    EXPECT_EQ(m->deleteItem(a, false), favorites::kSuccess);
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report1")));
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report2")));  // still linked at the top
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report3")));
    EXPECT_EQ(storedTree(), "/shared/Sales/Report2");
}

TEST_F(FavoritesEditTest, DeletingANestedCategory) {
    auto m = managerWith("A[ B[ /shared/Sales/Report1 ] /shared/Sales/Report2 ]");
    auto b = category(*m, L"B", L"/root/A");
    EXPECT_EQ(m->deleteItem(b, true), favorites::kSuccess);
    EXPECT_EQ(storedTree(), "A[ /shared/Sales/Report2 ]");
}

TEST_F(FavoritesEditTest, DeletingACategoryThatIsNotThereIsItemNotFound) {
    auto m = managerWith("A[]");
    EXPECT_EQ(m->deleteItem(category(*m, L"Z"), false), favorites::kErrorItemNotFound);
}

TEST_F(FavoritesEditTest, DeletingACategoryBelowAMissingParentIsAnInvalidPath) {
    auto m = managerWith("A[]");
    EXPECT_EQ(m->deleteItem(category(*m, L"Z", L"/root/Missing"), false), favorites::kErrorInvalidFavoritesPath);
}

TEST_F(FavoritesEditTest, DeletingWhenOutOfSyncReloadsAndRefuses) {
    auto m = managerWith("/shared/Sales/Report1");
    env.storeFavorites(L"alice", "/shared/Sales/Report1 /shared/Sales/Report2");
    EXPECT_EQ(m->deleteItem(item(*m, L"/shared/Sales/Report1"), true), favorites::kErrorFavoritesOutOfSync);
    EXPECT_EQ(tree(m), "/shared/Sales/Report1 /shared/Sales/Report2");
    EXPECT_EQ(storedTree(), "/shared/Sales/Report1 /shared/Sales/Report2");
}

// --- Two servers on one catalog file -------------------------------------------------------

TEST(FavoritesTwoManagersTest, EditThroughOneIsSeenAsOutOfSyncByTheOtherAndNothingIsLost) {
    char dir[] = "/tmp/kivfavXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string file = std::string(dir) + "/catalog.db";
    {
        TestCatalog first(file);
        catalog::SqliteCatalog second(file);
        const AccountToken alice = second.tokenFor(String(L"alice"));
        FavoritesManager a(first.catalog(), first.alice, TestCatalog::favoritesPath(L"alice"));
        FavoritesManager b(second, alice, TestCatalog::favoritesPath(L"alice"));

        Handle<FavoritesItem> r1;
        a.createFavoriteCatalogObject(String(L"/shared/Sales/Report1"), String(), r1);
        ASSERT_EQ(a.addItem(r1), favorites::kSuccess);

        Handle<FavoritesItem> r2;
        b.createFavoriteCatalogObject(String(L"/shared/Sales/Report2"), String(), r2);
        EXPECT_EQ(b.addItem(r2), favorites::kErrorFavoritesOutOfSync);  // b reloads
        EXPECT_TRUE(b.isFavorite(P(L"/shared/Sales/Report1")));
        EXPECT_EQ(b.addItem(r2), favorites::kSuccess);

        Handle<FavoritesItem> r3;
        a.createFavoriteCatalogObject(String(L"/shared/Sales/Report3"), String(), r3);
        EXPECT_EQ(a.addItem(r3), favorites::kErrorFavoritesOutOfSync);
        EXPECT_EQ(dump(a.getRootFolder()), "/shared/Sales/Report1 /shared/Sales/Report2");
        EXPECT_EQ(a.addItem(r3), favorites::kSuccess);

        FavoritesManager fresh(second, alice, TestCatalog::favoritesPath(L"alice"));
        EXPECT_EQ(dump(fresh.getRootFolder()), "/shared/Sales/Report1 /shared/Sales/Report2 /shared/Sales/Report3");
    }
    std::system((std::string("rm -rf ") + dir).c_str());
}

}  // namespace
}  // namespace kiv
