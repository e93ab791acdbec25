// The REST handlers: each turns one request into calls of the library (or
// the catalog) for the user it acts as, and a code into a response. They run
// on the user's strand (users.h), so the manager is theirs alone meanwhile.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http.h"
#include "qz/webcatalog/managedcatalog.h"
#include "settings.h"
#include "users.h"

namespace kiv::server {

// A decoded query string.
class Query {
public:
    // Raises ApiError 400 for malformed percent-encoding.
    explicit Query(std::string_view raw);
    std::optional<std::string> get(std::string_view name) const;
    std::string getOr(std::string_view name, std::string fallback) const {
        auto v = get(name);
        return v ? *v : std::move(fallback);
    }

private:
    std::vector<std::pair<std::string, std::string>> m_params;
};

// Percent-decoding ('+' is a blank); nullopt when malformed.
std::optional<std::string> percentDecode(std::string_view text);

struct Call {
    const HttpRequest& request;
    const Query& query;
    UserSlot& slot;
    FavoritesManager& manager;
    catalog::ManagedCatalog& store;   // administration (listings)
    catalog::Catalog& catalog;        // the user's catalog calls
    const Settings& settings;
    std::string_view pathParameter;  // the {n} of a route path that has one
    // True when the call runs on an I/O thread with a manager known to be in
    // step with the store: it must not reach the catalog.
    bool fresh = false;
};

using Handler = HttpResponse (*)(Call&);

HttpResponse getFavoritesTree(Call& call);      // GET /api/v1/favorites
HttpResponse getFavoritesChildren(Call& call);  // GET /api/v1/favorites/children
HttpResponse postFavoritesStatus(Call& call);   // POST /api/v1/favorites/status
HttpResponse postFavoritesItem(Call& call);     // POST /api/v1/favorites/items
HttpResponse deleteFavoritesItem(Call& call);   // DELETE /api/v1/favorites/items
HttpResponse deleteFavoritesCategory(Call& call);  // DELETE /api/v1/favorites/categories
HttpResponse putFavorites(Call& call);          // PUT /api/v1/favorites
HttpResponse getFavoritesExport(Call& call);    // GET /api/v1/favorites/export
HttpResponse getCatalogChildren(Call& call);    // GET /api/v1/catalog/children
HttpResponse getFavoritesHistory(Call& call);   // GET /api/v1/favorites/history
HttpResponse postFavoritesRestore(Call& call);  // POST /api/v1/favorites/history/{n}/restore
HttpResponse postSoap(Call& call);              // POST /soap (soapservice.cpp)
// GET /soap?wsdl: the WSDL with its address naming `host` (the Host header).
HttpResponse wsdlDocument(std::string_view host);

}  // namespace kiv::server
