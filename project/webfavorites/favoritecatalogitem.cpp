#include "qz/webfavorites/favoritecatalogitem.h"

#include <typeinfo>

#include "qz/webfavorites/favoritesvisitor.h"

namespace kiv {

FavoriteCatalogItem::FavoriteCatalogItem(const catalog::Path& parentPath, const catalog::Path& catalogPath)
    : FavoritesItem(catalogPath.getItemName(), parentPath, favorites::kCatalogObject), m_catalogPath(catalogPath) {
    // The favorite bears the catalog object's own last name segment.
    m_path += m_name;
}

FavoriteCatalogItem::~FavoriteCatalogItem() = default;

favorites::ReturnCode FavoriteCatalogItem::addChild(ItemHandle&) { return favorites::kErrorItemCannotHaveChild; }
favorites::ReturnCode FavoriteCatalogItem::addChild(ItemHandle&, ItemHandle&) {
    return favorites::kErrorItemCannotHaveChild;
}
void FavoriteCatalogItem::getChildren(FavoritesItems&, const NonOwningPtr<catalog::CatalogObjectFilter>&) {}

// Both flags are ignored: a catalog item reached directly is always visited;
// the categories-only filtering happens in the parent folder's loop.
bool FavoriteCatalogItem::accept(FavoritesVisitor& visitor, bool, bool) { return visitor.visitCatalogItem(*this); }

bool FavoriteCatalogItem::operator==(const FavoritesItem& other) const {
    if (typeid(other) != typeid(FavoriteCatalogItem)) return false;
    return other.getCatalogPath() == m_catalogPath && other.getPath() == m_path;
}

favorites::ReturnCode FavoriteCatalogItem::removeChild(const ItemHandle&) {
    return favorites::kErrorItemCannotHaveChild;
}
favorites::ReturnCode FavoriteCatalogItem::removeChildren() { return favorites::kErrorItemCannotHaveChild; }

}  // namespace kiv
