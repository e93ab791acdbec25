#include "passwords.h"

#include <gtest/gtest.h>

namespace kiv::host {
namespace {

TEST(PasswordsTest, AHashIsArgon2idAndVerifiesItsPasswordOnly) {
    const std::string hash = hashPassword("correct horse");
    EXPECT_EQ(hash.rfind("$argon2id$", 0), 0u) << hash;
    EXPECT_TRUE(verifyPassword(hash, "correct horse"));
    EXPECT_FALSE(verifyPassword(hash, "correct horsE"));
    EXPECT_FALSE(verifyPassword(hash, ""));
}

TEST(PasswordsTest, TwoHashesOfOnePasswordDifferByTheirSalt) {
    EXPECT_NE(hashPassword("x"), hashPassword("x"));
}

TEST(PasswordsTest, AnEmptyOrMalformedHashVerifiesNothing) {
    EXPECT_FALSE(verifyPassword("", ""));
    EXPECT_FALSE(verifyPassword("$argon2id$garbage", "garbage"));
    EXPECT_FALSE(verifyPassword(std::string(500, 'a'), "a"));
}

TEST(PasswordsTest, PasswordsWithNulAndNonAsciiBytesAreHashedWhole) {
    const std::string pw("a\0b\xc3\xa9", 5);
    const std::string hash = hashPassword(pw);
    EXPECT_TRUE(verifyPassword(hash, pw));
    EXPECT_FALSE(verifyPassword(hash, std::string_view("a", 1)));
}

}  // namespace
}  // namespace kiv::host
