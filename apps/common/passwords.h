// Password hashes: Argon2id through libsodium, in its self-describing text
// form ("$argon2id$v=19$m=...,t=...,p=...$salt$hash"), which is what the
// catalog stores with a user.
//
// Thread safety: both functions may be called from any thread. Hashing and
// verifying cost tens of milliseconds and 64 MiB of memory by design; hosts
// call them off their I/O threads and remember a verified password for a
// while instead of verifying it on every request.
#pragma once

#include <string>
#include <string_view>

namespace kiv::host {

// The Argon2id hash of `password` (interactive cost). Raises
// std::runtime_error when libsodium cannot be initialised or runs out of memory.
std::string hashPassword(std::string_view password);

// Whether `password` matches `hash`; false for an empty or malformed hash.
bool verifyPassword(const std::string& hash, std::string_view password);

}  // namespace kiv::host
