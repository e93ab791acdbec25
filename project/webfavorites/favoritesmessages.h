// The favorites library's message identifiers. The texts live in the message
// file "favoritesmessages.xml", registered when the library is loaded.
#pragma once

#include "qz/platform/message.h"

namespace kiv {

extern const ExternalMessage kmsgFavoritesErrorFavoritesOutOfSync;
extern const ExternalMessage kmsgFavoritesErrorInvalidFavoritesJson;
extern const ExternalMessage kmsgFavoritesErrorInvalidFavoritesPath;
extern const ExternalMessage kmsgFavoritesErrorInvalidItem;
extern const ExternalMessage kmsgFavoritesErrorItemAlreadyExists;
extern const ExternalMessage kmsgFavoritesErrorItemCannotHaveChild;
extern const ExternalMessage kmsgFavoritesErrorItemDoesNotExitsInCatalog;
extern const ExternalMessage kmsgFavoritesErrorUnknownError;

}  // namespace kiv
