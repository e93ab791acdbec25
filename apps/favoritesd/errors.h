// Errors as clients see them: one JSON shape for every failure,
//   {"error":{"source":S,"code":N,"name":NAME,"message":TEXT[,"path":P]}}
// and one table from codes to HTTP statuses.
//
//   source "favorites"  a favorites::ReturnCode; the message is the library's
//   source "catalog"    a catalog::ReturnCode; path names the item
//   source "server"     a failure of the request itself; code is the status
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "hosterrors.h"
#include "http.h"
#include "qz/webcatalog/returncode.h"
#include "qz/webfavorites/favoritestypes.h"

namespace kiv::server {

// The HTTP status of a favorites code other than kSuccess.
int httpStatusFor(favorites::ReturnCode code) noexcept;
// The HTTP status of a catalog code other than kSuccess.
int httpStatusFor(catalog::ReturnCode code) noexcept;

// A failure of the request itself, raised by handlers.
class ApiError : public std::runtime_error {
public:
    ApiError(int status, std::string name, const std::string& message)
        : std::runtime_error(message), m_status(status), m_name(std::move(name)) {}
    int status() const noexcept { return m_status; }
    const std::string& name() const noexcept { return m_name; }

private:
    int m_status;
    std::string m_name;
};

// A favorites operation answered a code other than kSuccess.
using host::FavoritesFailure;

HttpResponse serverErrorResponse(int status, std::string_view name, std::string_view message);
HttpResponse favoritesErrorResponse(favorites::ReturnCode code, const std::string& arg);
HttpResponse catalogErrorResponse(catalog::ReturnCode code, const std::string& path);

// The response for the exception being handled (call inside a catch block):
// ApiError, FavoritesFailure, CatalogException, the hosts' UsageError and
// InputError (400), UTF-8 errors (400); anything else is 500.
HttpResponse responseForCurrentException();

}  // namespace kiv::server
