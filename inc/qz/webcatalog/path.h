// catalog::Path: a catalog path such as "/shared/Sales/Dashboard".
//
// A path text starts with "/" and holds escaped item names separated by "/"
// ("/" alone is the root). The checked constructor accepts the empty text as
// the blank path and refuses a text that does not start with "/"
// (kPathMustStartWithSlash) or is longer than kMaxPathLength (kPathTooLong);
// checkAndSetPath is strict: it also refuses the empty text and any invalid
// component. The text is kept in an immutable reference-counted CompactText
// (one byte per character unless some character is above U+00FF), so copies
// are cheap and share storage (the favorites index keys share the items'
// catalog paths).
//
// Thread safety: an immutable value; copies may cross threads.
#pragma once

#include "qz/platform/export.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "qz/platform/string.h"
#include "qz/webcatalog/compacttext.h"
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

class KIV_API Path {
public:
    static constexpr std::size_t kMaxPathLength = 4096;

    Path() noexcept = default;  // the blank path
    // Checked construction; raises CatalogNameException (see above).
    explicit Path(const String& text);
    explicit Path(const wchar_t* text) : Path(String(text)) {}
    // Unchecked construction: the text is taken as it is.
    Path(const String& text, EUnchecked) : m_text(std::wstring_view(text)) {}
    // The same from UTF-8 text (raises Utf8Error for malformed UTF-8); ASCII
    // text is stored without a wide intermediate.
    static Path fromUtf8(std::string_view utf8);
    static Path fromUtf8(std::string_view utf8, EUnchecked) { return Path(CompactText::fromUtf8(utf8)); }

    // Strict check of a whole path text (every component too).
    static EItemNameValidity checkPath(const String& text);
    // The same check of this path's own text, in whichever form it is
    // stored; never allocates.
    EItemNameValidity check() const noexcept;
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

    bool isBlank() const noexcept { return m_text.empty(); }
    bool isRoot() const noexcept { return m_text.size() == 1 && m_text[0] == L'/'; }
    // Number of characters.
    std::size_t size() const noexcept { return m_text.size(); }
    // The characters, in whichever form they are kept.
    const CompactText& text() const noexcept { return m_text; }
    String toString() const { return m_text.toString(); }
    // UTF-8 through the strict codec (raises Utf8Error for a character that
    // is not a Unicode scalar value); ASCII text is copied as it is.
    std::string toUtf8() const { return m_text.toUtf8(); }
    void appendUtf8(std::string& out) const { m_text.appendUtf8(out); }

    friend bool operator==(const Path& a, const Path& b) noexcept { return a.m_text == b.m_text; }
    friend bool operator!=(const Path& a, const Path& b) noexcept { return !(a == b); }
    // Inlined into ordered look-ups, as the text comparison is.
    [[gnu::always_inline]] friend bool operator<(const Path& a, const Path& b) noexcept {
        return a.m_text < b.m_text;
    }

private:
    explicit Path(CompactText text) noexcept : m_text(std::move(text)) {}
    CompactText m_text;
};
// The blank path constant.
extern KIV_API const Path kpBlank;

}  // namespace kiv::catalog

namespace kiv::catalog::detail {

// The path hash over n characters at `s`: h = n, then h = 13 h + 5 c over
// the sampled characters (all of them up to 10; 10 samples up to 23; beyond
// that 12 samples plus 2 for every halving of n/2 above 19, at stride n/s,
// or all of them when the stride is 1), each character taken as a signed
// 32-bit value, with unsigned 64-bit wrap-around.
template <class C>
std::uint64_t pathHash(const C* s, std::uint64_t n) noexcept {
    auto value = [](C c) noexcept {
        return static_cast<std::uint64_t>(static_cast<std::int64_t>(static_cast<std::int32_t>(c)));
    };
    std::uint64_t count = n, stride = 1;
    if (n > 10) {
        std::uint64_t samples = 10;
        if (n > 23) {
            samples = 12;
            for (std::uint64_t m = n / 2; m > 19; m /= 2) samples += 2;
        }
        if (n / samples != 1) {
            count = samples;
            stride = n / samples;
        }
    }
    std::uint64_t h = n;
    // Four samples per step: h = 13^4 h + 5 (13^3 c0 + 13^2 c1 + 13 c2 + c3)
    // is the same value modulo 2^64 with a quarter of the dependent steps.
    std::uint64_t k = 0;
    for (; k + 4 <= count; k += 4, s += 4 * stride)
        h = 28561 * h +
            5 * (2197 * value(s[0]) + 169 * value(s[stride]) + 13 * value(s[2 * stride]) + value(s[3 * stride]));
    for (; k < count; ++k, s += stride) h = 13 * h + 5 * value(*s);
    return h;
}

}  // namespace kiv::catalog::detail

namespace std {
// The path hash (see detail::pathHash), defined here so that the index's
// look-ups inline it.
template <>
struct hash<kiv::catalog::Path> {
    std::uint64_t operator()(const kiv::catalog::Path& p) const noexcept {
        return p.text().visit([](auto s) noexcept { return kiv::catalog::detail::pathHash(s.data(), s.size()); });
    }
};
}  // namespace std
