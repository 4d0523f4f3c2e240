#include "linux/access_lists/rule_check.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "unit/linux/platform_test_support.h"

namespace {

using platform_test::read_file;
using platform_test::write_file;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char nft[] = "/usr/sbin/nft";
constexpr char good[] =
    "table ip t {\n}\nflush table ip t\ntable ip t {\n chain input {\n  type filter hook input priority 0; policy accept;\n"
    "  tcp dport 22 drop\n }\n}\n";
constexpr char bad[] = "table ip t {\n}\n\ntable ip t {\n chain c {\n  ip saddr 192.0.2.1 nonsense\n }\n}\n";

rule_check check(std::string_view text, milliseconds limit = seconds(20)) {
    return check_rules({text}, limit).at(0);
}

/// Replaces nft with a shell script.
void script_nft(const std::string& commands) {
    std::filesystem::remove(nft);
    write_file(nft, "#!/bin/sh\n" + commands + '\n');
    ASSERT_EQ(chmod(nft, 0755), 0);
}

bool exists(pid_t process) {
    return kill(process, 0) == 0;
}

/// The process id that the script has written; 0 if there is none.
pid_t written_process() {
    const std::string text = read_file("/tmp/nft_process");
    return text.empty() || text.back() != '\n' ? 0 : std::stoi(text);
}

bool eventually(const std::function<bool()>& condition) {
    for (int attempt = 0; attempt < 500 && !condition(); attempt++) {
        usleep(10000);
    }
    return condition();
}

TEST(rule_check_test, nft_checks_each_text) {
    const std::vector<rule_check> checks = check_rules({good, bad, good}, seconds(20));
    ASSERT_EQ(checks.size(), 3U);
    EXPECT_EQ(checks[0].verdict, rule_verdict::loadable) << checks[0].words;
    EXPECT_EQ(checks[2].verdict, rule_verdict::loadable) << checks[2].words;
    EXPECT_EQ(checks[1].verdict, rule_verdict::rejected);
    const std::vector<rule_complaint> complaints = rule_complaints(checks[1].words);
    ASSERT_EQ(complaints.size(), 1U) << checks[1].words;
    EXPECT_EQ(complaints[0].line, 6U);
    EXPECT_THAT(complaints[0].message, HasSubstr("syntax error, unexpected"));
    EXPECT_THAT(check_rules({}, seconds(20)), IsEmpty());
}

TEST(rule_check_test, nothing_is_loaded) {
    EXPECT_EQ(check(good).verdict, rule_verdict::loadable);
    EXPECT_EQ(platform_test::output_of("nft list tables"), "");
}

TEST(rule_check_test, nft_runs_in_a_temporary_network_namespace) {
    script_nft(
        "readlink /proc/self/ns/net > /tmp/nft_namespace; echo \"$*\" > /tmp/nft_arguments; cat > /tmp/nft_input");
    EXPECT_EQ(check("the rules").verdict, rule_verdict::loadable);
    EXPECT_EQ(read_file("/tmp/nft_arguments"), "-c -f -\n");
    EXPECT_EQ(read_file("/tmp/nft_input"), "the rules");
    const std::string its_own = read_file("/tmp/nft_namespace");
    EXPECT_THAT(its_own, testing::StartsWith("net:["));
    EXPECT_NE(its_own, std::filesystem::read_symlink("/proc/self/ns/net").string() + '\n');
    EXPECT_THAT(platform_test::output_of("lsns -t net -n -o NS"), testing::Not(HasSubstr(its_own.substr(5, 10))));
}

TEST(rule_check_test, a_hanging_nft_is_killed_and_there_is_no_result) {
    script_nft("echo $$ > /tmp/nft_process; exec sleep 1000");
    const auto before = std::chrono::steady_clock::now();
    const std::vector<rule_check> checks = check_rules({good, good}, milliseconds(300));
    EXPECT_LT(std::chrono::steady_clock::now() - before, seconds(5));
    for (const rule_check& each : checks) {
        EXPECT_EQ(each.verdict, rule_verdict::unknown);
        EXPECT_EQ(each.words, "nft did not end in time");
    }
    EXPECT_FALSE(exists(written_process()));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

TEST(rule_check_test, nft_dies_with_its_parent) {
    script_nft("echo $$ > /tmp/nft_process; exec sleep 1000");
    const pid_t agent = fork();
    if (agent == 0) {
        check(good, seconds(1000));
        _exit(0);
    }
    ASSERT_TRUE(eventually([] { return written_process() != 0; }));
    EXPECT_TRUE(exists(written_process()));
    kill(agent, SIGKILL);
    waitpid(agent, nullptr, 0);
    EXPECT_TRUE(eventually([] { return !exists(written_process()); }));
}

TEST(rule_check_test, without_nft_there_is_no_result) {
    std::filesystem::remove(nft);
    EXPECT_EQ(check(good).verdict, rule_verdict::unknown);
    EXPECT_EQ(check(good).words, "/usr/sbin/nft cannot be run: No such file or directory");
}

TEST(rule_check_test, if_nft_is_killed_there_is_no_result) {
    script_nft("kill -11 $$");
    EXPECT_EQ(check(good).verdict, rule_verdict::unknown);
    EXPECT_EQ(check(good).words, "nft was killed by signal 11");
    script_nft("exit 3");
    EXPECT_EQ(check(good).verdict, rule_verdict::unknown);
}

TEST(rule_check_test, a_silent_rejection_by_nft_is_a_rejection) {
    script_nft("exit 1");
    EXPECT_EQ(check(good).verdict, rule_verdict::rejected);
    EXPECT_EQ(check(good).words, "nft ended with status 1");
}

TEST(rule_check_test, without_descriptors_there_is_no_result) {
    const platform_test::no_descriptors_left none;
    const rule_check result = check(good);
    EXPECT_EQ(result.verdict, rule_verdict::unknown);
    EXPECT_THAT(result.words, HasSubstr("nft cannot be started: Too many open files"));
}

TEST(rule_check_test, error_messages_name_lines) {
    const std::vector<rule_complaint> complaints = rule_complaints(
        "/dev/stdin:8:17-40: Error: Could not process rule: Invalid argument\n   ip saddr x\n   ^^^\n"
        "Error: something else\nnetlink: no error\n/dev/stdin:12:1-2: Error: twelve");
    ASSERT_EQ(complaints.size(), 3U);
    EXPECT_EQ(complaints[0].line, 8U);
    EXPECT_EQ(complaints[0].message, "Could not process rule: Invalid argument");
    EXPECT_EQ(complaints[1].line, 0U);
    EXPECT_EQ(complaints[1].message, "something else");
    EXPECT_EQ(complaints[2].line, 12U);
}

}  // namespace
