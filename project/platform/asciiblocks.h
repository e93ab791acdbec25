// Blocks of 16 characters converted between one byte and four bytes a
// character when every one of them is ASCII (and, for JSON text, needs no
// escape): the fast paths of the UTF-8 codec and of the JSON writer.
//
// Each function converts the whole block and returns true, or writes nothing
// and returns false. The block goes through a local array: the compiler
// cannot otherwise tell that the two buffers do not overlap (a char may alias
// anything) and would copy one character at a time instead of vectorising.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "qz/platform/jsonescape.h"

namespace kiv::detail {

inline constexpr std::size_t kAsciiBlock = 16;

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
// ASCII from 0x20 up, neither '"' nor '\': what a JSON string holds as it is.
inline bool widenJsonPlainBlock(const char* in, wchar_t* out) noexcept {
    return convertBlock(in, out,
                        [](std::uint32_t u) { return static_cast<unsigned>(u < 0x80) & (json::needsJsonEscape(u) ^ 1u); });
}

inline bool asciiBlock(const char* in, wchar_t* out) noexcept { return widenAsciiBlock(in, out); }
inline bool asciiBlock(const wchar_t* in, char* out) noexcept { return narrowAsciiBlock(in, out); }

}  // namespace kiv::detail
