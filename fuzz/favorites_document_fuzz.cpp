// Fuzzes the load of a stored favorites document: any bytes stored as a
// user's favorites object are loaded by a FavoritesManager the way a host
// makes one (over the read-back guard, on an in-memory SQLite catalog),
// walked, queried and edited once. Nothing may crash, and the edit either
// stores favorites the load reads back or leaves the stored bytes as they
// were: hosts never store favorites that do not load.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "favoritesdocument.h"
#include "favoritesopen.h"
#include "qz/platform/exception.h"
#include "qz/webcatalog/sqlitecatalog.h"
#include "qz/webfavorites/favoritesmanager.h"

namespace {

using namespace kiv;

std::size_t walk(FavoritesManager& m, const catalog::Path& category, int depth) {
    if (depth > 2000) std::abort();  // deeper than any document the reader takes
    FavoritesItems items;
    if (m.getFavorites(items, category.toString(), String()) != favorites::kSuccess) return 0;
    std::size_t n = items.size();
    for (const Handle<FavoritesItem>& item : items)
        if (item->getType() == favorites::kCategory) n += walk(m, item->getPath(), depth + 1);
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string body(reinterpret_cast<const char*>(data), size);
    auto store = catalog::SqliteCatalog::openInMemory();
    store->addUser(L"alice", {});
    store->makeFolder(catalog::Path(L"/users/alice"));
    store->setAccess(catalog::Path(L"/users/alice"), L"alice", false, catalog::Rights::kWrite);
    store->putObject(catalog::Path(L"/shared/r"), L"report1", {}, "");
    store->setAccess(catalog::Path(L"/shared"), L"alice", false, catalog::Rights::kRead);
    const catalog::Path path(L"/users/alice/favorites");
    store->putObject(path, String(host::kFavoritesSignature), {}, body);
    const AccountToken alice = store->tokenFor(L"alice");

    host::ReadBackCatalog guarded(*store);
    try {
        Handle<FavoritesManager> m = host::openFavoritesManager(guarded, alice, path);
        walk(*m, FavoritesManager::getRootFolderPath(), 0);
        m->isFavorite(catalog::Path(L"/shared/r"));
        Handle<FavoritesItem> item;
        if (m->createFavoriteCatalogObject(String(L"/shared/r"), String(L"/root"), item) == favorites::kSuccess)
            m->addItem(item);
    } catch (const Exception&) {
        // A refused or failed save raises; a host reports it.
    }
    host::ReadBackCatalog::takeRefusal();
    const std::string after = store->readRaw(path);
    if (after != body && !host::checkFavoritesDocument(after).readable()) std::abort();
    return 0;
}
