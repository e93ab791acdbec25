// XML document model over libxml2: parsing hardened for untrusted input,
// building, serialisation, structural comparison and XSD validation with a
// process-wide cache of compiled schemas. The hardened parse itself
// (xmlparse.h) is here too; the SOAP envelope parser reads through it as well.
//
// XmlNode and XmlElement carry no data: a pointer to one is the libxml2 node
// itself (see xml.h), so every member function starts by turning `this` back
// into the xmlNode it is.
#include "qz/platform/xml.h"
#include "qz/platform/xmlparse.h"

#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/tree.h>
#include <libxml/xmlIO.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlsave.h>
#include <libxml/xmlschemas.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kiv {

Exception* XmlException::clone() const { return new XmlException(*this); }

namespace {

static_assert(XmlDocument::kMaxDocumentBytes <= static_cast<std::size_t>(INT_MAX),
              "libxml2 takes the document size as an int");

// Sets up libxml2 once per process: the parser's global tables, and an
// external entity loader that never goes to the network. Documents cannot
// name external resources at all (a DOCTYPE is refused), so the loader only
// matters for the includes and imports of schema files, which are local.
void initLibxml() {
    static std::once_flag once;
    std::call_once(once, [] {
        xmlInitParser();
        xmlSetExternalEntityLoader(xmlNoNetExternalEntityLoader);
        // libxml2 stops at 256 levels unless told otherwise; the limit is
        // ours (XmlDocument::kMaxDepth), checked after the parse with a
        // message of our own.
        xmlParserMaxDepth = static_cast<unsigned>(XmlDocument::kMaxDepth) + 1;
    });
}

// -- conversions between libxml2's UTF-8 strings and String ------------------

String fromXml(const xmlChar* s) {
    if (!s) return String();
    return String::fromUtf8(reinterpret_cast<const char*>(s));
}

// Frees a string libxml2 allocated for us.
struct XmlCharDeleter {
    void operator()(xmlChar* p) const noexcept { xmlFree(p); }
};
using XmlCharPtr = std::unique_ptr<xmlChar, XmlCharDeleter>;

String takeXmlString(xmlChar* s) {
    XmlCharPtr owner(s);
    return fromXml(s);
}

const xmlChar* xc(const std::string& s) { return reinterpret_cast<const xmlChar*>(s.c_str()); }

xmlNodePtr toNode(const XmlNode* n) noexcept { return reinterpret_cast<xmlNodePtr>(const_cast<XmlNode*>(n)); }
XmlNode* toXmlNode(xmlNodePtr n) noexcept { return reinterpret_cast<XmlNode*>(n); }
XmlElement* toXmlElement(xmlNodePtr n) noexcept { return reinterpret_cast<XmlElement*>(n); }
xmlDocPtr toDoc(void* p) noexcept { return static_cast<xmlDocPtr>(p); }

// An element or attribute name must be an XML name without a colon; the
// prefix, if any, comes from the namespace. Names of ASCII letters, digits,
// '_', '-' and '.' (not starting with a digit, '-' or '.'), which is what the
// system uses, are accepted here without asking libxml2; anything else is
// left to xmlValidateNCName.
std::string checkedName(const String& name) {
    const auto isAsciiNameChar = [](wchar_t c, bool first) noexcept {
        if ((c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || c == L'_') return true;
        return !first && ((c >= L'0' && c <= L'9') || c == L'-' || c == L'.');
    };
    std::string utf8(name.size(), '\0');
    bool plain = !name.empty();
    for (std::size_t i = 0; plain && i < name.size(); ++i) {
        plain = isAsciiNameChar(name[i], i == 0);
        utf8[i] = static_cast<char>(name[i]);  // ASCII: one byte per character
    }
    if (plain) return utf8;
    utf8 = name.toUtf8();
    if (xmlValidateNCName(xc(utf8), 0) != 0)
        throw XmlException(String(L"'") + name + L"' is not a valid XML element or attribute name.");
    return utf8;
}

// Characters XML 1.0 cannot carry at all (not even as character references).
// A value holding one would be written out and could never be read back.
bool isXmlChar(wchar_t c) noexcept {
    const auto u = static_cast<std::uint32_t>(c);
    if (u < 0x20) return u == 0x9 || u == 0xA || u == 0xD;
    if (u >= 0xD800 && u <= 0xDFFF) return false;
    return u != 0xFFFE && u != 0xFFFF && u <= 0x10FFFF;
}

// Replaces `out` with the UTF-8 form of `value`; raises XmlException when
// the value holds a character XML cannot represent.
void checkedTextInto(const String& value, std::string& out) {
    const wchar_t* const text = value.data();
    const std::size_t size = value.size();
    // Text is mostly printable characters below U+8000, which XML carries
    // all of: eight at a time pass when (c - 0x20) | c stays below 0x8000 for
    // each (an OR over the block, which the compiler turns into vector
    // code). Blocks holding anything else, and the tail, are checked one
    // character at a time.
    std::size_t i = 0;
    for (; i + 8 <= size; i += 8) {
        std::uint32_t bits = 0;
        for (std::size_t k = 0; k < 8; ++k) {
            const auto c = static_cast<std::uint32_t>(text[i + k]);
            bits |= (c - 0x20u) | c;
        }
        if (bits >= 0x8000u) break;
    }
    for (; i < size; ++i) {
        if (static_cast<std::uint32_t>(text[i]) - 0x20u < 0xD800u - 0x20u) continue;
        if (!isXmlChar(text[i])) {
            char code[16];
            std::snprintf(code, sizeof code, "U+%04X", static_cast<unsigned>(text[i]));
            throw XmlException(String(L"The value holds the character ") + String::fromUtf8(code) +
                               L" at position " + String(std::to_wstring(i)) +
                               L", which XML cannot represent.");
        }
    }
    out.clear();
    utf8::encodeAppend(value, out);
}

// A buffer for the UTF-8 form of one attribute value at a time, kept per
// thread so that setting an attribute allocates nothing of its own. Its
// storage is given back once a value larger than usual has passed through.
class ValueBuffer {
public:
    static constexpr std::size_t kKeptCapacity = 4096;
    ValueBuffer() : m_text(threadText()) {}
    ~ValueBuffer() {
        if (m_text.capacity() > kKeptCapacity) std::string().swap(m_text);
    }
    ValueBuffer(const ValueBuffer&) = delete;
    ValueBuffer& operator=(const ValueBuffer&) = delete;
    std::string& text() noexcept { return m_text; }

private:
    static std::string& threadText() {
        thread_local std::string text;
        return text;
    }
    std::string& m_text;
};

// -- elements created but not yet placed --------------------------------------
//
// createXmlElement hands out an element that belongs to the document but is
// not in its tree yet. Such elements are remembered in a list hung on the
// document's _private field, so that the document frees the ones that were
// never placed; setRootElement takes an element off the list.

using PendingList = std::vector<xmlNodePtr>;

PendingList* pendingOf(xmlDocPtr doc) noexcept { return static_cast<PendingList*>(doc->_private); }

void freeDoc(xmlDocPtr doc) noexcept {
    if (!doc) return;
    if (PendingList* pending = pendingOf(doc)) {
        for (xmlNodePtr n : *pending) {
            if (n->parent == nullptr) xmlFreeNode(n);
        }
        delete pending;
        doc->_private = nullptr;
    }
    xmlFreeDoc(doc);
}

// A document to build in. Like a parsed one it interns element and
// attribute names in a dictionary of its own, so that the many elements and
// attributes of one name share a single copy of it.
xmlDocPtr newEmptyDoc() {
    initLibxml();
    xmlDocPtr doc = xmlNewDoc(BAD_CAST "1.0");
    if (!doc) throw std::bad_alloc();
    doc->dict = xmlDictCreate();
    if (!doc->dict) {
        xmlFreeDoc(doc);
        throw std::bad_alloc();
    }
    return doc;
}

// -- namespaces ----------------------------------------------------------------

// Gives `node` (already linked under its parent, or a root) the namespace of
// `name`: reuses a declaration in scope with that URI or declares one on the
// node. An element without a namespace placed in the scope of a non-empty
// default namespace gets xmlns="" so that it stays without one when the
// document is written and read again.
void applyElementNamespace(xmlNodePtr node, const XmlNamespace& ns) {
    if (ns.getUri().empty()) {
        xmlNsPtr def = node->parent && node->parent->type == XML_ELEMENT_NODE
                           ? xmlSearchNs(node->doc, node->parent, nullptr)
                           : nullptr;
        if (def && def->href && def->href[0] != '\0') {
            if (!xmlNewNs(node, BAD_CAST "", nullptr)) throw std::bad_alloc();
        }
        xmlSetNs(node, nullptr);
        return;
    }
    const std::string uri = ns.getUri().toUtf8();
    const std::string prefix = ns.getPrefix().empty() ? std::string() : checkedName(ns.getPrefix());
    const xmlChar* wantedPrefix = prefix.empty() ? nullptr : xc(prefix);
    // A declaration in scope with the same URI and prefix serves as is.
    xmlNsPtr found = xmlSearchNs(node->doc, node, wantedPrefix);
    if (!(found && found->href && xmlStrEqual(found->href, xc(uri)))) {
        found = xmlNewNs(node, xc(uri), wantedPrefix);
        if (!found) throw XmlException(String(L"Cannot declare the namespace '") + ns.getUri() + L"'.");
    }
    xmlSetNs(node, found);
}

// -- parsing ---------------------------------------------------------------------

// State of one parse, reached from the parser context's _private field by the
// callbacks below.
struct ParseState {
    bool failed = false;   // an error has been kept in firstError
    bool doctype = false;  // the parser met a DOCTYPE declaration
    xml::ParseMessage firstError;
};

// The line and text of one libxml2 error, the text's trailing line breaks and
// spaces removed.
xml::ParseMessage messageOf(const xmlError* err) {
    xml::ParseMessage msg;
    msg.line = err->line;
    msg.text = err->message ? err->message : "unknown error";
    std::string& text = msg.text;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) text.pop_back();
    return msg;
}

std::string describeError(const xmlError* err) { return messageOf(err).describe(); }

// Per-parse structured error handler: keeps the first error (warnings are
// not failures) and keeps libxml2 from printing anything.
void onParseError(void* userData, xmlErrorPtr err) {
    auto* ctxt = static_cast<xmlParserCtxtPtr>(userData);
    auto* state = ctxt ? static_cast<ParseState*>(ctxt->_private) : nullptr;
    if (!state || !err || err->level < XML_ERR_ERROR) return;
    if (!state->failed) {
        state->failed = true;
        state->firstError = messageOf(err);
    }
}

// Errors libxml2 raises without the parser's context (an encoding conversion
// that fails, say) go to the calling thread's handler, which by default prints
// them. During a parse the thread's handler is this one, which keeps them
// with the parse's own errors; the one before is put back afterwards.
void onThreadError(void* userData, xmlErrorPtr err) {
    auto* state = static_cast<ParseState*>(userData);
    if (!state || !err || err->level < XML_ERR_ERROR) return;
    if (!state->failed) {
        state->failed = true;
        state->firstError = messageOf(err);
    }
}

class ThreadErrorsKept {
public:
    explicit ThreadErrorsKept(ParseState& state)
        : m_handler(xmlStructuredError), m_context(xmlStructuredErrorContext) {
        xmlSetStructuredErrorFunc(&state, onThreadError);
    }
    ~ThreadErrorsKept() { xmlSetStructuredErrorFunc(m_context, m_handler); }
    ThreadErrorsKept(const ThreadErrorsKept&) = delete;
    ThreadErrorsKept& operator=(const ThreadErrorsKept&) = delete;

private:
    xmlStructuredErrorFunc m_handler;
    void* m_context;
};

constexpr const char* ksDoctypeRefused = "a DOCTYPE declaration is not allowed";

// Called for any <!DOCTYPE ...>, before its internal subset is read. No input
// the parse reads may carry one, and refusing every DOCTYPE shuts out entity
// declarations (and with them entity-expansion bombs), external entities and
// external DTDs in one place.
void onDoctype(void* userData, const xmlChar*, const xmlChar*, const xmlChar*) {
    auto* ctxt = static_cast<xmlParserCtxtPtr>(userData);
    auto* state = static_cast<ParseState*>(ctxt->_private);
    if (state) {
        state->doctype = true;
        if (!state->failed) {
            state->failed = true;
            state->firstError = xml::ParseMessage{xmlSAX2GetLineNumber(ctxt), ksDoctypeRefused};
        }
    }
    xmlStopParser(ctxt);
}

struct CtxtDeleter {
    void operator()(xmlParserCtxtPtr c) const noexcept { xmlFreeParserCtxt(c); }
};

// Depth of the deepest element (the root is at depth 1), walked without
// recursion; stops early once `limit` is exceeded.
int elementDepth(xmlNodePtr root, int limit) {
    int depth = 0, deepest = 0;
    xmlNodePtr n = root;
    while (n) {
        if (n->type == XML_ELEMENT_NODE) {
            ++depth;
            deepest = std::max(deepest, depth);
            if (deepest > limit) return deepest;
            if (xmlNodePtr child = xmlFirstElementChild(n)) {
                n = child;
                continue;
            }
            --depth;
        }
        // Next element sibling, climbing up as subtrees end.
        while (n) {
            if (n == root) return deepest;
            if (xmlNodePtr sib = xmlNextElementSibling(n)) {
                n = sib;
                break;
            }
            n = n->parent;
            --depth;
            if (n == root) return deepest;
        }
    }
    return deepest;
}

[[noreturn]] void throwParseError(const std::string& what) {
    throw XmlException(String(L"The XML document cannot be read: ") + String::fromUtf8(what));
}

// XmlDocument's parse: the hardened parse with the document model's own
// limits on size and depth, and a root element required.
xmlDocPtr parseDocument(const void* data, std::size_t size) {
    if (size > XmlDocument::kMaxDocumentBytes) {
        throwParseError("it is " + std::to_string(size) + " bytes long, more than the limit of " +
                        std::to_string(XmlDocument::kMaxDocumentBytes) + " bytes");
    }
    if (size > 0 && !data) throwParseError("no data");
    const std::string_view bytes(static_cast<const char*>(data), size);

    // BIG_LINES: line numbers past 65535 kept exact. The encoding is the
    // document's own (its declaration or byte order mark, UTF-8 when it names
    // none), as any reader of XML takes it; text that is not valid in it
    // fails, as does every other error.
    xml::HardenedParseOptions options;
    options.parserOptions = XML_PARSE_BIG_LINES;
    options.failOn = xml::HardenedParseOptions::kAnyError;
    xml::HardenedParseFailure failure;
    xml::ParsedDoc doc = xml::parseHardened(bytes, options, failure);
    if (!doc) throwParseError(failure.first.describe());
    xmlNodePtr root = xmlDocGetRootElement(doc.get());
    if (!root) throwParseError("the document has no root element");
    const int depth = elementDepth(root, XmlDocument::kMaxDepth);
    if (depth > XmlDocument::kMaxDepth) {
        throwParseError("elements are nested deeper than the limit of " +
                        std::to_string(XmlDocument::kMaxDepth) + " levels");
    }
    return doc.release();
}

// -- serialisation -----------------------------------------------------------------

// Where xmlSaveToIO's output goes: the caller's sink. An exception from the
// sink must not cross libxml2's C frames: it is kept, the write reports a
// failure, and the exception is raised again once libxml2 has returned.
struct SaveSink {
    const XmlDocument::Sink* sink;
    std::exception_ptr error;
};

int writeToSink(void* context, const char* buffer, int len) {
    auto* state = static_cast<SaveSink*>(context);
    try {
        (*state->sink)(buffer, static_cast<std::size_t>(len));
        return len;
    } catch (...) {
        state->error = std::current_exception();
        return -1;
    }
}

// -- structural comparison ---------------------------------------------------------

bool isBlank(const xmlChar* s) noexcept {
    if (!s) return true;
    for (; *s; ++s) {
        if (*s != ' ' && *s != '\t' && *s != '\n' && *s != '\r') return false;
    }
    return true;
}

// The element's own text: its text and CDATA children, whitespace-only ones
// left out, joined.
std::string ownText(xmlNodePtr e) {
    std::string text;
    for (xmlNodePtr c = e->children; c; c = c->next) {
        if ((c->type == XML_TEXT_NODE || c->type == XML_CDATA_SECTION_NODE) && !isBlank(c->content))
            text += reinterpret_cast<const char*>(c->content);
    }
    return text;
}

const xmlChar* nsUri(xmlNsPtr ns) noexcept { return ns && ns->href ? ns->href : BAD_CAST ""; }

std::string attrValue(xmlAttrPtr a) {
    XmlCharPtr v(xmlNodeListGetString(a->doc, a->children, 1));
    return v ? std::string(reinterpret_cast<const char*>(v.get())) : std::string();
}

bool sameAttributes(xmlNodePtr a, xmlNodePtr b) {
    std::size_t countA = 0, countB = 0;
    for (xmlAttrPtr p = a->properties; p; p = p->next) ++countA;
    for (xmlAttrPtr p = b->properties; p; p = p->next) ++countB;
    if (countA != countB) return false;
    for (xmlAttrPtr p = a->properties; p; p = p->next) {
        xmlAttrPtr q = b->properties;
        while (q && !(xmlStrEqual(p->name, q->name) && xmlStrEqual(nsUri(p->ns), nsUri(q->ns)))) q = q->next;
        if (!q || attrValue(p) != attrValue(q)) return false;
    }
    return true;
}

bool sameElementShallow(xmlNodePtr a, xmlNodePtr b) {
    return xmlStrEqual(a->name, b->name) && xmlStrEqual(nsUri(a->ns), nsUri(b->ns)) && sameAttributes(a, b) &&
           ownText(a) == ownText(b);
}

bool sameTree(xmlNodePtr a, xmlNodePtr b) {
    std::vector<std::pair<xmlNodePtr, xmlNodePtr>> work{{a, b}};
    while (!work.empty()) {
        auto [x, y] = work.back();
        work.pop_back();
        if (!sameElementShallow(x, y)) return false;
        xmlNodePtr cx = xmlFirstElementChild(x);
        xmlNodePtr cy = xmlFirstElementChild(y);
        for (; cx && cy; cx = xmlNextElementSibling(cx), cy = xmlNextElementSibling(cy))
            work.emplace_back(cx, cy);
        if (cx || cy) return false;
    }
    return true;
}

// -- schema cache ------------------------------------------------------------------

// One compiled schema. Compiled once on first use; a compiled xmlSchema is
// only read while validating, so one may serve every thread at once, each
// validation using a context of its own.
struct SchemaEntry {
    std::mutex compileMutex;
    xmlSchemaPtr schema = nullptr;  // freed never: cached for the life of the process
};

struct SchemaCache {
    std::mutex mutex;
    std::map<std::string, std::shared_ptr<SchemaEntry>> entries;
};

SchemaCache& schemaCache() {
    // Deliberately never destroyed: validations may still run on other threads
    // while the process exits.
    static SchemaCache* cache = new SchemaCache;
    return *cache;
}

void collectError(void* userData, xmlErrorPtr err) {
    auto* errors = static_cast<std::vector<String>*>(userData);
    if (!errors || !err || err->level < XML_ERR_ERROR) return;
    try {
        errors->push_back(String::fromUtf8(describeError(err)));
    } catch (...) {
        // A message that is not UTF-8 is dropped rather than thrown through C.
    }
}

struct SchemaParserCtxtDeleter {
    void operator()(xmlSchemaParserCtxtPtr c) const noexcept { xmlSchemaFreeParserCtxt(c); }
};
struct SchemaValidCtxtDeleter {
    void operator()(xmlSchemaValidCtxtPtr c) const noexcept { xmlSchemaFreeValidCtxt(c); }
};

// The compiled schema of `file`, compiling it on first use; raises
// XmlException when the file is missing or is not a valid schema (such a
// failure is not cached, so a corrected file is picked up).
xmlSchemaPtr compiledSchema(const String& file) {
    initLibxml();
    const std::string path = file.toUtf8();
    std::shared_ptr<SchemaEntry> entry;
    {
        SchemaCache& cache = schemaCache();
        std::lock_guard<std::mutex> lock(cache.mutex);
        auto& slot = cache.entries[path];
        if (!slot) slot = std::make_shared<SchemaEntry>();
        entry = slot;
    }
    std::lock_guard<std::mutex> lock(entry->compileMutex);
    if (entry->schema) return entry->schema;

    // Checked here so that a missing file gives our own clear error rather
    // than libxml2's loader warning.
    if (!std::ifstream(path, std::ios::binary).is_open())
        throw XmlException(String(L"The schema '") + file + L"' cannot be opened.");
    std::unique_ptr<xmlSchemaParserCtxt, SchemaParserCtxtDeleter> pctxt(xmlSchemaNewParserCtxt(path.c_str()));
    if (!pctxt) throw std::bad_alloc();
    std::vector<String> errors;
    xmlSchemaSetParserStructuredErrors(pctxt.get(), collectError, &errors);
    xmlSchemaPtr schema = xmlSchemaParse(pctxt.get());
    if (!schema) {
        String text = String(L"The schema '") + file + L"' cannot be loaded";
        if (!errors.empty()) text += String(L": ") + errors.front();
        throw XmlException(text + L".");
    }
    entry->schema = schema;
    return schema;
}

}  // namespace

// -- the hardened parse ------------------------------------------------------------

namespace xml {

ParsedDoc parseHardened(std::string_view bytes, const HardenedParseOptions& options, HardenedParseFailure& failure) {
    failure = HardenedParseFailure();
    initLibxml();
    if (bytes.size() > static_cast<std::size_t>(INT_MAX)) {
        failure.kind = HardenedParseFailure::kMalformed;
        failure.first.text = "it is " + std::to_string(bytes.size()) + " bytes long, more than libxml2 can read";
        return nullptr;
    }

    std::unique_ptr<xmlParserCtxt, CtxtDeleter> ctxt(xmlNewParserCtxt());
    if (!ctxt || !ctxt->sax) throw std::bad_alloc();
    ParseState state;
    ctxt->_private = &state;
    ctxt->sax->serror = onParseError;
    ctxt->sax->internalSubset = onDoctype;
    ctxt->sax->externalSubset = nullptr;

    // NONET: no network. Never NOENT, DTDLOAD, DTDATTR or DTDVALID (no entity
    // substitution, no DTD loaded or applied, no defaulted attributes), nor
    // XINCLUDE (nothing else read in), nor HUGE (libxml2's own limits on text
    // sizes stay in force).
    constexpr int kNeverPassed = XML_PARSE_NOENT | XML_PARSE_DTDLOAD | XML_PARSE_DTDATTR | XML_PARSE_DTDVALID |
                                 XML_PARSE_XINCLUDE | XML_PARSE_HUGE;
    const int parserOptions = (options.parserOptions & ~kNeverPassed) | XML_PARSE_NONET;
    ParsedDoc doc;
    {
        const ThreadErrorsKept kept(state);
        doc.reset(xmlCtxtReadMemory(ctxt.get(), bytes.data(), static_cast<int>(bytes.size()), options.baseUrl,
                                    options.encoding, parserOptions));
    }
    if (const xmlError* last = xmlCtxtGetLastError(ctxt.get()); last && last->message) failure.last = messageOf(last);

    // A DOCTYPE the callback did not see (it always does) is refused all the same.
    const bool subset = doc && (doc->intSubset || doc->extSubset);
    const bool failed = options.failOn == HardenedParseOptions::kAnyError
                            ? state.failed || !doc
                            : !doc || !ctxt->wellFormed || !ctxt->nsWellFormed;
    if (state.doctype || subset) {
        failure.kind = HardenedParseFailure::kDoctype;
    } else if (failed) {
        failure.kind = HardenedParseFailure::kMalformed;
    } else {
        doc->_private = nullptr;
        return doc;
    }
    if (state.failed) {
        failure.first = state.firstError;
    } else if (subset) {
        failure.first = ParseMessage{0, ksDoctypeRefused};
    } else {
        failure.first = failure.last ? *failure.last : ParseMessage{0, "malformed XML"};
    }
    return nullptr;
}

}  // namespace xml

// -- PathFilter --------------------------------------------------------------------

PathFilter::PathFilter(const String& path) {
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t slash = path.find(L'/', start);
        if (slash == String::npos) slash = path.size();
        if (slash > start) m_steps.emplace_back(path.substr(start, slash - start));
        start = slash + 1;
    }
}

// -- XmlNode ---------------------------------------------------------------------------

XmlNode::ENodeType XmlNode::getNodeType() const noexcept {
    switch (toNode(this)->type) {
        case XML_ELEMENT_NODE:
            return kElement;
        case XML_TEXT_NODE:
            return kText;
        case XML_CDATA_SECTION_NODE:
            return kCData;
        case XML_COMMENT_NODE:
            return kComment;
        default:
            return kOther;
    }
}

XmlNode* XmlNode::getFirstChild() const noexcept { return toXmlNode(toNode(this)->children); }

XmlNode* XmlNode::getNextSibling() const noexcept { return toXmlNode(toNode(this)->next); }

XmlElement* XmlNode::selectSingleElement(const PathFilter& filter) const {
    xmlNodePtr current = toNode(this);
    for (const String& step : filter.steps()) {
        const std::string name = step.toUtf8();
        xmlNodePtr next = nullptr;
        for (xmlNodePtr c = xmlFirstElementChild(current); c; c = xmlNextElementSibling(c)) {
            if (xmlStrEqual(c->name, xc(name))) {
                next = c;
                break;
            }
        }
        if (!next) return nullptr;
        current = next;
    }
    return current->type == XML_ELEMENT_NODE ? toXmlElement(current) : nullptr;
}

String XmlNode::getTextContent() const { return takeXmlString(xmlNodeGetContent(toNode(this))); }

XmlElement* xml_cast_element(XmlNode* node) noexcept {
    return node && toNode(node)->type == XML_ELEMENT_NODE ? static_cast<XmlElement*>(node) : nullptr;
}

const XmlElement* xml_cast_element(const XmlNode* node) noexcept {
    return node && toNode(node)->type == XML_ELEMENT_NODE ? static_cast<const XmlElement*>(node) : nullptr;
}

// -- XmlElement ------------------------------------------------------------------------

String XmlElement::getLocalName() const { return fromXml(toNode(this)->name); }

String XmlElement::getNamespaceUri() const {
    xmlNsPtr ns = toNode(this)->ns;
    return ns ? fromXml(ns->href) : String();
}

namespace {

// The un-namespaced attribute `name` of `node`, or null.
xmlAttrPtr findAttribute(xmlNodePtr node, const String& name) {
    const std::string n = name.toUtf8();
    xmlAttrPtr attr = xmlHasNsProp(node, xc(n), nullptr);
    return attr && attr->type == XML_ATTRIBUTE_NODE ? attr : nullptr;
}

// Calls `use` with the attribute's value as UTF-8 text. A parsed value is one
// text node (entities are never substituted into references here), read in
// place; anything else is concatenated by libxml2 first.
template <class Use>
void withAttributeValue(xmlAttrPtr attr, Use&& use) {
    const xmlNode* value = attr->children;
    if (!value) {
        use(BAD_CAST "");
    } else if (value->type == XML_TEXT_NODE && !value->next) {
        use(value->content);
    } else {
        XmlCharPtr joined(xmlNodeListGetString(attr->doc, attr->children, 1));
        use(joined ? joined.get() : BAD_CAST "");
    }
}

}  // namespace

String XmlElement::getAttributeValue(const String& name, ERequired required) const {
    xmlAttrPtr attr = findAttribute(toNode(this), name);
    if (!attr) {
        if (required == kRequired) {
            throw XmlException(String(L"The element '") + getLocalName() + L"' has no attribute '" + name +
                               L"'.");
        }
        return String();
    }
    String out;
    withAttributeValue(attr, [&out](const xmlChar* text) { out = fromXml(text); });
    return out;
}

String XmlElement::unchecked_getAttributeValue(const String& name, ERequired) const {
    return getAttributeValue(name, kNotRequired);
}

std::string XmlElement::getAttributeValueUtf8(const String& name) const {
    std::string out;
    if (xmlAttrPtr attr = findAttribute(toNode(this), name))
        withAttributeValue(attr, [&out](const xmlChar* text) { out = reinterpret_cast<const char*>(text); });
    return out;
}

bool XmlElement::hasAttribute(const String& name) const { return findAttribute(toNode(this), name) != nullptr; }


void XmlElement::setAttributeValue(const XmlQualifiedName& name, const String& value) {
    xmlNodePtr node = toNode(this);
    const std::string local = checkedName(name.getLocalName());
    ValueBuffer buffer;
    std::string& text = buffer.text();
    checkedTextInto(value, text);
    xmlNsPtr ns = nullptr;
    const XmlNamespace& wanted = name.getNamespace();
    if (wanted.getUri().empty()) {
        // An element being built has no attribute of this name yet: add one
        // without xmlSetNsProp's search for an attribute to replace.
        bool present = false;
        for (xmlAttrPtr a = node->properties; a && !present; a = a->next)
            present = a->ns == nullptr && xmlStrEqual(a->name, xc(local));
        if (!present) {
            if (!xmlNewNsProp(node, nullptr, xc(local), xc(text))) throw std::bad_alloc();
            return;
        }
    } else {
        // A namespaced attribute needs a prefix: the default namespace does
        // not apply to attributes.
        const std::string uri = wanted.getUri().toUtf8();
        ns = xmlSearchNsByHref(node->doc, node, xc(uri));
        if (!ns || !ns->prefix) {
            const std::string prefix =
                wanted.getPrefix().empty() ? std::string("ns") : checkedName(wanted.getPrefix());
            std::string candidate = prefix;
            for (int i = 1; xmlSearchNs(node->doc, node, xc(candidate)); ++i)
                candidate = prefix + std::to_string(i);
            ns = xmlNewNs(node, xc(uri), xc(candidate));
            if (!ns) throw XmlException(String(L"Cannot declare the namespace '") + wanted.getUri() + L"'.");
        }
    }
    // The value is stored as text; libxml2 escapes it when writing.
    if (!xmlSetNsProp(node, ns, xc(local), xc(text))) throw std::bad_alloc();
}

XmlElement* XmlElement::appendXmlElement(const XmlQualifiedName& name) {
    xmlNodePtr parent = toNode(this);
    const std::string local = checkedName(name.getLocalName());
    xmlNodePtr child = xmlNewDocNode(parent->doc, nullptr, xc(local), nullptr);
    if (!child) throw std::bad_alloc();
    xmlAddChild(parent, child);
    try {
        applyElementNamespace(child, name.getNamespace());
    } catch (...) {
        xmlUnlinkNode(child);
        xmlFreeNode(child);
        throw;
    }
    return toXmlElement(child);
}

std::size_t XmlElement::countChildNodes() const noexcept {
    std::size_t n = 0;
    for (xmlNodePtr c = toNode(this)->children; c; c = c->next) ++n;
    return n;
}

XmlElement* XmlElement::getFirstChildElement() const noexcept {
    return toXmlElement(xmlFirstElementChild(toNode(this)));
}

XmlElement* XmlElement::getNextSiblingElement() const noexcept {
    return toXmlElement(xmlNextElementSibling(toNode(this)));
}

// -- XmlDocument ------------------------------------------------------------------------

XmlDocument::XmlDocument() : m_doc(newEmptyDoc()) {}

XmlDocument::XmlDocument(const XmlDocument& other) : RefCountedBase(other), m_doc(nullptr) {
    initLibxml();
    xmlDocPtr copy = xmlCopyDoc(toDoc(other.m_doc), 1);
    if (!copy) throw std::bad_alloc();
    copy->_private = nullptr;  // elements not yet placed stay with the original
    m_doc = copy;
}

XmlDocument& XmlDocument::operator=(const XmlDocument& other) {
    if (this != &other) {
        XmlDocument copy(other);
        swap(copy);
    }
    return *this;
}

XmlDocument::~XmlDocument() { freeDoc(toDoc(m_doc)); }

void XmlDocument::parse(const void* data, std::size_t size) {
    xmlDocPtr parsed = parseDocument(data, size);
    freeDoc(toDoc(std::exchange(m_doc, parsed)));
}

Handle<XmlDocument> XmlDocument::fromBuffer(const void* data, std::size_t size) {
    Handle<XmlDocument> doc(new (KIV_MEMTAG("project/platform/xml/xml", __LINE__)) XmlDocument());
    doc->parse(data, size);
    return doc;
}

XmlElement* XmlDocument::createXmlElement(const XmlQualifiedName& name) {
    xmlDocPtr doc = toDoc(m_doc);
    const std::string local = checkedName(name.getLocalName());
    PendingList* pending = pendingOf(doc);
    if (!pending) {
        pending = new PendingList;
        doc->_private = pending;
    }
    pending->reserve(pending->size() + 1);
    xmlNodePtr node = xmlNewDocNode(doc, nullptr, xc(local), nullptr);
    if (!node) throw std::bad_alloc();
    try {
        applyElementNamespace(node, name.getNamespace());
    } catch (...) {
        xmlFreeNode(node);
        throw;
    }
    pending->push_back(node);
    return toXmlElement(node);
}

void XmlDocument::setRootElement(XmlElement* element, ESplice) {
    xmlDocPtr doc = toDoc(m_doc);
    xmlNodePtr node = toNode(element);
    if (!node || node->type != XML_ELEMENT_NODE)
        throw XmlException(String(L"Only an element can be made the root of an XML document."));
    if (node->doc != doc)
        throw XmlException(String(L"The element given as root belongs to another XML document."));
    if (node == xmlDocGetRootElement(doc)) return;
    if (PendingList* pending = pendingOf(doc)) {
        pending->erase(std::remove(pending->begin(), pending->end(), node), pending->end());
    }
    if (node->parent) {
        // An element taken from inside the tree may use namespaces declared
        // on its ancestors, which go away with the old root: declare them on
        // the element itself first.
        xmlUnlinkNode(node);
        xmlReconciliateNs(doc, node);
    }
    // Moves the element in place (unlinking it from wherever it was) and
    // hands back the root it replaces, which nothing refers to any more.
    xmlNodePtr old = xmlDocSetRootElement(doc, node);
    if (old && old != node) {
        xmlUnlinkNode(old);
        xmlFreeNode(old);
    }
}

XmlElement* XmlDocument::getRootElement() const noexcept {
    return toXmlElement(xmlDocGetRootElement(toDoc(m_doc)));
}

XmlElement& XmlDocument::getRootElementRef() const {
    XmlElement* root = getRootElement();
    if (!root) throw XmlException(String(L"The XML document has no root element."));
    return *root;
}

void XmlDocument::swap(XmlDocument& other) noexcept { std::swap(m_doc, other.m_doc); }

std::string XmlDocument::serialize() const {
    std::string out;
    serialize([&out](const char* data, std::size_t size) { out.append(data, size); });
    return out;
}

void XmlDocument::serialize(const Sink& sink) const {
    xmlDocPtr doc = toDoc(m_doc);
    SaveSink state{&sink, nullptr};
    xmlSaveCtxtPtr ctxt = xmlSaveToIO(writeToSink, nullptr, &state, nullptr, XML_SAVE_AS_XML);
    if (!ctxt) throw std::bad_alloc();
    // The output is UTF-8 and says so in its declaration. The save context
    // itself names no encoding, so that libxml2 copies the text as it is
    // instead of passing it through a UTF-8 to UTF-8 converter; the
    // document's own encoding, set for the duration, supplies the
    // declaration and keeps non-ASCII characters as they are rather than
    // character references.
    const xmlChar* const oldEncoding = doc->encoding;
    doc->encoding = BAD_CAST "UTF-8";
    const long saved = xmlSaveDoc(ctxt, doc);
    const int closed = xmlSaveClose(ctxt);
    doc->encoding = oldEncoding;
    if (state.error) std::rethrow_exception(state.error);
    if (saved < 0 || closed < 0) throw XmlException(String(L"The XML document cannot be written."));
}

bool XmlDocument::equals(const XmlDocument& other) const {
    xmlNodePtr a = xmlDocGetRootElement(toDoc(m_doc));
    xmlNodePtr b = xmlDocGetRootElement(toDoc(other.m_doc));
    if (!a || !b) return a == b;
    return sameTree(a, b);
}

// -- XmlValidator -------------------------------------------------------------------------

XmlValidator::XmlValidator(std::vector<xml::SchemaLocation> locations) : m_locations(std::move(locations)) {}

bool XmlValidator::validate(const XmlDocument& document, std::vector<String>& errors) const {
    const XmlElement* root = document.getRootElement();
    if (!root) {
        errors.emplace_back(L"The document has no root element.");
        return false;
    }
    const String uri = root->getNamespaceUri();
    auto location = std::find_if(m_locations.begin(), m_locations.end(),
                                 [&](const xml::SchemaLocation& l) { return l.namespaceUri == uri; });
    if (location == m_locations.end()) {
        errors.push_back(String(L"No schema is known for the namespace '") + uri +
                         L"' of the root element '" + root->getLocalName() + L"'.");
        return false;
    }
    xmlSchemaPtr schema = compiledSchema(location->file);

    std::unique_ptr<xmlSchemaValidCtxt, SchemaValidCtxtDeleter> vctxt(xmlSchemaNewValidCtxt(schema));
    if (!vctxt) throw std::bad_alloc();
    std::vector<String> found;
    xmlSchemaSetValidStructuredErrors(vctxt.get(), collectError, &found);
    const int rc = xmlSchemaValidateDoc(vctxt.get(), toDoc(document.nativeHandle()));
    if (rc == 0) return true;
    if (found.empty())
        found.push_back(String(L"The document does not match the schema '") + location->file + L"'.");
    errors.insert(errors.end(), found.begin(), found.end());
    return false;
}

}  // namespace kiv
