// SOAP request parameters and the SOAP 1.1 envelope parser.
//
// `SoapRequest::parse` reads a SOAP 1.1 request envelope (UTF-8) with libxml2
// and turns the Body into a tree of `SoapParameter`s:
//
//   <SOAP-ENV:Envelope xmlns:SOAP-ENV="http://schemas.xmlsoap.org/soap/envelope/" ...>
//     <SOAP-ENV:Header> ... </SOAP-ENV:Header>          optional
//     <SOAP-ENV:Body>
//       <ns:updateFavorites>                             the operation element
//         <favoriteItem xsi:type="ns:FavoriteItem">      a structure parameter
//           <name xsi:type="xsd:string">Sales</name>     a string parameter
//           ...
//       </ns:updateFavorites>
//       <multiRef id="id0"> ... </multiRef>              multi-reference values
//     </SOAP-ENV:Body>
//   </SOAP-ENV:Envelope>
//
// Parameters are named by the local name of their element (prefixes and
// namespaces of parameter elements are ignored). Their value type:
//   - `href="#x"`: a reference (kRefUnresolved until resolveRef() finds the
//     element with `id="x"` anywhere in the Body; then kRef). An href that
//     does not start with '#' is never followed and stays unresolved.
//   - `xsi:nil="true"`: kNull.
//   - child elements: kStruct (kArray when typed soapenc:Array or carrying
//     soapenc:arrayType); text between child elements is ignored.
//   - `xsi:type` naming an XML Schema (or SOAP encoding) simple type: that
//     type (string, unsignedShort, short, int, unsignedInt, long,
//     unsignedLong, boolean, float, double; other simple types such as
//     dateTime are kept as kString). A value that is not valid for its
//     declared type makes the whole envelope fail to parse.
//   - `xsi:type` naming any other type with no child elements: an empty kStruct.
//   - no xsi:type and no child elements: kString with the element's text.
//
// Hardening: input larger than kMaxEnvelopeBytes, input that is not valid
// UTF-8 (the XML declaration's encoding is ignored; envelopes are UTF-8),
// any document type declaration, malformed XML, elements nested deeper than
// kMaxDepth, more than kMaxParameters parameters, or references that would
// expand the Body into more than kMaxExpandedParameters parameters or nest
// values deeper than kMaxDepth once followed are rejected with a
// SoapException. Nothing is loaded over the network; no entity is expanded.
//
// Reference cycles: references that lie on a cycle (a reference to itself,
// two references to each other, a reference to an element that contains it,
// ...) are detected when parsing. They never resolve: reading through them
// raises SoapException, and structure access through them sees no
// children. Hence every walk of the tree ends.
//
// Thread safety: a request and its parameters are used by one thread at a
// time (resolveRef and convert change parameters in place).
#pragma once

#include "qz/platform/export.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "qz/platform/exception.h"
#include "qz/platform/string.h"

namespace kiv {

// Raised for every SOAP failure: malformed or rejected envelopes, missing or
// misnamed children, values that do not convert, references without target.
class KIV_API SoapException : public Exception {
public:
    using Exception::Exception;
    void throwMe() const override { throw *this; }
    Exception* clone() const override;
};

class SoapParameter;
class SoapRequest;

// A position among the children of one structure parameter. Copyable,
// comparable (equal when on the same structure at the same position) and
// advanced by one with ++. Dereferencing gives the child at the position,
// or null past the end.
class KIV_API SoapParametersIterator {
public:
    SoapParametersIterator() = default;

    SoapParameter* operator*() const noexcept;
    SoapParametersIterator& operator++() noexcept {
        ++m_nIndex;
        return *this;
    }
    SoapParametersIterator operator++(int) noexcept {
        SoapParametersIterator old = *this;
        ++m_nIndex;
        return old;
    }
    friend bool operator==(const SoapParametersIterator& a, const SoapParametersIterator& b) noexcept {
        return a.m_pOwner == b.m_pOwner && a.m_nIndex == b.m_nIndex;
    }
    std::size_t getIndex() const noexcept { return m_nIndex; }

private:
    friend class SoapParameter;
    SoapParametersIterator(const SoapParameter* owner, std::size_t index) noexcept
        : m_pOwner(owner), m_nIndex(index) {}

    const SoapParameter* m_pOwner = nullptr;
    std::size_t m_nIndex = 0;
};

class KIV_API SoapParameter {
public:
    enum EType {
        kNone = 0,
        kString = 1,
        kUnsignedShort = 2,
        kShort = 3,
        kInt = 4,
        kUnsignedInt = 5,
        kLong = 6,
        kUnsignedLong = 7,
        kBoolean = 8,
        kFloat = 9,
        kDouble = 10,
        kNull = 11,
        kStruct = 12,
        kArray = 13,
        kRef = 16,            // a resolved reference: getRefParam() is its target
        kRefUnresolved = 19,  // a reference resolveRef() has not resolved (yet)
    };

    SoapParameter(const SoapParameter&) = delete;
    SoapParameter& operator=(const SoapParameter&) = delete;
    ~SoapParameter();

    // ---- building (the parser uses these; so may tests)
    static std::unique_ptr<SoapParameter> makeString(String name, String value);
    static std::unique_ptr<SoapParameter> makeUnsignedShort(String name, std::uint16_t value);
    static std::unique_ptr<SoapParameter> makeStruct(String name);
    // A resolved reference (kRef) to `target`, which must outlive it.
    static std::unique_ptr<SoapParameter> makeRef(String name, SoapParameter* target);
    // An unresolved reference (kRefUnresolved); resolveRef() makes `target`
    // (may be null: a reference that never resolves) its target.
    static std::unique_ptr<SoapParameter> makeUnresolvedRef(String name, SoapParameter* target);
    // Appends a child to a structure or array; returns it.
    SoapParameter* addChild(std::unique_ptr<SoapParameter> child);

    // ---- readers
    const String& getName() const noexcept { return m_sName; }
    EType getType() const noexcept { return m_eType; }
    // The text of a scalar value (kNull: ""). Raises for structures,
    // arrays and references.
    const String& getString() const;
    // The value of a kUnsignedShort parameter; raises for any other type
    // (call convert(kUnsignedShort) first).
    std::uint16_t getUnsignedShort() const;
    // The value of any integer-typed parameter that fits int64; raises otherwise.
    std::int64_t getInteger() const;
    // The value of a kFloat or kDouble parameter; raises otherwise.
    double getDouble() const;
    // The value of a kBoolean parameter; raises otherwise.
    bool getBool() const;
    // The target of a kRef parameter. A reference without a target is an
    // assertion failure ("m_pRefParam != __null"), then raises.
    SoapParameter* getRefParam() const;
    // The id a parsed reference names (without '#'); empty otherwise.
    const String& getRefId() const noexcept { return m_sRefId; }
    // The element's id attribute, empty when none.
    const String& getId() const noexcept { return m_sId; }

    // ---- children (structures and arrays; a reference gives its target's
    //      children once the target can be found, nothing otherwise; a
    //      scalar has none)
    SoapParametersIterator begin() const noexcept;
    SoapParametersIterator end() const noexcept;
    std::size_t getChildCount() const noexcept;

    // The child at `it` when its name is `name`.
    //   bRequired:  when true, a missing child (past the end, or an iterator
    //               of another structure) or one of another name raises
    //               SoapException; when false, null is returned instead.
    //   bSearchOn:  when true, the children from `it` onwards are searched
    //               and the first one named `name` is returned; when false
    //               only the child at `it` is looked at.
    SoapParameter* getChildParam(const String& name, const SoapParametersIterator& it, bool bRequired,
                                 bool bSearchOn) const;
    // The child at `it`, or null (past the end, or another structure's iterator).
    SoapParameter* getChildParam(const SoapParametersIterator& it) const noexcept;

    // ---- changes
    // Converts the value in place to `type`: kString from any scalar; the
    // numeric types and kBoolean from a scalar whose text (surrounding XML
    // white space ignored) is a valid, in-range lexical form of that type.
    // Converting to the current type does nothing. On a reference, the value
    // it (finally) refers to is converted; a reference that cannot be
    // resolved is left as it is (reading through it raises).
    // Raises SoapException for a structure, an array, kNull to a non-string
    // type, a target type that is not a scalar type, and values that do
    // not convert (non-numeric, out of range); the value is then unchanged.
    void convert(EType type);
    // For kRefUnresolved: makes the reference kRef when its target exists
    // and is not on a reference cycle; otherwise leaves it unresolved. Does
    // nothing for other types.
    void resolveRef();

private:
    friend class SoapRequest;
    friend class SoapParametersIterator;
    friend struct SoapParser;

    SoapParameter(String name, EType type);

    // The parameter whose children this one presents (itself, or the final
    // target of a reference); null for an unresolvable reference.
    const SoapParameter* structure() const noexcept;
    // The target a reference has or would get from resolveRef(); null if none.
    SoapParameter* lookupTarget() const noexcept;

    String m_sName;
    EType m_eType;
    String m_sValue;
    std::int64_t m_nSigned = 0;
    std::uint64_t m_nUnsigned = 0;
    double m_dValue = 0.0;
    bool m_bValue = false;
    String m_sId;
    String m_sRefId;
    SoapParameter* m_pRefParam = nullptr;      // the target once resolved
    SoapParameter* m_pPendingTarget = nullptr; // target of a built unresolved reference
    const SoapRequest* m_pRequest = nullptr;   // id look-ups of parsed references
    bool m_bOnCycle = false;                   // parsed reference on a reference cycle
    std::uint32_t m_nSeq = 0;                  // position in the request's parameter list
    std::vector<std::unique_ptr<SoapParameter>> m_vChildren;
};

// A parsed request envelope; owns every parameter of it.
class KIV_API SoapRequest {
public:
    static constexpr std::size_t kMaxEnvelopeBytes = 8u * 1024u * 1024u;
    // Element nesting, Envelope counted as 1; also the nesting of values
    // with references followed.
    static constexpr std::size_t kMaxDepth = 128;
    static constexpr std::size_t kMaxParameters = 500000;
    static constexpr std::uint64_t kMaxExpandedParameters = 2000000;

    // The SOAP 1.1 envelope namespace.
    static const char* const ksEnvelopeNamespace;

    // Parses an envelope; raises SoapException with a clear message on any
    // rejected input.
    static std::unique_ptr<SoapRequest> parse(std::string_view envelope);

    SoapRequest(const SoapRequest&) = delete;
    SoapRequest& operator=(const SoapRequest&) = delete;
    ~SoapRequest();

    // The operation element (the first element child of the Body) as a
    // structure parameter named by its local name, and its namespace URI.
    SoapParameter& getOperation() noexcept { return *m_vBodyParams.front(); }
    const String& getOperationName() const noexcept { return m_vBodyParams.front()->getName(); }
    const String& getOperationNamespace() const noexcept { return m_sOperationNamespace; }
    // Every element child of the Body in document order (the operation first,
    // then multi-reference values and any others).
    std::vector<SoapParameter*> getBodyParams() const;
    // The parameter whose element carries id="id"; null when none.
    SoapParameter* findById(const String& id) const noexcept;
    std::size_t getParameterCount() const noexcept { return m_vAll.size(); }

private:
    friend struct SoapParser;
    friend class SoapParameter;
    SoapRequest() = default;

    String m_sOperationNamespace;
    std::vector<std::unique_ptr<SoapParameter>> m_vBodyParams;
    std::vector<SoapParameter*> m_vAll;  // every parameter, in creation order
    std::unordered_map<String, SoapParameter*> m_ids;
};

}  // namespace kiv
