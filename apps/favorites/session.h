// What every command starts from: the global options, the opened catalog
// and, for the favorites commands, the user's FavoritesManager.
#pragma once

#include <memory>
#include <string>

#include "favoritesdocument.h"
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
    unsigned historyVersions = kDefaultHistoryVersions;  // kept per favorites object
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
// "postgresql://" connection URI, keeping the history of every favorites
// object it writes (GlobalOptions::historyVersions). A missing file (with kExisting) raises
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
//
// The manager writes through a ReadBackCatalog, so a change that would
// store favorites the load cannot read is refused. When the stored object
// exists and does not load, a warning naming the reason is printed on
// standard error (the manager then shows no favorites).
class FavoritesSession {
public:
    // Manager::kNone opens the catalog and the user (and, for kWrite, takes
    // the lock) without making a manager.
    enum class Manager { kMake, kNone };
    FavoritesSession(const GlobalOptions& options, Intent intent, Manager manager = Manager::kMake);

    catalog::ManagedCatalog& catalog() noexcept { return *m_catalog; }
    const AccountToken& user() const noexcept { return m_user; }
    const catalog::Path& favoritesPath() const noexcept { return m_favoritesPath; }
    FavoritesManager& manager() noexcept { return *m_manager; }

private:
    std::unique_ptr<catalog::ManagedCatalog> m_catalog;
    std::unique_ptr<ReadBackCatalog> m_readBack;  // what the manager writes through
    std::unique_ptr<catalog::WriteLock> m_lock;  // held by a writing command
    AccountToken m_user;
    catalog::Path m_favoritesPath;
    Handle<FavoritesManager> m_manager;
};

}  // namespace kiv::tool
