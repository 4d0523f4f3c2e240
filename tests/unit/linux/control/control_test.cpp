#include "linux/control/control.h"

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>

#include "unit/linux/control/control_test_support.h"
#include "unit/linux/platform_test_support.h"

using control_test::client;
using control_test::frame_of;

namespace {

constexpr char path[] = "/tmp/control_test_place.sock";

class control_test_case : public testing::Test {
  protected:
    void SetUp() override {
        unlink(path);
        ASSERT_LE(0, sd_event_new(&loop));
        std::ifstream file("/etc/group");
        groups.assign(std::istreambuf_iterator<char>(file), {});
    }
    void TearDown() override {
        control_close();
        sd_event_unref(loop);
        std::ofstream("/etc/group", std::ios::trunc) << groups;
    }

    void set_group(bool exists) {
        std::ofstream("/etc/group", std::ios::trunc)
            << "root:x:0:\n"
            << (exists ? "sshcfg:x:" + std::to_string(control_test::operators) + ":\n" : "");
    }

    bool run_until(const std::function<bool()>& done) {
        for (int turn = 0; turn < 3000 && !done(); turn++) {
            EXPECT_LE(0, sd_event_run(loop, 1000));
        }
        return done();
    }

    struct stat status() {
        struct stat result = {};
        EXPECT_EQ(0, lstat(path, &result)) << strerror(errno);
        return result;
    }

    sd_event* loop = nullptr;
    std::string groups;
};

TEST_F(control_test_case, is_open_to_root_and_the_group) {
    if (!control_test::other_users_exist()) {
        GTEST_SKIP() << "only root can use other groups";
    }
    set_group(true);
    ASSERT_EQ(0U, control_open(path));
    EXPECT_TRUE(S_ISSOCK(status().st_mode));
    EXPECT_EQ(status().st_mode & 07777, 0660U);
    EXPECT_EQ(status().st_uid, 0U);
    EXPECT_EQ(status().st_gid, control_test::operators);
    EXPECT_NE(0, access((std::string(path) + ".new").c_str(), F_OK));
}

TEST_F(control_test_case, is_open_only_to_root_without_the_group) {
    set_group(false);
    const platform_test::journal_listener journal;
    ASSERT_EQ(0U, control_open(path));
    EXPECT_EQ(status().st_mode & 07777, 0600U);
    EXPECT_NE(
        const_cast<platform_test::journal_listener&>(journal).messages().find("only root may use the control socket"),
        std::string::npos);
}

TEST_F(control_test_case, answers_after_the_start) {
    ASSERT_EQ(0U, control_open(path));
    client early(path);
    ASSERT_TRUE(early.is_connected());
    early.put(frame_of(R"({"call":"no such call"})"));
    EXPECT_FALSE(early.has_answer());
    ASSERT_EQ(0U, control_start(loop));
    EXPECT_EQ(0U, control_start(loop));
    EXPECT_TRUE(run_until([&] { return early.has_answer(); }));
    EXPECT_EQ(early.answer()["message"], "unknown call \"no such call\"");
}

TEST_F(control_test_case, answers_first_on_the_loop_of_a_standby) {
    ASSERT_EQ(0U, control_open(path));
    sd_event* standby = nullptr;
    ASSERT_LE(0, sd_event_new(&standby));
    ASSERT_EQ(0U, control_start_standby(standby));
    client first(path);
    first.put(frame_of(R"({"call":"no such call"})"));
    for (int turn = 0; turn < 3000 && !first.has_answer(); turn++) {
        ASSERT_LE(0, sd_event_run(standby, 1000));
    }
    EXPECT_EQ(first.answer()["message"], "unknown call \"no such call\"");
    control_stop_standby();
    EXPECT_TRUE(first.is_ended());
    sd_event_unref(standby);
    client second(path);
    ASSERT_TRUE(second.is_connected()) << "it waits for the next loop";
    second.put(frame_of(R"({"call":"no such call"})"));
    ASSERT_EQ(0U, control_start(loop));
    EXPECT_TRUE(run_until([&] { return second.has_answer(); }));
}

TEST_F(control_test_case, replaces_the_socket_of_a_dead_agent) {
    const int stale = control_test::listen_at(path);
    close(stale);
    client refused(path);
    EXPECT_FALSE(refused.is_connected());
    ASSERT_EQ(0U, control_open(path));
    client peer(path);
    EXPECT_TRUE(peer.is_connected());
}

TEST_F(control_test_case, leaves_a_file_that_is_not_a_socket_alone) {
    std::ofstream(path) << "another file";
    EXPECT_EQ(control_open(path), static_cast<platform_status>(EEXIST));
    EXPECT_EQ(platform_test::read_file(path), "another file");
    unlink(path);
    ASSERT_EQ(0, symlink("/tmp/elsewhere", path));
    EXPECT_EQ(control_open(path), static_cast<platform_status>(EEXIST));
    unlink(path);
}

TEST_F(control_test_case, reports_why_it_cannot_open) {
    platform_test::journal_listener journal;
    EXPECT_EQ(control_open("/nowhere/control.sock"), static_cast<platform_status>(ENOENT));
    EXPECT_EQ(control_open(("/tmp/" + std::string(200, 'x')).c_str()), static_cast<platform_status>(ENAMETOOLONG));
    EXPECT_NE(journal.messages().find("Path:=/nowhere/control.sock, Failed to open the control socket"),
              std::string::npos);
    EXPECT_EQ(0U, control_start(loop)) << "without a socket nothing is started";
}

TEST_F(control_test_case, opens_once_and_can_be_reopened) {
    ASSERT_EQ(0U, control_open(path));
    EXPECT_EQ(control_open(path), static_cast<platform_status>(EALREADY));
    control_close();
    EXPECT_NE(0, access(path, F_OK));
    control_close();
    EXPECT_EQ(0U, control_open(path));
}

TEST_F(control_test_case, refuses_peers_that_are_neither_root_nor_members) {
    if (!control_test::other_users_exist()) {
        GTEST_SKIP() << "only root can become another user";
    }
    set_group(true);
    platform_test::journal_listener journal;
    ASSERT_EQ(0U, control_open(path));
    ASSERT_EQ(0U, control_start(loop));
    // The file's mode keeps them out already; this check applies if it does not.
    ASSERT_EQ(0, chmod(path, 0666));
    const pid_t child = fork();
    if (child == 0) {
        if (setgroups(0, nullptr) != 0 ||
            setresuid(control_test::somebody, control_test::somebody, control_test::somebody) != 0) {
            _exit(3);
        }
        client stranger(path);
        stranger.put(frame_of(R"({"call":"dump"})"));
        for (int wait = 0; wait < 300 && !stranger.has_answer(); wait++) {
            usleep(10'000);
        }
        const bool refused = stranger.has_answer() && stranger.answer().value("message", "").starts_with("only root");
        _exit(refused ? 0 : 1);
    }
    int child_status = -1;
    bool child_ended = false;
    EXPECT_TRUE(run_until([&] {
        child_ended = child_ended || waitpid(child, &child_status, WNOHANG) == child;
        return child_ended;
    }));
    EXPECT_EQ(child_status, 0);
    EXPECT_NE(journal.messages().find("Control connection refused: uid:=12345"), std::string::npos);
}

}  // namespace
