// The SQLite catalog's store: connections with their prepared statements,
// statements, transactions, item rows, and SqliteCatalog::Impl, which holds
// the connection pool and the rules shared by the catalog operations
// (sqlitecatalog.cpp) and the administration (administration.cpp). An
// implementation detail of kiv_sqlitecatalog, not installed.
//
// Storage:
//   items(path PRIMARY KEY, parent, kind, signature, props, link_target,
//         mtime, body_id)     WITHOUT ROWID, so a look-up by path is one
//                             B-tree search; bodies live apart so item rows
//                             stay small
//   bodies(id, data)          object bodies
//   acl(path, principal, is_group, rights)
//   users(name, groups, password)
//                             groups joined by "\n"; password: the user's
//                             password hash, NULL when none is set
//   meta(key, value)          'clock': the last modified time handed out;
//                             'acl_gen': raised by every access-list change
//   history(path, version, mtime, replaced, signature, data)
//                             earlier versions of the objects the history
//                             rule names (ManagedCatalog::setHistoryPolicy)
// Properties are kept in the item row (UTF-8 "name\0value\0..."), so that
// getItemInfo with properties stays one row read. The file carries an
// application id and the schema version (user_version), by which a foreign
// or older file is recognised before anything is written to it.
//
// Connections: a pool, one connection per concurrent caller (the in-memory
// store has exactly one, which callers take in turn); a thread takes the
// connection it used last again without locking. Each connection keeps
// its prepared statements and a copy of the access lists, reloaded when the
// store's data version shows a change and the access-list generation moved.
// No connection is held while a reader, writer or replace helper is called
// back, so callbacks may use the catalog.
#pragma once

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <set>
#include <string>
#include <unordered_map>

#include "qz/webcatalog/storecommon.h"
#include "qz/webcatalog/readerwriter.h"
#include "qz/webcatalog/sqlitecatalog.h"

namespace kiv::catalog {

// The types the catalog's translation units share.
namespace sqlitestore {

inline constexpr int kApplicationId = 0x4B495643;  // "KIVC"
using store::AclEntry;
using store::appendUtf8;
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
using store::nowMicros;
using store::parentOf;
using store::toUtf8;

// ---------------------------------------------------------------------------
// SQLite access.

// A store failure inside an operation; mapped to a ReturnCode at its edge.
struct SqlError {
    int rc;
    std::string message;
};

// The directory a file name is in ("." for a bare name).
inline std::string directoryOf(const std::string& file) {
    const std::string::size_type slash = file.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : file.substr(0, slash);
}

enum StmtId {
    kStLookup,
    kStLookupHop,
    kStBody,
    kStAclGen,
    kStAclAll,
    kStBegin,
    kStCommit,
    kStRollback,
    kStClock,
    kStSetClock,
    kStBumpAclGen,
    kStInsertBody,
    kStUpdateBody,
    kStUpsertItem,
    kStDeleteItem,
    kStDeleteBody,
    kStDeleteAclOf,
    kStSetProps,
    kStBeginRead,
    kStVersionCandidate,
    kStKeepVersion,
    kStPruneVersions,
    kStListChildren,
    kStCount
};

inline const char* const kStmtSql[kStCount] = {
    "SELECT kind, signature, props, link_target, mtime, body_id FROM items WHERE path = ?1",
    "SELECT kind, signature, props, link_target, mtime, body_id FROM items WHERE path = ?1",
    "SELECT data FROM bodies WHERE id = ?1",
    "SELECT value FROM meta WHERE key = 'acl_gen'",
    "SELECT path, principal, is_group, rights FROM acl",
    "BEGIN IMMEDIATE",
    "COMMIT",
    "ROLLBACK",
    "SELECT value FROM meta WHERE key = 'clock'",
    "UPDATE meta SET value = ?1 WHERE key = 'clock'",
    "UPDATE meta SET value = value + 1 WHERE key = 'acl_gen'",
    "INSERT INTO bodies(data) VALUES (?1)",
    "UPDATE bodies SET data = ?2 WHERE id = ?1",
    "INSERT INTO items(path, parent, kind, signature, props, link_target, mtime, body_id) "
    "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8) ON CONFLICT(path) DO UPDATE SET parent = excluded.parent, "
    "kind = excluded.kind, signature = excluded.signature, props = excluded.props, "
    "link_target = excluded.link_target, mtime = excluded.mtime, body_id = excluded.body_id",
    "DELETE FROM items WHERE path = ?1",
    "DELETE FROM bodies WHERE id = ?1",
    "DELETE FROM acl WHERE path = ?1",
    "UPDATE items SET props = ?2, mtime = ?3 WHERE path = ?1",
    "BEGIN",
    "SELECT signature FROM items WHERE path = ?1 AND kind = 4",
    "INSERT INTO history(path, version, mtime, replaced, signature, data) "
    "SELECT i.path, COALESCE((SELECT max(version) FROM history WHERE path = ?1), 0) + 1, i.mtime, ?2, i.signature, "
    "COALESCE(b.data, x'') FROM items i LEFT JOIN bodies b ON b.id = i.body_id WHERE i.path = ?1",
    "DELETE FROM history WHERE path = ?1 AND version <= (SELECT max(version) FROM history WHERE path = ?1) - ?2",
    "SELECT path, kind, mtime, signature, link_target, props FROM items WHERE parent = ?1 ORDER BY path",
};

inline const char* const kSchemaSql =
    "CREATE TABLE items("
    " path TEXT PRIMARY KEY NOT NULL,"
    " parent TEXT,"
    " kind INTEGER NOT NULL,"
    " signature TEXT NOT NULL DEFAULT '',"
    " props BLOB,"
    " link_target TEXT,"
    " mtime INTEGER NOT NULL,"
    " body_id INTEGER) WITHOUT ROWID;"
    "CREATE INDEX items_parent ON items(parent);"
    "CREATE TABLE bodies(id INTEGER PRIMARY KEY, data BLOB NOT NULL);"
    "CREATE TABLE acl(path TEXT NOT NULL, principal TEXT NOT NULL, is_group INTEGER NOT NULL,"
    " rights INTEGER NOT NULL, PRIMARY KEY(path, principal, is_group)) WITHOUT ROWID;"
    "CREATE TABLE users(name TEXT PRIMARY KEY NOT NULL, groups TEXT NOT NULL, password TEXT) WITHOUT ROWID;"
    "CREATE TABLE meta(key TEXT PRIMARY KEY NOT NULL, value INTEGER NOT NULL) WITHOUT ROWID;"
    "CREATE TABLE history(path TEXT NOT NULL, version INTEGER NOT NULL, mtime INTEGER NOT NULL,"
    " replaced INTEGER NOT NULL, signature TEXT NOT NULL, data BLOB NOT NULL, PRIMARY KEY(path, version));";

struct StringViewHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>()(s); }
};

struct Conn {
    sqlite3* db = nullptr;
    sqlite3_stmt* stmts[kStCount] = {};
    std::string pathBuf;  // the UTF-8 text of the path of the current operation
    std::string hopBuf;   // the current link target
    std::vector<std::string> visited;

    // Access lists as of (dataVersion, aclGen, localGen).
    bool aclLoaded = false;
    unsigned dataVersion = 0;
    std::int64_t aclGen = -1;
    std::uint64_t localGen = 0;
    std::unordered_map<std::string, std::vector<AclEntry>, StringViewHash, std::equal_to<>> acl;

    ~Conn() {
        for (auto*& s : stmts)
            if (s) sqlite3_finalize(s);
        if (db) sqlite3_close_v2(db);
    }

    [[noreturn]] void fail(int rc) const {
        throw SqlError{rc, db ? sqlite3_errmsg(db) : sqlite3_errstr(rc)};
    }

    sqlite3_stmt* stmt(StmtId id) {
        sqlite3_stmt*& s = stmts[id];
        if (!s) {
            const int rc = sqlite3_prepare_v3(db, kStmtSql[id], -1, SQLITE_PREPARE_PERSISTENT, &s, nullptr);
            if (rc != SQLITE_OK) fail(rc);
        }
        return s;
    }
};

// One statement in use: a cached one (reset on scope exit) or an ad hoc one
// (finalised on scope exit).
class Query {
public:
    Query(Conn& c, StmtId id) : m_conn(c), m_stmt(c.stmt(id)), m_owned(false) {}
    Query(Conn& c, const char* sql) : m_conn(c), m_owned(true) {
        const int rc = sqlite3_prepare_v2(c.db, sql, -1, &m_stmt, nullptr);
        if (rc != SQLITE_OK) c.fail(rc);
    }
    ~Query() {
        if (m_owned) {
            sqlite3_finalize(m_stmt);
        } else {
            // Every use binds all parameters again, so the bindings are
            // left as they are.
            sqlite3_reset(m_stmt);
        }
    }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    // Text and blobs are bound without a copy: the caller keeps them alive
    // until the query is done.
    Query& text(int i, std::string_view v) {
        check(sqlite3_bind_text(m_stmt, i, v.data(), static_cast<int>(v.size()), SQLITE_STATIC));
        return *this;
    }
    Query& blob(int i, std::string_view v) {
        check(sqlite3_bind_blob(m_stmt, i, v.data(), static_cast<int>(v.size()), SQLITE_STATIC));
        return *this;
    }
    Query& integer(int i, std::int64_t v) {
        check(sqlite3_bind_int64(m_stmt, i, v));
        return *this;
    }
    Query& null(int i) {
        check(sqlite3_bind_null(m_stmt, i));
        return *this;
    }
    // True for a row, false when done.
    bool step() {
        const int rc = sqlite3_step(m_stmt);
        if (rc == SQLITE_ROW) return true;
        if (rc == SQLITE_DONE) return false;
        m_conn.fail(rc);
    }
    void run() {
        while (step()) {
        }
    }
    void reset() { sqlite3_reset(m_stmt); }

    std::int64_t integerAt(int i) const { return sqlite3_column_int64(m_stmt, i); }
    bool isNull(int i) const { return sqlite3_column_type(m_stmt, i) == SQLITE_NULL; }
    std::string_view textAt(int i) const {
        const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(m_stmt, i));
        return p ? std::string_view(p, static_cast<std::size_t>(sqlite3_column_bytes(m_stmt, i)))
                 : std::string_view();
    }
    std::string_view blobAt(int i) const {
        const auto* p = static_cast<const char*>(sqlite3_column_blob(m_stmt, i));
        return p ? std::string_view(p, static_cast<std::size_t>(sqlite3_column_bytes(m_stmt, i)))
                 : std::string_view();
    }

private:
    void check(int rc) {
        if (rc != SQLITE_OK) m_conn.fail(rc);
    }
    Conn& m_conn;
    sqlite3_stmt* m_stmt = nullptr;
    bool m_owned;
};

// A write transaction (BEGIN IMMEDIATE): rolled back unless committed.
class WriteTxn {
public:
    explicit WriteTxn(Conn& c) : m_conn(c) { Query(c, kStBegin).run(); }
    ~WriteTxn() {
        if (!m_done) sqlite3_exec(m_conn.db, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    void commit() {
        Query(m_conn, kStCommit).run();
        m_done = true;
    }

private:
    Conn& m_conn;
    bool m_done = false;
};

// One item row, read from a query that stays active while the row is used.
struct Row {
    int kind = 0;
    std::string_view signature;
    std::string_view props;
    std::string_view linkTarget;
    std::int64_t mtime = 0;
    std::int64_t bodyId = 0;
    bool hasBody = false;

    // Reads the columns the caller uses: the properties and the body's id
    // only when asked for, the link target only of a link.
    void take(const Query& q, bool withProperties = true, bool withBody = true) {
        kind = static_cast<int>(q.integerAt(0));
        signature = q.textAt(1);
        props = withProperties ? q.blobAt(2) : std::string_view();
        linkTarget = kind == kKindLink ? q.textAt(3) : std::string_view();
        mtime = q.integerAt(4);
        hasBody = withBody && !q.isNull(5);
        bodyId = hasBody ? q.integerAt(5) : 0;
    }
};

inline ReturnCode codeForSqlError(const SqlError& e) {
    const int primary = e.rc & 0xFF;
    if (primary == SQLITE_BUSY || primary == SQLITE_LOCKED) return kErrorLocked;
    return kErrorIO;
}

inline void logSqlError(const SqlError& e, const std::string& file) {
    Logger::getLogger().log(kSevError, GDVariant(String(L"catalog store %1: %2")),
                            {GDVariant(fromUtf8(file)), GDVariant(fromUtf8(e.message))},
                            KIV_FILE_LOCATION("project/webcatalog/sqlitecatalog", __LINE__));
}

// Checks a path and writes its UTF-8 form to `out`; the answer is exactly
// Path::check's. `out` is left unspecified for an invalid path.
inline EItemNameValidity encodeCheckedPath(const Path& path, std::string& out) {
    const EItemNameValidity validity = path.check();
    if (validity == kItemNameValid) {
        out.clear();
        appendUtf8(out, path);
    }
    return validity;
}

}  // namespace sqlitestore

using namespace sqlitestore;

// ---------------------------------------------------------------------------

struct SqliteCatalog::Impl {
    std::string file;
    bool inMemory = false;
    Options options;

    // The connection pool: every connection ever opened (conns), those not
    // taken by an operation (idle, the one given back last on top, its pages
    // warmest), and how many are opened or being opened. The in-memory store
    // has exactly one connection, so its operations take turns.
    threads::Mutex poolMutex;
    std::condition_variable_any poolFree;
    std::vector<std::unique_ptr<Conn>> conns KIV_GUARDED_BY(poolMutex);
    std::vector<Conn*> idle KIV_GUARDED_BY(poolMutex);
    std::size_t open KIV_GUARDED_BY(poolMutex) = 0;
    std::size_t maxOpen = SIZE_MAX;  // set before the first operation

    // The write locks of the in-memory catalog: the paths held.
    threads::Mutex lockMutex;
    std::condition_variable_any lockReleased;
    std::set<std::string> lockedPaths KIV_GUARDED_BY(lockMutex);

    store::HistorySetting history;

    // Raised after every access-list change made through this object.
    std::atomic<std::uint64_t> localAclGen{0};
    std::atomic<int> upgradeMode{Reader::kUpgradeAuto};

    // The read batch this thread holds, if any (see beginReadBatch): its
    // catalog and its connection, which the thread's reads use. A catalog
    // matches only while it is alive, as a call on it is.
    struct ThreadState {
        const Impl* pinnedImpl = nullptr;
        Conn* pinned = nullptr;
    };
    static ThreadState& threadState() noexcept {
        thread_local ThreadState t_state;
        return t_state;
    }

    // A connection for one operation: the pool's, or for reads the one a
    // read batch of this thread has pinned.
    class Lease {
    public:
        enum EUse { kAny, kRead };
        explicit Lease(Impl& impl, EUse use = kAny) : m_impl(impl) {
            const ThreadState& t = threadState();
            if (use == kRead && t.pinnedImpl == &impl) {
                m_conn = t.pinned;
            } else {
                m_conn = impl.acquire();
                m_owned = true;
            }
        }
        ~Lease() {
            if (m_owned) m_impl.release(m_conn);
        }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        Conn& operator*() const { return *m_conn; }
        Conn* operator->() const { return m_conn; }

    private:
        Impl& m_impl;
        Conn* m_conn = nullptr;
        bool m_owned = false;
    };

    // An idle connection, a new one while fewer than maxOpen are open, or
    // else the first one given back.
    Conn* acquire() {
        threads::MutexLock lock(poolMutex);
        while (idle.empty() && open >= maxOpen) poolFree.wait(lock);
        if (!idle.empty()) {
            Conn* c = idle.back();
            idle.pop_back();
            return c;
        }
        ++open;
        lock.unlock();
        std::unique_ptr<Conn> fresh;
        try {
            fresh = connect();
        } catch (...) {
            lock.lock();
            --open;
            poolFree.notify_one();
            throw;
        }
        Conn* c = fresh.get();
        lock.lock();
        conns.push_back(std::move(fresh));
        return c;
    }

    void release(Conn* c) {
        {
            threads::MutexLock lock(poolMutex);
            idle.push_back(c);
        }
        poolFree.notify_one();
    }

    [[noreturn]] void loadingError(const std::string& why) const {
        throw CatalogException(kErrorLoadingCatalog, fromUtf8(file),
                               fromUtf8("cannot open catalog file \"" + file + "\": " + why));
    }

    std::unique_ptr<Conn> connect() {
        auto c = std::make_unique<Conn>();
        int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX;
        if (inMemory || options.create) flags |= SQLITE_OPEN_CREATE;
        const int rc = sqlite3_open_v2(inMemory ? ":memory:" : file.c_str(), &c->db, flags, nullptr);
        if (rc != SQLITE_OK) loadingError(c->db ? sqlite3_errmsg(c->db) : sqlite3_errstr(rc));
        sqlite3_extended_result_codes(c->db, 1);
        sqlite3_busy_timeout(c->db, options.busyTimeoutMs);
        // A page cache large enough for the item index of a big catalog
        // (16 MiB per connection), so look-ups rarely go to the file.
        sqlite3_exec(c->db, "PRAGMA cache_size = -16384", nullptr, nullptr, nullptr);
        return c;
    }

    void pragma(Conn& c, const char* sql) {
        char* err = nullptr;
        if (sqlite3_exec(c.db, sql, nullptr, nullptr, &err) != SQLITE_OK) {
            std::string why = err ? err : "unknown error";
            sqlite3_free(err);
            loadingError(why);
        }
    }

    std::int64_t pragmaValue(Conn& c, const char* sql) {
        try {
            Query q(c, sql);
            return q.step() ? q.integerAt(0) : 0;
        } catch (const SqlError& e) {
            loadingError(e.message);
        }
    }

    // Names what keeps this process from using the file before SQLite is
    // asked to, which would give "unable to open database file" at best and
    // otherwise open it read-only and leave -wal and -shm files behind. The
    // catalog writes to the file, and to its -wal and -shm files beside it,
    // even to read: a file or directory this user cannot write is
    // reported as a read-only catalog.
    void checkFileAccess() const {
        const auto readOnly = [&](const std::string& why) {
            throw CatalogException(kErrorCatalogReadOnly, fromUtf8(file),
                                   fromUtf8("catalog file \"" + file + "\": " + why));
        };
        const std::string dir = directoryOf(file);
        struct stat st;
        if (::stat(file.c_str(), &st) != 0) {
            if (errno != ENOENT) loadingError(std::strerror(errno));
            if (!options.create)
                throw CatalogException(kErrorCatalogNotFound, fromUtf8(file),
                                       fromUtf8("catalog file \"" + file + "\" does not exist"));
            if (::access(dir.c_str(), W_OK) != 0)
                readOnly("cannot be created: the directory \"" + dir + "\" is not writable for this user (" +
                         std::strerror(errno) + ")");
            return;
        }
        if (::access(file.c_str(), R_OK) != 0) loadingError(std::string("cannot be read: ") + std::strerror(errno));
        if (::access(file.c_str(), W_OK) != 0)
            readOnly(std::string("the file is read-only for this user (") + std::strerror(errno) +
                     "); the catalog writes to it even to read");
        if (::access(dir.c_str(), W_OK) != 0) {
            const std::string cause = std::strerror(errno);
            for (const char* beside : {"-wal", "-shm"})
                if (::access((file + beside).c_str(), R_OK | W_OK) != 0)
                    readOnly("the directory \"" + dir + "\" is not writable for this user (" + cause +
                             ") and the catalog keeps its " + beside + " file there");
        }
    }

    // Checks the store before anything is written to it, creating the schema
    // in an empty one.
    void openStore() {
        if (!inMemory) checkFileAccess();
        auto c = connect();
        std::int64_t tables = pragmaValue(*c, "SELECT count(*) FROM sqlite_schema");
        std::int64_t appId = pragmaValue(*c, "PRAGMA application_id");
        std::int64_t version = pragmaValue(*c, "PRAGMA user_version");
        if (tables == 0 && appId == 0 && version == 0) {
            // An empty file (or empty database) becomes a catalog only when
            // creating was asked for; otherwise it is reported and left as it is.
            if (!inMemory && !options.create)
                loadingError("the file is empty, not a catalog (create one with 'catalog init')");
            createSchema(*c);
            appId = pragmaValue(*c, "PRAGMA application_id");
            version = pragmaValue(*c, "PRAGMA user_version");
        }
        if (appId != kApplicationId)
            loadingError("not a catalog file of this system (application id " + std::to_string(appId) + ")");
        if (version >= 1 && version < kSchemaVersion) version = upgrade(*c);
        if (version != kSchemaVersion)
            loadingError("unsupported catalog schema version " + std::to_string(version) + " (expected " +
                         std::to_string(kSchemaVersion) + ")");
        if (!inMemory) {
            // Our files are in WAL mode from their creation; this only reads.
            pragma(*c, "PRAGMA journal_mode=WAL");
        }
        pragma(*c, options.synchronousFull ? "PRAGMA synchronous=FULL" : "PRAGMA synchronous=NORMAL");
        threads::MutexLock lock(poolMutex);
        idle.push_back(c.get());
        conns.push_back(std::move(c));
        open = 1;
    }

    void createSchema(Conn& c) {
        // Another process may be creating the same file: the write lock
        // decides, and the loser finds the schema in place.
        pragma(c, "BEGIN IMMEDIATE");
        if (pragmaValue(c, "SELECT count(*) FROM sqlite_schema") != 0) {
            pragma(c, "ROLLBACK");
            return;
        }
        char* err = nullptr;
        if (sqlite3_exec(c.db, kSchemaSql, nullptr, nullptr, &err) != SQLITE_OK) {
            std::string why = err ? err : "unknown error";
            sqlite3_free(err);
            sqlite3_exec(c.db, "ROLLBACK", nullptr, nullptr, nullptr);
            loadingError(why);
        }
        const std::int64_t now = nowMicros();
        const std::string init =
            "INSERT INTO meta(key, value) VALUES ('clock', " + std::to_string(now) + "), ('acl_gen', 0);"
            "INSERT INTO items(path, parent, kind, mtime) VALUES ('/', NULL, 1, " + std::to_string(now) + ");"
            "INSERT INTO acl(path, principal, is_group, rights) VALUES ('/', 'everyone', 1, 1);"
            "PRAGMA application_id = " + std::to_string(kApplicationId) + ";"
            "PRAGMA user_version = " + std::to_string(kSchemaVersion) + ";";
        pragma(c, init.c_str());
        pragma(c, "COMMIT");
        if (!inMemory) pragma(c, "PRAGMA journal_mode=WAL");
    }

    // Brings an older schema up to this version, one step at a time:
    // version 1 had no password hashes, version 2 no history. Another
    // process may be upgrading the same file: the write lock decides, and
    // the loser finds the current version.
    std::int64_t upgrade(Conn& c) {
        static const char* const kSteps[] = {
            nullptr,
            "ALTER TABLE users ADD COLUMN password TEXT; PRAGMA user_version = 2;",
            "CREATE TABLE history(path TEXT NOT NULL, version INTEGER NOT NULL, mtime INTEGER NOT NULL,"
            " replaced INTEGER NOT NULL, signature TEXT NOT NULL, data BLOB NOT NULL, PRIMARY KEY(path, version));"
            " PRAGMA user_version = 3;",
        };
        static_assert(std::size(kSteps) == kSchemaVersion);
        pragma(c, "BEGIN IMMEDIATE");
        for (std::int64_t v = pragmaValue(c, "PRAGMA user_version"); v >= 1 && v < kSchemaVersion; ++v) {
            char* err = nullptr;
            if (sqlite3_exec(c.db, kSteps[v], nullptr, nullptr, &err) != SQLITE_OK) {
                std::string why = err ? err : "unknown error";
                sqlite3_free(err);
                sqlite3_exec(c.db, "ROLLBACK", nullptr, nullptr, nullptr);
                loadingError("upgrading the catalog schema from version " + std::to_string(v) + " failed: " + why);
            }
        }
        pragma(c, "COMMIT");
        return pragmaValue(c, "PRAGMA user_version");
    }

    // --- access rights ------------------------------------------------------

    // Brings the connection's copy of the access lists up to date. Called
    // while a read of the operation is active, so the copy and the item rows
    // come from one snapshot.
    void refreshAcl(Conn& c, std::uint64_t localGen) {
        unsigned dv = 0;
        sqlite3_file_control(c.db, "main", SQLITE_FCNTL_DATA_VERSION, &dv);
        if (c.aclLoaded && dv == c.dataVersion && localGen == c.localGen) return;
        std::int64_t gen = 0;
        {
            Query q(c, kStAclGen);
            if (q.step()) gen = q.integerAt(0);
        }
        if (!c.aclLoaded || gen != c.aclGen) {
            c.acl.clear();
            Query q(c, kStAclAll);
            while (q.step()) {
                const std::string_view aclPath = q.textAt(0);
                auto& entries = c.acl[std::string(aclPath)];
                entries.push_back(store::makeAclEntry(q.textAt(1), q.integerAt(2) != 0, static_cast<int>(q.integerAt(3))));
            }
            c.aclGen = gen;
            c.aclLoaded = true;
        }
        c.dataVersion = dv;
        c.localGen = localGen;
    }

    static bool isAdministrator(const AccountToken& user) noexcept {
        constexpr std::wstring_view administrators = ksAdministratorsGroup;
        const std::vector<String>& groups = user.getGroups();
        return std::any_of(groups.begin(), groups.end(),
                           [&](const String& g) { return std::wstring_view(g) == administrators; });
    }

    // The user's rights on the item at `path` (UTF-8), from the access list
    // of the item or of its nearest ancestor that has one.
    static int rightsOf(Conn& c, const AccountToken& user, std::string_view path) {
        if (isAdministrator(user)) return static_cast<int>(Rights::kWrite);
        const std::vector<AclEntry>* list = applyingList(c, path);
        if (!list) return 0;
        return store::rightsFrom(*list, user);
    }

    // The access list of the item or of its nearest ancestor that has one.
    // The walk up stays in the path text.
    static const std::vector<AclEntry>* applyingList(Conn& c, std::string_view path) {
        for (std::string_view p = path; !p.empty(); p = parentOf(p)) {
            const auto it = c.acl.find(p);
            if (it != c.acl.end()) return &it->second;
        }
        return nullptr;
    }


    // --- item information ----------------------------------------------------

    static void fillEntry(ItemInfo::Entry& e, const Row& row, bool withProperties) {
        e.type = static_cast<unsigned>(row.kind);
        e.lastModified = row.mtime;
        decodeInto(e.signature, row.signature);
        if (withProperties)
            decodeProperties(e.properties, row.props);
        else
            e.properties.clear();
    }

    // Follows the link in `first` (the item at c.pathBuf) to a non-link item,
    // filling info.resolved(). `hop` is the query that holds the final row;
    // `target` carries its body's id only when `withBody` is set.
    ReturnCode followLink(Conn& c, const AccountToken& user, const Row& first, Query& hop, Row& target,
                          ItemInfo& info, bool withProperties, bool withBody) {
        c.visited.clear();
        c.visited.emplace_back(c.pathBuf);
        c.hopBuf.assign(first.linkTarget);
        ItemInfo::Entry& r = info.resolved();
        for (int hops = 0;; ++hops) {
            r.path = Path(fromUtf8(c.hopBuf), kUnchecked);
            const bool seen = std::find(c.visited.begin(), c.visited.end(), c.hopBuf) != c.visited.end();
            if (seen || hops >= kMaxLinkHops) {
                r.type = kCircular | kLink;
                return kErrorCircularLink;
            }
            hop.reset();
            hop.text(1, c.hopBuf);
            if (!hop.step()) {
                r.type = kMissing;
                return kErrorLinkTargetPathNotFound;
            }
            target.take(hop, withProperties, withBody);
            if (!mayRead(rightsOf(c, user, c.hopBuf))) {
                r.type = kNoAccess;
                return kErrorLinkTargetAccessDenied;
            }
            if (target.kind != kKindLink) {
                fillEntry(r, target, withProperties);
                return kSuccess;
            }
            c.visited.emplace_back(c.hopBuf);
            c.hopBuf.assign(target.linkTarget);
        }
    }

    // The common read path of getItemInfo and readObject. With `body`, the
    // resolved object's body is copied into it.
    ReturnCode inspect(const AccountToken& user, const Path& path, ItemInfo& info, bool originalOnly,
                       bool withProperties, std::string* body) {
        try {
            const std::uint64_t localGen = localAclGen.load(std::memory_order_acquire);
            Lease c(*this, Lease::kRead);
            if (encodeCheckedPath(path, c->pathBuf) != kItemNameValid) return kErrorPathInvalid;
            Query q(*c, kStLookup);
            q.text(1, c->pathBuf);
            if (!q.step()) return kErrorPathNotFound;
            Row row;
            row.take(q, withProperties, body != nullptr);
            refreshAcl(*c, localGen);
            if (!mayRead(rightsOf(*c, user, c->pathBuf)))
                return store::unreadableItemCode(c->pathBuf, [&](std::string_view p) { return rightsOf(*c, user, p); });

            ItemInfo::Entry& o = info.original();
            o.path = path;
            fillEntry(o, row, withProperties);
            if (row.kind != kKindLink || originalOnly) {
                info.resolved() = o;
                if (body) {
                    if (row.kind != kKindObject) return kErrorObjectExpected;
                    copyBody(*c, row, *body);
                }
                return kSuccess;
            }
            Query hop(*c, kStLookupHop);
            Row target;
            const ReturnCode rc =
                followLink(*c, user, row, hop, target, info, withProperties, body != nullptr);
            if (rc != kSuccess) return rc;
            if (body) {
                if (target.kind != kKindObject) return kErrorObjectExpected;
                copyBody(*c, target, *body);
            }
            return kSuccess;
        } catch (const SqlError& e) {
            logSqlError(e, file);
            return codeForSqlError(e);
        }
    }

    static void copyBody(Conn& c, const Row& row, std::string& body) {
        body.clear();
        if (!row.hasBody) return;
        Query q(c, kStBody);
        q.integer(1, row.bodyId);
        if (q.step()) body.assign(q.blobAt(0));
    }

    // --- writing -------------------------------------------------------------

    // The next modified time for an item last modified at `previous`:
    // strictly after every time the store handed out. Inside a write
    // transaction.
    static std::int64_t nextTime(Conn& c, std::int64_t previous) {
        std::int64_t clock = 0;
        {
            Query q(c, kStClock);
            if (q.step()) clock = q.integerAt(0);
        }
        const std::int64_t t = std::max({nowMicros(), clock + 1, previous + 1});
        Query(c, kStSetClock).integer(1, t).run();
        return t;
    }

    // The checks of a write to the object at c.pathBuf (parent `parent`).
    // `existing` receives whether an object is there and its row.
    ReturnCode checkWrite(Conn& c, std::uint64_t localGen, const AccountToken& user, std::string_view parent,
                          bool& existing, Row& row, Query& item) {
        {
            Query q(c, kStLookupHop);
            q.text(1, parent);
            const bool found = q.step();
            // The read snapshot is open now: bring the access lists up to it.
            refreshAcl(c, localGen);
            if (!found) return kErrorPathNotFound;
            if (q.integerAt(0) != kKindFolder) return kErrorFolderExpected;
        }
        item.text(1, c.pathBuf);
        existing = item.step();
        if (existing) {
            row.take(item);
            if (row.kind != kKindObject) return kErrorObjectExpected;
        }
        if (!mayWrite(rightsOf(c, user, existing ? std::string_view(c.pathBuf) : parent)))
            return kErrorAccessDenied;
        return kSuccess;
    }

    // Inside a write transaction, before the object at `path` is replaced
    // or removed at time `replaced`: copies it into the history when the
    // history rule names it, and prunes the oldest versions beyond the rule.
    void keepVersion(Conn& c, std::string_view path, std::int64_t replaced) {
        if (!history.active()) return;
        unsigned keep = 0;
        {
            Query q(c, kStVersionCandidate);
            q.text(1, path);
            if (!q.step()) return;
            keep = history.versionsFor(path, q.textAt(0));
        }
        if (keep == 0) return;
        Query(c, kStKeepVersion).text(1, path).integer(2, replaced).run();
        Query(c, kStPruneVersions).text(1, path).integer(2, keep).run();
    }

    // Stores an object at c.pathBuf inside the current write transaction;
    // returns its new modified time.
    std::int64_t storeObject(Conn& c, std::string_view parent, bool existing, const Row& old,
                             std::string_view signature, std::string_view props, std::string_view body) {
        const std::int64_t t = nextTime(c, existing ? old.mtime : 0);
        if (existing) keepVersion(c, c.pathBuf, t);
        std::int64_t bodyId = 0;
        if (existing && old.hasBody) {
            bodyId = old.bodyId;
            Query(c, kStUpdateBody).integer(1, bodyId).blob(2, body).run();
        } else {
            Query(c, kStInsertBody).blob(1, body).run();
            bodyId = sqlite3_last_insert_rowid(c.db);
        }
        Query(c, kStUpsertItem)
            .text(1, c.pathBuf)
            .text(2, parent)
            .integer(3, kKindObject)
            .text(4, signature)
            .blob(5, props)
            .null(6)
            .integer(7, t)
            .integer(8, bodyId)
            .run();
        return t;
    }
};


}  // namespace kiv::catalog
