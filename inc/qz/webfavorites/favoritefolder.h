// FavoriteFolder: a category of the favorites tree.
//
// Children keep insertion order; addChild never admits a child equal (by the
// existing child's operator==) to one already present. For large folders an
// internal key index answers that duplicate check without comparing every
// child; the answer is the same as the linear comparison's.
//
// Thread safety: m_tRWLock guards m_vChildren (and the key index): readers
// are accept, getChildren and getChildrenCount; writers addChild,
// removeChild and removeChildren. removeChild/removeChildren empty child
// folders while holding this folder's writer lock, so locks are taken parent
// before child.
#pragma once

#include "qz/platform/export.h"

#include <cstddef>
#include <memory>
#include <unordered_set>

#include "qz/platform/threads.h"
#include "qz/webfavorites/favoritesitem.h"

namespace kiv {

class KIV_API FavoriteFolder : public FavoritesItem {
public:
    using FavItemsVector = std::vector<ItemHandle>;

    FavoriteFolder(const catalog::Path& parentPath, const catalog::ItemName& name);
    ~FavoriteFolder() override;

    // Appends unless an equal child exists (kErrorItemAlreadyExists).
    favorites::ReturnCode addChild(ItemHandle& favoritesItem) override;
    // Inserts before the first child equal to the pivot, or appends when the
    // pivot is not a child (not an error). An equal child anywhere, also
    // behind the pivot, rejects the insertion.
    favorites::ReturnCode addChild(ItemHandle& favoritesItem, ItemHandle& favoritesItemPivot) override;
    // Categories are always appended; catalog items when `filter` is null or
    // admits their catalog path. `out` is appended to, never cleared.
    void getChildren(FavoritesItems& out, const NonOwningPtr<catalog::CatalogObjectFilter>& filter) override;
    bool accept(FavoritesVisitor& visitor, bool recursive, bool bCategoriesOnly) override;
    // True only for another FavoriteFolder (exactly that class) with the same
    // type and path; the name is not compared.
    bool operator==(const FavoritesItem& other) const override;
    bool canHaveChild() const override { return true; }
    // Empties the first equal child's subtree (also for other holders of its
    // handle), then erases it; kErrorItemNotFound when there is none.
    favorites::ReturnCode removeChild(const ItemHandle& favItem) override;
    // Empties every child folder depth first, then releases all children.
    favorites::ReturnCode removeChildren() override;

    std::size_t getChildrenCount() const;

private:
    struct KeyHash {
        std::size_t operator()(const FavoritesItem* item) const noexcept;
    };
    struct KeyEqual {
        bool operator()(const FavoritesItem* a, const FavoritesItem* b) const noexcept;
    };
    using KeyIndex = std::unordered_set<const FavoritesItem*, KeyHash, KeyEqual>;

    bool hasEqualChildLocked(const FavoritesItem& item) const KIV_REQUIRES(m_tRWLock);
    void indexChildLocked(const FavoritesItem* item) KIV_REQUIRES(m_tRWLock);
    void unindexChildLocked(const FavoritesItem* item) KIV_REQUIRES(m_tRWLock);

    mutable threads::FastReaderWriterLock m_tRWLock;
    FavItemsVector m_vChildren KIV_GUARDED_BY(m_tRWLock);
    // Key index over the children whose class is exactly FavoriteFolder or
    // FavoriteCatalogItem, built once the folder grows past a few children.
    // Children of other classes are compared one by one.
    std::unique_ptr<KeyIndex> m_pKeyIndex KIV_GUARDED_BY(m_tRWLock);
    std::size_t m_nOtherClassChildren KIV_GUARDED_BY(m_tRWLock) = 0;
};

}  // namespace kiv
