// catalog::Catalog: the catalog service the favorites library programs against.
//
// A catalog keeps folders, objects (a signature, properties and a body) and
// links, by path. Every operation is made on behalf of a user (AccountToken)
// whose access rights the catalog enforces, and reports its outcome as a
// ReturnCode; exceptions come only from errorCodeToException and from the
// reader and writer callbacks, which pass through readObject/writeObject.
//
// getItemInfo(user, path, info, bOriginalOnly, bWithProperties): fills `info`;
//   kErrorPathNotFound for a missing item, kErrorAccessDenied for one the user
//   may not read; links are followed for kInfoResolved unless bOriginalOnly
//   (a dangling link answers kErrorLinkTargetPathNotFound, a cycle
//   kErrorCircularLink); properties are filled when bWithProperties.
// readObject(user, path, reader, info, flags): fetches the object and drives
//   the reader (preInspectRead, isObjectTypeMatch, read); a signature
//   mismatch answers kErrorObjectTypeMismatch.
// writeObject(user, path, writer, replaceHelper): creates or replaces the
//   object with what the writer produces, in one transaction; the new
//   modified time is strictly greater than the previous one.
// deleteObject(user, path): removes an object or link.
// beginReadBatch(): optional; see below.
//
// Thread safety: implementations are safe for concurrent use from many threads.
#pragma once

#include "qz/platform/export.h"

#include <memory>

#include "qz/platform/accounttoken.h"
#include "qz/platform/exception.h"
#include "qz/platform/handle.h"
#include "qz/platform/logger.h"
#include "qz/webcatalog/iteminfo.h"
#include "qz/webcatalog/path.h"
#include "qz/webcatalog/returncode.h"

namespace kiv::catalog {

class Reader;
class Writer;

// Decides whether a write may replace an existing object.
class KIV_API ReplaceHelper {
public:
    virtual ~ReplaceHelper() = default;
    virtual bool mayReplace(const ItemInfo& existing) const = 0;
};
// Replaces an existing object.
extern KIV_API const ReplaceHelper& tDefaultReplaceHelper;

// A run of reads on the calling thread (see Catalog::beginReadBatch); the run
// ends when this object is destroyed, on the same thread.
class KIV_API ReadBatch {
public:
    virtual ~ReadBatch() = default;
};

class KIV_API Catalog {
public:
    virtual ~Catalog() = default;

    virtual ReturnCode deleteObject(const AccountToken& user, const Path& path) = 0;
    // The upgrade mode this catalog sets on every reader before read().
    virtual int getReaderUpgradeMode() const noexcept;
    virtual ReturnCode readObject(const AccountToken& user, const Path& path, Reader& reader, ItemInfo& info,
                                  unsigned flags) = 0;
    virtual ReturnCode writeObject(const AccountToken& user, const Path& path, Writer& writer,
                                   const ReplaceHelper& replaceHelper) = 0;
    virtual ReturnCode getItemInfo(const AccountToken& user, const Path& path, ItemInfo& info,
                                   bool bOriginalOnly, bool bWithProperties) = 0;

    // A hint that many reads follow on this thread (a load looks up every
    // favorite): a catalog may serve them from one snapshot. Results and codes
    // are those the reads would give without it. Null when the catalog makes
    // nothing of the hint, which is the default.
    virtual std::unique_ptr<ReadBatch> beginReadBatch() { return nullptr; }
};

// The catalog's exception for a failing code: carries the code and the path.
class KIV_API CatalogException : public Exception {
public:
    CatalogException(ReturnCode code, String path, String arg1 = String(), String arg2 = String());
    ReturnCode getCode() const noexcept { return m_code; }
    const String& getPath() const noexcept { return m_path; }
    void throwMe() const override { throw *this; }
    Exception* clone() const override;

private:
    ReturnCode m_code;
    String m_path;
};

// Raised by readers for an object whose stored form must be upgraded first.
class KIV_API CatalogUpgradeRequired : public Exception {
public:
    CatalogUpgradeRequired(const String& message, const String& detail, int code = kErrorCatalogUpgradeRequired);
    int getCode() const noexcept { return m_code; }
    Exception* clone() const override;
    [[noreturn]] void Throw() const { throw *this; }

private:
    int m_code;
};

// Does nothing for kSuccess; otherwise logs nothing and throws CatalogException.
KIV_API void errorCodeToException(ReturnCode code, const String& path, const String& arg1, const String& arg2,
                          const Logger::FileLocation& fl);

// A predicate over catalog objects by path, for listing favorites.
// Filter names:
//   ""/unknown      every object the user may read
//   "reports"       objects whose signature is "report1"
//   "dashboards"    dashboard folders (property compositeSignature "dashboardfolder1")
//                   and dashboard pages (signature "dashboardpage1")
//   "readable"      the same as "" (kept for hosts that name it)
class KIV_API CatalogObjectFilter {
public:
    CatalogObjectFilter(Catalog& catalog, const AccountToken& user, const String& filterName);
    bool operator()(const Path& catalogPath) const { return admits(catalogPath); }
    bool admits(const Path& catalogPath) const;
    const String& getName() const noexcept { return m_name; }

private:
    Catalog& m_catalog;
    AccountToken m_user;
    String m_name;
};

}  // namespace kiv::catalog
