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
#include <functional>
#include <memory>
#include <string_view>
#include <type_traits>
#include <typeinfo>
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

// Characters looked at together by the escaping fast path below: each block
// is one branch-free loop that the compiler turns into vector instructions.
constexpr std::size_t kBlock = 16;

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

// Written with bitwise operators so that a block of tests has no branches.
unsigned needsEscape(wchar_t c) noexcept {
    const auto u = static_cast<std::uint32_t>(c);
    return static_cast<unsigned>(u == 0x22) | static_cast<unsigned>(u == 0x5C) | static_cast<unsigned>(u < 0x20);
}

void appendJsonString(std::wstring& out, std::wstring_view s) {
    static const wchar_t kHex[] = L"0123456789abcdef";
    out.push_back(L'"');
    std::size_t run = 0;  // start of the characters not yet written
    std::size_t i = 0;
    while (i < s.size()) {
        if (i + kBlock <= s.size()) {
            unsigned any = 0;
            for (std::size_t k = 0; k < kBlock; ++k) any |= needsEscape(s[i + k]);
            if (!any) {
                i += kBlock;
                continue;
            }
        }
        const std::size_t end = std::min(i + kBlock, s.size());
        for (; i < end; ++i) {
            const wchar_t c = s[i];
            if (!needsEscape(c)) continue;
            out.append(s.data() + run, i - run);
            run = i + 1;
            switch (c) {
                case L'"': out += L"\\\""; break;
                case L'\\': out += L"\\\\"; break;
                case L'\b': out += L"\\b"; break;
                case L'\f': out += L"\\f"; break;
                case L'\n': out += L"\\n"; break;
                case L'\r': out += L"\\r"; break;
                case L'\t': out += L"\\t"; break;
                default:
                    out += L"\\u00";
                    out.push_back(kHex[(c >> 4) & 0xF]);
                    out.push_back(kHex[c & 0xF]);
            }
        }
    }
    out.append(s.data() + run, s.size() - run);
    out.push_back(L'"');
}

// dynamic_cast<const T*>(v) for a final class T, as one comparison of the
// dynamic type: the JSON writer asks this of every value it writes.
template <class T>
const T* exactly(const GDValue* v) noexcept {
    static_assert(std::is_final_v<T>);
    if (!v) return nullptr;
    if (typeid(*v) == typeid(T)) return static_cast<const T*>(v);
    return nullptr;
}

const GDVariant& followHolders(const GDVariant& v) noexcept {
    const GDVariant* cur = &v;
    for (int hop = 0; hop < kMaxReferenceHops; ++hop) {
        auto* ref = exactly<GDReferenceValue>(cur->getValue());
        if (!ref) break;
        cur = &ref->getTarget();
    }
    return *cur;
}

bool isJsonContainer(const GDValue* v) noexcept {
    return exactly<GDJsonArray>(v) != nullptr || exactly<GDJsonObject>(v) != nullptr;
}

// Writes the JSON text of values. Optionally it notes where the text of every
// array and object begins and ends, and whether evaluating the text would give
// back a structure equal to the value (it would not for what JSON cannot
// spell: reference holders, messages, non-finite doubles, other values, or
// nesting beyond the evaluator's limit).
class JsonWriter {
public:
    struct Span {
        const GDValue* value;
        std::size_t offset;
        std::size_t length;
    };

    explicit JsonWriter(std::wstring& out, std::vector<Span>* spans = nullptr) : m_out(out), m_spans(spans) {}

    bool exact() const noexcept { return m_exact; }

    void write(const GDVariant& value) {
        const GDVariant& v = followHolders(value);
        if (&v != &value) m_exact = false;
        switch (v.kind()) {
            case GDVariant::Kind::kEmpty: m_out += L"null"; break;
            case GDVariant::Kind::kBool: m_out += v.getBool() ? L"true" : L"false"; break;
            case GDVariant::Kind::kInt: appendInt(m_out, v.getInt()); break;
            case GDVariant::Kind::kDouble:
                if (!std::isfinite(v.getDouble())) m_exact = false;
                appendDouble(m_out, v.getDouble(), true);
                break;
            case GDVariant::Kind::kString: appendJsonString(m_out, v.getString()); break;
            case GDVariant::Kind::kMessage:
                m_exact = false;
                appendJsonString(m_out, v.toText());
                break;
            case GDVariant::Kind::kValue: writeValue(v.getValue()); break;
        }
    }

    void writeValue(const GDValue* v) {
        if (!isJsonContainer(v)) {
            m_exact = false;
            m_out += L"null";
            return;
        }
        // Noted before the members, so that spans are in document order.
        const std::size_t span = m_spans ? m_spans->size() : 0;
        if (m_spans) m_spans->push_back({v, m_out.size(), 0});
        if (auto* arr = exactly<GDJsonArray>(v)) {
            if (++m_depth > GDExpressionEvaluator::kMaxDepth) m_exact = false;
            m_out.push_back(L'[');
            bool first = true;
            for (const GDVariant& e : arr->elements()) {
                if (!first) m_out.push_back(L',');
                first = false;
                write(e);
            }
            m_out.push_back(L']');
            --m_depth;
        } else {
            auto* obj = static_cast<const GDJsonObject*>(v);
            if (++m_depth > GDExpressionEvaluator::kMaxDepth) m_exact = false;
            m_out.push_back(L'{');
            bool first = true;
            for (const auto& m : obj->members()) {
                if (!first) m_out.push_back(L',');
                first = false;
                appendJsonString(m_out, m.first);
                m_out.push_back(L':');
                write(m.second);
            }
            m_out.push_back(L'}');
            --m_depth;
        }
        if (m_spans) (*m_spans)[span].length = m_out.size() - (*m_spans)[span].offset;
    }

private:
    std::wstring& m_out;
    std::vector<Span>* m_spans;
    std::size_t m_depth = 0;
    bool m_exact = true;
};

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
            case element_type::STRING: out = GDVariant(String::fromUtf8(e.get_string().value_unsafe())); return true;
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
                    members.emplace_back(String::fromUtf8(kv.key), GDVariant());
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
        bool unique = true;
        for (std::size_t i = 1; i < n && unique; ++i) {
            for (std::size_t j = 0; j < i; ++j) {
                if (members[i].first == members[j].first) {
                    unique = false;
                    break;
                }
            }
        }
        if (unique) {
            m_members = std::move(members);
            return;
        }
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
    if (!v || exactly<GDReferenceValue>(v)) return nullptr;  // scalar, nothing, or chain too long
    return v->resolveReferences();
}

const GDVariant& GDAdjustableSizeVariant::getReferencedValue() const noexcept { return followHolders(*this); }

// ---------------------------------------------------------------- context

// Texts of arrays and objects made by toString.
//
// Writing a container's text once also tells where the text of every
// container nested in it lies, so a later toString of any of them is a copy
// of part of that text instead of a new walk over values ("bases", the last
// few texts written in full). The last few texts handed out are remembered
// with their values ("given"): evaluating one of them again answers with the
// value, unparsed, when the text is known to evaluate to an equal structure.
// A given text is forgotten once it has been evaluated.
struct GDContext::Memo {
    static constexpr std::size_t kBases = 4;
    static constexpr std::size_t kGiven = 4;

    struct Base {
        GDVariant value;  // keeps the tree, and so the addresses in `spans`, alive
        String text;
        // Evaluating the text (or the text of any container in it) gives an
        // equal structure, within the evaluator's limits.
        bool exact = false;
        std::vector<JsonWriter::Span> spans;  // in document order, `value` first

        // The span of `v`. Readers mostly ask for containers in document
        // order, so the spans just after the last answer are looked at first;
        // otherwise an index by address, built on first need, answers.
        const JsonWriter::Span* find(const GDValue* v) const {
            const std::size_t end = std::min(spans.size(), next + kLookAhead);
            for (std::size_t i = next; i < end; ++i) {
                if (spans[i].value == v) return found(i);
            }
            if (byAddress.empty()) {
                byAddress.resize(spans.size());
                std::iota(byAddress.begin(), byAddress.end(), std::size_t{0});
                std::sort(byAddress.begin(), byAddress.end(), [&](std::size_t a, std::size_t b) {
                    return std::less<const GDValue*>()(spans[a].value, spans[b].value);
                });
            }
            auto it = std::lower_bound(byAddress.begin(), byAddress.end(), v, [&](std::size_t i, const GDValue* p) {
                return std::less<const GDValue*>()(spans[i].value, p);
            });
            return it != byAddress.end() && spans[*it].value == v ? found(*it) : nullptr;
        }

    private:
        static constexpr std::size_t kLookAhead = 64;
        mutable std::size_t next = 0;
        mutable std::vector<std::size_t> byAddress;

        const JsonWriter::Span* found(std::size_t i) const {
            next = i + 1;
            return &spans[i];
        }
    };
    struct Given {
        std::shared_ptr<const Base> base;
        std::size_t offset;
        std::size_t length;
        GDVariant value;
    };
    std::vector<std::shared_ptr<const Base>> bases;  // oldest first
    std::vector<Given> given;                        // oldest first

    // The text of `v`, which holds an array or an object.
    String textOf(const GDVariant& v) {
        const GDValue* p = v.getValue();
        for (auto it = bases.rbegin(); it != bases.rend(); ++it) {
            if (const JsonWriter::Span* span = (*it)->find(p)) return give(*it, *span, v);
        }
        auto base = std::make_shared<Base>();
        base->value = v;
        std::wstring out;
        JsonWriter writer(out, &base->spans);
        writer.writeValue(p);
        base->text = String(std::move(out));
        const std::size_t bytes = utf8::encodedLength(base->text);
        base->exact = writer.exact() && bytes != SIZE_MAX && bytes <= GDExpressionEvaluator::kMaxTextBytes;
        if (bases.size() == kBases) bases.erase(bases.begin());
        bases.push_back(base);
        return give(base, *base->find(p), v);  // the first span, `p` itself
    }

    String give(const std::shared_ptr<const Base>& base, const JsonWriter::Span& span, const GDVariant& v) {
        if (given.size() == kGiven) given.erase(given.begin());
        given.push_back({base, span.offset, span.length, v});
        return String(std::wstring_view(base->text).substr(span.offset, span.length));
    }

    // The value whose text `text` was handed out, if evaluating the text would
    // give an equal structure; the entry is dropped.
    bool take(std::wstring_view text, GDVariant& out) {
        for (auto it = given.rbegin(); it != given.rend(); ++it) {
            if (it->length != text.size() || !it->base->exact) continue;
            if (std::wstring_view(it->base->text).substr(it->offset, it->length) != text) continue;
            out = std::move(it->value);
            given.erase(std::next(it).base());
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
        if (isJsonContainer(v.getValue())) return ctx.m_memo->textOf(v);
        return String();
    }
    if (v.kind() == GDVariant::Kind::kDouble) {
        std::wstring out;
        appendDouble(out, v.getDouble(), false);
        return String(std::move(out));
    }
    return v.toText();
}

String GDTypeConversions::toString(GDContext& ctx, GDVariant&& value) {
    if (value.kind() == GDVariant::Kind::kString) return std::move(value).getString();
    return toString(ctx, static_cast<const GDVariant&>(value));
}

const IGDRandomAccessContainer* arrayView(const GDValue* value) noexcept {
    if (auto* arr = exactly<GDJsonArray>(value)) return arr;
    return dynamic_cast<const IGDRandomAccessContainer*>(value);
}

const IGDReadablePropertyBag* objectView(const GDValue* value) noexcept {
    if (auto* obj = exactly<GDJsonObject>(value)) return obj;
    return dynamic_cast<const IGDReadablePropertyBag*>(value);
}

String GDTypeConversions::toJson(GDContext&, const GDVariant& value) {
    std::wstring out;
    JsonWriter(out).write(value);
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
    // The text form of a value made by toString: that value, unparsed (only
    // when the text is known to be within the limits below and to evaluate
    // to an equal structure).
    if (view.size() == text.size() && m_context.m_memo->take(view, result)) return true;

    if (view.size() > kMaxTextBytes) return false;  // every character takes at least one byte
    const std::size_t bytes = utf8::encodedLength(view);
    if (bytes == SIZE_MAX || bytes > kMaxTextBytes) return false;

    Impl& impl = *m_impl;
    if (!impl.allocated) {
        // simdjson counts the document itself as one level; our own exact
        // check runs while converting, so give the parser a little slack.
        if (impl.parser.allocate(4096, kMaxDepth + 8) != simdjson::SUCCESS) return false;
        impl.allocated = true;
    }
    char* buf = impl.reserve(bytes);
    utf8::encodeInto(view, buf);
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
