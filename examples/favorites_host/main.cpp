// A small host of the favorites library: it opens a catalog, makes one
// FavoritesManager for a user, adds a category and a report to it, lists
// and queries the favorites, and shows how a host handles the codes.
//
//   favorites_host CATALOG_FILE
//
// CATALOG_FILE is created if missing. The library reads its schemas and
// messages from the data directory: run with KIV_DATA_DIR set to the
// installed share/kiv (see KivFavorites_DATA_DIR in the package).
#include <iostream>
#include <string>

#include "qz/platform/exception.h"
#include "qz/webcatalog/sqlitecatalog.h"
#include "qz/webfavorites/favoritesmanager.h"

using namespace kiv;

namespace {

// Codes are not truth values: favorites::kSuccess is 1, and 0 is an error.
bool succeeded(favorites::ReturnCode rc, const char* what) {
    if (rc == favorites::kSuccess) return true;
    std::cerr << what << ": " << favorites::returnCodeName(rc) << ": "
              << FavoritesManager::errorCodeToMessage(rc, String()).toText().toUtf8() << "\n";
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: favorites_host CATALOG_FILE\n";
        return 2;
    }
    try {
        // The host's catalog: a report, and a user with a home folder.
        catalog::SqliteCatalog store(argv[1]);
        store.putObject(catalog::Path(L"/shared/Reports/Revenue"), L"report1", {}, "");
        if (!store.hasUser(L"ada")) store.addUser(L"ada", {L"sales"});
        store.makeFolder(catalog::Path(L"/users/ada"));
        store.setAccess(catalog::Path(L"/users/ada"), L"ada", false, catalog::Rights::kWrite);
        const AccountToken ada = store.tokenFor(L"ada");

        // One manager per user; it loads (or creates) the favorites object.
        FavoritesManager favorites(store, ada, catalog::Path(L"/users/ada/favorites"));

        Handle<FavoritesItem> category;
        if (favorites.findCategory(catalog::Path(L"/root/Daily")).isNull()) {
            if (!succeeded(favorites.createFavoriteCategory(L"/root", L"Daily", category), "make a category") ||
                !succeeded(favorites.addItem(category), "add the category"))
                return 1;
        }
        Handle<FavoritesItem> report;
        if (!succeeded(favorites.createFavoriteCatalogObject(L"/shared/Reports/Revenue", L"/root/Daily", report),
                       "make a favorite"))
            return 1;
        const favorites::ReturnCode added = favorites.addItem(report);
        // Adding it a second time (a second run of this program) is refused.
        if (added == favorites::kErrorItemAlreadyExists)
            std::cout << "already a favorite: /shared/Reports/Revenue\n";
        else if (!succeeded(added, "add the favorite"))
            return 1;

        FavoritesManager::FavoritesItems items;
        if (!succeeded(favorites.getFavorites(items, L"/root/Daily", String()), "list the category")) return 1;
        for (const Handle<FavoritesItem>& item : items)
            std::cout << item->getPath().toUtf8() << " -> " << item->getCatalogPath().toUtf8() << "\n";
        const bool isFavorite = favorites.isFavorite(catalog::Path(L"/shared/Reports/Revenue"));
        std::cout << "/shared/Reports/Revenue is " << (isFavorite ? "" : "not ") << "a favorite\n";
        return isFavorite ? 0 : 1;
    } catch (const Exception& e) {
        // Catalog failures (a file that is not a catalog, say) raise.
        std::cerr << "failed: " << e.what() << "\n";
        return 1;
    }
}
