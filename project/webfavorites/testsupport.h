// Test support for the favorites library: trees from a short notation, and
// one recursive rendering used to compare trees.
//
// Notation: items separated by blanks; a word followed by "[" ... "]" is a
// category holding what stands between the brackets; a token starting with
// "/" is a catalog item linking that catalog path. "_" in a category name
// stands for a blank. Example: "Sales[ /shared/a Q1[ /shared/b ] ] /shared/c".
#pragma once

#include <sstream>
#include <string>
#include <vector>

#include "qz/platform/string.h"
#include "qz/webfavorites/favoritecatalogitem.h"
#include "qz/webfavorites/favoritefolder.h"
#include "qz/webfavorites/favoritesitem.h"

namespace kiv::testing {

inline std::vector<std::string> tokenize(const std::string& notation) {
    std::vector<std::string> tokens;
    std::string cur;
    auto flush = [&] {
        if (!cur.empty()) tokens.push_back(cur);
        cur.clear();
    };
    for (char c : notation) {
        if (c == ' ') {
            flush();
        } else if (c == '[' || c == ']') {
            flush();
            tokens.emplace_back(1, c);
        } else {
            cur.push_back(c);
        }
    }
    flush();
    return tokens;
}

inline String nameFromToken(const std::string& token) {
    std::string s = token;
    for (char& c : s)
        if (c == '_') c = ' ';
    return String::fromUtf8(s);
}

// Adds the items of `notation` to `folder` (whose path becomes their parent path).
inline void populate(const Handle<FavoritesItem>& folder, const std::string& notation) {
    std::vector<std::string> tokens = tokenize(notation);
    std::vector<Handle<FavoritesItem>> stack{folder};
    for (std::size_t i = 0; i < tokens.size(); ++i) {
        const std::string& t = tokens[i];
        if (t == "]") {
            stack.pop_back();
        } else if (t == "[") {
            continue;
        } else if (t[0] == '/') {
            Handle<FavoritesItem> item(new FavoriteCatalogItem(stack.back()->getPath(), catalog::Path(String::fromUtf8(t))));
            stack.back()->addChild(item);
        } else {
            Handle<FavoritesItem> sub(new FavoriteFolder(stack.back()->getPath(),
                                                         catalog::ItemName(nameFromToken(t), catalog::ItemName::kNone)));
            stack.back()->addChild(sub);
            stack.push_back(sub);
        }
    }
}

inline Handle<FavoritesItem> makeRoot() {
    return Handle<FavoritesItem>(
        new FavoriteFolder(catalog::Path(String(L"/")), catalog::ItemName(String(L"root"), catalog::ItemName::kNone)));
}

inline Handle<FavoritesItem> buildTree(const std::string& notation) {
    Handle<FavoritesItem> root = makeRoot();
    populate(root, notation);
    return root;
}

// Renders a folder's children in the notation above; two trees are equal
// when their renderings are. Also checks that every node's path is its
// parent's path plus its name (reported as "!path" in the rendering).
inline std::string dump(const Handle<FavoritesItem>& folder) {
    std::ostringstream out;
    FavoritesItems children;
    folder->getChildren(children, NonOwningPtr<catalog::CatalogObjectFilter>());
    bool first = true;
    for (const auto& child : children) {
        if (!first) out << ' ';
        first = false;
        const bool pathOk = child->getPath() == folder->getPath() + child->getName();
        if (!pathOk) out << '!' << child->getPath().toString().toUtf8() << '!';
        if (child->getType() == favorites::kCategory) {
            std::string name = child->getName().toString().toUtf8();
            for (char& c : name)
                if (c == ' ') c = '_';
            out << name << "[";
            std::string inner = dump(child);
            if (!inner.empty()) out << ' ' << inner << ' ';
            out << "]";
        } else {
            out << child->getCatalogPath().toString().toUtf8();
        }
    }
    return out.str();
}

// The notation re-rendered, so tests can write it loosely.
inline std::string normalize(const std::string& notation) { return dump(buildTree(notation)); }

}  // namespace kiv::testing
