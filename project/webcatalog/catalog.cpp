// The catalog's exceptions, the default replace helper, the reader upgrade
// mode default and the object filter.
#include "qz/webcatalog/catalog.h"
#include "qz/webcatalog/managedcatalog.h"

#include "qz/webcatalog/readerwriter.h"

namespace kiv::catalog {

namespace {

class ReplaceExisting final : public ReplaceHelper {
public:
    bool mayReplace(const ItemInfo&) const override { return true; }
};
const ReplaceExisting kReplaceExisting;

String catalogExceptionText(ReturnCode code, const String& path, const String& arg1, const String& arg2) {
    String text = String::fromUtf8(returnCodeName(code));
    text += L": ";
    text += path;
    if (!arg1.empty() || !arg2.empty()) {
        text += L" (";
        text += arg1;
        if (!arg1.empty() && !arg2.empty()) text += L", ";
        text += arg2;
        text += L")";
    }
    return text;
}

String upgradeText(const String& message, const String& detail) {
    if (detail.empty()) return message;
    return message + L": " + detail;
}

}  // namespace

const ReplaceHelper& tDefaultReplaceHelper = kReplaceExisting;

int Catalog::getReaderUpgradeMode() const noexcept { return Reader::kUpgradeAuto; }

CatalogException::CatalogException(ReturnCode code, String path, String arg1, String arg2)
    : Exception(catalogExceptionText(code, path, arg1, arg2)), m_code(code), m_path(std::move(path)) {}

Exception* CatalogException::clone() const { return new CatalogException(*this); }

CatalogUpgradeRequired::CatalogUpgradeRequired(const String& message, const String& detail, int code)
    : Exception(upgradeText(message, detail)), m_code(code) {}

Exception* CatalogUpgradeRequired::clone() const { return new CatalogUpgradeRequired(*this); }

void errorCodeToException(ReturnCode code, const String& path, const String& arg1, const String& arg2,
                          const Logger::FileLocation&) {
    if (code == kSuccess) return;
    throw CatalogException(code, path, arg1, arg2);
}

CatalogObjectFilter::CatalogObjectFilter(Catalog& catalog, const AccountToken& user, const String& filterName)
    : m_catalog(catalog), m_user(user), m_name(filterName) {}

bool CatalogObjectFilter::admits(const Path& catalogPath) const {
    ItemInfo info;
    if (m_catalog.getItemInfo(m_user, catalogPath, info, false, true) != kSuccess) return false;
    if (m_name == L"reports") return info.getObjectSignature(kInfoResolved) == L"report1";
    if (m_name == L"dashboards") {
        return info.getObjectSignature(kInfoResolved) == L"dashboardpage1" ||
               info.getItemProperty(L"compositeSignature", String(), kInfoResolved) == L"dashboardfolder1";
    }
    // "", "readable" and unknown names: everything the user may read.
    return true;
}

}  // namespace kiv::catalog

namespace kiv::catalog {

bool ManagedCatalog::isAdministrator(const AccountToken& user) {
    return user.isMemberOf(String(ksAdministratorsGroup));
}

}  // namespace kiv::catalog
