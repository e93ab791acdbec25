// FavoriteCatalogItem: a favorite that links to a catalog object.
//
// Its name is always the last segment of the linked object's catalog path;
// there is no separate caption. It cannot have children: the child
// operations answer kErrorItemCannotHaveChild and getChildren adds nothing.
// Thread rule: that of FavoritesItem.
#pragma once

#include "qz/platform/export.h"

#include "qz/webfavorites/favoritesitem.h"

namespace kiv {

class KIV_API FavoriteCatalogItem : public FavoritesItem {
public:
    FavoriteCatalogItem(const catalog::Path& parentPath, const catalog::Path& catalogPath);
    ~FavoriteCatalogItem() override;

    favorites::ReturnCode addChild(ItemHandle& favoritesItem) override;
    favorites::ReturnCode addChild(ItemHandle& favoritesItem, ItemHandle& favoritesItemPivot) override;
    void getChildren(FavoritesItems& out, const NonOwningPtr<catalog::CatalogObjectFilter>& filter) override;
    bool accept(FavoritesVisitor& visitor, bool recursive, bool bCategoriesOnly) override;
    // True only for another FavoriteCatalogItem (exactly that class) with the
    // same catalog path and the same favorites path.
    bool operator==(const FavoritesItem& other) const override;
    favorites::ReturnCode removeChild(const ItemHandle& favItem) override;
    favorites::ReturnCode removeChildren() override;
    const catalog::Path& getCatalogPath() const override { return m_catalogPath; }

private:
    catalog::Path m_catalogPath;
};

}  // namespace kiv
