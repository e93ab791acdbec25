// catalog::ItemName: one validated component of a catalog path.
//
// The name text is the unescaped name. Inside a path text a component is
// written escaped: "/" as "\/" and "\" as "\\". A valid name is not empty, not
// all white space, at most kMaxItemNameLength characters, holds no control
// character (below U+0020, or U+007F to U+009F) and only Unicode scalar values.
//
// The text is kept as a CompactText (one byte per character when it allows).
//
// Thread safety: an immutable value.
#pragma once

#include "qz/platform/export.h"

#include "qz/platform/exception.h"
#include "qz/platform/string.h"
#include "qz/webcatalog/compacttext.h"

namespace kiv::catalog {

enum EItemNameValidity : int {
    kItemNameValid = 0,
    kItemNameEmpty = 1,
    kItemNameAllWhiteSpace = 2,
    kItemNameTooLong = 3,
    kItemNameControlCharacter = 4,
    kItemNameInvalidUnicode = 5,
    kEscapedItemNameBadEscape = 6,
    kEscapedItemNameNotEscaped = 7,
    kPathEmpty = 8,
    kPathTooLong = 9,
    kPathMustStartWithSlash = 10,
};

// The text of a validity value, such as "kItemNameEmpty".
KIV_API const char* validityName(EItemNameValidity v) noexcept;

// Raised by the checked constructors of ItemName and Path; carries the code.
class KIV_API CatalogNameException : public Exception {
public:
    CatalogNameException(EItemNameValidity validity, const String& text);
    EItemNameValidity getValidity() const noexcept { return m_validity; }
    void throwMe() const override { throw *this; }
    Exception* clone() const override;

private:
    EItemNameValidity m_validity;
};

class KIV_API ItemName {
public:
    static constexpr std::size_t kMaxItemNameLength = 255;

    enum Options { kNone = 0, kTrim = 1 };
    enum EOnError { kOnErrorReturn = 0, kOnErrorThrow = 1 };

    // Checked: with kTrim, leading and trailing white space is removed first.
    // Raises CatalogNameException for an invalid name.
    ItemName(const String& name, Options options);
    // The escaped form of a path component, as it stands in a path text;
    // raises CatalogNameException for a bad escape or an unescaped "/".
    static ItemName fromEscaped(const String& escaped);

    // Validity of an unescaped name. With kOnErrorThrow an invalid name raises.
    static EItemNameValidity checkItemName(const String& name, EOnError onError);
    // Validity of an escaped component (adds kEscapedItemNameBadEscape and
    // kEscapedItemNameNotEscaped).
    static EItemNameValidity checkEscapedItemName(const String& escaped);

    String toString() const { return m_name.toString(); }
    String toEscapedString() const;
    // Number of characters of the name.
    std::size_t size() const noexcept { return m_name.size(); }

    bool operator==(const ItemName& o) const noexcept { return m_name == o.m_name; }
    bool operator!=(const ItemName& o) const noexcept { return m_name != o.m_name; }
    bool operator<(const ItemName& o) const noexcept { return m_name < o.m_name; }

private:
    struct Unchecked {};
    ItemName(CompactText name, Unchecked) : m_name(std::move(name)) {}
    // The name stood for by a well-checked escaped component.
    static ItemName fromCheckedEscaped(const CompactText& escaped);
    friend class Path;
    CompactText m_name;
};

}  // namespace kiv::catalog
