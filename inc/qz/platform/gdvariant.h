// GDVariant: the platform's generic value, and the message value it carries.
//
// A GDVariant holds nothing, a bool, a signed 64-bit integer, a double, a
// String, a message (`Message`: a message identifier resolved through the
// message registry, with its inserts), or a reference-counted generic-data
// value (`GDValue`, the base of the JSON values). Exceptions carry their
// message as a GDVariant.
//
// Thread safety: a value type; Message and GDValue objects are immutable once
// shared.
#pragma once

#include "qz/platform/export.h"

#include <cstdint>
#include <memory>
#include <variant>
#include <vector>

#include "qz/platform/handle.h"
#include "qz/platform/string.h"

namespace kiv {

class GDVariant;

// A message: an identifier whose text comes from the message files, with
// numbered inserts (%1, %2, ...). Implemented by ExternalMessage and
// ParamMessage (message.h).
class KIV_API Message {
public:
    virtual ~Message() = default;
    virtual const String& getId() const noexcept = 0;
    // Inserts by number, starting at 1; an absent insert is an empty variant.
    virtual const std::vector<GDVariant>& getInserts() const noexcept = 0;
    // The text with inserts filled in; an unknown identifier resolves to the
    // identifier itself followed by its inserts.
    virtual String getText() const = 0;
};

// Base of every generic-data value (JSON objects, arrays, scalars and
// reference holders). Views on it are reached with dynamic_cast.
class KIV_API GDValue : public RefCountedBase {
public:
    // The value itself, or the value a reference points to; null for none.
    virtual GDValue* resolveReferences() { return this; }
};

class KIV_API GDVariant {
public:
    enum class Kind { kEmpty, kBool, kInt, kDouble, kString, kMessage, kValue };

    GDVariant() = default;
    GDVariant(bool b) : m_v(b) {}
    GDVariant(std::int64_t n) : m_v(n) {}
    GDVariant(int n) : m_v(std::int64_t{n}) {}
    GDVariant(double d) : m_v(d) {}
    GDVariant(String s) : m_v(std::move(s)) {}
    GDVariant(const wchar_t* s) : m_v(String(s)) {}
    // A narrow literal would otherwise silently become the bool true.
    GDVariant(const char*) = delete;
    GDVariant(std::shared_ptr<const Message> m) : m_v(std::move(m)) {}
    GDVariant(Handle<GDValue> v) : m_v(std::move(v)) {}

    Kind kind() const noexcept { return static_cast<Kind>(m_v.index()); }
    bool isEmpty() const noexcept { return kind() == Kind::kEmpty; }

    bool getBool() const { return std::get<bool>(m_v); }
    std::int64_t getInt() const { return std::get<std::int64_t>(m_v); }
    double getDouble() const { return std::get<double>(m_v); }
    const String& getString() const& { return std::get<String>(m_v); }
    String getString() && { return std::get<String>(std::move(m_v)); }
    const Message* getMessage() const noexcept {
        auto p = std::get_if<std::shared_ptr<const Message>>(&m_v);
        return p ? p->get() : nullptr;
    }
    GDValue* getValue() const noexcept {
        auto p = std::get_if<Handle<GDValue>>(&m_v);
        return p ? p->get() : nullptr;
    }

    // A plain-text rendering: strings as is, messages resolved, numbers in
    // their shortest round-trip decimal form, booleans "true"/"false",
    // empty as "".
    String toText() const;

    // Equal kind and equal content; messages compare by identifier and inserts,
    // generic values by identity.
    friend KIV_API bool operator==(const GDVariant& a, const GDVariant& b);

private:
    std::variant<std::monostate, bool, std::int64_t, double, String, std::shared_ptr<const Message>,
                 Handle<GDValue>>
        m_v;
};

}  // namespace kiv
