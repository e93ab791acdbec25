#include "favoritesmessages.h"

namespace kiv {

namespace {
// Registers the message file before the message objects below are made (the
// objects of one source file are initialised in order).
const bool s_bMessagesRegistered = [] {
    MessageFilesRegistry::getRegistry().registerMessageFiles(String(L"favoritesmessages.xml"));
    return true;
}();
}  // namespace

const ExternalMessage kmsgFavoritesErrorFavoritesOutOfSync(String(L"kmsgFavoritesErrorFavoritesOutOfSync"), 0);
const ExternalMessage kmsgFavoritesErrorInvalidFavoritesJson(String(L"kmsgFavoritesErrorInvalidFavoritesJson"), 0);
const ExternalMessage kmsgFavoritesErrorInvalidFavoritesPath(String(L"kmsgFavoritesErrorInvalidFavoritesPath"), 0);
const ExternalMessage kmsgFavoritesErrorInvalidItem(String(L"kmsgFavoritesErrorInvalidItem"), 0);
const ExternalMessage kmsgFavoritesErrorItemAlreadyExists(String(L"kmsgFavoritesErrorItemAlreadyExists"), 0);
const ExternalMessage kmsgFavoritesErrorItemCannotHaveChild(String(L"kmsgFavoritesErrorItemCannotHaveChild"), 0);
const ExternalMessage kmsgFavoritesErrorItemDoesNotExitsInCatalog(String(L"kmsgFavoritesErrorItemDoesNotExitsInCatalog"), 0);
const ExternalMessage kmsgFavoritesErrorUnknownError(String(L"kmsgFavoritesErrorUnknownError"), 0);

}  // namespace kiv
