// Readers of the favorites index and tree while one thread edits and reloads.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "qz/webfavorites/favoritesmanager.h"
#include "testcatalog.h"
#include "testsupport.h"
#include "webfavorites/favoritesmanagertestpeer.h"

namespace kiv {

namespace {

using catalog::Path;
using testing::TestCatalog;

TEST(FavoritesConcurrencyTest, IsFavoriteFromManyThreadsWhileOneThreadEditsAndReloads) {
    TestCatalog env;
    env.storeFavorites(L"alice", "Sales[ /shared/Sales/Report1 ] /shared/HR/Headcount");
    Handle<FavoritesManager> m(new FavoritesManager(env.catalog(), env.alice, TestCatalog::favoritesPath(L"alice")));
    const Path always(String(L"/shared/HR/Headcount"));
    const Path toggled(String(L"/shared/Sales/Report2"));

    std::atomic<bool> stop{false};
    std::atomic<long> wrongAnswers{0};
    std::atomic<long> queries{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&] {
            // At least some queries each, also if the writer is done first.
            for (int local = 0; !stop.load() || local < 200; ++local) {
                // Headcount is a favorite throughout, except while a reload
                // has emptied the index; Report2 comes and goes.
                m->isFavorite(always);
                m->isFavorite(toggled);
                if (m->isFavorite(Path(String(L"/never/a/favorite")))) ++wrongAnswers;
                ++queries;
            }
        });
    }
    for (int round = 0; round < 40; ++round) {
        Handle<FavoritesItem> h;
        m->createFavoriteCatalogObject(toggled.toString(), String(L"/root/Sales"), h);
        ASSERT_EQ(m->addItem(h), favorites::kSuccess);
        ASSERT_EQ(m->deleteItem(h, false), favorites::kSuccess);
        if (round % 5 == 0) {
            ASSERT_EQ(FavoritesManagerTestPeer::load(*m), catalog::kSuccess);
        }
    }
    stop = true;
    for (auto& t : readers) t.join();
    EXPECT_EQ(wrongAnswers.load(), 0);
    EXPECT_GT(queries.load(), 0);
    EXPECT_TRUE(m->isFavorite(always));
    EXPECT_FALSE(m->isFavorite(toggled));
}

TEST(FavoritesConcurrencyTest, FolderReadersAndWritersOnOneFolder) {
    Handle<FavoritesItem> root = testing::buildTree("");
    std::atomic<bool> stop{false};
    std::vector<std::thread> readers;
    std::atomic<long> walks{0};
    for (int t = 0; t < 2; ++t) {
        readers.emplace_back([&] {
            FavoritesVisitor v;
            for (int local = 0; !stop.load() || local < 200; ++local) {
                FavoritesItems children;
                root->getChildren(children, nullptr);
                root->accept(v, true, false);
                ++walks;
            }
        });
    }
    for (int i = 0; i < 300; ++i) {
        Handle<FavoritesItem> item(new FavoriteCatalogItem(root->getPath(), Path(String(L"/shared/r") + std::to_wstring(i))));
        ASSERT_EQ(root->addChild(item), favorites::kSuccess);
        if (i % 3 == 0) {
            ASSERT_EQ(root->removeChild(item), favorites::kSuccess);
        }
    }
    stop = true;
    for (auto& t : readers) t.join();
    EXPECT_EQ(dynamic_cast<FavoriteFolder&>(*root).getChildrenCount(), 200u);
    EXPECT_GT(walks.load(), 0);
}

TEST(FavoritesConcurrencyTest, HandlesToOneItemCopiedAndDroppedOnManyThreads) {
    Handle<FavoritesItem> root = testing::buildTree("A[ /shared/x ]");
    FavoritesItems children;
    root->getChildren(children, nullptr);
    Handle<FavoritesItem> shared = children[0];
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([shared] {
            for (int i = 0; i < 10000; ++i) {
                Handle<FavoritesItem> copy = shared;
                Handle<FavoritesItem> other(copy);
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(shared->getRefCount(), 3);  // shared, children[0], the folder
}

}  // namespace
}  // namespace kiv
