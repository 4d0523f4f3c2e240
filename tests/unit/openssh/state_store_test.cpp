#include "openssh/sessions/state_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "scratch.h"
#include "session_test.h"

using namespace openssh;
using namespace openssh_test;

namespace {

class stored_sessions : public testing::Test {
  protected:
    session_facts make_facts(pid_t pid, uint32_t session_id) {
        start_process(pid, server_program);
        session_facts facts;
        facts.pid = pid;
        facts.start_time = processes()[pid].info.start_time;
        facts.session_id = session_id;
        set_field(facts.user, "operator");
        table_.last_session_id = session_id;
        return facts;
    }

    session_table load() {
        session_table table = make_table();
        load_sessions(table, folder_.path());
        return table;
    }

    bool has(const std::string& name) const { return exists(folder_.file(name)); }

    scratch_directory folder_;
    session_table table_ = make_table();
};

}  // namespace

TEST_F(stored_sessions, round_trip) {
    const session_facts facts = make_facts(351, 9);
    ASSERT_TRUE(store_session(table_, facts, folder_.path()));
    const session_table table = load();
    ASSERT_EQ(table.sessions.count(351), 1U);
    EXPECT_EQ(std::memcmp(&table.sessions.at(351).facts, &facts, sizeof(facts)), 0);
    EXPECT_EQ(table.last_session_id, 9U);
}

TEST_F(stored_sessions, of_dead_processes_are_removed) {
    store_session(table_, make_facts(351, 1), folder_.path());
    store_session(table_, make_facts(352, 2), folder_.path());
    end_process(351);
    processes()[352].info.start_time += 1;
    const session_table table = load();
    EXPECT_TRUE(table.sessions.empty());
    EXPECT_FALSE(has("351"));
    EXPECT_FALSE(has("352"));
    EXPECT_EQ(table.last_session_id, 2U) << "a number is not used twice";
}

TEST_F(stored_sessions, numbering_continues_when_none_is_left) {
    store_session(table_, make_facts(351, 41), folder_.path());
    remove_stored_session(351, folder_.path());
    EXPECT_FALSE(has("351"));
    EXPECT_EQ(load().last_session_id, 41U);
}

TEST_F(stored_sessions, are_readable_only_by_root) {
    store_session(table_, make_facts(351, 1), folder_.path());
    struct stat status = {};
    ASSERT_EQ(stat(folder_.file("351").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST_F(stored_sessions, that_are_damaged_or_not_roots_are_removed) {
    store_session(table_, make_facts(351, 1), folder_.path());
    const std::string whole = text_of(folder_.file("351"));
    start_process(1, server_program);
    start_process(2, server_program);
    folder_.write("1", whole);
    folder_.write("2", whole.substr(0, whole.size() - 1));
    std::string other = whole;
    other[4] = static_cast<char>(other[4] + 1);
    folder_.write("351", other);
    folder_.write("352.new", "");
    const session_table table = load();
    EXPECT_TRUE(table.sessions.empty());
    for (const char* name : {"1", "2", "351", "352.new"}) {
        EXPECT_FALSE(has(name)) << name;
    }
}

TEST_F(stored_sessions, stay_unchanged_when_writing_fails) {
    session_facts facts = make_facts(351, 1);
    ASSERT_TRUE(store_session(table_, facts, folder_.path()));
    const std::string before = text_of(folder_.file("351"));
    set_field(facts.user, "other");
    ASSERT_EQ(mkdir(folder_.file("351.new").c_str(), 0700), 0);
    EXPECT_FALSE(store_session(table_, facts, folder_.path()));
    EXPECT_EQ(text_of(folder_.file("351")), before);
}

TEST_F(stored_sessions, without_a_folder_there_are_none) {
    session_table table = make_table();
    load_sessions(table, folder_.file("missing"));
    EXPECT_TRUE(table.sessions.empty());
    EXPECT_FALSE(store_session(table_, make_facts(351, 1), folder_.file("missing")));
}
