// What every command starts from: the global options, the opened catalog
// and, for the favorites commands, the user's FavoritesManager.
#pragma once

#include <memory>
#include <string>

#include "hosterrors.h"
#include "storeopen.h"
#include "qz/platform/accounttoken.h"
#include "qz/webcatalog/path.h"
#include "qz/webcatalog/managedcatalog.h"
#include "qz/webfavorites/favoritesmanager.h"

namespace kiv::tool {

// The tool is one of the hosts of apps/common.
using namespace kiv::host;

struct GlobalOptions {
    std::string catalogFile = "catalog.db";
    std::string user;
    std::string favoritesPath;  // empty: /users/<user>/favorites
    bool json = false;
};

// Whether a favorites command may write the user's favorites: a writing
// command holds the store's write lock of the favorites object from before
// the manager is made until it ends, so that another process's edit cannot
// fall between the manager's check of the stored object and its write.
enum class Intent { kRead, kWrite };

// How a command opens the catalog file.
enum class OpenMode {
    kExisting,  // the file must exist and be a catalog
    kCreate,    // a missing file is created
};

// Opens the catalog: a file, or a PostgreSQL catalog named by a
// "postgresql://" connection URI. A missing file (with kExisting) raises
// CatalogException(kErrorCatalogNotFound); a file that is not a catalog of
// this system raises CatalogException(kErrorLoadingCatalog) and stays
// untouched.
std::unique_ptr<catalog::ManagedCatalog> openCatalog(const GlobalOptions& options, OpenMode mode);

// The token the catalog administration commands act with.
AccountToken administratorToken();

// One user's favorites, opened as a host opens them: the user's token from
// the catalog, and a FavoritesManager over the favorites object (which loads
// it, creates it for a new user and upgrades the old mobile favorites).
//
// Before the manager is made, the favorites object must be readable by the
// user (or missing); afterwards it must exist. Otherwise the catalog's
// refusal is raised as CatalogException, since the manager itself never
// fails to construct and would present an empty tree.
class FavoritesSession {
public:
    FavoritesSession(const GlobalOptions& options, Intent intent);

    catalog::ManagedCatalog& catalog() noexcept { return *m_catalog; }
    const AccountToken& user() const noexcept { return m_user; }
    const catalog::Path& favoritesPath() const noexcept { return m_favoritesPath; }
    FavoritesManager& manager() noexcept { return *m_manager; }

private:
    std::unique_ptr<catalog::ManagedCatalog> m_catalog;
    std::unique_ptr<catalog::WriteLock> m_lock;  // held by a writing command
    AccountToken m_user;
    catalog::Path m_favoritesPath;
    Handle<FavoritesManager> m_manager;
};

}  // namespace kiv::tool
