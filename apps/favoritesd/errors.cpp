#include "errors.h"

#include <new>

#include "hosterrors.h"
#include "jsonwriter.h"
#include "qz/platform/exception.h"
#include "qz/platform/logger.h"
#include "qz/webcatalog/catalog.h"
#include "qz/webcatalog/itemname.h"
#include "qz/webfavorites/favoritesmanager.h"

namespace kiv::server {

using host::JsonWriter;

int httpStatusFor(favorites::ReturnCode code) noexcept {
    switch (code) {
        case favorites::kErrorItemAlreadyExists:
        case favorites::kErrorFavoritesOutOfSync: return 409;
        case favorites::kErrorItemNotFound:
        case favorites::kErrorItemDoesNotExitsInCatalog: return 404;
        case favorites::kInvalidItem:
        case favorites::kErrorItemCannotHaveChild:
        case favorites::kErrorInvalidFavoritesPath:
        case favorites::kErrorInvalidFavoritesJson: return 400;
        default: return 500;
    }
}

int httpStatusFor(catalog::ReturnCode code) noexcept {
    switch (code) {
        case catalog::kErrorAccessDenied:
        case catalog::kErrorLinkTargetAccessDenied:
        case catalog::kErrorPrivilegeDenied:
        case catalog::kErrorPrivilegeValidationFailed: return 403;
        case catalog::kErrorPathNotFound:
        case catalog::kErrorLinkTargetPathNotFound: return 404;
        case catalog::kErrorPathInvalid:
        case catalog::kErrorItemNameInvalid:
        case catalog::kErrorFolderExpected:
        case catalog::kErrorObjectExpected: return 400;
        case catalog::kErrorLocked: return 503;
        default: return 500;
    }
}

namespace {

HttpResponse errorResponse(int status, const char* source, std::int64_t code, std::string_view name,
                           std::string_view message, const std::string* path) {
    JsonWriter w;
    w.beginObject().key("error").beginObject();
    w.member("source", source).member("code", code).member("name", name).member("message", message);
    if (path) w.member("path", *path);
    w.endObject().endObject();
    HttpResponse r;
    r.status = status;
    r.body = w.str();
    return r;
}

}  // namespace

HttpResponse serverErrorResponse(int status, std::string_view name, std::string_view message) {
    return errorResponse(status, "server", status, name, message, nullptr);
}

HttpResponse favoritesErrorResponse(favorites::ReturnCode code, const std::string& arg) {
    String insert;
    try {
        insert = String::fromUtf8(arg);
    } catch (const Utf8Error&) {
    }
    const std::string message = FavoritesManager::errorCodeToMessage(code, insert).toText().toUtf8();
    return errorResponse(httpStatusFor(code), "favorites", code, favorites::returnCodeName(code), message, nullptr);
}

HttpResponse catalogErrorResponse(catalog::ReturnCode code, const std::string& path) {
    return errorResponse(httpStatusFor(code), "catalog", code, catalog::returnCodeName(code),
                         catalog::returnCodeDescription(code).toUtf8(), &path);
}

HttpResponse responseForCurrentException() {
    try {
        throw;
    } catch (const ApiError& e) {
        return serverErrorResponse(e.status(), e.name(), e.what());
    } catch (const FavoritesFailure& e) {
        return favoritesErrorResponse(e.code(), e.arg());
    } catch (const catalog::CatalogException& e) {
        return catalogErrorResponse(e.getCode(), e.getPath().toUtf8());
    } catch (const catalog::CatalogNameException& e) {
        return serverErrorResponse(400, "badRequest", std::string("invalid name or path: ") + e.what());
    } catch (const host::UsageError& e) {
        return serverErrorResponse(400, "badRequest", e.what());
    } catch (const host::InputError& e) {
        return serverErrorResponse(400, "badRequest", e.what());
    } catch (const Utf8Error& e) {
        return serverErrorResponse(400, "badRequest", std::string("text that is not valid UTF-8: ") + e.what());
    } catch (const std::bad_alloc&) {
        return serverErrorResponse(503, "unavailable", "the server ran out of memory for this request");
    } catch (const Exception& e) {
        return serverErrorResponse(500, "internalError", std::string("internal error: ") + e.what());
    } catch (const std::exception& e) {
        return serverErrorResponse(500, "internalError", std::string("internal error: ") + e.what());
    } catch (...) {
        return serverErrorResponse(500, "internalError", "internal error");
    }
}

}  // namespace kiv::server
