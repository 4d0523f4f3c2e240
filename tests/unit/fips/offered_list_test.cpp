#include "fips/offered_list.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "../algorithm_test.h"
#include "config_files/algorithm_names.h"

namespace {

class offered_list_test : public algorithm_test {
  protected:
    static void set_fips(bool on) {
        fake_platform::store(on ? fake_platform::set_number(fips_item, 1) : fake_platform::remove(fips_item));
    }

    static std::string offered_of(const char* current) {
        algorithm_entry entry = {};
        entry.current = current;
        EXPECT_EQ(choose_offered_list(entry, get_modified_kex_list, "the FIPS default"), 0);
        EXPECT_STREQ(entry.current, current);
        return entry.second_current;
    }
};

TEST_F(offered_list_test, without_fips_mode_the_whole_list_is_offered) {
    EXPECT_EQ(offered_of("curve25519-sha256,ecdh-sha2-nistp256"), "curve25519-sha256,ecdh-sha2-nistp256");
}

TEST_F(offered_list_test, in_fips_mode_only_the_filtered_list_is_offered) {
    set_fips(true);
    EXPECT_EQ(offered_of("curve25519-sha256,ecdh-sha2-nistp256"), "ecdh-sha2-nistp256");
    EXPECT_EQ(offered_of("ecdh-sha2-nistp256,curve25519-sha256,ecdh-sha2-nistp384"),
              "ecdh-sha2-nistp256,ecdh-sha2-nistp384");
}

TEST_F(offered_list_test, a_list_that_loses_nothing_is_unchanged) {
    set_fips(true);
    EXPECT_EQ(offered_of("ecdh-sha2-nistp256,ecdh-sha2-nistp384"), "ecdh-sha2-nistp256,ecdh-sha2-nistp384");
}

// Also if it has empty names, and though the filter leaves them out.
TEST_F(offered_list_test, a_list_that_loses_nothing_is_not_rewritten) {
    set_fips(true);
    EXPECT_EQ(offered_of(",ecdh-sha2-nistp256,,ecdh-sha2-nistp384,"), ",ecdh-sha2-nistp256,,ecdh-sha2-nistp384,");
    EXPECT_EQ(offered_of(",xecdh-sha2,,curve25519-sha256,"), "xecdh-sha2");
    algorithm_entry& files = server_config.algorithms[SERVER_HOST_KEY];
    algorithm_entry& algorithms = server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS];
    algorithms.current = "rsa-sha2-512,rsa-sha2-256";
    algorithms.second_current = "ssh-ed25519";
    files.current = "/pkg/rsa";
    EXPECT_EQ(choose_offered_host_keys(), 0);
    EXPECT_EQ(algorithms.second_current, algorithms.current);
    EXPECT_EQ(files.second_current, files.current);
}

// The list in force before does not count.
TEST_F(offered_list_test, the_current_text_is_filtered) {
    set_fips(true);
    algorithm_entry entry = {};
    entry.current = "curve25519-sha256,ecdh-sha2-nistp256";
    entry.second_current = "ecdh-sha2-nistp384";
    EXPECT_EQ(choose_offered_list(entry, get_modified_kex_list, "the FIPS default"), 0);
    EXPECT_STREQ(entry.second_current, "ecdh-sha2-nistp256");
    entry.current = "";
    EXPECT_EQ(choose_offered_list(entry, get_modified_kex_list, "the FIPS default"), 0);
    EXPECT_STREQ(entry.second_current, "");
}

TEST_F(offered_list_test, a_list_that_loses_everything_is_replaced_by_the_default) {
    set_fips(true);
    EXPECT_EQ(offered_of("curve25519-sha256"), "the FIPS default");
}

TEST_F(offered_list_test, an_unknown_mode_changes_nothing) {
    algorithm_entry entry = {};
    entry.current = "curve25519-sha256";
    entry.second_current = "before";
    fake_platform::fail(fips_question, EIO);
    EXPECT_EQ(choose_offered_list(entry, get_modified_kex_list, ""), -1);
    EXPECT_STREQ(entry.second_current, "before");
    EXPECT_EQ(choose_offered_host_keys(), -1);
}

TEST_F(offered_list_test, the_host_key_files_follow_the_algorithms) {
    set_fips(true);
    algorithm_entry& files = server_config.algorithms[SERVER_HOST_KEY];
    algorithm_entry& algorithms = server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS];
    algorithms.current = "ssh-ed25519,rsa-sha2-512";
    files.current = "/pkg/ed25519,/pkg/rsa";
    EXPECT_EQ(choose_offered_host_keys(), 0);
    EXPECT_STREQ(algorithms.second_current, "rsa-sha2-512");
    EXPECT_STREQ(files.second_current, "/pkg/rsa");
    algorithms.current = "ssh-ed25519";
    files.current = "/pkg/ed25519";
    EXPECT_EQ(choose_offered_host_keys(), 0);
    EXPECT_STREQ(algorithms.second_current, fips_host_key_algorithms);
    EXPECT_STREQ(files.second_current,
                 "/pkg/ecdsa-sha2-nistp521,/pkg/ecdsa-sha2-nistp384,/pkg/ecdsa-sha2-nistp256,/pkg/rsa,/pkg/rsa");
    set_fips(false);
    EXPECT_EQ(choose_offered_host_keys(), 0);
    EXPECT_STREQ(algorithms.second_current, "ssh-ed25519");
    EXPECT_STREQ(files.second_current, "/pkg/ed25519");
}

}  // namespace
