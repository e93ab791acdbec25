#include "toolerrors.h"

namespace kiv::tool {

std::string exitStatusHelp() {
    std::string text =
        "Exit status:\n"
        "  0   success\n"
        "  1   internal error\n"
        "  2   usage error (unknown command or option, malformed path or name, no --user)\n"
        "  3   catalog error (missing or corrupt catalog file, access denied, missing item, ...)\n"
        "  4   input error (unreadable file, text that is not UTF-8, rejected SOAP envelope)\n";
    const favorites::ReturnCode codes[] = {
        favorites::kErrorItemAlreadyExists, favorites::kInvalidItem,
        favorites::kErrorFavoritesOutOfSync, favorites::kErrorItemCannotHaveChild,
        favorites::kErrorItemNotFound,       favorites::kErrorItemDoesNotExitsInCatalog,
        favorites::kErrorInvalidFavoritesPath, favorites::kErrorFavoritesCannotBeSaved,
        favorites::kErrorInvalidFavoritesJson,
    };
    for (favorites::ReturnCode code : codes) {
        std::string line = "  " + std::to_string(exitStatusFor(code));
        line.resize(6, ' ');
        text += line + favorites::returnCodeName(code) + "\n";
    }
    return text;
}

}  // namespace kiv::tool
