// SqliteCatalog: the embedded catalog, kept in one SQLite file (WAL mode) or
// in memory.
//
// What it stores:
//   folders, objects (a signature, properties and a body) and links (a target
//   path). The root folder "/" always exists. Every item has a modified time
//   in microseconds since the Unix epoch; each write of the store takes a time
//   strictly greater than every time the store gave before (the catalog clock
//   is kept in the file and advanced inside the write transaction), so two
//   writes in one clock tick, or from two processes, never share a time.
//
// Access rights:
//   an item may carry an access list: entries of (principal, user or group,
//   rights) with rights none, read or write (write includes read). The access
//   list that applies to an item is the one on the item itself or else on its
//   nearest ancestor that has one; it replaces, never merges with, those
//   further up. A user's rights are the greatest of the entries naming the
//   user or one of the user's groups; no matching entry means no access. The
//   group "everyone" names every user; members of "administrators" may do
//   everything. A new catalog gives "everyone" read access at the root.
//
// The four catalog operations:
//   getItemInfo  kSuccess; kErrorPathInvalid (blank or malformed path);
//                kErrorPathNotFound; kErrorAccessDenied (item not readable,
//                in a folder the user may read; in a folder the user may
//                not read, kErrorPathNotFound, so that nobody learns what
//                such a folder holds);
//                for a link (unless bOriginalOnly): kErrorLinkTargetPathNotFound,
//                kErrorCircularLink, kErrorLinkTargetAccessDenied; kErrorIO,
//                kErrorLocked on a store failure.
//   readObject   the codes of getItemInfo, and kErrorObjectExpected for a
//                folder, kErrorObjectTypeMismatch, kErrorPrivilegeValidationFailed
//                (the reader's validatePrivileges refused). A reader whose
//                preInspectRead answers kDontContinueToRead gets kSuccess
//                without read(). Exceptions of read() pass through. Links
//                are followed; flags are ignored.
//   writeObject  kSuccess; kErrorPathInvalid, kErrorItemNameInvalid (the last
//                component), kErrorRootSacred; kErrorPathNotFound (no parent
//                folder), kErrorFolderExpected (the parent is not a folder),
//                kErrorObjectExpected (a folder or link is at the path),
//                kErrorObjectTypeMismatch (the object at the path has
//                another signature than the writer's: an object is replaced
//                only by one of its own kind),
//                kErrorAccessDenied (no write right on the existing object, or
//                on the parent folder for a new one), kErrorItemAlreadyExists
//                (the replace helper refused), kErrorPrivilegeValidationFailed,
//                kErrorCatalogObjectException (the writer threw), kErrorIO,
//                kErrorLocked. The write is one transaction.
//   deleteObject kSuccess; kErrorPathInvalid, kErrorRootSacred,
//                kErrorPathNotFound, kErrorObjectOrLinkExpected (a folder:
//                folders are removed through the administration API only),
//                kErrorAccessDenied (no write right on the item), kErrorIO,
//                kErrorLocked.
//
// Opening a file that is not a catalog of this system (not SQLite, corrupt,
// or another schema) raises CatalogException(kErrorLoadingCatalog) naming the
// file, and leaves the file untouched. A missing file is created unless
// Options::create is false (then kErrorCatalogNotFound); so is an empty file
// (then kErrorLoadingCatalog, and the file stays empty).
//
// History: objects that the history rule (setHistoryPolicy) names keep
// their earlier versions, stored with the write or removal that replaced
// them, in the same transaction.
//
// The administration API below acts without access checks and raises
// CatalogException on failure.
//
// Thread safety: every operation may be called from any thread; several
// processes may share one file.
#pragma once

#include "qz/platform/export.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "qz/webcatalog/managedcatalog.h"

namespace kiv::catalog {

class KIV_API SqliteCatalog : public ManagedCatalog {
public:
    // The schema version kept in the file's user_version. Version 1 (users
    // without password hashes) is upgraded in place when a file is opened.
    static constexpr int kSchemaVersion = 3;

    struct Options {
        bool create = true;           // create a missing file
        int busyTimeoutMs = 30000;    // how long a write waits for another writer
        bool synchronousFull = true;  // fsync at every commit (else at checkpoints)
    };

    explicit SqliteCatalog(const std::string& file);
    SqliteCatalog(const std::string& file, const Options& options);
    // A catalog that lives in memory for the life of the object.
    static std::unique_ptr<SqliteCatalog> openInMemory();
    ~SqliteCatalog() override;

    SqliteCatalog(const SqliteCatalog&) = delete;
    SqliteCatalog& operator=(const SqliteCatalog&) = delete;

    // Catalog
    ReturnCode deleteObject(const AccountToken& user, const Path& path) override;
    int getReaderUpgradeMode() const noexcept override;
    ReturnCode readObject(const AccountToken& user, const Path& path, Reader& reader, ItemInfo& info,
                          unsigned flags) override;
    ReturnCode writeObject(const AccountToken& user, const Path& path, Writer& writer,
                           const ReplaceHelper& replaceHelper) override;
    ReturnCode getItemInfo(const AccountToken& user, const Path& path, ItemInfo& info, bool bOriginalOnly,
                           bool bWithProperties) override;
    // Reads of the batch (getItemInfo, readObject) on this thread use one
    // connection and one read transaction: one snapshot, no pool round trip.
    std::unique_ptr<ReadBatch> beginReadBatch() override;

    // The upgrade mode set on readers (a Reader::UpgradeMode value).
    void setReaderUpgradeMode(int mode) noexcept;

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
    // Across processes, an open file description lock on one byte of the
    // file "<catalog file>-locks" (made next to the catalog, never part of
    // it), chosen by a hash of the path; within the in-memory catalog, a
    // lock table of this object.
    std::unique_ptr<WriteLock> lockForWriting(const Path& path) override;
    void setHistoryPolicy(HistoryPolicy policy) override;
    std::vector<Version> versions(const AccountToken& user, const Path& path) override;
    Version readVersion(const AccountToken& user, const Path& path, std::int64_t number, std::string& body) override;
    // SQLite's integrity check: "ok" when the store is sound, else what it
    // found, one problem a line.
    std::string integrityCheck();
    // Copies the whole catalog into a new file `target` through SQLite's
    // online backup: one consistent snapshot, taken while other connections
    // and processes go on writing (a WAL reader blocks no writer). The copy
    // is written beside `target` under a temporary name, checked, synced and
    // then renamed, so `target` is either absent or a whole catalog. Raises
    // CatalogException: kErrorItemAlreadyExists when `target` exists (it is
    // never overwritten), kErrorIO when it cannot be written.
    void backupTo(const std::string& target);
    // The file name, or ":memory:".
    const std::string& fileName() const noexcept;

    struct Impl;

private:
    struct InMemoryTag {};
    explicit SqliteCatalog(InMemoryTag);
    std::unique_ptr<Impl> m_impl;
};

}  // namespace kiv::catalog
