// PostgresCatalog: opening a catalog, the four catalog operations and read
// batches.
#include "store.h"

namespace kiv::catalog {

namespace {

// Holds one connection of the pool with an open snapshot for the reads of
// the calling thread.
class PostgresReadBatch : public ReadBatch {
public:
    PostgresReadBatch(PostgresCatalog::Impl& impl, std::unique_ptr<Conn> conn) : m_impl(impl), m_conn(std::move(conn)) {
        auto& t = PostgresCatalog::Impl::threadState();
        t.batchSerial = impl.serial;
        t.batch = m_conn.get();
    }
    ~PostgresReadBatch() override {
        auto& t = PostgresCatalog::Impl::threadState();
        t.batchSerial = 0;
        t.batch = nullptr;
        m_conn->inBatch = false;
        m_conn->batchRows.clear();
        m_impl.release(std::move(m_conn));  // rolls the read transaction back
    }

private:
    PostgresCatalog::Impl& m_impl;
    std::unique_ptr<Conn> m_conn;
};

}  // namespace

PostgresCatalog::PostgresCatalog(const std::string& conninfo) : PostgresCatalog(conninfo, Options()) {}

PostgresCatalog::PostgresCatalog(const std::string& conninfo, const Options& options)
    : m_impl(std::make_unique<Impl>()) {
    m_impl->conninfo = conninfo;
    m_impl->options = options;
    if (m_impl->options.maxConnections < 1) m_impl->options.maxConnections = 1;
    m_impl->openStore();
}

PostgresCatalog::~PostgresCatalog() = default;

bool PostgresCatalog::isConnectionString(const std::string& location) noexcept {
    return location.rfind("postgresql://", 0) == 0 || location.rfind("postgres://", 0) == 0;
}

const std::string& PostgresCatalog::schema() const noexcept { return m_impl->options.schema; }

ReturnCode PostgresCatalog::getItemInfo(const AccountToken& user, const Path& path, ItemInfo& info,
                                        bool bOriginalOnly, bool bWithProperties) {
    return m_impl->inspect(user, path, info, bOriginalOnly, bWithProperties, nullptr);
}

ReturnCode PostgresCatalog::readObject(const AccountToken& user, const Path& path, Reader& reader, ItemInfo& info,
                                       unsigned) {
    std::string body;
    const ReturnCode rc = m_impl->inspect(user, path, info, false, true, &body);
    if (rc != kSuccess) return rc;
    // Remembered for a read batch that may follow on this thread.
    Impl::ThreadState& t = Impl::threadState();
    t.namedSerial = m_impl->serial;
    t.named = namedPaths(body);
    return store::handToReader(reader, user, info, body, getReaderUpgradeMode());
}

std::unique_ptr<ReadBatch> PostgresCatalog::beginReadBatch() {
    Impl& impl = *m_impl;
    Impl::ThreadState& t = Impl::threadState();
    if (t.batchSerial == impl.serial && t.batch) return nullptr;  // the open batch serves this one too
    std::vector<std::string> named;
    if (t.namedSerial == impl.serial) named.swap(t.named);
    t.namedSerial = 0;
    try {
        Impl::Lease lease(impl);
        Conn& c = *lease;
        c.command("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
        c.inBatch = true;
        c.batchRows.clear();
        impl.refreshAcl(c, -1);
        impl.prefetch(c, std::move(named));
        return std::make_unique<PostgresReadBatch>(impl, lease.take());
    } catch (const PgError& e) {
        logPgError(e);
        return nullptr;  // the reads go one by one
    }
}

ReturnCode PostgresCatalog::writeObject(const AccountToken& user, const Path& path, Writer& writer,
                                        const ReplaceHelper& replaceHelper) {
    if (const ReturnCode rc = store::checkWritePath(path); rc != kSuccess) return rc;
    Impl& impl = *m_impl;
    const std::string p = toUtf8(path);
    const std::string parent(parentOf(p));
    try {
        // An object is replaced only by one of its own kind.
        const std::string signature = toUtf8(writer.getSignature());
        // 1. The checks, and the replace question, without a transaction.
        ItemInfo existingInfo;
        bool existing = false;
        {
            Impl::Lease c(impl);
            std::optional<Row> row;
            const ReturnCode rc = impl.checkWrite(*c, user, p, parent, row);
            if (rc != kSuccess) return rc;
            if (row && row->signature != signature) return kErrorObjectTypeMismatch;
            if (row) {
                existing = true;
                existingInfo.original().path = path;
                Impl::fillEntry(existingInfo.original(), *row, true);
                existingInfo.resolved() = existingInfo.original();
            }
        }
        if (existing && !replaceHelper.mayReplace(existingInfo)) return kErrorItemAlreadyExists;

        // 2. The writer's part, with no connection held.
        std::string body;
        if (const ReturnCode rc = store::runWriter(writer, user, body); rc != kSuccess) return rc;

        // 3. One transaction: check again, store, commit.
        ItemInfo info;
        {
            Impl::Lease c(impl);
            Impl::WriteTxn txn(*c);
            std::optional<Row> row;
            const ReturnCode rc = impl.checkWrite(*c, user, p, parent, row);
            if (rc != kSuccess) return rc;
            if (row && row->signature != signature) return kErrorObjectTypeMismatch;
            // The existing object's properties stay: the writer supplies the
            // signature and the body only.
            const std::string props = row ? row->props : std::string();
            const std::int64_t t = txn.nextTime(row ? row->mtime : 0);
            if (row) impl.keepVersion(*c, p, t);
            impl.upsert(*c, p, parent, kKindObject, signature, props, std::nullopt, t, std::string_view(body));
            txn.commit();
            ItemInfo::Entry& e = info.original();
            e.path = path;
            e.type = kObject;
            e.lastModified = t;
            e.signature = fromUtf8(signature);
            decodeProperties(e.properties, props);
            info.resolved() = e;
        }
        writer.postInspectWrite(info);
        return kSuccess;
    } catch (const PgError& e) {
        logPgError(e);
        return codeForPgError(e);
    }
}

ReturnCode PostgresCatalog::deleteObject(const AccountToken& user, const Path& path) {
    if (!isValidPathText(path)) return kErrorPathInvalid;
    if (path.isRoot()) return kErrorRootSacred;
    Impl& impl = *m_impl;
    const std::string p = toUtf8(path);
    try {
        Impl::Lease c(impl);
        Impl::WriteTxn txn(*c);
        const std::optional<Row> row = impl.lookup(*c, p, false);
        if (!row) return kErrorPathNotFound;
        impl.refreshAcl(*c, row->aclGen);
        if (row->kind == kKindFolder) return kErrorObjectOrLinkExpected;
        if (!mayWrite(Impl::rightsOf(*c, user, p))) return kErrorAccessDenied;
        // Keep the clock moving, so a later object at this path gets a time
        // after the deleted one.
        impl.keepVersion(*c, p, txn.nextTime(row->mtime));
        c->run("delete_item", "DELETE FROM items WHERE path = $1", Params().text(p));
        Result acl = c->run("delete_acl_of", "DELETE FROM acl WHERE path = $1 RETURNING 1", Params().text(p));
        if (acl.rows() != 0) txn.aclChanged();
        txn.commit();
        return kSuccess;
    } catch (const PgError& e) {
        logPgError(e);
        return codeForPgError(e);
    }
}

}  // namespace kiv::catalog
