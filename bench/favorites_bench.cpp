// FavoritesManager benchmarks, each beside the irreducible work it stands on,
// measured in the same run so that the ratio holds on a noisy machine.
//
//   cmake --build build/bench --target favorites_bench && build/bench/bench/favorites_bench
//   scripts/bench.sh   (release build, repetitions, ratios against the goals)
//
// Workloads (deterministic pseudo-random, one catalog file in a temporary
// directory):
//   spread N   N favorites, 10 per leaf category, 3 levels of categories,
//              catalog paths of 40 to 90 characters (N = 1,000 and 10,000)
//   flat       10,000 favorites in one category, same paths as spread 10,000
//   mem        10,000 favorites spread as above, catalog paths of 64 characters
//
// Pairs (figure / baseline):
//   BM_IsFavoriteThreads     threads:2 / threads:1 (items_per_second); beside it
//                              BM_IsFavoriteStdMapThreads, the scaling an unlocked
//                              map reaches on this machine in the same run
// Pairs timed in turns (see inTurns; counters baseline_ms and ratio):
//   BM_IsFavoriteVsStdMap/N  isFavorite on N keys / the same keys in one
//                              std::map<std::wstring, unsigned>
//   BM_IsFavoriteVsSqlite/N  isFavorite / one prepared SELECT per key on an
//                              indexed table (for both isFavorite pairs,
//                              counters ns and baseline_ns give one look-up,
//                              and ratio their ratio)
//   BM_LoadVsBaseline/N      a load / xmlReadMemory, XSD validation with a
//                              precompiled schema, one prepared SQLite metadata
//                              look-up per leaf (BM_LoadPart* split it)
//   BM_PersistVsBaseline/N   a save / xmlNewDoc/xmlNewDocNode/xmlNewProp,
//                              xmlDocDumpMemory, one UPDATE of the body and a
//                              modification counter in a transaction (WAL,
//                              synchronous=FULL)
//   BM_LoadFlatVsSpread      a load of the flat workload / of spread 10,000
//   BM_UpdateAllJsonVsDirect updateAll's rebuild from JSON / the direct build
//                              (see below)
//   BM_MemoryPerFavorite     counter bytes_per_favorite (heap held by the tree
//                              and the index, the document already freed)
#include <benchmark/benchmark.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlschemas.h>
#include <malloc.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "inturns.h"
#include "qz/platform/config.h"
#include "qz/platform/memalloc.h"
#include "qz/webcatalog/sqlitecatalog.h"
#include "qz/webfavorites/favoritesmanager.h"
#include "webfavorites/favoritesmanagertestpeer.h"

namespace {

using namespace kiv;
using Peer = FavoritesManagerTestPeer;
using bench::inTurns;

constexpr const char* kNamespace = "urn:kiv-web:favorites/v1";
constexpr int kParseOptions = XML_PARSE_NONET | XML_PARSE_BIG_LINES;

void fail(const std::string& what) {
    std::fprintf(stderr, "favorites_bench: %s\n", what.c_str());
    std::abort();
}

void check(sqlite3* db, int rc, const char* what) {
    if (rc != SQLITE_OK && rc != SQLITE_DONE && rc != SQLITE_ROW)
        fail(std::string(what) + ": " + (db ? sqlite3_errmsg(db) : sqlite3_errstr(rc)));
}

void exec(sqlite3* db, const char* sql) { check(db, sqlite3_exec(db, sql, nullptr, nullptr, nullptr), sql); }

sqlite3* openDb(const std::string& file) {
    sqlite3* db = nullptr;
    check(db, sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr), "open");
    return db;
}

struct Stmt {
    Stmt(sqlite3* db, const char* sql) { check(db, sqlite3_prepare_v3(db, sql, -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr), sql); }
    ~Stmt() { sqlite3_finalize(s); }
    Stmt(const Stmt&) = delete;
    Stmt& operator=(const Stmt&) = delete;
    sqlite3_stmt* s = nullptr;
};

// A favorites tree as plain data: what the document holds.
struct Node {
    std::string name;
    std::string catalogPath;  // empty for a category
    std::vector<Node> children;
};

// A catalog path of exactly `length` characters, unique through `serial`.
std::string makeCatalogPath(const char* root, int serial, std::size_t length, std::mt19937& rng) {
    std::string p = std::string("/") + root + "/dept" + std::to_string(10 + serial % 37) + "/area" +
                    std::to_string(serial % 7) + "/r" + std::to_string(100000 + serial) + "-";
    std::uniform_int_distribution<int> letter(0, 25);
    while (p.size() < length) p += static_cast<char>('a' + letter(rng));
    return p;
}

// N leaves, 10 per leaf category, 3 levels of categories (a x b x c leaf
// categories; the leaves take the paths in order).
Node spreadTree(const std::vector<std::string>& paths) {
    const std::size_t leafCategories = (paths.size() + 9) / 10;
    const auto side = static_cast<std::size_t>(std::lround(std::cbrt(static_cast<double>(leafCategories))));
    const std::size_t b = std::max<std::size_t>(side, 1), c = b;
    const std::size_t a = (leafCategories + b * c - 1) / (b * c);
    Node root;
    std::size_t next = 0;
    for (std::size_t i = 0; i < a && next < paths.size(); ++i) {
        Node& l1 = root.children.emplace_back(Node{"Group " + std::to_string(i), {}, {}});
        for (std::size_t j = 0; j < b && next < paths.size(); ++j) {
            Node& l2 = l1.children.emplace_back(Node{"Topic " + std::to_string(j), {}, {}});
            for (std::size_t k = 0; k < c && next < paths.size(); ++k) {
                Node& l3 = l2.children.emplace_back(Node{"Reports " + std::to_string(k), {}, {}});
                for (int n = 0; n < 10 && next < paths.size(); ++n, ++next) {
                    const std::string& p = paths[next];
                    l3.children.push_back(Node{p.substr(p.rfind('/') + 1), p, {}});
                }
            }
        }
    }
    return root;
}

Node flatTree(const std::vector<std::string>& paths) {
    Node root;
    Node& all = root.children.emplace_back(Node{"Everything", {}, {}});
    for (const std::string& p : paths) all.children.push_back(Node{p.substr(p.rfind('/') + 1), p, {}});
    return root;
}

void appendNodes(std::string& out, const Node& parent) {
    for (const Node& n : parent.children) {
        if (n.catalogPath.empty()) {
            out += "<favorite name=\"" + n.name + "\" type=\"category\">";
            appendNodes(out, n);
            out += "</favorite>";
        } else {
            out += "<favorite name=\"" + n.name + "\" catalogpath=\"" + n.catalogPath + "\" type=\"catalogitem\"/>";
        }
    }
}

std::string documentOf(const Node& root) {
    std::string out = "<?xml version=\"1.0\"?>\n<f:favoritelist xmlns:f=\"urn:kiv-web:favorites/v1\">";
    appendNodes(out, root);
    return out + "</f:favoritelist>\n";
}

catalog::Path favoritesPath(const std::string& user) {
    return catalog::Path(String(L"/users")) + catalog::ItemName(String::fromUtf8(user), catalog::ItemName::kNone) +
           catalog::ItemName(String(L"favorites"), catalog::ItemName::kNone);
}

// One user's favorites: the stored document, the tree it holds, a manager.
struct Workload {
    std::string user;
    AccountToken token;
    Node tree;
    std::string stored;                 // the document as the catalog holds it
    std::vector<std::string> leafPaths; // UTF-8, document order
    Handle<FavoritesManager> manager;
};

struct Fixture {
    std::string dir;
    std::unique_ptr<catalog::SqliteCatalog> catalog;
    std::vector<std::string> paths;    // 40 to 90 characters
    std::vector<std::string> paths64;  // 64 characters
    std::mutex workloadsLock;
    std::map<std::string, Workload> workloads;  // guarded by workloadsLock
    sqlite3* metaDb = nullptr;    // path TEXT PRIMARY KEY, type, mtime, signature, properties
    sqlite3* indexDb = nullptr;   // one row per favorite, per N
    sqlite3* writeDb = nullptr;   // one body, rewritten by the persist baseline
    xmlSchemaPtr schema = nullptr;

    Fixture() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kivfavbench.XXXXXX").string();
        if (!::mkdtemp(pattern.data())) fail("mkdtemp");
        dir = pattern;

        std::mt19937 rng(20240611);
        std::uniform_int_distribution<std::size_t> length(40, 90);
        for (int i = 0; i < 10000; ++i) paths.push_back(makeCatalogPath("shared", i, length(rng), rng));
        for (int i = 0; i < 10000; ++i) paths64.push_back(makeCatalogPath("library", i, 64, rng));

        catalog::SqliteCatalog::Options options;  // as a host opens it: synchronous=FULL
        catalog = std::make_unique<catalog::SqliteCatalog>(dir + "/catalog.db", options);
        {
            std::vector<catalog::SqliteCatalog::ObjectSpec> batch;
            for (const auto* pool : {&paths, &paths64})
                for (const std::string& p : *pool)
                    batch.push_back({catalog::Path(String::fromUtf8(p)), String(L"report1"), {}, "<report/>"});
            catalog->putObjects(batch);
        }
        buildMetaDb();
        buildIndexDb();
        buildWriteDb();

        const std::string xsd = std::string(KIV_BUILD_DATA_DIR) + "/schemas/favorites.xsd";
        xmlSchemaParserCtxtPtr pctxt = xmlSchemaNewParserCtxt(xsd.c_str());
        schema = xmlSchemaParse(pctxt);
        xmlSchemaFreeParserCtxt(pctxt);
        if (!schema) fail("cannot compile " + xsd);
    }

    ~Fixture() {
        workloads.clear();
        catalog.reset();
        xmlSchemaFree(schema);
        for (sqlite3* db : {metaDb, indexDb, writeDb}) sqlite3_close_v2(db);
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }

    void addWorkload(const std::string& user, Node tree) {
        Workload& w = workloads[user];
        w.user = user;
        const String name = String::fromUtf8(user);
        catalog->addUser(name, {});
        const catalog::Path home =
            catalog::Path(String(L"/users")) + catalog::ItemName(name, catalog::ItemName::kNone);
        catalog->makeFolder(home);
        catalog->setAccess(home, name, false, catalog::Rights::kWrite);
        w.token = catalog->tokenFor(name);
        catalog->putObject(favoritesPath(user), String(L"mobilefavorites1"), {}, documentOf(tree));
        w.stored = catalog->readRaw(favoritesPath(user));
        collectLeaves(tree, w.leafPaths);
        w.tree = std::move(tree);
        w.manager = Handle<FavoritesManager>(new FavoritesManager(*catalog, w.token, favoritesPath(user)));
        const std::size_t distinct = std::set<std::string>(w.leafPaths.begin(), w.leafPaths.end()).size();
        if (Peer::indexSize(*w.manager) != distinct)
            fail(user + ": the manager loaded " + std::to_string(Peer::indexSize(*w.manager)) + " of " +
                 std::to_string(distinct) + " favorites");
    }

    static void collectLeaves(const Node& n, std::vector<std::string>& out) {
        for (const Node& c : n.children) {
            if (c.catalogPath.empty())
                collectLeaves(c, out);
            else
                out.push_back(c.catalogPath);
        }
    }

    // The raw metadata table: the rows the catalog holds for the favorites.
    void buildMetaDb() {
        metaDb = openDb(dir + "/meta.db");
        exec(metaDb, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                     "CREATE TABLE objects(path TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL, mtime INTEGER "
                     "NOT NULL, signature TEXT, properties TEXT);"
                     "BEGIN");
        Stmt ins(metaDb, "INSERT INTO objects VALUES (?1, 3, ?2, 'report1', '{}')");
        std::int64_t mtime = 1700000000000000;
        for (const auto* pool : {&paths, &paths64}) {
            for (const std::string& p : *pool) {
                sqlite3_bind_text(ins.s, 1, p.data(), static_cast<int>(p.size()), SQLITE_STATIC);
                sqlite3_bind_int64(ins.s, 2, ++mtime);
                check(metaDb, sqlite3_step(ins.s), "insert object");
                sqlite3_reset(ins.s);
            }
        }
        exec(metaDb, "COMMIT");
    }

    // One indexed row per favorite, a table per N.
    void buildIndexDb() {
        indexDb = openDb(dir + "/index.db");
        exec(indexDb, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;"
                      "CREATE TABLE fav1000(id INTEGER PRIMARY KEY, path TEXT NOT NULL, count INTEGER NOT NULL);"
                      "CREATE UNIQUE INDEX fav1000_path ON fav1000(path);"
                      "CREATE TABLE fav10000(id INTEGER PRIMARY KEY, path TEXT NOT NULL, count INTEGER NOT NULL);"
                      "CREATE UNIQUE INDEX fav10000_path ON fav10000(path);"
                      "BEGIN");
        for (int n : {1000, 10000}) {
            const std::string sql = "INSERT INTO fav" + std::to_string(n) + "(path, count) VALUES (?1, 1)";
            Stmt ins(indexDb, sql.c_str());
            for (int i = 0; i < n; ++i) {
                const std::string& p = paths[static_cast<std::size_t>(i)];
                sqlite3_bind_text(ins.s, 1, p.data(), static_cast<int>(p.size()), SQLITE_STATIC);
                check(indexDb, sqlite3_step(ins.s), "insert favorite");
                sqlite3_reset(ins.s);
            }
        }
        exec(indexDb, "COMMIT");
    }

    // Opened as the catalog opens its file: WAL, synchronous=FULL.
    void buildWriteDb() {
        writeDb = openDb(dir + "/write.db");
        exec(writeDb, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL;"
                      "CREATE TABLE bodies(id INTEGER PRIMARY KEY, data BLOB NOT NULL, modified INTEGER NOT NULL);"
                      "INSERT INTO bodies(id, data, modified) VALUES (1, x'00', 0);");
    }

    // The workload of a user, made on first use (only the ones a run selects).
    Workload& workload(const std::string& user) {
        std::lock_guard<std::mutex> lock(workloadsLock);
        if (auto it = workloads.find(user); it != workloads.end()) return it->second;
        const std::vector<std::string> first1000(paths.begin(), paths.begin() + 1000);
        if (user == "spread1000" || user == "persist1000")
            addWorkload(user, spreadTree(first1000));
        else if (user == "spread10000" || user == "persist10000")
            addWorkload(user, spreadTree(paths));
        else if (user == "flat10000")
            addWorkload(user, flatTree(paths));
        else if (user == "mem10000")
            addWorkload(user, spreadTree(paths64));
        else
            fail("no workload " + user);
        return workloads.at(user);
    }

    static Fixture& get() {
        static Fixture fixture;
        return fixture;
    }
};

// The keys of the first n paths, in a shuffled look-up order.
std::vector<std::size_t> lookupOrder(std::size_t n) {
    std::vector<std::size_t> order(n);
    for (std::size_t i = 0; i < n; ++i) order[i] = i;
    std::mt19937 rng(7);
    std::shuffle(order.begin(), order.end(), rng);
    return order;
}

const std::string& spreadUser(std::int64_t n) {
    static const std::string k1("spread1000"), k10("spread10000");
    return n == 1000 ? k1 : k10;
}

// --- isFavorite ------------------------------------------------------------------

// Look-ups of the first n favorites' keys in the shuffled look-up order, a
// figure against a baseline, timed in turns. A turn is several passes over the
// keys (milliseconds of work), so that what one side leaves in the caches
// costs the other only at the start of a turn. Counters ns and baseline_ns
// are the times of one look-up.
struct LookupTurns {
    std::size_t n;
    std::vector<std::size_t> order;
    std::size_t figurePasses;
    std::size_t baselinePasses;

    // `baselineCost`: about how many figure look-ups one baseline look-up
    // costs.
    LookupTurns(std::size_t count, std::size_t baselineCost)
        : n(count),
          order(lookupOrder(count)),
          figurePasses(std::max<std::size_t>(1, 64000 / count)),
          baselinePasses(std::max<std::size_t>(1, 64000 / count / baselineCost)) {}

    // The keys made by `make` from the fixture's paths, in look-up order.
    template <class Make>
    auto keys(Make make) const {
        std::vector<decltype(make(std::string()))> out;
        out.reserve(n);
        for (std::size_t i : order) out.push_back(make(Fixture::get().paths[i]));
        return out;
    }
};

// `figure(i)` and `baseline(i)` ask about the i-th key of the look-up order
// and return whether it was found; every key must be.
template <class Figure, class Baseline>
void lookupsInTurns(benchmark::State& state, const LookupTurns& turns, Figure&& figure, Baseline&& baseline) {
    std::size_t figureHits = 0, baselineHits = 0;
    const std::size_t figureLookups = turns.figurePasses * turns.n, baselineLookups = turns.baselinePasses * turns.n;
    inTurns(
        state,
        [&] {
            for (std::size_t p = 0; p < turns.figurePasses; ++p)
                for (std::size_t i = 0; i < turns.n; ++i) figureHits += figure(i);
        },
        [&] {
            for (std::size_t p = 0; p < turns.baselinePasses; ++p)
                for (std::size_t i = 0; i < turns.n; ++i) baselineHits += baseline(i);
        },
        {static_cast<double>(figureLookups), static_cast<double>(baselineLookups)});
    const auto iterations = static_cast<std::size_t>(state.iterations());
    if (figureHits != iterations * figureLookups) fail("the figure did not find a key");
    if (baselineHits != iterations * baselineLookups) fail("the baseline did not find a key");
    state.SetItemsProcessed(static_cast<std::int64_t>(iterations * figureLookups));
}

// isFavorite against `baseline`.
template <class Baseline>
void isFavoriteInTurns(benchmark::State& state, const LookupTurns& turns, Baseline&& baseline) {
    Fixture& f = Fixture::get();
    const FavoritesManager& m = *f.workload(spreadUser(static_cast<std::int64_t>(turns.n))).manager;
    const auto keys = turns.keys([](const std::string& p) { return catalog::Path(String::fromUtf8(p)); });
    lookupsInTurns(state, turns, [&](std::size_t i) { return m.isFavorite(keys[i]); }, baseline);
}

// The same question asked of an indexed SQLite table: one prepared SELECT per
// key, bound as UTF-8.
class SqliteLookup {
public:
    explicit SqliteLookup(const LookupTurns& turns)
        : m_q(Fixture::get().indexDb, ("SELECT count FROM fav" + std::to_string(turns.n) + " WHERE path = ?1").c_str()),
          m_keys(turns.keys([](const std::string& p) { return p; })) {}
    bool operator()(std::size_t i) {
        const std::string& k = m_keys[i];
        sqlite3_bind_text(m_q.s, 1, k.data(), static_cast<int>(k.size()), SQLITE_STATIC);
        const bool hit = sqlite3_step(m_q.s) == SQLITE_ROW && sqlite3_column_int(m_q.s, 0) > 0;
        sqlite3_reset(m_q.s);
        return hit;
    }

private:
    Stmt m_q;
    std::vector<std::string> m_keys;
};

void BM_IsFavoriteVsStdMap(benchmark::State& state) {
    Fixture& f = Fixture::get();
    const LookupTurns turns(static_cast<std::size_t>(state.range(0)), 1);
    std::map<std::wstring, unsigned> map;
    for (std::size_t i = 0; i < turns.n; ++i) map.emplace(String::fromUtf8(f.paths[i]), 1u);
    const auto keys = turns.keys([](const std::string& p) { return std::wstring(String::fromUtf8(p)); });
    isFavoriteInTurns(state, turns, [&](std::size_t i) { return map.find(keys[i]) != map.end(); });
}

void BM_IsFavoriteVsSqlite(benchmark::State& state) {
    const LookupTurns turns(static_cast<std::size_t>(state.range(0)), 16);
    isFavoriteInTurns(state, turns, SqliteLookup(turns));
}

// Every thread asks about all 10,000 favorites, each from its own offset.
void BM_IsFavoriteThreads(benchmark::State& state) {
    Fixture& f = Fixture::get();
    const FavoritesManager& m = *f.workload("spread10000").manager;
    static const std::vector<catalog::Path> keys = [&] {
        std::vector<catalog::Path> k;
        for (std::size_t i : lookupOrder(10000)) k.emplace_back(String::fromUtf8(f.paths[i]));
        return k;
    }();
    std::size_t i = static_cast<std::size_t>(state.thread_index()) * 4999 % keys.size(), hits = 0;
    for (auto _ : state) {
        hits += m.isFavorite(keys[i]);
        if (++i == keys.size()) i = 0;
    }
    benchmark::DoNotOptimize(hits);
    if (hits != static_cast<std::size_t>(state.iterations())) state.SkipWithError("a favorite was not found");
    state.SetItemsProcessed(state.iterations());
}

// The same threads over one unlocked std::map read concurrently: how far two
// threads can scale on this machine at all, measured in the same run.
void BM_IsFavoriteStdMapThreads(benchmark::State& state) {
    Fixture& f = Fixture::get();
    static const std::map<std::wstring, unsigned> map = [&] {
        std::map<std::wstring, unsigned> m;
        for (const std::string& p : f.paths) m.emplace(String::fromUtf8(p), 1u);
        return m;
    }();
    static const std::vector<std::wstring> keys = [&] {
        std::vector<std::wstring> k;
        for (std::size_t i : lookupOrder(10000)) k.push_back(String::fromUtf8(f.paths[i]));
        return k;
    }();
    std::size_t i = static_cast<std::size_t>(state.thread_index()) * 4999 % keys.size(), hits = 0;
    for (auto _ : state) {
        hits += map.find(keys[i]) != map.end();
        if (++i == keys.size()) i = 0;
    }
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(state.iterations());
}

// --- Loading -----------------------------------------------------------------------

std::size_t distinctLeaves(const Workload& w) {
    return std::set<std::string>(w.leafPaths.begin(), w.leafPaths.end()).size();
}

// One load of the workload's favorites, which must find `expected` of them.
void loadOnce(Workload& w, std::size_t expected) {
    if (Peer::load(*w.manager) != catalog::kSuccess) fail("loading failed");
    if (Peer::indexSize(*w.manager) != expected) fail("the index misses favorites");
}

xmlDocPtr parse(const std::string& body) {
    return xmlReadMemory(body.data(), static_cast<int>(body.size()), nullptr, "UTF-8", kParseOptions);
}

bool validate(xmlSchemaPtr schema, xmlDocPtr doc) {
    xmlSchemaValidCtxtPtr v = xmlSchemaNewValidCtxt(schema);
    const int rc = xmlSchemaValidateDoc(v, doc);
    xmlSchemaFreeValidCtxt(v);
    return rc == 0;
}

// One metadata look-up per catalog item element of the document.
std::size_t lookUpLeaves(sqlite3_stmt* q, xmlNodePtr parent) {
    std::size_t found = 0;
    for (xmlNodePtr e = parent->children; e; e = e->next) {
        if (e->type != XML_ELEMENT_NODE) continue;
        xmlChar* path = xmlGetNoNsProp(e, BAD_CAST "catalogpath");
        if (path) {
            sqlite3_bind_text(q, 1, reinterpret_cast<const char*>(path), -1, SQLITE_STATIC);
            if (sqlite3_step(q) == SQLITE_ROW) {
                benchmark::DoNotOptimize(sqlite3_column_int(q, 0));
                benchmark::DoNotOptimize(sqlite3_column_int64(q, 1));
                benchmark::DoNotOptimize(sqlite3_column_text(q, 2));
                benchmark::DoNotOptimize(sqlite3_column_text(q, 3));
                ++found;
            }
            sqlite3_reset(q);
            xmlFree(path);
        } else {
            found += lookUpLeaves(q, e);
        }
    }
    return found;
}

constexpr const char* kMetaQuery = "SELECT type, mtime, signature, properties FROM objects WHERE path = ?1";

// Parse, validate, and one raw look-up per leaf: the sum of the parts a load
// cannot avoid.
void loadBaselineOnce(const Fixture& f, const Workload& w, sqlite3_stmt* q) {
    xmlDocPtr doc = parse(w.stored);
    if (!doc || !validate(f.schema, doc)) fail("the stored document does not validate");
    const std::size_t found = lookUpLeaves(q, xmlDocGetRootElement(doc));
    xmlFreeDoc(doc);
    if (found != w.leafPaths.size()) fail("a leaf was not found");
}

// A load in turns with its baseline.
void BM_LoadVsBaseline(benchmark::State& state) {
    Fixture& f = Fixture::get();
    Workload& w = f.workload(spreadUser(state.range(0)));
    const std::size_t expected = distinctLeaves(w);
    Stmt q(f.metaDb, kMetaQuery);
    inTurns(state, [&] { loadOnce(w, expected); }, [&] { loadBaselineOnce(f, w, q.s); });
    state.counters["favorites"] = static_cast<double>(expected);
    state.counters["document_bytes"] = static_cast<double>(w.stored.size());
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(expected));
}

// 10,000 favorites in one category, in turns with the same favorites spread
// over categories of 10.
void BM_LoadFlatVsSpread(benchmark::State& state) {
    Fixture& f = Fixture::get();
    Workload& flat = f.workload("flat10000");
    Workload& spread = f.workload("spread10000");
    const std::size_t flatExpected = distinctLeaves(flat), spreadExpected = distinctLeaves(spread);
    inTurns(state, [&] { loadOnce(flat, flatExpected); }, [&] { loadOnce(spread, spreadExpected); });
}

// The parts of the baseline on their own, to see where a load's time goes.
void BM_LoadPartParse(benchmark::State& state) {
    const Workload& w = Fixture::get().workload(spreadUser(state.range(0)));
    for (auto _ : state) xmlFreeDoc(parse(w.stored));
}

void BM_LoadPartValidate(benchmark::State& state) {
    Fixture& f = Fixture::get();
    xmlDocPtr doc = parse(f.workload(spreadUser(state.range(0))).stored);
    for (auto _ : state) benchmark::DoNotOptimize(validate(f.schema, doc));
    xmlFreeDoc(doc);
}

void BM_LoadPartLookups(benchmark::State& state) {
    Fixture& f = Fixture::get();
    const Workload& w = f.workload(spreadUser(state.range(0)));
    Stmt q(f.metaDb, kMetaQuery);
    for (auto _ : state) {
        for (const std::string& p : w.leafPaths) {
            sqlite3_bind_text(q.s, 1, p.data(), static_cast<int>(p.size()), SQLITE_STATIC);
            benchmark::DoNotOptimize(sqlite3_step(q.s));
            sqlite3_reset(q.s);
        }
    }
}

// --- Persisting ----------------------------------------------------------------------

void appendElements(xmlDocPtr doc, xmlNodePtr parent, const Node& node) {
    for (const Node& c : node.children) {
        xmlNodePtr e = xmlNewDocNode(doc, nullptr, BAD_CAST "favorite", nullptr);
        xmlAddChild(parent, e);
        xmlNewProp(e, BAD_CAST "name", BAD_CAST c.name.c_str());
        if (c.catalogPath.empty()) {
            xmlNewProp(e, BAD_CAST "type", BAD_CAST "category");
            appendElements(doc, e, c);
        } else {
            xmlNewProp(e, BAD_CAST "catalogpath", BAD_CAST c.catalogPath.c_str());
            xmlNewProp(e, BAD_CAST "type", BAD_CAST "catalogitem");
        }
    }
}

// Build the same document with libxml2, serialise it, and write it as one
// row update in a transaction on a WAL file with synchronous=FULL. The row
// also takes a new modification counter, as every save records when it
// happened: SQLite leaves pages whose bytes do not change unwritten, so a
// row rewritten with the same document alone would commit nothing at all.
class PersistBaseline {
public:
    explicit PersistBaseline(Fixture& f)
        : m_db(f.writeDb),
          m_begin(m_db, "BEGIN IMMEDIATE"),
          m_update(m_db, "UPDATE bodies SET data = ?1, modified = ?2 WHERE id = 1"),
          m_commit(m_db, "COMMIT") {}

    void operator()(const Node& tree) {
        xmlDocPtr doc = xmlNewDoc(BAD_CAST "1.0");
        xmlNodePtr root = xmlNewDocNode(doc, nullptr, BAD_CAST "favoritelist", nullptr);
        xmlSetNs(root, xmlNewNs(root, BAD_CAST kNamespace, BAD_CAST "f"));
        xmlDocSetRootElement(doc, root);
        appendElements(doc, root, tree);
        xmlChar* text = nullptr;
        int bytes = 0;
        xmlDocDumpMemory(doc, &text, &bytes);
        xmlFreeDoc(doc);

        check(m_db, sqlite3_step(m_begin.s), "begin");
        sqlite3_reset(m_begin.s);
        sqlite3_bind_blob(m_update.s, 1, text, bytes, SQLITE_STATIC);
        sqlite3_bind_int64(m_update.s, 2, ++m_modified);
        check(m_db, sqlite3_step(m_update.s), "update");
        sqlite3_reset(m_update.s);
        check(m_db, sqlite3_step(m_commit.s), "commit");
        sqlite3_reset(m_commit.s);
        xmlFree(text);
    }

private:
    sqlite3* m_db;
    Stmt m_begin, m_update, m_commit;
    sqlite3_int64 m_modified = 0;
};

// A save of the whole tree in turns with its baseline.
void BM_PersistVsBaseline(benchmark::State& state) {
    Fixture& f = Fixture::get();
    Workload& w = f.workload(state.range(0) == 1000 ? "persist1000" : "persist10000");
    FavoritesManager& m = *w.manager;
    PersistBaseline baseline(f);
    auto persist = [&] {
        Peer::dirty(m) = true;
        if (m.persist() != favorites::kSuccess) fail("persist failed");
    };
    inTurns(state, persist, [&] { baseline(w.tree); });
    state.counters["document_bytes"] = static_cast<double>(f.catalog->readRaw(favoritesPath(w.user)).size());
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(w.leafPaths.size()));
}

// --- Memory ---------------------------------------------------------------------------

std::size_t heapInUse() {
    const struct mallinfo2 mi = mallinfo2();
    return mi.uordblks + mi.hblkhd;  // small blocks and mmapped ones
}

// Heap held after a load (the document is freed when loading returns) minus
// the heap held with an empty tree and index, per favorite.
void BM_MemoryPerFavorite(benchmark::State& state) {
    Workload& w = Fixture::get().workload("mem10000");
    FavoritesManager& m = *w.manager;
    const std::string tag = "project/webfavorites/favoritesmanager";
    double perFavorite = 0, trackedPerFavorite = 0;
    for (auto _ : state) {
        Peer::drop(m);
        Peer::load(m);  // warm every cache once more
        Peer::drop(m);
        const std::size_t before = heapInUse();
        const memalloc::Counts tBefore = memalloc::MemoryAllocatorGateway::liveCounts(tag);
        Peer::load(m);
        const std::size_t after = heapInUse();
        const memalloc::Counts tAfter = memalloc::MemoryAllocatorGateway::liveCounts(tag);
        const double n = static_cast<double>(Peer::indexSize(m));
        perFavorite = (static_cast<double>(after) - static_cast<double>(before)) / n;
        trackedPerFavorite = (static_cast<double>(tAfter.bytes) - static_cast<double>(tBefore.bytes)) / n;
    }
    state.counters["bytes_per_favorite"] = perFavorite;
    state.counters["tracked_item_bytes_per_favorite"] = trackedPerFavorite;
    state.counters["favorites"] = static_cast<double>(Peer::indexSize(m));
}

// --- Whole-tree replacement from JSON ------------------------------------------
//   BM_UpdateAllJsonVsDirect  updateAll's rebuild from a JSON text of the
//                             10,000-favorite tree (evaluation, items, index;
//                             the save excluded), against the same tree built
//                             through createFolder, createFavoritesCatalogItem
//                             and addChild with the same index insertions

std::string jsonOf(const Node& n) {
    std::string out = "[";
    bool first = true;
    for (const Node& c : n.children) {
        if (!first) out += ",";
        first = false;
        if (c.catalogPath.empty())
            out += "{\"type\":\"1\",\"name\":\"" + c.name + "\",\"children\":" + jsonOf(c) + "}";
        else
            out += "{\"type\":\"0\",\"path\":\"" + c.catalogPath + "\"}";
    }
    return out + "]";
}

void buildDirect(FavoritesManager& m, const Node& n, Handle<FavoritesItem>& parent) {
    for (const Node& c : n.children) {
        Handle<FavoritesItem> item;
        if (c.catalogPath.empty()) {
            m.createFolder(catalog::ItemName(String::fromUtf8(c.name), catalog::ItemName::kNone), item,
                           parent->getPath());
            parent->addChild(item);
            buildDirect(m, c, item);
        } else {
            const catalog::Path path(String::fromUtf8(c.catalogPath));
            m.createFavoritesCatalogItem(path, item, parent->getPath());
            parent->addChild(item);
            Peer::insert(m, path);
        }
    }
}

// The rebuild in turns with the direct build.
void BM_UpdateAllJsonVsDirect(benchmark::State& state) {
    Fixture& f = Fixture::get();
    Workload& w = f.workload("spread10000");
    FavoritesManager& m = *w.manager;
    const String json = String::fromUtf8(jsonOf(w.tree));
    auto fromJson = [&] {
        if (Peer::rebuildFromJson(m, json) != favorites::kSuccess) fail("JSON rebuild failed");
    };
    auto direct = [&] {
        Peer::drop(m);
        buildDirect(m, w.tree, Peer::root(m));
    };
    inTurns(state, fromJson, direct);
    if (Peer::indexSize(m) != 10000) fail("a rebuild lost favorites");
    state.counters["json_bytes"] = static_cast<double>(json.size());
    Peer::load(m);
}

BENCHMARK(BM_IsFavoriteVsStdMap)->Arg(1000)->Arg(10000)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IsFavoriteVsSqlite)->Arg(1000)->Arg(10000)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IsFavoriteThreads)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_IsFavoriteStdMapThreads)->Threads(1)->Threads(2)->UseRealTime();
// The pairs run in turns report manual time, the figure's side alone (their
// CPU time covers both sides).
BENCHMARK(BM_LoadVsBaseline)->Arg(1000)->Arg(10000)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadPartParse)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadPartValidate)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadPartLookups)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LoadFlatVsSpread)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PersistVsBaseline)->Arg(1000)->Arg(10000)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_UpdateAllJsonVsDirect)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemoryPerFavorite)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    kiv::config::setCurrent(std::make_shared<kiv::ConfigReader>(
        std::map<int, kiv::String>{{kiv::ConfigReader::kDataDirectory, kiv::String::fromUtf8(KIV_BUILD_DATA_DIR)}}, 1.0));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
