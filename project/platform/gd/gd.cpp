// Generic-data values and the JSON evaluator over the simdjson DOM parser.
//
// An evaluation encodes the text to UTF-8 once (into a padded buffer reused
// between evaluations), lets simdjson parse and validate it, and copies the
// DOM into our own immutable value tree, so the parser can be reused at once
// and values outlive the evaluator.
#include "qz/platform/gd.h"

#include <simdjson.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <numeric>

#include "qz/platform/exception.h"

namespace kiv {

namespace {

// Objects with more members than this get a sorted index for look-ups and
// for the duplicate-key rule; smaller ones are searched linearly.
constexpr std::size_t kLinearMembers = 8;
// Longest chain of reference holders followed before giving up.
constexpr int kMaxReferenceHops = 64;

bool keyLess(const String& a, const String& b) noexcept {
    return static_cast<const std::wstring&>(a) < static_cast<const std::wstring&>(b);
}

// UTF-8 to String with a fast path for pure ASCII; throws Utf8Error.
String decodeUtf8(std::string_view s) {
    for (unsigned char c : s) {
        if (c >= 0x80) return String::fromUtf8(s);
    }
    String out;
    out.resize(s.size());
    for (std::size_t i = 0; i < s.size(); ++i) out[i] = static_cast<wchar_t>(static_cast<unsigned char>(s[i]));
    return out;
}

// Number of UTF-8 bytes for `in`, or SIZE_MAX when it holds a character that
// is not a Unicode scalar value.
std::size_t utf8Length(std::wstring_view in) noexcept {
    std::size_t n = 0;
    for (wchar_t wc : in) {
        const auto c = static_cast<std::uint32_t>(wc);
        if (c < 0x80) n += 1;
        else if (c < 0x800) n += 2;
        else if (c >= 0xD800 && c <= 0xDFFF) return SIZE_MAX;
        else if (c < 0x10000) n += 3;
        else if (c <= 0x10FFFF) n += 4;
        else return SIZE_MAX;
    }
    return n;
}

// Writes the UTF-8 form of `in` (already checked by utf8Length) to `out`.
void encodeUtf8(std::wstring_view in, char* out) noexcept {
    for (wchar_t wc : in) {
        const auto c = static_cast<std::uint32_t>(wc);
        if (c < 0x80) {
            *out++ = static_cast<char>(c);
        } else if (c < 0x800) {
            *out++ = static_cast<char>(0xC0 | (c >> 6));
            *out++ = static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            *out++ = static_cast<char>(0xE0 | (c >> 12));
            *out++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            *out++ = static_cast<char>(0x80 | (c & 0x3F));
        } else {
            *out++ = static_cast<char>(0xF0 | (c >> 18));
            *out++ = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            *out++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            *out++ = static_cast<char>(0x80 | (c & 0x3F));
        }
    }
}

// Shortest round-trip text of a double.
void appendDouble(std::wstring& out, double d, bool asJson) {
    if (!std::isfinite(d)) {
        // JSON has no spelling for these; values from the evaluator never hold them.
        if (asJson) out += L"null";
        else out += std::isnan(d) ? L"nan" : (d > 0 ? L"inf" : L"-inf");
        return;
    }
    char buf[64];
    auto res = std::to_chars(buf, buf + sizeof buf, d);
    bool integral = true;
    for (char* p = buf; p != res.ptr; ++p) {
        out.push_back(static_cast<wchar_t>(*p));
        if (*p == '.' || *p == 'e' || *p == 'E') integral = false;
    }
    // Keep a double a double when its JSON text is read back.
    if (asJson && integral) out += L".0";
}

void appendInt(std::wstring& out, std::int64_t n) {
    char buf[24];
    auto res = std::to_chars(buf, buf + sizeof buf, n);
    for (char* p = buf; p != res.ptr; ++p) out.push_back(static_cast<wchar_t>(*p));
}

void appendJsonString(std::wstring& out, const std::wstring& s) {
    static const wchar_t kHex[] = L"0123456789abcdef";
    out.push_back(L'"');
    for (wchar_t c : s) {
        switch (c) {
            case L'"': out += L"\\\""; break;
            case L'\\': out += L"\\\\"; break;
            case L'\b': out += L"\\b"; break;
            case L'\f': out += L"\\f"; break;
            case L'\n': out += L"\\n"; break;
            case L'\r': out += L"\\r"; break;
            case L'\t': out += L"\\t"; break;
            default:
                if (static_cast<std::uint32_t>(c) < 0x20) {
                    out += L"\\u00";
                    out.push_back(kHex[(c >> 4) & 0xF]);
                    out.push_back(kHex[c & 0xF]);
                } else {
                    out.push_back(c);
                }
        }
    }
    out.push_back(L'"');
}

const GDVariant& followHolders(const GDVariant& v) noexcept {
    const GDVariant* cur = &v;
    for (int hop = 0; hop < kMaxReferenceHops; ++hop) {
        auto* ref = dynamic_cast<const GDReferenceValue*>(cur->getValue());
        if (!ref) break;
        cur = &ref->getTarget();
    }
    return *cur;
}

void appendJson(std::wstring& out, const GDVariant& value);

void appendJsonValue(std::wstring& out, const GDValue* v) {
    if (auto* arr = dynamic_cast<const GDJsonArray*>(v)) {
        out.push_back(L'[');
        bool first = true;
        for (const GDVariant& e : arr->elements()) {
            if (!first) out.push_back(L',');
            first = false;
            appendJson(out, e);
        }
        out.push_back(L']');
    } else if (auto* obj = dynamic_cast<const GDJsonObject*>(v)) {
        out.push_back(L'{');
        bool first = true;
        for (const auto& m : obj->members()) {
            if (!first) out.push_back(L',');
            first = false;
            appendJsonString(out, m.first);
            out.push_back(L':');
            appendJson(out, m.second);
        }
        out.push_back(L'}');
    } else {
        out += L"null";
    }
}

void appendJson(std::wstring& out, const GDVariant& value) {
    const GDVariant& v = followHolders(value);
    switch (v.kind()) {
        case GDVariant::Kind::kEmpty: out += L"null"; break;
        case GDVariant::Kind::kBool: out += v.getBool() ? L"true" : L"false"; break;
        case GDVariant::Kind::kInt: appendInt(out, v.getInt()); break;
        case GDVariant::Kind::kDouble: appendDouble(out, v.getDouble(), true); break;
        case GDVariant::Kind::kString: appendJsonString(out, v.getString()); break;
        case GDVariant::Kind::kMessage: appendJsonString(out, v.toText()); break;
        case GDVariant::Kind::kValue: appendJsonValue(out, v.getValue()); break;
    }
}

// Copies a simdjson DOM element into a variant; false on any failure
// (nesting too deep, integer out of range, string not decodable).
class DomConverter {
public:
    bool convert(simdjson::dom::element e, std::size_t depth, GDVariant& out) {
        using simdjson::dom::element_type;
        switch (e.type()) {
            case element_type::NULL_VALUE: out = GDVariant(); return true;
            case element_type::BOOL: out = GDVariant(e.get_bool().value_unsafe()); return true;
            case element_type::INT64: out = GDVariant(e.get_int64().value_unsafe()); return true;
            case element_type::UINT64:
                // Above INT64_MAX: kept as the nearest double.
                out = GDVariant(static_cast<double>(e.get_uint64().value_unsafe()));
                return true;
            case element_type::DOUBLE: out = GDVariant(e.get_double().value_unsafe()); return true;
            case element_type::STRING: out = GDVariant(decodeUtf8(e.get_string().value_unsafe())); return true;
            case element_type::ARRAY: {
                if (depth + 1 > GDExpressionEvaluator::kMaxDepth) return false;
                simdjson::dom::array arr = e.get_array().value_unsafe();
                std::vector<GDVariant> elements;
                elements.reserve(arr.size());
                for (simdjson::dom::element child : arr) {
                    elements.emplace_back();
                    if (!convert(child, depth + 1, elements.back())) return false;
                }
                out = GDVariant(Handle<GDValue>(new GDJsonArray(std::move(elements))));
                return true;
            }
            case element_type::OBJECT: {
                if (depth + 1 > GDExpressionEvaluator::kMaxDepth) return false;
                simdjson::dom::object obj = e.get_object().value_unsafe();
                std::vector<GDJsonObject::Member> members;
                members.reserve(obj.size());
                for (simdjson::dom::key_value_pair kv : obj) {
                    members.emplace_back(decodeUtf8(kv.key), GDVariant());
                    if (!convert(kv.value, depth + 1, members.back().second)) return false;
                }
                out = GDVariant(Handle<GDValue>(new GDJsonObject(std::move(members))));
                return true;
            }
        }
        return false;
    }
};

}  // namespace

// ---------------------------------------------------------------- values

bool GDJsonArray::getElement(std::size_t i, GDVariant& out) const {
    if (i >= m_elements.size()) return false;
    out = m_elements[i];
    return true;
}

GDJsonObject::GDJsonObject(std::vector<Member> members) {
    const std::size_t n = members.size();
    if (n <= kLinearMembers) {
        m_members.reserve(n);
        for (auto& m : members) {
            auto it = std::find_if(m_members.begin(), m_members.end(),
                                   [&](const Member& x) { return x.first == m.first; });
            if (it != m_members.end()) it->second = std::move(m.second);  // last value wins
            else m_members.push_back(std::move(m));
        }
        return;
    }
    // Sort member indexes by key (stable: equal keys stay in document order),
    // then keep one member per key at its first position with its last value.
    std::vector<std::uint32_t> order(n);
    std::iota(order.begin(), order.end(), 0u);
    std::stable_sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
        return keyLess(members[a].first, members[b].first);
    });
    std::vector<char> keep(n, 0);
    std::vector<std::uint32_t> groupFirst;
    groupFirst.reserve(n);
    for (std::size_t g = 0; g < n;) {
        std::size_t end = g + 1;
        while (end < n && members[order[end]].first == members[order[g]].first) ++end;
        const std::uint32_t first = order[g];
        const std::uint32_t last = order[end - 1];
        if (first != last) members[first].second = std::move(members[last].second);
        keep[first] = 1;
        groupFirst.push_back(first);
        g = end;
    }
    std::vector<std::uint32_t> newIndex(n, 0);
    m_members.reserve(groupFirst.size());
    for (std::size_t i = 0; i < n; ++i) {
        if (!keep[i]) continue;
        newIndex[i] = static_cast<std::uint32_t>(m_members.size());
        m_members.push_back(std::move(members[i]));
    }
    m_sorted.reserve(groupFirst.size());
    for (std::uint32_t first : groupFirst) m_sorted.push_back(newIndex[first]);
}

const GDVariant* GDJsonObject::find(const String& key) const noexcept {
    if (m_sorted.empty()) {
        for (const auto& m : m_members) {
            if (m.first == key) return &m.second;
        }
        return nullptr;
    }
    auto it = std::lower_bound(m_sorted.begin(), m_sorted.end(), key,
                               [&](std::uint32_t i, const String& k) { return keyLess(m_members[i].first, k); });
    if (it == m_sorted.end() || m_members[*it].first != key) return nullptr;
    return &m_members[*it].second;
}

bool GDJsonObject::getProperty(GDContext&, const GDPropertyKey& key, GDVariant& out) const {
    const GDVariant* v = find(key.getName());
    if (!v) return false;
    out = *v;
    return true;
}

GDValue* GDReferenceValue::resolveReferences() {
    const GDVariant& target = followHolders(m_target);
    GDValue* v = target.getValue();
    if (!v || dynamic_cast<GDReferenceValue*>(v)) return nullptr;  // scalar, nothing, or chain too long
    return v->resolveReferences();
}

const GDVariant& GDAdjustableSizeVariant::getReferencedValue() const noexcept { return followHolders(*this); }

// ---------------------------------------------------------------- context

// The last few container texts made by toString, with the values they were
// made from. An entry is dropped when its text is evaluated.
struct GDContext::Memo {
    static constexpr std::size_t kEntries = 4;
    struct Entry {
        String text;
        GDVariant value;
    };
    std::vector<Entry> entries;  // oldest first

    void remember(const String& text, const GDVariant& value) {
        if (entries.size() == kEntries) entries.erase(entries.begin());
        entries.push_back({text, value});
    }
    bool take(std::wstring_view text, GDVariant& out) {
        for (auto it = entries.begin(); it != entries.end(); ++it) {
            if (std::wstring_view(it->text) != text) continue;
            out = std::move(it->value);
            entries.erase(it);
            return true;
        }
        return false;
    }
};

GDContext::GDContext() : m_memo(std::make_unique<Memo>()) {}
GDContext::~GDContext() = default;

String GDTypeConversions::toString(GDContext& ctx, const GDVariant& value) {
    const GDVariant& v = followHolders(value);
    if (v.kind() == GDVariant::Kind::kValue) {
        std::wstring out;
        if (dynamic_cast<const GDJsonArray*>(v.getValue()) || dynamic_cast<const GDJsonObject*>(v.getValue())) {
            appendJsonValue(out, v.getValue());
            String text(std::move(out));
            ctx.m_memo->remember(text, v);
            return text;
        }
        return String(std::move(out));
    }
    if (v.kind() == GDVariant::Kind::kDouble) {
        std::wstring out;
        appendDouble(out, v.getDouble(), false);
        return String(std::move(out));
    }
    return v.toText();
}

String GDTypeConversions::toJson(GDContext&, const GDVariant& value) {
    std::wstring out;
    appendJson(out, value);
    return String(std::move(out));
}

// ---------------------------------------------------------------- evaluator

struct GDExpressionEvaluator::Impl {
    simdjson::dom::parser parser{kMaxTextBytes};
    std::unique_ptr<char[]> buffer;
    std::size_t bufferCapacity = 0;
    bool allocated = false;

    // Makes room for `n` bytes plus simdjson's padding.
    char* reserve(std::size_t n) {
        if (n > bufferCapacity || !buffer) {
            const std::size_t cap = std::max<std::size_t>(n, 4096);
            buffer.reset(new char[cap + simdjson::SIMDJSON_PADDING]);
            bufferCapacity = cap;
        }
        return buffer.get();
    }
};

GDExpressionEvaluator::GDExpressionEvaluator() : m_impl(std::make_unique<Impl>()) {}
GDExpressionEvaluator::~GDExpressionEvaluator() = default;

bool GDExpressionEvaluator::evaluateExpression(const String& text, std::size_t length, GDVariant& result, int flag) {
    if (flag != kJsonLiteral) return false;
    std::wstring_view view(text);
    view = view.substr(0, std::min(length, view.size()));
    if (view.size() > kMaxTextBytes) return false;  // every character takes at least one byte
    const std::size_t bytes = utf8Length(view);
    if (bytes == SIZE_MAX || bytes > kMaxTextBytes) return false;

    // The text form of a value made by toString: that value, unparsed.
    if (view.size() == text.size() && m_context.m_memo->take(view, result)) return true;

    Impl& impl = *m_impl;
    if (!impl.allocated) {
        // simdjson counts the document itself as one level; our own exact
        // check runs while converting, so give the parser a little slack.
        if (impl.parser.allocate(4096, kMaxDepth + 8) != simdjson::SUCCESS) return false;
        impl.allocated = true;
    }
    char* buf = impl.reserve(bytes);
    encodeUtf8(view, buf);
    std::memset(buf + bytes, 0, simdjson::SIMDJSON_PADDING);

    simdjson::dom::element root;
    if (impl.parser.parse(buf, bytes, false).get(root) != simdjson::SUCCESS) return false;
    try {
        GDVariant value;
        DomConverter converter;
        if (!converter.convert(root, 0, value)) return false;
        result = std::move(value);
        return true;
    } catch (const Utf8Error&) {
        return false;
    }
}

}  // namespace kiv
