#include "host/shelf_link.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "../agent_test.h"
#include "core/debug.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class shelf_link_test : public agent_test {
  protected:
    shelf_link_test() {
        event_manager_create(paths::device, &agent_handles.event_manager);
        fake_platform::preset_debug_flag(debug_cfg_agent, true);
        fake_platform::clear_calls();
    }
};

TEST_F(shelf_link_test, the_callbacks_are_set_before_it_connects) {
    connect_shelf_manager();
    EXPECT_THAT(fake_platform::calls(),
                ElementsAre("event_manager_loop_handle()", "shelf_manager_create(loop)",
                            "shelf_manager_set_reload_callback()", "shelf_manager_set_connect_callback()",
                            "shelf_manager_set_disconnect_callback()", "shelf_manager_connect()"));
    EXPECT_NE(agent_handles.shelf_manager, nullptr);
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
}

TEST_F(shelf_link_test, every_connection_registers_for_reloads) {
    connect_shelf_manager();
    for (size_t times = 1; times <= 3; times++) {
        fake_platform::shelf_connected();
        EXPECT_EQ(fake_platform::count_calls("shelf_manager_register_reload"), times);
        fake_platform::shelf_disconnected();
    }
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Received connect callback from shelf-mgr, will register for system reload notification "));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Received disconnect callback from shelf-mgr"));
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
    EXPECT_EQ(fake_platform::trace_lines_of("ssh/cfg-agent/event").size(), 6u);
}

// The client retries by itself.
TEST_F(shelf_link_test, a_failed_registration_is_not_logged) {
    connect_shelf_manager();
    fake_platform::fail("shelf_manager_register_reload", EIO);
    fake_platform::shelf_connected();
    EXPECT_TRUE(fake_platform::debugged("Error:=5, sm registration for reload notification failed, CAPI will retry"));
    EXPECT_FALSE(fake_platform::trace_lines_of("ssh/cfg-agent/error").empty());
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
}

TEST_F(shelf_link_test, a_client_that_cannot_be_created_is_a_warning) {
    fake_platform::fail("shelf_manager_create", ENOMEM);
    connect_shelf_manager();
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("WARN_ERRNO: Error:=Cannot allocate memory(0xc), SM handle create failed"));
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("Error:=Cannot allocate memory(0xc), SM handle create failed"));
    EXPECT_EQ(fake_platform::count_calls("shelf_manager_connect"), 0u);
}

TEST_F(shelf_link_test, a_failed_connection_is_a_warning) {
    fake_platform::fail("shelf_manager_connect", EIO);
    connect_shelf_manager();
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("WARN_ERRNO: Error:=Input/output error(0x5), Failed to register for upgrade "
                            "notification/Sessions might not shutdown gracefully during system upgrades"));
    // The two texts differ by one space.
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("Error:=Input/output error(0x5), Failed to register for upgrade "
                            "notification/Sessions might not shutdowngracefully during system upgrades"));
}

}  // namespace
