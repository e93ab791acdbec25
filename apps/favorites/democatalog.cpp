#include "democatalog.h"

#include "passwords.h"

#include <string_view>

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

const char* const kAliceFavorites = R"(<?xml version="1.0" encoding="UTF-8"?>
<fav:favoritelist xmlns:fav="urn:kiv-web:favorites/v1">
  <favorite name="Sales" type="category">
    <favorite name="Revenue by Region" catalogpath="/shared/Sales/Reports/Revenue by Region" type="catalogitem"/>
    <favorite name="Summary" catalogpath="/shared/Sales/Dashboards/Sales Overview/Summary" type="catalogitem"/>
  </favorite>
  <favorite name="Company KPIs" catalogpath="/shared/Common/Company KPIs" type="catalogitem"/>
</fav:favoritelist>
)";

const char* const kBobFavorites = R"(<?xml version="1.0" encoding="UTF-8"?>
<fav:favoritelist xmlns:fav="urn:kiv-web:favorites/v1">
  <favorite name="Month end" type="category">
    <favorite name="Profit and Loss" catalogpath="/shared/Finance/Reports/Profit and Loss" type="catalogitem"/>
    <favorite name="Cash Flow" catalogpath="/shared/Finance/Reports/Cash Flow" type="catalogitem"/>
  </favorite>
</fav:favoritelist>
)";

// The old mobile client's list: a page of a dashboard, a report, a report
// dave may not read (dropped silently by the upgrade) and a dashboard named
// without a page (dropped with a logged message).
const char* const kDaveMobileFavorites = R"(<?xml version="1.0" encoding="UTF-8"?>
<mobilefavorites>
  <favoritelist>
    <favorite path="/shared/Sales/Reports/Pipeline"/>
    <favorite path="/shared/Sales/Dashboards/Sales Overview" page="Regions"/>
    <favorite path="/shared/Finance/Reports/Cash Flow"/>
    <favorite path="/shared/Sales/Dashboards/Sales Overview"/>
  </favoritelist>
</mobilefavorites>
)";

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

    b.favorites("alice", kAliceFavorites);
    b.favorites("bob", kBobFavorites);
    if (catalog.exists(P("/users/dave/favorites"))) catalog.remove(P("/users/dave/favorites"));
    b.mobileFavorites("dave", kDaveMobileFavorites);
    return b.summary();
}

}  // namespace kiv::tool
