// The escaping of JSON string literals, shared by every JSON writer of the
// project (the evaluator's text form of values, and the tool's and the
// server's answers).
//
// appendJsonEscaped appends the inside of a string literal: '"' and '\' and
// the control characters below U+0020 escaped (\b \f \n \r \t, the others as
// \u00xx in lower-case hex), every other character as it is. With
// kEscapeDelete, U+007F is written as \u007f too (the tool's and server's
// answers do; the evaluator's text form keeps the character). The text and
// the output may be of bytes (UTF-8, whose multi-byte sequences need no
// escape) or of wide characters.
//
// Thread safety: a pure function.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace kiv::json {

enum EEscapeDelete : bool { kKeepDelete = false, kEscapeDelete = true };

// Whether the character `u` (its code, unsigned) is escaped in a string
// literal. Written with bitwise operators so that a block of tests has no
// branches.
inline unsigned needsJsonEscape(std::uint32_t u, EEscapeDelete escapeDelete = kKeepDelete) noexcept {
    return static_cast<unsigned>(u == 0x22) | static_cast<unsigned>(u == 0x5C) | static_cast<unsigned>(u < 0x20) |
           (static_cast<unsigned>(u == 0x7F) & static_cast<unsigned>(escapeDelete));
}

template <class Char>
void appendJsonEscaped(std::basic_string<Char>& out, std::basic_string_view<Char> s,
                       EEscapeDelete escapeDelete = kKeepDelete) {
    using U = std::make_unsigned_t<Char>;
    const auto needsEscape = [escapeDelete](Char c) noexcept {
        return needsJsonEscape(static_cast<std::uint32_t>(static_cast<U>(c)), escapeDelete);
    };
    constexpr std::size_t kBlock = 16;
    static constexpr char kHex[] = "0123456789abcdef";
    const auto put = [&out](const char* ascii) {
        for (; *ascii; ++ascii) out.push_back(static_cast<Char>(*ascii));
    };
    std::size_t run = 0;  // start of the characters not yet written
    std::size_t i = 0;
    while (i < s.size()) {
        // Most text needs no escape: a whole block is tested at once and,
        // when nothing in it does, skipped.
        if (i + kBlock <= s.size()) {
            unsigned any = 0;
            for (std::size_t k = 0; k < kBlock; ++k) any |= needsEscape(s[i + k]);
            if (!any) {
                i += kBlock;
                continue;
            }
        }
        const std::size_t end = i + kBlock < s.size() ? i + kBlock : s.size();
        for (; i < end; ++i) {
            const Char c = s[i];
            if (!needsEscape(c)) continue;
            out.append(s.data() + run, i - run);
            run = i + 1;
            switch (static_cast<std::uint32_t>(static_cast<U>(c))) {
                case '"': put("\\\""); break;
                case '\\': put("\\\\"); break;
                case '\b': put("\\b"); break;
                case '\f': put("\\f"); break;
                case '\n': put("\\n"); break;
                case '\r': put("\\r"); break;
                case '\t': put("\\t"); break;
                default: {
                    const auto u = static_cast<std::uint32_t>(static_cast<U>(c));
                    put("\\u00");
                    out.push_back(static_cast<Char>(kHex[(u >> 4) & 0xF]));
                    out.push_back(static_cast<Char>(kHex[u & 0xF]));
                }
            }
        }
    }
    out.append(s.data() + run, s.size() - run);
}

}  // namespace kiv::json
