#include "qz/webcatalog/sqlitecatalog.h"

#include <gtest/gtest.h>

#include <thread>
#include <sqlite3.h>

#include <random>

#include "webcatalog/conformance/catalogtestsupport.h"

namespace kiv::catalog {
namespace {

using testing::NeverReplace;
using testing::readFileBytes;
using testing::RecordingReader;
using testing::RecordingWriter;
using testing::TempDir;
using testing::writeFileBytes;

class SqliteCatalogTest : public ::testing::Test {
protected:
    void SetUp() override {
        catalog = SqliteCatalog::openInMemory();
        catalog->addUser(L"alice", {L"sales"});
        catalog->addUser(L"bob", {L"finance"});
        catalog->addUser(L"root", {L"administrators"});
        alice = catalog->tokenFor(L"alice");
        bob = catalog->tokenFor(L"bob");
        admin = catalog->tokenFor(L"root");
        catalog->makeFolder(Path(L"/shared"));
        catalog->setAccess(Path(L"/shared"), L"everyone", true, Rights::kWrite);
        catalog->putObject(Path(L"/shared/report"), L"test1", {{L"owner", L"alice"}}, "report body");
    }

    ReturnCode info(const AccountToken& user, const wchar_t* path, ItemInfo& out, bool originalOnly = false) {
        return catalog->getItemInfo(user, Path(path, kUnchecked), out, originalOnly, true);
    }
    ReturnCode write(const AccountToken& user, const wchar_t* path, RecordingWriter& w) {
        return catalog->writeObject(user, Path(path, kUnchecked), w, tDefaultReplaceHelper);
    }
    ReturnCode read(const AccountToken& user, const wchar_t* path, RecordingReader& r) {
        ItemInfo i;
        return catalog->readObject(user, Path(path, kUnchecked), r, i, 0);
    }

    std::unique_ptr<SqliteCatalog> catalog;
    AccountToken alice, bob, admin;
};

// Read batches on a catalog file (an in-memory catalog has one connection and
// answers the hint with null).
class SqliteReadBatchTest : public ::testing::Test {
protected:
    void SetUp() override {
        catalog = std::make_unique<SqliteCatalog>(dir.file("catalog.db"));
        catalog->addUser(L"alice", {L"sales"});
        alice = catalog->tokenFor(L"alice");
        catalog->makeFolder(Path(L"/shared"));
        catalog->setAccess(Path(L"/shared"), L"everyone", true, Rights::kWrite);
        catalog->putObject(Path(L"/shared/report"), L"test1", {{L"owner", L"alice"}}, "report body");
    }
    ReturnCode info(const wchar_t* path, ItemInfo& out) {
        return catalog->getItemInfo(alice, Path(path, kUnchecked), out, false, true);
    }
    TempDir dir;
    std::unique_ptr<SqliteCatalog> catalog;
    AccountToken alice;
};

TEST_F(SqliteReadBatchTest, ReadBatchGivesTheSameAnswersAsSingleReads) {
    ItemInfo alone;
    ASSERT_EQ(info(L"/shared/report", alone), kSuccess);
    std::unique_ptr<ReadBatch> batch = catalog->beginReadBatch();
    ASSERT_NE(batch, nullptr);
    EXPECT_EQ(catalog->beginReadBatch(), nullptr);  // the open batch serves a nested one
    ItemInfo inBatch;
    ASSERT_EQ(info(L"/shared/report", inBatch), kSuccess);
    EXPECT_EQ(inBatch.getLastModifiedTime(kInfoResolved), alone.getLastModifiedTime(kInfoResolved));
    EXPECT_EQ(inBatch.getItemProperty(L"owner", L"", kInfoResolved), L"alice");
    ItemInfo missing;
    EXPECT_EQ(info(L"/shared/none", missing), kErrorPathNotFound);
}

TEST_F(SqliteReadBatchTest, WriteDuringAReadBatchOnTheSameThreadSucceedsAndIsSeenAfterIt) {
    std::unique_ptr<ReadBatch> batch = catalog->beginReadBatch();
    ASSERT_NE(batch, nullptr);
    ItemInfo before;
    ASSERT_EQ(info(L"/shared/report", before), kSuccess);
    RecordingWriter w("new body");
    EXPECT_EQ(catalog->writeObject(alice, Path(L"/shared/report"), w, tDefaultReplaceHelper), kSuccess);
    batch.reset();
    ItemInfo after;
    ASSERT_EQ(info(L"/shared/report", after), kSuccess);
    EXPECT_GT(after.getLastModifiedTime(kInfoResolved), before.getLastModifiedTime(kInfoResolved));
    EXPECT_EQ(catalog->readRaw(Path(L"/shared/report")), "new body");
}

TEST_F(SqliteReadBatchTest, ABatchOnOneThreadDoesNotServeAnother) {
    std::unique_ptr<ReadBatch> batch = catalog->beginReadBatch();
    bool otherGotABatch = false;
    ReturnCode otherRead = kErrorOther;
    std::thread t([&] {
        std::unique_ptr<ReadBatch> other = catalog->beginReadBatch();
        otherGotABatch = other != nullptr;
        ItemInfo i;
        otherRead = info(L"/shared/report", i);
    });
    t.join();
    EXPECT_NE(batch, nullptr);
    EXPECT_TRUE(otherGotABatch);
    EXPECT_EQ(otherRead, kSuccess);
}

TEST_F(SqliteCatalogTest, InMemoryCatalogAnswersTheBatchHintWithNull) {
    EXPECT_EQ(catalog->beginReadBatch(), nullptr);
    ItemInfo i;
    EXPECT_EQ(info(alice, L"/shared/report", i), kSuccess);
}

TEST_F(SqliteCatalogTest, BaseCatalogMakesNothingOfTheBatchHint) {
    struct Minimal : Catalog {
        ReturnCode deleteObject(const AccountToken&, const Path&) override { return kSuccess; }
        ReturnCode readObject(const AccountToken&, const Path&, Reader&, ItemInfo&, unsigned) override { return kSuccess; }
        ReturnCode writeObject(const AccountToken&, const Path&, Writer&, const ReplaceHelper&) override { return kSuccess; }
        ReturnCode getItemInfo(const AccountToken&, const Path&, ItemInfo&, bool, bool) override { return kSuccess; }
    } minimal;
    EXPECT_EQ(minimal.beginReadBatch(), nullptr);
}

TEST_F(SqliteCatalogTest, ReadObjectSetsTheCatalogUpgradeModeOnTheReader) {
    RecordingReader r;
    r.setUpgradeMode(Reader::kUpgradeNone);
    ASSERT_EQ(read(alice, L"/shared/report", r), kSuccess);
    EXPECT_EQ(r.modeAtPreInspect, Reader::kUpgradeAuto);
    catalog->setReaderUpgradeMode(Reader::kUpgradeAbort);
    ASSERT_EQ(read(alice, L"/shared/report", r), kSuccess);
    EXPECT_EQ(r.modeAtPreInspect, Reader::kUpgradeAbort);
}

// --- files ------------------------------------------------------------------

TEST(SqliteCatalogFileTest, AFileCatalogKeepsItsContentAcrossOpens) {
    TempDir dir;
    const std::string file = dir.file("c.db");
    {
        SqliteCatalog c(file);
        c.putObject(Path(L"/x/y"), L"s", {{L"p", L"v"}}, "body");
        c.addUser(L"u", {L"g"});
    }
    SqliteCatalog c(file);
    EXPECT_EQ(c.readRaw(Path(L"/x/y")), "body");
    EXPECT_EQ(c.tokenFor(L"u").getGroups().size(), 1u);
    EXPECT_EQ(c.fileName(), file);
}

TEST(SqliteCatalogFileTest, AFileCatalogIsInWalModeWithItsSchemaVersion) {
    TempDir dir;
    const std::string file = dir.file("c.db");
    { SqliteCatalog c(file); }
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
    auto pragma = [db](const char* sql) {
        sqlite3_stmt* s = nullptr;
        sqlite3_prepare_v2(db, sql, -1, &s, nullptr);
        std::string v;
        if (sqlite3_step(s) == SQLITE_ROW) v = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
        sqlite3_finalize(s);
        return v;
    };
    EXPECT_EQ(pragma("PRAGMA journal_mode"), "wal");
    EXPECT_EQ(pragma("PRAGMA user_version"), std::to_string(SqliteCatalog::kSchemaVersion));
    sqlite3_close(db);
}

ReturnCode openError(const std::string& file, std::string* message = nullptr) {
    try {
        SqliteCatalog c(file);
        return kSuccess;
    } catch (const CatalogException& e) {
        if (message) *message = e.what();
        return e.getCode();
    }
}

TEST(SqliteCatalogFileTest, ANonSqliteFileIsRefusedAndLeftUnchanged) {
    TempDir dir;
    const std::string file = dir.file("notes.txt");
    const std::string bytes = "These are not the bytes of a database.\n" + std::string(5000, 'x');
    writeFileBytes(file, bytes);
    std::string message;
    EXPECT_EQ(openError(file, &message), kErrorLoadingCatalog);
    EXPECT_NE(message.find(file), std::string::npos) << message;
    EXPECT_EQ(readFileBytes(file), bytes);
}

TEST(SqliteCatalogFileTest, AForeignSqliteDatabaseIsRefusedAndLeftUnchanged) {
    TempDir dir;
    const std::string file = dir.file("foreign.db");
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE t(a); INSERT INTO t VALUES (1);", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
    const std::string bytes = readFileBytes(file);
    std::string message;
    EXPECT_EQ(openError(file, &message), kErrorLoadingCatalog);
    EXPECT_NE(message.find("not a catalog"), std::string::npos) << message;
    EXPECT_EQ(readFileBytes(file), bytes);
}

TEST(SqliteCatalogFileTest, ACatalogOfAnotherSchemaVersionIsRefusedAndLeftUnchanged) {
    TempDir dir;
    const std::string file = dir.file("c.db");
    { SqliteCatalog c(file); }
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "PRAGMA user_version = 99; PRAGMA wal_checkpoint(TRUNCATE);", nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);
    const std::string bytes = readFileBytes(file);
    std::string message;
    EXPECT_EQ(openError(file, &message), kErrorLoadingCatalog);
    EXPECT_NE(message.find("version 99"), std::string::npos) << message;
    EXPECT_EQ(readFileBytes(file), bytes);
}

TEST(SqliteCatalogFileTest, AVersion1CatalogIsUpgradedInPlaceKeepingItsContent) {
    TempDir dir;
    const std::string file = dir.file("c.db");
    {
        SqliteCatalog c(file);
        c.putObject(Path(L"/x/y"), L"s", {}, "body");
        c.addUser(L"u", {L"g"});
    }
    // Make the file what version 1 wrote: users without a password column.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "ALTER TABLE users DROP COLUMN password; DROP TABLE history; PRAGMA user_version = 1;",
                           nullptr, nullptr, nullptr),
              SQLITE_OK);
    sqlite3_close(db);

    SqliteCatalog c(file);
    EXPECT_EQ(c.readRaw(Path(L"/x/y")), "body");
    EXPECT_EQ(c.tokenFor(L"u").getGroups().size(), 1u);
    EXPECT_EQ(c.passwordHash(L"u"), "");
    c.setPasswordHash(L"u", "$argon2id$h");
    EXPECT_EQ(c.passwordHash(L"u"), "$argon2id$h");
}

TEST(SqliteCatalogFileTest, AVersion2CatalogIsUpgradedInPlaceAndThenKeepsHistory) {
    TempDir dir;
    const std::string file = dir.file("c.db");
    {
        SqliteCatalog c(file);
        c.putObject(Path(L"/x/y"), L"s", {}, "body");
    }
    // Make the file what version 2 wrote: no history table.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(file.c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "DROP TABLE history; PRAGMA user_version = 2;", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);

    SqliteCatalog c(file);
    c.setHistoryPolicy({5, [](const Path&, const String&) { return true; }});
    c.putObject(Path(L"/x/y"), L"s", {}, "second");
    std::string body;
    c.readVersion(AccountToken(L"u"), Path(L"/x/y"), 1, body);
    EXPECT_EQ(body, "body");
}

TEST(SqliteCatalogFileTest, AnEmptyFileIsRefusedAndLeftEmptyUnlessCreatingWasAsked) {
    TempDir dir;
    const std::string file = dir.file("empty.db");
    writeFileBytes(file, "");
    SqliteCatalog::Options existing;
    existing.create = false;
    try {
        SqliteCatalog c(file, existing);
        FAIL() << "an empty file was opened as a catalog";
    } catch (const CatalogException& e) {
        EXPECT_EQ(e.getCode(), kErrorLoadingCatalog);
        EXPECT_NE(std::string(e.what()).find("empty"), std::string::npos) << e.what();
    }
    EXPECT_EQ(readFileBytes(file), "");
    SqliteCatalog created(file);  // create = true (the default)
    EXPECT_TRUE(created.exists(Path(L"/")));
}

TEST(SqliteCatalogFileTest, ACorruptCatalogFileIsRefusedAndLeftUnchanged) {
    TempDir dir;
    const std::string file = dir.file("c.db");
    {
        SqliteCatalog c(file);
        c.putObject(Path(L"/x"), L"s", {}, "body");
    }
    std::string bytes = readFileBytes(file);
    ASSERT_GT(bytes.size(), 100u);
    for (std::size_t i = 16; i < 100; ++i) bytes[i] = static_cast<char>(0xA5);
    writeFileBytes(file, bytes);
    EXPECT_EQ(openError(file), kErrorLoadingCatalog);
    EXPECT_EQ(readFileBytes(file), bytes);
}

TEST(SqliteCatalogFileTest, AnEmptyFileBecomesANewCatalog) {
    TempDir dir;
    const std::string file = dir.file("empty.db");
    writeFileBytes(file, "");
    SqliteCatalog c(file);
    EXPECT_TRUE(c.exists(Path(L"/")));
}

TEST(SqliteCatalogFileTest, AMissingFileWithoutCreateIsCatalogNotFound) {
    TempDir dir;
    SqliteCatalog::Options options;
    options.create = false;
    try {
        SqliteCatalog c(dir.file("missing.db"), options);
        FAIL() << "no exception";
    } catch (const CatalogException& e) {
        EXPECT_EQ(e.getCode(), kErrorCatalogNotFound);
    }
}

TEST(SqliteCatalogFileTest, ACatalogOpenedAfterAnotherWasDestroyedAnswersFromItsOwnFile) {
    // The second catalog may well live at the address of the first: the
    // connection a thread used last must not be taken for the new catalog's.
    TempDir dir;
    const AccountToken user(L"u");
    for (int n = 0; n < 4; ++n) {
        auto c = std::make_unique<SqliteCatalog>(dir.file("c" + std::to_string(n) + ".db"));
        c->putObject(Path(L"/only" + std::to_wstring(n)), L"s" + std::to_wstring(n), {}, "body");
        ItemInfo i;
        ASSERT_EQ(c->getItemInfo(user, Path(L"/only" + std::to_wstring(n)), i, false, true), kSuccess);
        EXPECT_EQ(i.getObjectSignature(kInfoResolved), L"s" + std::to_wstring(n));
        if (n > 0) {
            EXPECT_EQ(c->getItemInfo(user, Path(L"/only" + std::to_wstring(n - 1)), i, false, true),
                      kErrorPathNotFound);
        }
    }
}

TEST(SqliteCatalogFileTest, OneThreadUsingTwoCatalogsInTurnGetsEachItsOwnAnswers) {
    TempDir dir;
    SqliteCatalog first(dir.file("a.db"));
    SqliteCatalog second(dir.file("b.db"));
    first.putObject(Path(L"/x"), L"first", {}, "1");
    second.putObject(Path(L"/x"), L"second", {}, "2");
    const AccountToken user(L"u");
    for (int n = 0; n < 10; ++n) {
        SqliteCatalog& c = n % 2 ? second : first;
        ItemInfo i;
        ASSERT_EQ(c.getItemInfo(user, Path(L"/x"), i, false, true), kSuccess);
        EXPECT_EQ(i.getObjectSignature(kInfoResolved), n % 2 ? L"second" : L"first");
    }
}

}  // namespace
}  // namespace kiv::catalog
