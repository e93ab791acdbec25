#include "democatalog.h"

#include "favoritesdocument.h"
#include "hosterrors.h"
#include "passwords.h"

#include <string_view>

#include "qz/platform/xml.h"
#include "qz/webcatalog/readerwriter.h"
#include "qz/webfavorites/favoritesmanager.h"

namespace kiv::tool {

namespace {

using catalog::Path;
using catalog::Rights;

Path P(std::string_view utf8) { return Path(String::fromUtf8(utf8)); }
String S(std::string_view utf8) { return String::fromUtf8(utf8); }

class DemoBuilder {
public:
    explicit DemoBuilder(catalog::ManagedCatalog& c) : m_c(c) {}

    void folder(std::string_view path) {
        m_c.makeFolder(P(path));
        ++m_summary.folders;
    }
    void report(std::string_view path) {
        m_c.putObject(P(path), S("report1"), {{S("description"), S("Report")}}, "<report/>");
        ++m_summary.objects;
    }
    void dashboard(std::string_view path, std::initializer_list<std::string_view> pages) {
        folder(path);
        m_c.setProperties(P(path), {{S("compositeSignature"), S("dashboardfolder1")}});
        for (std::string_view page : pages) {
            m_c.putObject(P(std::string(path) + "/" + std::string(page)), S("dashboardpage1"), {}, "<page/>");
            ++m_summary.objects;
        }
    }
    void link(std::string_view path, std::string_view target) {
        m_c.makeLink(P(path), P(target));
        ++m_summary.links;
    }
    void groupRights(std::string_view path, std::string_view group, Rights rights) {
        m_c.setAccess(P(path), S(group), true, rights);
    }
    void user(std::string_view name, std::vector<String> groups) {
        m_c.addUser(S(name), groups);
        m_c.setPasswordHash(S(name), host::hashPassword(kDemoPassword));
        const std::string home = "/users/" + std::string(name);
        folder(home);
        m_c.clearAccess(P(home));
        m_c.setAccess(P(home), S(name), false, Rights::kWrite);
        m_summary.users.emplace_back(name);
    }
    void favorites(std::string_view user, const std::string& xml) {
        m_c.putObject(P("/users/" + std::string(user) + "/favorites"), S("mobilefavorites1"), {}, xml);
        ++m_summary.objects;
    }
    void mobileFavorites(std::string_view user, const std::string& xml) {
        m_c.putObject(P("/users/" + std::string(user) + "/mobile-favoritelist"), S("mobilefavorites1"), {}, xml);
        ++m_summary.objects;
    }

    DemoSummary summary() const { return m_summary; }

private:
    catalog::ManagedCatalog& m_c;
    DemoSummary m_summary;
};

// What a FavoritesManager building a sample user's favorites works on: the
// store for everything it looks up (the catalog objects it checks the user
// may read), and, for the favorites object itself, a draft in memory. The
// manager's writes of the favorites object land in the draft, so the store
// sees only the one write of the finished document (and keeps no history
// version of the steps in between); the manager never finds a stored
// favorites object or old mobile object, so it starts from an empty tree,
// upgrades nothing, and finds the draft in step before every save (an
// object it cannot inspect counts as in sync). Nothing is removed.
class FavoritesDraft : public catalog::Catalog {
public:
    FavoritesDraft(catalog::Catalog& store, const Path& favoritesPath)
        : m_store(store),
          m_path(favoritesPath),
          m_mobilePath(favoritesPath.getParentPath() +
                       catalog::ItemName(String(host::kOldMobileFavoritesName), catalog::ItemName::kNone)) {}

    catalog::ReturnCode deleteObject(const AccountToken&, const Path&) override { return catalog::kErrorAccessDenied; }
    catalog::ReturnCode readObject(const AccountToken& user, const Path& path, catalog::Reader& reader,
                                   catalog::ItemInfo& info, unsigned flags) override {
        if (isHidden(path)) return catalog::kErrorPathNotFound;
        return m_store.readObject(user, path, reader, info, flags);
    }
    catalog::ReturnCode writeObject(const AccountToken&, const Path& path, catalog::Writer& writer,
                                    const catalog::ReplaceHelper&) override {
        if (!(path == m_path)) return catalog::kErrorAccessDenied;
        StringOutputStream out;
        writer.write(out);
        m_document = std::move(out.str());
        return catalog::kSuccess;
    }
    catalog::ReturnCode getItemInfo(const AccountToken& user, const Path& path, catalog::ItemInfo& info,
                                    bool bOriginalOnly, bool bWithProperties) override {
        if (isHidden(path)) return catalog::kErrorPathNotFound;
        return m_store.getItemInfo(user, path, info, bOriginalOnly, bWithProperties);
    }

    // The document the manager wrote last; empty before its first write.
    const std::string& document() const noexcept { return m_document; }

private:
    bool isHidden(const Path& path) const { return path == m_path || path == m_mobilePath; }

    catalog::Catalog& m_store;
    Path m_path;
    Path m_mobilePath;
    std::string m_document;
};

// One sample user's favorites document, made by the library as a host's
// edits make it: a FavoritesManager for the user adds each category and
// catalog object in turn, and its writer produces the bytes.
class SampleFavorites {
public:
    SampleFavorites(catalog::ManagedCatalog& catalog, std::string_view user)
        : m_draft(catalog, P("/users/" + std::string(user) + "/favorites")),
          m_manager(new FavoritesManager(m_draft, catalog.tokenFor(S(user)),
                                         P("/users/" + std::string(user) + "/favorites"))) {}

    // Adds a category below the root and returns its favorites path.
    String category(std::string_view name) {
        Handle<FavoritesItem> item;
        const String root = FavoritesManager::getRootFolderPath().toString();
        host::checkFavorites(m_manager->createFavoriteCategory(root, S(name), item), S(name));
        host::checkFavorites(m_manager->addItem(item), S(name));
        return item->getPath().toString();
    }
    // Adds the catalog object at `catalogPath` to the category at `categoryPath`.
    void object(std::string_view catalogPath, const String& categoryPath) {
        Handle<FavoritesItem> item;
        host::checkFavorites(m_manager->createFavoriteCatalogObject(S(catalogPath), categoryPath, item),
                             S(catalogPath));
        host::checkFavorites(m_manager->addItem(item), S(catalogPath));
    }
    // Adds the catalog object at `catalogPath` below the root.
    void object(std::string_view catalogPath) { object(catalogPath, FavoritesManager::getRootFolderPath().toString()); }

    const std::string& document() const noexcept { return m_draft.document(); }

private:
    FavoritesDraft m_draft;  // outlives the manager, which works on it
    Handle<FavoritesManager> m_manager;
};

std::string aliceFavorites(catalog::ManagedCatalog& catalog) {
    SampleFavorites f(catalog, "alice");
    const String sales = f.category("Sales");
    f.object("/shared/Sales/Reports/Revenue by Region", sales);
    f.object("/shared/Sales/Dashboards/Sales Overview/Summary", sales);
    f.object("/shared/Common/Company KPIs");
    return f.document();
}

std::string bobFavorites(catalog::ManagedCatalog& catalog) {
    SampleFavorites f(catalog, "bob");
    const String monthEnd = f.category("Month end");
    f.object("/shared/Finance/Reports/Profit and Loss", monthEnd);
    f.object("/shared/Finance/Reports/Cash Flow", monthEnd);
    return f.document();
}

// The old mobile client's list, in the format the library only reads (its
// upgrade takes the "path" and "page" attributes of the elements inside
// "favoritelist"): a page of a dashboard, a report, a report dave may not
// read (dropped silently by the upgrade) and a dashboard named without a
// page (dropped with a logged message).
std::string daveMobileFavorites() {
    XmlDocument document;
    XmlElement* root = document.createXmlElement(XmlQualifiedName(S("mobilefavorites")));
    document.setRootElement(root, XmlDocument::kSplice);
    XmlElement* list = root->appendXmlElement(XmlQualifiedName(S("favoritelist")));
    const auto entry = [list](std::string_view path, std::string_view page) {
        XmlElement* e = list->appendXmlElement(XmlQualifiedName(S("favorite")));
        e->setAttributeValue(XmlQualifiedName(S("path")), S(path));
        if (!page.empty()) e->setAttributeValue(XmlQualifiedName(S("page")), S(page));
    };
    entry("/shared/Sales/Reports/Pipeline", {});
    entry("/shared/Sales/Dashboards/Sales Overview", "Regions");
    entry("/shared/Finance/Reports/Cash Flow", {});
    entry("/shared/Sales/Dashboards/Sales Overview", {});
    return document.serialize();
}

}  // namespace

DemoSummary buildDemoCatalog(catalog::ManagedCatalog& catalog) {
    DemoBuilder b(catalog);

    b.folder("/shared");
    b.folder("/users");

    b.folder("/shared/Common");
    b.report("/shared/Common/Company KPIs");
    b.report("/shared/Common/Holiday Calendar");

    b.folder("/shared/Sales/Reports");
    b.report("/shared/Sales/Reports/Revenue by Region");
    b.report("/shared/Sales/Reports/Pipeline");
    b.report("/shared/Sales/Reports/Top Customers");
    b.folder("/shared/Sales/Dashboards");
    b.dashboard("/shared/Sales/Dashboards/Sales Overview", {"Summary", "Regions", "Trends"});
    b.link("/shared/Sales/Latest Revenue", "/shared/Sales/Reports/Revenue by Region");
    catalog.clearAccess(P("/shared/Sales"));
    b.groupRights("/shared/Sales", "sales", Rights::kRead);

    b.folder("/shared/Finance/Reports");
    b.report("/shared/Finance/Reports/Profit and Loss");
    b.report("/shared/Finance/Reports/Cash Flow");
    b.report("/shared/Finance/Reports/Budget vs Actual");
    b.folder("/shared/Finance/Dashboards");
    b.dashboard("/shared/Finance/Dashboards/Finance Cockpit", {"Overview", "Costs"});
    catalog.clearAccess(P("/shared/Finance"));
    b.groupRights("/shared/Finance", "finance", Rights::kRead);

    b.folder("/shared/HR/Reports");
    b.report("/shared/HR/Reports/Headcount");
    b.report("/shared/HR/Reports/Attrition");
    catalog.clearAccess(P("/shared/HR"));
    b.groupRights("/shared/HR", "hr", Rights::kRead);

    b.user("alice", {S("sales")});
    b.user("bob", {S("finance")});
    b.user("carol", {S("hr"), S("sales")});
    b.user("dave", {S("sales")});
    b.user("admin", {String(catalog::ManagedCatalog::ksAdministratorsGroup)});

    b.favorites("alice", aliceFavorites(catalog));
    b.favorites("bob", bobFavorites(catalog));
    if (catalog.exists(P("/users/dave/favorites"))) catalog.remove(P("/users/dave/favorites"));
    b.mobileFavorites("dave", daveMobileFavorites());
    return b.summary();
}

}  // namespace kiv::tool
