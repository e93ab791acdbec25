// FavoritesItem: a node of a user's favorites tree.
//
// The tree's inner nodes are categories (FavoriteFolder), its leaves link to
// catalog objects (FavoriteCatalogItem). Nodes are shared through Handles;
// a folder owns its children only through the handles in its child vector,
// and nodes keep no parent pointer: each carries its own favorites path (the
// parent's path with the node's name appended). Names and paths never change
// after construction.
//
// Thread safety: the accessors read immutable fields; the child list of a
// folder is guarded by the folder's own reader-writer lock.
#pragma once

#include "qz/platform/export.h"

#include <vector>

#include "qz/platform/handle.h"
#include "qz/webcatalog/itemname.h"
#include "qz/webcatalog/path.h"
#include "qz/webfavorites/favoritestypes.h"

namespace kiv {

namespace catalog {
class CatalogObjectFilter;
}
class FavoritesVisitor;

class KIV_API FavoritesItem : public RefCountedBaseTemplate<MemAllocNewdel> {
public:
    using ItemHandle = Handle<FavoritesItem, FavoritesItem>;
    using FavoritesItems = std::vector<ItemHandle>;

    FavoritesItem(const catalog::ItemName& name, const catalog::Path& path, favorites::EItemType type)
        : m_name(name), m_path(path), m_type(type) {}
    ~FavoritesItem() override;

    // Virtual operations, in this order.
    virtual favorites::ReturnCode addChild(ItemHandle& favoritesItem) = 0;
    virtual favorites::ReturnCode addChild(ItemHandle& favoritesItem, ItemHandle& favoritesItemPivot) = 0;
    // Appends the direct children that pass `filter` (null: all) to `out`.
    virtual void getChildren(FavoritesItems& out, const NonOwningPtr<catalog::CatalogObjectFilter>& filter) = 0;
    virtual bool accept(FavoritesVisitor& visitor, bool recursive, bool bCategoriesOnly) = 0;
    // True for the same object, or equal name, path and type.
    virtual bool operator==(const FavoritesItem& other) const;
    virtual bool canHaveChild() const { return false; }
    virtual favorites::ReturnCode removeChild(const ItemHandle& favItem) = 0;
    virtual favorites::ReturnCode removeChildren() = 0;
    // The linked catalog object's path; the blank path for anything but a
    // catalog item.
    virtual const catalog::Path& getCatalogPath() const;

    const catalog::ItemName& getName() const noexcept { return m_name; }
    const catalog::Path& getPath() const noexcept { return m_path; }
    favorites::EItemType getType() const noexcept { return m_type; }

protected:
    catalog::ItemName m_name;
    catalog::Path m_path;
    favorites::EItemType m_type;
};

using FavoritesItems = FavoritesItem::FavoritesItems;

}  // namespace kiv
