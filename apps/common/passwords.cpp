#include "passwords.h"

#include <sodium.h>

#include <stdexcept>

namespace kiv::host {

namespace {

void initialise() {
    // sodium_init is thread-safe and answers 1 once it has already run.
    static const int rc = sodium_init();
    if (rc < 0) throw std::runtime_error("libsodium could not be initialised");
}

}  // namespace

std::string hashPassword(std::string_view password) {
    initialise();
    char out[crypto_pwhash_STRBYTES];
    if (crypto_pwhash_str_alg(out, password.data(), password.size(), crypto_pwhash_OPSLIMIT_INTERACTIVE,
                              crypto_pwhash_MEMLIMIT_INTERACTIVE, crypto_pwhash_ALG_ARGON2ID13) != 0)
        throw std::runtime_error("out of memory while hashing a password");
    return std::string(out);
}

bool verifyPassword(const std::string& hash, std::string_view password) {
    initialise();
    if (hash.empty() || hash.size() >= crypto_pwhash_STRBYTES) return false;
    return crypto_pwhash_str_verify(hash.c_str(), password.data(), password.size()) == 0;
}

}  // namespace kiv::host
