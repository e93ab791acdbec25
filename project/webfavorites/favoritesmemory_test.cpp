// Every item and document a manager allocates is freed with it.
#include <gtest/gtest.h>

#include "qz/platform/memalloc.h"
#include "qz/webfavorites/favoritesmanager.h"
#include "testcatalog.h"

namespace kiv {
namespace {

using testing::TestCatalog;

TEST(FavoritesMemoryTest, DestroyingAManagerWithAThousandFavoritesFreesEveryItemAndDocument) {
    TestCatalog env;
    std::string notation;
    for (int c = 0; c < 100; ++c) {
        notation += "C" + std::to_string(c) + "[ ";
        for (int i = 0; i < 10; ++i) {
            const std::string path = "/shared/Big/C" + std::to_string(c) + "/R" + std::to_string(i);
            env.admin().putObject(catalog::Path(String::fromUtf8(path)), String(L"report1"), {}, "r");
            notation += path + " ";
        }
        notation += "] ";
    }
    env.storeFavorites(L"alice", notation);
    const memalloc::Counts before = memalloc::MemoryAllocatorGateway::liveCounts("project/webfavorites/favoritesmanager");
    {
        Handle<FavoritesManager> m(new FavoritesManager(env.catalog(), env.alice, TestCatalog::favoritesPath(L"alice")));
        FavoritesItems found;
        ASSERT_TRUE(m->findFavoritesItemsByCatalogPath(catalog::Path(String(L"/shared/Big/C7/R3")), found));
        // Edits allocate too: a save's document, a deletion's probe item.
        Handle<FavoritesItem> h;
        m->createFavoriteCatalogObject(String(L"/shared/Big/C7/R3"), String(L"/root/C7"), h);
        ASSERT_EQ(m->deleteItem(h, false), favorites::kSuccess);
        const memalloc::Counts during =
            memalloc::MemoryAllocatorGateway::liveCounts("project/webfavorites/favoritesmanager");
        EXPECT_GE(during.blocks - before.blocks, 1000 + 100);  // leaves and categories at least
    }
    const memalloc::Counts after = memalloc::MemoryAllocatorGateway::liveCounts("project/webfavorites/favoritesmanager");
    EXPECT_EQ(after.blocks, before.blocks);
    EXPECT_EQ(after.bytes, before.bytes);
}

}  // namespace
}  // namespace kiv
