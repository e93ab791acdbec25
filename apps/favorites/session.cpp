#include "session.h"

#include <filesystem>
#include <iostream>
#include <system_error>

#include "qz/webcatalog/catalog.h"
#include "favoritesopen.h"
#include "storeopen.h"
#include "textinput.h"
#include "toolerrors.h"

namespace kiv::tool {

std::unique_ptr<catalog::ManagedCatalog> openCatalog(const GlobalOptions& options, OpenMode mode) {
    const String fileText = argumentText(options.catalogFile, "--catalog");
    if (options.catalogFile.empty()) throw UsageError("--catalog names no file");
    std::unique_ptr<catalog::ManagedCatalog> store;
    if (isPostgresStore(options.catalogFile)) {
        store = openStore(options.catalogFile, mode == OpenMode::kCreate, 2);
    } else {
        // SQLite would open a directory's name as an empty database; say what it is instead.
        std::error_code ec;
        if (std::filesystem::is_directory(options.catalogFile, ec))
            throw catalog::CatalogException(catalog::kErrorLoadingCatalog, fileText, String(L"it is a directory"));
        store = openStore(options.catalogFile, mode == OpenMode::kCreate);
    }
    keepFavoritesHistory(*store, options.historyVersions);
    return store;
}

AccountToken administratorToken() {
    return AccountToken(String(L"administrator"), {String(catalog::ManagedCatalog::ksAdministratorsGroup)});
}

FavoritesSession::FavoritesSession(const GlobalOptions& options, Intent intent, Manager manager) {
    if (options.user.empty())
        throw UsageError("this command acts for a user: give --user NAME (or set KIV_USER)");
    const String userName = itemNameArgument(options.user, "--user");
    m_favoritesPath = options.favoritesPath.empty() ? defaultFavoritesPath(userName)
                                                    : catalogPathArgument(options.favoritesPath, "--favorites");
    if (m_favoritesPath == catalog::Path(String(L"/")))
        throw UsageError("--favorites must name an object, not the root folder");

    m_catalog = openCatalog(options, OpenMode::kExisting);
    m_readBack = std::make_unique<ReadBackCatalog>(*m_catalog);
    m_user = m_catalog->tokenFor(userName);

    if (intent == Intent::kWrite) m_lock = m_catalog->lockForWriting(m_favoritesPath);
    if (manager == Manager::kNone) return;
    m_manager = openFavoritesManager(*m_readBack, m_user, m_favoritesPath, m_lock ? nullptr : m_catalog.get());
    const std::string problem = storedFavoritesProblem(*m_catalog, m_user, m_favoritesPath);
    if (!problem.empty())
        std::cerr << terminalText("favorites: warning: the stored favorites at " + m_favoritesPath.toUtf8() +
                                  " cannot be read (" + problem +
                                  "), so they show as empty and a change would store over them; 'favorites "
                                  "history' lists the versions kept and 'favorites restore N' puts one back")
                  << "\n";
}

}  // namespace kiv::tool
