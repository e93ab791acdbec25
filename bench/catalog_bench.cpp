// getItemInfo look-ups on a catalog of 100,000 objects, timed in turns with
// the raw prepared-statement SQLite look-up of the same rows on the same file.
//
//   cmake --build build/cat --target catalog_bench && build/cat/bench/catalog_bench
//
// The catalog's figure includes what the raw one leaves out: path
// validation, UTF-8 conversion, the access-right walk over the ancestors,
// link checks and filling ItemInfo.
#include <benchmark/benchmark.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "inturns.h"
#include "qz/webcatalog/sqlitecatalog.h"

namespace {

using namespace kiv;
using namespace kiv::catalog;

constexpr int kObjects = 100000;

struct Fixture {
    std::string dir;
    std::string file;
    std::vector<Path> paths;          // in look-up order
    std::vector<std::string> utf8;    // the same, as stored
    std::unique_ptr<SqliteCatalog> catalog;

    Fixture() {
        std::string pattern = "/tmp/kivcatbench.XXXXXX";
        if (!::mkdtemp(pattern.data())) std::abort();
        dir = pattern;
        file = dir + "/catalog.db";
        {
            SqliteCatalog::Options fast;
            fast.synchronousFull = false;
            SqliteCatalog build(file, fast);
            build.makeFolder(Path(L"/reports"));
            build.setAccess(Path(L"/reports"), L"analysts", true, Rights::kRead);
            std::vector<SqliteCatalog::ObjectSpec> batch;
            for (int i = 0; i < kObjects; ++i) {
                const std::wstring p = L"/reports/department" + std::to_wstring(i / 1000) + L"/quarterly folder " +
                                       std::to_wstring(i / 100 % 10) + L"/sales report " + std::to_wstring(i);
                batch.push_back({Path(p), L"report1", {}, "<report/>"});
                paths.emplace_back(p);
            }
            build.putObjects(batch);
        }
        std::mt19937 rng(42);
        std::shuffle(paths.begin(), paths.end(), rng);
        for (const Path& p : paths) utf8.push_back(p.toString().toUtf8());
        // Both sides' keys are allocated in look-up order, so neither reads
        // its keys from memory laid out more favourably than the other's.
        std::vector<Path> ordered;
        ordered.reserve(paths.size());
        for (const std::string& p : utf8) ordered.push_back(Path::fromUtf8(p));
        paths = std::move(ordered);
        catalog = std::make_unique<SqliteCatalog>(file);
    }
    ~Fixture() {
        catalog.reset();
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
    static Fixture& get() {
        static Fixture fixture;
        return fixture;
    }
};

// A turn is a pass of 1,000 look-ups on each side, the catalog's and the raw
// statement's timed in turns (see inturns.h); counters ns and baseline_ns
// give one look-up.
constexpr std::size_t kPerTurn = 1000;

void BM_CatalogGetItemInfoVsRaw(benchmark::State& state) {
    Fixture& f = Fixture::get();
    const AccountToken user(L"ann", {L"analysts"});
    sqlite3* db = nullptr;
    sqlite3_open_v2(f.file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    // The same page cache as each catalog connection.
    sqlite3_exec(db, "PRAGMA cache_size = -16384", nullptr, nullptr, nullptr);
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v3(db, "SELECT kind, signature, props, link_target, mtime, body_id FROM items WHERE path = ?1", -1,
                       SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
    std::size_t catalogNext = 0, rawNext = 0;
    bool failed = false;
    auto catalog = [&] {
        for (std::size_t k = 0; k < kPerTurn; ++k) {
            ItemInfo info;
            if (f.catalog->getItemInfo(user, f.paths[catalogNext], info, false, true) != kSuccess) failed = true;
            benchmark::DoNotOptimize(info.getLastModifiedTime(kInfoResolved));
            if (++catalogNext == f.paths.size()) catalogNext = 0;
        }
    };
    auto raw = [&] {
        for (std::size_t k = 0; k < kPerTurn; ++k) {
            const std::string& p = f.utf8[rawNext];
            sqlite3_bind_text(stmt, 1, p.data(), static_cast<int>(p.size()), SQLITE_STATIC);
            if (sqlite3_step(stmt) != SQLITE_ROW) failed = true;
            benchmark::DoNotOptimize(sqlite3_column_int(stmt, 0));
            benchmark::DoNotOptimize(sqlite3_column_text(stmt, 1));
            benchmark::DoNotOptimize(sqlite3_column_int64(stmt, 4));
            sqlite3_reset(stmt);
            if (++rawNext == f.paths.size()) rawNext = 0;
        }
    };
    bench::inTurns(state, catalog, raw, {kPerTurn, kPerTurn});
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    if (failed) state.SkipWithError("a look-up failed");
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(kPerTurn));
}

BENCHMARK(BM_CatalogGetItemInfoVsRaw)->UseManualTime()->MinTime(2.0)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
