// Item types and return codes of the favorites library.
//
// Note that favorites::kSuccess is 1 and the first value, 0, is an error
// (kErrorItemAlreadyExists): compare results with the named codes, never use
// them as truth values.
//
// The code kErrorItemDoesNotExitsInCatalog is spelled as it is on purpose: the
// name is part of the library's interface (hosts show it, see returnCodeName)
// and must not be corrected.
//
// Thread rule: constants and functions of them only; callable from any thread.
#pragma once

#include "qz/platform/export.h"

#include <cstdint>

namespace kiv::favorites {

enum EItemType : std::int32_t {
    kCatalogObject = 0,
    kCategory = 1,
};

enum ReturnCode : std::int32_t {
    kErrorItemAlreadyExists = 0,
    kSuccess = 1,
    kInvalidItem = 2,
    kErrorFavoritesOutOfSync = 3,
    kErrorItemCannotHaveChild = 4,
    kErrorItemNotFound = 5,
    kErrorItemDoesNotExitsInCatalog = 6,
    kErrorInvalidFavoritesPath = 7,
    kErrorFavoritesCannotBeSaved = 8,
    kErrorInvalidFavoritesJson = 9,
};

// The code's name, such as "kErrorItemNotFound"; "unknown" for other values.
KIV_API const char* returnCodeName(int code) noexcept;

}  // namespace kiv::favorites
