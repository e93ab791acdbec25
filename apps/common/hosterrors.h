// Failures of a host's input that are not the library's or the catalog's:
// the tool turns them into exit statuses, the server into 400 answers.
#pragma once

#include <stdexcept>

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

}  // namespace kiv::host
