// What every catalog back-end shares, for those who write one: the stored
// form of texts, the contract's rules on paths that may be written,
// access-list evaluation, and the reader's and writer's parts of readObject
// and writeObject. The SQLite and PostgreSQL catalogs are built on it.
//
// Paths, names, signatures and property texts are stored as UTF-8; a
// character that is not a Unicode scalar value is stored as U+FFFD, and
// malformed stored bytes read back as U+FFFD. Properties are kept as one
// byte string "name\0value\0..." so that an item's information is one row.
//
// Thread safety: free functions without shared state.
#pragma once

#include "qz/platform/export.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "qz/platform/accounttoken.h"
#include "qz/platform/threads.h"
#include "qz/webcatalog/iteminfo.h"
#include "qz/webcatalog/managedcatalog.h"
#include "qz/webcatalog/path.h"
#include "qz/webcatalog/returncode.h"

namespace kiv::catalog {
class Reader;
class Writer;
}  // namespace kiv::catalog

namespace kiv::catalog::store {

// The kinds of stored items (the item type bits of ItemInfo).
constexpr int kKindFolder = kFolder;
constexpr int kKindLink = kLink;
constexpr int kKindObject = kObject;
// A chain of links longer than this counts as circular.
constexpr int kMaxLinkHops = 64;

KIV_API void appendUtf8(std::string& out, std::wstring_view in);
KIV_API std::string toUtf8(std::wstring_view in);
// A path's text: one-byte text straight from the path, wide text as above.
KIV_API void appendUtf8(std::string& out, const Path& path);
KIV_API std::string toUtf8(const Path& path);
// Decodes into `out`, reusing its storage.
KIV_API void decodeInto(String& out, std::string_view in);
KIV_API String fromUtf8(std::string_view in);

KIV_API std::string encodeProperties(const std::map<String, String>& properties);
KIV_API void decodeProperties(std::map<String, String>& out, std::string_view blob);

// The parent of a UTF-8 path text ("/a/b" -> "/a", "/a" -> "/"); empty for
// the root. Escaped slashes ("\/") are not separators.
KIV_API std::string_view parentOf(std::string_view path) noexcept;

// Whether the path text is a valid catalog path.
KIV_API bool isValidPathText(const Path& path) noexcept;

// The code writeObject answers for the path before looking at the store:
// kSuccess for a path it may write, kErrorRootSacred for the root,
// kErrorItemNameInvalid for a bad last component under a valid parent, and
// kErrorPathInvalid otherwise.
KIV_API ReturnCode checkWritePath(const Path& path) noexcept;

// Microseconds since the Unix epoch by this machine's clock.
KIV_API std::int64_t nowMicros() noexcept;

// A user's groups as stored: joined by "\n".
KIV_API std::string joinGroups(const std::vector<String>& groups);
KIV_API std::vector<String> splitGroups(std::string_view stored);

// One entry of an access list, as the back-ends keep the lists in memory.
struct KIV_API AclEntry {
    String principal;
    bool isGroup;
    bool everyone;  // the group of every user
    int rights;     // a Rights value
};
KIV_API AclEntry makeAclEntry(std::string_view principalUtf8, bool isGroup, int rights);
// The rights `user` has by an item's access list: the union of the entries
// naming the user or one of the user's groups.
KIV_API int rightsFrom(const std::vector<AclEntry>& list, const AccountToken& user) noexcept;
KIV_API bool mayRead(int rights) noexcept;
KIV_API bool mayWrite(int rights) noexcept;

// The code for an item at `path` (UTF-8) that the user may not read:
// kErrorAccessDenied when the user may read its parent folder, whose
// listing shows the item anyway, and kErrorPathNotFound otherwise, so that
// nobody learns what a folder they cannot read holds. `rightsOf` gives the
// user's rights on a path.
template <class RightsOf>
ReturnCode unreadableItemCode(std::string_view path, RightsOf&& rightsOf) {
    const std::string_view parent = parentOf(path);
    return parent.empty() || mayRead(rightsOf(parent)) ? kErrorAccessDenied : kErrorPathNotFound;
}

// A store's history rule (ManagedCatalog::setHistoryPolicy), read by every
// write while it may be set again.
class KIV_API HistorySetting {
public:
    void set(ManagedCatalog::HistoryPolicy policy);
    // How many versions of the object at `path` with `signature` (UTF-8
    // texts) to keep; 0 when the rule keeps none.
    unsigned versionsFor(std::string_view path, std::string_view signature) const;
    // Whether any rule is set (when not, a write need not look).
    bool active() const;

private:
    mutable threads::Mutex m_mutex;
    std::shared_ptr<const ManagedCatalog::HistoryPolicy> m_policy KIV_GUARDED_BY(m_mutex);
};

// The reader's part of readObject, once the body is fetched and no
// connection is held: the upgrade mode, preInspectRead, the signature and
// privilege checks, read. Exceptions of read() pass through.
KIV_API ReturnCode handToReader(Reader& reader, const AccountToken& user, const ItemInfo& info, std::string_view body,
                        int upgradeMode);
// The writer's part of writeObject: its privilege check, then its output
// into `body`. kSuccess, kErrorPrivilegeValidationFailed, or
// kErrorCatalogObjectException when the writer throws.
KIV_API ReturnCode runWriter(const Writer& writer, const AccountToken& user, std::string& body);

}  // namespace kiv::catalog::store
