#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake/fake_platform.h"
#include "platform/debug.h"
#include "platform/log_message.h"
#include "platform/trace.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(fake_reports, record_log_messages) {
    const log_message_entry entry = {"%s", "FACILITY", "CATEGORY", "ERR_GENERAL", 3, 0x1E000021};
    errno = 77;
    log_message_send(&entry, "it failed");
    EXPECT_EQ(errno, 77);
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre("ERR_GENERAL: it failed"));
    EXPECT_TRUE(fake_platform::logged("ERR_GENERAL", "it failed"));
    EXPECT_FALSE(fake_platform::logged("ERR_GENERAL", "it"));
    EXPECT_EQ(fake_platform::log_lines()[0].severity, 3u);
    EXPECT_EQ(fake_platform::log_lines()[0].number, 0x1E000021u);
    EXPECT_THAT(fake_platform::calls(), IsEmpty());
}

std::vector<std::string> switched;

void remember_switch(uint32_t action, uint32_t id, void* context) {
    EXPECT_EQ(debug_flag_is_on(id), action == DEBUG_ACTION_ON ? 1 : 0);
    switched.push_back(std::to_string(action) + " " + std::to_string(id) + " " + static_cast<const char*>(context));
}

TEST(fake_reports, register_and_switch_debug_flags) {
    char context[] = "context";
    EXPECT_EQ(debug_flag_register("/debug/a/", 8, "agent", DEBUG_FLAG_TYPE, DEBUG_FLAG_LEVEL), PLATFORM_OK);
    EXPECT_EQ(debug_flag_register("/debug/a/", 32, "none", DEBUG_FLAG_TYPE, DEBUG_FLAG_LEVEL), platform_status{EINVAL});
    EXPECT_EQ(debug_event_register(nullptr, "/debug/a/", remember_switch, context), PLATFORM_OK);
    switched.clear();
    fake_platform::set_debug_flag(8, true);
    fake_platform::set_debug_flag(8, false);
    fake_platform::preset_debug_flag(9, true);
    EXPECT_THAT(switched, ElementsAre("1 8 context", "2 8 context"));
    EXPECT_EQ(debug_flag_is_on(8), 0);
    EXPECT_EQ(debug_flag_is_on(9), 1);
    EXPECT_EQ(debug_flag_is_on(1000), 0);
    ASSERT_EQ(fake_platform::debug_flags().size(), 1u);
    EXPECT_EQ(fake_platform::debug_flags()[0].name, "agent");
    EXPECT_EQ(fake_platform::count_calls("debug_flag_register(/debug/a/, 8, agent, 7, 5)"), 1u);
}

TEST(fake_reports, record_debug_lines) {
    errno = 77;
    debug_write(8, "Entered");
    EXPECT_EQ(errno, 77);
    EXPECT_TRUE(fake_platform::debugged("Entered"));
    EXPECT_EQ(fake_platform::debug_lines()[0].flag, 8u);
    fake_platform::clear_reports();
    EXPECT_THAT(fake_platform::debug_texts(), IsEmpty());
}

TEST(fake_reports, record_trace_entries_by_buffer) {
    trace_buffer* errors = nullptr;
    trace_buffer* events = nullptr;
    ASSERT_EQ(trace_buffer_create("a/error", 200, 12400, &errors), PLATFORM_OK);
    ASSERT_EQ(trace_buffer_create("a/event", 200, 12400, &events), PLATFORM_OK);
    const trace_argument arguments[] = {{"red", 0}, {nullptr, -5}};
    errno = 77;
    static const trace_point points[] = {{0x301, "vrf.restarted", "server restarted", {"vrf", "status"}}};
    trace_buffer_describe(errors, points, 1);
    trace_buffer_describe(nullptr, points, 1);
    trace_write(errors, 0x301, arguments, 2);
    trace_write(events, 0x302, nullptr, 0);
    trace_write(nullptr, 0x303, nullptr, 0);
    EXPECT_EQ(errno, 77);
    ASSERT_EQ(fake_platform::trace_lines().size(), 2u);
    ASSERT_EQ(fake_platform::trace_lines_of("a/error").size(), 1u);
    EXPECT_EQ(fake_platform::trace_lines()[0].code, 0x301u);
    EXPECT_EQ(fake_platform::trace_lines()[0].point, &points[0]);
    EXPECT_EQ(fake_platform::trace_lines()[1].point, nullptr);
    EXPECT_THAT(fake_platform::trace_lines()[0].arguments, ElementsAre("red", "-5"));
    fake_platform::fail("trace_buffer_create", ENOMEM);
    EXPECT_EQ(trace_buffer_create("a/other", 1, 1, &events), platform_status{ENOMEM});
}

TEST(fake_reports, record_fault_points) {
    fault_point points[2] = {{"one", 0}, {"two", 0}};
    EXPECT_EQ(fault_injection_register("ssh", points, 2), PLATFORM_OK);
    ASSERT_EQ(fake_platform::fault_points().size(), 2u);
    EXPECT_STREQ(fake_platform::fault_points()[1].text, "two");
    fake_platform::fail("fault_injection_register", ENOTSUP);
    EXPECT_EQ(fault_injection_register("ssh", points, 2), platform_status{ENOTSUP});
}

}  // namespace
