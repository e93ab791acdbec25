#include "qz/webcatalog/compacttext.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "qz/platform/exception.h"

namespace kiv::catalog {
namespace {

int sign(int v) { return v < 0 ? -1 : (v > 0 ? 1 : 0); }

// Random texts over an alphabet of one-byte, wide and out-of-range characters.
std::wstring randomText(std::mt19937& rng) {
    static const wchar_t alphabet[] = {L'/', L'a', L'b', L'\x7F', L'\x80', L'\xE9', L'\xFF',
                                       L'\x100', L'\x4E2D', L'\U0001F600', static_cast<wchar_t>(0x80000001u)};
    std::wstring text(rng() % 6, L'a');
    for (auto& c : text) c = alphabet[rng() % std::size(alphabet)];
    return text;
}

TEST(CompactTextTest, TheFormFollowsTheWidestCharacter) {
    EXPECT_TRUE(CompactText().isAscii());
    EXPECT_FALSE(CompactText().isWide());
    const CompactText ascii(std::wstring_view(L"/shared/Sales"));
    EXPECT_FALSE(ascii.isWide());
    EXPECT_TRUE(ascii.isAscii());
    const CompactText latin1(std::wstring_view(L"/r\u00e9sum\u00e9\u00ff"));
    EXPECT_FALSE(latin1.isWide());
    EXPECT_FALSE(latin1.isAscii());
    EXPECT_TRUE(CompactText(std::wstring_view(L"/\u0100")).isWide());
    EXPECT_TRUE(CompactText(std::wstring_view(L"/\U0001F600")).isWide());
    const wchar_t negative[] = {L'/', static_cast<wchar_t>(0x80000001u)};
    EXPECT_TRUE(CompactText(std::wstring_view(negative, 2)).isWide());
    // The same from UTF-8 and from narrow characters.
    EXPECT_TRUE(CompactText::fromUtf8("/shared/Sales").isAscii());
    EXPECT_EQ(CompactText::fromUtf8("/shared/Sales"), ascii);
    EXPECT_FALSE(CompactText::fromUtf8("/r\xc3\xa9sum\xc3\xa9\xc3\xbf").isAscii());
    EXPECT_EQ(CompactText::fromUtf8("/r\xc3\xa9sum\xc3\xa9\xc3\xbf"), latin1);
    const unsigned char bytes[] = {'/', 0xE9};
    EXPECT_FALSE(CompactText(CompactText::Narrow(bytes, 2)).isAscii());
    EXPECT_TRUE(CompactText(CompactText::Narrow(bytes, 1)).isAscii());
}

TEST(CompactTextTest, EveryFormGivesItsTextBack) {
    for (const wchar_t* s : {L"", L"/a", L"/r\u00e9sum\u00e9", L"/\u4e2d\U0001F600x"}) {
        const CompactText t{std::wstring_view(s)};
        EXPECT_EQ(t.toString(), String(s));
        EXPECT_EQ(t.size(), std::wcslen(s));
        for (std::size_t i = 0; i < t.size(); ++i) EXPECT_EQ(t[i], s[i]);
        String appended(L">");
        t.appendTo(appended);
        EXPECT_EQ(appended, String(L">") + s);
    }
}

TEST(CompactTextTest, EqualTextsAreEqualWhateverTheyWereMadeFrom) {
    const unsigned char bytes[] = {'/', 'a', 0xE9};
    const CompactText fromBytes{CompactText::Narrow(bytes, 3)};
    const CompactText fromWide{std::wstring_view(L"/a\u00e9")};
    const wchar_t wideChars[] = {L'/', L'a', L'\xE9'};
    const CompactText fromWideSpan{CompactText::Wide(wideChars, 3)};
    const CompactText fromUtf8 = CompactText::fromUtf8("/a\xC3\xA9");
    for (const CompactText* t : {&fromWide, &fromWideSpan, &fromUtf8}) {
        EXPECT_FALSE(t->isWide());
        EXPECT_EQ(*t, fromBytes);
        EXPECT_EQ(compare(*t, fromBytes), 0);
        EXPECT_EQ(t->contentHash(), fromBytes.contentHash());
    }
    EXPECT_EQ(CompactText::fromUtf8("/\xE4\xB8\xAD"), CompactText(std::wstring_view(L"/\u4e2d")));
    EXPECT_NE(CompactText(std::wstring_view(L"/\u00e9")), CompactText(std::wstring_view(L"/\u0100")));
    EXPECT_NE(CompactText(std::wstring_view(L"/a")), CompactText());
}

TEST(CompactTextTest, OrderAndEqualityAreThoseOfTheWideTexts) {
    std::mt19937 rng(3);
    for (int i = 0; i < 5000; ++i) {
        const std::wstring a = randomText(rng), b = randomText(rng);
        const CompactText ta{std::wstring_view(a)}, tb{std::wstring_view(b)};
        SCOPED_TRACE(testing::Message() << ta.isWide() << tb.isWide());
        EXPECT_EQ(sign(compare(ta, tb)), sign(a.compare(b)));
        EXPECT_EQ(ta < tb, a < b);
        EXPECT_EQ(ta == tb, a == b);
    }
}

// Long one-byte texts, compared 16 and 32 bytes at a time: every length up
// to 100 against texts that differ from it at each position (in both
// directions, also above U+007F) or only in length.
TEST(CompactTextTest, LongNarrowTextsKeepTheOrderOfTheWideTexts) {
    std::mt19937 rng(11);
    const auto check = [](const std::wstring& a, const std::wstring& b) {
        const CompactText ta{std::wstring_view(a)}, tb{std::wstring_view(b)};
        ASSERT_FALSE(ta.isWide());
        ASSERT_FALSE(tb.isWide());
        SCOPED_TRACE(testing::Message() << a.size() << " " << b.size());
        EXPECT_EQ(sign(compare(ta, tb)), sign(a.compare(b)));
        EXPECT_EQ(sign(compare(tb, ta)), sign(b.compare(a)));
        EXPECT_EQ(ta < tb, a < b);
        EXPECT_EQ(ta == tb, a == b);
    };
    for (std::size_t n = 0; n <= 100; ++n) {
        std::wstring a(n, L'a');
        for (auto& c : a) c = static_cast<wchar_t>(L'/' + rng() % 0xD0);  // up to U+00FE
        check(a, a);
        check(a, a + L'x');
        if (n > 0) check(a, a.substr(0, n - 1));
        for (std::size_t at = 0; at < n; ++at) {
            std::wstring b = a;
            b[at] = static_cast<wchar_t>(b[at] + 1);
            check(a, b);
            b.resize(at + 1 + rng() % (n + 1));
            check(a, b);
        }
    }
}

TEST(CompactTextTest, APieceOfAWideTextIsNarrowWhenItCan) {
    const CompactText t{std::wstring_view(L"ab\u0100cd")};
    ASSERT_TRUE(t.isWide());
    EXPECT_FALSE(t.substr(0, 2).isWide());
    EXPECT_EQ(t.substr(0, 2), CompactText(std::wstring_view(L"ab")));
    EXPECT_EQ(t.substr(3, 2), CompactText(std::wstring_view(L"cd")));
    EXPECT_TRUE(t.substr(1, 2).isWide());
    EXPECT_EQ(t.substr(1, 2).toString(), L"b\u0100");
    EXPECT_TRUE(t.substr(5, 0).empty());
}

TEST(CompactTextTest, CopiesShareTheirBuffer) {
    const CompactText a{std::wstring_view(L"/x")};
    CompactText b = a;
    EXPECT_TRUE(b.sharesStorageWith(a));
    const CompactText c{std::wstring_view(L"/x")};
    EXPECT_FALSE(c.sharesStorageWith(a));
    EXPECT_EQ(c, a);
    CompactText d(std::move(b));
    EXPECT_TRUE(b.empty());
    EXPECT_TRUE(d.sharesStorageWith(a));
}

TEST(CompactTextTest, UTF8OutputOfEveryForm) {
    for (const wchar_t* s : {L"/shared/a", L"/r\u00e9sum\u00e9\u00ff", L"/\u4e2d\U0001F600\u00e9"}) {
        const CompactText t{std::wstring_view(s)};
        EXPECT_EQ(t.toUtf8(), utf8::encode(s));
        std::string out = "x";
        t.appendUtf8(out);
        EXPECT_EQ(out, "x" + utf8::encode(s));
        EXPECT_EQ(CompactText::fromUtf8(t.toUtf8()), t);
    }
}

TEST(CompactTextTest, TheStrictCodecRefusesWhatIsNotUnicode) {
    const wchar_t surrogate[] = {L'/', static_cast<wchar_t>(0xD800)};
    EXPECT_THROW(CompactText(std::wstring_view(surrogate, 2)).toUtf8(), Utf8Error);
    EXPECT_THROW(CompactText::fromUtf8("/\xC3"), Utf8Error);
    EXPECT_THROW(CompactText::fromUtf8("/\xC0\xAF"), Utf8Error);
}

TEST(CompactTextTest, BuildWritesTheGivenForm) {
    const CompactText narrow = CompactText::build(2, false, [](auto* out) {
        out[0] = 'o';
        out[1] = static_cast<std::remove_pointer_t<decltype(out)>>(0xE9);
    });
    EXPECT_FALSE(narrow.isWide());
    EXPECT_FALSE(narrow.isAscii());
    EXPECT_EQ(narrow.toString(), L"o\u00e9");
    const CompactText wide = CompactText::build(1, true, [](auto* out) {
        out[0] = static_cast<std::remove_pointer_t<decltype(out)>>(0x4E2D);
    });
    EXPECT_TRUE(wide.isWide());
    EXPECT_EQ(wide.toString(), L"\u4e2d");
    EXPECT_TRUE(CompactText::build(0, false, [](auto*) {}).empty());
}

}  // namespace
}  // namespace kiv::catalog
