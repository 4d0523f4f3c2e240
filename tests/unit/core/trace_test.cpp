#include "core/trace.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "../agent_test.h"

namespace {

using trace_test = agent_test;

using testing::ElementsAre;

TEST_F(trace_test, both_buffers_are_created_with_their_sizes) {
    trace_initialise();
    EXPECT_THAT(fake_platform::calls_of("trace_buffer_create"),
                ElementsAre("trace_buffer_create(ssh/cfg-agent/error, 200, 12400)",
                            "trace_buffer_create(ssh/cfg-agent/event, 200, 12400)"));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
}

TEST_F(trace_test, entries_go_to_their_buffer) {
    trace_initialise();
    trace_error(trace_error_point{0x1fe}, {"file", 5});
    trace_event(trace_event_point{0x1ff}, {});
    const auto errors = fake_platform::trace_lines_of("ssh/cfg-agent/error");
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].code, 0x1feu);
    EXPECT_THAT(errors[0].arguments, ElementsAre("file", "5"));
    const auto events = fake_platform::trace_lines_of("ssh/cfg-agent/event");
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].code, 0x1ffu);
    EXPECT_THAT(events[0].arguments, ElementsAre());
}

TEST_F(trace_test, a_fourth_argument_is_dropped_and_a_null_text_is_shown) {
    trace_initialise();
    trace_error(trace_error_point{1}, {static_cast<const char*>(nullptr), 2, 3, 4});
    ASSERT_EQ(fake_platform::trace_lines().size(), 1u);
    EXPECT_THAT(fake_platform::trace_lines()[0].arguments, ElementsAre("NULL", "2", "3"));
}

TEST_F(trace_test, a_failed_buffer_is_logged_and_stays_silent) {
    fake_platform::fail("trace_buffer_create", ENOMEM, 1);
    trace_initialise();
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_LTRACE_INIT: process:=cfg-agent, trace-type:=error-trace, size:=200, "
                            "name:=ssh/cfg-agent/error, Error:=Cannot allocate memory(0xc) init failed"));
    trace_error(trace_error_point{1}, {"lost"});
    trace_event(trace_event_point{2}, {"kept"});
    ASSERT_EQ(fake_platform::trace_lines().size(), 1u);
    EXPECT_EQ(fake_platform::trace_lines()[0].buffer, "ssh/cfg-agent/event");
}

TEST_F(trace_test, the_event_buffer_is_logged_under_its_own_name) {
    fake_platform::fail("trace_buffer_create", ENOMEM, 1, 2);
    trace_initialise();
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_LTRACE_INIT: process:=cfg-agent, trace-type:=event-trace, size:=200, "
                            "name:=ssh/cfg-agent/event, Error:=Cannot allocate memory(0xc) init failed"));
}

TEST_F(trace_test, entries_are_described_by_the_table) {
    static const trace_point errors[] = {{7, "core.failed", "it failed", {}}};
    static const trace_point events[] = {{7, "core.done", "it is done", {}}};
    trace_initialise({errors, events});
    trace_error(trace_error_point{7});
    trace_event(trace_event_point{7});
    ASSERT_EQ(fake_platform::trace_lines().size(), 2u);
    EXPECT_EQ(fake_platform::trace_lines()[0].point, &errors[0]);
    EXPECT_EQ(fake_platform::trace_lines()[1].point, &events[0]);
}

TEST_F(trace_test, tracing_leaves_errno_alone) {
    trace_initialise();
    errno = EROFS;
    trace_error(trace_error_point{1}, {"a", 1});
    trace_event(trace_event_point{1}, {"a", 1});
    EXPECT_EQ(errno, EROFS);
}

}  // namespace
