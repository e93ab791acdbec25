#include "qz/webcatalog/itemname.h"

#include <gtest/gtest.h>

namespace kiv::catalog {
namespace {

String repeat(wchar_t c, std::size_t n) { return String(n, c); }

TEST(ItemNameTest, AnOrdinaryNameIsValid) {
    EXPECT_EQ(ItemName::checkItemName(L"Sales Report", ItemName::kOnErrorReturn), kItemNameValid);
    EXPECT_EQ(ItemName::checkItemName(L"r\u00e9sum\u00e9 \u4e2d\U0001F600", ItemName::kOnErrorReturn), kItemNameValid);
}

TEST(ItemNameTest, AnEmptyNameIsEmpty) {
    EXPECT_EQ(ItemName::checkItemName(L"", ItemName::kOnErrorReturn), kItemNameEmpty);
}

TEST(ItemNameTest, ANameOfWhiteSpaceOnlyIsAllWhiteSpace) {
    EXPECT_EQ(ItemName::checkItemName(L"   ", ItemName::kOnErrorReturn), kItemNameAllWhiteSpace);
    EXPECT_EQ(ItemName::checkItemName(L" \t\u3000", ItemName::kOnErrorReturn), kItemNameAllWhiteSpace);
}

TEST(ItemNameTest, ANameOf255CharactersIsValidAnd256IsTooLong) {
    EXPECT_EQ(ItemName::checkItemName(repeat(L'a', 255), ItemName::kOnErrorReturn), kItemNameValid);
    EXPECT_EQ(ItemName::checkItemName(repeat(L'a', 256), ItemName::kOnErrorReturn), kItemNameTooLong);
}

TEST(ItemNameTest, ControlCharactersAreRefused) {
    for (wchar_t c : {L'\x00', L'\x01', L'\x1F', L'\x7F', L'\x85', L'\x9F'}) {
        SCOPED_TRACE(static_cast<int>(c));
        String name = L"ab";
        name.insert(name.begin() + 1, c);
        EXPECT_EQ(ItemName::checkItemName(name, ItemName::kOnErrorReturn), kItemNameControlCharacter);
    }
    EXPECT_EQ(ItemName::checkItemName(L"a\xA0" L"b", ItemName::kOnErrorReturn), kItemNameValid);
}

TEST(ItemNameTest, SurrogatesAndCodePointsAboveTheLastAreInvalidUnicode) {
    for (std::uint32_t c : {0xD800u, 0xDBFFu, 0xDC00u, 0xDFFFu, 0x110000u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
        SCOPED_TRACE(c);
        String name = L"ab";
        name.insert(name.begin() + 1, static_cast<wchar_t>(c));
        EXPECT_EQ(ItemName::checkItemName(name, ItemName::kOnErrorReturn), kItemNameInvalidUnicode);
    }
}

TEST(ItemNameTest, CheckingWithThrowRaisesTheValidity) {
    try {
        ItemName::checkItemName(L"", ItemName::kOnErrorThrow);
        FAIL() << "no exception";
    } catch (const CatalogNameException& e) {
        EXPECT_EQ(e.getValidity(), kItemNameEmpty);
    }
    EXPECT_EQ(ItemName::checkItemName(L"ok", ItemName::kOnErrorThrow), kItemNameValid);
}

TEST(ItemNameTest, TrimRemovesSurroundingWhiteSpaceBeforeTheCheck) {
    EXPECT_EQ(ItemName(L"  Sales \t", ItemName::kTrim).toString(), L"Sales");
    EXPECT_EQ(ItemName(L" Sales ", ItemName::kNone).toString(), L" Sales ");
    EXPECT_EQ(ItemName(String(L" ") + repeat(L'a', 255) + L" ", ItemName::kTrim).toString().size(), 255u);
    EXPECT_THROW(ItemName(String(L" ") + repeat(L'a', 255) + L" ", ItemName::kNone), CatalogNameException);
}

TEST(ItemNameTest, TheCheckedConstructorRaisesForAnInvalidName) {
    try {
        ItemName(L"   ", ItemName::kTrim);
        FAIL() << "no exception";
    } catch (const CatalogNameException& e) {
        EXPECT_EQ(e.getValidity(), kItemNameEmpty);
    }
    try {
        ItemName(L"   ", ItemName::kNone);
        FAIL() << "no exception";
    } catch (const CatalogNameException& e) {
        EXPECT_EQ(e.getValidity(), kItemNameAllWhiteSpace);
    }
}

TEST(ItemNameTest, EscapedSlashAndBackslashAreTheOnlyEscapes) {
    EXPECT_EQ(ItemName::checkEscapedItemName(L"a\\/b"), kItemNameValid);
    EXPECT_EQ(ItemName::checkEscapedItemName(L"a\\\\b"), kItemNameValid);
    EXPECT_EQ(ItemName::checkEscapedItemName(L"a\\nb"), kEscapedItemNameBadEscape);
    EXPECT_EQ(ItemName::checkEscapedItemName(L"ab\\"), kEscapedItemNameBadEscape);
}

TEST(ItemNameTest, AnUnescapedSlashInAnEscapedNameIsNotEscaped) {
    EXPECT_EQ(ItemName::checkEscapedItemName(L"a/b"), kEscapedItemNameNotEscaped);
    EXPECT_EQ(ItemName::checkEscapedItemName(L"a\\\\/b"), kEscapedItemNameNotEscaped);
}

TEST(ItemNameTest, EscapedNamesAreCheckedAsTheNameTheyStandFor) {
    EXPECT_EQ(ItemName::checkEscapedItemName(L""), kItemNameEmpty);
    EXPECT_EQ(ItemName::checkEscapedItemName(L"  "), kItemNameAllWhiteSpace);
    EXPECT_EQ(ItemName::checkEscapedItemName(repeat(L'a', 254) + L"\\/"), kItemNameValid);
    EXPECT_EQ(ItemName::checkEscapedItemName(repeat(L'a', 255) + L"\\/"), kItemNameTooLong);
    EXPECT_EQ(ItemName::checkEscapedItemName(L"a\x01"), kItemNameControlCharacter);
    EXPECT_EQ(ItemName::checkEscapedItemName(String(L"a") + static_cast<wchar_t>(0xD800)), kItemNameInvalidUnicode);
}

TEST(ItemNameTest, EscapingRoundTrips) {
    const ItemName name(L"a/b\\c", ItemName::kNone);
    EXPECT_EQ(name.toEscapedString(), L"a\\/b\\\\c");
    EXPECT_EQ(ItemName::fromEscaped(name.toEscapedString()), name);
    EXPECT_THROW(ItemName::fromEscaped(L"a/b"), CatalogNameException);
}

TEST(ItemNameTest, NamesOfEitherFormKeepTheirTextAndOrder) {
    const wchar_t* names[] = {L"Sales", L"r\u00e9sum\u00e9", L"\u00ff", L"\u0100", L"\u4e2d\u6587",
                              L"a\U0001F600", L"a/\u4e2d\\"};
    for (const wchar_t* a : names) {
        const ItemName na(a, ItemName::kNone);
        EXPECT_EQ(na.toString(), String(a));
        EXPECT_EQ(na.size(), std::wcslen(a));
        EXPECT_EQ(ItemName::fromEscaped(na.toEscapedString()), na);
        EXPECT_EQ(ItemName::fromEscaped(na.toEscapedString()).toString(), String(a));
        for (const wchar_t* b : names) {
            const ItemName nb(b, ItemName::kNone);
            EXPECT_EQ(na == nb, std::wstring(a) == std::wstring(b));
            EXPECT_EQ(na < nb, std::wstring(a) < std::wstring(b));
        }
    }
    EXPECT_EQ(ItemName(L"\u4e2d/\\", ItemName::kNone).toEscapedString(), L"\u4e2d\\/\\\\");
    EXPECT_EQ(ItemName(L" \u4e2d\u3000", ItemName::kTrim).toString(), L"\u4e2d");
    EXPECT_EQ(ItemName::checkEscapedItemName(L"\u4e2d\\x"), kEscapedItemNameBadEscape);
    EXPECT_EQ(ItemName::checkEscapedItemName(L"\u00e9\x85"), kItemNameControlCharacter);
}

TEST(ItemNameTest, ValidityNamesAreTheEnumeratorNames) {
    EXPECT_STREQ(validityName(kItemNameValid), "kItemNameValid");
    EXPECT_STREQ(validityName(kEscapedItemNameNotEscaped), "kEscapedItemNameNotEscaped");
    EXPECT_STREQ(validityName(kPathMustStartWithSlash), "kPathMustStartWithSlash");
}

TEST(ItemNameTest, TheNameExceptionNamesTheValidityAndTheText) {
    const CatalogNameException e(kItemNameTooLong, L"abc");
    EXPECT_EQ(e.getMessageText(), L"kItemNameTooLong: abc");
    std::unique_ptr<Exception> copy(e.clone());
    EXPECT_THROW(copy->throwMe(), CatalogNameException);
}

}  // namespace
}  // namespace kiv::catalog
