// XML document model over libxml2.
//
// XmlDocument owns a libxml2 document; XmlNode and XmlElement are views of
// its nodes, handed out by pointer and valid while the document holds the
// node. XmlNode/XmlElement have no data of their own: a pointer to one is the
// libxml2 node itself, so walking a document allocates nothing.
//
// Parsing is hardened for untrusted input: no external entities, no DTD
// loading, no network, no entity expansion (an entity-expansion bomb fails),
// a fixed maximum nesting depth (kMaxDepth) and size (kMaxDocumentBytes);
// text must be well-formed in the document's encoding (UTF-8 unless the
// document declares another that libxml2 knows). A document carrying any DOCTYPE declaration
// is refused outright, which keeps out entity declarations and external DTDs
// alike. Every failure raises XmlException with a clear message, naming the
// line where the parser reports one.
//
// Names given to the builder must be XML names without a colon, and attribute
// values must hold only characters XML can represent (no control characters
// other than tab, newline and carriage return); otherwise XmlException.
//
// Thread safety: distinct documents may be used from distinct threads; one
// document needs external synchronisation. Compiled schemas are cached per
// file and shared safely between threads.
#pragma once

#include "qz/platform/export.h"

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "qz/platform/exception.h"
#include "qz/platform/handle.h"
#include "qz/platform/string.h"

namespace kiv {

class KIV_API XmlException : public Exception {
public:
    using Exception::Exception;
    void throwMe() const override { throw *this; }
    Exception* clone() const override;
};

class KIV_API XmlNamespace {
public:
    XmlNamespace() = default;  // no namespace
    XmlNamespace(String uri, String prefix = String()) : m_uri(std::move(uri)), m_prefix(std::move(prefix)) {}
    const String& getUri() const noexcept { return m_uri; }
    const String& getPrefix() const noexcept { return m_prefix; }

private:
    String m_uri;
    String m_prefix;
};

class KIV_API XmlQualifiedName {
public:
    XmlQualifiedName(String localName, XmlNamespace ns = XmlNamespace())
        : m_local(std::move(localName)), m_ns(std::move(ns)) {}
    const String& getLocalName() const noexcept { return m_local; }
    const XmlNamespace& getNamespace() const noexcept { return m_ns; }

private:
    String m_local;
    XmlNamespace m_ns;
};

// A path of child element names separated by '/', such as "favoritelist" or
// "a/b": each step selects child elements by local name.
class KIV_API PathFilter {
public:
    explicit PathFilter(const String& path);
    const std::vector<String>& steps() const noexcept { return m_steps; }

private:
    std::vector<String> m_steps;
};

class XmlElement;

class KIV_API XmlNode {
public:
    enum ENodeType { kElement = 1, kText = 3, kCData = 4, kComment = 8, kOther = 0 };

    XmlNode() = delete;
    XmlNode(const XmlNode&) = delete;
    XmlNode& operator=(const XmlNode&) = delete;

    ENodeType getNodeType() const noexcept;
    XmlNode* getFirstChild() const noexcept;
    XmlNode* getNextSibling() const noexcept;
    // First element reached from this node by the filter's steps; null if none.
    XmlElement* selectSingleElement(const PathFilter& filter) const;
    // The text content of the node and its descendants.
    String getTextContent() const;
};

// The run-time cast from node to element: null when `node` is not an element.
KIV_API XmlElement* xml_cast_element(XmlNode* node) noexcept;
KIV_API const XmlElement* xml_cast_element(const XmlNode* node) noexcept;

class KIV_API XmlElement : public XmlNode {
public:
    enum ERequired { kRequired, kNotRequired };

    String getLocalName() const;
    String getNamespaceUri() const;  // blank when none

    // The value of the un-namespaced attribute `name`. With kNotRequired an
    // absent attribute reads as blank; with kRequired it raises XmlException.
    String getAttributeValue(const String& name, ERequired required) const;
    // The same without the required check (absent reads as blank).
    String unchecked_getAttributeValue(const String& name, ERequired required) const;
    // The value as the document holds it, UTF-8 (absent reads as empty), for
    // callers that keep it in a form of their own without a wide copy.
    std::string getAttributeValueUtf8(const String& name) const;
    bool hasAttribute(const String& name) const;
    void setAttributeValue(const XmlQualifiedName& name, const String& value);

    // Appends a new child element and returns it.
    XmlElement* appendXmlElement(const XmlQualifiedName& name);
    // Number of child nodes of every kind.
    std::size_t countChildNodes() const noexcept;
    XmlElement* getFirstChildElement() const noexcept;
    XmlElement* getNextSiblingElement() const noexcept;
};

class KIV_API XmlDocument : public RefCountedBase {
public:
    // Deep enough for every favorites tree the JSON and SOAP inputs can
    // describe (their own limits keep those under 300 levels).
    static constexpr int kMaxDepth = 1024;
    static constexpr std::size_t kMaxDocumentBytes = 64u * 1024u * 1024u;

    // Tag for setRootElement: move the element in, do not clone it.
    enum ESplice { kSplice };

    XmlDocument();
    XmlDocument(const XmlDocument& other);  // deep copy
    XmlDocument& operator=(const XmlDocument& other);
    ~XmlDocument() override;

    // Parses UTF-8 XML from memory, replacing the content; raises XmlException.
    void parse(const void* data, std::size_t size);
    static Handle<XmlDocument> fromBuffer(const void* data, std::size_t size);

    // Creates an element owned by the document but not yet placed in it.
    XmlElement* createXmlElement(const XmlQualifiedName& name);
    // Makes `element` (from createXmlElement) the root, moving it in place.
    void setRootElement(XmlElement* element, ESplice);
    XmlElement* getRootElement() const noexcept;
    // The root element; raises XmlException when the document has none.
    XmlElement& getRootElementRef() const;

    // Exchanges the content of two documents.
    void swap(XmlDocument& other) noexcept;
    bool isEmpty() const noexcept { return getRootElement() == nullptr; }

    // UTF-8 serialisation with an XML declaration. Though const, it sets the
    // document's encoding field while it writes (and restores it), so one
    // document must not be serialised from two threads at once either.
    std::string serialize() const;
    // The same bytes, handed to `sink` piece by piece as they are produced
    // (the whole text is never held in memory at once). An exception from
    // the sink ends the serialisation and is raised again here.
    using Sink = std::function<void(const char* data, std::size_t size)>;
    void serialize(const Sink& sink) const;
    // Structural equality: same elements, attributes (in any order),
    // namespaces and text, ignoring whitespace-only text between elements.
    bool equals(const XmlDocument& other) const;

    void* nativeHandle() const noexcept { return m_doc; }  // the xmlDocPtr

private:
    void* m_doc;  // xmlDocPtr, never null
};

namespace xml {

// A schema file bound to a namespace URI.
struct KIV_API SchemaLocation {
    SchemaLocation(String namespaceUri, String file, int tag = 0)
        : namespaceUri(std::move(namespaceUri)), file(std::move(file)), tag(tag) {}
    String namespaceUri;
    String file;
    int tag;
};

}  // namespace xml

// Validates documents against XSD schemas. The schema for a document is the
// location whose namespace URI matches the root element's namespace; with no
// matching location the document fails validation. Compiled schemas are
// cached per file for the life of the process.
class KIV_API XmlValidator {
public:
    explicit XmlValidator(std::vector<xml::SchemaLocation> locations);
    // True when valid; on failure `errors` receives one text per problem.
    bool validate(const XmlDocument& document, std::vector<String>& errors) const;

private:
    std::vector<xml::SchemaLocation> m_locations;
};

}  // namespace kiv
