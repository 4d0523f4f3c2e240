#include "fips/list_filter.h"

#include <cstring>

#include "../account.h"
#include "../algorithm_test.h"
#include "call_faults.h"
#include "config_files/algorithm_names.h"

namespace {

using testing::Contains;
using testing::ElementsAre;

class list_filter_test : public algorithm_test {
  protected:
    list_filter_test() { fake_platform::preset_debug_flag(debug_cfg_agent, true); }

    /// The result of a filter; the byte after it must not be written.
    static std::string filtered(list_filter_function filter, const std::string& list) {
        struct {
            modified_list result;
            char guard;
        } out = {{"untouched"}, 'g'};
        EXPECT_EQ(filter(list.c_str(), out.result.text), 0);
        EXPECT_EQ(out.guard, 'g');
        return out.result.text;
    }
    static std::string kex(const std::string& list) { return filtered(get_modified_kex_list, list); }
    static std::string cipher(const std::string& list) { return filtered(get_modified_cipher_list, list); }
    static std::string host_key(const std::string& list) { return filtered(get_modified_hostkey_list, list); }

    static std::string repeated(size_t count, const std::string& name) {
        std::string list;
        for (size_t i = 0; i < count; i++) {
            list += (i > 0 ? "," : "") + name;
        }
        return list;
    }
};

TEST_F(list_filter_test, the_remaining_list_ends_with_a_comma) {
    EXPECT_EQ(kex("curve25519-sha256,ecdh-sha2-nistp256"), "ecdh-sha2-nistp256,");
    EXPECT_EQ(kex("ecdh-sha2-nistp256"), "ecdh-sha2-nistp256,");
    EXPECT_EQ(cipher("chacha20-poly1305@openssh.com,aes128-ctr,aes128-cbc"), "aes128-ctr,aes128-cbc,");
    EXPECT_EQ(host_key("x509v3-ssh-rsa,ssh-ed25519,rsa-sha2-256"), "rsa-sha2-256,");
}

TEST_F(list_filter_test, the_defaults_lose_algorithms_that_fips_mode_forbids) {
    EXPECT_EQ(kex(default_kex_list), std::string(fips_kex_list) + ",");
    EXPECT_EQ(cipher(default_cipher_list), std::string(fips_cipher_list) + ",");
    EXPECT_EQ(host_key(default_server_host_key_algorithms),
              "ecdsa-sha2-nistp256,ecdsa-sha2-nistp384,ecdsa-sha2-nistp521,rsa-sha2-512,rsa-sha2-256,");
}

TEST_F(list_filter_test, nothing_may_remain) {
    EXPECT_EQ(kex("curve25519-sha256,curve25519-sha256@libssh.org"), "");
    EXPECT_EQ(cipher("chacha20-poly1305@openssh.com"), "");
    EXPECT_EQ(host_key("ssh-dss,ssh-ed25519,ssh-rsa,x509v3-ssh-rsa"), "");
    EXPECT_TRUE(fake_platform::debugged("HostKey algo list empty. "));
}

TEST_F(list_filter_test, names_are_matched_by_prefix) {
    EXPECT_EQ(kex("curve25519-sha256-new,curve25519-sha25"), "curve25519-sha25,");
    EXPECT_EQ(cipher("chacha20-poly1305@openssh.com.x,chacha20-poly1305@openssh.co"), "chacha20-poly1305@openssh.co,");
    EXPECT_EQ(host_key("ssh-rsa-cert,ssh-dss2,xssh-rsa,ssh-rs"), "xssh-rsa,ssh-rs,");
}

TEST_F(list_filter_test, legacy_algorithms_are_kept) {
    EXPECT_EQ(kex("diffie-hellman-group1-sha1,diffie-hellman-group14-sha1"),
              "diffie-hellman-group1-sha1,diffie-hellman-group14-sha1,");
    EXPECT_EQ(cipher("aes128-cbc,3des-cbc"), "aes128-cbc,3des-cbc,");
}

TEST_F(list_filter_test, a_trailing_comma_is_not_a_name) {
    EXPECT_EQ(kex("ecdh-sha2-nistp256,"), "ecdh-sha2-nistp256,");
    EXPECT_EQ(kex(",,ecdh-sha2-nistp256,,ecdh-sha2-nistp384,,"), "ecdh-sha2-nistp256,ecdh-sha2-nistp384,");
}

TEST_F(list_filter_test, a_list_may_be_filtered_in_place) {
    modified_list list = {"curve25519-sha256,ecdh-sha2-nistp256"};
    EXPECT_EQ(get_modified_kex_list(list.text, list.text), 0);
    EXPECT_STREQ(list.text, "ecdh-sha2-nistp256,");
}

TEST_F(list_filter_test, a_missing_list_is_a_failure) {
    const struct {
        list_filter_function filter;
        const char* text;
    } rows[] = {
        {get_modified_kex_list, "get_modified_kex_list, Kexalgo list is empty"},
        {get_modified_cipher_list, "get_modified_cipher_list, Cipher algo list is empty"},
        {get_modified_hostkey_list, "get_modified_hostkey_list, HostKey algo list is empty"},
    };
    for (const auto& row : rows) {
        for (const char* list : {static_cast<const char*>(nullptr), ""}) {
            forget();
            modified_list out = {"untouched"};
            EXPECT_EQ(row.filter(list, out.text), -1);
            EXPECT_STREQ(out.text, "untouched");
            EXPECT_TRUE(fake_platform::debugged(row.text));
        }
    }
}

TEST_F(list_filter_test, prints_its_work_in_debug) {
    kex("ecdh-sha2-nistp256");
    cipher("aes128-ctr");
    host_key("rsa-sha2-256");
    EXPECT_THAT(
        fake_platform::debug_texts(),
        ElementsAre("Inside Get Modified kex list", "get_modified_kex_list: New kexalgo list is ecdh-sha2-nistp256,",
                    "Inside Get Modified Cipher list", "get_modified_cipher_list: New Cipher algo list is aes128-ctr,",
                    "Inside get_modified_hostkey_list",
                    "get_modified_hostkey_list, New Hostkey algo list is rsa-sha2-256,"));
}

TEST_F(list_filter_test, a_name_is_truncated_to_its_slot) {
    EXPECT_EQ(kex(std::string(39, 'k')), std::string(39, 'k') + ",");
    EXPECT_EQ(kex(std::string(40, 'k')), std::string(39, 'k') + ",");
    EXPECT_EQ(cipher(std::string(39, 'c')), std::string(39, 'c') + ",");
    EXPECT_EQ(cipher(std::string(40, 'c')), std::string(39, 'c') + ",");
    EXPECT_EQ(host_key(std::string(29, 'h')), std::string(29, 'h') + ",");
    EXPECT_EQ(host_key(std::string(30, 'h')), std::string(29, 'h') + ",");
}

TEST_F(list_filter_test, names_after_the_last_slot_are_dropped) {
    EXPECT_EQ(kex(repeated(9, "k")), repeated(9, "k") + ",");
    EXPECT_EQ(kex(repeated(10, "k")), repeated(9, "k") + ",");
    EXPECT_EQ(cipher(repeated(10, "c")), repeated(10, "c") + ",");
    EXPECT_EQ(cipher(repeated(11, "c")), repeated(10, "c") + ",");
    EXPECT_EQ(host_key(repeated(10, "h")), repeated(10, "h") + ",");
    EXPECT_EQ(host_key(repeated(11, "h")), repeated(10, "h") + ",");
}

TEST_F(list_filter_test, the_result_is_truncated_to_its_buffer) {
    // Seven names of 30 characters and one for the remaining space, each with its comma.
    const std::string seven = repeated(7, std::string(30, 'k')) + ",";
    EXPECT_EQ(kex(seven + std::string(36, 'e')).size(), 254u);
    EXPECT_EQ(kex(seven + std::string(36, 'e')), seven + std::string(36, 'e') + ",");
    EXPECT_EQ(kex(seven + std::string(37, 'e')), seven + std::string(37, 'e'));
    EXPECT_EQ(cipher(repeated(10, std::string(39, 'c'))).size(), 254u);
}

// --- Host-key files --------------------------------------------------------------------------------------------------

TEST_F(list_filter_test, files_are_in_the_order_of_the_list) {
    EXPECT_EQ(fips_hostkey_files_from_list("ssh-ed25519,ecdsa-sha2-nistp521,ecdsa-sha2-nistp384,ecdsa-sha2-nistp256,"
                                           "ssh-rsa"),
              0);
    EXPECT_STREQ(fips_hostkey_files,
                 "/pkg/ed25519,/pkg/ecdsa-sha2-nistp521,/pkg/ecdsa-sha2-nistp384,/pkg/ecdsa-sha2-nistp256,/pkg/rsa");
    EXPECT_EQ(fips_hostkey_files_from_list("rsa-sha2-256,"), 0);
    EXPECT_STREQ(fips_hostkey_files, "/pkg/rsa");
}

TEST_F(list_filter_test, a_repeated_algorithm_repeats_its_file) {
    EXPECT_EQ(fips_hostkey_files_from_list("rsa-sha2-512,rsa-sha2-256"), 0);
    EXPECT_STREQ(fips_hostkey_files, "/pkg/rsa,/pkg/rsa");
}

TEST_F(list_filter_test, the_dsa_key_file_has_another_name) {
    EXPECT_EQ(fips_hostkey_files_from_list("ssh-dss,ssh-rsa"), 0);
    EXPECT_STREQ(fips_hostkey_files, "/pkg/rsa");
    EXPECT_TRUE(fake_platform::debugged("hostkeyalgo:=ssh-dss, no correspondinghostkey file present"));
    EXPECT_EQ(fips_hostkey_files_from_list("ssh-dsa"), 0);
    EXPECT_STREQ(fips_hostkey_files, "/pkg/dsa");
}

TEST_F(list_filter_test, a_missing_list_gives_no_files) {
    EXPECT_EQ(fips_hostkey_files_from_list("ssh-rsa"), 0);
    EXPECT_EQ(fips_hostkey_files_from_list(nullptr), 0);
    EXPECT_STREQ(fips_hostkey_files, "");
    EXPECT_TRUE(fake_platform::debugged("HostKey is empty. So setting files  to be empty as well"));
}

TEST_F(list_filter_test, a_list_without_any_file_is_a_failure) {
    for (const char* list : {"", ",", "ssh-dss,x509v3-ssh-rsa"}) {
        forget();
        EXPECT_EQ(fips_hostkey_files_from_list(list), -1);
        EXPECT_THAT(fake_platform::log_texts(), ElementsAre("ERR_GENERAL: host key file list is empty"));
    }
}

TEST_F(list_filter_test, exhausted_memory_is_a_failure) {
    call_faults::fail_call("strdup", ENOMEM, call_faults::once);
    EXPECT_EQ(fips_hostkey_files_from_list("ssh-rsa"), -1);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=Cannot allocate memory(0xc), memory allocation failure"));
}

TEST_F(list_filter_test, the_files_are_truncated_to_their_buffer) {
    // Eight times 25 characters; the ninth does not fit completely.
    EXPECT_EQ(fips_hostkey_files_from_list(repeated(8, "ecdsa-sha2-nistp256").c_str()), 0);
    EXPECT_EQ(std::string(fips_hostkey_files), repeated(8, "/pkg/ecdsa-sha2-nistp256"));
    EXPECT_EQ(fips_hostkey_files_from_list(repeated(9, "ecdsa-sha2-nistp256").c_str()), 0);
    EXPECT_EQ(std::string(fips_hostkey_files), repeated(9, "/pkg/ecdsa-sha2-nistp256").substr(0, 200));
    EXPECT_EQ(std::strlen(fips_hostkey_files), 200u);
}

// --- Everything that is reported --------------------------------------------------------------------------------------

TEST_F(list_filter_test, every_filter_accounts_for_every_list) {
    std::string text;
    account();
    for (const list_filter_function filter :
         {get_modified_kex_list, get_modified_cipher_list, get_modified_hostkey_list}) {
        for (const char* list :
             {static_cast<const char*>(nullptr), "", "none", "curve25519-sha256", "chacha20-poly1305@openssh.com",
              "ssh-ed25519", "none,aes256-ctr,curve25519-sha256,ssh-ed25519,chacha20-poly1305@openssh.com"}) {
            modified_list result = {"untouched"};
            const int status = filter(list, result.text);
            text += std::string("== ") + (list != nullptr ? list : "null") + ": " + std::to_string(status) + ' ' +
                    result.text + '\n' + account();
        }
    }
    call_faults::fail_call("allocation", ENOMEM);
    const int without_memory = fips_hostkey_files_from_list("rsa-sha2-512");
    text += "== files without memory: " + std::to_string(without_memory) + '\n' + account();
    call_faults::clear();
    for (const algorithm_row& row : algorithm_rows) {
        const int status = fips_hostkey_files_from_list(row.name);
        text += std::string("== file of ") + row.name + ": " + std::to_string(status) + ' ' + fips_hostkey_files +
                '\n' + account();
    }
    expect_golden("fips/golden/list_filter_account", text);
}

}  // namespace
