#include "qz/webfavorites/synchrobins.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>

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
    auto& bin = map.bucket(map.binOf(p));
    CriticalSectionLock lock(bin.m_lock);
    EXPECT_EQ(bin.m_map.count(p), 1u);
}

TEST(SynchroBinsTest, TheBinIsTheHashModuloTheBinCountForEveryHashAndCount) {
    // Keys that are their own hash, so that any 64-bit hash can be tried.
    struct Identity {
        std::uint64_t operator()(std::uint64_t k) const noexcept { return k; }
    };
    using Bins = SynchroBins<std::map<std::uint64_t, unsigned>, 1, Identity, CriticalSection>;
    std::mt19937_64 rng(17);
    for (double count : {1.0, 2.0, 3.0, 7.0, 16.0, 17.0, 34.0, 1000.0, 4099.0}) {
        const Bins bins(count);
        const auto d = static_cast<std::uint64_t>(count);
        ASSERT_EQ(bins.binCount(), d);
        for (std::uint64_t h : {std::uint64_t{0}, std::uint64_t{1}, d - 1, d, d + 1, ~std::uint64_t{0},
                                ~std::uint64_t{0} - 1, std::uint64_t{1} << 63, (std::uint64_t{1} << 63) - 1})
            EXPECT_EQ(bins.binOf(h), h % d) << h << " " << d;
        for (int i = 0; i < 20000; ++i) {
            const std::uint64_t h = rng();
            ASSERT_EQ(bins.binOf(h), h % d) << h << " " << d;
            ASSERT_EQ(bins.binOf(h >> (i % 64)), (h >> (i % 64)) % d) << h << " " << d;
        }
    }
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
    auto& bin = map.bucket(map.binOf(p));
    CriticalSectionLock lock(bin.m_lock);
    EXPECT_EQ(bin.m_nOps, 2u);  // both read-modify-writes
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
