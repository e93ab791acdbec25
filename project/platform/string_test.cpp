#include "qz/platform/string.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

#include "asciiblocks.h"
#include "qz/platform/exception.h"
#include "qz/platform/jsonescape.h"

namespace kiv {
namespace {

std::string bytes(std::initializer_list<unsigned> values) {
    std::string s;
    for (unsigned v : values) s.push_back(static_cast<char>(v));
    return s;
}

void expectDecodeFails(const std::string& in) {
    EXPECT_THROW(utf8::decode(in), Utf8Error) << "input of " << in.size() << " bytes";
    EXPECT_FALSE(utf8::isValid(in));
    EXPECT_THROW(String::fromUtf8(in), Utf8Error);
}

// --- decoding and encoding ------------------------------------------------

TEST(Utf8Codec, AsciiRoundTripsUnchanged) {
    const std::string in = "Hello, world! /users/joe/favorites";
    const String s = String::fromUtf8(in);
    EXPECT_EQ(s, String(L"Hello, world! /users/joe/favorites"));
    EXPECT_EQ(s.toUtf8(), in);
}

TEST(Utf8Codec, EmptyTextRoundTrips) {
    EXPECT_TRUE(utf8::decode("").empty());
    EXPECT_TRUE(utf8::encode(L"").empty());
    EXPECT_TRUE(utf8::isValid(""));
}

TEST(Utf8Codec, TwoThreeAndFourByteCharactersRoundTrip) {
    const std::wstring wide = {L'a', 0xE9, 0x20AC, 0x4E2D, 0x1F600, 0x10FFFF, L'z'};
    const std::string enc = utf8::encode(wide);
    EXPECT_EQ(enc, bytes({'a', 0xC3, 0xA9, 0xE2, 0x82, 0xAC, 0xE4, 0xB8, 0xAD, 0xF0, 0x9F, 0x98, 0x80, 0xF4,
                          0x8F, 0xBF, 0xBF, 'z'}));
    EXPECT_EQ(utf8::decode(enc), wide);
    EXPECT_TRUE(utf8::isValid(enc));
}

TEST(Utf8Codec, MalformedByteAfterLongAsciiRunsIsFound) {
    // Every offset relative to the eight-byte steps over ASCII text.
    for (std::size_t prefix = 0; prefix < 20; ++prefix) {
        std::string in(prefix, 'a');
        in += bytes({0xC3});  // truncated
        EXPECT_FALSE(utf8::isValid(in)) << prefix;
        in += bytes({0xA9});
        in += std::string(prefix, 'b');
        EXPECT_TRUE(utf8::isValid(in)) << prefix;
        in += bytes({0xFF});
        EXPECT_FALSE(utf8::isValid(in)) << prefix;
    }
}

TEST(Utf8Codec, AsciiPrefixFollowedByOtherCharactersRoundTrips) {
    const std::wstring wide = L"/shared/report-\u00e9t\u00e9/\u4e2d\U0001F600/end";
    const std::string enc = utf8::encode(wide);
    EXPECT_EQ(enc, "/shared/report-\xc3\xa9t\xc3\xa9/\xe4\xb8\xad\xf0\x9f\x98\x80/end");
    EXPECT_EQ(utf8::decode(enc), wide);
    EXPECT_EQ(utf8::decode(enc).size(), wide.size());
}

TEST(Utf8Codec, EncodedLengthCountsBytesAndRefusesNonScalarValues) {
    EXPECT_EQ(utf8::encodedLength(L""), 0u);
    EXPECT_EQ(utf8::encodedLength(std::wstring(40, L'a') + L"\u00e9\u4e2d\U0001F600"), 40u + 2 + 3 + 4);
    EXPECT_EQ(utf8::encodedLength(std::wstring(20, L'a') + wchar_t(0xD800)), SIZE_MAX);
    EXPECT_EQ(utf8::encodedLength(std::wstring(1, wchar_t(0x110000))), SIZE_MAX);
}

TEST(Utf8Codec, BoundedEncoderWritesWhatFitsAndRefusesTheRest) {
    const std::wstring in = std::wstring(20, L'a') + L"\u00e9\u4e2d\U0001F600";
    std::string buf(40, '\0');
    ASSERT_EQ(utf8::encodeIntoBounded(in, buf.data(), 29), 29u);  // exactly enough room
    EXPECT_EQ(buf.substr(0, 29), utf8::encode(in));
    EXPECT_EQ(utf8::encodeIntoBounded(in, buf.data(), 28), SIZE_MAX);  // the emoji does not fit
    EXPECT_EQ(utf8::encodeIntoBounded(in, buf.data(), 19), SIZE_MAX);  // nor does the ASCII run
    EXPECT_EQ(utf8::encodeIntoBounded(std::wstring(20, L'a'), buf.data(), 20), 20u);
    EXPECT_EQ(utf8::encodeIntoBounded(L"", buf.data(), 0), 0u);
    EXPECT_EQ(utf8::encodeIntoBounded(std::wstring(3, L'a') + wchar_t(0xD800), buf.data(), 40), SIZE_MAX);
    EXPECT_EQ(utf8::encodeIntoBounded(std::wstring(1, wchar_t(0x110000)), buf.data(), 40), SIZE_MAX);
}

TEST(Utf8Codec, EncodeAppendKeepsWhatPrecedesARefusedCharacter) {
    std::string out = "x";
    const std::wstring in = std::wstring(L"ab\u00e9") + wchar_t(0xDC00) + L"cd";
    EXPECT_THROW(utf8::encodeAppend(in, out), Utf8Error);
    EXPECT_EQ(out, "xab\xc3\xa9");
    out.clear();
    EXPECT_THROW(utf8::encodeAppend(std::wstring(1, wchar_t(0x110000)), out), Utf8Error);
    EXPECT_EQ(out, "");
}

TEST(Utf8Codec, ReplacingEncoderWritesReplacementCharacters) {
    std::string out = "p:";
    const std::wstring in = std::wstring(18, L'a') + wchar_t(0xD800) + L"\u00e9" + wchar_t(0x110000);
    utf8::encodeAppendReplacing(in, out);
    EXPECT_EQ(out, "p:" + std::string(18, 'a') + "\xef\xbf\xbd\xc3\xa9\xef\xbf\xbd");
    char buf[8];
    EXPECT_EQ(utf8::encodeInto(L"\u4e2d", buf) - buf, 3);
    EXPECT_EQ(std::string(buf, 3), "\xe4\xb8\xad");
}

TEST(Utf8Codec, ReplacingDecoderReplacesEachBadByte) {
    std::wstring out = L"old";
    utf8::decodeReplacing(std::string(17, 'a') + bytes({0xC3, 0xA9, 0xFF, 0xC0, 0xAF, 0xE4, 0xB8}) + "z", out);
    EXPECT_EQ(out, std::wstring(17, L'a') + L"\u00e9\ufffd\ufffd\ufffd\ufffd\ufffdz");
    utf8::decodeReplacing(bytes({0xED, 0xA0, 0x80}), out);  // a surrogate: three bad bytes
    EXPECT_EQ(out, L"\ufffd\ufffd\ufffd");
    utf8::decodeReplacing("", out);
    EXPECT_TRUE(out.empty());
}

TEST(Utf8Codec, BoundaryCodePointsRoundTrip) {
    for (char32_t cp : {0x0u, 0x7Fu, 0x80u, 0x7FFu, 0x800u, 0xD7FFu, 0xE000u, 0xFFFDu, 0xFFFFu, 0x10000u, 0x10FFFFu}) {
        const std::wstring one(1, static_cast<wchar_t>(cp));
        EXPECT_EQ(utf8::decode(utf8::encode(one)), one) << std::hex << static_cast<unsigned>(cp);
    }
}

TEST(Utf8Codec, EncodedLengthMatchesCodePointRange) {
    EXPECT_EQ(utf8::encode(std::wstring(1, 0x7F)).size(), 1u);
    EXPECT_EQ(utf8::encode(std::wstring(1, 0x80)).size(), 2u);
    EXPECT_EQ(utf8::encode(std::wstring(1, 0x7FF)).size(), 2u);
    EXPECT_EQ(utf8::encode(std::wstring(1, 0x800)).size(), 3u);
    EXPECT_EQ(utf8::encode(std::wstring(1, 0xFFFF)).size(), 3u);
    EXPECT_EQ(utf8::encode(std::wstring(1, 0x10000)).size(), 4u);
}

TEST(Utf8Codec, EncodeAppendAddsToWhatTheBufferHolds) {
    std::string out = "x";
    utf8::encodeAppend(std::wstring{L'a', 0xE9, 0x1F600}, out);
    EXPECT_EQ(out, bytes({'x', 'a', 0xC3, 0xA9, 0xF0, 0x9F, 0x98, 0x80}));
    utf8::encodeAppend(L"", out);
    EXPECT_EQ(out.size(), 8u);
}

TEST(Utf8Codec, EncodeAppendRefusingACharacterKeepsTheTextBeforeIt) {
    std::string out = "x";
    EXPECT_THROW(utf8::encodeAppend(std::wstring{L'a', 0xE9, static_cast<wchar_t>(0xD800), L'b'}, out), Utf8Error);
    EXPECT_EQ(out, bytes({'x', 'a', 0xC3, 0xA9}));
    out = "y";
    EXPECT_THROW(utf8::encodeAppend(std::wstring{L'c', static_cast<wchar_t>(0x110000)}, out), Utf8Error);
    EXPECT_EQ(out, "yc");
}

TEST(Utf8Codec, EmbeddedNulRoundTrips) {
    const std::string in("a\0b", 3);
    const std::wstring out = utf8::decode(in);
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[1], L'\0');
    EXPECT_EQ(utf8::encode(out), in);
}

TEST(Utf8Codec, DecodingATruncatedSequenceThrows) {
    expectDecodeFails(bytes({0xC3}));
    expectDecodeFails(bytes({0xE2, 0x82}));
    expectDecodeFails(bytes({0xF0, 0x9F, 0x98}));
    expectDecodeFails(bytes({'a', 'b', 0xF0}));
}

TEST(Utf8Codec, DecodingABadContinuationByteThrows) {
    expectDecodeFails(bytes({0xC3, 0x28}));
    expectDecodeFails(bytes({0xE2, 0x28, 0xA1}));
    expectDecodeFails(bytes({0xE2, 0x82, 0x28}));
    expectDecodeFails(bytes({0xF0, 0x9F, 0x98, 0x41}));
    expectDecodeFails(bytes({0xC3, 0xC3}));
}

TEST(Utf8Codec, DecodingAnOverlongTwoByteSequenceThrows) {
    expectDecodeFails(bytes({0xC0, 0x80}));  // U+0000
    expectDecodeFails(bytes({0xC1, 0xBF}));  // U+007F
}

TEST(Utf8Codec, DecodingAnOverlongThreeByteSequenceThrows) {
    expectDecodeFails(bytes({0xE0, 0x80, 0x80}));  // U+0000
    expectDecodeFails(bytes({0xE0, 0x9F, 0xBF}));  // U+07FF
}

TEST(Utf8Codec, DecodingAnOverlongFourByteSequenceThrows) {
    expectDecodeFails(bytes({0xF0, 0x80, 0x80, 0x80}));  // U+0000
    expectDecodeFails(bytes({0xF0, 0x8F, 0xBF, 0xBF}));  // U+FFFF
}

TEST(Utf8Codec, DecodingAnEncodedSurrogateThrows) {
    expectDecodeFails(bytes({0xED, 0xA0, 0x80}));  // U+D800
    expectDecodeFails(bytes({0xED, 0xBF, 0xBF}));  // U+DFFF
    // A surrogate pair encoded as two three-byte sequences (CESU-8).
    expectDecodeFails(bytes({0xED, 0xA0, 0xBD, 0xED, 0xB8, 0x80}));
}

TEST(Utf8Codec, DecodingACodePointAboveTheUnicodeRangeThrows) {
    expectDecodeFails(bytes({0xF4, 0x90, 0x80, 0x80}));  // U+110000
    expectDecodeFails(bytes({0xF4, 0xBF, 0xBF, 0xBF}));
}

TEST(Utf8Codec, DecodingALoneContinuationByteThrows) {
    expectDecodeFails(bytes({0x80}));
    expectDecodeFails(bytes({0xBF}));
    expectDecodeFails(bytes({'a', 0x80, 'b'}));
}

TEST(Utf8Codec, DecodingANeverValidLeadByteThrows) {
    for (unsigned b : {0xC0u, 0xC1u, 0xF5u, 0xF6u, 0xF7u, 0xF8u, 0xFBu, 0xFCu, 0xFDu, 0xFEu, 0xFFu}) {
        SCOPED_TRACE(b);
        expectDecodeFails(bytes({b, 0x80, 0x80, 0x80}));
        expectDecodeFails(bytes({b}));
    }
}

TEST(Utf8Codec, DecodeErrorNamesTheByteOffset) {
    try {
        utf8::decode(bytes({'a', 'b', 'c', 0xFF}));
        FAIL() << "no exception";
    } catch (const Utf8Error& e) {
        EXPECT_NE(e.getMessageText().find(L"at byte 3"), String::npos) << e.what();
    }
}

TEST(Utf8Codec, ValidityCheckAcceptsWellFormedText) {
    EXPECT_TRUE(utf8::isValid(bytes({0xF0, 0x9F, 0x98, 0x80, 'x', 0xC3, 0xA9})));
}

TEST(Utf8Codec, EncodingASurrogateThrows) {
    EXPECT_THROW(utf8::encode(std::wstring(1, static_cast<wchar_t>(0xD800))), Utf8Error);
    EXPECT_THROW(utf8::encode(std::wstring(1, static_cast<wchar_t>(0xDFFF))), Utf8Error);
    EXPECT_THROW(String(std::wstring{L'a', static_cast<wchar_t>(0xDC00)}).toUtf8(), Utf8Error);
}

TEST(Utf8Codec, EncodingACharacterAboveTheUnicodeRangeThrows) {
    EXPECT_THROW(utf8::encode(std::wstring(1, static_cast<wchar_t>(0x110000))), Utf8Error);
    EXPECT_THROW(utf8::encode(std::wstring(1, static_cast<wchar_t>(0x7FFFFFFF))), Utf8Error);
}

TEST(Utf8Codec, EncodingANegativeWideCharacterThrows) {
    EXPECT_THROW(utf8::encode(std::wstring(1, static_cast<wchar_t>(-1))), Utf8Error);
}

// The ASCII runs are converted 16 characters at a time: a character that is
// not ASCII must be found at every place in a block, in the last partial
// block and right after a block.
TEST(Utf8Codec, NonAsciiCharacterAtEveryPlaceOfTheBlocksRoundTrips) {
    for (const wchar_t other : {wchar_t{0x80}, wchar_t{0xFF}, wchar_t{0x100}, wchar_t{0x4E2D}, wchar_t{0x1F600}}) {
        for (std::size_t length = 1; length <= 50; ++length) {
            for (std::size_t at = 0; at < length; ++at) {
                std::wstring wide;
                for (std::size_t i = 0; i < length; ++i) wide.push_back(static_cast<wchar_t>(L'!' + i % 90));
                wide[at] = other;
                const std::string enc = utf8::encode(wide);
                ASSERT_EQ(enc.size(), length - 1 + (other < 0x80 ? 1 : other < 0x800 ? 2 : other < 0x10000 ? 3 : 4))
                    << length << " " << at;
                ASSERT_EQ(enc.substr(0, at), utf8::encode(wide.substr(0, at))) << length << " " << at;
                ASSERT_EQ(utf8::decode(enc), wide) << length << " " << at;
            }
        }
    }
}

TEST(Utf8Codec, CharacterOutsideTheUnicodeRangeInsideAnAsciiBlockIsRefused) {
    // Each has ASCII low bits, so only a check of every bit above the low
    // seven tells it from an ASCII character.
    for (const wchar_t bad : {static_cast<wchar_t>(-1), static_cast<wchar_t>(0x80000041), static_cast<wchar_t>(0x10041),
                              static_cast<wchar_t>(0x110041)}) {
        for (std::size_t at = 0; at < 40; ++at) {
            std::wstring wide(40, L'a');
            wide[at] = bad;
            if (bad == static_cast<wchar_t>(0x10041)) {
                EXPECT_EQ(utf8::encode(wide).size(), 39u + 4u) << at;  // a valid scalar value, four bytes
                continue;
            }
            EXPECT_THROW(utf8::encode(wide), Utf8Error) << at;
            EXPECT_EQ(utf8::encodedLength(wide), SIZE_MAX) << at;
            std::string out = "x";
            EXPECT_THROW(utf8::encodeAppend(wide, out), Utf8Error) << at;
            EXPECT_EQ(out, "x" + std::string(at, 'a')) << at;
        }
    }
}

TEST(Utf8Codec, ByteWithTheTopBitSetInsideAnAsciiBlockIsDecodedAsPartOfItsSequence) {
    for (std::size_t at = 0; at + 2 <= 40; ++at) {
        std::string in(40, 'a');
        in[at] = static_cast<char>(0xC3);
        in[at + 1] = static_cast<char>(0xA9);
        std::wstring expected(39, L'a');
        expected[at] = L'\u00e9';
        EXPECT_EQ(utf8::decode(in), expected) << at;
    }
}

// The block conversions the codec and the JSON writer use: a block converts
// exactly when every character passes, for every value at every place, and
// then character for character.
TEST(AsciiBlocks, ABlockConvertsExactlyWhenEveryCharacterPasses) {
    using namespace detail;
    for (unsigned value = 0; value < 256; ++value) {
        for (std::size_t at = 0; at < kAsciiBlock; ++at) {
            char narrow[kAsciiBlock];
            for (std::size_t i = 0; i < kAsciiBlock; ++i) narrow[i] = static_cast<char>('A' + i);
            narrow[at] = static_cast<char>(value);
            wchar_t expected[kAsciiBlock];
            for (std::size_t i = 0; i < kAsciiBlock; ++i) expected[i] = static_cast<unsigned char>(narrow[i]);
            wchar_t a[kAsciiBlock] = {};
            const bool widened = widenAsciiBlock(narrow, a);
            ASSERT_EQ(widened, value < 0x80) << value << " " << at;
            if (widened) {
                ASSERT_EQ(std::wmemcmp(a, expected, kAsciiBlock), 0) << value << " " << at;
            }
            wchar_t b[kAsciiBlock] = {};
            const bool plain = widenJsonPlainBlock(narrow, b);
            ASSERT_EQ(plain, value >= 0x20 && value < 0x80 && value != '"' && value != '\\') << value << " " << at;
            if (plain) {
                ASSERT_EQ(std::wmemcmp(b, expected, kAsciiBlock), 0) << value << " " << at;
            }
        }
    }
    for (const wchar_t value : {wchar_t{0}, wchar_t{0x41}, wchar_t{0x7F}, wchar_t{0x80}, wchar_t{0xFF}, wchar_t{0x100},
                                wchar_t{0x4E2D}, wchar_t{0xFFFF}, wchar_t{0x10041}, wchar_t{0x10FFFF},
                                static_cast<wchar_t>(-1), static_cast<wchar_t>(0x80000041)}) {
        for (std::size_t at = 0; at < kAsciiBlock; ++at) {
            wchar_t wide[kAsciiBlock];
            for (std::size_t i = 0; i < kAsciiBlock; ++i) wide[i] = static_cast<wchar_t>(L'a' + i);
            wide[at] = value;
            char a[kAsciiBlock] = {};
            const bool narrowed = narrowAsciiBlock(wide, a);
            const auto code = static_cast<std::uint32_t>(value);
            ASSERT_EQ(narrowed, code < 0x80) << code << " " << at;
            if (narrowed) {
                for (std::size_t i = 0; i < kAsciiBlock; ++i) {
                    ASSERT_EQ(static_cast<wchar_t>(a[i]), wide[i]) << code << " " << at;
                }
            }
        }
    }
}

// --- comparisons -------------------------------------------------------------

TEST(StringCompare, CompareIsThreeWayByCodePoint) {
    EXPECT_EQ(String(L"abc").compare(String(L"abc")), 0);
    EXPECT_EQ(String(L"abc").compare(String(L"abd")), -1);
    EXPECT_EQ(String(L"abd").compare(String(L"abc")), 1);
    EXPECT_EQ(String(L"ab").compare(String(L"abc")), -1);
    EXPECT_EQ(String(L"B").compare(String(L"a")), -1);  // upper case sorts first by code point
    EXPECT_EQ(String(std::wstring(1, 0x1F600)).compare(String(std::wstring(1, 0xFFFF))), 1);
}

TEST(StringCompare, EqualsIsExact) {
    EXPECT_TRUE(String(L"Report").equals(String(L"Report")));
    EXPECT_FALSE(String(L"Report").equals(String(L"report")));
    EXPECT_FALSE(String(L"Report").equals(String(L"Report ")));
}

TEST(StringCompare, CompareNoCaseIgnoresAsciiCase) {
    EXPECT_EQ(String(L"Favorites").compareNoCase(String(L"fAVORITES")), 0);
    EXPECT_TRUE(String(L"ABC").equalsNoCase(String(L"abc")));
    EXPECT_LT(String(L"abc").compareNoCase(String(L"ABD")), 0);
    EXPECT_GT(String(L"ABD").compareNoCase(String(L"abc")), 0);
    EXPECT_LT(String(L"ab").compareNoCase(String(L"ABC")), 0);
}

TEST(StringCompare, CompareNoCaseFoldsLettersBeyondAscii) {
    EXPECT_TRUE(String(L"\u00C4RGER").equalsNoCase(String(L"\u00E4rger")));
    EXPECT_TRUE(String(L"\u0391\u0392\u0393").equalsNoCase(String(L"\u03B1\u03B2\u03B3")));
    EXPECT_FALSE(String(L"\u00C4").equalsNoCase(String(L"a")));
}

TEST(StringCompare, CompareNoCaseLooksPastAnEmbeddedNul) {
    const String a(std::wstring(L"a\0b", 3));
    const String b(std::wstring(L"A\0C", 3));
    EXPECT_LT(a.compareNoCase(b), 0);
    EXPECT_EQ(a.compareNoCase(String(std::wstring(L"A\0B", 3))), 0);
}

TEST(StringCompare, WcsicmpComparesWithoutCase) {
    using posixstrsupport::wcsicmp;
    EXPECT_EQ(wcsicmp(L"Hello", L"hELLO"), 0);
    EXPECT_LT(wcsicmp(L"apple", L"Banana"), 0);
    EXPECT_GT(wcsicmp(L"Banana", L"apple"), 0);
    EXPECT_LT(wcsicmp(L"abc", L"abcd"), 0);
    EXPECT_GT(wcsicmp(L"abcd", L"ABC"), 0);
    EXPECT_EQ(wcsicmp(L"", L""), 0);
    EXPECT_EQ(wcsicmp(L"\u00C9T\u00C9", L"\u00E9t\u00E9"), 0);
}

TEST(StringBasics, BlankConstantIsEmpty) { EXPECT_TRUE(s_ksBlank.empty()); }

TEST(StringBasics, HashOfEqualStringsIsEqual) {
    EXPECT_EQ(std::hash<String>()(String(L"x/y")), std::hash<String>()(String(std::wstring(L"x/y"))));
}

// --- JSON string escaping ----------------------------------------------------

// Every character at every place of a text longer than a block: escaped
// exactly when JSON requires it (DEL only when asked), the same in bytes and
// in wide characters.
TEST(JsonEscape, EachCharacterIsEscapedExactlyWhenJsonRequiresItAtEveryPlace) {
    const auto expected = [](unsigned c, bool escapeDelete) -> std::string {
        switch (c) {
            case '"': return "\\\"";
            case '\\': return "\\\\";
            case '\b': return "\\b";
            case '\f': return "\\f";
            case '\n': return "\\n";
            case '\r': return "\\r";
            case '\t': return "\\t";
            default: break;
        }
        if (c < 0x20 || (c == 0x7F && escapeDelete)) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            return buf;
        }
        return std::string(1, static_cast<char>(c));
    };
    for (const bool escapeDelete : {false, true}) {
        const auto mode = escapeDelete ? json::kEscapeDelete : json::kKeepDelete;
        for (unsigned c = 0; c < 0x80; ++c) {
            for (const std::size_t at : {std::size_t{0}, std::size_t{7}, std::size_t{15}, std::size_t{16},
                                         std::size_t{31}, std::size_t{36}}) {
                std::string text(37, 'a');
                text[at] = static_cast<char>(c);
                const std::string want =
                    std::string(at, 'a') + expected(c, escapeDelete) + std::string(36 - at, 'a');
                std::string narrow = "x";
                json::appendJsonEscaped(narrow, std::string_view(text), mode);
                ASSERT_EQ(narrow, "x" + want) << c << " at " << at;
                std::wstring wide;
                json::appendJsonEscaped(wide, std::wstring_view(std::wstring(text.begin(), text.end())), mode);
                ASSERT_EQ(wide, std::wstring(want.begin(), want.end())) << c << " at " << at;
            }
        }
    }
}

TEST(JsonEscape, CharactersBeyondAsciiAreWrittenAsTheyAre) {
    std::string narrow;
    json::appendJsonEscaped(narrow, std::string_view("\xc3\xbc\xe6\x9d\xb1 \xf0\x9f\x98\x80"));
    EXPECT_EQ(narrow, "\xc3\xbc\xe6\x9d\xb1 \xf0\x9f\x98\x80");
    std::wstring wide;
    json::appendJsonEscaped(wide, std::wstring_view(L"\u00fc\u6771 \U0001F600\u0080\u009f"));
    EXPECT_EQ(wide, L"\u00fc\u6771 \U0001F600\u0080\u009f");
}

}  // namespace
}  // namespace kiv
