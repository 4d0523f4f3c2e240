#include "openssh/sessions/session_table.h"

#include <gtest/gtest.h>

#include "scratch.h"
#include "session_test.h"

using namespace openssh;
using namespace openssh_test;

namespace {

/// A page in the middle of a change.
std::string changing(std::string page) {
    page[offsetof(session_page, sequence)] |= 1;
    return page;
}

class session_table_of_a_server : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directory(numbers_);
        std::filesystem::create_directory(pages_);
        start_process(351, server_program);
        start_process(357, server_program, 351);
        table_ = make_table(pages_, numbers_);
    }

    void write_file(const session_facts& facts, const std::string& reported = "") const {
        const std::string name = session_name({.pid = facts.pid, .start_time = facts.start_time});
        const std::string page = page_of(facts);
        folder_.write("pages/" + name, page + (reported.empty() ? std::string(session_page_size, '\0') : reported));
    }

    found_file take(const std::string& name = "351.3510") { return take_server_file(table_, name); }

    const session_facts& facts(pid_t pid = 351) { return current_facts(table_, table_.sessions.at(pid)); }

    scratch_directory folder_;
    std::string pages_ = folder_.file("pages");
    std::string numbers_ = folder_.file("numbers");
    session_table table_;
};

class session_table_of_clients : public session_table_of_a_server {
  protected:
    bool take_process(pid_t pid) {
        process_info process;
        return read_simulated(pid, process) && take_client(table_, pid, process);
    }

    void change_page(pid_t pid, const std::string& page) {
        close(processes()[pid].page);
        processes()[pid].page = make_client_file(page);
    }

    void change_page(pid_t pid, const session_facts& facts) { change_page(pid, page_of(facts)); }
};

}  // namespace

TEST_F(session_table_of_a_server, a_file_of_root_s_sshd_is_a_session) {
    write_file(facts_of_session(351));
    ASSERT_EQ(take(), found_file::taken);
    EXPECT_EQ(facts().session_id, 1U);
    EXPECT_EQ(facts().kind, session_kind::incoming);
    EXPECT_STREQ(facts().user, "operator");
    EXPECT_EQ(facts().session_pid, 0) << "nothing was reported yet";
}

TEST_F(session_table_of_a_server, facts_are_those_of_the_moment) {
    write_file(facts_of_session(351));
    take();
    session_facts reported = facts_of_session(351, "root");
    reported.session_pid = 357;
    reported.channels[0] = {.state = channel_running, .id = 3, .type = connection_shell};
    write_file(facts_of_session(351), page_of(reported));
    EXPECT_EQ(facts().channels[0].id, 3U);
    EXPECT_EQ(facts().session_pid, 357);
    EXPECT_STREQ(facts().user, "operator");
    EXPECT_EQ(facts().session_id, 1U);
    folder_.write("pages/351.3510", "");
    EXPECT_EQ(facts().channels[0].id, 3U) << "as last read";
}

TEST_F(session_table_of_a_server, only_a_child_of_the_monitor_runs_its_session) {
    session_facts reported = facts_of_session(351);
    for (const pid_t claimed : {1, -1, 360, 361, 99999}) {
        start_process(360, server_program, 1);
        start_process(361, "/bin/sh", 351);
        reported.session_pid = claimed;
        write_file(facts_of_session(351), page_of(reported));
        ASSERT_EQ(take(), found_file::taken);
        EXPECT_EQ(facts().session_pid, 0) << claimed;
        forget_session(table_, 351);
    }
    // Root's session runs in the monitor itself.
    session_facts roots = facts_of_session(351);
    roots.session_pid = 351;
    write_file(roots);
    ASSERT_EQ(take(), found_file::taken);
    EXPECT_EQ(facts().session_pid, 351);
}

TEST_F(session_table_of_a_server, files_of_others_are_invalid) {
    write_file(facts_of_session(351));
    EXPECT_EQ(take("351.3511"), found_file::invalid) << "no such file";
    EXPECT_EQ(take("last"), found_file::invalid);
    EXPECT_EQ(take("../pages/351.3510"), found_file::invalid);
    folder_.write("pages/357.3570", server_file_of(facts_of_session(351)));
    EXPECT_EQ(take("357.3570"), found_file::invalid) << "the file of another process";
    write_file(facts_of_session(400));
    EXPECT_EQ(take("400.4000"), found_file::invalid) << "no such process";
    start_process(500, "/usr/bin/python3").info.is_roots = true;
    write_file(facts_of_session(500));
    EXPECT_EQ(take("500.5000"), found_file::invalid) << "another program";
    start_process(501, server_program).info.is_roots = false;
    write_file(facts_of_session(501));
    EXPECT_EQ(take("501.5010"), found_file::invalid) << "another user's sshd";
    processes()[351].info.start_time = 9999;
    EXPECT_EQ(take(), found_file::invalid) << "the process id has been reused";
    EXPECT_TRUE(table_.sessions.empty());
}

TEST_F(session_table_of_a_server, a_file_that_is_being_written_is_left_for_the_next_look) {
    const std::string page = page_of(facts_of_session(351));
    folder_.write("pages/351.3510", changing(page) + std::string(session_page_size, '\0'));
    EXPECT_EQ(take(), found_file::left_out);
    folder_.write("pages/351.3510", page + changing(page));
    EXPECT_EQ(take(), found_file::taken) << "without what the session reports";
    folder_.write("pages/351.3510", changing(page) + std::string(session_page_size, '\0'));
    EXPECT_STREQ(facts().user, "operator") << "as last read";
    end_process(351);
    EXPECT_EQ(take(), found_file::invalid) << "its process ended while writing";
}

TEST_F(session_table_of_a_server, links_and_readable_files_are_invalid) {
    folder_.write("elsewhere", server_file_of(facts_of_session(351)));
    ASSERT_EQ(symlink(folder_.file("elsewhere").c_str(), (pages_ + "/351.3510").c_str()), 0);
    EXPECT_EQ(take(), found_file::invalid);
    unlink((pages_ + "/351.3510").c_str());
    folder_.write("pages/351.3510", server_file_of(facts_of_session(351)), 0644);
    EXPECT_EQ(take(), found_file::invalid);
    unlink((pages_ + "/351.3510").c_str());
    ASSERT_EQ(mkfifo((pages_ + "/351.3510").c_str(), 0600), 0);
    EXPECT_EQ(take(), found_file::invalid);
}

TEST_F(session_table_of_a_server, is_limited) {
    for (pid_t pid = 10000; pid < 10000 + static_cast<pid_t>(most_sessions); ++pid) {
        session_entry entry;
        entry.facts.pid = pid;
        table_.sessions[pid] = entry;
    }
    write_file(facts_of_session(351));
    EXPECT_EQ(take(), found_file::left_out);
}

TEST_F(session_table_of_a_server, a_session_keeps_its_number) {
    write_file(facts_of_session(351));
    take();
    start_process(352, server_program);
    write_file(facts_of_session(352));
    ASSERT_EQ(take("352.3520"), found_file::taken);
    EXPECT_EQ(facts(352).session_id, 2U);
    session_table other = make_table(pages_, numbers_);
    load_session_numbers(other.numbers);
    ASSERT_EQ(take_server_file(other, "352.3520"), found_file::taken);
    EXPECT_EQ(other.sessions.at(352).facts.session_id, 2U);
}

TEST_F(session_table_of_a_server, a_dead_process_is_recognised) {
    write_file(facts_of_session(351));
    take();
    EXPECT_TRUE(is_alive(table_.sessions.at(351)));
    close(processes()[351].writing_end);
    EXPECT_FALSE(is_alive(table_.sessions.at(351)));
}

TEST_F(session_table_of_clients, a_page_of_any_users_client_is_a_session) {
    start_client(539);
    ASSERT_TRUE(take_process(539));
    EXPECT_EQ(facts(539).kind, session_kind::outgoing);
    EXPECT_EQ(facts(539).session_pid, 539);
    EXPECT_EQ(facts(539).user_number, some_user);
    EXPECT_STREQ(facts(539).user, "operator");
    session_facts changed = facts_of_session(539, "other");
    changed.user_number = 0;
    changed.session_id = 77;
    changed.kind = session_kind::incoming;
    change_page(539, changed);
    EXPECT_STREQ(facts(539).user, "other");
    EXPECT_EQ(facts(539).user_number, some_user) << "whatever the page says";
    EXPECT_EQ(facts(539).session_id, 1U);
    EXPECT_EQ(facts(539).kind, session_kind::outgoing);
}

TEST_F(session_table_of_clients, other_programs_have_no_sessions) {
    start_client(539).info.program = "/usr/bin/python3";
    EXPECT_FALSE(take_process(539));
    start_client(540).info.name = "ssh";
    EXPECT_FALSE(take_process(540)) << "not the router's client";
    start_client(541).info.name = std::string(client_name) + "x";
    EXPECT_FALSE(take_process(541));
    start_client(542).info.name = std::string(client_name) + " : /run/mux [mux]";
    EXPECT_TRUE(take_process(542)) << "the title of a multiplexing client";
}

TEST_F(session_table_of_clients, a_page_that_is_not_sealed_is_not_read) {
    simulated_process& process = start_client(539);
    close(process.page);
    process.page = make_client_file(page_of(facts_of_session(539)), 0);
    EXPECT_FALSE(take_process(539));
    process.page = -1;
    EXPECT_FALSE(take_process(539)) << "no page";
}

TEST_F(session_table_of_clients, a_page_that_is_being_written_still_has_its_session) {
    start_client(539);
    change_page(539, changing(page_of(facts_of_session(539))));
    EXPECT_FALSE(take_process(539)) << "not before the next look";
    change_page(539, facts_of_session(539));
    ASSERT_TRUE(take_process(539));
    change_page(539, changing(page_of(facts_of_session(539, "other"))));
    EXPECT_TRUE(still_has_page(table_, table_.sessions.at(539)));
    EXPECT_STREQ(facts(539).user, "operator") << "as last read";
}

TEST_F(session_table_of_clients, a_session_continues_in_a_child) {
    start_client(539);
    take_process(539);
    start_client(540);
    take_process(540);
    // ssh goes to the background: the page, which both share, now names the child.
    session_facts moved = facts_of_session(541);
    moved.first_pid = 539;
    moved.first_start_time = 5390;
    change_page(539, moved);
    EXPECT_FALSE(still_has_page(table_, table_.sessions.at(539)));
    EXPECT_TRUE(still_has_page(table_, table_.sessions.at(540)));
    forget_session(table_, 539);
    start_client(541, moved);
    ASSERT_TRUE(take_process(541));
    EXPECT_EQ(facts(541).session_id, 1U);
    EXPECT_STREQ(facts(541).user, "operator");
    EXPECT_FALSE(take_process(539)) << "which only shows the session";
}

TEST_F(session_table_of_clients, a_number_belongs_to_one_session) {
    start_client(539);
    take_process(539);
    session_facts forged = facts_of_session(541);
    forged.first_pid = 539;
    forged.first_start_time = 5390;
    start_client(541, forged);
    ASSERT_TRUE(take_process(541));
    EXPECT_EQ(facts(541).session_id, 2U);
    start_client(542, forged, some_user + 1);
    change_page(542, [&] {
        session_facts own = forged;
        own.pid = 542;
        return own;
    }());
    ASSERT_TRUE(take_process(542));
    EXPECT_EQ(facts(542).session_id, 3U) << "of another user";
}

TEST_F(session_table_of_clients, each_users_clients_are_limited_but_not_roots) {
    for (pid_t pid = 1000; pid < 1000 + static_cast<pid_t>(most_sessions_of_user); ++pid) {
        start_client(pid);
        ASSERT_TRUE(take_process(pid));
    }
    start_client(539);
    EXPECT_FALSE(take_process(539));
    start_client(540, facts_of_session(540), 0);
    EXPECT_TRUE(take_process(540));
    start_client(541, facts_of_session(541), some_user + 1);
    EXPECT_TRUE(take_process(541));
    write_file(facts_of_session(351));
    EXPECT_EQ(take(), found_file::taken);
}
