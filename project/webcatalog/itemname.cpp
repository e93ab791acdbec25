// ItemName: validation, escaping and the name exception.
#include "qz/webcatalog/itemname.h"

#include <cstdint>

#include "namerules.h"

namespace kiv::catalog {

const char* validityName(EItemNameValidity v) noexcept {
    switch (v) {
        case kItemNameValid: return "kItemNameValid";
        case kItemNameEmpty: return "kItemNameEmpty";
        case kItemNameAllWhiteSpace: return "kItemNameAllWhiteSpace";
        case kItemNameTooLong: return "kItemNameTooLong";
        case kItemNameControlCharacter: return "kItemNameControlCharacter";
        case kItemNameInvalidUnicode: return "kItemNameInvalidUnicode";
        case kEscapedItemNameBadEscape: return "kEscapedItemNameBadEscape";
        case kEscapedItemNameNotEscaped: return "kEscapedItemNameNotEscaped";
        case kPathEmpty: return "kPathEmpty";
        case kPathTooLong: return "kPathTooLong";
        case kPathMustStartWithSlash: return "kPathMustStartWithSlash";
    }
    return "unknown";
}

namespace {
String nameExceptionText(EItemNameValidity validity, const String& text) {
    String s = String::fromUtf8(validityName(validity));
    s += L": ";
    // The offending text may hold anything; keep the message printable.
    for (wchar_t c : text) s.push_back(detail::isScalarValue(c) ? c : L'\xFFFD');
    return s;
}
}  // namespace

CatalogNameException::CatalogNameException(EItemNameValidity validity, const String& text)
    : Exception(nameExceptionText(validity, text)), m_validity(validity) {}

Exception* CatalogNameException::clone() const { return new CatalogNameException(*this); }

ItemName::ItemName(const String& name, Options options) {
    std::wstring_view v(name);
    if (options & kTrim) {
        while (!v.empty() && detail::isWhiteSpace(v.front())) v.remove_prefix(1);
        while (!v.empty() && detail::isWhiteSpace(v.back())) v.remove_suffix(1);
    }
    const EItemNameValidity validity = detail::checkName(v);
    if (validity != kItemNameValid) throw CatalogNameException(validity, name);
    m_name = CompactText(v);
}

ItemName ItemName::fromEscaped(const String& escaped) {
    const EItemNameValidity validity = detail::checkEscapedComponent(escaped);
    if (validity != kItemNameValid) throw CatalogNameException(validity, escaped);
    return fromCheckedEscaped(CompactText(std::wstring_view(escaped)));
}

ItemName ItemName::fromCheckedEscaped(const CompactText& escaped) {
    return escaped.visit([&](auto chars) {
        const std::size_t n = detail::unescapedLength(chars);
        // Most names hold no escape: the text is shared as it is.
        if (n == chars.size()) return ItemName(escaped, Unchecked{});
        return ItemName(CompactText::build(n, escaped.isWide(), [&](auto* out) { detail::writeUnescaped(out, chars); }),
                        Unchecked{});
    });
}

EItemNameValidity ItemName::checkItemName(const String& name, EOnError onError) {
    const EItemNameValidity validity = detail::checkName(name);
    if (validity != kItemNameValid && onError == kOnErrorThrow) throw CatalogNameException(validity, name);
    return validity;
}

EItemNameValidity ItemName::checkEscapedItemName(const String& escaped) {
    return detail::checkEscapedComponent(escaped);
}

String ItemName::toEscapedString() const {
    String out;
    m_name.visit([&](auto chars) {
        out.resize(detail::escapedLength(chars));
        detail::writeEscaped(out.data(), chars);
    });
    return out;
}

}  // namespace kiv::catalog
