#include "oper/session_mappings.h"

#include <gtest/gtest.h>

TEST(session_mappings_test, names_have_their_numbers) {
    EXPECT_EQ(authen_type_of("password"), 0);
    EXPECT_EQ(authen_type_of("key-intr"), 2);
    EXPECT_EQ(authen_type_of("x509-ecdsa256-pubkey"), 7);
    EXPECT_EQ(kex_name_of("diffie-hellman-group1-sha1"), 0);
    EXPECT_EQ(kex_name_of("ecdh-sha2-nistp256"), 6);
    EXPECT_EQ(kex_name_of("curve25519-sha256"), 9);
    EXPECT_EQ(kex_name_of("diffie-hellman-group16-sha512"), 11);
    EXPECT_EQ(kex_name_of("curve25519-sha256@libssh.org"), 12);
    EXPECT_EQ(hostkey_type_of("ssh-dss"), 0);
    EXPECT_EQ(hostkey_type_of("ssh-ed25519"), 5);
    EXPECT_EQ(hostkey_type_of("rsa-sha2-256"), 8);
    EXPECT_EQ(cipher_type_of("3des-cbc"), 3);
    EXPECT_EQ(cipher_type_of("aes256-gcm@openssh.com"), 8);
    EXPECT_EQ(cipher_type_of("chacha20-poly1305@openssh.com"), 9);
    EXPECT_EQ(mac_type_of("hmac-md5"), 0);
    EXPECT_EQ(mac_type_of("aes-gcm"), 4);
}

TEST(session_mappings_test, a_name_that_is_not_known_exactly_is_minus_one) {
    EXPECT_EQ(authen_type_of("passwor"), -1);
    EXPECT_EQ(kex_name_of("curve25519-sha256 "), -1);
    EXPECT_EQ(hostkey_type_of(""), -1);
    EXPECT_EQ(cipher_type_of("AES128-ctr"), -1);
    EXPECT_EQ(mac_type_of("hmac-sha2-512-etm@openssh.com"), -1);
}
