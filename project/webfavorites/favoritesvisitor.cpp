#include "qz/webfavorites/favoritesvisitor.h"

namespace kiv {

bool FavoritesVisitor::visitCatalogItem(FavoriteCatalogItem&) { return false; }
bool FavoritesVisitor::visitFolderEnd(FavoriteFolder&) { return false; }
bool FavoritesVisitor::visitFolderSubitemEnd(FavoriteFolder&) { return false; }
bool FavoritesVisitor::visitFolderLastSubitemEnd(FavoriteFolder&) { return false; }
bool FavoritesVisitor::visitFolderBegin(FavoriteFolder&) { return false; }
FavoritesVisitor::~FavoritesVisitor() = default;

}  // namespace kiv
