// catalog::ManagedCatalog: a catalog store that hosts administer and sign
// users in with: folders, objects and links made without access checks,
// access lists, users with their groups and password hashes, and listings.
//
// The favorites library needs only the Catalog contract; the tool and the
// server take a ManagedCatalog, so that every store they run on offers the
// same administration. Failures raise CatalogException.
//
// Thread safety: implementations are safe for concurrent use from many threads.
#pragma once

#include "qz/platform/export.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "qz/webcatalog/catalog.h"

namespace kiv::catalog {

enum class Rights : int { kNone = 0, kRead = 1, kWrite = 3 };

// A held write lock (see ManagedCatalog::lockForWriting); released when
// destroyed.
class KIV_API WriteLock {
public:
    virtual ~WriteLock() = default;
};

class KIV_API ManagedCatalog : public Catalog {
public:
    static constexpr const wchar_t* ksAdministratorsGroup = L"administrators";
    static constexpr const wchar_t* ksEveryoneGroup = L"everyone";

    // One entry of list().
    struct Entry {
        Path path;
        unsigned type = 0;  // kFolder, kLink or kObject
        Time lastModified = 0;
        String signature;
        String linkTarget;
        std::map<String, String> properties;
    };

    // One object of putObjects.
    struct ObjectSpec {
        Path path;
        String signature;
        std::map<String, String> properties;
        std::string body;
    };

    // Which objects keep their earlier versions, and how many. A version is
    // kept when an object the rule names is replaced or removed (by
    // writeObject, deleteObject, putObject, putObjects or remove), in the
    // same transaction; the oldest beyond `versions` are pruned. The rule
    // is asked with the object's path and stored signature.
    struct HistoryPolicy {
        unsigned versions = 0;  // versions kept per object; 0 keeps none
        std::function<bool(const Path& path, const String& signature)> keeps;
    };

    // One kept version of an object (see versions()).
    struct Version {
        std::int64_t number = 0;  // increases with every version kept of the path
        Time modified = 0;        // the version's own modified time
        Time replaced = 0;        // when a write or removal replaced it
        String signature;
        std::uint64_t size = 0;   // bytes of its body
    };

    // Sets the history rule for every later write through this object. The
    // versions already kept stay whatever the rule. Every host on a store
    // sets the same rule; call it before the catalog is shared by threads.
    virtual void setHistoryPolicy(HistoryPolicy policy) = 0;
    // The kept versions of the object at `path`, newest first; empty when
    // none are kept. The path need not hold an object any more. The user
    // must be allowed to read the path (kErrorAccessDenied otherwise).
    virtual std::vector<Version> versions(const AccountToken& user, const Path& path) = 0;
    // One kept version and its body (kErrorPathNotFound for a number that
    // is not kept); the same access rule as versions().
    virtual Version readVersion(const AccountToken& user, const Path& path, std::int64_t number,
                                std::string& body) = 0;

    // Makes the folder and any missing ancestor; an existing folder is kept.
    virtual void makeFolder(const Path& path) = 0;
    // Creates or replaces an object (missing parent folders are made).
    virtual void putObject(const Path& path, const String& signature, const std::map<String, String>& properties,
                           std::string_view body) = 0;
    // putObject for many objects in one transaction (imports, test set-up).
    virtual void putObjects(const std::vector<ObjectSpec>& objects) = 0;
    // Replaces the properties of an existing item (a folder too; a dashboard
    // folder carries compositeSignature = dashboardfolder1).
    virtual void setProperties(const Path& path, const std::map<String, String>& properties) = 0;
    // Creates or replaces a link to `target` (which need not exist).
    virtual void makeLink(const Path& path, const Path& target) = 0;
    // Sets one entry of the item's access list (kNone is stored and denies).
    virtual void setAccess(const Path& path, const String& principal, bool isGroup, Rights rights) = 0;
    // Removes the item's access list, so that it inherits again.
    virtual void clearAccess(const Path& path) = 0;
    // The rights `user` has on the item (administrators: kWrite).
    virtual Rights effectiveRights(const AccountToken& user, const Path& path) = 0;
    // Registers or updates a user and the groups the user belongs to; a
    // password hash set before is kept.
    virtual void addUser(const String& name, const std::vector<String>& groups) = 0;
    // Whether the user is registered.
    virtual bool hasUser(const String& name) = 0;
    // The token of a registered user (an unknown user gets no groups).
    virtual AccountToken tokenFor(const String& name) = 0;
    // Stores the password hash of a registered user (kErrorPathNotFound,
    // naming the user, for an unknown one); an empty hash removes it.
    virtual void setPasswordHash(const String& name, const std::string& hash) = 0;
    // The stored password hash; empty for a user without one or an unknown user.
    virtual std::string passwordHash(const String& name) = 0;
    // The direct children of a folder, in path order, with their properties.
    virtual std::vector<Entry> list(const Path& folder) = 0;
    // The direct children of a folder that `user` may read, in path order
    // (links are judged by their own access, not their target's). The
    // folder must be readable by the user: kErrorAccessDenied otherwise,
    // kErrorPathNotFound, kErrorFolderExpected. This is what a listing page
    // shows, answered in one pass instead of one getItemInfo per child.
    virtual std::vector<Entry> listReadable(const AccountToken& user, const Path& folder) = 0;
    // The stored body of an object.
    virtual std::string readRaw(const Path& path) = 0;
    virtual bool exists(const Path& path) = 0;
    // Removes an item; a folder with everything under it. Not the root.
    virtual void remove(const Path& path) = 0;

    // Waits until the caller alone holds the write lock of the object at
    // `path` among every thread, process and server using this store, and
    // returns it. The lock is released when the returned object is destroyed,
    // or when the process holding it ends, however it ends. It guards nothing
    // by itself: hosts hold it across each operation that checks an object's
    // modified time and then writes the object, so that no other writer
    // commits between the check and the write. Readers never take it. Not
    // reentrant: a holder that asks again for the same path waits for itself.
    virtual std::unique_ptr<WriteLock> lockForWriting(const Path& path) = 0;

    // Whether the token belongs to the administrators group.
    static bool isAdministrator(const AccountToken& user);
};

}  // namespace kiv::catalog
