#include "appliers/host_key_algorithms.h"

#include "../algorithm_test.h"
#include "config_files/algorithm_names.h"

namespace {

using fake_platform::remove;
using testing::Contains;
using testing::ElementsAre;

class host_key_algorithms_test : public algorithm_test {
  protected:
    host_key_algorithms_test() { start(); }

    static std::string algorithms() { return value(paths::server_file, "HostKeyAlgorithms"); }

    static std::vector<std::string> files() { return values(paths::server_file, "HostKey"); }

    static names flags_of(std::initializer_list<size_t> set) {
        names flags(10, 0);
        for (const size_t flag : set) {
            flags[flag] = 1;
        }
        return flags;
    }

    static std::string item() { return server_case.tree + "algorithms/host-key"; }
};

TEST_F(host_key_algorithms_test, are_offered_in_their_own_order) {
    commit_ok(host_key_change(names(10, 1)));
    EXPECT_EQ(algorithms(),
              "x509v3-ssh-rsa,ecdsa-sha2-nistp521,ecdsa-sha2-nistp384,ecdsa-sha2-nistp256,ssh-ed25519,rsa-sha2-512,"
              "rsa-sha2-256,ssh-rsa,ssh-dss");
    EXPECT_THAT(files(), ElementsAre("/pkg/ecdsa-sha2-nistp521", "/pkg/ecdsa-sha2-nistp384", "/pkg/ecdsa-sha2-nistp256",
                                     "/pkg/ed25519", "/pkg/rsa", "/pkg/dsa"));
    EXPECT_TRUE(fake_platform::debugged("Event:=3, Config:=ssh server algo hostkey"));
}

struct flag_case {
    size_t flag;
    const char* algorithms;
    const char* file;
};

// The certificate has no host-key file.
const flag_case flag_cases[] = {
    {0, "ecdsa-sha2-nistp256", "/pkg/ecdsa-sha2-nistp256"},
    {1, "ecdsa-sha2-nistp384", "/pkg/ecdsa-sha2-nistp384"},
    {2, "ecdsa-sha2-nistp521", "/pkg/ecdsa-sha2-nistp521"},
    {3, "rsa-sha2-512,rsa-sha2-256,ssh-rsa", "/pkg/rsa"},
    {4, "ssh-dss", "/pkg/dsa"},
    {6, "ssh-ed25519", "/pkg/ed25519"},
    {7, "rsa-sha2-512", "/pkg/rsa"},
    {8, "rsa-sha2-256", "/pkg/rsa"},
    {9, "ssh-rsa", "/pkg/rsa"},
};

TEST_F(host_key_algorithms_test, each_flag_selects_its_algorithm_and_its_file) {
    for (const flag_case& row : flag_cases) {
        commit_ok(host_key_change(flags_of({row.flag})));
        EXPECT_EQ(algorithms(), row.algorithms);
        EXPECT_THAT(files(), ElementsAre(row.file)) << row.algorithms;
        EXPECT_STREQ(server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS].current, row.algorithms);
        EXPECT_STREQ(server_config.algorithms[SERVER_HOST_KEY].current, row.file);
    }
}

TEST_F(host_key_algorithms_test, the_certificate_adds_no_file) {
    commit_ok(host_key_change(flags_of({5, 0})));
    EXPECT_EQ(algorithms(), "x509v3-ssh-rsa,ecdsa-sha2-nistp256");
    EXPECT_THAT(files(), ElementsAre("/pkg/ecdsa-sha2-nistp256"));
}

TEST_F(host_key_algorithms_test, all_rsa_and_one_rsa_flag_add_each_algorithm_once) {
    commit_ok(host_key_change(flags_of({3, 7})));
    EXPECT_EQ(algorithms(), "rsa-sha2-512,rsa-sha2-256,ssh-rsa");
    EXPECT_THAT(files(), ElementsAre("/pkg/rsa"));
}

TEST_F(host_key_algorithms_test, absent_flags_are_not_set) {
    commit_ok(host_key_change({std::nullopt, 1, std::nullopt, 0, 0, 0, 0, std::nullopt, 1, std::nullopt}));
    EXPECT_EQ(algorithms(), "ecdsa-sha2-nistp384,rsa-sha2-256");
    EXPECT_THAT(files(), ElementsAre("/pkg/ecdsa-sha2-nistp384", "/pkg/rsa"));
}

TEST_F(host_key_algorithms_test, a_removal_restores_the_defaults) {
    const std::string before = read_file(paths::server_file);
    commit_ok(host_key_change(flags_of({0})));
    forget();
    commit_ok(remove(item()));
    EXPECT_EQ(algorithms(), default_server_host_key_algorithms);
    EXPECT_THAT(files(), ElementsAre("/pkg/ecdsa-sha2-nistp256", "/pkg/ecdsa-sha2-nistp384", "/pkg/ecdsa-sha2-nistp521",
                                     "/pkg/ed25519", "/pkg/rsa", "/pkg/dsa"));
    EXPECT_TRUE(fake_platform::debugged("(sshd_apply_hostkeyalgo) config removed"));
}

TEST_F(host_key_algorithms_test, a_removal_in_fips_mode_restores_the_fips_defaults) {
    turn_fips(true);
    commit_ok(host_key_change(flags_of({0})));
    commit_ok(remove(item()));
    EXPECT_EQ(algorithms(), "ecdsa-sha2-nistp521,ecdsa-sha2-nistp384,ecdsa-sha2-nistp256,rsa-sha2-512,rsa-sha2-256");
    EXPECT_THAT(files(), ElementsAre("/pkg/ecdsa-sha2-nistp521", "/pkg/ecdsa-sha2-nistp384", "/pkg/ecdsa-sha2-nistp256",
                                     "/pkg/rsa"));
    turn_fips(false);
    EXPECT_EQ(algorithms(), default_server_host_key_algorithms);
    EXPECT_EQ(files().size(), 6u);
}

TEST_F(host_key_algorithms_test, a_failed_fips_query_stops_the_removal) {
    for (const char* operation : {fips_binding, fips_question}) {
        commit_ok(host_key_change(flags_of({0})));
        forget();
        fake_platform::fail(operation, EIO);
        const auto result = fake_platform::commit(remove(item()));
        ASSERT_EQ(result.failures.size(), 1u);
        EXPECT_EQ(result.failures[0].status, 1u);
        EXPECT_EQ(algorithms(), "ecdsa-sha2-nistp256");
        EXPECT_TRUE(
            fake_platform::debugged("(sshd_apply_hostkeyalgo) Failed to check fips mode  in hoskeyalgo applier"));
        fake_platform::clear_failures();
    }
}

TEST_F(host_key_algorithms_test, a_value_that_cannot_be_unpacked_changes_nothing) {
    const std::string before = both_files();
    const std::string bytes = "x";
    const datastore_change change = {DATASTORE_EVENT_SET, nullptr, bytes.data(), 0, bytes.size()};
    EXPECT_EQ(sshd_apply_hostkeyalgo(&change, nullptr), PLATFORM_OK);
    EXPECT_EQ(both_files(), before);
    EXPECT_EQ(fake_platform::log_texts().size(), 1u);
}

}  // namespace
