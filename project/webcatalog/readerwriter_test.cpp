// XmlReader<T> and XmlWriter<T> driven through the SQLite catalog.
#include "qz/webcatalog/readerwriter.h"

#include <gtest/gtest.h>

#include <cstring>

#include "qz/webcatalog/sqlitecatalog.h"
#include "webcatalog/conformance/catalogtestsupport.h"

namespace kiv::catalog {
namespace {

using testing::TempDir;
using testing::writeFileBytes;

// An object kind for the templates: the document lands in the caller's handle.
struct TestDocumentData {
    static const String ksSignature;
    explicit TestDocumentData(Handle<XmlDocument>& target) : m_target(target) {}
    void giveAlreadyValidatedXmlDocument(XmlDocument& doc) {
        m_target = Handle<XmlDocument>(new XmlDocument());
        m_target->swap(doc);
    }
    Handle<XmlDocument>& m_target;
};
const String TestDocumentData::ksSignature = L"testdocument1";

const char* const kSchema =
    "<?xml version=\"1.0\"?>"
    "<xs:schema xmlns:xs=\"http://www.w3.org/2001/XMLSchema\" targetNamespace=\"urn:kiv:testdoc\""
    " xmlns=\"urn:kiv:testdoc\" elementFormDefault=\"qualified\">"
    "<xs:element name=\"doc\"><xs:complexType><xs:sequence>"
    "<xs:element name=\"item\" minOccurs=\"0\" maxOccurs=\"unbounded\"><xs:complexType>"
    "<xs:attribute name=\"name\" type=\"xs:string\" use=\"required\"/></xs:complexType></xs:element>"
    "</xs:sequence></xs:complexType></xs:element></xs:schema>";

const char* const kValid = "<doc xmlns=\"urn:kiv:testdoc\"><item name=\"a\"/></doc>";
const char* const kInvalid = "<doc xmlns=\"urn:kiv:testdoc\"><item/></doc>";

class ReaderWriterTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        static TempDir dir;
        const std::string xsd = dir.file("testdoc.xsd");
        writeFileBytes(xsd, kSchema);
        registerSignatureSchema(TestDocumentData::ksSignature,
                                xml::SchemaLocation(L"urn:kiv:testdoc", String::fromUtf8(xsd)));
    }
    void SetUp() override {
        catalog = SqliteCatalog::openInMemory();
        catalog->makeFolder(Path(L"/users/u"));
        catalog->setAccess(Path(L"/users/u"), L"u", false, Rights::kWrite);
        log = std::make_shared<CapturingLogWriter>();
        Logger::getLogger().addWriter(log);
    }
    void TearDown() override { Logger::getLogger().removeWriter(log); }

    bool logged(const std::wstring& needle) const {
        for (const LogRecord& r : log->records())
            if (r.text.find(needle) != String::npos) return true;
        return false;
    }
    ReturnCode readInto(Handle<XmlDocument>& target, const wchar_t* path = L"/users/u/doc") {
        XmlReader<TestDocumentData> reader(target);
        ItemInfo info;
        return catalog->readObject(user, Path(path), reader, info, 0);
    }

    std::unique_ptr<SqliteCatalog> catalog;
    std::shared_ptr<CapturingLogWriter> log;
    AccountToken user{L"u"};
};

TEST_F(ReaderWriterTest, AWrittenDocumentReadsBackEqual) {
    Handle<XmlDocument> doc = XmlDocument::fromBuffer(kValid, std::strlen(kValid));
    XmlWriter<TestDocumentData> writer(doc);
    ASSERT_EQ(catalog->writeObject(user, Path(L"/users/u/doc"), writer, tDefaultReplaceHelper), kSuccess);
    ItemInfo info;
    ASSERT_EQ(catalog->getItemInfo(user, Path(L"/users/u/doc"), info, false, true), kSuccess);
    EXPECT_EQ(info.getObjectSignature(kInfoResolved), L"testdocument1");
    Handle<XmlDocument> back;
    ASSERT_EQ(readInto(back), kSuccess);
    ASSERT_FALSE(back.isNull());
    EXPECT_TRUE(XmlReaderBase::documentsEqual(*back, *doc));
    EXPECT_FALSE(logged(L"HOT BUG"));
}

TEST_F(ReaderWriterTest, AnInvalidDocumentIsWrittenWithAHotBugLog) {
    Handle<XmlDocument> doc = XmlDocument::fromBuffer(kInvalid, std::strlen(kInvalid));
    XmlWriter<TestDocumentData> writer(doc);
    ASSERT_EQ(catalog->writeObject(user, Path(L"/users/u/doc"), writer, tDefaultReplaceHelper), kSuccess);
    EXPECT_TRUE(logged(L"HOT BUG: object failed to validate, potentially writing garbage into catalog for testdocument1"));
    EXPECT_NE(catalog->readRaw(Path(L"/users/u/doc")).find("item"), std::string::npos);
}

TEST_F(ReaderWriterTest, ADocumentWithoutRootFailsPrivilegeValidation) {
    Handle<XmlDocument> doc(new XmlDocument());
    XmlWriter<TestDocumentData> writer(doc);
    EXPECT_EQ(catalog->writeObject(user, Path(L"/users/u/doc"), writer, tDefaultReplaceHelper),
              kErrorPrivilegeValidationFailed);
    EXPECT_FALSE(catalog->exists(Path(L"/users/u/doc")));
}

TEST_F(ReaderWriterTest, ReadingAnObjectOfAnotherSignatureIsObjectTypeMismatch) {
    catalog->putObject(Path(L"/users/u/doc"), L"other1", {}, kValid);
    Handle<XmlDocument> back;
    EXPECT_EQ(readInto(back), kErrorObjectTypeMismatch);
    EXPECT_TRUE(back.isNull());
}

TEST_F(ReaderWriterTest, AnInvalidStoredDocumentIsRefusedInAutoMode) {
    catalog->putObject(Path(L"/users/u/doc"), L"testdocument1", {}, kInvalid);
    Handle<XmlDocument> back;
    EXPECT_THROW(readInto(back), XmlException);
    EXPECT_TRUE(back.isNull());
}

TEST_F(ReaderWriterTest, AnInvalidStoredDocumentIsHandedOverWithoutUpgrade) {
    catalog->putObject(Path(L"/users/u/doc"), L"testdocument1", {}, kInvalid);
    catalog->setReaderUpgradeMode(Reader::kUpgradeNone);
    Handle<XmlDocument> back;
    ASSERT_EQ(readInto(back), kSuccess);
    ASSERT_FALSE(back.isNull());
    EXPECT_EQ(back->getRootElementRef().getLocalName(), L"doc");
}

TEST_F(ReaderWriterTest, AValidDocumentReadsInEveryUpgradeMode) {
    catalog->putObject(Path(L"/users/u/doc"), L"testdocument1", {}, kValid);
    for (int mode : {Reader::kUpgradeNone, Reader::kUpgradeAuto, Reader::kUpgradeAbort, Reader::kUpgradeExplicit,
                     Reader::kUpgradeForce}) {
        SCOPED_TRACE(mode);
        catalog->setReaderUpgradeMode(mode);
        Handle<XmlDocument> back;
        ASSERT_EQ(readInto(back), kSuccess);
        ASSERT_FALSE(back.isNull());
        EXPECT_FALSE(logged(L"needs upgrading."));
    }
}

TEST_F(ReaderWriterTest, AnUnparsableStoredDocumentRaisesTheXmlError) {
    catalog->putObject(Path(L"/users/u/doc"), L"testdocument1", {}, "<doc");
    Handle<XmlDocument> back;
    EXPECT_THROW(readInto(back), XmlException);
}

TEST_F(ReaderWriterTest, WithoutARegisteredSchemaARootElementIsEnough) {
    XmlDocument doc;
    const char* text = "<anything/>";
    EXPECT_TRUE(XmlReaderBase::readAndValidateDocumentFromBuffer(doc, text, std::strlen(text), L"unregistered1", String()));
    EXPECT_NO_THROW(XmlReaderBase::validateDocument(doc, L"unregistered1"));
    EXPECT_TRUE(XmlWriterBase::validateDocument(doc, L"unregistered1"));
    EXPECT_FALSE(XmlWriterBase::validateDocument(XmlDocument(), L"unregistered1"));
    EXPECT_THROW(XmlReaderBase::validateDocument(XmlDocument(), L"unregistered1"), XmlException);
}

TEST_F(ReaderWriterTest, ValidationAgainstARegisteredSchema) {
    XmlDocument valid;
    EXPECT_TRUE(XmlReaderBase::readAndValidateDocumentFromBuffer(valid, kValid, std::strlen(kValid),
                                                                 TestDocumentData::ksSignature, String()));
    XmlDocument invalid;
    EXPECT_FALSE(XmlReaderBase::readAndValidateDocumentFromBuffer(invalid, kInvalid, std::strlen(kInvalid),
                                                                  TestDocumentData::ksSignature, String()));
    EXPECT_THROW(XmlReaderBase::validateDocument(invalid, TestDocumentData::ksSignature), XmlException);
}

TEST_F(ReaderWriterTest, DocumentPrivilegesNeedAUserAndARoot) {
    Handle<XmlDocument> doc = XmlDocument::fromBuffer(kValid, std::strlen(kValid));
    EXPECT_TRUE(XmlWriterBase::validateDocumentPrivileges(user, TestDocumentData::ksSignature, *doc));
    EXPECT_FALSE(XmlWriterBase::validateDocumentPrivileges(AccountToken(), TestDocumentData::ksSignature, *doc));
    EXPECT_FALSE(XmlWriterBase::validateDocumentPrivileges(user, TestDocumentData::ksSignature, XmlDocument()));
}

TEST_F(ReaderWriterTest, WriteDocumentToStreamSerialisesTheDocument) {
    Handle<XmlDocument> doc = XmlDocument::fromBuffer(kValid, std::strlen(kValid));
    StringOutputStream out;
    XmlWriterBase::writeDocumentToStream(*doc, out);
    Handle<XmlDocument> again = XmlDocument::fromBuffer(out.str().data(), out.str().size());
    EXPECT_TRUE(XmlReaderBase::documentsEqual(*doc, *again));
}

}  // namespace
}  // namespace kiv::catalog
