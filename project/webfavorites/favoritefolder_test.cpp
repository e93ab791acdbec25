// The favorites tree model: folders, catalog items, equality and children.
#include <gtest/gtest.h>

#include "qz/platform/exception.h"
#include "qz/webfavorites/favoritecatalogitem.h"
#include "qz/webfavorites/favoritefolder.h"
#include "testsupport.h"

namespace kiv {
namespace {

using catalog::ItemName;
using catalog::Path;
using testing::buildTree;
using testing::dump;

Path P(const wchar_t* s) { return Path(String(s)); }
ItemName N(const wchar_t* s) { return ItemName(String(s), ItemName::kNone); }

Handle<FavoritesItem> folder(const wchar_t* parent, const wchar_t* name) {
    return Handle<FavoritesItem>(new FavoriteFolder(P(parent), N(name)));
}
Handle<FavoritesItem> link(const wchar_t* parent, const wchar_t* catalogPath) {
    return Handle<FavoritesItem>(new FavoriteCatalogItem(P(parent), P(catalogPath)));
}
std::size_t count(const Handle<FavoritesItem>& f) { return dynamic_cast<FavoriteFolder&>(*f).getChildrenCount(); }

// A folder class of its own: never equal to a FavoriteFolder, so the tree can
// hold two categories at one path.
class OtherFolder : public FavoriteFolder {
public:
    using FavoriteFolder::FavoriteFolder;
};

// An item class whose equality claims every item with the same name.
class GreedyItem : public FavoriteCatalogItem {
public:
    using FavoriteCatalogItem::FavoriteCatalogItem;
    bool operator==(const FavoritesItem& other) const override { return other.getName() == getName(); }
};

TEST(FavoriteFolderTest, FolderPathIsParentPathWithNameAppended) {
    auto f = folder(L"/root", L"Sales");
    EXPECT_EQ(f->getPath(), P(L"/root/Sales"));
    EXPECT_EQ(f->getName(), N(L"Sales"));
    EXPECT_EQ(f->getType(), favorites::kCategory);
    EXPECT_TRUE(f->canHaveChild());
}

TEST(FavoriteFolderTest, RootFolderBuiltOnSlashHasPathRoot) {
    auto root = folder(L"/", L"root");
    EXPECT_EQ(root->getPath(), P(L"/root"));
}

TEST(FavoriteCatalogItemTest, CatalogItemIsNamedByTheLastSegmentOfItsCatalogPath) {
    auto item = link(L"/root/Sales", L"/shared/Sales/Dashboard");
    EXPECT_EQ(item->getName(), N(L"Dashboard"));
    EXPECT_EQ(item->getPath(), P(L"/root/Sales/Dashboard"));
    EXPECT_EQ(item->getCatalogPath(), P(L"/shared/Sales/Dashboard"));
    EXPECT_EQ(item->getType(), favorites::kCatalogObject);
    EXPECT_FALSE(item->canHaveChild());
}

TEST(FavoriteFolderTest, AddingEqualCatalogItemTwiceIsRejected) {
    auto f = folder(L"/root", L"Sales");
    auto a = link(L"/root/Sales", L"/shared/a");
    auto again = link(L"/root/Sales", L"/shared/a");
    EXPECT_EQ(f->addChild(a), favorites::kSuccess);
    EXPECT_EQ(f->addChild(again), favorites::kErrorItemAlreadyExists);
    EXPECT_EQ(count(f), 1u);
}

TEST(FavoriteFolderTest, SameCatalogObjectUnderAnotherCategoryIsAccepted) {
    auto sales = folder(L"/root", L"Sales");
    auto hr = folder(L"/root", L"HR");
    auto a1 = link(L"/root/Sales", L"/shared/a");
    auto a2 = link(L"/root/HR", L"/shared/a");
    EXPECT_EQ(sales->addChild(a1), favorites::kSuccess);
    EXPECT_EQ(hr->addChild(a2), favorites::kSuccess);
}

TEST(FavoriteFolderTest, FolderWithSamePathIsRejectedEvenFromDifferentNameObjects) {
    auto root = folder(L"/", L"root");
    auto x = folder(L"/root", L"Reports");
    ItemName other(String(L"  Reports "), ItemName::kTrim);
    Handle<FavoritesItem> y(new FavoriteFolder(P(L"/root"), other));
    EXPECT_EQ(root->addChild(x), favorites::kSuccess);
    EXPECT_EQ(root->addChild(y), favorites::kErrorItemAlreadyExists);
    EXPECT_EQ(count(root), 1u);
}

TEST(FavoriteFolderTest, PivotInsertPlacesTheItemBeforeThePivot) {
    auto root = buildTree("/shared/a /shared/b /shared/c");
    auto pivot = link(L"/root", L"/shared/b");
    auto item = link(L"/root", L"/shared/x");
    EXPECT_EQ(root->addChild(item, pivot), favorites::kSuccess);
    EXPECT_EQ(dump(root), "/shared/a /shared/x /shared/b /shared/c");
}

TEST(FavoriteFolderTest, PivotInsertWithAPivotThatIsNotAChildAppends) {
    auto root = buildTree("/shared/a /shared/b");
    auto pivot = link(L"/root", L"/shared/zzz");
    auto item = link(L"/root", L"/shared/x");
    EXPECT_EQ(root->addChild(item, pivot), favorites::kSuccess);
    EXPECT_EQ(dump(root), "/shared/a /shared/b /shared/x");
}

TEST(FavoriteFolderTest, PivotInsertIsRejectedWhenAnEqualItemStandsAfterThePivot) {
    auto root = buildTree("/shared/a /shared/b /shared/c");
    auto pivot = link(L"/root", L"/shared/a");
    auto item = link(L"/root", L"/shared/c");
    EXPECT_EQ(root->addChild(item, pivot), favorites::kErrorItemAlreadyExists);
    EXPECT_EQ(dump(root), "/shared/a /shared/b /shared/c");
}

TEST(FavoriteFolderTest, RemovingAnItemThatIsNotPresentReturnsItemNotFound) {
    auto root = buildTree("/shared/a");
    EXPECT_EQ(root->removeChild(link(L"/root", L"/shared/b")), favorites::kErrorItemNotFound);
    EXPECT_EQ(dump(root), "/shared/a");
}

TEST(FavoriteFolderTest, RemovingAChildKeepsTheOrderOfTheOthers) {
    auto root = buildTree("/shared/a /shared/b /shared/c");
    EXPECT_EQ(root->removeChild(link(L"/root", L"/shared/b")), favorites::kSuccess);
    EXPECT_EQ(dump(root), "/shared/a /shared/c");
}

TEST(FavoriteFolderTest, RemovingAFolderEmptiesItAlsoForOtherHoldersOfItsHandle) {
    auto root = buildTree("Sales[ /shared/a Q1[ /shared/b ] ]");
    FavoritesItems children;
    root->getChildren(children, nullptr);
    Handle<FavoritesItem> held = children.at(0);
    FavoritesItems grand;
    held->getChildren(grand, nullptr);
    Handle<FavoritesItem> heldQ1 = grand.at(1);
    EXPECT_EQ(root->removeChild(folder(L"/root", L"Sales")), favorites::kSuccess);
    EXPECT_EQ(count(root), 0u);
    EXPECT_EQ(count(held), 0u);
    EXPECT_EQ(count(heldQ1), 0u);  // emptied depth first
}

TEST(FavoriteFolderTest, RemoveChildrenEmptiesEveryDescendantFolder) {
    auto root = buildTree("A[ B[ /shared/x ] ] /shared/y");
    FavoritesItems a;
    root->getChildren(a, nullptr);
    FavoritesItems b;
    a[0]->getChildren(b, nullptr);
    Handle<FavoritesItem> heldB = b[0];
    EXPECT_EQ(root->removeChildren(), favorites::kSuccess);
    EXPECT_EQ(count(root), 0u);
    EXPECT_EQ(count(heldB), 0u);
}

TEST(FavoriteCatalogItemTest, CatalogItemAnswersCannotHaveChildToEveryChildOperation) {
    auto item = link(L"/root", L"/shared/a");
    auto other = link(L"/root", L"/shared/b");
    EXPECT_EQ(item->addChild(other), favorites::kErrorItemCannotHaveChild);
    EXPECT_EQ(item->addChild(other, other), favorites::kErrorItemCannotHaveChild);
    EXPECT_EQ(item->removeChild(other), favorites::kErrorItemCannotHaveChild);
    EXPECT_EQ(item->removeChildren(), favorites::kErrorItemCannotHaveChild);
}

TEST(FavoriteCatalogItemTest, GetChildrenOfACatalogItemLeavesTheOutputAsItWas) {
    auto item = link(L"/root", L"/shared/a");
    FavoritesItems out{link(L"/root", L"/shared/z")};
    item->getChildren(out, nullptr);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0]->getCatalogPath(), P(L"/shared/z"));
}

TEST(FavoriteFolderTest, GetChildrenAppendsWithoutClearing) {
    auto root = buildTree("/shared/a");
    FavoritesItems out{link(L"/root", L"/shared/z")};
    root->getChildren(out, nullptr);
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[1]->getCatalogPath(), P(L"/shared/a"));
}

TEST(FavoriteFolderTest, GetChildrenReturnsOnlyDirectChildrenInOrder) {
    auto root = buildTree("/shared/b A[ /shared/c ] /shared/a");
    FavoritesItems out;
    root->getChildren(out, nullptr);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0]->getCatalogPath(), P(L"/shared/b"));
    EXPECT_EQ(out[1]->getName(), N(L"A"));
    EXPECT_EQ(out[2]->getCatalogPath(), P(L"/shared/a"));
}

TEST(FavoriteFolderTest, FolderCatalogPathIsTheBlankPath) {
    auto f = folder(L"/root", L"Sales");
    EXPECT_EQ(f->getCatalogPath(), catalog::kpBlank);
    EXPECT_TRUE(f->getCatalogPath().isBlank());
}

TEST(FavoriteFolderTest, FolderAndCatalogItemAreNeverEqualInEitherDirection) {
    // A folder and a catalog item at the same favorites path.
    auto f = folder(L"/root", L"a");
    auto item = link(L"/root", L"/shared/a");
    ASSERT_EQ(f->getPath(), item->getPath());
    EXPECT_FALSE(*f == *item);
    EXPECT_FALSE(*item == *f);
}

TEST(FavoriteFolderTest, FolderEqualityIgnoresTheNameObjectAndNeedsTheExactClass) {
    auto f = folder(L"/root", L"Sales");
    Handle<FavoritesItem> other(new OtherFolder(P(L"/root"), N(L"Sales")));
    EXPECT_TRUE(*f == *folder(L"/root", L"Sales"));
    EXPECT_FALSE(*f == *other);
    EXPECT_FALSE(*f == *folder(L"/root/x", L"Sales"));
}

TEST(FavoriteCatalogItemTest, CatalogItemEqualityNeedsSameCatalogPathAndSamePath) {
    auto a = link(L"/root", L"/shared/a");
    EXPECT_TRUE(*a == *link(L"/root", L"/shared/a"));
    EXPECT_FALSE(*a == *link(L"/root/x", L"/shared/a"));
    EXPECT_FALSE(*a == *link(L"/root", L"/other/a"));  // same name and path, other object
}

TEST(FavoriteFolderTest, TwoCategoriesOfDifferentClassesCanShareAPath) {
    auto root = folder(L"/", L"root");
    auto a = folder(L"/root", L"A");
    Handle<FavoritesItem> b(new OtherFolder(P(L"/root"), N(L"A")));
    EXPECT_EQ(root->addChild(a), favorites::kSuccess);
    EXPECT_EQ(root->addChild(b), favorites::kSuccess);
    EXPECT_EQ(count(root), 2u);
}

TEST(FavoriteFolderTest, ANullChildSurfacesAsInvalidHandleAndLeavesTheChildrenUnchanged) {
    auto root = folder(L"/", L"root");
    Handle<FavoritesItem> empty;
    EXPECT_EQ(root->addChild(empty), favorites::kSuccess);  // nothing to compare against yet
    auto a = link(L"/root", L"/shared/a");
    EXPECT_THROW(root->addChild(a), InvalidHandleException);
    EXPECT_EQ(count(root), 1u);
    EXPECT_THROW(root->removeChildren(), InvalidHandleException);
    EXPECT_EQ(count(root), 1u);
}

TEST(FavoriteFolderTest, AddingANullHandleToANonEmptyFolderThrowsInvalidHandle) {
    auto root = buildTree("/shared/a");
    Handle<FavoritesItem> empty;
    EXPECT_THROW(root->addChild(empty), InvalidHandleException);
    EXPECT_EQ(count(root), 1u);
}

TEST(FavoritesItemTest, BaseEqualityComparesNamePathAndType) {
    // GreedyItem keeps FavoritesItem's fields; the base rule compares them.
    auto a = link(L"/root", L"/shared/a");
    EXPECT_TRUE(a->FavoritesItem::operator==(*link(L"/root", L"/other/a")));  // same name, path, type
    EXPECT_FALSE(a->FavoritesItem::operator==(*folder(L"/root", L"a")));     // other type
    EXPECT_TRUE(a->FavoritesItem::operator==(*a));
}

// The duplicate check of large folders must answer exactly as comparing
// child by child does.
TEST(FavoriteFolderTest, LargeFolderRejectsDuplicatesLikeTheLinearCheck) {
    auto root = folder(L"/", L"root");
    for (int i = 0; i < 200; ++i) {
        String p = String(L"/shared/r") + std::to_wstring(i);
        Handle<FavoritesItem> item(new FavoriteCatalogItem(P(L"/root"), Path(p)));
        ASSERT_EQ(root->addChild(item), favorites::kSuccess) << i;
    }
    for (int i = 0; i < 200; i += 7) {
        String p = String(L"/shared/r") + std::to_wstring(i);
        Handle<FavoritesItem> dup(new FavoriteCatalogItem(P(L"/root"), Path(p)));
        EXPECT_EQ(root->addChild(dup), favorites::kErrorItemAlreadyExists) << i;
    }
    // Same name and path but another object: not equal, admitted.
    Handle<FavoritesItem> other(new FavoriteCatalogItem(P(L"/root"), P(L"/elsewhere/r5")));
    EXPECT_EQ(root->addChild(other), favorites::kSuccess);
    // A removed child can be added again.
    EXPECT_EQ(root->removeChild(link(L"/root", L"/shared/r10")), favorites::kSuccess);
    auto readded = link(L"/root", L"/shared/r10");
    EXPECT_EQ(root->addChild(readded), favorites::kSuccess);
    EXPECT_EQ(count(root), 201u);
    // After emptying, nothing is remembered.
    root->removeChildren();
    auto again = link(L"/root", L"/shared/r1");
    EXPECT_EQ(root->addChild(again), favorites::kSuccess);
}

TEST(FavoriteFolderTest, LargeFolderWithAChildOfAnotherClassAsksThatChild) {
    auto root = folder(L"/", L"root");
    for (int i = 0; i < 40; ++i) {
        Handle<FavoritesItem> item(new FavoriteCatalogItem(P(L"/root"), Path(String(L"/shared/r") + std::to_wstring(i))));
        ASSERT_EQ(root->addChild(item), favorites::kSuccess);
    }
    Handle<FavoritesItem> greedy(new GreedyItem(P(L"/root"), P(L"/x/claimed")));
    ASSERT_EQ(root->addChild(greedy), favorites::kSuccess);
    // The greedy child claims every item named "claimed", whatever its class.
    auto claimed = link(L"/root", L"/y/claimed");
    EXPECT_EQ(root->addChild(claimed), favorites::kErrorItemAlreadyExists);
    auto fresh = link(L"/root", L"/y/fresh");
    EXPECT_EQ(root->addChild(fresh), favorites::kSuccess);
    auto dup = link(L"/root", L"/shared/r3");
    EXPECT_EQ(root->addChild(dup), favorites::kErrorItemAlreadyExists);
}

TEST(FavoriteFolderTest, TreeNotationRoundTrips) {
    const std::string text = "Sales[ /shared/a Q1[ /shared/b ] Empty[] ] /shared/c";
    EXPECT_EQ(dump(buildTree(text)), text);
}

}  // namespace
}  // namespace kiv
