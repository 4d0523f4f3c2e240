#include "openssh/limits.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>

#include "aaa_pam/session_limit.h"
#include "openssh/text.h"
#include "scratch.h"

using namespace openssh;
using openssh_test::scratch_directory;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

/// The real nft; each test has its own network namespace.
class launcher_limits : public testing::Test {
  protected:
    void SetUp() override { paths_.state_directory = scratch_.path(); }

    void enforce(const server_limits& limits) { failures_ = enforce_limits(paths_, limits); }

    static std::string rules() {
        return run_programs({{"/usr/sbin/nft", "--numeric", "list", "ruleset"}}, std::chrono::seconds(20))[0].output;
    }

    scratch_directory scratch_;
    launcher_paths paths_;
    std::vector<std::string> failures_;
};

}  // namespace

TEST_F(launcher_limits, new_connections_to_all_ports_share_one_limit) {
    enforce({.connections_per_minute = 7, .ports = {"22", "830"}});
    EXPECT_THAT(failures_, IsEmpty());
    const std::string found = rules();
    EXPECT_THAT(found, HasSubstr("table inet norvo_limits"));
    EXPECT_THAT(found, HasSubstr("priority 10; policy accept;"));
    EXPECT_THAT(found,
                HasSubstr("limit rate over 7/minute burst 7 packets counter packets 0 bytes 0 reject with tcp reset"));
    EXPECT_THAT(found, HasSubstr("tcp dport { 22, 830 }"));
}

TEST_F(launcher_limits, another_value_replaces_the_table_and_leaves_others_alone) {
    run_programs({{"/usr/sbin/nft", "add table inet norvo_mpp"}}, std::chrono::seconds(20));
    enforce({.connections_per_minute = 7});
    enforce({.connections_per_minute = 600, .ports = {"2222"}});
    const std::string found = rules();
    EXPECT_THAT(found, HasSubstr("tcp dport 2222"));
    EXPECT_THAT(found, HasSubstr("600/minute burst 600"));
    EXPECT_THAT(found, Not(HasSubstr("7/minute")));
    EXPECT_THAT(found, HasSubstr("table inet norvo_mpp"));
}

TEST_F(launcher_limits, sessions_get_their_limit) {
    enforce({.sessions = 5});
    session_count count;
    EXPECT_EQ(session_limit_count(paths_.state_directory.c_str(), &count), 0);
    EXPECT_EQ(count.limit, 5U);
}

TEST_F(launcher_limits, a_limit_that_cannot_be_set_is_reported_in_one_line) {
    paths_.nft = scratch_.file("none");
    paths_.state_directory = scratch_.file("missing");
    enforce({});
    EXPECT_THAT(failures_,
                ElementsAre("the limit of 60 new connections per minute is not in force: " + paths_.nft +
                                " cannot be started: No such file or directory",
                            "the limit of 64 concurrent sessions is not in force: No such file or directory"));
    paths_.nft = scratch_.write_program("nft", "echo 'Error: no such luck' >&2; echo more >&2; exit 1\n");
    enforce({});
    EXPECT_EQ(failures_.front(), "the limit of 60 new connections per minute is not in force: " + paths_.nft +
                                     " says: Error: no such luck");
}

TEST_F(launcher_limits, the_end_of_a_server_removes_only_the_table_of_its_namespace) {
    paths_.namespace_directory = scratch_.path() + "/";
    scratch_.write("vrf-red", "");
    enforce({.connections_per_minute = 7});
    ASSERT_EQ(mount("/proc/self/ns/net", scratch_.file("vrf-red").c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(unshare(CLONE_NEWNET), 0);
    enforce({.connections_per_minute = 8});
    const int here = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(remove_limits(paths_, "vrf-red"), "");
    EXPECT_THAT(rules(), Not(HasSubstr("norvo_limits")));
    ASSERT_EQ(setns(here, CLONE_NEWNET), 0);
    EXPECT_THAT(rules(), HasSubstr("8/minute"));
    // Nothing left to remove.
    EXPECT_EQ(remove_limits(paths_, "vrf-red"), "");
    umount2(scratch_.file("vrf-red").c_str(), MNT_DETACH);
    close(here);
}

TEST_F(launcher_limits, in_a_deleted_namespace_there_is_nothing_to_remove) {
    paths_.namespace_directory = scratch_.path() + "/";
    EXPECT_EQ(remove_limits(paths_, "vrf-red"), "");
    scratch_.write("vrf-red", "");
    EXPECT_THAT(remove_limits(paths_, "vrf-red"), HasSubstr("cannot enter " + scratch_.file("vrf-red")));
}
