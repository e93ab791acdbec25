// The PostgreSQL catalog beside the SQLite catalog, on the same content:
// 10,000 report objects and one user whose favorites name all of them.
//
//   BM_LoadPostgresVsSqlite   a FavoritesManager made over the PostgreSQL
//                             catalog (which loads the 10,000 favorites)
//                             against one made over the SQLite file, in turns
//   BM_GetItemInfo/<store>    one getItemInfo outside a read batch
//   BM_Persist/<store>        one edit of the 10,000-favorite tree written
//                             back (add, then delete, of one favorite)
//
// The PostgreSQL server is the one KIV_BENCH_PG names (a libpq connection
// string; scripts/bench.sh starts one with scripts/pgtest.sh --durable).
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "inturns.h"
#include "qz/platform/gd.h"
#include "qz/webcatalog/postgrescatalog.h"
#include "qz/webcatalog/sqlitecatalog.h"
#include "qz/webfavorites/favoritesmanager.h"

namespace kiv {
namespace {

constexpr int kFavorites = 10000;

const catalog::Path kFavoritesPath(String(L"/users/bench/favorites"));

struct Store {
    std::unique_ptr<catalog::ManagedCatalog> catalog;
    AccountToken token;
};

// Fills a catalog: the objects, the user and the favorites (stored through
// the library, as a host stores them).
void fill(Store& s, const std::vector<std::string>& paths) {
    std::vector<catalog::ManagedCatalog::ObjectSpec> objects;
    for (const std::string& p : paths)
        objects.push_back({catalog::Path(String::fromUtf8(p)), String(L"report1"), {}, "<report/>"});
    s.catalog->putObjects(objects);
    s.catalog->addUser(String(L"bench"), {});
    s.catalog->makeFolder(catalog::Path(String(L"/users/bench")));
    s.catalog->setAccess(catalog::Path(String(L"/users/bench")), String(L"bench"), false, catalog::Rights::kWrite);
    s.token = s.catalog->tokenFor(String(L"bench"));
    std::string json = "[";
    for (const std::string& p : paths) {
        if (json.size() > 1) json += ",";
        json += "{\"type\":\"0\",\"path\":\"" + p + "\"}";
    }
    json += "]";
    Handle<FavoritesManager> m(new FavoritesManager(*s.catalog, s.token, kFavoritesPath));
    if (m->updateAll(String::fromUtf8(json)) != favorites::kSuccess) throw std::runtime_error("updateAll failed");
}

struct Fixture {
    std::string dir;
    std::vector<std::string> paths;
    Store sqlite;
    Store postgres;
    std::string schema;
    bool ready = false;
    std::string error;

    Fixture() {
        const char* conninfo = std::getenv("KIV_BENCH_PG");
        if (!conninfo || !*conninfo) {
            error = "KIV_BENCH_PG names no PostgreSQL server (scripts/bench.sh starts one)";
            return;
        }
        std::string pattern = (std::filesystem::temp_directory_path() / "kivbackends.XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp");
        dir = pattern;
        std::mt19937 rng(20261124);
        for (int i = 0; i < kFavorites; ++i)
            paths.push_back("/shared/area" + std::to_string(i % 50) + "/report " + std::to_string(rng() % 1000000) +
                            "-" + std::to_string(i));
        sqlite.catalog = std::make_unique<catalog::SqliteCatalog>(dir + "/catalog.db");
        catalog::PostgresCatalog::Options o;
        o.schema = "bench" + std::to_string(::getpid());
        schema = o.schema;
        postgres.catalog = std::make_unique<catalog::PostgresCatalog>(conninfo, o);
        fill(sqlite, paths);
        fill(postgres, paths);
        ready = true;
    }
    ~Fixture() {
        sqlite.catalog.reset();
        if (postgres.catalog) {
            postgres.catalog->remove(catalog::Path(String(L"/users")));
            postgres.catalog->remove(catalog::Path(String(L"/shared")));
        }
        std::error_code ec;
        if (!dir.empty()) std::filesystem::remove_all(dir, ec);
    }
    Store& store(int which) { return which == 0 ? sqlite : postgres; }
};

Fixture& fixture() {
    static Fixture f;
    return f;
}

// Makes a manager, which loads the favorites; true when the first and the
// last favorite are in its index.
bool loaded(Store& s, const std::vector<std::string>& paths) {
    Handle<FavoritesManager> m(new FavoritesManager(*s.catalog, s.token, kFavoritesPath));
    return m->isFavorite(catalog::Path(String::fromUtf8(paths.front()))) &&
           m->isFavorite(catalog::Path(String::fromUtf8(paths.back())));
}

void BM_LoadPostgresVsSqlite(benchmark::State& state) {
    Fixture& f = fixture();
    if (!f.ready) return state.SkipWithError(f.error.c_str());
    bool pg = true, lite = true;
    bench::inTurns(state, [&] { pg = loaded(f.postgres, f.paths) && pg; }, [&] { lite = loaded(f.sqlite, f.paths) && lite; });
    if (!pg || !lite) state.SkipWithError("a load missed favorites");
}
BENCHMARK(BM_LoadPostgresVsSqlite)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(2);

void BM_GetItemInfo(benchmark::State& state) {
    Fixture& f = fixture();
    if (!f.ready) return state.SkipWithError(f.error.c_str());
    Store& s = f.store(static_cast<int>(state.range(0)));
    std::vector<catalog::Path> paths;
    for (int i = 0; i < 1000; ++i) paths.emplace_back(String::fromUtf8(f.paths[static_cast<std::size_t>(i) * 7]));
    std::size_t n = 0;
    for (auto _ : state) {
        catalog::ItemInfo info;
        if (s.catalog->getItemInfo(s.token, paths[n++ % paths.size()], info, false, true) != catalog::kSuccess)
            state.SkipWithError("getItemInfo failed");
    }
    state.SetItemsProcessed(state.iterations());
    state.SetLabel(state.range(0) == 0 ? "sqlite" : "postgres");
}
BENCHMARK(BM_GetItemInfo)->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

void BM_Persist(benchmark::State& state) {
    Fixture& f = fixture();
    if (!f.ready) return state.SkipWithError(f.error.c_str());
    Store& s = f.store(static_cast<int>(state.range(0)));
    Handle<FavoritesManager> m(new FavoritesManager(*s.catalog, s.token, kFavoritesPath));
    for (auto _ : state) {
        Handle<FavoritesItem> item;
        if (m->createFolder(catalog::ItemName(String(L"extra"), catalog::ItemName::kNone), item,
                            catalog::Path(String(L"/root"))) != favorites::kSuccess ||
            m->addItem(item) != favorites::kSuccess)
            state.SkipWithError("add failed");
        if (m->deleteItem(item, false) != favorites::kSuccess) state.SkipWithError("delete failed");
    }
    state.counters["writes"] = benchmark::Counter(2.0 * static_cast<double>(state.iterations()));
    state.SetLabel(state.range(0) == 0 ? "sqlite" : "postgres");
}
BENCHMARK(BM_Persist)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace kiv

BENCHMARK_MAIN();
