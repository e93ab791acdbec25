// The stores the catalog contract suite runs against. Each test takes a
// fresh store and opens one or more catalog objects on it.
//   "sqlite-memory"  an in-memory SQLite catalog (one object per store)
//   "sqlite-file"    a SQLite catalog file in a temporary directory
//   "postgres"       a fresh schema of the test PostgreSQL server: the one
//                    named by the environment variable KIV_TEST_PG (a libpq
//                    connection string), or else the one the CTest fixture
//                    "postgres" started (scripts/pgtest.sh)
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "qz/webcatalog/managedcatalog.h"

namespace kiv::catalog::testing {

class TestStore {
public:
    virtual ~TestStore() = default;
    // A new catalog object on this store (for "sqlite-memory", the store's
    // only one: a second call raises std::logic_error).
    virtual std::unique_ptr<ManagedCatalog> open() = 0;
};

std::unique_ptr<TestStore> makeStore(const std::string& backend);
std::vector<std::string> allBackends();
// The back-ends whose stores several catalog objects may share.
std::vector<std::string> sharedBackends();
// A test-name suffix for a back-end ("sqlite-file" -> "SqliteFile").
std::string testName(const std::string& backend);

// The store's own soundness check, "ok" when sound: SQLite's integrity
// check for a SQLite catalog; for a PostgreSQL catalog, that the root folder
// is there and every other item has a parent folder.
std::string integrityOf(ManagedCatalog& catalog);

// The test server's connection string; raises std::runtime_error naming how
// to start one when there is none.
std::string testPostgresConninfo();

}  // namespace kiv::catalog::testing
