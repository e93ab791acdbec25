// PostgresCatalog: the administration API and the write locks.
#include "store.h"

namespace kiv::catalog {

namespace {

class PostgresWriteLock : public WriteLock {
public:
    PostgresWriteLock(PostgresCatalog::Impl& impl, std::unique_ptr<Conn> conn, std::string key)
        : m_impl(impl), m_conn(std::move(conn)), m_key(std::move(key)) {}
    ~PostgresWriteLock() override {
        try {
            m_conn->run("unlock", "SELECT pg_advisory_unlock(1263097411, hashtext($1))", Params().text(m_key));
        } catch (const PgError&) {
            m_conn.reset();  // the session's end releases the lock
            return;
        }
        if (!m_conn->healthy()) return;
        threads::MutexLock lock(m_impl.poolMutex);
        m_impl.idleLockConns.push_back(std::move(m_conn));
    }

private:
    PostgresCatalog::Impl& m_impl;
    std::unique_ptr<Conn> m_conn;
    std::string m_key;
};

}  // namespace

void PostgresCatalog::makeFolder(const Path& path) {
    requireValid(path);
    adminCall(path, [&] {
        Impl::Lease c(*m_impl);
        Impl::WriteTxn txn(*c);
        m_impl->makeFolders(*c, txn, path, toUtf8(path));
        txn.commit();
    });
}

void PostgresCatalog::putObject(const Path& path, const String& signature, const std::map<String, String>& properties,
                                std::string_view body) {
    requireValid(path);
    adminCall(path, [&] {
        Impl::Lease c(*m_impl);
        Impl::WriteTxn txn(*c);
        m_impl->putOne(*c, txn, path, signature, properties, body);
        txn.commit();
    });
}

void PostgresCatalog::putObjects(const std::vector<ObjectSpec>& objects) {
    adminCall(kpBlank, [&] {
        Impl::Lease c(*m_impl);
        Impl::WriteTxn txn(*c);
        for (const ObjectSpec& o : objects) m_impl->putOne(*c, txn, o.path, o.signature, o.properties, o.body);
        txn.commit();
    });
}

void PostgresCatalog::setProperties(const Path& path, const std::map<String, String>& properties) {
    requireValid(path);
    adminCall(path, [&] {
        Impl::Lease c(*m_impl);
        Impl::WriteTxn txn(*c);
        const std::string p = toUtf8(path);
        const std::optional<Row> row = m_impl->lookup(*c, p, false);
        if (!row) adminFail(kErrorPathNotFound, path);
        c->run("set_props", "UPDATE items SET props = $2, mtime = $3::int8 WHERE path = $1",
               Params().text(p).bytes(encodeProperties(properties)).integer(txn.nextTime(row->mtime)));
        txn.commit();
    });
}

void PostgresCatalog::makeLink(const Path& path, const Path& target) {
    requireValid(path);
    requireValid(target);
    if (path.isRoot()) adminFail(kErrorRootSacred, path);
    adminCall(path, [&] {
        Impl::Lease c(*m_impl);
        Impl::WriteTxn txn(*c);
        const std::string p = toUtf8(path);
        const std::string_view parent = parentOf(p);
        m_impl->makeFolders(*c, txn, path, parent);
        const std::optional<Row> row = m_impl->lookup(*c, p, false);
        if (row && row->kind != kKindLink) adminFail(kErrorItemAlreadyExists, path);
        m_impl->upsert(*c, p, parent, kKindLink, "", std::nullopt, toUtf8(target), txn.nextTime(row ? row->mtime : 0),
                       std::nullopt);
        txn.commit();
    });
}

void PostgresCatalog::setAccess(const Path& path, const String& principal, bool isGroup, Rights rights) {
    requireValid(path);
    adminCall(path, [&] {
        Impl::Lease c(*m_impl);
        Impl::WriteTxn txn(*c);
        const std::string p = toUtf8(path);
        if (!m_impl->lookup(*c, p, false)) adminFail(kErrorPathNotFound, path);
        c->run("set_access",
               "INSERT INTO acl(path, principal, is_group, rights) VALUES ($1, $2, $3::boolean, $4::int4) "
               "ON CONFLICT(path, principal, is_group) DO UPDATE SET rights = excluded.rights",
               Params().text(p).text(toUtf8(principal)).text(isGroup ? "true" : "false").integer(static_cast<int>(rights)));
        txn.aclChanged();
        txn.commit();
    });
}

void PostgresCatalog::clearAccess(const Path& path) {
    requireValid(path);
    adminCall(path, [&] {
        Impl::Lease c(*m_impl);
        Impl::WriteTxn txn(*c);
        c->run("clear_access", "DELETE FROM acl WHERE path = $1", Params().text(toUtf8(path)));
        txn.aclChanged();
        txn.commit();
    });
}

Rights PostgresCatalog::effectiveRights(const AccountToken& user, const Path& path) {
    requireValid(path);
    return adminCall(path, [&] {
        Impl::Lease c(*m_impl);
        m_impl->refreshAcl(*c, -1);
        const int r = Impl::rightsOf(*c, user, toUtf8(path));
        return mayWrite(r) ? Rights::kWrite : mayRead(r) ? Rights::kRead : Rights::kNone;
    });
}

void PostgresCatalog::addUser(const String& name, const std::vector<String>& groups) {
    adminCall(kpBlank, [&] {
        const std::string joined = store::joinGroups(groups);
        Impl::Lease c(*m_impl);
        c->run("add_user",
               "INSERT INTO users(name, groups) VALUES ($1, $2) ON CONFLICT(name) DO UPDATE SET groups = excluded.groups",
               Params().text(toUtf8(name)).text(joined));
    });
}

bool PostgresCatalog::hasUser(const String& name) {
    return adminCall(kpBlank, [&] {
        Impl::Lease c(*m_impl);
        return c->run("has_user", "SELECT 1 FROM users WHERE name = $1", Params().text(toUtf8(name))).rows() != 0;
    });
}

void PostgresCatalog::setPasswordHash(const String& name, const std::string& hash) {
    adminCall(kpBlank, [&] {
        Impl::Lease c(*m_impl);
        Params params;
        params.text(toUtf8(name));
        if (hash.empty()) params.null(); else params.text(hash);
        Result r = c->run("set_password", "UPDATE users SET password = $2 WHERE name = $1 RETURNING 1", params);
        if (r.rows() == 0) throw CatalogException(kErrorPathNotFound, name);
    });
}

std::string PostgresCatalog::passwordHash(const String& name) {
    return adminCall(kpBlank, [&] {
        Impl::Lease c(*m_impl);
        Result r = c->run("password", "SELECT password FROM users WHERE name = $1", Params().text(toUtf8(name)));
        return r.rows() && !r.isNull(0, 0) ? std::string(r.bytes(0, 0)) : std::string();
    });
}

AccountToken PostgresCatalog::tokenFor(const String& name) {
    return adminCall(kpBlank, [&] {
        Impl::Lease c(*m_impl);
        Result r = c->run("groups", "SELECT groups FROM users WHERE name = $1", Params().text(toUtf8(name)));
        return AccountToken(name, r.rows() ? store::splitGroups(r.bytes(0, 0)) : std::vector<String>());
    });
}

namespace {

// The children of a folder in path order; with `reader`, only those the
// reader may read, and the folder itself must be readable by the reader.
// One transaction serves the rows and the access lists.
std::vector<ManagedCatalog::Entry> listEntries(PostgresCatalog::Impl& impl, const Path& folder,
                                               const AccountToken* reader) {
    std::vector<ManagedCatalog::Entry> entries;
    const std::string p = toUtf8(folder);
    PostgresCatalog::Impl::Lease c(impl);
    c->command("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    const std::optional<Row> row = impl.lookup(*c, p, false);
    if (!row) adminFail(kErrorPathNotFound, folder);
    if (reader) {
        impl.refreshAcl(*c, row->aclGen);
        if (!mayRead(PostgresCatalog::Impl::rightsOf(*c, *reader, p)))
            adminFail(store::unreadableItemCode(
                          p, [&](std::string_view q) { return PostgresCatalog::Impl::rightsOf(*c, *reader, q); }),
                      folder);
    }
    if (row->kind != kKindFolder) adminFail(kErrorFolderExpected, folder);
    Result r = c->run("children",
                      "SELECT path, kind::int4, mtime::int8, signature, link_target, props FROM items "
                      "WHERE parent = $1 ORDER BY path",
                      Params().text(p));
    c->command("COMMIT");
    for (int i = 0; i < r.rows(); ++i) {
        const std::string_view childPath = r.bytes(i, 0);
        if (reader && !mayRead(PostgresCatalog::Impl::rightsOf(*c, *reader, childPath))) continue;
        ManagedCatalog::Entry e;
        e.path = Path(fromUtf8(childPath), kUnchecked);
        e.type = static_cast<unsigned>(r.int4(i, 1));
        e.lastModified = r.int8(i, 2);
        e.signature = fromUtf8(r.bytes(i, 3));
        e.linkTarget = r.isNull(i, 4) ? String() : fromUtf8(r.bytes(i, 4));
        decodeProperties(e.properties, r.isNull(i, 5) ? std::string_view() : r.bytes(i, 5));
        entries.push_back(std::move(e));
    }
    return entries;
}

}  // namespace

std::vector<ManagedCatalog::Entry> PostgresCatalog::list(const Path& folder) {
    requireValid(folder);
    return adminCall(folder, [&] { return listEntries(*m_impl, folder, nullptr); });
}

std::vector<ManagedCatalog::Entry> PostgresCatalog::listReadable(const AccountToken& user, const Path& folder) {
    requireValid(folder);
    return adminCall(folder, [&] { return listEntries(*m_impl, folder, &user); });
}

std::string PostgresCatalog::readRaw(const Path& path) {
    requireValid(path);
    return adminCall(path, [&] {
        Impl::Lease c(*m_impl);
        Result r = c->run("read_raw", "SELECT kind::int4, body FROM items WHERE path = $1", Params().text(toUtf8(path)));
        if (r.rows() == 0) adminFail(kErrorPathNotFound, path);
        if (r.int4(0, 0) != kKindObject) adminFail(kErrorObjectExpected, path);
        return r.isNull(0, 1) ? std::string() : std::string(r.bytes(0, 1));
    });
}

bool PostgresCatalog::exists(const Path& path) {
    if (!isValidPathText(path)) return false;
    return adminCall(path, [&] {
        Impl::Lease c(*m_impl);
        return m_impl->lookup(*c, toUtf8(path), false).has_value();
    });
}

void PostgresCatalog::remove(const Path& path) {
    requireValid(path);
    if (path.isRoot()) adminFail(kErrorRootSacred, path);
    adminCall(path, [&] {
        Impl::Lease c(*m_impl);
        Impl::WriteTxn txn(*c);
        const std::string p = toUtf8(path);
        if (!m_impl->lookup(*c, p, false)) adminFail(kErrorPathNotFound, path);
        // Everything under a folder: paths from "p/" up to, not including,
        // "p0" ('0' follows '/').
        const Params range = Params().text(p).text(p + "/").text(p + "0");
        const std::int64_t t = txn.nextTime(0);
        if (m_impl->history.active()) {
            Result objects = c->run("remove_objects",
                                    "SELECT path FROM items WHERE kind = 4 AND (path = $1 OR (path >= $2 AND path < $3))",
                                    range);
            for (int i = 0; i < objects.rows(); ++i) m_impl->keepVersion(*c, std::string(objects.bytes(i, 0)), t);
        }
        c->run("remove_items", "DELETE FROM items WHERE path = $1 OR (path >= $2 AND path < $3)", range);
        c->run("remove_acl", "DELETE FROM acl WHERE path = $1 OR (path >= $2 AND path < $3)", range);
        txn.aclChanged();
        txn.commit();
    });
}

std::unique_ptr<WriteLock> PostgresCatalog::lockForWriting(const Path& path) {
    requireValid(path);
    const std::string key = m_impl->options.schema + "\n" + toUtf8(path);
    return adminCall(path, [&]() -> std::unique_ptr<WriteLock> {
        std::unique_ptr<Conn> c;
        {
            threads::MutexLock lock(m_impl->poolMutex);
            if (!m_impl->idleLockConns.empty()) {
                c = std::move(m_impl->idleLockConns.back());
                m_impl->idleLockConns.pop_back();
            }
        }
        if (!c || !c->healthy()) c = m_impl->connect();
        c->run("lock", "SELECT pg_advisory_lock(1263097411, hashtext($1))", Params().text(key));
        return std::make_unique<PostgresWriteLock>(*m_impl, std::move(c), key);
    });
}

// --- history ---------------------------------------------------------------

void PostgresCatalog::setHistoryPolicy(HistoryPolicy policy) { m_impl->history.set(std::move(policy)); }

namespace {

ManagedCatalog::Version versionAt(const Result& r, int i) {
    ManagedCatalog::Version v;
    v.number = r.int8(i, 0);
    v.modified = r.int8(i, 1);
    v.replaced = r.int8(i, 2);
    v.signature = fromUtf8(r.bytes(i, 3));
    v.size = static_cast<std::uint64_t>(r.int8(i, 4));
    return v;
}

void requireReadable(PostgresCatalog::Impl& impl, Conn& c, const AccountToken& user, const Path& path,
                     const std::string& p) {
    impl.refreshAcl(c, -1);
    if (!mayRead(PostgresCatalog::Impl::rightsOf(c, user, p))) adminFail(kErrorAccessDenied, path);
}

}  // namespace

std::vector<ManagedCatalog::Version> PostgresCatalog::versions(const AccountToken& user, const Path& path) {
    requireValid(path);
    return adminCall(path, [&] {
        const std::string p = toUtf8(path);
        Impl::Lease c(*m_impl);
        requireReadable(*m_impl, *c, user, path, p);
        Result r = c->run("versions",
                          "SELECT version, mtime, replaced, signature, octet_length(body)::int8 FROM history "
                          "WHERE path = $1 ORDER BY version DESC",
                          Params().text(p));
        std::vector<Version> out;
        for (int i = 0; i < r.rows(); ++i) out.push_back(versionAt(r, i));
        return out;
    });
}

ManagedCatalog::Version PostgresCatalog::readVersion(const AccountToken& user, const Path& path, std::int64_t number,
                                                     std::string& body) {
    requireValid(path);
    return adminCall(path, [&] {
        const std::string p = toUtf8(path);
        Impl::Lease c(*m_impl);
        requireReadable(*m_impl, *c, user, path, p);
        Result r = c->run("read_version",
                          "SELECT version, mtime, replaced, signature, octet_length(body)::int8, body FROM history "
                          "WHERE path = $1 AND version = $2::int8",
                          Params().text(p).integer(number));
        if (r.rows() == 0) adminFail(kErrorPathNotFound, path, L"no such version");
        body.assign(r.bytes(0, 5));
        return versionAt(r, 0);
    });
}

}  // namespace kiv::catalog
