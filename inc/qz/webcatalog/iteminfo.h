// catalog::ItemInfo: what a catalog reports about one item.
//
// Two views: the item as stored (kInfoOriginal) and the item after following
// links (kInfoResolved); for an item that is not a link both are the same.
// Catalogs fill the two entries; readers use the getters.
// Thread rule: a value type, used by one thread at a time like any value.
#pragma once

#include "qz/platform/export.h"

#include <cstdint>
#include <map>

#include "qz/platform/string.h"
#include "qz/webcatalog/path.h"

namespace kiv::catalog {

enum EItemInfo : int { kInfoOriginal = 0, kInfoResolved = 1 };

// Item type bits.
enum EItemType : unsigned {
    kFolder = 1,
    kLink = 2,
    kObject = 4,
    kMissing = 8,
    kNoAccess = 16,
    kCircular = 32,
};

// Catalog time: microseconds since the Unix epoch, compared for equality only.
using Time = std::int64_t;

class KIV_API ItemInfo {
public:
    struct Entry {
        Path path;
        unsigned type = 0;
        Time lastModified = 0;
        String signature;
        std::map<String, String> properties;
    };

    Time getLastModifiedTime(EItemInfo which) const noexcept { return entry(which).lastModified; }
    unsigned getItemType(EItemInfo which) const noexcept { return entry(which).type; }
    String getItemProperty(const String& name, const String& defaultValue, EItemInfo which) const;
    const String& getObjectSignature(EItemInfo which) const noexcept { return entry(which).signature; }
    const Path& getPath(EItemInfo which) const noexcept { return entry(which).path; }

    Entry& original() noexcept { return m_original; }
    Entry& resolved() noexcept { return m_resolved; }
    const Entry& entry(EItemInfo which) const noexcept { return which == kInfoOriginal ? m_original : m_resolved; }
    void clear() { m_original = Entry(); m_resolved = Entry(); }

private:
    Entry m_original;
    Entry m_resolved;
};

}  // namespace kiv::catalog
