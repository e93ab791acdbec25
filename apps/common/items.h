// Rendering favorites items for the hosts' output (the tool and the server):
// plain text for people, JSON for programs, and the JSON export format.
//
// JSON item (the tool's tree, ls, add, mkcat; the server's answers):
//   {"type":"category","name":N,"favoritesPath":P,"children":[...]}
//   {"type":"catalogObject","name":N,"favoritesPath":P,"catalogPath":C}
//   ("children" only where the command shows a subtree).
// Export JSON is the replacement format read by replace-json:
//   [{"type":"1","name":N,"children":[...]}, {"type":"0","path":C}, ...]
// (The XML export is the stored favorites document itself, read by
// readFavoritesDocument.)
#pragma once

#include <string>
#include <string_view>

#include "jsonwriter.h"
#include "qz/webfavorites/favoritesitem.h"

namespace kiv::host {

// The direct children of a category, unfiltered.
FavoritesItems childrenOf(const Handle<FavoritesItem>& item);

bool isCategory(const FavoritesItem& item) noexcept;
// "category" or "catalogObject".
const char* typeName(const FavoritesItem& item) noexcept;

// One item as JSON; with `recursive`, categories carry their subtree.
void writeItemJson(JsonWriter& w, const Handle<FavoritesItem>& item, bool recursive);

// The items and their subtrees, one line per item, indented two blanks per
// level: categories as "Name/", catalog objects as "Name -> /catalog/path".
std::string treeText(const FavoritesItems& items);
// One line per item: type, favorites path and, for catalog objects, the
// catalog path.
std::string listText(const FavoritesItems& items);

// `text` in UTF-8 with &, <, >, " and TAB, LF and CR written as references:
// fit for element content and double-quoted attribute values.
std::string xmlEscape(std::string_view utf8);
inline std::string xmlEscape(const String& text) { return xmlEscape(std::string_view(text.toUtf8())); }

// The items in the replacement format of replace-json.
std::string exportJson(const FavoritesItems& items);

}  // namespace kiv::host
