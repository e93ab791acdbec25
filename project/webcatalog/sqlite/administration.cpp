// SqliteCatalog: the administration API and the write locks.
#include <fcntl.h>
#include <unistd.h>

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "store.h"

namespace kiv::catalog {

namespace {

[[noreturn]] void adminFail(ReturnCode code, const Path& path, const wchar_t* why = L"") {
    throw CatalogException(code, path.toString(), String(why));
}

void requireValid(const Path& path) {
    if (!isValidPathText(path)) adminFail(kErrorPathInvalid, path);
}

template <class F>
auto adminCall(SqliteCatalog::Impl& impl, const Path& path, F&& f) {
    try {
        return f();
    } catch (const SqlError& e) {
        logSqlError(e, impl.file);
        throw CatalogException(codeForSqlError(e), path.toString(), fromUtf8(e.message));
    }
}

// The kind of the item at `path`, or 0 when there is none.
int kindAt(Conn& c, std::string_view path) {
    Query q(c, kStLookupHop);
    q.text(1, path);
    return q.step() ? static_cast<int>(q.integerAt(0)) : 0;
}

std::int64_t mtimeAt(Conn& c, std::string_view path) {
    Query q(c, kStLookupHop);
    q.text(1, path);
    return q.step() ? q.integerAt(4) : 0;
}

// Makes every missing folder from the root down to `folder` (UTF-8).
void makeFolders(Conn& c, const Path& original, std::string_view folder) {
    if (folder.empty()) return;
    const int kind = kindAt(c, folder);
    if (kind == kKindFolder) return;
    if (kind != 0) adminFail(kErrorFolderExpected, original, L"a non-folder item is in the way");
    const std::string_view parent = parentOf(folder);
    makeFolders(c, original, parent);
    const std::int64_t t = SqliteCatalog::Impl::nextTime(c, 0);
    Query(c, kStUpsertItem)
        .text(1, folder)
        .text(2, parent)
        .integer(3, kKindFolder)
        .text(4, "")
        .null(5)
        .null(6)
        .integer(7, t)
        .null(8)
        .run();
}

}  // namespace

void SqliteCatalog::makeFolder(const Path& path) {
    requireValid(path);
    adminCall(*m_impl, path, [&] {
        Impl::Lease c(*m_impl);
        WriteTxn txn(*c);
        const std::string p = toUtf8(path);
        makeFolders(*c, path, p);
        txn.commit();
    });
}

namespace {

// Stores one object of the administration API inside the current write
// transaction, making missing parent folders.
void putOne(SqliteCatalog::Impl& impl, Conn& c, const Path& path, const String& signature,
            const std::map<String, String>& properties, std::string_view body) {
    requireValid(path);
    if (path.isRoot()) adminFail(kErrorRootSacred, path);
    c.pathBuf = toUtf8(path);
    const std::string parent(parentOf(c.pathBuf));
    makeFolders(c, path, parent);
    Row old;
    bool existing = false;
    {
        Query q(c, kStLookup);
        q.text(1, c.pathBuf);
        existing = q.step();
        if (existing) {
            old.take(q);
            old.signature = old.props = old.linkTarget = {};
        }
    }
    if (existing && old.kind != kKindObject) adminFail(kErrorObjectExpected, path);
    impl.storeObject(c, parent, existing, old, toUtf8(signature), encodeProperties(properties), body);
}

}  // namespace

void SqliteCatalog::putObject(const Path& path, const String& signature, const std::map<String, String>& properties,
                              std::string_view body) {
    requireValid(path);
    adminCall(*m_impl, path, [&] {
        Impl::Lease c(*m_impl);
        WriteTxn txn(*c);
        putOne(*m_impl, *c, path, signature, properties, body);
        txn.commit();
    });
}

void SqliteCatalog::putObjects(const std::vector<ObjectSpec>& objects) {
    adminCall(*m_impl, kpBlank, [&] {
        Impl::Lease c(*m_impl);
        WriteTxn txn(*c);
        for (const ObjectSpec& o : objects) putOne(*m_impl, *c, o.path, o.signature, o.properties, o.body);
        txn.commit();
    });
}

void SqliteCatalog::setProperties(const Path& path, const std::map<String, String>& properties) {
    requireValid(path);
    adminCall(*m_impl, path, [&] {
        Impl::Lease c(*m_impl);
        WriteTxn txn(*c);
        const std::string p = toUtf8(path);
        if (kindAt(*c, p) == 0) adminFail(kErrorPathNotFound, path);
        const std::int64_t t = Impl::nextTime(*c, mtimeAt(*c, p));
        Query(*c, kStSetProps).text(1, p).blob(2, encodeProperties(properties)).integer(3, t).run();
        txn.commit();
    });
}

void SqliteCatalog::makeLink(const Path& path, const Path& target) {
    requireValid(path);
    requireValid(target);
    if (path.isRoot()) adminFail(kErrorRootSacred, path);
    adminCall(*m_impl, path, [&] {
        Impl::Lease c(*m_impl);
        WriteTxn txn(*c);
        const std::string p = toUtf8(path);
        const std::string parent(parentOf(p));
        makeFolders(*c, path, parent);
        const int kind = kindAt(*c, p);
        if (kind != 0 && kind != kKindLink) adminFail(kErrorItemAlreadyExists, path);
        const std::int64_t t = Impl::nextTime(*c, kind ? mtimeAt(*c, p) : 0);
        const std::string targetText = toUtf8(target);
        Query(*c, kStUpsertItem)
            .text(1, p)
            .text(2, parent)
            .integer(3, kKindLink)
            .text(4, "")
            .null(5)
            .text(6, targetText)
            .integer(7, t)
            .null(8)
            .run();
        txn.commit();
    });
}

void SqliteCatalog::setAccess(const Path& path, const String& principal, bool isGroup, Rights rights) {
    requireValid(path);
    adminCall(*m_impl, path, [&] {
        {
            Impl::Lease c(*m_impl);
            WriteTxn txn(*c);
            const std::string p = toUtf8(path);
            if (kindAt(*c, p) == 0) adminFail(kErrorPathNotFound, path);
            const std::string who = toUtf8(principal);
            Query(*c,
                  "INSERT INTO acl(path, principal, is_group, rights) VALUES (?1, ?2, ?3, ?4) "
                  "ON CONFLICT(path, principal, is_group) DO UPDATE SET rights = excluded.rights")
                .text(1, p)
                .text(2, who)
                .integer(3, isGroup ? 1 : 0)
                .integer(4, static_cast<int>(rights))
                .run();
            Query(*c, kStBumpAclGen).run();
            txn.commit();
        }
        m_impl->localAclGen.fetch_add(1, std::memory_order_acq_rel);
    });
}

void SqliteCatalog::clearAccess(const Path& path) {
    requireValid(path);
    adminCall(*m_impl, path, [&] {
        {
            Impl::Lease c(*m_impl);
            WriteTxn txn(*c);
            const std::string p = toUtf8(path);
            Query(*c, kStDeleteAclOf).text(1, p).run();
            Query(*c, kStBumpAclGen).run();
            txn.commit();
        }
        m_impl->localAclGen.fetch_add(1, std::memory_order_acq_rel);
    });
}

Rights SqliteCatalog::effectiveRights(const AccountToken& user, const Path& path) {
    requireValid(path);
    return adminCall(*m_impl, path, [&] {
        const std::uint64_t localGen = m_impl->localAclGen.load(std::memory_order_acquire);
        Impl::Lease c(*m_impl);
        Query q(*c, kStClock);  // holds the snapshot while the lists are read
        q.step();
        m_impl->refreshAcl(*c, localGen);
        const int r = Impl::rightsOf(*c, user, toUtf8(path));
        return mayWrite(r) ? Rights::kWrite : mayRead(r) ? Rights::kRead : Rights::kNone;
    });
}

void SqliteCatalog::addUser(const String& name, const std::vector<String>& groups) {
    adminCall(*m_impl, kpBlank, [&] {
        const std::string joined = store::joinGroups(groups);
        const std::string who = toUtf8(name);
        Impl::Lease c(*m_impl);
        WriteTxn txn(*c);
        Query(*c, "INSERT INTO users(name, groups) VALUES (?1, ?2) ON CONFLICT(name) DO UPDATE SET groups = excluded.groups")
            .text(1, who)
            .text(2, joined)
            .run();
        txn.commit();
    });
}

bool SqliteCatalog::hasUser(const String& name) {
    return adminCall(*m_impl, kpBlank, [&] {
        const std::string who = toUtf8(name);  // bound without a copy: must outlive the query
        Impl::Lease c(*m_impl);
        Query q(*c, "SELECT 1 FROM users WHERE name = ?1");
        q.text(1, who);
        return q.step();
    });
}

void SqliteCatalog::setPasswordHash(const String& name, const std::string& hash) {
    adminCall(*m_impl, kpBlank, [&] {
        const std::string who = toUtf8(name);  // bound without a copy: must outlive the query
        Impl::Lease c(*m_impl);
        WriteTxn txn(*c);
        Query q(*c, "UPDATE users SET password = ?2 WHERE name = ?1");
        q.text(1, who);
        if (hash.empty()) q.null(2);
        else q.text(2, hash);
        q.run();
        if (sqlite3_changes(c->db) == 0) throw CatalogException(kErrorPathNotFound, name);
        txn.commit();
    });
}

std::string SqliteCatalog::passwordHash(const String& name) {
    return adminCall(*m_impl, kpBlank, [&] {
        const std::string who = toUtf8(name);  // bound without a copy: must outlive the query
        Impl::Lease c(*m_impl);
        Query q(*c, "SELECT password FROM users WHERE name = ?1");
        q.text(1, who);
        return q.step() ? std::string(q.textAt(0)) : std::string();
    });
}

AccountToken SqliteCatalog::tokenFor(const String& name) {
    return adminCall(*m_impl, kpBlank, [&] {
        const std::string who = toUtf8(name);
        Impl::Lease c(*m_impl);
        Query q(*c, "SELECT groups FROM users WHERE name = ?1");
        q.text(1, who);
        return AccountToken(name, q.step() ? store::splitGroups(q.textAt(0)) : std::vector<String>());
    });
}

namespace {

// The children of a folder in path order; with `reader`, only those the
// reader may read, and the folder itself must be readable by the reader.
// One snapshot serves the rows and the access lists.
std::vector<SqliteCatalog::Entry> listEntries(SqliteCatalog::Impl& impl, const Path& folder,
                                              const AccountToken* reader) {
    const std::uint64_t localGen = impl.localAclGen.load(std::memory_order_acquire);
    std::vector<SqliteCatalog::Entry> entries;
    const std::string p = toUtf8(folder);
    SqliteCatalog::Impl::Lease c(impl);
    Query snapshot(*c, kStClock);  // holds one read transaction for what follows
    snapshot.step();
    if (reader) impl.refreshAcl(*c, localGen);
    const int kind = kindAt(*c, p);
    if (kind == 0) adminFail(kErrorPathNotFound, folder);
    if (reader && !mayRead(SqliteCatalog::Impl::rightsOf(*c, *reader, p)))
        adminFail(store::unreadableItemCode(p, [&](std::string_view q) { return SqliteCatalog::Impl::rightsOf(*c, *reader, q); }),
                  folder);
    if (kind != kKindFolder) adminFail(kErrorFolderExpected, folder);
    Query q(*c, kStListChildren);
    q.text(1, p);
    while (q.step()) {
        if (reader && !mayRead(SqliteCatalog::Impl::rightsOf(*c, *reader, q.textAt(0))))
            continue;
        SqliteCatalog::Entry e;
        e.path = Path(fromUtf8(q.textAt(0)), kUnchecked);
        e.type = static_cast<unsigned>(q.integerAt(1));
        e.lastModified = q.integerAt(2);
        e.signature = fromUtf8(q.textAt(3));
        e.linkTarget = fromUtf8(q.textAt(4));
        decodeProperties(e.properties, q.blobAt(5));
        entries.push_back(std::move(e));
    }
    return entries;
}

}  // namespace

std::vector<SqliteCatalog::Entry> SqliteCatalog::list(const Path& folder) {
    requireValid(folder);
    return adminCall(*m_impl, folder, [&] { return listEntries(*m_impl, folder, nullptr); });
}

std::vector<SqliteCatalog::Entry> SqliteCatalog::listReadable(const AccountToken& user, const Path& folder) {
    requireValid(folder);
    return adminCall(*m_impl, folder, [&] { return listEntries(*m_impl, folder, &user); });
}

std::string SqliteCatalog::readRaw(const Path& path) {
    requireValid(path);
    return adminCall(*m_impl, path, [&] {
        const std::string p = toUtf8(path);
        Impl::Lease c(*m_impl);
        Query q(*c, "SELECT i.kind, b.data FROM items i LEFT JOIN bodies b ON b.id = i.body_id WHERE i.path = ?1");
        q.text(1, p);
        if (!q.step()) adminFail(kErrorPathNotFound, path);
        if (q.integerAt(0) != kKindObject) adminFail(kErrorObjectExpected, path);
        return std::string(q.blobAt(1));
    });
}

bool SqliteCatalog::exists(const Path& path) {
    if (!isValidPathText(path)) return false;
    return adminCall(*m_impl, path, [&] {
        const std::string p = toUtf8(path);
        Impl::Lease c(*m_impl);
        return kindAt(*c, p) != 0;
    });
}

void SqliteCatalog::remove(const Path& path) {
    requireValid(path);
    if (path.isRoot()) adminFail(kErrorRootSacred, path);
    adminCall(*m_impl, path, [&] {
        {
            Impl::Lease c(*m_impl);
            WriteTxn txn(*c);
            const std::string p = toUtf8(path);
            const int kind = kindAt(*c, p);
            if (kind == 0) adminFail(kErrorPathNotFound, path);
            // Everything under a folder: paths from "p/" up to, not including,
            // "p0" ('0' follows '/').
            const std::string lo = p + "/";
            const std::string hi = p + "0";
            const char* const where = "path = ?1 OR (path >= ?2 AND path < ?3)";
            const std::int64_t t = Impl::nextTime(*c, 0);
            if (m_impl->history.active()) {
                std::vector<std::string> objects;
                {
                    Query q(*c, "SELECT path FROM items WHERE kind = 4 AND (path = ?1 OR (path >= ?2 AND path < ?3))");
                    q.text(1, p).text(2, lo).text(3, hi);
                    while (q.step()) objects.emplace_back(q.textAt(0));
                }
                for (const std::string& object : objects) m_impl->keepVersion(*c, object, t);
            }
            Query(*c, (std::string("DELETE FROM bodies WHERE id IN (SELECT body_id FROM items WHERE ") + where + ")").c_str())
                .text(1, p).text(2, lo).text(3, hi).run();
            Query(*c, (std::string("DELETE FROM items WHERE ") + where).c_str()).text(1, p).text(2, lo).text(3, hi).run();
            Query(*c, (std::string("DELETE FROM acl WHERE ") + where).c_str()).text(1, p).text(2, lo).text(3, hi).run();
            Query(*c, kStBumpAclGen).run();
            txn.commit();
        }
        m_impl->localAclGen.fetch_add(1, std::memory_order_acq_rel);
    });
}

namespace {

// A write lock of a catalog file: an open file description lock, which the
// kernel releases when the descriptor is closed, also by the end of the
// process. Each lock has a descriptor of its own, so the threads of one
// process exclude each other as processes do.
class FileWriteLock : public WriteLock {
public:
    explicit FileWriteLock(int fd) : m_fd(fd) {}
    ~FileWriteLock() override { ::close(m_fd); }

private:
    int m_fd;
};

class MemoryWriteLock : public WriteLock {
public:
    MemoryWriteLock(SqliteCatalog::Impl& impl, std::string path) : m_impl(impl), m_path(std::move(path)) {}
    ~MemoryWriteLock() override;

private:
    SqliteCatalog::Impl& m_impl;
    std::string m_path;
};

MemoryWriteLock::~MemoryWriteLock() {
    {
        threads::MutexLock lock(m_impl.lockMutex);
        m_impl.lockedPaths.erase(m_path);
    }
    m_impl.lockReleased.notify_all();
}

// FNV-1a: the byte of the lock file that stands for a path. Two paths that
// share a byte only wait for each other needlessly.
off_t lockOffsetOf(std::string_view path) noexcept {
    std::uint64_t h = 14695981039346656037ull;
    for (const char c : path) {
        h ^= static_cast<unsigned char>(c);
        h *= 1099511628211ull;
    }
    return static_cast<off_t>(h & ((std::uint64_t(1) << 40) - 1));
}

}  // namespace

std::unique_ptr<WriteLock> SqliteCatalog::lockForWriting(const Path& path) {
    requireValid(path);
    std::string p = toUtf8(path);
    Impl& impl = *m_impl;
    if (impl.inMemory) {
        threads::MutexLock lock(impl.lockMutex);
        while (impl.lockedPaths.count(p) != 0) impl.lockReleased.wait(lock);
        impl.lockedPaths.insert(p);
        return std::make_unique<MemoryWriteLock>(impl, std::move(p));
    }
    const std::string lockFile = impl.file + "-locks";
    const int fd = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        throw CatalogException(kErrorIO, path.toString(),
                               fromUtf8("cannot open the lock file \"" + lockFile + "\": " + std::strerror(errno)));
    struct flock fl = {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = lockOffsetOf(p);
    fl.l_len = 1;
    while (::fcntl(fd, F_OFD_SETLKW, &fl) != 0) {
        if (errno == EINTR) continue;
        const int err = errno;
        ::close(fd);
        throw CatalogException(kErrorIO, path.toString(),
                               fromUtf8("cannot lock \"" + lockFile + "\": " + std::strerror(err)));
    }
    return std::make_unique<FileWriteLock>(fd);
}

std::string SqliteCatalog::integrityCheck() {
    return adminCall(*m_impl, kpBlank, [&] {
        Impl::Lease c(*m_impl);
        std::string result;
        try {
            Query q(*c, "PRAGMA integrity_check");
            while (q.step()) {
                if (!result.empty()) result.push_back('\n');
                result.append(q.textAt(0));
            }
        } catch (const SqlError& e) {
            // Damage can stop the check itself; that is its finding.
            if ((e.rc & 0xff) != SQLITE_CORRUPT && (e.rc & 0xff) != SQLITE_NOTADB) throw;
            if (!result.empty()) result.push_back('\n');
            result.append(e.message);
        }
        return result;
    });
}

void SqliteCatalog::backupTo(const std::string& target) {
    const auto fail = [&](ReturnCode code, const std::string& why) {
        throw CatalogException(code, fromUtf8(target), fromUtf8(why));
    };
    struct stat st;
    if (::lstat(target.c_str(), &st) == 0) fail(kErrorItemAlreadyExists, "the file exists; a backup never overwrites one");
    const std::string partial = target + ".partial-" + std::to_string(::getpid());
    struct Removal {
        const std::string& file;
        bool keep = false;
        ~Removal() {
            if (!keep) {
                ::unlink(file.c_str());
                ::unlink((file + "-journal").c_str());
            }
        }
    } removal{partial};
    sqlite3* copy = nullptr;
    struct Closer {
        sqlite3*& db;
        ~Closer() { sqlite3_close(db); }
    } closer{copy};
    if (sqlite3_open_v2(partial.c_str(), &copy, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_EXCLUSIVE,
                        nullptr) != SQLITE_OK)
        fail(kErrorIO, "cannot create \"" + partial + "\": " + (copy ? sqlite3_errmsg(copy) : "out of memory"));
    adminCall(*m_impl, kpBlank, [&] {
        Impl::Lease c(*m_impl);
        sqlite3_backup* b = sqlite3_backup_init(copy, "main", c->db, "main");
        if (!b) fail(kErrorIO, std::string("cannot start the backup: ") + sqlite3_errmsg(copy));
        // One step copies every page under one read transaction: a
        // consistent snapshot that writers in WAL mode do not wait for.
        const int rc = sqlite3_backup_step(b, -1);
        sqlite3_backup_finish(b);
        if (rc != SQLITE_DONE) fail(kErrorIO, std::string("the backup failed: ") + sqlite3_errstr(rc));
    });
    char* err = nullptr;
    std::string check;
    const auto collect = [](void* out, int, char** values, char**) {
        auto* text = static_cast<std::string*>(out);
        if (!text->empty()) text->push_back('\n');
        text->append(values[0] ? values[0] : "");
        return 0;
    };
    if (sqlite3_exec(copy, "PRAGMA quick_check", collect, &check, &err) != SQLITE_OK || check != "ok") {
        const std::string why = err ? err : check;
        sqlite3_free(err);
        fail(kErrorIO, "the copy does not pass SQLite's check: " + why);
    }
    sqlite3_close(copy);
    copy = nullptr;
    const int fd = ::open(partial.c_str(), O_RDONLY | O_CLOEXEC);
    const bool synced = fd >= 0 && ::fsync(fd) == 0;
    if (fd >= 0) ::close(fd);
    if (!synced) fail(kErrorIO, "cannot sync \"" + partial + "\": " + std::strerror(errno));
    // link() rather than rename(): it fails instead of replacing a file
    // that appeared at `target` meanwhile.
    if (::link(partial.c_str(), target.c_str()) != 0)
        fail(errno == EEXIST ? kErrorItemAlreadyExists : kErrorIO,
             "cannot create \"" + target + "\": " + std::strerror(errno));
    const int dirFd = ::open(directoryOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirFd >= 0) {
        ::fsync(dirFd);
        ::close(dirFd);
    }
}

// --- history ---------------------------------------------------------------

void SqliteCatalog::setHistoryPolicy(HistoryPolicy policy) { m_impl->history.set(std::move(policy)); }

namespace {

// The versions of `path` that `sql` selects (number, mtime, replaced,
// signature, size and, with `body`, data; ?1 the path, ?2 `number` when not
// 0), after checking that `user` may read the path; in one read transaction.
std::vector<ManagedCatalog::Version> readVersions(SqliteCatalog::Impl& impl, const AccountToken& user, const Path& path,
                                                  const char* sql, std::int64_t number, std::string* body) {
    const std::string p = toUtf8(path);
    const std::uint64_t localGen = impl.localAclGen.load(std::memory_order_acquire);
    SqliteCatalog::Impl::Lease c(impl);
    Query(*c, kStBeginRead).run();
    struct EndRead {
        Conn& c;
        ~EndRead() { sqlite3_exec(c.db, "COMMIT", nullptr, nullptr, nullptr); }
    } endRead{*c};
    Query q(*c, sql);
    q.text(1, p);
    if (number != 0) q.integer(2, number);
    bool row = q.step();
    impl.refreshAcl(*c, localGen);
    if (!mayRead(SqliteCatalog::Impl::rightsOf(*c, user, p))) adminFail(kErrorAccessDenied, path);
    std::vector<ManagedCatalog::Version> out;
    for (; row; row = q.step()) {
        ManagedCatalog::Version v;
        v.number = q.integerAt(0);
        v.modified = q.integerAt(1);
        v.replaced = q.integerAt(2);
        v.signature = fromUtf8(q.textAt(3));
        v.size = static_cast<std::uint64_t>(q.integerAt(4));
        if (body) body->assign(q.blobAt(5));
        out.push_back(std::move(v));
    }
    return out;
}

}  // namespace

std::vector<ManagedCatalog::Version> SqliteCatalog::versions(const AccountToken& user, const Path& path) {
    requireValid(path);
    return adminCall(*m_impl, path, [&] {
        return readVersions(*m_impl, user, path,
                            "SELECT version, mtime, replaced, signature, length(data) FROM history WHERE path = ?1 "
                            "ORDER BY version DESC",
                            0, nullptr);
    });
}

ManagedCatalog::Version SqliteCatalog::readVersion(const AccountToken& user, const Path& path, std::int64_t number,
                                                   std::string& body) {
    requireValid(path);
    return adminCall(*m_impl, path, [&] {
        std::vector<Version> found =
            number <= 0 ? std::vector<Version>()
                        : readVersions(*m_impl, user, path,
                                       "SELECT version, mtime, replaced, signature, length(data), data FROM history "
                                       "WHERE path = ?1 AND version = ?2",
                                       number, &body);
        if (found.empty()) adminFail(kErrorPathNotFound, path, L"no such version");
        return std::move(found.front());
    });
}

}  // namespace kiv::catalog
