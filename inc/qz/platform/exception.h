// Exception: the host's base exception, holding a message value.
//
// Every failure the platform reports by exception derives from `Exception`,
// so a caller that wants to drop "any host failure" catches this one type.
// `throwMe` rethrows the object with its dynamic type preserved only where the
// subclass overrides it; `clone` makes a heap copy (delete it through the
// base pointer). `what()` gives the message text in UTF-8.
//
// Thread rule: an exception object is read by any thread once thrown; it is
// not changed after construction.
#pragma once

#include "qz/platform/export.h"

#include <exception>
#include <memory>
#include <string>

#include "qz/platform/gdvariant.h"
#include "qz/platform/string.h"

namespace kiv {

class KIV_API Exception : public std::exception {
public:
    Exception() = default;
    explicit Exception(GDVariant message) : m_message(std::move(message)) {}
    explicit Exception(const String& text) : m_message(text) {}
    Exception(const Exception&) = default;
    Exception& operator=(const Exception&) = default;
    ~Exception() override;

    virtual void throwMe() const { throw *this; }
    virtual Exception* clone() const;

    const GDVariant& getMessage() const noexcept { return m_message; }
    // The message text resolved now (messages resolve through the registry).
    String getMessageText() const { return m_message.toText(); }
    const char* what() const noexcept override;

private:
    GDVariant m_message;
    mutable std::string m_what;
};

// Raised when an empty Handle is dereferenced; the text is the type name of
// the pointee pointer (for example "kiv::FavoritesItem*").
class KIV_API InvalidHandleException : public Exception {
public:
    using Exception::Exception;
    void throwMe() const override { throw *this; }
    Exception* clone() const override;
};

// Raised by the UTF-8 codec; the text names the problem and its byte offset.
class KIV_API Utf8Error : public Exception {
public:
    using Exception::Exception;
    void throwMe() const override { throw *this; }
    Exception* clone() const override;
};

}  // namespace kiv
