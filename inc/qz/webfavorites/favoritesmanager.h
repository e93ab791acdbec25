// FavoritesManager: one user's favorites.
//
// A host makes one manager per user over its catalog service, the user's
// AccountToken and the catalog path of the user's favorites object. The
// constructor loads the favorites tree from that object (creating an empty
// one for a new user) and upgrades, once, the favorites an older mobile
// client kept in an object of its own. Afterwards the manager answers
// isFavorite from an index of favorite catalog paths, lists and finds items
// in the tree, creates and validates items, applies single edits and whole
// tree replacements, and writes the tree back. Before every edit and query
// that has one, it checks that the stored object still bears the modified
// time it last saw, and reloads when another writer changed it.
//
// Results are favorites::ReturnCode values (kSuccess is 1). Loading reports
// the catalog's own catalog::ReturnCode. Exceptions are reserved for the
// host's failures (a catalog write that fails, an unreadable catalog object
// in validateItem, invalid handles) and for errorCodeToException.
//
// Thread safety: the manager has no lock of its own; the host must not run
// two operations on one manager at the same time, with one exception:
// isFavorite may be called from any number of threads at any time (the index
// has its own locks). The catalog must outlive the manager.
#pragma once

#include "qz/platform/export.h"

#include <map>
#include <vector>

#include "qz/platform/accounttoken.h"
#include "qz/platform/gdvariant.h"
#include "qz/platform/handle.h"
#include "qz/platform/logger.h"
#include "qz/platform/string.h"
#include "qz/platform/threads.h"
#include "qz/webcatalog/catalog.h"
#include "qz/webcatalog/path.h"
#include "qz/webfavorites/favoritecatalogitem.h"
#include "qz/webfavorites/favoritefolder.h"
#include "qz/webfavorites/favoritesexception.h"
#include "qz/webfavorites/favoritesitem.h"
#include "qz/webfavorites/favoritestypes.h"
#include "qz/webfavorites/favoritesvisitor.h"
#include "qz/webfavorites/stringtoenummap.h"
#include "qz/webfavorites/synchrobins.h"

namespace kiv {

class XmlDocument;
class XmlElement;
class SoapParameter;
class GDExpressionEvaluator;

class KIV_API FavoritesManager : public RefCountedBaseTemplate<MemAllocNewdel> {
public:
    using FavoritesItems = std::vector<Handle<FavoritesItem>>;
    using FavItemsVector = FavoritesItems;
    using FavItr = FavoritesItems::iterator;
    using CatalogItemsMap = SynchroBins<std::map<catalog::Path, unsigned>, 17, std::hash<catalog::Path>, CriticalSection>;

    static const String ksOldMobileClientFixedCategory;      // "/root/Mobile Favorites"
    static const catalog::Path kpOldMobileClientFixedCategory;

    // Loads the tree and runs the mobile upgrade; a host Exception from
    // either is dropped. Never fails for a missing, unreadable or invalid
    // favorites object.
    FavoritesManager(catalog::Catalog& rCatalog, const AccountToken& rUser, const catalog::Path& rFavoritesPath);
    ~FavoritesManager() override;

    // --- Queries ---------------------------------------------------------
    // Children of the category at categoryPath (the root when empty) that
    // pass the catalog filter named filterName. kErrorItemDoesNotExitsInCatalog
    // when no category is there. Reloads first when the stored copy changed.
    favorites::ReturnCode getFavorites(FavoritesItems& favoritesItems, const String& categoryPath, String filterName);
    // Whether a catalog path is a favorite; answered from the index alone,
    // without checking that the tree is in sync.
    bool isFavorite(const catalog::Path& path) const;

    // --- Lookups (read the tree only) -------------------------------------
    bool findPathImpl(const catalog::Path& path, const Handle<FavoritesItem>& startingItem, FavoritesItems& itemsfound,
                      favorites::EItemType typeToFind);
    FavoritesItems findParentsForPath(catalog::Path path);
    Handle<FavoritesItem> findCategory(const catalog::Path& rPath);
    bool hasFavoritesItem(const catalog::Path& path, favorites::EItemType typeToFind);
    bool findFavoritesItemsByCatalogPath(const catalog::Path& path, FavoritesItems& itemsfound,
                                         const Handle<FavoritesItem>& startingItem);
    bool findFavoritesItemsByCatalogPath(const catalog::Path& path, FavoritesItems& itemsfound);

    // --- Creation and validation -------------------------------------------
    favorites::ReturnCode createFolder(catalog::ItemName name, Handle<FavoritesItem>& favItem, catalog::Path parentPath);
    favorites::ReturnCode createFavoritesCatalogItem(catalog::Path catlogPath, Handle<FavoritesItem>& favItem,
                                                     catalog::Path parentPath);
    favorites::ReturnCode createFavoriteItem(const String& sPath, const String& sCategoryPath,
                                             const String& sCategoryName, const favorites::EItemType& eType,
                                             Handle<FavoritesItem>& favoriteItem);
    favorites::ReturnCode createFavoriteItem(const String& sPath, const String& sCategoryPath,
                                             const String& sCategoryName, const String& sType,
                                             Handle<FavoritesItem>& favoriteItem);
    favorites::ReturnCode createFavoriteCatalogObject(const String& sPath, const String& sCategoryPath,
                                                      Handle<FavoritesItem>& favoriteItem);
    favorites::ReturnCode createFavoriteCategory(const String& sCategoryPath, const String& sCategoryName,
                                                 Handle<FavoritesItem>& favoriteItem);
    static bool composePathFromRawArguments(const String& sPath, const String& sPage, catalog::Path& rPath);
    // kSuccess, or the catalog's exception when a catalog item's object cannot
    // be read by the user.
    favorites::ReturnCode validateItem(const Handle<FavoritesItem>& favoriteItem);

    // --- Edits ---------------------------------------------------------------
    favorites::ReturnCode addItem(Handle<FavoritesItem>& favoriteItem);
    // Reserved: does nothing and answers kSuccess.
    favorites::ReturnCode addItem(Handle<FavoritesItem>& favoriteItem, Handle<FavoritesItem>& favoriteItemPivot);
    favorites::ReturnCode deleteItem(const Handle<FavoritesItem>& favoriteItem, bool allLocations);

    // --- Whole-tree replacement and single items from client input ----------
    favorites::ReturnCode createFavoriteFromJson(const String& sJsonItemInfo, Handle<FavoritesItem>& favoriteItem);
    favorites::ReturnCode createFavoritesFromJson(const String& sJsonFavoritesInfo, Handle<FavoritesItem>& parentFavorite);
    favorites::ReturnCode updateAll(const String& sJsonFavoritesInfo);
    favorites::ReturnCode updateAll(std::vector<SoapParameter*> vecFavObjs);

    // --- Storage -------------------------------------------------------------
    // Writes the tree when it changed; kErrorFavoritesOutOfSync when the stored
    // copy changed meanwhile. A failed catalog write reloads the tree and
    // raises the catalog's exception.
    favorites::ReturnCode persist();
    // False only when the stored object is known to carry another modified
    // time; an object that cannot be inspected counts as in sync.
    bool isFavoritesInSync();

    // The one-time upgrade of the old mobile client's favorites.
    catalog::ReturnCode checkAndUpgradeMobileFavorites();

    // --- Codes, messages, exceptions ----------------------------------------
    static GDVariant errorCodeToMessage(favorites::ReturnCode eCode, String sArg1);
    static void errorCodeToException(favorites::ReturnCode eCode, const Logger::FileLocation& fl, String sArg1);

    // --- Accessors for hosts and tools ----------------------------------------
    const Handle<FavoritesItem>& getRootFolder() const noexcept { return m_hRootFolder; }
    const catalog::Path& getFavoritesPath() const noexcept { return m_path; }
    const AccountToken& getUser() const noexcept { return m_user; }
    bool isDirty() const noexcept { return m_bIsDirty; }
    static const catalog::Path& getRootFolderPath() noexcept { return m_rootFolderPath; }

private:
    friend class FavoritesManagerTestPeer;

    catalog::ReturnCode loadFavorites();
    // Builds the tree below `parent` from a stored document's elements. The
    // name is spelled as it is on purpose: it is part of the library's
    // interface and must not be corrected.
    void buildFavorties(XmlElement* pElement, const Handle<FavoritesItem>& parent);
    void insertCatalogPathInMap(catalog::Path path);
    void removeCatalogPathFromMap(catalog::Path path);
    bool deleteCatalogItems(Handle<FavoritesItem>& startingItem, catalog::Path& catalogPath, bool bRecursive);
    // The tree reader with the evaluator of the outermost call: each level's
    // text is the text form of a value that evaluator just rendered.
    favorites::ReturnCode createFavoritesFromJson(const String& sJsonFavoritesInfo, Handle<FavoritesItem>& parentFavorite,
                                                  GDExpressionEvaluator& evaluator);
    favorites::ReturnCode createFavoritesFromSoap(std::vector<SoapParameter*> vecFavObjs,
                                                  Handle<FavoritesItem>& parentFavorite);
    void createFavoritesDefaultXml(Handle<XmlDocument>& document);
    catalog::ReturnCode persistFavoritesXml(const Handle<XmlDocument>& document);

    CatalogItemsMap m_catalogItemsPath;
    AccountToken m_user;
    catalog::Catalog& m_rCatalog;
    catalog::Path m_path;
    Handle<FavoritesItem> m_hRootFolder;
    bool m_bIsDirty;
    catalog::Time m_tLastModifiedTime;
    std::uint64_t m_tLastReloadTimeMS;

    static const catalog::Path m_rootFolderPath;
};

// Entry points kept for compatibility; they do nothing and answer kSuccess.
KIV_API favorites::ReturnCode update(Handle<FavoritesItem>& item, Handle<FavoritesItem>& other);
KIV_API favorites::ReturnCode update(FavoritesItems& items);

// The type maps: "catalogObject"/"category" and "0"/"1" to EItemType.
extern KIV_API const StringToEnumMap<favorites::EItemType> kmapFavoritesTypes;
extern KIV_API const StringToEnumMap<favorites::EItemType> kmapFavoritesJSONTypes;

}  // namespace kiv
