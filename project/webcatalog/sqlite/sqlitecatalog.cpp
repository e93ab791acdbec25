// SqliteCatalog: opening a catalog, and the four catalog operations.
#include "store.h"

namespace kiv::catalog {

SqliteCatalog::SqliteCatalog(const std::string& file) : SqliteCatalog(file, Options()) {}

SqliteCatalog::SqliteCatalog(const std::string& file, const Options& options) : m_impl(std::make_unique<Impl>()) {
    m_impl->file = file;
    m_impl->options = options;
    m_impl->openStore();
}

SqliteCatalog::SqliteCatalog(InMemoryTag) : m_impl(std::make_unique<Impl>()) {
    m_impl->file = ":memory:";
    m_impl->inMemory = true;
    m_impl->maxOpen = 1;
    m_impl->openStore();
}

std::unique_ptr<SqliteCatalog> SqliteCatalog::openInMemory() {
    return std::unique_ptr<SqliteCatalog>(new SqliteCatalog(InMemoryTag{}));
}

SqliteCatalog::~SqliteCatalog() = default;

const std::string& SqliteCatalog::fileName() const noexcept { return m_impl->file; }

int SqliteCatalog::getReaderUpgradeMode() const noexcept { return m_impl->upgradeMode.load(); }

void SqliteCatalog::setReaderUpgradeMode(int mode) noexcept { m_impl->upgradeMode.store(mode); }

namespace {

// Pins one pooled connection to the calling thread and opens a read
// transaction on it, so that the reads of the batch share one snapshot and
// skip the pool and the per-statement transaction. Writes still take a
// connection of their own.
class SqliteReadBatch : public ReadBatch {
public:
    explicit SqliteReadBatch(SqliteCatalog::Impl& impl) : m_impl(impl), m_conn(impl.acquire()) {
        try {
            Query(*m_conn, kStBeginRead).run();
        } catch (const SqlError& e) {
            logSqlError(e, impl.file);
            impl.release(m_conn);
            m_conn = nullptr;
            return;  // no batch: reads go through the pool as usual
        }
        SqliteCatalog::Impl::ThreadState& t = SqliteCatalog::Impl::threadState();
        t.pinnedImpl = &impl;
        t.pinned = m_conn;
    }
    ~SqliteReadBatch() override {
        if (!m_conn) return;
        SqliteCatalog::Impl::ThreadState& t = SqliteCatalog::Impl::threadState();
        t.pinnedImpl = nullptr;
        t.pinned = nullptr;
        try {
            Query(*m_conn, kStCommit).run();
        } catch (const SqlError& e) {
            logSqlError(e, m_impl.file);
        }
        m_impl.release(m_conn);
    }
    SqliteReadBatch(const SqliteReadBatch&) = delete;
    SqliteReadBatch& operator=(const SqliteReadBatch&) = delete;

private:
    SqliteCatalog::Impl& m_impl;
    Conn* m_conn;
};

}  // namespace

std::unique_ptr<ReadBatch> SqliteCatalog::beginReadBatch() {
    // A batch already open on this thread serves the nested one. An
    // in-memory catalog has a single connection, which a batch must not take
    // from the writers.
    if (Impl::threadState().pinnedImpl == m_impl.get() || m_impl->maxOpen <= 1) return nullptr;
    try {
        return std::make_unique<SqliteReadBatch>(*m_impl);
    } catch (const SqlError& e) {
        logSqlError(e, m_impl->file);
        return nullptr;
    }
}

ReturnCode SqliteCatalog::getItemInfo(const AccountToken& user, const Path& path, ItemInfo& info, bool bOriginalOnly,
                                      bool bWithProperties) {
    return m_impl->inspect(user, path, info, bOriginalOnly, bWithProperties, nullptr);
}

ReturnCode SqliteCatalog::readObject(const AccountToken& user, const Path& path, Reader& reader, ItemInfo& info,
                                     unsigned) {
    std::string body;
    const ReturnCode rc = m_impl->inspect(user, path, info, false, true, &body);
    if (rc != kSuccess) return rc;
    // The connection is back in the pool: the reader may use the catalog.
    return store::handToReader(reader, user, info, body, getReaderUpgradeMode());
}

ReturnCode SqliteCatalog::writeObject(const AccountToken& user, const Path& path, Writer& writer,
                                      const ReplaceHelper& replaceHelper) {
    if (const ReturnCode rc = store::checkWritePath(path); rc != kSuccess) return rc;
    Impl& impl = *m_impl;
    try {
        // An object is replaced only by one of its own kind.
        const std::string signature = toUtf8(writer.getSignature());
        // 1. The checks, and the replace question, without holding a write lock.
        ItemInfo existingInfo;
        bool existing = false;
        {
            const std::uint64_t localGen = impl.localAclGen.load(std::memory_order_acquire);
            Impl::Lease c(impl);
            c->pathBuf.clear();
            appendUtf8(c->pathBuf, path);
            const std::string_view parent = parentOf(c->pathBuf);
            Query item(*c, kStLookup);
            Row row;
            const ReturnCode rc = impl.checkWrite(*c, localGen, user, parent, existing, row, item);
            if (rc != kSuccess) return rc;
            if (existing && row.signature != signature) return kErrorObjectTypeMismatch;
            if (existing) {
                existingInfo.original().path = path;
                Impl::fillEntry(existingInfo.original(), row, true);
                existingInfo.resolved() = existingInfo.original();
            }
        }
        if (existing && !replaceHelper.mayReplace(existingInfo)) return kErrorItemAlreadyExists;

        // 2. The writer's part, with no connection held.
        std::string body;
        if (const ReturnCode rc = store::runWriter(writer, user, body); rc != kSuccess) return rc;

        // 3. One write transaction: check again, store, commit.
        ItemInfo info;
        {
            const std::uint64_t localGen = impl.localAclGen.load(std::memory_order_acquire);
            Impl::Lease c(impl);
            WriteTxn txn(*c);
            c->pathBuf.clear();
            appendUtf8(c->pathBuf, path);
            const std::string_view parent = parentOf(c->pathBuf);
            Query item(*c, kStLookup);
            Row row;
            bool existsNow = false;
            const ReturnCode rc = impl.checkWrite(*c, localGen, user, parent, existsNow, row, item);
            if (rc != kSuccess) return rc;
            if (existsNow && row.signature != signature) return kErrorObjectTypeMismatch;
            // Keep the existing object's properties: the writer supplies the
            // signature and the body only.
            const std::string props(existsNow ? row.props : std::string_view());
            const Row old = row;
            item.reset();
            const std::int64_t t = impl.storeObject(*c, parent, existsNow, old, signature, props, body);
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
    } catch (const SqlError& e) {
        logSqlError(e, impl.file);
        return codeForSqlError(e);
    }
}

ReturnCode SqliteCatalog::deleteObject(const AccountToken& user, const Path& path) {
    if (!isValidPathText(path)) return kErrorPathInvalid;
    if (path.isRoot()) return kErrorRootSacred;
    Impl& impl = *m_impl;
    try {
        const std::uint64_t localGen = impl.localAclGen.load(std::memory_order_acquire);
        Impl::Lease c(impl);
        WriteTxn txn(*c);
        impl.refreshAcl(*c, localGen);
        c->pathBuf.clear();
        appendUtf8(c->pathBuf, path);
        Row row;
        {
            Query q(*c, kStLookup);
            q.text(1, c->pathBuf);
            if (!q.step()) return kErrorPathNotFound;
            row.take(q);
            row.signature = row.props = row.linkTarget = {};
        }
        if (row.kind == kKindFolder) return kErrorObjectOrLinkExpected;
        if (!mayWrite(Impl::rightsOf(*c, user, c->pathBuf))) return kErrorAccessDenied;
        // Keep the catalog clock moving, so a later object at this path gets
        // a time after the deleted one.
        impl.keepVersion(*c, c->pathBuf, Impl::nextTime(*c, row.mtime));
        Query(*c, kStDeleteItem).text(1, c->pathBuf).run();
        if (row.hasBody) Query(*c, kStDeleteBody).integer(1, row.bodyId).run();
        const bool hadAcl = c->acl.count(std::string_view(c->pathBuf)) != 0;
        if (hadAcl) {
            Query(*c, kStDeleteAclOf).text(1, c->pathBuf).run();
            Query(*c, kStBumpAclGen).run();
        }
        txn.commit();
        if (hadAcl) impl.localAclGen.fetch_add(1, std::memory_order_acq_rel);
        return kSuccess;
    } catch (const SqlError& e) {
        logSqlError(e, impl.file);
        return codeForSqlError(e);
    }
}

}  // namespace kiv::catalog
