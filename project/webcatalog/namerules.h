// Character rules shared by ItemName and Path (private to the catalog library).
//
// The checks run over a span of characters of either storage form of
// CompactText (bytes or wide characters); a character is its value as a
// wide character in both.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "qz/platform/string.h"

#include "qz/webcatalog/itemname.h"
#include "qz/webcatalog/path.h"

namespace kiv::catalog::detail {

// White space as trimmed by ItemName::kTrim and refused as a whole name.
inline bool isWhiteSpace(wchar_t c) noexcept {
    switch (c) {
        case 0x09: case 0x0A: case 0x0B: case 0x0C: case 0x0D: case 0x20:
        case 0x85: case 0xA0: case 0x1680: case 0x2028: case 0x2029:
        case 0x202F: case 0x205F: case 0x3000:
            return true;
        default:
            return c >= 0x2000 && c <= 0x200A;
    }
}

inline bool isControl(wchar_t c) noexcept {
    const auto u = static_cast<std::uint32_t>(c);
    return u <= 0x1F || (u >= 0x7F && u <= 0x9F);
}

inline bool isScalarValue(wchar_t c) noexcept {
    const auto u = static_cast<std::uint32_t>(c);
    return u <= 0x10FFFF && (u < 0xD800 || u > 0xDFFF);
}

template <class C>
using Chars = std::span<const C>;

inline Chars<wchar_t> charsOf(std::wstring_view text) noexcept { return {text.data(), text.size()}; }

// Validity of an unescaped name (the checks of ItemName::checkItemName).
template <class C>
EItemNameValidity checkName(Chars<C> name) noexcept {
    if (name.empty()) return kItemNameEmpty;
    bool allWhite = true;
    for (C c : name)
        if (!isWhiteSpace(static_cast<wchar_t>(c))) {
            allWhite = false;
            break;
        }
    if (allWhite) return kItemNameAllWhiteSpace;
    if (name.size() > ItemName::kMaxItemNameLength) return kItemNameTooLong;
    for (C c : name) {
        if (isControl(static_cast<wchar_t>(c))) return kItemNameControlCharacter;
        if (!isScalarValue(static_cast<wchar_t>(c))) return kItemNameInvalidUnicode;
    }
    return kItemNameValid;
}
inline EItemNameValidity checkName(std::wstring_view name) noexcept { return checkName(charsOf(name)); }

// Validity of an escaped path component: escapes first, then the name it
// stands for. Never allocates.
template <class C>
EItemNameValidity checkEscapedComponent(Chars<C> escaped) noexcept {
    // The name checks run over the unescaped characters without building them.
    std::size_t nameLength = 0;
    bool allWhite = true;
    EItemNameValidity charProblem = kItemNameValid;
    for (std::size_t i = 0; i < escaped.size(); ++i) {
        auto c = static_cast<wchar_t>(escaped[i]);
        if (c == L'/') return kEscapedItemNameNotEscaped;
        if (c == L'\\') {
            if (i + 1 >= escaped.size()) return kEscapedItemNameBadEscape;
            c = static_cast<wchar_t>(escaped[++i]);
            if (c != L'/' && c != L'\\') return kEscapedItemNameBadEscape;
        }
        ++nameLength;
        if (!isWhiteSpace(c)) allWhite = false;
        if (charProblem == kItemNameValid) {
            if (isControl(c))
                charProblem = kItemNameControlCharacter;
            else if (!isScalarValue(c))
                charProblem = kItemNameInvalidUnicode;
        }
    }
    if (nameLength == 0) return kItemNameEmpty;
    if (allWhite) return kItemNameAllWhiteSpace;
    if (nameLength > ItemName::kMaxItemNameLength) return kItemNameTooLong;
    return charProblem;
}
inline EItemNameValidity checkEscapedComponent(std::wstring_view escaped) noexcept {
    return checkEscapedComponent(charsOf(escaped));
}

// Strict validity of a whole path text (Path::checkPath). Never allocates.
template <class C>
EItemNameValidity checkPathText(Chars<C> v) noexcept {
    if (v.empty()) return kPathEmpty;
    if (v.front() != C('/')) return kPathMustStartWithSlash;
    if (v.size() > Path::kMaxPathLength) return kPathTooLong;
    if (v.size() == 1) return kItemNameValid;  // the root
    std::size_t start = 1;
    std::size_t i = 1;
    for (;;) {
        if (i >= v.size() || v[i] == C('/')) {
            const std::size_t end = i < v.size() ? i : v.size();
            const EItemNameValidity validity = checkEscapedComponent(v.subspan(start, end - start));
            if (validity != kItemNameValid) return validity;
            if (i >= v.size()) break;
            start = ++i;
            continue;
        }
        i += v[i] == C('\\') ? 2 : 1;  // an escaped character belongs to the component
    }
    return kItemNameValid;
}
EItemNameValidity checkPathText(std::wstring_view text) noexcept;

// Number of characters of the escaped form of `name`.
template <class C>
std::size_t escapedLength(Chars<C> name) noexcept {
    std::size_t n = name.size();
    for (C c : name)
        if (c == C('/') || c == C('\\')) ++n;
    return n;
}

// Writes the escaped form of `name` at `out`; returns the end.
template <class C, class Out>
Out* writeEscaped(Out* out, Chars<C> name) noexcept {
    for (C c : name) {
        if (c == C('/') || c == C('\\')) *out++ = Out('\\');
        *out++ = static_cast<Out>(c);
    }
    return out;
}

// Number of characters of the unescaped text of a well-escaped component.
template <class C>
std::size_t unescapedLength(Chars<C> escaped) noexcept {
    std::size_t n = 0;
    for (std::size_t i = 0; i < escaped.size(); ++i, ++n)
        if (escaped[i] == C('\\') && i + 1 < escaped.size()) ++i;
    return n;
}

// Writes the unescaped text of a component already known to be well
// escaped at `out`; returns the end.
template <class C, class Out>
Out* writeUnescaped(Out* out, Chars<C> escaped) noexcept {
    for (std::size_t i = 0; i < escaped.size(); ++i) {
        if (escaped[i] == C('\\') && i + 1 < escaped.size()) ++i;
        *out++ = static_cast<Out>(escaped[i]);
    }
    return out;
}

}  // namespace kiv::catalog::detail
