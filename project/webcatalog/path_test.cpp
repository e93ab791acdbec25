#include "qz/webcatalog/path.h"

#include <gtest/gtest.h>

#include "qz/platform/exception.h"

#include <random>
#include <thread>
#include <vector>

namespace kiv::catalog {
namespace {

EItemNameValidity constructionError(const String& text) {
    try {
        Path p(text);
        return kItemNameValid;
    } catch (const CatalogNameException& e) {
        return e.getValidity();
    }
}

TEST(PathTest, TheEmptyTextGivesTheBlankPath) {
    const Path p(String(L""));
    EXPECT_TRUE(p.isBlank());
    EXPECT_EQ(p, kpBlank);
    EXPECT_EQ(p.toString(), L"");
}

TEST(PathTest, ATextWithoutLeadingSlashMustStartWithSlash) {
    EXPECT_EQ(constructionError(L"a/b"), kPathMustStartWithSlash);
}

TEST(PathTest, ATextLongerThanTheMaximumIsTooLong) {
    EXPECT_EQ(constructionError(L"/" + String(4095, L'a')), kItemNameValid);
    EXPECT_EQ(constructionError(L"/" + String(4096, L'a')), kPathTooLong);
}

TEST(PathTest, TheCheckedConstructorKeepsTheText) {
    EXPECT_EQ(Path(L"/shared/Sales").toString(), L"/shared/Sales");
    // Only the start and the length are checked on construction.
    EXPECT_NO_THROW(Path(L"/a//b"));
}

TEST(PathTest, TheUncheckedConstructorTakesAnything) {
    EXPECT_EQ(Path(L"no slash", kUnchecked).toString(), L"no slash");
    EXPECT_TRUE(Path(String(), kUnchecked).isBlank());
}

TEST(PathTest, CheckPathIsStrict) {
    EXPECT_EQ(Path::checkPath(L"/"), kItemNameValid);
    EXPECT_EQ(Path::checkPath(L"/a/b c/d\\/e"), kItemNameValid);
    EXPECT_EQ(Path::checkPath(L""), kPathEmpty);
    EXPECT_EQ(Path::checkPath(L"a"), kPathMustStartWithSlash);
    EXPECT_EQ(Path::checkPath(L"/" + String(4096, L'a')), kPathTooLong);
    EXPECT_EQ(Path::checkPath(L"/a//b"), kItemNameEmpty);
    EXPECT_EQ(Path::checkPath(L"/a/"), kItemNameEmpty);
    EXPECT_EQ(Path::checkPath(L"/a/  /b"), kItemNameAllWhiteSpace);
    EXPECT_EQ(Path::checkPath(L"/" + String(256, L'a')), kItemNameTooLong);
    EXPECT_EQ(Path::checkPath(L"/a\x01"), kItemNameControlCharacter);
    EXPECT_EQ(Path::checkPath(String(L"/a") + static_cast<wchar_t>(0xDC00)), kItemNameInvalidUnicode);
    EXPECT_EQ(Path::checkPath(L"/a\\x"), kEscapedItemNameBadEscape);
    EXPECT_EQ(Path::checkPath(L"/a\\"), kEscapedItemNameBadEscape);
}

TEST(PathTest, CheckAndSetPathSetsOnlyAValidPath) {
    Path p(L"/old");
    EXPECT_FALSE(p.checkAndSetPath(L"/a//b"));
    EXPECT_EQ(p.toString(), L"/old");
    EXPECT_FALSE(p.checkAndSetPath(L""));
    EXPECT_EQ(p.toString(), L"/old");
    EXPECT_TRUE(p.checkAndSetPath(L"/new/x"));
    EXPECT_EQ(p.toString(), L"/new/x");
}

TEST(PathTest, TheParentPathDropsTheLastComponent) {
    EXPECT_EQ(Path(L"/a/b/c").getParentPath().toString(), L"/a/b");
    EXPECT_EQ(Path(L"/a").getParentPath().toString(), L"/");
    EXPECT_TRUE(Path(L"/").getParentPath().isBlank());
    EXPECT_TRUE(kpBlank.getParentPath().isBlank());
    EXPECT_EQ(Path(L"/a/b\\/c").getParentPath().toString(), L"/a");
    EXPECT_EQ(Path(L"/a\\\\/c").getParentPath().toString(), L"/a\\\\");
}

TEST(PathTest, TheItemNameIsTheLastComponentUnescaped) {
    EXPECT_EQ(Path(L"/a/b").getItemName().toString(), L"b");
    EXPECT_EQ(Path(L"/a/b\\/c").getItemName().toString(), L"b/c");
    EXPECT_EQ(Path(L"/a/b\\\\").getItemName().toString(), L"b\\");
    EXPECT_THROW(Path(L"/").getItemName(), CatalogNameException);
    EXPECT_THROW(kpBlank.getItemName(), CatalogNameException);
}

TEST(PathTest, AppendingANameEscapesIt) {
    const ItemName name(L"x/y", ItemName::kNone);
    EXPECT_EQ((Path(L"/a") + name).toString(), L"/a/x\\/y");
    EXPECT_EQ((Path(L"/") + name).toString(), L"/x\\/y");
    Path p(L"/a");
    p += ItemName(L"b", ItemName::kNone);
    p += ItemName(L"c\\", ItemName::kNone);
    EXPECT_EQ(p.toString(), L"/a/b/c\\\\");
    EXPECT_EQ(p.getItemName().toString(), L"c\\");
    EXPECT_EQ(p.getParentPath().toString(), L"/a/b");
}

TEST(PathTest, AppendingBeyondTheMaximumLengthIsRefused) {
    Path p(L"/" + String(4090, L'a'));
    EXPECT_THROW(p += ItemName(L"abcdef", ItemName::kNone), CatalogNameException);
    EXPECT_EQ(p.size(), 4091u);
}

TEST(PathTest, AppendingDoesNotChangeCopies) {
    const Path a(L"/a");
    Path b = a;
    b += ItemName(L"b", ItemName::kNone);
    EXPECT_EQ(a.toString(), L"/a");
    EXPECT_EQ(b.toString(), L"/a/b");
}

TEST(PathTest, EqualityAndOrderFollowTheText) {
    EXPECT_EQ(Path(L"/a"), Path(L"/a"));
    EXPECT_NE(Path(L"/a"), Path(L"/b"));
    EXPECT_LT(Path(L"/a"), Path(L"/a/b"));
    EXPECT_LT(Path(L"/a/b"), Path(L"/b"));
    EXPECT_FALSE(Path(L"/b") < Path(L"/a"));
    EXPECT_LT(kpBlank, Path(L"/"));
}

struct RelationRow {
    const wchar_t* a;
    const wchar_t* b;
    EPathRelationship expected;
};

TEST(PathTest, RelationshipNamesEveryRelation) {
    const RelationRow rows[] = {
        {L"/a/b", L"/a/b", kSamePath},
        {L"/", L"/", kSamePath},
        {L"/a", L"/a/b", kAncestorOf},
        {L"/", L"/a/b", kAncestorOf},
        {L"/a/b/c", L"/a", kDescendantOf},
        {L"/a", L"/", kDescendantOf},
        {L"/a/b", L"/a/c", kSiblingOf},
        {L"/a", L"/b", kSiblingOf},
        {L"/a/b", L"/c/d", kNoRelation},
        {L"/a", L"/ab", kSiblingOf},
        {L"/a/b", L"/a/bc/d", kNoRelation},
        {L"/a", L"/a\\/b", kSiblingOf},
        {L"/a/b", L"/c", kNoRelation},
    };
    for (const RelationRow& row : rows) {
        SCOPED_TRACE(String(row.a).toUtf8() + " vs " + String(row.b).toUtf8());
        EXPECT_EQ(Path(row.a).relationship(Path(row.b)), row.expected);
    }
}

TEST(PathTest, RelationshipWithTheBlankPath) {
    EXPECT_EQ(kpBlank.relationship(kpBlank), kSamePath);
    EXPECT_EQ(kpBlank.relationship(Path(L"/a")), kNoRelation);
    EXPECT_EQ(Path(L"/a").relationship(kpBlank), kNoRelation);
}

TEST(PathTest, RelationshipNeverAnswersSameOrDescendant) {
    // The combined value exists for callers that test bits; the relation
    // itself always names one relation.
    EXPECT_EQ(kSameOrDescendant, kSamePath | kDescendantOf);
    const wchar_t* paths[] = {L"/", L"/a", L"/a/b", L"/a/c", L"/b"};
    for (const wchar_t* a : paths)
        for (const wchar_t* b : paths) EXPECT_NE(Path(a).relationship(Path(b)), kSameOrDescendant);
}

TEST(PathTest, CopiesShareTheirText) {
    const Path a(L"/shared/x");
    const Path b = a;
    EXPECT_TRUE(a.text().sharesStorageWith(b.text()));
    Path c;
    c = b;
    EXPECT_TRUE(c.text().sharesStorageWith(a.text()));
    Path d(std::move(c));
    EXPECT_TRUE(c.isBlank());
    EXPECT_TRUE(d.text().sharesStorageWith(a.text()));
}

TEST(PathTest, CopiesMayBeDroppedOnManyThreads) {
    const Path shared(L"/shared/concurrent");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 10000; ++i) {
                Path copy = shared;
                ASSERT_EQ(copy.size(), shared.size());
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(shared.toString(), L"/shared/concurrent");
}

// The hash rule, stated plainly: h = n; sample every character up to 10,
// else s characters at stride n/s (every character when the stride is 1);
// h = 13 h + 5 c with c a signed 32-bit value, modulo 2^64.
std::uint64_t expectedHash(const std::wstring& text) {
    const std::uint64_t n = text.size();
    std::uint64_t h = n;
    std::vector<std::uint64_t> positions;
    if (n <= 10) {
        for (std::uint64_t i = 0; i < n; ++i) positions.push_back(i);
    } else {
        std::uint64_t s = 10;
        if (n > 23) {
            s = 12;
            std::uint64_t m = n / 2;
            while (m > 19) {
                m = m / 2;
                s = s + 2;
            }
        }
        const std::uint64_t stride = n / s;
        if (stride == 1) {
            for (std::uint64_t i = 0; i < n; ++i) positions.push_back(i);
        } else {
            for (std::uint64_t k = 0; k < s; ++k) positions.push_back(k * stride);
        }
    }
    for (std::uint64_t pos : positions) {
        const std::int32_t c = static_cast<std::int32_t>(text[pos]);
        h = h * 13u + static_cast<std::uint64_t>(static_cast<std::int64_t>(c)) * 5u;
    }
    return h;
}

std::wstring patternText(std::size_t n) {
    static const wchar_t pattern[] = L"abcdefghijklmnopqrstuvwxyz0123456789";
    std::wstring s = L"/";
    for (std::size_t i = 0; s.size() < n; ++i) s.push_back(pattern[i % 36]);
    return s;
}

TEST(PathTest, TheHashFollowsTheSamplingRuleForEveryLengthClass) {
    for (std::size_t n : {1u, 10u, 11u, 23u, 24u, 40u, 41u, 80u, 200u}) {
        SCOPED_TRACE(n);
        const std::wstring text = patternText(n);
        ASSERT_EQ(text.size(), n);
        EXPECT_EQ(std::hash<Path>()(Path(text, kUnchecked)), expectedHash(text));
    }
}

TEST(PathTest, TheHashOfArbitraryTextsMatchesTheRule) {
    std::mt19937 rng(7);
    for (int i = 0; i < 500; ++i) {
        std::wstring text(rng() % 300, L'x');
        for (auto& c : text) c = static_cast<wchar_t>(rng() % 0x11000);
        EXPECT_EQ(std::hash<Path>()(Path(text, kUnchecked)), expectedHash(text));
    }
}

// Every length up to 3,000 and lengths around each doubling up to 2^22: the
// number of samples and the stride change at these boundaries.
TEST(PathTest, TheHashSamplesRightAtEveryLength) {
    std::vector<std::size_t> lengths;
    for (std::size_t n = 0; n <= 3000; ++n) lengths.push_back(n);
    for (std::size_t p = 2048; p <= (std::size_t{1} << 22); p *= 2)
        for (std::size_t n : {p * 5 / 4 - 1, p * 5 / 4, p * 5 / 4 + 1, p * 5 / 2 - 1, p * 5 / 2, p - 1, p, p + 1})
            lengths.push_back(n);
    std::mt19937 rng(5);
    std::wstring all(std::size_t{1} << 23, L'x');
    for (auto& c : all) c = static_cast<wchar_t>(L' ' + rng() % 0xC0);
    for (std::size_t n : lengths) {
        const std::wstring text = all.substr(0, n);
        ASSERT_EQ(std::hash<Path>()(Path(text, kUnchecked)), expectedHash(text)) << n;
    }
}

TEST(PathTest, TheHashHasTheseKnownValues) {
    // Worked out by hand from the rule.
    EXPECT_EQ(std::hash<Path>()(Path(L"/")), 248u);
    EXPECT_EQ(std::hash<Path>()(kpBlank), 0u);
    EXPECT_EQ(std::hash<Path>()(Path(patternText(10), kUnchecked)), 4299608999210ull);
    EXPECT_EQ(std::hash<Path>()(Path(patternText(11), kUnchecked)), 57687077384297ull);
    EXPECT_EQ(std::hash<Path>()(Path(patternText(23), kUnchecked)), 6096556146432ull);
    EXPECT_EQ(std::hash<Path>()(Path(patternText(24), kUnchecked)), 1053616073877619ull);
    EXPECT_EQ(std::hash<Path>()(Path(patternText(40), kUnchecked)), 241059138656514645ull);
    EXPECT_EQ(std::hash<Path>()(Path(patternText(41), kUnchecked)), 244996515042213934ull);
    EXPECT_EQ(std::hash<Path>()(Path(patternText(80), kUnchecked)), 12084736514450455887ull);
    EXPECT_EQ(std::hash<Path>()(Path(patternText(200), kUnchecked)), 8256710595368635635ull);
    EXPECT_EQ(std::hash<Path>()(Path(L"/r\u00e9sum\u00e9/\u4e2d\U0001F600")), 4411723534370ull);
}

TEST(PathTest, TheHashTakesCharactersAsSigned) {
    std::wstring text = L"/";
    text.push_back(static_cast<wchar_t>(0x80000001u));
    text.push_back(L'x');
    EXPECT_EQ(std::hash<Path>()(Path(text, kUnchecked)), 18446743934123161467ull);
}

TEST(PathTest, InvalidTextsNeverCrash) {
    std::mt19937 rng(11);
    const wchar_t alphabet[] = {L'/', L'\\', L'a', L' ', L'\x01', static_cast<wchar_t>(0xD800), L'\x9F', L'b'};
    for (int i = 0; i < 3000; ++i) {
        std::wstring text(rng() % 20, L'a');
        for (auto& c : text) c = alphabet[rng() % std::size(alphabet)];
        const String s(text);
        Path::checkPath(s);
        Path p(s, kUnchecked);
        Path parent = p.getParentPath();
        try {
            p.getItemName();
        } catch (const CatalogNameException&) {
        }
        p.relationship(parent);
        std::hash<Path>()(p);
        Path q;
        if (q.checkAndSetPath(s) && q.size() > 1) {
            EXPECT_EQ(Path::checkPath(q.getParentPath().toString()), kItemNameValid) << q.toString().size();
        }
    }
}

// Paths are kept one byte per character unless some character is above
// U+00FF; every operation must answer as on the wide text.

TEST(PathTest, NarrowAndWidePathsKeepTheirText) {
    EXPECT_FALSE(Path(L"/shared/r\u00e9sum\u00e9").text().isWide());
    EXPECT_TRUE(Path(L"/shared/\u4e2d").text().isWide());
    EXPECT_EQ(Path(L"/shared/\u4e2d\U0001F600").toString(), L"/shared/\u4e2d\U0001F600");
    EXPECT_EQ(Path(L"/shared/r\u00e9sum\u00e9").toString(), L"/shared/r\u00e9sum\u00e9");
}

TEST(PathTest, MixedFormsCompareAsTheirTexts) {
    const wchar_t* texts[] = {L"/", L"/a", L"/a/b", L"/\u00e9", L"/\u00ff", L"/\u0100", L"/\u4e2d",
                              L"/a/\u4e2d", L"/a/\u00e9", L"/\U0001F600", L"/a\u0100b", L"/ab"};
    for (const wchar_t* a : texts)
        for (const wchar_t* b : texts) {
            SCOPED_TRACE(testing::Message() << String(a).toUtf8() << " " << String(b).toUtf8());
            EXPECT_EQ(Path(a) < Path(b), std::wstring(a) < std::wstring(b));
            EXPECT_EQ(Path(a) == Path(b), std::wstring(a) == std::wstring(b));
        }
    // A path made from wide text that only holds one-byte characters equals
    // one made from UTF-8.
    EXPECT_EQ(Path(String(L"/r\u00e9sum\u00e9")), Path::fromUtf8("/r\xC3\xA9sum\xC3\xA9"));
}

TEST(PathTest, ParentAndNameOfAWidePathTakeTheNarrowFormWhenTheyCan) {
    const Path p(L"/a/\u4e2d");
    ASSERT_TRUE(p.text().isWide());
    EXPECT_EQ(p.getParentPath(), Path(L"/a"));
    EXPECT_FALSE(p.getParentPath().text().isWide());
    EXPECT_EQ(p.getItemName(), ItemName(L"\u4e2d", ItemName::kNone));
    const Path q(L"/\u4e2d/r\u00e9\\/x");
    EXPECT_EQ(q.getItemName(), ItemName(L"r\u00e9/x", ItemName::kNone));
    EXPECT_EQ(q.getItemName().toString(), L"r\u00e9/x");
    EXPECT_EQ(q.getParentPath(), Path(L"/\u4e2d"));
}

TEST(PathTest, AppendingMixesTheForms) {
    EXPECT_EQ(Path(L"/a") + ItemName(L"\u4e2d/x", ItemName::kNone), Path(L"/a/\u4e2d\\/x"));
    EXPECT_EQ(Path(L"/\u4e2d") + ItemName(L"b\\", ItemName::kNone), Path(L"/\u4e2d/b\\\\"));
    EXPECT_EQ(Path(L"/\u4e2d") + ItemName(L"\u00e9", ItemName::kNone), Path(L"/\u4e2d/\u00e9"));
    EXPECT_FALSE((Path(L"/a") + ItemName(L"\u00e9", ItemName::kNone)).text().isWide());
    EXPECT_EQ((Path(L"/a") + ItemName(L"\u4e2d", ItemName::kNone)).getItemName().toString(), L"\u4e2d");
    EXPECT_EQ(kpBlank + ItemName(L"\u4e2d", ItemName::kNone), Path(L"/\u4e2d"));
    EXPECT_EQ(Path(L"/") + ItemName(L"\u4e2d", ItemName::kNone), Path(L"/\u4e2d"));
}

TEST(PathTest, RelationshipsAcrossForms) {
    EXPECT_EQ(Path(L"/a").relationship(Path(L"/a/\u4e2d")), kAncestorOf);
    EXPECT_EQ(Path(L"/a/\u4e2d").relationship(Path(L"/a")), kDescendantOf);
    EXPECT_EQ(Path(L"/x/a").relationship(Path(L"/x/\u4e2d")), kSiblingOf);
    EXPECT_EQ(Path(L"/\u4e2d/a").relationship(Path(L"/\u4e2d/\u00e9")), kSiblingOf);
    EXPECT_EQ(Path(L"/\u4e2d").relationship(Path(L"/\u4e2d")), kSamePath);
    EXPECT_EQ(Path(L"/\u00e9").relationship(Path(L"/\u00e9x/b")), kNoRelation);
    EXPECT_EQ(Path(L"/").relationship(Path(L"/\u4e2d")), kAncestorOf);
    EXPECT_EQ(Path(L"/a\u4e2d/b").relationship(Path(L"/b\u4e2d/b")), kNoRelation);
}

TEST(PathTest, TheHashOfOneByteAndMixedTextsMatchesTheRule) {
    std::mt19937 rng(5);
    for (int i = 0; i < 500; ++i) {
        std::wstring text(rng() % 300, L'x');
        const std::uint32_t range = i % 2 ? 0x100 : 0x110;  // all one byte, or some wider
        for (auto& c : text) c = static_cast<wchar_t>(rng() % range);
        EXPECT_EQ(std::hash<Path>()(Path(text, kUnchecked)), expectedHash(text));
    }
    EXPECT_EQ(std::hash<Path>()(Path(L"/r\u00e9sum\u00e9")), expectedHash(L"/r\u00e9sum\u00e9"));
    EXPECT_EQ(std::hash<Path>()(Path(L"/\u4e2d\u6587/\u00e9")), expectedHash(L"/\u4e2d\u6587/\u00e9"));
    EXPECT_EQ(std::hash<Path>()(Path::fromUtf8("/r\xC3\xA9sum\xC3\xA9")), expectedHash(L"/r\u00e9sum\u00e9"));
}

TEST(PathTest, FromUTF8ChecksAsTheWideConstructor) {
    EXPECT_EQ(Path::fromUtf8("/shared/a"), Path(L"/shared/a"));
    EXPECT_TRUE(Path::fromUtf8("").isBlank());
    EXPECT_EQ(Path::fromUtf8("/\xE4\xB8\xAD"), Path(L"/\u4e2d"));
    auto error = [](const std::string& utf8) {
        try {
            Path::fromUtf8(utf8);
            return kItemNameValid;
        } catch (const CatalogNameException& e) {
            return e.getValidity();
        }
    };
    EXPECT_EQ(error("a/b"), kPathMustStartWithSlash);
    // The limit counts characters, not bytes.
    std::string longest = "/";
    for (std::size_t i = 1; i < Path::kMaxPathLength; ++i) longest += "\xC3\xA9";
    EXPECT_EQ(error(longest), kItemNameValid);
    EXPECT_EQ(error(longest + "a"), kPathTooLong);
    EXPECT_THROW(Path::fromUtf8("/\xFF"), Utf8Error);
    EXPECT_EQ(Path::fromUtf8("a/b", kUnchecked).toString(), L"a/b");
}

TEST(PathTest, UTF8OutputAndTheRoot) {
    EXPECT_EQ(Path(L"/r\u00e9/\u4e2d").toUtf8(), "/r\xC3\xA9/\xE4\xB8\xAD");
    std::string out = "x";
    Path(L"/a").appendUtf8(out);
    EXPECT_EQ(out, "x/a");
    EXPECT_TRUE(Path(L"/").isRoot());
    EXPECT_FALSE(Path(L"/a").isRoot());
    EXPECT_FALSE(kpBlank.isRoot());
}

}  // namespace
}  // namespace kiv::catalog
