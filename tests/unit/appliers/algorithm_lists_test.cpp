#include "appliers/algorithm_lists.h"

#include <string_view>

#include "../algorithm_test.h"
#include "appliers/algorithm_side.h"
#include "call_faults.h"
#include "config_files/algorithm_names.h"

namespace {

using fake_platform::remove;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

class algorithm_lists_test : public algorithm_side_test {
  protected:
    algorithm_lists_test() { start(); }

    static const algorithm_side& state() {
        return side().name == std::string_view("server") ? server_side : client_side;
    }
    static bool is_server() { return &state() == &server_side; }

    static fake_platform::change kex(const names& fields) { return kex_change(side(), fields); }
    static fake_platform::change cipher(const names& fields) { return cipher_change(side(), fields); }
    static fake_platform::change legacy(const names& fields) { return legacy_change(side(), fields); }

    /// The status that the applier returned; the change remains stored.
    static platform_status failure_of(const fake_platform::change& change) {
        const auto result = fake_platform::commit(change);
        EXPECT_EQ(result.status, PLATFORM_OK);
        return result.failures.empty() ? PLATFORM_OK : result.failures.front().status;
    }
};

FOR_BOTH_SIDES(algorithm_lists_test);

// --- Key exchange ----------------------------------------------------------------------------------------------------

TEST_P(algorithm_lists_test, key_exchanges_are_written_in_order) {
    commit_ok(kex({"diffie-hellman-group16-sha512", "ecdh-sha2-nistp256", "curve25519-sha256"}));
    EXPECT_EQ(line("KexAlgorithms"), "diffie-hellman-group16-sha512,ecdh-sha2-nistp256,curve25519-sha256");
    EXPECT_STREQ(state().kex->current, "diffie-hellman-group16-sha512,ecdh-sha2-nistp256,curve25519-sha256");
    EXPECT_TRUE(fake_platform::debugged(std::string("Event:=3, Config:=ssh ") + side().name + " algo kex"));
}

TEST_P(algorithm_lists_test, group1_is_dropped_with_a_message) {
    commit_ok(kex({"ecdh-sha2-nistp256", "diffie-hellman-group1-sha1"}));
    EXPECT_EQ(line("KexAlgorithms"), "ecdh-sha2-nistp256");
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_GENERAL: diffie-hellman-group1-sha1 is not supported, will be removed"));
    commit_ok(kex({"diffie-hellman-group1-sha1", "ecdh-sha2-nistp384"}));
    EXPECT_EQ(line("KexAlgorithms"), "ecdh-sha2-nistp384");
}

TEST_P(algorithm_lists_test, removing_the_key_exchange_item_restores_the_default) {
    commit_ok(kex({"ecdh-sha2-nistp256"}));
    commit_ok(remove(kex({}).path));
    EXPECT_EQ(line("KexAlgorithms"), default_kex_list);
    EXPECT_STREQ(state().kex->current, default_kex_list);
}

TEST_P(algorithm_lists_test, removing_the_key_exchange_item_restores_the_fips_default) {
    turn_fips(true);
    commit_ok(kex({"ecdh-sha2-nistp256"}));
    commit_ok(remove(kex({}).path));
    EXPECT_EQ(line("KexAlgorithms"), fips_kex_list);
    EXPECT_STREQ(state().kex->current, default_kex_list);
    turn_fips(false);
    EXPECT_EQ(line("KexAlgorithms"), default_kex_list);
}

TEST_P(algorithm_lists_test, a_failed_fips_query_stops_the_removal_of_key_exchanges) {
    for (const char* operation : {fips_binding, fips_question}) {
        commit_ok(kex({"ecdh-sha2-nistp256"}));
        forget();
        fake_platform::fail(operation, EIO);
        EXPECT_EQ(failure_of(remove(kex({}).path)), 1u);
        EXPECT_EQ(line("KexAlgorithms"), "ecdh-sha2-nistp256");
        EXPECT_TRUE(fake_platform::debugged(
            is_server() ? "(sshd_apply_kexalgo) Failed to check fips mode  in sshd kexalgo applier"
                        : "(ssh_client_apply_kexalgo) Failed to check fips mode  in client kexalgo applier"));
        fake_platform::clear_failures();
    }
}

/// A value that the initial scan may deliver from an older version's configuration: no verifier has seen it.
platform_status apply(datastore_item_applier applier, const fake_platform::value& value) {
    const datastore_change change = {DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET, nullptr, value.bytes.data(), 0,
                                     value.bytes.size()};
    return applier(&change, nullptr);
}

datastore_item_applier kex_applier(bool is_server) {
    return is_server ? sshd_apply_kexalgo : ssh_client_apply_kexalgo;
}
datastore_item_applier cipher_applier(bool is_server) {
    return is_server ? sshd_apply_cipheralgo : ssh_client_apply_cipheralgo;
}

TEST_P(algorithm_lists_test, a_key_exchange_list_is_truncated_at_the_end_of_its_buffer) {
    // Five names of 40 characters and `last`, with commas.
    const auto list_of = [](size_t last) {
        names fields(5, std::string(40, 'k'));
        fields.emplace_back(std::string(last, 'e'));
        return kex_value(fields);
    };
    EXPECT_EQ(apply(kex_applier(is_server()), list_of(24)), PLATFORM_OK);
    EXPECT_EQ(line("KexAlgorithms").size(), 229u);
    EXPECT_THAT(line("KexAlgorithms"), HasSubstr("," + std::string(24, 'e')));
    EXPECT_EQ(apply(kex_applier(is_server()), list_of(25)), PLATFORM_OK);
    EXPECT_EQ(line("KexAlgorithms").size(), 229u);
}

TEST_P(algorithm_lists_test, a_cipher_list_is_truncated_at_the_end_of_its_buffer) {
    const auto list_of = [](size_t last) {
        names fields(4, std::string(40, 'c'));
        fields.emplace_back(std::string(last, 'e'));
        return cipher_value(fields);
    };
    EXPECT_EQ(apply(cipher_applier(is_server()), list_of(36)), PLATFORM_OK);
    EXPECT_EQ(line("Ciphers").size(), 200u);
    EXPECT_EQ(apply(cipher_applier(is_server()), list_of(37)), PLATFORM_OK);
    EXPECT_EQ(line("Ciphers").size(), 200u);
    // No space is left for the legacy ciphers.
    commit_ok(legacy({1, 0}));
    EXPECT_EQ(line("Ciphers").size(), 200u);
}

TEST_P(algorithm_lists_test, a_value_that_cannot_be_unpacked_changes_nothing) {
    const std::string before = both_files();
    const auto malformed = fake_platform::raw_tuple_value("x");
    EXPECT_EQ(apply(kex_applier(is_server()), malformed), PLATFORM_OK);
    EXPECT_EQ(apply(cipher_applier(is_server()), malformed), PLATFORM_OK);
    EXPECT_EQ(apply(is_server() ? sshd_apply_cipher : ssh_client_apply_cipher, malformed), PLATFORM_OK);
    EXPECT_EQ(both_files(), before);
    const std::string unpack_failure =
        std::string("ERR_DATASTORE_UNPACK: Error:=") + platform_status_text(TUPLE_MALFORMED) + "(0x40838200), Path:=";
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(unpack_failure + "KEX-ALGO-APPLY, Failed to unpack datastore item",
                            unpack_failure + "CIPHER-ALGO-APPLY, Failed to unpack datastore item",
                            unpack_failure + "ENABLE-CIPHER-APPLY, Failed to unpack datastore item"));
}

TEST_P(algorithm_lists_test, an_event_that_neither_sets_nor_deletes_changes_nothing) {
    const std::string before = both_files();
    const datastore_change change = {8, nullptr, nullptr, 0, 0};
    EXPECT_EQ(kex_applier(is_server())(&change, nullptr), PLATFORM_OK);
    EXPECT_EQ(cipher_applier(is_server())(&change, nullptr), PLATFORM_OK);
    EXPECT_EQ((is_server() ? sshd_apply_cipher : ssh_client_apply_cipher)(&change, nullptr), PLATFORM_OK);
    EXPECT_EQ(both_files(), before);
}

// --- Ciphers ---------------------------------------------------------------------------------------------------------

TEST_P(algorithm_lists_test, ciphers_are_written_in_order) {
    commit_ok(cipher({"aes256-gcm@openssh.com", "aes128-ctr"}));
    EXPECT_EQ(line("Ciphers"), "aes256-gcm@openssh.com,aes128-ctr");
    EXPECT_STREQ(state().ciphers->current, "aes256-gcm@openssh.com,aes128-ctr");
}

TEST_P(algorithm_lists_test, triple_des_is_dropped_with_a_message) {
    commit_ok(cipher({"3des-cbc", "aes128-ctr"}));
    EXPECT_EQ(line("Ciphers"), "aes128-ctr");
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre("ERR_GENERAL: 3des-cbc is not supported, will be removed"));
}

TEST_P(algorithm_lists_test, removing_the_cipher_item_restores_the_default) {
    commit_ok(cipher({"aes128-ctr"}));
    commit_ok(remove(cipher({}).path));
    EXPECT_EQ(line("Ciphers"), default_cipher_list);
}

TEST_P(algorithm_lists_test, removing_the_cipher_item_restores_the_fips_default) {
    turn_fips(true);
    commit_ok(cipher({"aes128-ctr"}));
    commit_ok(remove(cipher({}).path));
    EXPECT_EQ(line("Ciphers"), fips_cipher_list);
    turn_fips(false);
    EXPECT_EQ(line("Ciphers"), default_cipher_list);
}

TEST_P(algorithm_lists_test, a_failed_fips_query_stops_the_removal_of_ciphers) {
    for (const char* operation : {fips_binding, fips_question}) {
        commit_ok(cipher({"aes128-ctr"}));
        forget();
        fake_platform::fail(operation, EIO);
        EXPECT_EQ(failure_of(remove(cipher({}).path)), 1u);
        EXPECT_EQ(line("Ciphers"), "aes128-ctr");
        EXPECT_TRUE(fake_platform::debugged(is_server() ? "Failed to check fips mode  in sshd cipheralgo applier"
                                                        : "Failed to check fips mode  in client cipheralgo applier"));
        fake_platform::clear_failures();
    }
}

// --- Legacy ciphers --------------------------------------------------------------------------------------------------

TEST_P(algorithm_lists_test, missing_legacy_ciphers_are_appended) {
    commit_ok(cipher({"aes128-cbc", "aes128-ctr"}));
    commit_ok(legacy({1, 0}));
    EXPECT_EQ(line("Ciphers"), "aes128-cbc,aes128-ctr,aes192-cbc,aes256-cbc");
    EXPECT_TRUE(fake_platform::debugged("Enabled old ciphers mask - 1"));
    EXPECT_TRUE(fake_platform::debugged(std::string("Event:=3, Config:=ssh ") + side().name + " enable cipher"));
    commit_ok(cipher({"aes256-ctr", "aes256-cbc"}));
    EXPECT_EQ(line("Ciphers"), "aes256-ctr,aes256-cbc,aes128-cbc,aes192-cbc");
    commit_ok(remove(cipher({}).path));
    EXPECT_EQ(line("Ciphers"), std::string(default_cipher_list) + ",aes128-cbc,aes192-cbc,aes256-cbc");
    commit_ok(remove(legacy({}).path));
    EXPECT_TRUE(fake_platform::debugged("Removed old ciphers - 0"));
    EXPECT_EQ(line("Ciphers"), default_cipher_list);
}

TEST_P(algorithm_lists_test, all_ten_ciphers_and_the_legacy_ones_fit) {
    commit_ok(cipher({"aes128-ctr", "aes192-ctr", "aes256-ctr", "aes128-gcm@openssh.com", "aes256-gcm@openssh.com",
                      "aes192-cbc", "aes256-cbc", "3des-cbc", "chacha20-poly1305@openssh.com"}));
    commit_ok(legacy({1, 0}));
    EXPECT_EQ(line("Ciphers"),
              "aes128-ctr,aes192-ctr,aes256-ctr,aes128-gcm@openssh.com,aes256-gcm@openssh.com,aes192-cbc,aes256-cbc,"
              "chacha20-poly1305@openssh.com,aes128-cbc");
}

TEST_P(algorithm_lists_test, setting_a_legacy_flag_to_0_removes_nothing) {
    commit_ok(cipher({"aes128-ctr"}));
    commit_ok(legacy({1, 0}));
    commit_ok(legacy({0, 0}));
    EXPECT_EQ(line("Ciphers"), "aes128-ctr,aes128-cbc,aes192-cbc,aes256-cbc");
}

TEST_P(algorithm_lists_test, legacy_triple_des_is_logged_and_not_enabled) {
    commit_ok(cipher({"aes128-ctr"}));
    forget();
    commit_ok(legacy({std::nullopt, 1}));
    EXPECT_EQ(line("Ciphers"), "aes128-ctr");
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre("ERR_GENERAL: 3des-cbc is not supported, will be removed"));
    EXPECT_TRUE(fake_platform::debugged("Enabled old ciphers mask - 0"));
}

TEST_P(algorithm_lists_test, in_fips_mode_legacy_ciphers_are_written_filtered_with_a_trailing_comma) {
    commit_ok(cipher({"aes128-ctr", "chacha20-poly1305@openssh.com"}));
    turn_fips(true);
    commit_ok(legacy({1, 0}));
    EXPECT_EQ(line("Ciphers"), "aes128-ctr,aes128-cbc,aes192-cbc,aes256-cbc,");
    EXPECT_STREQ(state().ciphers->current, "aes128-ctr,chacha20-poly1305@openssh.com,aes128-cbc,aes192-cbc,aes256-cbc");
    EXPECT_STREQ(state().ciphers->second_current, "aes128-ctr,aes128-cbc,aes192-cbc,aes256-cbc,");
    commit_ok(remove(legacy({}).path));
    EXPECT_EQ(line("Ciphers"), "aes128-ctr,");
    turn_fips(false);
    EXPECT_EQ(line("Ciphers"), "aes128-ctr,chacha20-poly1305@openssh.com");
}

TEST_P(algorithm_lists_test, a_failed_fips_query_stops_legacy_ciphers) {
    for (const char* operation : {fips_binding, fips_question}) {
        for (const auto& change : {legacy({1, 0}), remove(legacy({}).path)}) {
            forget();
            const std::string before = both_files();
            fake_platform::fail(operation, EIO);
            EXPECT_EQ(failure_of(change), 1u);
            EXPECT_EQ(both_files(), before);
            EXPECT_TRUE(fake_platform::debugged(
                is_server() ? "(sshd_apply_cipher) Failed to check fips mode  in sshd apply cipher"
                            : "(ssh_client_apply_cipher) Failed to check fips mode  in client apply cipher"));
            fake_platform::clear_failures();
        }
    }
}

TEST_P(algorithm_lists_test, exhausted_memory_stops_legacy_ciphers_in_fips_mode) {
    turn_fips(true);
    const std::string before = both_files();
    call_faults::fail_call("_ZnwmRKSt9nothrow_t", ENOMEM, call_faults::once);
    EXPECT_EQ(failure_of(legacy({1, 0})), 1u);
    EXPECT_EQ(both_files(), before);
    EXPECT_TRUE(fake_platform::debugged("Error:=Cannot allocate memory(0xc)  memory allocation failed for cipher"));
}

TEST_P(algorithm_lists_test, a_list_that_cannot_be_filtered_stops_legacy_ciphers_in_fips_mode) {
    turn_fips(true);
    // Only algorithms that are dropped: a verifier would refuse this.
    EXPECT_EQ(apply(cipher_applier(is_server()), cipher_value({"3des-cbc"})), PLATFORM_OK);
    forget();
    EXPECT_EQ(failure_of(legacy({0, 0})), 1u);
    EXPECT_TRUE(fake_platform::debugged(is_server() ? "sshd_apply_cipher, Invalid cipher  list"
                                                    : "ssh_client_apply_cipher, Invalid cipher  list"));
}

using server_lists_test = algorithm_test;

TEST_F(server_lists_test, a_failed_write_of_filtered_ciphers_is_reported) {
    start();
    turn_fips(true);
    call_faults::fail_call("rename", EROFS);
    const auto result = fake_platform::commit(legacy_change(server_case, {1, 0}));
    ASSERT_EQ(result.failures.size(), 1u);
    EXPECT_EQ(result.failures[0].status, 1u);
    EXPECT_TRUE(fake_platform::logged(
        "ERR_ERRNO", "Error:=Read-only file system(0x1e), Failed to update cipher List in Config file"));
    EXPECT_TRUE(fake_platform::debugged(
        "Error:=Read-only file system(0x1e): sshd_apply_cipher, failed to update cipher list in  config file"));
}

TEST_F(server_lists_test, server_and_client_have_separate_lists) {
    start();
    commit_ok(kex_change(server_case, {"ecdh-sha2-nistp256"}));
    commit_ok(cipher_change(client_case, {"aes256-ctr"}));
    commit_ok(legacy_change(server_case, {1, 0}));
    EXPECT_EQ(value(paths::client_file, "KexAlgorithms"), "no line");
    EXPECT_EQ(value(paths::client_file, "Ciphers"), "aes256-ctr");
    EXPECT_EQ(value(paths::server_file, "Ciphers"),
              std::string(default_cipher_list) + ",aes128-cbc,aes192-cbc,aes256-cbc");
}

}  // namespace
