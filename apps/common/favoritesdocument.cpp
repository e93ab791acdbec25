#include "favoritesdocument.h"

#include <ctime>
#include <cwctype>

#include "hosterrors.h"
#include "jsonwriter.h"
#include "qz/platform/config.h"
#include "qz/platform/xml.h"
#include "qz/webcatalog/itemname.h"
#include "qz/webcatalog/readerwriter.h"
#include "qz/webfavorites/favoritefolder.h"

namespace kiv::host {

namespace {

const String kNameAttr(L"name");
const String kCatalogPathAttr(L"catalogpath");
const String kTypeAttr(L"type");

bool equalsIgnoringCase(const String& a, const wchar_t* b) {
    const std::wstring_view x(a), y(b);
    if (x.size() != y.size()) return false;
    for (std::size_t i = 0; i < x.size(); ++i)
        if (std::towlower(x[i]) != std::towlower(y[i])) return false;
    return true;
}

// Walks the children of `element` as the manager's load builds its tree,
// counting what it holds; a name or path the catalog refuses throws as it
// does in the load.
void walk(const XmlElement& element, const catalog::Path& parentPath, FavoritesDocumentCheck& out) {
    for (XmlNode* node = element.getFirstChild(); node; node = node->getNextSibling()) {
        const XmlElement* child = xml_cast_element(node);
        if (!child) continue;
        const catalog::ItemName name(child->unchecked_getAttributeValue(kNameAttr, XmlElement::kNotRequired),
                                     catalog::ItemName::kNone);
        const catalog::Path catalogPath = catalog::Path::fromUtf8(child->getAttributeValueUtf8(kCatalogPathAttr));
        const String type = child->unchecked_getAttributeValue(kTypeAttr, XmlElement::kNotRequired);
        if (equalsIgnoringCase(type, L"category")) {
            const FavoriteFolder folder(parentPath, name);
            ++out.categories;
            walk(*child, folder.getPath(), out);
        } else if (equalsIgnoringCase(type, L"catalogitem")) {
            ++out.items;
        }
    }
}

// Carries a finished body to the store for the writer it stands in for.
class BodyWriter : public catalog::Writer {
public:
    BodyWriter(const catalog::Writer* original, String signature, const std::string& body)
        : m_original(original), m_signature(std::move(signature)), m_body(body) {}
    void write(OutputStream& stream) const override { stream.write(m_body.data(), m_body.size()); }
    String getSignature() const override { return m_signature; }
    void postInspectWrite(const catalog::ItemInfo& info) const override {
        if (m_original) m_original->postInspectWrite(info);
    }
    bool validatePrivileges(const AccountToken& user) const override {
        return m_original ? m_original->validatePrivileges(user) : catalog::Writer::validatePrivileges(user);
    }

private:
    const catalog::Writer* m_original;
    String m_signature;
    const std::string& m_body;
};

// Takes the stored bytes of an object.
class BodyReader : public catalog::Reader {
public:
    explicit BodyReader(std::string& body) : m_body(body) {}
    PreInspectReadReturnCode preInspectRead(const catalog::ItemInfo&) override { return kContinueToRead; }
    String getSignature() const override { return String(kFavoritesSignature); }
    bool isObjectTypeMatch(const catalog::ItemInfo& info) const override {
        return info.getObjectSignature(catalog::kInfoResolved) == getSignature();
    }
    bool read(const void* data, std::size_t size, const catalog::ItemInfo&) override {
        m_body.assign(static_cast<const char*>(data), size);
        return false;
    }
    catalog::Writer* getWriter() override { return nullptr; }

private:
    std::string& m_body;
};

thread_local std::string t_refusal;

bool isFavoritesObject(const catalog::Path& path, const String& signature) {
    return signature == String(kFavoritesSignature) &&
           path.getItemName().toString() != String(kOldMobileFavoritesName);
}

}  // namespace

FavoritesDocumentCheck checkFavoritesDocument(std::string_view body) {
    FavoritesDocumentCheck out;
    Handle<XmlDocument> document;
    try {
        document = XmlDocument::fromBuffer(body.data(), body.size());
    } catch (const Exception& e) {
        out.problem = e.what();
        return out;
    }
    const String schema = config::getDataDirectory() + L"/schemas/favorites.xsd";
    XmlValidator validator({xml::SchemaLocation(String(L"urn:kiv-web:favorites/v1"), schema, 0)});
    std::vector<String> errors;
    if (!validator.validate(*document, errors)) {
        out.problem = "the document does not follow the favorites schema";
        if (!errors.empty()) out.problem += ": " + errors.front().toUtf8();
        return out;
    }
    try {
        if (const XmlElement* root = document->getRootElement())
            walk(*root, catalog::Path(String(L"/root")), out);
    } catch (const catalog::CatalogNameException& e) {
        out.problem = std::string("it holds a name or path the catalog refuses: ") + e.what();
    } catch (const Exception& e) {
        out.problem = e.what();
    }
    return out;
}

catalog::ReturnCode readFavoritesDocument(catalog::Catalog& catalog, const AccountToken& user,
                                          const catalog::Path& path, std::string& body, catalog::ItemInfo& info) {
    BodyReader reader(body);
    return catalog.readObject(user, path, reader, info, 0);
}

std::string storedFavoritesProblem(catalog::Catalog& catalog, const AccountToken& user, const catalog::Path& path) {
    std::string body;
    catalog::ItemInfo info;
    const catalog::ReturnCode rc = readFavoritesDocument(catalog, user, path, body, info);
    if (rc == catalog::kErrorObjectTypeMismatch)
        return "the object is not a favorites object (its signature is \"" +
               info.getObjectSignature(catalog::kInfoResolved).toUtf8() + "\")";
    if (rc == catalog::kErrorPathNotFound || rc == catalog::kErrorAccessDenied) return std::string();
    if (rc != catalog::kSuccess)
        return std::string("the catalog could not read it: ") + catalog::returnCodeName(rc) + ", " +
               catalog::returnCodeDescription(rc).toUtf8();
    return checkFavoritesDocument(body).problem;
}

// --- ReadBackCatalog -----------------------------------------------------------

catalog::ReturnCode ReadBackCatalog::deleteObject(const AccountToken& user, const catalog::Path& path) {
    return m_store.deleteObject(user, path);
}

int ReadBackCatalog::getReaderUpgradeMode() const noexcept { return m_store.getReaderUpgradeMode(); }

catalog::ReturnCode ReadBackCatalog::readObject(const AccountToken& user, const catalog::Path& path,
                                                catalog::Reader& reader, catalog::ItemInfo& info, unsigned flags) {
    return m_store.readObject(user, path, reader, info, flags);
}

catalog::ReturnCode ReadBackCatalog::getItemInfo(const AccountToken& user, const catalog::Path& path,
                                                 catalog::ItemInfo& info, bool bOriginalOnly, bool bWithProperties) {
    return m_store.getItemInfo(user, path, info, bOriginalOnly, bWithProperties);
}

std::unique_ptr<catalog::ReadBatch> ReadBackCatalog::beginReadBatch() { return m_store.beginReadBatch(); }

catalog::ReturnCode ReadBackCatalog::writeObject(const AccountToken& user, const catalog::Path& path,
                                                 catalog::Writer& writer, const catalog::ReplaceHelper& replaceHelper) {
    const String signature = writer.getSignature();
    if (!isFavoritesObject(path, signature)) return m_store.writeObject(user, path, writer, replaceHelper);
    StringOutputStream out;
    try {
        writer.write(out);
    } catch (...) {
        return catalog::kErrorCatalogObjectException;
    }
    const FavoritesDocumentCheck check = checkFavoritesDocument(out.str());
    if (!check.readable()) {
        t_refusal = check.problem;
        return catalog::kErrorSchemaValidationFailed;
    }
    BodyWriter body(&writer, signature, out.str());
    return m_store.writeObject(user, path, body, replaceHelper);
}

std::string ReadBackCatalog::takeRefusal() { return std::exchange(t_refusal, std::string()); }

// --- history -------------------------------------------------------------------

void keepFavoritesHistory(catalog::ManagedCatalog& store, unsigned versions) {
    store.setHistoryPolicy({versions, isFavoritesObject});
}

std::vector<FavoritesVersion> favoritesHistory(catalog::ManagedCatalog& store, const AccountToken& user,
                                               const catalog::Path& path) {
    std::vector<FavoritesVersion> out;
    for (catalog::ManagedCatalog::Version& v : store.versions(user, path)) {
        std::string body;
        store.readVersion(user, path, v.number, body);
        out.push_back({std::move(v), checkFavoritesDocument(body)});
    }
    return out;
}

std::string utcTimeText(catalog::Time t, const char* format) {
    const std::time_t secs = static_cast<std::time_t>(t / 1000000);
    std::tm tm{};
    gmtime_r(&secs, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, format, &tm);
    return buf;
}

void writeHistoryJson(JsonWriter& w, const catalog::Path& path, const std::vector<FavoritesVersion>& versions,
                      const std::string& warning) {
    w.beginObject().member("favoritesPath", path.toString());
    if (!warning.empty()) w.member("warning", warning);
    w.key("versions").beginArray();
    for (const FavoritesVersion& v : versions) {
        w.beginObject()
            .member("version", static_cast<std::int64_t>(v.version.number))
            .member("modified", utcTimeText(v.version.modified, "%Y-%m-%dT%H:%M:%SZ"))
            .member("replaced", utcTimeText(v.version.replaced, "%Y-%m-%dT%H:%M:%SZ"))
            .member("bytes", static_cast<std::int64_t>(v.version.size))
            .member("readable", v.content.readable());
        if (v.content.readable())
            w.member("categories", static_cast<std::int64_t>(v.content.categories))
                .member("catalogObjects", static_cast<std::int64_t>(v.content.items));
        else
            w.member("problem", v.content.problem);
        w.endObject();
    }
    w.endArray().endObject();
}

FavoritesDocumentCheck restoreFavoritesVersion(catalog::ManagedCatalog& store, const AccountToken& user, const catalog::Path& path,
                             std::int64_t number) {
    std::string body;
    const catalog::ManagedCatalog::Version version = store.readVersion(user, path, number, body);
    if (version.signature != String(kFavoritesSignature))
        throw InputError("version " + std::to_string(number) + " is not a favorites document");
    const FavoritesDocumentCheck check = checkFavoritesDocument(body);
    if (!check.readable())
        throw InputError("version " + std::to_string(number) + " cannot be read either: " + check.problem);
    BodyWriter writer(nullptr, version.signature, body);
    const catalog::ReturnCode rc = store.writeObject(user, path, writer, catalog::tDefaultReplaceHelper);
    if (rc != catalog::kSuccess) throw catalog::CatalogException(rc, path.toString());
    return check;
}

}  // namespace kiv::host
