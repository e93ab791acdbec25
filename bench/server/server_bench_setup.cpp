// Makes the catalog the server benchmark runs against, and measures the raw
// durable SQLite write that bounds the adds per second.
//
//   server_bench_setup CATALOG_FILE RAW_DB_FILE
//
// The catalog: users u1..u8 and m1..m200 (password "bench"); /shared/Fifty
// with 50 reports; /shared/Load with 20,000 reports for adds; every m user
// has 100 favorites. Prints one JSON line: {"rawWritesPerSecond": X}.
#include <sqlite3.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "passwords.h"
#include "qz/webcatalog/sqlitecatalog.h"

using kiv::String;
using kiv::catalog::Path;
using kiv::catalog::Rights;
using kiv::catalog::SqliteCatalog;

namespace {

String S(const std::string& s) { return String::fromUtf8(s); }
Path P(const std::string& s) { return Path(S(s)); }

void makeUser(SqliteCatalog& c, const std::string& name, const std::string& hash) {
    c.addUser(S(name), {S("staff")});
    const Path home = P("/users/" + name);
    c.makeFolder(home);
    c.clearAccess(home);
    c.setAccess(home, S(name), false, Rights::kWrite);
    c.setPasswordHash(S(name), hash);
}

// One durable write after another, as a favorites save does: one row of a
// document's size replaced per transaction, WAL with synchronous=FULL.
double rawWritesPerSecond(const std::string& file) {
    sqlite3* db = nullptr;
    if (sqlite3_open(file.c_str(), &db) != SQLITE_OK) return 0;
    sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
                     "CREATE TABLE IF NOT EXISTS t(k INTEGER PRIMARY KEY, v BLOB);", nullptr, nullptr, nullptr);
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(db, "INSERT OR REPLACE INTO t(k, v) VALUES (1, ?1)", -1, &st, nullptr);
    const std::string blob(8000, 'x');
    constexpr int kWrites = 300;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kWrites; ++i) {
        sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
        sqlite3_bind_blob(st, 1, blob.data(), static_cast<int>(blob.size()), SQLITE_STATIC);
        sqlite3_step(st);
        sqlite3_reset(st);
        sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    }
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    sqlite3_finalize(st);
    sqlite3_close(db);
    return kWrites / s;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: server_bench_setup CATALOG_FILE RAW_DB_FILE\n");
        return 2;
    }
    SqliteCatalog c(argv[1]);
    c.makeFolder(P("/shared"));
    c.makeFolder(P("/users"));
    const std::string hash = kiv::host::hashPassword("bench");
    for (int i = 1; i <= 8; ++i) makeUser(c, "u" + std::to_string(i), hash);
    std::vector<SqliteCatalog::ObjectSpec> objects;
    for (int i = 0; i < 50; ++i)
        objects.push_back({P("/shared/Fifty/Report " + std::to_string(i)), S("report1"), {}, "body"});
    for (int i = 0; i < 20000; ++i)
        objects.push_back({P("/shared/Load/r" + std::to_string(i)), S("report1"), {}, "body"});
    c.putObjects(objects);
    for (int u = 1; u <= 200; ++u) {
        const std::string name = "m" + std::to_string(u);
        makeUser(c, name, hash);
        std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                          "<fav:favoritelist xmlns:fav=\"urn:kiv-web:favorites/v1\">\n";
        for (int k = 0; k < 100; ++k) {
            const std::string n = "r" + std::to_string((u * 100 + k) % 20000);
            xml += "  <favorite name=\"" + n + "\" catalogpath=\"/shared/Load/" + n + "\" type=\"catalogitem\"/>\n";
        }
        xml += "</fav:favoritelist>\n";
        c.putObject(P("/users/" + name + "/favorites"), S("mobilefavorites1"), {}, xml);
    }
    std::printf("{\"rawWritesPerSecond\": %.1f}\n", rawWritesPerSecond(argv[2]));
    return 0;
}
