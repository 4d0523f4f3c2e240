#include "openssh/value_forms.h"

#include <gtest/gtest.h>

#include "common/text.h"
#include "openssh/text.h"
#include "scratch.h"

using namespace openssh;
using openssh_test::scratch_directory;

namespace {

struct form_case {
    const char* keyword;
    value_form form;
    std::vector<std::string> good;
    std::vector<std::string> bad;
};

const std::vector<form_case>& form_cases() {
    static const std::vector<form_case> cases = {
        {"UsePAM", is_yes_or_no, {"yes", "no", "YES"}, {"", "maybe", "yes no", "1"}},
        {"Port",
         is_port,
         {"1", "22", "65535", "0022"},
         {"", "0", "65536", "-1", "22a", "22 23", "99999999999999999999"}},
        {"MaxAuthTries", is_count, {"0", "20", "2147483647"}, {"", "-1", "2147483648", "x", "1.5", "1 2"}},
        {"LoginGraceTime",
         is_time,
         {"0", "30", "1h30m", "2w", "10M", "2147483647"},
         {"", "-1", "x", "1h30x", "h", "2147483648", "99999w", "9223372036854775808", "30 40"}},
        {"RekeyLimit",
         is_rekey_limit,
         {"1024M 60m", "16", "default none", "0M 0m", "1G", "1024M  60m", "1K 2h"},
         {"", "15", "1024M 60m 3", "M 60m", "1024X", "1024MB", "9999999999999T", "1024M x", "-5M 60m", "none"}},
        {"IPQoS",
         is_ip_qos,
         {"0x40", "0xb8", "0x0", "0", "255", "af21", "AF21 cs1", "lowdelay throughput", "none", "0x0000ff"},
         {"", "0x100", "256", "0x", "xyz", "af21 cs1 cs2", "-1", "0xg"}},
        {"PermitRootLogin", is_root_login, {"yes", "no", "prohibit-password"}, {"", "maybe", "yes please"}},
        {"LogLevel",
         is_log_level,
         {"VERBOSE", "DEBUG1", "DEBUG2", "DEBUG3", "info"},
         {"", "LOUD", "DEBUG4", "INFO INFO"}},
        {"AllowTcpForwarding", is_forwarding, {"no", "local", "yes", "all"}, {"", "2", "local remote"}},
        {"Banner", is_path_or_none, {"/var/opt/banner", "/a#b", "none"}, {"", "banner", "/a b", "/a\"b", "/a\\b"}},
        {"Subsystem",
         is_subsystem,
         {"sftp /pkg/bin/sftp-server", "netconf /pkg/bin/netconf_sshd_proxy -i 0 -o 1", "sftp internal-sftp"},
         {"", "sftp", "sftp sftp-server", "sftp \"/a", "netconf /a 'b"}},
        {"Ciphers", is_algorithm_list, {"aes128-ctr"}, {"", "+aes128-cbc", "-aes128-ctr", "^aes128-ctr"}},
        {"VersionAddendum", is_any_text, {"a", "\"a b\"", "'a'", "\"it's\""}, {"", "\"a", "'a", "a \"b c"}},
    };
    return cases;
}

}  // namespace

TEST(launcher_value_forms, distinguishes_valid_and_invalid_values) {
    for (const form_case& one : form_cases()) {
        for (const std::string& value : one.good) {
            EXPECT_TRUE(one.form(value)) << one.keyword << " " << value;
        }
        for (const std::string& value : one.bad) {
            EXPECT_FALSE(one.form(value)) << one.keyword << " " << value;
        }
    }
}

TEST(launcher_value_forms, a_key_file_is_an_absolute_path) {
    EXPECT_TRUE(is_key_path("/pkg/rsa"));
    EXPECT_FALSE(is_key_path("none"));
    EXPECT_FALSE(is_key_path("rsa"));
}

// A value that only the form accepts would make sshd refuse the whole file.
TEST(launcher_value_forms, sshd_accepts_every_value_that_a_form_accepts) {
    openssh_test::ensure_sshd_directory();
    const scratch_directory scratch;
    const std::string key = scratch.make_host_key();
    for (const form_case& one : form_cases()) {
        for (const std::string& value : one.good) {
            const std::string text = text_format("HostKey %s\n%s %s\n", key.c_str(), one.keyword, value.c_str());
            const auto result = openssh_test::run_sshd("-t", scratch.write("f", text));
            EXPECT_EQ(result.status, 0) << one.keyword << " " << value << ": " << result.errors;
        }
    }
}
