#include "linux/control/peer.h"

#include <grp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "unit/linux/control/control_test_support.h"

namespace {

using control_test::operators;
using control_test::somebody;

constexpr gid_t administrators = control_test::operators + 1;

class control_peer_of_another_user : public testing::Test {
  protected:
    void SetUp() override {
        if (!control_test::other_users_exist()) {
            GTEST_SKIP() << "only root can become another user";
        }
    }
};

/// Whether a peer with `identity` is allowed, given these groups.
bool allowed(const std::function<void()>& identity, const control_groups& groups, control_peer* seen = nullptr) {
    const char* path = control_test::socket_path;
    const int listener = control_test::listen_at(path);
    EXPECT_EQ(0, chmod(path, 0666));
    const pid_t child = fork();
    if (child == 0) {
        identity();
        const control_test::client peer;
        pause();
        _exit(peer.is_connected() ? 0 : 1);
    }
    int fd = -1;
    for (int attempt = 0; attempt < 500 && fd < 0; attempt++) {
        fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            usleep(10'000);
        }
    }
    control_peer peer = {};
    EXPECT_EQ(0U, control_peer_read(fd, peer));
    EXPECT_EQ(peer.pid, child);
    const bool result = control_peer_admit(fd, peer, groups);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    close(fd);
    close(listener);
    if (seen != nullptr) {
        *seen = peer;
    }
    return result;
}

void become(uid_t user, gid_t group, const std::vector<gid_t>& further) {
    if (setgroups(further.size(), further.data()) != 0 || setresgid(group, group, group) != 0 ||
        setresuid(user, user, user) != 0) {
        _exit(1);
    }
}

TEST(control_peer, root_is_always_allowed) {
    control_peer peer = {};
    EXPECT_TRUE(allowed([] {}, {}, &peer));
    EXPECT_EQ(peer.uid, 0U);
    EXPECT_TRUE(allowed([] {}, {operators, administrators}));
}

TEST_F(control_peer_of_another_user, a_member_by_primary_group_is_allowed) {
    control_peer peer = {};
    EXPECT_TRUE(allowed([] { become(somebody, operators, {}); }, {operators, administrators}, &peer));
    EXPECT_EQ(peer.uid, somebody);
    EXPECT_EQ(peer.gid, operators);
}

TEST_F(control_peer_of_another_user, a_member_by_supplementary_group_is_allowed) {
    EXPECT_TRUE(allowed([] { become(somebody, somebody, {1, 2, operators}); }, {operators, administrators}));
}

TEST_F(control_peer_of_another_user, a_member_of_very_many_groups_is_allowed) {
    std::vector<gid_t> many;
    for (gid_t group = 100'000; group < 100'500; group++) {
        many.push_back(group);
    }
    many.push_back(operators);
    EXPECT_TRUE(allowed([&] { become(somebody, somebody, many); }, {operators, administrators}));
}

TEST_F(control_peer_of_another_user, others_are_not_allowed) {
    EXPECT_FALSE(allowed([] { become(somebody, somebody, {}); }, {operators, administrators}));
    EXPECT_FALSE(allowed([] { become(somebody, somebody, {1, 2, 3}); }, {operators, administrators}));
}

TEST_F(control_peer_of_another_user, without_a_group_only_root_is_allowed) {
    EXPECT_FALSE(allowed([] { become(somebody, operators, {operators}); }, {}));
}

TEST(control_peer, a_descriptor_that_is_not_a_socket_has_no_peer) {
    control_peer peer = {};
    EXPECT_NE(0U, control_peer_read(STDIN_FILENO, peer));
}

TEST_F(control_peer_of_another_user, changes_are_up_to_root_and_members_of_both_groups) {
    control_peer peer = {};
    EXPECT_TRUE(allowed([] { become(somebody, somebody, {operators}); }, {operators, administrators}, &peer));
    EXPECT_FALSE(control_peer_may_change(peer));
    EXPECT_TRUE(allowed(
        [] {
            become(somebody, somebody, {operators, administrators});
        },
        {operators, administrators}, &peer));
    EXPECT_TRUE(control_peer_may_change(peer));
    EXPECT_TRUE(allowed([] { become(somebody, administrators, {operators}); }, {operators, administrators}, &peer));
    EXPECT_TRUE(control_peer_may_change(peer));
    EXPECT_FALSE(allowed([] { become(somebody, somebody, {administrators}); }, {operators, administrators}, &peer));
    EXPECT_TRUE(allowed([] { become(somebody, operators, {}); }, {operators, std::nullopt}, &peer));
    EXPECT_FALSE(control_peer_may_change(peer)) << "a machine without the administrators' group";
    EXPECT_TRUE(allowed([] {}, {}, &peer));
    EXPECT_TRUE(control_peer_may_change(peer));
}

}  // namespace
