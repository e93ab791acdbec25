// String: the platform's wide string of 32-bit characters.
//
// All names, paths, messages and keys inside the system are `String`s. Text
// crosses every boundary of the process (XML, SQLite, JSON, SOAP, the command
// line, files) as UTF-8 through the one strict codec declared here: malformed
// UTF-8 or a code point that is not a Unicode scalar value raises
// `Utf8Error` and is never silently replaced.
//
// Thread safety: a String is a value; distinct objects may be used from
// distinct threads freely, one object needs external synchronisation.
#pragma once

#include "qz/platform/export.h"

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

static_assert(sizeof(wchar_t) == 4, "kiv::String needs a 32-bit wchar_t");

namespace kiv {

class KIV_API String : public std::wstring {
public:
    using std::wstring::wstring;
    String() = default;
    String(const std::wstring& s) : std::wstring(s) {}
    String(std::wstring&& s) noexcept : std::wstring(std::move(s)) {}
    String(std::wstring_view s) : std::wstring(s) {}

    // Three-way comparison by code point: <0, 0 or >0.
    int compare(const String& other) const noexcept {
        return std::wstring::compare(other) < 0 ? -1 : (std::wstring::compare(other) > 0 ? 1 : 0);
    }
    bool equals(const String& other) const noexcept { return *this == other; }
    // Case-insensitive comparison (simple per-character case folding).
    int compareNoCase(const String& other) const noexcept;
    bool equalsNoCase(const String& other) const noexcept { return compareNoCase(other) == 0; }

    // UTF-8 conversion. fromUtf8 throws Utf8Error on invalid input.
    static String fromUtf8(std::string_view utf8);
    std::string toUtf8() const;
};

// The blank string constant.
extern KIV_API const String s_ksBlank;

// Strict UTF-8 codec used at every boundary.
namespace utf8 {
// Decodes UTF-8; throws Utf8Error (with the byte offset) on malformed input,
// overlong forms, surrogates and code points above U+10FFFF.
KIV_API std::wstring decode(std::string_view in);
// Decodes into `out` (reusing its storage), writing U+FFFD for each byte that
// does not start a well-formed sequence; never throws for bad input.
KIV_API void decodeReplacing(std::string_view in, std::wstring& out);
// Encodes; throws Utf8Error for a character that is not a Unicode scalar value.
KIV_API std::string encode(std::wstring_view in);
// The same, appended to `out` (whose storage a caller may reuse). On a throw,
// `out` holds the encoding of the characters before the offending one.
KIV_API void encodeAppend(std::wstring_view in, std::string& out);
// Appends the UTF-8 form of `in`, writing U+FFFD for each character that is
// not a Unicode scalar value (for texts that must be stored whatever they hold).
KIV_API void encodeAppendReplacing(std::wstring_view in, std::string& out);
// Number of UTF-8 bytes of `in`, or SIZE_MAX when it holds a character that is
// not a Unicode scalar value.
KIV_API std::size_t encodedLength(std::wstring_view in) noexcept;
// Writes the UTF-8 form of `in` to `out`, which has room for it (encodedLength
// bytes, or four a character), U+FFFD standing for any character that is not a
// scalar value; returns the end of what was written.
KIV_API char* encodeInto(std::wstring_view in, char* out) noexcept;
// Writes the UTF-8 form of `in` to `out`, which has room for `capacity` bytes,
// in one pass; returns the number of bytes written, or SIZE_MAX (what was
// written then is unspecified) when `in` holds a character that is not a
// Unicode scalar value or its UTF-8 form takes more than `capacity` bytes.
KIV_API std::size_t encodeIntoBounded(std::wstring_view in, char* out, std::size_t capacity) noexcept;
// True if `in` is well-formed UTF-8.
KIV_API bool isValid(std::string_view in) noexcept;
}  // namespace utf8

namespace posixstrsupport {
// Case-insensitive wide comparison in the manner of wcsicmp: <0, 0, >0.
KIV_API int wcsicmp(const wchar_t* a, const wchar_t* b) noexcept;
}  // namespace posixstrsupport

}  // namespace kiv

template <>
struct std::hash<kiv::String> {
    size_t operator()(const kiv::String& s) const noexcept { return std::hash<std::wstring>()(s); }
};
