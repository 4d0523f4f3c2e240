#include "fips/fips_verifier.h"

#include "../algorithm_test.h"
#include "call_faults.h"

namespace {

using fake_platform::commit_result;
using fake_platform::set_number;
using testing::ElementsAre;

class fips_verifier_test : public algorithm_test {
  protected:
    fips_verifier_test() { start(); }

    static void expect_refused(const std::string& text, platform_status status = EINVAL) {
        const std::string before = both_files();
        const auto result = fake_platform::commit(set_number(fips_item, 1));
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.error_text, text);
        EXPECT_FALSE(fake_platform::stored(fips_item).has_value());
        EXPECT_EQ(both_files(), before);
    }
};

TEST_F(fips_verifier_test, of_each_default_list_something_remains) {
    commit_ok(set_number(fips_item, 1));
}

TEST_F(fips_verifier_test, a_key_exchange_list_that_would_become_empty_is_refused) {
    for (const side_case& side : {server_case, client_case}) {
        commit_ok(kex_change(side, {"curve25519-sha256", "curve25519-sha256@libssh.org"}));
        expect_refused("curve25519-sha256,curve25519-sha256@libssh.org are not allowed in FIPS mode.");
        commit_ok(kex_change(side, {"curve25519-sha256", "ecdh-sha2-nistp256"}));
    }
    commit_ok(set_number(fips_item, 1));
}

TEST_F(fips_verifier_test, a_cipher_list_that_would_become_empty_is_refused) {
    for (const side_case& side : {server_case, client_case}) {
        commit_ok(cipher_change(side, {"chacha20-poly1305@openssh.com"}));
        expect_refused("chacha20-poly1305@openssh.com is not allowed in FIPS mode.");
        commit_ok(fake_platform::remove(cipher_change(side, {}).path));
    }
}

TEST_F(fips_verifier_test, host_keys_that_would_become_empty_are_refused) {
    commit_ok(host_key_change({0, 0, 0, 0, 1, 1, 1, 0, 0, 1}));
    expect_refused("DSA, RSA(ssh-rsa), X509 and ED25519 are not allowed in FIPS mode.");
    commit_ok(host_key_change({0, 0, 0, 0, 1, 1, 1, 0, 1, 1}));
    commit_ok(set_number(fips_item, 1));
}

TEST_F(fips_verifier_test, enabled_legacy_ciphers_count_as_remaining) {
    commit_ok(cipher_change(server_case, {"chacha20-poly1305@openssh.com"}));
    commit_ok(legacy_change(server_case, {1, 0}));
    commit_ok(set_number(fips_item, 1));
}

struct missing_list {
    const algorithm_entry* entry;
    const char* text;
    const char* message;
};

const missing_list missing_lists[] = {
    {&server_config.algorithms[SERVER_KEX_ALGORITHMS], "failed to get modified kex list in FIPS mode",
     "ERR_GENERAL: Failed to get modified kex list in FIPS mode"},
    {&client_config.algorithms[CLIENT_KEX_ALGORITHMS], "failed to get modified kex list in FIPS mode",
     "ERR_GENERAL: Failed to get modified kex list in FIPS mode"},
    {&server_config.algorithms[SERVER_CIPHERS], "failed to get modified cipher list in FIPS mode",
     "ERR_GENERAL: Failed to get modified cipher list in FIPS mode"},
    {&client_config.algorithms[CLIENT_CIPHERS], "failed to get modified cipher list in FIPS mode",
     "ERR_GENERAL: Failed to get modified cipher list in FIPS mode"},
    {&server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS], "failed to get modified host-key list in FIPS mode",
     "ERR_GENERAL: Failed to get modified host-key list in FIPS mode"},
    {&client_config.algorithms[CLIENT_HOST_KEY_ALGORITHMS], "failed to get modified host-key list in FIPS mode",
     "ERR_GENERAL: Failed to get modified host-key list in FIPS mode"},
};

TEST_F(fips_verifier_test, a_list_that_cannot_be_filtered_is_refused) {
    for (const missing_list& row : missing_lists) {
        auto* entry = const_cast<algorithm_entry*>(row.entry);
        const char* const current = entry->current;
        entry->current = "";
        forget();
        expect_refused(row.text);
        EXPECT_EQ(fake_platform::log_texts().front(), row.message);
        entry->current = current;
    }
}

struct exhausted_memory {
    const char* text;
    const char* message;
};

const exhausted_memory exhausted[] = {
    {"memory allocate failed to check kex algorithm in FIPS mode",
     "ERR_ERRNO: Error:=Cannot allocate memory(0xc), Failed to allocate memory to check kex algorithm in FIPS mode"},
    {"memory allocate failed to check cipher in FIPS mode",
     "ERR_ERRNO: Error:=Cannot allocate memory(0xc), Failed to allocate memory to check cipher in FIPS mode"},
    {"memory allocate failed to check host-key algorithm in FIPS mode",
     "ERR_ERRNO: Error:=Cannot allocate memory(0xc), Failed to allocate memory to check host-key algorithm in FIPS "
     "mode"},
};

TEST_F(fips_verifier_test, exhausted_memory_is_refused) {
    for (uint32_t list = 0; list < 6; list++) {
        forget();
        call_faults::clear();
        call_faults::fail_call("_ZnwmRKSt9nothrow_t", ENOMEM, call_faults::once, list + 1);
        expect_refused(exhausted[list / 2].text, ENOMEM);
        EXPECT_EQ(fake_platform::log_texts().front(), exhausted[list / 2].message);
    }
}

TEST_F(fips_verifier_test, only_the_creation_is_checked) {
    commit_ok(set_number(fips_item, 1));
    server_config.algorithms[SERVER_CIPHERS].current = "chacha20-poly1305@openssh.com";
    commit_ok(set_number(fips_item, 0));
    commit_ok(fake_platform::remove(fips_item));
}

}  // namespace
