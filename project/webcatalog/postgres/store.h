// The PostgreSQL catalog's store: parameters and results of libpq calls,
// connections, item rows, the administration's error helpers,
// and PostgresCatalog::Impl, which holds the connection pool and the rules
// shared by the catalog operations (postgrescatalog.cpp) and the
// administration (administration.cpp). An implementation detail of
// kiv_pgcatalog, not installed.
//
// Storage, in the catalog's schema:
//   meta(key, value)   'application' (this system's id), 'schema_version',
//                      'clock' (the last modified time handed out) and
//                      'acl_gen' (raised by every access-list change)
//   items(path PRIMARY KEY, parent, kind, signature, props, link_target,
//         mtime, body)  paths in byte order (COLLATE "C"), so that a folder's
//                      subtree is one range; bodies inline (large ones are
//                      kept apart by the database itself)
//   acl(path, principal, is_group, rights)
//   users(name, groups, password)
//   history(path, version, mtime, replaced, signature, body)
//                      earlier versions of the objects the history rule
//                      names (ManagedCatalog::setHistoryPolicy)
//
// Writes: every write transaction first locks the 'clock' row. That orders
// the writers of every server, and each statement after the lock sees what
// every earlier writer committed, so the checks made inside the transaction
// hold until it commits. The new time is the greatest of the database's
// clock, the last time plus one and the item's previous time plus one.
//
// Reads run on their own without a transaction (each statement one
// snapshot); a connection keeps a copy of the access lists, brought up to
// date when a read sees that 'acl_gen' moved. Results come in binary form.
#pragma once

#include <endian.h>
#include <libpq-fe.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "qz/webcatalog/storecommon.h"
#include "qz/webcatalog/postgrescatalog.h"
#include "qz/webcatalog/readerwriter.h"

namespace kiv::catalog {

// The types the catalog's translation units share.
namespace pgstore {

using store::AclEntry;
using store::decodeInto;
using store::decodeProperties;
using store::encodeProperties;
using store::fromUtf8;
using store::isValidPathText;
using store::kKindFolder;
using store::kKindLink;
using store::kKindObject;
using store::kMaxLinkHops;
using store::mayRead;
using store::mayWrite;
using store::parentOf;
using store::toUtf8;

inline constexpr std::int64_t kApplicationId = 0x4B495643;  // "KIVC"

// A failure of the database inside an operation; mapped to a ReturnCode at
// its edge.
struct PgError {
    std::string sqlstate;
    std::string message;
};

inline ReturnCode codeForPgError(const PgError& e) {
    // Serialization failures, deadlocks and lock timeouts: another writer.
    if (e.sqlstate == "40001" || e.sqlstate == "40P01" || e.sqlstate == "55P03") return kErrorLocked;
    return kErrorIO;
}

inline void logPgError(const PgError& e) {
    Logger::getLogger().log(kSevError, GDVariant(String(L"catalog database: %1 (%2)")),
                            {GDVariant(fromUtf8(e.message)), GDVariant(fromUtf8(e.sqlstate))},
                            KIV_FILE_LOCATION("project/webcatalog/postgres", __LINE__));
}

// Statement parameters: texts, byte strings and integers, each kept alive
// until the statement has run.
class Params {
public:
    Params& text(std::string_view v) { return add(std::string(v), false); }
    Params& bytes(std::string_view v) { return add(std::string(v), true); }
    Params& integer(std::int64_t v) { return add(std::to_string(v), false); }
    Params& null() {
        m_values.emplace_back();
        m_null.push_back(true);
        m_binary.push_back(false);
        return *this;
    }
    int size() const noexcept { return static_cast<int>(m_values.size()); }

    // The arrays libpq takes; valid while this object is unchanged.
    void fill(std::vector<const char*>& values, std::vector<int>& lengths, std::vector<int>& formats) const {
        values.clear();
        lengths.clear();
        formats.clear();
        for (std::size_t i = 0; i < m_values.size(); ++i) {
            values.push_back(m_null[i] ? nullptr : m_values[i].data());
            lengths.push_back(static_cast<int>(m_values[i].size()));
            formats.push_back(m_binary[i] ? 1 : 0);
        }
    }

private:
    Params& add(std::string v, bool binary) {
        m_values.push_back(std::move(v));
        m_null.push_back(false);
        m_binary.push_back(binary);
        return *this;
    }
    std::vector<std::string> m_values;
    std::vector<bool> m_null;
    std::vector<bool> m_binary;
};

// A result in binary form.
class Result {
public:
    explicit Result(PGresult* r) : m_r(r) {}
    ~Result() { PQclear(m_r); }
    Result(Result&& o) noexcept : m_r(std::exchange(o.m_r, nullptr)) {}
    Result& operator=(Result&&) = delete;
    Result(const Result&) = delete;

    int rows() const noexcept { return PQntuples(m_r); }
    bool isNull(int r, int c) const noexcept { return PQgetisnull(m_r, r, c) != 0; }
    std::string_view bytes(int r, int c) const noexcept {
        return std::string_view(PQgetvalue(m_r, r, c), static_cast<std::size_t>(PQgetlength(m_r, r, c)));
    }
    std::int64_t int8(int r, int c) const noexcept {
        std::uint64_t v = 0;
        std::memcpy(&v, PQgetvalue(m_r, r, c), sizeof v);
        return static_cast<std::int64_t>(be64toh(v));
    }
    std::int32_t int4(int r, int c) const noexcept {
        std::uint32_t v = 0;
        std::memcpy(&v, PQgetvalue(m_r, r, c), sizeof v);
        return static_cast<std::int32_t>(be32toh(v));
    }
    bool boolean(int r, int c) const noexcept { return *PQgetvalue(m_r, r, c) != 0; }

private:
    PGresult* m_r;
};

// One item row as read.
struct Row {
    int kind = 0;
    std::string signature;
    std::string props;
    std::string linkTarget;
    std::int64_t mtime = 0;
    std::int64_t aclGen = -1;
    std::optional<std::string> body;
};

// The columns of an item row; with the access-list generation of the same
// snapshot, and the body when asked for.
#define KIV_PG_ITEM_COLUMNS                                     \
    "kind::int4, signature, props, link_target, mtime::int8, " \
    "(SELECT value FROM meta WHERE key = 'acl_gen')::int8"
inline constexpr const char* kLookupSql = "SELECT " KIV_PG_ITEM_COLUMNS " FROM items WHERE path = $1";
inline constexpr const char* kLookupBodySql = "SELECT " KIV_PG_ITEM_COLUMNS ", body FROM items WHERE path = $1";
inline constexpr const char* kPrefetchSql =
    "SELECT path, " KIV_PG_ITEM_COLUMNS " FROM items WHERE path = ANY($1::text[])";
#undef KIV_PG_ITEM_COLUMNS

inline void readRow(const Result& r, int i, int first, Row& row) {
    row.kind = r.int4(i, first);
    row.signature.assign(r.bytes(i, first + 1));
    row.props.assign(r.isNull(i, first + 2) ? std::string_view() : r.bytes(i, first + 2));
    row.linkTarget.assign(r.isNull(i, first + 3) ? std::string_view() : r.bytes(i, first + 3));
    row.mtime = r.int8(i, first + 4);
    row.aclGen = r.isNull(i, first + 5) ? -1 : r.int8(i, first + 5);
}

struct StringViewHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>()(s); }
};

struct Conn {
    PGconn* pg = nullptr;
    std::unordered_set<std::string> prepared;  // statement names prepared on this connection

    // The access lists as of aclGen.
    std::int64_t aclGen = -1;
    std::unordered_map<std::string, std::vector<AclEntry>, StringViewHash, std::equal_to<>> acl;

    // While a read batch holds the connection: its rows by path (nullopt:
    // no item there), all of one snapshot.
    bool inBatch = false;
    std::unordered_map<std::string, std::optional<Row>> batchRows;

    ~Conn() {
        if (pg) PQfinish(pg);
    }
    bool healthy() const noexcept { return pg && PQstatus(pg) == CONNECTION_OK; }

    [[noreturn]] void fail(PGresult* r) {
        PgError e;
        if (r) {
            const char* state = PQresultErrorField(r, PG_DIAG_SQLSTATE);
            e.sqlstate = state ? state : "";
            e.message = PQresultErrorMessage(r);
            PQclear(r);
        } else {
            e.message = PQerrorMessage(pg);
        }
        while (!e.message.empty() && (e.message.back() == '\n' || e.message.back() == ' ')) e.message.pop_back();
        throw e;
    }

    // The result of a statement; raises PgError for a failed one.
    Result checked(PGresult* r) {
        const ExecStatusType st = PQresultStatus(r);
        if (st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK) fail(r);
        return Result(r);
    }

    // Runs a command without parameters or rows.
    void command(const char* sql) { checked(PQexec(pg, sql)); }

    // Runs `sql` prepared once per connection under `name`.
    Result run(const char* name, const char* sql, const Params& params = Params()) {
        if (!prepared.count(name)) {
            PGresult* r = PQprepare(pg, name, sql, params.size(), nullptr);
            if (PQresultStatus(r) != PGRES_COMMAND_OK) fail(r);
            PQclear(r);
            prepared.emplace(name);
        }
        std::vector<const char*> values;
        std::vector<int> lengths, formats;
        params.fill(values, lengths, formats);
        return checked(PQexecPrepared(pg, name, params.size(), values.data(), lengths.data(), formats.data(), 1));
    }

    // Runs `sql` once, unprepared.
    Result once(const std::string& sql, const Params& params = Params()) {
        std::vector<const char*> values;
        std::vector<int> lengths, formats;
        params.fill(values, lengths, formats);
        return checked(PQexecParams(pg, sql.c_str(), params.size(), nullptr, values.data(), lengths.data(),
                                    formats.data(), 1));
    }
};


// The paths an object's body names: the values of XML attributes that start
// with '/', with the five entities and character references resolved.
inline std::vector<std::string> namedPaths(std::string_view body) {
    std::vector<std::string> paths;
    for (std::size_t at = body.find('='); at != std::string_view::npos; at = body.find('=', at + 1)) {
        std::size_t q = at + 1;
        while (q < body.size() && (body[q] == ' ' || body[q] == '\t' || body[q] == '\n' || body[q] == '\r')) ++q;
        if (q + 1 >= body.size() || (body[q] != '"' && body[q] != '\'') || body[q + 1] != '/') continue;
        const char quote = body[q];
        const std::size_t end = body.find(quote, q + 1);
        if (end == std::string_view::npos) break;
        const std::string_view raw = body.substr(q + 1, end - q - 1);
        std::string value;
        value.reserve(raw.size());
        for (std::size_t i = 0; i < raw.size(); ++i) {
            if (raw[i] != '&') {
                value.push_back(raw[i]);
                continue;
            }
            const std::size_t semi = raw.find(';', i);
            if (semi == std::string_view::npos) {
                value.append(raw.substr(i));
                break;
            }
            const std::string_view ent = raw.substr(i + 1, semi - i - 1);
            if (ent == "amp") value.push_back('&');
            else if (ent == "lt") value.push_back('<');
            else if (ent == "gt") value.push_back('>');
            else if (ent == "quot") value.push_back('"');
            else if (ent == "apos") value.push_back('\'');
            else if (!ent.empty() && ent[0] == '#') {
                const bool hex = ent.size() > 1 && (ent[1] == 'x' || ent[1] == 'X');
                const std::string digits(ent.substr(hex ? 2 : 1));
                char* stop = nullptr;
                const unsigned long cp = std::strtoul(digits.c_str(), &stop, hex ? 16 : 10);
                if (digits.empty() || *stop || cp > 0x10FFFF) break;  // not a path this catalog stores
                store::appendUtf8(value, std::wstring(1, static_cast<wchar_t>(cp)));
            } else {
                break;
            }
            i = semi;
        }
        paths.push_back(std::move(value));
        at = end;
    }
    return paths;
}

// A PostgreSQL array literal of texts.
inline std::string textArray(const std::vector<std::string>& values) {
    std::string out = "{";
    for (const std::string& v : values) {
        if (out.size() > 1) out.push_back(',');
        out.push_back('"');
        for (const char c : v) {
            if (c == '"' || c == '\\') out.push_back('\\');
            out.push_back(c);
        }
        out.push_back('"');
    }
    out.push_back('}');
    return out;
}

}  // namespace pgstore

using namespace pgstore;

struct PostgresCatalog::Impl {
    std::string conninfo;
    Options options;
    const std::uint64_t serial = nextSerial();

    threads::Mutex poolMutex;
    std::condition_variable_any poolFree;
    std::vector<std::unique_ptr<Conn>> idle KIV_GUARDED_BY(poolMutex);  // free connections
    int open KIV_GUARDED_BY(poolMutex) = 0;                             // taken, idle or being opened
    std::vector<std::unique_ptr<Conn>> idleLockConns KIV_GUARDED_BY(poolMutex);
    store::HistorySetting history;

    static std::uint64_t nextSerial() noexcept {
        static std::atomic<std::uint64_t> counter{0};
        return counter.fetch_add(1, std::memory_order_relaxed) + 1;
    }

    // What a thread remembers: the connection a read batch of this thread
    // holds, and the paths named by the object it read last.
    struct ThreadState {
        std::uint64_t batchSerial = 0;
        Conn* batch = nullptr;
        std::uint64_t namedSerial = 0;
        std::vector<std::string> named;
    };
    static ThreadState& threadState() noexcept {
        thread_local ThreadState t_state;
        return t_state;
    }

    [[noreturn]] void loadingError(ReturnCode code, const std::string& why) const {
        throw CatalogException(code, fromUtf8(options.schema), fromUtf8("cannot open the catalog database: " + why));
    }

    std::unique_ptr<Conn> connect() {
        auto c = std::make_unique<Conn>();
        c->pg = PQconnectdb(conninfo.c_str());
        if (!c->pg || PQstatus(c->pg) != CONNECTION_OK) {
            std::string why = c->pg ? PQerrorMessage(c->pg) : "out of memory";
            while (!why.empty() && why.back() == '\n') why.pop_back();
            throw PgError{"08006", why};
        }
        char* quoted = PQescapeIdentifier(c->pg, options.schema.data(), options.schema.size());
        if (!quoted) c->fail(nullptr);
        const std::string set = std::string("SET search_path TO ") + quoted + "; SET client_encoding TO 'UTF8'";
        PQfreemem(quoted);
        c->command(set.c_str());
        return c;
    }

    // A connection for one operation: the pool's, or for reads the one a
    // read batch of this thread holds.
    class Lease {
    public:
        enum EUse { kAny, kRead };
        explicit Lease(Impl& impl, EUse use = kAny) : m_impl(impl) {
            ThreadState& t = threadState();
            if (use == kRead && t.batchSerial == impl.serial && t.batch) {
                m_conn = t.batch;
            } else {
                m_owned = impl.acquire();
                m_conn = m_owned.get();
            }
        }
        ~Lease() {
            if (m_owned) m_impl.release(std::move(m_owned));
        }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        Conn& operator*() const { return *m_conn; }
        Conn* operator->() const { return m_conn; }
        // Takes the connection out of the lease (for a read batch).
        std::unique_ptr<Conn> take() { return std::move(m_owned); }

    private:
        Impl& m_impl;
        Conn* m_conn = nullptr;
        std::unique_ptr<Conn> m_owned;
    };

    std::unique_ptr<Conn> acquire() {
        threads::MutexLock lock(poolMutex);
        while (idle.empty() && open >= options.maxConnections) poolFree.wait(lock);
        if (!idle.empty()) {
            std::unique_ptr<Conn> c = std::move(idle.back());
            idle.pop_back();
            return c;
        }
        ++open;
        lock.unlock();
        try {
            return connect();
        } catch (...) {
            lock.lock();
            --open;
            poolFree.notify_one();
            throw;
        }
    }

    // Gives a connection back; a broken one, or one left inside a
    // transaction by a failure, is closed instead.
    void release(std::unique_ptr<Conn> c) {
        if (c->healthy() && PQtransactionStatus(c->pg) != PQTRANS_IDLE) {
            PGresult* r = PQexec(c->pg, "ROLLBACK");
            PQclear(r);
        }
        const bool keep = c->healthy() && PQtransactionStatus(c->pg) == PQTRANS_IDLE;
        if (!keep) c.reset();
        {
            threads::MutexLock lock(poolMutex);
            if (keep)
                idle.push_back(std::move(c));
            else
                --open;
        }
        poolFree.notify_one();
    }

    // Creates the schema and tables when missing, checks them otherwise.
    void openStore() {
        std::unique_ptr<Conn> c;
        try {
            c = connect();
        } catch (const PgError& e) {
            loadingError(kErrorLoadingCatalog, e.message);
        }
        try {
            Result tables = c->once("SELECT count(*)::int8 FROM pg_catalog.pg_tables WHERE schemaname = $1",
                                    Params().text(options.schema));
            if (tables.int8(0, 0) == 0) {
                if (!options.create)
                    loadingError(kErrorCatalogNotFound, "no catalog in schema \"" + options.schema + "\"");
                createSchema(*c);
            }
            Result meta = [&] {
                try {
                    return c->once("SELECT key, value::int8 FROM meta");
                } catch (const PgError&) {
                    loadingError(kErrorLoadingCatalog,
                                 "schema \"" + options.schema + "\" holds tables that are not a catalog of this system");
                }
            }();
            std::int64_t app = 0, version = 0;
            for (int i = 0; i < meta.rows(); ++i) {
                if (meta.bytes(i, 0) == "application") app = meta.int8(i, 1);
                if (meta.bytes(i, 0) == "schema_version") version = meta.int8(i, 1);
            }
            if (app != kApplicationId)
                loadingError(kErrorLoadingCatalog,
                             "schema \"" + options.schema + "\" holds tables that are not a catalog of this system");
            if (version == 1) version = upgradeFromVersion1(*c);
            if (version != kSchemaVersion)
                loadingError(kErrorLoadingCatalog, "unsupported catalog schema version " + std::to_string(version) +
                                                       " (expected " + std::to_string(kSchemaVersion) + ")");
        } catch (const PgError& e) {
            loadingError(kErrorLoadingCatalog, e.message);
        }
        threads::MutexLock lock(poolMutex);
        idle.push_back(std::move(c));
        open = 1;
    }

    void createSchema(Conn& c) {
        // Servers starting together: a transaction-level advisory lock lets
        // one create, and the others find the tables in place.
        c.command("BEGIN");
        c.once("SELECT pg_advisory_xact_lock(1263097411, hashtext($1))", Params().text(options.schema));
        char* quoted = PQescapeIdentifier(c.pg, options.schema.data(), options.schema.size());
        if (!quoted) c.fail(nullptr);
        const std::string schemaName = quoted;
        PQfreemem(quoted);
        c.command(("CREATE SCHEMA IF NOT EXISTS " + schemaName).c_str());
        Result tables = c.once("SELECT count(*)::int8 FROM pg_catalog.pg_tables WHERE schemaname = $1",
                               Params().text(options.schema));
        if (tables.int8(0, 0) != 0) {
            c.command("ROLLBACK");
            return;
        }
        c.command((
            "CREATE TABLE meta(key text PRIMARY KEY, value bigint NOT NULL);"
            "CREATE TABLE items("
            " path text COLLATE \"C\" PRIMARY KEY,"
            " parent text COLLATE \"C\","
            " kind integer NOT NULL,"
            " signature text NOT NULL DEFAULT '',"
            " props bytea,"
            " link_target text,"
            " mtime bigint NOT NULL,"
            " body bytea);"
            "CREATE INDEX items_parent ON items(parent);"
            "CREATE TABLE acl(path text COLLATE \"C\" NOT NULL, principal text NOT NULL, is_group boolean NOT NULL,"
            " rights integer NOT NULL, PRIMARY KEY(path, principal, is_group));"
            "CREATE TABLE users(name text PRIMARY KEY, groups text NOT NULL, password text);"
            + std::string(kHistoryTableSql) +
            "INSERT INTO meta(key, value) VALUES ('application', 1263097411), ('schema_version', 2), ('acl_gen', 0),"
            " ('clock', (extract(epoch from clock_timestamp()) * 1000000)::bigint);"
            "INSERT INTO items(path, parent, kind, mtime) SELECT '/', NULL, 1, value FROM meta WHERE key = 'clock';"
            "INSERT INTO acl(path, principal, is_group, rights) VALUES ('/', 'everyone', true, 1);"
            "COMMIT").c_str());
    }

    static constexpr const char* kHistoryTableSql =
        "CREATE TABLE history(path text COLLATE \"C\" NOT NULL, version bigint NOT NULL, mtime bigint NOT NULL,"
        " replaced bigint NOT NULL, signature text NOT NULL, body bytea NOT NULL, PRIMARY KEY(path, version));";

    // Version 1 had no history. Servers starting together: the first to
    // take the lock upgrades, the others find version 2.
    std::int64_t upgradeFromVersion1(Conn& c) {
        c.command("BEGIN");
        c.once("SELECT pg_advisory_xact_lock(1263097411, hashtext($1))", Params().text(options.schema));
        Result v = c.once("SELECT value::int8 FROM meta WHERE key = 'schema_version'");
        if (v.rows() != 0 && v.int8(0, 0) == 1) {
            c.command(kHistoryTableSql);
            c.command("UPDATE meta SET value = 2 WHERE key = 'schema_version'");
        }
        c.command("COMMIT");
        Result now = c.once("SELECT value::int8 FROM meta WHERE key = 'schema_version'");
        return now.rows() != 0 ? now.int8(0, 0) : 0;
    }

    // --- access rights ------------------------------------------------------

    // Brings the connection's access lists up to generation `gen` (read with
    // the row that is being judged).
    void refreshAcl(Conn& c, std::int64_t gen) {
        if (gen == c.aclGen && gen >= 0) return;
        Result r = c.run("acl_all",
                         "SELECT path, principal, is_group, rights::int4, "
                         "(SELECT value FROM meta WHERE key = 'acl_gen')::int8 FROM acl");
        c.acl.clear();
        std::int64_t loaded = gen;
        for (int i = 0; i < r.rows(); ++i) {
            c.acl[std::string(r.bytes(i, 0))].push_back(store::makeAclEntry(r.bytes(i, 1), r.boolean(i, 2), r.int4(i, 3)));
            loaded = r.int8(i, 4);
        }
        if (r.rows() == 0) {
            Result g = c.run("acl_gen", "SELECT value::int8 FROM meta WHERE key = 'acl_gen'");
            loaded = g.rows() ? g.int8(0, 0) : 0;
        }
        c.aclGen = loaded;
    }

    static int rightsOf(Conn& c, const AccountToken& user, std::string_view path) {
        if (isAdministrator(user)) return static_cast<int>(Rights::kWrite);
        for (std::string_view p = path; !p.empty(); p = parentOf(p)) {
            const auto it = c.acl.find(p);
            if (it == c.acl.end()) continue;
            return store::rightsFrom(it->second, user);
        }
        return 0;
    }

    // --- rows ------------------------------------------------------------------

    // The item at `path`, with its body when asked; from the batch's rows
    // when a batch holds the connection.
    std::optional<Row> lookup(Conn& c, const std::string& path, bool withBody) {
        if (c.inBatch && !withBody) {
            const auto it = c.batchRows.find(path);
            if (it != c.batchRows.end()) return it->second;
        }
        Result r = withBody ? c.run("lookup_body",
                                    kLookupBodySql,
                                    Params().text(path))
                            : c.run("lookup", kLookupSql,
                                    Params().text(path));
        std::optional<Row> row;
        if (r.rows() != 0) {
            row.emplace();
            readRow(r, 0, 0, *row);
            if (withBody && !r.isNull(0, 6)) row->body.emplace(r.bytes(0, 6));
        }
        if (c.inBatch) {
            std::optional<Row> kept = row;
            if (kept) kept->body.reset();
            c.batchRows[path] = std::move(kept);
        }
        return row;
    }

    // Fetches the rows of `paths`, and of the links' targets, into the batch.
    void prefetch(Conn& c, std::vector<std::string> paths) {
        for (int round = 0; round <= kMaxLinkHops && !paths.empty(); ++round) {
            std::sort(paths.begin(), paths.end());
            paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
            paths.erase(std::remove_if(paths.begin(), paths.end(), [&](const std::string& p) { return c.batchRows.count(p) != 0; }),
                        paths.end());
            if (paths.empty()) break;
            Result r = c.run("prefetch",
                             kPrefetchSql,
                             Params().text(textArray(paths)));
            for (const std::string& p : paths) c.batchRows[p] = std::nullopt;
            std::vector<std::string> targets;
            for (int i = 0; i < r.rows(); ++i) {
                Row row;
                readRow(r, i, 1, row);
                if (row.kind == kKindLink) targets.push_back(row.linkTarget);
                c.batchRows[std::string(r.bytes(i, 0))] = std::move(row);
            }
            paths = std::move(targets);
        }
    }

    static void fillEntry(ItemInfo::Entry& e, const Row& row, bool withProperties) {
        e.type = static_cast<unsigned>(row.kind);
        e.lastModified = row.mtime;
        decodeInto(e.signature, row.signature);
        if (withProperties)
            decodeProperties(e.properties, row.props);
        else
            e.properties.clear();
    }

    // The common read path of getItemInfo and readObject. With `body`, the
    // resolved object's body is copied into it.
    ReturnCode inspect(const AccountToken& user, const Path& path, ItemInfo& info, bool originalOnly,
                       bool withProperties, std::string* body) {
        if (!isValidPathText(path)) return kErrorPathInvalid;
        const std::string p = toUtf8(path);
        try {
            Lease c(*this, Lease::kRead);
            std::optional<Row> row = lookup(*c, p, body != nullptr);
            if (!row) return kErrorPathNotFound;
            refreshAcl(*c, row->aclGen);
            if (!mayRead(rightsOf(*c, user, p)))
                return store::unreadableItemCode(p, [&](std::string_view q) { return rightsOf(*c, user, q); });

            ItemInfo::Entry& o = info.original();
            o.path = path;
            fillEntry(o, *row, withProperties);
            if (row->kind != kKindLink || originalOnly) {
                info.resolved() = o;
                if (body) {
                    if (row->kind != kKindObject) return kErrorObjectExpected;
                    body->assign(row->body ? *row->body : std::string());
                }
                return kSuccess;
            }
            // Follow the link to an item that is not a link.
            std::vector<std::string> visited{p};
            std::string hop = row->linkTarget;
            ItemInfo::Entry& r = info.resolved();
            for (int hops = 0;; ++hops) {
                r.path = Path(fromUtf8(hop), kUnchecked);
                if (std::find(visited.begin(), visited.end(), hop) != visited.end() || hops >= kMaxLinkHops) {
                    r.type = kCircular | kLink;
                    return kErrorCircularLink;
                }
                std::optional<Row> target = lookup(*c, hop, body != nullptr);
                if (!target) {
                    r.type = kMissing;
                    return kErrorLinkTargetPathNotFound;
                }
                if (!mayRead(rightsOf(*c, user, hop))) {
                    r.type = kNoAccess;
                    return kErrorLinkTargetAccessDenied;
                }
                if (target->kind != kKindLink) {
                    fillEntry(r, *target, withProperties);
                    if (body) {
                        if (target->kind != kKindObject) return kErrorObjectExpected;
                        body->assign(target->body ? *target->body : std::string());
                    }
                    return kSuccess;
                }
                visited.push_back(hop);
                hop = target->linkTarget;
            }
        } catch (const PgError& e) {
            logPgError(e);
            return codeForPgError(e);
        }
    }

    // --- writing -------------------------------------------------------------

    // A write transaction holding the clock row: rolled back unless
    // committed (by the pool, when the connection comes back).
    class WriteTxn {
    public:
        explicit WriteTxn(Conn& c) : m_c(c) {
            c.command("BEGIN");
            Result r = c.run("clock_lock",
                             "SELECT value::int8, (extract(epoch from clock_timestamp()) * 1000000)::int8 "
                             "FROM meta WHERE key = 'clock' FOR UPDATE");
            m_clock = r.int8(0, 0);
            m_now = r.int8(0, 1);
        }
        // The next modified time for an item last modified at `previous`.
        std::int64_t nextTime(std::int64_t previous) {
            m_clock = std::max({m_now, m_clock + 1, previous + 1});
            m_advanced = true;
            return m_clock;
        }
        void aclChanged() { m_aclChanged = true; }
        void commit() {
            if (m_advanced)
                m_c.run("clock_set", "UPDATE meta SET value = $1::int8 WHERE key = 'clock'", Params().integer(m_clock));
            if (m_aclChanged) m_c.run("acl_bump", "UPDATE meta SET value = value + 1 WHERE key = 'acl_gen'");
            m_c.command("COMMIT");
        }

    private:
        Conn& m_c;
        std::int64_t m_clock = 0;
        std::int64_t m_now = 0;
        bool m_advanced = false;
        bool m_aclChanged = false;
    };

    // The checks of a write to the object at `p` (parent `parent`).
    ReturnCode checkWrite(Conn& c, const AccountToken& user, const std::string& p, const std::string& parent,
                          std::optional<Row>& existing) {
        const std::optional<Row> folder = lookup(c, parent, false);
        if (!folder) return kErrorPathNotFound;
        refreshAcl(c, folder->aclGen);
        if (folder->kind != kKindFolder) return kErrorFolderExpected;
        existing = lookup(c, p, false);
        if (existing && existing->kind != kKindObject) return kErrorObjectExpected;
        if (!mayWrite(rightsOf(c, user, existing ? p : parent))) return kErrorAccessDenied;
        return kSuccess;
    }

    // Inside a write transaction, before the object at `p` is replaced or
    // removed at time `replaced`: copies it into the history when the
    // history rule names it, and prunes the oldest versions beyond the rule.
    void keepVersion(Conn& c, const std::string& p, std::int64_t replaced) {
        if (!history.active()) return;
        Result r = c.run("version_candidate", "SELECT signature FROM items WHERE path = $1 AND kind = 4",
                         Params().text(p));
        if (r.rows() == 0) return;
        const unsigned keep = history.versionsFor(p, r.bytes(0, 0));
        if (keep == 0) return;
        c.run("keep_version",
              "INSERT INTO history(path, version, mtime, replaced, signature, body) "
              "SELECT path, COALESCE((SELECT max(version) FROM history WHERE path = $1), 0) + 1, mtime, $2::int8, "
              "signature, COALESCE(body, ''::bytea) FROM items WHERE path = $1",
              Params().text(p).integer(replaced));
        c.run("prune_versions",
              "DELETE FROM history WHERE path = $1 AND "
              "version <= (SELECT max(version) FROM history WHERE path = $1) - $2::int8",
              Params().text(p).integer(keep));
    }

    void upsert(Conn& c, const std::string& p, std::string_view parent, int kind, std::string_view signature,
                const std::optional<std::string>& props, const std::optional<std::string>& linkTarget,
                std::int64_t mtime, const std::optional<std::string_view>& body) {
        Params params;
        params.text(p).text(parent).integer(kind).text(signature);
        if (props) params.bytes(*props); else params.null();
        if (linkTarget) params.text(*linkTarget); else params.null();
        params.integer(mtime);
        if (body) params.bytes(*body); else params.null();
        c.run("upsert",
              "INSERT INTO items(path, parent, kind, signature, props, link_target, mtime, body) "
                  "VALUES ($1, $2, $3::int4, $4, $5, $6, $7::int8, $8) ON CONFLICT(path) DO UPDATE SET "
                  "parent = excluded.parent, kind = excluded.kind, signature = excluded.signature, "
                  "props = excluded.props, link_target = excluded.link_target, mtime = excluded.mtime, "
                  "body = excluded.body",
                  params);
    }

    // Makes every missing folder from the root down to `folder`.
    void makeFolders(Conn& c, WriteTxn& txn, const Path& original, std::string_view folder) {
        if (folder.empty()) return;
        const std::optional<Row> row = lookup(c, std::string(folder), false);
        if (row && row->kind == kKindFolder) return;
        if (row) throw CatalogException(kErrorFolderExpected, original.toString(), String(L"a non-folder item is in the way"));
        const std::string_view parent = parentOf(folder);
        makeFolders(c, txn, original, parent);
        upsert(c, std::string(folder), parent, kKindFolder, "", std::nullopt, std::nullopt, txn.nextTime(0), std::nullopt);
    }

    void putOne(Conn& c, WriteTxn& txn, const Path& path, const String& signature,
                const std::map<String, String>& properties, std::string_view body) {
        if (!isValidPathText(path)) throw CatalogException(kErrorPathInvalid, path.toString(), String());
        if (path.isRoot()) throw CatalogException(kErrorRootSacred, path.toString(), String());
        const std::string p = toUtf8(path);
        const std::string_view parent = parentOf(p);
        makeFolders(c, txn, path, parent);
        const std::optional<Row> old = lookup(c, p, false);
        if (old && old->kind != kKindObject) throw CatalogException(kErrorObjectExpected, path.toString(), String());
        const std::int64_t t = txn.nextTime(old ? old->mtime : 0);
        if (old) keepVersion(c, p, t);
        upsert(c, p, parent, kKindObject, toUtf8(signature), encodeProperties(properties), std::nullopt, t, body);
    }
};

namespace pgstore {

[[noreturn]] inline void adminFail(ReturnCode code, const Path& path, const wchar_t* why = L"") {
    throw CatalogException(code, path.toString(), String(why));
}

inline void requireValid(const Path& path) {
    if (!isValidPathText(path)) adminFail(kErrorPathInvalid, path);
}

template <class F>
auto adminCall(const Path& path, F&& f) {
    try {
        return f();
    } catch (const PgError& e) {
        logPgError(e);
        throw CatalogException(codeForPgError(e), path.toString(), fromUtf8(e.message));
    }
}

}  // namespace pgstore

}  // namespace kiv::catalog
