// A catalog for favorites tests: an in-memory SQLite catalog (or a file)
// holding a small realistic tree, users with their access rights, and
// helpers to read and write a user's stored favorites document.
//
//   /shared/Sales/Report1 .. Report3          reports, readable by everyone
//   /shared/Sales/Dashboard                   a dashboard folder with pages Page1, Page2
//   /shared/Sales/Archive                     an ordinary folder
//   /shared/HR/Headcount                      a report
//   /private/Secret                           a report only bob may read
//   /users/alice, /users/bob                  each user's folder, writable by that user only
#pragma once

#include <memory>
#include <string>

#include "qz/platform/accounttoken.h"
#include "qz/platform/xml.h"
#include <gtest/gtest.h>

#include "qz/webcatalog/sqlitecatalog.h"
#include "qz/webfavorites/favoritesmanager.h"
#include "testsupport.h"

namespace kiv::testing {

inline const String kFavoritesSignature(L"mobilefavorites1");

class TestCatalog {
public:
    explicit TestCatalog(const std::string& file = std::string()) {
        m_catalog = file.empty() ? catalog::SqliteCatalog::openInMemory()
                                 : std::make_unique<catalog::SqliteCatalog>(file);
        auto& c = *m_catalog;
        c.addUser(String(L"alice"), {String(L"sales")});
        c.addUser(String(L"bob"), {String(L"hr")});
        c.makeFolder(P(L"/shared/Sales"));
        for (const wchar_t* r : {L"/shared/Sales/Report1", L"/shared/Sales/Report2", L"/shared/Sales/Report3",
                                 L"/shared/HR/Headcount"})
            c.putObject(P(r), String(L"report1"), {}, "report body");
        c.makeFolder(P(L"/shared/Sales/Dashboard"));
        c.putObject(P(L"/shared/Sales/Dashboard/Page1"), String(L"dashboardpage1"), {}, "page");
        c.putObject(P(L"/shared/Sales/Dashboard/Page2"), String(L"dashboardpage1"), {}, "page");
        c.makeFolder(P(L"/shared/Sales/Archive"));
        c.putObject(P(L"/private/Secret"), String(L"report1"), {}, "secret");
        c.setAccess(P(L"/private"), String(L"bob"), false, catalog::Rights::kRead);
        for (const wchar_t* u : {L"alice", L"bob"}) {
            catalog::Path home = P(L"/users") + catalog::ItemName(String(u), catalog::ItemName::kNone);
            c.makeFolder(home);
            c.setAccess(home, String(u), false, catalog::Rights::kWrite);
        }
        alice = c.tokenFor(String(L"alice"));
        bob = c.tokenFor(String(L"bob"));
    }

    catalog::SqliteCatalog& admin() { return *m_catalog; }
    catalog::Catalog& catalog() { return *m_catalog; }

    static catalog::Path P(const wchar_t* s) { return catalog::Path(String(s)); }
    static catalog::Path favoritesPath(const wchar_t* user) {
        return P(L"/users") + catalog::ItemName(String(user), catalog::ItemName::kNone) +
               catalog::ItemName(String(L"favorites"), catalog::ItemName::kNone);
    }

    // Stores a favorites document for a user, as another program would.
    void storeFavoritesXml(const wchar_t* user, const std::string& xml) {
        m_catalog->putObject(favoritesPath(user), kFavoritesSignature, {}, xml);
    }
    // Stores the tree given in the test notation (categories and catalog items).
    void storeFavorites(const wchar_t* user, const std::string& notation) {
        storeFavoritesXml(user, documentFromNotation(notation));
    }
    std::string storedFavorites(const wchar_t* user) { return m_catalog->readRaw(favoritesPath(user)); }

    // The stored document read into the notation by walking its elements
    // (independently of the manager, and without running the mobile upgrade).
    std::string storedDocumentTree(const wchar_t* user) {
        const std::string body = storedFavorites(user);
        Handle<XmlDocument> doc = XmlDocument::fromBuffer(body.data(), body.size());
        return elementsToNotation(doc->getRootElement());
    }
    static std::string elementsToNotation(const XmlElement* parent) {
        std::string out;
        for (XmlElement* e = parent->getFirstChildElement(); e; e = e->getNextSiblingElement()) {
            const String type = e->getAttributeValue(String(L"type"), XmlElement::kNotRequired);
            std::string part;
            if (type == L"category") {
                std::string name = e->getAttributeValue(String(L"name"), XmlElement::kNotRequired).toUtf8();
                for (char& ch : name)
                    if (ch == ' ') ch = '_';
                const std::string inner = elementsToNotation(e);
                part = name + "[" + (inner.empty() ? "" : " " + inner + " ") + "]";
            } else {
                part = e->getAttributeValue(String(L"catalogpath"), XmlElement::kNotRequired).toUtf8();
            }
            out += (out.empty() ? "" : " ") + part;
        }
        return out;
    }

    // A favorites document written by hand from the notation.
    static std::string documentFromNotation(const std::string& notation) {
        std::string out = "<?xml version=\"1.0\"?>\n<f:favoritelist xmlns:f=\"urn:kiv-web:favorites/v1\">";
        for (const std::string& t : tokenize(notation)) {
            if (t == "[") continue;
            if (t == "]") {
                out += "</favorite>";
            } else if (t[0] == '/') {
                std::string name = t.substr(t.rfind('/') + 1);
                out += "<favorite name=\"" + name + "\" catalogpath=\"" + t + "\" type=\"catalogitem\"/>";
            } else {
                std::string name = t;
                for (char& ch : name)
                    if (ch == '_') ch = ' ';
                out += "<favorite name=\"" + name + "\" type=\"category\">";
            }
        }
        return out + "</f:favoritelist>\n";
    }

    AccountToken alice;
    AccountToken bob;

private:
    std::unique_ptr<catalog::SqliteCatalog> m_catalog;
};

// The fixture of the manager's tests: the test catalog, and managers for its
// users (as a host makes them) with the helpers the tests share.
class FavoritesTest : public ::testing::Test {
protected:
    // A manager for `user` (alice or bob) over the test catalog, or over `c`.
    Handle<FavoritesManager> manager(const wchar_t* user = L"alice", catalog::Catalog* c = nullptr) {
        const AccountToken& token = String(user) == L"bob" ? env.bob : env.alice;
        return Handle<FavoritesManager>(
            new FavoritesManager(c ? *c : env.catalog(), token, TestCatalog::favoritesPath(user)));
    }
    // Alice's manager after storing the tree given in the notation.
    Handle<FavoritesManager> managerWith(const std::string& notation) {
        env.storeFavorites(L"alice", notation);
        return manager();
    }
    static std::string tree(const Handle<FavoritesManager>& m) { return dump(m->getRootFolder()); }
    // Alice's stored favorites as a freshly made manager loads them.
    std::string storedTree() { return tree(manager()); }
    // Alice's stored document, read directly.
    std::string stored() { return env.storedDocumentTree(L"alice"); }
    static Handle<FavoritesItem> item(FavoritesManager& m, const wchar_t* catalogPath, const wchar_t* category = L"") {
        Handle<FavoritesItem> h;
        EXPECT_EQ(m.createFavoriteCatalogObject(String(catalogPath), String(category), h), favorites::kSuccess);
        return h;
    }
    static Handle<FavoritesItem> category(FavoritesManager& m, const wchar_t* name, const wchar_t* parent = L"") {
        Handle<FavoritesItem> h;
        EXPECT_EQ(m.createFavoriteCategory(String(parent), String(name), h), favorites::kSuccess);
        return h;
    }

    TestCatalog env;
};

}  // namespace kiv::testing
