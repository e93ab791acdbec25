// Whole-tree replacement and single items from client JSON text.
#include <gtest/gtest.h>

#include "qz/platform/assert.h"
#include "qz/webfavorites/favoritesmanager.h"
#include "testcatalog.h"
#include "testsupport.h"
#include "webfavorites/favoritesmanagertestpeer.h"

namespace kiv {

namespace {

using catalog::Path;
using testing::dump;
using testing::TestCatalog;

Path P(const wchar_t* s) { return Path(String(s)); }
String J(const char* utf8) { return String::fromUtf8(utf8); }

class FavoritesJsonTest : public testing::FavoritesTest {};

TEST_F(FavoritesJsonTest, WholeTreeIsReplacedInOrderAndPersisted) {
    auto m = managerWith("Old[ /shared/HR/Headcount ]");
    const char* json = R"([
        {"type": "1", "name": "Sales", "children": [
            {"type": "0", "path": "/shared/Sales/Report2"},
            {"type": "0", "path": "/shared/Sales/Report1"}]},
        {"type": "0", "path": "/shared/Sales/Report3"}])";
    EXPECT_EQ(m->updateAll(J(json)), favorites::kSuccess);
    EXPECT_EQ(tree(m), "Sales[ /shared/Sales/Report2 /shared/Sales/Report1 ] /shared/Sales/Report3");
    EXPECT_EQ(stored(), tree(m));
    EXPECT_FALSE(m->isFavorite(P(L"/shared/HR/Headcount")));
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report1")));
    EXPECT_FALSE(m->isDirty());
}

TEST_F(FavoritesJsonTest, EmptyArrayEmptiesAndPersistsTheFavorites) {
    auto m = managerWith("A[ /shared/Sales/Report1 ] /shared/Sales/Report2");
    EXPECT_EQ(m->updateAll(J("[]")), favorites::kSuccess);
    EXPECT_EQ(tree(m), "");
    EXPECT_EQ(stored(), "");
    EXPECT_FALSE(m->isFavorite(P(L"/shared/Sales/Report2")));
}

TEST_F(FavoritesJsonTest, TextThatIsNotJsonAlsoEmptiesAndPersistsWithoutError) {
    for (const char* bad : {"not json", "{\"type\": \"0\"}", "[1, 2", "", "\"[]\"", "42"}) {
        SCOPED_TRACE(bad);
        auto m = managerWith("/shared/Sales/Report1");
        EXPECT_EQ(m->updateAll(J(bad)), favorites::kSuccess);
        EXPECT_EQ(tree(m), "");
        EXPECT_EQ(stored(), "");
    }
}

TEST_F(FavoritesJsonTest, CategoryWithoutChildrenBecomesAnEmptyCategory) {
    auto m = managerWith("");
    EXPECT_EQ(m->updateAll(J(R"([{"type": "1", "name": "Empty"}])")), favorites::kSuccess);
    EXPECT_EQ(tree(m), "Empty[]");
}

TEST_F(FavoritesJsonTest, NestedChildrenThreeLevelsDeepAreAllBuilt) {
    auto m = managerWith("");
    const char* json = R"([{"type": "1", "name": "A", "children": [
        {"type": "1", "name": "B", "children": [
            {"type": "1", "name": "C", "children": [{"type": "0", "path": "/shared/Sales/Report1"}]},
            {"type": "0", "path": "/shared/Sales/Report2"}]}]}])";
    EXPECT_EQ(m->updateAll(J(json)), favorites::kSuccess);
    EXPECT_EQ(tree(m), "A[ B[ C[ /shared/Sales/Report1 ] /shared/Sales/Report2 ] ]");
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report1")));
}

TEST_F(FavoritesJsonTest, SamePathUnderTwoCategoriesIsCountedTwice) {
    auto m = managerWith("");
    const char* json = R"([{"type": "1", "name": "A", "children": [{"type": "0", "path": "/shared/Sales/Report1"}]},
                           {"type": "1", "name": "B", "children": [{"type": "0", "path": "/shared/Sales/Report1"}]}])";
    EXPECT_EQ(m->updateAll(J(json)), favorites::kSuccess);
    EXPECT_EQ(FavoritesManagerTestPeer::index(*m).count(P(L"/shared/Sales/Report1")), 2u);
}

TEST_F(FavoritesJsonTest, ElementsThatAreNotObjectsAreSkipped) {
    auto m = managerWith("");
    EXPECT_EQ(m->updateAll(J(R"([1, "x", null, [], {"type": "0", "path": "/shared/Sales/Report1"}, true])")),
              favorites::kSuccess);
    EXPECT_EQ(tree(m), "/shared/Sales/Report1");
}

TEST_F(FavoritesJsonTest, ElementWithoutTypeStopsTheBuildAndNothingIsWritten) {
    auto m = managerWith("/shared/HR/Headcount");
    const char* json = R"([{"type": "0", "path": "/shared/Sales/Report1"}, {"path": "/shared/Sales/Report2"},
                           {"type": "0", "path": "/shared/Sales/Report3"}])";
    EXPECT_EQ(m->updateAll(J(json)), favorites::kErrorInvalidFavoritesJson);
    EXPECT_EQ(tree(m), "/shared/Sales/Report1");  // what was built stays in memory
    EXPECT_EQ(stored(), "/shared/HR/Headcount");  // and is not written
}

TEST_F(FavoritesJsonTest, UnknownTypeIsReportedAndTheElementSkipped) {
    auto m = managerWith("");
    debug::ScopedAssertRecorder recorder;
    EXPECT_EQ(m->updateAll(J(R"([{"type": "7", "path": "/shared/Sales/Report1"}, {"type": 0, "path": "/shared/Sales/Report2"}])")),
              favorites::kSuccess);
    EXPECT_EQ(tree(m), "/shared/Sales/Report2");
    ASSERT_EQ(recorder.failures().size(), 1u);
    EXPECT_EQ(recorder.failures()[0].message, String(L"String enum value not found: 7"));
}

TEST_F(FavoritesJsonTest, DuplicateCatalogObjectInOneCategoryStopsWithAlreadyExists) {
    auto m = managerWith("/shared/HR/Headcount");
    const char* json = R"([{"type": "0", "path": "/shared/Sales/Report1"}, {"type": "0", "path": "/shared/Sales/Report1"},
                           {"type": "0", "path": "/shared/Sales/Report2"}])";
    EXPECT_EQ(m->updateAll(J(json)), favorites::kErrorItemAlreadyExists);
    EXPECT_EQ(tree(m), "/shared/Sales/Report1");
    EXPECT_EQ(stored(), "/shared/HR/Headcount");
}

TEST_F(FavoritesJsonTest, ErrorInsideACategoryDoesNotStopItsSiblings) {
    auto m = managerWith("");
    const char* json = R"([{"type": "1", "name": "A", "children": [{"path": "/no/type"}, {"type": "0", "path": "/x/never"}]},
                           {"type": "0", "path": "/shared/Sales/Report1"}])";
    EXPECT_EQ(m->updateAll(J(json)), favorites::kSuccess);
    EXPECT_EQ(tree(m), "A[] /shared/Sales/Report1");
}

TEST_F(FavoritesJsonTest, DuplicateCategoryIsDroppedButItsPathsAreCounted) {
    auto m = managerWith("");
    const char* json = R"([{"type": "1", "name": "A"}, {"type": "1", "name": "A", "children": [{"type": "0", "path": "/shared/Sales/Report1"}]}])";
    EXPECT_EQ(m->updateAll(J(json)), favorites::kSuccess);
    EXPECT_EQ(tree(m), "A[]");
    EXPECT_TRUE(m->isFavorite(P(L"/shared/Sales/Report1")));
}

TEST_F(FavoritesJsonTest, NumbersAndTextsAreAcceptedForTheType) {
    auto m = managerWith("");
    EXPECT_EQ(m->updateAll(J(R"([{"type": 1, "name": "A"}, {"type": "0", "path": "/shared/Sales/Report1"}])")),
              favorites::kSuccess);
    EXPECT_EQ(tree(m), "A[] /shared/Sales/Report1");
}

TEST_F(FavoritesJsonTest, UpdateAllDoesNotCheckSyncButTheSaveDoes) {
    auto m = managerWith("/shared/HR/Headcount");
    env.storeFavorites(L"alice", "/shared/Sales/Report3");  // another writer
    EXPECT_EQ(m->updateAll(J(R"([{"type": "0", "path": "/shared/Sales/Report1"}])")),
              favorites::kErrorFavoritesOutOfSync);
    EXPECT_EQ(tree(m), "/shared/Sales/Report1");  // the new tree stays in memory
    EXPECT_TRUE(m->isDirty());
    EXPECT_EQ(stored(), "/shared/Sales/Report3");
}

TEST_F(FavoritesJsonTest, ObjectsThatDoNotExistAreTakenAsGiven) {
    auto m = managerWith("");
    EXPECT_EQ(m->updateAll(J(R"([{"type": "0", "path": "/shared/Nowhere/Report"}])")), favorites::kSuccess);
    EXPECT_EQ(stored(), "/shared/Nowhere/Report");
}

TEST_F(FavoritesJsonTest, NonAsciiNamesAndPathsRoundTrip) {
    auto m = managerWith("");
    EXPECT_EQ(m->updateAll(J(R"([{"type": "1", "name": "Umsätze 東京 😀", "children": [{"type": "0", "path": "/shared/Ümlaut/Über"}]}])")),
              favorites::kSuccess);
    EXPECT_EQ(stored(), "Umsätze_東京_😀[ /shared/Ümlaut/Über ]");
}

TEST_F(FavoritesJsonTest, NestingDeeperThanTheLimitAddsNothing) {
    auto m = managerWith("/shared/Sales/Report1");
    std::string deep(100000, '[');
    deep += std::string(100000, ']');
    EXPECT_EQ(m->updateAll(J(deep.c_str())), favorites::kSuccess);
    EXPECT_EQ(tree(m), "");
}

TEST_F(FavoritesJsonTest, TextHoldingAnInvalidCharacterAddsNothing) {
    auto m = managerWith("/shared/Sales/Report1");
    String text(L"[{\"type\": \"0\", \"path\": \"/shared/x");
    text.push_back(static_cast<wchar_t>(0xD800));  // a lone surrogate
    text += L"\"}]";
    EXPECT_EQ(m->updateAll(text), favorites::kSuccess);
    EXPECT_EQ(tree(m), "");
}

TEST_F(FavoritesJsonTest, InvalidCatalogPathRaisesTheNameException) {
    auto m = managerWith("/shared/Sales/Report1");
    EXPECT_THROW(m->updateAll(J(R"([{"type": "0", "path": "relative/path"}])")), catalog::CatalogNameException);
    EXPECT_EQ(stored(), "/shared/Sales/Report1");
}

// --- One item ---------------------------------------------------------------------

TEST_F(FavoritesJsonTest, OneCatalogItemGoesBelowItsParentCategory) {
    auto m = managerWith("A[]");
    Handle<FavoritesItem> h;
    EXPECT_EQ(m->createFavoriteFromJson(J(R"({"type": "0", "path": "/shared/Sales/Report1", "favoritesParentPath": "/root/A"})"), h),
              favorites::kSuccess);
    ASSERT_FALSE(h.isNull());
    EXPECT_EQ(h->getPath(), P(L"/root/A/Report1"));
    EXPECT_EQ(h->getCatalogPath(), P(L"/shared/Sales/Report1"));
    EXPECT_EQ(tree(m), "A[]");  // made, not added
    EXPECT_EQ(m->addItem(h), favorites::kSuccess);
    EXPECT_EQ(stored(), "A[ /shared/Sales/Report1 ]");
}

TEST_F(FavoritesJsonTest, OneCategoryIsNamedByItsTypeText) {
    auto m = managerWith("");
    Handle<FavoritesItem> h;
    EXPECT_EQ(m->createFavoriteFromJson(J(R"({"type": "1", "name": "Sales", "favoritesParentPath": "/root"})"), h),
              favorites::kSuccess);
    EXPECT_EQ(h->getName().toString(), String(L"1"));
    EXPECT_EQ(h->getPath(), P(L"/root/1"));
}

TEST_F(FavoritesJsonTest, OneCategoryWithAnInvalidParentPathGoesBelowTheRoot) {
    auto m = managerWith("");
    Handle<FavoritesItem> h;
    EXPECT_EQ(m->createFavoriteFromJson(J(R"({"type": "1", "favoritesParentPath": "no slash"})"), h), favorites::kSuccess);
    EXPECT_EQ(h->getType(), favorites::kCategory);
    EXPECT_EQ(h->getPath(), P(L"/root/1"));
}

TEST_F(FavoritesJsonTest, OneItemFromBadTextOrANonObjectIsInvalidJson) {
    auto m = managerWith("");
    Handle<FavoritesItem> h;
    for (const char* bad : {"nope", "[]", "[{\"type\": \"0\"}]", "\"text\"", "{\"type\": \"0\""}) {
        SCOPED_TRACE(bad);
        EXPECT_EQ(m->createFavoriteFromJson(J(bad), h), favorites::kErrorInvalidFavoritesJson);
    }
    EXPECT_TRUE(h.isNull());
}

TEST_F(FavoritesJsonTest, OneItemWithAnUnknownTypeIsReportedAndInvalid) {
    auto m = managerWith("");
    Handle<FavoritesItem> h;
    debug::ScopedAssertRecorder recorder;
    EXPECT_EQ(m->createFavoriteFromJson(J(R"({"type": "x", "favoritesParentPath": "/root"})"), h),
              favorites::kErrorInvalidFavoritesJson);
    ASSERT_EQ(recorder.failures().size(), 1u);
    EXPECT_EQ(recorder.failures()[0].message, String(L"String enum value not found: x"));
}

TEST_F(FavoritesJsonTest, OneItemWithAMissingPropertyIsInvalid) {
    auto m = managerWith("");
    Handle<FavoritesItem> h;
    EXPECT_EQ(m->createFavoriteFromJson(J(R"({"favoritesParentPath": "/root"})"), h), favorites::kErrorInvalidFavoritesJson);
    EXPECT_EQ(m->createFavoriteFromJson(J(R"({"type": "0", "path": "/shared/x"})"), h), favorites::kErrorInvalidFavoritesJson);
    EXPECT_EQ(m->createFavoriteFromJson(J(R"({"type": "0", "favoritesParentPath": "/root"})"), h),
              favorites::kErrorInvalidFavoritesJson);
}

}  // namespace
}  // namespace kiv
