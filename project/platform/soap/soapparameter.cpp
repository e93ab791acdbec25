// SoapParameter: typed values, children, conversion and references.
#include <cctype>
#include <charconv>
#include <cmath>
#include <limits>
#include <string>

#include "qz/platform/assert.h"
#include "qz/platform/logger.h"
#include "qz/platform/soap.h"

namespace kiv {

namespace {

// Longest chain of reference-to-reference hops followed before a reference
// counts as unresolvable (parsed chains are cycle-free; built ones may not be).
constexpr int kMaxReferenceHops = 4096;

const String& blank() {
    static const String s;
    return s;
}

const wchar_t* typeName(SoapParameter::EType t) {
    switch (t) {
        case SoapParameter::kNone: return L"none";
        case SoapParameter::kString: return L"string";
        case SoapParameter::kUnsignedShort: return L"unsignedShort";
        case SoapParameter::kShort: return L"short";
        case SoapParameter::kInt: return L"int";
        case SoapParameter::kUnsignedInt: return L"unsignedInt";
        case SoapParameter::kLong: return L"long";
        case SoapParameter::kUnsignedLong: return L"unsignedLong";
        case SoapParameter::kBoolean: return L"boolean";
        case SoapParameter::kFloat: return L"float";
        case SoapParameter::kDouble: return L"double";
        case SoapParameter::kNull: return L"nil";
        case SoapParameter::kStruct: return L"structure";
        case SoapParameter::kArray: return L"array";
        case SoapParameter::kRef: return L"reference";
        case SoapParameter::kRefUnresolved: return L"unresolved reference";
    }
    return L"unknown";
}

[[noreturn]] void raise(const String& text) { throw SoapException(text); }

bool isXmlSpace(wchar_t c) { return c == L' ' || c == L'\t' || c == L'\r' || c == L'\n'; }

// The text without surrounding XML white space, as ASCII; false if any
// other character is not ASCII.
bool trimmedAscii(const String& s, std::string& out) {
    std::size_t b = 0, e = s.size();
    while (b < e && isXmlSpace(s[b])) ++b;
    while (e > b && isXmlSpace(s[e - 1])) --e;
    out.clear();
    out.reserve(e - b);
    for (std::size_t i = b; i < e; ++i) {
        if (static_cast<std::uint32_t>(s[i]) >= 0x80) return false;
        out.push_back(static_cast<char>(s[i]));
    }
    return true;
}

bool isIntegerType(SoapParameter::EType t) {
    return t == SoapParameter::kUnsignedShort || t == SoapParameter::kShort || t == SoapParameter::kInt ||
           t == SoapParameter::kUnsignedInt || t == SoapParameter::kLong || t == SoapParameter::kUnsignedLong;
}

bool isUnsignedType(SoapParameter::EType t) {
    return t == SoapParameter::kUnsignedShort || t == SoapParameter::kUnsignedInt || t == SoapParameter::kUnsignedLong;
}

bool isScalarType(SoapParameter::EType t) {
    return t == SoapParameter::kString || isIntegerType(t) || t == SoapParameter::kBoolean ||
           t == SoapParameter::kFloat || t == SoapParameter::kDouble;
}

}  // namespace

Exception* SoapException::clone() const { return new SoapException(*this); }

// ---------------------------------------------------------------- iterator

SoapParameter* SoapParametersIterator::operator*() const noexcept {
    if (!m_pOwner || m_nIndex >= m_pOwner->m_vChildren.size()) return nullptr;
    return m_pOwner->m_vChildren[m_nIndex].get();
}

// ---------------------------------------------------------------- building

SoapParameter::SoapParameter(String name, EType type) : m_sName(std::move(name)), m_eType(type) {}
SoapParameter::~SoapParameter() = default;

std::unique_ptr<SoapParameter> SoapParameter::makeString(String name, String value) {
    std::unique_ptr<SoapParameter> p(new SoapParameter(std::move(name), kString));
    p->m_sValue = std::move(value);
    return p;
}

std::unique_ptr<SoapParameter> SoapParameter::makeUnsignedShort(String name, std::uint16_t value) {
    std::unique_ptr<SoapParameter> p(new SoapParameter(std::move(name), kUnsignedShort));
    p->m_nUnsigned = value;
    p->m_nSigned = value;
    p->m_sValue = String(std::to_wstring(value));
    return p;
}

std::unique_ptr<SoapParameter> SoapParameter::makeStruct(String name) {
    return std::unique_ptr<SoapParameter>(new SoapParameter(std::move(name), kStruct));
}

std::unique_ptr<SoapParameter> SoapParameter::makeRef(String name, SoapParameter* target) {
    std::unique_ptr<SoapParameter> p(new SoapParameter(std::move(name), kRef));
    p->m_pRefParam = target;
    p->m_pPendingTarget = target;
    return p;
}

std::unique_ptr<SoapParameter> SoapParameter::makeUnresolvedRef(String name, SoapParameter* target) {
    std::unique_ptr<SoapParameter> p(new SoapParameter(std::move(name), kRefUnresolved));
    p->m_pPendingTarget = target;
    return p;
}

SoapParameter* SoapParameter::addChild(std::unique_ptr<SoapParameter> child) {
    if (m_eType != kStruct && m_eType != kArray)
        raise(L"SOAP parameter '" + m_sName + L"' is not a structure and cannot hold children");
    m_vChildren.push_back(std::move(child));
    return m_vChildren.back().get();
}

// ---------------------------------------------------------------- readers

const String& SoapParameter::getString() const {
    if (m_eType == kNull) return blank();
    if (!isScalarType(m_eType))
        raise(L"SOAP parameter '" + m_sName + L"' is a " + typeName(m_eType) + L", not a simple value");
    return m_sValue;
}

std::uint16_t SoapParameter::getUnsignedShort() const {
    if (m_eType != kUnsignedShort)
        raise(L"SOAP parameter '" + m_sName + L"' is a " + typeName(m_eType) + L", not an unsignedShort");
    return static_cast<std::uint16_t>(m_nUnsigned);
}

std::int64_t SoapParameter::getInteger() const {
    if (!isIntegerType(m_eType))
        raise(L"SOAP parameter '" + m_sName + L"' is a " + typeName(m_eType) + L", not an integer");
    if (isUnsignedType(m_eType)) {
        if (m_nUnsigned > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()))
            raise(L"SOAP parameter '" + m_sName + L"' does not fit a signed 64-bit integer");
        return static_cast<std::int64_t>(m_nUnsigned);
    }
    return m_nSigned;
}

double SoapParameter::getDouble() const {
    if (m_eType != kFloat && m_eType != kDouble)
        raise(L"SOAP parameter '" + m_sName + L"' is a " + typeName(m_eType) + L", not a floating-point value");
    return m_dValue;
}

bool SoapParameter::getBool() const {
    if (m_eType != kBoolean)
        raise(L"SOAP parameter '" + m_sName + L"' is a " + typeName(m_eType) + L", not a boolean");
    return m_bValue;
}

SoapParameter* SoapParameter::getRefParam() const {
    if (m_pRefParam == nullptr) {
        debug::assertionFailed(kSevError, L"m_pRefParam != __null", __FILE__, __LINE__);
        raise(L"SOAP parameter '" + m_sName + L"' refers to no parameter" +
              (m_sRefId.empty() ? String() : String(L" (missing or cyclic id '" + m_sRefId + L"')")));
    }
    return m_pRefParam;
}

// ---------------------------------------------------------------- children

SoapParameter* SoapParameter::lookupTarget() const noexcept {
    if (m_eType == kRef) return m_pRefParam;
    if (m_eType != kRefUnresolved || m_bOnCycle) return nullptr;
    if (m_pPendingTarget) return m_pPendingTarget;
    if (m_pRequest && !m_sRefId.empty()) return m_pRequest->findById(m_sRefId);
    return nullptr;
}

const SoapParameter* SoapParameter::structure() const noexcept {
    const SoapParameter* p = this;
    for (int hop = 0; hop < kMaxReferenceHops; ++hop) {
        if (p->m_eType != kRef && p->m_eType != kRefUnresolved) return p;
        p = p->lookupTarget();
        if (!p) return nullptr;
    }
    return nullptr;
}

SoapParametersIterator SoapParameter::begin() const noexcept { return SoapParametersIterator(structure(), 0); }

SoapParametersIterator SoapParameter::end() const noexcept {
    const SoapParameter* s = structure();
    return SoapParametersIterator(s, s ? s->m_vChildren.size() : 0);
}

std::size_t SoapParameter::getChildCount() const noexcept {
    const SoapParameter* s = structure();
    return s ? s->m_vChildren.size() : 0;
}

SoapParameter* SoapParameter::getChildParam(const String& name, const SoapParametersIterator& it, bool bRequired,
                                            bool bSearchOn) const {
    const SoapParameter* s = structure();
    if (s && it.m_pOwner == s) {
        for (std::size_t i = it.m_nIndex; i < s->m_vChildren.size(); ++i) {
            SoapParameter* child = s->m_vChildren[i].get();
            if (child->m_sName == name) return child;
            if (!bSearchOn) {
                if (bRequired)
                    raise(L"SOAP parameter '" + m_sName + L"': expected child '" + name + L"' at position " +
                          String(std::to_wstring(i + 1)) + L", found '" + child->m_sName + L"'");
                return nullptr;
            }
        }
    }
    if (bRequired) raise(L"SOAP parameter '" + m_sName + L"' has no child '" + name + L"'");
    return nullptr;
}

SoapParameter* SoapParameter::getChildParam(const SoapParametersIterator& it) const noexcept {
    const SoapParameter* s = structure();
    if (!s || it.m_pOwner != s) return nullptr;
    return *it;
}

// ---------------------------------------------------------------- changes

void SoapParameter::resolveRef() {
    if (m_eType != kRefUnresolved) return;
    SoapParameter* target = lookupTarget();
    if (!target) return;
    // A built reference could close a loop of references: refuse it.
    const SoapParameter* p = target;
    for (int hop = 0; p && (p->m_eType == kRef || p->m_eType == kRefUnresolved); ++hop) {
        if (p == this || hop >= kMaxReferenceHops) return;
        p = p->lookupTarget();
    }
    m_pRefParam = target;
    m_eType = kRef;
}

void SoapParameter::convert(EType type) {
    if (m_eType == kRef || m_eType == kRefUnresolved) {
        SoapParameter* p = this;
        for (int hop = 0; p->m_eType == kRef || p->m_eType == kRefUnresolved; ++hop) {
            if (hop >= kMaxReferenceHops) return;
            if (p->m_eType == kRefUnresolved) p->resolveRef();
            if (p->m_eType != kRef) return;  // cannot be resolved: left as it is
            p = p->m_pRefParam;
        }
        p->convert(type);
        return;
    }
    if (type == m_eType) return;
    if (m_eType == kStruct || m_eType == kArray || m_eType == kNone)
        raise(L"SOAP parameter '" + m_sName + L"' is a " + typeName(m_eType) + L" and cannot be converted to " +
              typeName(type));
    if (!isScalarType(type))
        raise(L"SOAP parameter '" + m_sName + L"' cannot be converted to " + String(typeName(type)));
    if (m_eType == kNull) {
        if (type != kString) raise(L"SOAP parameter '" + m_sName + L"' is nil and cannot be converted to " +
                                   String(typeName(type)));
        m_sValue.clear();
        m_eType = kString;
        return;
    }
    if (type == kString) {
        m_eType = kString;  // the text form is kept for every scalar
        return;
    }

    auto fail = [&]() {
        raise(L"SOAP parameter '" + m_sName + L"': value '" + m_sValue.substr(0, 64) + L"' is not a valid " +
              typeName(type));
    };
    std::string text;
    if (!trimmedAscii(m_sValue, text) || text.empty()) fail();
    const char* first = text.data();
    const char* last = text.data() + text.size();

    if (type == kBoolean) {
        if (text == "true" || text == "1") m_bValue = true;
        else if (text == "false" || text == "0") m_bValue = false;
        else fail();
        m_sValue = m_bValue ? String(L"true") : String(L"false");
        m_eType = kBoolean;
        return;
    }
    if (type == kFloat || type == kDouble) {
        double d = 0;
        if (text == "INF") d = std::numeric_limits<double>::infinity();
        else if (text == "-INF") d = -std::numeric_limits<double>::infinity();
        else if (text == "NaN") d = std::numeric_limits<double>::quiet_NaN();
        else {
            // XML Schema spells numbers with digits, sign, '.', 'e'/'E' only.
            for (char c : text)
                if (!(std::isdigit(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.' || c == 'e' ||
                      c == 'E'))
                    fail();
            if (*first == '+') ++first;
            auto res = std::from_chars(first, last, d);
            if (res.ec != std::errc() || res.ptr != last) fail();
        }
        if (type == kFloat && std::isfinite(d) && std::fabs(d) > std::numeric_limits<float>::max()) fail();
        m_dValue = d;
        m_eType = type;
        return;
    }
    // Integers: optional sign, decimal digits, within the type's range.
    bool negative = false;
    if (*first == '+' || *first == '-') {
        negative = *first == '-';
        ++first;
    }
    if (first == last || *first == '+' || *first == '-') fail();
    std::uint64_t magnitude = 0;
    auto res = std::from_chars(first, last, magnitude);
    if (res.ec != std::errc() || res.ptr != last) fail();
    std::int64_t lo = 0;
    std::uint64_t hi = 0;
    switch (type) {
        case kUnsignedShort: hi = 0xFFFFu; break;
        case kShort: lo = -32768; hi = 32767; break;
        case kInt: lo = std::numeric_limits<std::int32_t>::min(); hi = std::numeric_limits<std::int32_t>::max(); break;
        case kUnsignedInt: hi = 0xFFFFFFFFu; break;
        case kLong: lo = std::numeric_limits<std::int64_t>::min(); hi = std::numeric_limits<std::int64_t>::max(); break;
        default: hi = std::numeric_limits<std::uint64_t>::max(); break;  // kUnsignedLong
    }
    if (negative && magnitude != 0) {
        // -magnitude must be >= lo.
        const std::uint64_t maxNeg = static_cast<std::uint64_t>(-(lo + 1)) + 1u;
        if (lo == 0 || magnitude > maxNeg) fail();
        m_nSigned = static_cast<std::int64_t>(0u - magnitude);
        m_nUnsigned = 0;
    } else {
        if (magnitude > hi) fail();
        m_nUnsigned = magnitude;
        m_nSigned = static_cast<std::int64_t>(magnitude);
    }
    m_sValue = String(negative && magnitude != 0 ? std::to_wstring(m_nSigned) : std::to_wstring(magnitude));
    m_eType = type;
}

}  // namespace kiv
