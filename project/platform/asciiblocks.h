// Blocks of 16 characters converted between one byte and four bytes a
// character when every one of them is ASCII (and, for JSON text, needs no
// escape): the fast paths of the UTF-8 codec and of the JSON writer.
//
// Each function converts the whole block and returns true, or writes nothing
// and returns false. With SSE2 a block is one 16-byte vector on the narrow
// side and four on the wide side; the portable form goes through a local
// array, since the compiler cannot otherwise tell that the two buffers do not
// overlap (a char may alias anything) and would copy one character at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kiv::detail {

inline constexpr std::size_t kAsciiBlock = 16;

// The same in plain C++, the form used where SSE2 is not available; the
// tests check that both forms agree.
namespace portable {

template <class From, class To, class Accept>
bool convertBlock(const From* in, To* out, Accept accept) noexcept {
    unsigned all = 1;
    To block[kAsciiBlock];
    for (std::size_t k = 0; k < kAsciiBlock; ++k) {
        const auto u = static_cast<std::uint32_t>(static_cast<std::make_unsigned_t<From>>(in[k]));
        all &= accept(u);
        block[k] = static_cast<To>(u);
    }
    if (!all) return false;
    std::memcpy(out, block, sizeof block);
    return true;
}

inline bool widenAsciiBlock(const char* in, wchar_t* out) noexcept {
    return convertBlock(in, out, [](std::uint32_t u) { return static_cast<unsigned>(u < 0x80); });
}
inline bool narrowAsciiBlock(const wchar_t* in, char* out) noexcept {
    return convertBlock(in, out, [](std::uint32_t u) { return static_cast<unsigned>(u < 0x80); });
}
inline bool widenJsonPlainBlock(const char* in, wchar_t* out) noexcept {
    return convertBlock(in, out, [](std::uint32_t u) {
        return static_cast<unsigned>(u >= 0x20) & static_cast<unsigned>(u < 0x80) & static_cast<unsigned>(u != 0x22) &
               static_cast<unsigned>(u != 0x5C);
    });
}

}  // namespace portable

#if defined(__SSE2__)

static_assert(sizeof(wchar_t) == 4);

// Writes the 16 bytes of `x` as wide characters (each below 0x80).
inline void storeWidened(__m128i x, wchar_t* out) noexcept {
    const __m128i zero = _mm_setzero_si128();
    const __m128i lo = _mm_unpacklo_epi8(x, zero), hi = _mm_unpackhi_epi8(x, zero);
    auto* o = reinterpret_cast<__m128i*>(out);
    _mm_storeu_si128(o, _mm_unpacklo_epi16(lo, zero));
    _mm_storeu_si128(o + 1, _mm_unpackhi_epi16(lo, zero));
    _mm_storeu_si128(o + 2, _mm_unpacklo_epi16(hi, zero));
    _mm_storeu_si128(o + 3, _mm_unpackhi_epi16(hi, zero));
}

inline bool widenAsciiBlock(const char* in, wchar_t* out) noexcept {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    if (_mm_movemask_epi8(x) != 0) return false;  // some byte has its top bit set
    storeWidened(x, out);
    return true;
}

inline bool narrowAsciiBlock(const wchar_t* in, char* out) noexcept {
    const auto* p = reinterpret_cast<const __m128i*>(in);
    const __m128i a = _mm_loadu_si128(p), b = _mm_loadu_si128(p + 1);
    const __m128i c = _mm_loadu_si128(p + 2), d = _mm_loadu_si128(p + 3);
    // A character is ASCII when no bit above the low seven is set: the test
    // covers the negative ones too, so the signed packs below only ever see
    // values 0 to 0x7F and copy them exactly.
    const __m128i over =
        _mm_and_si128(_mm_or_si128(_mm_or_si128(a, b), _mm_or_si128(c, d)), _mm_set1_epi32(~0x7F));
    if (_mm_movemask_epi8(_mm_cmpeq_epi32(over, _mm_setzero_si128())) != 0xFFFF) return false;
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(_mm_packs_epi32(a, b), _mm_packs_epi32(c, d)));
    return true;
}

// ASCII from 0x20 up, neither '"' nor '\': what a JSON string holds as it is.
inline bool widenJsonPlainBlock(const char* in, wchar_t* out) noexcept {
    const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
    // Signed, bytes from 0x80 up are negative, so they count as below 0x20.
    const __m128i bad = _mm_or_si128(_mm_cmplt_epi8(x, _mm_set1_epi8(0x20)),
                                     _mm_or_si128(_mm_cmpeq_epi8(x, _mm_set1_epi8('"')),
                                                  _mm_cmpeq_epi8(x, _mm_set1_epi8('\\'))));
    if (_mm_movemask_epi8(bad) != 0) return false;
    storeWidened(x, out);
    return true;
}

#else

using portable::narrowAsciiBlock;
using portable::widenAsciiBlock;
using portable::widenJsonPlainBlock;

#endif

inline bool asciiBlock(const char* in, wchar_t* out) noexcept { return widenAsciiBlock(in, out); }
inline bool asciiBlock(const wchar_t* in, char* out) noexcept { return narrowAsciiBlock(in, out); }

}  // namespace kiv::detail
