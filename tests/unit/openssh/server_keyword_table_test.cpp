#include <gtest/gtest.h>

#include <set>

#include "openssh/keyword_table.h"
#include "openssh/text.h"
#include "scratch.h"

using namespace openssh;
using openssh_test::scratch_directory;

TEST(launcher_keyword_table, finds_a_keyword_without_regard_to_case) {
    ASSERT_NE(find_keyword_row(server_keyword_rows(), "ratelimitqd"), nullptr);
    EXPECT_EQ(find_keyword_row(server_keyword_rows(), "RATELIMITQD")->keyword, "RateLimitQd");
    EXPECT_EQ(find_keyword_row(server_keyword_rows(), "RateLimit"), nullptr);
    EXPECT_EQ(find_keyword_row(server_keyword_rows(), ""), nullptr);
}

TEST(launcher_keyword_table, holds_every_keyword_once) {
    std::set<std::string> seen;
    for (const keyword_row& row : server_keyword_rows()) {
        EXPECT_TRUE(seen.insert(lower_case(row.keyword)).second) << row.keyword;
    }
}

TEST(launcher_keyword_table, gives_every_row_what_its_treatment_needs) {
    for (const keyword_row& row : server_keyword_rows()) {
        const bool has_value = row.how == treatment::pass || row.how == treatment::host_keys;
        const bool is_left_out = row.how == treatment::leave_out || row.how == treatment::end_of_settings;
        EXPECT_EQ(row.form != nullptr, has_value) << row.keyword;
        EXPECT_EQ(*row.reason != '\0', is_left_out) << row.keyword;
        EXPECT_TRUE(row.otherwise.empty() || row.form(row.otherwise)) << row.keyword;
    }
}

TEST(launcher_keyword_table, knows_every_keyword_that_the_agent_writes) {
    for (const char* keyword : {"Protocol",
                                "UsePAM",
                                "Port",
                                "MACs",
                                "MaxAuthTries",
                                "RekeyLimit",
                                "MaxSessions",
                                "IPQoS",
                                "PermitRootLogin",
                                "NorvoSSHFipsMode",
                                "LogLevel",
                                "WindowScaleQd",
                                "Subsystem",
                                "RateLimitQd",
                                "SessionLimitQd",
                                "Banner",
                                "AcceptedAlgorithms",
                                "LoginGraceTime",
                                "ClientAliveInterval",
                                "AllowTcpForwarding",
                                "HostTrustpointQd",
                                "UserTrustpointQd",
                                "UserTrustpointCntQd",
                                "CertUsernameQd",
                                "HostKeyAlgorithms",
                                "HostKey",
                                "Ciphers",
                                "KexAlgorithms"}) {
        EXPECT_NE(find_keyword_row(server_keyword_rows(), keyword), nullptr) << keyword;
    }
}

// sshd prints its whole configuration with -T: whatever it knows, the table knows too, so that no setting of an edited file
// is lost for want of a row.
TEST(launcher_keyword_table, knows_every_keyword_that_the_installed_sshd_prints) {
    openssh_test::ensure_sshd_directory();
    const scratch_directory scratch;
    const auto printed = openssh_test::run_sshd("-T", scratch.write("f", "HostKey " + scratch.make_host_key() + "\n"));
    ASSERT_EQ(printed.status, 0) << printed.errors;
    for (const std::string_view line : split(printed.output, "\n")) {
        const std::string_view keyword = split(line, " ").front();
        EXPECT_NE(find_keyword_row(server_keyword_rows(), keyword), nullptr) << keyword;
    }
}

// What the launcher writes, sshd must know: a keyword that it does not know makes it refuse the whole file.
TEST(launcher_keyword_table, writes_no_keyword_that_the_installed_sshd_does_not_know) {
    openssh_test::ensure_sshd_directory();
    const scratch_directory scratch;
    const std::string key_line = "HostKey " + scratch.make_host_key() + "\n";
    for (const keyword_row& row : server_keyword_rows()) {
        if (row.how == treatment::pass || row.how == treatment::list) {
            const std::string line = format_text("%s no\n", std::string(row.output_keyword()).c_str());
            const auto result = openssh_test::run_sshd("-t", scratch.write("f", key_line + line));
            EXPECT_EQ(result.errors.find("Bad configuration option"), std::string::npos) << result.errors;
        }
    }
}
