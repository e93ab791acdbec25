// PostgresCatalog: the catalog kept in a PostgreSQL database, shared by
// several servers.
//
// What it stores and the rules it keeps are those of SqliteCatalog (see
// sqlitecatalog.h): folders, objects and links by path, access lists
// inherited from the nearest ancestor that has one, users with their groups
// and password hashes, the history of the objects the history rule names,
// and the same return codes for the same cases. Every
// write is one transaction, and every write of the store takes a modified
// time strictly greater than every time the store handed out before, by any
// server: the time is taken from the database's clock and the store's last
// time, inside the transaction, never from a server's clock.
//
// The tables live in one schema of the database (Options::schema, "kiv"
// unless told otherwise), which the catalog creates and versions itself:
// a schema without this catalog's tables becomes a catalog when creating is
// allowed; a schema holding other tables, or a catalog of another version,
// is refused with kErrorLoadingCatalog and left untouched.
//
// Loading many favorites asks for one item's information per favorite.
// Within a read batch (beginReadBatch) the catalog answers from one snapshot
// and fetches in one query the information of every path that the object
// read last on the same thread names (XML attribute values that are catalog
// paths), following their links, so that the look-ups that follow need no
// round trip.
//
// Thread safety: every operation may be called from any thread; a pool of
// connections serves them (Options::maxConnections), and write locks are
// held on connections of their own.
#pragma once

#include "qz/platform/export.h"

#include <memory>
#include <string>

#include "qz/webcatalog/managedcatalog.h"

namespace kiv::catalog {

class KIV_API PostgresCatalog : public ManagedCatalog {
public:
    // The schema version kept in the catalog's meta table.
    static constexpr int kSchemaVersion = 2;

    struct Options {
        bool create = true;                // make the schema and tables when missing
        std::string schema = "kiv";        // the database schema holding the tables
        int maxConnections = 16;           // the pool's size (write locks not counted)
    };

    // `conninfo` is a libpq connection string: "postgresql://..." or
    // "host=... dbname=...". A catalog that cannot be reached raises
    // CatalogException(kErrorLoadingCatalog); a missing one without
    // Options::create raises kErrorCatalogNotFound.
    explicit PostgresCatalog(const std::string& conninfo);
    PostgresCatalog(const std::string& conninfo, const Options& options);
    ~PostgresCatalog() override;

    PostgresCatalog(const PostgresCatalog&) = delete;
    PostgresCatalog& operator=(const PostgresCatalog&) = delete;

    // Whether `location` names a PostgreSQL catalog rather than a file: it
    // starts with "postgresql://" or "postgres://".
    static bool isConnectionString(const std::string& location) noexcept;

    // Catalog
    ReturnCode deleteObject(const AccountToken& user, const Path& path) override;
    ReturnCode readObject(const AccountToken& user, const Path& path, Reader& reader, ItemInfo& info,
                          unsigned flags) override;
    ReturnCode writeObject(const AccountToken& user, const Path& path, Writer& writer,
                           const ReplaceHelper& replaceHelper) override;
    ReturnCode getItemInfo(const AccountToken& user, const Path& path, ItemInfo& info, bool bOriginalOnly,
                           bool bWithProperties) override;
    std::unique_ptr<ReadBatch> beginReadBatch() override;

    // Administration (see ManagedCatalog).
    void makeFolder(const Path& path) override;
    void putObject(const Path& path, const String& signature, const std::map<String, String>& properties,
                   std::string_view body) override;
    void putObjects(const std::vector<ObjectSpec>& objects) override;
    void setProperties(const Path& path, const std::map<String, String>& properties) override;
    void makeLink(const Path& path, const Path& target) override;
    void setAccess(const Path& path, const String& principal, bool isGroup, Rights rights) override;
    void clearAccess(const Path& path) override;
    Rights effectiveRights(const AccountToken& user, const Path& path) override;
    void addUser(const String& name, const std::vector<String>& groups) override;
    bool hasUser(const String& name) override;
    AccountToken tokenFor(const String& name) override;
    void setPasswordHash(const String& name, const std::string& hash) override;
    std::string passwordHash(const String& name) override;
    std::vector<Entry> list(const Path& folder) override;
    std::vector<Entry> listReadable(const AccountToken& user, const Path& folder) override;
    std::string readRaw(const Path& path) override;
    bool exists(const Path& path) override;
    void remove(const Path& path) override;
    // A session-level advisory lock of the database, keyed by the schema
    // and the path; the database releases it when the session ends.
    std::unique_ptr<WriteLock> lockForWriting(const Path& path) override;
    void setHistoryPolicy(HistoryPolicy policy) override;
    std::vector<Version> versions(const AccountToken& user, const Path& path) override;
    Version readVersion(const AccountToken& user, const Path& path, std::int64_t number, std::string& body) override;

    // The schema holding the catalog.
    const std::string& schema() const noexcept;

    struct Impl;

private:
    std::unique_ptr<Impl> m_impl;
};

}  // namespace kiv::catalog
