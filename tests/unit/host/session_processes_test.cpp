#include "host/session_processes.h"

#include <cerrno>

#include "../agent_test.h"
#include "process_table.h"

namespace {

constexpr int wrapper_id = 4711;
constexpr char shell[] = "/bin/dash";
constexpr unsigned user = process_table::ordinary_user;

class session_processes_test : public agent_test {
  protected:
    process_table::replacement processes_;
};

}  // namespace

TEST_F(session_processes_test, the_child_of_a_session_process_is_a_session) {
    process_table::add_session(wrapper_id);
    errno = EEXIST;
    EXPECT_TRUE(is_session_process(wrapper_id));
    EXPECT_EQ(errno, EEXIST);
}

TEST_F(session_processes_test, so_is_a_child_whose_server_has_stopped) {
    for (const int parent : {process_table::listener, 1}) {
        process_table::add(process_table::session_process, parent, 0, process_table::server);
        process_table::add(wrapper_id, process_table::session_process, 0, shell);
        EXPECT_TRUE(is_session_process(wrapper_id)) << parent;
    }
}

TEST_F(session_processes_test, so_is_a_child_whose_server_was_upgraded_meanwhile) {
    const std::string former = std::string(process_table::server) + " (deleted)";
    process_table::add(process_table::listener, 1, 0, former);
    process_table::add(process_table::session_process, process_table::listener, user, former);
    process_table::add_session(wrapper_id);
    EXPECT_TRUE(is_session_process(wrapper_id));
}

TEST_F(session_processes_test, the_child_of_a_shell_is_not) {
    process_table::add_session(4000);
    process_table::add(wrapper_id, 4000, user, shell);
    EXPECT_FALSE(is_session_process(wrapper_id));
}

TEST_F(session_processes_test, the_child_of_process_1_is_not) {
    process_table::add(1, 0, 0, process_table::server);
    process_table::add(wrapper_id, 1, user, shell);
    EXPECT_FALSE(is_session_process(wrapper_id));
}

// Any user can run sshd.
TEST_F(session_processes_test, a_users_own_sshd_is_not_a_server) {
    process_table::add(3000, 1, user, process_table::server);
    process_table::add(3001, 3000, user, process_table::server);
    process_table::add(wrapper_id, 3001, user, shell);
    EXPECT_FALSE(is_session_process(wrapper_id));
}

TEST_F(session_processes_test, a_users_own_sshd_inside_a_session_is_not_a_server) {
    process_table::add(3001, process_table::session_process, user, process_table::server);
    process_table::add(wrapper_id, 3001, user, shell);
    EXPECT_FALSE(is_session_process(wrapper_id));
}

TEST_F(session_processes_test, another_program_run_by_root_is_not_a_server) {
    process_table::add(3000, 1, 0, "/usr/bin/sudo");
    process_table::add(3001, 3000, user, "/usr/bin/sudo");
    process_table::add(wrapper_id, 3001, user, shell);
    EXPECT_FALSE(is_session_process(wrapper_id));
    process_table::add(3001, 3000, user, process_table::server);
    EXPECT_FALSE(is_session_process(wrapper_id));
}

TEST_F(session_processes_test, a_process_that_does_not_exist_is_not_a_session) {
    EXPECT_FALSE(is_session_process(wrapper_id));
    process_table::add(wrapper_id, 3001, user, shell);
    EXPECT_FALSE(is_session_process(wrapper_id));
}
