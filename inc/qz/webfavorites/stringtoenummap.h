// StringToEnumMap: a sorted table from a String key to an enum value.
//
// Built once from a constant array and searched by binary search. A key that
// is not in the table raises a host assertion ("String enum value not
// found: " followed by the key, severity 5) and yields the value -1.
//
// An implementation detail of the favorites library, public only because its
// headers use it; hosts need not. Thread rule: not changed after
// construction, so it may be searched from any thread.
#pragma once

#include "qz/platform/export.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

#include "qz/platform/assert.h"
#include "qz/platform/string.h"

namespace kiv {

template <class E>
class StringToEnumMap {
public:
    struct Entry {
        E value;
        const wchar_t* key;
    };

    StringToEnumMap(const Entry* entries, std::size_t count) { addEntries(entries, count); }
    template <std::size_t N>
    explicit StringToEnumMap(const Entry (&entries)[N]) : StringToEnumMap(entries, N) {}

    void addEntries(const Entry* entries, std::size_t count) {
        const std::size_t nNewSize = m_mStringKeyedMap.size() + count;
        for (std::size_t i = 0; i < count; ++i) m_mStringKeyedMap.emplace_back(String(entries[i].key), entries[i].value);
        std::sort(m_mStringKeyedMap.begin(), m_mStringKeyedMap.end(),
                  [](const auto& a, const auto& b) { return a.first.compare(b.first) < 0; });
        KIV_ASSERT_SEV(m_mStringKeyedMap.size() == nNewSize, 5, "project/webfavorites/stringtoenummap", 40);
    }

    E getEnum(const String& key) const {
        auto it = std::lower_bound(m_mStringKeyedMap.begin(), m_mStringKeyedMap.end(), key,
                                   [](const auto& entry, const String& k) { return entry.first.compare(k) < 0; });
        if (it != m_mStringKeyedMap.end() && !(key.compare(it->first) < 0)) return it->second;
        debug::assertionFailed(5, String(L"String enum value not found: ") + key, "project/webfavorites/stringtoenummap",
                               52);
        return static_cast<E>(-1);
    }

    std::size_t size() const noexcept { return m_mStringKeyedMap.size(); }

private:
    std::vector<std::pair<String, E>> m_mStringKeyedMap;
};

}  // namespace kiv
