#include "qz/webfavorites/favoritesitem.h"

namespace kiv {

FavoritesItem::~FavoritesItem() = default;

bool FavoritesItem::operator==(const FavoritesItem& other) const {
    if (&other == this) return true;
    return m_path == other.getPath() && m_name == other.getName() && m_type == other.getType();
}

const catalog::Path& FavoritesItem::getCatalogPath() const { return catalog::kpBlank; }

}  // namespace kiv
