// Path: an immutable, reference-counted catalog path text.
#include "qz/webcatalog/path.h"

#include <algorithm>
#include <type_traits>

#include "namerules.h"

namespace kiv::catalog {

static_assert(sizeof(Path) == sizeof(void*));

const Path kpBlank;

namespace {

// Whether the "/" at position `pos` separates components, that is whether it
// is preceded by an even run of backslashes.
template <class C>
bool isSeparatorAt(detail::Chars<C> text, std::size_t pos) noexcept {
    if (text[pos] != C('/')) return false;
    std::size_t run = 0;
    while (run < pos && text[pos - 1 - run] == C('\\')) ++run;
    return run % 2 == 0;
}

constexpr std::size_t npos = static_cast<std::size_t>(-1);

// Position of the last separator, or npos.
template <class C>
std::size_t lastSeparator(detail::Chars<C> text) noexcept {
    for (std::size_t i = text.size(); i-- > 0;)
        if (isSeparatorAt(text, i)) return i;
    return npos;
}

// Whether two character sequences (of either form) hold the same characters.
template <class A, class B>
bool sameChars(detail::Chars<A> a, detail::Chars<B> b) noexcept {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(),
                      [](A x, B y) { return static_cast<wchar_t>(x) == static_cast<wchar_t>(y); });
}

}  // namespace

Path::Path(const String& text) {
    if (text.empty()) return;
    if (text.front() != L'/') throw CatalogNameException(kPathMustStartWithSlash, text);
    if (text.size() > kMaxPathLength) throw CatalogNameException(kPathTooLong, text);
    m_text = CompactText(std::wstring_view(text));
}

Path Path::fromUtf8(std::string_view utf8) {
    Path path(CompactText::fromUtf8(utf8));
    if (path.isBlank()) return path;
    if (path.m_text[0] != L'/') throw CatalogNameException(kPathMustStartWithSlash, path.toString());
    if (path.size() > kMaxPathLength) throw CatalogNameException(kPathTooLong, path.toString());
    return path;
}

EItemNameValidity Path::checkPath(const String& text) { return detail::checkPathText(text); }

EItemNameValidity detail::checkPathText(std::wstring_view text) noexcept { return checkPathText(charsOf(text)); }

EItemNameValidity Path::check() const noexcept {
    return m_text.visit([](auto chars) { return detail::checkPathText(chars); });
}

bool Path::checkAndSetPath(const String& text) {
    if (checkPath(text) != kItemNameValid) return false;
    m_text = CompactText(std::wstring_view(text));
    return true;
}

Path Path::getParentPath() const {
    if (size() <= 1) return Path();
    const std::size_t sep = m_text.visit([](auto chars) { return lastSeparator(chars); });
    if (sep == npos) return Path();
    return Path(m_text.substr(0, sep == 0 ? 1 : sep));
}

ItemName Path::getItemName() const {
    const std::size_t sep = size() <= 1 ? npos : m_text.visit([](auto chars) { return lastSeparator(chars); });
    if (sep == npos) throw CatalogNameException(kItemNameEmpty, toString());
    const CompactText escaped = m_text.substr(sep + 1, size() - sep - 1);
    const EItemNameValidity check = escaped.visit([](auto chars) { return detail::checkEscapedComponent(chars); });
    if (check != kItemNameValid) throw CatalogNameException(check, escaped.toString());
    return ItemName::fromCheckedEscaped(escaped);
}

Path Path::operator+(const ItemName& name) const {
    Path result(*this);
    result += name;
    return result;
}

Path& Path::operator+=(const ItemName& name) {
    // The text, a separator unless it already ends with one, then the
    // escaped name, written once in the form the result needs.
    const bool needSeparator =
        m_text.visit([](auto chars) { return chars.empty() || !isSeparatorAt(chars, chars.size() - 1); });
    const std::size_t escapedSize = name.m_name.visit([](auto chars) { return detail::escapedLength(chars); });
    const std::size_t total = size() + (needSeparator ? 1 : 0) + escapedSize;
    CompactText joined =
        CompactText::build(total, m_text.isWide() || name.m_name.isWide(), [&](auto* out) {
            using Out = std::remove_pointer_t<decltype(out)>;
            out = m_text.visit([&](auto chars) {
                return std::transform(chars.begin(), chars.end(), out, [](auto c) { return static_cast<Out>(c); });
            });
            if (needSeparator) *out++ = Out('/');
            name.m_name.visit([&](auto chars) { return detail::writeEscaped(out, chars); });
        });
    if (total > kMaxPathLength) throw CatalogNameException(kPathTooLong, joined.toString());
    m_text = std::move(joined);
    return *this;
}

EPathRelationship Path::relationship(const Path& other) const noexcept {
    if (*this == other) return kSamePath;
    if (isBlank() || other.isBlank()) return kNoRelation;
    return m_text.visit([&](auto a) {
        return other.m_text.visit([&](auto b) {
            // anc is a proper ancestor of desc when desc continues anc with a
            // separator (the root "/" is the ancestor of every other rooted path).
            auto isAncestor = [](auto anc, auto desc) noexcept {
                if (anc.size() >= desc.size() || !sameChars(anc, desc.first(anc.size()))) return false;
                if (anc.size() == 1 && anc[0] == '/') return true;
                return isSeparatorAt(desc, anc.size());
            };
            if (isAncestor(a, b)) return kAncestorOf;
            if (isAncestor(b, a)) return kDescendantOf;
            const std::size_t sa = lastSeparator(a);
            const std::size_t sb = lastSeparator(b);
            if (sa != npos && sa == sb && sameChars(a.first(sa + 1), b.first(sb + 1))) return kSiblingOf;
            return kNoRelation;
        });
    });
}

}  // namespace kiv::catalog
