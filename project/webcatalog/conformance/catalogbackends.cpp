#include "webcatalog/conformance/catalogbackends.h"

#include <libpq-fe.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "qz/webcatalog/postgrescatalog.h"
#include "qz/webcatalog/sqlitecatalog.h"
#include "webcatalog/conformance/catalogtestsupport.h"

namespace kiv::catalog::testing {

namespace {

class MemoryStore : public TestStore {
public:
    std::unique_ptr<ManagedCatalog> open() override {
        if (m_opened) throw std::logic_error("an in-memory catalog is one object");
        m_opened = true;
        return SqliteCatalog::openInMemory();
    }

private:
    bool m_opened = false;
};

class FileStore : public TestStore {
public:
    std::unique_ptr<ManagedCatalog> open() override { return std::make_unique<SqliteCatalog>(m_dir.file("c.db")); }

private:
    TempDir m_dir;
};

// Runs one command on the test server.
void runSql(const std::string& conninfo, const std::string& sql) {
    PGconn* c = PQconnectdb(conninfo.c_str());
    if (PQstatus(c) != CONNECTION_OK) {
        const std::string why = PQerrorMessage(c);
        PQfinish(c);
        throw std::runtime_error("cannot reach the test PostgreSQL server: " + why);
    }
    PGresult* r = PQexec(c, sql.c_str());
    const bool ok = PQresultStatus(r) == PGRES_COMMAND_OK;
    const std::string why = PQresultErrorMessage(r);
    PQclear(r);
    PQfinish(c);
    if (!ok) throw std::runtime_error(sql + ": " + why);
}

class PostgresStore : public TestStore {
public:
    PostgresStore() : m_conninfo(testPostgresConninfo()) {
        static std::atomic<int> counter{0};
        m_options.schema = "t" + std::to_string(::getpid()) + "_" + std::to_string(counter.fetch_add(1));
        m_options.maxConnections = 4;
    }
    ~PostgresStore() override {
        try {
            runSql(m_conninfo, "DROP SCHEMA IF EXISTS " + m_options.schema + " CASCADE");
        } catch (const std::exception&) {
            // The server is going away with the fixture; nothing to keep.
        }
    }
    std::unique_ptr<ManagedCatalog> open() override {
        return std::make_unique<PostgresCatalog>(m_conninfo, m_options);
    }

private:
    std::string m_conninfo;
    PostgresCatalog::Options m_options;
};

}  // namespace

std::string testPostgresConninfo() {
    if (const char* env = std::getenv("KIV_TEST_PG"); env && *env) return env;
    std::ifstream in(KIV_TEST_PG_CONNINFO);
    std::string conninfo;
    std::getline(in, conninfo);
    if (conninfo.empty())
        throw std::runtime_error(
            "no test PostgreSQL server: run the tests through ctest (its fixture \"postgres\" starts one), or "
            "start one with 'scripts/pgtest.sh start DIR' and set KIV_TEST_PG to the contents of DIR/conninfo");
    return conninfo;
}

std::unique_ptr<TestStore> makeStore(const std::string& backend) {
    if (backend == "sqlite-memory") return std::make_unique<MemoryStore>();
    if (backend == "sqlite-file") return std::make_unique<FileStore>();
    if (backend == "postgres") return std::make_unique<PostgresStore>();
    throw std::invalid_argument("unknown catalog back-end " + backend);
}

std::string integrityOf(ManagedCatalog& catalog) {
    if (auto* sqlite = dynamic_cast<SqliteCatalog*>(&catalog)) return sqlite->integrityCheck();
    auto* pg = dynamic_cast<PostgresCatalog*>(&catalog);
    if (!pg) return "no integrity check for this catalog";
    // The database checks its own pages; what the catalog must keep is its
    // tree: the root, and a parent folder for every other item.
    PGconn* c = PQconnectdb(testPostgresConninfo().c_str());
    const std::string sql = "SELECT (SELECT count(*) FROM " + pg->schema() + ".items WHERE path = '/' AND kind = 1), "
                            "(SELECT count(*) FROM " + pg->schema() + ".items i WHERE i.path <> '/' AND NOT EXISTS "
                            "(SELECT 1 FROM " + pg->schema() + ".items p WHERE p.path = i.parent AND p.kind = 1))";
    PGresult* r = PQexec(c, sql.c_str());
    std::string answer;
    if (PQresultStatus(r) != PGRES_TUPLES_OK)
        answer = PQresultErrorMessage(r);
    else if (std::string(PQgetvalue(r, 0, 0)) != "1")
        answer = "the root folder is missing";
    else if (std::string(PQgetvalue(r, 0, 1)) != "0")
        answer = std::string(PQgetvalue(r, 0, 1)) + " items without a parent folder";
    else
        answer = "ok";
    PQclear(r);
    PQfinish(c);
    return answer;
}

std::vector<std::string> allBackends() { return {"sqlite-memory", "sqlite-file", "postgres"}; }
std::vector<std::string> sharedBackends() { return {"sqlite-file", "postgres"}; }

std::string testName(const std::string& backend) {
    std::string out;
    bool upper = true;
    for (const char c : backend) {
        if (c == '-') {
            upper = true;
            continue;
        }
        out.push_back(upper ? static_cast<char>(std::toupper(static_cast<unsigned char>(c))) : c);
        upper = false;
    }
    return out;
}

}  // namespace kiv::catalog::testing
