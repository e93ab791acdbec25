// Failures of the favorites tool and the exit status each one ends with.
//
// Commands report failures by throwing one of the exceptions below; main()
// turns each into a message on standard error and its exit status. Failures
// of the catalog arrive as catalog::CatalogException and map to
// kExitCatalogError; a favorites return code other than kSuccess maps to
// kExitFavoritesBase + code, so that every code has a status of its own.
#pragma once

#include <stdexcept>
#include <string>

#include "hosterrors.h"
#include "qz/webfavorites/favoritestypes.h"

namespace kiv::tool {

enum ExitStatus : int {
    kExitOk = 0,
    kExitInternalError = 1,    // an unexpected failure
    kExitUsage = 2,            // bad command line: unknown option, bad path or name, missing --user
    kExitCatalogError = 3,     // the catalog refused or failed (missing or corrupt file, access denied, ...)
    kExitInputError = 4,       // an input file that cannot be read, is not UTF-8, or is not a SOAP envelope
    kExitFavoritesBase = 10,   // + favorites return code (kErrorItemAlreadyExists = 0 gives 10)
};

// The exit status of a favorites return code other than kSuccess.
constexpr int exitStatusFor(favorites::ReturnCode code) noexcept { return kExitFavoritesBase + static_cast<int>(code); }

// The list of exit statuses shown at the end of the tool's --help.
std::string exitStatusHelp();

// A bad command line that the option parser cannot see (a malformed path, a
// missing user, text that is not UTF-8), and an input file that cannot be used.
using host::InputError;
using host::UsageError;

// A favorites operation answered a code other than kSuccess.
using host::FavoritesFailure;

}  // namespace kiv::tool
