// The XML reader/writer helpers and the signature schema registry.
#include "qz/webcatalog/readerwriter.h"

#include <map>
#include <mutex>
#include <optional>

namespace kiv::catalog {

namespace {

struct SchemaRegistry {
    std::mutex mutex;
    std::map<String, xml::SchemaLocation> locations;

    static SchemaRegistry& instance() {
        static SchemaRegistry registry;
        return registry;
    }
    std::optional<xml::SchemaLocation> find(const String& signature) {
        std::lock_guard<std::mutex> lock(mutex);
        const auto it = locations.find(signature);
        if (it == locations.end()) return std::nullopt;
        return it->second;
    }
};

// Empty when valid, otherwise the reasons.
std::vector<String> validityProblems(const XmlDocument& doc, const String& signature) {
    std::vector<String> problems;
    if (doc.getRootElement() == nullptr) {
        problems.push_back(L"the document has no root element");
        return problems;
    }
    if (const auto location = SchemaRegistry::instance().find(signature)) {
        XmlValidator validator({*location});
        if (!validator.validate(doc, problems) && problems.empty()) problems.push_back(L"schema validation failed");
    }
    return problems;
}

}  // namespace

void registerSignatureSchema(const String& signature, const xml::SchemaLocation& location) {
    auto& registry = SchemaRegistry::instance();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.locations.insert_or_assign(signature, location);
}

bool XmlReaderBase::readAndValidateDocumentFromBuffer(XmlDocument& doc, const void* data, std::size_t size,
                                                      const String& signature, const String&) {
    doc.parse(data, size);
    return validityProblems(doc, signature).empty();
}

void XmlReaderBase::validateDocument(const XmlDocument& doc, const String& signature) {
    const std::vector<String> problems = validityProblems(doc, signature);
    if (problems.empty()) return;
    String text = L"document is not valid for signature \"" + signature + L"\": ";
    for (std::size_t i = 0; i < problems.size(); ++i) {
        if (i) text += L"; ";
        text += problems[i];
    }
    throw XmlException(text);
}

bool XmlReaderBase::documentsEqual(const XmlDocument& a, const XmlDocument& b) { return a.equals(b); }

bool XmlWriterBase::validateDocument(const XmlDocument& doc, const String& signature) {
    return validityProblems(doc, signature).empty();
}

void XmlWriterBase::writeDocumentToStream(const XmlDocument& doc, OutputStream& stream) {
    doc.serialize([&stream](const char* data, std::size_t size) { stream.write(data, size); });
}

bool XmlWriterBase::validateDocumentPrivileges(const AccountToken& user, const String&, const XmlDocument& doc) {
    return !user.getUserName().empty() && doc.getRootElement() != nullptr;
}

}  // namespace kiv::catalog
