#include "items.h"

#include <algorithm>
#include <cstdio>

#include "qz/webcatalog/catalog.h"
#include "qz/webfavorites/favoritefolder.h"

namespace kiv::host {

namespace {

std::string utf8(const String& s) { return s.toUtf8(); }

void treeLines(const FavoritesItems& items, int depth, std::string& out) {
    for (const Handle<FavoritesItem>& item : items) {
        out.append(static_cast<std::size_t>(depth) * 2, ' ');
        out += utf8(item->getName().toString());
        if (isCategory(*item)) {
            out += "/\n";
            treeLines(childrenOf(item), depth + 1, out);
        } else {
            out += " -> " + utf8(item->getCatalogPath().toString()) + "\n";
        }
    }
}

void exportItemJson(JsonWriter& w, const Handle<FavoritesItem>& item) {
    w.beginObject();
    if (isCategory(*item)) {
        w.member("type", "1").member("name", item->getName().toString());
        w.key("children").beginArray();
        for (const Handle<FavoritesItem>& child : childrenOf(item)) exportItemJson(w, child);
        w.endArray();
    } else {
        w.member("type", "0").member("path", item->getCatalogPath().toString());
    }
    w.endObject();
}

}  // namespace

std::string xmlEscape(std::string_view utf8) {
    std::string out;
    out.reserve(utf8.size());
    for (const char ch : utf8) {
        switch (ch) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\t': out += "&#9;"; break;
            case '\n': out += "&#10;"; break;
            case '\r': out += "&#13;"; break;
            default: out += ch;
        }
    }
    return out;
}

FavoritesItems childrenOf(const Handle<FavoritesItem>& item) {
    FavoritesItems out;
    item->getChildren(out, NonOwningPtr<catalog::CatalogObjectFilter>());
    return out;
}

bool isCategory(const FavoritesItem& item) noexcept { return item.getType() == favorites::kCategory; }

const char* typeName(const FavoritesItem& item) noexcept {
    return isCategory(item) ? "category" : "catalogObject";
}

void writeItemJson(JsonWriter& w, const Handle<FavoritesItem>& item, bool recursive) {
    w.beginObject();
    w.member("type", typeName(*item));
    w.member("name", item->getName().toString());
    w.member("favoritesPath", item->getPath().toString());
    if (isCategory(*item)) {
        if (recursive) {
            w.key("children").beginArray();
            for (const Handle<FavoritesItem>& child : childrenOf(item)) writeItemJson(w, child, true);
            w.endArray();
        }
    } else {
        w.member("catalogPath", item->getCatalogPath().toString());
    }
    w.endObject();
}

std::string treeText(const FavoritesItems& items) {
    std::string out;
    treeLines(items, 0, out);
    return out;
}

std::string listText(const FavoritesItems& items) {
    std::size_t width = 0;
    for (const Handle<FavoritesItem>& item : items) width = std::max(width, utf8(item->getPath().toString()).size());
    std::string out;
    for (const Handle<FavoritesItem>& item : items) {
        std::string line = isCategory(*item) ? "category  " : "object    ";
        std::string path = utf8(item->getPath().toString());
        line += path;
        if (!isCategory(*item)) {
            line.append(width - path.size() + 2, ' ');
            line += "-> " + utf8(item->getCatalogPath().toString());
        }
        out += line + "\n";
    }
    return out;
}

std::string exportJson(const FavoritesItems& items) {
    JsonWriter w;
    w.beginArray();
    for (const Handle<FavoritesItem>& item : items) exportItemJson(w, item);
    w.endArray();
    return w.str() + "\n";
}

}  // namespace kiv::host
