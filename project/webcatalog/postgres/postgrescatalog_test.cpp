// What only the PostgreSQL catalog has: opening a database schema, times
// from the database's clock, and write locks held by database sessions. The
// contract itself is tested by the conformance suite.
#include "qz/webcatalog/postgrescatalog.h"

#include <gtest/gtest.h>
#include <libpq-fe.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "webcatalog/conformance/catalogbackends.h"
#include "webcatalog/conformance/catalogtestsupport.h"

namespace kiv::catalog {
namespace {

using testing::RecordingWriter;
using testing::testPostgresConninfo;

// One statement on the test server; the first column of the first row.
std::string sql(const std::string& statement) {
    PGconn* c = PQconnectdb(testPostgresConninfo().c_str());
    if (PQstatus(c) != CONNECTION_OK) {
        PQfinish(c);
        throw std::runtime_error("cannot reach the test server");
    }
    PGresult* r = PQexec(c, statement.c_str());
    const ExecStatusType st = PQresultStatus(r);
    std::string value;
    if (st == PGRES_TUPLES_OK && PQntuples(r) > 0) value = PQgetvalue(r, 0, 0);
    const std::string why = PQresultErrorMessage(r);
    PQclear(r);
    PQfinish(c);
    if (st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK) throw std::runtime_error(statement + ": " + why);
    return value;
}

// A schema name of its own for each test, dropped at its end.
class PostgresCatalogTest : public ::testing::Test {
protected:
    void SetUp() override {
        static std::atomic<int> counter{0};
        options.schema = "pg" + std::to_string(::getpid()) + "_" + std::to_string(counter.fetch_add(1));
        options.maxConnections = 4;
    }
    void TearDown() override { sql("DROP SCHEMA IF EXISTS " + options.schema + " CASCADE"); }

    ReturnCode openError(const std::string& conninfo, const PostgresCatalog::Options& o, std::string* what = nullptr) {
        try {
            PostgresCatalog c(conninfo, o);
            return kSuccess;
        } catch (const CatalogException& e) {
            if (what) *what = e.what();
            return e.getCode();
        }
    }

    PostgresCatalog::Options options;
};

TEST_F(PostgresCatalogTest, AMissingCatalogWithoutCreateIsCatalogNotFoundAndNothingIsMade) {
    PostgresCatalog::Options o = options;
    o.create = false;
    EXPECT_EQ(openError(testPostgresConninfo(), o), kErrorCatalogNotFound);
    EXPECT_EQ(sql("SELECT count(*) FROM pg_namespace WHERE nspname = '" + options.schema + "'"), "0");
}

TEST_F(PostgresCatalogTest, ANewCatalogIsMadeWithItsSchemaVersion) {
    { PostgresCatalog c(testPostgresConninfo(), options); }
    EXPECT_EQ(sql("SELECT value FROM " + options.schema + ".meta WHERE key = 'schema_version'"),
              std::to_string(PostgresCatalog::kSchemaVersion));
    PostgresCatalog::Options o = options;
    o.create = false;
    EXPECT_EQ(openError(testPostgresConninfo(), o), kSuccess);
}

TEST_F(PostgresCatalogTest, ASchemaHoldingOtherTablesIsRefusedAndLeftUntouched) {
    sql("CREATE SCHEMA " + options.schema + "; CREATE TABLE " + options.schema + ".orders(id int); INSERT INTO " +
        options.schema + ".orders VALUES (7)");
    std::string what;
    EXPECT_EQ(openError(testPostgresConninfo(), options, &what), kErrorLoadingCatalog);
    EXPECT_NE(what.find("not a catalog of this system"), std::string::npos) << what;
    EXPECT_EQ(sql("SELECT count(*) FROM pg_tables WHERE schemaname = '" + options.schema + "'"), "1");
    EXPECT_EQ(sql("SELECT id FROM " + options.schema + ".orders"), "7");
}

TEST_F(PostgresCatalogTest, ACatalogOfAnotherSchemaVersionIsRefused) {
    { PostgresCatalog c(testPostgresConninfo(), options); }
    sql("UPDATE " + options.schema + ".meta SET value = 99 WHERE key = 'schema_version'");
    std::string what;
    EXPECT_EQ(openError(testPostgresConninfo(), options, &what), kErrorLoadingCatalog);
    EXPECT_NE(what.find("unsupported catalog schema version 99"), std::string::npos) << what;
}

TEST_F(PostgresCatalogTest, AVersion1CatalogIsUpgradedInPlaceAndThenKeepsHistory) {
    {
        PostgresCatalog c(testPostgresConninfo(), options);
        c.putObject(Path(L"/x"), L"s", {}, "body");
    }
    // Make the schema what version 1 made: no history table.
    sql("DROP TABLE " + options.schema + ".history; UPDATE " + options.schema +
        ".meta SET value = 1 WHERE key = 'schema_version'");
    PostgresCatalog c(testPostgresConninfo(), options);
    EXPECT_EQ(sql("SELECT value FROM " + options.schema + ".meta WHERE key = 'schema_version'"), "2");
    c.setHistoryPolicy({5, [](const Path&, const String&) { return true; }});
    c.putObject(Path(L"/x"), L"s", {}, "second");
    std::string body;
    c.readVersion(AccountToken(L"u"), Path(L"/x"), 1, body);
    EXPECT_EQ(body, "body");
    EXPECT_EQ(c.readRaw(Path(L"/x")), "second");
}

TEST_F(PostgresCatalogTest, AnUnreachableServerIsLoadingCatalogNamingTheCause) {
    std::string what;
    EXPECT_EQ(openError("postgresql://nobody@/none?host=/nonexistent-socket-dir", options, &what),
              kErrorLoadingCatalog);
    EXPECT_NE(what.find("nonexistent-socket-dir"), std::string::npos) << what;
}

TEST_F(PostgresCatalogTest, ServersStartingTogetherMakeOneCatalog) {
    std::vector<std::thread> threads;
    std::atomic<int> opened{0};
    for (int n = 0; n < 4; ++n) {
        threads.emplace_back([&] {
            try {
                PostgresCatalog c(testPostgresConninfo(), options);
                ++opened;
            } catch (const CatalogException&) {
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(opened.load(), 4);
    EXPECT_EQ(sql("SELECT count(*) FROM " + options.schema + ".items WHERE path = '/'"), "1");
}

TEST_F(PostgresCatalogTest, ModifiedTimesComeFromTheDatabaseClock) {
    PostgresCatalog c(testPostgresConninfo(), options);
    const AccountToken admin(L"root", {L"administrators"});
    const auto dbNow = [] { return std::stoll(sql("SELECT (extract(epoch from clock_timestamp()) * 1000000)::int8")); };
    const long long before = dbNow();
    RecordingWriter w("body");
    ASSERT_EQ(c.writeObject(admin, Path(L"/x"), w, tDefaultReplaceHelper), kSuccess);
    const long long after = dbNow();
    const Time t = w.written.getLastModifiedTime(kInfoResolved);
    EXPECT_GE(t, before);
    EXPECT_LE(t, after);
}

TEST_F(PostgresCatalogTest, AClockRunningBehindStillGivesIncreasingTimes) {
    PostgresCatalog c(testPostgresConninfo(), options);
    const AccountToken admin(L"root", {L"administrators"});
    // The store's last time far in the future, as after a clock step back.
    sql("UPDATE " + options.schema + ".meta SET value = 4102444800000000 WHERE key = 'clock'");
    RecordingWriter w("body");
    ASSERT_EQ(c.writeObject(admin, Path(L"/x"), w, tDefaultReplaceHelper), kSuccess);
    const Time first = w.written.getLastModifiedTime(kInfoResolved);
    EXPECT_GT(first, 4102444800000000);
    ASSERT_EQ(c.writeObject(admin, Path(L"/x"), w, tDefaultReplaceHelper), kSuccess);
    EXPECT_GT(w.written.getLastModifiedTime(kInfoResolved), first);
}

TEST_F(PostgresCatalogTest, AWriteLockWhoseSessionEndsIsReleased) {
    PostgresCatalog holder(testPostgresConninfo(), options);
    PostgresCatalog other(testPostgresConninfo(), options);
    std::unique_ptr<WriteLock> held = holder.lockForWriting(Path(L"/users/u/favorites"));
    std::atomic<bool> got{false};
    std::thread waiter([&] {
        std::unique_ptr<WriteLock> lock = other.lockForWriting(Path(L"/users/u/favorites"));
        got = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(got);
    // The holder's database session ends, as when its server is killed.
    // (The lock's key: this catalog's class id and a hash of schema and path.)
    const std::string holders = sql(
        "SELECT count(pg_terminate_backend(l.pid)) FROM pg_locks l WHERE l.locktype = 'advisory' AND l.granted "
        "AND l.classid = 1263097411 AND l.objid = (hashtext(E'" + options.schema +
        "\\n/users/u/favorites')::int8 & 4294967295)::oid");
    EXPECT_EQ(holders, "1");
    waiter.join();
    EXPECT_TRUE(got);
    held.reset();  // the unlock fails on the dead session and is dropped quietly
}

TEST_F(PostgresCatalogTest, ACatalogSurvivesItsConnectionsBeingCut) {
    // Named, so that only this catalog's connections are cut.
    PostgresCatalog c(testPostgresConninfo() + " application_name=" + options.schema, options);
    c.putObject(Path(L"/x"), L"s", {}, "body");
    const AccountToken user(L"u");
    ItemInfo i;
    ASSERT_EQ(c.getItemInfo(user, Path(L"/x"), i, false, true), kSuccess);
    EXPECT_NE(sql("SELECT count(pg_terminate_backend(pid)) FROM pg_stat_activity WHERE application_name = '" +
                  options.schema + "'"),
              "0");
    // The first call may meet the cut connection (kErrorIO); the pool then
    // drops it and the next call connects anew.
    const ReturnCode first = c.getItemInfo(user, Path(L"/x"), i, false, true);
    EXPECT_TRUE(first == kSuccess || first == kErrorIO) << first;
    EXPECT_EQ(c.getItemInfo(user, Path(L"/x"), i, false, true), kSuccess);
}

}  // namespace
}  // namespace kiv::catalog
