#include "qz/webfavorites/synchrobins.h"

#include <gtest/gtest.h>

#include "qz/webfavorites/favoritesmanager.h"

namespace kiv {
namespace {

using Map = FavoritesManager::CatalogItemsMap;
catalog::Path P(const wchar_t* s) { return catalog::Path(String(s)); }

TEST(SynchroBinsTest, DefaultScalingGivesSeventeenBins) {
    Map map(1.0);
    EXPECT_EQ(map.binCount(), 17u);
}

TEST(SynchroBinsTest, BinCountScalesAndTruncates) {
    EXPECT_EQ(Map(2.0).binCount(), 34u);
    EXPECT_EQ(Map(0.5).binCount(), 8u);  // 8.5 truncated
}

TEST(SynchroBinsTest, ScalingBelowOneSeventeenthStillGivesOneWorkingBin) {
    Map map(0.01);
    ASSERT_EQ(map.binCount(), 1u);
    map.set(P(L"/a"), 1);
    map.set(P(L"/b"), 1);
    EXPECT_TRUE(map.has(P(L"/a")));
    EXPECT_TRUE(map.has(P(L"/b")));
    EXPECT_FALSE(map.has(P(L"/c")));
    EXPECT_EQ(Map(0.0).binCount(), 1u);
    EXPECT_EQ(Map(-3.0).binCount(), 1u);
}

TEST(SynchroBinsTest, AKeyLivesInTheBinOfItsHashModuloTheBinCount) {
    Map map(1.0);
    const catalog::Path p = P(L"/shared/Sales/Dashboard");
    EXPECT_EQ(map.binOf(p), std::hash<catalog::Path>()(p) % 17);
    map.set(p, 3);
    EXPECT_EQ(map.bucket(map.binOf(p)).m_map.count(p), 1u);
}

TEST(SynchroBinsTest, GetAndUpdateChangesOnlyPresentKeysAndCountsOperations) {
    Map map(1.0);
    const catalog::Path p = P(L"/a");
    unsigned value = 0;
    auto add = [](unsigned& v) { ++v; };
    EXPECT_FALSE(map.get_and_update(p, value, add));
    EXPECT_FALSE(map.has(p));
    map.set(p, 1);
    EXPECT_TRUE(map.get_and_update(p, value, add));
    EXPECT_EQ(value, 2u);
    EXPECT_EQ(map.count(p), 2u);
    EXPECT_EQ(map.bucket(map.binOf(p)).m_nOps, 2u);  // both read-modify-writes
}

TEST(SynchroBinsTest, SetOverwritesAndClearEmptiesEveryBin) {
    Map map(1.0);
    for (int i = 0; i < 100; ++i) map.set(catalog::Path(String(L"/p") + std::to_wstring(i)), 5);
    map.set(P(L"/p1"), 1);
    EXPECT_EQ(map.count(P(L"/p1")), 1u);
    EXPECT_EQ(map.size(), 100u);
    map.clear();
    EXPECT_EQ(map.size(), 0u);
    EXPECT_FALSE(map.has(P(L"/p1")));
}

}  // namespace
}  // namespace kiv
