// favorites: the command-line tool over the favorites library and the
// embedded SQLite catalog. See `favorites --help` and README.md.
//
// main() parses the command line, runs the chosen command and turns every
// failure into a message on standard error and an exit status (toolerrors.h);
// nothing escapes it.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <new>
#include <string>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "qz/platform/exception.h"
#include "qz/webcatalog/catalog.h"
#include "qz/webcatalog/itemname.h"
#include "qz/webfavorites/favoritesmanager.h"
#include "session.h"
#include "storeopen.h"
#include "textinput.h"
#include "toolerrors.h"

namespace kiv::tool {

void print(const std::string& text) { std::cout << terminalText(text, true); }
void printRaw(const std::string& bytes) { std::cout << bytes; }

namespace {

void error(const std::string& text) { std::cerr << "favorites: " << terminalText(text) << "\n"; }

// Reports a change the tool refused to store because the favorites it
// would have stored could not be read back; true when there was one.
bool refusedWrite() {
    const std::string why = ReadBackCatalog::takeRefusal();
    if (why.empty()) return false;
    error("the favorites were left as they were: the change would store favorites that cannot be read back (" +
          why + ")");
    return true;
}

int run(int argc, char** argv) {
    GlobalOptions options;
    CLI::App app("Keep users' favorites: categories of links to reports and dashboards of a catalog.\n"
                 "Favorites commands act as --user through the favorites library; 'catalog' commands\n"
                 "administer the catalog file. Options may stand before or after the command.",
                 "favorites");
    app.set_help_all_flag("--help-all", "Show the help of every command");
    // Parse errors quote the arguments: escape what a terminal would act on.
    app.failure_message([](const CLI::App* a, const CLI::Error& e) {
        return terminalText(CLI::FailureMessage::simple(a, e), true);
    });
    app.require_subcommand(1);
    app.fallthrough();
    app.add_option("--catalog", options.catalogFile, "Catalog file, or a PostgreSQL catalog as a postgresql:// connection URI (default: $KIV_CATALOG, else ./catalog.db)")
        ->envname("KIV_CATALOG");
    app.add_option("--user", options.user, "The user the favorites commands act as (default: $KIV_USER)")
        ->envname("KIV_USER");
    app.add_option("--favorites", options.favoritesPath,
                   "Catalog path of the favorites object (default: /users/USER/favorites)");
    app.add_flag("--json", options.json, "Machine-readable JSON output");
    app.add_option("--keep-versions", options.historyVersions,
                   "Earlier versions kept of each favorites object written (default: 20; 0 keeps none)");

    CommandSet commands;
    addFavoritesCommands(app, options, commands);
    addCatalogCommands(app, options, commands);
    app.footer(exitStatusHelp());

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return kExitUsage;
    }

    try {
        if (!commands.runParsed()) {
            std::cerr << app.help();
            return kExitUsage;
        }
        std::cout.flush();
        return std::cout.good() ? kExitOk : kExitInternalError;
    } catch (const UsageError& e) {
        error(e.what());
        error("run 'favorites --help' for usage");
        return kExitUsage;
    } catch (const InputError& e) {
        error(e.what());
        return kExitInputError;
    } catch (const FavoritesFailure& e) {
        String arg;
        try {
            arg = String::fromUtf8(e.arg());
        } catch (const Utf8Error&) {
        }
        error(FavoritesManager::errorCodeToMessage(e.code(), arg).toText().toUtf8() + " (" +
              favorites::returnCodeName(e.code()) + ")");
        if (refusedWrite()) return kExitInputError;
        return exitStatusFor(e.code());
    } catch (const catalog::CatalogException& e) {
        if (refusedWrite()) return kExitInputError;
        error(catalogFailureText(e, options.catalogFile));
        return kExitCatalogError;
    } catch (const catalog::CatalogNameException& e) {
        error(std::string("invalid name or path: ") + e.what());
        return kExitUsage;
    } catch (const Utf8Error& e) {
        error(std::string("text that is not valid UTF-8: ") + e.what());
        return kExitInputError;
    } catch (const Exception& e) {
        error(std::string("failed: ") + e.what());
        return kExitInternalError;
    } catch (const std::bad_alloc&) {
        error("out of memory");
        return kExitInternalError;
    } catch (const std::exception& e) {
        error(std::string("internal error: ") + e.what());
        return kExitInternalError;
    }
}

}  // namespace

}  // namespace kiv::tool

int main(int argc, char** argv) {
    try {
        return kiv::tool::run(argc, argv);
    } catch (...) {
        std::fputs("favorites: internal error\n", stderr);
        return kiv::tool::kExitInternalError;
    }
}
