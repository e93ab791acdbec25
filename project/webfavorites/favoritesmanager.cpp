// FavoritesManager: one user's favorites. This file holds, in order:
//   - the unit's constants, the stored document's object kinds and the two
//     tree visitors (the XML builder and the catalog-path collector);
//   - reading the client's JSON (generic data) and SOAP parameters;
//   - construction and loading (loadFavorites, buildFavorties, getFavorites);
//   - the index of catalog paths (isFavorite);
//   - finding items in the tree;
//   - creating and validating items;
//   - adding and deleting items;
//   - keeping in step with the stored object and writing it (persist);
//   - replacing the whole tree from JSON (updateAll) and from SOAP;
//   - error codes to messages and exceptions;
//   - the one-time upgrade of the old mobile favorites object.
#include "qz/webfavorites/favoritesmanager.h"

#include <deque>
#include <optional>
#include <typeinfo>

#include "favoritesmessages.h"
#include "qz/platform/assert.h"
#include "qz/platform/config.h"
#include "qz/platform/gd.h"
#include "qz/platform/message.h"
#include "qz/platform/soap.h"
#include "qz/platform/systemutils.h"
#include "qz/platform/xml.h"
#include "qz/webcatalog/readerwriter.h"

namespace kiv {

namespace {

// Source tag of every allocation and log line of this unit. Each allocation
// is tagged KIV_MEMTAG(kSrc, N): N is a fixed number naming the allocation
// site in the tracking allocator's reports (kSrc:N), kept when code moves;
// it is not the line the site stands on.
constexpr const char* kSrc = "project/webfavorites/favoritesmanager";

const catalog::ItemName ksMobileFavoriteName(String(L"mobile-favoritelist"), catalog::ItemName::kNone);
const PathFilter kpfFavoriteList(String(L"favoritelist"));
[[maybe_unused]] const String ksFavoritesAll(L"ALL");
const String ksFavoritesList(L"favoritelist");
const String ksFavoritesRootName(L"root");
const String ksCategory(L"category");
const String ksNameAttr(L"name");
const String ksCatalogPathAttr(L"catalogpath");
const String ksFavoriteTag(L"favorite");
const String ksCatalogItem(L"catalogitem");
const String ksNameArg(L"name");
const String ksTypeAttr(L"type");
const String ksCatalogPathArg(L"path");
const String ksFavoritesParentPathArg(L"favoritesParentPath");
const String ksTypeArg(L"type");
const String ksFavoritesChildrenArg(L"children");
const String ksPath(L"path");
const String ksPage(L"page");
const String strCatalogPath(L"catalogPath");
[[maybe_unused]] const String strItemInfo(L"itemInfo");
const String strFavoriteItem(L"favoriteItem");
const XmlNamespace kFavoritesNamespace(String(L"urn:kiv-web:favorites/v1"), String());
// The names of the elements and attributes the builder writes, made once.
const XmlQualifiedName kqnFavorite(ksFavoriteTag);
const LogSourceHandle s_logSrcUpgrade(String(L"kiv.favoritesmanager.upgrade"));

const String ksCompositeSignature(L"compositeSignature");
const String ksDashboardFolderSignature(L"dashboardfolder1");

// The data of a catalog object stored as one XML document: the catalog's
// reader hands the parsed document over to the caller's handle. The two
// object kinds below share the signature "mobilefavorites1" on purpose (the
// stored objects carry it); only where they are stored tells them apart.
// kTagLine is the allocation tag number of the documents it makes (see kSrc).
template <int kTagLine>
struct XmlDocumentData {
    explicit XmlDocumentData(Handle<XmlDocument>& hDoc) : m_hDoc(hDoc) {}

    // Puts a fresh document into the caller's handle (releasing what it held)
    // and swaps the read content into it: no copy is made.
    void giveAlreadyValidatedXmlDocument(XmlDocument& doc) {
        m_hDoc = new (KIV_MEMTAG(kSrc, kTagLine)) XmlDocument();
        m_hDoc->swap(doc);
    }

    Handle<XmlDocument>& m_hDoc;
};

struct FavoriteDataCatalogObject : XmlDocumentData<240> {
    using XmlDocumentData::XmlDocumentData;
    static const String ksSignature;
    static const String ksDescription;
};
const String FavoriteDataCatalogObject::ksSignature(L"mobilefavorites1");
const String FavoriteDataCatalogObject::ksDescription(L"Favorite User Data");

struct MobileFavoriteUpgradeData : XmlDocumentData<115> {
    using XmlDocumentData::XmlDocumentData;
    static const String ksSignature;
    static const String ksDescription;
};
const String MobileFavoriteUpgradeData::ksSignature(L"mobilefavorites1");
const String MobileFavoriteUpgradeData::ksDescription(L"Mobile Favorite User Data");

// Sets the attribute `name`, in no namespace, on the element.
void appendAttribute(XmlElement* pElement, const String& name, const String& value) {
    pElement->setAttributeValue(XmlQualifiedName(name), value);
}

// Writes the tree below a document's root element: a "favorite" element per
// node, categories holding their children. The class name is spelled as it is
// on purpose (it is part of the library's interface) and must not be corrected.
class FavoritesXmlbuilderVistor : public FavoritesVisitor {
public:
    explicit FavoritesXmlbuilderVistor(XmlElement* pRoot) : m_pRoot(pRoot) { m_elementStack.push_back(pRoot); }

    bool visitCatalogItem(FavoriteCatalogItem& item) override {
        XmlElement* e = m_elementStack.back()->appendXmlElement(kqnFavorite);
        appendAttribute(e, ksNameAttr, item.getName().toString());
        appendAttribute(e, ksCatalogPathAttr, item.getCatalogPath().toString());
        appendAttribute(e, ksTypeAttr, ksCatalogItem);
        return true;
    }
    bool visitFolderEnd(FavoriteFolder&) override {
        m_elementStack.pop_back();
        return true;
    }
    bool visitFolderBegin(FavoriteFolder& folder) override {
        XmlElement* e = m_elementStack.back()->appendXmlElement(kqnFavorite);
        appendAttribute(e, ksNameAttr, folder.getName().toString());
        appendAttribute(e, ksTypeAttr, ksCategory);
        m_elementStack.push_back(e);
        return true;
    }

private:
    [[maybe_unused]] XmlElement* m_pRoot;
    std::deque<XmlElement*> m_elementStack;
};

// Collects the catalog path of every catalog item it visits. Spelled as it is
// on purpose, like FavoritesXmlbuilderVistor: not to be corrected.
class CatalogItemVistor : public FavoritesVisitor {
public:
    bool visitCatalogItem(FavoriteCatalogItem& item) override {
        m_catalogItemsPath.push_back(item.getCatalogPath());
        return true;
    }
    std::vector<catalog::Path> m_catalogItemsPath;
};

struct UpdateCatalogItemsCount {
    void operator()(unsigned& count) const noexcept { ++count; }
};
struct DecrementCatalogItemsCount {
    void operator()(unsigned& count) const noexcept { --count; }
};

bool isCatalogItem(const FavoritesItem& item) { return dynamic_cast<const FavoriteCatalogItem*>(&item) != nullptr; }

// --- Generic-data reading of client JSON ---------------------------------

// The value a variant holds, after following references; null for none.
GDValue* resolvedValue(const GDVariant& v) {
    GDValue* p = v.getValue();
    return p ? p->resolveReferences() : nullptr;
}

// Property keys of the client JSON, made once.
const GDPropertyKey kkeyType(ksTypeArg);
const GDPropertyKey kkeyPath(ksCatalogPathArg);
const GDPropertyKey kkeyName(ksNameArg);
const GDPropertyKey kkeyChildren(ksFavoritesChildrenArg);
const GDPropertyKey kkeyFavoritesParentPath(ksFavoritesParentPathArg);

// Reads a property and turns it into its text form. False when absent.
bool readPropertyText(const IGDReadablePropertyBag& bag, GDContext& ctx, const GDPropertyKey& key, String& text) {
    GDAdjustableSizeVariant value;
    if (!bag.getProperty(ctx, key, value)) return false;
    const GDVariant& referenced = value.getReferencedValue();
    // A string read directly (the usual case) is moved, not copied.
    text = &referenced == &value ? GDTypeConversions::toString(ctx, std::move(value))
                                 : GDTypeConversions::toString(ctx, referenced);
    return true;
}

// --- SOAP parameter reading -------------------------------------------------

// The child `name` at the position `it`, converted to `type`, with
// references followed to the parameter that holds the value. A missing or
// misnamed child, or a value that does not convert, raises the SOAP layer's
// exception.
const SoapParameter& readSoapChild(const SoapParameter& parObject, const String& name,
                                   const SoapParametersIterator& it, SoapParameter::EType type) {
    SoapParameter* p = parObject.getChildParam(name, it, true, false);
    p->convert(type);
    while (p->getType() == SoapParameter::kRef || p->getType() == SoapParameter::kRefUnresolved) {
        if (p->getType() == SoapParameter::kRefUnresolved) p->resolveRef();
        p = p->getRefParam();
    }
    return *p;
}

String readSoapString(const SoapParameter& parObject, const String& name, const SoapParametersIterator& it) {
    return readSoapChild(parObject, name, it, SoapParameter::kString).getString();
}

std::uint16_t readSoapUnsignedShort(const SoapParameter& parObject, const String& name,
                                    const SoapParametersIterator& it) {
    return readSoapChild(parObject, name, it, SoapParameter::kUnsignedShort).getUnsignedShort();
}

}  // namespace

const StringToEnumMap<favorites::EItemType>::Entry kFavoritesTypesEntries[] = {
    {favorites::kCatalogObject, L"catalogObject"},
    {favorites::kCategory, L"category"},
};
const StringToEnumMap<favorites::EItemType>::Entry kFavoritesJSONTypesEntries[] = {
    {favorites::kCatalogObject, L"0"},
    {favorites::kCategory, L"1"},
};
const StringToEnumMap<favorites::EItemType> kmapFavoritesTypes(kFavoritesTypesEntries);
const StringToEnumMap<favorites::EItemType> kmapFavoritesJSONTypes(kFavoritesJSONTypesEntries);

const String FavoritesManager::ksOldMobileClientFixedCategory(L"/root/Mobile Favorites");
const catalog::Path FavoritesManager::kpOldMobileClientFixedCategory(FavoritesManager::ksOldMobileClientFixedCategory);
const catalog::Path FavoritesManager::m_rootFolderPath(String(L"/") + String(L"root"));

namespace favorites {
const char* returnCodeName(int code) noexcept {
    switch (code) {
        case kErrorItemAlreadyExists: return "kErrorItemAlreadyExists";
        case kSuccess: return "kSuccess";
        case kInvalidItem: return "kInvalidItem";
        case kErrorFavoritesOutOfSync: return "kErrorFavoritesOutOfSync";
        case kErrorItemCannotHaveChild: return "kErrorItemCannotHaveChild";
        case kErrorItemNotFound: return "kErrorItemNotFound";
        case kErrorItemDoesNotExitsInCatalog: return "kErrorItemDoesNotExitsInCatalog";
        case kErrorInvalidFavoritesPath: return "kErrorInvalidFavoritesPath";
        case kErrorFavoritesCannotBeSaved: return "kErrorFavoritesCannotBeSaved";
        case kErrorInvalidFavoritesJson: return "kErrorInvalidFavoritesJson";
        default: return "unknown";
    }
}
}  // namespace favorites

FavoritesException::~FavoritesException() = default;
Exception* FavoritesException::clone() const { return new (KIV_MEMTAG(kSrc, 70)) FavoritesException(*this); }

favorites::ReturnCode update(Handle<FavoritesItem>&, Handle<FavoritesItem>&) { return favorites::kSuccess; }
favorites::ReturnCode update(FavoritesItems&) { return favorites::kSuccess; }

// ---------------------------------------------------------------------------
// Lifecycle and loading

FavoritesManager::FavoritesManager(catalog::Catalog& rCatalog, const AccountToken& rUser,
                                   const catalog::Path& rFavoritesPath)
    : m_catalogItemsPath(),
      m_user(rUser),
      m_rCatalog(rCatalog),
      m_path(rFavoritesPath),
      m_hRootFolder(),
      m_bIsDirty(false),
      m_tLastModifiedTime(0),
      m_tLastReloadTimeMS(SystemUtils::getRefElapsedMilliseconds()) {
    try {
        loadFavorites();
        checkAndUpgradeMobileFavorites();
    } catch (const Exception&) {
        // The manager is usable with whatever tree was reached.
    }
}

FavoritesManager::~FavoritesManager() {
    // An unpersisted change is dropped: the catalog is not touched here.
    m_hRootFolder.reset();
}

catalog::ReturnCode FavoritesManager::loadFavorites() {
    // A new, empty tree and index; on every failure below they stay empty so
    // queries see no favorites rather than a stale tree.
    m_hRootFolder = new (KIV_MEMTAG(kSrc, 290))
        FavoriteFolder(catalog::Path(String(L"/")), catalog::ItemName(ksFavoritesRootName, catalog::ItemName::kNone));
    m_catalogItemsPath.clear();

    catalog::ItemInfo info;
    catalog::ReturnCode rc = m_rCatalog.getItemInfo(m_user, m_path, info, false, true);
    if (rc == catalog::kErrorPathNotFound) {
        // A new user: store the empty default document. The tree is not built
        // from it; it stays the empty root.
        Handle<XmlDocument> hDoc(new (KIV_MEMTAG(kSrc, 302)) XmlDocument());
        createFavoritesDefaultXml(hDoc);
        persistFavoritesXml(hDoc);
        rc = m_rCatalog.getItemInfo(m_user, m_path, info, false, true);
        if (rc == catalog::kSuccess) {
            m_tLastModifiedTime = info.getLastModifiedTime(catalog::kInfoResolved);
            m_bIsDirty = false;
        }
        return rc;
    }
    if (rc != catalog::kSuccess) return rc;

    // Recorded before validation: an object that fails the schema is not
    // reloaded until it changes.
    m_tLastModifiedTime = info.getLastModifiedTime(catalog::kInfoResolved);

    Handle<XmlDocument> hDoc(new (KIV_MEMTAG(kSrc, 318)) XmlDocument());
    catalog::XmlReader<FavoriteDataCatalogObject> reader(hDoc);
    try {
        rc = m_rCatalog.readObject(m_user, m_path, reader, info, 0);
    } catch (...) {
        m_tLastReloadTimeMS = SystemUtils::getRefElapsedMilliseconds();
        throw;
    }
    m_tLastReloadTimeMS = SystemUtils::getRefElapsedMilliseconds();
    if (rc != catalog::kSuccess) return rc;

    ConfigSnapshot snapshot;
    const ConfigReader* pConfig = snapshot.getConfigReader();
    if (!pConfig) return catalog::kErrorOther;
    const String schemaFile =
        pConfig->getSpecialDirectory(ConfigReader::kDataDirectory) + L"/schemas/favorites.xsd";
    XmlValidator validator({xml::SchemaLocation(kFavoritesNamespace.getUri(), schemaFile, 0)});
    std::vector<String> errors;
    if (!validator.validate(*hDoc, errors)) return catalog::kErrorSchemaValidationFailed;

    {
        // One look-up per favorite follows: let the catalog serve them as one batch.
        const std::unique_ptr<catalog::ReadBatch> batch = m_rCatalog.beginReadBatch();
        buildFavorties(hDoc->getRootElement(), m_hRootFolder);
    }

    m_tLastModifiedTime = info.getLastModifiedTime(catalog::kInfoResolved);
    m_bIsDirty = false;
    return catalog::kSuccess;
}

void FavoritesManager::buildFavorties(XmlElement* pElement, const Handle<FavoritesItem>& parent) {
    if (!pElement) return;
    for (XmlNode* pNode = pElement->getFirstChild(); pNode; pNode = pNode->getNextSibling()) {
        XmlElement* pChild = xml_cast_element(pNode);
        if (!pChild) continue;  // text, whitespace, comments
        // The element's tag name is never examined: its attributes decide.
        catalog::ItemName name(pChild->unchecked_getAttributeValue(ksNameAttr, XmlElement::kNotRequired),
                               catalog::ItemName::kNone);
        // Straight from the document's UTF-8: most paths are ASCII and need no wide copy.
        const catalog::Path catalogPath = catalog::Path::fromUtf8(pChild->getAttributeValueUtf8(ksCatalogPathAttr));
        const String type = pChild->unchecked_getAttributeValue(ksTypeAttr, XmlElement::kNotRequired);
        const catalog::Path parentPath = parent->getPath();

        if (posixstrsupport::wcsicmp(type.c_str(), ksCategory.c_str()) == 0) {
            catalog::ItemName folderName(pChild->unchecked_getAttributeValue(ksNameAttr, XmlElement::kNotRequired),
                                         catalog::ItemName::kNone);
            Handle<FavoritesItem> hFolder(new (KIV_MEMTAG(kSrc, 861)) FavoriteFolder(parentPath, folderName));
            // A refused duplicate category is still descended into: its
            // children are built onto the unattached folder and lost with it,
            // while their catalog paths still enter the index.
            parent->addChild(hFolder);
            buildFavorties(pChild, hFolder);
        } else if (posixstrsupport::wcsicmp(type.c_str(), ksCatalogItem.c_str()) == 0) {
            catalog::ItemInfo info;
            if (m_rCatalog.getItemInfo(m_user, catalogPath, info, false, true) == catalog::kSuccess) {
                Handle<FavoritesItem> hItem(new (KIV_MEMTAG(kSrc, 873)) FavoriteCatalogItem(parentPath, catalogPath));
                parent->addChild(hItem);  // a duplicate is dropped silently
                insertCatalogPathInMap(catalogPath);
            }
            // Otherwise the object is gone or not visible to the user: the
            // favorite is skipped and drops out of storage at the next save.
        }
        // Any other type, also none: the element and its subtree are ignored.
    }
}

favorites::ReturnCode FavoritesManager::getFavorites(FavoritesItems& favoritesItems, const String& categoryPath,
                                                     String filterName) {
    try {
        if (!isFavoritesInSync()) loadFavorites();
    } catch (const Exception&) {
        // Serve the tree as it stands.
    }
    catalog::CatalogObjectFilter filter(m_rCatalog, m_user, filterName);
    const NonOwningPtr<catalog::CatalogObjectFilter> pFilter(&filter);
    if (categoryPath.empty()) {
        m_hRootFolder->getChildren(favoritesItems, pFilter);
        return favorites::kSuccess;
    }
    const catalog::Path path(categoryPath);
    FavoritesItems found;
    if (!findPathImpl(path, m_hRootFolder, found, favorites::kCategory) || found.empty())
        return favorites::kErrorItemDoesNotExitsInCatalog;
    found.front()->getChildren(favoritesItems, pFilter);
    return favorites::kSuccess;
}

// ---------------------------------------------------------------------------
// Catalog path index

bool FavoritesManager::isFavorite(const catalog::Path& path) const { return m_catalogItemsPath.has(path); }

// Two separate locked steps on purpose: between them another thread may
// change the same key, and the second step then overwrites without looking
// at the count again. Single-threaded counting is exact.
void FavoritesManager::insertCatalogPathInMap(catalog::Path path) {
    unsigned value = 0;
    if (!m_catalogItemsPath.get_and_update(path, value, UpdateCatalogItemsCount())) m_catalogItemsPath.set(path, 1);
}

void FavoritesManager::removeCatalogPathFromMap(catalog::Path path) {
    unsigned newCount = 0;
    if (m_catalogItemsPath.get_and_update(path, newCount, DecrementCatalogItemsCount()) && newCount == 0)
        m_catalogItemsPath.erase(path);
}

// ---------------------------------------------------------------------------
// Lookups

bool FavoritesManager::findPathImpl(const catalog::Path& path, const Handle<FavoritesItem>& startingItem,
                                    FavoritesItems& itemsfound, favorites::EItemType typeToFind) {
    const catalog::EPathRelationship rel = startingItem->getPath().relationship(path);
    if (rel == catalog::kSamePath && startingItem->getType() == typeToFind) {
        itemsfound.push_back(startingItem);
        return true;
    }
    // An item at the very path but of the other type ends this branch.
    if (rel != catalog::kAncestorOf) return false;
    if (!startingItem->canHaveChild()) return false;
    FavoritesItems children;
    startingItem->getChildren(children, NonOwningPtr<catalog::CatalogObjectFilter>());
    bool bFound = false;
    for (const Handle<FavoritesItem>& child : children) {
        if (!bFound) bFound = findPathImpl(path, child, itemsfound, typeToFind);
    }
    return bFound;
}

FavoritesItems FavoritesManager::findParentsForPath(catalog::Path path) {
    FavoritesItems result;
    findPathImpl(path.getParentPath(), m_hRootFolder, result, favorites::kCategory);
    return result;
}

Handle<FavoritesItem> FavoritesManager::findCategory(const catalog::Path& rPath) {
    FavoritesItems vItems;
    if (findPathImpl(rPath, m_hRootFolder, vItems, favorites::kCategory)) {
        KIV_ASSERT_SEV(!vItems.empty(), 5, kSrc, 802);
        if (!vItems.empty()) return vItems.front();
    }
    return Handle<FavoritesItem>();
}

bool FavoritesManager::hasFavoritesItem(const catalog::Path& path, favorites::EItemType typeToFind) {
    FavoritesItems local;
    return findPathImpl(path, m_hRootFolder, local, typeToFind) && !local.empty();
}

bool FavoritesManager::findFavoritesItemsByCatalogPath(const catalog::Path& path, FavoritesItems& itemsfound,
                                                       const Handle<FavoritesItem>& startingItem) {
    if (!startingItem->canHaveChild()) {
        if (startingItem->getCatalogPath() == path) {
            itemsfound.push_back(startingItem);
            return true;
        }
        return false;
    }
    FavoritesItems children;
    startingItem->getChildren(children, NonOwningPtr<catalog::CatalogObjectFilter>());
    bool bFound = false;
    for (const Handle<FavoritesItem>& child : children) {
        if (findFavoritesItemsByCatalogPath(path, itemsfound, child)) bFound = true;
    }
    return bFound;
}

bool FavoritesManager::findFavoritesItemsByCatalogPath(const catalog::Path& path, FavoritesItems& itemsfound) {
    return findFavoritesItemsByCatalogPath(path, itemsfound, m_hRootFolder);
}

// ---------------------------------------------------------------------------
// Creation and validation

favorites::ReturnCode FavoritesManager::createFolder(catalog::ItemName name, Handle<FavoritesItem>& favItem,
                                                     catalog::Path parentPath) {
    // A throwing constructor frees the block with the same tag.
    FavoritesItem* pItem = new (KIV_MEMTAG(kSrc, 750)) FavoriteFolder(parentPath, name);
    if (favItem.get() != pItem) favItem.reset(pItem);
    return favorites::kSuccess;
}

favorites::ReturnCode FavoritesManager::createFavoritesCatalogItem(catalog::Path catlogPath,
                                                                   Handle<FavoritesItem>& favItem,
                                                                   catalog::Path parentPath) {
    FavoritesItem* pItem = new (KIV_MEMTAG(kSrc, 756)) FavoriteCatalogItem(parentPath, catlogPath);
    if (favItem.get() != pItem) favItem.reset(pItem);
    return favorites::kSuccess;
}

favorites::ReturnCode FavoritesManager::createFavoriteItem(const String& sPath, const String& sCategoryPath,
                                                           const String& sCategoryName,
                                                           const favorites::EItemType& eType,
                                                           Handle<FavoritesItem>& favoriteItem) {
    catalog::Path tCategoryPath;
    const bool bValidCategoryPath = tCategoryPath.checkAndSetPath(sCategoryPath);
    // An invalid or empty category path is not an error: the item goes below
    // the root folder.
    const catalog::Path& parent = bValidCategoryPath ? tCategoryPath : m_rootFolderPath;
    if (eType == favorites::kCategory)
        return createFolder(catalog::ItemName(sCategoryName, catalog::ItemName::kNone), favoriteItem, parent);
    if (eType == favorites::kCatalogObject)
        return createFavoritesCatalogItem(catalog::Path(sPath), favoriteItem, parent);
    return favorites::kInvalidItem;
}

favorites::ReturnCode FavoritesManager::createFavoriteItem(const String& sPath, const String& sCategoryPath,
                                                           const String& sCategoryName, const String& sType,
                                                           Handle<FavoritesItem>& favoriteItem) {
    const favorites::EItemType eType = kmapFavoritesJSONTypes.getEnum(sType);
    return createFavoriteItem(sPath, sCategoryPath, sCategoryName, eType, favoriteItem);
}

favorites::ReturnCode FavoritesManager::createFavoriteCatalogObject(const String& sPath, const String& sCategoryPath,
                                                                    Handle<FavoritesItem>& favoriteItem) {
    return createFavoriteItem(sPath, sCategoryPath, s_ksBlank, favorites::kCatalogObject, favoriteItem);
}

favorites::ReturnCode FavoritesManager::createFavoriteCategory(const String& sCategoryPath,
                                                               const String& sCategoryName,
                                                               Handle<FavoritesItem>& favoriteItem) {
    return createFavoriteItem(s_ksBlank, sCategoryPath, sCategoryName, favorites::kCategory, favoriteItem);
}

bool FavoritesManager::composePathFromRawArguments(const String& sPath, const String& sPage, catalog::Path& rPath) {
    if (sPath.empty()) return false;
    catalog::Path tPath;
    if (!tPath.checkAndSetPath(sPath)) return false;
    if (!sPage.empty()) {
        if (catalog::ItemName::checkItemName(sPage, catalog::ItemName::kOnErrorReturn) != catalog::kItemNameValid)
            return false;
        tPath += catalog::ItemName(sPage, catalog::ItemName::kNone);
    }
    rPath = tPath;
    return true;
}

favorites::ReturnCode FavoritesManager::validateItem(const Handle<FavoritesItem>& favoriteItem) {
    if (!isCatalogItem(*favoriteItem)) return favorites::kSuccess;  // categories need no check
    catalog::ItemInfo info;
    const catalog::ReturnCode rc = m_rCatalog.getItemInfo(m_user, favoriteItem->getCatalogPath(), info, false, true);
    // A bad catalog item is reported only by the catalog's exception.
    catalog::errorCodeToException(rc, favoriteItem->getCatalogPath().toString(), s_ksBlank, s_ksBlank,
                                  KIV_FILE_LOCATION(kSrc, 360));
    return favorites::kSuccess;
}

// ---------------------------------------------------------------------------
// Edits

favorites::ReturnCode FavoritesManager::addItem(Handle<FavoritesItem>& favoriteItem) {
    if (!isFavoritesInSync()) {
        loadFavorites();
        return favorites::kErrorFavoritesOutOfSync;
    }
    favorites::ReturnCode eCode = validateItem(favoriteItem);
    if (eCode != favorites::kSuccess) return eCode;
    FavoritesItems parents = findParentsForPath(favoriteItem->getPath());
    if (parents.empty()) return favorites::kErrorInvalidFavoritesPath;
    eCode = parents.front()->addChild(favoriteItem);
    if (eCode == favorites::kSuccess) {
        m_bIsDirty = true;
        if (isCatalogItem(*favoriteItem)) insertCatalogPathInMap(favoriteItem->getCatalogPath());
        eCode = persist();
    }
    return eCode;
}

favorites::ReturnCode FavoritesManager::addItem(Handle<FavoritesItem>&, Handle<FavoritesItem>&) {
    return favorites::kSuccess;
}

favorites::ReturnCode FavoritesManager::deleteItem(const Handle<FavoritesItem>& favoriteItem, bool allLocations) {
    if (!isFavoritesInSync()) {
        loadFavorites();
        return favorites::kErrorFavoritesOutOfSync;
    }
    if (!isCatalogItem(*favoriteItem)) {
        FavoritesItems parents = findParentsForPath(favoriteItem->getPath());
        if (parents.empty()) return favorites::kErrorInvalidFavoritesPath;
        Handle<FavoritesItem> parent;
        Handle<FavoritesItem> child;
        for (const Handle<FavoritesItem>& candidate : parents) {
            FavoritesItems children;
            candidate->getChildren(children, NonOwningPtr<catalog::CatalogObjectFilter>());
            for (const Handle<FavoritesItem>& c : children) {
                if (*c == *favoriteItem) {
                    child = c;
                    break;
                }
            }
            if (!child.isNull()) {
                parent = candidate;
                break;
            }
        }
        if (parent.isNull()) return favorites::kErrorItemNotFound;
        CatalogItemVistor visitor;
        child->accept(visitor, true, false);
        const favorites::ReturnCode eCode = parent->removeChild(favoriteItem);
        if (eCode == favorites::kSuccess) {
            for (const catalog::Path& p : visitor.m_catalogItemsPath) removeCatalogPathFromMap(p);
            m_bIsDirty = true;
        }
        // A failed removal is not reported: the tree is written back as it
        // is and the write's code answers.
        return persist();
    }
    catalog::Path catalogPath = favoriteItem->getCatalogPath();
    Handle<FavoritesItem> start =
        allLocations ? m_hRootFolder : findCategory(favoriteItem->getPath().getParentPath());
    if (deleteCatalogItems(start, catalogPath, allLocations)) {
        m_bIsDirty = true;
        return persist();
    }
    return favorites::kErrorItemNotFound;
}

bool FavoritesManager::deleteCatalogItems(Handle<FavoritesItem>& startingItem, catalog::Path& catalogPath,
                                          bool bRecursive) {
    if (!startingItem->canHaveChild()) return false;
    FavoritesItems children;  // a copy: removals below do not disturb the walk
    startingItem->getChildren(children, NonOwningPtr<catalog::CatalogObjectFilter>());
    bool bFound = false;
    for (Handle<FavoritesItem>& child : children) {
        if (child.get() && isCatalogItem(*child)) {
            if (child->getCatalogPath() == catalogPath) {
                Handle<FavoritesItem> hNewItem(new (KIV_MEMTAG(kSrc, 782))
                                                   FavoriteCatalogItem(startingItem->getPath(), catalogPath));
                startingItem->removeChild(hNewItem);
                removeCatalogPathFromMap(catalogPath);
                bFound = true;
            }
        } else if (bRecursive) {
            if (deleteCatalogItems(child, catalogPath, true)) bFound = true;
        }
    }
    return bFound;
}

// ---------------------------------------------------------------------------
// Storage

bool FavoritesManager::isFavoritesInSync() {
    catalog::ItemInfo info;
    // An object that cannot be inspected never blocks an edit or a save.
    if (m_rCatalog.getItemInfo(m_user, m_path, info, false, true) != catalog::kSuccess) return true;
    return info.getLastModifiedTime(catalog::kInfoResolved) == m_tLastModifiedTime;
}

void FavoritesManager::createFavoritesDefaultXml(Handle<XmlDocument>& document) {
    XmlElement* pRoot = document->createXmlElement(XmlQualifiedName(ksFavoritesList, kFavoritesNamespace));
    document->setRootElement(pRoot, XmlDocument::kSplice);
}

catalog::ReturnCode FavoritesManager::persistFavoritesXml(const Handle<XmlDocument>& document) {
    const Handle<XmlDocument> hHeld(document);  // our own reference for the duration
    catalog::XmlWriter<FavoriteDataCatalogObject> writer(hHeld);
    return m_rCatalog.writeObject(m_user, m_path, writer, catalog::tDefaultReplaceHelper);
}

favorites::ReturnCode FavoritesManager::persist() {
    if (!m_bIsDirty) return favorites::kSuccess;
    if (!isFavoritesInSync()) return favorites::kErrorFavoritesOutOfSync;  // stays dirty

    Handle<XmlDocument> hDoc(new (KIV_MEMTAG(kSrc, 985)) XmlDocument());
    createFavoritesDefaultXml(hDoc);
    {
        FavoritesXmlbuilderVistor builder(hDoc->getRootElement());
        FavoritesItems children;
        m_hRootFolder->getChildren(children, NonOwningPtr<catalog::CatalogObjectFilter>());
        // The root folder itself is not written.
        for (const Handle<FavoritesItem>& child : children) child->accept(builder, true, false);
    }
    const catalog::ReturnCode rc = persistFavoritesXml(hDoc);
    if (rc != catalog::kSuccess) {
        // Bring the tree back in line with what the catalog holds (the unsaved
        // edit is dropped), then report the catalog's failure.
        loadFavorites();
        catalog::errorCodeToException(rc, m_path.toString(), s_ksBlank, s_ksBlank, KIV_FILE_LOCATION(kSrc, 1003));
    }
    catalog::ItemInfo info;
    if (m_rCatalog.getItemInfo(m_user, m_path, info, false, true) == catalog::kSuccess) {
        m_tLastModifiedTime = info.getLastModifiedTime(catalog::kInfoResolved);
        m_bIsDirty = false;
    }
    return favorites::kSuccess;
}

// ---------------------------------------------------------------------------
// Client input: JSON

favorites::ReturnCode FavoritesManager::createFavoriteFromJson(const String& sJsonItemInfo,
                                                               Handle<FavoritesItem>& favoriteItem) {
    GDExpressionEvaluator evaluator;
    GDVariant value;
    if (!evaluator.evaluateExpression(sJsonItemInfo, sJsonItemInfo.length(), value, GDExpressionEvaluator::kJsonLiteral))
        return favorites::kErrorInvalidFavoritesJson;
    const auto* pBag = objectView(resolvedValue(value));
    if (!pBag) return favorites::kErrorInvalidFavoritesJson;
    GDContext& ctx = evaluator.getContext();

    String sType;
    if (!readPropertyText(*pBag, ctx, kkeyType, sType)) return favorites::kErrorInvalidFavoritesJson;
    const favorites::EItemType eType = kmapFavoritesJSONTypes.getEnum(sType);

    String sParentPath;
    if (!readPropertyText(*pBag, ctx, kkeyFavoritesParentPath, sParentPath)) return favorites::kErrorInvalidFavoritesJson;
    catalog::Path tParentPath;
    const catalog::Path& parent = tParentPath.checkAndSetPath(sParentPath) ? tParentPath : m_rootFolderPath;

    if (eType == favorites::kCategory) {
        // A category made from one item is named by its "type" text ("1"),
        // not by "name": kept so for the clients that rely on it.
        String sName;
        if (!readPropertyText(*pBag, ctx, kkeyType, sName)) return favorites::kErrorInvalidFavoritesJson;
        return createFolder(catalog::ItemName(sName, catalog::ItemName::kNone), favoriteItem, parent);
    }
    if (eType == favorites::kCatalogObject) {
        String sPath;
        if (!readPropertyText(*pBag, ctx, kkeyPath, sPath)) return favorites::kErrorInvalidFavoritesJson;
        return createFavoritesCatalogItem(catalog::Path(sPath), favoriteItem, parent);
    }
    return favorites::kErrorInvalidFavoritesJson;
}

favorites::ReturnCode FavoritesManager::createFavoritesFromJson(const String& sJsonFavoritesInfo,
                                                                Handle<FavoritesItem>& parentFavorite) {
    GDExpressionEvaluator evaluator;
    return createFavoritesFromJson(sJsonFavoritesInfo, parentFavorite, evaluator);
}

favorites::ReturnCode FavoritesManager::createFavoritesFromJson(const String& sJsonFavoritesInfo,
                                                                Handle<FavoritesItem>& parentFavorite,
                                                                GDExpressionEvaluator& evaluator) {
    GDVariant value;
    // Text that is not a JSON array adds nothing and is not an error: the
    // caller keeps whatever it cleared beforehand.
    if (!evaluator.evaluateExpression(sJsonFavoritesInfo, sJsonFavoritesInfo.length(), value,
                                      GDExpressionEvaluator::kJsonLiteral))
        return favorites::kSuccess;
    const auto* pArray = arrayView(resolvedValue(value));
    if (!pArray) return favorites::kSuccess;
    GDContext& ctx = evaluator.getContext();

    for (std::size_t i = 0; i < pArray->getCount(); ++i) {
        GDVariant element;
        if (!pArray->getElement(i, element)) continue;
        const auto* pBag = objectView(resolvedValue(element));
        if (!pBag) continue;

        String sType;
        if (!readPropertyText(*pBag, ctx, kkeyType, sType)) return favorites::kErrorInvalidFavoritesJson;
        const favorites::EItemType eType = kmapFavoritesJSONTypes.getEnum(sType);

        Handle<FavoritesItem> item;
        if (eType == favorites::kCatalogObject) {
            String sPath;  // a missing "path" reads as empty text
            readPropertyText(*pBag, ctx, kkeyPath, sPath);
            const catalog::Path catalogPath(sPath);
            if (createFavoritesCatalogItem(catalogPath, item, parentFavorite->getPath()) != favorites::kSuccess)
                return favorites::kErrorInvalidFavoritesJson;
            const favorites::ReturnCode eCode = parentFavorite->addChild(item);
            if (eCode != favorites::kSuccess) return eCode;  // a stop keeps what was added
            insertCatalogPathInMap(catalogPath);
        } else if (eType == favorites::kCategory) {
            String sName;  // a missing "name" reads as empty text
            readPropertyText(*pBag, ctx, kkeyName, sName);
            const favorites::ReturnCode eCode =
                createFolder(catalog::ItemName(sName, catalog::ItemName::kNone), item, parentFavorite->getPath());
            if (eCode != favorites::kSuccess) return eCode;
            parentFavorite->addChild(item);
            String sChildren;
            // Each level is read from the text form of its array; an error
            // inside a category does not stop its siblings.
            if (readPropertyText(*pBag, ctx, kkeyChildren, sChildren))
                createFavoritesFromJson(sChildren, item, evaluator);
        }
        // Any other type: the element is skipped.
    }
    return favorites::kSuccess;
}

favorites::ReturnCode FavoritesManager::updateAll(const String& sJsonFavoritesInfo) {
    // The rebuild reads each level of the tree from the text of its
    // "children" array; the evaluator's context (GDContext::Memo in gd.cpp)
    // hands back the values behind those texts instead of writing and
    // parsing every level again, which keeps this within 1.5 times a direct
    // build of the tree.
    // No sync check: the client's tree wins over the stored one.
    m_hRootFolder->removeChildren();
    m_catalogItemsPath.clear();
    const favorites::ReturnCode eCode = createFavoritesFromJson(sJsonFavoritesInfo, m_hRootFolder);
    if (eCode != favorites::kSuccess) return eCode;  // the partial tree stays in memory, unwritten
    m_bIsDirty = true;
    return persist();
}

// ---------------------------------------------------------------------------
// Client input: SOAP

favorites::ReturnCode FavoritesManager::createFavoritesFromSoap(std::vector<SoapParameter*> vecFavObjs,
                                                                Handle<FavoritesItem>& parentFavorite) {
    if (vecFavObjs.empty()) return favorites::kSuccess;
    for (std::size_t i = 0; i < vecFavObjs.size(); ++i) {
        Handle<FavoritesItem> favoriteItem;
        try {
            const SoapParameter* parObject = vecFavObjs[i];
            if (!parObject) continue;  // nothing to read: left out like any bad item
            SoapParametersIterator itFavItemObj = parObject->begin();
            const String sName = readSoapString(*parObject, ksNameArg, itFavItemObj);
            ++itFavItemObj;
            const String sPath = readSoapString(*parObject, ksCatalogPathArg, itFavItemObj);  // read, not used
            ++itFavItemObj;
            const std::uint16_t nType = readSoapUnsignedShort(*parObject, ksTypeArg, itFavItemObj);
            ++itFavItemObj;
            (void)sPath;

            if (nType != 0) {
                // Any non-zero type is a category.
                const favorites::ReturnCode eCode = createFolder(catalog::ItemName(sName, catalog::ItemName::kNone),
                                                                 favoriteItem, parentFavorite->getPath());
                if (eCode != favorites::kSuccess) return eCode;  // stops the whole build
                // A refused category is not an error; its sub-items are still
                // built below the unattached folder.
                parentFavorite->addChild(favoriteItem);
                parObject->getChildParam(strFavoriteItem, itFavItemObj, false, false);
                std::vector<SoapParameter*> vecSubFavObjs;
                for (SoapParametersIterator it = itFavItemObj; !(it == parObject->end()); ++it) {
                    SoapParameter* pChild = parObject->getChildParam(it);
                    if (!pChild || pChild->getName() != strFavoriteItem) break;
                    vecSubFavObjs.push_back(pChild);
                }
                createFavoritesFromSoap(vecSubFavObjs, favoriteItem);  // failures below do not count here
            } else {
                const String sCatalogPath = readSoapString(*parObject, strCatalogPath, itFavItemObj);
                const catalog::Path catalogPath(sCatalogPath);
                // Taken as given: the catalog is not asked whether it exists.
                if (createFavoritesCatalogItem(catalogPath, favoriteItem, parentFavorite->getPath()) !=
                    favorites::kSuccess)
                    continue;  // skipped, unlike a category, which stops the build
                const favorites::ReturnCode eCode = parentFavorite->addChild(favoriteItem);
                if (eCode != favorites::kSuccess) return eCode;
                insertCatalogPathInMap(catalogPath);
            }
        } catch (const Exception&) {
            // A bad item is left out with everything below it.
        }
    }
    return favorites::kSuccess;
}

favorites::ReturnCode FavoritesManager::updateAll(std::vector<SoapParameter*> vecFavObjs) {
    m_hRootFolder->removeChildren();
    m_catalogItemsPath.clear();
    const favorites::ReturnCode eCode = createFavoritesFromSoap(vecFavObjs, m_hRootFolder);
    if (eCode != favorites::kSuccess) return eCode;  // the stored tree stays as it was
    m_bIsDirty = true;
    return persist();
}

// ---------------------------------------------------------------------------
// Codes, messages and exceptions

GDVariant FavoritesManager::errorCodeToMessage(favorites::ReturnCode eCode, String sArg1) {
    const ExternalMessage* pMessage = nullptr;
    bool bInsert = false;
    switch (eCode) {
        case favorites::kErrorItemAlreadyExists: pMessage = &kmsgFavoritesErrorItemAlreadyExists; bInsert = true; break;
        case favorites::kInvalidItem: pMessage = &kmsgFavoritesErrorInvalidItem; break;
        case favorites::kErrorFavoritesOutOfSync: pMessage = &kmsgFavoritesErrorFavoritesOutOfSync; break;
        case favorites::kErrorItemCannotHaveChild: pMessage = &kmsgFavoritesErrorItemCannotHaveChild; bInsert = true; break;
        // Codes 5 and 6 share one message by design.
        case favorites::kErrorItemNotFound:
        case favorites::kErrorItemDoesNotExitsInCatalog:
            pMessage = &kmsgFavoritesErrorItemDoesNotExitsInCatalog;
            bInsert = true;
            break;
        case favorites::kErrorInvalidFavoritesPath: pMessage = &kmsgFavoritesErrorInvalidFavoritesPath; bInsert = true; break;
        case favorites::kErrorInvalidFavoritesJson: pMessage = &kmsgFavoritesErrorInvalidFavoritesJson; break;
        default: pMessage = &kmsgFavoritesErrorUnknownError; break;  // 1, 8 and unknown values
    }
    if (!bInsert) return GDVariant(std::make_shared<const ExternalMessage>(*pMessage));
    auto pParam = std::make_shared<ParamMessage>(*pMessage);
    pParam->setParam(1, GDVariant(sArg1));
    return GDVariant(std::shared_ptr<const Message>(std::move(pParam)));
}

void FavoritesManager::errorCodeToException(favorites::ReturnCode eCode, const Logger::FileLocation& fl, String sArg1) {
    if (eCode == favorites::kSuccess) return;
    FavoritesException e(errorCodeToMessage(eCode, std::move(sArg1)), eCode);
    Logger::getLogger().logException(e, fl);
    throw e;
}

// ---------------------------------------------------------------------------
// The one-time upgrade of the old mobile client's favorites

catalog::ReturnCode FavoritesManager::checkAndUpgradeMobileFavorites() {
    std::optional<ScopedLogSource> pushedSource;
    try {
        if (s_logSrcUpgrade.exists()) pushedSource.emplace(s_logSrcUpgrade);
    } catch (const Exception&) {
        // Run without the pushed source.
    }

    // The old object lives in the same folder as the favorites object.
    const catalog::Path tMbFavPath = m_path.getParentPath() + ksMobileFavoriteName;
    catalog::ItemInfo tMbFavII;
    catalog::ReturnCode eCode = m_rCatalog.getItemInfo(m_user, tMbFavPath, tMbFavII, false, true);
    if (eCode != catalog::kSuccess) return eCode;  // the usual case: nothing to upgrade

    try {
        Handle<XmlDocument> xmlDoc(new (KIV_MEMTAG(kSrc, 959)) XmlDocument());
        catalog::XmlReader<MobileFavoriteUpgradeData> tReader(xmlDoc);
        // The read's code is not tested: a read that fails without an
        // exception leaves the empty document, whose missing root raises below
        // and keeps the old object for a later try.
        m_rCatalog.readObject(m_user, tMbFavPath, tReader, tMbFavII, 0);
        XmlElement* favoriteList = xmlDoc->getRootElementRef().selectSingleElement(kpfFavoriteList);
        if (favoriteList && favoriteList->countChildNodes() != 0) {
            Handle<FavoritesItem> smartPhoneCat;
            const catalog::Path path(ksOldMobileClientFixedCategory);
            FavoritesItems items;
            findPathImpl(path, m_hRootFolder, items, favorites::kCategory);
            if (items.empty()) {
                createFolder(path.getItemName(), smartPhoneCat, m_rootFolderPath);
                addItem(smartPhoneCat);
            } else {
                smartPhoneCat = items.front();
            }
            Logger& logger = Logger::getLogger();
            for (XmlElement* rElemChild = favoriteList->getFirstChildElement(); rElemChild;
                 rElemChild = rElemChild->getNextSiblingElement()) {
                const String sFavPath = rElemChild->getAttributeValue(ksPath, XmlElement::kNotRequired);
                catalog::Path tFavPath;
                if (!tFavPath.checkAndSetPath(sFavPath)) {
                    if (logger.isEnabled(kSevError))
                        logger.log(kSevError,
                                   GDVariant(L"Skipping upgrade of old mobile favorite '%1'. The catalog path is invalid."),
                                   {GDVariant(sFavPath)}, KIV_FILE_LOCATION(kSrc, 996));
                    continue;
                }
                const String sPage = rElemChild->getAttributeValue(ksPage, XmlElement::kNotRequired);
                if (!sPage.empty()) {
                    if (catalog::ItemName::checkItemName(sPage, catalog::ItemName::kOnErrorReturn) !=
                        catalog::kItemNameValid) {
                        if (logger.isEnabled(kSevError))
                            logger.log(kSevError,
                                       GDVariant(L"Skipping upgrade of old mobile favorite '%1' with page '%2'. The "
                                                 L"page name is invalid."),
                                       {GDVariant(sFavPath), GDVariant(sPage)}, KIV_FILE_LOCATION(kSrc, 1008));
                        continue;
                    }
                    tFavPath += catalog::ItemName(sPage, catalog::ItemName::kNone);
                }
                catalog::ItemInfo itemInfo;
                if (m_rCatalog.getItemInfo(m_user, tFavPath, itemInfo, false, true) != catalog::kSuccess)
                    continue;  // gone or not readable: skipped silently
                if (itemInfo.getItemType(catalog::kInfoResolved) == catalog::kFolder &&
                    itemInfo.getItemProperty(ksCompositeSignature, s_ksBlank, catalog::kInfoResolved) ==
                        ksDashboardFolderSignature) {
                    if (logger.isEnabled(kSevError))
                        logger.log(kSevError,
                                   GDVariant(L"Skipping upgrade of old mobile favorite '%1'. No dashboard page was "
                                             L"specified."),
                                   {GDVariant(sFavPath)}, KIV_FILE_LOCATION(kSrc, 1029));
                    continue;
                }
                // An entry that cannot be added (an equal favorite already in
                // the category, say) is dropped without a message.
                Handle<FavoritesItem> item;
                createFavoritesCatalogItem(tFavPath, item, path);
                addItem(item);
            }
        }
        // Deleted also when the list was missing or empty, or every entry was
        // skipped: the upgrade is done once.
        eCode = m_rCatalog.deleteObject(m_user, tMbFavPath);
        return eCode;
    } catch (const Exception&) {
        return catalog::kErrorOther;  // the old object stays for the next try
    }
}

}  // namespace kiv
