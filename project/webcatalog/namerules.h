// Character rules shared by ItemName and Path (private to the catalog library).
#pragma once

#include <cstdint>
#include <string_view>

#include "qz/platform/string.h"

#include "qz/webcatalog/itemname.h"

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

// Validity of an unescaped name (the checks of ItemName::checkItemName).
EItemNameValidity checkName(std::wstring_view name) noexcept;
// Validity of an escaped path component: escapes first, then the name it
// stands for. Never allocates.
EItemNameValidity checkEscapedComponent(std::wstring_view escaped) noexcept;
// Strict validity of a whole path text (Path::checkPath). Never allocates.
EItemNameValidity checkPathText(std::wstring_view text) noexcept;
// The unescaped text of a component already known to be well escaped.
String unescape(std::wstring_view escaped);
// Appends the escaped form of `name` to `out`.
void appendEscaped(String& out, std::wstring_view name);

}  // namespace kiv::catalog::detail
