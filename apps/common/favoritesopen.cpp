#include "favoritesopen.h"

#include <algorithm>
#include <cstdint>

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

namespace {

// The UTF-8 length of `text`, stopping once past `limit`.
std::size_t utf8LengthUpTo(const String& text, std::size_t limit) {
    std::size_t bytes = 0;
    for (const wchar_t c : text) {
        const auto u = static_cast<std::uint32_t>(c);
        bytes += u < 0x80 ? 1 : u < 0x800 ? 2 : u < 0x10000 ? 3 : 4;
        if (bytes > limit) break;
    }
    return bytes;
}

// The deepest nesting of arrays and objects, brackets inside strings not
// counted. Only asked about text the JSON reader refused, to name the cause.
std::size_t nestingDepth(const String& text) {
    std::size_t depth = 0, deepest = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const wchar_t c = text[i];
        if (inString) {
            if (c == L'\\') ++i;
            else if (c == L'"') inString = false;
        } else if (c == L'"') {
            inString = true;
        } else if (c == L'[' || c == L'{') {
            deepest = std::max(deepest, ++depth);
        } else if ((c == L']' || c == L'}') && depth > 0) {
            --depth;
        }
    }
    return deepest;
}

}  // namespace

JsonReplacementProblem jsonReplacementProblem(const String& text) {
    if (utf8LengthUpTo(text, GDExpressionEvaluator::kMaxTextBytes) > GDExpressionEvaluator::kMaxTextBytes)
        return JsonReplacementProblem::kTooLarge;
    GDExpressionEvaluator evaluator;
    GDVariant value;
    if (!evaluator.evaluateExpression(text, text.size(), value, GDExpressionEvaluator::kJsonLiteral))
        return nestingDepth(text) > GDExpressionEvaluator::kMaxDepth ? JsonReplacementProblem::kTooDeep
                                                                     : JsonReplacementProblem::kNotJson;
    GDValue* v = value.getValue();
    if (v) v = v->resolveReferences();
    return v && arrayView(v) ? JsonReplacementProblem::kNone : JsonReplacementProblem::kNotArray;
}

std::string describe(JsonReplacementProblem problem) {
    switch (problem) {
        case JsonReplacementProblem::kNone: return "a JSON array of favorites items";
        case JsonReplacementProblem::kTooLarge:
            return "larger than " + std::to_string(GDExpressionEvaluator::kMaxTextBytes / (1024 * 1024)) +
                   " MiB of UTF-8, the most the JSON reader takes";
        case JsonReplacementProblem::kTooDeep:
            return "nested deeper than " + std::to_string(GDExpressionEvaluator::kMaxDepth) +
                   " levels of arrays and objects, the most the JSON reader takes";
        case JsonReplacementProblem::kNotJson: return "not JSON text";
        case JsonReplacementProblem::kNotArray: return "not a JSON array of favorites items";
    }
    return {};
}

}  // namespace kiv::host
