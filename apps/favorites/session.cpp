#include "session.h"

#include <filesystem>
#include <system_error>

#include "qz/webcatalog/catalog.h"
#include "favoritesopen.h"
#include "textinput.h"
#include "toolerrors.h"

namespace kiv::tool {

std::unique_ptr<catalog::SqliteCatalog> openCatalog(const GlobalOptions& options, OpenMode mode) {
    catalog::SqliteCatalog::Options o;
    o.create = (mode == OpenMode::kCreate);
    const String fileText = argumentText(options.catalogFile, "--catalog");
    if (options.catalogFile.empty()) throw UsageError("--catalog names no file");
    // SQLite would open a directory's name as an empty database; say what it is instead.
    std::error_code ec;
    if (std::filesystem::is_directory(options.catalogFile, ec))
        throw catalog::CatalogException(catalog::kErrorLoadingCatalog, fileText);
    return std::make_unique<catalog::SqliteCatalog>(options.catalogFile, o);
}

AccountToken administratorToken() {
    return AccountToken(String(L"administrator"), {String(catalog::SqliteCatalog::ksAdministratorsGroup)});
}

FavoritesSession::FavoritesSession(const GlobalOptions& options) {
    if (options.user.empty())
        throw UsageError("this command acts for a user: give --user NAME (or set KIV_USER)");
    const String userName = itemNameArgument(options.user, "--user");
    m_favoritesPath = options.favoritesPath.empty() ? defaultFavoritesPath(userName)
                                                    : catalogPathArgument(options.favoritesPath, "--favorites");
    if (m_favoritesPath == catalog::Path(String(L"/")))
        throw UsageError("--favorites must name an object, not the root folder");

    m_catalog = openCatalog(options, OpenMode::kExisting);
    m_user = m_catalog->tokenFor(userName);

    m_manager = openFavoritesManager(*m_catalog, m_user, m_favoritesPath);
}

}  // namespace kiv::tool
