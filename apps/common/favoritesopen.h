// Opening one user's favorites as a host does: a FavoritesManager over the
// user's favorites object, which loads it, creates it for a new user and
// upgrades the old mobile favorites on first use.
#pragma once

#include <string>

#include "qz/platform/accounttoken.h"
#include "qz/webcatalog/catalog.h"
#include "qz/webcatalog/managedcatalog.h"
#include "qz/webcatalog/path.h"
#include "qz/webfavorites/favoritesmanager.h"

namespace kiv::host {

// /users/NAME/favorites
catalog::Path defaultFavoritesPath(const String& user);

// Makes the user's manager. Before it is made, the favorites object must be
// readable by the user (or missing); afterwards it must exist. Otherwise the
// catalog's refusal is raised as CatalogException, since the manager itself
// never fails to construct and would present an empty tree.
//
// Making a manager writes when the favorites object is missing (the manager
// stores the empty default document) or the old mobile favorites object is
// beside it (the manager upgrades it once). With `locks`, the store's write
// lock of the favorites object is held while the manager is made in those
// cases, so that the write cannot fall between another writer's check and
// write. A caller that already holds that lock passes null.
Handle<FavoritesManager> openFavoritesManager(catalog::Catalog& catalog, const AccountToken& user,
                                              const catalog::Path& favoritesPath,
                                              catalog::ManagedCatalog* locks = nullptr);

// Why `text` cannot be a replacement tree, or "" when it is a JSON array the
// JSON reader takes. Hosts refuse any other replacement text before it
// reaches updateAll, which would otherwise replace the whole tree by nothing;
// the reason names the real cause: text larger than the reader takes, nested
// deeper than it takes, not JSON, or JSON that is not an array.
enum class JsonReplacementProblem { kNone, kTooLarge, kTooDeep, kNotJson, kNotArray };
JsonReplacementProblem jsonReplacementProblem(const String& text);
// The words for a problem ("not a JSON array of favorites items", ...).
std::string describe(JsonReplacementProblem problem);

}  // namespace kiv::host
