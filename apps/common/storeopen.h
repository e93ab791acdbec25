// Opening the catalog store a host is pointed at with --catalog: a SQLite
// catalog file, or a PostgreSQL catalog named by a libpq connection URI
// ("postgresql://user@host/db?...", which several servers may share).
#pragma once

#include <memory>
#include <string>

#include "qz/webcatalog/catalog.h"
#include "qz/webcatalog/managedcatalog.h"

namespace kiv::host {

// Whether `location` names a PostgreSQL catalog rather than a file.
bool isPostgresStore(const std::string& location) noexcept;

// Opens the store. `create`: a missing store is created (a new file, or the
// catalog's tables in the database); otherwise CatalogException
// kErrorCatalogNotFound. A store that is not a catalog of this system raises
// kErrorLoadingCatalog and stays untouched. `maxConnections` bounds a
// PostgreSQL catalog's connection pool.
std::unique_ptr<catalog::ManagedCatalog> openStore(const std::string& location, bool create, int maxConnections = 16);

// `location` without the password a connection URI may carry, for messages.
std::string storeDisplayName(const std::string& location);

// What a host tells its user about a catalog failure at the store
// `location`: "catalog error NAME at 'PATH': DESCRIPTION", then, for a store
// that could not be opened, the store's own account of why (does not exist,
// read-only for this user, not a catalog, damaged, unreachable, ...) and for
// a missing one how to create it.
std::string catalogFailureText(const catalog::CatalogException& e, const std::string& location);

}  // namespace kiv::host
