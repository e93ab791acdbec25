#include "qz/webfavorites/favoritefolder.h"

#include <functional>
#include <string_view>
#include <typeinfo>

#include "qz/webcatalog/catalog.h"
#include "qz/webfavorites/favoritecatalogitem.h"
#include "qz/webfavorites/favoritesvisitor.h"

namespace kiv {

namespace {

// Below this many children the duplicate check compares child by child; the
// key index pays off only for larger folders.
constexpr std::size_t kKeyIndexThreshold = 16;

// Children whose equality the key index can decide: exactly these two classes
// compare by (class, path, catalog path) and nothing else.
bool isIndexable(const FavoritesItem* item) noexcept {
    if (!item) return false;
    const std::type_info& t = typeid(*item);
    return t == typeid(FavoriteFolder) || t == typeid(FavoriteCatalogItem);
}

}  // namespace

std::size_t FavoriteFolder::KeyHash::operator()(const FavoritesItem* item) const noexcept {
    std::size_t h = item->getPath().text().contentHash();
    h ^= item->getCatalogPath().text().contentHash() + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
    return h ^ typeid(*item).hash_code();
}

bool FavoriteFolder::KeyEqual::operator()(const FavoritesItem* a, const FavoritesItem* b) const noexcept {
    return typeid(*a) == typeid(*b) && a->getType() == b->getType() && a->getPath() == b->getPath() &&
           a->getCatalogPath() == b->getCatalogPath();
}

FavoriteFolder::FavoriteFolder(const catalog::Path& parentPath, const catalog::ItemName& name)
    : FavoritesItem(name, parentPath + name, favorites::kCategory) {}

FavoriteFolder::~FavoriteFolder() = default;

bool FavoriteFolder::hasEqualChildLocked(const FavoritesItem& item) const {
    if (m_pKeyIndex && m_nOtherClassChildren == 0) {
        // Every child is exactly a FavoriteFolder or a FavoriteCatalogItem,
        // whose operator== matches only the same class with the same key.
        return isIndexable(&item) && m_pKeyIndex->count(&item) > 0;
    }
    for (const ItemHandle& child : m_vChildren) {
        if (*child == item) return true;
    }
    return false;
}

void FavoriteFolder::indexChildLocked(const FavoritesItem* item) {
    if (!isIndexable(item)) {
        ++m_nOtherClassChildren;
        return;
    }
    if (m_pKeyIndex) {
        m_pKeyIndex->insert(item);
    } else if (m_vChildren.size() >= kKeyIndexThreshold) {
        m_pKeyIndex = std::make_unique<KeyIndex>();
        m_pKeyIndex->reserve(m_vChildren.size() * 2);
        for (const ItemHandle& child : m_vChildren)
            if (isIndexable(child.get())) m_pKeyIndex->insert(child.get());
    }
}

void FavoriteFolder::unindexChildLocked(const FavoritesItem* item) {
    if (!isIndexable(item)) {
        if (m_nOtherClassChildren > 0) --m_nOtherClassChildren;
        return;
    }
    if (m_pKeyIndex) m_pKeyIndex->erase(item);
}

favorites::ReturnCode FavoriteFolder::addChild(ItemHandle& favoritesItem) {
    threads::WriteLock lock(m_tRWLock);
    if (!m_vChildren.empty() && hasEqualChildLocked(*favoritesItem)) return favorites::kErrorItemAlreadyExists;
    m_vChildren.push_back(favoritesItem);
    indexChildLocked(favoritesItem.get());
    return favorites::kSuccess;
}

favorites::ReturnCode FavoriteFolder::addChild(ItemHandle& favoritesItem, ItemHandle& favoritesItemPivot) {
    threads::WriteLock lock(m_tRWLock);
    // One walk over all children: an equal item anywhere rejects, also one
    // behind the pivot.
    std::size_t position = m_vChildren.size();
    bool bFound = false;
    for (std::size_t i = 0; i < m_vChildren.size(); ++i) {
        const ItemHandle& child = m_vChildren[i];
        if (*child == *favoritesItem) return favorites::kErrorItemAlreadyExists;
        if (!bFound && *child == *favoritesItemPivot) {
            position = i;
            bFound = true;
        }
    }
    // A pivot that is not a child is not an error: the item is appended.
    m_vChildren.insert(m_vChildren.begin() + static_cast<std::ptrdiff_t>(position), favoritesItem);
    indexChildLocked(favoritesItem.get());
    return favorites::kSuccess;
}

void FavoriteFolder::getChildren(FavoritesItems& favoritesItems,
                                 const NonOwningPtr<catalog::CatalogObjectFilter>& pFilter) {
    threads::ReadLock lock(m_tRWLock);
    for (const ItemHandle& child : m_vChildren) {
        if (child->getType() == favorites::kCategory) {
            favoritesItems.push_back(child);
        } else if (pFilter.isNull() || pFilter->admits(child->getCatalogPath())) {
            favoritesItems.push_back(child);
        }
    }
}

bool FavoriteFolder::accept(FavoritesVisitor& v, bool recursive, bool bCategoriesOnly) {
    v.visitFolderBegin(*this);
    if (!recursive) {
        v.visitFolderEnd(*this);
        return true;
    }
    {
        threads::ReadLock lock(m_tRWLock);
        bool skipComa = true;
        for (const ItemHandle& child : m_vChildren) {
            if (bCategoriesOnly && child->getType() == favorites::kCatalogObject) continue;
            // LastSubitemEnd precedes the first emitted child, SubitemEnd goes
            // between children.
            if (skipComa)
                v.visitFolderLastSubitemEnd(*this);
            else
                v.visitFolderSubitemEnd(*this);
            // Below the top level every walk is recursive.
            skipComa = !child->accept(v, true, bCategoriesOnly);
        }
    }
    v.visitFolderEnd(*this);
    return true;
}

bool FavoriteFolder::operator==(const FavoritesItem& other) const {
    if (typeid(other) != typeid(FavoriteFolder)) return false;
    return m_type == other.getType() && m_path == other.getPath();
}

favorites::ReturnCode FavoriteFolder::removeChild(const ItemHandle& favItem) {
    threads::WriteLock lock(m_tRWLock);
    for (auto it = m_vChildren.begin(); it != m_vChildren.end(); ++it) {
        if (**it == *favItem) {
            // Empty the removed subtree first: other holders of its handle then
            // see an empty folder. A catalog item answers 4 here, ignored.
            (*it)->removeChildren();
            unindexChildLocked(it->get());
            m_vChildren.erase(it);
            return favorites::kSuccess;
        }
    }
    return favorites::kErrorItemNotFound;
}

favorites::ReturnCode FavoriteFolder::removeChildren() {
    threads::WriteLock lock(m_tRWLock);
    for (const ItemHandle& child : m_vChildren) child->removeChildren();
    m_vChildren.clear();
    m_pKeyIndex.reset();
    m_nOtherClassChildren = 0;
    return favorites::kSuccess;
}

std::size_t FavoriteFolder::getChildrenCount() const {
    threads::ReadLock lock(m_tRWLock);
    return m_vChildren.size();
}

}  // namespace kiv
