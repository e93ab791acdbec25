// The sample catalog of `favorites catalog demo`.
//
//   groups      sales, finance, hr (and the catalog's "administrators")
//   users       (every demo user's password is kDemoPassword)
//               alice (sales)            the demo user, with favorites
//               bob (finance)            with favorites
//               carol (hr, sales)        no favorites yet
//               dave (sales)             an old mobile favorites object, upgraded on first use
//               admin (administrators)
//   /shared/Common/...                   readable by everyone
//   /shared/Sales/...                    readable by sales, writable by nobody but administrators
//   /shared/Finance/...                  readable by finance
//   /shared/HR/...                       readable by hr
//   /users/U                             writable by U only
//
// Reports carry the signature "report1"; a dashboard is a folder of pages
// (signature "dashboardpage1").
#pragma once

#include <string>
#include <vector>

#include "qz/webcatalog/managedcatalog.h"

namespace kiv::tool {

// The password of every demo user; `scripts/run.sh` prints it.
inline constexpr const char* kDemoPassword = "demo";

struct DemoSummary {
    std::vector<std::string> users;
    int folders = 0;
    int objects = 0;
    int links = 0;
};

// Writes the sample into `catalog` (creating or replacing its items; the
// rest of the catalog is kept). Running it again restores the sample's
// items, including the old mobile favorites object.
DemoSummary buildDemoCatalog(catalog::ManagedCatalog& catalog);

}  // namespace kiv::tool
