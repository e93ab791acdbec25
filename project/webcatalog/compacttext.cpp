// CompactText: one byte per character when the text allows it.
#include "qz/webcatalog/compacttext.h"

#include <algorithm>
#include <functional>
#include <new>
#include <stdexcept>

namespace kiv::catalog {

static_assert(sizeof(CompactText) == sizeof(void*));

CompactText::Rep* CompactText::allocate(std::size_t size, bool wide) {
    if (size > (std::uint32_t(-1) >> kFlagBits)) throw std::length_error("CompactText: text too long");
    void* mem = ::operator new(sizeof(Rep) + size * (wide ? sizeof(wchar_t) : 1));
    return new (mem) Rep{{1}, static_cast<std::uint32_t>(size << kFlagBits) | (wide ? kWideFlag : 0)};
}

void CompactText::destroy(Rep* rep) noexcept {
    rep->~Rep();
    ::operator delete(rep);
}

bool CompactText::computeAscii(const Rep* rep) noexcept {
    const std::size_t n = rep->bits >> kFlagBits;
    if (rep->bits & kWideFlag) return false;  // some character is above U+00FF
    const auto* p = reinterpret_cast<const unsigned char*>(rep + 1);
    return std::all_of(p, p + n, [](unsigned char c) { return c < 0x80; });
}

CompactText::Rep* CompactText::makeNarrow(const unsigned char* chars, std::size_t n, bool ascii) {
    if (n == 0) return nullptr;
    Rep* rep = allocate(n, false);
    std::memcpy(reinterpret_cast<unsigned char*>(rep + 1), chars, n);
    rep->bits |= ascii ? kAsciiFlag : 0;
    return rep;
}

CompactText::Rep* CompactText::makeFrom(const unsigned char* chars, std::size_t n) {
    return makeNarrow(chars, n, std::all_of(chars, chars + n, [](unsigned char c) { return c < 0x80; }));
}

CompactText::Rep* CompactText::makeFrom(const wchar_t* chars, std::size_t n) {
    if (n == 0) return nullptr;
    // One pass tells both forms apart: every character is <= U+00FF exactly
    // when their bitwise or is, and below U+0080 when the or is.
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < n; ++i) bits |= static_cast<std::uint32_t>(chars[i]);
    const bool wide = bits > 0xFF;
    Rep* rep = allocate(n, wide);
    if (wide) {
        std::memcpy(reinterpret_cast<wchar_t*>(rep + 1), chars, n * sizeof(wchar_t));
    } else {
        auto* out = reinterpret_cast<unsigned char*>(rep + 1);
        for (std::size_t i = 0; i < n; ++i) out[i] = static_cast<unsigned char>(chars[i]);
        rep->bits |= bits < 0x80 ? kAsciiFlag : 0;
    }
    return rep;
}

CompactText CompactText::fromUtf8(std::string_view utf8) {
    // ASCII (the usual catalog text) is copied as it is, already known to be ASCII.
    if (std::all_of(utf8.begin(), utf8.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
        CompactText t;
        t.m_rep = makeNarrow(reinterpret_cast<const unsigned char*>(utf8.data()), utf8.size(), true);
        return t;
    }
    return CompactText(std::wstring_view(utf8::decode(utf8)));
}

CompactText CompactText::substr(std::size_t pos, std::size_t n) const {
    return visit([&](auto chars) { return CompactText(chars.subspan(pos, n)); });
}

int CompactText::compareSlow(const CompactText& a, const CompactText& b) noexcept {
    if (a.isWide() && b.isWide()) {
        const int r = std::wstring_view(a.wide(), a.size()).compare(std::wstring_view(b.wide(), b.size()));
        return r < 0 ? -1 : (r > 0 ? 1 : 0);
    }
    // Mixed forms: compare character by character as wide characters.
    return a.visit([&](auto x) {
        return b.visit([&](auto y) {
            const std::size_t n = std::min(x.size(), y.size());
            for (std::size_t i = 0; i < n; ++i) {
                const auto cx = static_cast<wchar_t>(x[i]);
                const auto cy = static_cast<wchar_t>(y[i]);
                if (cx != cy) return cx < cy ? -1 : 1;
            }
            return x.size() < y.size() ? -1 : (x.size() > y.size() ? 1 : 0);
        });
    });
}

void CompactText::appendTo(String& out) const {
    visit([&](auto chars) { out.append(chars.begin(), chars.end()); });
}

String CompactText::toString() const {
    String out;
    out.reserve(size());
    appendTo(out);
    return out;
}

void CompactText::appendUtf8(std::string& out) const {
    if (isAscii()) {
        out.append(reinterpret_cast<const char*>(narrow()), size());
        return;
    }
    if (isWide()) {
        utf8::encodeAppend(std::wstring_view(wide(), size()), out);
        return;
    }
    // Latin-1: one or two bytes per character.
    for (unsigned char c : Narrow(narrow(), size())) {
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
}

std::string CompactText::toUtf8() const {
    std::string out;
    appendUtf8(out);
    return out;
}

std::size_t CompactText::contentHash() const noexcept {
    return std::hash<std::string_view>()(
        std::string_view(reinterpret_cast<const char*>(narrow()), byteSize()));
}

}  // namespace kiv::catalog
