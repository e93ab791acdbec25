// Path: an immutable, reference-counted catalog path text.
#include "qz/webcatalog/path.h"

#include <atomic>
#include <algorithm>
#include <cstring>
#include <new>

#include "namerules.h"

namespace kiv::catalog {

// Header and characters live in one allocation: the characters (and a
// terminating zero) follow the header directly.
static_assert(sizeof(Path) == sizeof(void*));

const Path kpBlank;

namespace {

// Whether the "/" at position `pos` separates components, that is whether it
// is preceded by an even run of backslashes.
bool isSeparatorAt(std::wstring_view text, std::size_t pos) noexcept {
    if (text[pos] != L'/') return false;
    std::size_t run = 0;
    while (run < pos && text[pos - 1 - run] == L'\\') ++run;
    return run % 2 == 0;
}

// Position of the last separator, or npos.
std::size_t lastSeparator(std::wstring_view text) noexcept {
    for (std::size_t i = text.size(); i-- > 0;)
        if (isSeparatorAt(text, i)) return i;
    return std::wstring_view::npos;
}

}  // namespace

Path::Path(const String& text) {
    if (text.empty()) return;
    if (text.front() != L'/') throw CatalogNameException(kPathMustStartWithSlash, text);
    if (text.size() > kMaxPathLength) throw CatalogNameException(kPathTooLong, text);
    assign(text);
}

Path::Path(const String& text, EUnchecked) {
    if (!text.empty()) assign(text);
}

Path::Path(const Path& o) noexcept : m_rep(o.m_rep) { Rep::acquire(m_rep); }

Path& Path::operator=(const Path& o) noexcept {
    Rep::acquire(o.m_rep);
    Rep::release(m_rep);
    m_rep = o.m_rep;
    return *this;
}

Path& Path::operator=(Path&& o) noexcept {
    if (this != &o) {
        Rep::release(m_rep);
        m_rep = o.m_rep;
        o.m_rep = nullptr;
    }
    return *this;
}

Path::~Path() { Rep::release(m_rep); }

void Path::assign(std::wstring_view text) {
    Rep* rep = text.empty() ? nullptr : Rep::make(text);
    Rep::release(m_rep);
    m_rep = rep;
}

EItemNameValidity Path::checkPath(const String& text) { return detail::checkPathText(text); }

EItemNameValidity detail::checkPathText(std::wstring_view text) noexcept {
    if (text.empty()) return kPathEmpty;
    if (text.front() != L'/') return kPathMustStartWithSlash;
    if (text.size() > Path::kMaxPathLength) return kPathTooLong;
    if (text.size() == 1) return kItemNameValid;  // the root
    const std::wstring_view v = text;
    std::size_t start = 1;
    std::size_t i = 1;
    for (;;) {
        if (i >= v.size() || v[i] == L'/') {
            const std::size_t end = std::min(i, v.size());
            const EItemNameValidity validity = detail::checkEscapedComponent(v.substr(start, end - start));
            if (validity != kItemNameValid) return validity;
            if (i >= v.size()) break;
            start = ++i;
            continue;
        }
        i += v[i] == L'\\' ? 2 : 1;  // an escaped character belongs to the component
    }
    return kItemNameValid;
}

bool Path::checkAndSetPath(const String& text) {
    if (checkPath(text) != kItemNameValid) return false;
    assign(text);
    return true;
}

Path Path::getParentPath() const {
    const std::wstring_view v = view();
    if (v.size() <= 1) return Path();
    const std::size_t sep = lastSeparator(v);
    if (sep == std::wstring_view::npos) return Path();
    Path parent;
    parent.assign(v.substr(0, sep == 0 ? 1 : sep));
    return parent;
}

ItemName Path::getItemName() const {
    const std::wstring_view v = view();
    const std::size_t sep = v.size() <= 1 ? std::wstring_view::npos : lastSeparator(v);
    if (sep == std::wstring_view::npos) throw CatalogNameException(kItemNameEmpty, toString());
    return ItemName::fromEscaped(String(v.substr(sep + 1)));
}

Path Path::operator+(const ItemName& name) const {
    Path result(*this);
    result += name;
    return result;
}

Path& Path::operator+=(const ItemName& name) {
    String text(view());
    if (text.empty() || text.back() != L'/' || !isSeparatorAt(text, text.size() - 1)) text.push_back(L'/');
    detail::appendEscaped(text, name.toString());
    if (text.size() > kMaxPathLength) throw CatalogNameException(kPathTooLong, text);
    assign(text);
    return *this;
}

EPathRelationship Path::relationship(const Path& other) const noexcept {
    const std::wstring_view a = view();
    const std::wstring_view b = other.view();
    if (a == b) return kSamePath;
    if (a.empty() || b.empty()) return kNoRelation;
    // a is a proper ancestor of b when b continues a with a separator (the
    // root "/" is the ancestor of every other rooted path).
    auto isAncestor = [](std::wstring_view anc, std::wstring_view desc) noexcept {
        if (anc.size() >= desc.size() || desc.substr(0, anc.size()) != anc) return false;
        if (anc == L"/") return true;
        return isSeparatorAt(desc, anc.size());
    };
    if (isAncestor(a, b)) return kAncestorOf;
    if (isAncestor(b, a)) return kDescendantOf;
    const std::size_t sa = lastSeparator(a);
    const std::size_t sb = lastSeparator(b);
    if (sa != std::wstring_view::npos && sa == sb && a.substr(0, sa + 1) == b.substr(0, sb + 1)) return kSiblingOf;
    return kNoRelation;
}

}  // namespace kiv::catalog

namespace std {

std::uint64_t hash<kiv::catalog::Path>::operator()(const kiv::catalog::Path& p) const noexcept {
    const wchar_t* s = p.data();
    const std::uint64_t n = p.size();
    std::uint64_t h = n;
    // Each character is taken as a signed 32-bit value and widened.
    auto mix = [&h](wchar_t c) noexcept {
        h = 13 * h + 5 * static_cast<std::uint64_t>(static_cast<std::int64_t>(static_cast<std::int32_t>(c)));
    };
    std::uint64_t samples = 0;
    if (n > 10) {
        if (n <= 23) {
            samples = 10;
        } else {
            samples = 12;
            for (std::uint64_t m = n / 2; m > 19; m /= 2) samples += 2;
        }
    }
    const std::uint64_t stride = samples ? n / samples : 1;
    if (samples == 0 || stride == 1) {
        for (std::uint64_t i = 0; i < n; ++i) mix(s[i]);
    } else {
        for (std::uint64_t k = 0; k < samples; ++k) mix(s[k * stride]);
    }
    return h;
}

}  // namespace std
