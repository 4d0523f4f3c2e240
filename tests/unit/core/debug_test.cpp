#include "core/debug.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "../agent_test.h"
#include "platform/event_manager.h"

namespace {

using debug_test = agent_test;

using testing::ElementsAre;

uint32_t seen_action;
uint32_t seen_id;

void note_switch(uint32_t action, uint32_t id, void*) {
    seen_action = action;
    seen_id = id;
}

TEST_F(debug_test, prints_only_while_the_agents_flag_is_on) {
    debug_print("number:=%d", 1);
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre());
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    debug_print("number:=%d", 2);
    fake_platform::preset_debug_flag(debug_cfg_agent, false);
    debug_print("number:=%d", 3);
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("number:=2"));
}

TEST_F(debug_test, other_flags_control_their_own_prints) {
    fake_platform::preset_debug_flag(debug_telemetry, true);
    debug_print("agent");
    debug_print_for(debug_telemetry, "telemetry");
    debug_print_for(debug_syslog_proxy, "proxy");
    ASSERT_THAT(fake_platform::debug_texts(), ElementsAre("telemetry"));
    EXPECT_EQ(fake_platform::debug_lines()[0].flag, uint32_t{debug_telemetry});
}

TEST_F(debug_test, a_long_line_is_truncated) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    const std::string text(10000, 'a');
    debug_print("%s", text.c_str());
    ASSERT_EQ(fake_platform::debug_texts().size(), 1u);
    EXPECT_EQ(fake_platform::debug_texts()[0], std::string(2047, 'a'));
}

TEST_F(debug_test, printing_leaves_errno_alone) {
    errno = EXDEV;
    debug_print("off");
    EXPECT_EQ(errno, EXDEV);
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    debug_print("on");
    debug_print_for(debug_cfg_agent, "on");
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(debug_test, registers_its_flags_in_order_of_their_ids_and_then_the_handler) {
    event_manager* manager = new_event_manager();
    fake_platform::clear_calls();
    EXPECT_EQ(debug_initialise(manager, note_switch), PLATFORM_OK);
    std::string calls;
    for (const std::string& call : fake_platform::calls()) {
        calls += call + '\n';
    }
    expect_golden("core/golden/debug_flags", calls);
    fake_platform::set_debug_flag(debug_client_l2, true);
    EXPECT_EQ(seen_action, 1u);
    EXPECT_EQ(seen_id, uint32_t{debug_client_l2});
}

TEST_F(debug_test, the_first_failure_stops_the_registration) {
    event_manager* manager = new_event_manager();
    for (uint32_t call = 1; call <= 9; call++) {
        fake_platform::clear_failures();
        fake_platform::clear_calls();
        fake_platform::fail("debug_flag_register", EEXIST, 1, call);
        EXPECT_EQ(debug_initialise(manager, note_switch), uint32_t{EEXIST});
        EXPECT_EQ(fake_platform::count_calls("debug_flag_register"), call);
        EXPECT_EQ(fake_platform::count_calls("debug_event_register"), 0u);
    }
}

TEST_F(debug_test, a_failed_handler_registration_is_returned) {
    event_manager* manager = new_event_manager();
    fake_platform::fail("debug_event_register", ENOSPC);
    EXPECT_EQ(debug_initialise(manager, note_switch), uint32_t{ENOSPC});
}

}  // namespace
