#include "oper/session_mappings.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

/// One mapping and its names in the order of their numbers.
struct mapping_case {
    const char* name;
    int32_t (*number_of)(std::string_view name);
    std::vector<std::string> names;
};

const mapping_case cases[] = {
    {"authen_type",
     authen_type_of,
     {"password", "rsa-pubkey", "key-intr", "x509-rsa-pubkey", "x509-dsa-pubkey", "x509-ecdsa521-pubkey",
      "x509-ecdsa384-pubkey", "x509-ecdsa256-pubkey"}},
    {"kex_name",
     kex_name_of,
     {"diffie-hellman-group1-sha1", "diffie-hellman-group14-sha1", "diffie-hellman-group15-sha1",
      "diffie-hellman-group16-sha1", "diffie-hellman-group17-sha1", "diffie-hellman-group18-sha1", "ecdh-sha2-nistp256",
      "ecdh-sha2-nistp384", "ecdh-sha2-nistp521", "curve25519-sha256", "diffie-hellman-group14-sha256",
      "diffie-hellman-group16-sha512", "curve25519-sha256@libssh.org"}},
    {"hostkey_type",
     hostkey_type_of,
     {"ssh-dss", "ssh-rsa", "ecdsa-sha2-nistp521", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp256", "ssh-ed25519",
      "x509v3-ssh-rsa", "rsa-sha2-512", "rsa-sha2-256"}},
    {"cipher_type",
     cipher_type_of,
     {"aes128-cbc", "aes192-cbc", "aes256-cbc", "3des-cbc", "aes128-ctr", "aes192-ctr", "aes256-ctr",
      "aes128-gcm@openssh.com", "aes256-gcm@openssh.com", "chacha20-poly1305@openssh.com"}},
    {"mac_type", mac_type_of, {"hmac-md5", "hmac-sha1", "hmac-sha2-256", "hmac-sha2-512", "aes-gcm"}},
};

class session_mappings_test : public testing::TestWithParam<mapping_case> {};

INSTANTIATE_TEST_SUITE_P(mappings, session_mappings_test, testing::ValuesIn(cases),
                         [](const auto& mapping) { return std::string(mapping.param.name); });

}  // namespace

TEST_P(session_mappings_test, a_name_has_its_number) {
    int32_t number = 0;
    for (const std::string& name : GetParam().names) {
        EXPECT_EQ(GetParam().number_of(name), number++) << name;
    }
}

TEST_P(session_mappings_test, a_name_that_is_not_known_exactly_is_minus_one) {
    for (const std::string& name : GetParam().names) {
        for (const std::string& other : {name + ' ', ' ' + name, name.substr(1), name.substr(0, name.size() - 1)}) {
            EXPECT_EQ(GetParam().number_of(other), -1) << other;
        }
    }
    EXPECT_EQ(GetParam().number_of(""), -1);
    EXPECT_EQ(GetParam().number_of("none"), -1);
}
