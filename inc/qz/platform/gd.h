// Generic-data values and the JSON expression evaluator.
//
// `GDExpressionEvaluator::evaluateExpression` turns a JSON literal (RFC 8259
// text: an object, an array, a string, a number, true, false or null) into a
// `GDVariant`. Nothing but a JSON literal is accepted: any other text, and
// any text that breaks the limits below, makes the evaluation answer false.
//
// Values produced by an evaluation:
//
//   JSON         GDVariant
//   ----------   ---------------------------------------------------------
//   null         empty variant (Kind::kEmpty)
//   true/false   bool
//   integer      int64 when it fits; an integer above INT64_MAX but within
//                UINT64_MAX is kept as the nearest double; an integer
//                outside the 64-bit range fails the evaluation
//   other number double; a number whose magnitude does not fit a double
//                (1e400) fails the evaluation
//   string       String (decoded from UTF-8)
//   array        a `GDJsonArray` (an IGDRandomAccessContainer)
//   object       a `GDJsonObject` (an IGDReadablePropertyBag)
//
// Arrays and objects are immutable once built and are reached from the
// variant with `getValue()` and `dynamic_cast` to the view interface.
//
// The arrays and objects of one evaluation share the parsed document and read
// their members from it when first asked (a reader pays only for what it
// reads). Memory: the document takes about ten bytes per byte of UTF-8 text,
// and it stays allocated while any array or object of that evaluation is
// alive, even one small part of it. Strings and numbers are copied out. The
// process keeps one document whose values are all gone (from a text of up
// to 2 MB) to parse the next text into, and each thread that evaluated keeps
// its parser's buffers (about five bytes per byte of the largest such text).
//
// Duplicate keys in one object: the LAST value wins, and the key keeps the
// position of its FIRST occurrence (the same rule as ECMAScript JSON.parse).
//
// Limits (each makes the evaluation answer false, never crash):
//   - the text may hold at most kMaxTextBytes bytes once encoded as UTF-8;
//   - arrays and objects may nest at most kMaxDepth levels deep
//     (`[1]` is depth 1, `[[1]]` depth 2);
//   - a String holding a code point that is not a Unicode scalar value, a
//     JSON string escape that yields an unpaired surrogate, and any other
//     malformed text fail the evaluation.
//
// Text form (`GDTypeConversions::toString`):
//   - string: the string itself, unquoted;
//   - int64: decimal digits with a leading '-' when negative ("42", "-7");
//   - double: the shortest decimal text that reads back as the same double
//     ("0.5", "1e+300"; an integral double such as 2.0 gives "2");
//   - bool: "true" / "false";
//   - null (empty variant): "";
//   - array or object: compact JSON text (no white space) that evaluates
//     again to an equal structure: strings are quoted and escaped, doubles
//     always carry a fraction or exponent ("2.0") so that they stay doubles;
//   - a reference holder: the text of its target.
//
// Thread safety: an evaluator is used by one thread at a time (evaluations
// on one thread share that thread's parser buffers). Values it produced are
// immutable and may be shared and read from any thread; their reference
// counts are atomic, and the members an array or object reads from its
// document on first need are published atomically.
#pragma once

#include "qz/platform/export.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "qz/platform/gdvariant.h"
#include "qz/platform/handle.h"
#include "qz/platform/string.h"

namespace kiv {

// The evaluation context (`GDExpressionEvaluator::getContext`), handed to
// every read of values produced by an evaluation.
//
// It also remembers the JSON text that `GDTypeConversions::toString` last
// made of a few arrays and objects: when its evaluator is then asked to
// evaluate exactly that text, it answers with the (immutable, equal) value
// the text was made from instead of parsing it again (only for values whose
// text reads back as an equal structure within the limits below, which every
// value an evaluation produced is). And the text of a whole tree, once
// written, serves the text of the arrays and objects inside it, asked for in
// document order, as a copy of a part of it (one asked for out of that order
// is written anew). Readers that walk a tree level by level through the text
// form of each level thus parse the text only once and write it only once. The
// context holds the last few trees it wrote, and the values of the last few
// texts it gave, alive.
class KIV_API GDContext {
public:
    GDContext();
    ~GDContext();
    GDContext(const GDContext&) = delete;
    GDContext& operator=(const GDContext&) = delete;

private:
    friend struct GDTypeConversions;
    friend class GDExpressionEvaluator;
    struct Memo;
    std::unique_ptr<Memo> m_memo;
};

// The name of a property of an object value.
class KIV_API GDPropertyKey {
public:
    explicit GDPropertyKey(String name) : m_name(std::move(name)) {}
    const String& getName() const noexcept { return m_name; }

private:
    String m_name;
};

// Array view of a value.
class KIV_API IGDRandomAccessContainer {
public:
    virtual ~IGDRandomAccessContainer() = default;
    virtual std::size_t getCount() const noexcept = 0;
    // Element i into `out`; false (out untouched) when i >= getCount().
    virtual bool getElement(std::size_t i, GDVariant& out) const = 0;
};

// Object view of a value.
class KIV_API IGDReadablePropertyBag {
public:
    virtual ~IGDReadablePropertyBag() = default;
    // The property's value into `out`; false (out untouched) when absent.
    // A property whose JSON value is null is present: true, `out` empty.
    virtual bool getProperty(GDContext& ctx, const GDPropertyKey& key, GDVariant& out) const = 0;
};

namespace detail {
// A parsed JSON document that the values of one evaluation read from.
struct JsonDocument;
struct JsonAccess;
// Where in its document an array or object lies: room for the parser's own
// small handle on it (two words; gd.cpp checks at compile time that it fits).
struct JsonPlace {
    alignas(void*) unsigned char bytes[2 * sizeof(void*)];
};
}  // namespace detail

// A JSON array: elements in document order.
//
// An array made by the evaluator reads its elements from the parsed document
// only when they are first asked for (and then keeps them); nested arrays and
// objects are read the same way, level by level. An array built from a vector
// holds its elements from the start. Both behave the same to every reader.
class KIV_API GDJsonArray final : public GDValue, public IGDRandomAccessContainer {
public:
    GDJsonArray();
    explicit GDJsonArray(std::vector<GDVariant> elements);
    ~GDJsonArray() override;
    GDJsonArray(const GDJsonArray&) = delete;
    GDJsonArray& operator=(const GDJsonArray&) = delete;

    std::size_t getCount() const noexcept override;
    bool getElement(std::size_t i, GDVariant& out) const override;
    const std::vector<GDVariant>& elements() const;

private:
    friend struct detail::JsonAccess;
    GDJsonArray(std::shared_ptr<const detail::JsonDocument> doc, const detail::JsonPlace& place) noexcept;

    std::shared_ptr<const detail::JsonDocument> m_doc;  // null when built from a vector
    detail::JsonPlace m_place{};                        // the array's place in m_doc
    mutable std::atomic<const std::vector<GDVariant>*> m_elements{nullptr};
};

// A JSON object: members in the order their keys first appeared.
//
// Read from the parsed document like an array (see above): a property read
// looks the key up in the document and converts that one value; the member
// list is made only when asked for.
class KIV_API GDJsonObject final : public GDValue, public IGDReadablePropertyBag {
public:
    using Member = std::pair<String, GDVariant>;

    GDJsonObject();
    // Applies the duplicate-key rule: last value wins, first position kept.
    explicit GDJsonObject(std::vector<Member> members);
    ~GDJsonObject() override;
    GDJsonObject(const GDJsonObject&) = delete;
    GDJsonObject& operator=(const GDJsonObject&) = delete;

    bool getProperty(GDContext& ctx, const GDPropertyKey& key, GDVariant& out) const override;
    // Context-free lookup: the value or null when absent.
    const GDVariant* find(const String& key) const;
    std::size_t getCount() const { return members().size(); }
    const std::vector<Member>& members() const;

    struct Members;  // the member list and its look-up index

private:
    friend struct detail::JsonAccess;
    GDJsonObject(std::shared_ptr<const detail::JsonDocument> doc, const detail::JsonPlace& place) noexcept;
    const Members& materialised() const;

    std::shared_ptr<const detail::JsonDocument> m_doc;  // null when built from members
    detail::JsonPlace m_place{};                        // the object's place in m_doc
    mutable std::atomic<const Members*> m_members{nullptr};
};

// A reference holder: stands for another value. resolveReferences() gives
// the target's value (following further holders), null when the target is
// not a generic-data value (a scalar or nothing).
class KIV_API GDReferenceValue final : public GDValue {
public:
    explicit GDReferenceValue(GDVariant target) : m_target(std::move(target)) {}
    GDValue* resolveReferences() override;
    const GDVariant& getTarget() const noexcept { return m_target; }

private:
    GDVariant m_target;
};

// A variant as filled by property and element reads, with the step that
// sees through reference holders.
class KIV_API GDAdjustableSizeVariant : public GDVariant {
public:
    using GDVariant::GDVariant;
    GDAdjustableSizeVariant() = default;
    GDAdjustableSizeVariant(const GDVariant& v) : GDVariant(v) {}
    GDAdjustableSizeVariant(GDVariant&& v) : GDVariant(std::move(v)) {}

    // The variant itself, or, when it holds a reference holder, the variant
    // the holder (chain) stands for.
    const GDVariant& getReferencedValue() const noexcept;
};

// The array or the object view of a value: what a dynamic_cast to the view
// gives, found for the JSON values by one comparison of the dynamic type.
// Null when `value` is null or has no such view.
KIV_API const IGDRandomAccessContainer* arrayView(const GDValue* value) noexcept;
KIV_API const IGDReadablePropertyBag* objectView(const GDValue* value) noexcept;

struct KIV_API GDTypeConversions {
    // The text form of a variant (see the table at the top of this file).
    static String toString(GDContext& ctx, const GDVariant& value);
    // The same text; a string that `value` holds itself is moved out of it
    // rather than copied.
    static String toString(GDContext& ctx, GDVariant&& value);
    // The variant as JSON text: like toString, but strings are quoted and
    // escaped and null is "null", so that every result is a JSON literal.
    static String toJson(GDContext& ctx, const GDVariant& value);
};

class KIV_API GDExpressionEvaluator {
public:
    // Arrays and objects nest at most this deep.
    static constexpr std::size_t kMaxDepth = 512;
    // Largest accepted text, in UTF-8 bytes.
    static constexpr std::size_t kMaxTextBytes = 16u * 1024u * 1024u;
    // The only flag value: the text is a JSON literal.
    static constexpr int kJsonLiteral = 1;

    GDExpressionEvaluator();
    ~GDExpressionEvaluator();
    GDExpressionEvaluator(const GDExpressionEvaluator&) = delete;
    GDExpressionEvaluator& operator=(const GDExpressionEvaluator&) = delete;

    // Evaluates the first `length` characters of `text` (all of it when
    // `length` is larger). `flag` must be kJsonLiteral. True and `result`
    // set on success; false and `result` untouched otherwise. Never throws
    // for bad text (std::bad_alloc may still escape).
    bool evaluateExpression(const String& text, std::size_t length, GDVariant& result, int flag);

    GDContext& getContext() noexcept { return m_context; }

private:
    GDContext m_context;
};

}  // namespace kiv
