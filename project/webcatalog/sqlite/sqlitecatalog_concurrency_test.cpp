// Concurrent readers and writers on one catalog file from several threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "qz/webcatalog/sqlitecatalog.h"
#include "webcatalog/conformance/catalogtestsupport.h"

namespace kiv::catalog {
namespace {

using testing::RecordingReader;
using testing::RecordingWriter;
using testing::TempDir;

TEST(SqliteCatalogConcurrencyTest, ConcurrentReadersAndWritersOnOneFileSeeWholeObjectsAndIncreasingTimes) {
    TempDir dir;
    SqliteCatalog catalog(dir.file("c.db"));
    catalog.makeFolder(Path(L"/shared"));
    catalog.setAccess(Path(L"/shared"), L"everyone", true, Rights::kWrite);
    constexpr int kObjects = 4;
    auto pathOf = [](int n) { return Path(L"/shared/o" + std::to_wstring(n)); };
    auto bodyOf = [](int writer, int n) { return std::string(1000 + n % 7 * 100, static_cast<char>('a' + writer)); };
    for (int n = 0; n < kObjects; ++n) catalog.putObject(pathOf(n), L"test1", {}, bodyOf(0, 0));

    std::atomic<int> failures{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int w = 0; w < 2; ++w)
        threads.emplace_back([&, w] {
            const AccountToken user(L"writer" + std::to_wstring(w));
            for (int n = 0; n < 150; ++n) {
                RecordingWriter writer(bodyOf(w, n));
                if (catalog.writeObject(user, pathOf(n % kObjects), writer, tDefaultReplaceHelper) != kSuccess)
                    ++failures;
            }
        });
    std::vector<std::thread> readers;
    for (int r = 0; r < 3; ++r)
        readers.emplace_back([&, r] {
            const AccountToken user(L"reader" + std::to_wstring(r));
            std::vector<Time> last(kObjects, 0);
            int n = 0;
            while (!stop.load()) {
                const int o = n++ % kObjects;
                ItemInfo info;
                if (catalog.getItemInfo(user, pathOf(o), info, false, true) != kSuccess) {
                    ++failures;
                    continue;
                }
                // A reader never sees an object's time go back.
                if (info.getLastModifiedTime(kInfoResolved) < last[o]) ++failures;
                last[o] = info.getLastModifiedTime(kInfoResolved);
                RecordingReader reader;
                ItemInfo readInfo;
                if (catalog.readObject(user, pathOf(o), reader, readInfo, 0) != kSuccess) {
                    ++failures;
                    continue;
                }
                // Whole: one writer's letter throughout.
                if (reader.body.empty() || reader.body.find_first_not_of(reader.body[0]) != std::string::npos)
                    ++failures;
            }
        });
    for (auto& t : threads) t.join();
    stop = true;
    for (auto& t : readers) t.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(catalog.integrityCheck(), "ok");
}

TEST(SqliteCatalogConcurrencyTest, ConcurrentWritesOfOneObjectGetDistinctTimes) {
    TempDir dir;
    SqliteCatalog catalog(dir.file("c.db"));
    catalog.putObject(Path(L"/x"), L"test1", {}, "0");
    const AccountToken admin(L"root", {L"administrators"});
    constexpr int kThreads = 4;
    constexpr int kWrites = 40;
    std::vector<std::vector<Time>> times(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            RecordingWriter writer("body");
            for (int n = 0; n < kWrites; ++n)
                if (catalog.writeObject(admin, Path(L"/x"), writer, tDefaultReplaceHelper) == kSuccess)
                    times[t].push_back(writer.written.getLastModifiedTime(kInfoResolved));
        });
    for (auto& t : threads) t.join();
    std::vector<Time> all;
    for (const auto& own : times) {
        EXPECT_EQ(own.size(), static_cast<std::size_t>(kWrites));
        all.insert(all.end(), own.begin(), own.end());
    }
    std::sort(all.begin(), all.end());
    EXPECT_EQ(std::adjacent_find(all.begin(), all.end()), all.end());
}

TEST(SqliteCatalogConcurrencyTest, AnInMemoryCatalogServesSeveralThreads) {
    auto catalog = SqliteCatalog::openInMemory();
    catalog->putObject(Path(L"/x"), L"test1", {}, "0");
    const AccountToken admin(L"root", {L"administrators"});
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int n = 0; n < 200; ++n) {
                if (t % 2) {
                    RecordingWriter writer("b" + std::to_string(n));
                    if (catalog->writeObject(admin, Path(L"/x"), writer, tDefaultReplaceHelper) != kSuccess) ++failures;
                } else {
                    ItemInfo info;
                    if (catalog->getItemInfo(admin, Path(L"/x"), info, false, true) != kSuccess) ++failures;
                }
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
}

TEST(SqliteCatalogConcurrencyTest, ThreadsComingAndGoingShareThePooledConnections) {
    // Each round's threads find the connections the last round's threads
    // left, take them from one another, and hold some in read batches.
    TempDir dir;
    SqliteCatalog catalog(dir.file("c.db"));
    catalog.makeFolder(Path(L"/shared"));
    catalog.setAccess(Path(L"/shared"), L"everyone", true, Rights::kWrite);
    for (int n = 0; n < 4; ++n)
        catalog.putObject(Path(L"/shared/o" + std::to_wstring(n)), L"test1", {}, "body");
    std::atomic<int> failures{0};
    for (int round = 0; round < 4; ++round) {
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t)
            threads.emplace_back([&, t] {
                const AccountToken user(L"u" + std::to_wstring(t));
                for (int n = 0; n < 30; ++n) {
                    const Path p(L"/shared/o" + std::to_wstring((n + t) % 4));
                    std::unique_ptr<ReadBatch> batch = n % 10 == t ? catalog.beginReadBatch() : nullptr;
                    ItemInfo info;
                    if (catalog.getItemInfo(user, p, info, false, true) != kSuccess) ++failures;
                    if (n % 15 == t) {
                        RecordingWriter writer("w" + std::to_string(n));
                        if (catalog.writeObject(user, p, writer, tDefaultReplaceHelper) != kSuccess)
                            ++failures;
                    }
                }
            });
        for (auto& t : threads) t.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(catalog.integrityCheck(), "ok");
}

TEST(SqliteCatalogConcurrencyTest, AccessChangesDuringReadsAreSafe) {
    TempDir dir;
    SqliteCatalog catalog(dir.file("c.db"));
    catalog.putObject(Path(L"/a/x"), L"test1", {}, "0");
    std::atomic<bool> stop{false};
    std::atomic<int> unexpected{0};
    std::thread changer([&] {
        for (int n = 0; n < 100; ++n)
            catalog.setAccess(Path(L"/a"), L"everyone", true, n % 2 ? Rights::kRead : Rights::kNone);
        catalog.setAccess(Path(L"/a"), L"everyone", true, Rights::kRead);
        stop = true;
    });
    std::vector<std::thread> readers;
    for (int r = 0; r < 2; ++r)
        readers.emplace_back([&] {
            const AccountToken user(L"u");
            while (!stop.load()) {
                ItemInfo info;
                const ReturnCode rc = catalog.getItemInfo(user, Path(L"/a/x"), info, false, true);
                // While /a is closed, its items are not found.
                if (rc != kSuccess && rc != kErrorPathNotFound) ++unexpected;
            }
            ItemInfo info;
            if (catalog.getItemInfo(user, Path(L"/a/x"), info, false, true) != kSuccess) ++unexpected;
        });
    changer.join();
    for (auto& t : readers) t.join();
    EXPECT_EQ(unexpected.load(), 0);
}

}  // namespace
}  // namespace kiv::catalog
