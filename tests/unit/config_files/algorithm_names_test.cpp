#include "config_files/algorithm_names.h"

#include <gtest/gtest.h>

#include <string>

#include "golden.h"

TEST(algorithm_names_test, every_list) {
    const struct {
        const char* name;
        const char* list;
    } lists[] = {{"ciphers", default_cipher_list},
                 {"macs", default_mac_list},
                 {"key exchanges", default_kex_list},
                 {"host-key algorithms of the server", default_server_host_key_algorithms},
                 {"host-key algorithms of the client", default_client_host_key_algorithms},
                 {"host keys", default_host_keys},
                 {"ciphers in FIPS mode", fips_cipher_list},
                 {"key exchanges in FIPS mode", fips_kex_list},
                 {"host-key algorithms in FIPS mode", fips_host_key_algorithms},
                 {"host keys in FIPS mode", fips_host_keys},
                 {"legacy ciphers", legacy_aes_ciphers},
                 {"accepted algorithms", default_accepted_algorithms}};
    std::string text;
    for (const auto& [name, list] : lists) {
        text += std::string(name) + ": " + list + '\n';
    }
    expect_golden("config_files/golden/algorithm_names", text);
}

TEST(algorithm_names_test, names_are_composed_with_commas_and_an_ending) {
    const composed_list list = compose::fips_names(algorithm_kind::kex, algorithm_fips::refused, " are refused");
    EXPECT_STREQ(list.text, "curve25519-sha256,curve25519-sha256@libssh.org are refused");
}
