#include "favoritesopen.h"

#include "qz/platform/gd.h"
#include "qz/webcatalog/itemname.h"

namespace kiv::host {

namespace {

[[noreturn]] void raise(catalog::ReturnCode rc, const catalog::Path& path) {
    throw catalog::CatalogException(rc, path.toString());
}

}  // namespace

catalog::Path defaultFavoritesPath(const String& user) {
    return catalog::Path(String(L"/users")) + catalog::ItemName(user, catalog::ItemName::kNone) +
           catalog::ItemName(String(L"favorites"), catalog::ItemName::kNone);
}

Handle<FavoritesManager> openFavoritesManager(catalog::Catalog& catalog, const AccountToken& user,
                                              const catalog::Path& favoritesPath, catalog::ManagedCatalog* locks) {
    catalog::ItemInfo info;
    catalog::ReturnCode rc = catalog.getItemInfo(user, favoritesPath, info, false, false);
    if (rc != catalog::kSuccess && rc != catalog::kErrorPathNotFound) raise(rc, favoritesPath);

    std::unique_ptr<catalog::WriteLock> lock;
    if (locks) {
        // The manager keeps the old mobile object's name to itself; it is
        // "mobile-favoritelist" beside the favorites object.
        const catalog::Path mobile =
            favoritesPath.getParentPath() + catalog::ItemName(String(L"mobile-favoritelist"), catalog::ItemName::kNone);
        catalog::ItemInfo mobileInfo;
        if (rc == catalog::kErrorPathNotFound || catalog.getItemInfo(user, mobile, mobileInfo, true, false) == catalog::kSuccess)
            lock = locks->lockForWriting(favoritesPath);
    }
    Handle<FavoritesManager> manager(new FavoritesManager(catalog, user, favoritesPath));
    lock.reset();

    rc = catalog.getItemInfo(user, favoritesPath, info, false, false);
    if (rc == catalog::kSuccess) return manager;
    if (rc != catalog::kErrorPathNotFound) raise(rc, favoritesPath);
    // The manager could not store a new favorites object: name the reason.
    const catalog::Path parent = favoritesPath.getParentPath();
    const catalog::ReturnCode parentRc = catalog.getItemInfo(user, parent, info, false, false);
    if (parentRc != catalog::kSuccess) raise(parentRc, parent);
    if (!(info.getItemType(catalog::kInfoResolved) & catalog::kFolder)) raise(catalog::kErrorFolderExpected, parent);
    raise(catalog::kErrorAccessDenied, favoritesPath);
}

bool isJsonArray(const String& text) {
    GDExpressionEvaluator evaluator;
    GDVariant value;
    if (!evaluator.evaluateExpression(text, text.size(), value, GDExpressionEvaluator::kJsonLiteral)) return false;
    GDValue* v = value.getValue();
    if (v) v = v->resolveReferences();
    return v && dynamic_cast<IGDRandomAccessContainer*>(v) != nullptr;
}

}  // namespace kiv::host
