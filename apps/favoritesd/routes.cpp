#include "routes.h"

#include <simdjson.h>

#include <charconv>
#include <cstdio>
#include <ctime>

#include "accesslog.h"
#include "errors.h"
#include "favoritesdocument.h"
#include "favoritesopen.h"
#include "hosterrors.h"
#include "items.h"
#include "jsonwriter.h"
#include "qz/webcatalog/catalog.h"
#include "qz/webcatalog/iteminfo.h"
#include "textinput.h"

namespace kiv::server {

using host::JsonWriter;
using host::checkFavorites;

// --- query strings -------------------------------------------------------------

namespace {

int hexValue(char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::optional<std::string> percentDecode(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '+') {
            out += ' ';
        } else if (c == '%') {
            if (i + 2 >= text.size()) return std::nullopt;
            const int hi = hexValue(text[i + 1]), lo = hexValue(text[i + 2]);
            if (hi < 0 || lo < 0) return std::nullopt;
            out += static_cast<char>(hi * 16 + lo);
            i += 2;
        } else {
            out += c;
        }
    }
    return out;
}

Query::Query(std::string_view raw) {
    while (!raw.empty()) {
        const std::size_t amp = raw.find('&');
        const std::string_view pair = raw.substr(0, amp);
        if (!pair.empty()) {
            const std::size_t eq = pair.find('=');
            auto name = percentDecode(pair.substr(0, eq));
            auto value = eq == std::string_view::npos ? std::optional<std::string>("") : percentDecode(pair.substr(eq + 1));
            if (!name || !value) throw ApiError(400, "badRequest", "malformed percent-encoding in the query string");
            m_params.emplace_back(std::move(*name), std::move(*value));
        }
        if (amp == std::string_view::npos) break;
        raw.remove_prefix(amp + 1);
    }
}

std::optional<std::string> Query::get(std::string_view name) const {
    for (const auto& [n, v] : m_params)
        if (n == name) return v;
    return std::nullopt;
}

// --- helpers -------------------------------------------------------------------

namespace {

std::string u8(const String& s) { return s.toUtf8(); }

// An edit the library answered with kErrorFavoritesOutOfSync has already
// reloaded the tree: it is tried once more on the reloaded tree.
template <class Edit>
favorites::ReturnCode withOneRetry(Edit&& edit) {
    favorites::ReturnCode rc = edit();
    if (rc == favorites::kErrorFavoritesOutOfSync) rc = edit();
    return rc;
}

// Reloads the tree when another writer changed the stored copy, so that
// answers drawn from the index alone (isFavorite) see that change too.
void reloadIfChanged(FavoritesManager& manager) {
    if (manager.isFavoritesInSync()) return;
    FavoritesItems items;
    manager.getFavorites(items, String(), String());
}

HttpResponse json(int status, std::string body) {
    HttpResponse r;
    r.status = status;
    r.body = std::move(body);
    return r;
}

HttpResponse result(int status, const std::function<void(JsonWriter&)>& extra = {}) {
    JsonWriter w;
    w.beginObject().member("result", favorites::returnCodeName(favorites::kSuccess));
    if (extra) extra(w);
    w.endObject();
    return json(status, w.str());
}

String parameterText(const Call& call, std::string_view name) {
    return host::argumentText(call.query.getOr(name, ""), "the parameter '" + std::string(name) + "'");
}

catalog::Path categoryParameter(const Call& call, std::string_view name) {
    return host::categoryArgument(call.query.getOr(name, ""), "the parameter '" + std::string(name) + "'");
}

// The body parsed as a JSON object; ApiError 400 otherwise.
simdjson::dom::object bodyObject(const Call& call, simdjson::dom::parser& parser) {
    simdjson::dom::element doc;
    if (parser.parse(call.request.body).get(doc) != simdjson::SUCCESS)
        throw ApiError(400, "badRequest", "the request body is not valid JSON (or not UTF-8)");
    simdjson::dom::object object;
    if (doc.get(object) != simdjson::SUCCESS) throw ApiError(400, "badRequest", "the request body is not a JSON object");
    return object;
}

// A string member; nullopt when absent; ApiError 400 when not a string.
std::optional<std::string> stringMember(simdjson::dom::object object, const char* name) {
    simdjson::dom::element e;
    if (object.at_key(name).get(e) != simdjson::SUCCESS) return std::nullopt;
    if (e.is_null()) return std::nullopt;
    std::string_view s;
    if (e.get(s) != simdjson::SUCCESS)
        throw ApiError(400, "badRequest", std::string("'") + name + "' must be a string");
    return std::string(s);
}

FavoritesItems topLevelItems(FavoritesManager& manager) {
    FavoritesItems items;
    checkFavorites(manager.getFavorites(items, String(), String()),
                   FavoritesManager::getRootFolderPath().toString());
    return items;
}

void countItems(const FavoritesItems& items, int& categories, int& objects) {
    for (const Handle<FavoritesItem>& item : items) {
        if (host::isCategory(*item)) {
            ++categories;
            countItems(host::childrenOf(item), categories, objects);
        } else {
            ++objects;
        }
    }
}

}  // namespace

// --- favorites -------------------------------------------------------------------

HttpResponse getFavoritesTree(Call& call) {
    const FavoritesItems items = topLevelItems(call.manager);
    JsonWriter w;
    w.beginObject().member("user", call.slot.name()).member("favoritesPath", call.manager.getFavoritesPath().toString());
    w.key("items").beginArray();
    for (const Handle<FavoritesItem>& item : items) host::writeItemJson(w, item, true);
    w.endArray().endObject();
    return json(200, w.str());
}

HttpResponse getFavoritesChildren(Call& call) {
    const catalog::Path category = categoryParameter(call, "category");
    const String filter = parameterText(call, "filter");
    FavoritesItems items;
    checkFavorites(call.manager.getFavorites(items, category.toString(), filter), category.toString());
    JsonWriter w;
    w.beginObject().member("category", category.toString()).member("filter", filter);
    w.key("items").beginArray();
    for (const Handle<FavoritesItem>& item : items) host::writeItemJson(w, item, false);
    w.endArray().endObject();
    return json(200, w.str());
}

HttpResponse postFavoritesStatus(Call& call) {
    // The busiest route: each thread keeps its parser, so that a request does
    // not allocate the parser's buffers anew (they keep the size of the
    // largest status body the thread has read, at most --max-body).
    thread_local simdjson::dom::parser parser;
    const simdjson::dom::object body = bodyObject(call, parser);
    simdjson::dom::array paths;
    if (body.at_key("paths").get(paths) != simdjson::SUCCESS)
        throw ApiError(400, "badRequest", "'paths' must be an array of catalog paths");
    if (paths.size() == 0) throw ApiError(400, "badRequest", "'paths' must name at least one catalog path");
    if (paths.size() > call.settings.maxStatusPaths)
        throw ApiError(400, "badRequest",
                       "at most " + std::to_string(call.settings.maxStatusPaths) + " paths may be asked at once");
    // Each path as sent (the answer repeats it: a valid path is its own text)
    // and as a catalog path. A path that fails the check is made again by the
    // tool's argument reader, which raises the usual message.
    std::vector<std::pair<std::string_view, catalog::Path>> checked;
    checked.reserve(paths.size());
    for (simdjson::dom::element e : paths) {
        std::string_view s;
        if (e.get(s) != simdjson::SUCCESS) throw ApiError(400, "badRequest", "'paths' must hold strings only");
        catalog::Path p;
        try {
            p = catalog::Path::fromUtf8(s, catalog::kUnchecked);
        } catch (const Utf8Error&) {
        }
        if (p.isBlank() || p.check() != catalog::kItemNameValid)
            p = host::catalogPathArgument(std::string(s), "a path");
        checked.emplace_back(s, std::move(p));
    }
    if (!call.fresh) reloadIfChanged(call.manager);
    JsonWriter w;
    w.beginObject().key("results").beginArray();
    for (const auto& [text, p] : checked)
        w.beginObject().member("path", text).member("favorite", call.manager.isFavorite(p)).endObject();
    w.endArray().endObject();
    return json(200, w.str());
}

HttpResponse postFavoritesItem(Call& call) {
    simdjson::dom::parser parser;
    const simdjson::dom::object body = bodyObject(call, parser);
    const auto catalogPath = stringMember(body, "catalogPath");
    const auto name = stringMember(body, "name");
    const catalog::Path category =
        host::categoryArgument(stringMember(body, "category").value_or(""), "'category'");
    if (catalogPath.has_value() == name.has_value())
        throw ApiError(400, "badRequest", "give either 'catalogPath' (a catalog object) or 'name' (a category)");
    FavoritesManager& m = call.manager;
    Handle<FavoritesItem> item;
    if (catalogPath) {
        const catalog::Path path = host::catalogPathArgument(*catalogPath, "'catalogPath'");
        const favorites::ReturnCode rc = withOneRetry([&] {
            checkFavorites(m.createFavoriteCatalogObject(path.toString(), category.toString(), item),
                           path.toString());
            return m.addItem(item);
        });
        checkFavorites(rc,
                       rc == favorites::kErrorInvalidFavoritesPath ? category.toString() : path.toString());
    } else {
        const String categoryName = host::itemNameArgument(*name, "'name'");
        const favorites::ReturnCode rc = withOneRetry([&] {
            checkFavorites(m.createFavoriteCategory(category.toString(), categoryName, item), categoryName);
            return m.addItem(item);
        });
        checkFavorites(rc, rc == favorites::kErrorInvalidFavoritesPath ? category.toString()
                                                                       : item->getPath().toString());
    }
    return result(201, [&](JsonWriter& w) { host::writeItemJson(w.key("item"), item, false); });
}

HttpResponse deleteFavoritesItem(Call& call) {
    const auto catalogPathText = call.query.get("catalogPath");
    if (!catalogPathText) throw ApiError(400, "badRequest", "the parameter 'catalogPath' is required");
    const catalog::Path path = host::catalogPathArgument(*catalogPathText, "the parameter 'catalogPath'");
    const catalog::Path category = categoryParameter(call, "category");
    const std::string everywhereText = call.query.getOr("everywhere", "false");
    if (everywhereText != "true" && everywhereText != "false" && everywhereText != "1" && everywhereText != "0")
        throw ApiError(400, "badRequest", "the parameter 'everywhere' must be true or false");
    const bool everywhere = everywhereText == "true" || everywhereText == "1";
    FavoritesManager& m = call.manager;
    const favorites::ReturnCode rc = withOneRetry([&] {
        // Deleting below a category that is not there is not a request the
        // library can answer: say that the category path is not valid.
        reloadIfChanged(m);
        if (!everywhere && m.findCategory(category).isNull())
            throw FavoritesFailure(favorites::kErrorInvalidFavoritesPath, u8(category.toString()));
        Handle<FavoritesItem> item;
        checkFavorites(m.createFavoriteCatalogObject(path.toString(), category.toString(), item),
                       path.toString());
        return m.deleteItem(item, everywhere);
    });
    checkFavorites(rc, path.toString());
    return result(200);
}

HttpResponse deleteFavoritesCategory(Call& call) {
    if (!call.query.get("path")) throw ApiError(400, "badRequest", "the parameter 'path' is required");
    const catalog::Path category = categoryParameter(call, "path");
    if (category == FavoritesManager::getRootFolderPath())
        throw ApiError(400, "badRequest", "the root category cannot be removed (replace the tree with [] to empty it)");
    const catalog::Path parent = category.getParentPath();
    FavoritesManager& m = call.manager;
    const favorites::ReturnCode rc = withOneRetry([&] {
        Handle<FavoritesItem> item;
        checkFavorites(m.createFavoriteCategory(parent.toString(), category.getItemName().toString(), item),
                       category.toString());
        return m.deleteItem(item, false);
    });
    checkFavorites(rc, rc == favorites::kErrorInvalidFavoritesPath ? parent.toString() : category.toString());
    return result(200);
}

HttpResponse putFavorites(Call& call) {
    const String text = host::inputText(call.request.body, "the request body");
    // The library would take any other text as an empty tree: refuse it here,
    // before anything is replaced.
    switch (const host::JsonReplacementProblem problem = host::jsonReplacementProblem(text)) {
        case host::JsonReplacementProblem::kNone: break;
        case host::JsonReplacementProblem::kNotJson:
        case host::JsonReplacementProblem::kNotArray: throw FavoritesFailure(favorites::kErrorInvalidFavoritesJson, "");
        default:
            throw ApiError(400, problem == host::JsonReplacementProblem::kTooDeep ? "jsonTooDeep" : "jsonTooLarge",
                           "the request body is " + host::describe(problem) + "; the favorites were left as they are");
    }
    FavoritesManager& m = call.manager;
    checkFavorites(withOneRetry([&] { return m.updateAll(text); }), String(L"the request body"));
    int categories = 0, objects = 0;
    countItems(topLevelItems(m), categories, objects);
    return result(200, [&](JsonWriter& w) { w.member("categories", categories).member("catalogObjects", objects); });
}

HttpResponse getFavoritesExport(Call& call) {
    const std::string format = call.query.getOr("format", "xml");
    if (format != "xml" && format != "json") throw ApiError(400, "badRequest", "the parameter 'format' must be xml or json");
    HttpResponse r;
    if (format == "json") {
        r.body = host::exportJson(topLevelItems(call.manager));
        r.contentType = "application/json";
    } else {
        // The stored document itself, byte for byte as the library wrote it.
        // The manager is brought in step too, as every favorites request does.
        reloadIfChanged(call.manager);
        catalog::ItemInfo info;
        const catalog::ReturnCode rc =
            host::readFavoritesDocument(call.catalog, call.slot.token(), call.slot.favoritesPath(), r.body, info);
        catalog::errorCodeToException(rc, call.slot.favoritesPath().toString(), String(), String(),
                                      KIV_FILE_LOCATION(__FILE__, __LINE__));
        r.contentType = "application/xml";
    }
    r.header("Content-Disposition", "attachment; filename=\"favorites." + format + "\"");
    return r;
}

// --- history ---------------------------------------------------------------------

HttpResponse getFavoritesHistory(Call& call) {
    const std::vector<host::FavoritesVersion> versions =
        host::favoritesHistory(call.store, call.slot.token(), call.slot.favoritesPath());
    JsonWriter w;
    host::writeHistoryJson(w, call.slot.favoritesPath(), versions, std::string());
    return json(200, w.str());
}

HttpResponse postFavoritesRestore(Call& call) {
    const std::string_view n = call.pathParameter;
    std::int64_t number = 0;
    const auto [end, ec] = std::from_chars(n.data(), n.data() + n.size(), number);
    if (ec != std::errc() || end != n.data() + n.size() || number <= 0)
        throw ApiError(404, "notFound", "no such version: " + std::string(n));
    host::restoreFavoritesVersion(call.store, call.slot.token(), call.slot.favoritesPath(), number);
    // The manager sees the restored object as another writer's change and reloads.
    int categories = 0, objects = 0;
    countItems(topLevelItems(call.manager), categories, objects);
    return result(200, [&](JsonWriter& w) {
        w.member("restored", number).member("categories", categories).member("catalogObjects", objects);
    });
}

// --- catalog ---------------------------------------------------------------------

namespace {

const char* kindOf(const catalog::ManagedCatalog::Entry& e) {
    if (e.type & catalog::kLink) return "link";
    if (e.type & catalog::kFolder) {
        auto it = e.properties.find(String(L"compositeSignature"));
        return it != e.properties.end() && it->second == L"dashboardfolder1" ? "dashboard" : "folder";
    }
    if (e.signature == L"report1") return "report";
    if (e.signature == L"dashboardpage1") return "dashboardPage";
    return "object";
}

}  // namespace

HttpResponse getCatalogChildren(Call& call) {
    const catalog::Path folder = host::catalogPathArgument(call.query.getOr("path", "/"), "the parameter 'path'");
    const String filterName = parameterText(call, "filter");
    const AccountToken& user = call.slot.token();
    const std::vector<catalog::ManagedCatalog::Entry> entries = call.store.listReadable(user, folder);
    reloadIfChanged(call.manager);

    const catalog::CatalogObjectFilter filter(call.catalog, user, filterName);
    JsonWriter w;
    w.beginObject().member("path", folder.toString()).key("items").beginArray();
    for (const auto& e : entries) {
        const char* kind = kindOf(e);
        const bool plainFolder = std::string_view(kind) == "folder";
        if (!filterName.empty() && !(e.type & catalog::kFolder) && !filter.admits(e.path)) continue;
        w.beginObject();
        w.member("name", e.path.getItemName().toString()).member("path", e.path.toString());
        w.member("type", (e.type & catalog::kLink) ? "link" : (e.type & catalog::kFolder) ? "folder" : "object");
        w.member("kind", kind);
        if (!e.signature.empty()) w.member("signature", e.signature);
        w.member("modified", utcTimestamp(e.lastModified, 6));
        if (e.type & catalog::kLink) w.member("target", e.linkTarget);
        if (!plainFolder) w.member("favorite", call.manager.isFavorite(e.path));
        w.endObject();
    }
    w.endArray().endObject();
    return json(200, w.str());
}

}  // namespace kiv::server
