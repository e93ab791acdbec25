#include "qz/webfavorites/stringtoenummap.h"

#include <gtest/gtest.h>

#include "qz/platform/assert.h"
#include "qz/webfavorites/favoritesmanager.h"

namespace kiv {
namespace {

enum class Colour { kRed = 0, kGreen = 1, kBlue = 2 };

const StringToEnumMap<Colour>::Entry kColours[] = {
    {Colour::kRed, L"red"}, {Colour::kGreen, L"green"}, {Colour::kBlue, L"blue"}};

TEST(StringToEnumMapTest, EveryKeyFindsItsValue) {
    StringToEnumMap<Colour> map(kColours);
    EXPECT_EQ(map.size(), 3u);
    EXPECT_EQ(map.getEnum(String(L"red")), Colour::kRed);
    EXPECT_EQ(map.getEnum(String(L"green")), Colour::kGreen);
    EXPECT_EQ(map.getEnum(String(L"blue")), Colour::kBlue);
}

TEST(StringToEnumMapTest, AMissReportsTheKeyAndYieldsMinusOne) {
    StringToEnumMap<Colour> map(kColours);
    debug::ScopedAssertRecorder recorder;
    EXPECT_EQ(static_cast<int>(map.getEnum(String(L"grey"))), -1);
    ASSERT_EQ(recorder.failures().size(), 1u);
    EXPECT_EQ(recorder.failures()[0].message, String(L"String enum value not found: grey"));
    EXPECT_EQ(recorder.failures()[0].severity, 5);
}

TEST(StringToEnumMapTest, AKeySortingAfterEveryKeyIsAMissNotAnOutOfRangeRead) {
    StringToEnumMap<Colour> map(kColours);
    debug::ScopedAssertRecorder recorder;
    EXPECT_EQ(static_cast<int>(map.getEnum(String(L"zzzz"))), -1);
    EXPECT_EQ(static_cast<int>(map.getEnum(String(L""))), -1);  // sorts before every key
    EXPECT_EQ(recorder.failures().size(), 2u);
}

TEST(StringToEnumMapTest, KeysAreCaseSensitive) {
    StringToEnumMap<Colour> map(kColours);
    debug::ScopedAssertRecorder recorder;
    EXPECT_EQ(static_cast<int>(map.getEnum(String(L"Red"))), -1);
}

TEST(StringToEnumMapTest, FavoritesTypeMapsHoldTheirTexts) {
    debug::ScopedAssertRecorder recorder;
    EXPECT_EQ(kmapFavoritesJSONTypes.getEnum(String(L"0")), favorites::kCatalogObject);
    EXPECT_EQ(kmapFavoritesJSONTypes.getEnum(String(L"1")), favorites::kCategory);
    EXPECT_EQ(kmapFavoritesTypes.getEnum(String(L"catalogObject")), favorites::kCatalogObject);
    EXPECT_EQ(kmapFavoritesTypes.getEnum(String(L"category")), favorites::kCategory);
    EXPECT_EQ(static_cast<int>(kmapFavoritesJSONTypes.getEnum(String(L"2"))), -1);
    EXPECT_EQ(recorder.failures().size(), 1u);
}

}  // namespace
}  // namespace kiv
