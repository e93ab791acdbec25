// catalog::Path: a catalog path such as "/shared/Sales/Dashboard".
//
// A path text starts with "/" and holds escaped item names separated by "/"
// ("/" alone is the root). The checked constructor accepts the empty text as
// the blank path and refuses a text that does not start with "/"
// (kPathMustStartWithSlash) or is longer than kMaxPathLength (kPathTooLong);
// checkAndSetPath is strict: it also refuses the empty text and any invalid
// component. The text is kept in an immutable reference-counted buffer, so
// copies are cheap and share storage (the favorites index keys share the
// items' catalog paths).
//
// Thread safety: an immutable value; copies may cross threads.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <functional>
#include <string_view>

#include "qz/platform/string.h"
#include "qz/webcatalog/itemname.h"

namespace kiv::catalog {

enum EUnchecked { kUnchecked };

enum EPathRelationship : int {
    kNoRelation = 0,
    kSamePath = 1,
    kDescendantOf = 2,
    kSameOrDescendant = 3,
    kSiblingOf = 4,
    kAncestorOf = 8,
};

class Path {
public:
    static constexpr std::size_t kMaxPathLength = 4096;

    Path() noexcept = default;  // the blank path
    // Checked construction; raises CatalogNameException (see above).
    explicit Path(const String& text);
    explicit Path(const wchar_t* text) : Path(String(text)) {}
    // Unchecked construction: the text is taken as it is.
    Path(const String& text, EUnchecked);
    Path(const Path& o) noexcept;
    Path(Path&& o) noexcept : m_rep(o.m_rep) { o.m_rep = nullptr; }
    Path& operator=(const Path& o) noexcept;
    Path& operator=(Path&& o) noexcept;
    ~Path();

    // Strict check of a whole path text (every component too).
    static EItemNameValidity checkPath(const String& text);
    // On a valid text sets the path and returns true; otherwise returns false
    // and leaves the path as it was.
    bool checkAndSetPath(const String& text);

    // The parent path ("/a/b" -> "/a", "/a" -> "/", "/" and blank -> blank).
    Path getParentPath() const;
    // The last component, unescaped; raises CatalogNameException for the
    // root or the blank path.
    ItemName getItemName() const;

    Path operator+(const ItemName& name) const;
    Path& operator+=(const ItemName& name);

    // Relation of this path to `other`: kSamePath when equal, kAncestorOf when
    // this is a proper ancestor of other, kDescendantOf when a proper
    // descendant, kSiblingOf when both have the same parent, else kNoRelation.
    EPathRelationship relationship(const Path& other) const noexcept;

    bool isBlank() const noexcept { return size() == 0; }
    std::size_t size() const noexcept { return m_rep ? m_rep->size : 0; }
    const wchar_t* data() const noexcept { return m_rep ? m_rep->chars() : L""; }
    std::wstring_view view() const noexcept { return {data(), size()}; }
    String toString() const { return String(view()); }

    friend bool operator==(const Path& a, const Path& b) noexcept {
        return a.m_rep == b.m_rep || a.view() == b.view();
    }
    friend bool operator!=(const Path& a, const Path& b) noexcept { return !(a == b); }
    friend bool operator<(const Path& a, const Path& b) noexcept { return a.view() < b.view(); }

private:
    // The shared text: a count, the length, then the characters and a NUL,
    // in one block. Defined here so the accessors above inline: paths are
    // compared on every look-up of the favorites index.
    struct Rep {
        std::atomic<std::uint32_t> refs;
        std::uint32_t size;

        wchar_t* chars() noexcept { return reinterpret_cast<wchar_t*>(this + 1); }

        static Rep* make(std::wstring_view text) {
            void* mem = ::operator new(sizeof(Rep) + (text.size() + 1) * sizeof(wchar_t));
            Rep* rep = new (mem) Rep{{1}, static_cast<std::uint32_t>(text.size())};
            if (!text.empty()) std::memcpy(rep->chars(), text.data(), text.size() * sizeof(wchar_t));
            rep->chars()[text.size()] = L'\0';
            return rep;
        }
        static void acquire(Rep* rep) noexcept {
            if (rep) rep->refs.fetch_add(1, std::memory_order_relaxed);
        }
        static void release(Rep* rep) noexcept {
            if (rep && rep->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
                rep->~Rep();
                ::operator delete(rep);
            }
        }
    };
    void assign(std::wstring_view text);
    Rep* m_rep = nullptr;
};

// The blank path constant.
extern const Path kpBlank;

}  // namespace kiv::catalog

namespace std {
// The path hash: h = n, then h = 13 h + 5 c over the sampled characters (all
// of them up to 10; 10 samples up to 23; beyond that 12 samples plus 2 for
// every halving of n/2 above 19), with unsigned 64-bit wrap-around.
template <>
struct hash<kiv::catalog::Path> {
    std::uint64_t operator()(const kiv::catalog::Path& p) const noexcept;
};
}  // namespace std
