#include "qz/platform/string.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <clocale>
#include <cwctype>

#include <locale.h>
#include <wctype.h>

#include "asciiblocks.h"
#include "qz/platform/exception.h"

namespace kiv {

const String s_ksBlank;

namespace {

[[noreturn]] void throwUtf8(const char* what, std::size_t offset) {
    throw Utf8Error(String::fromUtf8(std::string("invalid UTF-8: ") + what + " at byte " + std::to_string(offset)));
}

bool isScalarValue(char32_t c) noexcept { return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF); }

// Decodes one sequence at `i`; returns false (with `what`) on malformed input.
inline bool decodeOne(std::string_view in, std::size_t& i, char32_t& out, const char*& what) noexcept {
    const auto b0 = static_cast<unsigned char>(in[i]);
    if (b0 < 0x80) { out = b0; ++i; return true; }
    std::size_t len;
    char32_t cp;
    if (b0 >= 0xC2 && b0 <= 0xDF) { len = 2; cp = b0 & 0x1F; }
    else if (b0 >= 0xE0 && b0 <= 0xEF) { len = 3; cp = b0 & 0x0F; }
    else if (b0 >= 0xF0 && b0 <= 0xF4) { len = 4; cp = b0 & 0x07; }
    else { what = (b0 == 0xC0 || b0 == 0xC1) ? "overlong sequence" : "invalid lead byte"; return false; }
    if (i + len > in.size()) { what = "truncated sequence"; return false; }
    for (std::size_t k = 1; k < len; ++k) {
        const auto b = static_cast<unsigned char>(in[i + k]);
        if ((b & 0xC0) != 0x80) { what = "invalid continuation byte"; return false; }
        cp = (cp << 6) | (b & 0x3F);
    }
    if ((len == 3 && cp < 0x800) || (len == 4 && cp < 0x10000)) { what = "overlong sequence"; return false; }
    if (cp >= 0xD800 && cp <= 0xDFFF) { what = "surrogate code point"; return false; }
    if (cp > 0x10FFFF) { what = "code point above U+10FFFF"; return false; }
    out = cp;
    i += len;
    return true;
}

// Length of the leading run of characters (or bytes) below 0x80. Each block is
// one branch-free loop that the compiler turns into vector instructions.
template <class C>
std::size_t asciiPrefix(const C* s, std::size_t n) noexcept {
    using U = std::make_unsigned_t<C>;
    constexpr std::size_t kBlock = detail::kAsciiBlock;
    std::size_t i = 0;
    for (; i + kBlock <= n; i += kBlock) {
        std::uint32_t bits = 0;
        for (std::size_t k = 0; k < kBlock; ++k) bits |= static_cast<std::uint32_t>(static_cast<U>(s[i + k]));
        if (bits >= 0x80) break;
    }
    while (i < n && static_cast<std::uint32_t>(static_cast<U>(s[i])) < 0x80) ++i;
    return i;
}

// Copies the leading run of ASCII characters of in[0, n) between the narrow
// and the wide form, a block at a time (see asciiblocks.h); returns the run's
// length.
template <class From, class To>
std::size_t copyAsciiPrefix(const From* in, std::size_t n, To* out) noexcept {
    using U = std::make_unsigned_t<From>;
    std::size_t i = 0;
    while (i + detail::kAsciiBlock <= n && detail::asciiBlock(in + i, out + i)) i += detail::kAsciiBlock;
    for (; i < n && static_cast<std::uint32_t>(static_cast<U>(in[i])) < 0x80; ++i)
        out[i] = static_cast<To>(static_cast<U>(in[i]));
    return i;
}

std::size_t scalarLength(char32_t c) noexcept { return c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4; }

// Writes the UTF-8 form of the scalar value `c`; returns the end.
char* putScalar(char32_t c, char* o) noexcept {
    if (c < 0x80) {
        *o++ = static_cast<char>(c);
    } else if (c < 0x800) {
        *o++ = static_cast<char>(0xC0 | (c >> 6));
        *o++ = static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        *o++ = static_cast<char>(0xE0 | (c >> 12));
        *o++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        *o++ = static_cast<char>(0x80 | (c & 0x3F));
    } else {
        *o++ = static_cast<char>(0xF0 | (c >> 18));
        *o++ = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        *o++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        *o++ = static_cast<char>(0x80 | (c & 0x3F));
    }
    return o;
}

}  // namespace

namespace utf8 {

namespace {

// Decodes `in` into `out` (reusing its storage). At a byte that starts no
// well-formed sequence, `onError(what, offset)` either throws or returns the
// character that stands for that one byte.
template <class OnError>
void decodeTo(std::string_view in, std::wstring& out, OnError onError) {
    out.resize(in.size());  // never more characters than bytes
    wchar_t* o = out.data();
    std::size_t i = 0;
    while (i < in.size()) {
        const std::size_t ascii = copyAsciiPrefix(in.data() + i, in.size() - i, o);
        o += ascii;
        i += ascii;
        if (i == in.size()) break;
        char32_t cp;
        const char* what = nullptr;
        const std::size_t at = i;
        if (!decodeOne(in, i, cp, what)) {
            cp = onError(what, at);
            i = at + 1;
        }
        *o++ = static_cast<wchar_t>(cp);
    }
    out.resize(static_cast<std::size_t>(o - out.data()));
}

}  // namespace

std::wstring decode(std::string_view in) {
    std::wstring out;
    decodeTo(in, out, [](const char* what, std::size_t at) -> char32_t { throwUtf8(what, at); });
    return out;
}

void decodeReplacing(std::string_view in, std::wstring& out) {
    decodeTo(in, out, [](const char*, std::size_t) -> char32_t { return 0xFFFD; });
}

std::size_t encodedLength(std::wstring_view in) noexcept {
    const std::size_t ascii = asciiPrefix(in.data(), in.size());
    std::size_t n = ascii;
    for (std::size_t i = ascii; i < in.size(); ++i) {
        const auto c = static_cast<char32_t>(in[i]);
        if (!isScalarValue(c)) return SIZE_MAX;
        n += scalarLength(c);
    }
    return n;
}

char* encodeInto(std::wstring_view in, char* out) noexcept {
    const std::size_t ascii = copyAsciiPrefix(in.data(), in.size(), out);
    out += ascii;
    for (std::size_t i = ascii; i < in.size(); ++i) {
        const auto c = static_cast<char32_t>(in[i]);
        out = putScalar(isScalarValue(c) ? c : char32_t{0xFFFD}, out);
    }
    return out;
}

std::size_t encodeIntoBounded(std::wstring_view in, char* out, std::size_t capacity) noexcept {
    const std::size_t ascii = copyAsciiPrefix(in.data(), std::min(in.size(), capacity), out);
    std::size_t n = ascii;
    for (std::size_t i = ascii; i < in.size(); ++i) {
        const auto c = static_cast<char32_t>(in[i]);
        if (!isScalarValue(c) || capacity - n < scalarLength(c)) return SIZE_MAX;
        n = static_cast<std::size_t>(putScalar(c, out + n) - out);
    }
    return n;
}

void encodeAppend(std::wstring_view in, std::string& out) {
    const std::size_t start = out.size();
    out.resize(start + in.size());
    if (copyAsciiPrefix(in.data(), in.size(), out.data() + start) == in.size()) return;  // the usual case
    out.resize(start);
    const std::size_t bytes = encodedLength(in);
    if (bytes == SIZE_MAX) {
        // Encode what comes before the offending character, then refuse it.
        std::size_t bad = 0;
        while (isScalarValue(static_cast<char32_t>(in[bad]))) ++bad;
        encodeAppend(in.substr(0, bad), out);
        if (static_cast<char32_t>(in[bad]) <= 0x10FFFF)
            throw Utf8Error(L"cannot encode a surrogate code point as UTF-8 (character " + std::to_wstring(bad) + L")");
        throw Utf8Error(L"cannot encode a code point above U+10FFFF as UTF-8 (character " + std::to_wstring(bad) + L")");
    }
    out.resize(start + bytes);
    encodeInto(in, out.data() + start);
}

void encodeAppendReplacing(std::wstring_view in, std::string& out) {
    const std::size_t start = out.size();
    out.resize(start + in.size() * 4);  // at most four bytes a character
    char* const end = encodeInto(in, out.data() + start);
    out.resize(static_cast<std::size_t>(end - out.data()));
}

std::string encode(std::wstring_view in) {
    std::string out;
    encodeAppend(in, out);
    return out;
}

bool isValid(std::string_view in) noexcept {
    std::size_t i = 0;
    while (i < in.size()) {
        i += asciiPrefix(in.data() + i, in.size() - i);
        if (i == in.size()) break;
        char32_t cp;
        const char* what = nullptr;
        if (!decodeOne(in, i, cp, what)) return false;
    }
    return true;
}

}  // namespace utf8

String String::fromUtf8(std::string_view utf8) { return String(utf8::decode(utf8)); }
std::string String::toUtf8() const { return utf8::encode(*this); }

namespace {

// Case folding must not depend on the locale the host process happens to
// have selected (the "C" locale folds ASCII only), so it uses a private
// UTF-8 locale with the full Unicode simple case mappings. Without one the
// process locale is used.
locale_t foldingLocale() noexcept {
    static const locale_t loc = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
    return loc;
}

wchar_t foldCase(wchar_t c) noexcept {
    // ASCII needs no locale (and is most of what is compared).
    if (static_cast<std::uint32_t>(c) < 0x80) return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c + 32) : c;
    const locale_t loc = foldingLocale();
    const wint_t w = static_cast<wint_t>(c);
    return static_cast<wchar_t>(loc ? towlower_l(w, loc) : std::towlower(w));
}

}  // namespace

int String::compareNoCase(const String& other) const noexcept {
    // Over the whole length, so characters after an embedded NUL count too.
    const std::size_t n = std::min(size(), other.size());
    for (std::size_t i = 0; i < n; ++i) {
        const wchar_t ca = foldCase((*this)[i]);
        const wchar_t cb = foldCase(other[i]);
        if (ca != cb) return ca < cb ? -1 : 1;
    }
    return size() == other.size() ? 0 : (size() < other.size() ? -1 : 1);
}

namespace posixstrsupport {
int wcsicmp(const wchar_t* a, const wchar_t* b) noexcept {
    for (;; ++a, ++b) {
        const wchar_t ca = foldCase(*a);
        const wchar_t cb = foldCase(*b);
        if (ca != cb) return ca < cb ? -1 : 1;
        if (ca == 0) return 0;
    }
}
}  // namespace posixstrsupport

}  // namespace kiv
