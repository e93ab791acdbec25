// The object reader/writer framework of the catalog.
//
// A catalog reads an object by calling back a Reader (preInspectRead, then
// isObjectTypeMatch, then read with the stored bytes) and writes one by
// calling back a Writer (validatePrivileges, write into an OutputStream,
// getSignature, postInspectWrite). XmlReader<T> and XmlWriter<T> are the
// readers and writers of XML objects; T names the object kind and supplies
// its signature (T::ksSignature), the constructor from the caller's
// Handle<XmlDocument>&, and giveAlreadyValidatedXmlDocument(XmlDocument&).
//
// Thread rule: a reader or writer serves one catalog call and is called back
// on the thread that made the call.
#pragma once

#include "qz/platform/export.h"

#include <cstddef>
#include <string>
#include <vector>

#include "qz/platform/accounttoken.h"
#include "qz/platform/handle.h"
#include "qz/platform/logger.h"
#include "qz/platform/string.h"
#include "qz/platform/xml.h"
#include "qz/webcatalog/catalog.h"
#include "qz/webcatalog/iteminfo.h"

namespace kiv {

class KIV_API OutputStream {
public:
    virtual ~OutputStream() = default;
    virtual void write(const void* data, std::size_t size) = 0;
};

// An OutputStream into a byte string.
class KIV_API StringOutputStream : public OutputStream {
public:
    void write(const void* data, std::size_t size) override {
        m_buffer.append(static_cast<const char*>(data), size);
    }
    const std::string& str() const noexcept { return m_buffer; }
    std::string& str() noexcept { return m_buffer; }

private:
    std::string m_buffer;
};

namespace catalog {

class Writer;

class KIV_API Reader {
public:
    enum PreInspectReadReturnCode { kContinueToRead = 0, kDontContinueToRead = 1 };
    enum UpgradeMode { kUpgradeNone = 0, kUpgradeAuto = 1, kUpgradeAbort = 2, kUpgradeExplicit = 3, kUpgradeForce = 4 };

    virtual ~Reader() = default;
    virtual PreInspectReadReturnCode preInspectRead(const ItemInfo& info) = 0;
    virtual String getSignature() const = 0;
    virtual bool isObjectTypeMatch(const ItemInfo& info) const = 0;
    // Receives the stored bytes; true when the content was upgraded and
    // should be stored again.
    virtual bool read(const void* data, std::size_t size, const ItemInfo& info) = 0;
    virtual Writer* getWriter() = 0;
    virtual bool validatePrivileges(const AccountToken& user) const { return true; }
    virtual void setUpgradeMode(UpgradeMode mode) { m_eUpgradeMode = mode; }
    virtual UpgradeMode getUpgradeMode() const { return m_eUpgradeMode; }
    virtual std::vector<String> getGUIDs() const { return {}; }
    virtual void handleGUIDs(const std::vector<String>& guids) {}

private:
    UpgradeMode m_eUpgradeMode = kUpgradeAuto;
};

class KIV_API Writer {
public:
    virtual ~Writer() = default;
    virtual void write(OutputStream& stream) const = 0;
    virtual String getSignature() const = 0;
    virtual void postInspectWrite(const ItemInfo& info) const {}
    // The base check: the writer has something to write for a known user.
    virtual bool validatePrivileges(const AccountToken& user) const { return !user.getUserName().empty(); }
};

class KIV_API XmlReaderBase : public Reader {
public:
    // Parses the bytes into `doc` (raises XmlException when they do not parse)
    // and answers whether the document is valid for the signature.
    static bool readAndValidateDocumentFromBuffer(XmlDocument& doc, const void* data, std::size_t size,
                                                  const String& signature, const String& extra);
    // Raises XmlException when the document is not valid for the signature:
    // it must have a root element, and match the schema registered for the
    // signature, if one is.
    static void validateDocument(const XmlDocument& doc, const String& signature);
    static bool documentsEqual(const XmlDocument& a, const XmlDocument& b);
};

class KIV_API XmlWriterBase : public Writer {
public:
    // True when the document is valid for the signature (see XmlReaderBase).
    static bool validateDocument(const XmlDocument& doc, const String& signature);
    static void writeDocumentToStream(const XmlDocument& doc, OutputStream& stream);
    // True when the user may store this document under the signature: any
    // signed-in user may store a document with a root element.
    static bool validateDocumentPrivileges(const AccountToken& user, const String& signature,
                                           const XmlDocument& doc);
};

// Registers an XSD schema for a signature (used by the validity checks
// above). Without a registration only well-formedness and a root element
// are checked.
KIV_API void registerSignatureSchema(const String& signature, const xml::SchemaLocation& location);

template <class T>
class XmlReader : public XmlReaderBase {
public:
    explicit XmlReader(Handle<XmlDocument>& document, Writer* pWriter = nullptr)
        : m_data(document), m_pWriter(pWriter) {}

    PreInspectReadReturnCode preInspectRead(const ItemInfo&) override { return kContinueToRead; }
    String getSignature() const override { return T::ksSignature; }
    bool isObjectTypeMatch(const ItemInfo& info) const override {
        return getSignature().equals(info.getObjectSignature(kInfoResolved));
    }
    Writer* getWriter() override { return m_pWriter; }

    bool read(const void* pBuffer, std::size_t nBytes, const ItemInfo& rInfo) override {
        XmlDocument tDoc;
        const bool bValid = readAndValidateDocumentFromBuffer(tDoc, pBuffer, nBytes, getSignature(), String());
        const UpgradeMode mode = getUpgradeMode();
        if (mode == kUpgradeNone) {
            m_data.giveAlreadyValidatedXmlDocument(tDoc);
            return false;
        }
        if (bValid && (mode == kUpgradeAuto || mode == kUpgradeExplicit)) {
            m_data.giveAlreadyValidatedXmlDocument(tDoc);
            return false;
        }
        // The object kinds here have no upgrade step of their own, so the
        // document stays as read; the comparison still decides what an
        // upgrade-aborting caller is told.
        XmlDocument tOrigDoc(tDoc);
        const bool bChanged = !documentsEqual(tOrigDoc, tDoc);
        if (bChanged && mode == kUpgradeAbort) {
            String sWarn = rInfo.getPath(kInfoOriginal).toString() + L" needs upgrading.";
            Logger::getLogger().log(kSevErrorCritical, GDVariant(sWarn),
                                    KIV_FILE_LOCATION("inc/qz/webcatalog/readerwriter", 472));
            throw CatalogUpgradeRequired(sWarn, String());
        }
        validateDocument(tDoc, getSignature());
        m_data.giveAlreadyValidatedXmlDocument(tDoc);
        return bChanged;
    }

    T& data() noexcept { return m_data; }

private:
    T m_data;
    Writer* m_pWriter;
};

template <class T>
class XmlWriter : public XmlWriterBase {
public:
    explicit XmlWriter(const Handle<XmlDocument>& document) : m_hDoc(document) {}

    void write(OutputStream& stream) const override {
        if (!XmlWriterBase::validateDocument(*m_hDoc, getSignature())) {
            // Writing never refuses: a save must not be lost to a schema
            // mismatch; the log line is there to find such cases.
            Logger::getLogger().log(
                kSevErrorCritical,
                GDVariant(String(L"HOT BUG: object failed to validate, potentially writing garbage into catalog for ") +
                          getSignature()),
                KIV_FILE_LOCATION("inc/qz/webcatalog/readerwriter", 520));
        }
        writeDocumentToStream(*m_hDoc, stream);
    }
    String getSignature() const override { return T::ksSignature; }
    bool validatePrivileges(const AccountToken& token) const override {
        return Writer::validatePrivileges(token) && validateDocumentPrivileges(token, getSignature(), *m_hDoc);
    }

private:
    Handle<XmlDocument> m_hDoc;
};

}  // namespace catalog
}  // namespace kiv
