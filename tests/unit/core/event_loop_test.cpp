#include "core/event_loop.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "../agent_test.h"

namespace {

using event_loop_test = agent_test;

TEST_F(event_loop_test, dispatches_events_in_order) {
    event_manager* manager = new_event_manager();
    std::string seen;
    fake_platform::queue_event([&] { seen += "a"; });
    fake_platform::queue_event([&] { seen += "b"; });
    fake_platform::throw_at_loop_end();
    EXPECT_THROW(run_event_loop(manager), fake_platform::loop_ended);
    EXPECT_EQ(seen, "ab");
}

TEST_F(event_loop_test, continues_after_a_failed_wait) {
    event_manager* manager = new_event_manager();
    int events = 0;
    fake_platform::queue_event([&] { events++; });
    fake_platform::queue_block_failure(EINTR);
    fake_platform::queue_block_failure(EIO);
    fake_platform::queue_event([&] { events++; });
    fake_platform::throw_at_loop_end();
    EXPECT_THROW(run_event_loop(manager), fake_platform::loop_ended);
    EXPECT_EQ(events, 2);
}

}  // namespace
