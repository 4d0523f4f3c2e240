#include "platform/debug.h"

#include <vector>

#include "linux/reporting/debug_internal.h"
#include "unit/linux/platform_test_support.h"

namespace {

const platform_status invalid = EINVAL;

struct switched {
    uint32_t action;
    uint32_t id;
    bool operator==(const switched&) const = default;
};

std::vector<switched> noted;

void note_switch(uint32_t action, uint32_t id, void* context) {
    EXPECT_EQ(&noted, context);
    EXPECT_EQ(action == DEBUG_ACTION_ON ? 1 : 0, debug_flag_is_on(id)) << "the flag has its state already";
    noted.push_back({action, id});
}

/// Flags cannot be unregistered, so each process registers them once.
class debug_test : public platform_test::loop_test {
  protected:
    void SetUp() override {
        loop_test::SetUp();
        if (debug_flag_list().empty()) {
            ASSERT_EQ(0u, debug_flag_register("/debug/ssh/", 1, "server-l1", DEBUG_FLAG_TYPE, DEBUG_FLAG_LEVEL));
            ASSERT_EQ(0u, debug_flag_register("/debug/ssh/", 8, "cfg-agent", DEBUG_FLAG_TYPE, DEBUG_FLAG_LEVEL));
            ASSERT_EQ(0u, debug_flag_register("/debug/other/", 31, "last", DEBUG_FLAG_TYPE, DEBUG_FLAG_LEVEL));
            ASSERT_EQ(0u, debug_event_register(manager, "/debug/ssh/", note_switch, &noted));
        }
        for (const debug_flag_state& flag : debug_flag_list()) {
            debug_flag_set(flag.name, false);
        }
        noted.clear();
    }
};

TEST_F(debug_test, flags_are_initially_off) {
    const std::vector<debug_flag_state> flags = debug_flag_list();
    ASSERT_EQ(3u, flags.size());
    EXPECT_EQ("server-l1", flags[0].name);
    EXPECT_EQ("/debug/ssh/", flags[0].path);
    EXPECT_EQ(1u, flags[0].id);
    EXPECT_FALSE(flags[0].on);
    EXPECT_EQ(0, debug_flag_is_on(1));
}

TEST_F(debug_test, a_switched_flag_is_passed_to_the_handler_of_its_path) {
    EXPECT_EQ(0u, debug_flag_set("server-l1", true));
    EXPECT_EQ(1, debug_flag_is_on(1));
    EXPECT_EQ(0, debug_flag_is_on(8));
    EXPECT_EQ(0u, debug_flag_set("/debug/ssh/server-l1", false));
    EXPECT_EQ(0, debug_flag_is_on(1));
    EXPECT_EQ((std::vector<switched>{{DEBUG_ACTION_ON, 1}, {DEBUG_ACTION_OFF, 1}}), noted);
}

TEST_F(debug_test, a_flag_already_in_that_state_causes_no_call) {
    EXPECT_EQ(0u, debug_flag_set("cfg-agent", false));
    EXPECT_EQ(0u, debug_flag_set("cfg-agent", true));
    EXPECT_EQ(0u, debug_flag_set("cfg-agent", true));
    EXPECT_EQ((std::vector<switched>{{DEBUG_ACTION_ON, 8}}), noted);
}

TEST_F(debug_test, another_paths_handler_is_not_called) {
    EXPECT_EQ(0u, debug_flag_set("last", true));
    EXPECT_EQ(1, debug_flag_is_on(31));
    EXPECT_TRUE(noted.empty());
}

TEST_F(debug_test, an_unknown_flag_is_refused_and_off) {
    const platform_status absent = ENOENT;
    EXPECT_EQ(absent, debug_flag_set("server-l4", true));
    EXPECT_EQ(absent, debug_flag_set("", true));
    EXPECT_EQ(absent, debug_flag_set("/debug/other/server-l1", true));
    EXPECT_EQ(0, debug_flag_is_on(0));
    EXPECT_EQ(0, debug_flag_is_on(7));
    EXPECT_EQ(0, debug_flag_is_on(32));
    EXPECT_EQ(0, debug_flag_is_on(UINT32_MAX));
}

TEST_F(debug_test, refuses_invalid_registrations) {
    EXPECT_EQ(invalid, debug_flag_register(nullptr, 2, "x", DEBUG_FLAG_TYPE, 5));
    EXPECT_EQ(invalid, debug_flag_register("", 2, "x", DEBUG_FLAG_TYPE, 5));
    EXPECT_EQ(invalid, debug_flag_register("/debug/ssh", 2, "x", DEBUG_FLAG_TYPE, 5));
    EXPECT_EQ(invalid, debug_flag_register("/debug/ssh/", 0, "x", DEBUG_FLAG_TYPE, 5));
    EXPECT_EQ(invalid, debug_flag_register("/debug/ssh/", 32, "x", DEBUG_FLAG_TYPE, 5));
    EXPECT_EQ(invalid, debug_flag_register("/debug/ssh/", 2, nullptr, DEBUG_FLAG_TYPE, 5));
    EXPECT_EQ(invalid, debug_flag_register("/debug/ssh/", 2, "", DEBUG_FLAG_TYPE, 5));
    EXPECT_EQ(invalid, debug_flag_register("/debug/ssh/", 2, "x", 1, 5));
    EXPECT_EQ(invalid, debug_event_register(nullptr, "/debug/ssh/", note_switch, nullptr));
    EXPECT_EQ(invalid, debug_event_register(manager, "debug", note_switch, nullptr));
    EXPECT_EQ(invalid, debug_event_register(manager, "/debug/ssh/", nullptr, nullptr));
    const platform_status exists = EEXIST;
    EXPECT_EQ(exists, debug_flag_register("/debug/ssh/", 1, "x", DEBUG_FLAG_TYPE, 5));
    EXPECT_EQ(exists, debug_flag_register("/debug/other/", 2, "server-l1", DEBUG_FLAG_TYPE, 5))
        << "users name a flag without its path, so its name must be unique";
}

TEST_F(debug_test, a_line_goes_to_the_journal_with_its_flags_name) {
    platform_test::journal_listener journal;
    errno = ENOSPC;
    debug_write(8, "Event:=3, Config:=ssh server v2");
    EXPECT_EQ(ENOSPC, errno);
    auto entry = journal.receive_entry();
    EXPECT_EQ("Event:=3, Config:=ssh server v2", entry["MESSAGE"]);
    EXPECT_EQ("7", entry["PRIORITY"]);
    EXPECT_EQ("cfg-agent", entry["SSH_CFG_DEBUG"]);
    EXPECT_EQ("ssh_cfg_agent", entry["SYSLOG_IDENTIFIER"]);
    debug_write(99, "of no flag");
    EXPECT_EQ("of no flag", journal.receive_entry()["MESSAGE"]);
    debug_write(8, nullptr);
    EXPECT_TRUE(journal.receive_entry().empty());
}

}  // namespace
