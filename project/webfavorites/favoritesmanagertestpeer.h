// FavoritesManagerTestPeer: the one class through which the favorites
// library's tests and benchmarks reach FavoritesManager's private operations
// and state (the manager names it its friend). Tests and benchmarks include
// it as "webfavorites/favoritesmanagertestpeer.h"; it is not installed.
//
// Thread safety: each helper is an operation on the manager, under the
// manager's own rule: none may run while another operation runs on the same
// manager.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qz/platform/handle.h"
#include "qz/platform/string.h"
#include "qz/webcatalog/catalog.h"
#include "qz/webcatalog/path.h"
#include "qz/webfavorites/favoritefolder.h"
#include "qz/webfavorites/favoritesitem.h"
#include "qz/webfavorites/favoritesmanager.h"

namespace kiv {

class XmlElement;

class FavoritesManagerTestPeer {
public:
    // --- Loading ---------------------------------------------------------------
    static catalog::ReturnCode load(FavoritesManager& m) { return m.loadFavorites(); }
    // Builds the tree below `parent` from a stored document's elements.
    static void build(FavoritesManager& m, XmlElement* e, const Handle<FavoritesItem>& parent) {
        m.buildFavorties(e, parent);
    }
    // updateAll's rebuild from JSON, without the save.
    static favorites::ReturnCode rebuildFromJson(FavoritesManager& m, const String& json) {
        m.m_hRootFolder->removeChildren();
        m.m_catalogItemsPath.clear();
        return m.createFavoritesFromJson(json, m.m_hRootFolder);
    }

    // --- The tree --------------------------------------------------------------
    static Handle<FavoritesItem>& root(FavoritesManager& m) { return m.m_hRootFolder; }
    // Drops the tree and the index, leaving an empty root.
    static void drop(FavoritesManager& m) {
        m.m_hRootFolder = new FavoriteFolder(catalog::Path(String(L"/")),
                                             catalog::ItemName(String(L"root"), catalog::ItemName::kNone));
        m.m_catalogItemsPath.clear();
    }

    // --- The index of catalog paths ---------------------------------------------
    static FavoritesManager::CatalogItemsMap& index(FavoritesManager& m) { return m.m_catalogItemsPath; }
    static std::size_t indexSize(FavoritesManager& m) { return m.m_catalogItemsPath.size(); }
    static void insert(FavoritesManager& m, const catalog::Path& p) { m.insertCatalogPathInMap(p); }
    static void remove(FavoritesManager& m, const catalog::Path& p) { m.removeCatalogPathFromMap(p); }

    // --- Keeping in step with the stored object ---------------------------------
    static bool& dirty(FavoritesManager& m) { return m.m_bIsDirty; }
    static catalog::Time& lastModified(FavoritesManager& m) { return m.m_tLastModifiedTime; }
    static std::uint64_t lastReload(FavoritesManager& m) { return m.m_tLastReloadTimeMS; }
};

}  // namespace kiv
