// ItemName: validation, escaping and the name exception.
#include "qz/webcatalog/itemname.h"

#include <cstdint>

#include "namerules.h"

namespace kiv::catalog {

namespace detail {

EItemNameValidity checkName(std::wstring_view name) noexcept {
    if (name.empty()) return kItemNameEmpty;
    bool allWhite = true;
    for (wchar_t c : name)
        if (!isWhiteSpace(c)) {
            allWhite = false;
            break;
        }
    if (allWhite) return kItemNameAllWhiteSpace;
    if (name.size() > ItemName::kMaxItemNameLength) return kItemNameTooLong;
    for (wchar_t c : name) {
        if (isControl(c)) return kItemNameControlCharacter;
        if (!isScalarValue(c)) return kItemNameInvalidUnicode;
    }
    return kItemNameValid;
}

EItemNameValidity checkEscapedComponent(std::wstring_view escaped) noexcept {
    // The escapes are checked first, then the name they stand for. The name
    // checks run over the unescaped characters without building them.
    std::size_t unescapedLength = 0;
    bool allWhite = true;
    EItemNameValidity charProblem = kItemNameValid;
    for (std::size_t i = 0; i < escaped.size(); ++i) {
        wchar_t c = escaped[i];
        if (c == L'/') return kEscapedItemNameNotEscaped;
        if (c == L'\\') {
            if (i + 1 >= escaped.size()) return kEscapedItemNameBadEscape;
            c = escaped[++i];
            if (c != L'/' && c != L'\\') return kEscapedItemNameBadEscape;
        }
        ++unescapedLength;
        if (!isWhiteSpace(c)) allWhite = false;
        if (charProblem == kItemNameValid) {
            if (isControl(c))
                charProblem = kItemNameControlCharacter;
            else if (!isScalarValue(c))
                charProblem = kItemNameInvalidUnicode;
        }
    }
    if (unescapedLength == 0) return kItemNameEmpty;
    if (allWhite) return kItemNameAllWhiteSpace;
    if (unescapedLength > ItemName::kMaxItemNameLength) return kItemNameTooLong;
    return charProblem;
}

String unescape(std::wstring_view escaped) {
    String out;
    out.reserve(escaped.size());
    for (std::size_t i = 0; i < escaped.size(); ++i) {
        if (escaped[i] == L'\\' && i + 1 < escaped.size()) ++i;
        out.push_back(escaped[i]);
    }
    return out;
}

void appendEscaped(String& out, std::wstring_view name) {
    for (wchar_t c : name) {
        if (c == L'/' || c == L'\\') out.push_back(L'\\');
        out.push_back(c);
    }
}

}  // namespace detail

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
    m_name.assign(v);
}

ItemName ItemName::fromEscaped(const String& escaped) {
    const EItemNameValidity validity = detail::checkEscapedComponent(escaped);
    if (validity != kItemNameValid) throw CatalogNameException(validity, escaped);
    // Most names hold no escape: nothing to undo.
    if (escaped.find(L'\\') == String::npos) return ItemName(escaped, Unchecked{});
    return ItemName(detail::unescape(escaped), Unchecked{});
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
    out.reserve(m_name.size() + 2);
    detail::appendEscaped(out, m_name);
    return out;
}

}  // namespace kiv::catalog
