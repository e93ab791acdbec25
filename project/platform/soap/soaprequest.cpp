// SoapRequest: a SOAP 1.1 request envelope parsed with libxml2 (through the
// platform layer's hardened parse) into SoapParameters, with multi-reference
// values and their cycles checked.
#include <libxml/parser.h>
#include <libxml/tree.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "qz/platform/soap.h"
#include "qz/platform/xmlparse.h"

namespace kiv {

const char* const SoapRequest::ksEnvelopeNamespace = "http://schemas.xmlsoap.org/soap/envelope/";

namespace {

constexpr const char* ksSoap12Namespace = "http://www.w3.org/2003/05/soap-envelope";
constexpr const char* ksEncodingNamespace = "http://schemas.xmlsoap.org/soap/encoding/";
constexpr const char* ksXsiNamespaces[] = {"http://www.w3.org/2001/XMLSchema-instance",
                                           "http://www.w3.org/1999/XMLSchema-instance"};
constexpr const char* ksXsdNamespaces[] = {"http://www.w3.org/2001/XMLSchema", "http://www.w3.org/1999/XMLSchema",
                                           "http://www.w3.org/2000/10/XMLSchema"};

[[noreturn]] void reject(const String& text) { throw SoapException(L"SOAP request rejected: " + text); }

const char* str(const xmlChar* s) { return reinterpret_cast<const char*>(s); }

bool eq(const xmlChar* a, const char* b) { return a && std::strcmp(str(a), b) == 0; }

template <std::size_t N>
bool inList(const xmlChar* s, const char* const (&list)[N]) {
    for (const char* x : list)
        if (eq(s, x)) return true;
    return false;
}

String wide(const xmlChar* s) { return s ? String::fromUtf8(str(s)) : String(); }

String wide(std::string_view s) { return String::fromUtf8(s); }

bool isElement(const xmlNode* n) { return n && n->type == XML_ELEMENT_NODE; }

bool hasNamespace(const xmlNode* n, const char* uri) { return n->ns && eq(n->ns->href, uri); }

const xmlNode* firstElement(const xmlNode* n) {
    for (; n; n = n->next)
        if (isElement(n)) return n;
    return nullptr;
}

// The value of an attribute without namespace (`id`, `href`); null if absent.
const xmlAttr* plainAttr(const xmlNode* n, const char* name) {
    for (const xmlAttr* a = n->properties; a; a = a->next)
        if (!a->ns && eq(a->name, name)) return a;
    return nullptr;
}

// An attribute in one of the given namespaces.
template <std::size_t N>
const xmlAttr* nsAttr(const xmlNode* n, const char* name, const char* const (&uris)[N]) {
    for (const xmlAttr* a = n->properties; a; a = a->next)
        if (a->ns && eq(a->name, name) && inList(a->ns->href, uris)) return a;
    return nullptr;
}

const xmlAttr* nsAttr(const xmlNode* n, const char* name, const char* uri) {
    const char* const uris[] = {uri};
    return nsAttr(n, name, uris);
}

// The text of an attribute (its children are text nodes only, no entities).
std::string attrText(const xmlAttr* a) {
    std::string out;
    for (const xmlNode* c = a->children; c; c = c->next)
        if (c->content) out += str(c->content);
    return out;
}

std::string trimmed(std::string s) {
    const char* ws = " \t\r\n";
    const auto b = s.find_first_not_of(ws);
    if (b == std::string::npos) return std::string();
    const auto e = s.find_last_not_of(ws);
    return s.substr(b, e - b + 1);
}

struct TypeName {
    const char* name;
    SoapParameter::EType type;
};

constexpr TypeName kSimpleTypes[] = {
    {"string", SoapParameter::kString},        {"unsignedShort", SoapParameter::kUnsignedShort},
    {"short", SoapParameter::kShort},          {"int", SoapParameter::kInt},
    {"unsignedInt", SoapParameter::kUnsignedInt}, {"long", SoapParameter::kLong},
    {"unsignedLong", SoapParameter::kUnsignedLong}, {"boolean", SoapParameter::kBoolean},
    {"float", SoapParameter::kFloat},          {"double", SoapParameter::kDouble},
};

}  // namespace

// Builds the parameter tree of one envelope.
struct SoapParser {
    SoapRequest& request;

    // How an xsi:type attribute classifies an element.
    enum class Declared { kNone, kSimple, kArray, kOther };

    Declared declaredType(const xmlNode* n, SoapParameter::EType& simple) {
        const xmlAttr* a = nsAttr(n, "type", ksXsiNamespaces);
        if (!a) {
            if (nsAttr(n, "arrayType", ksEncodingNamespace)) return Declared::kArray;
            return Declared::kNone;
        }
        const std::string qname = trimmed(attrText(a));
        const auto colon = qname.find(':');
        const std::string prefix = colon == std::string::npos ? std::string() : qname.substr(0, colon);
        const std::string local = colon == std::string::npos ? qname : qname.substr(colon + 1);
        if (local.empty() || local.find(':') != std::string::npos)
            reject(L"element '" + wide(n->name) + L"' has a malformed xsi:type '" + wide(qname) + L"'");
        const xmlNs* ns = xmlSearchNs(n->doc, const_cast<xmlNode*>(n),
                                      prefix.empty() ? nullptr : reinterpret_cast<const xmlChar*>(prefix.c_str()));
        if (!ns && !prefix.empty())
            reject(L"element '" + wide(n->name) + L"' names the undeclared prefix '" + wide(prefix) + L"' in xsi:type");
        const xmlChar* uri = ns ? ns->href : nullptr;
        const bool xsd = inList(uri, ksXsdNamespaces);
        const bool enc = eq(uri, ksEncodingNamespace);
        if (enc && local == "Array") return Declared::kArray;
        if (xsd || enc) {
            simple = SoapParameter::kString;  // other simple types keep their text
            for (const TypeName& t : kSimpleTypes)
                if (local == t.name) simple = t.type;
            return Declared::kSimple;
        }
        if (nsAttr(n, "arrayType", ksEncodingNamespace)) return Declared::kArray;
        return Declared::kOther;
    }

    SoapParameter* track(std::unique_ptr<SoapParameter>& p) {
        if (request.m_vAll.size() >= SoapRequest::kMaxParameters)
            reject(L"more than " + String(std::to_wstring(SoapRequest::kMaxParameters)) + L" parameters");
        p->m_pRequest = &request;
        p->m_nSeq = static_cast<std::uint32_t>(request.m_vAll.size());
        request.m_vAll.push_back(p.get());
        return p.get();
    }

    // `depth` is the element's own nesting level (Envelope = 1).
    std::unique_ptr<SoapParameter> build(const xmlNode* n, std::size_t depth) {
        if (depth > SoapRequest::kMaxDepth)
            reject(L"elements nest deeper than " + String(std::to_wstring(SoapRequest::kMaxDepth)) + L" levels");
        std::unique_ptr<SoapParameter> p(new SoapParameter(wide(n->name), SoapParameter::kNone));
        track(p);

        if (const xmlAttr* id = plainAttr(n, "id")) {
            p->m_sId = wide(attrText(id));
            if (p->m_sId.empty()) reject(L"element '" + p->m_sName + L"' has an empty id");
            if (!request.m_ids.emplace(p->m_sId, p.get()).second)
                reject(L"the id '" + p->m_sId + L"' is used twice");
        }
        if (const xmlAttr* href = plainAttr(n, "href")) {
            const std::string target = trimmed(attrText(href));
            p->m_eType = SoapParameter::kRefUnresolved;
            // Only same-document references ("#id") are ever followed.
            if (target.size() > 1 && target[0] == '#') p->m_sRefId = wide(target.substr(1));
            return p;
        }
        if (const xmlAttr* nil = nsAttr(n, "nil", ksXsiNamespaces)) {
            const std::string v = trimmed(attrText(nil));
            if (v == "true" || v == "1") {
                p->m_eType = SoapParameter::kNull;
                return p;
            }
        }

        SoapParameter::EType simple = SoapParameter::kString;
        const Declared declared = declaredType(n, simple);
        const xmlNode* child = firstElement(n->children);
        if (child || declared == Declared::kArray || declared == Declared::kOther) {
            if (declared == Declared::kSimple)
                reject(L"element '" + p->m_sName + L"' is declared a simple type but holds elements");
            p->m_eType = declared == Declared::kArray ? SoapParameter::kArray : SoapParameter::kStruct;
            for (; child; child = firstElement(child->next)) p->m_vChildren.push_back(build(child, depth + 1));
            return p;
        }
        std::string text;
        for (const xmlNode* c = n->children; c; c = c->next)
            if ((c->type == XML_TEXT_NODE || c->type == XML_CDATA_SECTION_NODE) && c->content) text += str(c->content);
        p->m_sValue = wide(text);
        p->m_eType = SoapParameter::kString;
        if (declared == Declared::kSimple && simple != SoapParameter::kString) {
            try {
                p->convert(simple);
            } catch (const SoapException& e) {
                reject(e.getMessageText());
            }
        }
        return p;
    }

    // Marks every reference that lies on a cycle of the graph whose edges are
    // "contains" and "refers to" (Tarjan's strongly connected components:
    // a reference whose target is in its own component closes a cycle). Once
    // those are cut, the graph is acyclic: containment alone is a forest.
    void markCycles() {
        const std::size_t n = request.m_vAll.size();
        constexpr std::uint32_t kUnvisited = UINT32_MAX;
        std::vector<std::uint32_t> index(n, kUnvisited), low(n, 0), component(n, 0);
        std::vector<char> onStack(n, 0);
        std::vector<std::uint32_t> stack;
        struct Frame {
            std::uint32_t v;
            std::size_t edge;
        };
        std::vector<Frame> calls;
        std::uint32_t counter = 0, components = 0;

        auto degree = [&](std::uint32_t v) {
            const SoapParameter* p = request.m_vAll[v];
            return p->m_vChildren.size() + (p->lookupTarget() ? 1 : 0);
        };
        auto edge = [&](std::uint32_t v, std::size_t e) -> std::uint32_t {
            const SoapParameter* p = request.m_vAll[v];
            if (e < p->m_vChildren.size()) return p->m_vChildren[e]->m_nSeq;
            return p->lookupTarget()->m_nSeq;
        };
        auto enter = [&](std::uint32_t v) {
            index[v] = low[v] = counter++;
            stack.push_back(v);
            onStack[v] = 1;
            calls.push_back({v, 0});
        };

        for (std::uint32_t root = 0; root < n; ++root) {
            if (index[root] != kUnvisited) continue;
            enter(root);
            while (!calls.empty()) {
                Frame& f = calls.back();
                const std::uint32_t v = f.v;
                if (f.edge < degree(v)) {
                    const std::uint32_t w = edge(v, f.edge++);
                    if (index[w] == kUnvisited) enter(w);
                    else if (onStack[w]) low[v] = std::min(low[v], index[w]);
                    continue;
                }
                if (low[v] == index[v]) {
                    std::uint32_t w;
                    do {
                        w = stack.back();
                        stack.pop_back();
                        onStack[w] = 0;
                        component[w] = components;
                    } while (w != v);
                    ++components;
                }
                calls.pop_back();
                if (!calls.empty()) {
                    const std::uint32_t u = calls.back().v;
                    low[u] = std::min(low[u], low[v]);
                }
            }
        }
        for (SoapParameter* p : request.m_vAll) {
            const SoapParameter* t = p->lookupTarget();
            if (t && component[p->m_nSeq] == component[t->m_nSeq]) p->m_bOnCycle = true;
        }
    }

    // Rejects requests whose references expand into more parameters, or
    // nest deeper, than a walk of the tree should ever meet (a shared value
    // counts once per reference to it).
    void checkExpansion() {
        const std::size_t n = request.m_vAll.size();
        constexpr std::uint64_t kLimit = SoapRequest::kMaxExpandedParameters;
        std::vector<std::uint64_t> size(n, 0);
        std::vector<std::uint32_t> height(n, 0);
        std::vector<char> done(n, 0), busy(n, 0);
        struct Frame {
            std::uint32_t v;
            std::size_t edge;
        };
        std::vector<Frame> calls;
        for (std::uint32_t root = 0; root < n; ++root) {
            if (done[root]) continue;
            calls.push_back({root, 0});
            busy[root] = 1;
            while (!calls.empty()) {
                Frame& f = calls.back();
                const SoapParameter* p = request.m_vAll[f.v];
                const SoapParameter* t = p->lookupTarget();  // null for references on a cycle
                const std::size_t degree = p->m_vChildren.size() + (t ? 1 : 0);
                if (f.edge < degree) {
                    const std::uint32_t w =
                        f.edge < p->m_vChildren.size() ? p->m_vChildren[f.edge]->m_nSeq : t->m_nSeq;
                    ++f.edge;
                    if (!done[w] && !busy[w]) {  // busy: only if a cycle had been missed
                        busy[w] = 1;
                        calls.push_back({w, 0});
                    }
                    continue;
                }
                std::uint64_t total = 1;
                std::uint32_t tallest = 0;
                for (const auto& c : p->m_vChildren) {
                    total = std::min(kLimit + 1, total + size[c->m_nSeq]);
                    tallest = std::max(tallest, height[c->m_nSeq]);
                }
                if (t) {
                    total = std::min(kLimit + 1, total + size[t->m_nSeq]);
                    tallest = std::max(tallest, height[t->m_nSeq]);
                }
                size[f.v] = total;
                height[f.v] = std::min<std::uint32_t>(tallest + 1, 1u << 30);
                done[f.v] = 1;
                calls.pop_back();
            }
        }
        std::uint64_t total = 0;
        for (const auto& top : request.m_vBodyParams) {
            total = std::min(kLimit + 1, total + size[top->m_nSeq]);
            // Body parameters sit at depth 3 (Envelope, Body, parameter).
            if (height[top->m_nSeq] + 2 > SoapRequest::kMaxDepth)
                reject(L"references nest values deeper than " + String(std::to_wstring(SoapRequest::kMaxDepth)) +
                       L" levels");
        }
        if (total > kLimit)
            reject(L"references expand to more than " + String(std::to_wstring(kLimit)) + L" parameters");
    }
};

SoapRequest::~SoapRequest() = default;

std::unique_ptr<SoapRequest> SoapRequest::parse(std::string_view envelope) {
    if (envelope.empty()) reject(L"the envelope is empty");
    if (envelope.size() > kMaxEnvelopeBytes)
        reject(L"the envelope is larger than " + String(std::to_wstring(kMaxEnvelopeBytes)) + L" bytes");
    if (!utf8::isValid(envelope)) reject(L"the envelope is not valid UTF-8");

    // No document type declaration may appear (no DTD, no entities): the
    // hardened parse refuses one where the parser meets it, loads nothing and
    // prints nothing. The envelope is read as UTF-8 whatever it declares,
    // CDATA sections as plain text; only a document that is not well-formed
    // (or not with respect to namespaces) fails, and the parser's last error
    // says why.
    xml::HardenedParseOptions options;
    options.parserOptions = XML_PARSE_NOCDATA;
    options.baseUrl = "soap-request.xml";
    options.encoding = "UTF-8";
    options.failOn = xml::HardenedParseOptions::kNotWellFormed;
    xml::HardenedParseFailure failure;
    const xml::ParsedDoc doc = xml::parseHardened(envelope, options, failure);
    if (failure.kind == xml::HardenedParseFailure::kDoctype) reject(L"document type declarations are not allowed");
    if (!doc) {
        String detail = L"malformed XML";
        if (failure.last)
            detail += L" at line " + String(std::to_wstring(failure.last->line)) + L": " + wide(failure.last->text);
        reject(detail);
    }

    const xmlNode* root = xmlDocGetRootElement(doc.get());
    if (!root || !eq(root->name, "Envelope") || !root->ns) reject(L"the document is not a SOAP envelope");
    if (hasNamespace(root, ksSoap12Namespace)) reject(L"SOAP 1.2 envelopes are not supported; send SOAP 1.1");
    if (!hasNamespace(root, ksEnvelopeNamespace)) reject(L"the document is not a SOAP 1.1 envelope");

    const xmlNode* part = firstElement(root->children);
    if (part && eq(part->name, "Header") && hasNamespace(part, ksEnvelopeNamespace)) {
        for (const xmlNode* h = firstElement(part->children); h; h = firstElement(h->next)) {
            const xmlAttr* mu = nsAttr(h, "mustUnderstand", ksEnvelopeNamespace);
            if (mu && trimmed(attrText(mu)) == "1")
                reject(L"the header entry '" + wide(h->name) + L"' must be understood and is not");
        }
        part = firstElement(part->next);
    }
    if (!part || !eq(part->name, "Body") || !hasNamespace(part, ksEnvelopeNamespace))
        reject(L"the envelope has no Body");
    const xmlNode* operation = firstElement(part->children);
    if (!operation) reject(L"the Body holds no operation element");
    if (eq(operation->name, "Fault") && hasNamespace(operation, ksEnvelopeNamespace))
        reject(L"the envelope holds a fault, not a request");

    std::unique_ptr<SoapRequest> request(new SoapRequest());
    SoapParser parser{*request};
    try {
        for (const xmlNode* n = operation; n; n = firstElement(n->next)) request->m_vBodyParams.push_back(parser.build(n, 3));
    } catch (const Utf8Error& e) {
        reject(L"the envelope is not valid UTF-8: " + e.getMessageText());
    }
    SoapParameter& op = *request->m_vBodyParams.front();
    if (op.m_eType == SoapParameter::kString && op.m_sValue.find_first_not_of(L" \t\r\n") == String::npos) {
        op.m_eType = SoapParameter::kStruct;  // an operation without parameters
        op.m_sValue.clear();
    }
    if (op.m_eType != SoapParameter::kStruct && op.m_eType != SoapParameter::kArray)
        reject(L"the operation element '" + op.m_sName + L"' is not a structure");
    if (operation->ns) request->m_sOperationNamespace = wide(operation->ns->href);
    parser.markCycles();
    parser.checkExpansion();
    return request;
}

std::vector<SoapParameter*> SoapRequest::getBodyParams() const {
    std::vector<SoapParameter*> out;
    out.reserve(m_vBodyParams.size());
    for (const auto& p : m_vBodyParams) out.push_back(p.get());
    return out;
}

SoapParameter* SoapRequest::findById(const String& id) const noexcept {
    auto it = m_ids.find(id);
    return it == m_ids.end() ? nullptr : it->second;
}

}  // namespace kiv
