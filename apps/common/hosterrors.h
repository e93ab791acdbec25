// Failures the hosts (the tool and the server) report: bad input, which the
// tool turns into exit statuses and the server into 400 answers, and a
// favorites code other than kSuccess.
#pragma once

#include <stdexcept>
#include <string>

#include "qz/platform/string.h"
#include "qz/webfavorites/favoritestypes.h"

namespace kiv::host {

// A bad argument or parameter: a malformed path or name, a missing user,
// text that is not UTF-8.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// An input (a file, a request body) that cannot be used.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A favorites operation answered a code other than kSuccess; `arg` is the
// insert of its message (a path or a name), in UTF-8.
class FavoritesFailure : public std::exception {
public:
    FavoritesFailure(favorites::ReturnCode code, std::string arg) : m_code(code), m_arg(std::move(arg)) {}
    favorites::ReturnCode code() const noexcept { return m_code; }
    const std::string& arg() const noexcept { return m_arg; }
    const char* what() const noexcept override { return favorites::returnCodeName(m_code); }

private:
    favorites::ReturnCode m_code;
    std::string m_arg;
};

// Raises FavoritesFailure for a code other than kSuccess; `arg` is the insert
// of its message.
inline void checkFavorites(favorites::ReturnCode rc, const String& arg) {
    if (rc != favorites::kSuccess) throw FavoritesFailure(rc, arg.toUtf8());
}

}  // namespace kiv::host
