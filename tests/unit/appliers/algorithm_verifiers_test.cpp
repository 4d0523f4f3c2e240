#include "appliers/algorithm_verifiers.h"

#include "../algorithm_test.h"

namespace {

using fake_platform::commit_result;
using testing::Contains;
using testing::HasSubstr;

constexpr char curve25519[] = "curve25519-sha256";
constexpr char curve25519_libssh[] = "curve25519-sha256@libssh.org";
constexpr char chacha20[] = "chacha20-poly1305@openssh.com";
constexpr char group1[] = "diffie-hellman-group1-sha1";

class algorithm_verifiers_test : public algorithm_side_test {
  protected:
    algorithm_verifiers_test() { start(); }

    /// The commit is refused with this text and leaves nothing behind.
    static void expect_refused(const fake_platform::change& change, const std::string& text,
                               platform_status status = EINVAL) {
        const std::string before = both_files();
        const auto stored = fake_platform::stored(change.path);
        const auto timeout = fake_platform::set_number("/cfg/gl/crypto/ssh/server/cmn/timeout", 77);
        const commit_result result = fake_platform::commit({timeout, change});
        EXPECT_EQ(result.status, status);
        EXPECT_EQ(result.refused_path, change.path);
        EXPECT_EQ(result.error_text, text);
        EXPECT_EQ(both_files(), before);
        EXPECT_EQ(fake_platform::stored(change.path), stored);
        EXPECT_FALSE(fake_platform::stored(timeout.path).has_value());
    }

    static fake_platform::change kex(const names& fields) { return kex_change(side(), fields); }
    static fake_platform::change cipher(const names& fields) { return cipher_change(side(), fields); }
};

FOR_BOTH_SIDES(algorithm_verifiers_test);

// --- Key exchange ----------------------------------------------------------------------------------------------------

TEST_P(algorithm_verifiers_test, every_key_exchange_is_known) {
    commit_ok(
        kex({"ecdh-sha2-nistp521", "ecdh-sha2-nistp384", "ecdh-sha2-nistp256", "diffie-hellman-group14-sha1", group1,
             curve25519, "diffie-hellman-group14-sha256", "diffie-hellman-group16-sha512", curve25519_libssh}));
}

TEST_P(algorithm_verifiers_test, an_unknown_key_exchange_is_refused) {
    expect_refused(kex({"ecdh-sha2-nistp521", "rot13"}), "unknown ssh kexalgorithms rot13");
    expect_refused(kex({"ecdh-sha2-nistp52"}), "unknown ssh kexalgorithms ecdh-sha2-nistp52");
    expect_refused(kex({"ecdh-sha2-nistp5210"}), "unknown ssh kexalgorithms ecdh-sha2-nistp5210");
    expect_refused(kex({"aes128-ctr"}), "unknown ssh kexalgorithms aes128-ctr");
}

TEST_P(algorithm_verifiers_test, a_name_of_40_characters_is_quoted_in_full) {
    const std::string longest(40, 'k');
    expect_refused(kex({longest}), "unknown ssh kexalgorithms " + longest);
    expect_refused(cipher({longest}), "unknown ssh cipher algorithms " + longest);
}

/// A tuple with a name that is too long for its field.
fake_platform::change raw_change(const fake_platform::change& change, size_t length) {
    std::string bytes("\1\0\0\0", 4);
    bytes += static_cast<char>(length);
    bytes += '\0';
    bytes += std::string(length, 'k') + '\0';
    return {change.path, fake_platform::raw_tuple_value(bytes)};
}

TEST_P(algorithm_verifiers_test, a_name_of_41_characters_cannot_be_unpacked) {
    expect_refused(raw_change(kex({}), 40), "unknown ssh kexalgorithms " + std::string(40, 'k'));
    forget();
    expect_refused(raw_change(kex({}), 41), "tuple unpack failed for ssh kexalgorithms", TUPLE_MALFORMED);
    EXPECT_THAT(fake_platform::log_texts(),
                Contains(std::string("ERR_DATASTORE_UNPACK: Error:=") + platform_status_text(TUPLE_MALFORMED) +
                         "(0x40838200), Path:=KEX-ALGO-VERIFY, Failed to unpack datastore item"));
    forget();
    expect_refused(raw_change(cipher({}), 41), "tuple unpack failed for ssh cipher algorithms", TUPLE_MALFORMED);
    EXPECT_THAT(fake_platform::log_texts(),
                Contains(std::string("ERR_DATASTORE_UNPACK: Error:=") + platform_status_text(TUPLE_MALFORMED) +
                         "(0x40838200), Path:=CIPHER-ALGO-VERIFY, Failed to unpack datastore item"));
}

TEST_P(algorithm_verifiers_test, more_names_than_the_tuple_holds_cannot_be_unpacked) {
    const names ten(10, "ecdh-sha2-nistp521");
    expect_refused(fake_platform::set_tuple(kex({}).path, "%s%s%s%s%s%s%s%s%s%s", ten),
                   "tuple unpack failed for ssh kexalgorithms", TUPLE_MALFORMED);
    const names eleven(11, "aes128-ctr");
    expect_refused(fake_platform::set_tuple(cipher({}).path, "%s%s%s%s%s%s%s%s%s%s%s", eleven),
                   "tuple unpack failed for ssh cipher algorithms", TUPLE_MALFORMED);
}

TEST_P(algorithm_verifiers_test, an_absent_name_before_the_last_is_unknown) {
    expect_refused(kex({std::nullopt, "ecdh-sha2-nistp521"}), "unknown ssh kexalgorithms ");
    expect_refused(cipher({"aes128-ctr", std::nullopt, "aes256-ctr"}), "unknown ssh cipher algorithms ");
}

TEST_P(algorithm_verifiers_test, the_same_key_exchange_twice_is_refused) {
    expect_refused(kex({"ecdh-sha2-nistp256", "ecdh-sha2-nistp521", "ecdh-sha2-nistp256"}),
                   "Kex-algorithms:=ecdh-sha2-nistp256, selected multiple times");
}

TEST_P(algorithm_verifiers_test, group1_alone_is_refused) {
    expect_refused(kex({group1}),
                   "diffie-hellman-group1-sha1 is not supported, SSH will not work with only this config");
}

TEST_P(algorithm_verifiers_test, group1_is_refused_in_fips_mode) {
    turn_fips(true);
    expect_refused(kex({"ecdh-sha2-nistp256", group1}),
                   "key exchange                               algorithms diffie-hellman-group1-sha1 not supported in "
                   "fips mode");
    // That it is the only one is checked first.
    expect_refused(kex({group1}),
                   "diffie-hellman-group1-sha1 is not supported, SSH will not work with only this config");
}

TEST_P(algorithm_verifiers_test, curve25519_is_refused_in_fips_mode) {
    turn_fips(true);
    for (const char* name : {curve25519, curve25519_libssh}) {
        forget();
        expect_refused(kex({"ecdh-sha2-nistp256", name}),
                       "curve25519-sha256,curve25519-sha256@libssh.org  not allowed in FIPS mode.Please configure "
                       "allowed cipher algos in FIPS mode.");
        EXPECT_TRUE(fake_platform::debugged(std::string("Kex Algo = ") + name + " not allowed in FIPS mode"));
    }
    commit_ok(kex({"ecdh-sha2-nistp256"}));
}

TEST_P(algorithm_verifiers_test, a_commit_that_switches_fips_mode_is_checked_against_the_new_mode) {
    const auto on = fake_platform::set_number(fips_item, 1);
    const std::string before = both_files();
    for (const auto& change : {kex({"ecdh-sha2-nistp256", curve25519}), cipher({"aes128-ctr", chacha20})}) {
        const commit_result result = fake_platform::commit({on, change});
        EXPECT_EQ(result.refused_path, change.path);
        EXPECT_FALSE(fake_platform::stored(fips_item).has_value());
        EXPECT_EQ(both_files(), before);
    }
    turn_fips(true);
    const auto off = fake_platform::remove(fips_item);
    EXPECT_EQ(fake_platform::commit({off, kex({curve25519}), cipher({chacha20})}).status, PLATFORM_OK);
    EXPECT_EQ(line("KexAlgorithms"), curve25519);
    EXPECT_EQ(line("Ciphers"), chacha20);
}

TEST_P(algorithm_verifiers_test, the_first_error_in_a_list_is_reported) {
    turn_fips(true);
    expect_refused(kex({"rot13", curve25519}), "unknown ssh kexalgorithms rot13");
    expect_refused(kex({curve25519, "rot13"}),
                   "curve25519-sha256,curve25519-sha256@libssh.org  not allowed in FIPS mode.Please configure allowed "
                   "cipher algos in FIPS mode.");
}

TEST_P(algorithm_verifiers_test, a_failed_fips_query_refuses_curve25519) {
    for (const char* operation : {fips_binding, fips_question}) {
        fake_platform::fail(operation, EIO, 1);
        expect_refused(kex({curve25519}), "Failed to check fips mode in kex verifier");
        fake_platform::clear_failures();
    }
}

TEST_P(algorithm_verifiers_test, a_failed_query_after_the_list_refuses_without_a_text) {
    for (const char* operation : {fips_binding, fips_question}) {
        // Nothing in the list queries FIPS mode earlier.
        forget();
        fake_platform::fail(operation, EIO, 1);
        expect_refused(kex({"ecdh-sha2-nistp256"}), "", 1);
        EXPECT_TRUE(fake_platform::logged("ERR_GENERAL", "Failed to check fips mode in  Kexalgo Verifier"));
        // The second query for one list.
        forget();
        fake_platform::fail(operation, EIO, 1, 2);
        expect_refused(kex({curve25519}), "", 1);
        EXPECT_TRUE(fake_platform::logged("ERR_GENERAL", "Failed to check fips mode in  Kexalgo Verifier"));
        fake_platform::clear_failures();
    }
}

TEST_P(algorithm_verifiers_test, every_query_releases_its_binding) {
    const size_t before = fake_platform::bindings("/cfg/gl/crypto/");
    commit_ok(kex({curve25519}));
    fake_platform::fail(fips_question, EIO, 1);
    expect_refused(kex({"ecdh-sha2-nistp256"}), "", 1);
    EXPECT_EQ(fake_platform::bindings("/cfg/gl/crypto/"), before);
}

TEST_P(algorithm_verifiers_test, a_removal_queries_nothing) {
    commit_ok(kex({"ecdh-sha2-nistp256"}));
    commit_ok(cipher({"aes128-ctr"}));
    for (const char* item : {"algorithms/key-exchange", "algorithms/cipher"}) {
        const datastore_change change = {DATASTORE_EVENT_DELETE, nullptr, nullptr, 0, 0};
        uint32_t accepted = 0;
        char* text = nullptr;
        forget();
        EXPECT_EQ((item[11] == 'k' ? kex_verifier : cipher_verifier)(&change, &text, &accepted, nullptr), PLATFORM_OK);
        EXPECT_EQ(accepted, 1u);
        EXPECT_EQ(text, nullptr);
        EXPECT_EQ(fake_platform::count_calls(fips_question), 0u);
    }
}

// --- Ciphers ---------------------------------------------------------------------------------------------------------

TEST_P(algorithm_verifiers_test, every_cipher_is_known) {
    commit_ok(cipher({"aes128-ctr", "aes192-ctr", "aes256-ctr", "aes128-gcm@openssh.com", "aes256-gcm@openssh.com",
                      "aes128-cbc", "aes192-cbc", "aes256-cbc", "3des-cbc", chacha20}));
}

TEST_P(algorithm_verifiers_test, an_unknown_or_repeated_cipher_is_refused) {
    expect_refused(cipher({"aes128-ctr", "none"}), "unknown ssh cipher algorithms none");
    expect_refused(cipher({"aes128-ctr", "aes256-ctr", "aes128-ctr"}),
                   "Cipher-algorithms:=aes128-ctr, selected multiple times");
}

TEST_P(algorithm_verifiers_test, triple_des_alone_is_refused) {
    expect_refused(cipher({"3des-cbc"}),
                   "3des-cbc is not supported in norvossh, SSH cannot work with this option only");
}

TEST_P(algorithm_verifiers_test, chacha20_is_refused_in_fips_mode) {
    turn_fips(true);
    expect_refused(cipher({"aes128-ctr", chacha20}),
                   "chacha20-poly1305 not allowed in FIPS mode.Please configure allowed cipher algos in FIPS mode.");
    EXPECT_TRUE(fake_platform::debugged(std::string("Cipher = ") + chacha20 + " not allowed in FIPS mode"));
    // FIPS mode does not concern the legacy ciphers.
    commit_ok(cipher({"aes128-cbc", "3des-cbc"}));
}

TEST_P(algorithm_verifiers_test, a_failed_fips_query_refuses_chacha20_and_nothing_else) {
    for (const char* operation : {fips_binding, fips_question}) {
        fake_platform::fail(operation, EIO);
        expect_refused(cipher({chacha20}), "Failed to check fips mode in cipher verifier");
        commit_ok(cipher({"aes128-ctr", "3des-cbc", operation == fips_binding ? "aes256-ctr" : "aes192-ctr"}));
        fake_platform::clear_failures();
    }
}

// --- Host keys -------------------------------------------------------------------------------------------------------

class host_key_verifier_test : public algorithm_test {
  protected:
    static constexpr int count = 10;

    host_key_verifier_test() { start(); }

    static names only(int flag) {
        names flags(count, 0);
        flags[static_cast<size_t>(flag)] = 1;
        return flags;
    }

    static commit_result commit(int flag) { return fake_platform::commit(host_key_change(only(flag))); }
};

constexpr int outside_fips[] = {3, 4, 5, 6, 9};
constexpr int inside_fips[] = {0, 1, 2, 7, 8};

TEST_F(host_key_verifier_test, every_algorithm_is_accepted_outside_fips_mode) {
    for (int flag = 0; flag < count; flag++) {
        EXPECT_EQ(commit(flag).status, PLATFORM_OK) << flag;
    }
}

TEST_F(host_key_verifier_test, fips_mode_refuses_algorithms_it_does_not_allow) {
    turn_fips(true);
    for (const int flag : outside_fips) {
        const commit_result result = commit(flag);
        EXPECT_EQ(result.status, uint32_t{EINVAL}) << flag;
        EXPECT_EQ(result.error_text,
                  "DSA, RSA(ssh-rsa), X509 and ED25519 are not supported in FIPS mode for NorvoSSH. Please configure "
                  "allowed hostkey algorithms in FIPS mode");
    }
    for (const int flag : inside_fips) {
        EXPECT_EQ(commit(flag).status, PLATFORM_OK) << flag;
    }
}

TEST_F(host_key_verifier_test, a_failed_fips_query_refuses_algorithms_that_need_it) {
    for (const char* operation : {fips_binding, fips_question}) {
        fake_platform::fail(operation, EIO);
        for (const int flag : outside_fips) {
            EXPECT_EQ(commit(flag).error_text, "Failed to check fips mode in Hostkey verifier") << flag;
        }
        EXPECT_EQ(fake_platform::commit(host_key_change(only(operation == fips_binding ? 0 : 1))).status, PLATFORM_OK);
        fake_platform::clear_failures();
    }
}

TEST_F(host_key_verifier_test, a_malformed_value_is_refused) {
    const auto result = fake_platform::commit(
        {server_case.tree + "algorithms/host-key", fake_platform::raw_tuple_value(std::string("\1\0\0\0", 4))});
    EXPECT_EQ(result.status, uint32_t{TUPLE_MALFORMED});
    EXPECT_EQ(result.error_text, "tuple unpack failed for ssh hostkey algorithms");
}

}  // namespace
