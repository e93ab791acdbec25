// The order of visitor callbacks in a walk over the favorites tree.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qz/webfavorites/favoritecatalogitem.h"
#include "qz/webfavorites/favoritefolder.h"
#include "qz/webfavorites/favoritesvisitor.h"
#include "testsupport.h"

namespace kiv {
namespace {

using testing::buildTree;

// Records every callback as "Kind(name)".
class RecordingVisitor : public FavoritesVisitor {
public:
    explicit RecordingVisitor(bool itemAnswer = true) : m_itemAnswer(itemAnswer) {}
    bool visitCatalogItem(FavoriteCatalogItem& i) override { return rec("Item", i), m_itemAnswer; }
    bool visitFolderEnd(FavoriteFolder& f) override { return rec("End", f), false; }
    bool visitFolderSubitemEnd(FavoriteFolder& f) override { return rec("Sub", f), false; }
    bool visitFolderLastSubitemEnd(FavoriteFolder& f) override { return rec("Last", f), false; }
    bool visitFolderBegin(FavoriteFolder& f) override { return rec("Begin", f), false; }

    std::string calls() const {
        std::string s;
        for (const auto& c : m_calls) s += (s.empty() ? "" : " ") + c;
        return s;
    }

private:
    void rec(const char* kind, FavoritesItem& item) {
        m_calls.push_back(std::string(kind) + "(" + item.getName().toString().toUtf8() + ")");
    }
    bool m_itemAnswer;
    std::vector<std::string> m_calls;
};

Handle<FavoritesItem> firstChild(const Handle<FavoritesItem>& f) {
    FavoritesItems c;
    f->getChildren(c, nullptr);
    return c.at(0);
}

TEST(FavoritesVisitorTest, FolderWalkFollowsTheDocumentedOrder) {
    // P holds [A, empty folder F, B].
    auto root = buildTree("P[ /shared/A F[] /shared/B ]");
    RecordingVisitor v;
    EXPECT_TRUE(firstChild(root)->accept(v, true, false));
    EXPECT_EQ(v.calls(), "Begin(P) Last(P) Item(A) Sub(P) Begin(F) End(F) Sub(P) Item(B) End(P)");
}

TEST(FavoritesVisitorTest, NonRecursiveAcceptMakesOnlyBeginAndEnd) {
    auto root = buildTree("P[ /shared/A Q[ /shared/B ] ]");
    RecordingVisitor v;
    EXPECT_TRUE(firstChild(root)->accept(v, false, false));
    EXPECT_EQ(v.calls(), "Begin(P) End(P)");
}

TEST(FavoritesVisitorTest, EmptyFolderMakesBeginAndEndWithoutSeparators) {
    auto root = buildTree("E[]");
    RecordingVisitor v;
    firstChild(root)->accept(v, true, false);
    EXPECT_EQ(v.calls(), "Begin(E) End(E)");
}

TEST(FavoritesVisitorTest, CategoriesOnlySkipsCatalogItemsAtEveryLevel) {
    auto root = buildTree("P[ /shared/A Q[ /shared/B ] /shared/C ]");
    RecordingVisitor v;
    firstChild(root)->accept(v, true, true);
    EXPECT_EQ(v.calls(), "Begin(P) Last(P) Begin(Q) End(Q) End(P)");
}

TEST(FavoritesVisitorTest, CategoriesOnlyOnAFolderOfCatalogItemsMakesBeginAndEndOnly) {
    auto root = buildTree("P[ /shared/A /shared/B ]");
    RecordingVisitor v;
    firstChild(root)->accept(v, true, true);
    EXPECT_EQ(v.calls(), "Begin(P) End(P)");
}

TEST(FavoritesVisitorTest, ItemsAnsweringFalseAreEachPrecededByLastSubitemEnd) {
    auto root = buildTree("P[ /shared/A /shared/B Q[] /shared/C ]");
    RecordingVisitor v(false);
    firstChild(root)->accept(v, true, false);
    EXPECT_EQ(v.calls(),
              "Begin(P) Last(P) Item(A) Last(P) Item(B) Last(P) Begin(Q) End(Q) Sub(P) Item(C) End(P)");
}

TEST(FavoritesVisitorTest, CatalogItemReachedDirectlyIsVisitedEvenWithCategoriesOnly) {
    auto root = buildTree("/shared/A");
    RecordingVisitor v(false);
    EXPECT_FALSE(firstChild(root)->accept(v, false, true));
    EXPECT_EQ(v.calls(), "Item(A)");
    RecordingVisitor t(true);
    EXPECT_TRUE(firstChild(root)->accept(t, true, true));
}

TEST(FavoritesVisitorTest, BelowTheTopLevelEveryWalkIsRecursive) {
    auto root = buildTree("P[ Q[ /shared/A ] ]");
    RecordingVisitor v;
    // Non-recursive at the top stops at P; recursive at the top goes all the way.
    firstChild(root)->accept(v, true, false);
    EXPECT_EQ(v.calls(), "Begin(P) Last(P) Begin(Q) Last(Q) Item(A) End(Q) End(P)");
}

TEST(FavoritesVisitorTest, TheBaseVisitorCanBePassedAndDoesNothing) {
    auto root = buildTree("P[ /shared/A Q[] ]");
    FavoritesVisitor base;
    EXPECT_TRUE(firstChild(root)->accept(base, true, false));
    FavoritesItems c;
    firstChild(root)->getChildren(c, nullptr);
    FavoriteCatalogItem& item = dynamic_cast<FavoriteCatalogItem&>(*c[0]);
    FavoriteFolder& folder = dynamic_cast<FavoriteFolder&>(*c[1]);
    EXPECT_FALSE(base.visitCatalogItem(item));
    EXPECT_FALSE(base.visitFolderBegin(folder));
    EXPECT_FALSE(base.visitFolderEnd(folder));
    EXPECT_FALSE(base.visitFolderSubitemEnd(folder));
    EXPECT_FALSE(base.visitFolderLastSubitemEnd(folder));
}

}  // namespace
}  // namespace kiv
