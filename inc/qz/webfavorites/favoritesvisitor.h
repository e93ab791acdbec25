// FavoritesVisitor: the callbacks of a walk over the favorites tree.
//
// A folder's accept() announces its beginning and end, and before each child
// tells the visitor whether a separator is due: visitFolderLastSubitemEnd
// comes before the first emitted child, visitFolderSubitemEnd between
// children (the names read the other way round; this order is the one the
// writers rely on). Only visitCatalogItem's result is used: false makes the
// item count as not emitted. Every callback of this base class does nothing
// and returns false.
//
// Visitors are called with the reader locks of the folders on the current
// path held: a visitor must not modify the tree it visits. The walk runs on
// the thread that called accept(), and calls the visitor on that thread only.
#pragma once

#include "qz/platform/export.h"

namespace kiv {

class FavoriteCatalogItem;
class FavoriteFolder;

class KIV_API FavoritesVisitor {
public:
    virtual bool visitCatalogItem(FavoriteCatalogItem& item);
    virtual bool visitFolderEnd(FavoriteFolder& folder);
    virtual bool visitFolderSubitemEnd(FavoriteFolder& folder);
    virtual bool visitFolderLastSubitemEnd(FavoriteFolder& folder);
    virtual bool visitFolderBegin(FavoriteFolder& folder);
    virtual ~FavoritesVisitor();
};

}  // namespace kiv
